#include "ChipSim/ReplListFormat.h"

#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Asic/EventLoop.h"
#include "ChipSim/Chip.h"

namespace ChipSim {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ReplEntry = ReplListFormat::HwEntry;
using Kind = ReplEntry::Kind;
using L2Entry = L2SubPortFormat::HwEntry;
using Indices = std::vector<Asic::Index>;

ReplEntry sparse(std::vector<std::pair<std::uint32_t, std::uint16_t>> pairs, bool last = true,
                 Asic::Index next = 0) {
   return {.kind = Kind::sparse, .pairs = std::move(pairs), .next = next, .last = last};
}
ReplEntry dense(std::uint32_t lsbVlan, std::uint64_t members, std::uint8_t numBits) {
   return {.kind = Kind::dense, .lsbVlan = lsbVlan, .members = members, .numBits = numBits};
}

// --- MMU_REPL_LIST words --------------------------------------------------------------------

class ReplListRoundTrip : public ::testing::TestWithParam<ReplEntry> {};

// Verify that every entry that encodes decodes back to itself, pair order and link included.
TEST_P(ReplListRoundTrip, DecodesToWhatWasEncoded) {
   const auto words = ReplListFormat::encode(GetParam());
   EXPECT_EQ(ReplListFormat::decode(words), GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    Entries, ReplListRoundTrip,
    ::testing::Values(
        sparse({}), sparse({{7, 3}}, false, 12),
        sparse({{9, 1}, {2, 0xFFFF}, {0xFFFFFFFF, 0}, {4, 4}, {5, 5}, {6, 6}, {1, 1}, {8, 8}},
               false, 0xFFFFFFFE),
        dense(0, 0, 0), dense(ReplListFormat::kMaxLsbVlan, ~0ull, 64),
        dense(1, 0x8000'0000'0000'0001ull, 2)));

// Verify the documented bit positions, so that a chip left by an earlier run reads the same.
TEST(ReplListWords, FieldsSitWhereDocumented) {
   const auto s =
       ReplListFormat::encode(sparse({{0x11, 0x22}, {0x33, 0x44}, {0x55, 0x66}}, false, 9));
   EXPECT_EQ(s[0], 1u | 0u << 2 | 3u << 3);
   EXPECT_EQ(s[1], 9u);
   EXPECT_EQ(s[2], 0x11u);
   EXPECT_EQ(s[4], 0x55u);
   EXPECT_EQ(s[10], 0x0044'0022u);
   EXPECT_EQ(s[11], 0x66u);

   const auto d = ReplListFormat::encode(dense(0x123, 0xAAAA'0000'0000'BBBBull, 5));
   EXPECT_EQ(d[0], 2u | 1u << 2 | 5u << 7);
   EXPECT_EQ(d[2], 0x123u);
   EXPECT_EQ(d[3], 0xBBBBu);
   EXPECT_EQ(d[4], 0xAAAA'0000u);
}

struct EncodeRefusal {
   std::string name;
   ReplEntry entry;
   std::string field;
   std::string value;
};

class ReplListEncodeRefusal : public ::testing::TestWithParam<EncodeRefusal> {};

// Verify that a field that cannot be held is refused, naming the field and the value.
TEST_P(ReplListEncodeRefusal, NamesFieldAndValue) {
   try {
      ReplListFormat::encode(GetParam().entry);
      FAIL() << "expected a refusal";
   } catch (const std::invalid_argument& e) {
      EXPECT_THAT(e.what(), AllOf(HasSubstr("MMU_REPL_LIST"),
                                  HasSubstr(GetParam().field + " " + GetParam().value)));
   }
}

ReplEntry withKind(std::uint8_t kind) {
   ReplEntry e;
   e.kind = Kind(kind);
   return e;
}
ReplEntry denseWithPair() {
   ReplEntry e = withKind(2);
   e.pairs = {{1, 1}};
   return e;
}
ReplEntry sparseWithDenseFields(std::uint64_t members, std::uint8_t numBits) {
   ReplEntry e;
   e.members = members;
   e.numBits = numBits;
   return e;
}

INSTANTIATE_TEST_SUITE_P(
    Fields, ReplListEncodeRefusal,
    ::testing::Values(
        EncodeRefusal{"NinePairs", sparse(std::vector<std::pair<std::uint32_t, std::uint16_t>>(9)),
                      "pair count", "9"},
        EncodeRefusal{"KindZero", withKind(0), "kind", "0"},
        EncodeRefusal{"LsbVlanTooWide", dense(1u << 26, 0, 0), "lsbVlan", "67108864"},
        EncodeRefusal{"NumBits65", dense(0, 0, 65), "numBits", "65"},
        EncodeRefusal{"DenseWithPairs", denseWithPair(), "pairs", "1"},
        EncodeRefusal{"SparseWithMembers", sparseWithDenseFields(4, 0), "members", "4"},
        EncodeRefusal{"SparseWithNumBits", sparseWithDenseFields(0, 3), "numBits", "3"}),
    [](const auto& info) { return info.param.name; });

struct DecodeRefusal {
   std::string name;
   std::uint32_t word;
   std::uint32_t value;  // replaces that word of a valid sparse entry with one pair
   std::string text;
};

class ReplListDecodeRefusal : public ::testing::TestWithParam<DecodeRefusal> {};

// Verify that words no encode could have written are refused with what is wrong in them.
TEST_P(ReplListDecodeRefusal, RefusesMalformedWords) {
   auto words = ReplListFormat::encode(sparse({{3, 4}}));
   words[GetParam().word] = GetParam().value;
   try {
      ReplListFormat::decode(words);
      FAIL() << "expected a refusal";
   } catch (const std::invalid_argument& e) {
      EXPECT_THAT(e.what(), HasSubstr(GetParam().text));
   }
}

INSTANTIATE_TEST_SUITE_P(
    Words, ReplListDecodeRefusal,
    ::testing::Values(DecodeRefusal{"KindZero", 0, 0, "kind 0"},
                      DecodeRefusal{"PairCountNine", 0, 1 | 9 << 3, "pair count 9"},
                      DecodeRefusal{"NumBits65", 0, 2 | 65 << 7, "numBits 65"},
                      DecodeRefusal{"HeaderReservedBit", 0, 1 | 1 << 3 | 1u << 31, "word 0"},
                      DecodeRefusal{"UnusedPairSlot", 3, 1, "word 3"},
                      DecodeRefusal{"DenseReadsNoPairWords", 0, 2, "word 10"}),
    [](const auto& info) { return info.param.name; });

// --- MMU_REPL_LIST_L2_SUBPORT words ---------------------------------------------------------

class L2SubPortRoundTrip : public ::testing::TestWithParam<L2Entry> {};

// Verify that every entry with a full-width bitmap decodes back to itself.
TEST_P(L2SubPortRoundTrip, DecodesToWhatWasEncoded) {
   EXPECT_EQ(L2SubPortFormat::decode(L2SubPortFormat::encode(GetParam())), GetParam());
}

INSTANTIATE_TEST_SUITE_P(Entries, L2SubPortRoundTrip,
                         ::testing::Values(L2Entry{0, {0, 0}, 0, true},
                                           L2Entry{3, {0xFFFFFFFF, 0xFFFFFFFF}, 77, false},
                                           L2Entry{1, {0x10, 0x8000'0000}, 0, true},
                                           L2Entry{2, {0, 1}, 0xFFFFFFFF, false}));

TEST(L2SubPortWords, BitmapIsPaddedOrTrimmedToTheField) {
   // Verify that a short bitmap reads back padded with zero words and a long one with zero
   // extra words is taken, and that the documented positions hold.
   const auto words = L2SubPortFormat::encode({.mode = 2, .bitmapWords = {0x5}, .last = false});
   EXPECT_EQ(words, (L2SubPortFormat::Words{2, 0, 0x5, 0}));
   EXPECT_EQ(L2SubPortFormat::decode(words).bitmapWords, (std::vector<std::uint32_t>{0x5, 0}));
   const auto wide = L2SubPortFormat::encode({.mode = 1, .bitmapWords = {1, 2, 0, 0}});
   EXPECT_EQ(wide, (L2SubPortFormat::Words{1 | 1 << 2, 0, 1, 2}));
}

TEST(L2SubPortWords, RefusesWhatDoesNotFit) {
   // Verify that a mode over 2 bits, a sub-port beyond the field and malformed words are
   // refused, each naming what is wrong.
   using ::testing::ThrowsMessage;
   EXPECT_THAT([] { L2SubPortFormat::encode({.mode = 4}); },
               ThrowsMessage<std::invalid_argument>(HasSubstr("mode 4")));
   EXPECT_THAT(
       [] {
          L2SubPortFormat::encode({.bitmapWords = {0, 0, 0x100}});
       },
       ThrowsMessage<std::invalid_argument>(HasSubstr("sub-port 72")));
   const L2SubPortFormat::Words stray{1 | 1 << 3, 0, 0, 0};
   EXPECT_THAT([&] { L2SubPortFormat::decode(stray); },
               ThrowsMessage<std::invalid_argument>(HasSubstr("word 0")));
   const std::vector<std::uint32_t> wrongLength(14, 0);
   EXPECT_THAT([&] { L2SubPortFormat::decode(wrongLength); },
               ThrowsMessage<std::invalid_argument>(HasSubstr("14 words, expected 4")));
}

// --- chains, over both memories -------------------------------------------------------------

template <typename F>
typename F::HwEntry sample(std::uint32_t n);
template <>
ReplEntry sample<ReplListFormat>(std::uint32_t n) {
   return sparse({{n, std::uint16_t(n)}});
}
template <>
L2Entry sample<L2SubPortFormat>(std::uint32_t n) {
   return {.mode = n % 4, .bitmapWords = {n, 0}};
}

template <typename F>
class ChainTest : public ::testing::Test {
 protected:
   // Writes one list, its entries linked in the order of `indices`.
   void listIs(const Indices& indices) {
      std::vector<typename F::HwEntry> entries;
      for (Asic::Index i : indices) entries.push_back(sample<F>(i));
      chainLink<F>(std::span(entries), indices);
      for (std::size_t i = 0; i < indices.size(); ++i) {
         hw_->entryWrite(indices[i], F::encode(entries[i]));
      }
   }
   // Rewrites one entry to name `next` (not last).
   void linkIs(Asic::Index at, Asic::Index next) {
      auto entry = sample<F>(at);
      entry.next = next;
      entry.last = false;
      hw_->entryWrite(at, F::encode(entry));
   }
   std::string walkError(Asic::Index first) {
      try {
         chainAt<F>(*hw_, first);
      } catch (const std::runtime_error& e) {
         return e.what();
      }
      return "no error";
   }

   Asic::EventLoop loop_;
   Chip chip_{loop_, 0};
   Asic::Ptr<SimHwTable> hw_ = chip_.tableIs(F::kMemory, 16, F::kEntryWords);
};

using Formats = ::testing::Types<ReplListFormat, L2SubPortFormat>;
TYPED_TEST_SUITE(ChainTest, Formats);

TYPED_TEST(ChainTest, WalksListsAndFindsTheirHeads) {
   // Verify that scattered lists are walked in chain order from their heads, and that only
   // the first entry of each list is a head.
   using F = TypeParam;
   this->listIs({5, 2, 9});
   this->listIs({1});
   this->listIs({12, 3});
   EXPECT_EQ(chainAt<F>(*this->hw_, 5), (Indices{5, 2, 9}));
   EXPECT_EQ(chainAt<F>(*this->hw_, 1), (Indices{1}));
   EXPECT_EQ(chainAt<F>(*this->hw_, 2), (Indices{2, 9})) << "a walk may start mid-list";
   EXPECT_EQ(chainHeads<F>(*this->hw_), (Indices{1, 5, 12}));
   EXPECT_EQ(nextIndex<F>(*this->hw_, 5), 2u);
   EXPECT_EQ(nextIndex<F>(*this->hw_, 9), Asic::invalidIndex) << "last of its list";
   EXPECT_EQ(nextIndex<F>(*this->hw_, 4), Asic::invalidIndex) << "no valid entry";
   EXPECT_THROW(nextIndex<F>(*this->hw_, 16), std::out_of_range);
}

TYPED_TEST(ChainTest, BrokenChainsNameTheIndexAtFault) {
   // Verify that a walk stops with the index where the chain breaks: an entry that is not
   // valid, a next past the table, a loop (also one entered from a tail), a malformed entry.
   this->listIs({5, 2, 9});
   this->hw_->entryClear(2);
   EXPECT_THAT(this->walkError(5), HasSubstr("reaches index 2, which holds no valid entry"));

   this->linkIs(6, 40);
   EXPECT_THAT(this->walkError(6), HasSubstr("reaches index 40, past the table"));

   this->linkIs(1, 4);
   this->linkIs(4, 7);
   this->linkIs(7, 4);
   EXPECT_THAT(this->walkError(1), HasSubstr("loops back to index 4"));
   this->linkIs(11, 11);
   EXPECT_THAT(this->walkError(11), HasSubstr("loops back to index 11"));

   const std::vector<std::uint32_t> garbage(TypeParam::kEntryWords, 0xFFFFFFFF);
   this->hw_->entryWrite(13, garbage);
   this->linkIs(14, 13);
   EXPECT_THAT(this->walkError(14), HasSubstr("at index 13"));
}

TYPED_TEST(ChainTest, HeadsSkipLoopsButKeepSelfLoops) {
   // Verify that a closed loop has no head, while an entry naming itself is one, so that
   // walking the heads reports it.
   using F = TypeParam;
   this->listIs({8});
   this->linkIs(4, 7);
   this->linkIs(7, 4);
   this->linkIs(10, 10);
   EXPECT_EQ(chainHeads<F>(*this->hw_), (Indices{8, 10}));

   const std::vector<std::uint32_t> garbage(F::kEntryWords, 0xFFFFFFFF);
   this->hw_->entryWrite(3, garbage);
   EXPECT_THAT([&] { chainHeads<F>(*this->hw_); },
               ::testing::ThrowsMessage<std::runtime_error>(HasSubstr("at index 3")));
}

TYPED_TEST(ChainTest, RefusesTablesOfAnotherWidthAndMismatchedLinks) {
   // Verify that a table of another entry width is refused before any read, and that linking
   // needs one index per entry.
   using F = TypeParam;
   auto other = this->chip_.tableIs("OTHER", 16, F::kEntryWords + 1);
   EXPECT_THROW(chainAt<F>(*other, 1), std::invalid_argument);
   EXPECT_THROW(chainHeads<F>(*other), std::invalid_argument);

   std::vector<typename F::HwEntry> two(2);
   const Indices one{3};
   EXPECT_THROW(chainLink<F>(std::span(two), one), std::invalid_argument);
}

}  // namespace
}  // namespace ChipSim
