// Iteration over the remap table's entries: keys still waiting for their needed entries
// first, then resolved keys that hold a value; positions and start keys.

#include <algorithm>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "VelmarMcast/tests/RemapTableFixture.h"

namespace VelmarMcast::Testing {
namespace {

using ::testing::UnorderedElementsAre;
using ::testing::UnorderedElementsAreArray;
using Iterator = IngIpmcRemapTable::EntryIteratorConst;

struct Visit {
   Key key;
   bool resolved;
   std::uint8_t profile;
   bool operator==(const Visit&) const = default;
};

void PrintTo(const Visit& v, std::ostream* os) {
   *os << fmt::format("{}{} profile {}", v.key, v.resolved ? " resolved" : " unresolved",
                      v.profile);
}

class EntryIteratorTest : public RemapTableFixture {
 protected:
   // Everything the iterator yields until its end; stops early if it would never end.
   std::vector<Visit> walk(Iterator it) const {
      std::vector<Visit> visits;
      const std::size_t bound =
          table_->unresolvedEntries().size() + table_->resolvedEntries().size();
      for (; !it.done() && visits.size() <= bound; ++it) {
         EXPECT_TRUE(it.tag() == 1 || it.tag() == 2) << "tag " << int(it.tag());
         visits.push_back(Visit{it.key(), it.resolved(), it.entry().strengthProfile});
      }
      EXPECT_EQ(it.tag(), 0);
      return visits;
   }
   std::vector<Key> keysOf(const std::vector<Visit>& visits, bool resolved) const {
      std::vector<Key> keys;
      for (const auto& v : visits) {
         if (v.resolved == resolved) keys.push_back(v.key);
      }
      return keys;
   }
   // Groups committed with a ready handle: resolved and written, responses delivered.
   void resolved(std::initializer_list<std::uint32_t> groups) {
      for (std::uint32_t n : groups) table_->entryCommit(groupKey(n), remapTo(ready_, n));
      loop_.runUntilIdle();
   }
   // Groups committed with a handle that is not ready: they wait, unresolved.
   void waiting(std::initializer_list<std::uint32_t> groups) {
      for (std::uint32_t n : groups) table_->entryCommit(groupKey(n), remapTo(notReady_, n));
   }

