// The remap table's own operations, beyond what the engine does for every table.
#include "VelmarMcast/McastIpmcRemapTable.h"

namespace VelmarMcast {

Asic::Ptr<const IngIpmcRemapTable::EntryHandle> IngIpmcRemapTable::entryWriteAtIndex(
    Asic::Index index, const Key& key, const Entry& entry) {
   // What the allocator decides for a taken index is its business; the commit follows.
   if (auto* alloc = indexAllocator()) {
      alloc->requestIndexForKey(index, Asic::vixType<Key>(), &key,
                                static_cast<const Asic::SwTable*>(this));
   }
   return entryCommit(key, entry);
}

std::optional<IngIpmcRemapTable::Key> IngIpmcRemapTable::swKeyFromHwIndex(Asic::Index index) const {
   auto* alloc = indexAllocator();
   if (!alloc) return std::nullopt;
   Asic::GenericValue owner = alloc->keyForIndex(index, Asic::vixType<Key>());
   if (const Key* key = owner.get<Key>()) return *key;
   return std::nullopt;
}

Asic::Index IngIpmcRemapTable::hwIndexOnlyForCrossAgentCommunication(const Key& key) const {
   const EntryHandle* eh = entryHandle(key);
   return eh ? eh->hwIndexForDependentField() : Asic::invalidIndex;
}

}  // namespace VelmarMcast
