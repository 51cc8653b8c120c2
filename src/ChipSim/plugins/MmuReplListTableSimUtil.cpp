#include "ChipSim/plugins/MmuReplListTableSimUtil.h"

#include <algorithm>
#include <optional>
#include <stdexcept>

#include <fmt/format.h>

#include "Asic/Trace.h"
#include "ChipSim/plugins/SimUtilCommon.h"

namespace ChipSim {
namespace {

using HwEntry = ReplListFormat::HwEntry;

std::uint64_t membersOf(const Ulm::PerUnitBitmap& bitmap) {
   std::uint64_t members = 0;
   for (std::size_t word = 0; word < bitmap.wordCount(); ++word) {
      if (word >= 2) {
         if (bitmap.words()[word] != 0) {
            throw std::invalid_argument(
                fmt::format("{}: dense member bitmap {} is wider than 64 bits",
                            ReplListFormat::kMemory, bitmap.toString()));
         }
         continue;
      }
      members |= std::uint64_t(bitmap.words()[word]) << (32 * word);
   }
   return members;
}

// Reads the list that starts at `first`, or nothing when the chip holds no whole list there.
std::optional<std::vector<HwEntry>> readList(const Asic::HwTable& hw, Asic::Index first) {
   std::vector<HwEntry> entries;
   try {
      for (Asic::Index index : chainAt<ReplListFormat>(hw, first)) {
         ReplListFormat::Words words{};
         hw.entryRead(index, words);
         entries.push_back(ReplListFormat::decode(words));
      }
   } catch (const std::exception&) {
      return std::nullopt;
   }
   return entries;
}

// The entries of the list at `first` up to where its chain breaks (an entry that is not
// valid, cannot be decoded, lies past the table or closes a loop): what a write cut short by
// a crash or a failed write leaves behind.
std::vector<HwEntry> readablePart(const Asic::HwTable& hw, Asic::Index first) {
   std::vector<HwEntry> entries;
   std::vector<Asic::Index> seen;
   for (Asic::Index index = first; index < hw.numEntries();) {
      if (std::find(seen.begin(), seen.end(), index) != seen.end()) break;
      ReplListFormat::Words words{};
      if (!hw.entryRead(index, words)) break;
      try {
         entries.push_back(ReplListFormat::decode(words));
      } catch (const std::invalid_argument&) {
         break;
      }
      if (entries.back().last) break;
      seen.push_back(index);
      index = entries.back().next;
   }
   return entries;
}

}  // namespace

std::vector<HwEntry> MmuReplListTableSimUtil::hwEntries(const Entry& entry) {
   std::vector<HwEntry> entries;
   for (const auto& [sparse, present] : entry.sparseReplListEntries()) {
      HwEntry hw;
      hw.kind = HwEntry::Kind::sparse;
      for (const auto& info : sparse) hw.pairs.emplace_back(info.nextHopId, info.portId);
      entries.push_back(std::move(hw));
   }
   for (const auto& [dense, present] : entry.denseReplListEntries()) {
      HwEntry hw;
      hw.kind = HwEntry::Kind::dense;
      hw.lsbVlan = dense.lsbVlan;
      hw.members = membersOf(dense.memberBitmap);
      hw.numBits = dense.numBits;
      entries.push_back(std::move(hw));
   }
   return entries;
}

MmuReplListTableSimUtil::Entry MmuReplListTableSimUtil::entryFromHw(
    const std::vector<HwEntry>& hwEntries, bool withEgressObjects) {
   Entry entry;
   for (const HwEntry& hw : hwEntries) {
      if (hw.kind == HwEntry::Kind::sparse) {
         VelmarMcast::SparseReplListEntry sparse;
         for (const auto& [nextHop, port] : hw.pairs) {
            sparse.nexthopIdToPortIdIs({nextHop, port});
            if (!withEgressObjects) continue;
            VelmarMcast::PortList ports = entry.egressObjectHas(nextHop)
                                              ? entry.egressObject(nextHop)
                                              : VelmarMcast::PortList{};
            ports.portIs(port);
            entry.egressObjectIs(nextHop, ports);
         }
         entry.sparseReplListEntryIs(sparse, true);
         continue;
      }
      VelmarMcast::DenseReplListEntry dense;
      dense.lsbVlan = hw.lsbVlan;
      dense.memberBitmap = Ulm::PerUnitBitmap(std::vector<std::uint32_t>{
          static_cast<std::uint32_t>(hw.members), static_cast<std::uint32_t>(hw.members >> 32)});
      dense.numBits = hw.numBits;
      entry.denseReplListEntryIs(dense, true);
      if (!withEgressObjects) continue;
      for (std::uint32_t bit = 0; bit < 64; ++bit) {
         if (hw.members >> bit & 1u) entry.egressObjectIs((hw.lsbVlan << 6) | bit, {});
      }
   }
   return entry;
}

void MmuReplListTableSimUtil::entryValidate(const Entry& entry) const {
   if (entry.sparseEntrySize() > ReplListFormat::kMaxSparsePairs) {
      throw std::invalid_argument(
          fmt::format("{}: list {}: sparseEntrySize {} exceeds the {} pairs a sparse entry holds",
                      ReplListFormat::kMemory, entry, entry.sparseEntrySize(),
                      ReplListFormat::kMaxSparsePairs));
   }
}

void MmuReplListTableSimUtil::hwTableEntryIs(Table& table,
                                             const std::vector<Asic::Index>& hwIndices,
                                             const Entry& key) {
   Asic::HwTable& hw = boundHwTable(table);
   const auto* resolved = table.resolvedEntry(key);
   if (!resolved || !resolved->has_value()) {
      hwTableEntryDel(table, hwIndices);  // a withdrawn list leaves the chip
      return;
   }
   std::vector<HwEntry> entries = hwEntries(**resolved);
   if (entries.size() != hwIndices.size()) {
      throw std::logic_error(fmt::format("{}: list {} has {} entries but {} indices",
                                         ReplListFormat::kMemory, key, entries.size(),
                                         hwIndices.size()));
   }
   chainLink<ReplListFormat>(std::span<HwEntry>(entries), hwIndices);
   // Encode all first: a list that does not fit leaves the chip untouched.
   std::vector<ReplListFormat::Words> words;
   words.reserve(entries.size());
   for (const HwEntry& entry : entries) words.push_back(ReplListFormat::encode(entry));
   for (std::size_t i = words.size(); i-- > 0;) hw.entryWrite(hwIndices[i], words[i]);
}

void MmuReplListTableSimUtil::hwTableEntryDel(Table& table,
                                              const std::vector<Asic::Index>& hwIndices) {
   Asic::HwTable& hw = boundHwTable(table);
   for (Asic::Index index : hwIndices) hw.entryClear(index);
}

bool MmuReplListTableSimUtil::compareHwEntries(Table& table, Asic::Index hwIndex,
                                               const Entry& entry) {
   auto hwList = readList(boundHwTable(table), hwIndex);
   if (!hwList) return false;
   const Entry hw = entryFromHw(*hwList, false);  // the comparison reads only the layout
   return hwList->size() ==
              entry.sparseReplListEntries().size() + entry.denseReplListEntries().size() &&
          hw.sparseReplListEntries() == entry.sparseReplListEntries() &&
          hw.denseReplListEntries() == entry.denseReplListEntries();
}

void MmuReplListTableSimUtil::syncEntries(Asic::HwTable* hwTable, Table& table) {
   if (!hwTable) return;
   for (Asic::Index head : chainHeads<ReplListFormat>(*hwTable)) {
      auto hwList = readList(*hwTable, head);
      if (!hwList) {
         // A broken list serves no key, but its entries are the table's: its readable part is
         // synced, so that the purge takes it off the chip and frees its indices.
         ASIC_TRACE(Asic::traceHandle(Table::kTypeName), 0,
                    "{} : syncEntries: list at index {} is broken; kept for the purge",
                    Table::kTypeName, head);
         hwList = readablePart(*hwTable, head);
         if (hwList->empty()) continue;
      }
      table.syncedEntryIs(head, entryFromHw(*hwList));
   }
}

Asic::Index MmuReplListTableSimUtil::getNextHwIndex(Table& table, Asic::Index hwIndex) const {
   return nextIndex<ReplListFormat>(boundHwTable(table), hwIndex);
}

}  // namespace ChipSim
