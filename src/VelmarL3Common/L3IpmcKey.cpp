#include "VelmarL3Common/L3IpmcKey.h"

#include <bit>
#include <charconv>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>

#include "Asic/TypeRegistry.h"

namespace VelmarL3Common {
namespace {

[[noreturn]] void badKey(std::string_view text, std::string_view what) {
   throw std::invalid_argument(fmt::format("bad L3IpmcKey '{}': {}", text, what));
}

// Consumes `literal` at the front of `rest`.
bool consume(std::string_view& rest, std::string_view literal) {
   if (!rest.starts_with(literal)) return false;
   rest.remove_prefix(literal.size());
   return true;
}

void skipSpaces(std::string_view& rest) {
   while (!rest.empty() && rest.front() == ' ') rest.remove_prefix(1);
}

// A decimal number no larger than `max` at the front of `rest`.
std::optional<std::uint32_t> number(std::string_view& rest, std::uint32_t max) {
   std::uint32_t value = 0;
   auto [end, ec] = std::from_chars(rest.data(), rest.data() + rest.size(), value);
   if (ec != std::errc() || value > max) return std::nullopt;
   rest.remove_prefix(static_cast<std::size_t>(end - rest.data()));
   return value;
}

std::uint32_t parseGroup(std::string_view text, std::string_view& rest) {
   std::string_view start = rest;
   std::uint32_t addr = 0;
   for (int octet = 0; octet < 4; ++octet) {
      if (octet > 0 && !consume(rest, ".")) {
         badKey(text, fmt::format("group '{}' is not a dotted IPv4 address",
                                  start.substr(0, start.find_first_of(",)"))));
      }
      std::optional<std::uint32_t> value = number(rest, 255);
      if (!value) {
         badKey(text, fmt::format("group '{}' is not a dotted IPv4 address",
                                  start.substr(0, start.find_first_of(",)"))));
      }
      addr = (addr << 8) | *value;
   }
   return addr;
}

}  // namespace

L3IpmcKey parseL3IpmcKey(std::string_view text) {
   std::string_view rest = text;
   skipSpaces(rest);
   if (!consume(rest, "L3IpmcKey(")) badKey(text, "expected 'L3IpmcKey(' at the start");
   skipSpaces(rest);
   if (!consume(rest, "group=")) badKey(text, "expected 'group='");
   L3IpmcKey key;
   key.groupAddr = parseGroup(text, rest);
   skipSpaces(rest);
   if (!consume(rest, ",")) badKey(text, "expected ',' after the group");
   skipSpaces(rest);
   if (!consume(rest, "vrf=")) badKey(text, "expected 'vrf='");
   std::optional<std::uint32_t> vrf = number(rest, std::numeric_limits<std::uint32_t>::max());
   if (!vrf) {
      badKey(text, fmt::format("vrf '{}' is not a 32-bit unsigned number",
                               rest.substr(0, rest.find(')'))));
   }
   key.vrfId = *vrf;
   skipSpaces(rest);
   if (!consume(rest, ")")) badKey(text, "expected ')' after the vrf");
   skipSpaces(rest);
   if (!rest.empty()) badKey(text, fmt::format("unexpected '{}' after the key", rest));
   return key;
}

void registerL3IpmcKeyType() { Asic::TypeRegistry::registerType<L3IpmcKey>(); }

namespace {
[[maybe_unused]] const bool kRegistered = (registerL3IpmcKeyType(), true);
}  // namespace

}  // namespace VelmarL3Common
