// The operator's tools, run as an operator runs them: `run --dry-run` against the real run
// that follows it, `audit` on healthy and stale chips, and every command's help.

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "AgentTest.h"

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using Json = nlohmann::json;
using AgentProcess::Result;

using AgentTest::agent;
using AgentTest::parse;
using AgentTest::readFile;

// Every file of the chip directory with its bytes; nullopt when there is no directory.
using Snapshot = std::optional<std::map<std::string, std::string>>;
Snapshot snapshot(const fs::path& dir) {
   if (!fs::exists(dir)) return std::nullopt;
   std::map<std::string, std::string> s;
   for (const auto& e : fs::directory_iterator(dir)) {
      s[e.path().filename().string()] = readFile(e.path());
   }
   return s;
}

const fs::path kExamples = EXAMPLES_DIR;

class AgentOperatorTest : public ::testing::Test {
 protected:
   fs::path gen(int groups, int seed) {
      const Result r =
          agent({"gen", "--groups", std::to_string(groups), "--seed", std::to_string(seed)});
      EXPECT_EQ(r.code, 0) << r;
      const fs::path p = base_ / ("gen-" + std::to_string(groups) + "-" + std::to_string(seed));
      std::ofstream(p) << r.out;
      return p;
   }

   Json run(const fs::path& cfg, bool dryRun) {
      std::vector<std::string> args = {"run", "--config", cfg, "--chip", chip_, "--json"};
      if (dryRun) args.push_back("--dry-run");
      const Result r = agent(args);
      EXPECT_EQ(r.code, 0) << r;
      return parse(r);
   }

   Result audit(const std::vector<std::string>& more = {}) {
      std::vector<std::string> args = {"audit", "--chip", chip_};
      args.insert(args.end(), more.begin(), more.end());
      return agent(args);
   }

   ChipSim::ScratchDir scratch_{"mcast-operator-test"};
   const fs::path base_ = scratch_.path();
   const fs::path chip_ = base_ / "chip";  // created by the first real run
};

// A dry run's per-key outcomes, counted by table and kind.
// "uncounted": new keys that never met reconciliation (status 0, which the engine does not
// count).
std::map<std::string, std::map<std::string, std::size_t>> outcomeCounts(const Json& report) {
   std::map<std::string, std::map<std::string, std::size_t>> out;
   for (const auto& [table, kinds] : report["outcomes"].items()) {
      for (const auto& [kind, keys] : kinds.items()) {
         out[table][kind] = keys.size();
         for (const Json& k : keys) out[table]["uncounted"] += k["status"] == 0 ? 1 : 0;
      }
   }
   return out;
}

Json readJson(const fs::path& p) {
   std::ifstream in(p);
   return Json::parse(in);
}

struct Scenario {
   const char* name;
   std::vector<std::string> before;  // configurations run first (example files or gen:N:S)
   std::string config;               // the one dry-run, then run
};

class DryRunTest : public AgentOperatorTest, public ::testing::WithParamInterface<Scenario> {
 protected:
   fs::path file(const std::string& name) {
      if (name.rfind("gen:", 0) == 0) {
         const auto colon = name.find(':', 4);
         return gen(std::stoi(name.substr(4, colon - 4)), std::stoi(name.substr(colon + 1)));
      }
      return kExamples / name;
   }
};

