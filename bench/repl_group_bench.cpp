// Whole multicast groups on the simulated chip, as the agent builds them: per group one IPMC
// remap entry (its target is the group's IPMC index), one replication head block of 4
// entries (one per port speed) and the 4 replication lists those entries name, 16 egress
// objects each, laid out in sparse entries of 4 (4 list entries per list). The three tables
// share one chip and one event loop, so a group costs what its three tables cost together,
// including the waits of heads on their lists.
//
// Sizes: 4K groups, and the most groups this layout can have on the chip: a head entry's
// 18-bit pointer reaches the first 256K list entries, which hold 16320 groups of 16 list
// entries (with 1024 to spare). 64K groups would need 1M list entries; that point is
// registered so that it says so instead of silently missing.
//
//   repl_group_bench --benchmark_counters_tabular=true
//
// BM_GroupCommitProgramComplete: commit every group and run the loop until every write has
// completed. Time per group (ns_per_group, cpu_ns_per_group, and groups/s as
// items_per_second), chip writes per run and per group (goal: 16 list + 4 head + 1 remap = 21).
//
// BM_GroupWarmRestart: the groups are programmed cold (not timed), the agent exits leaving
// the chip as it is, and new tables over the same memories sync, take the replay (each
// group suggests where its head block and its remap entry sat; the heads pass the head
// pointers they find down to their lists), complete the replay and purge. The time is the
// warm restart alone (manual timing), per group in warm_ns (warm_cpu_ns) and by phase, beside
// the cold start's cold_ns (cold_cpu_ns); writes and deletes must both be 0, and every list,
// head block and remap entry reconciled.

#include <time.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include "Asic/EventLoop.h"
#include "ChipSim/Chip.h"
#include "ChipSim/plugins/MmuReplHeadTableSimUtil.h"
#include "ChipSim/plugins/SimTableRig.h"
#include "Interface/EthSpeed.h"
#include "VelmarMcast/McastIpmcRemapTable.h"
#include "VelmarMcast/MmuReplHeadTable.h"
#include "VelmarMcast/MmuReplListTable.h"
#include "VelmarMcast/VelmarMcastTestEntryHandle.h"

