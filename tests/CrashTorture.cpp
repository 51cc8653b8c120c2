// Crash at any write: the agent is killed (SIGKILL, by itself, right after its N-th write or
// delete reached the chip) at crash points spread over a whole run, then a new agent process
// runs to the end over the same chip directory, and the packet walk must equal the
// configuration with nothing leaked and nothing claimed twice, and the audit find nothing.
//
// Scenarios, each over its own crash points:
//   cold          crash in a cold start of A; then run A
//   cold-changed  crash in a cold start of A; then run B (A changed by about 10%)
//   warm-changed  A programmed; crash in the warm restart with B; then run B
//   warm-again    A programmed; crash in the warm restart with B; crash in the next run of B
//                 half-way; then run B
//   make-before-break   A then B, the chip walked after every operation (no crash)
//   faults        A then B on a chip whose writes and deletes fail and whose responses come
//                 late and out of order (as many seeds as crash points); then a clean run of B
//
// usage: crash_torture AGENT [--groups N] [--points P] [--seed S]
// Prints one line per scenario and last "crash points N, divergences D, leaks L, aborts A";
// exits 1 when any is not zero.

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "AgentProcess.h"

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

struct Tally {
   std::uint64_t points = 0, divergences = 0, leaks = 0, aborts = 0;
   Tally& operator+=(const Tally& o) {
      points += o.points;
      divergences += o.divergences;
      leaks += o.leaks;
      aborts += o.aborts;
      return *this;
   }
};

class Torture {
 public:
   Torture(std::string agent, fs::path work) : agent_(std::move(agent)), work_(std::move(work)) {}

   AgentProcess::Result agent(const std::vector<std::string>& args) const {
      return AgentProcess::run(agent_, args);
   }

   // Operations (writes and deletes reaching the chip) of a clean run.
   std::uint64_t operations(const Json& report) const {
      return report["totals"]["writes"].get<std::uint64_t>() +
             report["totals"]["deletes"].get<std::uint64_t>();
   }

   Json runClean(const fs::path& config, const fs::path& chip) const {
      auto r = agent({"run", "--json", "--config", config, "--chip", chip});
      if (r.code != 0) throw std::runtime_error("a clean run failed:\n" + r.err);
      return Json::parse(r.out);
   }

   // A crashing run is killed or, past its last operation, ends normally.
   bool crash(const fs::path& config, const fs::path& chip, std::uint64_t n, Tally& t,
              const std::string& where) const {
      auto r = agent(
          {"run", "--config", config, "--chip", chip, "--crash-after-writes", std::to_string(n)});
      if (r.code == 128 + 9 || r.code == 0) return true;
      ++t.aborts;
      std::cerr << where << ": the crashing run ended " << r.code << "\n" << r.err;
      return false;
   }

   // The run after a crash must end normally, and the walk equal the configuration.
   void recover(const fs::path& config, const fs::path& chip, Tally& t,
                const std::string& where) const {
      auto r = agent({"run", "--config", config, "--chip", chip});
      if (r.code != 0) {
         ++t.aborts;
         std::cerr << where << ": the run after the crash ended " << r.code << "\n" << r.err;
         return;
      }
      audit(config, chip, t, where);
      auto v = agent({"verify", "--json", "--config", config, "--chip", chip});
      if (v.code == 0) return;
      if (v.code != 1) {
         ++t.aborts;
         std::cerr << where << ": verify ended " << v.code << "\n" << v.err;
         return;
      }
      bool leak = false, diverged = false;
      for (const auto& d : Json::parse(v.out)["differences"]) {
         const std::string text = d.get<std::string>();
         const bool isLeak = text.find("no group reaches it") != std::string::npos ||
                             text.find("claimed by") != std::string::npos;
         leak |= isLeak;
         diverged |= !isLeak;
         std::cerr << where << ": " << text << "\n";
      }
      t.leaks += leak;
      t.divergences += diverged;
   }

   // The recovered chip must be consistent in itself and with the allocation of the
   // configuration it runs: a finding counts as a leak.
   void audit(const fs::path& config, const fs::path& chip, Tally& t,
              const std::string& where) const {
      auto a = agent({"audit", "--config", config, "--chip", chip});
      if (a.code == 0) return;
      if (a.code != 1) {
         ++t.aborts;
         std::cerr << where << ": audit ended " << a.code << "\n" << a.err;
         return;
      }
      ++t.leaks;
      std::cerr << where << ": audit:\n" << a.out;
   }

