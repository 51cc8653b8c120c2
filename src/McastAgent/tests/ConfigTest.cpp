#include "McastAgent/Config.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace McastAgent {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using Json = nlohmann::json;
using Interface::EthSpeed;

// Two next hops and one plain group; most refusals are a small variation on these.
const std::string kHops = R"("nextHops": [{"id": 1, "port": 1}, {"id": 2, "port": 2}])";
std::string groupA(const std::string& extra = "") {
   return R"({"name": "a", "group": "239.1.1.1", )" + extra +
          R"("replication": [{"speed": "100G", "egress": [1]}]})";
}
std::string withGroups(const std::string& groups) {
   return "{" + kHops + R"(, "groups": [)" + groups + "]}";
}
std::string withList(const std::string& list) {
   return withGroups(R"({"name": "a", "group": "239.1.1.1", "replication": [)" + list + "]}");
}

// The error configFromJson raises for `json`; none when it accepts it.
std::optional<ConfigError> refusal(const Json& json, const std::string& file = "cfg.json") {
   try {
      configFromJson(json, file);
   } catch (const ConfigError& e) {
      return e;
   }
   return std::nullopt;
}

TEST(ConfigTest, ReadsEveryFieldWithDefaultsAndOrdering) {
   const Config c = configFromJson(Json::parse(R"({
      "nextHops": [{"id": 20, "port": 7, "vlan": 300}, {"id": 10, "port": 5}],
      "groups": [
        {"name": "video", "group": "239.1.2.3", "vrf": 9, "strengthProfile": 31,
         "replication": [
           {"speed": "100G", "egress": [20, {"nextHop": 10, "ports": [9, 3]}]},
           {"speed": "10G", "egress": [10, 20], "sparseSize": 8, "denseSize": 64,
            "generation": 0}]},
        {"name": "backup", "group": "239.1.2.3", "remapTo": "video"}],
      "l2SubPorts": [{"mode": 2, "subPorts": [63, 0]}, {"mode": 3, "subPorts": []}],
      "portAggregation": [{"index": 511, "members": [159, 0]}, {"index": 3, "members": [4]}]
   })"),
                                   "cfg.json");
   ASSERT_EQ(c.nextHops.size(), 2u);
   EXPECT_EQ(c.nextHops[0], (NextHop{10, 5, 0}));  // sorted by id, vlan defaults to 0
   EXPECT_EQ(c.nextHops[1], (NextHop{20, 7, 300}));
   ASSERT_EQ(c.groups.size(), 2u);
   const Group& video = c.groups[0];
   EXPECT_EQ(video.groupAddr, 0xEF010203u);
   EXPECT_EQ(video.vrf, 9u);
   EXPECT_EQ(video.strengthProfile, 31);
   ASSERT_EQ(video.replication.size(), 2u);
   const ReplicationList& l100 = video.replication[0];
   EXPECT_EQ(l100.speed, EthSpeed::speed100Gbps);
   EXPECT_EQ(l100.sparseSize, 4);
   EXPECT_EQ(l100.denseSize, 0);
   EXPECT_EQ(l100.generation, 1u);
   // Sorted by next hop; a bare next hop goes to its own port; ports come out ascending.
   EXPECT_EQ(l100.egress, (std::vector<Egress>{{10, {3, 9}}, {20, {7}}}));
   const ReplicationList& l10 = video.replication[1];
   EXPECT_EQ(l10.speed, EthSpeed::speed10Gbps);
   EXPECT_EQ(l10.sparseSize, 8);
   EXPECT_EQ(l10.denseSize, 64);
   EXPECT_EQ(l10.generation, 0u);
   // The same address in another vrf is another group.
   EXPECT_EQ(c.groups[1].vrf, 0u);
   EXPECT_TRUE(c.groups[1].replication.empty());
   EXPECT_EQ(&c.replicationOf(c.groups[1]), &c.groups[0]);
   EXPECT_EQ(&c.replicationOf(c.groups[0]), &c.groups[0]);
   EXPECT_EQ(c.group("backup"), &c.groups[1]);
   EXPECT_EQ(c.group("nope"), nullptr);
   EXPECT_EQ(c.nextHop(20), &c.nextHops[1]);
   EXPECT_EQ(c.nextHop(15), nullptr);
   EXPECT_EQ(c.l2SubPorts[0].subPorts, (std::vector<std::uint32_t>{0, 63}));
   EXPECT_EQ(c.l2SubPorts[1].mode, 3);  // a mode other than 0 needs no sub-port
   ASSERT_EQ(c.portAggregation.size(), 2u);
   EXPECT_EQ(c.portAggregation[0], (PortAggregation{3, {4}}));  // sorted by index
   EXPECT_EQ(c.portAggregation[1], (PortAggregation{511, {0, 159}}));
}

