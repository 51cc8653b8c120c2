#include "McastAgent/Agent.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <set>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "AsicSwTable/SwTableLibrary.h"
#include "ChipSim/NeighbourFormats.h"
#include "ChipSim/ReplListFormat.h"
#include "ChipSim/plugins/MmuRqeReplPortAggMapRegisterSimUtil.h"
#include "McastAgent/Walk.h"
#include "VelmarMcast/McastIpmcRemapTable.h"
#include "VelmarMcast/MmuReplHeadTable.h"
#include "VelmarMcast/MmuReplListL2SubPortTable.h"
#include "VelmarMcast/MmuReplListTable.h"
#include "VelmarMcast/MmuRqeReplPortAggMapRegister.h"
#include "VelmarMcast/VelmarMcastTestEntryHandle.h"

namespace McastAgent {

namespace {

using State = Asic::SwTableBase::EntryState;
using HandlePtr = Asic::Ptr<const Asic::SwTableBase::EntryHandle>;
using Status = Asic::SwTable::ReconciliationStatus;
using VelmarMcast::IngIpmcRemapTable;
using VelmarMcast::MmuReplHeadTable;
using VelmarMcast::MmuReplListL2SubPortTable;
using VelmarMcast::MmuReplListTable;
using VelmarMcast::MmuRqeReplPortAggMapRegister;
using Register = MmuRqeReplPortAggMapRegister;

template <typename Table>
Asic::Ptr<Table> tableOver(const Asic::Ptr<ChipSim::SimHwTable>& hw) {
   auto table = Asic::swTableFactory<Table>();
   if (!table->utilIfExists()) {
      throw std::runtime_error(
          fmt::format("no Util for {}: set VELMAR_PLUGIN_PATH to the "
                      "directory holding AsicFeature/",
                      Table::kTypeName));
   }
   table->hwTableIs(hw);
   table->doCreateAllocator();
   return table;
}

bool programmed(State s) { return s == State::success || s == State::indexReconciled; }
bool failed(State s) { return s == State::programFailed || s == State::failedNeededEntry; }

// A neighbour memory the agent writes itself: writes only what differs, counts what it does.
template <typename Format>
class NeighbourMemory {
 public:
   using HwEntry = typename Format::HwEntry;
   explicit NeighbourMemory(ChipSim::Memory& memory) : memory_(memory) {}

   std::optional<HwEntry> read(Asic::Index index) const {
      typename Format::Words words{};
      if (!memory_.read(index, words)) return std::nullopt;
      try {
         return Format::decode(words);
      } catch (const std::invalid_argument&) {
         return std::nullopt;  // unreadable: rewritten or cleared like any stale entry
      }
   }
   void write(Asic::Index index, const HwEntry& entry) {
      if (read(index) == entry) return;
      memory_.write(index, Format::encode(entry));
      ++counts.writes;
   }
   void clear(Asic::Index index) {
      typename Format::Words words{};
      if (!memory_.read(index, words)) return;
      memory_.clear(index);
      ++counts.deletes;
   }
   template <typename Fn>
   void forEach(Fn&& fn) const {
      memory_.forEachValid([&](Asic::Index index, ChipSim::Memory::Words) {
         if (auto entry = read(index)) fn(index, *entry);
      });
   }
   std::uint64_t entries() const { return memory_.validEntries(); }

   TableCounts counts;

 private:
   ChipSim::Memory& memory_;
};

class Phases {
 public:
   Phases(RunReport& report, bool progress) : report_(report), progress_(progress) {}
   template <typename Fn>
   void run(const char* name, Fn&& fn) {
      const auto start = std::chrono::steady_clock::now();
      fn();
      const double ms =
          std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
              .count();
      report_.phasesMs.emplace_back(name, ms);
      if (progress_ && ms > 1000.0)
         fmt::print(stderr, "mcast_agent: {}: {:.1f} s\n", name, ms / 1000);
   }

 private:
   RunReport& report_;
   bool progress_;
};

// One group of the configuration as the agent holds it during the run.
struct GroupState {
   const Group* config = nullptr;
   VelmarL3Common::L3IpmcKey key;
   Asic::Index ipmcIndex = Asic::invalidIndex;
   bool recovered = false;                    // the chip had this group at ipmcIndex
   std::optional<Asic::Index> oldHeadBase;    // its head block on the chip before the run
   std::optional<Asic::Index> headSuggested;  // the block offered to its head block
   std::vector<HandlePtr> lists;              // per replication list, in config order
   HandlePtr head;                            // its head block, when it has replication
   std::uint32_t blockSize = 0;
   Asic::Ptr<VelmarMcast::VelmarMcastTestEntryHandle> replication;  // the remap target
   HandlePtr remap;
};

class Run {
 public:
   Run(ChipMemories& chip, const Config& config, const RunOptions& options)
       : chip_(chip),
         config_(config),
         options_(options),
         phases_(report_, options.progress),
         ipmc_(chip.ipmc->memory()),
         group_(chip.group->memory()),
         nextHop_(chip.nextHop->memory()) {}

   RunReport go() {
      report_.warm = anyValid();
      if (options_.checkEveryWrite) watchWrites();
      phases_.run("mount", [&] { mount(); });
      if (report_.warm) phases_.run("sync", [&] { sync(); });
      phases_.run("replay", [&] { replay(); });
      phases_.run("initComplete", [&] { initComplete(); });
      phases_.run("settle", [&] { settle(); });
      if (options_.auditAllocation) {
         findAllocationFaults();
         detach();
         return std::move(report_);
      }
      phases_.run("neighbourPurge", [&] { purgeNeighbours(); });
      report();
      if (options_.before) outcomes();
      detach();
      return std::move(report_);
   }

