#include "Asic/Hash.h"

#include <cstdlib>

namespace Asic {

std::uint32_t hashSeed() noexcept {
   static const std::uint32_t seed = [] {
      auto addr = reinterpret_cast<std::uintptr_t>(&hashSeed);
      return static_cast<std::uint32_t>((addr >> 4) * 0x9E3779B1u);
   }();
   return seed;
}

}  // namespace Asic
