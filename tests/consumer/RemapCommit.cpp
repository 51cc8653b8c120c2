// A user of the installed library: a remap table over the simulated chip, its Util taken from
// the installed plug-ins, commits one entry and waits for the chip's write response.
// Exit 0 when the entry completed and the chip holds it, 1 otherwise (reason on stderr).

#include <array>
#include <cstdint>
#include <cstdio>
#include <string>

#include <fmt/format.h>

#include "Ancillary/Loader.h"
#include "Asic/EventLoop.h"
#include "ChipSim/Chip.h"
#include "ChipSim/plugins/IngIpmcRemapTableSimUtil.h"
#include "ChipSim/plugins/SimTableRig.h"
#include "VelmarMcast/McastIpmcRemapTable.h"
#include "VelmarMcast/VelmarMcastTestEntryHandle.h"

namespace {

using VelmarMcast::IngIpmcRemapTable;
using State = Asic::SwTableBase::EntryState;

int failed(const std::string& why) {
   std::fprintf(stderr, "remap_commit: %s\n", why.c_str());
   return 1;
}

}  // namespace

int main() {
   // Nothing registers a Util in this process: it can only come from a plug-in.
   auto util = IngIpmcRemapTable::UtilLoader::instance().utilForNewTable();
   if (!dynamic_cast<ChipSim::IngIpmcRemapTableSimUtil*>(util.get())) {
      return failed(fmt::format("no simulated-chip Util for {} in the plug-ins of [{}]",
                                IngIpmcRemapTable::kTypeName,
                                fmt::join(Ancillary::Core::Loader::Singleton::searchPath(), ":")));
   }

   Asic::EventLoop loop;
   ChipSim::Chip chip{loop, 0};
   auto sim = ChipSim::simTableIs<IngIpmcRemapTable>(chip, 1024, util);

   // The group's IPMC index is owned by another table: a handle already programmed at 100.
   const VelmarL3Common::L3IpmcKey key{0xEF010101u, 0};  // 239.1.1.1, VRF 0
   // The client is told each state its value reaches: inProgress when written, then the
   // outcome when the chip's write response has come back.
   int successes = 0;
   State reported = State::unresolved;
   auto eh = sim.table->entryCommit(
       key,
       IngIpmcRemapTable::Entry(VelmarMcast::testEntryHandle(100, State::success), 3, [&](State s) {
          successes += s == State::success;
          reported = s;
       }));
   loop.runUntilIdle();

   if (eh->entryState() != State::success || successes != 1 || reported != State::success) {
      return failed(fmt::format("entry state {}, told success {} time(s), last told {}",
                                Asic::toString(eh->entryState()), successes,
                                Asic::toString(reported)));
   }
   std::array<std::uint32_t, ChipSim::IngIpmcRemapTableSimUtil::kEntryWords> words{};
   if (!sim.hw->entryRead(eh->hwIndex(), words)) {
      return failed(fmt::format("the chip holds no entry at index {}", eh->hwIndex()));
   }
   const auto onChip = ChipSim::IngIpmcRemapTableSimUtil::decode(words);
   if (onChip.remappedIpmcIndex != 100 || onChip.strengthProfile != 3) {
      return failed(fmt::format("the chip holds index {} profile {} at {}, not 100 and 3",
                                onChip.remappedIpmcIndex, onChip.strengthProfile, eh->hwIndex()));
   }
   std::printf("remap_commit: 239.1.1.1 -> IPMC index 100 completed at remap index %u\n",
               static_cast<unsigned>(eh->hwIndex()));
   sim.table->cleanup();
   return 0;
}
