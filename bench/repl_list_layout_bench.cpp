// Layout of one replication list into sparse and dense hardware entries, for lists of 8, 64
// and 1024 egress objects (one port each):
//   SparseOnly      no dense entries; sparseEntrySize 4
//   DenseGathered   sparseEntrySize 4, denseEntrySize 64, consecutive next hops: every
//                   bucket of 64 becomes a dense entry
//   DenseScattered  same sizes, next hops 97 apart: no bucket reaches the threshold, so every
//                   next hop goes through the bucket buffer into the sparse stream
//
//   repl_list_layout_bench --benchmark_counters_tabular=true
//
// Each layout starts from a fresh copy of the unlaid-out entry. One iteration lays out a
// batch of such copies ("lists/iter"); only the layouts are timed (manual time), not the
// copying, so the Time column is per batch and the CPU column includes the copies. Read
// "ns/list" and "ns/egressObject", the measured cost per layout and per egress object;
// "hwEntries" is the block size of the laid-out list.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <vector>

#include <benchmark/benchmark.h>

#include "VelmarMcast/MmuReplListLayout.h"

namespace {

using VelmarMcast::MmuReplListTableEntry;
using VelmarMcast::PortList;

enum class Mode { sparseOnly, denseGathered, denseScattered };

MmuReplListTableEntry unlaidOut(Mode mode, std::uint32_t objects) {
   MmuReplListTableEntry e;
   e.genIdIs(1);
   e.sparseEntrySizeIs(4);
   e.denseEntrySizeIs(mode == Mode::sparseOnly ? 0 : 64);
   const std::uint32_t stride = mode == Mode::denseScattered ? 97 : 1;
   for (std::uint32_t i = 0; i < objects; ++i) {
      e.egressObjectIs(1 + i * stride, PortList{static_cast<std::uint16_t>(i % 48)});
   }
   return e;
}

void layout(benchmark::State& state, Mode mode) {
   const auto objects = static_cast<std::uint32_t>(state.range(0));
   const MmuReplListTableEntry fresh = unlaidOut(mode, objects);
   // About 64K egress objects per batch: enough layouts per clock reading, small enough to
   // stay in memory.
   const std::size_t batch = std::max<std::size_t>(1, 65536 / objects);
   std::vector<MmuReplListTableEntry> copies;
   double layoutNs = 0;
   for (auto _ : state) {
      // Fresh copies (and the destruction of the last batch) are outside the measured time.
      copies.assign(batch, fresh);
      const auto start = std::chrono::steady_clock::now();
      for (const MmuReplListTableEntry& e : copies) VelmarMcast::replListMetaDataIs(e);
      const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
      benchmark::DoNotOptimize(copies.data());
      state.SetIterationTime(took.count());
      layoutNs += took.count() * 1e9;
   }

   const double lists = static_cast<double>(state.iterations()) * static_cast<double>(batch);
   state.counters["lists/iter"] = static_cast<double>(batch);
   state.counters["ns/list"] = layoutNs / lists;
   state.counters["ns/egressObject"] = layoutNs / (lists * objects);
   state.counters["hwEntries"] = copies.empty() ? 0 : copies.front().getBlockSize();
   state.SetItemsProcessed(static_cast<std::int64_t>(lists) * objects);
}

BENCHMARK_CAPTURE(layout, SparseOnly, Mode::sparseOnly)
    ->Arg(8)
    ->Arg(64)
    ->Arg(1024)
    ->UseManualTime();
BENCHMARK_CAPTURE(layout, DenseGathered, Mode::denseGathered)
    ->Arg(8)
    ->Arg(64)
    ->Arg(1024)
    ->UseManualTime();
BENCHMARK_CAPTURE(layout, DenseScattered, Mode::denseScattered)
    ->Arg(8)
    ->Arg(64)
    ->Arg(1024)
    ->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