// Verify that a dry run writes nothing to the chip and predicts the real run that follows
// it: the same start, and per table the same writes, deletes, reconciliation counts, stale
// entries purged and entries held; and that its per-key outcomes add up to those counts.
TEST_P(DryRunTest, PredictsTheRealRunAndWritesNothing) {
   const Scenario& s = GetParam();
   for (const std::string& before : s.before) run(file(before), false);
   const fs::path cfg = file(s.config);

   const Snapshot untouched = snapshot(chip_);
   const Json dry = run(cfg, true);
   EXPECT_EQ(snapshot(chip_), untouched) << "the dry run changed the chip directory";
   EXPECT_EQ(dry["dryRun"], true);

   const Json real = run(cfg, false);
   EXPECT_EQ(dry["start"], real["start"]);
   ASSERT_EQ(dry["tables"].size(), real["tables"].size());
   for (const auto& [table, counts] : real["tables"].items()) {
      EXPECT_EQ(dry["tables"][table], counts) << table;
   }
   EXPECT_EQ(dry["totals"], real["totals"]);

   const auto outcomes = outcomeCounts(dry);
   for (const char* table : {"list", "l2subport", "head", "remap", "portagg"}) {
      SCOPED_TRACE(table);
      const Json& c = real["tables"][table];
      const auto& o =
          outcomes.count(table) ? outcomes.at(table) : std::map<std::string, std::size_t>{};
      auto n = [&](const char* kind) { return o.count(kind) ? o.at(kind) : 0u; };
      if (real["start"] == "cold") {
         // Every key is new; a remap or register key is one entry.
         const auto entries = c["entries"].get<std::size_t>();
         if (table == std::string("remap") || table == std::string("portagg")) {
            EXPECT_EQ(n("new"), entries);
         } else {
            EXPECT_EQ(n("new") > 0, entries > 0);
         }
         EXPECT_EQ(n("kept") + n("rewritten") + n("stale"), 0u);
         continue;
      }
      EXPECT_EQ(n("kept"), c["reconciled"]["reconciled"].get<std::size_t>());
      EXPECT_EQ(n("rewritten"), c["reconciled"]["indexReconciled"].get<std::size_t>());
      EXPECT_EQ(n("new") - n("uncounted"),
                c["reconciled"]["notReconciled"].get<std::size_t>() +
                    c["reconciled"]["nothingToReconcile"].get<std::size_t>());
      EXPECT_EQ(n("stale"), c["stalePurged"].get<std::size_t>());
   }
   // Every key of the configuration has one outcome.
   const Json config = readJson(cfg);
   std::size_t replicating = 0;
   for (const Json& g : config["groups"]) replicating += g.contains("replication") ? 1 : 0;
   auto keys = [&](const char* table) {
      return outcomes.count(table) == 0 ? 0u
             : outcomes.at(table).count("kept") == 0
                 ? 0u
                 : outcomes.at(table).at("kept") + outcomes.at(table).at("rewritten") +
                       outcomes.at(table).at("new");
   };
   EXPECT_EQ(keys("remap"), config["groups"].size());
   EXPECT_EQ(keys("head"), replicating);
   EXPECT_EQ(keys("portagg"), config.value("portAggregation", Json::array()).size());
   EXPECT_EQ(keys("l2subport"), config.value("l2SubPorts", Json::array()).size());

   // After the real run, another dry run keeps everything and would write nothing, and
   // finds every key where the first dry run said the real run would put it (the order in
   // which new keys take indices does not depend on the process).
   const Json after = run(cfg, true);
   EXPECT_EQ(after["start"], "warm");
   EXPECT_EQ(after["totals"]["writes"], 0) << after.dump(1);
   EXPECT_EQ(after["totals"]["deletes"], 0) << after.dump(1);
   for (const auto& [table, kinds] : dry["outcomes"].items()) {
      std::map<std::string, Json> keptAt;
      for (const Json& k : after["outcomes"][table].value("kept", Json::array())) {
         keptAt[k["key"].get<std::string>()] = k["index"];
      }
      for (const char* kind : {"kept", "rewritten", "new"}) {
         for (const Json& k : kinds.value(kind, Json::array())) {
            const std::string key = k["key"].get<std::string>();
            EXPECT_EQ(keptAt.count(key) ? keptAt[key] : Json(), k["index"])
                << table << " " << key << " (" << kind << "): predicted at " << k["index"];
         }
      }
   }
}

INSTANTIATE_TEST_SUITE_P(
    Restarts, DryRunTest,
    ::testing::Values(Scenario{"Cold", {}, "groups.json"},
                      Scenario{"UnchangedWarm", {"groups.json"}, "groups.json"},
                      Scenario{"ChangedWarm", {"groups.json"}, "groups-changed.json"},
                      Scenario{"GeneratedChangedWarm", {"gen:30:3"}, "gen:36:4"}),
    [](const ::testing::TestParamInfo<Scenario>& info) { return std::string(info.param.name); });

// Verify that the text report tells an operator, per key, what a changed restart would
// keep, rewrite (and which fields), add (and why) and purge (decoded).
TEST_F(AgentOperatorTest, DryRunTextNamesEachKeysOutcome) {
   run(kExamples / "groups.json", false);
   const Result r =
       agent({"run", "--config", kExamples / "groups-changed.json", "--chip", chip_, "--dry-run"});
   ASSERT_EQ(r.code, 0) << r;
   EXPECT_THAT(r.out, HasSubstr("dry run (nothing written): warm start")) << r;
   EXPECT_THAT(r.out, HasSubstr("kept      video-1 at")) << r;
   EXPECT_THAT(r.out, HasSubstr("rewritten market-data at")) << r;
   EXPECT_THAT(r.out, HasSubstr("strengthProfile: 12 -> 13")) << r;
   EXPECT_THAT(r.out, HasSubstr("members: [10,11,12,13] -> [10,11,12]")) << r;
   EXPECT_THAT(r.out, ::testing::ContainsRegex("new +news at [0-9]+: new group")) << r;
   EXPECT_THAT(r.out,
               ::testing::ContainsRegex("new +video-1/100G at [0-9]+: .*replication changed"))
       << r;
   // telemetry is gone: its remap entry and its list are purged, shown as they were.
   EXPECT_THAT(r.out, ::testing::ContainsRegex("stale +at [0-9]+\n +\\[[0-9]+\\] "
                                               "remappedIpmcIndex=[0-9]+ strengthProfile=0"))
       << r;
   EXPECT_THAT(r.out, HasSubstr(R"(pairs=[{"nextHop":2,"port":2},{"nextHop":4,"port":4}])")) << r;
}

