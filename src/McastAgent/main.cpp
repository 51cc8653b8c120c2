// The reference agent's entry point. For now it runs an end-to-end demonstration on the
// simulated chip, in two parts. IPMC remap entries are committed, follow their needed
// IPMC-index handles, get indices from the shared allocator, are written, complete through
// the event loop and are removed again. Then whole multicast groups: replication lists over
// next-hop handles (sparse and dense entries, chains over scattered indices), head blocks of
// consecutive entries naming them and remap entries naming each group's IPMC index, committed
// heads first. They survive a warm restart: the tables are rebuilt over the chip, the IPMC
// lookup keeps its indices, each group suggests its head block's base index, the heads pass
// the head pointers the chip holds down to their lists, nothing is rewritten, and the groups
// left out of the replay are purged. Every step is read back from the chip's memory.

#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <vector>

#include <fmt/format.h>
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "Asic/EventLoop.h"
#include "ChipSim/Chip.h"
#include "ChipSim/plugins/IngIpmcRemapTableSimUtil.h"
#include "ChipSim/plugins/MmuReplHeadTableSimUtil.h"
#include "ChipSim/plugins/MmuReplListTableSimUtil.h"
#include "VelmarMcast/McastIpmcRemapTable.h"
#include "VelmarMcast/MmuReplHeadTable.h"
#include "VelmarMcast/MmuReplListTable.h"
#include "VelmarMcast/VelmarMcastTestEntryHandle.h"