TEST(ConfigTest, EmptyConfigurationIsValid) {
   const Config c = configFromJson(Json::object(), "cfg.json");
   EXPECT_TRUE(c.nextHops.empty() && c.groups.empty() && c.l2SubPorts.empty() &&
               c.portAggregation.empty());
}

TEST(ConfigTest, RoundTripsThroughJson) {
   const Config c = configFromJson(Json::parse(R"({
      "nextHops": [{"id": 3, "port": 1, "vlan": 4095}, {"id": 1, "port": 2},
                   {"id": 65535, "port": 65535}],
      "groups": [
        {"name": "g1", "group": "224.0.0.1", "vrf": 4294967295, "strengthProfile": 5,
         "replication": [
           {"speed": "1G", "egress": [3, {"nextHop": 1, "ports": [4, 2]}], "sparseSize": 1},
           {"speed": "800G", "egress": [{"nextHop": 65535, "ports": [65535]}, 1],
            "denseSize": 64, "generation": 4294967295}]},
        {"name": "g2", "group": "239.255.255.255", "remapTo": "g1"},
        {"name": "g3", "group": "239.0.0.7", "replication": [{"speed": "25G", "egress": [1]}]}],
      "l2SubPorts": [{"mode": 1, "subPorts": [5, 0]}],
      "portAggregation": [{"index": 0, "members": [1, 2, 3]}]
   })"),
                                   "cfg.json");
   const Json j = c.toJson();
   const Config back = configFromJson(j, "round-trip");
   EXPECT_EQ(back.nextHops, c.nextHops);
   EXPECT_EQ(back.groups, c.groups);
   EXPECT_EQ(back.l2SubPorts, c.l2SubPorts);
   EXPECT_EQ(back.portAggregation, c.portAggregation);
   // And it is a fixed point: the second rendering is the first.
   EXPECT_EQ(back.toJson(), j);
}

TEST(ConfigTest, ErrorNamesFilePathAndReason) {
   const auto e =
       refusal(Json::parse(R"({"nextHops": [{"id": 1, "port": 1, "vlan": 4096}]})"), "dir/my.json");
   ASSERT_TRUE(e);
   EXPECT_EQ(e->path(), "/nextHops/0/vlan");
   EXPECT_STREQ(e->what(), "dir/my.json: /nextHops/0/vlan: 4096 is out of range 0..4095");
}

struct Refusal {
   std::string name;
   std::string json;
   std::string path;
   std::string reason;  // a substring of the reason
};

void PrintTo(const Refusal& r, std::ostream* os) { *os << r.name; }

class ConfigRefusalTest : public ::testing::TestWithParam<Refusal> {};

TEST_P(ConfigRefusalTest, NamesPathAndReason) {
   const Refusal& r = GetParam();
   const auto e = refusal(Json::parse(r.json));
   ASSERT_TRUE(e) << "accepted: " << r.json;
   EXPECT_EQ(e->path(), r.path) << e->what();
   EXPECT_THAT(e->what(), HasSubstr(r.reason));
   EXPECT_THAT(e->what(), StartsWith("cfg.json: " + r.path + ": "));
}

const std::string kL0 = "/groups/0/replication/0";

