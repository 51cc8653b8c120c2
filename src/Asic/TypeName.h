#pragma once
// Spelling of a type in error texts that name the types involved ("short unsigned int").
// The built-in integer types are spelled one way whatever the compiler, so that a text reads
// the same from every build; other types are spelled as the compiler writes them.

#include <string_view>
#include <type_traits>

namespace Asic {

namespace Detail {
template <typename T>
inline constexpr std::string_view kIntegerName{};
template <>
inline constexpr std::string_view kIntegerName<unsigned char> = "unsigned char";
template <>
inline constexpr std::string_view kIntegerName<unsigned short> = "short unsigned int";
template <>
inline constexpr std::string_view kIntegerName<unsigned int> = "unsigned int";
template <>
inline constexpr std::string_view kIntegerName<unsigned long> = "long unsigned int";
template <>
inline constexpr std::string_view kIntegerName<unsigned long long> = "long long unsigned int";
template <>
inline constexpr std::string_view kIntegerName<signed char> = "signed char";
template <>
inline constexpr std::string_view kIntegerName<short> = "short int";
template <>
inline constexpr std::string_view kIntegerName<int> = "int";
template <>
inline constexpr std::string_view kIntegerName<long> = "long int";
template <>
inline constexpr std::string_view kIntegerName<long long> = "long long int";
}  // namespace Detail

template <typename T>
constexpr std::string_view compilerTypeName() noexcept {
   if constexpr (!Detail::kIntegerName<std::remove_cv_t<T>>.empty()) {
      return Detail::kIntegerName<std::remove_cv_t<T>>;
   } else {
      std::string_view pretty = __PRETTY_FUNCTION__;
      constexpr std::string_view marker = "T = ";
      auto begin = pretty.find(marker) + marker.size();
      auto end = pretty.find_first_of(";]", begin);
      return pretty.substr(begin, end - begin);
   }
}

}  // namespace Asic
