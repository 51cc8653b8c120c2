// Warm restart of the IPMC remap table against the simulated chip, at 16K and 1M groups:
// a cold start programs every group; then every software object goes, the chip keeps its
// memory, and a new table syncs, lets the IPMC lookup recover its indices, reconciles the
// replayed groups, completes the replay and purges. An unchanged replay should cost no
// hardware access at all, and less time per group than the cold start.
//
//   remap_restart_bench --benchmark_counters_tabular=true
//
// The benchmark time is the warm restart (manual timing). Counters, per group:
//   cold_ns    lookup allocation + commit + write responses of the cold start
//   warm_ns    sync + lookup recovery + replay + init complete + purge
//   sync_ns, recover_ns, replay_ns, init_ns, purge_ns   the warm phases
//   warm/cold  warm_ns / cold_ns
// and, for the whole warm restart: writes, deletes (goal 0 each) and reconciled (goal N).

#include <chrono>
#include <cstdint>
#include <vector>

#include <benchmark/benchmark.h>

#include "Asic/EventLoop.h"
#include "Asic/IndexAllocator.h"
#include "ChipSim/Chip.h"
#include "ChipSim/plugins/SimTableRig.h"
#include "VelmarMcast/McastIpmcRemapTable.h"
#include "VelmarMcast/VelmarMcastTestEntryHandle.h"

namespace {

using Clock = std::chrono::steady_clock;
using Key = VelmarL3Common::L3IpmcKey;
using Status = Asic::SwTable::ReconciliationStatus;
using VelmarMcast::IngIpmcRemapTable;

constexpr std::uint32_t kTargets = 256;  // distinct remap targets shared by the groups

double nsSince(Clock::time_point start) {
   return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

const Asic::TypeDescriptor& keyType() { return Asic::vixType<Key>(); }

// A new table over the chip's remap memory, which keeps whatever it holds.
Asic::Ptr<IngIpmcRemapTable> remapTable(ChipSim::Chip& chip, std::uint32_t entries) {
   return ChipSim::simTableIs<IngIpmcRemapTable>(chip, entries).table;
}

// The L3 multicast lookup that owns IPMC indices: allocates them cold, keeps them across
// the restart in its own hardware, recovers them afterwards.
struct IpmcLookup {
   std::vector<Asic::Index> indices;
   void allocate(Asic::GenericIndexAllocator& alloc, const std::vector<Key>& keys) {
      indices.resize(keys.size());
      for (std::size_t i = 0; i < keys.size(); ++i) {
         indices[i] = alloc.newIndexForKey(keyType(), &keys[i], this);
      }
   }
   bool recover(Asic::GenericIndexAllocator& alloc, const std::vector<Key>& keys) {
      bool ok = true;
      for (std::size_t i = 0; i < keys.size(); ++i) {
         ok &= alloc.recoverIndexForKey(indices[i], keyType(), &keys[i], this);
      }
      return ok;
   }
};

void BM_RemapWarmRestart(benchmark::State& state) {
   const auto groups = static_cast<std::uint32_t>(state.range(0));
   const std::uint32_t entries = (groups + 1 + 1023) / 1024 * 1024;  // index 0 is reserved

   std::vector<Key> keys(groups);
   for (std::uint32_t n = 0; n < groups; ++n) keys[n] = Key{0xEF000000u + n, 0};
   std::vector<Asic::Ptr<VelmarMcast::VelmarMcastTestEntryHandle>> targets;
   for (std::uint32_t t = 0; t < kTargets; ++t) {
      targets.push_back(
          VelmarMcast::testEntryHandle(t + 1, Asic::SwTableBase::EntryState::success));
   }
   auto entryOf = [&](std::uint32_t n) {
      return IngIpmcRemapTable::Entry(targets[n % kTargets], static_cast<std::uint8_t>(n % 32));
   };

   double cold = 0, sync = 0, recover = 0, replay = 0, init = 0, purge = 0;
   std::uint64_t writes = 0, deletes = 0, reconciled = 0;
   for (auto _ : state) {
      Asic::EventLoop loop;
      ChipSim::Chip chip(loop, 0);
      // The chip's memory is there before the agent starts: only the table's set-up is timed.
      auto hw = ChipSim::simMemoryIs<IngIpmcRemapTable>(chip, entries);
      IpmcLookup lookup;

      auto start = Clock::now();
      auto table = remapTable(chip, entries);
      lookup.allocate(*table->indexAllocator(), keys);
      for (std::uint32_t n = 0; n < groups; ++n) table->entryCommit(keys[n], entryOf(n));
      loop.runUntilIdle();
      cold += nsSince(start);

      // Restart: every software object goes; the chip stays.
      table->detachFromChip();
      table->cleanup();
      table.reset();
      if (Asic::GenericIndexAllocatorStub::sharedAllocator(
              VelmarL3Common::L3IpmcSharedAllocator::kTypeName)) {
         state.SkipWithError("the shared allocator outlived the table");
         break;
      }
      hw->countersReset();

      const auto warmStart = Clock::now();
      table = remapTable(chip, entries);
      table->configReplayCompleteIs(false);
      table->syncEntries();
      sync += nsSince(warmStart);

      start = Clock::now();
      if (!lookup.recover(*table->indexAllocator(), keys)) {
         state.SkipWithError("the lookup could not recover its indices");
         break;
      }
      recover += nsSince(start);

      start = Clock::now();
      for (std::uint32_t n = 0; n < groups; ++n) table->entryCommit(keys[n], entryOf(n));
      replay += nsSince(start);

      start = Clock::now();
      table->doInitComplete();
      init += nsSince(start);

      start = Clock::now();
      table->purgeStaleEntries();
      loop.runUntilIdle();
      purge += nsSince(start);
      state.SetIterationTime(std::chrono::duration<double>(Clock::now() - warmStart).count());

      writes += hw->counters().writes;
      deletes += hw->counters().clears;
      reconciled += table->reconciliationStats()[Status::reconciled];
      table->cleanup();
   }

   const double perGroup = static_cast<double>(state.iterations()) * groups;
   const double warm = sync + recover + replay + init + purge;
   state.counters["cold_ns"] = cold / perGroup;
   state.counters["warm_ns"] = warm / perGroup;
   state.counters["warm/cold"] = cold > 0 ? warm / cold : 0;
   state.counters["sync_ns"] = sync / perGroup;
   state.counters["recover_ns"] = recover / perGroup;
   state.counters["replay_ns"] = replay / perGroup;
   state.counters["init_ns"] = init / perGroup;
   state.counters["purge_ns"] = purge / perGroup;
   const auto perRun = static_cast<double>(state.iterations());
   state.counters["writes"] = static_cast<double>(writes) / perRun;
   state.counters["deletes"] = static_cast<double>(deletes) / perRun;
   state.counters["reconciled"] = static_cast<double>(reconciled) / perRun;
}

BENCHMARK(BM_RemapWarmRestart)
    ->Arg(16 * 1024)
    ->Iterations(5)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
// 256K, 512K and 1M: time(2N) / time(N) shows whether any step grows faster than N.
BENCHMARK(BM_RemapWarmRestart)
    ->Arg(256 * 1024)
    ->Arg(512 * 1024)
    ->Arg(1024 * 1024)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
