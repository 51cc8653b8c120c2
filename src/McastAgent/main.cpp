// The reference agent's entry point. For now it runs one end-to-end demonstration: IPMC
// remap entries are committed against the simulated chip, follow their needed IPMC-index
// handles, get indices from the shared allocator, are written, complete through the event
// loop and are removed again; every step is read back from the chip's memory.

#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Asic/EventLoop.h"
#include "ChipSim/Chip.h"
#include "ChipSim/plugins/IngIpmcRemapTableSimUtil.h"
#include "VelmarMcast/McastIpmcRemapTable.h"
#include "VelmarMcast/VelmarMcastTestEntryHandle.h"

namespace {

using State = Asic::SwTableBase::EntryState;

// Plug-ins sit in <build>/plugins; the binary in <build>/src/McastAgent.
void defaultPluginPath() {
   if (std::getenv("VELMAR_PLUGIN_PATH")) return;
   std::error_code ec;
   auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
   if (ec) return;
   auto dir = exe.parent_path().parent_path().parent_path() / "plugins";
   setenv("VELMAR_PLUGIN_PATH", dir.c_str(), 0);
}

struct DemoOptions {
   std::uint32_t groups = 1000;
   std::uint32_t entries = 4096;
   bool json = false;
};

int runDemo(const DemoOptions& opt) {
   if (opt.groups + 1 > opt.entries) {
      throw CLI::ValidationError("--groups", fmt::format("{} groups do not fit a table of {} entries "
                                                         "(index 0 is reserved)",
                                                         opt.groups, opt.entries));
   }
   Asic::EventLoop loop;
   ChipSim::Chip chip(loop, 0);
   auto hw = chip.tableIs("ING_IPMC_REMAP", opt.entries,
                          ChipSim::IngIpmcRemapTableSimUtil::kEntryWords);
   auto table = VelmarMcast::ingIpmcRemapTableFactory();
   if (!table->utilIfExists()) {
      throw std::runtime_error("no Util for VelmarMcast::IngIpmcRemapTable: set VELMAR_PLUGIN_PATH "
                               "to the directory holding AsicFeature/");
   }
   table->hwTableIs(hw);
   table->doCreateAllocator();

   // The IPMC indices are owned by the L3 multicast lookup; here each group's target is a
   // handle that becomes programmed at index 1000 + n after the commit.
   std::vector<Asic::Ptr<VelmarMcast::VelmarMcastTestEntryHandle>> targets;
   std::uint64_t successes = 0;
   for (std::uint32_t n = 0; n < opt.groups; ++n) {
      targets.push_back(VelmarMcast::testEntryHandle());
      VelmarMcast::IngIpmcRemapTableEntry entry(targets.back(), n % 32, [&successes](State s) {
         successes += s == State::success;
      });
      table->entryCommit(VelmarL3Common::L3IpmcKey{0xEF000000u + n, 0}, entry);
   }
   const auto waiting = table->unresolvedEntries().size();
   for (std::uint32_t n = 0; n < opt.groups; ++n) targets[n]->programmedIs(1000 + n);
   const auto writesBeforeResponses = hw->counters().writes;
   loop.runUntilIdle();

   // Read the chip back: every group's entry carries its target index and profile.
   std::uint32_t verified = 0;
   for (std::uint32_t n = 0; n < opt.groups; ++n) {
      const auto* eh = table->entryWeakRef(VelmarL3Common::L3IpmcKey{0xEF000000u + n, 0});
      std::array<std::uint32_t, 1> words{};
      if (eh && hw->entryRead(eh->hwIndex(), words)) {
         auto e = ChipSim::IngIpmcRemapTableSimUtil::decode(words);
         verified += e.remappedIpmcIndex == 1000 + n && e.strengthProfile == n % 32;
      }
   }
   const auto programmed = hw->memory().validEntries();

   for (std::uint32_t n = 0; n < opt.groups; ++n) {
      table->entryRemove(VelmarL3Common::L3IpmcKey{0xEF000000u + n, 0});
   }
   loop.runUntilIdle();
   const auto left = hw->memory().validEntries();
   const auto used = table->indexAllocator()->totalUsedIndices();
   table->cleanup();

   nlohmann::json report = {
       {"groups", opt.groups},
       {"waitingForIpmcIndex", waiting},
       {"writes", writesBeforeResponses},
       {"successCallbacks", successes},
       {"entriesInChip", programmed},
       {"entriesVerified", verified},
       {"entriesLeftAfterRemoval", left},
       {"indicesUsedAfterRemoval", used},
       {"deletes", hw->counters().clears},
   };
   if (opt.json) {
      std::cout << report.dump(2) << "\n";
   } else {
      fmt::print("IPMC remap demo on the simulated chip ({} entries)\n", opt.entries);
      fmt::print("  committed {} groups, {} waiting for their IPMC index\n", opt.groups, waiting);
      fmt::print("  IPMC indices programmed: {} remap writes, {} success callbacks\n",
                 writesBeforeResponses, successes);
      fmt::print("  chip holds {} entries, {} verified against their groups\n", programmed,
                 verified);
      fmt::print("  removed all: {} entries left, {} indices used (the reserved index 0), {} "
                 "deletes\n",
                 left, used, hw->counters().clears);
   }
   const bool ok = verified == opt.groups && successes == opt.groups && left == 0 && used == 1;
   if (!ok) std::cerr << "demo: the chip does not hold what was committed\n";
   return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
   defaultPluginPath();
   CLI::App app{"Reference multicast agent over the simulated chip"};
   app.require_subcommand(1);
   DemoOptions opt;
   auto* demo = app.add_subcommand("demo", "commit, program, verify and remove IPMC remap entries");
   demo->add_option("--groups", opt.groups, "number of multicast groups")->check(CLI::Range(1u, 1u << 20));
   demo->add_option("--entries", opt.entries, "entries of the chip's remap table")
       ->check(CLI::Range(2u, 1u << 24));
   demo->add_flag("--json", opt.json, "print the report as JSON");
   CLI11_PARSE(app, argc, argv);
   try {
      return runDemo(opt);
   } catch (const CLI::Error& e) {
      return app.exit(e);
   } catch (const std::exception& e) {
      std::cerr << "mcast_agent: " << e.what() << "\n";
      return 1;
   }
}
