#include "McastAgent/Audit.h"

#include <unistd.h>

#include <array>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "ChipSim/NeighbourFormats.h"
#include "ChipSim/ReplListFormat.h"
#include "ChipSim/ScratchDir.h"
#include "ChipSim/plugins/MmuReplHeadTableSimUtil.h"
#include "McastAgent/Agent.h"
#include "McastAgent/Walk.h"

namespace McastAgent {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using Index = Asic::Index;
using ListFormat = ChipSim::ReplListFormat;
using HeadFormat = ChipSim::MmuReplHeadTableSimUtil;

// Four groups (one remapped to another, one with a dense list), two L2 sub-port lists and
// two port aggregation entries: every memory holds something.
const char* const kConfig = R"({
  "nextHops": [{"id": 1, "port": 1}, {"id": 2, "port": 2}, {"id": 3, "port": 3},
               {"id": 4, "port": 4}, {"id": 64, "port": 10}, {"id": 65, "port": 11}],
  "groups": [
    {"name": "a", "group": "239.1.1.1", "strengthProfile": 3, "replication": [
       {"speed": "100G", "egress": [1, 2, {"nextHop": 3, "ports": [3, 7]}]},
       {"speed": "400G", "egress": [4]}]},
    {"name": "b", "group": "239.1.1.2", "remapTo": "a"},
    {"name": "c", "group": "239.2.0.1", "vrf": 7, "replication": [
       {"speed": "25G", "egress": [1, 2, 3, 4, 64, 65], "sparseSize": 2, "denseSize": 64}]},
    {"name": "d", "group": "239.3.0.1", "replication": [{"speed": "100G", "egress": [2, 4]}]}
  ],
  "l2SubPorts": [{"mode": 1, "subPorts": [0, 4, 8]}, {"mode": 2, "subPorts": [1]}],
  "portAggregation": [{"index": 1, "members": [1, 2]}]
})";

Config config(const std::function<void(nlohmann::json&)>& change = {}) {
   nlohmann::json j = nlohmann::json::parse(kConfig);
   if (change) change(j);
   return configFromJson(j, "test.json");
}

template <typename F>
typename F::HwEntry readAs(ChipSim::SimHwTable& hw, Index index) {
   std::array<std::uint32_t, F::kEntryWords> words{};
   if (!hw.memory().read(index, words)) {
      throw std::logic_error(fmt::format("{}[{}] holds no entry", hw.name(), index));
   }
   return F::decode(words);
}
template <typename F, typename Entry>
void writeAs(ChipSim::SimHwTable& hw, Index index, const Entry& entry) {
   hw.memory().write(index, F::encode(entry));
}
// The head table's Util names its entry type Entry, not HwEntry.
struct HeadHw : HeadFormat {
   using HwEntry = HeadFormat::Entry;
};

std::vector<std::string> texts(const std::vector<Finding>& findings) {
   std::vector<std::string> out;
   for (const Finding& f : findings) out.push_back(toText(f));
   return out;
}

const WalkedGroup& groupAt(const Walk& walk, std::uint32_t vrf, const char* addr) {
   for (const WalkedGroup& g : walk.groups) {
      if (g.vrf == vrf && ipv4ToString(g.groupAddr) == addr) return g;
   }
   throw std::logic_error(fmt::format("group {} not on the chip", addr));
}
class AuditTest : public ::testing::Test {
 protected:
   RunReport runOn(const Config& cfg) {
      ChipMemories chip(dir_);
      RunReport r = run(chip, cfg);
      EXPECT_TRUE(r.failed.empty());
      return r;
   }
   std::vector<Finding> audit() {
      ChipMemories chip(dir_, {}, ChipMemories::Access::copyOnWrite);
      return auditChip(chip);
   }

   ChipSim::ScratchDir scratch_{"mcast-audit-test"};
   const fs::path dir_ = scratch_.path();
};

