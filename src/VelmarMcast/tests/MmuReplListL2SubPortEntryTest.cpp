#include "VelmarMcast/MmuReplListL2SubPortEntry.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>
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

// Verify that only mode 0 with the default (64 clear bits) bitmap is false.
TEST(MmuReplListL2SubPortEntry, FalseOnlyWithoutModeAndSubPorts) {
   EXPECT_FALSE(Entry());
   EXPECT_FALSE(Entry(0, Bitmap(64)));
   for (const Entry& e : {Entry(2, Bitmap()), Entry(0, Bitmap(Words{0, 0x8000'0000})),
                          Entry(0, Bitmap(Words{})), Entry(0, Bitmap(128))}) {
      EXPECT_TRUE(e) << e.toString();
   }
}

TEST(MmuReplListL2SubPortEntry, OrdersByModeThenBitmapAndHashesBothFields) {
   // Verify that mode decides before the bitmap, that either field changes the hash, and
   // that the callback is not part of identity.
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
   const Entry withFn(1, Bitmap(Words{4, 0}), [](Asic::SwTableBase::EntryState) {});
   EXPECT_EQ(withFn, base);
   EXPECT_EQ(withFn.hash(7), base.hash(7));
}

TEST(MmuReplListL2SubPortEntry, RefusesModeOverTwoBits) {
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

// Verify that the text form reads back to an equal entry, bitmap size included, that spaces
// between tokens are skipped, and that reading stops after the closing brace.
TEST(MmuReplListL2SubPortEntry, TextFormReadsBack) {
   for (const Entry& e : {Entry(), Entry(3, Bitmap(Words{0x2f, 0xFFFFFFFF})),
                          Entry(1, Bitmap(Words{})), Entry(2, Bitmap(Words{1, 2, 3, 4}))}) {
      const std::string written = e.toString();
      Asic::CharRange range{written};
      EXPECT_EQ(Entry(range), e) << written;
      EXPECT_TRUE(range.text.empty()) << "left unread: " << range.text;
   }
   Asic::CharRange spaced{"{ modeBitmap: 2 , l2SubPortBitmap: 0x00000001_00000000 }, next"};
   EXPECT_EQ(Entry(spaced), Entry(2, Bitmap(Words{0, 1})));
   EXPECT_EQ(spaced.text, ", next");
}

// Verify that text that cannot be read names the attribute at fault.
TEST(MmuReplListL2SubPortEntry, UnreadableTextNamesTheAttribute) {
   const std::pair<std::string_view, std::string> cases[] = {
       {"{modeBitmap: 4, l2SubPortBitmap: 0x}", "modeBitmap"},
       {"{modeBitmap: -1, l2SubPortBitmap: 0x}", "modeBitmap"},
       {"{mode: 1, l2SubPortBitmap: 0x}", "modeBitmap"},
       {"{modeBitmap: 1, l2SubPortBitmap: 0x0000000g}", "l2SubPortBitmap"},
       {"{modeBitmap: 1}", "l2SubPortBitmap"},
       {"{modeBitmap: 1, l2SubPortBitmap: 0x", "l2SubPortBitmap"}};
   for (const auto& [text, attribute] : cases) {
      Asic::CharRange range{text};
      try {
         Entry e(range);
         ADD_FAILURE() << "read " << e.toString() << " from " << text;
      } catch (const Asic::AttributeRangeError& err) {
         EXPECT_EQ(err.attribute(), attribute) << err.what();
      }
   }
}

}  // namespace
}  // namespace VelmarMcast
