#pragma once
// The replication list table's Util for the simulated chip (memory "MMU_REPL_LIST", format
// in ChipSim/ReplListFormat.h). A list is written as a chain over its indices: its sparse
// entries, then its dense entries, each naming the next, the first index being the one a
// replication head points at. The chain is written from its end so that a reader starting
// at the first index never follows a link into an entry not yet written.

#include <vector>

#include "ChipSim/ReplListFormat.h"
#include "VelmarMcast/MmuReplListTable.h"

namespace ChipSim {

class MmuReplListTableSimUtil : public VelmarMcast::MmuReplListTableUtil {
 public:
   using Table = VelmarMcast::MmuReplListTable;
   using Entry = VelmarMcast::MmuReplListTableEntry;

   MmuReplListTableSimUtil() : MmuReplListTableUtil("MmuReplListTableSimUtil") {}

   // The list's hardware entries in chain order, not yet linked. Throws
   // std::invalid_argument when an entry does not fit the chip.
   static std::vector<ReplListFormat::HwEntry> hwEntries(const Entry& entry);
   // A list read back from the chip: its sparse and dense entries and its next hops. A
   // dense entry's next hops come back without ports (the chip does not keep them). Without
   // `withEgressObjects`, only the sparse and dense entries (what a comparison reads).
   static Entry entryFromHw(const std::vector<ReplListFormat::HwEntry>& hwEntries,
                            bool withEgressObjects = true);

   // The chip holds at most kMaxSparsePairs pairs per sparse entry.
   void entryValidate(const Entry& entry) const override;
   void hwTableEntryIs(Table& table, const std::vector<Asic::Index>& hwIndices,
                       const Entry& key) override;
   void hwTableEntryDel(Table& table, const std::vector<Asic::Index>& hwIndices) override;
   bool compareHwEntries(Table& table, Asic::Index hwIndex, const Entry& entry) override;
   void syncEntries(Asic::HwTable* hwTable, Table& table) override;
   Asic::Index getNextHwIndex(Table& table, Asic::Index hwIndex) const override;
};

}  // namespace ChipSim
