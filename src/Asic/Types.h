#pragma once
// Scalar vocabulary shared by every table, allocator and the hardware layer.

#include <cstdint>
#include <limits>

#include <absl/container/btree_set.h>

namespace Asic {

// Hardware table index; all ones means "no index" (allocator exhausted).
using Index = std::uint32_t;
inline constexpr Index invalidIndex = std::numeric_limits<Index>::max();

constexpr bool isExhausted(Index hwIndex) noexcept { return hwIndex == invalidIndex; }

// Ascending set of indices, used for index suggestions at restart.
using IndexSet = absl::btree_set<Index>;

// Chip unit number.
using UnitId = std::uint32_t;

}  // namespace Asic
