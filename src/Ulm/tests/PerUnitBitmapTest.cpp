#include "Ulm/PerUnitBitmap.h"

#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <absl/hash/hash_testing.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Asic/TypeRegistry.h"

namespace Ulm {
namespace {

using ::testing::HasSubstr;
using Words = std::vector<std::uint32_t>;

}  // namespace

// Readable failure output.
void PrintTo(const PerUnitBitmap& b, std::ostream* os) { *os << b.toString(); }

namespace {

static_assert(Asic::RegisteredType<PerUnitBitmap>, "the type system must accept the bitmap");

// Verify the three ways to size a bitmap: the default two words, a bit count rounded up to
// words, and words taken as given.
TEST(PerUnitBitmapTest, Construction) {
   EXPECT_EQ(PerUnitBitmap().words(), Words({0, 0}));
   EXPECT_EQ(PerUnitBitmap().bitCount(), 64u);
   EXPECT_EQ(PerUnitBitmap(std::size_t(0)).wordCount(), 0u);
   EXPECT_EQ(PerUnitBitmap(std::size_t(32)).wordCount(), 1u);
   EXPECT_EQ(PerUnitBitmap(std::size_t(33)).wordCount(), 2u);
   EXPECT_EQ(PerUnitBitmap(Words{1, 2, 3}).words(), Words({1, 2, 3}));
}

// Verify single-bit access across word boundaries and its range check.
TEST(PerUnitBitmapTest, BitAccess) {
   PerUnitBitmap b;
   b.bitIs(0, true);
   b.bitIs(31, true);
   b.bitIs(32, true);
   b.bitIs(63, true);
   EXPECT_EQ(b.words(), Words({0x80000001u, 0x80000001u}));
   EXPECT_TRUE(b.bit(32));
   EXPECT_FALSE(b.bit(33));
   EXPECT_EQ(b.popcount(), 4u);
   EXPECT_TRUE(b.any());
   b.bitIs(31, false);
   EXPECT_EQ(b.words(), Words({0x00000001u, 0x80000001u}));
   EXPECT_FALSE(PerUnitBitmap().any());

   try {
      (void)b.bit(64);
      FAIL() << "bit 64 of a 64-bit bitmap was accepted";
   } catch (const std::out_of_range& e) {
      EXPECT_THAT(e.what(), HasSubstr("bit 64 out of range (bits: 64)"));
   }
   EXPECT_THROW(b.bitIs(64, true), std::out_of_range);
   EXPECT_EQ(b.words(), Words({0x00000001u, 0x80000001u}));
}

// Verify that a field inside one word is overwritten, not ORed into: its old bits go, the
// bits around it stay.
TEST(PerUnitBitmapTest, BitsOrOverwritesFieldInOneWord) {
   PerUnitBitmap b(Words{0xFFFFFFFFu, 0x12345678u});
   b.bitsOr(8, 0x5A, 8);
   EXPECT_EQ(b.words(), Words({0xFFFF5AFFu, 0x12345678u}));
   b.bitsOr(40, 0x00, 8);
   EXPECT_EQ(b.words(), Words({0xFFFF5AFFu, 0x12340078u}));
   // A field ending exactly at bit 31 still fits one word.
   b.bitsOr(24, 0x01, 8);
   EXPECT_EQ(b.words(), Words({0x01FF5AFFu, 0x12340078u}));
}

// Verify that a width of 32 writes the whole word, at bit 0 and when spanning.
TEST(PerUnitBitmapTest, BitsOrWidth32) {
   PerUnitBitmap b(Words{0x11111111u, 0x22222222u});
   b.bitsOr(32, 0xDEADBEEFu, 32);
   EXPECT_EQ(b.words(), Words({0x11111111u, 0xDEADBEEFu}));
   b.bitsOr(16, 0xAAAABBBBu, 32);
   EXPECT_EQ(b.words(), Words({0xBBBB1111u, 0xDEADAAAAu}));
}

// Verify a field that spans two words: the high bits of the first and the low bits of the
// next are replaced, nothing else.
TEST(PerUnitBitmapTest, BitsOrSpansTwoWords) {
   PerUnitBitmap b(Words{0xFFFFFFFFu, 0xFFFFFFFFu});
   b.bitsOr(28, 0x00, 8);
   EXPECT_EQ(b.words(), Words({0x0FFFFFFFu, 0xFFFFFFF0u}));
   b.bitsOr(28, 0xA5, 8);
   EXPECT_EQ(b.words(), Words({0x5FFFFFFFu, 0xFFFFFFFAu}));
}

// Verify that a field past the end fails with the vector's own out-of-range text and that
// a spanning field whose second word is missing keeps its first word written.
TEST(PerUnitBitmapTest, BitsOrOutOfRange) {
   PerUnitBitmap b;
   try {
      b.bitsOr(64, 1, 8);
      FAIL() << "a field at bit 64 of a 64-bit bitmap was accepted";
   } catch (const std::out_of_range& e) {
      EXPECT_THAT(e.what(), HasSubstr("(which is 2) >= this->size() (which is 2)"));
   }
   EXPECT_EQ(b.words(), Words({0, 0}));

   try {
      b.bitsOr(60, 0xFF, 8);
      FAIL() << "a field spanning past the end was accepted";
   } catch (const std::out_of_range& e) {
      EXPECT_THAT(e.what(), HasSubstr("(which is 2) >= this->size() (which is 2)"));
   }
   EXPECT_EQ(b.words(), Words({0, 0xF0000000u})) << "the first word is written before the failure";
   EXPECT_EQ(b.wordCount(), 2u) << "the bitmap must never grow";
}

// Verify the rejected widths.
TEST(PerUnitBitmapTest, BitsOrRejectsBadWidth) {
   PerUnitBitmap b;
   EXPECT_THROW(b.bitsOr(0, 1, 0), std::invalid_argument);
   try {
      b.bitsOr(0, 1, 33);
      FAIL() << "width 33 was accepted";
   } catch (const std::invalid_argument& e) {
      EXPECT_THAT(e.what(), HasSubstr("width 33"));
   }
   EXPECT_EQ(b.words(), Words({0, 0}));
}

// Verify that the value is not masked to the width: its higher bits land beyond the field,
// in the first word and, for a spanning field, in the next word too.
TEST(PerUnitBitmapTest, BitsOrDoesNotMaskValue) {
   PerUnitBitmap b;
   b.bitsOr(0, 0x1FF, 8);
   EXPECT_EQ(b.words(), Words({0x1FFu, 0}));

   PerUnitBitmap s;
   s.bitsOr(28, 0xFFFFF, 8);  // field covers bits 28-35; the value reaches bit 47
   EXPECT_EQ(s.words(), Words({0xF0000000u, 0x0000FFFFu}));
}

// Verify the one-hot byte-by-byte build that the replication list uses: eight 8-bit fields
// lowest byte first give back the 64-bit value.
TEST(PerUnitBitmapTest, BitsOrBuildsOneHotValueBytewise) {
   for (unsigned bitNo : {0u, 7u, 31u, 32u, 45u, 63u}) {
      const std::uint64_t oneHot = std::uint64_t(1) << bitNo;
      PerUnitBitmap b;
      for (std::uint32_t offset = 0; offset < 64; offset += 8) {
         b.bitsOr(offset, std::uint32_t((oneHot >> offset) & 0xFF), 8);
      }
      EXPECT_EQ(b.popcount(), 1u) << "bit " << bitNo;
      EXPECT_TRUE(b.bit(bitNo)) << "bit " << bitNo;
   }
}

// Verify that |= works over the common length and keeps the left operand's size.
TEST(PerUnitBitmapTest, OrAssignKeepsLeftSize) {
   PerUnitBitmap small(Words{0x1});
   small |= PerUnitBitmap(Words{0x2, 0xFF});
   EXPECT_EQ(small.words(), Words({0x3}));

   PerUnitBitmap large(Words{0x1, 0x10, 0x100});
   large |= PerUnitBitmap(Words{0x2, 0x20});
   EXPECT_EQ(large.words(), Words({0x3, 0x30, 0x100}));
}

// Verify that equality, ordering and hashing agree: lexicographic over words from word 0,
// a prefix before the longer bitmap, and equal bitmaps hash alike.
TEST(PerUnitBitmapTest, OrderingEqualityAndHashAgree) {
   const std::vector<PerUnitBitmap> ascending = {
       PerUnitBitmap(Words{}),     PerUnitBitmap(Words{0}), PerUnitBitmap(Words{0, 0}),
       PerUnitBitmap(Words{0, 5}), PerUnitBitmap(Words{1}), PerUnitBitmap(Words{1, 0}),
       PerUnitBitmap(Words{2, 0}),
   };
   for (std::size_t i = 0; i < ascending.size(); ++i) {
      for (std::size_t j = 0; j < ascending.size(); ++j) {
         const auto& a = ascending[i];
         const auto& b = ascending[j];
         EXPECT_EQ(a == b, i == j) << a.toString() << " vs " << b.toString();
         EXPECT_EQ(a < b, i < j) << a.toString() << " vs " << b.toString();
      }
   }
   EXPECT_TRUE(absl::VerifyTypeImplementsAbslHashCorrectly(ascending));
   EXPECT_EQ(PerUnitBitmap(Words{7, 9}).hash(3), PerUnitBitmap(Words{7, 9}).hash(3));
   EXPECT_NE(PerUnitBitmap(Words{7, 9}).hash(3), PerUnitBitmap(Words{9, 7}).hash(3));
}

// Verify the text form (most significant word first) and that parse reads it back.
TEST(PerUnitBitmapTest, FormatAndParseRoundTrip) {
   PerUnitBitmap b;
   for (unsigned i : {0u, 1u, 2u, 3u, 5u}) b.bitIs(i, true);
   EXPECT_EQ(fmt::format("{}", b), "0x00000000_0000002f");
   EXPECT_EQ(fmt::format("{}", PerUnitBitmap(Words{})), "0x");

   for (const PerUnitBitmap& v : {b, PerUnitBitmap(Words{}), PerUnitBitmap(Words{0xDEADBEEFu}),
                                  PerUnitBitmap(Words{1, 0x80000000u, 0xABCDEF01u})}) {
      EXPECT_EQ(PerUnitBitmap::parse(v.toString()), v) << v.toString();
   }
   EXPECT_EQ(PerUnitBitmap::parse("0xABCDEF01_00000002").words(), Words({2, 0xABCDEF01u}));
}

// Verify that malformed text is refused with the text named.
TEST(PerUnitBitmapTest, ParseRejectsMalformedText) {
   for (std::string text : {"", "00000001", "0x1", "0x00000001_", "0x00000001-00000002",
                            "0x0000000g", "0x00000001_000000021"}) {
      try {
         (void)PerUnitBitmap::parse(text);
         ADD_FAILURE() << "'" << text << "' was accepted";
      } catch (const std::invalid_argument& e) {
         EXPECT_THAT(e.what(), HasSubstr("'" + text + "'"));
      }
   }
}

}  // namespace
}  // namespace Ulm
