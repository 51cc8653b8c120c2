// mcast_agent: the reference multicast agent over the simulated chip. Exit codes: 0
// success, 1 a difference or finding, 2 bad input, 3 an operation that failed.

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <string_view>

#include <fmt/format.h>
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "McastAgent/Agent.h"
#include "McastAgent/Audit.h"
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

// A run's report on stdout, and each key that did not end programmed on stderr ("<table>
// <key> <verb> <state>"). False when there is such a key.
bool printRunReport(const McastAgent::RunReport& report, bool json, std::string_view verb) {
   if (json) {
      print(report.toJson());
   } else {
      std::cout << report.toText();
   }
   for (const auto& f : report.failed) {
      std::cerr << fmt::format("mcast_agent: {} {} {} {}\n", f.table, f.key, verb, f.state);
   }
   return report.failed.empty();
}

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
   if (!printRunReport(report, json, "ended")) return kFailed;
   return report.violationCount == 0 ? kOk : kFinding;
}

// The whole restart on a copy-on-write view of the chip: the chip directory keeps every
// byte, and a second untouched view lets the report decode what was there.
int dryRunCommand(const std::string& configFile, const std::string& dir, bool json) {
   const McastAgent::Config config = McastAgent::configLoad(configFile);
   using Access = McastAgent::ChipMemories::Access;
   McastAgent::ChipMemories chip(dir, {}, Access::copyOnWrite);
   McastAgent::ChipMemories before(dir, {}, Access::copyOnWrite);
   const auto report =
       McastAgent::run(chip, config, {.progress = isatty(STDERR_FILENO) == 1, .before = &before});
   return printRunReport(report, json, "would end") ? kOk : kFailed;
}