 private:
   // Make-before-break: what each group replicates to before the run and after it; after
   // every chip operation each group must show one or the other.
   void watchWrites() {
      struct Sets {
         std::optional<ReplicationSet> before, after;
      };
      auto sets = std::make_shared<std::map<std::pair<std::uint32_t, std::uint32_t>, Sets>>();
      for (const WalkedGroup& g : walkChip(chip_).groups) {
         (*sets)[{g.vrf, g.groupAddr}].before = replicationSet(g);
      }
      for (const Group& g : config_.groups) {
         (*sets)[{g.vrf, g.groupAddr}].after = replicationSet(config_, g);
      }
      chip_.faults().observerIs([this, sets](const std::string& memory, Asic::Index index) {
         ++report_.operationsChecked;
         std::map<std::pair<std::uint32_t, std::uint32_t>, const WalkedGroup*> now;
         const Walk walk = walkChip(chip_);
         for (const WalkedGroup& g : walk.groups) now[{g.vrf, g.groupAddr}] = &g;
         for (const auto& [key, s] : *sets) {
            auto it = now.find(key);
            const ReplicationSet set =
                it == now.end() ? ReplicationSet{} : replicationSet(*it->second);
            const bool inBoth = s.before && s.after && !s.before->empty() && !s.after->empty();
            const bool ok = (set.empty() && !inBoth) || (s.before && set == *s.before) ||
                            (s.after && set == *s.after);
            if (ok) continue;
            if (++report_.violationCount > 20) continue;
            report_.violations.push_back(fmt::format(
                "after operation {} ({}[{}]): group {}@{} replicates to {}; before: {}; "
                "configured: {}",
                report_.operationsChecked, memory, index, ipv4ToString(key.second), key.first,
                toText(set), s.before ? toText(*s.before) : "absent",
                s.after ? toText(*s.after) : "absent"));
         }
      });
   }

   bool anyValid() const {
      for (const auto& [name, t] : chip_.chip().tables()) {
         if (t->memory().validEntries() != 0) return true;
      }
      return false;
   }

   void mount() {
      lists_ = tableOver<MmuReplListTable>(chip_.list);
      l2_ = tableOver<MmuReplListL2SubPortTable>(chip_.l2SubPort);
      heads_ = tableOver<MmuReplHeadTable>(chip_.head);
      remaps_ = tableOver<IngIpmcRemapTable>(chip_.remap);
      register_ = tableOver<Register>(chip_.portAgg);
      for (const auto& [name, t] : chip_.chip().tables()) t->countersReset();
      if (options_.before) {
         report_.dryRun = true;
         forEachNamedTable([&](Asic::SwTable& t, const char* name) {
            t.reconciliationObserverIs([this, name](Status s, Asic::Index i, std::string_view) {
               events_.push_back({name, s, i});
            });
         });
      }
   }

   template <typename Fn>
   void forEachNamedTable(Fn&& fn) {
      fn(static_cast<Asic::SwTable&>(*lists_), "list");
      fn(static_cast<Asic::SwTable&>(*l2_), "l2subport");
      fn(static_cast<Asic::SwTable&>(*heads_), "head");
      fn(static_cast<Asic::SwTable&>(*remaps_), "remap");
      fn(static_cast<Asic::SwTable&>(*register_), "portagg");
   }

   template <typename Fn>
   void forEachTable(Fn&& fn) {
      fn(static_cast<Asic::SwTable&>(*lists_));
      fn(static_cast<Asic::SwTable&>(*l2_));
      fn(static_cast<Asic::SwTable&>(*heads_));
      fn(static_cast<Asic::SwTable&>(*remaps_));
      fn(static_cast<Asic::SwTable&>(*register_));
   }

   void sync() {
      forEachTable([](Asic::SwTable& t) { t.configReplayCompleteIs(false); });
      lists_->syncEntries();
      l2_->syncEntries();
      heads_->syncEntries();
      remaps_->syncEntries();
      register_->syncEntries();
      // Indices nobody replays keep forwarding through the restart.
      register_->autoCommitSyncedEntries();
      chip_.l2SubPort->forEachValidEntry([&](Asic::Index index, Asic::HwTable::Words words) {
         try {
            auto e = ChipSim::L2SubPortFormat::decode(words);
            l2OnChip_.emplace(std::make_pair(e.mode, e.bitmapWords), index);
         } catch (const std::invalid_argument&) {
            // Not an entry: left to the purge.
         }
      });
      ipmc_.forEach([&](Asic::Index index, const ChipSim::IpmcLookupFormat::HwEntry& e) {
         ipmcOnChip_.emplace(VelmarL3Common::L3IpmcKey{e.groupAddr, e.vrf}, index);
      });
      // What each group replicates to now, for the groups that own their replication.
      for (const WalkedGroup& g : walkChip(chip_).groups) {
         if (g.remappedIpmcIndex == g.ipmcIndex) {
            replicationOnChip_.emplace(VelmarL3Common::L3IpmcKey{g.groupAddr, g.vrf},
                                       replicationSet(g));
         }
      }
   }