INSTANTIATE_TEST_SUITE_P(
    Shape, ConfigRefusalTest,
    ::testing::Values(
        Refusal{"TopLevelNotObject", "[]", "/", "expected an object"},
        Refusal{"GroupsNotArray", R"({"groups": {}})", "/groups", "expected an array"},
        Refusal{"UnknownTopLevelField", R"({"nextHop": []})", "/nextHop",
                "unknown field (known: nextHops, groups, l2SubPorts, portAggregation)"},
        Refusal{"UnknownNextHopField", R"({"nextHops": [{"id": 1, "port": 1, "mtu": 9}]})",
                "/nextHops/0/mtu", "unknown field"},
        Refusal{"UnknownGroupField", withGroups(groupA(R"("colour": 1, )")), "/groups/0/colour",
                "unknown field"},
        Refusal{"UnknownListField", withList(R"({"speed": "1G", "egress": [1], "dense": 1})"),
                kL0 + "/dense", "unknown field"},
        Refusal{"UnknownEgressField", withList(R"({"speed": "1G", "egress": [{"nextHop": 1,
                "port": 3}]})"),
                kL0 + "/egress/0/port", "unknown field"},
        Refusal{"MissingNextHopPort", R"({"nextHops": [{"id": 1}]})", "/nextHops/0/port",
                "required field is missing"},
        Refusal{"MissingGroupAddress", withGroups(R"({"name": "a", "remapTo": "b"})"),
                "/groups/0/group", "required field is missing"},
        Refusal{"MissingSpeed", withList(R"({"egress": [1]})"), kL0 + "/speed",
                "required field is missing"},
        Refusal{"NameNotString", withGroups(R"({"name": 5, "group": "239.1.1.1"})"),
                "/groups/0/name", "expected a string"},
        Refusal{"EmptyName", withGroups(R"({"name": "", "group": "239.1.1.1"})"), "/groups/0/name",
                "cannot be empty"},
        Refusal{"BothReplicationAndRemap", withGroups(groupA() + R"(, {"name": "b",
                "group": "239.1.1.2", "remapTo": "a", "replication": []})"),
                "/groups/1", "either"},
        Refusal{"NeitherReplicationNorRemap", withGroups(R"({"name": "a", "group": "239.1.1.1"})"),
                "/groups/0", "either"},
        Refusal{"EmptyReplication",
                withGroups(R"({"name": "a", "group": "239.1.1.1", "replication": []})"),
                "/groups/0/replication", "1 to 15 port speeds, not 0"},
        Refusal{"EmptyEgress", withList(R"({"speed": "1G", "egress": []})"), kL0 + "/egress",
                "at least one egress"},
        Refusal{"EmptyEgressPorts", withList(R"({"speed": "1G", "egress": [{"nextHop": 1,
                "ports": []}]})"),
                kL0 + "/egress/0/ports", "at least one port"},
        Refusal{"DenseListToOtherPorts", withList(R"({"speed": "1G", "denseSize": 64,
                "egress": [{"nextHop": 1, "ports": [1, 2]}]})"),
                kL0 + "/egress/0", "own port only"},
        Refusal{"L2ModeZeroWithoutSubPorts", R"({"l2SubPorts": [{"mode": 0, "subPorts": []}]})",
                "/l2SubPorts/0", "replicates nowhere"},
        Refusal{"PortAggWithoutMembers", R"({"portAggregation": [{"index": 1, "members": []}]})",
                "/portAggregation/0/members", "needs a member port"},
        Refusal{"EmptyRemapTo", withGroups(R"({"name": "a", "group": "239.1.1.1",
                "remapTo": ""})"),
                "/groups/0/remapTo", "names no group"},
        // A field name holding '/' or '~' must be escaped in the pointer (RFC 6901).
        Refusal{"UnknownFieldNameEscaped", R"({"a/b~c": 1})", "/a~1b~0c", "unknown field"}),
    [](const auto& info) { return info.param.name; });

