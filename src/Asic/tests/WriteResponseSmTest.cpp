#include "Asic/WriteResponseSm.h"

#include <array>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Asic/Assert.h"
#include "Asic/EventLoop.h"
#include "Asic/HwTable.h"
#include "Asic/IndexUserTracker.h"
#include "Asic/SwTableBase.h"

namespace Asic {
namespace {

using ::testing::HasSubstr;
using EntryState = SwTableBase::EntryState;

// Instrumented handle: counts dispatches and its own deletion; can store a raw state byte
// the way a corrupted handle would hold it.
class TestHandle : public SwTableBase::EntryHandle {
 public:
   explicit TestHandle(int* deleted = nullptr) : deleted_(deleted) {}
   ~TestHandle() override {
      if (deleted_) ++*deleted_;
   }
   void rawEntryStateIs(std::uint8_t raw) { entryState_ = raw; }
   void handleEntryState() override { dispatched.push_back(entryState()); }
   void lastUserGone() override { ++lastUserGoneCalls; }

   std::vector<EntryState> dispatched;
   int lastUserGoneCalls = 0;

 private:
   int* deleted_;  // not owned
};

class RecordingWatcher : public SwTableBase::EntryHandleWatcher {
 public:
   void neededEntryHandleStateIs(const SwTableBase::EntryHandle* eh, EntryState state) override {
      told.emplace_back(eh, state);
      if (onTold) onTold();
   }
   std::vector<std::pair<const SwTableBase::EntryHandle*, EntryState>> told;
   std::function<void()> onTold;
};

// Verify that a corrupted state byte (7 or more) asserts when read, and that storing an
// out-of-range state asserts too; 6 is the last valid state.
TEST(EntryHandleTest, InvalidStateAsserts) {
   ScopedAssertThrow guard;
   auto eh = makePtr<TestHandle>();
   eh->rawEntryStateIs(6);
   EXPECT_EQ(eh->entryState(), EntryState::programFailed);
   eh->rawEntryStateIs(7);
   try {
      (void)eh->entryState();
      FAIL() << "state byte 7 was accepted";
   } catch (const AssertionError& e) {
      EXPECT_EQ(e.info().expression, "raw < kEntryStateCount");
      EXPECT_EQ(e.info().source, "SwTableBase");
      EXPECT_EQ(e.info().message, "invalid entry state");
   }
   eh->rawEntryStateIs(0xFF);
   EXPECT_THROW((void)eh->entryState(), AssertionError);

   eh->rawEntryStateIs(0);
   EXPECT_THROW(eh->entryStateIs(static_cast<EntryState>(7)), AssertionError);
   EXPECT_EQ(eh->entryState(), EntryState::unresolved) << "a refused state must not be stored";
   EXPECT_TRUE(eh->dispatched.empty());
}

// Verify that a state change is published, told to watchers and dispatched exactly once,
// that an unchanged state is not, and that a republish tells the client again.
TEST(EntryHandleTest, StateChangePublishedOncePerChange) {
   auto eh = makePtr<TestHandle>();
   std::vector<std::string> published;
   eh->observerIs([&](std::string_view attr) { published.emplace_back(attr); });
   RecordingWatcher watcher;
   eh->watcherIs(&watcher);
   EXPECT_EQ(eh->watchers(), 1u);

   eh->entryStateIs(EntryState::inProgress);
   eh->entryStateIs(EntryState::inProgress);
   EXPECT_EQ(published.size(), 1u) << "an unchanged state was published again";
   EXPECT_EQ(eh->dispatched, std::vector<EntryState>{EntryState::inProgress});
   ASSERT_EQ(watcher.told.size(), 1u);
   EXPECT_EQ(watcher.told[0].first, eh.get());
   EXPECT_EQ(watcher.told[0].second, EntryState::inProgress);

   eh->entryStateIs(EntryState::success);
   EXPECT_EQ(published, (std::vector<std::string>{"entryState", "entryState"}));
   EXPECT_EQ(watcher.told.size(), 2u);

   eh->entryStateRepublish();
   EXPECT_EQ(published.size(), 3u);
   EXPECT_EQ(eh->dispatched.size(), 3u);
   EXPECT_EQ(watcher.told.size(), 2u) << "watchers hear changes only";

   eh->watcherDel(&watcher);
   EXPECT_EQ(eh->watchers(), 0u);
   eh->entryStateIs(EntryState::programFailed);
   EXPECT_EQ(watcher.told.size(), 2u) << "a removed watcher was told";
   EXPECT_EQ(fmt::format("{}", eh->entryState()), "programFailed");
}

// Verify that a watcher removed by another watcher during a change is not told, and
// that a watcher dropping the last reference to the handle while being told does not
// leave the handle in use after it is gone.
TEST(EntryHandleTest, WatchersMayChangeThingsWhileTold) {
   int deleted = 0;
   auto eh = makePtr<TestHandle>(&deleted);
   RecordingWatcher first;
   RecordingWatcher second;
   eh->watcherIs(&first);
   eh->watcherIs(&second);
   first.onTold = [&] { eh->watcherDel(&second); };
   eh->entryStateIs(EntryState::inProgress);
   EXPECT_EQ(first.told.size(), 1u);
   EXPECT_TRUE(second.told.empty()) << "a watcher removed during the walk was told";

   // The dependent holding the only reference lets go when told.
   first.onTold = [&] { eh.reset(); };
   TestHandle* raw = eh.get();
   raw->entryStateIs(EntryState::success);
   EXPECT_EQ(first.told.size(), 2u);
   EXPECT_EQ(deleted, 1);
}

// Verify that telling watchers is not itself a user: a handle whose only owner is the
// table does not run lastUserGone on every change, while a dependent that lets go while
// told does make the remaining owner the last one, once the dispatch is over.
TEST(EntryHandleTest, ChangeRunsLastUserGoneOnlyForRealReleases) {
   auto owner = makePtr<TestHandle>();
   RecordingWatcher watcher;
   owner->watcherIs(&watcher);
   owner->entryStateIs(EntryState::inProgress);
   owner->entryStateIs(EntryState::success);
   EXPECT_EQ(owner->lastUserGoneCalls, 0) << "the walk over watchers counted as a user";

   Ptr<TestHandle> dependent = owner;
   watcher.onTold = [&] {
      dependent.reset();
      EXPECT_EQ(owner->lastUserGoneCalls, 0) << "clean-up began before the dispatch";
   };
   owner->entryStateIs(EntryState::programFailed);
   EXPECT_EQ(owner->dispatched.back(), EntryState::programFailed);
   EXPECT_EQ(owner->lastUserGoneCalls, 1);
}

// Verify the static helpers dependents use.
TEST(EntryHandleTest, DependentHelpers) {
   auto eh = makePtr<TestHandle>();
   EXPECT_EQ(eh->hwIndex(), invalidIndex);
   eh->hwIndexIs(42);
   EXPECT_EQ(SwTableBase::getHwEntryIndex(eh.get()), 42u);
   EXPECT_EQ(SwTableBase::getHwEntryIndex(nullptr), invalidIndex);
   EXPECT_EQ(eh->hwIndexForDependentField(), 42u);
   SwTableBase::suggestIndicesToNeededEntryHandle(nullptr, IndexSet{1});  // ignored
   EXPECT_TRUE(SwTableBase::EntryHandle::isReady(EntryState::indexReconciled));
   EXPECT_TRUE(SwTableBase::EntryHandle::isFailed(EntryState::failedNeededEntry));
   EXPECT_FALSE(SwTableBase::EntryHandle::isReady(EntryState::inProgress));
   EXPECT_FALSE(SwTableBase::EntryHandle::isFailed(EntryState::inProgress));
}

// Hardware table that keeps entries in memory and completes writes only when the test
// says so (through the event loop, as a chip's completions arrive).
class FakeHwTable : public HwTable {
 public:
   struct Issued {
      Index index;
      bool clear;
      WriteResponseSm::Ticket ticket;
   };

