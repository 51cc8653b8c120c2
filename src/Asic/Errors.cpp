#include "Asic/Errors.h"

#include <fmt/format.h>

namespace Asic {

void raise_callback_exception() {
   throw CallbackException(
       "write-response callback: both the entry's WriteResponseFn and the table-level "
       "callback are set");
}

namespace Detail {

void raise_cast_integral(std::string_view fromType, std::uint64_t value, std::string_view toType,
                         std::uint64_t max) {
   throw std::range_error(
       fmt::format("Casting values: cast from {}{{ {} }} to {} (max = {}) failed.", fromType, value,
                   toType, max));
}

}  // namespace Detail
}  // namespace Asic
