#include "VelmarMcast/MmuReplListL2SubPortEntry.h"

#include <algorithm>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "AsicSwTable/SwTableTraits.h"

namespace VelmarMcast {
namespace {

using ::testing::HasSubstr;
using Entry = MmuReplListL2SubPortTableEntry;
using Bitmap = Ulm::PerUnitBitmap;
using Words = std::vector<std::uint32_t>;

static_assert(Asic::SwTableKey<Entry> && Asic::SwTableEntry<Entry>,
              "the entry must serve as the table's key and value");

struct Truth {
   std::string name;
   std::uint32_t mode;
   Bitmap bitmap;
   bool expected;
};

class L2SubPortEntryTruth : public ::testing::TestWithParam<Truth> {};

// Verify that only mode 0 with the default (64 clear bits) bitmap is false.
TEST_P(L2SubPortEntryTruth, FalseOnlyWithoutModeAndSubPorts) {
   EXPECT_EQ(bool(Entry(GetParam().mode, GetParam().bitmap)), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Cases, L2SubPortEntryTruth,
                         ::testing::Values(Truth{"Default", 0, Bitmap(), false},
                                           Truth{"SixtyFourClearBits", 0, Bitmap(64), false},
                                           Truth{"ModeOnly", 2, Bitmap(), true},
                                           Truth{"OneSubPort", 0, Bitmap(Words{0, 0x8000'0000}),
                                                 true},
                                           Truth{"NoWords", 0, Bitmap(Words{}), true},
                                           Truth{"WiderClearBitmap", 0, Bitmap(128), true}),
                         [](const auto& info) { return info.param.name; });

TEST(L2SubPortEntry, DefaultIsModeZeroAndDefaultBitmap) {
   // Verify the defaults, that the entry takes one index, and that the callback is not part
   // of identity.
   const Entry e;
   EXPECT_EQ(e.modeBitmap(), 0u);
   EXPECT_EQ(e.l2SubPortBitmap(), Bitmap());
   EXPECT_EQ(static_cast<const Asic::EntryBase&>(e).getBlockSize(), 1u);
   const Entry withFn(0, Bitmap(), [](Asic::SwTableBase::EntryState) {});
   EXPECT_EQ(withFn, e);
   EXPECT_EQ(withFn.hash(7), e.hash(7));
}

TEST(L2SubPortEntry, OrdersByModeThenBitmapAndHashesBothFields) {
   // Verify that mode decides before the bitmap, and that either field changes the hash.
   std::vector<Entry> entries{{2, Bitmap(Words{0, 0})},
                              {1, Bitmap(Words{0, 5})},
                              {1, Bitmap(Words{1, 0})},
                              {0, Bitmap(Words{9, 9})},
                              {1, Bitmap(Words{0})}};
   std::ranges::sort(entries);
   std::vector<std::string> order;
   for (const Entry& e : entries) order.push_back(e.toString());
   EXPECT_THAT(order,
               ::testing::ElementsAre("{modeBitmap: 0, l2SubPortBitmap: 0x00000009_00000009}",
                                      "{modeBitmap: 1, l2SubPortBitmap: 0x00000000}",
                                      "{modeBitmap: 1, l2SubPortBitmap: 0x00000005_00000000}",
                                      "{modeBitmap: 1, l2SubPortBitmap: 0x00000000_00000001}",
                                      "{modeBitmap: 2, l2SubPortBitmap: 0x00000000_00000000}"));
   const Entry base(1, Bitmap(Words{4, 0}));
   EXPECT_NE(base.hash(0), Entry(2, Bitmap(Words{4, 0})).hash(0));
   EXPECT_NE(base.hash(0), Entry(1, Bitmap(Words{4, 1})).hash(0));
   EXPECT_NE(base.hash(0), base.hash(1)) << "the seed must take part";
}

TEST(L2SubPortEntry, RefusesModeOverTwoBits) {
   // Verify that a mode over two bits is refused, naming the attribute, and changes nothing.
   Entry e(3, Bitmap());
   try {
      e.modeBitmapIs(4);
      FAIL() << "expected a refusal";
   } catch (const Asic::AttributeRangeError& err) {
      EXPECT_EQ(err.attribute(), "modeBitmap");
      EXPECT_THAT(err.what(), HasSubstr("'4'"));
   }
   EXPECT_EQ(e.modeBitmap(), 3u);
   EXPECT_THROW(Entry(8, Bitmap()), Asic::AttributeRangeError);
}

class L2SubPortEntryText : public ::testing::TestWithParam<Entry> {};

// Verify that the text form reads back to an equal entry, bitmap size included.
TEST_P(L2SubPortEntryText, RoundTrips) {
   const std::string written = GetParam().toString();
   Asic::CharRange range{written};
   EXPECT_EQ(Entry(range), GetParam()) << written;
   EXPECT_TRUE(range.text.empty()) << "left unread: " << range.text;
}

INSTANTIATE_TEST_SUITE_P(Entries, L2SubPortEntryText,
                         ::testing::Values(Entry(), Entry(3, Bitmap(Words{0x2f, 0xFFFFFFFF})),
                                           Entry(1, Bitmap(Words{})),
                                           Entry(2, Bitmap(Words{1, 2, 3, 4}))));

TEST(L2SubPortEntry, TextFormNamesBothFieldsInOrder) {
   // Verify the written form, and that reading stops after the closing brace.
   EXPECT_EQ(fmt::format("{}", Entry(1, Bitmap(Words{0x2f, 0}))),
             "{modeBitmap: 1, l2SubPortBitmap: 0x00000000_0000002f}");
   std::string text = "{ modeBitmap: 2 , l2SubPortBitmap: 0x00000001_00000000 }, next";
   Asic::CharRange range{text};
   EXPECT_EQ(Entry(range), Entry(2, Bitmap(Words{0, 1})));
   EXPECT_EQ(range.text, ", next");
}

struct BadText {
   std::string name;
   std::string text;
   std::string attribute;
};

class L2SubPortEntryParseError : public ::testing::TestWithParam<BadText> {};

// Verify that text that cannot be read names the attribute at fault.
TEST_P(L2SubPortEntryParseError, NamesTheAttribute) {
   std::string text = GetParam().text;
   Asic::CharRange range{text};
   try {
      Entry e(range);
      FAIL() << "read " << e.toString() << " from " << text;
   } catch (const Asic::AttributeRangeError& err) {
      EXPECT_EQ(err.attribute(), GetParam().attribute) << err.what();
   }
}

INSTANTIATE_TEST_SUITE_P(
    Texts, L2SubPortEntryParseError,
    ::testing::Values(
        BadText{"ModeFourIsTooWide", "{modeBitmap: 4, l2SubPortBitmap: 0x}", "modeBitmap"},
        BadText{"ModeNegative", "{modeBitmap: -1, l2SubPortBitmap: 0x}", "modeBitmap"},
        BadText{"WrongOpening", "{mode: 1, l2SubPortBitmap: 0x}", "modeBitmap"},
        BadText{"BitmapNotHex", "{modeBitmap: 1, l2SubPortBitmap: 0x0000000g}", "l2SubPortBitmap"},
        BadText{"BitmapLabelMissing", "{modeBitmap: 1}", "l2SubPortBitmap"},
        BadText{"NoClosingBrace", "{modeBitmap: 1, l2SubPortBitmap: 0x", "l2SubPortBitmap"}),
    [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace VelmarMcast
