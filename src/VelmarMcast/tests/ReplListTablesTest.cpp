// The replication list and L2 sub-port tables on the simulated chip, in what is theirs:
// lists wait for their egress objects, take scattered blocks from the index space both
// tables share, are written as chains, and survive restarts over whatever a crash or
// corruption left in the memories. What every table does alike (commit, failures, removal,
// restart and purge, clean-up) is exercised for each table by
// AsicSwTable/tests/SwTableTypedTest.cpp.

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Asic/Assert.h"
#include "Asic/EventLoop.h"
#include "Asic/Trace.h"
#include "ChipSim/Chip.h"
#include "ChipSim/plugins/MmuReplListL2SubPortTableSimUtil.h"
#include "ChipSim/plugins/MmuReplListTableSimUtil.h"
#include "ChipSim/plugins/SimTableRig.h"
#include "VelmarMcast/MmuReplListL2SubPortTable.h"
#include "VelmarMcast/MmuReplListTable.h"
#include "VelmarMcast/VelmarMcastTestEntryHandle.h"

namespace VelmarMcast::Testing {
namespace {

using ::testing::ElementsAre;
using State = Asic::SwTableBase::EntryState;
using Status = Asic::SwTable::ReconciliationStatus;
using ListEntry = MmuReplListTable::Entry;
using L2Entry = MmuReplListL2SubPortTable::Entry;
using ChipSim::L2SubPortFormat;
using ChipSim::ReplListFormat;

constexpr std::uint32_t kEntries = 1024;

class ReplListTablesTest : public ::testing::Test {
 protected:
   void SetUp() override { tablesIs(); }
   void TearDown() override {
      if (lists_) lists_->cleanup();
      if (l2_) l2_->cleanup();
   }

   // Fresh tables over the chip's memories, which keep whatever they hold.
   void tablesIs() {
      auto lists = ChipSim::simTableIs<MmuReplListTable>(chip_, kEntries);
      auto l2 = ChipSim::simTableIs<MmuReplListL2SubPortTable>(chip_, kEntries);
      lists_ = std::move(lists.table);
      listHw_ = std::move(lists.hw);
      l2_ = std::move(l2.table);
      l2Hw_ = std::move(l2.hw);
   }

   // Every software object goes, the chip stays; the new tables read it back.
   void restart() {
      loop_.runUntilIdle();
      lists_->detachFromChip();
      l2_->detachFromChip();
      lists_->cleanup();
      l2_->cleanup();
      lists_.reset();
      l2_.reset();
      ASSERT_EQ(
          Asic::GenericIndexAllocatorStub::sharedAllocator(MmuReplListSharedAllocator::kTypeName),
          nullptr);
      tablesIs();
      for (auto* table :
           {static_cast<Asic::SwTable*>(lists_.get()), static_cast<Asic::SwTable*>(l2_.get())}) {
         table->configReplayCompleteIs(false);
      }
      lists_->syncEntries();
      l2_->syncEntries();
      listHw_->countersReset();
      l2Hw_->countersReset();
   }

   // A list over egress objects at the given next-hop indices, one port each (port = index
   // modulo 32), programmed handles.
   ListEntry list(const std::vector<Asic::Index>& nextHops, std::uint32_t genId = 1,
                  std::uint8_t sparse = 4, std::uint8_t dense = 0) {
      ListEntry entry;
      for (Asic::Index nh : nextHops) {
         auto& eh = egress_[nh];
         if (!eh) eh = testEntryHandle(nh, State::success);
         entry.egressObjectHandleIs(eh, PortList{static_cast<std::uint16_t>(nh % 32)});
      }
      entry.genIdIs(genId);
      entry.sparseEntrySizeIs(sparse);
      entry.denseEntrySizeIs(dense);
      return entry;
   }

   std::vector<Asic::Index> chainAt(Asic::Index first) const {
      return ChipSim::chainAt<ReplListFormat>(*listHw_, first);
   }
   std::size_t validEntries(const Asic::Ptr<ChipSim::SimHwTable>& hw) const {
      std::size_t n = 0;
      hw->forEachValidEntry([&n](Asic::Index, Asic::HwTable::Words) { ++n; });
      return n;
   }
   Asic::GenericIndexAllocator& alloc() const { return *lists_->indexAllocator(); }

