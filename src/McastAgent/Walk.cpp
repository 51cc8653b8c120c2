#include "McastAgent/Walk.h"

#include <algorithm>
#include <map>
#include <set>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <nlohmann/json.hpp>

#include "ChipSim/NeighbourFormats.h"
#include "ChipSim/ReplListFormat.h"
#include "ChipSim/plugins/IngIpmcRemapTableSimUtil.h"
#include "ChipSim/plugins/MmuReplHeadTableSimUtil.h"
#include "ChipSim/plugins/MmuRqeReplPortAggMapRegisterSimUtil.h"

namespace McastAgent {

namespace {

using Json = nlohmann::json;

template <typename Format>
std::optional<typename Format::HwEntry> readAs(const ChipSim::SimHwTable& hw, Asic::Index index,
                                               std::string* fault = nullptr) {
   std::array<std::uint32_t, Format::kEntryWords> words{};
   if (index >= hw.memory().numEntries() || !hw.entryRead(index, words)) {
      if (fault) *fault = fmt::format("{}[{}] holds no entry", Format::kMemory, index);
      return std::nullopt;
   }
   try {
      return Format::decode(words);
   } catch (const std::exception& e) {
      if (fault) *fault = fmt::format("{}[{}]: {}", Format::kMemory, index, e.what());
      return std::nullopt;
   }
}

// The remap, head and register memories decode through their Utils' formats.
struct RemapFormat {
   static constexpr const char* kMemory = "ING_IPMC_REMAP";
   static constexpr std::uint32_t kEntryWords = ChipSim::IngIpmcRemapTableSimUtil::kEntryWords;
   using HwEntry = ChipSim::IngIpmcRemapTableSimUtil::Entry;
   static HwEntry decode(std::span<const std::uint32_t> w) {
      return ChipSim::IngIpmcRemapTableSimUtil::decode(w);
   }
};
struct HeadFormat {
   static constexpr const char* kMemory = ChipSim::MmuReplHeadTableSimUtil::kMemory;
   static constexpr std::uint32_t kEntryWords = ChipSim::MmuReplHeadTableSimUtil::kEntryWords;
   using HwEntry = ChipSim::MmuReplHeadTableSimUtil::Entry;
   static HwEntry decode(std::span<const std::uint32_t> w) {
      return ChipSim::MmuReplHeadTableSimUtil::decode(w);
   }
};

std::vector<std::uint32_t> bitsOf(std::span<const std::uint32_t> words) {
   std::vector<std::uint32_t> bits;
   for (std::size_t w = 0; w < words.size(); ++w) {
      for (std::uint32_t b = 0; b < 32; ++b) {
         if (words[w] >> b & 1u) bits.push_back(static_cast<std::uint32_t>(w * 32 + b));
      }
   }
   return bits;
}

// The egress objects of the list that starts at `head`: sparse pairs as written, dense
// members on their next hop's own port.
// Who reaches each entry of the memories behind the lookup, to find what nobody reaches
// and what two owners claim.
struct Reach {
   std::map<Asic::Index, Asic::Index> listOwner;  // list entry -> first index of its chain
   std::map<Asic::Index, Asic::Index> headOwner;  // head entry -> the IPMC index of its block
   std::set<Asic::Index> groups;                  // replication group entries reached
   std::vector<std::string> claimedTwice;

