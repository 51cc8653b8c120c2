#pragma once
// The reference agent's run: a configuration programmed onto the chip through the five
// tables, as a switch agent does at start-up. An empty chip is a cold start; a chip that
// holds entries is a warm restart: the tables read the chip back, the configuration is
// replayed and reconciled against it, neighbours suggest where their entries sit, and what
// the configuration no longer has is purged. The run ends without tearing its tables down:
// the chip keeps what was programmed for the next process.

#include <array>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "Asic/Types.h"
#include "McastAgent/Audit.h"
#include "McastAgent/ChipMemories.h"
#include "McastAgent/Config.h"

namespace McastAgent {

struct TableCounts {
   std::uint64_t writes = 0;
   std::uint64_t deletes = 0;
   // By reconciliation status: not reconciled, reconciled, index reconciled (contents
   // differ), nothing to reconcile.
   std::array<std::uint64_t, 4> reconciled{};
   std::uint64_t stalePurged = 0;
   std::uint64_t entries = 0;  // valid entries the chip holds at the end
};

// A key that did not end programmed.
struct FailedKey {
   std::string table;
   std::string key;
   std::string state;
};

// What reconciliation did with one key of a library table, or with one stale entry (a dry
// run's detail).
struct KeyOutcome {
   enum class Kind : std::uint8_t { kept, rewritten, added, stale };
   std::string table;  // remap, head, list, l2subport, portagg
   Kind kind = Kind::kept;
   int status = 0;  // the reconciliation status counted for it
   Asic::Index index = Asic::invalidIndex;
   std::string key;     // the configuration's name for it (empty for a stale entry)
   std::string reason;  // added: why nothing on the chip could be kept
   // rewritten: "field: chip -> configured", per entry that differs
   std::vector<std::string> differences;
   // stale: each entry the purge removes, decoded
   std::vector<std::pair<Asic::Index, nlohmann::json>> contents;
};
std::string_view toString(KeyOutcome::Kind kind) noexcept;

struct RunReport {
   bool warm = false;
   bool dryRun = false;
   std::vector<KeyOutcome> outcomes;  // with RunOptions::before, in the order they happened
   // With RunOptions::auditAllocation: allocators and hardware that disagree.
   std::vector<Finding> allocationFindings;
   std::vector<std::pair<std::string, TableCounts>> tables;  // in dependency order
   std::vector<std::pair<std::string, double>> phasesMs;     // in the order they ran
   std::vector<FailedKey> failed;
   // With checkEveryWrite: chip operations after which a group's walk was neither its old
   // replication set nor its new one (the first few, and how many in all).
   std::vector<std::string> violations;
   std::uint64_t violationCount = 0;
   std::uint64_t operationsChecked = 0;

   TableCounts totals() const;
   nlohmann::json toJson() const;
   std::string toText() const;
};

struct RunOptions {
   // Phases longer than a second are reported on stderr (when it is a terminal).
   bool progress = false;
   // Walks the chip after every write and delete (the chip must observe writes): every group
   // must replicate as before the run or as the configuration says, never a mix of both and
   // never to nothing while it is in both.
   bool checkEveryWrite = false;
   // A dry run: the chip as it was before the run (a second, untouched view of it), to
   // decode what reconciliation kept, rewrote and purged; every key's outcome is recorded.
   ChipMemories* before = nullptr;
   // Stops before the purge and compares every allocator with the hardware.
   bool auditAllocation = false;
};

// Programs `config` onto the chip. The configuration must have been validated.
RunReport run(ChipMemories& chip, const Config& config, const RunOptions& options = {});

}  // namespace McastAgent