   Asic::ScopedAssertThrow asserts_;
   Asic::EventLoop loop_;
   ChipSim::Chip chip_{loop_, 0};
   Asic::Ptr<ChipSim::SimHwTable> listHw_;
   Asic::Ptr<ChipSim::SimHwTable> l2Hw_;
   Asic::Ptr<MmuReplListTable> lists_;
   Asic::Ptr<MmuReplListL2SubPortTable> l2_;
   std::map<Asic::Index, Asic::Ptr<VelmarMcastTestEntryHandle>> egress_;
};

TEST(ReplListTablesPlugInTest, FactoryTablesGetTheirUtilsFromThePlugInLoader) {
   auto lists = mmuReplListTableFactory();
   auto l2 = mmuReplListL2SubPortTableFactory();
   EXPECT_NE(dynamic_cast<ChipSim::MmuReplListTableSimUtil*>(lists->utilIfExists()), nullptr);
   EXPECT_NE(dynamic_cast<ChipSim::MmuReplListL2SubPortTableSimUtil*>(l2->utilIfExists()), nullptr);
}

TEST_F(ReplListTablesTest, BothTablesDrawFromOneAllocatorThatNeverHandsOutIndexZero) {
   ASSERT_EQ(lists_->indexAllocator(), l2_->indexAllocator());
   EXPECT_EQ(alloc().allocatorTypeName(), MmuReplListSharedAllocator::kTypeName);
   std::set<Asic::Index> used;
   for (std::uint32_t n = 0; n < 40; ++n) {
      auto eh = lists_->entryCommit(list({n + 1}, n + 1), list({n + 1}, n + 1));
      auto l2 =
          l2_->entryCommit(L2Entry(1, Ulm::PerUnitBitmap(std::vector<std::uint32_t>{n + 1, 0})),
                           L2Entry(1, Ulm::PerUnitBitmap(std::vector<std::uint32_t>{n + 1, 0})));
      loop_.runUntilIdle();
      for (Asic::Index index : lists_->hwIndices(list({n + 1}, n + 1))) {
         EXPECT_NE(index, 0u);
         EXPECT_TRUE(used.insert(index).second) << "index " << index << " handed out twice";
      }
      EXPECT_NE(l2->hwIndex(), 0u);
      EXPECT_TRUE(used.insert(l2->hwIndex()).second);
   }
}

TEST_F(ReplListTablesTest, ListWaitsForItsEgressObjectsThenIsWrittenAsOneChain) {
   // Verify that a list stays unresolved, with nothing written, until every egress object
   // handle has an index, and is then written over exactly getBlockSize() indices chained
   // from the first.
   auto late = testEntryHandle();  // not yet programmed
   ListEntry entry = list({3, 7, 9, 12, 40});
   entry.egressObjectHandleIs(late, PortList{5, 6});
   auto eh = lists_->entryCommit(entry, entry);
   loop_.runUntilIdle();
   EXPECT_EQ(eh->entryState(), State::unresolved);
   EXPECT_EQ(listHw_->counters().writes, 0u);

   late->programmedIs(100);
   loop_.runUntilIdle();
   ASSERT_EQ(eh->entryState(), State::success);
   const auto indices = lists_->hwIndices(entry);
   ASSERT_EQ(indices.size(), 2u) << "7 (next hop, port) pairs in sparse entries of 4";
   EXPECT_EQ(eh->hwIndex(), indices.front());
   EXPECT_EQ(chainAt(eh->hwIndex()), indices);
   EXPECT_EQ(listHw_->counters().writes, 2u);
   const auto resolved = lists_->entry(entry);
   EXPECT_EQ(resolved.egressObjects().size(), 6u);
   EXPECT_TRUE(resolved.egressObjectHas(100));
}

TEST_F(ReplListTablesTest, DenseListRoundTripsThroughTheChip) {
   // Next hops 0..5 share bucket 0 and become one dense entry; 70 stays sparse.
   ListEntry entry = list({64, 65, 66, 67, 69, 200}, 1, 4, 64);
   auto eh = lists_->entryCommit(entry, entry);
   loop_.runUntilIdle();
   ASSERT_EQ(eh->entryState(), State::success);
   const auto resolved = lists_->entry(entry);
   ASSERT_EQ(resolved.denseReplListEntries().size(), 1u);
   ASSERT_EQ(resolved.sparseReplListEntries().size(), 1u);
   EXPECT_EQ(chainAt(eh->hwIndex()).size(), 2u);
   ChipSim::MmuReplListTableSimUtil util;
   EXPECT_TRUE(util.compareHwEntries(*lists_, eh->hwIndex(), resolved));
}

TEST_F(ReplListTablesTest, GenIdMakesAnotherListOverTheSameEgressObjects) {
   auto a = lists_->entryCommit(list({1, 2}, 1), list({1, 2}, 1));
   auto b = lists_->entryCommit(list({1, 2}, 2), list({1, 2}, 2));
   loop_.runUntilIdle();
   EXPECT_NE(a.get(), b.get());
   EXPECT_NE(a->hwIndex(), b->hwIndex());
   EXPECT_EQ(validEntries(listHw_), 2u);
}

TEST_F(ReplListTablesTest, ListTheLayoutOrTheChipCannotTakeIsRefusedBeforeAnythingChanges) {
   auto kept = lists_->entryCommit(list({1, 2}), list({1, 2}));
   loop_.runUntilIdle();
   const auto used = alloc().totalUsedIndices();
   ListEntry noSizes;
   noSizes.egressObjectHandleIs(testEntryHandle(3, State::success), PortList{1});
   noSizes.genIdIs(7);
   ListEntry tooWide = list({4, 5}, 8, 9);  // the chip holds 8 pairs per sparse entry
   ListEntry aggregated = list({6, 7}, 9, 4, 64);
   aggregated.egressObjectHandleIs(egress_[6], PortList{1, 2});
   ListEntry denseOfOne = list({8}, 10, 1, 64);
   for (const ListEntry* bad : {&noSizes, &tooWide, &aggregated, &denseOfOne}) {
      EXPECT_THROW(lists_->entryCommit(*bad, *bad), std::invalid_argument) << bad->toString();
      EXPECT_FALSE(lists_->entryHandleHas(*bad));
   }
   loop_.runUntilIdle();
   EXPECT_EQ(alloc().totalUsedIndices(), used);
   EXPECT_EQ(kept->entryState(), State::success);
   EXPECT_EQ(listHw_->counters().writes, 1u);
}

TEST_F(ReplListTablesTest, NewListOfTheReplayTakesNoIndexOfAStaleListBeforeThePurge) {
   // Sync holds every index of a list the chip still has until the purge decides on it.
   const ListEntry stale = list({7, 8, 9, 10, 11}, 2);
   std::vector<Asic::Index> staleIndices;
   {
      auto s = lists_->entryCommit(stale, stale);
      loop_.runUntilIdle();
      staleIndices = lists_->hwIndices(stale);
   }
   ASSERT_EQ(staleIndices.size(), 2u);
   ASSERT_NO_FATAL_FAILURE(restart());
   EXPECT_EQ(lists_->syncedEntryGet(staleIndices.front()).egressObjects().size(), 5u);
   EXPECT_THROW(lists_->syncedEntryGet(0), std::out_of_range);

   const ListEntry fresh = list({20, 21, 22, 23, 24, 25, 26, 27, 28}, 3);
   auto f = lists_->entryCommit(fresh, fresh);
   lists_->doInitComplete();
   ASSERT_EQ(lists_->hwIndices(fresh).size(), 3u);
   for (Asic::Index index : lists_->hwIndices(fresh)) {
      EXPECT_EQ(std::count(staleIndices.begin(), staleIndices.end(), index), 0)
          << "the new list took index " << index << " of a stale list before the purge";
   }
   lists_->purgeStaleEntries();
   loop_.runUntilIdle();
   EXPECT_EQ(f->entryState(), State::success);
   EXPECT_EQ(listHw_->counters().clears, staleIndices.size());
   for (Asic::Index index : staleIndices) EXPECT_TRUE(alloc().isIndexFree(index)) << index;
}

TEST_F(ReplListTablesTest, SuggestionForAListStillWaitingIsPassedToItsEgressObjects) {
   // Verify that a suggestion reaching a list whose egress objects have no index yet is
   // passed down to them (the next hops the hardware list holds for their ports), and that
   // the list reconciles at the suggested index, without a write, once they are programmed.
   const ListEntry cold = list({5, 6, 7}, 1);
   Asic::Index first = 0;
   {
      auto eh = lists_->entryCommit(cold, cold);
      loop_.runUntilIdle();
      first = eh->hwIndex();
   }
   ASSERT_NO_FATAL_FAILURE(restart());
   std::vector<Asic::Ptr<VelmarMcastTestEntryHandle>> hops;
   ListEntry replayed;
   for (std::uint16_t nh : {5, 6, 7}) {
      hops.push_back(testEntryHandle());
      replayed.egressObjectHandleIs(hops.back(), PortList{nh});
   }
   replayed.genIdIs(1);
   replayed.sparseEntrySizeIs(4);
   auto eh = lists_->entryCommit(replayed, replayed);
   Asic::SwTableBase::suggestIndicesToNeededEntryHandle(eh.get(), {first});
   for (std::size_t i = 0; i < hops.size(); ++i) {
      ASSERT_EQ(hops[i]->suggestions().size(), 1u) << "next hop " << i;
      EXPECT_THAT(hops[i]->suggestions().front(), ElementsAre(5 + i));
   }
   for (std::size_t i = 0; i < hops.size(); ++i) hops[i]->programmedIs(Asic::Index(5 + i));
   EXPECT_EQ(eh->entryState(), State::indexReconciled);
   EXPECT_EQ(eh->hwIndex(), first);
   lists_->doInitComplete();
   lists_->purgeStaleEntries();
   loop_.runUntilIdle();
   EXPECT_EQ(listHw_->counters().writes, 0u);
   EXPECT_EQ(listHw_->counters().clears, 0u);
}

TEST_F(ReplListTablesTest, SyncSkipsWordsNoEntryCouldHold) {
   ReplListFormat::Words badKind{};
   badKind[0] = 3;  // kind 3 is not an entry kind
   listHw_->entryWrite(5, badKind);
   L2SubPortFormat::Words strayBit{};
   strayBit[0] = 1u << 31;  // outside every field
   l2Hw_->entryWrite(6, strayBit);
   ASSERT_NO_FATAL_FAILURE(restart());
   EXPECT_TRUE(lists_->syncedEntries().empty());
   EXPECT_TRUE(l2_->syncedEntries().empty());
}

TEST_F(ReplListTablesTest, ListWriteAtIndexStartsTheChainThereAndTopsUpTheRestOnceResolved) {
   // The list's size is known only once its egress objects resolve; the placed index is the
   // chain's head and the allocator adds the rest. A refused index changes nothing.
   auto late = testEntryHandle();
   ListEntry entry = list({3, 7, 9, 12, 40});  // 5 pairs + 2 below: 2 sparse entries of 4
   entry.egressObjectHandleIs(late, PortList{5, 6});
   auto eh = lists_->entryWriteAtIndex(300, entry);
   loop_.runUntilIdle();
   EXPECT_EQ(eh->entryState(), State::unresolved);
   EXPECT_EQ(alloc().indicesForKey(Asic::vixType<ListEntry>(), &entry),
             std::vector<Asic::Index>{300});
   late->programmedIs(100);
   loop_.runUntilIdle();
   ASSERT_EQ(eh->entryState(), State::success);
   const auto indices = lists_->hwIndices(entry);
   ASSERT_EQ(indices.size(), 2u);
   EXPECT_EQ(indices.front(), 300u);
   EXPECT_EQ(chainAt(300), indices);

   const auto writes = listHw_->counters().writes;
   const auto used = alloc().totalUsedIndices();
   ListEntry other = list({1});
   try {
      lists_->entryWriteAtIndex(300, other);
      ADD_FAILURE() << "an index the list holds was given to another";
   } catch (const std::invalid_argument& e) {
      EXPECT_THAT(e.what(), testing::HasSubstr("VelmarMcast::MmuReplListTable"));
      EXPECT_THAT(e.what(), testing::HasSubstr("index 300"));
      EXPECT_THAT(e.what(), testing::HasSubstr("taken"));
   }
   EXPECT_THROW(lists_->entryWriteAtIndex(kEntries, other), std::invalid_argument);
   ListEntry bad = list({2}, 1, 4, 2);  // dense, but an egress object on two ports: refused
   bad.egressObjectHandleIs(testEntryHandle(77, State::success), PortList{1, 2});
   EXPECT_THROW(lists_->entryWriteAtIndex(500, bad), std::invalid_argument);
   EXPECT_TRUE(alloc().isIndexFree(500));
   loop_.runUntilIdle();
   EXPECT_EQ(listHw_->counters().writes, writes);
   EXPECT_EQ(alloc().totalUsedIndices(), used);
   EXPECT_FALSE(lists_->entryHandleHas(other));
   EXPECT_EQ(lists_->entryWriteAtIndex(300, entry), eh) << "its own index again";
}

// --- L2 sub-port table --------------------------------------------------------------------

L2Entry l2Entry(std::uint32_t mode, std::uint32_t bits) {
   return L2Entry(mode, Ulm::PerUnitBitmap(std::vector<std::uint32_t>{bits, 0}));
}

TEST_F(ReplListTablesTest, L2EntryWriteAtIndexProgramsThereAndRefusesATakenIndex) {
   auto eh = l2_->entryWriteAtIndex(17, l2Entry(2, 0xF0));
   loop_.runUntilIdle();
   EXPECT_EQ(eh->hwIndex(), 17u);
   EXPECT_EQ(eh->resolvedEntryState(), State::success);
   std::array<std::uint32_t, L2SubPortFormat::kEntryWords> words{};
   ASSERT_TRUE(l2Hw_->entryRead(17, words));
   EXPECT_EQ(L2SubPortFormat::decode(words).mode, 2u);

   const auto writes = l2Hw_->counters().writes;
   EXPECT_THROW(l2_->entryWriteAtIndex(17, l2Entry(1, 1)), std::invalid_argument);
   EXPECT_THROW(l2_->entryWriteAtIndex(0, l2Entry(1, 1)), std::invalid_argument) << "reserved";
   loop_.runUntilIdle();
   EXPECT_EQ(l2Hw_->counters().writes, writes);
   EXPECT_FALSE(l2_->entryHandleHas(l2Entry(1, 1)));
}

}  // namespace
}  // namespace VelmarMcast::Testing

