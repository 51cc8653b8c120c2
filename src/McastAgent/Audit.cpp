#include "McastAgent/Audit.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "ChipSim/NeighbourFormats.h"
#include "ChipSim/ReplListFormat.h"
#include "ChipSim/plugins/IngIpmcRemapTableSimUtil.h"
#include "ChipSim/plugins/MmuReplHeadTableSimUtil.h"
#include "McastAgent/Agent.h"

namespace McastAgent {

namespace {

using Index = Asic::Index;

// Every valid entry of one memory, decoded; the ones that do not decode are findings.
template <typename Entry, typename Decode>
std::map<Index, Entry> decodeAll(ChipSim::SimHwTable& hw, Decode&& decode,
                                 std::vector<Finding>& out) {
   std::map<Index, Entry> entries;
   hw.forEachValidEntry([&](Index index, Asic::HwTable::Words words) {
      try {
         entries.emplace(index, decode(words));
      } catch (const std::exception& e) {
         out.push_back({hw.name(), index, fmt::format("does not decode: {}", e.what())});
      }
   });
   return entries;
}

class Auditor {
 public:
   explicit Auditor(ChipMemories& chip) : chip_(chip) {}

   std::vector<Finding> go() {
      decode();
      lookups();
      sharedIndexSpace();
      remaps();
      groups();
      heads();
      chains(lists_, *chip_.list, listHeadsNamed());
      chains(l2_, *chip_.l2SubPort, std::nullopt);
      std::sort(out_.begin(), out_.end(), [](const Finding& a, const Finding& b) {
         return std::tie(a.memory, a.index, a.problem) < std::tie(b.memory, b.index, b.problem);
      });
      return std::move(out_);
   }

 private:
   using ListEntry = ChipSim::ReplListFormat::HwEntry;
   using L2Entry = ChipSim::L2SubPortFormat::HwEntry;
   using HeadEntry = ChipSim::MmuReplHeadTableSimUtil::Entry;
   using RemapEntry = ChipSim::IngIpmcRemapTableSimUtil::Entry;

   void decode() {
      lookup_ = decodeAll<ChipSim::IpmcLookupFormat::HwEntry>(
          *chip_.ipmc, [](auto w) { return ChipSim::IpmcLookupFormat::decode(w); }, out_);
      remap_ = decodeAll<RemapEntry>(
          *chip_.remap, [](auto w) { return ChipSim::IngIpmcRemapTableSimUtil::decode(w); }, out_);
      group_ = decodeAll<ChipSim::ReplGroupFormat::HwEntry>(
          *chip_.group, [](auto w) { return ChipSim::ReplGroupFormat::decode(w); }, out_);
      head_ = decodeAll<HeadEntry>(
          *chip_.head, [](auto w) { return ChipSim::MmuReplHeadTableSimUtil::decode(w); }, out_);
      lists_ = decodeAll<ListEntry>(
          *chip_.list, [](auto w) { return ChipSim::ReplListFormat::decode(w); }, out_);
      l2_ = decodeAll<L2Entry>(
          *chip_.l2SubPort, [](auto w) { return ChipSim::L2SubPortFormat::decode(w); }, out_);
      decodeAll<ChipSim::NextHopFormat::HwEntry>(
          *chip_.nextHop, [](auto w) { return ChipSim::NextHopFormat::decode(w); }, out_);
   }

   void finding(const ChipSim::SimHwTable& hw, Index index, std::string problem) {
      out_.push_back({hw.name(), index, std::move(problem)});
   }

   // One group (address and VRF) has one IPMC index.
   void lookups() {
      std::map<std::pair<std::uint32_t, std::uint32_t>, Index> seen;
      for (const auto& [index, e] : lookup_) {
         auto [it, fresh] = seen.emplace(std::make_pair(e.vrf, e.groupAddr), index);
         if (!fresh) {
            finding(*chip_.ipmc, index,
                    fmt::format("group {} VRF {} claimed twice: also at IPMC index {}",
                                ipv4ToString(e.groupAddr), e.vrf, it->second));
         }
         if (!remap_.contains(index)) {
            finding(*chip_.ipmc, index, "no remap entry at this IPMC index");
         }
      }
   }