   void claim(std::map<Asic::Index, Asic::Index>& owners, const char* memory, Asic::Index index,
              Asic::Index owner, const char* what) {
      auto [it, inserted] = owners.emplace(index, owner);
      if (!inserted && it->second != owner) {
         claimedTwice.push_back(fmt::format("{}[{}]: claimed by the {} at {} and at {}", memory,
                                            index, what, it->second, owner));
      }
   }
};

WalkedList walkList(ChipMemories& chip, Asic::Index head, std::vector<std::string>& faults,
                    Reach& reach) {
   WalkedList list;
   list.headPtr = head;
   std::vector<Asic::Index> chain;
   try {
      chain = ChipSim::chainAt<ChipSim::ReplListFormat>(*chip.list, head);
   } catch (const std::exception& e) {
      faults.push_back(fmt::format("list at {}: {}", head, e.what()));
      return list;
   }
   for (Asic::Index index : chain) {
      reach.claim(reach.listOwner, ChipSim::ReplListFormat::kMemory, index, head, "list");
      std::string fault;
      auto entry = readAs<ChipSim::ReplListFormat>(*chip.list, index, &fault);
      if (!entry) {
         faults.push_back(fault);
         continue;
      }
      if (entry->kind == ChipSim::ReplListFormat::HwEntry::Kind::sparse) {
         for (auto [nh, port] : entry->pairs) list.egress.push_back({nh, port});
         continue;
      }
      for (std::uint32_t bit = 0; bit < 64; ++bit) {
         if (!(entry->members >> bit & 1u)) continue;
         const std::uint32_t nh = entry->lsbVlan << 6 | bit;
         auto egress = readAs<ChipSim::NextHopFormat>(*chip.nextHop, nh, &fault);
         if (!egress) {
            faults.push_back(fmt::format("dense member of the list at {}: {}", head, fault));
            continue;
         }
         list.egress.push_back({nh, egress->port});
      }
   }
   std::sort(list.egress.begin(), list.egress.end());
   return list;
}

std::string egressText(const std::vector<WalkedEgress>& egress) {
   std::string out;
   for (const WalkedEgress& e : egress) {
      out += fmt::format("{}{}:{}", out.empty() ? "" : " ", e.nextHop, e.port);
   }
   return out.empty() ? "(none)" : out;
}

std::string groupName(std::uint32_t addr, std::uint32_t vrf) {
   return vrf == 0 ? ipv4ToString(addr) : fmt::format("{}@{}", ipv4ToString(addr), vrf);
}

}  // namespace

Walk walkChip(ChipMemories& chip) {
   Walk walk;
   Reach reach;
   chip.ipmc->forEachValidEntry([&](Asic::Index index, Asic::HwTable::Words words) {
      WalkedGroup g;
      g.ipmcIndex = index;
      try {
         auto key = ChipSim::IpmcLookupFormat::decode(words);
         g.groupAddr = key.groupAddr;
         g.vrf = key.vrf;
      } catch (const std::exception& e) {
         g.faults.push_back(e.what());
         walk.groups.push_back(std::move(g));
         return;
      }
      std::string fault;
      auto remap = readAs<RemapFormat>(*chip.remap, index, &fault);
      if (!remap) {
         g.faults.push_back(fault);
         walk.groups.push_back(std::move(g));
         return;
      }
      g.remappedIpmcIndex = remap->remappedIpmcIndex;
      g.strengthProfile = remap->strengthProfile;
      auto group = readAs<ChipSim::ReplGroupFormat>(*chip.group, *g.remappedIpmcIndex, &fault);
      if (!group) {
         g.faults.push_back(fault);
         walk.groups.push_back(std::move(g));
         return;
      }
      g.headBase = group->headBase;
      reach.groups.insert(*g.remappedIpmcIndex);
      for (std::uint32_t o = 0; o < group->blockSize; ++o) {
         reach.claim(reach.headOwner, HeadFormat::kMemory, group->headBase + o,
                     *g.remappedIpmcIndex, "replication group");
         auto head = readAs<HeadFormat>(*chip.head, group->headBase + o, &fault);
         if (!head) {
            g.faults.push_back(fault);
            continue;
         }
         if (head->ipmcIndex != *g.remappedIpmcIndex) {
            g.faults.push_back(fmt::format("{}[{}] belongs to IPMC index {}, not {}",
                                           HeadFormat::kMemory, group->headBase + o,
                                           head->ipmcIndex, *g.remappedIpmcIndex));
         }
         WalkedList list = walkList(chip, head->headPtr, g.faults, reach);
         list.speed = head->portSpeed;
         list.numNextHops = head->numNextHops;
         g.lists.push_back(std::move(list));
      }
      walk.groups.push_back(std::move(g));
   });
   chip.l2SubPort->forEachValidEntry([&](Asic::Index, Asic::HwTable::Words words) {
      try {
         auto e = ChipSim::L2SubPortFormat::decode(words);
         walk.l2SubPorts.push_back({static_cast<std::uint8_t>(e.mode), bitsOf(e.bitmapWords)});
      } catch (const std::exception&) {
         // Unreadable entries show up as a difference: the configuration cannot name them.
         walk.l2SubPorts.push_back({0xFF, {}});
      }
   });
   chip.portAgg->forEachValidEntry([&](Asic::Index index, Asic::HwTable::Words words) {
      walk.portAggregation.push_back({index, bitsOf(words)});
   });
   chip.nextHop->forEachValidEntry([&](Asic::Index index, Asic::HwTable::Words words) {
      try {
         auto e = ChipSim::NextHopFormat::decode(words);
         walk.nextHops.push_back({index, e.port, e.vlan});
      } catch (const std::exception& e) {
         walk.leaks.push_back(
             fmt::format("{}[{}]: {}", ChipSim::NextHopFormat::kMemory, index, e.what()));
      }
   });
   // Every lookup entry is walked, and with it its remap entry.
   std::set<Asic::Index> lookups;
   for (const WalkedGroup& g : walk.groups) lookups.insert(g.ipmcIndex);
   auto unreached = [&](ChipSim::SimHwTable& hw, auto&& reached) {
      hw.forEachValidEntry([&](Asic::Index index, Asic::HwTable::Words) {
         if (!reached(index)) {
            walk.leaks.push_back(
                fmt::format("{}[{}]: held, but no group reaches it", hw.name(), index));
         }
      });
   };
   unreached(*chip.remap, [&](Asic::Index i) { return lookups.contains(i); });
   unreached(*chip.group, [&](Asic::Index i) { return reach.groups.contains(i); });
   unreached(*chip.head, [&](Asic::Index i) { return reach.headOwner.contains(i); });
   unreached(*chip.list, [&](Asic::Index i) { return reach.listOwner.contains(i); });
   walk.leaks.insert(walk.leaks.end(), reach.claimedTwice.begin(), reach.claimedTwice.end());
   return walk;
}

ReplicationSet replicationSet(const WalkedGroup& group) {
   ReplicationSet set;
   if (!group.faults.empty()) return set;
   for (const WalkedList& l : group.lists) set[l.speed] = l.egress;
   return set;
}

ReplicationSet replicationSet(const Config& config, const Group& group) {
   ReplicationSet set;
   for (const ReplicationList& list : config.replicationOf(group).replication) {
      auto& egress = set[list.speed];
      for (const Egress& e : list.egress) {
         for (std::uint16_t p : e.ports) egress.push_back({e.nextHop, p});
      }
      std::sort(egress.begin(), egress.end());
   }
   return set;
}

std::string toText(const ReplicationSet& set) {
   if (set.empty()) return "nothing";
   std::string out;
   for (const auto& [speed, egress] : set) {
      out += fmt::format("{}{} {}", out.empty() ? "" : "; ", speedName(speed), egressText(egress));
   }
   return out;
}

std::string toText(const WalkedGroup& g) {
   std::string out =
       fmt::format("group {} ipmcIndex {}", groupName(g.groupAddr, g.vrf), g.ipmcIndex);
   if (g.remappedIpmcIndex) {
      out += fmt::format(" -> {} strengthProfile {}", *g.remappedIpmcIndex, g.strengthProfile);
   }
   if (g.headBase) out += fmt::format(" head {}", *g.headBase);
   out += "\n";
   for (const WalkedList& l : g.lists) {
      out += fmt::format("  {:>4} list {} ({} next hops): {}\n", speedName(l.speed), l.headPtr,
                         l.numNextHops, egressText(l.egress));
   }
   for (const std::string& f : g.faults) out += fmt::format("  fault: {}\n", f);
   return out;
}

Json toJson(const Walk& walk, const std::vector<const WalkedGroup*>& groups) {
   Json out;
   out["groups"] = Json::array();
   for (const WalkedGroup* g : groups) {
      Json j = {{"group", ipv4ToString(g->groupAddr)},
                {"vrf", g->vrf},
                {"ipmcIndex", g->ipmcIndex},
                {"strengthProfile", g->strengthProfile}};
      j["remappedIpmcIndex"] = g->remappedIpmcIndex ? Json(*g->remappedIpmcIndex) : Json(nullptr);
      j["headBase"] = g->headBase ? Json(*g->headBase) : Json(nullptr);
      j["lists"] = Json::array();
      for (const WalkedList& l : g->lists) {
         Json egress = Json::array();
         for (const WalkedEgress& e : l.egress) {
            egress.push_back({{"nextHop", e.nextHop}, {"port", e.port}});
         }
         j["lists"].push_back({{"speed", speedName(l.speed)},
                               {"numNextHops", l.numNextHops},
                               {"headPtr", l.headPtr},
                               {"egress", std::move(egress)}});
      }
      j["faults"] = g->faults;
      out["groups"].push_back(std::move(j));
   }
   out["l2SubPorts"] = Json::array();
   for (const L2SubPortList& l : walk.l2SubPorts) {
      out["l2SubPorts"].push_back({{"mode", l.mode}, {"subPorts", l.subPorts}});
   }
   out["portAggregation"] = Json::array();
   for (const PortAggregation& a : walk.portAggregation) {
      out["portAggregation"].push_back({{"index", a.index}, {"members", a.members}});
   }
   out["leaks"] = walk.leaks;
   return out;
}

std::vector<std::string> differences(const Walk& walk, const Config& config) {
   std::vector<std::string> out;
   std::map<std::pair<std::uint32_t, std::uint32_t>, const WalkedGroup*> onChip;
   for (const WalkedGroup& g : walk.groups) onChip[{g.vrf, g.groupAddr}] = &g;
   std::map<std::string, Asic::Index> ipmcOf;
   for (const Group& g : config.groups) {
      if (auto it = onChip.find({g.vrf, g.groupAddr}); it != onChip.end()) {
         ipmcOf[g.name] = it->second->ipmcIndex;
      }
   }
   for (const Group& g : config.groups) {
      const std::string name = fmt::format("group {} ({})", g.name, groupName(g.groupAddr, g.vrf));
      auto it = onChip.find({g.vrf, g.groupAddr});
      if (it == onChip.end()) {
         out.push_back(fmt::format("{}: not on the chip", name));
         continue;
      }
      const WalkedGroup& w = *it->second;
      onChip.erase(it);
      for (const std::string& f : w.faults) out.push_back(fmt::format("{}: {}", name, f));
      if (!w.remappedIpmcIndex) continue;
      if (w.strengthProfile != g.strengthProfile) {
         out.push_back(fmt::format("{}: strengthProfile {} on the chip, {} configured", name,
                                   w.strengthProfile, g.strengthProfile));
      }
      const Group& target = config.replicationOf(g);
      if (auto t = ipmcOf.find(target.name);
          t == ipmcOf.end() || t->second != *w.remappedIpmcIndex) {
         out.push_back(fmt::format("{}: remapped to IPMC index {}, not to group {}'s", name,
                                   *w.remappedIpmcIndex, target.name));
      }
      if (!w.faults.empty()) continue;
      std::map<Interface::EthSpeed, const WalkedList*> lists;
      for (const WalkedList& l : w.lists) lists[l.speed] = &l;
      for (const ReplicationList& list : target.replication) {
         auto l = lists.find(list.speed);
         if (l == lists.end()) {
            out.push_back(
                fmt::format("{}: no {} replication on the chip", name, speedName(list.speed)));
            continue;
         }
         std::vector<WalkedEgress> expected;
         std::uint32_t replications = 0;
         for (const Egress& e : list.egress) {
            for (std::uint16_t p : e.ports) expected.push_back({e.nextHop, p});
            replications += e.ports.size();
         }
         std::sort(expected.begin(), expected.end());
         if (expected != l->second->egress) {
            out.push_back(fmt::format("{}: {} replicates to {}, configured {}", name,
                                      speedName(list.speed), egressText(l->second->egress),
                                      egressText(expected)));
         } else if (l->second->numNextHops != replications) {
            out.push_back(fmt::format("{}: {} head entry counts {} next hops, the list has {}",
                                      name, speedName(list.speed), l->second->numNextHops,
                                      replications));
         }
         lists.erase(l);
      }
      for (const auto& [speed, l] : lists) {
         out.push_back(fmt::format("{}: {} replication on the chip is not configured", name,
                                   speedName(speed)));
      }
   }
   for (const auto& [key, w] : onChip) {
      out.push_back(fmt::format("group {} (IPMC index {}): on the chip, not configured",
                                groupName(w->groupAddr, w->vrf), w->ipmcIndex));
   }
   for (const std::string& leak : walk.leaks) out.push_back(leak);
   std::map<std::uint32_t, const NextHop*> nhChip;
   for (const NextHop& nh : walk.nextHops) nhChip[nh.id] = &nh;
   for (const NextHop& nh : config.nextHops) {
      auto it = nhChip.find(nh.id);
      if (it == nhChip.end()) {
         out.push_back(fmt::format("next hop {}: not on the chip", nh.id));
      } else if (!(*it->second == nh)) {
         out.push_back(
             fmt::format("next hop {}: port {} vlan {} on the chip, port {} vlan {} "
                         "configured",
                         nh.id, it->second->port, it->second->vlan, nh.port, nh.vlan));
      }
      if (it != nhChip.end()) nhChip.erase(it);
   }
   for (const auto& [id, nh] : nhChip) {
      out.push_back(fmt::format("next hop {}: on the chip, not configured", id));
   }
   std::multiset<std::pair<std::uint8_t, std::vector<std::uint32_t>>> l2Chip, l2Config;
   for (const auto& l : walk.l2SubPorts) l2Chip.insert({l.mode, l.subPorts});
   for (const auto& l : config.l2SubPorts) l2Config.insert({l.mode, l.subPorts});
   for (const auto& l : l2Chip) {
      if (!l2Config.contains(l)) {
         out.push_back(
             fmt::format("L2 sub-port list mode {} sub-ports [{}]: on the chip, not "
                         "configured",
                         l.first, fmt::join(l.second, ", ")));
      }
   }
   for (const auto& l : l2Config) {
      if (!l2Chip.contains(l)) {
         out.push_back(fmt::format("L2 sub-port list mode {} sub-ports [{}]: not on the chip",
                                   l.first, fmt::join(l.second, ", ")));
      }
   }
   std::map<std::uint32_t, std::vector<std::uint32_t>> aggChip, aggConfig;
   for (const auto& a : walk.portAggregation) aggChip[a.index] = a.members;
   for (const auto& a : config.portAggregation) aggConfig[a.index] = a.members;
   for (const auto& [index, members] : aggConfig) {
      auto it = aggChip.find(index);
      if (it == aggChip.end()) {
         out.push_back(fmt::format("port aggregation {}: not on the chip", index));
      } else if (it->second != members) {
         out.push_back(fmt::format("port aggregation {}: members [{}] on the chip, [{}] configured",
                                   index, fmt::join(it->second, ", "), fmt::join(members, ", ")));
      }
   }
   for (const auto& [index, members] : aggChip) {
      if (!aggConfig.contains(index)) {
         out.push_back(fmt::format("port aggregation {}: on the chip, not configured", index));
      }
   }
   return out;
}

const std::vector<std::string>& showTableNames() {
   static const std::vector<std::string> names = {"remap",   "head", "list",  "l2subport",
                                                  "portagg", "ipmc", "group", "nexthop"};
   return names;
}

ChipSim::SimHwTable& memoryOf(ChipMemories& chip, const std::string& table) {
   const std::pair<const char*, ChipSim::SimHwTable*> memories[] = {
       {"remap", chip.remap.get()},     {"head", chip.head.get()},
       {"list", chip.list.get()},       {"l2subport", chip.l2SubPort.get()},
       {"portagg", chip.portAgg.get()}, {"ipmc", chip.ipmc.get()},
       {"group", chip.group.get()},     {"nexthop", chip.nextHop.get()}};
   for (const auto& [name, hw] : memories) {
      if (table == name) return *hw;
   }
   throw std::invalid_argument(
       fmt::format("unknown table \"{}\" (known: {})", table, fmt::join(showTableNames(), ", ")));
}

Json decodeEntry(const std::string& table, std::span<const std::uint32_t> w) {
   Json j = Json::object();
   if (table == "remap") {
      auto e = RemapFormat::decode(w);
      j["remappedIpmcIndex"] = e.remappedIpmcIndex;
      j["strengthProfile"] = e.strengthProfile;
   } else if (table == "head") {
      auto e = HeadFormat::decode(w);
      j["headPtr"] = e.headPtr;
      j["numNextHops"] = e.numNextHops;
      j["portSpeed"] = speedName(e.portSpeed);
      j["ipmcIndex"] = e.ipmcIndex;
   } else if (table == "list") {
      auto e = ChipSim::ReplListFormat::decode(w);
      if (e.kind == ChipSim::ReplListFormat::HwEntry::Kind::sparse) {
         j["kind"] = "sparse";
         Json pairs = Json::array();
         for (auto [nh, port] : e.pairs) pairs.push_back({{"nextHop", nh}, {"port", port}});
         j["pairs"] = std::move(pairs);
      } else {
         j["kind"] = "dense";
         j["lsbVlan"] = e.lsbVlan;
         j["members"] = fmt::format("0x{:016x}", e.members);
         j["numBits"] = e.numBits;
      }
      j["last"] = e.last;
      if (!e.last) j["next"] = e.next;
   } else if (table == "l2subport") {
      auto e = ChipSim::L2SubPortFormat::decode(w);
      j["mode"] = e.mode;
      j["subPorts"] = bitsOf(e.bitmapWords);
      j["last"] = e.last;
      if (!e.last) j["next"] = e.next;
   } else if (table == "portagg") {
      j["members"] = bitsOf(w);
   } else if (table == "ipmc") {
      auto e = ChipSim::IpmcLookupFormat::decode(w);
      j["group"] = ipv4ToString(e.groupAddr);
      j["vrf"] = e.vrf;
   } else if (table == "group") {
      auto e = ChipSim::ReplGroupFormat::decode(w);
      j["headBase"] = e.headBase;
      j["blockSize"] = e.blockSize;
   } else if (table == "nexthop") {
      auto e = ChipSim::NextHopFormat::decode(w);
      j["port"] = e.port;
      j["vlan"] = e.vlan;
   } else {
      throw std::invalid_argument(fmt::format("unknown table \"{}\" (known: {})", table,
                                              fmt::join(showTableNames(), ", ")));
   }
   return j;
}

Json showTable(ChipMemories& chip, const std::string& table) {
   Json entries = Json::array();
   memoryOf(chip, table).forEachValidEntry([&](Asic::Index index, Asic::HwTable::Words words) {
      Json j = {{"index", index}};
      try {
         j.update(decodeEntry(table, words));
      } catch (const std::exception& e) {
         j["fault"] = e.what();
      }
      entries.push_back(std::move(j));
   });
   return {{"table", table}, {"entries", std::move(entries)}};
}

}  // namespace McastAgent