// Verify that a dry run refuses what it cannot honour, with exit 2, and that it keeps the
// run's exit code for bad input.
TEST_F(AgentOperatorTest, DryRunRefusesFaultOptionsAndBadInput) {
   for (const char* option : {"--crash-after-writes", "--fail-writes", "--delay-responses"}) {
      const Result r = agent({"run", "--config", kExamples / "groups.json", "--chip", chip_,
                              "--dry-run", option, "1"});
      EXPECT_EQ(r.code, 2) << r;
      EXPECT_THAT(r.err, HasSubstr(option)) << r;
   }
   const fs::path bad = base_ / "bad.json";
   std::ofstream(bad) << R"({"groups": [{"name": 1}]})";
   const Result r = agent({"run", "--config", bad, "--chip", chip_, "--dry-run"});
   EXPECT_EQ(r.code, 2) << r;
   EXPECT_THAT(r.err, HasSubstr(bad.string())) << r;
   EXPECT_FALSE(fs::exists(chip_)) << "a refused dry run created the chip directory";
}

// Verify that audit calls a chip the agent left healthy after a cold and a warm run, with
// and without the configuration, and that a chip audited against another configuration
// lists, one line each, the entries no key of it owns (exit 1).
TEST_F(AgentOperatorTest, AuditHealthyAndStale) {
   const fs::path first = kExamples / "groups.json", second = kExamples / "groups-changed.json";
   for (const fs::path& cfg : {first, second}) {
      SCOPED_TRACE(cfg.filename().string());
      run(cfg, false);
      Result r = audit();
      EXPECT_EQ(r.code, 0) << r;
      EXPECT_THAT(r.out, HasSubstr("healthy")) << r;
      r = audit({"--config", cfg, "--json"});
      EXPECT_EQ(r.code, 0) << r;
      EXPECT_EQ(parse(r), (Json{{"healthy", true}, {"findings", Json::array()}})) << r;
   }
   const auto before = snapshot(chip_);
   Result r = audit({"--config", first});
   EXPECT_EQ(r.code, 1) << r;
   EXPECT_THAT(r.out, ::testing::ContainsRegex(
                          "(^|\n)MMU_REPL_HEAD_TBL\\[[0-9]+\\]: no key owns this entry"))
       << r;
   EXPECT_THAT(r.out, ::testing::ContainsRegex("(^|\n)L3_IPMC\\[[0-9]+\\]: no key owns")) << r;
   EXPECT_THAT(r.out, ::testing::ContainsRegex("chip .*: [0-9]+ findings\n$")) << r;
   r = audit({"--config", first, "--json"});
   EXPECT_EQ(r.code, 1) << r;
   const Json j = parse(r);
   EXPECT_EQ(j["healthy"], false);
   ASSERT_FALSE(j["findings"].empty());
   for (const Json& f : j["findings"]) {
      EXPECT_TRUE(f.contains("memory") && f.contains("index") && f.contains("problem")) << f;
   }
   EXPECT_EQ(snapshot(chip_), before) << "audit changed the chip";

   r = audit({"--config", base_ / "missing.json"});
   EXPECT_EQ(r.code, 2) << r;
   r = agent({"audit", "--chip", base_ / "nowhere"});
   EXPECT_EQ(r.code, 2) << r;
   EXPECT_THAT(r.err, HasSubstr("nowhere")) << r;
}

// Verify that every command's help says what it does and shows an example.
TEST_F(AgentOperatorTest, EveryCommandHelpHasAnExample) {
   for (const char* command : {"run", "show", "walk", "verify", "audit", "gen", "clear"}) {
      SCOPED_TRACE(command);
      const Result r = agent({command, "--help"});
      EXPECT_EQ(r.code, 0) << r;
      EXPECT_THAT(r.out,
                  ::testing::ContainsRegex("Examples?:\n  mcast_agent " + std::string(command)))
          << r;
   }
   const Result r = agent({"--help"});
   EXPECT_EQ(r.code, 0) << r;
   EXPECT_THAT(r.out, HasSubstr("audit")) << r;
   EXPECT_THAT(r.out, HasSubstr("Exit codes")) << r;
}

}  // namespace
