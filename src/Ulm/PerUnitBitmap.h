#pragma once
// A bitmap over 32-bit words, as the chip's bitmap fields are laid out: bit i lives in word
// i / 32 at position i % 32. The size is fixed at construction; no operation grows it.
//
// A default-constructed bitmap has two zero words (64 bits): the width of the chip's widest
// per-unit bitmap field, so a temporary can take any such field without sizing.
//
// Text form: "0x" then the words as 8 hex digits each, most significant word first,
// separated by '_': bits 0-3 and 5 of a default bitmap read "0x00000000_0000002f". A bitmap
// of no words reads "0x". parse() reads exactly that form back.

#include <compare>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <absl/hash/hash.h>
#include <fmt/format.h>

namespace Ulm {

class PerUnitBitmap {
 public:
   static constexpr std::string_view kTypeName = "Ulm::PerUnitBitmap";
   static constexpr std::size_t kDefaultWords = 2;
   static constexpr std::uint32_t kWordBits = 32;

   PerUnitBitmap() : words_(kDefaultWords, 0) {}
   // `bitCount` bits, rounded up to whole words, all clear.
   explicit PerUnitBitmap(std::size_t bitCount)
       : words_((bitCount + kWordBits - 1) / kWordBits, 0) {}
   // Takes the words as they are: word 0 holds bits 0-31.
   explicit PerUnitBitmap(std::vector<std::uint32_t> words) noexcept : words_(std::move(words)) {}

   // Throws std::out_of_range naming the index and the size.
   bool bit(std::size_t index) const;
   void bitIs(std::size_t index, bool value);

   const std::vector<std::uint32_t>& words() const noexcept { return words_; }
   std::size_t wordCount() const noexcept { return words_.size(); }
   std::size_t bitCount() const noexcept { return words_.size() * kWordBits; }
   bool any() const noexcept;
   std::size_t popcount() const noexcept;

   // Overwrites the `width`-bit field at bit `offset` with `value` (the name is historical:
   // the field is cleared first, not ORed into). A field may span two words. `value` is not
   // masked to `width`: its higher bits land beyond the field, in the same words. A word past
   // the end throws std::out_of_range with the vector's own text (index and size), possibly
   // after the first word of a spanning field was written; the bitmap never grows. A width
   // of 0 or above 32 throws std::invalid_argument.
   void bitsOr(std::uint32_t offset, std::uint32_t value, std::uint32_t width);

   // Word by word over the common length; the left operand keeps its size.
   PerUnitBitmap& operator|=(const PerUnitBitmap& other) noexcept;

   // Equal when the words and the size are equal. Ordered lexicographically over the words
   // (word 0 first), then by size: a bitmap that is a prefix of another is less.
   friend bool operator==(const PerUnitBitmap&, const PerUnitBitmap&) = default;
   friend std::strong_ordering operator<=>(const PerUnitBitmap& a,
                                           const PerUnitBitmap& b) noexcept {
      return a.words_ <=> b.words_;
   }

   template <typename H>
   friend H AbslHashValue(H h, const PerUnitBitmap& b) {
      return H::combine(std::move(h), b.words_);
   }
   std::size_t hash(std::uint32_t seed) const { return absl::HashOf(seed, words_); }

   std::string toString() const;
   // Reads the text form; throws std::invalid_argument naming the text at fault.
   static PerUnitBitmap parse(std::string_view text);

 private:
   std::vector<std::uint32_t> words_;
};

}  // namespace Ulm

template <>
struct fmt::formatter<Ulm::PerUnitBitmap> : fmt::formatter<std::string_view> {
   auto format(const Ulm::PerUnitBitmap& b, format_context& ctx) const {
      return fmt::formatter<std::string_view>::format(b.toString(), ctx);
   }
};
