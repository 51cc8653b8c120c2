// The replication list's value types and its table entry: canonical order and hash whatever
// the insertion history, identity-only comparison, move, and the checks on the entry sizes.

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <utility>
#include <vector>

#include <absl/hash/hash_testing.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Asic/Assert.h"
#include "AsicSwTable/SwTableTraits.h"
#include "VelmarMcast/McastIpmcRemapTable.h"
#include "VelmarMcast/MmuReplListEntry.h"
#include "VelmarMcast/VelmarMcastTestEntryHandle.h"

namespace VelmarMcast {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;
using Entry = MmuReplListTableEntry;
using HandlePtr = Asic::Ptr<VelmarMcastTestEntryHandle>;

static_assert(Asic::SwTableEntry<Entry> && Asic::SwTableKey<Entry>,
              "the engine must accept the entry as value and as its own key");

Ulm::PerUnitBitmap bitmapOf(std::initializer_list<std::size_t> bits) {
   Ulm::PerUnitBitmap b;
   for (std::size_t bit : bits) b.bitIs(bit, true);
   return b;
}

// Verify that ports iterate ascending and compare and hash the same whatever order they
// were added in, and that an empty list has no first port.
TEST(MmuReplListTypesTest, PortListIsCanonical) {
   PortList a;
   for (std::uint16_t p : {7, 1, 2, 7}) a.portIs(p);
   EXPECT_THAT(std::vector<std::uint16_t>(a.begin(), a.end()), ElementsAre(1, 2, 7));
   EXPECT_EQ(a, PortList({2, 7, 1}));
   EXPECT_EQ(a.hash(3), PortList({2, 7, 1}).hash(3));
   EXPECT_EQ(a.firstPort(), 1);
   EXPECT_EQ(a.toString(), "{1, 2, 7}");
   EXPECT_THAT([] { (void)PortList().firstPort(); },
               ThrowsMessage<std::out_of_range>(HasSubstr("VelmarMcast::PortList")));
}

// Verify the total orders (prefix first; next hop before port; lsbVlan, then bitmap, then
// numBits), that pairs are kept in canonical order, and that every value type hashes
// consistently with its equality.
TEST(MmuReplListTypesTest, OrdersAndHashes) {
   EXPECT_LT(PortList(), PortList({0}));
   EXPECT_LT(PortList({1}), PortList({1, 2}));
   EXPECT_LT(PortList({1, 9}), PortList({2}));
   EXPECT_LT((NextHopPortInfo{1, 9}), (NextHopPortInfo{2, 0}));
   EXPECT_LT((SparseReplListEntry{{1, 5}}), (SparseReplListEntry{{2, 0}}));
   EXPECT_EQ((SparseReplListEntry{{0, 2}, {0, 1}}), (SparseReplListEntry{{0, 1}, {0, 2}}));
   const DenseReplListEntry base{0, bitmapOf({1}), 9};
   EXPECT_LT(base, (DenseReplListEntry{1, bitmapOf({0}), 0}));
   EXPECT_LT(base, (DenseReplListEntry{0, bitmapOf({2}), 0}));
   EXPECT_LT(base, (DenseReplListEntry{0, bitmapOf({1}), 10}));

   EXPECT_TRUE(absl::VerifyTypeImplementsAbslHashCorrectly(
       {PortList(), PortList({0}), PortList({0, 1}), PortList({1, 0}), PortList({1})}));
   EXPECT_TRUE(absl::VerifyTypeImplementsAbslHashCorrectly(
       {SparseReplListEntry(), SparseReplListEntry{{0, 1}}, SparseReplListEntry{{0, 1}, {0, 2}},
        SparseReplListEntry{{0, 2}, {0, 1}}, SparseReplListEntry{{1, 0}}}));
   EXPECT_TRUE(absl::VerifyTypeImplementsAbslHashCorrectly(
       {DenseReplListEntry{}, DenseReplListEntry{0, bitmapOf({3}), 1},
        DenseReplListEntry{1, bitmapOf({3}), 1}, DenseReplListEntry{0, bitmapOf({3}), 2}}));
}

class MmuReplListEntryTest : public ::testing::Test {
 protected:
   HandlePtr h1_ = testEntryHandle(10);
   HandlePtr h2_ = testEntryHandle(20);
   HandlePtr h3_ = testEntryHandle(30);

