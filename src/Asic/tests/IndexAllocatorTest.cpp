#include "Asic/IndexAllocator.h"

#include <algorithm>
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
   switch (kind) {
      case Kind::firstFree:
         return "FirstFree";
      case Kind::discont:
         return "Discont";
      case Kind::anySized:
         return "AnySized";
   }
   return "?";
}

Ptr<GenericIndexAllocator> makeAllocator(Kind kind, std::uint32_t entries) {
   Ptr<GenericIndexAllocator> alloc;
   switch (kind) {
      case Kind::firstFree:
         alloc = makePtr<FirstFreeIndexAllocator>("test");
         break;
      case Kind::discont:
         alloc = makePtr<DiscontBlockAllocator>("test");
         break;
      case Kind::anySized:
         alloc = makePtr<AnySizedBlockAllocator>("test");
         break;
   }
   alloc->numEntriesIs(entries);
   return alloc;
}

const TypeDescriptor& smallType() { return vixType<SmallKey>(); }
const TypeDescriptor& wideType() { return vixType<WideKey>(); }

// Short spellings of the calls with a SmallKey.
Index newIndex(GenericIndexAllocator& a, std::uint32_t id, const void* user = nullptr) {
   SmallKey key{id};
   return a.newIndexForKey(smallType(), &key, user);
}
std::vector<Index> newBlock(GenericIndexAllocator& a, std::uint32_t id, std::uint32_t size,
                            const void* user = nullptr) {
   SmallKey key{id};
   return a.newIndicesForKey(smallType(), &key, size, user);
}
Status request(GenericIndexAllocator& a, Index index, std::uint32_t id,
               const void* user = nullptr) {
   SmallKey key{id};
   return a.requestIndexForKey(index, smallType(), &key, user);
}
bool recover(GenericIndexAllocator& a, Index index, std::uint32_t id) {
   SmallKey key{id};
   return a.recoverIndexForKey(index, smallType(), &key);
}
bool recoverBlock(GenericIndexAllocator& a, const std::vector<Index>& indices, std::uint32_t id) {
   SmallKey key{id};
   return a.recoverIndicesForKey(indices, smallType(), &key);
}
void release(GenericIndexAllocator& a, std::uint32_t id, const void* table = nullptr) {
   SmallKey key{id};
   a.releaseIndexFromTable(smallType(), &key, table);
}
std::vector<Index> indicesOf(const GenericIndexAllocator& a, std::uint32_t id) {
   SmallKey key{id};
   return a.indicesForKey(smallType(), &key);
}

std::string messageOf(auto fn) {
   try {
      fn();
   } catch (const std::exception& e) {
      return e.what();
   }
   return "<no exception>";
}

class AllocatorKindTest : public ::testing::TestWithParam<Kind> {};

INSTANTIATE_TEST_SUITE_P(Kinds, AllocatorKindTest,
                         ::testing::Values(Kind::firstFree, Kind::discont, Kind::anySized),
                         [](const auto& info) { return kindName(info.param); });

// Verify that single indices go lowest first, that a key gets its own index back, and that
// a freed index is the next one handed out.
TEST_P(AllocatorKindTest, SingleIndexIsLowestFreeAndStablePerKey) {
   auto alloc = makeAllocator(GetParam(), 8);
   EXPECT_EQ(newIndex(*alloc, 1), 0u);
   EXPECT_EQ(newIndex(*alloc, 2), 1u);
   EXPECT_EQ(newIndex(*alloc, 3), 2u);
   EXPECT_EQ(newIndex(*alloc, 2), 1u) << "a key that has an index must get it back";
   EXPECT_EQ(alloc->numKeys(), 3u);
   release(*alloc, 1);
   EXPECT_TRUE(alloc->isIndexFree(0));
   EXPECT_EQ(newIndex(*alloc, 4), 0u);
   EXPECT_EQ(alloc->totalUsedIndices(), 3u);
}

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
   EXPECT_FALSE(alloc->isIndexAssigned(0, smallType()));
   EXPECT_TRUE(alloc->keyForIndex(0, smallType()).empty());
   alloc->markIndexAvailable(0, smallType());
   EXPECT_FALSE(alloc->isIndexFree(0)) << "a stale purge must not free a reserved index";
   EXPECT_EQ(alloc->totalUsedIndices(), 6u);
}