   void replay() {
      // Egress objects: the agent's own, at the index the configuration gives them.
      for (const NextHop& nh : config_.nextHops) {
         nextHop_.write(nh.id, {nh.port, nh.vlan});
         nextHops_.emplace(nh.id, VelmarMcast::testEntryHandle(nh.id, State::success));
      }
      // Every group's IPMC index, owned by the L3 multicast lookup in the remap table's
      // shared allocator. After a restart a group keeps the index the chip has for it.
      groups_.resize(config_.groups.size());
      auto& alloc = *remaps_->indexAllocator();
      const auto& keyType = Asic::vixType<VelmarL3Common::L3IpmcKey>();
      for (std::size_t i = 0; i < config_.groups.size(); ++i) {
         GroupState& g = groups_[i];
         g.config = &config_.groups[i];
         g.key = {g.config->groupAddr, g.config->vrf};
         if (auto it = ipmcOnChip_.find(g.key);
             it != ipmcOnChip_.end() &&
             alloc.recoverIndexForKey(it->second, keyType, &g.key, this)) {
            g.ipmcIndex = it->second;
            g.recovered = true;
         }
      }
      // A dropped group's index stays out of use until the purge has taken its entries off
      // the chip, so that no new group inherits them half-way.
      std::set<VelmarL3Common::L3IpmcKey> wanted;
      for (const GroupState& g : groups_) wanted.insert(g.key);
      for (const auto& [key, index] : ipmcOnChip_) {
         if (!wanted.contains(key)) alloc.holdIndex(index);
      }
      for (GroupState& g : groups_) {
         if (g.ipmcIndex == Asic::invalidIndex) {
            g.ipmcIndex = alloc.newIndexForKey(keyType, &g.key, this);
         }
         if (g.ipmcIndex == Asic::invalidIndex) {
            throw std::runtime_error(fmt::format("group {}: no IPMC index left", g.config->name));
         }
         ipmc_.write(g.ipmcIndex, {g.key.groupAddr, g.key.vrfId});
         byName_.emplace(g.config->name, &g);
      }
      // Lists first, then the head blocks that name them (each suggesting where the chip
      // holds it), then the remap entries: each table finds what it needs already replayed.
      for (GroupState& g : groups_) {
         for (const ReplicationList& list : g.config->replication) {
            const MmuReplListTable::Entry entry = listEntry(list);
            g.lists.push_back(lists_->entryCommit(entry, entry));
         }
      }
      for (const L2SubPortList& l : config_.l2SubPorts) {
         Ulm::PerUnitBitmap bitmap;
         for (std::uint32_t p : l.subPorts) bitmap.bitIs(p, true);
         const MmuReplListL2SubPortTable::Entry entry(l.mode, bitmap);
         l2Handles_.push_back(l2_->entryCommit(entry, entry));
         // Nothing on the chip points at an L2 sub-port list, so the agent, which uses it,
         // says where the chip holds an equal one.
         if (auto it = l2OnChip_.find({l.mode, bitmap.words()}); it != l2OnChip_.end()) {
            l2Suggested_[l2Handles_.size() - 1] = it->second;
            Asic::SwTableBase::suggestIndicesToNeededEntryHandle(l2Handles_.back().get(),
                                                                 {it->second});
         }
      }
      for (GroupState& g : groups_) {
         g.replication = VelmarMcast::testEntryHandle();
         if (g.config->replication.empty()) continue;
         MmuReplHeadTable::EntryBlock block;
         for (std::size_t o = 0; o < g.config->replication.size(); ++o) {
            const ReplicationList& list = g.config->replication[o];
            std::uint32_t replications = 0;
            for (const Egress& e : list.egress) replications += e.ports.size();
            block.entryIs(
                o, MmuReplHeadTable::Entry(g.lists[o], static_cast<std::uint16_t>(replications),
                                           list.speed, g.ipmcIndex));
         }
         g.blockSize = block.entryInternal().size();
         g.head = heads_->entryBlockCommit(block);
         if (auto onChip = g.recovered ? group_.read(g.ipmcIndex) : std::nullopt) {
            // A group whose replication changed gets a new head block (and new lists where
            // they changed) beside the old one, and switches over with one write of its
            // replication group entry: rewriting the old block in place would replicate to
            // a mix of old and new lists in between.
            g.oldHeadBase = onChip->headBase;
            if (unchangedOnChip(g)) {
               g.headSuggested = onChip->headBase;
               Asic::SwTableBase::suggestIndicesToNeededEntryHandle(g.head.get(),
                                                                    {onChip->headBase});
            }
            // The chip already replicates this group: remap entries can point at it now.
            g.replication->programmedIs(g.ipmcIndex);
         }
      }
      for (GroupState& g : groups_) {
         const GroupState& target = *byName_.at(config_.replicationOf(*g.config).name);
         g.remap = remaps_->entryCommit(
             g.key, IngIpmcRemapTable::Entry(target.replication, g.config->strengthProfile));
      }
      for (const PortAggregation& a : config_.portAggregation) {
         Ulm::PerUnitBitmap members(ChipSim::MmuRqeReplPortAggMapRegisterSimUtil::kPorts);
         for (std::uint32_t p : a.members) members.bitIs(p, true);
         portAgg_.emplace(a.index, register_->entryCommit(a.index, Register::Entry(members)));
      }
   }

   bool unchangedOnChip(const GroupState& g) const {
      auto it = replicationOnChip_.find(g.key);
      return it != replicationOnChip_.end() && it->second == replicationSet(config_, *g.config);
   }

   MmuReplListTable::Entry listEntry(const ReplicationList& list) const {
      MmuReplListTable::Entry entry;
      for (const Egress& e : list.egress) {
         VelmarMcast::PortList ports;
         for (std::uint16_t p : e.ports) ports.portIs(p);
         entry.egressObjectHandleIs(nextHops_.at(e.nextHop), ports);
      }
      entry.genIdIs(list.generation);
      entry.sparseEntrySizeIs(list.sparseSize);
      entry.denseEntrySizeIs(list.denseSize);
      return entry;
   }

