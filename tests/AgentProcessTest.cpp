// The agent as an operator meets it: the real binary run on chip directories of its own,
// judged by its exit codes, its output and the bytes of the chip files it leaves behind.

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "AgentTest.h"

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using Json = nlohmann::json;

const char* const kLibraryTables[] = {"remap", "head", "list", "l2subport", "portagg"};

using AgentProcess::Result;

using AgentTest::agent;
using AgentTest::parse;
using AgentTest::readFile;

void writeFile(const fs::path& p, const std::string& text) {
   std::ofstream(p, std::ios::binary | std::ios::trunc) << text;
}

// Every file of a directory with its bytes.
using Snapshot = std::map<std::string, std::string>;
Snapshot snapshot(const fs::path& dir) {
   Snapshot s;
   for (const auto& e : fs::directory_iterator(dir)) {
      s[e.path().filename().string()] = readFile(e.path());
   }
   return s;
}

// The files that differ between two snapshots (the memories are megabytes: not for printing).
std::vector<std::string> changed(const Snapshot& before, const Snapshot& after) {
   std::vector<std::string> out;
   for (const auto& [name, bytes] : before) {
      auto it = after.find(name);
      if (it == after.end()) {
         out.push_back(name + " (removed)");
      } else if (it->second != bytes) {
         out.push_back(name);
      }
   }
   for (const auto& [name, bytes] : after) {
      if (!before.count(name)) out.push_back(name + " (added)");
   }
   return out;
}

std::vector<std::string> lines(const std::string& text) {
   std::vector<std::string> out;
   std::istringstream in(text);
   for (std::string l; std::getline(in, l);) {
      if (!l.empty()) out.push_back(l);
   }
   return out;
}

// Each test works in a fresh directory under /tmp: its configurations, and the chip in
// "chip/" inside it. Removed with everything in it.
class AgentProcessTest : public ::testing::Test {
 protected:
   AgentProcessTest() { fs::create_directory(chip_); }

   fs::path config(const std::string& name, const Json& json) {
      fs::path p = base_ / name;
      writeFile(p, json.dump(1));
      return p;
   }

   Json gen(int groups, int seed = 1) {
      const Result r =
          agent({"gen", "--groups", std::to_string(groups), "--seed", std::to_string(seed)});
      EXPECT_EQ(r.code, 0) << r;
      return parse(r);
   }

   // A run that must succeed, with its JSON report.
   Json run(const fs::path& cfg) {
      const Result r = agent({"run", "--config", cfg, "--chip", chip_, "--json"});
      EXPECT_EQ(r.code, 0) << r;
      Json report = parse(r);
      EXPECT_EQ(report.value("failed", Json::array()), Json::array()) << r;
      return report;
   }

   Result verify(const fs::path& cfg) {
      return agent({"verify", "--config", cfg, "--chip", chip_});
   }

   Json walk() {
      const Result r = agent({"walk", "--chip", chip_, "--json"});
      EXPECT_EQ(r.code, 0) << r;
      return parse(r);
   }

   ChipSim::ScratchDir scratch_{"mcast-agent-test"};
   const fs::path base_ = scratch_.path();
   const fs::path chip_ = base_ / "chip";
};

std::uint64_t writes(const Json& report) { return report["totals"]["writes"].get<std::uint64_t>(); }
std::uint64_t tableCount(const Json& report, const std::string& table, const std::string& what) {
   return report["tables"][table][what].get<std::uint64_t>();
}

