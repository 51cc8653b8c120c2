#pragma once
// What loading a table's library does, once per table type and process, whatever the table:
// the agent's process name is read, the key and shared allocator types are registered,
// the trace handles and the table's factory exist, and the Util loader has asked the plug-in
// loader for the table's Util. A table's source runs it from a static initialiser
// (`SwTableLibrary<T>::load()`); constructing a table runs it too, so that order of
// initialisation across libraries never matters.

#include <exception>
#include <string>
#include <string_view>

#include "Asic/IndexAllocator.h"
#include "Asic/RefCounted.h"
#include "Asic/Trace.h"
#include "Asic/TypeRegistry.h"
#include "AsicSwTable/SwTable.h"
#include "AsicSwTable/SwTableUtilLoader.h"

namespace Asic {

// "AGENT_PROCESS_NAME", read once per process; null when unset.
const std::string* agentProcessName();

// Tables by type name, for agents that build their tables from configuration.
class SwTableRegistry {
 public:
   using Factory = Ptr<SwTable> (*)();
   // Registers a table type's factory; the same factory again is a no-op, another one an
   // error (std::logic_error naming the type).
   static void factoryIs(std::string_view tableType, Factory factory);
   // The factory of a type, or null.
   static Factory factory(std::string_view tableType);
   // A new table of that type; std::out_of_range naming the type when none is registered.
   static Ptr<SwTable> tableIs(std::string_view tableType);
};

// A new table of type T, not yet bound to a chip.
template <typename T>
Ptr<T> swTableFactory() {
   return makePtr<T>();
}
template <typename T>
Ptr<SwTable> swTableFactoryAsBase() {
   return swTableFactory<T>();
}

template <typename T>
struct SwTableLibrary {
   // Idempotent; returns true so that a static initialiser can hold it.
   static bool load() {
      static const bool loaded = [] {
         (void)agentProcessName();
         TypeRegistry::registerType<typename T::Key>();
         if constexpr (requires { typename T::SharedAllocator; }) {
            registerSharedAllocator<typename T::SharedAllocator>();
         }
         traceHandle(kSwTableStatTrace);
         traceHandle(T::kTypeName);
         SwTableRegistry::factoryIs(T::kTypeName, &swTableFactoryAsBase<T>);
         // A broken plug-in must not stop the library from loading: the table then runs
         // without a Util, and the error is on record.
         try {
            SwTableUtilLoader<T>::instance();
         } catch (const std::exception& e) {
            ASIC_TRACE(traceHandle(T::kTypeName), 0, "{} : UtilLoader {}", T::kTypeName, e.what());
         }
         return true;
      }();
      return loaded;
   }
};

}  // namespace Asic