   void initComplete() {
      if (!report_.warm) return;
      lists_->doInitComplete();
      l2_->doInitComplete();
      heads_->doInitComplete();
      remaps_->doInitComplete();
      register_->doInitComplete();
      // Make before break: what the replay programmed anew completes, and the replication
      // groups switch to it, before the purge takes away what they pointed at. Then whoever
      // points at an entry goes before it: remap entries, then head blocks, then the lists.
      settle();
      if (options_.auditAllocation) return;  // the audit looks at what the purge would remove
      remaps_->purgeStaleEntries();
      heads_->purgeStaleEntries();
      lists_->purgeStaleEntries();
      l2_->purgeStaleEntries();
      register_->purgeStaleEntries();
      // Adopted register values the configuration does not have go now.
      std::vector<Asic::Index> unwanted;
      for (auto it = register_->entryIteratorConst(); it; ++it) {
         if (!portAgg_.contains(it.key())) unwanted.push_back(it.key());
      }
      for (Asic::Index index : unwanted) register_->entryRemove(index);
   }

   // Runs the chip's write responses; each head block that completes gets its replication
   // group entry, which lets the remap entries that wait for it resolve.
   void settle() {
      for (;;) {
         chip_.loop().runUntilIdle();
         bool more = false;
         for (GroupState& g : groups_) {
            if (!g.head || !programmed(g.head->entryState())) continue;
            group_.write(g.ipmcIndex, {g.head->hwIndex(), g.blockSize});
            if (g.replication->entryState() != State::success) {
               g.replication->programmedIs(g.ipmcIndex);
               more = true;
            }
         }
         if (!more) break;
      }
   }

   void purgeNeighbours() {
      std::vector<bool> owned(ChipLimits::kIpmcIndices);
      std::vector<bool> replicates(ChipLimits::kIpmcIndices);
      for (const GroupState& g : groups_) {
         owned[g.ipmcIndex] = true;
         replicates[g.ipmcIndex] = !g.config->replication.empty();
      }
      std::vector<Asic::Index> stale;
      group_.forEach([&](Asic::Index i, const auto&) {
         if (!replicates[i]) stale.push_back(i);
      });
      for (Asic::Index i : stale) group_.clear(i);
      stale.clear();
      ipmc_.forEach([&](Asic::Index i, const auto&) {
         if (!owned[i]) stale.push_back(i);
      });
      for (Asic::Index i : stale) ipmc_.clear(i);
      stale.clear();
      nextHop_.forEach([&](Asic::Index i, const auto&) {
         if (!config_.nextHop(i)) stale.push_back(i);
      });
      for (Asic::Index i : stale) nextHop_.clear(i);
   }

   template <typename Table>
   TableCounts countsOf(const Table& table, const ChipSim::SimHwTable& hw) const {
      TableCounts c;
      c.writes = hw.counters().writes;
      c.deletes = hw.counters().clears;
      const auto& stats = table.reconciliationStats();
      c.reconciled = {stats[Status::notReconciled], stats[Status::reconciled],
                      stats[Status::indexReconciledContentsDiffer],
                      stats[Status::nothingToReconcile]};
      c.stalePurged = stats[Status::staleEntryDeleted];
      c.entries = hw.memory().validEntries();
      return c;
   }

   void failedIs(const char* table, const std::string& key, const HandlePtr& eh) {
      if (eh && failed(eh->entryState())) {
         report_.failed.push_back({table, key, fmt::format("{}", eh->entryState())});
      }
   }

   void report() {
      report_.tables.emplace_back("nexthop", nextHop_.counts);
      report_.tables.back().second.entries = nextHop_.entries();
      report_.tables.emplace_back("list", countsOf(*lists_, *chip_.list));
      report_.tables.emplace_back("l2subport", countsOf(*l2_, *chip_.l2SubPort));
      report_.tables.emplace_back("head", countsOf(*heads_, *chip_.head));
      report_.tables.emplace_back("group", group_.counts);
      report_.tables.back().second.entries = group_.entries();
      report_.tables.emplace_back("ipmc", ipmc_.counts);
      report_.tables.back().second.entries = ipmc_.entries();
      report_.tables.emplace_back("remap", countsOf(*remaps_, *chip_.remap));
      report_.tables.emplace_back("portagg", countsOf(*register_, *chip_.portAgg));
      for (const GroupState& g : groups_) {
         for (std::size_t o = 0; o < g.lists.size(); ++o) {
            failedIs(
                "list",
                fmt::format("{}/{}", g.config->name, speedName(g.config->replication[o].speed)),
                g.lists[o]);
         }
         failedIs("head", g.config->name, g.head);
         failedIs("remap", g.config->name, g.remap);
         if (!g.config->replication.empty() && g.replication->entryState() != State::success) {
            report_.failed.push_back({"group", g.config->name, "unresolved"});
         }
      }
      for (std::size_t i = 0; i < l2Handles_.size(); ++i) {
         failedIs("l2subport", fmt::format("/l2SubPorts/{}", i), l2Handles_[i]);
      }
      for (const auto& [index, eh] : portAgg_) failedIs("portagg", fmt::format("{}", index), eh);
   }

   // The chip keeps everything for the next process: the tables let go of it first, so
   // their clean-up deletes nothing.
   void detach() {
      if (options_.checkEveryWrite) chip_.faults().observerIs({});
      if (options_.before) {
         forEachNamedTable([](Asic::SwTable& t, const char*) { t.reconciliationObserverIs({}); });
      }
      lists_->detachFromChip();
      l2_->detachFromChip();
      heads_->detachFromChip();
      remaps_->detachFromChip();
      register_->detachFromChip();
      groups_.clear();
      l2Handles_.clear();
      portAgg_.clear();
      remaps_->cleanup();
      heads_->cleanup();
      register_->cleanup();
      l2_->cleanup();
      lists_->cleanup();
   }