INSTANTIATE_TEST_SUITE_P(
    OutOfRange, ConfigRefusalTest,
    ::testing::Values(
        Refusal{"StrengthProfile32", withGroups(groupA(R"("strengthProfile": 32, )")),
                "/groups/0/strengthProfile", "32 is out of range 0..31"},
        Refusal{"Vlan4096", R"({"nextHops": [{"id": 1, "port": 1, "vlan": 4096}]})",
                "/nextHops/0/vlan", "4096 is out of range 0..4095"},
        Refusal{"NextHopId65536", R"({"nextHops": [{"id": 65536, "port": 1}]})", "/nextHops/0/id",
                "65536 is out of range 0..65535"},
        Refusal{"Port65536", R"({"nextHops": [{"id": 1, "port": 65536}]})", "/nextHops/0/port",
                "out of range"},
        Refusal{"NegativeVrf", withGroups(groupA(R"("vrf": -1, )")), "/groups/0/vrf",
                "-1 is out of range"},
        Refusal{"VrfBeyond32Bits", withGroups(groupA(R"("vrf": 4294967296, )")), "/groups/0/vrf",
                "out of range"},
        Refusal{"FractionalVlan", R"({"nextHops": [{"id": 1, "port": 1, "vlan": 1.5}]})",
                "/nextHops/0/vlan", "expected an integer"},
        Refusal{"VlanAsString", R"({"nextHops": [{"id": 1, "port": 1, "vlan": "1"}]})",
                "/nextHops/0/vlan", "expected an integer"},
        Refusal{"PortAggMember160", R"({"portAggregation": [{"index": 1, "members": [3, 160]}]})",
                "/portAggregation/0/members/1", "160 is out of range 0..159"},
        Refusal{"PortAggIndex512", R"({"portAggregation": [{"index": 512, "members": [1]}]})",
                "/portAggregation/0/index", "512 is out of range 0..511"},
        Refusal{"SubPort64", R"({"l2SubPorts": [{"mode": 1, "subPorts": [64]}]})",
                "/l2SubPorts/0/subPorts/0", "64 is out of range 0..63"},
        Refusal{"L2Mode4", R"({"l2SubPorts": [{"mode": 4, "subPorts": [1]}]})",
                "/l2SubPorts/0/mode", "4 is out of range 0..3"},
        Refusal{"SparseSize0", withList(R"({"speed": "1G", "egress": [1], "sparseSize": 0})"),
                kL0 + "/sparseSize", "0 is out of range 1..8"},
        Refusal{"SparseSize9", withList(R"({"speed": "1G", "egress": [1], "sparseSize": 9})"),
                kL0 + "/sparseSize", "9 is out of range 1..8"},
        Refusal{"DenseSize3", withList(R"({"speed": "1G", "egress": [1], "denseSize": 3})"),
                kL0 + "/denseSize", "3: this chip's dense entries are 64 bits wide"},
        Refusal{"DenseSize128", withList(R"({"speed": "1G", "egress": [1], "denseSize": 128})"),
                kL0 + "/denseSize", "128 is out of range 0..64"},
        Refusal{"UnknownSpeed", withList(R"({"speed": "3G", "egress": [1]})"), kL0 + "/speed",
                "unknown speed \"3G\""},
        Refusal{"UnicastGroup", withGroups(R"({"name": "a", "group": "10.0.0.1",
                "remapTo": "b"})"),
                "/groups/0/group", "not an IPv4 multicast group"},
        Refusal{"MalformedAddress", withGroups(R"({"name": "a", "group": "239.1.1",
                "remapTo": "b"})"),
                "/groups/0/group", "\"239.1.1\" is not an IPv4 address"}),
    [](const auto& info) { return info.param.name; });