// The replications each speed's list of a group makes, from the configuration alone:
// (next hop, port) pairs.
using Replications = std::map<std::string, std::multiset<std::pair<std::uint64_t, std::uint64_t>>>;
Replications expectedReplications(const Json& cfg, const Json& group) {
   const Json* g = &group;
   if (group.contains("remapTo")) {
      for (const Json& other : cfg["groups"]) {
         if (other["name"] == group["remapTo"]) g = &other;
      }
   }
   std::map<std::uint64_t, std::uint64_t> portOf;
   for (const Json& nh : cfg["nextHops"]) portOf[nh["id"].get<std::uint64_t>()] = nh["port"];
   Replications out;
   for (const Json& list : (*g)["replication"]) {
      auto& pairs = out[list["speed"]];
      for (const Json& e : list["egress"]) {
         if (e.is_number()) {
            pairs.emplace(e.get<std::uint64_t>(), portOf[e.get<std::uint64_t>()]);
         } else {
            for (const Json& p : e["ports"]) {
               pairs.emplace(e["nextHop"].get<std::uint64_t>(), p.get<std::uint64_t>());
            }
         }
      }
   }
   return out;
}

Replications walkedReplications(const Json& walked) {
   Replications out;
   for (const Json& list : walked["lists"]) {
      auto& pairs = out[list["speed"]];
      for (const Json& e : list["egress"]) {
         pairs.emplace(e["nextHop"].get<std::uint64_t>(), e["port"].get<std::uint64_t>());
      }
      EXPECT_EQ(list["numNextHops"].get<std::size_t>(), list["egress"].size()) << list.dump();
   }
   return out;
}

TEST_F(AgentProcessTest, ColdStartProgramsWhatTheWalkReadsBack) {
   const Json cfg = gen(20);
   const fs::path file = config("cfg.json", cfg);
   const Json report = run(file);
   EXPECT_EQ(report["start"], "cold");
   EXPECT_GT(writes(report), 0u);
   EXPECT_EQ(report["totals"]["deletes"], 0);
   for (const char* t :
        {"remap", "head", "list", "l2subport", "portagg", "ipmc", "group", "nexthop"}) {
      EXPECT_TRUE(report["tables"].contains(t)) << t << " missing from " << report.dump();
   }
   const Result v = verify(file);
   EXPECT_EQ(v.code, 0) << v;

   // The walk, read from the chip alone, gives back each group's replication.
   const Json walked = walk();
   ASSERT_EQ(walked["groups"].size(), cfg["groups"].size()) << walked.dump();
   std::map<std::string, const Json*> byAddr;
   for (const Json& w : walked["groups"]) {
      EXPECT_EQ(w["vrf"], 0);
      byAddr[w["group"]] = &w;
   }
   for (const Json& g : cfg["groups"]) {
      SCOPED_TRACE(g["name"].get<std::string>());
      ASSERT_TRUE(byAddr.count(g["group"]));
      const Json& w = *byAddr[g["group"]];
      EXPECT_EQ(w["strengthProfile"], g.value("strengthProfile", 0));
      EXPECT_EQ(walkedReplications(w), expectedReplications(cfg, g));
      if (g.contains("remapTo")) {
         // A remapped group lands on its target's IPMC index.
         std::string target;
         for (const Json& t : cfg["groups"]) {
            if (t["name"] == g["remapTo"]) target = t["group"];
         }
         ASSERT_TRUE(byAddr.count(target));
         EXPECT_EQ(w["remappedIpmcIndex"], (*byAddr[target])["ipmcIndex"]);
      } else {
         EXPECT_EQ(w["remappedIpmcIndex"], w["ipmcIndex"]);
      }
   }

   // One group alone, by its address.
   const Result one = agent({"walk", "--chip", chip_, "--group", "239.0.0.2", "--json"});
   EXPECT_EQ(one.code, 0) << one;
   const Json oneJson = parse(one);
   ASSERT_EQ(oneJson["groups"].size(), 1u) << one;
   EXPECT_EQ(oneJson["groups"][0]["group"], "239.0.0.2");
}