   ChipMemories& chip_;
   const Config& config_;
   RunOptions options_;
   RunReport report_;
   Phases phases_;
   NeighbourMemory<ChipSim::IpmcLookupFormat> ipmc_;
   NeighbourMemory<ChipSim::ReplGroupFormat> group_;
   NeighbourMemory<ChipSim::NextHopFormat> nextHop_;
   Asic::Ptr<MmuReplListTable> lists_;
   Asic::Ptr<MmuReplListL2SubPortTable> l2_;
   Asic::Ptr<MmuReplHeadTable> heads_;
   Asic::Ptr<IngIpmcRemapTable> remaps_;
   Asic::Ptr<Register> register_;
   std::map<VelmarL3Common::L3IpmcKey, Asic::Index> ipmcOnChip_;
   std::map<VelmarL3Common::L3IpmcKey, ReplicationSet> replicationOnChip_;
   std::map<std::pair<std::uint32_t, std::vector<std::uint32_t>>, Asic::Index> l2OnChip_;
   std::map<std::uint32_t, Asic::Ptr<VelmarMcast::VelmarMcastTestEntryHandle>> nextHops_;
   std::vector<GroupState> groups_;
   std::map<std::string, GroupState*> byName_;
   std::vector<HandlePtr> l2Handles_;
   std::map<std::size_t, Asic::Index> l2Suggested_;  // by position in l2Handles_
   std::map<Asic::Index, HandlePtr> portAgg_;

   // --- a dry run's detail ----------------------------------------------------------------
   struct Event {
      const char* table;
      Status status;
      Asic::Index index;
   };
   std::vector<Event> events_;

   // Who in the configuration a key of a library table is.
   struct Owner {
      std::string name;
      const GroupState* group = nullptr;
      std::size_t offset = 0;  // its list's position in the group
      std::optional<std::size_t> l2;
   };

   std::map<std::pair<std::string, Asic::Index>, std::vector<Owner>> owners() const {
      std::map<std::pair<std::string, Asic::Index>, std::vector<Owner>> out;
      for (const GroupState& g : groups_) {
         out[{"remap", g.ipmcIndex}].push_back({g.config->name, &g, 0, std::nullopt});
         if (g.head)
            out[{"head", g.head->hwIndex()}].push_back({g.config->name, &g, 0, std::nullopt});
         for (std::size_t o = 0; o < g.lists.size(); ++o) {
            out[{"list", g.lists[o]->hwIndex()}].push_back(
                {fmt::format("{}/{}", g.config->name, speedName(g.config->replication[o].speed)),
                 &g, o, std::nullopt});
         }
      }
      for (std::size_t i = 0; i < l2Handles_.size(); ++i) {
         out[{"l2subport", l2Handles_[i]->hwIndex()}].push_back(
             {fmt::format("/l2SubPorts/{}", i), nullptr, 0, i});
      }
      for (const auto& [index, eh] : portAgg_) {
         out[{"portagg", index}].push_back(
             {fmt::format("portAggregation {}", index), nullptr, 0, std::nullopt});
      }
      return out;
   }

   static std::optional<nlohmann::json> decodedAt(ChipMemories& chip, const std::string& table,
                                                  Asic::Index index) {
      ChipSim::SimHwTable& hw = memoryOf(chip, table);
      if (index >= hw.memory().numEntries()) return std::nullopt;
      std::vector<std::uint32_t> words(hw.memory().entryWords());
      if (!hw.entryRead(index, words)) return std::nullopt;
      try {
         return decodeEntry(table, words);
      } catch (const std::exception& e) {
         return nlohmann::json{{"fault", e.what()}};
      }
   }

   // The indices of the key or stale entry at `index` in `chip`: a list's chain, a head
   // block's run, else the index alone.
   static std::vector<Asic::Index> indicesAt(ChipMemories& chip, const std::string& table,
                                             Asic::Index index, std::uint32_t runSize) {
      try {
         if (table == "list") return ChipSim::chainAt<ChipSim::ReplListFormat>(*chip.list, index);
         if (table == "l2subport") {
            return ChipSim::chainAt<ChipSim::L2SubPortFormat>(*chip.l2SubPort, index);
         }
      } catch (const std::exception&) {
         // A chain that cannot be followed: its first entry alone.
      }
      std::vector<Asic::Index> out;
      for (std::uint32_t o = 0; o < std::max(runSize, 1u); ++o) out.push_back(index + o);
      return out;
   }

   static std::vector<std::string> fieldDifferences(const nlohmann::json& was,
                                                    const nlohmann::json& now) {
      std::vector<std::string> out;
      std::set<std::string> fields;
      for (const auto& [k, v] : was.items()) fields.insert(k);
      for (const auto& [k, v] : now.items()) fields.insert(k);
      for (const std::string& f : fields) {
         const auto a = was.contains(f) ? was[f].dump() : "(none)";
         const auto b = now.contains(f) ? now[f].dump() : "(none)";
         if (a != b) out.push_back(fmt::format("{}: {} -> {}", f, a, b));
      }
      return out;
   }

   std::vector<std::string> rewrittenFields(const std::string& table, Asic::Index index,
                                            std::uint32_t blockSize) {
      ChipMemories& before = *options_.before;
      const auto was = indicesAt(before, table, index, blockSize);
      const auto now = indicesAt(chip_, table, index, blockSize);
      std::vector<std::string> out;
      for (std::size_t k = 0; k < std::max(was.size(), now.size()); ++k) {
         const auto a = k < was.size() ? decodedAt(before, table, was[k]) : std::nullopt;
         const auto b = k < now.size() ? decodedAt(chip_, table, now[k]) : std::nullopt;
         const std::string where =
             was.size() + now.size() > 2 ? fmt::format("entry {}: ", k) : std::string();
         if (!a || !b) {
            out.push_back(fmt::format("{}{} -> {}", where, a ? a->dump() : "(none)",
                                      b ? b->dump() : "(none)"));
            continue;
         }
         for (const std::string& d : fieldDifferences(*a, *b)) out.push_back(where + d);
      }
      return out;
   }

