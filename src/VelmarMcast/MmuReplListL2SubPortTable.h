#pragma once
// The MMU replication list L2 sub-port table: per entry, the L2 sub-ports a replication
// goes to and a two-bit mode. The entry is its own key and needs no other table's entry.
// Its indices come from the replication list index space, so that an L2 sub-port entry can
// sit in the same index range as the replication list that uses it.

#include <optional>
#include <string>
#include <string_view>

#include "AsicSwTable/SwTableAccessor.h"
#include "VelmarMcast/MmuReplListL2SubPortEntry.h"
#include "VelmarMcast/MmuReplListTable.h"

namespace VelmarMcast {

class MmuReplListL2SubPortTableUtil;

class MmuReplListL2SubPortTable
    : public Asic::SwTableImpl<MmuReplListL2SubPortTable, MmuReplListL2SubPortTableEntry,
                               MmuReplListL2SubPortTableEntry, MmuReplListL2SubPortTableUtil> {
 public:
   static constexpr std::string_view kTypeName = "VelmarMcast::MmuReplListL2SubPortTable";
   using SharedAllocator = MmuReplListSharedAllocator;
   struct Traits {
      using IndexPolicy = Asic::IndexPolicy::ScatteredBlock;
      static constexpr bool isUnknownIndexTable = true;
      static constexpr bool hasRemoteAllocator = false;
      static constexpr bool getBlockSizeDefinedByUser = true;
      static constexpr bool suggestedIndexMustBeFree = true;
   };
};

// Hardware hooks of the L2 sub-port table; the chip's plug-in implements the pure ones.
class MmuReplListL2SubPortTableUtil : public Asic::SwTableUtilT<MmuReplListL2SubPortTable> {
 public:
   static constexpr std::string_view kTypeName = "VelmarMcast::MmuReplListL2SubPortTable::Util";
   explicit MmuReplListL2SubPortTableUtil(std::string name) : SwTableUtilT(std::move(name)) {}
};

inline Asic::Ptr<MmuReplListL2SubPortTable> mmuReplListL2SubPortTableFactory() {
   return Asic::swTableFactory<MmuReplListL2SubPortTable>();
}

}  // namespace VelmarMcast
