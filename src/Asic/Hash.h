#pragma once
// Collections hash a key with the process-wide seed XORed with a per-collection constant,
// so that two collections of one table never share bucket order.

#include <cstddef>
#include <cstdint>

#include "Asic/TypeRegistry.h"

namespace Asic {

// Fixed for the life of the process (picked at start-up from the address space layout).
std::uint32_t hashSeed() noexcept;

template <typename Key, std::uint32_t kCollectionConstant>
struct SeededHash {
   std::size_t operator()(const Key& key) const {
      static const std::uint32_t seed = hashSeed() ^ kCollectionConstant;  // fixed per process
      return hashOf(key, seed);
   }
};

}  // namespace Asic
