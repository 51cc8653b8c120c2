#include "Asic/TypeRegistry.h"

#include <stdexcept>

#include <absl/container/flat_hash_map.h>

namespace Asic::TypeRegistry {
namespace {

absl::flat_hash_map<std::string_view, const TypeDescriptor*>& types() {
   static auto* map = new absl::flat_hash_map<std::string_view, const TypeDescriptor*>();
   return *map;
}

}  // namespace

void registerType(const TypeDescriptor& type) {
   auto [it, inserted] = types().try_emplace(type.name, &type);
   if (!inserted && it->second != &type) {
      throw std::logic_error(fmt::format(
          "type registry: '{}' is already registered with another descriptor", type.name));
   }
}

const TypeDescriptor* find(std::string_view name) {
   auto it = types().find(name);
   return it == types().end() ? nullptr : it->second;
}

std::size_t size() { return types().size(); }

}  // namespace Asic::TypeRegistry
