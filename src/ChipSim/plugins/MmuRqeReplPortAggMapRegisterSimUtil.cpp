#include "ChipSim/plugins/MmuRqeReplPortAggMapRegisterSimUtil.h"

#include <stdexcept>

#include <fmt/format.h>

#include "ChipSim/plugins/SimUtilCommon.h"

namespace ChipSim {

MmuRqeReplPortAggMapRegisterSimUtil::Words MmuRqeReplPortAggMapRegisterSimUtil::encode(
    const Entry& entry) {
   const auto& words = entry.memberBmp.words();
   for (std::size_t w = kEntryWords; w < words.size(); ++w) {
      if (words[w] == 0) continue;
      const int bit = __builtin_ctz(words[w]);
      throw std::invalid_argument(fmt::format("{}: member port {} is beyond the chip's {} ports",
                                              kMemory, w * 32 + bit, kPorts));
   }
   Words out{};
   for (std::size_t w = 0; w < kEntryWords && w < words.size(); ++w) out[w] = words[w];
   return out;
}

MmuRqeReplPortAggMapRegisterSimUtil::Entry MmuRqeReplPortAggMapRegisterSimUtil::decode(
    std::span<const std::uint32_t> words) {
   return Entry(Ulm::PerUnitBitmap(std::vector<std::uint32_t>(words.begin(), words.end())));
}

void MmuRqeReplPortAggMapRegisterSimUtil::hwTableEntryIs(Table& table, Asic::Index hwIndex,
                                                         const Asic::Index& key) {
   Asic::HwTable& hw = boundHwTable(table);
   const auto* resolved = table.resolvedEntry(key);
   if (!resolved || !resolved->has_value()) {
      hw.entryClear(hwIndex);  // a withdrawn value leaves the chip
      return;
   }
   const Words words = encode(**resolved);
   hw.entryWrite(hwIndex, words);
}

void MmuRqeReplPortAggMapRegisterSimUtil::hwTableEntryDel(Table& table, Asic::Index hwIndex) {
   boundHwTable(table).entryClear(hwIndex);
}

bool MmuRqeReplPortAggMapRegisterSimUtil::compareHwEntries(Table& table, Asic::Index hwIndex,
                                                           const Entry& entry) {
   Words words{};
   if (!boundHwTable(table).entryRead(hwIndex, words)) return false;
   try {
      return encode(entry) == words;
   } catch (const std::invalid_argument&) {
      return false;
   }
}

void MmuRqeReplPortAggMapRegisterSimUtil::syncEntries(Asic::HwTable* hwTable, Table& table) {
   if (!hwTable) return;
   hwTable->forEachValidEntry([&table](Asic::Index index, Asic::HwTable::Words words) {
      table.syncedEntryIs(index, decode(words));
   });
}

}  // namespace ChipSim
