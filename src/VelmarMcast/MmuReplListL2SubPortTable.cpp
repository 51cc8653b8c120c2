#include "VelmarMcast/MmuReplListL2SubPortTable.h"

#include <stdexcept>

#include "Asic/Trace.h"
#include "Asic/TypeRegistry.h"

namespace VelmarMcast {
namespace {

struct LibraryLoad {
   LibraryLoad() {
      Asic::TypeRegistry::registerType<MmuReplListL2SubPortTableEntry>();
      registerMmuReplListSharedAllocator();
      try {
         MmuReplListL2SubPortTable::UtilLoader::instance();
      } catch (const std::exception& e) {
         ASIC_TRACE(Asic::traceHandle(MmuReplListL2SubPortTable::kTypeName), 0,
                    "{} : UtilLoader {}", MmuReplListL2SubPortTable::kTypeName, e.what());
      }
   }
};

const LibraryLoad& libraryLoad() {
   static const LibraryLoad load;
   return load;
}
[[maybe_unused]] const LibraryLoad& libraryLoadAtStart = libraryLoad();

std::string_view toString(Asic::GenericIndexAllocator::RequestStatus status) {
   using Status = Asic::GenericIndexAllocator::RequestStatus;
   switch (status) {
      case Status::assigned:
         return "assigned";
      case Status::alreadyOwned:
         return "already owned";
      case Status::indexTaken:
         return "taken by another entry or reserved";
      case Status::keyHasOther:
         return "the entry already holds another index";
      case Status::outOfRange:
         return "out of range";
   }
   return "unknown";
}

}  // namespace

MmuReplListL2SubPortTable::MmuReplListL2SubPortTable() : SwTableImpl("") {
   (void)libraryLoad();
   hwResponseNeededIs(true);
   utilIs(UtilLoader::instance().utilForNewTable());
}

Asic::Ptr<const MmuReplListL2SubPortTable::EntryHandle>
MmuReplListL2SubPortTable::entryWriteAtIndex(Asic::Index index, const Entry& entry) {
   auto* alloc = indexAllocator();
   if (!alloc) {
      throw std::logic_error(
          fmt::format("{}: entryWriteAtIndex before the allocator is created", kTypeName));
   }
   using Status = Asic::GenericIndexAllocator::RequestStatus;
   const Status status = alloc->requestIndexForKey(index, Asic::vixType<Entry>(), &entry,
                                                   static_cast<const Asic::SwTable*>(this));
   if (status != Status::assigned && status != Status::alreadyOwned) {
      throw std::invalid_argument(fmt::format("{}: entryWriteAtIndex: index {} for entry {}: {}",
                                              kTypeName, index, entry, toString(status)));
   }
   ASIC_TRACE(Asic::traceHandle(kTypeName), 5, "{} : entryWriteAtIndex: Writing entry :{}",
              kTypeName, entry);
   return accessor().entryResolvedIs(entry, entry);
}

Asic::Ptr<MmuReplListL2SubPortTable> mmuReplListL2SubPortTableFactory() {
   return Asic::makePtr<MmuReplListL2SubPortTable>();
}

}  // namespace VelmarMcast