   FakeHwTable() : HwTable("FakeTable", 0, 16, 2) {}

   bool entryRead(Index index, std::span<std::uint32_t> out) const override {
      auto it = entries_.find(index);
      if (it == entries_.end()) return false;
      std::copy(it->second.begin(), it->second.end(), out.begin());
      return true;
   }
   void forEachValidEntry(const std::function<void(Index, Words)>& fn) const override {
      for (const auto& [index, words] : entries_) fn(index, words);
   }

   // Posts every issued write's completion; `failTicket` completes as failed.
   void completeAll(EventLoop& loop, WriteResponseSm::Ticket failTicket = 0) {
      for (const Issued& w : issued) {
         loop.post([this, w, failTicket] {
            writeResponseSm()->writeCompleted(w.ticket, w.ticket != failTicket);
         });
      }
      issued.clear();
      loop.runUntilIdle();
   }

   std::vector<Issued> issued;
   Index throwOnWrite = invalidIndex;

 protected:
   void doWrite(Index index, Words words, WriteResponseSm::Ticket ticket) override {
      if (index == throwOnWrite) throw std::runtime_error("fake write refused");
      entries_[index] = {words[0], words[1]};
      issued.push_back({index, false, ticket});
   }
   void doClear(Index index, WriteResponseSm::Ticket ticket) override {
      entries_.erase(index);
      issued.push_back({index, true, ticket});
   }

