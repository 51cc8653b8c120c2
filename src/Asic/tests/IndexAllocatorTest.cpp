#include "Asic/IndexAllocator.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace AllocatorTestKeys {

// Fits GenericValue's inline storage.
struct SmallKey {
   static constexpr std::string_view kTypeName = "AllocatorTestKeys::SmallKey";
   std::uint32_t id = 0;
   bool operator==(const SmallKey&) const = default;
   template <typename H>
   friend H AbslHashValue(H h, const SmallKey& key) {
      return H::combine(std::move(h), key.id);
   }
};

// Too large for the inline storage, and not trivially copyable: kept on the heap.
struct WideKey {
   static constexpr std::string_view kTypeName = "AllocatorTestKeys::WideKey";
   std::string name;
   std::uint64_t pad[2] = {0, 0};
   bool operator==(const WideKey&) const = default;
   template <typename H>
   friend H AbslHashValue(H h, const WideKey& key) {
      return H::combine(std::move(h), key.name, key.pad[0], key.pad[1]);
   }
};

}  // namespace AllocatorTestKeys

template <>
struct fmt::formatter<AllocatorTestKeys::SmallKey> : fmt::formatter<std::string_view> {
   auto format(const AllocatorTestKeys::SmallKey& key, fmt::format_context& ctx) const {
      return fmt::format_to(ctx.out(), "SmallKey({})", key.id);
   }
};

template <>
struct fmt::formatter<AllocatorTestKeys::WideKey> : fmt::formatter<std::string_view> {
   auto format(const AllocatorTestKeys::WideKey& key, fmt::format_context& ctx) const {
      return fmt::format_to(ctx.out(), "WideKey({})", key.name);
   }
};

