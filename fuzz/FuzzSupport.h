#pragma once
// What the harnesses share: a failed property aborts with its text, so that libFuzzer
// records the input as a crash, and a small reader that takes the input front to back (so
// that hand-written seeds read in the order they are laid out).

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include <fmt/format.h>

namespace Fuzz {

[[noreturn]] inline void fail(std::string_view what) {
   std::fprintf(stderr, "fuzz property failed: %.*s\n", int(what.size()), what.data());
   std::abort();
}

#define FUZZ_CHECK(cond, ...)                                                                     \
   do {                                                                                           \
      if (!(cond)) [[unlikely]]                                                                   \
         ::Fuzz::fail(                                                                            \
             fmt::format("{} ({}:{}): {}", #cond, __FILE__, __LINE__, fmt::format(__VA_ARGS__))); \
   } while (0)

// Bytes front to back; past the end every read gives zero.
class Bytes {
 public:
   Bytes(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

   bool empty() const noexcept { return pos_ >= size_; }
   std::uint8_t byte() noexcept { return pos_ < size_ ? data_[pos_++] : 0; }
   // Little-endian.
   std::uint32_t word() noexcept {
      std::uint32_t w = 0;
      for (int i = 0; i < 4; ++i) w |= std::uint32_t(byte()) << (8 * i);
      return w;
   }

 private:
   const std::uint8_t* data_;
   std::size_t size_;
   std::size_t pos_ = 0;
};

}  // namespace Fuzz
