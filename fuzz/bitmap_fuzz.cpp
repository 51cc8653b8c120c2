// Bytes as the text form of a per-unit bitmap: refused with std::invalid_argument, or read
// into a bitmap whose text form is the input itself (hex digits in lower case) and reads
// back to an equal bitmap. The parsed bitmap's queries agree with its bits.

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "FuzzSupport.h"
#include "Ulm/PerUnitBitmap.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
   const std::string_view text(reinterpret_cast<const char*>(data), size);
   Ulm::PerUnitBitmap bitmap;
   try {
      bitmap = Ulm::PerUnitBitmap::parse(text);
   } catch (const std::invalid_argument&) {
      return 0;
   }
   std::string lower(text);
   std::transform(lower.begin(), lower.end(), lower.begin(),
                  [](unsigned char c) { return char(std::tolower(c)); });
   const std::string form = bitmap.toString();
   FUZZ_CHECK(form == lower, "'{}' reads as a bitmap written '{}'", text, form);
   const auto again = Ulm::PerUnitBitmap::parse(form);
   FUZZ_CHECK(again == bitmap && (again <=> bitmap) == 0 && again.hash(1) == bitmap.hash(1),
              "'{}' reads back as another bitmap", form);
   FUZZ_CHECK(bitmap.wordCount() == (text.size() - 1) / 9, "'{}' holds {} words", text,
              bitmap.wordCount());

   std::size_t set = 0;
   for (std::size_t i = 0; i < bitmap.bitCount(); ++i) set += bitmap.bit(i) ? 1 : 0;
   FUZZ_CHECK(set == bitmap.popcount() && bitmap.any() == (set != 0),
              "'{}': {} bits set, popcount {}", form, set, bitmap.popcount());
   try {
      (void)bitmap.bit(bitmap.bitCount());
      Fuzz::fail(fmt::format("'{}': bit {} read past the end", form, bitmap.bitCount()));
   } catch (const std::out_of_range&) {
   }
   // A bitmap ORed with itself, or with an empty one, is unchanged.
   Ulm::PerUnitBitmap ored = bitmap;
   ored |= bitmap;
   ored |= Ulm::PerUnitBitmap(std::size_t{0});
   FUZZ_CHECK(ored == bitmap, "'{}' changed by |= with itself", form);
   return 0;
}
