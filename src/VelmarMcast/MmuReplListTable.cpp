#include "VelmarMcast/MmuReplListTable.h"

#include <stdexcept>

#include "Asic/Trace.h"
#include "Asic/TypeRegistry.h"

namespace VelmarMcast {
namespace {

// Library load: the key type, the shared allocator's factory, and the Util loader. A
// broken plug-in must not stop the library from loading: the table then runs without a
// Util, and the error is on record.
struct LibraryLoad {
   LibraryLoad() {
      registerMmuReplListTypes();
      registerMmuReplListSharedAllocator();
      try {
         MmuReplListTable::UtilLoader::instance();
      } catch (const std::exception& e) {
         ASIC_TRACE(Asic::traceHandle(MmuReplListTable::kTypeName), 0, "{} : UtilLoader {}",
                    MmuReplListTable::kTypeName, e.what());
      }
   }
};

const LibraryLoad& libraryLoad() {
   static const LibraryLoad load;
   return load;
}
[[maybe_unused]] const LibraryLoad& libraryLoadAtStart = libraryLoad();

}  // namespace

MmuReplListSharedAllocator::MmuReplListSharedAllocator(std::string name)
    : DiscontBlockAllocator(std::move(name)) {}

MmuReplListSharedAllocator::~MmuReplListSharedAllocator() = default;

Asic::Ptr<Asic::GenericIndexAllocator> MmuReplListSharedAllocator::MmuReplListSharedAllocatorIs(
    std::string name) {
   return Asic::Ptr<Asic::GenericIndexAllocator>(new MmuReplListSharedAllocator(std::move(name)));
}

Asic::Ptr<Asic::GenericIndexAllocator> mmuReplListSharedAllocatorFactory(std::string name) {
   return MmuReplListSharedAllocator::MmuReplListSharedAllocatorIs(std::move(name));
}

void registerMmuReplListSharedAllocator() {
   Asic::GenericIndexAllocatorStub::allocatorFactoryIs(MmuReplListSharedAllocator::kTypeName,
                                                       &mmuReplListSharedAllocatorFactory);
}

MmuReplListTable::MmuReplListTable() : SwTableImpl("") {
   (void)libraryLoad();
   hwResponseNeededIs(true);
   utilIs(UtilLoader::instance().utilForNewTable());
}

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
   entry.egressObjectDelAll();
   entry.sparseReplListEntryDelAll();
   entry.denseReplListEntryDelAll();
   for (const auto& [eh, ports] : entry.egressObjectHandles()) {
      entry.egressObjectIs(eh->hwIndexForDependentField(), ports);
   }
}

std::vector<Asic::Index> MmuReplListTable::hwIndices(const Entry& entry) const {
   auto* alloc = indexAllocator();
   return alloc ? alloc->indicesForKey(Asic::vixType<Entry>(), &entry) : std::vector<Asic::Index>{};
}

Asic::Ptr<MmuReplListTable> mmuReplListTableFactory() { return Asic::makePtr<MmuReplListTable>(); }

}  // namespace VelmarMcast
