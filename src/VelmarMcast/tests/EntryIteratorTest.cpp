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
   std::uint16_t index;  // the needed handle's index, filled in once resolved
   bool operator==(const Visit&) const = default;
};

void PrintTo(const Visit& v, std::ostream* os) {
   *os << fmt::format("{}{} profile {} index {}", v.key, v.resolved ? " resolved" : " unresolved",
                      v.profile, v.index);
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
         visits.push_back(Visit{it.key(), it.resolved(), it.entry().strengthProfile,
                                it.entry().remappedIpmcIndex});
      }
      EXPECT_EQ(it.tag(), 0);
      return visits;
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

TEST_F(EntryIteratorTest, UnresolvedKeysComeFirstAndAStartKeyWalksOnInOrder) {
   // Each key once, every waiting key (with the value it waits to program) before every
   // resolved one. An iterator made from a key yields what the whole walk yields from that
   // key on; an unknown key, or an empty table, yields the end at once.
   Iterator empty = table_->entryIteratorConst();
   EXPECT_TRUE(empty.done());
   EXPECT_FALSE(static_cast<bool>(empty));
   EXPECT_EQ(empty.tag(), 0);
   empty.advance();
   EXPECT_EQ(empty.tag(), 0);

   resolved({1, 2, 3});
   waiting({4, 5, 6});
   Iterator it = table_->entryIteratorConst();
   EXPECT_EQ(it.tag(), 1);
   EXPECT_EQ(it.entry().remappedIpmcIndexHandle, notReady_);

   const auto all = walk(table_->entryIteratorConst());
   ASSERT_EQ(all.size(), 6u);
   const auto firstResolved =
       std::find_if(all.begin(), all.end(), [](const Visit& v) { return v.resolved; });
   EXPECT_TRUE(std::all_of(firstResolved, all.end(), [](const Visit& v) { return v.resolved; }))
       << "an unresolved key came after a resolved one";
   std::vector<Visit> expected;
   for (std::uint32_t n = 1; n <= 6; ++n) {
      expected.push_back(
          Visit{groupKey(n), n <= 3, std::uint8_t(n), std::uint16_t(n <= 3 ? 50 : 0)});
   }
   EXPECT_THAT(all, UnorderedElementsAreArray(expected));

   for (std::size_t i = 0; i < all.size(); ++i) {
      Iterator from = table_->entryIteratorConst(all[i].key);
      EXPECT_EQ(from.tag(), all[i].resolved ? 2 : 1) << "group " << int(all[i].profile);
      EXPECT_EQ(walk(from), std::vector<Visit>(all.begin() + long(i), all.end()))
          << "from group " << int(all[i].profile);
   }
   EXPECT_TRUE(table_->entryIteratorConst(groupKey(99)).done());
}

class EntryIteratorSkipTest : public EntryIteratorTest,
                              public ::testing::WithParamInterface<std::uint32_t> {};

TEST_P(EntryIteratorSkipTest, ResolvedKeysWithoutAValueAreNeverVisitedNorStartedAt) {
   // Keys whose resolved value is withdrawn (their delete dance waits for the chip) are
   // skipped wherever they sit in the map. The parameter is the one group that keeps its
   // value (0: none, and the iterator is at its end at once); trying each group puts the
   // kept one at every position of the hash order.
   const std::uint32_t kept = GetParam();
   resolved({1, 2, 3, 4, 5});
   for (std::uint32_t n = 1; n <= 5; ++n) {
      if (n != kept) table_->entryRemove(groupKey(n));
   }
   ASSERT_EQ(table_->resolvedEntries().size(), 5u) << "the dances are still waiting";
   EXPECT_EQ(table_->entryIteratorConst().tag(), kept == 0 ? 0 : 2);
   const auto visits = walk(table_->entryIteratorConst());
   if (kept == 0) {
      EXPECT_TRUE(visits.empty());
   } else {
      EXPECT_THAT(visits,
                  UnorderedElementsAre(Visit{groupKey(kept), true, std::uint8_t(kept), 50}));
   }
   // A start key without a value starts at the next key in the map's order that has one.
   std::vector<Key> order;
   for (const auto& [key, value] : table_->resolvedEntries()) order.push_back(key);
   for (std::size_t i = 0; i < order.size(); ++i) {
      const bool keptAhead =
          std::find(order.begin() + long(i), order.end(), groupKey(kept)) != order.end();
      EXPECT_EQ(walk(table_->entryIteratorConst(order[i])).size(), keptAhead ? 1u : 0u)
          << "from position " << i;
   }
   waiting({9});
   EXPECT_EQ(walk(table_->entryIteratorConst()).size(), kept == 0 ? 1u : 2u);
}

INSTANTIATE_TEST_SUITE_P(EachPosition, EntryIteratorSkipTest, ::testing::Range(0u, 6u));

}  // namespace
}  // namespace VelmarMcast::Testing