// Verify that reserving a range that is already partly reserved only adds the rest.
TEST_P(AllocatorKindTest, ReservingTwiceCountsOnce) {
   auto alloc = makeAllocator(GetParam(), 10);
   alloc->reserveIndices(2, 4);
   alloc->reserveIndices(3, 6);
   EXPECT_EQ(alloc->totalUsedIndices(), 5u);
   EXPECT_EQ(alloc->occupancy(), (GenericIndexAllocator::Occupancy{5, 5, 3}));
}

// ---- exhaustion at exactly full and one past full --------------------------------------

struct ExhaustionCase {
   Kind kind;
   std::uint32_t blockSize;
};

class ExhaustionTest : public ::testing::TestWithParam<ExhaustionCase> {};

INSTANTIATE_TEST_SUITE_P(
    KindsAndSizes, ExhaustionTest,
    ::testing::Values(ExhaustionCase{Kind::firstFree, 1}, ExhaustionCase{Kind::firstFree, 3},
                      ExhaustionCase{Kind::discont, 1}, ExhaustionCase{Kind::discont, 4},
                      ExhaustionCase{Kind::anySized, 1}, ExhaustionCase{Kind::anySized, 4},
                      ExhaustionCase{Kind::anySized, 70}),
    [](const auto& info) {
       return fmt::format("{}Block{}", kindName(info.param.kind), info.param.blockSize);
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

// ---- vertical sharing and release ------------------------------------------------------

// Verify that two tables share one key's index, that it stays assigned until the last of
// them lets go, and that one table counts once however often it asks.
TEST(IndexAllocatorTest, VerticalSharingKeepsIndexUntilLastTable) {
   int tableA = 0, tableB = 0;
   auto alloc = makeAllocator(Kind::firstFree, 4);
   alloc->setTableAttr(&tableA, "indexAllocator");
   EXPECT_EQ(alloc->table(), &tableA);
   EXPECT_EQ(alloc->tableAttribute(), "indexAllocator");
   const Index index = newIndex(*alloc, 1, &tableA);
   EXPECT_EQ(newIndex(*alloc, 1), index) << "null user is the allocator's own table";
   EXPECT_FALSE(alloc->isIndexVerticallyShared(index, smallType()));
   EXPECT_EQ(request(*alloc, index, 1, &tableB), Status::alreadyOwned);
   EXPECT_TRUE(alloc->isIndexVerticallyShared(index, smallType()));

   release(*alloc, 1, &tableA);
   EXPECT_TRUE(alloc->isIndexAssigned(index, smallType()));
   EXPECT_FALSE(alloc->isIndexVerticallyShared(index, smallType()));
   release(*alloc, 1, &tableA);
   EXPECT_TRUE(alloc->isIndexAssigned(index, smallType())) << "A already let go";

   release(*alloc, 1, &tableB);
   EXPECT_FALSE(alloc->isIndexAssigned(index, smallType()));
   EXPECT_TRUE(alloc->isIndexFree(index));
   EXPECT_EQ(alloc->numKeys(), 0u);
   release(*alloc, 1, &tableB);  // an unknown key: nothing to do
   EXPECT_EQ(alloc->totalUsedIndices(), 0u);
}

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

   EXPECT_THAT(messageOf([&] { alloc->markIndexAvailable(10, smallType()); }),
               HasSubstr("cannot free index 10"));
   EXPECT_EQ(alloc->totalUsedIndices(), 2u);
}

// Verify that reverse look-ups answer only for keys of the asked type, and that keys of
// two types with equal contents stay distinct (including keys kept on the heap).
TEST(IndexAllocatorTest, KeyForIndexIsPerType) {
   auto alloc = makeAllocator(Kind::firstFree, 4);
   const SmallKey small{7};
   const WideKey wide{"a name long enough to leave the small-string buffer", {1, 2}};
   const Index smallIndex = alloc->newIndexForKey(smallType(), &small);
   const Index wideIndex = alloc->newIndexForKey(wideType(), &wide);
   ASSERT_NE(smallIndex, wideIndex);

   EXPECT_EQ(alloc->keyForIndex(smallIndex, smallType()), GenericValue::of(small));
   EXPECT_TRUE(alloc->keyForIndex(smallIndex, wideType()).empty());
   EXPECT_FALSE(alloc->isIndexAssigned(smallIndex, wideType()));
   GenericValue back = alloc->keyForIndex(wideIndex, wideType());
   ASSERT_NE(back.get<WideKey>(), nullptr);
   EXPECT_EQ(back.get<WideKey>()->name, wide.name);
   EXPECT_TRUE(alloc->keyForIndex(3, smallType()).empty()) << "a free index";
   EXPECT_TRUE(alloc->keyForIndex(99, smallType()).empty()) << "out of range";

   const WideKey copy = wide;
   EXPECT_EQ(alloc->indexForKey(wideType(), &copy), wideIndex) << "found by value";
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
   EXPECT_THAT(messageOf([&] { newBlock(*alloc, 502, 0); }), HasSubstr("block size 0"));
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

// Verify that enough free indices without a long enough run give nothing and change
// nothing.
TEST(IndexAllocatorTest, RunNeedsConsecutiveIndices) {
   auto alloc = makeAllocator(Kind::anySized, 300);
   for (Index i = 0; i < 300; ++i) ASSERT_EQ(newIndex(*alloc, i), i);
   for (Index i = 0; i < 300; i += 2) release(*alloc, i);
   const auto before = alloc->occupancy();
   EXPECT_EQ(before, (GenericIndexAllocator::Occupancy{150, 150, 1}));
   EXPECT_TRUE(newBlock(*alloc, 1000, 2).empty());
   EXPECT_EQ(alloc->occupancy(), before);
   release(*alloc, 127);
   EXPECT_THAT(newBlock(*alloc, 1000, 3), ElementsAre(126, 127, 128));
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

   EXPECT_THAT(messageOf([&] { alloc->numEntriesIs(4); }),
               HasSubstr("cannot shrink to 4 entries: index 4 is assigned to key SmallKey(4)"));
   EXPECT_EQ(alloc->numEntries(), 100u);
   EXPECT_EQ(alloc->occupancy(), (GenericIndexAllocator::Occupancy{5, 95, 95}));

   EXPECT_THAT(messageOf([&] { alloc->reserveIndices(7, 6); }),
               HasSubstr("cannot reserve indices 7 to 6: first is after last"));
   EXPECT_THROW(alloc->reserveIndices(7, 6), std::invalid_argument);
   EXPECT_THROW(alloc->reserveIndices(90, 100), std::out_of_range);
   EXPECT_THAT(messageOf([&] { alloc->reserveIndices(2, 9); }),
               HasSubstr("cannot reserve index 2: it is assigned to key SmallKey(2)"));
   EXPECT_TRUE(alloc->isIndexFree(9)) << "a refused reservation reserves nothing";

   alloc->reserveIndices(50, 99);
   alloc->numEntriesIs(60);
   EXPECT_EQ(alloc->totalUsedIndices(), 15u) << "reserved indices past the end are dropped";
}

// ---- shared-allocator factory -----------------------------------------------------------

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
   GenericIndexAllocatorStub::allocatorFactoryIs(type, &firstFreeFactory);
   int tableA = 0, tableB = 0;
   const std::size_t live = GenericIndexAllocatorStub::sharedAllocators();

   Ptr<GenericIndexAllocator> a =
       GenericIndexAllocatorStub::createSharedAllocator(type, "A", &tableA);
   ASSERT_NE(a, nullptr);
   EXPECT_EQ(a->name(), "Test::SharedFirstFree shared");
   EXPECT_EQ(GenericIndexAllocatorStub::createSharedAllocator(type, "A", &tableA), a);
   EXPECT_EQ(GenericIndexAllocatorStub::createSharedAllocator(type, "B", &tableB), a);
   EXPECT_EQ(GenericIndexAllocatorStub::sharedAllocators(), live + 1);

   GenericIndexAllocatorStub::freeSharedAllocator(type, "A", &tableA);
   EXPECT_EQ(GenericIndexAllocatorStub::sharedAllocator(type), a) << "B still uses it";
   GenericIndexAllocatorStub::freeSharedAllocator(type, "B", &tableB);
   EXPECT_EQ(GenericIndexAllocatorStub::sharedAllocator(type), nullptr);
   EXPECT_EQ(a->refCount(), 1u) << "the factory must drop its reference";
   EXPECT_EQ(GenericIndexAllocatorStub::sharedAllocators(), live);

   Ptr<GenericIndexAllocator> next =
       GenericIndexAllocatorStub::createSharedAllocator(type, "A", &tableA);
   EXPECT_NE(next, a) << "a new one after the last was freed";
   GenericIndexAllocatorStub::freeSharedAllocator(type, "A", &tableA);
}

// Verify the refusals: null table, unknown type, a second factory under a taken name.
TEST(GenericIndexAllocatorStubTest, Refusals) {
   constexpr std::string_view type = "Test::SharedDiscont";
   GenericIndexAllocatorStub::allocatorFactoryIs(type, &discontFactory);
   GenericIndexAllocatorStub::allocatorFactoryIs(type, &discontFactory);  // idempotent
   int table = 0;
   EXPECT_EQ(GenericIndexAllocatorStub::createSharedAllocator(type, "T", nullptr), nullptr);
   EXPECT_EQ(GenericIndexAllocatorStub::createSharedAllocator("Test::Unknown", "T", &table),
             nullptr);
   EXPECT_EQ(GenericIndexAllocatorStub::sharedAllocator(type), nullptr);
   EXPECT_THAT(
       messageOf([&] { GenericIndexAllocatorStub::allocatorFactoryIs(type, &firstFreeFactory); }),
       HasSubstr("'Test::SharedDiscont' is already registered"));
   GenericIndexAllocatorStub::freeSharedAllocator("Test::Unknown", "T", &table);  // no-op
   auto made = GenericIndexAllocatorStub::createSharedAllocator(type, "T", &table);
   ASSERT_NE(made, nullptr);
   EXPECT_EQ(made->allocatorTypeName(), DiscontBlockAllocator::kTypeName);
   GenericIndexAllocatorStub::freeSharedAllocator(type, "T", &table);
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
   bool isFree(Index i) const {
      return i < entries_ && !owner_.contains(i) && !reserved_.contains(i);
   }
   const Record* record(Key key) const {
      auto it = keys_.find(key);
      return it == keys_.end() ? nullptr : &it->second;
   }
   std::optional<Key> ownerOf(Index i) const {
      auto it = owner_.find(i);
      return it == owner_.end() ? std::nullopt : std::optional<Key>(it->second);
   }
   GenericIndexAllocator::Occupancy occupancy() const {
      std::vector<unsigned char> used(entries_, 0);
      for (const auto& [i, key] : owner_) used[i] = 1;
      for (Index i : reserved_) used[i] = 1;
      std::uint32_t free = 0, run = 0, longest = 0;
      for (Index i = 0; i < entries_; ++i) {
         run = used[i] ? 0 : run + 1;
         free += !used[i];
         longest = std::max(longest, run);
      }
      return {entries_ - free, free, longest};
   }

   std::vector<Index> newIndices(Key key, std::uint32_t count, const void* user) {
      if (auto it = keys_.find(key); it != keys_.end()) {
         it->second.users.insert(userOf(user));
         return it->second.indices;
      }
      std::vector<Index> picked = pick(count);
      if (!picked.empty()) bind(key, picked, user);
      return picked;
   }
   Status request(Index i, Key key, const void* user) {
      if (i >= entries_) return Status::outOfRange;
      if (auto it = keys_.find(key); it != keys_.end()) {
         if (it->second.indices != std::vector<Index>{i}) return Status::keyHasOther;
         it->second.users.insert(userOf(user));
         return Status::alreadyOwned;
      }
      if (!isFree(i)) return Status::indexTaken;
      bind(key, {i}, user);
      return Status::assigned;
   }
   bool recover(const std::vector<Index>& indices, Key key, const void* user) {
      if (indices.empty() || keys_.contains(key)) return false;
      std::set<Index> distinct(indices.begin(), indices.end());
      if (distinct.size() != indices.size()) return false;
      for (Index i : indices) {
         if (!isFree(i)) return false;
      }
      bind(key, indices, user);
      return true;
   }
   void release(Key key, const void* table) {
      auto it = keys_.find(key);
      if (it == keys_.end()) return;
      if (it->second.users.erase(userOf(table)) && it->second.users.empty()) forget(key);
   }
   // False when the call must throw.
   bool markAvailable(Index i) {
      if (i >= entries_) return false;
      auto owner = ownerOf(i);
      if (!owner) return true;
      Record& rec = keys_[*owner];
      rec.indices.erase(std::find(rec.indices.begin(), rec.indices.end(), i));
      owner_.erase(i);
      if (rec.indices.empty()) keys_.erase(*owner);
      return true;
   }
   bool reserve(Index first, Index last) {
      if (first > last || last >= entries_) return false;
      for (Index i = first; i <= last; ++i) {
         if (owner_.contains(i)) return false;
      }
      for (Index i = first; i <= last; ++i) reserved_.insert(i);
      return true;
   }
   bool resize(std::uint32_t entries) {
      if (!owner_.empty() && owner_.rbegin()->first >= entries) return false;
      reserved_.erase(reserved_.lower_bound(entries), reserved_.end());
      entries_ = entries;
      return true;
   }

 private:
   const void* userOf(const void* user) const { return user ? user : table_; }
   std::vector<Index> pick(std::uint32_t count) const {
      std::vector<Index> picked;
      if (kind_ == Kind::anySized) {
         for (Index start = 0; start + count <= entries_; ++start) {
            Index i = start;
            while (i < start + count && isFree(i)) ++i;
            if (i == start + count) {
               for (i = start; i < start + count; ++i) picked.push_back(i);
               return picked;
            }
         }
         return {};
      }
      for (Index i = 0; i < entries_ && picked.size() < count; ++i) {
         if (isFree(i)) picked.push_back(i);
      }
      return picked.size() == count ? picked : std::vector<Index>{};
   }
   void bind(Key key, const std::vector<Index>& indices, const void* user) {
      keys_[key] = Record{indices, {userOf(user)}};
      for (Index i : indices) owner_[i] = key;
   }
   void forget(Key key) {
      for (Index i : keys_[key].indices) owner_.erase(i);
      keys_.erase(key);
   }

   Kind kind_;
   std::uint32_t entries_;
   const void* table_;
   std::map<Key, Record> keys_;
   std::map<Index, Key> owner_;
   std::set<Index> reserved_;
};

struct DifferentialCase {
   Kind kind;
   std::uint32_t entries;
};

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

   // Every per-index answer and the key's own answers agree with the model.
   void checkIndex(const GenericIndexAllocator& alloc, const Model& model, Index i,
                   const std::string& step) {
      auto owner = model.ownerOf(i);
      for (int type = 0; type < 2; ++type) {
         const TypeDescriptor& desc = type == 0 ? smallType() : wideType();
         bool owned = owner && owner->type == type;
         EXPECT_EQ(alloc.isIndexAssigned(i, desc), owned) << step << " index " << i;
         GenericValue expected = owned ? AnyKey(*owner).generic() : GenericValue();
         EXPECT_EQ(alloc.keyForIndex(i, desc), expected) << step << " index " << i;
         bool shared = owned && model.record(*owner)->users.size() > 1;
         EXPECT_EQ(alloc.isIndexVerticallyShared(i, desc), shared) << step << " index " << i;
      }
      EXPECT_EQ(alloc.isIndexFree(i), model.isFree(i)) << step << " index " << i;
   }
   void checkKey(const GenericIndexAllocator& alloc, const Model& model, const AnyKey& key,
                 const std::string& step) {
      const Model::Record* rec = model.record(key.key);
      std::vector<Index> expected = rec ? rec->indices : std::vector<Index>{};
      EXPECT_EQ(alloc.indicesForKey(key.type(), key.value()), expected) << step;
      EXPECT_EQ(alloc.getBlockSize(key.type(), key.value()), expected.size()) << step;
   }
};

