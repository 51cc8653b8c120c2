#pragma once
// Hardware formats of the simulated chip's memories that belong to the agent's neighbour
// tables rather than to the library's: the L3 multicast lookup, the replication groups and
// the egress objects. The agent keeps its own state in them, as a real agent keeps its
// state in the chip, so that a restarted agent finds it there and nowhere else.
//
// L3_IPMC, indexed by IPMC index, 2 words:
//   word 0  [31:0]  group address (IPv4, host order)
//   word 1  [31:0]  vrf
// MMU_REPL_GROUP, indexed by IPMC index, 1 word:
//   [17:0]  headBase: the first entry of the group's head block
//   [21:18] blockSize: entries of the head block, 1..15
// EGR_NEXT_HOP, indexed by next hop, 1 word:
//   [15:0]  port
//   [27:16] vlan
// encode() refuses (std::invalid_argument naming the field and the value) what does not
// fit; decode() refuses words that no encode() could have written.

#include <array>
#include <cstdint>
#include <span>

namespace ChipSim {

struct IpmcLookupFormat {
   static constexpr char kMemory[] = "L3_IPMC";
   static constexpr std::uint32_t kEntryWords = 2;
   struct HwEntry {
      std::uint32_t groupAddr = 0;
      std::uint32_t vrf = 0;
      bool operator==(const HwEntry&) const = default;
   };
   using Words = std::array<std::uint32_t, kEntryWords>;
   static Words encode(const HwEntry& entry) { return {entry.groupAddr, entry.vrf}; }
   static HwEntry decode(std::span<const std::uint32_t> words);
};

struct ReplGroupFormat {
   static constexpr char kMemory[] = "MMU_REPL_GROUP";
   static constexpr std::uint32_t kEntryWords = 1;
   static constexpr std::uint32_t kHeadBaseMax = (1u << 18) - 1;
   static constexpr std::uint32_t kBlockSizeMax = 15;
   struct HwEntry {
      std::uint32_t headBase = 0;
      std::uint32_t blockSize = 0;
      bool operator==(const HwEntry&) const = default;
   };
   using Words = std::array<std::uint32_t, kEntryWords>;
   static Words encode(const HwEntry& entry);
   static HwEntry decode(std::span<const std::uint32_t> words);
};

struct NextHopFormat {
   static constexpr char kMemory[] = "EGR_NEXT_HOP";
   static constexpr std::uint32_t kEntryWords = 1;
   static constexpr std::uint32_t kVlanMax = (1u << 12) - 1;
   struct HwEntry {
      std::uint16_t port = 0;
      std::uint16_t vlan = 0;
      bool operator==(const HwEntry&) const = default;
   };
   using Words = std::array<std::uint32_t, kEntryWords>;
   static Words encode(const HwEntry& entry);
   static HwEntry decode(std::span<const std::uint32_t> words);
};

}  // namespace ChipSim
