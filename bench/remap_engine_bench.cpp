// End-to-end cost of the engine on the remap table: commit, resolve, allocate, write on
// the simulated chip, complete through the event loop, then remove every key through the
// delete dance. Beside it, a baseline doing only the unavoidable work per key (one hash
// map insert, one index allocation, one memory write; then erase, free, clear), so that
// the engine's overhead is read as a ratio from one run.

#include <sys/resource.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <absl/container/flat_hash_map.h>
#include <benchmark/benchmark.h>

#include "Asic/EventLoop.h"
#include "ChipSim/Chip.h"
#include "ChipSim/plugins/SimTableRig.h"
#include "VelmarMcast/McastIpmcRemapTable.h"
#include "VelmarMcast/VelmarMcastTestEntryHandle.h"

namespace {

using VelmarL3Common::L3IpmcKey;

long residentKiB() {
   std::ifstream status("/proc/self/status");
   std::string line;
   while (std::getline(status, line)) {
      if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
   }
   return 0;
}

std::uint32_t tableSizeFor(std::int64_t n) { return static_cast<std::uint32_t>(n + 1); }

void BM_EngineCommitProgramCompleteRemove(benchmark::State& state) {
   const auto n = static_cast<std::uint32_t>(state.range(0));
   double rssPerEntry = 0;
   for (auto _ : state) {
      state.PauseTiming();
      Asic::EventLoop loop;
      ChipSim::Chip chip(loop, 0);
      auto [table, hw] = ChipSim::simTableIs<VelmarMcast::IngIpmcRemapTable>(chip, tableSizeFor(n));
      auto target = VelmarMcast::testEntryHandle(42, Asic::SwTableBase::EntryState::success);
      const long rssBefore = residentKiB();
      state.ResumeTiming();

      for (std::uint32_t i = 0; i < n; ++i) {
         table->entryCommit(L3IpmcKey{0xE0000000u + i, 0},
                            VelmarMcast::IngIpmcRemapTableEntry(target, i & 31));
      }
      loop.runUntilIdle();

      state.PauseTiming();
      rssPerEntry = double(residentKiB() - rssBefore) * 1024.0 / n;
      if (hw->memory().validEntries() != n) state.SkipWithError("not every entry was programmed");
      state.ResumeTiming();

      for (std::uint32_t i = 0; i < n; ++i) table->entryRemove(L3IpmcKey{0xE0000000u + i, 0});
      loop.runUntilIdle();

      state.PauseTiming();
      if (hw->memory().validEntries() != 0) state.SkipWithError("entries left after removal");
      table->cleanup();
      table.reset();
      state.ResumeTiming();
   }
   state.SetItemsProcessed(state.iterations() * n);
   state.counters["ns_per_entry"] =
       benchmark::Counter(double(n) * double(state.iterations()),
                          benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
   state.counters["rss_bytes_per_entry"] = rssPerEntry;
}

void BM_BaselineInsertAllocateWrite(benchmark::State& state) {
   const auto n = static_cast<std::uint32_t>(state.range(0));
   for (auto _ : state) {
      state.PauseTiming();
      Asic::EventLoop loop;
      ChipSim::Chip chip(loop, 0);
      auto hw = chip.tableIs("ING_IPMC_REMAP", tableSizeFor(n), 1);
      auto alloc = Asic::makePtr<Asic::FirstFreeIndexAllocator>("baseline");
      alloc->numEntriesIs(tableSizeFor(n));
      alloc->reserveIndices(0, 0);
      absl::flat_hash_map<L3IpmcKey, Asic::Index, Asic::SeededHash<L3IpmcKey, 1>> map;
      const auto& type = Asic::vixType<L3IpmcKey>();
      state.ResumeTiming();

      for (std::uint32_t i = 0; i < n; ++i) {
         const L3IpmcKey key{0xE0000000u + i, 0};
         const Asic::Index index = alloc->newIndexForKey(type, &key);
         map.emplace(key, index);
         const std::array<std::uint32_t, 1> words{42u | ((i & 31u) << 16)};
         hw->entryWrite(index, words);
      }
      loop.runUntilIdle();
      for (std::uint32_t i = 0; i < n; ++i) {
         const L3IpmcKey key{0xE0000000u + i, 0};
         auto it = map.find(key);
         hw->entryClear(it->second);
         alloc->releaseIndexFromTable(type, &key, nullptr);
         map.erase(it);
      }
      loop.runUntilIdle();
   }
   state.SetItemsProcessed(state.iterations() * n);
   state.counters["ns_per_entry"] =
       benchmark::Counter(double(n) * double(state.iterations()),
                          benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

BENCHMARK(BM_EngineCommitProgramCompleteRemove)
    ->Arg(16 << 10)
    ->Arg(1 << 20)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);
BENCHMARK(BM_BaselineInsertAllocateWrite)
    ->Arg(16 << 10)
    ->Arg(1 << 20)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