INSTANTIATE_TEST_SUITE_P(
    KindsAndSizes, DifferentialTest,
    ::testing::Values(DifferentialCase{Kind::firstFree, 150}, DifferentialCase{Kind::discont, 150},
                      DifferentialCase{Kind::anySized, 150}, DifferentialCase{Kind::discont, 400},
                      DifferentialCase{Kind::anySized, 400}),
    [](const auto& info) {
       return fmt::format("{}{}", kindName(info.param.kind), info.param.entries);
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
      // Alternate filling and draining phases so the run sees both an empty-ish and a
      // full, fragmented space. Draining releases keys that exist, for one of their tables.
      const bool draining = (op / entries) % 3 == 2 && uniform(0, 2) != 0;
      if (draining) {
         if (auto owner = model.ownerOf(uniform(0, n - 1))) {
            key = AnyKey(*owner);
            user = *model.record(*owner)->users.begin();
         }
      }
      std::string step;
      switch (draining ? 7 : uniform(0, 10)) {
         case 0:
         case 1: {
            step = fmt::format("op {} newIndexForKey", op);
            std::vector<Index> expected = model.newIndices(key.key, 1, user);
            Index got = alloc->newIndexForKey(key.type(), key.value(), user);
            EXPECT_EQ(got, expected.empty() ? invalidIndex : expected.front()) << step;
            break;
         }
         case 2:
         case 3: {
            std::uint32_t size = uniform(1, maxBlock);
            step = fmt::format("op {} newIndicesForKey({})", op, size);
            std::vector<Index> expected = model.newIndices(key.key, size, user);
            EXPECT_EQ(alloc->newIndicesForKey(key.type(), key.value(), size, user), expected)
                << step;
            break;
         }
         case 4: {
            step = fmt::format("op {} requestIndexForKey({})", op, index);
            Status expected = model.request(index, key.key, user);
            EXPECT_EQ(alloc->requestIndexForKey(index, key.type(), key.value(), user), expected)
                << step;
            break;
         }
         case 5: {
            step = fmt::format("op {} recoverIndexForKey({})", op, index);
            bool expected = model.recover({index}, key.key, user);
            EXPECT_EQ(alloc->recoverIndexForKey(index, key.type(), key.value(), user), expected)
                << step;
            break;
         }
         case 6: {
            std::vector<Index> list(uniform(0, 4));
            for (Index& i : list) i = uniform(0, n);
            step = fmt::format("op {} recoverIndicesForKey({})", op, fmt::join(list, ","));
            bool expected = model.recover(list, key.key, user);
            EXPECT_EQ(alloc->recoverIndicesForKey(list, key.type(), key.value(), user), expected)
                << step;
            break;
         }
         case 7:
         case 8: {
            step = fmt::format("op {} releaseIndexFromTable", op);
            model.release(key.key, user);
            alloc->releaseIndexFromTable(key.type(), key.value(), user);
            break;
         }
         case 9: {
            step = fmt::format("op {} markIndexAvailable({})", op, index);
            bool ok = model.markAvailable(index);
            if (ok) {
               alloc->markIndexAvailable(index, key.type());
            } else {
               EXPECT_THROW(alloc->markIndexAvailable(index, key.type()), std::out_of_range)
                   << step;
            }
            break;
         }
         case 10: {
            if (uniform(0, 3) == 0) {
               std::uint32_t size = uniform(entries - 20, entries + 20);
               step = fmt::format("op {} numEntriesIs({})", op, size);
               if (model.resize(size)) {
                  alloc->numEntriesIs(size);
               } else {
                  EXPECT_THROW(alloc->numEntriesIs(size), std::invalid_argument) << step;
               }
            } else {
               Index first = uniform(0, n);
               Index last = first + uniform(0, 2) - 1;
               step = fmt::format("op {} reserveIndices({}, {})", op, first, last);
               if (model.reserve(first, last)) {
                  alloc->reserveIndices(first, last);
               } else {
                  EXPECT_ANY_THROW(alloc->reserveIndices(first, last)) << step;
               }
            }
            break;
         }
      }
      checkKey(*alloc, model, key, step);
      checkIndex(*alloc, model, index, step);
      EXPECT_EQ(alloc->occupancy(), model.occupancy()) << step;
      if (op % 250 == 0 || ::testing::Test::HasFailure()) {
         for (Index i = 0; i < model.entries(); ++i) checkIndex(*alloc, model, i, step);
      }
      ASSERT_FALSE(::testing::Test::HasFailure()) << "stopped at " << step;
   }
   EXPECT_GT(alloc->numKeys(), 0u) << "the run should end with keys still allocated";
}

}  // namespace
}  // namespace Asic
