#include "ChipSim/plugins/MmuReplListL2SubPortTableSimUtil.h"

#include <stdexcept>

#include <fmt/format.h>

#include "Asic/Trace.h"
#include "ChipSim/plugins/SimUtilCommon.h"

namespace ChipSim {

L2SubPortFormat::HwEntry MmuReplListL2SubPortTableSimUtil::hwEntry(const Entry& entry) {
   L2SubPortFormat::HwEntry hw;
   hw.mode = entry.modeBitmap();
   hw.bitmapWords = entry.l2SubPortBitmap().words();
   return hw;
}

MmuReplListL2SubPortTableSimUtil::Entry MmuReplListL2SubPortTableSimUtil::entryFromHw(
    const L2SubPortFormat::HwEntry& hw) {
   return Entry(hw.mode, Ulm::PerUnitBitmap(hw.bitmapWords));
}

void MmuReplListL2SubPortTableSimUtil::hwTableEntryIs(Table& table,
                                                      const std::vector<Asic::Index>& hwIndices,
                                                      const Entry& key) {
   Asic::HwTable& hw = boundHwTable(table);
   const auto* resolved = table.resolvedEntry(key);
   if (!resolved || !resolved->has_value()) {
      hwTableEntryDel(table, hwIndices);
      return;
   }
   if (hwIndices.size() != 1) {
      throw std::logic_error(fmt::format("{}: entry {} takes one index, given {}",
                                         L2SubPortFormat::kMemory, key, hwIndices.size()));
   }
   L2SubPortFormat::HwEntry entry = hwEntry(**resolved);
   chainLink<L2SubPortFormat>(std::span<L2SubPortFormat::HwEntry>(&entry, 1), hwIndices);
   hw.entryWrite(hwIndices.front(), L2SubPortFormat::encode(entry));
}

void MmuReplListL2SubPortTableSimUtil::hwTableEntryDel(Table& table,
                                                       const std::vector<Asic::Index>& hwIndices) {
   Asic::HwTable& hw = boundHwTable(table);
   for (Asic::Index index : hwIndices) hw.entryClear(index);
}

bool MmuReplListL2SubPortTableSimUtil::compareHwEntries(Table& table, Asic::Index hwIndex,
                                                        const Entry& entry) {
   L2SubPortFormat::Words words{};
   if (!boundHwTable(table).entryRead(hwIndex, words)) return false;
   try {
      return entryFromHw(L2SubPortFormat::decode(words)) == entry;
   } catch (const std::exception&) {
      return false;  // words no entry could have: not this entry
   }
}

void MmuReplListL2SubPortTableSimUtil::syncEntries(Asic::HwTable* hwTable, Table& table) {
   if (!hwTable) return;
   hwTable->forEachValidEntry([&table](Asic::Index index, Asic::HwTable::Words words) {
      try {
         table.syncedEntryIs(index, entryFromHw(L2SubPortFormat::decode(words)));
      } catch (const std::invalid_argument& e) {
         // Words no entry could have are no entry: left for a later write to overwrite.
         ASIC_TRACE(Asic::traceHandle(Table::kTypeName), 0,
                    "{} : syncEntries: skipping index {}: {}", Table::kTypeName, index, e.what());
      }
   });
}

// An L2 sub-port entry takes one index: nothing follows it within an entry, whatever its
// link field says (a word read back with "last" clear is a corrupted one, not a longer entry).
Asic::Index MmuReplListL2SubPortTableSimUtil::getNextHwIndex(Table&, Asic::Index) const {
   return Asic::invalidIndex;
}

}  // namespace ChipSim