namespace Asic {

// Found by argument-dependent look-up from inside GoogleTest, hence outside the unnamed
// namespace; static keeps them private to this file.
static bool operator==(const GenericIndexAllocator::Occupancy& a,
                       const GenericIndexAllocator::Occupancy& b) {
   return a.used == b.used && a.free == b.free && a.largestFreeRun == b.largestFreeRun;
}
[[maybe_unused]] static void PrintTo(const GenericIndexAllocator::Occupancy& o, std::ostream* os) {
   *os << fmt::format("{{used={}, free={}, largestFreeRun={}}}", o.used, o.free, o.largestFreeRun);
}

namespace {

using AllocatorTestKeys::SmallKey;
using AllocatorTestKeys::WideKey;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Status = GenericIndexAllocator::RequestStatus;

enum class Kind { firstFree, discont, anySized };

std::string kindName(Kind kind) {
   static const char* const names[] = {"FirstFree", "Discont", "AnySized"};
   return names[static_cast<int>(kind)];
}

Ptr<GenericIndexAllocator> makeAllocator(Kind kind, std::uint32_t entries) {
   Ptr<GenericIndexAllocator> alloc;
   if (kind == Kind::firstFree) alloc = makePtr<FirstFreeIndexAllocator>("test");
   if (kind == Kind::discont) alloc = makePtr<DiscontBlockAllocator>("test");
   if (kind == Kind::anySized) alloc = makePtr<AnySizedBlockAllocator>("test");
   alloc->numEntriesIs(entries);
   return alloc;
}

const TypeDescriptor& smallType() { return vixType<SmallKey>(); }
const TypeDescriptor& wideType() { return vixType<WideKey>(); }

// Short spellings of the calls with a SmallKey; `at` passes a temporary key, which lives
// until the call returns.
const void* at(const SmallKey& key) { return &key; }
Index newIndex(GenericIndexAllocator& a, std::uint32_t id, const void* user = nullptr) {
   return a.newIndexForKey(smallType(), at({id}), user);
}
std::vector<Index> newBlock(GenericIndexAllocator& a, std::uint32_t id, std::uint32_t size) {
   return a.newIndicesForKey(smallType(), at({id}), size);
}
Status request(GenericIndexAllocator& a, Index index, std::uint32_t id,
               const void* user = nullptr) {
   return a.requestIndexForKey(index, smallType(), at({id}), user);
}
bool recover(GenericIndexAllocator& a, Index index, std::uint32_t id) {
   return a.recoverIndexForKey(index, smallType(), at({id}));
}
bool recoverBlock(GenericIndexAllocator& a, const std::vector<Index>& indices, std::uint32_t id) {
   return a.recoverIndicesForKey(indices, smallType(), at({id}));
}
void release(GenericIndexAllocator& a, std::uint32_t id, const void* table = nullptr) {
   a.releaseIndexFromTable(smallType(), at({id}), table);
}
std::vector<Index> indicesOf(const GenericIndexAllocator& a, std::uint32_t id) {
   return a.indicesForKey(smallType(), at({id}));
}

// The message of the E that fn throws.
template <typename E = std::exception>
std::string messageOf(auto fn) {
   try {
      fn();
   } catch (const E& e) {
      return e.what();
   }
   return "<no exception>";
}

class AllocatorKindTest : public ::testing::TestWithParam<Kind> {};

INSTANTIATE_TEST_SUITE_P(Kinds, AllocatorKindTest,
                         ::testing::Values(Kind::firstFree, Kind::discont, Kind::anySized),
                         [](const auto& info) { return kindName(info.param); });

// Verify that a reserved index 0 is never handed out, whatever the calls, and is not
// "assigned" to anyone.
TEST_P(AllocatorKindTest, ReservedIndexZeroIsNeverHandedOut) {
   auto alloc = makeAllocator(GetParam(), 6);
   alloc->reserveIndices(0, 0);
   EXPECT_EQ(alloc->totalUsedIndices(), 1u) << "reserved indices count as used";
   std::set<Index> handedOut;
   for (std::uint32_t id = 1; id <= 5; ++id) handedOut.insert(newIndex(*alloc, id));
   EXPECT_EQ(handedOut, (std::set<Index>{1, 2, 3, 4, 5}));
   EXPECT_EQ(newIndex(*alloc, 6), invalidIndex);
   EXPECT_EQ(request(*alloc, 0, 7), Status::indexTaken);
   EXPECT_FALSE(recover(*alloc, 0, 7));
   EXPECT_FALSE(recoverBlock(*alloc, {0}, 7));
   EXPECT_TRUE(alloc->keyForIndex(0, smallType()).empty());
   alloc->markIndexAvailable(0, smallType());
   EXPECT_FALSE(alloc->isIndexFree(0)) << "a stale purge must not free a reserved index";
   EXPECT_EQ(alloc->totalUsedIndices(), 6u);
}

// ---- exhaustion at exactly full and one past full --------------------------------------

using ExhaustionCase = std::pair<Kind, std::uint32_t>;  // kind, block size
class ExhaustionTest : public ::testing::TestWithParam<ExhaustionCase> {};

INSTANTIATE_TEST_SUITE_P(
    KindsAndSizes, ExhaustionTest,
    ::testing::Values(ExhaustionCase{Kind::firstFree, 1}, ExhaustionCase{Kind::firstFree, 3},
                      ExhaustionCase{Kind::discont, 1}, ExhaustionCase{Kind::discont, 4},
                      ExhaustionCase{Kind::anySized, 1}, ExhaustionCase{Kind::anySized, 4},
                      ExhaustionCase{Kind::anySized, 70}),
    [](const auto& info) {
       return fmt::format("{}Block{}", kindName(info.param.first), info.param.second);
    });

// Verify that the allocator fills up exactly, that one more key gets nothing and changes
// nothing, and that freeing one key makes room for exactly one more.
TEST_P(ExhaustionTest, FullAndOnePastFull) {
   const auto [kind, size] = GetParam();
   const std::uint32_t keys = 6;
   auto alloc = makeAllocator(kind, keys * size + 1);
   alloc->reserveIndices(0, 0);
   std::set<Index> seen;
   for (std::uint32_t id = 0; id < keys; ++id) {
      std::vector<Index> block = newBlock(*alloc, id, size);
      ASSERT_EQ(block.size(), size) << "key #" << id << " did not get its block";
      for (Index index : block) EXPECT_TRUE(seen.insert(index).second) << "index " << index;
   }
   const GenericIndexAllocator::Occupancy full{keys * size + 1, 0, 0};
   EXPECT_EQ(alloc->occupancy(), full);

   EXPECT_TRUE(newBlock(*alloc, 100, size).empty());
   EXPECT_EQ(newIndex(*alloc, 101), invalidIndex);
   EXPECT_EQ(alloc->occupancy(), full) << "a failed allocation must change nothing";
   EXPECT_EQ(alloc->numKeys(), keys);
   EXPECT_TRUE(indicesOf(*alloc, 100).empty());

   std::vector<Index> freed = indicesOf(*alloc, 2);
   release(*alloc, 2);
   EXPECT_EQ(alloc->occupancy().free, size);
   std::vector<Index> again = newBlock(*alloc, 100, size);
   std::sort(freed.begin(), freed.end());
   std::sort(again.begin(), again.end());
   EXPECT_EQ(again, freed);
   EXPECT_EQ(alloc->occupancy(), full);
}

// ---- request and recover ----------------------------------------------------------------

// Verify each outcome of requestIndexForKey, and that a refused request changes nothing.
TEST(IndexAllocatorTest, RequestIndexOutcomes) {
   auto alloc = makeAllocator(Kind::discont, 10);
   alloc->reserveIndices(0, 0);
   EXPECT_EQ(request(*alloc, 10, 1), Status::outOfRange);
   EXPECT_EQ(request(*alloc, 5, 1), Status::assigned);
   EXPECT_EQ(request(*alloc, 5, 1), Status::alreadyOwned);
   EXPECT_EQ(request(*alloc, 6, 1), Status::keyHasOther);
   EXPECT_EQ(request(*alloc, 5, 2), Status::indexTaken);
   EXPECT_EQ(request(*alloc, 0, 2), Status::indexTaken);
   ASSERT_THAT(newBlock(*alloc, 3, 2), ElementsAre(1, 2));
   EXPECT_EQ(request(*alloc, 1, 3), Status::keyHasOther)
       << "a block key owns more than the one index it asks for";
   EXPECT_THAT(indicesOf(*alloc, 1), ElementsAre(5));
   EXPECT_TRUE(indicesOf(*alloc, 2).empty());
   EXPECT_EQ(alloc->totalUsedIndices(), 4u);
}

// An allocator numbers the tables that use its keys, 31 at once; tables beyond those are
// kept apart per key. Either way a key counts each table once, lives until its last table
// lets go, and a table's number comes free for another once no key counts the table.
TEST(IndexAllocatorTest, EveryTableSharingAKeyCountsWhateverItsNumber) {
   auto alloc = makeAllocator(Kind::firstFree, 64);
   std::array<int, 40> tables{};
   for (std::uint32_t t = 0; t < tables.size(); ++t) {
      ASSERT_EQ(newIndex(*alloc, t, &tables[t]), t) << "table " << t << "'s own key";
   }
   for (std::uint32_t t = 0; t < tables.size(); ++t) {
      ASSERT_EQ(newIndex(*alloc, 100, &tables[t]), 40u) << "table " << t << " shares key 100";
      ASSERT_EQ(request(*alloc, 40, 100, &tables[t]), Status::alreadyOwned) << "counted once";
   }
   for (std::uint32_t t = 0; t < tables.size(); ++t) {
      EXPECT_TRUE(alloc->isIndexUsedBy(t, smallType(), &tables[t])) << t;
      EXPECT_FALSE(alloc->isIndexUsedBy(t, smallType(), &tables[(t + 1) % tables.size()])) << t;
      EXPECT_TRUE(alloc->isIndexUsedBy(40, smallType(), &tables[t])) << t;
   }
   EXPECT_TRUE(alloc->isIndexVerticallyShared(40, smallType()));
   EXPECT_FALSE(alloc->isIndexVerticallyShared(35, smallType()));

   // Tables 0-4 go; five new tables take their indices and their numbers.
   for (std::uint32_t t = 0; t < 5; ++t) {
      release(*alloc, t, &tables[t]);
      release(*alloc, 100, &tables[t]);
      EXPECT_FALSE(alloc->isIndexUsedBy(40, smallType(), &tables[t])) << t;
   }
   std::array<int, 5> later{};
   for (std::uint32_t t = 0; t < later.size(); ++t) {
      EXPECT_EQ(newIndex(*alloc, 200 + t, &later[t]), t);
      EXPECT_TRUE(alloc->isIndexUsedBy(t, smallType(), &later[t]));
      EXPECT_FALSE(alloc->isIndexUsedBy(40, smallType(), &later[t]));
   }

   // Table 39, kept apart for key 100, gets a number for a new key: key 100 still counts it
   // once, and lets it go once.
   release(*alloc, 200, &later[0]);
   EXPECT_EQ(newIndex(*alloc, 300, &tables[39]), 0u);
   EXPECT_EQ(newIndex(*alloc, 100, &tables[39]), 40u);
   release(*alloc, 100, &tables[39]);
   EXPECT_FALSE(alloc->isIndexUsedBy(40, smallType(), &tables[39]));
   EXPECT_TRUE(alloc->isIndexUsedBy(0, smallType(), &tables[39]));

   for (std::uint32_t t = 5; t < 38; ++t) release(*alloc, 100, &tables[t]);
   EXPECT_FALSE(alloc->isIndexVerticallyShared(40, smallType()));
   release(*alloc, 100, &tables[38]);
   EXPECT_TRUE(alloc->isIndexFree(40)) << "key 100 goes with its last table";
   EXPECT_TRUE(indicesOf(*alloc, 100).empty());
}

// A hint is only a place to look first: a wrong, free, reserved, held or out-of-range hint
// gives the same answer as no hint, and a key of another type at the hint is not the key.
TEST(IndexAllocatorTest, HintedLookUpAnswersAsTheHashLookUp) {
   auto alloc = makeAllocator(Kind::firstFree, 8);
   alloc->reserveIndices(0, 0);
   ASSERT_EQ(newIndex(*alloc, 1), 1u);
   ASSERT_EQ(newIndex(*alloc, 2), 2u);
   ASSERT_TRUE(alloc->holdIndex(6));
   const WideKey wide{"three"};
   ASSERT_EQ(alloc->newIndexForKey(wideType(), &wide), 3u);
   const SmallKey one{1}, two{2}, absent{9}, three{3};
   for (Index hint :
        {Index{0}, Index{1}, Index{2}, Index{3}, Index{5}, Index{6}, Index{8}, invalidIndex}) {
      EXPECT_EQ(alloc->indexForKey(smallType(), &one, hint), 1u) << "hint " << hint;
      EXPECT_EQ(alloc->indexForKey(smallType(), &two, hint), 2u) << "hint " << hint;
      EXPECT_EQ(alloc->indexForKey(smallType(), &absent, hint), std::nullopt) << "hint " << hint;
      EXPECT_EQ(alloc->indexForKey(smallType(), &three, hint), std::nullopt) << "hint " << hint;
   }
}

// Verify that restart recovery never takes a used index, not even for the key that owns
// it, and binds only free indices to keys that own nothing.
TEST(IndexAllocatorTest, RecoverRefusesUsedIndices) {
   auto alloc = makeAllocator(Kind::firstFree, 8);
   alloc->reserveIndices(0, 0);
   ASSERT_TRUE(recover(*alloc, 4, 1));
   EXPECT_FALSE(recover(*alloc, 4, 1)) << "same key, same index";
   EXPECT_FALSE(recover(*alloc, 4, 2)) << "index owned by another key";
   EXPECT_FALSE(recover(*alloc, 5, 1)) << "key owns another index";
   EXPECT_FALSE(recover(*alloc, 8, 2)) << "out of range";
   EXPECT_FALSE(recover(*alloc, invalidIndex, 2));
   const SmallKey owner{1};
   EXPECT_EQ(alloc->indexForKey(smallType(), &owner), 4u);
   EXPECT_EQ(newIndex(*alloc, 2), 1u) << "the recovered index is no longer free";
   EXPECT_EQ(alloc->totalUsedIndices(), 3u);
}

// Verify that recovering a block binds all of its indices or none.
TEST(IndexAllocatorTest, RecoverBlockIsAllOrNothing) {
   auto alloc = makeAllocator(Kind::discont, 16);
   ASSERT_EQ(request(*alloc, 9, 1), Status::assigned);
   const auto before = alloc->occupancy();
   EXPECT_FALSE(recoverBlock(*alloc, {}, 2)) << "an empty list";
   EXPECT_FALSE(recoverBlock(*alloc, {3, 9, 11}, 2)) << "9 is taken";
   EXPECT_FALSE(recoverBlock(*alloc, {3, 3}, 2)) << "a duplicate";
   EXPECT_FALSE(recoverBlock(*alloc, {3, 16}, 2)) << "out of range";
   EXPECT_FALSE(recoverBlock(*alloc, {3}, 1)) << "the key owns an index already";
   EXPECT_EQ(alloc->occupancy(), before);
   EXPECT_TRUE(alloc->isIndexFree(3));

   ASSERT_TRUE(recoverBlock(*alloc, {11, 3, 7}, 2));
   EXPECT_THAT(indicesOf(*alloc, 2), ElementsAre(11, 3, 7)) << "kept in the order given";
   SmallKey key{2};
   EXPECT_EQ(alloc->getBlockSize(smallType(), &key), 3u);
   EXPECT_EQ(alloc->keyForIndex(7, smallType()), GenericValue::of(key));
}

// ---- stale purge -----------------------------------------------------------------------

// Verify that a stale purge frees an index whoever owns it: a single key is forgotten, a
// block key keeps its other indices.
TEST(IndexAllocatorTest, MarkIndexAvailable) {
   int tableA = 0, tableB = 0;
   auto alloc = makeAllocator(Kind::discont, 10);
   const Index single = newIndex(*alloc, 1, &tableA);
   newIndex(*alloc, 1, &tableB);
   ASSERT_THAT(newBlock(*alloc, 2, 3), ElementsAre(1, 2, 3));

   alloc->markIndexAvailable(single, wideType());
   EXPECT_TRUE(alloc->isIndexFree(single)) << "frees even when asked with another key type";
   EXPECT_TRUE(indicesOf(*alloc, 1).empty()) << "a key without indices is forgotten";

   alloc->markIndexAvailable(2, smallType());
   EXPECT_THAT(indicesOf(*alloc, 2), ElementsAre(1, 3));
   SmallKey block{2};
   EXPECT_EQ(alloc->getBlockSize(smallType(), &block), 2u);
   alloc->markIndexAvailable(2, smallType());  // already free
   EXPECT_EQ(alloc->totalUsedIndices(), 2u);

   EXPECT_THAT(messageOf<std::out_of_range>([&] { alloc->markIndexAvailable(10, smallType()); }),
               HasSubstr("cannot free index 10"));
   EXPECT_EQ(alloc->totalUsedIndices(), 2u);
}

// Verify that a held index (a stale hardware entry) is skipped by new allocations and
// requests, can be recovered by a key, and is freed by the purge, but never reserved ones.
TEST(IndexAllocatorTest, HeldIndicesWaitForRecoveryOrThePurge) {
   auto alloc = makeAllocator(Kind::discont, 8);
   alloc->reserveIndices(0, 0);
   ASSERT_TRUE(alloc->holdIndex(1));
   ASSERT_TRUE(alloc->holdIndex(2));
   EXPECT_FALSE(alloc->holdIndex(0)) << "reserved";
   EXPECT_FALSE(alloc->holdIndex(2)) << "already held";
   EXPECT_FALSE(alloc->isIndexFree(1));
   EXPECT_FALSE(alloc->isIndexAssigned(1, smallType()));
   EXPECT_THAT(newBlock(*alloc, 1, 2), ElementsAre(3, 4)) << "held indices are skipped";
   EXPECT_EQ(request(*alloc, 1, 2), Status::indexTaken);

   ASSERT_TRUE(recoverBlock(*alloc, {2}, 3)) << "a restart may bind a held index";
   EXPECT_FALSE(alloc->isIndexHeld(2));
   alloc->markIndexAvailable(1, smallType());
   EXPECT_TRUE(alloc->isIndexFree(1));
   EXPECT_FALSE(alloc->holdIndex(9)) << "out of range";
}

// ---- blocks -------------------------------------------------------------------------------

// Verify that a discontiguous block takes the n lowest free indices, across words.
TEST(IndexAllocatorTest, DiscontBlockTakesLowestFreeIndices) {
   auto alloc = makeAllocator(Kind::discont, 200);
   alloc->reserveIndices(0, 0);
   for (std::uint32_t id = 1; id < 140; ++id) ASSERT_EQ(newIndex(*alloc, id), id);
   for (std::uint32_t id : {3u, 5u, 63u, 64u, 130u}) release(*alloc, id);
   EXPECT_THAT(newBlock(*alloc, 500, 4), ElementsAre(3, 5, 63, 64));
   EXPECT_THAT(newBlock(*alloc, 501, 3), ElementsAre(130, 140, 141));
   EXPECT_THAT(newBlock(*alloc, 500, 9), ElementsAre(3, 5, 63, 64)) << "existing block back";
   EXPECT_THAT(messageOf<std::invalid_argument>([&] { newBlock(*alloc, 502, 0); }),
               HasSubstr("block size 0"));
}

// Runs of n consecutive free indices on a fragmented space: earlier holes one short of n,
// the first fitting hole crossing a word boundary.
class RunTest : public ::testing::TestWithParam<std::uint32_t> {};

INSTANTIATE_TEST_SUITE_P(Lengths, RunTest, ::testing::Values(2u, 5u, 64u, 65u, 200u));

// Verify that the lowest run that fits is taken, not the first hole nor the largest one.
TEST_P(RunTest, LowestFittingRunOnFragmentedSpace) {
   const std::uint32_t n = GetParam();
   // Lowest start past the short hole whose run crosses a word boundary.
   std::uint32_t boundary = 64;
   while (boundary < n + 2 + n / 2) boundary += 64;
   const Index start = boundary - n / 2;
   const std::uint32_t entries = start + 3 * n + 130;
   auto alloc = makeAllocator(Kind::anySized, entries);
   alloc->reserveIndices(0, 0);
   for (Index i = 1; i < entries; ++i) ASSERT_EQ(newIndex(*alloc, i), i);
   for (Index i = 1; i < n; ++i) release(*alloc, i);                    // one short of n
   for (Index i = start; i < start + n; ++i) release(*alloc, i);        // fits exactly
   for (Index i = start + n + 1; i < entries; ++i) release(*alloc, i);  // larger, later
   const Index tailRun = entries - (start + n + 1);
   EXPECT_EQ(alloc->occupancy().largestFreeRun, tailRun);

   auto* runs = static_cast<AnySizedBlockAllocator*>(alloc.get());
   SmallKey key{100000};
   EXPECT_EQ(runs->newIndexForBlock(smallType(), &key, n), start);
   std::vector<Index> expected(n);
   for (std::uint32_t o = 0; o < n; ++o) expected[o] = start + o;
   EXPECT_EQ(indicesOf(*alloc, 100000), expected);
   EXPECT_EQ(runs->newIndexForBlock(smallType(), &key, 1), start) << "existing base back";
   EXPECT_EQ(newBlock(*alloc, 100001, n).front(), start + n + 1);
}

// ---- set-up ---------------------------------------------------------------------------

// Verify that growing keeps every assignment and that a refused shrink or reservation
// names the culprit and changes nothing.
TEST(IndexAllocatorTest, ResizeAndReserveErrors) {
   auto alloc = makeAllocator(Kind::firstFree, 4);
   alloc->reserveIndices(0, 0);
   for (std::uint32_t id = 1; id <= 3; ++id) newIndex(*alloc, id);
   alloc->numEntriesIs(100);
   EXPECT_THAT(indicesOf(*alloc, 3), ElementsAre(3));
   EXPECT_EQ(newIndex(*alloc, 4), 4u);

   EXPECT_THAT(messageOf<std::invalid_argument>([&] { alloc->numEntriesIs(4); }),
               HasSubstr("cannot shrink to 4 entries: index 4 is assigned to key SmallKey(4)"));
   EXPECT_EQ(alloc->numEntries(), 100u);
   EXPECT_EQ(alloc->occupancy(), (GenericIndexAllocator::Occupancy{5, 95, 95}));

   EXPECT_THAT(messageOf<std::invalid_argument>([&] { alloc->reserveIndices(7, 6); }),
               HasSubstr("cannot reserve indices 7 to 6: first is after last"));
   EXPECT_THROW(alloc->reserveIndices(90, 100), std::out_of_range);
   EXPECT_THAT(messageOf<std::invalid_argument>([&] { alloc->reserveIndices(2, 9); }),
               HasSubstr("cannot reserve index 2: it is assigned to key SmallKey(2)"));
   EXPECT_TRUE(alloc->isIndexFree(9)) << "a refused reservation reserves nothing";

   alloc->reserveIndices(50, 99);
   alloc->numEntriesIs(60);
   EXPECT_EQ(alloc->totalUsedIndices(), 15u) << "reserved indices past the end are dropped";
}

// ---- shared-allocator factory -----------------------------------------------------------

using Stub = GenericIndexAllocatorStub;

Ptr<GenericIndexAllocator> firstFreeFactory(std::string name) {
   return makePtr<FirstFreeIndexAllocator>(std::move(name));
}
Ptr<GenericIndexAllocator> discontFactory(std::string name) {
   return makePtr<DiscontBlockAllocator>(std::move(name));
}

// Verify that tables asking for one allocator type share one allocator, which the factory
// drops after the last table lets go.
TEST(GenericIndexAllocatorStubTest, SharesPerTypeUntilLastTable) {
   constexpr std::string_view type = "Test::SharedFirstFree";
   Stub::allocatorFactoryIs(type, &firstFreeFactory);
   int tableA = 0, tableB = 0;
   const std::size_t live = Stub::sharedAllocators();

   Ptr<GenericIndexAllocator> a = Stub::createSharedAllocator(type, "A", &tableA);
   ASSERT_NE(a, nullptr);
   EXPECT_EQ(a->name(), "Test::SharedFirstFree shared");
   EXPECT_EQ(Stub::createSharedAllocator(type, "A", &tableA), a);
   EXPECT_EQ(Stub::createSharedAllocator(type, "B", &tableB), a);
   EXPECT_EQ(Stub::sharedAllocators(), live + 1);

   Stub::freeSharedAllocator(type, "A", &tableA);
   EXPECT_EQ(Stub::sharedAllocator(type), a) << "B still uses it";
   Stub::freeSharedAllocator(type, "B", &tableB);
   EXPECT_EQ(Stub::sharedAllocator(type), nullptr);
   EXPECT_EQ(a->refCount(), 1u) << "the factory must drop its reference";
   EXPECT_EQ(Stub::sharedAllocators(), live);

   Ptr<GenericIndexAllocator> next = Stub::createSharedAllocator(type, "A", &tableA);
   EXPECT_NE(next, a) << "a new one after the last was freed";
   Stub::freeSharedAllocator(type, "A", &tableA);
}

// Verify the refusals: null table, unknown type, a second factory under a taken name.
TEST(GenericIndexAllocatorStubTest, Refusals) {
   constexpr std::string_view type = "Test::SharedDiscont";
   Stub::allocatorFactoryIs(type, &discontFactory);
   Stub::allocatorFactoryIs(type, &discontFactory);  // idempotent
   int table = 0;
   EXPECT_EQ(Stub::createSharedAllocator(type, "T", nullptr), nullptr);
   EXPECT_EQ(Stub::createSharedAllocator("Test::Unknown", "T", &table), nullptr);
   EXPECT_EQ(Stub::sharedAllocator(type), nullptr);
   EXPECT_THAT(
       messageOf<std::logic_error>([&] { Stub::allocatorFactoryIs(type, &firstFreeFactory); }),
       HasSubstr("'Test::SharedDiscont' is already registered"));
   Stub::freeSharedAllocator("Test::Unknown", "T", &table);  // no-op
   auto made = Stub::createSharedAllocator(type, "T", &table);
   ASSERT_NE(made, nullptr);
   EXPECT_EQ(made->allocatorTypeName(), DiscontBlockAllocator::kTypeName);
   Stub::freeSharedAllocator(type, "T", &table);
}

// ---- differential test against a plain model ------------------------------------------

// The allocator's contract written as plainly as possible: linear scans over ordered
// containers.
class Model {
 public:
   struct Key {
      int type;
      std::uint32_t id;
      auto operator<=>(const Key&) const = default;
   };
   struct Record {
      std::vector<Index> indices;
      std::set<const void*> users;
   };