   Asic::Ptr<VelmarMcastTestEntryHandle> ready_ = testEntryHandle(50, State::success);
   Asic::Ptr<VelmarMcastTestEntryHandle> notReady_ = testEntryHandle();
};

TEST_F(EntryIteratorTest, EmptyTableIsAtTheEndAtOnce) {
   // Verify that an empty table's iterator is at its end from the start and stays there.
   Iterator it = table_->entryIteratorConst();
   EXPECT_TRUE(it.done());
   EXPECT_FALSE(static_cast<bool>(it));
   EXPECT_EQ(it.tag(), 0);
   it.advance();
   EXPECT_EQ(it.tag(), 0);
}

TEST_F(EntryIteratorTest, UnresolvedKeysAreVisitedBeforeResolvedOnes) {
   // Verify that every waiting key is visited, with the value it waits to program, before
   // every resolved key, and each exactly once.
   resolved({1, 2, 3});
   waiting({4, 5, 6});
   Iterator it = table_->entryIteratorConst();
   EXPECT_EQ(it.tag(), 1);
   EXPECT_EQ(it.entry().remappedIpmcIndexHandle, notReady_);

   const auto visits = walk(table_->entryIteratorConst());
   ASSERT_EQ(visits.size(), 6u);
   const auto firstResolved =
       std::find_if(visits.begin(), visits.end(), [](const Visit& v) { return v.resolved; });
   EXPECT_TRUE(std::all_of(firstResolved, visits.end(), [](const Visit& v) { return v.resolved; }))
       << "an unresolved key came after a resolved one";
   EXPECT_THAT(keysOf(visits, false), UnorderedElementsAre(groupKey(4), groupKey(5), groupKey(6)));
   EXPECT_THAT(keysOf(visits, true), UnorderedElementsAre(groupKey(1), groupKey(2), groupKey(3)));
   for (const auto& v : visits) EXPECT_EQ(v.profile, v.key.groupAddr & 0xFF) << v.key.groupAddr;
}

TEST_F(EntryIteratorTest, ResolvedValuesHoldTheNeededHandlesIndex) {
   // Verify that a resolved key yields its resolved value, the needed index filled in.
   resolved({1});
   Iterator it = table_->entryIteratorConst();
   ASSERT_EQ(it.tag(), 2) << "a table with only resolved keys starts in the resolved map";
   EXPECT_EQ(it.key(), groupKey(1));
   EXPECT_EQ(it.entry().remappedIpmcIndex, 50);
   it.advance();
   EXPECT_TRUE(it.done());
}

class EntryIteratorSkipTest : public EntryIteratorTest,
                              public ::testing::WithParamInterface<std::uint32_t> {};

TEST_P(EntryIteratorSkipTest, ResolvedKeysWithoutAValueAreNeverVisited) {
   // Verify that keys whose resolved value is withdrawn (their delete dance waits for the
   // chip) are skipped wherever they sit in the map, and that a table holding only such
   // keys is at its end at once. The parameter is the one group that keeps its value (0:
   // none); trying each group puts the kept one at every position of the hash order.
   const std::uint32_t kept = GetParam();
   resolved({1, 2, 3, 4, 5});
   for (std::uint32_t n = 1; n <= 5; ++n) {
      if (n != kept) table_->entryRemove(groupKey(n));
   }
   ASSERT_EQ(table_->resolvedEntries().size(), 5u) << "the dances are still waiting";
   const auto visits = walk(table_->entryIteratorConst());
   if (kept == 0) {
      EXPECT_TRUE(visits.empty());
      EXPECT_EQ(table_->entryIteratorConst().tag(), 0);
   } else {
      EXPECT_THAT(visits, UnorderedElementsAre(Visit{groupKey(kept), true, std::uint8_t(kept)}));
   }
   waiting({9});
   EXPECT_EQ(walk(table_->entryIteratorConst()).size(), kept == 0 ? 1u : 2u);
}

INSTANTIATE_TEST_SUITE_P(EachPosition, EntryIteratorSkipTest, ::testing::Range(0u, 6u));

TEST_F(EntryIteratorTest, StartKeyStartsThereAndWalksOnInOrder) {
   // Verify that an iterator made from a key starts at that key and then yields what the
   // whole walk yields after it; an unknown key yields the end.
   resolved({1, 2, 3});
   waiting({4, 5, 6});
   const auto all = walk(table_->entryIteratorConst());
   for (std::size_t i = 0; i < all.size(); ++i) {
      Iterator it = table_->entryIteratorConst(all[i].key);
      EXPECT_EQ(it.tag(), all[i].resolved ? 2 : 1) << "group " << (all[i].key.groupAddr & 0xFF);
      EXPECT_EQ(walk(it), std::vector<Visit>(all.begin() + long(i), all.end()))
          << "from group " << (all[i].key.groupAddr & 0xFF);
   }
   EXPECT_TRUE(table_->entryIteratorConst(groupKey(99)).done());
}

TEST_F(EntryIteratorTest, StartKeyWithoutAValueStartsAtTheNextKeyWithOne) {
   // Verify that starting at a resolved key whose value is withdrawn moves on to the next
   // resolved key that holds one, in the map's order.
   resolved({1, 2, 3, 4});
   table_->entryRemove(groupKey(2));
   std::vector<Key> order;  // the resolved map's order
   for (const auto& [key, value] : table_->resolvedEntries()) order.push_back(key);
   const auto at = std::find(order.begin(), order.end(), groupKey(2));
   ASSERT_NE(at, order.end());
   std::vector<Key> expected(std::next(at), order.end());
   std::vector<Key> walked;
   for (const auto& v : walk(table_->entryIteratorConst(groupKey(2)))) walked.push_back(v.key);
   EXPECT_EQ(walked, expected);
}

}  // namespace
}  // namespace VelmarMcast::Testing