 private:
   std::map<Index, std::array<std::uint32_t, 2>> entries_;
};

class WriteResponseSmTest : public ::testing::Test {
 protected:
   WriteResponseSmTest() { hw_->writeResponseSmIs(sm_.get()); }

   const std::array<std::uint32_t, 2> words_{0x11, 0x22};
   Ptr<WriteResponseSm> sm_ = makePtr<WriteResponseSm>();
   Ptr<FakeHwTable> hw_ = makePtr<FakeHwTable>();
   EventLoop loop_;
   int deleted_ = 0;
   Ptr<TestHandle> eh_ = makePtr<TestHandle>(&deleted_);
};

// Verify that writes outside a write context, or with no SM bound, get no ticket and
// complete nobody.
TEST_F(WriteResponseSmTest, WritesOutsideAContextGetNoTicket) {
   hw_->entryWrite(1, words_);
   hw_->entryClear(2);
   ASSERT_EQ(hw_->issued.size(), 2u);
   EXPECT_EQ(hw_->issued[0].ticket, WriteResponseSm::kNoTicket);
   EXPECT_EQ(hw_->issued[1].ticket, WriteResponseSm::kNoTicket);
   EXPECT_EQ(sm_->outstandingWrites(), 0u);
   hw_->completeAll(loop_);
   EXPECT_TRUE(eh_->dispatched.empty());

   hw_->writeResponseSmIs(nullptr);
   WriteResponseSm::WriteContext ctx(sm_.get(), eh_.get());
   hw_->entryWrite(3, words_);
   EXPECT_EQ(hw_->issued.back().ticket, WriteResponseSm::kNoTicket);
   EXPECT_EQ(sm_->outstandingWrites(), 0u);
}

// Verify that all writes of one context complete the handle once, after the last of
// them, with success; and that the pending tickets keep the handle alive meanwhile.
TEST_F(WriteResponseSmTest, TwoWritesCompleteTheHandleOnceAfterBoth) {
   {
      WriteResponseSm::WriteContext ctx(sm_.get(), eh_.get());
      hw_->entryWrite(4, words_);
      hw_->entryClear(5);
   }
   ASSERT_EQ(hw_->issued.size(), 2u);
   EXPECT_NE(hw_->issued[0].ticket, hw_->issued[1].ticket);
   EXPECT_EQ(sm_->outstandingWrites(eh_.get()), 2u);
   eh_->entryStateIs(EntryState::inProgress);
   eh_->dispatched.clear();
   SwTableBase::EntryHandle* raw = eh_.get();
   eh_.reset();
   EXPECT_EQ(deleted_, 0) << "outstanding writes must keep the handle";

   sm_->writeCompleted(hw_->issued[0].ticket, true);
   EXPECT_EQ(raw->entryState(), EntryState::inProgress) << "completed before the last write";
   EXPECT_EQ(sm_->outstandingWrites(raw), 1u);

   std::vector<EntryState> states;
   raw->observerIs([&](std::string_view) { states.push_back(raw->entryState()); });
   hw_->issued.erase(hw_->issued.begin());
   hw_->completeAll(loop_);
   EXPECT_EQ(states, std::vector<EntryState>{EntryState::success});
   EXPECT_EQ(sm_->outstandingWrites(), 0u);
   EXPECT_EQ(deleted_, 1) << "the handle must go with its last ticket";
}

// Verify that one failed write among several completes the handle as programFailed
// through the default hwWriteCompleted.
TEST_F(WriteResponseSmTest, FailedWriteCompletesAsProgramFailed) {
   {
      WriteResponseSm::WriteContext ctx(sm_.get(), eh_.get());
      hw_->entryWrite(1, words_);
      hw_->entryWrite(2, words_);
   }
   hw_->completeAll(loop_, hw_->issued[0].ticket);
   EXPECT_EQ(eh_->entryState(), EntryState::programFailed);
   EXPECT_EQ(eh_->dispatched, std::vector<EntryState>{EntryState::programFailed});

   // The next programming starts clean: its success is not spoiled by the old failure.
   {
      WriteResponseSm::WriteContext ctx(sm_.get(), eh_.get());
      hw_->entryWrite(1, words_);
   }
   hw_->completeAll(loop_);
   EXPECT_EQ(eh_->entryState(), EntryState::success);
}

// Verify that unknown and already-reported tickets are ignored.
TEST_F(WriteResponseSmTest, UnknownTicketIgnored) {
   {
      WriteResponseSm::WriteContext ctx(sm_.get(), eh_.get());
      hw_->entryWrite(1, words_);
   }
   const auto ticket = hw_->issued[0].ticket;
   sm_->writeCompleted(ticket + 1000, false);
   sm_->writeCompleted(WriteResponseSm::kNoTicket, false);
   EXPECT_EQ(sm_->outstandingWrites(eh_.get()), 1u);
   EXPECT_TRUE(eh_->dispatched.empty());
   sm_->writeCompleted(ticket, true);
   sm_->writeCompleted(ticket, false);
   EXPECT_EQ(eh_->dispatched, std::vector<EntryState>{EntryState::success});
}

// Verify that contexts nest: the inner handle owns the writes issued inside it, and the
// outer one owns writes again once the inner context ends.
TEST_F(WriteResponseSmTest, NestedContexts) {
   auto inner = makePtr<TestHandle>();
   {
      WriteResponseSm::WriteContext outer(sm_.get(), eh_.get());
      {
         WriteResponseSm::WriteContext in(sm_.get(), inner.get());
         hw_->entryWrite(1, words_);
      }
      hw_->entryWrite(2, words_);
   }
   hw_->entryWrite(3, words_);
   EXPECT_EQ(sm_->outstandingWrites(inner.get()), 1u);
   EXPECT_EQ(sm_->outstandingWrites(eh_.get()), 1u);
   EXPECT_EQ(sm_->outstandingWrites(), 2u);
   hw_->completeAll(loop_);
   EXPECT_EQ(inner->entryState(), EntryState::success);
   EXPECT_EQ(eh_->entryState(), EntryState::success);
}

// Verify that bad writes are refused with the table, index or width named, and that a
// refused or failing write leaves no ticket behind to hold the handle's completion back.
TEST_F(WriteResponseSmTest, RefusedWritesLeaveNoTicket) {
   WriteResponseSm::WriteContext ctx(sm_.get(), eh_.get());
   try {
      hw_->entryWrite(16, words_);
      FAIL() << "index past the table accepted";
   } catch (const std::out_of_range& e) {
      EXPECT_THAT(e.what(), HasSubstr("FakeTable"));
      EXPECT_THAT(e.what(), HasSubstr("index 16"));
   }
   EXPECT_THROW(hw_->entryClear(16), std::out_of_range);
   const std::array<std::uint32_t, 3> tooWide{1, 2, 3};
   try {
      hw_->entryWrite(0, tooWide);
      FAIL() << "entry of the wrong width accepted";
   } catch (const std::invalid_argument& e) {
      EXPECT_THAT(e.what(), HasSubstr("3 words, expected 2"));
   }
   hw_->throwOnWrite = 7;
   EXPECT_THROW(hw_->entryWrite(7, words_), std::runtime_error);
   EXPECT_EQ(sm_->outstandingWrites(), 0u);
   EXPECT_EQ(sm_->outstandingWrites(eh_.get()), 0u);

   hw_->entryWrite(8, words_);
   hw_->completeAll(loop_);
   EXPECT_EQ(eh_->entryState(), EntryState::success);
}

// Verify the hardware table's bookkeeping: entries read back, used-entry counts.
TEST_F(WriteResponseSmTest, HwTableReadsBackAndCountsUse) {
   hw_->entryWrite(3, words_);
   std::array<std::uint32_t, 2> out{};
   EXPECT_TRUE(hw_->entryRead(3, out));
   EXPECT_EQ(out, words_);
   hw_->entryClear(3);
   EXPECT_FALSE(hw_->entryRead(3, out));

   hw_->usedEntriesInc(3);
   hw_->usedEntriesInc(2);
   EXPECT_EQ(hw_->usedEntries(), 5u);
   EXPECT_EQ(hw_->name(), "FakeTable");
   EXPECT_EQ(hw_->numEntries(), 16u);
   EXPECT_EQ(hw_->entryWords(), 2u);
}

// Verify user counting per index: takes and re-takes add, releases subtract and never
// go below zero, and every update is counted.
TEST_F(WriteResponseSmTest, IndexUserTrackerCounts) {
   IndexUserTracker& t = IndexUserTracker::Stub::tracker(*hw_, 0);
   EXPECT_EQ(&IndexUserTracker::Stub::tracker(*hw_, 0), &t) << "one tracker per table";
   t.update(5, IndexUserTracker::taken);
   t.update(5, IndexUserTracker::takenAgain);
   t.update(6, IndexUserTracker::taken);
   EXPECT_EQ(t.users(5), 2u);
   EXPECT_EQ(t.usedIndices(), 2u);
   t.update(5, IndexUserTracker::released);
   EXPECT_EQ(t.users(5), 1u);
   t.update(5, IndexUserTracker::releasedByDelete);
   EXPECT_EQ(t.users(5), 0u);
   t.update(5, IndexUserTracker::released);  // not in use: nothing to drop
   EXPECT_EQ(t.users(5), 0u);
   EXPECT_EQ(t.usedIndices(), 1u);
   EXPECT_EQ(t.updates(), 6u);
}

// Verify that deleting the tracker drops it (a later one starts empty) and clears the
// used-entry count unless asked to keep it.
TEST_F(WriteResponseSmTest, DeleteTrackerKeepsOrClearsCounts) {
   IndexUserTracker::Stub::tracker(*hw_, 0).update(1, IndexUserTracker::taken);
   hw_->usedEntriesInc(4);
   IndexUserTracker::Stub::deleteTracker(hw_.get(), 0, /*keepCounts=*/true);
   EXPECT_EQ(hw_->indexUserTracker(), nullptr);
   EXPECT_EQ(hw_->usedEntries(), 4u);
   EXPECT_EQ(IndexUserTracker::Stub::tracker(*hw_, 0).users(1), 0u) << "tracker not renewed";

   IndexUserTracker::Stub::deleteTracker(hw_.get(), 0, /*keepCounts=*/false);
   EXPECT_EQ(hw_->indexUserTracker(), nullptr);
   EXPECT_EQ(hw_->usedEntries(), 0u);
   IndexUserTracker::Stub::deleteTracker(nullptr, 0, false);  // no table: nothing to do
   EXPECT_EQ(hw_->usedEntries(), 0u);
}

}  // namespace
}  // namespace Asic
