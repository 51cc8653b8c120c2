#pragma once
// Valid configurations of any size, for scale runs and tests: the same seed gives the same
// configuration.

#include <cstdint>

#include "McastAgent/Config.h"

namespace McastAgent {

struct GenOptions {
   std::uint32_t groups = 16;
   std::uint64_t seed = 1;
   std::uint32_t egressPerList = 8;
};

// Groups g0, g1, ... on 239.0.0.1 onwards: three in four have their own replication (one
// or two port speeds, one list in five gathered into dense entries), the fourth is
// remapped to the group three before it; a few L2 sub-port lists and port aggregations.
// Throws std::invalid_argument when the chip cannot hold what is asked for.
Config generate(const GenOptions& options);

}  // namespace McastAgent