   static Entry list(std::uint32_t genId, std::vector<std::pair<HandlePtr, PortList>> handles) {
      Entry e;
      e.genIdIs(genId);
      for (auto& [eh, ports] : handles) e.egressObjectHandleIs(eh, ports);
      return e;
   }
};

// Verify that identity is the handles with their ports plus genId, and nothing else: derived
// fields, sizes, callback and insertion order change neither equality, order nor hash.
TEST_F(MmuReplListEntryTest, IdentityIsHandlesPortsAndGenId) {
   EXPECT_FALSE(Entry());
   EXPECT_TRUE(list(5, {}));
   EXPECT_TRUE(list(0, {{h1_, {1}}}));

   const Entry a = list(3, {{h1_, {1}}, {h2_, {4}}});
   Entry b = list(3, {{h2_, {4}}, {h1_, {1}}});
   b.egressObjectIs(10, {1});
   b.sparseEntrySizeIs(4);
   b.denseEntrySizeIs(64);
   b.sparseReplListEntryIs(SparseReplListEntry{{10, 1}}, true);
   b.writeResponseFn = [](Asic::SwTableBase::EntryState) {};
   EXPECT_EQ(a, b);
   EXPECT_EQ(a <=> b, std::strong_ordering::equal);
   EXPECT_EQ(a.hash(7), b.hash(7));

   const std::vector<Entry> others = {list(4, {{h1_, {1}}, {h2_, {4}}}),
                                      list(3, {{h1_, {1, 2}}, {h2_, {4}}}), list(3, {{h1_, {1}}}),
                                      list(3, {})};
   for (std::size_t i = 0; i < others.size(); ++i) {
      EXPECT_NE(a, others[i]) << "other #" << i;
      EXPECT_NE(a <=> others[i], std::strong_ordering::equal) << "other #" << i;
      EXPECT_NE(a.hash(7), others[i].hash(7)) << "other #" << i;
   }
}

// Verify that the order walks handles by address, then ports, then the handle count, then
// genId, and is a strict total order consistent with equality.
TEST_F(MmuReplListEntryTest, OrderIsByHandleAddressThenPortsThenCountThenGenId) {
   auto [low, high] = std::minmax(h1_, h2_, [](const HandlePtr& a, const HandlePtr& b) {
      return std::less<>()(a.get(), b.get());
   });
   // Ascending; each neighbour pair is told apart by the rule the next lower one loses to.
   const std::vector<Entry> sorted = {list(0, {}),
                                      list(1, {}),
                                      list(1, {{low, {1}}}),
                                      list(9, {{low, {1}}}),
                                      list(0, {{low, {1}}, {high, {1}}}),
                                      list(9, {{low, {9}}}),
                                      list(0, {{high, {1}}})};
   for (std::size_t i = 0; i < sorted.size(); ++i) {
      for (std::size_t j = 0; j < sorted.size(); ++j) {
         EXPECT_EQ(sorted[i] <=> sorted[j], i <=> j)
             << sorted[i].toString() << " vs " << sorted[j].toString();
         EXPECT_EQ(sorted[i] == sorted[j], i == j) << i << " vs " << j;
      }
   }
}

// Verify that a move takes only the three ordered collections, leaving them empty in the
// source, and copies the rest.
TEST_F(MmuReplListEntryTest, MoveTakesOnlyTheOrderedCollections) {
   Entry original = list(6, {{h1_, {1}}});
   original.sparseEntrySizeIs(2);
   original.denseEntrySizeIs(64);
   original.egressObjectIs(10, {1});
   original.sparseReplListEntryIs(SparseReplListEntry{{10, 1}}, true);
   original.denseReplListEntryIs(DenseReplListEntry{}, true);
   const std::string text = original.toString();

   auto checkMoved = [&](const Entry& source, const Entry& target, const char* how) {
      EXPECT_EQ(target.toString(), text) << how;
      EXPECT_TRUE(source.egressObjects().empty() && source.sparseReplListEntries().empty() &&
                  source.denseReplListEntries().empty())
          << how;
      EXPECT_EQ(source, original) << how << ": handles and genId are copied";
      EXPECT_EQ(source.denseEntrySize(), 64) << how;
   };
   Entry source = original;
   Entry constructed(std::move(source));
   checkMoved(source, constructed, "construction");
   Entry source2 = original;
   Entry assigned;
   assigned = std::move(source2);
   checkMoved(source2, assigned, "assignment");
}

// Verify that copies, which share their handles, never see each other's changes: adding,
// replacing and removing a handle on one copy leaves the others as they were, equal to
// each other and hashing alike; and that what one copy derives stays its own.
TEST_F(MmuReplListEntryTest, CopiesShareHandlesButNotChanges) {
   const Entry original = list(3, {{h1_, {1}}, {h2_, {2}}});
   const std::size_t hash = original.hash(7);
   Entry added = original;
   added.egressObjectHandleIs(h3_, {3});
   Entry replaced = original;
   replaced.egressObjectHandleIs(h1_, {9});
   Entry removed = original;
   removed.egressObjectHandleDel(h2_.get());
   removed.egressObjectHandleDel(h3_.get());  // not in the list: nothing changes
   Entry cleared = original;
   cleared.egressObjectHandleDelAll();

   EXPECT_EQ(original.egressObjectHandles().size(), 2u);
   EXPECT_EQ(original.egressObjectHandle(h1_.get()), PortList({1}));
   EXPECT_EQ(original.hash(7), hash) << "a copy's change reached the original's hash";
   EXPECT_EQ(Entry(original), original);
   EXPECT_NE(added, original);
   EXPECT_EQ(added.egressObjectHandles().size(), 3u);
   EXPECT_NE(replaced, original);
   EXPECT_EQ(replaced.egressObjectHandle(h1_.get()), PortList({9}));
   EXPECT_NE(removed, original);
   EXPECT_FALSE(removed.egressObjectHandleHas(h2_.get()));
   EXPECT_TRUE(cleared.egressObjectHandles().empty());
   EXPECT_EQ(cleared, list(3, {})) << "an emptied list equals one built empty";

   // Rebuilt from scratch, an equal list is equal and hashes alike, in either order.
   EXPECT_EQ(list(3, {{h2_, {2}}, {h1_, {1}}}), original);
   EXPECT_EQ(list(3, {{h2_, {2}}, {h1_, {1}}}).hash(7), hash);

   Entry resolved = original;
   resolved.egressObjectIs(10, {1});
   resolved.sparseReplListEntryIs(SparseReplListEntry{{10, 1}}, true);
   const Entry copy = resolved;
   resolved.egressObjectDelAll();
   resolved.sparseReplListEntryDelAll();
   EXPECT_TRUE(original.egressObjects().empty() && original.sparseReplListEntries().empty());
   EXPECT_EQ(copy.egressObjects().size(), 1u) << "a copy keeps what was derived before it";
   EXPECT_EQ(copy.sparseReplListEntries().size(), 1u);
}

// Verify that the dense size is 0 or a power of two up to 64 and the sparse size is not 0,
// and that a refusal names the field and the value and keeps the old size.
TEST(MmuReplListEntrySizeTest, RefusesSizesTheLayoutCannotUse) {
   Entry e;
   for (std::uint8_t size : {0, 1, 64}) EXPECT_NO_THROW(e.denseEntrySizeIs(size));
   for (std::uint8_t size : {1, 255}) EXPECT_NO_THROW(e.sparseEntrySizeIs(size));
   for (std::uint8_t size : {3, 48, 128}) {
      EXPECT_THAT(
          [&] { e.denseEntrySizeIs(size); },
          ThrowsMessage<std::invalid_argument>(HasSubstr(fmt::format("denseEntrySize {} ", size))));
   }
   EXPECT_THAT([&] { e.sparseEntrySizeIs(0); },
               ThrowsMessage<std::invalid_argument>(HasSubstr("sparseEntrySize 0 ")));
   EXPECT_EQ(e.denseEntrySize(), 64) << "a refusal keeps the old size";
   EXPECT_EQ(e.sparseEntrySize(), 255) << "a refusal keeps the old size";
}

// Verify that a null handle is refused and that an entry cannot be read from text.
TEST_F(MmuReplListEntryTest, RefusesNullHandleAndText) {
   Entry e;
   EXPECT_THROW(e.egressObjectHandleIs(nullptr, {1}), std::invalid_argument);
   Asic::ScopedAssertThrow throwing;
   Asic::CharRange range{"{genId: 1}"};
   try {
      Entry fromText(range);
      FAIL() << "an entry was read from text";
   } catch (const Asic::AssertionError& err) {
      EXPECT_EQ(err.info().message, "No String constructor for Entry - has collection");
   }
}

}  // namespace
}  // namespace VelmarMcast
