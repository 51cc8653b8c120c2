#pragma once
// The simulated chip of the reference agent: every memory the five tables and the agent's
// neighbour tables use, at this chip's geometry, kept as files under one chip directory
// so that it outlives the agent process.

#include <filesystem>
#include <stdexcept>
#include <string>

#include "Asic/EventLoop.h"
#include "Asic/RefCounted.h"
#include "ChipSim/Chip.h"
#include "ChipSim/Faults.h"
#include "ChipSim/SimHwTable.h"

namespace McastAgent {

// A chip directory the agent refuses (a memory file that is not one, truncated, of another
// geometry): what() names the file and what is wrong.
class ChipError : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

class ChipMemories {
 public:
   // write: the chip itself. copyOnWrite: a private view of it that writes nothing to the
   // chip directory and creates nothing there (a dry run); absent memories are empty.
   enum class Access : std::uint8_t { write, copyOnWrite };

   // Maps every memory under `dir`, creating what is missing. Every memory file already
   // there is checked first, so a refused chip is left exactly as it was. Throws ChipError.
   // `faults` applies to the library's tables (writes and deletes that fail, late
   // completions) and, for the crash after N writes, to every memory.
   explicit ChipMemories(const std::filesystem::path& dir, const ChipSim::FaultPlan& faults = {},
                         Access access = Access::write);
   ChipMemories(const ChipMemories&) = delete;
   ChipMemories& operator=(const ChipMemories&) = delete;

   // Whether the chip directory holds a valid entry in any memory, without creating or
   // changing anything. Throws ChipError for a file it refuses.
   static bool holdsEntries(const std::filesystem::path& dir);

   Asic::EventLoop& loop() noexcept { return loop_; }
   ChipSim::Chip& chip() noexcept { return chip_; }
   const std::filesystem::path& dir() const noexcept { return dir_; }
   ChipSim::Faults& faults() noexcept { return *faults_; }
   // Writes and deletes that reached a memory (counted only with a crash planned).
   std::uint64_t operations() const noexcept { return faults_ ? faults_->operations() : 0; }

   // The library's tables.
   Asic::Ptr<ChipSim::SimHwTable> remap, head, list, l2SubPort, portAgg;
   // The agent's neighbours: the L3 multicast lookup, the replication groups, the egress
   // objects.
   Asic::Ptr<ChipSim::SimHwTable> ipmc, group, nextHop;

 private:
   std::filesystem::path dir_;
   Asic::Ptr<ChipSim::Faults> faults_;
   Asic::EventLoop loop_;
   ChipSim::Chip chip_;
};

}  // namespace McastAgent
