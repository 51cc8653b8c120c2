#include "ChipSim/ReplListFormat.h"

#include <stdexcept>
#include <string>
#include <type_traits>
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
using Pairs = std::vector<std::pair<std::uint32_t, std::uint16_t>>;

ReplEntry sparse(Pairs pairs, bool last = true, Asic::Index next = 0) {
   return {.kind = Kind::sparse, .pairs = std::move(pairs), .next = next, .last = last};
}
ReplEntry dense(std::uint32_t lsbVlan, std::uint64_t members, std::uint8_t numBits) {
   return {.kind = Kind::dense, .lsbVlan = lsbVlan, .members = members, .numBits = numBits};
}

// The text of the exception `fn` throws.
template <typename E = std::invalid_argument>
std::string errorText(const auto& fn) {
   try {
      fn();
   } catch (const E& e) {
      return e.what();
   }
   return "no error";
}

// --- words of both memories -----------------------------------------------------------------

// Verify that every entry that encodes decodes back to itself, pair order and link included.
TEST(ReplListWords, DecodesToWhatWasEncoded) {
   for (const ReplEntry& e :
        {sparse({}), sparse({{7, 3}}, false, 12),
         sparse({{9, 1}, {2, 0xFFFF}, {0xFFFFFFFF, 0}, {4, 4}, {5, 5}, {6, 6}, {1, 1}, {8, 8}},
                false, 0xFFFFFFFE),
         dense(0, 0, 0), dense(ReplListFormat::kMaxLsbVlan, ~0ull, 64),
         dense(1, 0x8000'0000'0000'0001ull, 2)}) {
      EXPECT_EQ(ReplListFormat::decode(ReplListFormat::encode(e)), e);
   }
   for (const L2Entry& e :
        {L2Entry{0, {0, 0}, 0, true}, L2Entry{3, {0xFFFFFFFF, 0xFFFFFFFF}, 77, false},
         L2Entry{1, {0x10, 0x8000'0000}, 0, true}, L2Entry{2, {0, 1}, 0xFFFFFFFF, false}}) {
      EXPECT_EQ(L2SubPortFormat::decode(L2SubPortFormat::encode(e)), e);
   }
}

// Verify the documented bit positions, so that a chip left by an earlier run reads the same,
// and that a short sub-port bitmap is padded with zero words and a long one with zero extra
// words is taken.
TEST(ReplListWords, FieldsSitWhereDocumented) {
   EXPECT_EQ(ReplListFormat::encode(sparse({{0x11, 0x22}, {0x33, 0x44}, {0x55, 0x66}}, false, 9)),
             (ReplListFormat::Words{1 | 3 << 3, 9, 0x11, 0x33, 0x55, 0, 0, 0, 0, 0, 0x0044'0022,
                                    0x66, 0, 0}));
   EXPECT_EQ(ReplListFormat::encode(dense(0x123, 0xAAAA'0000'0000'BBBBull, 5)),
             (ReplListFormat::Words{2 | 1 << 2 | 5 << 7, 0, 0x123, 0xBBBB, 0xAAAA'0000}));
   const auto l2 = L2SubPortFormat::encode({.mode = 2, .bitmapWords = {0x5}, .last = false});
   EXPECT_EQ(l2, (L2SubPortFormat::Words{2, 0, 0x5, 0}));
   EXPECT_EQ(L2SubPortFormat::decode(l2).bitmapWords, (std::vector<std::uint32_t>{0x5, 0}));
   EXPECT_EQ(L2SubPortFormat::encode({.mode = 1, .bitmapWords = {1, 2, 0, 0}}),
             (L2SubPortFormat::Words{1 | 1 << 2, 0, 1, 2}));
}

// Verify that a field that cannot be held is refused, naming the memory, field and value.
TEST(ReplListWords, EncodeRefusesWhatDoesNotFit) {
   struct Case {
      ReplEntry entry;
      std::string text;
   };
   for (const Case& c :
        {Case{sparse(Pairs(9)), "pair count 9"}, Case{{.kind = Kind(0)}, "kind 0"},
         Case{dense(1u << 26, 0, 0), "lsbVlan 67108864"}, Case{dense(0, 0, 65), "numBits 65"},
         Case{{.kind = Kind::dense, .pairs = {{1, 1}}}, "pairs 1"},
         Case{{.members = 4}, "members 4"}, Case{{.numBits = 3}, "numBits 3"}}) {
      EXPECT_THAT(errorText([&] { ReplListFormat::encode(c.entry); }),
                  AllOf(HasSubstr("MMU_REPL_LIST"), HasSubstr(c.text)));
   }
   EXPECT_THAT(errorText([] { L2SubPortFormat::encode({.mode = 4}); }),
               AllOf(HasSubstr("MMU_REPL_LIST_L2_SUBPORT"), HasSubstr("mode 4")));
   const L2Entry wide{.bitmapWords = {0, 0, 0x100}};
   EXPECT_THAT(errorText([&] { L2SubPortFormat::encode(wide); }), HasSubstr("sub-port 72"));
}

// Verify that words no encode could have written are refused with what is wrong in them.
TEST(ReplListWords, DecodeRefusesMalformedWords) {
   struct Case {
      std::uint32_t word;
      std::uint32_t value;  // replaces that word of a valid sparse entry with one pair
      std::string text;
   };
   for (const Case& c :
        {Case{0, 0, "kind 0"}, Case{0, 1 | 9 << 3, "pair count 9"},
         Case{0, 2 | 65 << 7, "numBits 65"}, Case{0, 1 | 1 << 3 | 1u << 31, "word 0"},
         Case{3, 1, "word 3"}, Case{0, 2, "word 10"} /* a dense entry reads no pair words */}) {
      auto words = ReplListFormat::encode(sparse({{3, 4}}));
      words[c.word] = c.value;
      EXPECT_THAT(errorText([&] { ReplListFormat::decode(words); }), HasSubstr(c.text));
   }
   EXPECT_THAT(errorText([] { L2SubPortFormat::decode(L2SubPortFormat::Words{1 | 1 << 3}); }),
               HasSubstr("word 0"));
   EXPECT_THAT(errorText([] { L2SubPortFormat::decode(std::vector<std::uint32_t>(14, 0)); }),
               HasSubstr("14 words, expected 4"));
}

// --- chains, over both memories -------------------------------------------------------------

template <typename F>
class ChainTest : public ::testing::Test {
 protected:
   static typename F::HwEntry sample(std::uint32_t n) {
      if constexpr (std::is_same_v<F, ReplListFormat>)
         return sparse({{n, std::uint16_t(n)}});
      else
         return L2Entry{.mode = n % 4, .bitmapWords = {n, 0}};
   }
   // Writes one list, its entries linked in the order of `indices`.
   void listIs(const Indices& indices) {
      std::vector<typename F::HwEntry> entries;
      for (Asic::Index i : indices) entries.push_back(sample(i));
      chainLink<F>(std::span(entries), indices);
      for (std::size_t i = 0; i < indices.size(); ++i) {
         hw_->entryWrite(indices[i], F::encode(entries[i]));
      }
   }
   // Rewrites one entry to name `next` (not last).
   void linkIs(Asic::Index at, Asic::Index next) {
      auto entry = sample(at);
      entry.next = next;
      entry.last = false;
      hw_->entryWrite(at, F::encode(entry));
   }
   std::string walkError(Asic::Index first) {
      return errorText<std::runtime_error>([&] { chainAt<F>(*hw_, first); });
   }

   Asic::EventLoop loop_;
   Chip chip_{loop_, 0};
   Asic::Ptr<SimHwTable> hw_ = chip_.tableIs(F::kMemory, 16, F::kEntryWords);
};

using Formats = ::testing::Types<ReplListFormat, L2SubPortFormat>;
TYPED_TEST_SUITE(ChainTest, Formats);

TYPED_TEST(ChainTest, WalksListsAndFindsTheirHeads) {
   // Verify that scattered lists are walked in chain order from their heads; that only the
   // first entry of a list is a head, a closed loop has none, and an entry naming itself is
   // one, so that walking the heads reports it.
   using F = TypeParam;
   this->listIs({5, 2, 9});
   this->listIs({1});
   this->listIs({12, 3});
   this->linkIs(4, 7);
   this->linkIs(7, 4);
   this->linkIs(10, 10);
   EXPECT_EQ(chainAt<F>(*this->hw_, 5), (Indices{5, 2, 9}));
   EXPECT_EQ(chainAt<F>(*this->hw_, 1), (Indices{1}));
   EXPECT_EQ(chainAt<F>(*this->hw_, 2), (Indices{2, 9})) << "a walk may start mid-list";
   EXPECT_EQ(chainHeads<F>(*this->hw_), (Indices{1, 5, 10, 12}));
   EXPECT_EQ(nextIndex<F>(*this->hw_, 5), 2u);
   EXPECT_EQ(nextIndex<F>(*this->hw_, 9), Asic::invalidIndex) << "last of its list";
   EXPECT_EQ(nextIndex<F>(*this->hw_, 6), Asic::invalidIndex) << "no valid entry";
   EXPECT_THROW(nextIndex<F>(*this->hw_, 16), std::out_of_range);
}

TYPED_TEST(ChainTest, BrokenChainsNameTheIndexAtFault) {
   // Verify that a walk stops with the index where the chain breaks: an entry that is not
   // valid, a next past the table, a loop (also one entered from a tail), a malformed entry;
   // and that the search for heads passes over a malformed entry, which is no list's head.
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
   const auto heads = chainHeads<TypeParam>(*this->hw_);
   EXPECT_EQ(std::count(heads.begin(), heads.end(), 13u), 0);
   EXPECT_EQ(std::count(heads.begin(), heads.end(), 14u), 1);
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
