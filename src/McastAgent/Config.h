#pragma once
// The multicast configuration the reference agent programs: next hops (egress objects),
// groups with their replication, L2 sub-port lists and port aggregation entries. Read from
// JSON and validated whole before anything touches the chip, so that a bad file costs
// nothing; every refusal names the file, the JSON path (RFC 6901 pointer) and the reason.
//
//   {
//     "nextHops": [ {"id": 10, "port": 1, "vlan": 100}, ... ],
//     "groups": [
//       {"name": "video", "group": "239.1.1.1", "vrf": 0, "strengthProfile": 3,
//        "replication": [
//          {"speed": "100G", "egress": [10, {"nextHop": 11, "ports": [2, 3]}],
//           "sparseSize": 4, "denseSize": 0, "generation": 1}, ... ]},
//       {"name": "video-backup", "group": "239.1.1.2", "remapTo": "video"} ],
//     "l2SubPorts": [ {"mode": 1, "subPorts": [0, 5]} ],
//     "portAggregation": [ {"index": 3, "members": [1, 2, 3]} ]
//   }
//
// A group either has its own replication (one list per port speed, which become the
// entries of its head block) or is remapped to a group that has one. An egress given as a
// bare number is that next hop on its own port.

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "Interface/EthSpeed.h"

namespace McastAgent {

// What the chip can hold; validation refuses anything beyond.
struct ChipLimits {
   static constexpr std::uint32_t kIpmcIndices = 1u << 16;  // remapped IPMC index: 16 bits
   static constexpr std::uint32_t kNextHops = 1u << 16;     // egress objects
   static constexpr std::uint32_t kListEntries = 1u << 18;  // head pointer: 18 bits
   static constexpr std::uint32_t kHeadEntries = 1u << 17;
   static constexpr std::uint32_t kPortAggIndices = 512;
   static constexpr std::uint32_t kPorts = 160;  // port aggregation members
   static constexpr std::uint32_t kSubPorts = 64;
   static constexpr std::uint32_t kListsPerGroup = 15;      // head block size: 4 bits
   static constexpr std::uint32_t kNextHopsPerList = 4095;  // numNextHops: 12 bits
   static constexpr std::uint32_t kMaxSparseSize = 8;
   static constexpr std::uint32_t kMaxDenseSize = 64;
   static constexpr std::uint32_t kMaxStrengthProfile = 31;
   static constexpr std::uint32_t kMaxVlan = 4095;
};

struct NextHop {
   std::uint32_t id = 0;  // its index in the egress object table
   std::uint16_t port = 0;
   std::uint16_t vlan = 0;
   friend bool operator==(const NextHop&, const NextHop&) = default;
};

struct Egress {
   std::uint32_t nextHop = 0;
   std::vector<std::uint16_t> ports;  // ascending, unique; the next hop's port when not given
   friend bool operator==(const Egress&, const Egress&) = default;
};

struct ReplicationList {
   Interface::EthSpeed speed = Interface::EthSpeed::speedUnknown;
   std::vector<Egress> egress;  // ascending by next hop
   std::uint8_t sparseSize = 4;
   std::uint8_t denseSize = 0;
   std::uint32_t generation = 1;
   friend bool operator==(const ReplicationList&, const ReplicationList&) = default;
};

struct Group {
   std::string name;
   std::uint32_t groupAddr = 0;  // IPv4, host order
   std::uint32_t vrf = 0;
   std::uint8_t strengthProfile = 0;
   std::vector<ReplicationList> replication;  // empty when remapped
   std::string remapTo;                       // the group whose replication this one uses
   friend bool operator==(const Group&, const Group&) = default;
};

struct L2SubPortList {
   std::uint8_t mode = 0;
   std::vector<std::uint32_t> subPorts;  // ascending, unique
   friend bool operator==(const L2SubPortList&, const L2SubPortList&) = default;
};

struct PortAggregation {
   std::uint32_t index = 0;
   std::vector<std::uint32_t> members;  // ascending, unique
   friend bool operator==(const PortAggregation&, const PortAggregation&) = default;
};

struct Config {
   std::vector<NextHop> nextHops;
   std::vector<Group> groups;
   std::vector<L2SubPortList> l2SubPorts;
   std::vector<PortAggregation> portAggregation;

   const NextHop* nextHop(std::uint32_t id) const;  // nextHops must be sorted by id
   const Group* group(const std::string& name) const;
   // The group whose replication `g` uses: itself, or the one it is remapped to.
   const Group& replicationOf(const Group& g) const;
   nlohmann::json toJson() const;

 private:
   // Group by name, built on first use for the groups as they are then.
   mutable std::unordered_map<std::string, std::size_t> groupByName_;
};

// A configuration the agent refuses: what() reads "<file>: <json path>: <reason>".
class ConfigError : public std::runtime_error {
 public:
   ConfigError(const std::string& file, const std::string& path, const std::string& reason);
   const std::string& path() const noexcept { return path_; }

 private:
   std::string path_;
};

// Parses and validates; throws ConfigError for a file it cannot read, malformed JSON, an
// unknown field, a value out of range, a reference to something not defined, a duplicate,
// or a configuration the chip cannot hold.
Config configFromJson(const nlohmann::json& json, const std::string& file);
Config configLoad(const std::filesystem::path& file);

std::string ipv4ToString(std::uint32_t addr);
// Throws std::invalid_argument for anything that is not a dotted quad.
std::uint32_t ipv4FromString(const std::string& text);
std::string speedName(Interface::EthSpeed speed);  // "100G"

}  // namespace McastAgent