   // Crash points over 1..total: every one when they are few, else an even sample.
   static std::vector<std::uint64_t> points(std::uint64_t total, std::uint64_t wanted) {
      std::vector<std::uint64_t> out;
      if (total == 0) return out;
      if (total <= wanted) {
         for (std::uint64_t n = 1; n <= total; ++n) out.push_back(n);
         return out;
      }
      std::set<std::uint64_t> picked;
      for (std::uint64_t i = 0; i < wanted; ++i) picked.insert(1 + i * (total - 1) / (wanted - 1));
      return {picked.begin(), picked.end()};
   }

   fs::path freshChip() const {
      const fs::path chip = work_ / "chip";
      fs::remove_all(chip);
      return chip;
   }

 private:
   std::string agent_;
   fs::path work_;
};

// A changed by about 10%: groups dropped (with the groups remapped to them), groups whose
// profile or replication changed, groups added.
Json changed(const Json& a) {
   Json b = a;
   std::set<std::string> dropped;
   for (std::size_t i = 0; i < a["groups"].size(); ++i) {
      const Json& g = a["groups"][i];
      if (i % 10 == 1 && g.contains("replication")) dropped.insert(g["name"].get<std::string>());
   }
   Json groups = Json::array();
   std::size_t i = 0;
   for (Json g : a["groups"]) {
      const std::string name = g["name"];
      const bool gone =
          dropped.contains(name) ||
          (g.contains("remapTo") && dropped.contains(g["remapTo"].get<std::string>()));
      if (gone) {
         ++i;
         continue;
      }
      if (i % 10 == 5) {
         g["strengthProfile"] = (g["strengthProfile"].get<int>() + 1) % 32;
         if (g.contains("replication")) {
            Json& egress = g["replication"][0]["egress"];
            if (egress.size() > 1) egress.erase(egress.size() - 1);
         }
      }
      groups.push_back(std::move(g));
      ++i;
   }
   const auto added = std::max<std::size_t>(1, a["groups"].size() / 10);
   for (std::size_t n = 0; n < added; ++n) {
      Json egress = Json::array();
      for (std::size_t e = 0; e < 3 && e < a["nextHops"].size(); ++e) {
         egress.push_back(a["nextHops"][(n + e) % a["nextHops"].size()]["id"]);
      }
      groups.push_back({{"name", "added" + std::to_string(n)},
                        {"group", "239.200.0." + std::to_string(n + 1)},
                        {"strengthProfile", 7},
                        {"replication", Json::array({{{"speed", "100G"}, {"egress", egress}}})}});
   }
   b["groups"] = std::move(groups);
   return b;
}

void write(const fs::path& file, const Json& j) {
   std::ofstream out(file);
   out << j.dump(1) << "\n";
   if (!out) throw std::runtime_error("cannot write " + file.string());
}

}  // namespace

