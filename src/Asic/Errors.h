#pragma once
// Named errors that clients of the tables can catch and recognise.

#include <concepts>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "Asic/TypeName.h"

namespace Asic {

// Both an entry's write-response function and the table's callback were set for one key.
class CallbackException : public std::logic_error {
 public:
   using std::logic_error::logic_error;
};

[[noreturn]] void raise_callback_exception();

namespace Detail {

// "Casting values: cast from <from>{ <value> } to <to> (max = <max>) failed."
[[noreturn]] void raise_cast_integral(std::string_view fromType, std::uint64_t value,
                                      std::string_view toType, std::uint64_t max);

}  // namespace Detail

// Checked narrowing of an unsigned value into a narrower field.
template <std::unsigned_integral To, std::unsigned_integral From>
To castIntegral(From value, To max = std::numeric_limits<To>::max()) {
   if (value > max) {
      Detail::raise_cast_integral(compilerTypeName<From>(), value, compilerTypeName<To>(), max);
   }
   return static_cast<To>(value);
}

}  // namespace Asic
