#pragma once
// The packet walk: what the chip does with a packet of each group, read from the chip's
// memories alone (no software state): group -> L3 lookup -> IPMC index -> remap entry ->
// replication group -> head block -> replication list chains -> egress objects and ports.
// It is the oracle of every end-to-end check: `verify` compares it with a configuration.

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "Interface/EthSpeed.h"
#include "McastAgent/ChipMemories.h"
#include "McastAgent/Config.h"

namespace McastAgent {

struct WalkedEgress {
   std::uint32_t nextHop = 0;
   std::uint16_t port = 0;
   friend auto operator<=>(const WalkedEgress&, const WalkedEgress&) = default;
};

struct WalkedList {
   Interface::EthSpeed speed = Interface::EthSpeed::speedUnknown;
   std::uint32_t numNextHops = 0;
   Asic::Index headPtr = 0;
   std::vector<WalkedEgress> egress;  // ascending
};

struct WalkedGroup {
   std::uint32_t groupAddr = 0;
   std::uint32_t vrf = 0;
   Asic::Index ipmcIndex = 0;
   std::optional<Asic::Index> remappedIpmcIndex;  // none: no remap entry
   std::uint8_t strengthProfile = 0;
   std::optional<Asic::Index> headBase;  // none: no replication group at the remapped index
   std::vector<WalkedList> lists;        // in head block order
   std::vector<std::string> faults;      // where the walk could not go on, and why
};

struct Walk {
   std::vector<WalkedGroup> groups;  // by IPMC index
   std::vector<L2SubPortList> l2SubPorts;
   std::vector<PortAggregation> portAggregation;
   std::vector<NextHop> nextHops;  // the egress objects the chip holds
   // Entries no walk reaches (leaked: stale, or held by nobody) and entries that two owners
   // claim (a list entry on two chains, a head entry in two groups' blocks).
   std::vector<std::string> leaks;
};

Walk walkChip(ChipMemories& chip);

// Where a group's packets go: per port speed, the (next hop, port) pairs. Empty when the
// group does not replicate (absent, or its walk is broken).
using ReplicationSet = std::map<Interface::EthSpeed, std::vector<WalkedEgress>>;
ReplicationSet replicationSet(const WalkedGroup& group);
ReplicationSet replicationSet(const Config& config, const Group& group);
std::string toText(const ReplicationSet& set);
nlohmann::json toJson(const Walk& walk, const std::vector<const WalkedGroup*>& groups);
std::string toText(const WalkedGroup& group);

// One line per difference between the walk and what `config` says; empty when equal.
std::vector<std::string> differences(const Walk& walk, const Config& config);

// The chip's memory of one table decoded, one entry per valid index. Table names: remap,
// head, list, l2subport, portagg, ipmc, group, nexthop. Throws std::invalid_argument for
// another name.
nlohmann::json showTable(ChipMemories& chip, const std::string& table);
const std::vector<std::string>& showTableNames();
// One entry of such a table decoded, as `show` prints it (without its index). Throws
// std::invalid_argument for words no entry could have or an unknown table.
nlohmann::json decodeEntry(const std::string& table, std::span<const std::uint32_t> words);
// The memory behind such a table name; throws std::invalid_argument for another name.
ChipSim::SimHwTable& memoryOf(ChipMemories& chip, const std::string& table);

}  // namespace McastAgent