   Model(Kind kind, std::uint32_t entries, const void* table)
       : kind_(kind), entries_(entries), table_(table) {}

   std::uint32_t entries() const { return entries_; }
   bool isFree(Index i) const { return i < entries_ && !taken_.contains(i); }
   const Record* record(Key key) const {
      auto it = keys_.find(key);
      return it == keys_.end() ? nullptr : &it->second;
   }
   Record* record(Key key) { return const_cast<Record*>(std::as_const(*this).record(key)); }
   std::optional<Key> ownerOf(Index i) const {
      auto it = taken_.find(i);
      return it == taken_.end() ? std::nullopt : it->second;
   }
   GenericIndexAllocator::Occupancy occupancy() const {
      const auto used = static_cast<std::uint32_t>(taken_.size());
      std::uint32_t longest = 0;
      Index gapStart = 0;
      for (const auto& [i, owner] : taken_) {
         longest = std::max(longest, i - gapStart);
         gapStart = i + 1;
      }
      return {used, entries_ - used, std::max(longest, entries_ - gapStart)};
   }

   std::vector<Index> newIndices(Key key, std::uint32_t count, const void* user) {
      if (Record* rec = record(key)) {
         rec->users.insert(userOf(user));
         return rec->indices;
      }
      std::vector<Index> picked;
      for (Index i = 0; i < entries_ && picked.size() < count; ++i) {
         if (isFree(i)) {
            picked.push_back(i);
         } else if (kind_ == Kind::anySized) {
            picked.clear();  // a run must be consecutive
         }
      }
      if (picked.size() != count) return {};
      bind(key, picked, user);
      return picked;
   }
   Index newIndex(Key key, const void* user) {
      std::vector<Index> picked = newIndices(key, 1, user);
      return picked.empty() ? invalidIndex : picked.front();
   }
   Status request(Index i, Key key, const void* user) {
      if (i >= entries_) return Status::outOfRange;
      if (Record* rec = record(key)) {
         if (rec->indices != std::vector<Index>{i}) return Status::keyHasOther;
         rec->users.insert(userOf(user));
         return Status::alreadyOwned;
      }
      if (!isFree(i)) return Status::indexTaken;
      bind(key, {i}, user);
      return Status::assigned;
   }
   bool recover(const std::vector<Index>& indices, Key key, const void* user) {
      const std::set<Index> distinct(indices.begin(), indices.end());
      if (indices.empty() || keys_.contains(key) || distinct.size() != indices.size()) return false;
      for (Index i : indices) {
         if (!isFree(i)) return false;
      }
      bind(key, indices, user);
      return true;
   }
   void release(Key key, const void* table) {
      Record* rec = record(key);
      if (!rec || !rec->users.erase(userOf(table)) || !rec->users.empty()) return;
      for (Index i : rec->indices) taken_.erase(i);
      keys_.erase(key);
   }
   // False when the call must throw.
   bool markAvailable(Index i) {
      if (i >= entries_) return false;
      auto owner = ownerOf(i);
      if (!owner) return true;  // free or reserved: nothing to do
      std::vector<Index>& indices = keys_[*owner].indices;
      indices.erase(std::find(indices.begin(), indices.end(), i));
      taken_.erase(i);
      if (indices.empty()) keys_.erase(*owner);
      return true;
   }
   bool reserve(Index first, Index last) {
      if (first > last || last >= entries_) return false;
      for (Index i = first; i <= last; ++i) {
         if (ownerOf(i)) return false;
      }
      for (Index i = first; i <= last; ++i) taken_.emplace(i, std::nullopt);
      return true;
   }
   bool resize(std::uint32_t entries) {
      for (auto it = taken_.lower_bound(entries); it != taken_.end(); ++it) {
         if (it->second) return false;
      }
      taken_.erase(taken_.lower_bound(entries), taken_.end());
      entries_ = entries;
      return true;
   }