// Verify that a chip the agent programmed, cold and then warm with a changed
// configuration, is healthy by itself and matches the allocation of the configuration it
// runs, and that the allocation audit of the configuration it left names what a restart
// with that one would purge.
TEST_F(AuditTest, ProgrammedChipIsHealthyColdAndWarm) {
   const Config first = config();
   runOn(first);
   EXPECT_THAT(texts(audit()), ::testing::IsEmpty());
   EXPECT_THAT(texts(auditAllocation(dir_, first)), ::testing::IsEmpty());

   const Config second = config([](nlohmann::json& j) {
      j["groups"][0]["replication"][0]["egress"] = {1, 2};
      j["groups"].erase(3);
      j["portAggregation"][0]["members"] = {1};
   });
   runOn(second);
   EXPECT_THAT(texts(audit()), ::testing::IsEmpty());
   EXPECT_THAT(texts(auditAllocation(dir_, second)), ::testing::IsEmpty());

   // Audited against a configuration without group c, every entry of c is one that no key
   // owns, in each memory it uses.
   Index cIpmc = 0;
   {
      ChipMemories chip(dir_);
      cIpmc = groupAt(walkChip(chip), 7, "239.2.0.1").ipmcIndex;
   }
   const Config withoutC = config([](nlohmann::json& j) {
      j["groups"][0]["replication"][0]["egress"] = {1, 2};
      j["groups"].erase(3);
      j["groups"].erase(2);
      j["portAggregation"][0]["members"] = {1};
   });
   const auto stale = texts(auditAllocation(dir_, withoutC));
   for (const char* memory : {"L3_IPMC", "ING_IPMC_REMAP", "MMU_REPL_GROUP"}) {
      EXPECT_THAT(stale, ::testing::Contains(
                             ::testing::StartsWith(fmt::format("{}[{}]: no", memory, cIpmc))))
          << memory;
   }
   EXPECT_THAT(stale, ::testing::Contains(HasSubstr("MMU_REPL_HEAD_TBL[")));
   EXPECT_THAT(stale, ::testing::Contains(HasSubstr("MMU_REPL_LIST[")));
   // The audit wrote nothing: the chip still runs `second` without a write.
   EXPECT_EQ(runOn(second).totals().writes, 0u);
}

// One planted fault: what it does to the chip, and the finding it must produce.
struct Fault {
   const char* name;
   std::function<void(ChipMemories&, const Walk&)> plant;
   const char* memory;
   const char* problem;
};

const WalkedGroup& groupA(const Walk& w) { return groupAt(w, 0, "239.1.1.1"); }
const WalkedGroup& groupC(const Walk& w) { return groupAt(w, 7, "239.2.0.1"); }
const WalkedGroup& groupD(const Walk& w) { return groupAt(w, 0, "239.3.0.1"); }

// A list index nothing uses.
constexpr Index kFreeList = 4000;

const Fault kFaults[] = {
    {"index in both list memories",
     [](ChipMemories& chip, const Walk& w) {
        const Index list = groupD(w).lists[0].headPtr;
        chip.l2SubPort->memory().write(
            list, ChipSim::L2SubPortFormat::encode({.mode = 1, .bitmapWords = {1, 0}}));
     },
     ChipSim::L2SubPortFormat::kMemory, "claimed twice"},
    {"overlapping head blocks",
     [](ChipMemories& chip, const Walk& w) {
        const WalkedGroup& d = groupD(w);
        writeAs<ChipSim::ReplGroupFormat>(
            *chip.group, d.ipmcIndex, ChipSim::ReplGroupFormat::HwEntry{*groupA(w).headBase, 2});
     },
     HeadFormat::kMemory, "head blocks overlap"},
    {"list chain that loops",
     [](ChipMemories& chip, const Walk& w) {
        const Index first = groupC(w).lists[0].headPtr;
        const auto chain = ChipSim::chainAt<ListFormat>(*chip.list, first);
        auto last = readAs<ListFormat>(*chip.list, chain.back());
        last.last = false;
        last.next = first;
        writeAs<ListFormat>(*chip.list, chain.back(), last);
     },
     ListFormat::kMemory, "loops"},
    {"list chain that runs out of the table",
     [](ChipMemories& chip, const Walk& w) {
        const Index first = groupD(w).lists[0].headPtr;
        auto e = readAs<ListFormat>(*chip.list, first);
        e.last = false;
        e.next = chip.list->memory().numEntries() + 7;
        writeAs<ListFormat>(*chip.list, first, e);
     },
     ListFormat::kMemory, "runs out of the table"},
    {"list chain into an empty entry",
     [](ChipMemories& chip, const Walk& w) {
        const Index first = groupD(w).lists[0].headPtr;
        auto e = readAs<ListFormat>(*chip.list, first);
        e.last = false;
        e.next = kFreeList;
        writeAs<ListFormat>(*chip.list, first, e);
     },
     ListFormat::kMemory, "holds no entry"},
    {"lists that share entries",
     [](ChipMemories& chip, const Walk& w) {
        // a's two lists both go on into d's list.
        const Index shared = groupD(w).lists[0].headPtr;
        for (const WalkedList& l : groupA(w).lists) {
           auto e = readAs<ListFormat>(*chip.list, l.headPtr);
           e.last = false;
           e.next = shared;
           writeAs<ListFormat>(*chip.list, l.headPtr, e);
        }
     },
     ListFormat::kMemory, "share entries"},
    {"head pointer to an empty list entry",
     [](ChipMemories& chip, const Walk& w) {
        auto h = readAs<HeadHw>(*chip.head, *groupD(w).headBase);
        h.headPtr = kFreeList;
        writeAs<HeadHw>(*chip.head, *groupD(w).headBase, h);
     },
     HeadFormat::kMemory, "names no list head"},
    {"head pointer into the middle of a list",
     [](ChipMemories& chip, const Walk& w) {
        const auto chain = ChipSim::chainAt<ListFormat>(*chip.list, groupC(w).lists[0].headPtr);
        ASSERT_GE(chain.size(), 2u);
        auto h = readAs<HeadHw>(*chip.head, *groupD(w).headBase);
        h.headPtr = chain[1];
        writeAs<HeadHw>(*chip.head, *groupD(w).headBase, h);
     },
     HeadFormat::kMemory, "the middle of a list"},
    {"list no head points at",
     [](ChipMemories& chip, const Walk& w) {
        writeAs<ListFormat>(*chip.list, kFreeList,
                            readAs<ListFormat>(*chip.list, groupD(w).lists[0].headPtr));
     },
     ListFormat::kMemory, "no head entry points at"},
    {"remap entry to an IPMC index that holds nothing",
     [](ChipMemories& chip, const Walk& w) {
        chip.remap->memory().write(groupD(w).ipmcIndex, std::array<std::uint32_t, 1>{900});
     },
     "ING_IPMC_REMAP", "which holds nothing"},
    {"group claimed twice",
     [](ChipMemories& chip, const Walk& w) {
        writeAs<ChipSim::IpmcLookupFormat>(
            *chip.ipmc, 901, readAs<ChipSim::IpmcLookupFormat>(*chip.ipmc, groupD(w).ipmcIndex));
     },
     ChipSim::IpmcLookupFormat::kMemory, "claimed twice"},
    {"head entry no block covers",
     [](ChipMemories& chip, const Walk& w) {
        writeAs<HeadHw>(*chip.head, 5000, readAs<HeadHw>(*chip.head, *groupD(w).headBase));
     },
     HeadFormat::kMemory, "no replication group's head block covers it"},
    {"entry that does not decode",
     [](ChipMemories& chip, const Walk&) {
        std::array<std::uint32_t, ListFormat::kEntryWords> words{};  // kind 0: not an entry
        chip.list->memory().write(kFreeList, words);
     },
     ListFormat::kMemory, "does not decode"},
};

