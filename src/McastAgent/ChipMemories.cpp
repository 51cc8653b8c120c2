#include "McastAgent/ChipMemories.h"

#include <array>
#include <system_error>

#include <fmt/format.h>

#include "ChipSim/MappedMemory.h"
#include "ChipSim/NeighbourFormats.h"
#include "ChipSim/ReplListFormat.h"
#include "ChipSim/plugins/IngIpmcRemapTableSimUtil.h"
#include "ChipSim/plugins/MmuReplHeadTableSimUtil.h"
#include "ChipSim/plugins/MmuRqeReplPortAggMapRegisterSimUtil.h"
#include "McastAgent/Config.h"

namespace McastAgent {

namespace {

struct Geometry {
   const char* name;
   std::uint32_t entries;
   std::uint32_t words;
};

// This chip's memories. The list and L2 sub-port memories share one index space (one
// allocator), so they have the same size.
constexpr std::array<Geometry, 8> kGeometry = {{
    {"ING_IPMC_REMAP", ChipLimits::kIpmcIndices, ChipSim::IngIpmcRemapTableSimUtil::kEntryWords},
    {ChipSim::MmuReplHeadTableSimUtil::kMemory, ChipLimits::kHeadEntries,
     ChipSim::MmuReplHeadTableSimUtil::kEntryWords},
    {ChipSim::ReplListFormat::kMemory, ChipLimits::kListEntries,
     ChipSim::ReplListFormat::kEntryWords},
    {ChipSim::L2SubPortFormat::kMemory, ChipLimits::kListEntries,
     ChipSim::L2SubPortFormat::kEntryWords},
    {ChipSim::MmuRqeReplPortAggMapRegisterSimUtil::kMemory, ChipLimits::kPortAggIndices,
     ChipSim::MmuRqeReplPortAggMapRegisterSimUtil::kEntryWords},
    {ChipSim::IpmcLookupFormat::kMemory, ChipLimits::kIpmcIndices,
     ChipSim::IpmcLookupFormat::kEntryWords},
    {ChipSim::ReplGroupFormat::kMemory, ChipLimits::kIpmcIndices,
     ChipSim::ReplGroupFormat::kEntryWords},
    {ChipSim::NextHopFormat::kMemory, ChipLimits::kNextHops, ChipSim::NextHopFormat::kEntryWords},
}};

// Every memory file already in `dir` must be one of this chip's, at its geometry.
void checkExisting(const std::filesystem::path& dir) {
   std::error_code ec;
   if (!std::filesystem::exists(dir, ec)) return;
   if (!std::filesystem::is_directory(dir, ec)) {
      throw ChipError(fmt::format("{}: not a directory", dir.string()));
   }
   for (const Geometry& g : kGeometry) {
      const auto file = ChipSim::MappedMemory::fileFor(dir, g.name);
      if (!std::filesystem::exists(file, ec)) continue;
      Asic::Ptr<ChipSim::MappedMemory> memory;
      try {
         memory = ChipSim::MappedMemory::existing(file);
      } catch (const std::exception& e) {
         throw ChipError(e.what());
      }
      if (memory->numEntries() != g.entries || memory->entryWords() != g.words) {
         throw ChipError(fmt::format(
             "{}: holds {} entries of {} words; this chip's {} has {} entries of {} words",
             file.string(), memory->numEntries(), memory->entryWords(), g.name, g.entries,
             g.words));
      }
   }
}

}  // namespace

bool ChipMemories::holdsEntries(const std::filesystem::path& dir) {
   checkExisting(dir);
   try {
      return ChipSim::chipHoldsEntries(dir);
   } catch (const std::exception& e) {
      throw ChipError(e.what());
   }
}

namespace {

// Checks the directory before anything is mapped or created in it.
ChipSim::Chip::MemoryFactory checkedMemories(const std::filesystem::path& dir,
                                             const Asic::Ptr<ChipSim::Faults>& faults,
                                             ChipMemories::Access access) {
   checkExisting(dir);
   ChipSim::Chip::MemoryFactory mapped;
   try {
      mapped = access == ChipMemories::Access::copyOnWrite ? ChipSim::copyOnWriteMemories(dir)
                                                           : ChipSim::mappedMemories(dir);
   } catch (const std::exception& e) {
      throw ChipError(e.what());
   }
   if (!faults || (faults->plan().crashAfterWrites == 0 && !faults->plan().observeWrites)) {
      return mapped;
   }
   return [mapped, faults](const std::string& name, std::uint32_t entries, std::uint32_t words) {
      return ChipSim::countedMemory(mapped(name, entries, words), faults);
   };
}

}  // namespace

ChipMemories::ChipMemories(const std::filesystem::path& dir, const ChipSim::FaultPlan& faults,
                           Access access)
    : dir_(dir),
      faults_(Asic::makePtr<ChipSim::Faults>(faults)),
      chip_(loop_, 0, checkedMemories(dir, faults_, access)) {
   auto open = [&](std::size_t n) {
      const Geometry& g = kGeometry[n];
      try {
         return chip_.tableIs(g.name, g.entries, g.words);
      } catch (const std::exception& e) {
         throw ChipError(e.what());
      }
   };
   remap = open(0);
   head = open(1);
   list = open(2);
   l2SubPort = open(3);
   portAgg = open(4);
   ipmc = open(5);
   group = open(6);
   nextHop = open(7);
   if (faults.failRate > 0 || faults.delayTurns > 0) {
      for (auto* t : {&remap, &head, &list, &l2SubPort, &portAgg}) (*t)->faultsIs(faults_);
   }
}

}  // namespace McastAgent
