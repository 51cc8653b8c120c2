#pragma once
// The audit: the chip read back and checked against itself (indices claimed twice, head
// blocks that overlap, list chains that loop, leave the table or share entries, head
// pointers that name no list head, lists no head names, remap entries that lead nowhere,
// entries that do not decode) and, given a configuration, against the indices the
// software owns once that configuration is replayed over it (on a copy-on-write view:
// the audit writes nothing).

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "Asic/Types.h"
#include "McastAgent/ChipMemories.h"
#include "McastAgent/Config.h"

namespace McastAgent {

struct Finding {
   std::string memory;  // the chip memory, e.g. MMU_REPL_LIST
   Asic::Index index = 0;
   std::string problem;
   friend bool operator==(const Finding&, const Finding&) = default;
};

std::string toText(const Finding& finding);  // "MMU_REPL_LIST[12]: ..."
nlohmann::json toJson(const std::vector<Finding>& findings);

// What the chip's memories say about themselves; empty when consistent. Reads only.
std::vector<Finding> auditChip(ChipMemories& chip);

// Replays `config` over a copy-on-write view of the chip directory `dir` (sync, replay,
// reconciliation, init complete; no purge) and compares each allocator and the agent's own
// memories with the hardware: indices a key holds where the chip has no entry, and
// entries that no key owns (what the purge would remove). Writes nothing.
std::vector<Finding> auditAllocation(const std::string& dir, const Config& config);

}  // namespace McastAgent