namespace {

using Clock = std::chrono::steady_clock;
using Key = VelmarL3Common::L3IpmcKey;
using State = Asic::SwTableBase::EntryState;
using Status = Asic::SwTable::ReconciliationStatus;
using HandlePtr = Asic::Ptr<const Asic::SwTableBase::EntryHandle>;
using VelmarMcast::IngIpmcRemapTable;
using VelmarMcast::MmuReplHeadTable;
using VelmarMcast::MmuReplListTable;
using ListEntry = MmuReplListTable::Entry;

constexpr std::uint32_t kListsPerGroup = 4;  // one per port speed
constexpr std::uint32_t kEgressPerList = 16;
constexpr std::uint32_t kSparseEntrySize = 4;
constexpr std::uint32_t kEntriesPerList = kEgressPerList / kSparseEntrySize;
constexpr std::uint32_t kEgressObjects = 4096;  // next hops shared by every list
constexpr std::uint32_t kSlack = 1024;          // spare entries in each memory (and index 0)
// No list may start where a head entry cannot point, so the list memory is no larger.
constexpr std::uint32_t kListMemoryMax = ChipSim::MmuReplHeadTableSimUtil::kHeadPtrMax + 1;
constexpr std::uint32_t kMaxGroups = (kListMemoryMax - kSlack) / (kListsPerGroup * kEntriesPerList);
constexpr std::array<Interface::EthSpeed, kListsPerGroup> kSpeeds = {
    Interface::EthSpeed::speed25Gbps, Interface::EthSpeed::speed100Gbps,
    Interface::EthSpeed::speed400Gbps, Interface::EthSpeed::speed800Gbps};

double nsSince(Clock::time_point start) {
   return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

// This thread's CPU time: on a shared machine the wall clock also counts other processes'
// turns, so both are reported.
double threadCpuNs() {
   timespec ts{};
   clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
   return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}

// False, with the run marked as an error, when the groups' lists do not fit the chip.
bool fitsChip(benchmark::State& state, std::uint32_t groups) {
   if (groups <= kMaxGroups) return true;
   state.SkipWithError(fmt::format("{} groups need {} list entries; a head pointer reaches {} "
                                   "(at most {} groups)",
                                   groups, std::uint64_t{groups} * kListsPerGroup * kEntriesPerList,
                                   kListMemoryMax, kMaxGroups)
                           .c_str());
   return false;
}

// What the agent's configuration holds for N groups; built once per run, outside timing.
struct Groups {
   std::uint32_t count;
   std::vector<Asic::Ptr<VelmarMcast::VelmarMcastTestEntryHandle>> egress;  // at 0..4095
   std::vector<Asic::Ptr<VelmarMcast::VelmarMcastTestEntryHandle>> ipmc;    // group g at g
   std::vector<Key> keys;
   std::vector<ListEntry> lists;  // group g owns lists 4g .. 4g + 3

   explicit Groups(std::uint32_t n) : count(n), keys(n), lists(std::size_t{n} * kListsPerGroup) {
      for (std::uint32_t i = 0; i < kEgressObjects; ++i) {
         egress.push_back(VelmarMcast::testEntryHandle(i, State::success));
      }
      for (std::uint32_t g = 0; g < n; ++g) {
         ipmc.push_back(VelmarMcast::testEntryHandle(g, State::success));
         keys[g] = Key{0xEF000000u + g, 0};
      }
      // Egress objects spread over the next hops, so every list is sparse entries only.
      for (std::uint32_t l = 0; l < lists.size(); ++l) {
         for (std::uint32_t e = 0; e < kEgressPerList; ++e) {
            const std::uint32_t nh = (l * 7 + e * 61) % kEgressObjects;
            lists[l].egressObjectHandleIs(egress[nh],
                                          VelmarMcast::PortList{std::uint16_t(nh % 64)});
         }
         lists[l].genIdIs(l + 1);
         lists[l].sparseEntrySizeIs(kSparseEntrySize);
         lists[l].denseEntrySizeIs(0);
      }
   }

   const ListEntry& list(std::uint32_t g, std::uint32_t o) const {
      return lists[std::size_t{g} * kListsPerGroup + o];
   }
   MmuReplHeadTable::EntryBlock headBlock(
       std::uint32_t g, const std::array<HandlePtr, kListsPerGroup>& handles) const {
      MmuReplHeadTable::EntryBlock block;
      for (std::uint32_t o = 0; o < kListsPerGroup; ++o) {
         block.entryIs(o, MmuReplHeadTable::Entry(handles[o], kEgressPerList, kSpeeds[o], g));
      }
      return block;
   }
   IngIpmcRemapTable::Entry remapEntry(std::uint32_t g) const {
      return IngIpmcRemapTable::Entry(ipmc[g], static_cast<std::uint8_t>(g % 32));
   }
};

// A new table over the chip's memory for it, which keeps what it holds.
template <class Table>
Asic::Ptr<Table> tableOver(ChipSim::Chip& chip, const Asic::Ptr<ChipSim::SimHwTable>& hw) {
   return ChipSim::simTableIs<Table>(chip, hw->memory().numEntries()).table;
}

// One chip with the three memories sized for the groups, and the agent's tables over them.
struct Rig {
   Asic::EventLoop loop;
   ChipSim::Chip chip{loop, 0};
   Asic::Ptr<ChipSim::SimHwTable> remapHw, listHw, headHw;
   Asic::Ptr<IngIpmcRemapTable> remap;
   Asic::Ptr<MmuReplListTable> lists;
   Asic::Ptr<MmuReplHeadTable> heads;

   explicit Rig(std::uint32_t groups)
       : remapHw(ChipSim::simMemoryIs<IngIpmcRemapTable>(chip, groups + kSlack)),
         listHw(ChipSim::simMemoryIs<MmuReplListTable>(
             chip, groups * kListsPerGroup * kEntriesPerList + kSlack)),
         headHw(ChipSim::simMemoryIs<MmuReplHeadTable>(chip, groups * kListsPerGroup + kSlack)) {}
   Rig(const Rig&) = delete;
   Rig& operator=(const Rig&) = delete;
   ~Rig() { exit(); }

   void tablesIs() {
      remap = tableOver<IngIpmcRemapTable>(chip, remapHw);
      lists = tableOver<MmuReplListTable>(chip, listHw);
      heads = tableOver<MmuReplHeadTable>(chip, headHw);
   }
   // The agent exits: its tables let go of the chip first, so the chip keeps every entry.
   // Heads go before the lists they hold.
   void exit() {
      leave(heads);
      leave(lists);
      leave(remap);
   }
   template <class Table>
   static void leave(Asic::Ptr<Table>& table) {
      if (!table) return;
      table->detachFromChip();
      table->cleanup();
      table.reset();
   }

   struct Handles {
      HandlePtr head, remap;
   };
   Handles commitGroup(const Groups& groups, std::uint32_t g) {
      std::array<HandlePtr, kListsPerGroup> listHandles;
      for (std::uint32_t o = 0; o < kListsPerGroup; ++o) {
         const ListEntry& list = groups.list(g, o);
         listHandles[o] = lists->entryCommit(list, list);
      }
      return {heads->entryBlockCommit(groups.headBlock(g, listHandles)),
              remap->entryCommit(groups.keys[g], groups.remapEntry(g))};
   }

   ChipSim::SimHwTable::Counters counters() const {
      ChipSim::SimHwTable::Counters sum;
      for (const auto* hw : {remapHw.get(), listHw.get(), headHw.get()}) {
         sum.writes += hw->counters().writes;
         sum.failedWrites += hw->counters().failedWrites;
         sum.clears += hw->counters().clears;
      }
      return sum;
   }
   void countersReset() {
      remapHw->countersReset();
      listHw->countersReset();
      headHw->countersReset();
   }
   // Empty when the chip holds exactly the groups' entries.
   std::string programmedError(std::uint32_t groups) const {
      const std::uint64_t want[] = {groups,
                                    std::uint64_t{groups} * kListsPerGroup * kEntriesPerList,
                                    std::uint64_t{groups} * kListsPerGroup};
      const std::uint64_t got[] = {remapHw->memory().validEntries(),
                                   listHw->memory().validEntries(),
                                   headHw->memory().validEntries()};
      if (got[0] == want[0] && got[1] == want[1] && got[2] == want[2]) return {};
      return fmt::format("chip holds remap {}/{}, list {}/{}, head {}/{} entries", got[0], want[0],
                         got[1], want[1], got[2], want[2]);
   }
};

void BM_GroupCommitProgramComplete(benchmark::State& state) {
   const auto n = static_cast<std::uint32_t>(state.range(0));
   if (!fitsChip(state, n)) return;
   const Groups groups(n);

   double ns = 0, cpuNs = 0;
   std::uint64_t writes = 0;
   for (auto _ : state) {
      Rig rig(n);
      rig.tablesIs();

      const auto start = Clock::now();
      const double cpuStart = threadCpuNs();
      for (std::uint32_t g = 0; g < n; ++g) rig.commitGroup(groups, g);
      rig.loop.runUntilIdle();
      cpuNs += threadCpuNs() - cpuStart;
      const double elapsed = nsSince(start);
      state.SetIterationTime(elapsed / 1e9);
      ns += elapsed;

      const auto counters = rig.counters();
      writes += counters.writes;
      if (auto error = rig.programmedError(n); !error.empty() || counters.failedWrites) {
         state.SkipWithError(fmt::format("{}{} failed writes", error.empty() ? "" : error + "; ",
                                         counters.failedWrites)
                                 .c_str());
         break;
      }
   }
   const double runs = static_cast<double>(state.iterations());
   state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * n);
   state.counters["ns_per_group"] = ns / runs / n;
   state.counters["cpu_ns_per_group"] = cpuNs / runs / n;
   state.counters["writes"] = static_cast<double>(writes) / runs;
   state.counters["writes_per_group"] = static_cast<double>(writes) / runs / n;
}

void BM_GroupWarmRestart(benchmark::State& state) {
   const auto n = static_cast<std::uint32_t>(state.range(0));
   if (!fitsChip(state, n)) return;
   const Groups groups(n);

   double cold = 0, sync = 0, replay = 0, init = 0, purge = 0, coldCpu = 0, warmCpu = 0;
   std::uint64_t writes = 0, deletes = 0;
   std::vector<Asic::Index> headBase(n), remapIndex(n);
   for (auto _ : state) {
      Rig rig(n);
      rig.tablesIs();
      auto start = Clock::now();
      double cpuStart = threadCpuNs();
      {
         std::vector<Rig::Handles> handles;
         handles.reserve(n);
         for (std::uint32_t g = 0; g < n; ++g) handles.push_back(rig.commitGroup(groups, g));
         rig.loop.runUntilIdle();
         coldCpu += threadCpuNs() - cpuStart;
         cold += nsSince(start);
         // Where each group sat, as the agent's own state would remember it.
         for (std::uint32_t g = 0; g < n; ++g) {
            headBase[g] = handles[g].head->hwIndex();
            remapIndex[g] = handles[g].remap->hwIndex();
         }
      }
      if (auto error = rig.programmedError(n); !error.empty()) {
         state.SkipWithError(("cold start: " + error).c_str());
         break;
      }
      rig.exit();
      rig.countersReset();

      const auto warmStart = Clock::now();
      cpuStart = threadCpuNs();
      rig.tablesIs();
      rig.remap->configReplayCompleteIs(false);
      rig.lists->configReplayCompleteIs(false);
      rig.heads->configReplayCompleteIs(false);
      rig.remap->syncEntries();
      rig.lists->syncEntries();
      rig.heads->syncEntries();
      sync += nsSince(warmStart);

      start = Clock::now();
      for (std::uint32_t g = 0; g < n; ++g) {
         const auto h = rig.commitGroup(groups, g);
         Asic::SwTableBase::suggestIndicesToNeededEntryHandle(h.head.get(), {headBase[g]});
         Asic::SwTableBase::suggestIndicesToNeededEntryHandle(h.remap.get(), {remapIndex[g]});
      }
      replay += nsSince(start);

      start = Clock::now();
      rig.lists->doInitComplete();
      rig.heads->doInitComplete();
      rig.remap->doInitComplete();
      init += nsSince(start);

      start = Clock::now();
      rig.lists->purgeStaleEntries();
      rig.heads->purgeStaleEntries();
      rig.remap->purgeStaleEntries();
      rig.loop.runUntilIdle();
      warmCpu += threadCpuNs() - cpuStart;
      purge += nsSince(start);
      state.SetIterationTime(std::chrono::duration<double>(Clock::now() - warmStart).count());

      const auto counters = rig.counters();
      writes += counters.writes;
      deletes += counters.clears;
      const auto listsOk = rig.lists->reconciliationStats()[Status::reconciled];
      const auto headsOk = rig.heads->reconciliationStats()[Status::reconciled];
      const auto remapOk = rig.remap->reconciliationStats()[Status::reconciled];
      if (counters.writes || counters.clears || listsOk != std::uint64_t{n} * kListsPerGroup ||
          headsOk != n || remapOk != n) {
         state.SkipWithError(fmt::format("warm restart: {} writes, {} deletes; reconciled {} "
                                         "lists, {} head blocks, {} remap entries of {} groups",
                                         counters.writes, counters.clears, listsOk, headsOk,
                                         remapOk, n)
                                 .c_str());
         break;
      }
   }

   const double runs = static_cast<double>(state.iterations());
   const double perGroup = runs * n;
   const double warm = sync + replay + init + purge;
   state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * n);
   state.counters["cold_ns"] = cold / perGroup;
   state.counters["warm_ns"] = warm / perGroup;
   state.counters["warm/cold"] = cold > 0 ? warm / cold : 0;
   state.counters["cold_cpu_ns"] = coldCpu / perGroup;
   state.counters["warm_cpu_ns"] = warmCpu / perGroup;
   state.counters["sync_ns"] = sync / perGroup;
   state.counters["replay_ns"] = replay / perGroup;
   state.counters["init_ns"] = init / perGroup;
   state.counters["purge_ns"] = purge / perGroup;
   state.counters["writes"] = static_cast<double>(writes) / runs;
   state.counters["deletes"] = static_cast<double>(deletes) / runs;
}

// Few iterations: every one builds all the groups' tables from nothing.
void groupSizes(benchmark::internal::Benchmark* b) {
   b->ArgName("groups")->UseManualTime()->Unit(benchmark::kMillisecond);
}
BENCHMARK(BM_GroupCommitProgramComplete)->Apply(groupSizes)->Arg(4 * 1024)->Iterations(5);
BENCHMARK(BM_GroupCommitProgramComplete)->Apply(groupSizes)->Arg(kMaxGroups)->Iterations(2);
BENCHMARK(BM_GroupCommitProgramComplete)->Apply(groupSizes)->Arg(64 * 1024)->Iterations(1);
BENCHMARK(BM_GroupWarmRestart)->Apply(groupSizes)->Arg(4 * 1024)->Iterations(5);
BENCHMARK(BM_GroupWarmRestart)->Apply(groupSizes)->Arg(kMaxGroups)->Iterations(2);
BENCHMARK(BM_GroupWarmRestart)->Apply(groupSizes)->Arg(64 * 1024)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