 private:
   const void* userOf(const void* user) const { return user ? user : table_; }
   void bind(Key key, const std::vector<Index>& indices, const void* user) {
      keys_[key] = Record{indices, {userOf(user)}};
      for (Index i : indices) taken_[i] = key;
   }

   Kind kind_;
   std::uint32_t entries_;
   const void* table_;
   std::map<Key, Record> keys_;
   std::map<Index, std::optional<Key>> taken_;  // owner of each used index; none: reserved
};

using DifferentialCase = std::pair<Kind, std::uint32_t>;  // kind, entries

class DifferentialTest : public ::testing::TestWithParam<DifferentialCase> {
 protected:
   // A key of either type, kept alive for the call.
   struct AnyKey {
      explicit AnyKey(Model::Key k)
          : key(k), small{k.id}, wide{fmt::format("wide key number {:08}", k.id), {k.id, 0}} {}
      const TypeDescriptor& type() const { return key.type == 0 ? smallType() : wideType(); }
      const void* value() const {
         return key.type == 0 ? static_cast<const void*>(&small) : static_cast<const void*>(&wide);
      }
      GenericValue generic() const { return GenericValue(type(), value()); }
      Model::Key key;
      SmallKey small;
      WideKey wide;
   };

   // Every per-index answer agrees with the model, for keys of either type.
   static void checkIndex(const GenericIndexAllocator& alloc, const Model& model, Index i) {
      auto owner = model.ownerOf(i);
      for (int type = 0; type < 2; ++type) {
         const TypeDescriptor& desc = type == 0 ? smallType() : wideType();
         const bool owned = owner && owner->type == type;
         EXPECT_EQ(alloc.isIndexAssigned(i, desc), owned) << "index " << i;
         const GenericValue expected = owned ? AnyKey(*owner).generic() : GenericValue();
         EXPECT_EQ(alloc.keyForIndex(i, desc), expected) << "index " << i;
         const bool shared = owned && model.record(*owner)->users.size() > 1;
         EXPECT_EQ(alloc.isIndexVerticallyShared(i, desc), shared) << "index " << i;
      }
      EXPECT_EQ(alloc.isIndexFree(i), model.isFree(i)) << "index " << i;
   }
   static void checkKey(const GenericIndexAllocator& alloc, const Model& model, const AnyKey& key) {
      const Model::Record* rec = model.record(key.key);
      std::vector<Index> expected = rec ? rec->indices : std::vector<Index>{};
      EXPECT_EQ(alloc.indicesForKey(key.type(), key.value()), expected);
      EXPECT_EQ(alloc.getBlockSize(key.type(), key.value()), expected.size());
   }
};

INSTANTIATE_TEST_SUITE_P(
    KindsAndSizes, DifferentialTest,
    ::testing::Values(DifferentialCase{Kind::firstFree, 150}, DifferentialCase{Kind::discont, 150},
                      DifferentialCase{Kind::anySized, 150}, DifferentialCase{Kind::discont, 400},
                      DifferentialCase{Kind::anySized, 400}),
    [](const auto& info) {
       return fmt::format("{}{}", kindName(info.param.first), info.param.second);
    });

// Verify that thousands of random calls across the whole interface give the same answers
// as the model at every step.
TEST_P(DifferentialTest, MatchesModel) {
   const auto [kind, entries] = GetParam();
   int tables[3] = {};
   const void* users[4] = {nullptr, &tables[0], &tables[1], &tables[2]};
   auto alloc = makeAllocator(kind, entries);
   alloc->setTableAttr(&tables[0], "indexAllocator");
   alloc->reserveIndices(0, 0);
   Model model(kind, entries, &tables[0]);
   ASSERT_TRUE(model.reserve(0, 0));

   std::mt19937 rng(20240611);
   auto uniform = [&](std::uint32_t lo, std::uint32_t hi) {
      return std::uniform_int_distribution<std::uint32_t>(lo, hi)(rng);
   };
   const std::uint32_t keySpace = entries / 2;  // two key types: up to `entries` keys
   const std::uint32_t maxBlock = kind == Kind::anySized ? 12 : 6;

   for (int op = 0; op < 4000; ++op) {
      AnyKey key(Model::Key{static_cast<int>(uniform(0, 1)), uniform(0, keySpace)});
      const void* user = users[uniform(0, 3)];
      const std::uint32_t n = model.entries();
      const Index index = uniform(0, n + 1);
      const Index last = index + uniform(0, 2) - 1;  // wraps below 0: first after last
      const std::uint32_t size = uniform(1, maxBlock);
      const std::uint32_t resizeTo = uniform(entries - 20, entries + 20);
      std::vector<Index> list(uniform(0, 4));
      for (Index& i : list) i = uniform(0, n);
      // Alternate filling and draining phases so the run sees both an empty-ish and a
      // full, fragmented space. Draining releases keys that exist, for one of their tables.
      const bool draining = (op / entries) % 3 == 2 && uniform(0, 2) != 0;
      if (auto owner = draining ? model.ownerOf(uniform(0, n - 1)) : std::nullopt) {
         key = AnyKey(*owner);
         user = *model.record(*owner)->users.begin();
      }
      const std::uint32_t call = draining ? 7 : uniform(0, 10);
      SCOPED_TRACE(fmt::format("op {}: call {}, index {}..{}, size {}, resize {}, list {}", op,
                               call, index, last, size, resizeTo, fmt::join(list, ",")));
      const TypeDescriptor& type = key.type();
      const void* value = key.value();
      switch (call) {
         case 0:
         case 1:
            EXPECT_EQ(alloc->newIndexForKey(type, value, user), model.newIndex(key.key, user));
            break;
         case 2:
         case 3:
            EXPECT_EQ(alloc->newIndicesForKey(type, value, size, user),
                      model.newIndices(key.key, size, user));
            break;
         case 4:
            EXPECT_EQ(alloc->requestIndexForKey(index, type, value, user),
                      model.request(index, key.key, user));
            break;
         case 5:
            EXPECT_EQ(alloc->recoverIndexForKey(index, type, value, user),
                      model.recover({index}, key.key, user));
            break;
         case 6:
            EXPECT_EQ(alloc->recoverIndicesForKey(list, type, value, user),
                      model.recover(list, key.key, user));
            break;
         case 7:
         case 8:
            model.release(key.key, user);
            alloc->releaseIndexFromTable(type, value, user);
            break;
         case 9:
            if (model.markAvailable(index)) {
               alloc->markIndexAvailable(index, type);
            } else {
               EXPECT_THROW(alloc->markIndexAvailable(index, type), std::out_of_range);
            }
            break;
         case 10:  // set-up calls
            if (uniform(0, 3) != 0) {
               if (model.reserve(index, last)) {
                  alloc->reserveIndices(index, last);
               } else {
                  EXPECT_ANY_THROW(alloc->reserveIndices(index, last));
               }
            } else if (model.resize(resizeTo)) {
               alloc->numEntriesIs(resizeTo);
            } else {
               EXPECT_THROW(alloc->numEntriesIs(resizeTo), std::invalid_argument);
            }
            break;
      }
      checkKey(*alloc, model, key);
      checkIndex(*alloc, model, index);
      EXPECT_EQ(alloc->occupancy(), model.occupancy());
      if (op % 250 == 0 || HasFailure()) {
         for (Index i = 0; i < model.entries(); ++i) checkIndex(*alloc, model, i);
      }
      ASSERT_FALSE(HasFailure());
   }
   EXPECT_GT(alloc->numKeys(), 0u) << "the run should end with keys still allocated";
}

}  // namespace
}  // namespace Asic