INSTANTIATE_TEST_SUITE_P(
    References, ConfigRefusalTest,
    ::testing::Values(Refusal{"BareEgressNotDefined",
                              withList(R"({"speed": "1G", "egress": [1, 3]})"), kL0 + "/egress/1",
                              "next hop 3 is not defined in /nextHops"},
                      Refusal{"EgressObjectNotDefined",
                              withList(R"({"speed": "1G", "egress": [{"nextHop": 7,
                "ports": [1]}]})"),
                              kL0 + "/egress/0/nextHop", "next hop 7 is not defined"},
                      Refusal{"RemapToUnknown",
                              withGroups(groupA() + R"(, {"name": "b", "group": "239.1.1.2",
                "remapTo": "nope"})"),
                              "/groups/1/remapTo", "group \"nope\" is not defined"},
                      // Declared after its user: the check runs once every group is known.
                      Refusal{"RemapToRemapped", withGroups(R"({"name": "c", "group": "239.1.1.3",
                "remapTo": "b"}, )" + groupA() + R"(, {"name": "b", "group": "239.1.1.2",
                "remapTo": "a"})"),
                              "/groups/0/remapTo", "group \"b\" is itself remapped"},
                      Refusal{"RemapToSelf", withGroups(R"({"name": "a", "group": "239.1.1.1",
                "remapTo": "a"})"),
                              "/groups/0/remapTo", "itself remapped"}),
    [](const auto& info) { return info.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Duplicates, ConfigRefusalTest,
    ::testing::Values(
        Refusal{"GroupName", withGroups(groupA() + R"(, {"name": "a", "group": "239.1.1.2",
                "remapTo": "a"})"),
                "/groups/1/name", "group \"a\" is defined twice"},
        Refusal{"GroupAddressAndVrf", withGroups(groupA(R"("vrf": 4, )") + R"(, {"name": "b",
                "group": "239.1.1.1", "vrf": 4, "remapTo": "a"})"),
                "/groups/1/group", "group 239.1.1.1 in vrf 4 is defined twice"},
        Refusal{"NextHopId", R"({"nextHops": [{"id": 1, "port": 1}, {"id": 1, "port": 2}]})",
                "/nextHops/1/id", "next hop 1 is defined twice"},
        Refusal{"SpeedInGroup", withList(R"({"speed": "100G", "egress": [1]},
                {"speed": "100G", "egress": [2]})"),
                "/groups/0/replication/1/speed", "speed 100G has two lists"},
        Refusal{"NextHopInList", withList(R"({"speed": "1G", "egress": [2, {"nextHop": 2,
                "ports": [5]}]})"),
                kL0 + "/egress/1/nextHop", "next hop 2 appears twice in the list"},
        Refusal{"PortInEgress", withList(R"({"speed": "1G", "egress": [{"nextHop": 1,
                "ports": [4, 4]}]})"),
                kL0 + "/egress/0/ports/1", "port 4 appears twice"},
        Refusal{"PortAggIndex", R"({"portAggregation": [{"index": 3, "members": [1]},
                {"index": 3, "members": [2]}]})",
                "/portAggregation/1/index", "index 3 is defined twice"},
        Refusal{"PortAggMember", R"({"portAggregation": [{"index": 3, "members": [1, 1]}]})",
                "/portAggregation/0/members/1", "member port 1 appears twice"},
        Refusal{"SubPort", R"({"l2SubPorts": [{"mode": 1, "subPorts": [2, 2]}]})",
                "/l2SubPorts/0/subPorts/1", "sub-port 2 appears twice"},
        Refusal{"L2List", R"({"l2SubPorts": [{"mode": 1, "subPorts": [2, 1]},
                {"mode": 1, "subPorts": [1, 2]}]})",
                "/l2SubPorts/1", "defined twice"}),
    [](const auto& info) { return info.param.name; });

// What the chip cannot hold: built rather than written out, they are large.
TEST(ConfigTest, RefusesWhatTheChipCannotHold) {
   const Json hops = Json::parse("{" + kHops + "}")["nextHops"];
   auto group = [](int n, Json replication) {
      return Json{{"name", fmt::format("g{}", n)},
                  {"group", fmt::format("239.0.{}.{}", n / 256, n % 256)},
                  {"replication", std::move(replication)}};
   };
   auto portRange = [](int first, int count) {
      Json ports = Json::array();
      for (int p = first; p < first + count; ++p) ports.push_back(p);
      return ports;
   };
   struct Case {
      const char* what;
      Json json;
      std::string path;
      std::string reason;
   };
   std::vector<Case> cases;

   // 4096 replications in a list, over two next hops; 4095 fit.
   auto bigList = [&](int replications) {
      return Json{
          {"nextHops", hops},
          {"groups",
           {group(0, {{{"speed", "1G"},
                       {"egress",
                        {{{"nextHop", 1}, {"ports", portRange(0, 2000)}},
                         {{"nextHop", 2}, {"ports", portRange(0, replications - 2000)}}}}}})}}};
   };
   EXPECT_NO_THROW(configFromJson(bigList(4095), "cfg.json"));
   cases.push_back({"4096 replications", bigList(4096), "/groups/0/replication/0/egress",
                    "4096 replications do not fit a head entry (at most 4095)"});

   // 16 lists in a group (there are fewer speeds, so the count is refused before them).
   Json lists = Json::array();
   for (int l = 0; l < 16; ++l) lists.push_back({{"speed", "1G"}, {"egress", {1}}});
   cases.push_back({"16 lists", Json{{"nextHops", hops}, {"groups", {group(0, lists)}}},
                    "/groups/0/replication", "1 to 15 port speeds, not 16"});

   // 65536 groups for 65535 IPMC indices.
   Json groups = Json::array();
   for (int g = 0; g < 65536; ++g) groups.push_back(Json::object());
   cases.push_back({"65536 groups", Json{{"groups", groups}}, "/groups",
                    "65536 groups do not fit the chip's 65535 IPMC indices"});

   // More list entries than the chip has: lists of 4095 single-pair entries, nine per group.
   const char* speeds[] = {"1G", "10G", "25G", "40G", "50G", "100G", "200G", "400G", "800G"};
   const Json wide = {{{"nextHop", 1}, {"ports", portRange(0, 4095)}}};
   Json many = Json::array();
   for (int g = 0, lists = 0; lists < 65; ++g) {
      Json repl = Json::array();
      for (int s = 0; s < 9 && lists < 65; ++s, ++lists) {
         repl.push_back({{"speed", speeds[s]}, {"egress", wide}, {"sparseSize", 1}});
      }
      many.push_back(group(g, std::move(repl)));
   }
   cases.push_back({"list entries", Json{{"nextHops", hops}, {"groups", std::move(many)}},
                    "/groups", "the replication lists need 266175 list entries; the chip has"});

   for (const Case& c : cases) {
      SCOPED_TRACE(c.what);
      const auto e = refusal(c.json);
      ASSERT_TRUE(e);
      EXPECT_EQ(e->path(), c.path) << e->what();
      EXPECT_THAT(e->what(), HasSubstr(c.reason));
   }
}