int main(int argc, char** argv) {
   if (argc < 2) {
      std::cerr << "usage: crash_torture AGENT [--groups N] [--points P] [--seed S]\n";
      return 2;
   }
   std::string agentPath = argv[1];
   std::uint64_t groups = 12, wanted = 40, seed = 1;
   for (int i = 2; i + 1 < argc; i += 2) {
      const std::string opt = argv[i];
      const std::uint64_t v = std::stoull(argv[i + 1]);
      if (opt == "--groups") {
         groups = v;
      } else if (opt == "--points") {
         wanted = v;
      } else if (opt == "--seed") {
         seed = v;
      } else {
         std::cerr << "crash_torture: unknown option " << opt << "\n";
         return 2;
      }
   }
   char tmpl[] = "/tmp/crash-torture.XXXXXX";
   if (!::mkdtemp(tmpl)) {
      std::perror("mkdtemp");
      return 2;
   }
   const fs::path work = tmpl;
   Torture t(agentPath, work);
   Tally total;
   try {
      auto gen =
          t.agent({"gen", "--groups", std::to_string(groups), "--seed", std::to_string(seed)});
      if (gen.code != 0) throw std::runtime_error("gen failed:\n" + gen.err);
      const Json a = Json::parse(gen.out);
      const fs::path fileA = work / "a.json", fileB = work / "b.json";
      write(fileA, a);
      write(fileB, changed(a));

      // Operations of each kind of run, from clean runs.
      const std::uint64_t coldOps = t.operations(t.runClean(fileA, t.freshChip()));
      fs::path chip = t.freshChip();
      t.runClean(fileA, chip);
      const std::uint64_t warmOps = t.operations(t.runClean(fileB, chip));

      // Make before break: a walk after every chip operation of a cold start of A and of the
      // warm restart with B finds each group replicating as before or as configured.
      {
         const fs::path c = t.freshChip();
         for (const fs::path& file : {fileA, fileB}) {
            auto r =
                t.agent({"run", "--json", "--check-every-write", "--config", file, "--chip", c});
            const Json report = Json::parse(r.out.empty() ? "{}" : r.out);
            const auto& mbb = report.value("makeBeforeBreak", Json::object());
            const auto checked = mbb.value("operationsChecked", std::uint64_t{0});
            const auto violations = mbb.value("violations", std::uint64_t{0});
            std::cout << "make-before-break " << file.filename().string() << ": " << checked
                      << " operations checked, " << violations << " violations" << std::endl;
            for (const auto& v : mbb.value("first", Json::array())) {
               std::cerr << "make-before-break: " << v.get<std::string>() << "\n";
            }
            if (r.code != 0 && r.code != 1) ++total.aborts;
            total.divergences += violations;
         }
      }
      auto scenario = [&](const char* name, std::uint64_t ops, auto&& one) {
         Tally s;
         for (std::uint64_t n : Torture::points(ops, wanted)) {
            ++s.points;
            one(n, s, std::string(name) + " crash point " + std::to_string(n));
         }
         const bool crashes = std::string(name) != "faults";
         std::cout << name << ": " << ops
                   << (crashes ? " operations, crash points " : " faulty seeds ") << s.points
                   << ", divergences " << s.divergences << ", leaks " << s.leaks << ", aborts "
                   << s.aborts << std::endl;
         if (!crashes) s.points = 0;
         total += s;
      };
      scenario("cold", coldOps, [&](std::uint64_t n, Tally& s, const std::string& where) {
         const fs::path c = t.freshChip();
         if (t.crash(fileA, c, n, s, where)) t.recover(fileA, c, s, where);
      });
      scenario("cold-changed", coldOps, [&](std::uint64_t n, Tally& s, const std::string& where) {
         const fs::path c = t.freshChip();
         if (t.crash(fileA, c, n, s, where)) t.recover(fileB, c, s, where);
      });
      scenario("warm-changed", warmOps, [&](std::uint64_t n, Tally& s, const std::string& where) {
         const fs::path c = t.freshChip();
         t.runClean(fileA, c);
         if (t.crash(fileB, c, n, s, where)) t.recover(fileB, c, s, where);
      });
      scenario("warm-again", warmOps, [&](std::uint64_t n, Tally& s, const std::string& where) {
         const fs::path c = t.freshChip();
         t.runClean(fileA, c);
         if (t.crash(fileB, c, n, s, where) && t.crash(fileB, c, (n + 1) / 2, s, where)) {
            t.recover(fileB, c, s, where);
         }
      });
      // Faulty chips: failed writes and deletes, late and reordered responses, cold and
      // then warm with B; the agent reports and exits 3, never aborts, and a clean run
      // repairs everything.
      scenario("faults", wanted, [&](std::uint64_t n, Tally& s, const std::string& where) {
         const fs::path c = t.freshChip();
         const std::string rate = n % 3 == 0 ? "0.5" : n % 3 == 1 ? "0.2" : "0.05";
         for (const fs::path& file : {fileA, fileB}) {
            auto r = t.agent({"run", "--config", file, "--chip", c, "--fail-writes", rate,
                              "--delay-responses", std::to_string(n % 5), "--reorder-responses",
                              "--seed", std::to_string(n)});
            if (r.code != 0 && r.code != 3) {
               ++s.aborts;
               std::cerr << where << ": a faulty run ended " << r.code << "\n" << r.err;
               return;
            }
         }
         t.recover(fileB, c, s, where);
      });
   } catch (const std::exception& e) {
      std::cerr << "crash_torture: " << e.what() << "\n";
      fs::remove_all(work);
      return 2;
   }
   fs::remove_all(work);
   std::cout << "crash points " << total.points << ", divergences " << total.divergences
             << ", leaks " << total.leaks << ", aborts " << total.aborts << std::endl;
   return total.divergences + total.leaks + total.aborts == 0 ? 0 : 1;
}