int auditCommand(const std::string& dir, const std::string& configFile, bool json) {
   const McastAgent::Config config =
       configFile.empty() ? McastAgent::Config{} : McastAgent::configLoad(configFile);
   requireChip(dir);
   std::vector<McastAgent::Finding> findings;
   {
      McastAgent::ChipMemories chip(dir, {}, McastAgent::ChipMemories::Access::copyOnWrite);
      findings = McastAgent::auditChip(chip);
   }
   if (!configFile.empty()) {
      auto allocation = McastAgent::auditAllocation(dir, config);
      findings.insert(findings.end(), allocation.begin(), allocation.end());
   }
   if (json) {
      print(McastAgent::toJson(findings));
   } else if (findings.empty()) {
      std::cout << fmt::format(
          "chip {}: healthy{}\n", dir,
          configFile.empty() ? "" : fmt::format("; allocation agrees with {}", configFile));
   } else {
      for (const auto& f : findings) std::cout << McastAgent::toText(f) << "\n";
      std::cout << fmt::format("chip {}: {} finding{}\n", dir, findings.size(),
                               findings.size() == 1 ? "" : "s");
   }
   return findings.empty() ? kOk : kFinding;
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
       "Reference multicast agent: programs a multicast configuration onto the simulated chip "
       "through the replication tables, and reads the chip back. The chip is a directory of "
       "memory files (<MEMORY>.mem) that outlives the process."};
   app.footer(
       "Exit codes: 0 success, 1 a difference or finding (verify, audit, "
       "--check-every-write), 2 bad input (configuration, chip directory, command line; "
       "nothing is written), 3 an operation that failed.\n"
       "Run 'mcast_agent COMMAND --help' for a command's options and examples.");
   app.require_subcommand(1);
   std::string config, chipDir, table, group;
   bool json = false;
   McastAgent::GenOptions gen;

   auto* run = app.add_subcommand(
       "run",
       "Program a configuration onto the chip. On an empty chip this is a cold start. On a "
       "chip that holds entries it is a warm restart: the tables read the chip back (sync), "
       "the configuration is replayed and reconciled against it, neighbours suggest where "
       "their entries sit, and what the configuration no longer has is purged; only the "
       "difference is written. The run ends without tearing the tables down, so the chip "
       "keeps forwarding for the next process. Prints per table: writes, deletes, keys "
       "reconciled, rewritten in place, new, stale entries purged, entries held, and each "
       "phase's time.");
   run->footer(
       "Examples:\n"
       "  mcast_agent run --config examples/groups.json --chip /tmp/chip      # cold start\n"
       "  mcast_agent run --config examples/groups-changed.json --chip /tmp/chip --dry-run\n"
       "                      # what a warm restart would keep, rewrite, add and purge\n"
       "  mcast_agent run --config examples/groups-changed.json --chip /tmp/chip  # warm\n"
       "  mcast_agent run --config big.json --chip /tmp/chip --fail-writes 0.01 --seed 3\n"
       "Exit codes: 0 success, 1 a make-before-break violation (--check-every-write), 2 bad "
       "input (nothing is written), 3 keys that failed (listed on stderr; the next clean run "
       "repairs them).");
   run->add_option("--config", config, "configuration file (JSON)")->required();
   run->add_option("--chip", chipDir, "chip directory (created when absent)")->required();
   run->add_flag("--json", json, "print the report as one JSON object");
   bool dryRun = false;
   auto* dryRunFlag = run->add_flag(
       "--dry-run", dryRun,
       "run the whole restart on a copy-on-write view of the chip: nothing is written or "
       "created in the chip directory. The report gives the same counts the real run would, "
       "and per table every key kept, rewritten (with the fields that differ), new (and why) "
       "and every stale entry the purge would remove (decoded)");
   ChipSim::FaultPlan faults;
   auto* crash = run->add_option("--crash-after-writes", faults.crashAfterWrites,
                                 "die (SIGKILL) right after the N-th write or delete reaches "
                                 "the chip")
                     ->check(CLI::PositiveNumber);
   auto* failWrites =
       run->add_option("--fail-writes", faults.failRate,
                       "fault: this share of the tables' writes and deletes fails (0..1)")
           ->check(CLI::Range(0.0, 1.0));
   auto* delay = run->add_option("--delay-responses", faults.delayTurns,
                                 "fault: write responses come this many event-loop turns late")
                     ->check(CLI::Range(0u, 1000u));
   auto* reorder =
       run->add_flag("--reorder-responses", faults.reorder,
                     "fault: each response is late by a random 0..--delay-responses turns");
   run->add_option("--seed", faults.seed, "seed of the faults (same seed, same faults)");
   bool checkEveryWrite = false;
   auto* check =
       run->add_flag("--check-every-write", checkEveryWrite,
                     "walk every group after every chip write: each must replicate as before or as "
                     "configured, never a mix (exit 1 otherwise)");
   for (auto* faulty : {crash, failWrites, delay, reorder, check}) dryRunFlag->excludes(faulty);

   auto* show = app.add_subcommand(
       "show",
       "Decode one chip memory, one line per valid entry (index, then its fields). Reads the "
       "chip only.");
   show->footer(
       "Examples:\n"
       "  mcast_agent show head --chip /tmp/chip\n"
       "  mcast_agent show list --chip /tmp/chip --json");
   show->add_option("table", table,
                    "remap, head, list, l2subport, portagg (or the agent's own: "
                    "ipmc, group, nexthop)")
       ->required()
       ->check(CLI::IsMember(McastAgent::showTableNames()));
   show->add_option("--chip", chipDir, "chip directory")->required();
   show->add_flag("--json", json, "print JSON");

   auto* walk = app.add_subcommand(
       "walk",
       "Packet walk from the chip's memories only: for each group, lookup -> IPMC index -> "
       "remap entry -> replication group -> head block -> list chains -> next hops and ports; "
       "then the L2 sub-port lists, the port aggregation register and the entries no walk "
       "reaches (leaks).");
   walk->footer(
       "Examples:\n"
       "  mcast_agent walk --chip /tmp/chip\n"
       "  mcast_agent walk --chip /tmp/chip --group 239.2.0.1@7 --json");
   walk->add_option("--chip", chipDir, "chip directory")->required();
   walk->add_option("--group", group, "one group: ADDRESS or ADDRESS@VRF");
   walk->add_flag("--json", json, "print JSON");

   auto* verify = app.add_subcommand(
       "verify",
       "Walk every group and compare what the chip forwards with a configuration; also "
       "reports entries no walk reaches and entries two owners claim.");
   verify->footer(
       "Example:\n"
       "  mcast_agent verify --config examples/groups.json --chip /tmp/chip\n"
       "Exit codes: 0 equal, 1 a difference (one line each), 2 bad input.");
   verify->add_option("--config", config, "configuration file (JSON)")->required();
   verify->add_option("--chip", chipDir, "chip directory")->required();
   verify->add_flag("--json", json, "print JSON");

   std::string auditConfig;
   auto* audit = app.add_subcommand(
       "audit",
       "Check the chip's memories against each other: indices claimed twice, head blocks "
       "that overlap, list chains that loop, run out of the table or share entries, head "
       "pointers that name no list head, lists no head names, remap entries that lead to "
       "IPMC indices holding nothing, entries that do not decode. With --config, also "
       "replay the configuration over a copy-on-write view (nothing is written) and compare "
       "each allocator with the hardware: indices held with no hardware entry, and hardware "
       "entries no key owns (what a restart with that configuration would purge).");
   audit->footer(
       "Examples:\n"
       "  mcast_agent audit --chip /tmp/chip\n"
       "  mcast_agent audit --chip /tmp/chip --config examples/groups.json --json\n"
       "Exit codes: 0 healthy, 1 findings (one line each: MEMORY[index]: what is wrong), 2 bad "
       "input.");
   audit->add_option("--chip", chipDir, "chip directory")->required();
   audit->add_option("--config", auditConfig,
                     "configuration file (JSON) to compare the allocation with");
   audit->add_flag("--json", json, "print JSON");

   auto* genCmd = app.add_subcommand(
       "gen",
       "Write a valid configuration of N groups to stdout: next hops, groups with one to "
       "several lists (some remapped to others), L2 sub-port lists and port aggregation.");
   genCmd->footer(
       "Example:\n"
       "  mcast_agent gen --groups 1000 --seed 7 > /tmp/big.json");
   genCmd->add_option("--groups", gen.groups, "number of groups")
       ->required()
       ->check(CLI::Range(1u, McastAgent::ChipLimits::kIpmcIndices - 1));
   genCmd->add_option("--seed", gen.seed, "random seed (same seed, same configuration)");
   genCmd->add_option("--egress-per-list", gen.egressPerList, "egress objects per list")
       ->check(CLI::Range(1u, 64u));

   auto* clear = app.add_subcommand(
       "clear",
       "Remove every entry through the tables (delete dance, purge) and leave an empty chip: "
       "the explicit teardown that a run never does. The next run is a cold start.");
   clear->footer(
       "Example:\n"
       "  mcast_agent clear --chip /tmp/chip");
   clear->add_option("--chip", chipDir, "chip directory")->required();
   clear->add_flag("--json", json, "print the report as JSON");

   try {
      app.parse(argc, argv);
   } catch (const CLI::ParseError& e) {
      const int rc = app.exit(e);
      return rc == 0 ? kOk : kBadInput;
   }
   try {
      if (run->parsed() && dryRun) return dryRunCommand(config, chipDir, json);
      if (run->parsed()) return runCommand(config, chipDir, json, faults, checkEveryWrite);
      if (audit->parsed()) return auditCommand(chipDir, auditConfig, json);
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