class AuditFaultTest : public AuditTest, public ::testing::WithParamInterface<Fault> {};

// Verify that each fault class planted into a healthy chip's memory files is found, named
// by its memory, and leaves no finding on a chip without it.
TEST_P(AuditFaultTest, PlantedFaultIsFound) {
   const Fault& fault = GetParam();
   runOn(config());
   ASSERT_THAT(texts(audit()), ::testing::IsEmpty());
   {
      ChipMemories chip(dir_);
      fault.plant(chip, walkChip(chip));
   }
   const auto found = audit();
   EXPECT_THAT(texts(found), ::testing::Contains(::testing::AllOf(
                                 ::testing::StartsWith(std::string(fault.memory) + "["),
                                 HasSubstr(fault.problem))))
       << fault.name;
}

INSTANTIATE_TEST_SUITE_P(EveryFaultClass, AuditFaultTest, ::testing::ValuesIn(kFaults),
                         [](const ::testing::TestParamInfo<Fault>& info) {
                            std::string name;
                            for (char c : std::string(info.param.name)) {
                               name += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
                            }
                            return name;
                         });

// Verify that the copy-on-write view writes nothing back: a dry run on it changes no byte
// of the chip's files, and one over a missing chip directory creates nothing.
TEST_F(AuditTest, CopyOnWriteViewLeavesTheFilesAlone) {
   const fs::path absent = dir_ / "absent";
   {
      ChipMemories before(absent, {}, ChipMemories::Access::copyOnWrite);
      ChipMemories view(absent, {}, ChipMemories::Access::copyOnWrite);
      const RunReport r = run(view, config(), {.before = &before});
      EXPECT_FALSE(r.warm);
      EXPECT_GT(r.totals().writes, 0u);
   }
   EXPECT_FALSE(fs::exists(absent));

   runOn(config());
   const auto walkBefore = [&] {
      ChipMemories chip(dir_);
      return differences(walkChip(chip), config());
   }();
   ASSERT_THAT(walkBefore, ::testing::IsEmpty());
   const Config changed = config([](nlohmann::json& j) { j["groups"].erase(3); });
   {
      ChipMemories before(dir_, {}, ChipMemories::Access::copyOnWrite);
      ChipMemories view(dir_, {}, ChipMemories::Access::copyOnWrite);
      const RunReport r = run(view, changed, {.before = &before});
      EXPECT_GT(r.totals().deletes, 0u);
      // The view itself sees its own writes...
      EXPECT_THAT(differences(walkChip(view), changed), ::testing::IsEmpty());
   }
   // ... the chip does not.
   ChipMemories chip(dir_);
   EXPECT_THAT(differences(walkChip(chip), config()), ::testing::IsEmpty());
}

}  // namespace
}  // namespace McastAgent