   // The two list memories share one index space: an index is one memory's or the other's.
   void sharedIndexSpace() {
      for (const auto& [index, e] : l2_) {
         if (lists_.contains(index)) {
            finding(*chip_.l2SubPort, index,
                    fmt::format("index claimed twice: {} holds it too (one index space)",
                                chip_.list->name()));
         }
      }
   }

   void remaps() {
      for (const auto& [index, e] : remap_) {
         if (!lookup_.contains(index)) {
            finding(*chip_.remap, index, "no lookup entry at this IPMC index reaches it");
         }
         const Index to = e.remappedIpmcIndex;
         if (!group_.contains(to)) {
            finding(*chip_.remap, index,
                    fmt::format("remaps to IPMC index {}, which holds {}", to,
                                lookup_.contains(to) ? "no replication group" : "nothing"));
         }
      }
   }

   void groups() {
      std::set<Index> reached;
      for (const auto& [index, e] : remap_) reached.insert(e.remappedIpmcIndex);
      const std::uint32_t headEntries = chip_.head->memory().numEntries();
      struct Block {
         Index base, end, owner;
      };
      std::vector<Block> blocks;
      for (const auto& [index, g] : group_) {
         if (!reached.contains(index)) {
            finding(*chip_.group, index, "no remap entry leads to this replication group");
         }
         if (g.blockSize == 0 || g.headBase >= headEntries ||
             g.blockSize > headEntries - g.headBase) {
            finding(*chip_.group, index,
                    fmt::format("head block [{}, {}) runs out of {} ({} entries)", g.headBase,
                                std::uint64_t(g.headBase) + g.blockSize, chip_.head->name(),
                                headEntries));
            continue;
         }
         blocks.push_back({g.headBase, g.headBase + g.blockSize, index});
         for (Index i = g.headBase; i < g.headBase + g.blockSize; ++i) {
            auto h = head_.find(i);
            if (h == head_.end()) {
               finding(*chip_.group, index,
                       fmt::format("its head block names {}[{}], which holds no entry",
                                   chip_.head->name(), i));
            } else if (h->second.ipmcIndex != index) {
               finding(*chip_.head, i,
                       fmt::format("in the head block of IPMC index {}, but belongs to IPMC "
                                   "index {}",
                                   index, h->second.ipmcIndex));
            }
            coveredHeads_.insert(i);
         }
      }
      std::sort(blocks.begin(), blocks.end(),
                [](const Block& a, const Block& b) { return a.base < b.base; });
      std::optional<Block> widest;  // of the blocks so far, the one that ends last
      for (const Block& b : blocks) {
         if (widest && b.base < widest->end) {
            finding(*chip_.head, b.base,
                    fmt::format("head blocks overlap: [{}, {}) of IPMC index {} and [{}, {}) of "
                                "IPMC index {}",
                                widest->base, widest->end, widest->owner, b.base, b.end, b.owner));
         }
         if (!widest || b.end > widest->end) widest = b;
      }
   }

   // Which list entry names each list entry as its next.
   template <typename Entry>
   static std::map<Index, std::vector<Index>> namedBy(const std::map<Index, Entry>& entries) {
      std::map<Index, std::vector<Index>> out;
      for (const auto& [index, e] : entries) {
         if (!e.last) out[e.next].push_back(index);
      }
      return out;
   }

   void heads() {
      const auto named = namedBy(lists_);
      for (const auto& [index, h] : head_) {
         if (!coveredHeads_.contains(index)) {
            finding(*chip_.head, index, "no replication group's head block covers it");
         }
         const Index p = h.headPtr;
         if (!lists_.contains(p)) {
            finding(*chip_.head, index,
                    fmt::format("head pointer {} names no list head: {}[{}] holds no entry", p,
                                chip_.list->name(), p));
         } else if (auto it = named.find(p); it != named.end()) {
            finding(*chip_.head, index,
                    fmt::format("head pointer {} names no list head: entry {} names it as its "
                                "next (the middle of a list)",
                                p, it->second.front()));
         }
      }
   }