// A fresh file under /tmp, removed afterwards.
class TempFile {
 public:
   explicit TempFile(const std::string& text) {
      std::string t = "/tmp/mcast-config-XXXXXX";
      const int fd = ::mkstemp(t.data());
      if (fd < 0) throw std::runtime_error("mkstemp failed");
      ::close(fd);
      path_ = t;
      std::ofstream(path_) << text;
   }
   ~TempFile() {
      std::error_code ec;
      fs::remove(path_, ec);
   }
   const fs::path& path() const { return path_; }

 private:
   fs::path path_;
};

TEST(ConfigTest, LoadRefusesMalformedOrMissingFiles) {
   {
      TempFile f(R"({"nextHops": [{"id": 1, "port": 1},]})");
      try {
         configLoad(f.path());
         FAIL() << "malformed JSON accepted";
      } catch (const ConfigError& e) {
         EXPECT_EQ(e.path(), "/");
         EXPECT_THAT(e.what(), StartsWith(f.path().string() + ": /: not valid JSON"));
      }
   }
   {
      TempFile f("");
      try {
         configLoad(f.path());
         FAIL() << "empty file accepted";
      } catch (const ConfigError& e) {
         EXPECT_THAT(e.what(), HasSubstr("not valid JSON"));
      }
   }
   {
      const fs::path missing = "/tmp/mcast-config-does-not-exist.json";
      try {
         configLoad(missing);
         FAIL() << "missing file accepted";
      } catch (const ConfigError& e) {
         EXPECT_THAT(e.what(), StartsWith(missing.string() + ": /: cannot be read"));
      }
   }
   {
      // Validation errors carry the file's name too.
      TempFile f(R"({"nextHops": [{"id": 1, "port": 1, "vlan": 5000}]})");
      try {
         configLoad(f.path());
         FAIL() << "vlan 5000 accepted";
      } catch (const ConfigError& e) {
         EXPECT_EQ(e.path(), "/nextHops/0/vlan");
         EXPECT_THAT(e.what(), StartsWith(f.path().string() + ": /nextHops/0/vlan: "));
      }
   }
   {
      TempFile f(withGroups(groupA()));
      EXPECT_EQ(configLoad(f.path()).groups.size(), 1u);
   }
}

TEST(ConfigTest, Ipv4Text) {
   EXPECT_EQ(ipv4FromString("239.1.2.3"), 0xEF010203u);
   EXPECT_EQ(ipv4FromString("0.0.0.0"), 0u);
   EXPECT_EQ(ipv4FromString("255.255.255.255"), 0xFFFFFFFFu);
   EXPECT_EQ(ipv4ToString(0xE0000001u), "224.0.0.1");
   for (const char* bad : {"", "1.2.3", "1.2.3.4.5", "256.1.1.1", "1.2.3.", ".1.2.3", "1..2.3",
                           "1.2.3.4 ", "a.b.c.d", "1.2.3.0004", "-1.2.3.4"}) {
      EXPECT_THROW(ipv4FromString(bad), std::invalid_argument) << '"' << bad << '"';
   }
   EXPECT_EQ(speedName(EthSpeed::speed400Gbps), "400G");
}

}  // namespace
}  // namespace McastAgent
