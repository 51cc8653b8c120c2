// mcast_agent: the reference multicast agent over the simulated chip. Exit codes: 0
// success, 1 a difference or finding, 2 bad input, 3 an operation that failed.

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>

#include <fmt/format.h>
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "McastAgent/Agent.h"
#include "McastAgent/ChipMemories.h"
#include "McastAgent/Config.h"
#include "McastAgent/Gen.h"
#include "McastAgent/Walk.h"

namespace {

constexpr int kOk = 0, kFinding = 1, kBadInput = 2, kFailed = 3;

// A command's bad input: reported on stderr, exit 2.
struct BadInput : std::runtime_error {
   using std::runtime_error::runtime_error;
};

// Reading commands never create a chip.
void requireChip(const std::string& dir) {
   std::error_code ec;
   if (!std::filesystem::is_directory(dir, ec)) {
      throw BadInput(fmt::format("{}: no chip directory", dir));
   }
}

int failed(const std::exception& e, int code) {
   std::cerr << "mcast_agent: " << e.what() << "\n";
   return code;
}

void print(const nlohmann::json& j) { std::cout << j.dump(2) << "\n"; }

int runCommand(const std::string& configFile, const std::string& dir, bool json,
               ChipSim::FaultPlan faults, bool checkEveryWrite) {
   faults.observeWrites = checkEveryWrite;
   const auto start = std::chrono::steady_clock::now();
   const McastAgent::Config config = McastAgent::configLoad(configFile);
   const double loadMs =
       std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
   McastAgent::ChipMemories chip(dir, faults);
   auto report = McastAgent::run(
       chip, config, {.progress = isatty(STDERR_FILENO) == 1, .checkEveryWrite = checkEveryWrite});
   report.phasesMs.insert(report.phasesMs.begin(), {"config", loadMs});
   if (json) {
      print(report.toJson());
   } else {
      std::cout << report.toText();
   }
   for (const auto& f : report.failed) {
      std::cerr << fmt::format("mcast_agent: {} {} ended {}\n", f.table, f.key, f.state);
   }
   if (!report.failed.empty()) return kFailed;
   return report.violationCount == 0 ? kOk : kFinding;
}

int clearCommand(const std::string& dir, bool json) {
   requireChip(dir);
   McastAgent::ChipMemories chip(dir);
   const auto report =
       McastAgent::run(chip, McastAgent::Config{}, {.progress = isatty(STDERR_FILENO) == 1});
   if (json) {
      print(report.toJson());
   } else {
      std::cout << report.toText();
   }
   return report.failed.empty() ? kOk : kFailed;
}

int showCommand(const std::string& table, const std::string& dir, bool json) {
   requireChip(dir);
   McastAgent::ChipMemories chip(dir);
   const auto shown = McastAgent::showTable(chip, table);
   if (json) {
      print(shown);
      return kOk;
   }
   for (const auto& entry : shown["entries"]) {
      std::string line = fmt::format("{:>7}", entry["index"].get<std::uint32_t>());
      for (const auto& [name, value] : entry.items()) {
         if (name != "index") line += fmt::format(" {}={}", name, value.dump());
      }
      std::cout << line << "\n";
   }
   return kOk;
}

bool groupMatches(const McastAgent::WalkedGroup& g, const std::string& wanted) {
   const std::string addr = McastAgent::ipv4ToString(g.groupAddr);
   return wanted == addr || wanted == fmt::format("{}@{}", addr, g.vrf);
}

int walkCommand(const std::string& dir, const std::string& group, bool json) {
   requireChip(dir);
   McastAgent::ChipMemories chip(dir);
   const McastAgent::Walk walk = McastAgent::walkChip(chip);
   std::vector<const McastAgent::WalkedGroup*> groups;
   for (const auto& g : walk.groups) {
      if (group.empty() || groupMatches(g, group)) groups.push_back(&g);
   }
   if (!group.empty() && groups.empty()) {
      throw BadInput(fmt::format("group {}: not on the chip", group));
   }
   if (json) {
      print(McastAgent::toJson(walk, groups));
      return kOk;
   }
   for (const auto* g : groups) std::cout << McastAgent::toText(*g);
   if (group.empty()) {
      for (const auto& l : walk.l2SubPorts) {
         std::cout << fmt::format("l2SubPort mode {} sub-ports {}\n", l.mode,
                                  nlohmann::json(l.subPorts).dump());
      }
      for (const auto& a : walk.portAggregation) {
         std::cout << fmt::format("portAggregation {} members {}\n", a.index,
                                  nlohmann::json(a.members).dump());
      }
      for (const auto& leak : walk.leaks) std::cout << "leak: " << leak << "\n";
   }
   return kOk;
}

int verifyCommand(const std::string& configFile, const std::string& dir, bool json) {
   const McastAgent::Config config = McastAgent::configLoad(configFile);
   requireChip(dir);
   McastAgent::ChipMemories chip(dir);
   const auto diffs = McastAgent::differences(McastAgent::walkChip(chip), config);
   if (json) {
      print({{"equal", diffs.empty()}, {"differences", diffs}});
   } else if (diffs.empty()) {
      std::cout << fmt::format("the chip forwards {} groups as {} says\n", config.groups.size(),
                               configFile);
   } else {
      for (const auto& d : diffs) std::cout << d << "\n";
   }
   return diffs.empty() ? kOk : kFinding;
}

}  // namespace

