#include "ChipSim/plugins/IngIpmcRemapTableSimUtil.h"

#include <stdexcept>

#include <fmt/format.h>

#include "ChipSim/plugins/SimUtilCommon.h"

namespace ChipSim {

std::array<std::uint32_t, IngIpmcRemapTableSimUtil::kEntryWords> IngIpmcRemapTableSimUtil::encode(
    const Entry& entry) {
   if (entry.strengthProfile > Entry::kStrengthProfileMax) {
      throw std::invalid_argument(fmt::format(
          "ING_IPMC_REMAP: strengthProfile {} does not fit 5 bits", entry.strengthProfile));
   }
   return {std::uint32_t(entry.remappedIpmcIndex) | (std::uint32_t(entry.strengthProfile) << 16)};
}

IngIpmcRemapTableSimUtil::Entry IngIpmcRemapTableSimUtil::decode(
    std::span<const std::uint32_t> words) {
   Entry entry;
   entry.remappedIpmcIndex = static_cast<std::uint16_t>(words[0] & 0xFFFFu);
   entry.strengthProfile = static_cast<std::uint8_t>((words[0] >> 16) & 0x1Fu);
   return entry;
}

void IngIpmcRemapTableSimUtil::hwTableEntryIs(VelmarMcast::IngIpmcRemapTable& table,
                                              Asic::Index hwIndex,
                                              const VelmarL3Common::L3IpmcKey& key) {
   Asic::HwTable& hw = boundHwTable(table);
   const auto* resolved = table.resolvedEntry(key);
   if (!resolved || !resolved->has_value()) {
      hw.entryClear(hwIndex);  // a withdrawn value leaves the chip
      return;
   }
   const auto words = encode(**resolved);
   hw.entryWrite(hwIndex, words);
}

void IngIpmcRemapTableSimUtil::hwTableEntryDel(VelmarMcast::IngIpmcRemapTable& table,
                                               Asic::Index hwIndex) {
   boundHwTable(table).entryClear(hwIndex);
}

bool IngIpmcRemapTableSimUtil::compareHwEntries(VelmarMcast::IngIpmcRemapTable& table,
                                                Asic::Index hwIndex, const Entry& entry) {
   std::array<std::uint32_t, kEntryWords> words{};
   if (!boundHwTable(table).entryRead(hwIndex, words)) return false;
   const Entry hw = decode(words);
   return hw.remappedIpmcIndex == entry.remappedIpmcIndex &&
          hw.strengthProfile == entry.strengthProfile;
}

void IngIpmcRemapTableSimUtil::syncEntries(Asic::HwTable* hwTable,
                                           VelmarMcast::IngIpmcRemapTable& table) {
   if (!hwTable) return;
   hwTable->forEachValidEntry([&table](Asic::Index index, Asic::HwTable::Words words) {
      table.syncedEntryIs(index, decode(words));
   });
}

}  // namespace ChipSim