   std::string addedReason(const std::string& table, Asic::Index index, const Owner* owner) const {
      ChipMemories& before = *options_.before;
      if (memoryOf(before, table).memory().validEntries() == 0) {
         return "the chip held no entry of this table";
      }
      const GroupState* g = owner ? owner->group : nullptr;
      if (table == "head" && g) {
         if (!g->recovered) return "new group: the chip had no replication group for it";
         if (g->headSuggested) {
            return fmt::format(
                "the block at {} was offered but refused (taken by another key, or it "
                "differs in size)",
                *g->headSuggested);
         }
         if (g->oldHeadBase) {
            return fmt::format(
                "replication changed: written beside the old block at {}, which the group "
                "leaves with one write before the purge",
                *g->oldHeadBase);
         }
         return "the chip had no replication group entry to offer a block";
      }
      if (table == "remap" && g && !g->recovered) {
         return "new group: the chip had no lookup entry for it";
      }
      if (table == "list" && g) {
         if (g->headSuggested) {
            const auto head = decodedAt(before, "head", *g->headSuggested + owner->offset);
            if (head && head->contains("headPtr")) {
               return fmt::format(
                   "the list at {} that its group's block names was refused (taken by "
                   "another key, or of another length)",
                   (*head)["headPtr"].dump());
            }
            return "its group's block on the chip names no list at its position";
         }
         if (!g->recovered) return "new group: no head block on the chip names it";
         return "its group's replication changed: no head block offered an index";
      }
      if (table == "l2subport" && owner && owner->l2) {
         if (auto it = l2Suggested_.find(*owner->l2); it != l2Suggested_.end()) {
            return fmt::format("the equal list at {} was refused (taken by another key)",
                               it->second);
         }
         return "no equal list on the chip";
      }
      if (!decodedAt(before, table, index)) {
         return fmt::format("no synced entry: the chip held nothing at index {}", index);
      }
      return fmt::format("the entry at index {} was taken over by another key", index);
   }

   void outcomes() {
      using Kind = KeyOutcome::Kind;
      const auto byIndex = owners();
      if (!report_.warm) {
         // A cold start reconciles nothing (and counts nothing): every key is new.
         for (const auto& [where, owners] : byIndex) {
            added(where, owners, Status::nothingToReconcile, "cold start: the chip held nothing");
         }
         return;
      }
      std::map<Asic::Index, std::uint32_t> blockSizes;
      for (const GroupState& g : groups_) {
         if (g.head) blockSizes[g.head->hwIndex()] = g.blockSize;
      }
      for (const Event& e : events_) {
         KeyOutcome o;
         o.table = e.table;
         o.status = static_cast<int>(e.status);
         o.index = e.index;
         const Owner* owner = nullptr;
         if (auto it = byIndex.find({o.table, e.index}); it != byIndex.end()) {
            owner = &it->second.front();
            for (const Owner& w : it->second) o.key += (o.key.empty() ? "" : ", ") + w.name;
         }
         const std::uint32_t blockSize =
             blockSizes.contains(e.index) && o.table == "head" ? blockSizes.at(e.index) : 1;
         switch (e.status) {
            case Status::reconciled:
               o.kind = Kind::kept;
               break;
            case Status::indexReconciledContentsDiffer:
               o.kind = Kind::rewritten;
               o.differences = rewrittenFields(o.table, e.index, blockSize);
               break;
            case Status::staleEntryDeleted: {
               o.kind = Kind::stale;
               o.key.clear();
               // A head purge takes each run of adjacent stale entries at once.
               std::vector<Asic::Index> indices;
               if (o.table == "head") {
                  for (Asic::Index i = e.index;
                       decodedAt(*options_.before, "head", i) && !decodedAt(chip_, "head", i);
                       ++i) {
                     indices.push_back(i);
                  }
               } else {
                  indices = indicesAt(*options_.before, o.table, e.index, 1);
               }
               for (Asic::Index i : indices) {
                  if (auto d = decodedAt(*options_.before, o.table, i)) {
                     o.contents.emplace_back(i, std::move(*d));
                  }
               }
               break;
            }
            default:
               o.kind = Kind::added;
               o.reason = report_.warm ? addedReason(o.table, e.index, owner)
                                       : "cold start: the chip held nothing";
               break;
         }
         report_.outcomes.push_back(std::move(o));
      }
      // Keys that resolved only once the replay was over (waiting for entries programmed at
      // init complete) never met reconciliation, and are not counted: new all the same.
      std::set<std::pair<std::string, Asic::Index>> seen;
      for (const KeyOutcome& o : report_.outcomes) {
         if (o.kind != Kind::stale) seen.insert({o.table, o.index});
      }
      for (const auto& [where, owners] : byIndex) {
         if (seen.contains(where) || Asic::isExhausted(where.second)) continue;
         added(where, owners, Status::notReconciled,
               addedReason(where.first, where.second, &owners.front()));
      }
   }

   // A key (or the keys sharing one index) programmed new at `where`.
   void added(const std::pair<std::string, Asic::Index>& where, const std::vector<Owner>& owners,
              Status status, std::string reason) {
      KeyOutcome o;
      o.table = where.first;
      o.kind = KeyOutcome::Kind::added;
      o.status = static_cast<int>(status);
      o.index = where.second;
      for (const Owner& w : owners) o.key += (o.key.empty() ? "" : ", ") + w.name;
      o.reason = std::move(reason);
      report_.outcomes.push_back(std::move(o));
   }

