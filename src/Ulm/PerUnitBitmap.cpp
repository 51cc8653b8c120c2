#include "Ulm/PerUnitBitmap.h"

#include <algorithm>
#include <bit>
#include <iterator>
#include <stdexcept>

namespace Ulm {
namespace {

constexpr std::uint32_t lowMask(std::uint32_t bits) noexcept {
   return bits >= 32 ? ~0u : (1u << bits) - 1;
}

int hexDigit(char c) noexcept {
   if (c >= '0' && c <= '9') return c - '0';
   if (c >= 'a' && c <= 'f') return c - 'a' + 10;
   if (c >= 'A' && c <= 'F') return c - 'A' + 10;
   return -1;
}

}  // namespace

bool PerUnitBitmap::bit(std::size_t index) const {
   if (index >= bitCount()) {
      throw std::out_of_range(
          fmt::format("{}: bit {} out of range (bits: {})", kTypeName, index, bitCount()));
   }
   return (words_[index / kWordBits] >> (index % kWordBits)) & 1u;
}

void PerUnitBitmap::bitIs(std::size_t index, bool value) {
   if (index >= bitCount()) {
      throw std::out_of_range(
          fmt::format("{}: bit {} out of range (bits: {})", kTypeName, index, bitCount()));
   }
   const std::uint32_t m = 1u << (index % kWordBits);
   std::uint32_t& w = words_[index / kWordBits];
   w = value ? (w | m) : (w & ~m);
}

bool PerUnitBitmap::any() const noexcept {
   for (std::uint32_t w : words_) {
      if (w) return true;
   }
   return false;
}

std::size_t PerUnitBitmap::popcount() const noexcept {
   std::size_t n = 0;
   for (std::uint32_t w : words_) n += static_cast<std::size_t>(std::popcount(w));
   return n;
}

void PerUnitBitmap::bitsOr(std::uint32_t offset, std::uint32_t value, std::uint32_t width) {
   if (width == 0 || width > kWordBits) {
      throw std::invalid_argument(
          fmt::format("{}::bitsOr: width {} is not in 1..32", kTypeName, width));
   }
   const std::uint32_t word = offset >> 5;
   const std::uint32_t bit = offset & 31;
   const std::uint32_t mask = lowMask(width);

   // at() on purpose: its out-of-range text (index and size) is the reported failure.
   std::uint32_t& first = words_.at(word);
   first = (first & ~(mask << bit)) | (value << bit);
   if (bit + width - 1 < kWordBits) return;

   // The field runs into the next word: its low (bit + width - 32) bits take the rest.
   std::uint32_t& next = words_.at(std::size_t(word) + 1);
   next = (next & ~lowMask(bit + width - kWordBits)) | (value >> (kWordBits - bit));
}

PerUnitBitmap& PerUnitBitmap::operator|=(const PerUnitBitmap& other) noexcept {
   const std::size_t n = std::min(words_.size(), other.words_.size());
   for (std::size_t i = 0; i < n; ++i) words_[i] |= other.words_[i];
   return *this;
}

std::string PerUnitBitmap::toString() const {
   std::string out = "0x";
   out.reserve(2 + words_.size() * 9);
   for (std::size_t i = words_.size(); i-- > 0;) {
      if (i + 1 != words_.size()) out += '_';
      fmt::format_to(std::back_inserter(out), "{:08x}", words_[i]);
   }
   return out;
}

PerUnitBitmap PerUnitBitmap::parse(std::string_view text) {
   auto bad = [text](std::string_view why) {
      return std::invalid_argument(fmt::format("{}: cannot parse '{}': {}", kTypeName, text, why));
   };
   if (!text.starts_with("0x")) throw bad("expected '0x'");
   std::string_view rest = text.substr(2);
   std::vector<std::uint32_t> words;
   while (!rest.empty()) {
      if (!words.empty()) {
         if (rest.front() != '_') throw bad("expected '_' between words");
         rest.remove_prefix(1);
      }
      if (rest.size() < 8) throw bad("expected 8 hex digits per word");
      std::uint32_t w = 0;
      for (char c : rest.substr(0, 8)) {
         int d = hexDigit(c);
         if (d < 0) throw bad(fmt::format("'{}' is not a hex digit", c));
         w = (w << 4) | std::uint32_t(d);
      }
      words.push_back(w);
      rest.remove_prefix(8);
   }
   // The text is most significant word first; word 0 is the last group.
   return PerUnitBitmap(std::vector<std::uint32_t>(words.rbegin(), words.rend()));
}

}  // namespace Ulm
