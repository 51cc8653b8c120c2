#include "Asic/CharRange.h"

#include <charconv>

#include <fmt/format.h>

namespace Asic::TextParse {
namespace {

void skipSpaces(CharRange& range) {
   while (!range.text.empty() && range.text.front() == ' ') range.text.remove_prefix(1);
}

}  // namespace

void expect(CharRange& range, std::string_view literal, std::string_view attribute,
            std::string_view typeName) {
   skipSpaces(range);
   if (!range.text.starts_with(literal)) {
      throw AttributeRangeError(std::string(attribute),
                                fmt::format("{}: expected '{}' before {} in '{}'", typeName,
                                            literal, attribute, range.text));
   }
   range.text.remove_prefix(literal.size());
}

std::string_view token(CharRange& range) {
   skipSpaces(range);
   auto tok = range.text.substr(0, range.text.find_first_of(",}"));
   range.text.remove_prefix(tok.size());
   while (!tok.empty() && tok.back() == ' ') tok.remove_suffix(1);
   return tok;
}

std::uint64_t unsignedValue(std::string_view tok, std::string_view attribute, std::uint64_t max,
                            std::string_view typeName) {
   std::uint64_t value = 0;
   auto [ptr, ec] = std::from_chars(tok.data(), tok.data() + tok.size(), value);
   if (ec != std::errc() || ptr != tok.data() + tok.size() || tok.empty() || value > max) {
      throw AttributeRangeError(
          std::string(attribute),
          fmt::format("{}: {} '{}' is out of range (0..{})", typeName, attribute, tok, max));
   }
   return value;
}

}  // namespace Asic::TextParse
