#pragma once
// The agent's Ethernet speed of a port, one byte. The tables store and compare it; what a
// speed means for replication is the chip's business.

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

#include <fmt/format.h>

namespace Interface {

enum class EthSpeed : std::uint8_t {
   speedUnknown = 0,
   speed1Gbps,
   speed10Gbps,
   speed25Gbps,
   speed40Gbps,
   speed50Gbps,
   speed100Gbps,
   speed200Gbps,
   speed400Gbps,
   speed800Gbps,
};

inline constexpr std::array<std::string_view, 10> kEthSpeedNames = {
    "speedUnknown", "speed1Gbps",   "speed10Gbps",  "speed25Gbps",  "speed40Gbps",
    "speed50Gbps",  "speed100Gbps", "speed200Gbps", "speed400Gbps", "speed800Gbps"};
inline constexpr std::uint8_t kEthSpeedMax = kEthSpeedNames.size() - 1;

// The name of a speed, or "speed<n>?" for a byte no speed has.
inline std::string_view toString(EthSpeed speed) noexcept {
   const auto n = static_cast<std::uint8_t>(speed);
   return n <= kEthSpeedMax ? kEthSpeedNames[n] : std::string_view("speedInvalid");
}
// The speed of that name, if any.
inline std::optional<EthSpeed> ethSpeedOf(std::string_view name) noexcept {
   for (std::uint8_t n = 0; n <= kEthSpeedMax; ++n) {
      if (kEthSpeedNames[n] == name) return static_cast<EthSpeed>(n);
   }
   return std::nullopt;
}

}  // namespace Interface

template <>
struct fmt::formatter<Interface::EthSpeed> : fmt::formatter<std::string_view> {
   auto format(Interface::EthSpeed s, format_context& ctx) const {
      return fmt::formatter<std::string_view>::format(Interface::toString(s), ctx);
   }
};