   std::set<Index> listHeadsNamed() const {
      std::set<Index> out;
      for (const auto& [index, h] : head_) out.insert(h.headPtr);
      return out;
   }

   // Each chain from its first entry (one no entry names) to its last: it must stay in the
   // table, on valid entries, without looping or meeting another chain. `pointedAt`: the
   // first entries something outside the memory names (none: nothing does, so unnamed
   // chains are not findings).
   template <typename Entry>
   void chains(const std::map<Index, Entry>& entries, const ChipSim::SimHwTable& hw,
               const std::optional<std::set<Index>>& pointedAt) {
      const auto named = namedBy(entries);
      for (const auto& [next, by] : named) {
         if (by.size() > 1) {
            finding(hw, next,
                    fmt::format("lists share entries: entries {} and {} both name it as their "
                                "next",
                                by[0], by[1]));
         }
      }
      const std::uint32_t size = hw.memory().numEntries();
      std::map<Index, Index> chainOf;  // entry -> first entry of the chain that reached it
      auto walk = [&](Index first) {
         std::set<Index> seen;
         for (Index at = first;;) {
            seen.insert(at);
            chainOf.emplace(at, first);
            const Entry& e = entries.at(at);
            if (e.last) return;
            if (e.next >= size) {
               finding(hw, at,
                       fmt::format("the list from {} runs out of the table: next {} (the "
                                   "table has {} entries)",
                                   first, e.next, size));
               return;
            }
            if (!entries.contains(e.next)) {
               finding(
                   hw, at,
                   fmt::format("the list from {} runs out: next {} holds no entry", first, e.next));
               return;
            }
            if (seen.contains(e.next)) {
               finding(
                   hw, at,
                   fmt::format("the list from {} loops: next {} is already on it", first, e.next));
               return;
            }
            if (chainOf.contains(e.next)) return;  // shared: reported above
            at = e.next;
         }
      };
      for (const auto& [index, e] : entries) {
         if (named.contains(index)) continue;
         walk(index);
         if (pointedAt && !pointedAt->contains(index)) {
            finding(hw, index, "a list no head entry points at");
         }
      }
      // What no first entry reaches is a loop with no way in.
      for (const auto& [index, e] : entries) {
         if (chainOf.contains(index)) continue;
         walk(index);
      }
   }

   ChipMemories& chip_;
   std::vector<Finding> out_;
   std::map<Index, ChipSim::IpmcLookupFormat::HwEntry> lookup_;
   std::map<Index, RemapEntry> remap_;
   std::map<Index, ChipSim::ReplGroupFormat::HwEntry> group_;
   std::map<Index, HeadEntry> head_;
   std::map<Index, ListEntry> lists_;
   std::map<Index, L2Entry> l2_;
   std::set<Index> coveredHeads_;
};

}  // namespace

std::string toText(const Finding& f) {
   return fmt::format("{}[{}]: {}", f.memory, f.index, f.problem);
}

nlohmann::json toJson(const std::vector<Finding>& findings) {
   nlohmann::json list = nlohmann::json::array();
   for (const Finding& f : findings) {
      list.push_back({{"memory", f.memory}, {"index", f.index}, {"problem", f.problem}});
   }
   return {{"healthy", findings.empty()}, {"findings", std::move(list)}};
}

std::vector<Finding> auditChip(ChipMemories& chip) { return Auditor(chip).go(); }

std::vector<Finding> auditAllocation(const std::string& dir, const Config& config) {
   ChipMemories view(dir, {}, ChipMemories::Access::copyOnWrite);
   return run(view, config, {.auditAllocation = true}).allocationFindings;
}

}  // namespace McastAgent
