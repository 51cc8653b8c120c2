#include "McastAgent/Agent.h"

#include <unistd.h>

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
   bool recovered = false;        // the chip had this group at ipmcIndex
   std::vector<HandlePtr> lists;  // per replication list, in config order
   HandlePtr head;                // its head block, when it has replication
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
      phases_.run("neighbourPurge", [&] { purgeNeighbours(); });
      report();
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
            if (unchangedOnChip(g)) {
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
   std::map<Asic::Index, HandlePtr> portAgg_;
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
   out["failed"] = nlohmann::json::array();
   for (const FailedKey& f : failed) {
      out["failed"].push_back({{"table", f.table}, {"key", f.key}, {"state", f.state}});
   }
   return out;
}

std::string RunReport::toText() const {
   std::string out = fmt::format("{} start\n", warm ? "warm" : "cold");
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
   return out;
}

RunReport run(ChipMemories& chip, const Config& config, const RunOptions& options) {
   return Run(chip, config, options).go();
}

}  // namespace McastAgent