namespace {

using State = Asic::SwTableBase::EntryState;

// Plug-ins sit in <build>/plugins; the binary in <build>/src/McastAgent.
void defaultPluginPath() {
   if (std::getenv("VELMAR_PLUGIN_PATH")) return;
   std::error_code ec;
   auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
   if (ec) return;
   auto dir = exe.parent_path().parent_path().parent_path() / "plugins";
   setenv("VELMAR_PLUGIN_PATH", dir.c_str(), 0);
}

struct DemoOptions {
   std::uint32_t groups = 1000;
   std::uint32_t entries = 4096;
   std::uint32_t lists = 1000;
   std::uint32_t egress = 16;
   bool json = false;
};

bool runRemapDemo(const DemoOptions& opt, nlohmann::json& report) {
   if (opt.groups + 1 > opt.entries) {
      throw CLI::ValidationError("--groups",
                                 fmt::format("{} groups do not fit a table of {} entries "
                                             "(index 0 is reserved)",
                                             opt.groups, opt.entries));
   }
   Asic::EventLoop loop;
   ChipSim::Chip chip(loop, 0);
   auto hw =
       chip.tableIs("ING_IPMC_REMAP", opt.entries, ChipSim::IngIpmcRemapTableSimUtil::kEntryWords);
   auto table = VelmarMcast::ingIpmcRemapTableFactory();
   if (!table->utilIfExists()) {
      throw std::runtime_error(
          "no Util for VelmarMcast::IngIpmcRemapTable: set VELMAR_PLUGIN_PATH "
          "to the directory holding AsicFeature/");
   }
   table->hwTableIs(hw);
   table->doCreateAllocator();

   // The IPMC indices are owned by the L3 multicast lookup; here each group's target is a
   // handle that becomes programmed at index 1000 + n after the commit.
   std::vector<Asic::Ptr<VelmarMcast::VelmarMcastTestEntryHandle>> targets;
   std::uint64_t successes = 0;
   for (std::uint32_t n = 0; n < opt.groups; ++n) {
      targets.push_back(VelmarMcast::testEntryHandle());
      VelmarMcast::IngIpmcRemapTableEntry entry(
          targets.back(), n % 32, [&successes](State s) { successes += s == State::success; });
      table->entryCommit(VelmarL3Common::L3IpmcKey{0xEF000000u + n, 0}, entry);
   }
   const auto waiting = table->unresolvedEntries().size();
   for (std::uint32_t n = 0; n < opt.groups; ++n) targets[n]->programmedIs(1000 + n);
   const auto writesBeforeResponses = hw->counters().writes;
   loop.runUntilIdle();

   // Read the chip back: every group's entry carries its target index and profile.
   std::uint32_t verified = 0;
   for (std::uint32_t n = 0; n < opt.groups; ++n) {
      const auto* eh = table->entryWeakRef(VelmarL3Common::L3IpmcKey{0xEF000000u + n, 0});
      std::array<std::uint32_t, 1> words{};
      if (eh && hw->entryRead(eh->hwIndex(), words)) {
         auto e = ChipSim::IngIpmcRemapTableSimUtil::decode(words);
         verified += e.remappedIpmcIndex == 1000 + n && e.strengthProfile == n % 32;
      }
   }
   const auto programmed = hw->memory().validEntries();

   for (std::uint32_t n = 0; n < opt.groups; ++n) {
      table->entryRemove(VelmarL3Common::L3IpmcKey{0xEF000000u + n, 0});
   }
   loop.runUntilIdle();
   const auto left = hw->memory().validEntries();
   const auto used = table->indexAllocator()->totalUsedIndices();
   table->cleanup();

   report["remap"] = {
       {"groups", opt.groups},
       {"waitingForIpmcIndex", waiting},
       {"writes", writesBeforeResponses},
       {"successCallbacks", successes},
       {"entriesInChip", programmed},
       {"entriesVerified", verified},
       {"entriesLeftAfterRemoval", left},
       {"indicesUsedAfterRemoval", used},
       {"deletes", hw->counters().clears},
   };
   if (!opt.json) {
      fmt::print("IPMC remap on the simulated chip ({} entries)\n", opt.entries);
      fmt::print("  committed {} groups, {} waiting for their IPMC index\n", opt.groups, waiting);
      fmt::print("  IPMC indices programmed: {} remap writes, {} success callbacks\n",
                 writesBeforeResponses, successes);
      fmt::print("  chip holds {} entries, {} verified against their groups\n", programmed,
                 verified);
      fmt::print(
          "  removed all: {} entries left, {} indices used (the reserved index 0), {} "
          "deletes\n",
          left, used, hw->counters().clears);
   }
   return verified == opt.groups && successes == opt.groups && left == 0 && used == 1;
}

using VelmarMcast::MmuReplListTable;
using ListEntry = MmuReplListTable::Entry;

using VelmarMcast::MmuReplHeadTable;

template <typename Table>
Asic::Ptr<Table> tableOver(const Asic::Ptr<ChipSim::SimHwTable>& hw) {
   auto table = Asic::swTableFactory<Table>();
   if (!table->utilIfExists()) {
      throw std::runtime_error(fmt::format("no Util for {}: set VELMAR_PLUGIN_PATH to the "
                                           "directory holding AsicFeature/",
                                           Table::kTypeName));
   }
   table->hwTableIs(hw);
   table->doCreateAllocator();
   return table;
}

// The head block of group g: one entry per port speed, each naming one of the group's lists.
constexpr std::uint32_t kListsPerGroup = 4;
MmuReplHeadTable::EntryBlock headBlock(
    std::uint32_t group, const std::vector<Asic::Ptr<const Asic::SwTableBase::EntryHandle>>& lists,
    std::uint32_t egress, Asic::Index ipmcIndex) {
   static constexpr std::array<Interface::EthSpeed, kListsPerGroup> speeds = {
       Interface::EthSpeed::speed25Gbps, Interface::EthSpeed::speed100Gbps,
       Interface::EthSpeed::speed400Gbps, Interface::EthSpeed::speed800Gbps};
   MmuReplHeadTable::EntryBlock block;
   for (std::uint32_t o = 0; o < kListsPerGroup && group * kListsPerGroup + o < lists.size(); ++o) {
      block.entryIs(o, MmuReplHeadTable::Entry(lists[group * kListsPerGroup + o],
                                               static_cast<std::uint16_t>(egress), speeds[o],
                                               ipmcIndex));
   }
   return block;
}

// Even lists spread their egress objects over the next hops (sparse entries only); odd
// lists take consecutive next hops of one bucket, which the layout gathers into a dense
// entry.
std::vector<ListEntry> replicationLists(
    const DemoOptions& opt,
    const std::vector<Asic::Ptr<VelmarMcast::VelmarMcastTestEntryHandle>>& nextHops) {
   std::vector<ListEntry> lists(opt.lists);
   const auto hops = static_cast<std::uint32_t>(nextHops.size());
   for (std::uint32_t n = 0; n < opt.lists; ++n) {
      const bool dense = n % 2 == 1;
      for (std::uint32_t e = 0; e < opt.egress; ++e) {
         const std::uint32_t nh = dense ? (n / 2 % (hops / 64)) * 64 + e : (n * 7 + e * 61) % hops;
         lists[n].egressObjectHandleIs(nextHops[nh],
                                       VelmarMcast::PortList{static_cast<std::uint16_t>(nh % 64)});
      }
      lists[n].genIdIs(n + 1);
      lists[n].sparseEntrySizeIs(4);
      lists[n].denseEntrySizeIs(dense ? 64 : 0);
   }
   return lists;
}

// The L3 multicast lookup owns each group's IPMC index in the remap table's shared
// allocator; across the restart it keeps the indices of the groups it still has.
struct IpmcLookup {
   std::vector<VelmarL3Common::L3IpmcKey> keys;
   std::vector<Asic::Index> indices;
   static const Asic::TypeDescriptor& keyType() { return Asic::vixType<VelmarL3Common::L3IpmcKey>(); }
   void allocate(Asic::GenericIndexAllocator& alloc, std::uint32_t groups) {
      for (std::uint32_t g = 0; g < groups; ++g) {
         keys.push_back(VelmarL3Common::L3IpmcKey{0xEF100000u + g, 0});
         indices.push_back(alloc.newIndexForKey(keyType(), &keys.back(), this));
      }
   }
   bool recover(Asic::GenericIndexAllocator& alloc, std::uint32_t g) {
      return alloc.recoverIndexForKey(indices[g], keyType(), &keys[g], this);
   }
};

// Whole groups: a remap entry naming the group's IPMC index, a head block naming the
// group's lists, and the lists, committed in the opposite order of their needs.
bool runListDemo(const DemoOptions& opt, nlohmann::json& report) {
   Asic::EventLoop loop;
   ChipSim::Chip chip(loop, 0);
   const std::uint32_t entries = opt.lists * ((opt.egress + 3) / 4) + 1024;
   auto hw = chip.tableIs(ChipSim::ReplListFormat::kMemory, entries,
                          ChipSim::ReplListFormat::kEntryWords);
   const std::uint32_t groups = (opt.lists + kListsPerGroup - 1) / kListsPerGroup;
   auto headHw = chip.tableIs(ChipSim::MmuReplHeadTableSimUtil::kMemory, opt.lists + 1024,
                              ChipSim::MmuReplHeadTableSimUtil::kEntryWords);
   auto remapHw = chip.tableIs("ING_IPMC_REMAP", groups + 1024,
                               ChipSim::IngIpmcRemapTableSimUtil::kEntryWords);
   auto table = tableOver<MmuReplListTable>(hw);
   auto heads = tableOver<MmuReplHeadTable>(headHw);
   auto remaps = tableOver<VelmarMcast::IngIpmcRemapTable>(remapHw);
   IpmcLookup lookup;
   lookup.allocate(*remaps->indexAllocator(), groups);
   auto remapEntry = [&](std::uint32_t g) {
      return VelmarMcast::IngIpmcRemapTableEntry(
          VelmarMcast::testEntryHandle(lookup.indices[g], State::success), g % 32);
   };

   // Next hops of the egress-object tables, already programmed at indices 0..4095.
   std::vector<Asic::Ptr<VelmarMcast::VelmarMcastTestEntryHandle>> nextHops;
   for (Asic::Index i = 0; i < 4096; ++i) {
      nextHops.push_back(VelmarMcast::testEntryHandle(i, Asic::SwTableBase::EntryState::success));
   }
   const std::vector<ListEntry> lists = replicationLists(opt, nextHops);
   // The heads are committed before the lists they name, and wait for them.
   std::vector<Asic::Ptr<const Asic::SwTableBase::EntryHandle>> listHandles;
   for (std::uint32_t g = 0; g < groups; ++g) {
      remaps->entryCommit(lookup.keys[g], remapEntry(g));
   }
   {
      // References to lists not committed yet: the lists' own handles once they are.
      for (const ListEntry& list : lists) listHandles.push_back(table->entryRef(list, list));
      for (std::uint32_t g = 0; g < groups; ++g) {
         heads->entryBlockCommit(
             headBlock(g, listHandles, opt.egress, lookup.indices[g]));
      }
      for (const ListEntry& list : lists) table->entryCommit(list, list);
   }
   listHandles.clear();
   loop.runUntilIdle();
   const auto coldWrites = hw->counters().writes;
   const auto coldHeadWrites = headHw->counters().writes;

   // Read the chip back: each list is a chain from its first index over exactly its
   // indices, holding exactly its entries.
   ChipSim::MmuReplListTableSimUtil util;
   std::uint32_t verified = 0;
   for (const ListEntry& list : lists) {
      const auto* eh = table->entryWeakRef(list);
      if (!eh) continue;
      verified +=
          ChipSim::chainAt<ChipSim::ReplListFormat>(*hw, eh->hwIndex()) == table->hwIndices(list) &&
          util.compareHwEntries(*table, eh->hwIndex(), table->entry(list));
   }
   const auto programmed = hw->memory().validEntries();
   // Each group's head block, read back: its entries point at the first index of its lists.
   std::vector<Asic::Index> headBase(groups, Asic::invalidIndex);
   std::uint32_t headsVerified = 0;
   for (std::uint32_t g = 0; g < groups; ++g) {
      std::vector<Asic::Ptr<const Asic::SwTableBase::EntryHandle>> handles(lists.size());
      for (std::uint32_t o = 0; o < kListsPerGroup && g * kListsPerGroup + o < lists.size(); ++o) {
         handles[g * kListsPerGroup + o] = table->entryWeakRef(lists[g * kListsPerGroup + o]);
      }
      const auto block = headBlock(g, handles, opt.egress, lookup.indices[g]);
      const auto* eh = heads->entryWeakRef(block);
      if (!eh) continue;
      headBase[g] = eh->hwIndex();
      bool ok = true;
      for (const auto& [o, entry] : block.entryInternal()) {
         ChipSim::MmuReplHeadTableSimUtil::Words words{};
         ok = ok && headHw->entryRead(eh->hwIndex() + o, words) &&
              ChipSim::MmuReplHeadTableSimUtil::decode(words).headPtr ==
                  entry.headPtrHandle->hwIndex();
      }
      headsVerified += ok;
   }

   std::uint32_t remapsVerified = 0;
   for (std::uint32_t g = 0; g < groups; ++g) {
      const auto* eh = remaps->entryWeakRef(lookup.keys[g]);
      std::array<std::uint32_t, 1> words{};
      remapsVerified +=
          eh && remapHw->entryRead(eh->hwIndex(), words) &&
          ChipSim::IngIpmcRemapTableSimUtil::decode(words).remappedIpmcIndex == lookup.indices[g];
   }
   const auto coldRemapWrites = remapHw->counters().writes;

   // Warm restart: every software object goes, the chip stays. One group in ten is left
   // out of the replay (the lookup lets go of its index); each other group suggests where
   // its head block sits, and the heads pass down where their lists sit.
   table->detachFromChip();
   heads->detachFromChip();
   remaps->detachFromChip();
   remaps->cleanup();
   heads->cleanup();
   table->cleanup();
   table = tableOver<MmuReplListTable>(hw);
   heads = tableOver<MmuReplHeadTable>(headHw);
   remaps = tableOver<VelmarMcast::IngIpmcRemapTable>(remapHw);
   for (auto* t : {static_cast<Asic::SwTable*>(table.get()), static_cast<Asic::SwTable*>(heads.get()),
                   static_cast<Asic::SwTable*>(remaps.get())}) {
      t->configReplayCompleteIs(false);
   }
   table->syncEntries();
   heads->syncEntries();
   remaps->syncEntries();
   const auto synced = table->syncedEntries().size();
   hw->countersReset();
   headHw->countersReset();
   remapHw->countersReset();
   std::uint32_t replayed = 0, dropped = 0, groupsReplayed = 0;
   for (std::uint32_t g = 0; g < groups; ++g) {
      std::vector<Asic::Ptr<const Asic::SwTableBase::EntryHandle>> handles(lists.size());
      const bool drop = g % 10 == 9;
      for (std::uint32_t o = 0; o < kListsPerGroup && g * kListsPerGroup + o < lists.size(); ++o) {
         const ListEntry& list = lists[g * kListsPerGroup + o];
         if (drop) {
            ++dropped;
            continue;
         }
         handles[g * kListsPerGroup + o] = table->entryCommit(list, list);
         ++replayed;
      }
      if (drop) continue;
      auto eh = heads->entryBlockCommit(headBlock(g, handles, opt.egress, lookup.indices[g]));
      Asic::SwTableBase::suggestIndicesToNeededEntryHandle(eh.get(), {headBase[g]});
      if (!lookup.recover(*remaps->indexAllocator(), g)) {
         throw std::runtime_error(fmt::format("IPMC lookup: index {} of group {} not recovered",
                                              lookup.indices[g], g));
      }
      remaps->entryCommit(lookup.keys[g], remapEntry(g));
      ++groupsReplayed;
   }
   table->doInitComplete();
   heads->doInitComplete();
   remaps->doInitComplete();
   table->purgeStaleEntries();
   heads->purgeStaleEntries();
   remaps->purgeStaleEntries();
   loop.runUntilIdle();
   using Status = Asic::SwTable::ReconciliationStatus;
   const auto& stats = table->reconciliationStats();
   const auto warmWrites =
       hw->counters().writes + headHw->counters().writes + remapHw->counters().writes;
   const auto warmDeletes =
       hw->counters().clears + headHw->counters().clears + remapHw->counters().clears;
   const auto afterPurge = hw->memory().validEntries();

   remaps->entryRemoveAll();
   heads->entryBlockRemoveAll();
   loop.runUntilIdle();
   for (std::uint32_t n = 0; n < opt.lists; ++n) table->entryRemove(lists[n]);
   loop.runUntilIdle();
   const auto left = hw->memory().validEntries() + headHw->memory().validEntries() +
                     remapHw->memory().validEntries();
   const auto used = table->indexAllocator()->totalUsedIndices();
   const auto& headStats = heads->reconciliationStats();
   const auto headsReconciled = headStats[Status::reconciled];
   const auto remapsReconciled = remaps->reconciliationStats()[Status::reconciled];
   remaps->cleanup();
   heads->cleanup();
   table->cleanup();

   report["replicationLists"] = {
       {"lists", opt.lists},
       {"egressObjectsPerList", opt.egress},
       {"coldWrites", coldWrites},
       {"entriesInChip", programmed},
       {"listsVerified", verified},
       {"headBlocks", groups},
       {"headWrites", coldHeadWrites},
       {"headBlocksVerified", headsVerified},
       {"remapWrites", coldRemapWrites},
       {"remapEntriesVerified", remapsVerified},
       {"warmRestart",
        {{"listsSynced", synced},
         {"listsReplayed", replayed},
         {"reconciled", stats[Status::reconciled]},
         {"headBlocksReplayed", groupsReplayed},
         {"headBlocksReconciled", headsReconciled},
         {"remapEntriesReconciled", remapsReconciled},
         {"staleListsPurged", stats[Status::staleEntryDeleted]},
         {"writes", warmWrites},
         {"deletes", warmDeletes},
         {"entriesInChip", afterPurge}}},
       {"entriesLeftAfterRemoval", left},
       {"indicesUsedAfterRemoval", used},
   };
   if (!opt.json) {
      fmt::print("Multicast groups (remap entry, head block, replication lists) on the simulated "
                 "chip ({} list entries)\n",
                 entries);
      fmt::print("  committed {} lists of {} egress objects: {} writes, {} entries in the chip\n",
                 opt.lists, opt.egress, coldWrites, programmed);
      fmt::print("  {} lists read back as chains equal to what was committed\n", verified);
      fmt::print("  {} head blocks: {} writes, {} read back pointing at their lists\n", groups,
                 coldHeadWrites, headsVerified);
      fmt::print("  {} remap entries: {} writes, {} read back naming their IPMC index\n", groups,
                 coldRemapWrites, remapsVerified);
      fmt::print(
          "  warm restart: {} lists synced from the chip, {} replayed, {} reconciled, {} "
          "stale purged\n",
          synced, replayed, stats[Status::reconciled], stats[Status::staleEntryDeleted]);
      fmt::print("    {} groups replayed: {} head blocks and {} remap entries reconciled in place\n",
                 groupsReplayed, headsReconciled, remapsReconciled);
      fmt::print("    {} writes, {} deletes; {} entries in the chip\n", warmWrites, warmDeletes,
                 afterPurge);
      fmt::print("  removed all: {} entries left, {} indices used (the reserved index 0)\n", left,
                 used);
   }
   return verified == opt.lists && headsVerified == groups && remapsVerified == groups &&
          synced == opt.lists && headsReconciled == groupsReplayed &&
          remapsReconciled == groupsReplayed && stats[Status::reconciled] == replayed &&
          stats[Status::staleEntryDeleted] == dropped && warmWrites == 0 && left == 0 && used == 1;
}

int runDemo(const DemoOptions& opt) {
   nlohmann::json report;
   const bool remapOk = runRemapDemo(opt, report);
   const bool listsOk = runListDemo(opt, report);
   if (opt.json) std::cout << report.dump(2) << "\n";
   if (!remapOk || !listsOk) std::cerr << "demo: the chip does not hold what was committed\n";
   return remapOk && listsOk ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
   defaultPluginPath();
   CLI::App app{"Reference multicast agent over the simulated chip"};
   app.require_subcommand(1);
   DemoOptions opt;
   auto* demo = app.add_subcommand(
       "demo",
       "IPMC remap entries and replication lists: commit, program, verify, restart, remove");
   demo->add_option("--groups", opt.groups, "number of multicast groups")
       ->check(CLI::Range(1u, 1u << 20));
   demo->add_option("--entries", opt.entries, "entries of the chip's remap table")
       ->check(CLI::Range(2u, 1u << 24));
   demo->add_option("--lists", opt.lists, "number of replication lists")
       ->check(CLI::Range(1u, 1u << 18));
   demo->add_option("--egress", opt.egress, "egress objects per replication list")
       ->check(CLI::Range(1u, 64u));
   demo->add_flag("--json", opt.json, "print the report as JSON");
   CLI11_PARSE(app, argc, argv);
   try {
      return runDemo(opt);
   } catch (const CLI::Error& e) {
      return app.exit(e);
   } catch (const std::exception& e) {
      std::cerr << "mcast_agent: " << e.what() << "\n";
      return 1;
   }
}
