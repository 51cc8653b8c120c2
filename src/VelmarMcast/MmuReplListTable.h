#pragma once
// The MMU replication lists: for each list, the egress objects (next hop on a port) a
// multicast packet is copied to, laid out in sparse and dense hardware entries. The entry
// is its own key; its egress objects are entry handles of the next-hop tables, and the list
// waits until each of them has a hardware index. A list occupies getBlockSize() indices of
// the replication list index space, not necessarily adjacent; the first one is what a
// replication head names.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Asic/IndexAllocator.h"
#include "AsicSwTable/SwTableAccessor.h"
#include "VelmarMcast/MmuReplListEntry.h"
#include "VelmarMcast/MmuReplListLayout.h"

namespace VelmarMcast {

// The replication list index space: one scattered-block allocator per process, shared by
// the replication list and L2 sub-port tables.
class MmuReplListSharedAllocator : public Asic::DiscontBlockAllocator {
 public:
   static constexpr std::string_view kTypeName = "VelmarMcast::MmuReplListSharedAllocator";

   explicit MmuReplListSharedAllocator(std::string name);
   std::string_view allocatorTypeName() const override { return kTypeName; }

   // A new allocator of that name (the tables get theirs through the shared factory).
   static Asic::Ptr<Asic::GenericIndexAllocator> MmuReplListSharedAllocatorIs(std::string name) {
      return Asic::sharedAllocatorFactory<MmuReplListSharedAllocator>(std::move(name));
   }

 protected:
   ~MmuReplListSharedAllocator() override;
};

inline Asic::Ptr<Asic::GenericIndexAllocator> mmuReplListSharedAllocatorFactory(std::string name) {
   return Asic::sharedAllocatorFactory<MmuReplListSharedAllocator>(std::move(name));
}

class MmuReplListTableUtil;

class MmuReplListTable : public Asic::SwTableImpl<MmuReplListTable, MmuReplListTableEntry,
                                                  MmuReplListTableEntry, MmuReplListTableUtil> {
 public:
   static constexpr std::string_view kTypeName = "VelmarMcast::MmuReplListTable";
   using SharedAllocator = MmuReplListSharedAllocator;
   struct Traits {
      using IndexPolicy = Asic::IndexPolicy::ScatteredBlock;
      static constexpr bool hasDependentFields = true;
      static constexpr bool hasEntryValidate = true;
      static constexpr bool hasResolvedEntryMetaData = true;
      static constexpr bool isUnknownIndexTable = true;
      static constexpr bool hasRemoteAllocator = false;
      static constexpr bool getBlockSizeDefinedByUser = true;
   };
   // Refuses a list the layout cannot handle: sparseEntrySize 0 (or below 2 when dense
   // entries are allowed), or, with dense entries, an egress object without exactly one
   // port. Throws std::invalid_argument naming the list and what is wrong.
   static void entryValidate(const Entry& entry);
   // Fills the list's sparse and dense entries from its resolved egress objects.
   void setResolvedEntryMetaData(const Entry& entry) const { replListMetaDataIs(entry); }

   // Every index the list holds, first one first (empty when it holds none).
   std::vector<Asic::Index> hwIndices(const Entry& entry) const;

   // Dependent fields: each egress object handle -> its next-hop index in egressObject.
   template <typename F>
   static void forEachNeededEntryHandle(const Entry& entry, F&& fn) {
      for (const auto& [eh, ports] : entry.egressObjectHandles()) fn(eh.get());
   }
   static void resolveDependentFields(Entry& entry);
   // At restart the hardware does not say which handle a next hop belongs to: each handle
   // is offered the next hops of the hardware list that serve the same ports, or whose
   // ports the hardware does not keep (dense entries).
   template <typename F>
   static void forEachDependentField(const Entry& swEntry, const Entry& syncedEntry, F&& fn) {
      for (const auto& [eh, ports] : swEntry.egressObjectHandles()) {
         for (const auto& [index, syncedPorts] : syncedEntry.egressObjects()) {
            if (syncedPorts == ports || syncedPorts.empty()) fn(eh.get(), Asic::Index(index));
         }
      }
   }
};

// Hardware hooks of the replication list table; the chip's plug-in implements the pure ones.
class MmuReplListTableUtil : public Asic::SwTableUtilT<MmuReplListTable> {
 public:
   static constexpr std::string_view kTypeName = "VelmarMcast::MmuReplListTable::Util";
   explicit MmuReplListTableUtil(std::string name) : SwTableUtilT(std::move(name)) {}
};

inline Asic::Ptr<MmuReplListTable> mmuReplListTableFactory() {
   return Asic::swTableFactory<MmuReplListTable>();
}

}  // namespace VelmarMcast