TEST_F(AgentProcessTest, UnchangedRestartIsWarmAndWritesNothing) {
   const fs::path file = config("cfg.json", gen(20));
   run(file);
   const Snapshot before = snapshot(chip_);
   const Json report = run(file);
   EXPECT_EQ(report["start"], "warm");
   EXPECT_EQ(report["totals"]["writes"], 0) << report.dump(1);
   EXPECT_EQ(report["totals"]["deletes"], 0) << report.dump(1);
   for (const char* t : kLibraryTables) {
      EXPECT_EQ(tableCount(report, t, "stalePurged"), 0u) << t;
      EXPECT_EQ(report["tables"][t]["reconciled"]["notReconciled"], 0) << t;
   }
   EXPECT_THAT(changed(before, snapshot(chip_)), ::testing::IsEmpty())
       << "a restart without writes changed the chip files";
   const Result v = verify(file);
   EXPECT_EQ(v.code, 0) << v;
}

TEST_F(AgentProcessTest, ChangedConfigurationWritesOnlyTheDifference) {
   const Json oldCfg = gen(24, 3);
   const fs::path oldFile = config("old.json", oldCfg);
   const Json cold = run(oldFile);

   // Groups with their own replication that no other group is remapped to.
   std::set<std::string> targets;
   for (const Json& g : oldCfg["groups"]) {
      if (g.contains("remapTo")) targets.insert(g["remapTo"]);
   }
   std::vector<std::size_t> free;
   for (std::size_t i = 0; i < oldCfg["groups"].size(); ++i) {
      const Json& g = oldCfg["groups"][i];
      if (g.contains("replication") && !targets.count(g["name"])) free.push_back(i);
   }
   ASSERT_GE(free.size(), 3u);
   Json cfg = oldCfg;
   Json& groups = cfg["groups"];
   // A new strength profile for one, a next hop more or less for another...
   Json& sp = groups[free[1]];
   sp["strengthProfile"] = (sp.value("strengthProfile", 0) + 1) % 32;
   Json& egress = groups[free[2]]["replication"][0]["egress"];
   if (egress.size() > 1) {
      egress.erase(egress.size() - 1);
   } else {
      egress.push_back(egress[0].get<int>() == 1 ? 2 : 1);
   }
   // ... one group gone and one new.
   const Json dropped = groups[free[0]];
   groups.erase(free[0]);
   groups.push_back(
       {{"name", "added"},
        {"group", "239.255.0.1"},
        {"strengthProfile", 1},
        {"replication",
         {{{"speed", "100G"},
           {"egress",
            {cfg["nextHops"][0]["id"], cfg["nextHops"][1]["id"], cfg["nextHops"][2]["id"]}}}}}});
   const fs::path newFile = config("new.json", cfg);

   const Json changed = run(newFile);
   EXPECT_EQ(changed["start"], "warm");
   EXPECT_GT(writes(changed), 0u);
   EXPECT_LT(writes(changed) * 4, writes(cold)) << changed.dump(1);
   for (const char* t : {"remap", "head", "list"}) {
      EXPECT_LT(tableCount(changed, t, "writes") * 2, tableCount(cold, t, "writes"))
          << t << ": " << changed.dump(1);
      // The dropped group's entries, and the list that lost a next hop.
      EXPECT_GT(tableCount(changed, t, "stalePurged"), 0u) << t << ": " << changed.dump(1);
   }
   EXPECT_EQ(changed["tables"]["remap"]["entries"],
             cold["tables"]["remap"]["entries"].get<int>());  // one gone, one new

   Result v = verify(newFile);
   EXPECT_EQ(v.code, 0) << v;
   // The chip no longer matches the old configuration, and says where.
   v = verify(oldFile);
   EXPECT_EQ(v.code, 1) << v;
   EXPECT_FALSE(v.out.empty());
   const std::string name = dropped["name"], addr = dropped["group"];
   EXPECT_TRUE(std::regex_search(v.out, std::regex("\\b" + name + "\\b")) ||
               v.out.find(addr) != std::string::npos)
       << "the dropped group " << name << " (" << addr << ") is not named: " << v;
   EXPECT_TRUE(v.out.find("239.255.0.1") != std::string::npos ||
               v.out.find("added") != std::string::npos)
       << "the added group is not named: " << v;

   // Once reconciled, the next restart has nothing to do.
   const Json again = run(newFile);
   EXPECT_EQ(again["start"], "warm");
   EXPECT_EQ(again["totals"]["writes"], 0) << again.dump(1);
   EXPECT_EQ(again["totals"]["deletes"], 0) << again.dump(1);
}

