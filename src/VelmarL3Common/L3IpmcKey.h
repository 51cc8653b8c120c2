#pragma once
// The key of an L3 multicast route as the IPMC tables see it: an IPv4 group address in a
// VRF. Two 32-bit words, so that it hashes and compares as one 64-bit value and sits
// inline in every per-key map and in the allocators' key records.

#include <bit>
#include <compare>
#include <cstdint>
#include <string_view>

#include <fmt/format.h>

namespace VelmarL3Common {

struct L3IpmcKey {
   static constexpr std::string_view kTypeName = "VelmarL3Common::L3IpmcKey";

   std::uint32_t groupAddr = 0;  // IPv4 group address, host byte order (239.1.1.1 = 0xEF010101)
   std::uint32_t vrfId = 0;

   // Murmur3 over the two words, seeded. Inline: every look-up of every collection keyed
   // by a group hashes it.
   constexpr std::uint32_t hash(std::uint32_t seed) const noexcept {
      std::uint32_t h = murmurMix(seed, groupAddr);
      h = murmurMix(h, vrfId);
      h ^= static_cast<std::uint32_t>(sizeof(L3IpmcKey));
      h ^= h >> 16;
      h *= 0x85EBCA6Bu;
      h ^= h >> 13;
      h *= 0xC2B2AE35u;
      h ^= h >> 16;
      return h;
   }

   friend bool operator==(const L3IpmcKey&, const L3IpmcKey&) = default;
   friend auto operator<=>(const L3IpmcKey&, const L3IpmcKey&) = default;

 private:
   static constexpr std::uint32_t murmurMix(std::uint32_t h, std::uint32_t k) noexcept {
      k *= 0xCC9E2D51u;
      k = std::rotl(k, 15);
      k *= 0x1B873593u;
      h ^= k;
      h = std::rotl(h, 13);
      return h * 5 + 0xE6546B64u;
   }
};
static_assert(sizeof(L3IpmcKey) == 8, "L3IpmcKey is two 32-bit words");

// Reads the text form written by the formatter, "L3IpmcKey(group=239.1.1.1, vrf=0)".
// Throws std::invalid_argument naming the part that is wrong.
L3IpmcKey parseL3IpmcKey(std::string_view text);

// Registers the key's type descriptor with Asic::TypeRegistry; safe to call any number of
// times. Also done when the library is loaded.
void registerL3IpmcKeyType();

}  // namespace VelmarL3Common

template <>
struct fmt::formatter<VelmarL3Common::L3IpmcKey> {
   constexpr auto parse(fmt::format_parse_context& ctx) { return ctx.begin(); }
   template <typename FormatContext>
   auto format(const VelmarL3Common::L3IpmcKey& key, FormatContext& ctx) const {
      std::uint32_t g = key.groupAddr;
      return fmt::format_to(ctx.out(), "L3IpmcKey(group={}.{}.{}.{}, vrf={})", g >> 24,
                            (g >> 16) & 0xFFu, (g >> 8) & 0xFFu, g & 0xFFu, key.vrfId);
   }
};
