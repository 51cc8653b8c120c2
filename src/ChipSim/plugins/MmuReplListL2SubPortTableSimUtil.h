#pragma once
// The L2 sub-port table's Util for the simulated chip (memory "MMU_REPL_LIST_L2_SUBPORT",
// format in ChipSim/ReplListFormat.h): one entry per index, chained like the replication
// lists so that the same walks read it back.

#include <vector>

#include "ChipSim/ReplListFormat.h"
#include "VelmarMcast/MmuReplListL2SubPortTable.h"

namespace ChipSim {

class MmuReplListL2SubPortTableSimUtil : public VelmarMcast::MmuReplListL2SubPortTableUtil {
 public:
   using Table = VelmarMcast::MmuReplListL2SubPortTable;
   using Entry = VelmarMcast::MmuReplListL2SubPortTableEntry;

   MmuReplListL2SubPortTableSimUtil()
       : MmuReplListL2SubPortTableUtil("MmuReplListL2SubPortTableSimUtil") {}

   static L2SubPortFormat::HwEntry hwEntry(const Entry& entry);
   static Entry entryFromHw(const L2SubPortFormat::HwEntry& hw);

   void hwTableEntryIs(Table& table, const std::vector<Asic::Index>& hwIndices,
                       const Entry& key) override;
   void hwTableEntryDel(Table& table, const std::vector<Asic::Index>& hwIndices) override;
   bool compareHwEntries(Table& table, Asic::Index hwIndex, const Entry& entry) override;
   void syncEntries(Asic::HwTable* hwTable, Table& table) override;
   Asic::Index getNextHwIndex(Table& table, Asic::Index hwIndex) const override;
};

}  // namespace ChipSim