TEST_F(AgentProcessTest, RefusedConfigurationLeavesTheChipAlone) {
   const Json good = gen(12);
   run(config("good.json", good));
   const Snapshot before = snapshot(chip_);
   ASSERT_FALSE(before.empty());

   struct Case {
      const char* what;
      fs::path file;
      std::string pointer;
   };
   std::vector<Case> cases;
   {
      const fs::path p = base_ / "malformed.json";
      writeFile(p, good.dump().substr(0, 200));
      cases.push_back({"malformed JSON", p, "/"});
   }
   Json bad = good;
   bad["groups"][2]["colour"] = "red";
   cases.push_back({"unknown field", config("unknown.json", bad), "/groups/2/colour"});
   bad = good;
   bad["groups"][1]["strengthProfile"] = 32;
   cases.push_back({"out of range", config("range.json", bad), "/groups/1/strengthProfile"});
   bad = good;
   Json& egress = bad["groups"][0]["replication"][0]["egress"];
   egress.push_back(60000);
   const std::string undefinedAt =
       "/groups/0/replication/0/egress/" + std::to_string(egress.size() - 1);
   cases.push_back({"undefined next hop", config("reference.json", bad), undefinedAt});
   bad = good;
   Json lists = Json::array();
   for (int i = 0; i < 16; ++i) lists.push_back({{"speed", "100G"}, {"egress", {1}}});
   bad["groups"][0]["replication"] = lists;
   cases.push_back({"16 lists in a group", config("capacity.json", bad), "/groups/0/replication"});

   for (const Case& c : cases) {
      SCOPED_TRACE(c.what);
      const Result r = agent({"run", "--config", c.file, "--chip", chip_});
      EXPECT_EQ(r.code, 2) << r;
      EXPECT_THAT(r.err, HasSubstr(c.file.string() + ": " + c.pointer + ":")) << r;
      EXPECT_THAT(changed(before, snapshot(chip_)), ::testing::IsEmpty())
          << "a refused configuration changed the chip";
      const Result v = verify(c.file);
      EXPECT_EQ(v.code, 2) << v;
      EXPECT_THAT(v.err, HasSubstr(c.file.string())) << v;
   }

   // Nor does a refused configuration leave anything in a chip directory not used before.
   const fs::path fresh = base_ / "fresh";
   fs::create_directory(fresh);
   const Result r = agent({"run", "--config", cases[1].file, "--chip", fresh});
   EXPECT_EQ(r.code, 2) << r;
   EXPECT_THAT(changed({}, snapshot(fresh)), ::testing::IsEmpty())
       << "files created for a refused configuration";
}

TEST_F(AgentProcessTest, RefusesDamagedChipFiles) {
   const fs::path file = config("cfg.json", gen(8));
   run(file);
   const Snapshot good = snapshot(chip_);
   std::vector<std::string> mems;
   for (const auto& [name, bytes] : good) {
      if (fs::path(name).extension() == ".mem") mems.push_back(name);
   }
   ASSERT_GE(mems.size(), 2u);

   auto expectRefused = [&](const std::string& damaged) {
      const Snapshot before = snapshot(chip_);
      Result r = agent({"run", "--config", file, "--chip", chip_});
      EXPECT_EQ(r.code, 2) << r;
      EXPECT_THAT(r.err, HasSubstr(damaged)) << r;
      EXPECT_THAT(changed(before, snapshot(chip_)), ::testing::IsEmpty())
          << "a refused chip was changed";
      r = verify(file);
      EXPECT_EQ(r.code, 2) << r;
      EXPECT_THAT(r.err, HasSubstr(damaged)) << r;
   };
   {
      SCOPED_TRACE("truncated");
      const std::string& victim = mems[0];
      writeFile(chip_ / victim, good.at(victim).substr(0, good.at(victim).size() / 2));
      expectRefused(victim);
   }
   {
      SCOPED_TRACE("another memory's file");
      writeFile(chip_ / mems[0], good.at(mems[0]));
      writeFile(chip_ / mems[1], good.at(mems[0]));
      expectRefused(mems[1]);
   }
   {
      SCOPED_TRACE("not a memory file");
      writeFile(chip_ / mems[1], std::string(4096, 'x'));
      expectRefused(mems[1]);
   }
   // Put back, the chip is taken up again as it was.
   writeFile(chip_ / mems[1], good.at(mems[1]));
   const Json report = run(file);
   EXPECT_EQ(report["start"], "warm");
   EXPECT_EQ(report["totals"]["writes"], 0) << report.dump(1);
}