   // --- the audit of allocators against the hardware --------------------------------------
   void findAllocationFaults() {
      auto& out = report_.allocationFindings;
      auto valid = [](const ChipSim::SimHwTable& hw, Asic::Index i) {
         std::vector<std::uint32_t> words(hw.memory().entryWords());
         return i < hw.memory().numEntries() && hw.entryRead(i, words);
      };
      // A key owns the index: held (stale) and reserved indices are nobody's.
      const std::array listKeys = {&Asic::vixType<MmuReplListTable::Key>(),
                                   &Asic::vixType<MmuReplListL2SubPortTable::Key>()};
      const std::array headKeys = {&Asic::vixType<MmuReplHeadTable::Key>()};
      const std::array ipmcKeys = {&Asic::vixType<VelmarL3Common::L3IpmcKey>()};
      auto owned = [](const Asic::GenericIndexAllocator& a, Asic::Index i, const auto& keyTypes) {
         if (a.isIndexFree(i) || a.isIndexHeld(i)) return false;
         return std::any_of(keyTypes.begin(), keyTypes.end(),
                            [&](const auto* t) { return !a.keyForIndex(i, *t).empty(); });
      };
      const char* unowned = "no key owns this entry (the purge would remove it)";
      const Asic::GenericIndexAllocator& lists = *lists_->indexAllocator();
      for (Asic::Index i = 0; i < lists.numEntries(); ++i) {
         const bool inList = valid(*chip_.list, i), inL2 = valid(*chip_.l2SubPort, i);
         const bool isOwned = owned(lists, i, listKeys);
         if (isOwned && !inList && !inL2) {
            out.push_back({chip_.list->name(), i,
                           "the list allocator holds it for a key, the chip has no entry there"});
         } else if (!isOwned) {
            if (inList) out.push_back({chip_.list->name(), i, unowned});
            if (inL2) out.push_back({chip_.l2SubPort->name(), i, unowned});
         }
      }
      const Asic::GenericIndexAllocator& heads = *heads_->indexAllocator();
      for (Asic::Index i = 0; i < heads.numEntries(); ++i) {
         const bool inHw = valid(*chip_.head, i);
         const bool isOwned = owned(heads, i, headKeys);
         if (isOwned && !inHw) {
            out.push_back({chip_.head->name(), i,
                           "the head allocator holds it for a key, the chip has no entry there"});
         } else if (!isOwned && inHw) {
            out.push_back({chip_.head->name(), i, unowned});
         }
      }
      // IPMC indices: the lookup's groups own them; their remap entries and replication
      // groups live at the same index.
      std::vector<bool> replicates(ChipLimits::kIpmcIndices);
      for (const GroupState& g : groups_) {
         replicates[g.ipmcIndex] = !g.config->replication.empty();
      }
      const Asic::GenericIndexAllocator& ipmc = *remaps_->indexAllocator();
      for (Asic::Index i = 0; i < ipmc.numEntries(); ++i) {
         const bool inLookup = valid(*chip_.ipmc, i);
         const bool isOwned = owned(ipmc, i, ipmcKeys);
         if (isOwned && !inLookup) {
            out.push_back({chip_.ipmc->name(), i,
                           "the IPMC allocator holds it for a group, the chip has no lookup "
                           "entry there"});
         }
         if (!isOwned) {
            if (inLookup) out.push_back({chip_.ipmc->name(), i, unowned});
            if (valid(*chip_.remap, i)) out.push_back({chip_.remap->name(), i, unowned});
         }
         if (valid(*chip_.group, i) && !replicates[i]) {
            out.push_back({chip_.group->name(), i, "no configured group with replication owns it"});
         }
      }
      chip_.portAgg->forEachValidEntry([&](Asic::Index i, Asic::HwTable::Words) {
         if (!portAgg_.contains(i)) {
            out.push_back({chip_.portAgg->name(), i, "not configured (the purge would remove it)"});
         }
      });
      chip_.nextHop->forEachValidEntry([&](Asic::Index i, Asic::HwTable::Words) {
         if (!config_.nextHop(i)) {
            out.push_back({chip_.nextHop->name(), i, "no configured next hop owns it"});
         }
      });
   }
};

}  // namespace

TableCounts RunReport::totals() const {
   TableCounts t;
   for (const auto& [name, c] : tables) {
      t.writes += c.writes;
      t.deletes += c.deletes;
      for (std::size_t i = 0; i < t.reconciled.size(); ++i) t.reconciled[i] += c.reconciled[i];
      t.stalePurged += c.stalePurged;
      t.entries += c.entries;
   }
   return t;
}

nlohmann::json RunReport::toJson() const {
   auto counts = [](const TableCounts& c) {
      return nlohmann::json{{"writes", c.writes},
                            {"deletes", c.deletes},
                            {"reconciled",
                             {{"notReconciled", c.reconciled[0]},
                              {"reconciled", c.reconciled[1]},
                              {"indexReconciled", c.reconciled[2]},
                              {"nothingToReconcile", c.reconciled[3]}}},
                            {"stalePurged", c.stalePurged},
                            {"entries", c.entries}};
   };
   nlohmann::json out;
   out["start"] = warm ? "warm" : "cold";
   out["tables"] = nlohmann::json::object();
   for (const auto& [name, c] : tables) out["tables"][name] = counts(c);
   out["phases"] = nlohmann::json::object();
   for (const auto& [name, ms] : phasesMs) out["phases"][name] = ms;
   out["totals"] = counts(totals());
   if (operationsChecked != 0) {
      out["makeBeforeBreak"] = {{"operationsChecked", operationsChecked},
                                {"violations", violationCount},
                                {"first", violations}};
   }
   if (dryRun) {
      out["dryRun"] = true;
      out["outcomes"] = nlohmann::json::object();
      for (const auto& table : tables) {
         const std::string& name = table.first;
         if (std::find_if(outcomes.begin(), outcomes.end(),
                          [&](const KeyOutcome& o) { return o.table == name; }) == outcomes.end()) {
            continue;
         }
         auto& t = out["outcomes"][name];
         for (const char* kind : {"kept", "rewritten", "new", "stale"}) {
            t[kind] = nlohmann::json::array();
         }
      }
      for (const KeyOutcome& o : outcomes) {
         nlohmann::json j = {{"index", o.index}, {"status", o.status}};
         if (!o.key.empty()) j["key"] = o.key;
         if (o.kind == KeyOutcome::Kind::rewritten) j["differences"] = o.differences;
         if (o.kind == KeyOutcome::Kind::added) j["reason"] = o.reason;
         if (o.kind == KeyOutcome::Kind::stale) {
            j["entries"] = nlohmann::json::array();
            for (const auto& [index, decoded] : o.contents) {
               nlohmann::json e = {{"index", index}};
               e.update(decoded);
               j["entries"].push_back(std::move(e));
            }
         }
         out["outcomes"][o.table][std::string(toString(o.kind))].push_back(std::move(j));
      }
   }
   out["failed"] = nlohmann::json::array();
   for (const FailedKey& f : failed) {
      out["failed"].push_back({{"table", f.table}, {"key", f.key}, {"state", f.state}});
   }
   return out;
}

std::string_view toString(KeyOutcome::Kind kind) noexcept {
   switch (kind) {
      case KeyOutcome::Kind::kept:
         return "kept";
      case KeyOutcome::Kind::rewritten:
         return "rewritten";
      case KeyOutcome::Kind::added:
         return "new";
      case KeyOutcome::Kind::stale:
         return "stale";
   }
   return "?";
}

namespace {

std::string compact(const nlohmann::json& decoded) {
   std::string out;
   for (const auto& [field, value] : decoded.items()) {
      out += fmt::format("{}{}={}", out.empty() ? "" : " ", field, value.dump());
   }
   return out;
}

// Per table, each key's outcome: what an operator reads before restarting for real.
std::string outcomesText(const RunReport& report) {
   std::string out;
   for (const auto& table : report.tables) {
      const std::string& name = table.first;
      std::vector<const KeyOutcome*> mine;
      for (const KeyOutcome& o : report.outcomes) {
         if (o.table == name) mine.push_back(&o);
      }
      if (mine.empty()) continue;
      std::array<std::size_t, 4> kinds{};
      for (const KeyOutcome* o : mine) ++kinds[static_cast<std::size_t>(o->kind)];
      out += fmt::format("{}: {} kept, {} rewritten, {} new, {} stale\n", name, kinds[0], kinds[1],
                         kinds[2], kinds[3]);
      for (const KeyOutcome* o : mine) {
         const std::string what = o->key.empty() ? "" : o->key + " ";
         switch (o->kind) {
            case KeyOutcome::Kind::kept:
               out += fmt::format("  kept      {}at {}\n", what, o->index);
               break;
            case KeyOutcome::Kind::rewritten:
               out += fmt::format("  rewritten {}at {}\n", what, o->index);
               for (const std::string& d : o->differences)
                  out += fmt::format("              {}\n", d);
               break;
            case KeyOutcome::Kind::added:
               out += fmt::format("  new       {}at {}: {}\n", what, o->index, o->reason);
               break;
            case KeyOutcome::Kind::stale:
               out += fmt::format("  stale     at {}\n", o->index);
               for (const auto& [index, decoded] : o->contents) {
                  out += fmt::format("              [{}] {}\n", index, compact(decoded));
               }
               break;
         }
      }
   }
   return out;
}

}  // namespace

std::string RunReport::toText() const {
   std::string out = fmt::format("{}{} start\n", dryRun ? "dry run (nothing written): " : "",
                                 warm ? "warm" : "cold");
   out += fmt::format("  {:<10} {:>8} {:>8} {:>10} {:>8} {:>8} {:>8} {:>8}\n", "table", "writes",
                      "deletes", "reconciled", "rewrite", "new", "stale", "entries");
   auto line = [&](const std::string& name, const TableCounts& c) {
      out += fmt::format("  {:<10} {:>8} {:>8} {:>10} {:>8} {:>8} {:>8} {:>8}\n", name, c.writes,
                         c.deletes, c.reconciled[1], c.reconciled[2],
                         c.reconciled[0] + c.reconciled[3], c.stalePurged, c.entries);
   };
   for (const auto& [name, c] : tables) line(name, c);
   line("total", totals());
   out += "  phases:";
   for (const auto& [name, ms] : phasesMs) out += fmt::format(" {} {:.1f} ms,", name, ms);
   out.back() = '\n';
   for (const FailedKey& f : failed) {
      out += fmt::format("  failed: {} {}: {}\n", f.table, f.key, f.state);
   }
   if (operationsChecked != 0) {
      out += fmt::format("  make-before-break: {} operations checked, {} violations\n",
                         operationsChecked, violationCount);
      for (const std::string& v : violations) out += fmt::format("    {}\n", v);
   }
   if (dryRun) out += outcomesText(*this);
   return out;
}

RunReport run(ChipMemories& chip, const Config& config, const RunOptions& options) {
   return Run(chip, config, options).go();
}

}  // namespace McastAgent
