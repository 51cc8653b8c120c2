#pragma once
// The remap table's Util for the simulated chip: one 32-bit word per entry,
//   [15:0]  remappedIpmcIndex
//   [20:16] strengthProfile
// A value that does not fit its field is refused, never cut.

#include <array>
#include <cstdint>

#include "VelmarMcast/McastIpmcRemapTable.h"

namespace ChipSim {

class IngIpmcRemapTableSimUtil : public VelmarMcast::IngIpmcRemapTableUtil {
 public:
   using Entry = VelmarMcast::IngIpmcRemapTableEntry;
   static constexpr std::uint32_t kEntryWords = 1;

   IngIpmcRemapTableSimUtil() : IngIpmcRemapTableUtil("IngIpmcRemapTableSimUtil") {}

   static std::array<std::uint32_t, kEntryWords> encode(const Entry& entry);
   static Entry decode(std::span<const std::uint32_t> words);

   void hwTableEntryIs(VelmarMcast::IngIpmcRemapTable& table, Asic::Index hwIndex,
                       const VelmarL3Common::L3IpmcKey& key) override;
   void hwTableEntryDel(VelmarMcast::IngIpmcRemapTable& table, Asic::Index hwIndex) override;
   bool compareHwEntries(VelmarMcast::IngIpmcRemapTable& table, Asic::Index hwIndex,
                         const Entry& entry) override;
   void syncEntries(Asic::HwTable* hwTable, VelmarMcast::IngIpmcRemapTable& table) override;
};

}  // namespace ChipSim