TEST_F(AgentProcessTest, ClearEmptiesEveryTableAndTheNextRunIsCold) {
   const fs::path file = config("cfg.json", gen(16));
   const Json report = run(file);
   for (const char* t : kLibraryTables) {
      SCOPED_TRACE(t);
      const Result r = agent({"show", t, "--chip", chip_, "--json"});
      EXPECT_EQ(r.code, 0) << r;
      const Json shown = parse(r);
      EXPECT_EQ(shown["table"], t);
      EXPECT_GT(shown["entries"].size(), 0u);
      EXPECT_EQ(shown["entries"].size(), tableCount(report, t, "entries"));
      const Result text = agent({"show", t, "--chip", chip_});
      EXPECT_EQ(text.code, 0) << text;
      EXPECT_EQ(lines(text.out).size(), shown["entries"].size()) << text;
   }

   const Result c = agent({"clear", "--chip", chip_});
   EXPECT_EQ(c.code, 0) << c;
   for (const char* t : kLibraryTables) {
      SCOPED_TRACE(t);
      Result r = agent({"show", t, "--chip", chip_, "--json"});
      EXPECT_EQ(r.code, 0) << r;
      EXPECT_EQ(parse(r)["entries"], Json::array()) << r;
      r = agent({"show", t, "--chip", chip_});
      EXPECT_EQ(r.code, 0) << r;
      EXPECT_TRUE(lines(r.out).empty()) << r;
   }
   EXPECT_EQ(walk()["groups"], Json::array());
   const Result v = verify(file);
   EXPECT_EQ(v.code, 1) << v;

   const Json again = run(file);
   EXPECT_EQ(again["start"], "cold");
   EXPECT_EQ(writes(again), writes(report));
   const Result v2 = verify(file);
   EXPECT_EQ(v2.code, 0) << v2;
}

TEST_F(AgentProcessTest, GenIsReproducibleAndAccepted) {
   const std::vector<std::string> args = {"gen", "--groups",          "20", "--seed",
                                          "7",   "--egress-per-list", "3"};
   const Result a = agent(args), b = agent(args);
   ASSERT_EQ(a.code, 0) << a;
   EXPECT_EQ(a.out, b.out);
   const Result other = agent({"gen", "--groups", "20", "--seed", "8", "--egress-per-list", "3"});
   EXPECT_NE(other.out, a.out) << "another seed gave the same configuration";

   const Json cfg = parse(a);
   ASSERT_EQ(cfg["groups"].size(), 20u);
   for (const Json& g : cfg["groups"]) {
      for (const Json& list : g.value("replication", Json::array())) {
         EXPECT_EQ(list["egress"].size(), 3u) << g.dump();
      }
   }
   const fs::path file = base_ / "gen.json";
   writeFile(file, a.out);
   const Json report = run(file);
   EXPECT_EQ(report["start"], "cold");
   const Result v = verify(file);
   EXPECT_EQ(v.code, 0) << v;
}

}  // namespace