// --- restarts over a chip left by a crash or corrupted --------------------------------------

namespace VelmarMcast::Testing {
namespace {

TEST_F(ReplListTablesTest, SuggestionOfAnIndexAnotherListRecoveredIsPassedOver) {
   // Verify that a suggestion naming an index another list already took over is refused
   // (" not free") instead of stopping the agent, and that the list then reconciles at its
   // own index.
   const ListEntry a = list({1, 2, 3}, 1);
   const ListEntry b = list({4, 5, 6}, 2);
   Asic::Index aFirst = 0, bFirst = 0;
   {
      auto ha = lists_->entryCommit(a, a);
      auto hb = lists_->entryCommit(b, b);
      loop_.runUntilIdle();
      aFirst = ha->hwIndex();
      bFirst = hb->hwIndex();
   }
   ASSERT_NO_FATAL_FAILURE(restart());
   Asic::TraceCapture capture("VelmarMcast::MmuReplListTable/8");
   auto ha = lists_->entryCommit(a, a);
   Asic::SwTableBase::suggestIndicesToNeededEntryHandle(ha.get(), {aFirst});
   ASSERT_EQ(ha->entryState(), State::indexReconciled);
   auto hb = lists_->entryCommit(b, b);
   Asic::SwTableBase::suggestIndicesToNeededEntryHandle(hb.get(), {aFirst});
   EXPECT_EQ(hb->entryState(), State::unresolved);
   EXPECT_TRUE(capture.contains(fmt::format(
       "VelmarMcast::MmuReplListTable : reconcileUsingHwIndex: Index:{} not free", aFirst)));
   Asic::SwTableBase::suggestIndicesToNeededEntryHandle(hb.get(), {bFirst});
   EXPECT_EQ(hb->entryState(), State::indexReconciled);
   lists_->doInitComplete();
   lists_->purgeStaleEntries();
   loop_.runUntilIdle();
   EXPECT_EQ(listHw_->counters().writes + listHw_->counters().clears, 0u);
}

TEST_F(ReplListTablesTest, HeldBackListWhoseSuggestedIndexAnotherListTookIsProgrammedAsNew) {
   // After a crash mid-change, list y's replication head still names index i, where list x
   // sits. y is suggested i first (refused: other contents), then x takes i over. At the
   // end of the replay y's helper still names i: it is passed over, and y is written anew.
   const ListEntry x = list({1, 2}, 1);
   const ListEntry y = list({3, 4}, 2);
   Asic::Index i = 0;
   {
      auto hx = lists_->entryCommit(x, x);
      loop_.runUntilIdle();
      i = hx->hwIndex();
   }
   ASSERT_NO_FATAL_FAILURE(restart());
   Asic::TraceCapture capture("VelmarMcast::MmuReplListTable/8");
   auto hy = lists_->entryCommit(y, y);
   Asic::SwTableBase::suggestIndicesToNeededEntryHandle(hy.get(), {i});
   auto hx = lists_->entryCommit(x, x);
   Asic::SwTableBase::suggestIndicesToNeededEntryHandle(hx.get(), {i});
   ASSERT_EQ(hx->entryState(), State::indexReconciled);
   lists_->doInitComplete();
   lists_->purgeStaleEntries();
   loop_.runUntilIdle();
   EXPECT_EQ(hy->entryState(), State::success);
   EXPECT_NE(hy->hwIndex(), i);
   EXPECT_EQ(hx->hwIndex(), i);
   EXPECT_TRUE(capture.contains(
       fmt::format("VelmarMcast::MmuReplListTable : reconcileUsingHwIndex: Index:{} not free", i)));
   EXPECT_EQ(lists_->reconciliationStats()[Status::nothingToReconcile], 1u);
   EXPECT_EQ(listHw_->counters().writes, 1u);
}

TEST_F(ReplListTablesTest, CorruptedL2WordWithItsLastBitClearLeaksNoIndexAtRestart) {
   // Sync must hold nothing that reconciliation or the purge will not bind or free: an L2
   // entry is one index, whatever its link field says.
   const L2Entry kept(1, Ulm::PerUnitBitmap(std::vector<std::uint32_t>{0x3, 0}));
   Asic::Index i = 0;
   {
      auto eh = l2_->entryCommit(kept, kept);
      loop_.runUntilIdle();
      i = eh->hwIndex();
   }
   L2SubPortFormat::Words words{};
   ASSERT_TRUE(l2Hw_->entryRead(i, words));
   L2SubPortFormat::HwEntry corrupted = L2SubPortFormat::decode(words);
   corrupted.last = false;
   corrupted.next = 50;
   l2Hw_->entryWrite(i, L2SubPortFormat::encode(corrupted));

   ASSERT_NO_FATAL_FAILURE(restart());
   auto eh = l2_->entryCommit(kept, kept);
   Asic::SwTableBase::suggestIndicesToNeededEntryHandle(eh.get(), {i});
   l2_->doInitComplete();
   l2_->purgeStaleEntries();
   loop_.runUntilIdle();
   EXPECT_EQ(eh->hwIndex(), i);
   EXPECT_FALSE(alloc().isIndexHeld(50));
   EXPECT_EQ(alloc().totalUsedIndices(), 2u) << "index 0 and the kept entry's";
}

TEST_F(ReplListTablesTest, ChainsThatMeetAreHeldOnceAndAllFreedByThePurge) {
   // Two chain heads lead into one shared tail (a corrupted chip): sync holds each index
   // once, for the first record that reaches it, and the purge deletes and frees them all.
   auto link = [&](Asic::Index index, Asic::Index next, bool last) {
      ReplListFormat::HwEntry entry;
      entry.pairs = {{index, 1}};
      entry.next = next;
      entry.last = last;
      listHw_->entryWrite(index, ReplListFormat::encode(entry));
   };
   link(10, 12, false);
   link(11, 12, false);
   link(12, 0, true);
   ASSERT_NO_FATAL_FAILURE(restart());
   ASSERT_EQ(lists_->syncedEntries().size(), 2u);
   lists_->doInitComplete();
   lists_->purgeStaleEntries();
   loop_.runUntilIdle();
   EXPECT_EQ(alloc().totalUsedIndices(), 1u) << "only index 0 stays reserved";
   EXPECT_EQ(validEntries(listHw_), 0u);
}

TEST_F(ReplListTablesTest, ListBrokenByACrashIsPurgedWithEveryIndexItHeld) {
   // The middle entry of a chain never reached the chip: its head leads nowhere, its tail is
   // a list of its own. Neither serves a key; both leave the chip at the purge.
   const ListEntry cut = list({1, 2, 3, 4, 5, 6, 7, 8, 9}, 1);
   std::vector<Asic::Index> chain;
   {
      auto eh = lists_->entryCommit(cut, cut);
      loop_.runUntilIdle();
      chain = chainAt(eh->hwIndex());
   }
   ASSERT_EQ(chain.size(), 3u);
   listHw_->entryClear(chain[1]);
   ASSERT_NO_FATAL_FAILURE(restart());
   EXPECT_EQ(lists_->syncedEntries().size(), 2u);
   lists_->doInitComplete();
   lists_->purgeStaleEntries();
   loop_.runUntilIdle();
   EXPECT_EQ(validEntries(listHw_), 0u);
   EXPECT_EQ(alloc().totalUsedIndices(), 1u) << "only index 0 stays reserved";
}

TEST_F(ReplListTablesTest, EntryHeldBackThenWontProgramIsProgrammedWhenCommittedAgain) {
   const L2Entry e = l2Entry(2, 0x5);
   {
      auto eh = l2_->entryCommit(e, e);
      loop_.runUntilIdle();
   }
   ASSERT_NO_FATAL_FAILURE(restart());
   auto eh = l2_->entryCommit(e, e);
   ASSERT_EQ(eh->entryState(), State::unresolved) << "held back: no suggestion for it";
   l2_->entryWontProgram(e);
   l2_->doInitComplete();
   l2_->purgeStaleEntries();
   loop_.runUntilIdle();
   EXPECT_EQ(eh->entryState(), State::wontProgram);

   l2_->entryCommit(e, e);
   loop_.runUntilIdle();
   EXPECT_EQ(eh->entryState(), State::success);
   EXPECT_EQ(validEntries(l2Hw_), 1u);
   EXPECT_EQ(l2_->swKeyFromHwIndex(eh->hwIndex()), e);
}

TEST_F(ReplListTablesTest, NoChipContentsStopARestartOrLeaveAnIndexBehind) {
   // Verify that whatever the memories hold (entries with random links, loops, chains into
   // junk or past the table, words no entry could have), a restart syncs, replays, ends and
   // purges without an error, and the allocator ends holding nothing but index 0.
   std::mt19937 engine(2024);
   auto rng = [&engine] { return static_cast<std::uint32_t>(engine()); };
   for (int round = 0; round < 20; ++round) {
      for (Asic::Index index = 1; index < 200; ++index) {
         const std::uint32_t roll = rng() % 10;
         if (roll < 3) continue;
         if (roll == 3) {
            ReplListFormat::Words junk{};
            for (auto& word : junk) word = rng();
            listHw_->entryWrite(index, junk);
            continue;
         }
         ReplListFormat::HwEntry entry;
         entry.pairs = {{rng() % 64, static_cast<std::uint16_t>(rng() % 32)}};
         entry.last = rng() % 3 == 0;
         entry.next = rng() % 4 == 0 ? rng() : rng() % 220;
         listHw_->entryWrite(index, ReplListFormat::encode(entry));
         L2SubPortFormat::HwEntry l2;
         l2.mode = rng() % 4;
         l2.bitmapWords = {rng(), rng()};
         l2.last = rng() % 2 == 0;
         l2.next = rng() % 220;
         if (roll > 6) l2Hw_->entryWrite(index, L2SubPortFormat::encode(l2));
      }
      ASSERT_NO_FATAL_FAILURE(restart());
      const ListEntry replayed = list({1, 2, 3}, 1);
      auto eh = lists_->entryCommit(replayed, replayed);
      Asic::SwTableBase::suggestIndicesToNeededEntryHandle(eh.get(),
                                                           {Asic::Index(1 + rng() % 199)});
      lists_->doInitComplete();
      l2_->doInitComplete();
      lists_->purgeStaleEntries();
      l2_->purgeStaleEntries();
      loop_.runUntilIdle();
      EXPECT_EQ(eh->entryState(), State::success) << "round " << round;
      EXPECT_GT(lists_->reconciliationStats()[Status::staleEntryDeleted], 0u) << "round " << round;
      EXPECT_GT(l2_->reconciliationStats()[Status::staleEntryDeleted], 0u) << "round " << round;
      EXPECT_EQ(alloc().totalUsedIndices(), 1u + lists_->hwIndices(replayed).size())
          << "round " << round;
      lists_->entryRemove(replayed);
      eh.reset();
      loop_.runUntilIdle();
   }
}

}  // namespace
}  // namespace VelmarMcast::Testing
