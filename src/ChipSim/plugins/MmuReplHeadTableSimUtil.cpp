#include "ChipSim/plugins/MmuReplHeadTableSimUtil.h"

#include <stdexcept>

#include <fmt/format.h>

#include "ChipSim/plugins/SimUtilCommon.h"

namespace ChipSim {
namespace {

std::uint32_t field(std::uint64_t value, std::uint32_t max, std::string_view name) {
   if (value > max) {
      throw std::invalid_argument(fmt::format("{}: {} {} does not fit (0..{})",
                                              MmuReplHeadTableSimUtil::kMemory, name, value, max));
   }
   return static_cast<std::uint32_t>(value);
}

}  // namespace

MmuReplHeadTableSimUtil::Words MmuReplHeadTableSimUtil::encode(const Entry& entry) {
   const std::uint32_t headPtr = field(entry.headPtr, kHeadPtrMax, "headPtr");
   const std::uint32_t hops = field(entry.numNextHops, kNumNextHopsMax, "numNextHops");
   const std::uint32_t speed =
       field(static_cast<std::uint8_t>(entry.portSpeed), kPortSpeedMax, "portSpeed");
   const std::uint32_t ipmc = field(entry.ipmcIndex, kIpmcIndexMax, "ipmcIndex");
   return {headPtr | (hops << 18), speed | (ipmc << 4)};
}

MmuReplHeadTableSimUtil::Entry MmuReplHeadTableSimUtil::decode(
    std::span<const std::uint32_t> words) {
   if (words.size() != kEntryWords || (words[0] >> 30) != 0 || (words[1] >> 20) != 0) {
      throw std::invalid_argument(
          fmt::format("{}: words that no entry could have been written as", kMemory));
   }
   Entry entry;
   entry.headPtr = words[0] & kHeadPtrMax;
   entry.numNextHops = static_cast<std::uint16_t>((words[0] >> 18) & kNumNextHopsMax);
   entry.portSpeed = static_cast<Interface::EthSpeed>(words[1] & kPortSpeedMax);
   entry.ipmcIndex = (words[1] >> 4) & kIpmcIndexMax;
   return entry;
}

void MmuReplHeadTableSimUtil::entryValidate(
    const VelmarMcast::MmuReplHeadTableEntryBlock& block) const {
   for (const auto& [offset, entry] : block.entryInternal()) {
      Entry fields = entry;
      fields.headPtr = 0;
      try {
         (void)encode(fields);
      } catch (const std::invalid_argument& e) {
         throw std::invalid_argument(fmt::format("{}: block offset {}: {}",
                                                 VelmarMcast::MmuReplHeadTable::kTypeName, offset,
                                                 e.what()));
      }
   }
}

void MmuReplHeadTableSimUtil::hwTableEntryIs(VelmarMcast::MmuReplHeadTable& table,
                                             Asic::Index hwIndex, const Entry& entry) {
   const Words words = encode(entry);
   boundHwTable(table).entryWrite(hwIndex, words);
}

void MmuReplHeadTableSimUtil::hwTableEntryDel(VelmarMcast::MmuReplHeadTable& table,
                                              Asic::Index hwIndex) {
   boundHwTable(table).entryClear(hwIndex);
}

bool MmuReplHeadTableSimUtil::compareEntries(const Entry& hw, const Entry& sw) const {
   try {
      return encode(hw) == encode(sw);
   } catch (const std::invalid_argument&) {
      return false;  // a value the chip cannot hold is not what it holds
   }
}

void MmuReplHeadTableSimUtil::syncEntries(Asic::HwTable* hwTable,
                                          VelmarMcast::MmuReplHeadTable& table) {
   if (!hwTable) return;
   hwTable->forEachValidEntry([&table](Asic::Index index, Asic::HwTable::Words words) {
      try {
         table.syncedEntryIs(index, decode(words));
      } catch (const std::invalid_argument&) {
         // Not a head entry: a stale record the purge clears, whatever it was.
         table.syncedEntryIs(index, Entry{});
      }
   });
}

}  // namespace ChipSim