int main(int argc, char** argv) {
   // The plug-ins: VELMAR_PLUGIN_PATH, or when unset the build tree's or installation's own
   // plug-in folder, which the plug-in loader finds by itself.
   CLI::App app{
       "Reference multicast agent: programs a multicast configuration onto the "
       "simulated chip through the replication tables, and reads the chip back"};
   app.require_subcommand(1);
   std::string config, chipDir, table, group;
   bool json = false;
   McastAgent::GenOptions gen;

   auto* run = app.add_subcommand(
       "run",
       "Program a configuration: a cold start on an empty chip, a warm restart (read back, "
       "reconcile, purge) on a chip that holds entries.\n"
       "  example: mcast_agent run --config examples/groups.json --chip /tmp/chip");
   run->add_option("--config", config, "configuration file (JSON)")->required();
   run->add_option("--chip", chipDir, "chip directory (created when absent)")->required();
   run->add_flag("--json", json, "print the report as one JSON object");
   ChipSim::FaultPlan faults;
   run->add_option("--crash-after-writes", faults.crashAfterWrites,
                   "die (SIGKILL) right after the N-th write or delete reaches the chip")
       ->check(CLI::PositiveNumber);
   run->add_option("--fail-writes", faults.failRate,
                   "fault: this share of the tables' writes and deletes fails (0..1)")
       ->check(CLI::Range(0.0, 1.0));
   run->add_option("--delay-responses", faults.delayTurns,
                   "fault: write responses come this many event-loop turns late")
       ->check(CLI::Range(0u, 1000u));
   run->add_flag("--reorder-responses", faults.reorder,
                 "fault: each response is late by a random 0..--delay-responses turns");
   run->add_option("--seed", faults.seed, "seed of the faults (same seed, same faults)");
   bool checkEveryWrite = false;
   run->add_flag("--check-every-write", checkEveryWrite,
                 "walk every group after every chip write: each must replicate as before or as "
                 "configured, never a mix (exit 1 otherwise)");

   auto* show = app.add_subcommand("show",
                                   "Decode one chip memory, one line per valid entry.\n"
                                   "  example: mcast_agent show head --chip /tmp/chip");
   show->add_option("table", table,
                    "remap, head, list, l2subport, portagg (or the agent's own: "
                    "ipmc, group, nexthop)")
       ->required()
       ->check(CLI::IsMember(McastAgent::showTableNames()));
   show->add_option("--chip", chipDir, "chip directory")->required();
   show->add_flag("--json", json, "print JSON");

   auto* walk = app.add_subcommand(
       "walk",
       "Packet walk from the chip's memories only: each group's replication set.\n"
       "  example: mcast_agent walk --chip /tmp/chip --group 239.1.1.1");
   walk->add_option("--chip", chipDir, "chip directory")->required();
   walk->add_option("--group", group, "one group: ADDRESS or ADDRESS@VRF");
   walk->add_flag("--json", json, "print JSON");

   auto* verify = app.add_subcommand(
       "verify",
       "Walk every group and compare with a configuration; exit 1 on a difference.\n"
       "  example: mcast_agent verify --config examples/groups.json --chip /tmp/chip");
   verify->add_option("--config", config, "configuration file (JSON)")->required();
   verify->add_option("--chip", chipDir, "chip directory")->required();
   verify->add_flag("--json", json, "print JSON");

   auto* genCmd =
       app.add_subcommand("gen",
                          "Write a valid configuration of N groups to stdout.\n"
                          "  example: mcast_agent gen --groups 1000 --seed 7 > /tmp/big.json");
   genCmd->add_option("--groups", gen.groups, "number of groups")
       ->required()
       ->check(CLI::Range(1u, McastAgent::ChipLimits::kIpmcIndices - 1));
   genCmd->add_option("--seed", gen.seed, "random seed (same seed, same configuration)");
   genCmd->add_option("--egress-per-list", gen.egressPerList, "egress objects per list")
       ->check(CLI::Range(1u, 64u));

   auto* clear = app.add_subcommand(
       "clear",
       "Remove every entry through the tables (delete dance, purge) and leave an "
       "empty chip.\n  example: mcast_agent clear --chip /tmp/chip");
   clear->add_option("--chip", chipDir, "chip directory")->required();
   clear->add_flag("--json", json, "print the report as JSON");

   try {
      app.parse(argc, argv);
   } catch (const CLI::ParseError& e) {
      const int rc = app.exit(e);
      return rc == 0 ? kOk : kBadInput;
   }
   try {
      if (run->parsed()) return runCommand(config, chipDir, json, faults, checkEveryWrite);
      if (show->parsed()) return showCommand(table, chipDir, json);
      if (walk->parsed()) return walkCommand(chipDir, group, json);
      if (verify->parsed()) return verifyCommand(config, chipDir, json);
      if (clear->parsed()) return clearCommand(chipDir, json);
      if (genCmd->parsed()) {
         std::cout << McastAgent::generate(gen).toJson().dump(1) << "\n";
         return kOk;
      }
   } catch (const McastAgent::ConfigError& e) {
      return failed(e, kBadInput);
   } catch (const McastAgent::ChipError& e) {
      return failed(e, kBadInput);
   } catch (const BadInput& e) {
      return failed(e, kBadInput);
   } catch (const std::invalid_argument& e) {
      return failed(e, kBadInput);
   } catch (const std::exception& e) {
      return failed(e, kFailed);
   }
   return kBadInput;
}
