// End-to-end cost of the engine on the replication list table: 64K lists of 16 egress
// objects each are committed, resolved, laid out, given scattered blocks, written as chains
// on the simulated chip and completed through the event loop; then removed. Reported per
// list and per egress object, for the sparse-only layout and for lists whose next hops fill
// dense buckets.
//
//   repl_list_engine_bench --benchmark_counters_tabular=true

#include <chrono>
#include <cstdint>
#include <vector>

#include <benchmark/benchmark.h>

#include "Asic/EventLoop.h"
#include "ChipSim/Chip.h"
#include "ChipSim/plugins/SimTableRig.h"
#include "VelmarMcast/MmuReplListTable.h"
#include "VelmarMcast/VelmarMcastTestEntryHandle.h"

namespace {

using VelmarMcast::MmuReplListTable;
using ListEntry = MmuReplListTable::Entry;
using State = Asic::SwTableBase::EntryState;

constexpr std::uint32_t kEgressPerList = 16;
constexpr std::uint32_t kEgressObjects = 4096;  // next-hop handles shared by the lists

void BM_ReplListCommitProgramComplete(benchmark::State& state) {
   const auto lists = static_cast<std::uint32_t>(state.range(0));
   const bool dense = state.range(1) != 0;
   // Sparse entries of 4 pairs: 4 indices per list either way (dense: one bucket of 16).
   const std::uint32_t indicesPerList = dense ? 1 : kEgressPerList / 4;
   const std::uint32_t entries = lists * indicesPerList + 1024;

   std::vector<Asic::Ptr<VelmarMcast::VelmarMcastTestEntryHandle>> egress;
   for (std::uint32_t i = 0; i < kEgressObjects; ++i) {
      egress.push_back(VelmarMcast::testEntryHandle(i, State::success));
   }
   std::vector<ListEntry> keys(lists);
   for (std::uint32_t n = 0; n < lists; ++n) {
      // Sparse: spread over the next hops; dense: 16 next hops of one bucket.
      const std::uint32_t base = dense ? (n % (kEgressObjects / 64)) * 64 : n;
      for (std::uint32_t e = 0; e < kEgressPerList; ++e) {
         const std::uint32_t nh = dense ? base + e : (base + e * 251) % kEgressObjects;
         keys[n].egressObjectHandleIs(egress[nh], VelmarMcast::PortList{std::uint16_t(nh % 64)});
      }
      keys[n].genIdIs(n + 1);
      keys[n].sparseEntrySizeIs(4);
      keys[n].denseEntrySizeIs(dense ? 64 : 0);
   }

   double programNs = 0, removeNs = 0;
   for (auto _ : state) {
      state.PauseTiming();
      Asic::EventLoop loop;
      ChipSim::Chip chip(loop, 0);
      auto [table, hw] = ChipSim::simTableIs<MmuReplListTable>(chip, entries);
      state.ResumeTiming();

      auto start = std::chrono::steady_clock::now();
      for (const ListEntry& key : keys) table->entryCommit(key, key);
      loop.runUntilIdle();
      programNs +=
          std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start)
              .count();

      state.PauseTiming();
      if (hw->memory().validEntries() != lists * indicesPerList) {
         state.SkipWithError("not every list was programmed");
         break;
      }
      state.ResumeTiming();

      start = std::chrono::steady_clock::now();
      for (const ListEntry& key : keys) table->entryRemove(key);
      loop.runUntilIdle();
      removeNs += std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start)
                      .count();

      state.PauseTiming();
      if (hw->memory().validEntries() != 0) state.SkipWithError("entries left after removal");
      table->cleanup();
      table.reset();
      state.ResumeTiming();
   }
   const double perList = double(lists) * double(state.iterations());
   state.counters["program_ns_per_list"] = programNs / perList;
   state.counters["program_ns_per_egress"] = programNs / perList / kEgressPerList;
   state.counters["remove_ns_per_list"] = removeNs / perList;
}

BENCHMARK(BM_ReplListCommitProgramComplete)
    ->ArgNames({"lists", "dense"})
    ->Args({64 * 1024, 0})
    ->Args({64 * 1024, 1})
    ->Iterations(2)
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
