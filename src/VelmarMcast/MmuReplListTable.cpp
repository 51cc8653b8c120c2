#include "VelmarMcast/MmuReplListTable.h"

#include <stdexcept>

#include "Asic/Trace.h"

namespace VelmarMcast {
namespace {
[[maybe_unused]] const bool kLibraryLoaded = Asic::SwTableLibrary<MmuReplListTable>::load();
}  // namespace

MmuReplListSharedAllocator::MmuReplListSharedAllocator(std::string name)
    : DiscontBlockAllocator(std::move(name)) {}

MmuReplListSharedAllocator::~MmuReplListSharedAllocator() = default;

void MmuReplListTable::entryValidate(const Entry& entry) {
   const unsigned leastSparse = entry.denseEntrySize() == 0 ? 1 : 2;
   if (entry.sparseEntrySize() < leastSparse) {
      throw std::invalid_argument(
          fmt::format("{}: list {}: sparseEntrySize {} is below {} (denseEntrySize {})", kTypeName,
                      entry, entry.sparseEntrySize(), leastSparse, entry.denseEntrySize()));
   }
   if (entry.denseEntrySize() == 0) return;
   for (const auto& [eh, ports] : entry.egressObjectHandles()) {
      if (ports.size() != 1) {
         throw std::invalid_argument(
             fmt::format("{}: list {}: egress object {} has ports {}: dense entries take "
                         "exactly one port per egress object",
                         kTypeName, entry, fmt::ptr(eh.get()), ports));
      }
   }
}

void MmuReplListTable::resolveDependentFields(Entry& entry) {
   entry.sparseReplListEntryDelAll();
   entry.denseReplListEntryDelAll();
   Entry::EgressObjectMap::sequence_type objects;
   objects.reserve(entry.egressObjectHandles().size());
   for (const auto& [eh, ports] : entry.egressObjectHandles()) {
      objects.emplace_back(eh->hwIndexForDependentField(), ports);
   }
   entry.egressObjectsIs(std::move(objects));
}

std::vector<Asic::Index> MmuReplListTable::hwIndices(const Entry& entry) const {
   auto* alloc = indexAllocator();
   return alloc ? alloc->indicesForKey(Asic::vixType<Entry>(), &entry) : std::vector<Asic::Index>{};
}

}  // namespace VelmarMcast
