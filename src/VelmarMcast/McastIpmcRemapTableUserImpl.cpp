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

}  // namespace VelmarMcast
