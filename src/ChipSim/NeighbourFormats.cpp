#include "ChipSim/NeighbourFormats.h"

#include <stdexcept>

#include <fmt/format.h>

namespace ChipSim {

namespace {

void checkWidth(std::span<const std::uint32_t> words, std::uint32_t expected, const char* memory) {
   if (words.size() != expected) {
      throw std::invalid_argument(
          fmt::format("{}: an entry is {} words, not {}", memory, expected, words.size()));
   }
}

std::uint32_t field(std::uint32_t value, std::uint32_t max, const char* memory, const char* name) {
   if (value > max) {
      throw std::invalid_argument(
          fmt::format("{}: {} {} does not fit (at most {})", memory, name, value, max));
   }
   return value;
}

}  // namespace

IpmcLookupFormat::HwEntry IpmcLookupFormat::decode(std::span<const std::uint32_t> words) {
   checkWidth(words, kEntryWords, kMemory);
   return {words[0], words[1]};
}

ReplGroupFormat::Words ReplGroupFormat::encode(const HwEntry& entry) {
   if (entry.blockSize == 0) {
      throw std::invalid_argument(fmt::format("{}: blockSize 0 is not a head block", kMemory));
   }
   return {field(entry.headBase, kHeadBaseMax, kMemory, "headBase") |
           field(entry.blockSize, kBlockSizeMax, kMemory, "blockSize") << 18};
}

ReplGroupFormat::HwEntry ReplGroupFormat::decode(std::span<const std::uint32_t> words) {
   checkWidth(words, kEntryWords, kMemory);
   HwEntry entry{words[0] & kHeadBaseMax, (words[0] >> 18) & kBlockSizeMax};
   if ((words[0] >> 22) != 0 || entry.blockSize == 0) {
      throw std::invalid_argument(fmt::format("{}: 0x{:08x} is not an entry", kMemory, words[0]));
   }
   return entry;
}

NextHopFormat::Words NextHopFormat::encode(const HwEntry& entry) {
   return {entry.port | field(entry.vlan, kVlanMax, kMemory, "vlan") << 16};
}

NextHopFormat::HwEntry NextHopFormat::decode(std::span<const std::uint32_t> words) {
   checkWidth(words, kEntryWords, kMemory);
   if ((words[0] >> 28) != 0) {
      throw std::invalid_argument(fmt::format("{}: 0x{:08x} is not an entry", kMemory, words[0]));
   }
   return {static_cast<std::uint16_t>(words[0] & 0xFFFFu),
           static_cast<std::uint16_t>((words[0] >> 16) & kVlanMax)};
}

}  // namespace ChipSim
