#pragma once
// Reading a value back from its text form: a cursor over the text, the error that names the
// attribute at fault, and the few steps every parsing constructor takes.

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Asic {

// A cursor over text being parsed; parsing constructors consume what they read.
struct CharRange {
   std::string_view text;
};

// The type system's error for a value that does not fit its attribute.
class AttributeRangeError : public std::range_error {
 public:
   AttributeRangeError(std::string attribute, const std::string& what)
       : std::range_error(what), attribute_(std::move(attribute)) {}
   const std::string& attribute() const noexcept { return attribute_; }

 private:
   std::string attribute_;
};

namespace TextParse {

// Consumes `literal` after any spaces; otherwise throws AttributeRangeError naming the type,
// the attribute about to be read and the text found.
void expect(CharRange& range, std::string_view literal, std::string_view attribute,
            std::string_view typeName);
// The value up to the next ',' or '}', spaces trimmed.
std::string_view token(CharRange& range);
// A decimal value of at most `max`; otherwise throws AttributeRangeError naming it.
std::uint64_t unsignedValue(std::string_view tok, std::string_view attribute, std::uint64_t max,
                            std::string_view typeName);

}  // namespace TextParse
}  // namespace Asic
