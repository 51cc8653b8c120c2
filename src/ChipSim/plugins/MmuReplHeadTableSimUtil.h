#pragma once
// The replication head table's Util for the simulated chip. MMU_REPL_HEAD_TBL, 2 words per
// entry (bits not listed are zero):
//   word 0  [17:0]   headPtr: first entry of the replication list (the list memory's index)
//           [29:18]  numNextHops, 0..4095
//   word 1  [3:0]    portSpeed
//           [19:4]   ipmcIndex, 0..65535
// A value that does not fit its field is refused (std::invalid_argument naming the field and
// the value), never cut.

#include <array>
#include <cstdint>
#include <span>

#include "VelmarMcast/MmuReplHeadTable.h"

namespace ChipSim {

class MmuReplHeadTableSimUtil : public VelmarMcast::MmuReplHeadTableUtil {
 public:
   using Entry = VelmarMcast::MmuReplHeadTableEntry;
   static constexpr char kMemory[] = "MMU_REPL_HEAD_TBL";
   static constexpr std::uint32_t kEntryWords = 2;
   static constexpr std::uint32_t kHeadPtrMax = (1u << 18) - 1;
   static constexpr std::uint32_t kNumNextHopsMax = (1u << 12) - 1;
   static constexpr std::uint32_t kPortSpeedMax = (1u << 4) - 1;
   static constexpr std::uint32_t kIpmcIndexMax = (1u << 16) - 1;
   using Words = std::array<std::uint32_t, kEntryWords>;

   MmuReplHeadTableSimUtil() : MmuReplHeadTableUtil("MmuReplHeadTableSimUtil") {}

   static Words encode(const Entry& entry);
   // The handle cannot come back from the chip: a decoded entry names none.
   static Entry decode(std::span<const std::uint32_t> words);

   // Refuses at commit a block with a field this chip cannot hold (headPtr is known only at
   // resolution, and always fits the list memory's indices).
   void entryValidate(const VelmarMcast::MmuReplHeadTableEntryBlock& block) const override;
   void hwTableEntryIs(VelmarMcast::MmuReplHeadTable& table, Asic::Index hwIndex,
                       const Entry& entry) override;
   void hwTableEntryDel(VelmarMcast::MmuReplHeadTable& table, Asic::Index hwIndex) override;
   bool compareEntries(const Entry& hw, const Entry& sw) const override;
   void syncEntries(Asic::HwTable* hwTable, VelmarMcast::MmuReplHeadTable& table) override;
};

}  // namespace ChipSim
