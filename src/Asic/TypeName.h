#pragma once
// Compile-time spelling of a type as the compiler writes it ("short unsigned int"),
// used in error texts that name the types involved.

#include <string_view>

namespace Asic {

template <typename T>
constexpr std::string_view compilerTypeName() noexcept {
   std::string_view pretty = __PRETTY_FUNCTION__;
   constexpr std::string_view marker = "T = ";
   auto begin = pretty.find(marker) + marker.size();
   auto end = pretty.find_first_of(";]", begin);
   return pretty.substr(begin, end - begin);
}

}  // namespace Asic
