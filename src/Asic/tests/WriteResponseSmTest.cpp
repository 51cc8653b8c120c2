#include "Asic/WriteResponseSm.h"

#include <array>
#include <functional>
#include <initializer_list>
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

using ::testing::AllOf;
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

// Verify that a callback is empty when made from nothing (default, nullptr, an empty
// std::function, a null function pointer), that it passes the state on, and that copies
// share one callable (a stateful one counts the calls of every copy).
TEST(WriteResponseFnTest, EmptyOrSharedAmongCopies) {
   void (*none)(EntryState) = nullptr;
   for (const WriteResponseFn& fn :
        {WriteResponseFn(), WriteResponseFn(nullptr),
         WriteResponseFn(std::function<void(EntryState)>()), WriteResponseFn(none)}) {
      EXPECT_FALSE(fn);
   }
   std::vector<EntryState> told;
   const WriteResponseFn fn = [&told, calls = 0](EntryState s) mutable {
      told.push_back(s);
      told.push_back(static_cast<EntryState>(++calls));
   };
   ASSERT_TRUE(fn);
   const WriteResponseFn copy = fn;
   fn(EntryState::success);
   copy(EntryState::programFailed);
   EXPECT_EQ(told,
             (std::vector<EntryState>{EntryState::success, EntryState::inProgress,
                                      EntryState::programFailed, EntryState::indexReconciled}))
       << "the copy called a callable of its own";
}

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

   eh->entryStateIs(EntryState::inProgress);
   eh->entryStateIs(EntryState::inProgress);
   EXPECT_EQ(published.size(), 1u) << "an unchanged state was published again";
   EXPECT_EQ(eh->dispatched, std::vector<EntryState>{EntryState::inProgress});
   EXPECT_EQ(watcher.told, (decltype(watcher.told){{eh.get(), EntryState::inProgress}}));

   eh->entryStateIs(EntryState::success);
   EXPECT_EQ(published, (std::vector<std::string>{"entryState", "entryState"}));
   EXPECT_EQ(watcher.told.size(), 2u);

   eh->entryStateRepublish();
   EXPECT_EQ(published.size(), 3u);
   EXPECT_EQ(eh->dispatched.size(), 3u);
   EXPECT_EQ(watcher.told.size(), 2u) << "watchers hear changes only";

   eh->watcherDel(&watcher);
   eh->entryStateIs(EntryState::programFailed);
   EXPECT_EQ(watcher.told.size(), 2u) << "a removed watcher was told";
   EXPECT_EQ(fmt::format("{}", eh->entryState()), "programFailed");
}

// Verify what watchers may do while told: remove another watcher (which is then not
// told); let go of a reference, which makes the remaining owner the last one only once the
// dispatch is over (the walk over watchers is not itself a user); drop the last reference
// (the handle goes once the change is done with it).
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
   EXPECT_EQ(eh->lastUserGoneCalls, 0) << "the walk over watchers counted as a user";

   Ptr<TestHandle> dependent = eh;
   first.onTold = [&] {
      dependent.reset();
      EXPECT_EQ(eh->lastUserGoneCalls, 0) << "clean-up began before the dispatch";
   };
   eh->entryStateIs(EntryState::success);
   EXPECT_EQ(eh->dispatched.back(), EntryState::success);
   EXPECT_EQ(eh->lastUserGoneCalls, 1);

   first.onTold = [&] { eh.reset(); };
   TestHandle* raw = eh.get();
   raw->entryStateIs(EntryState::programFailed);
   EXPECT_EQ(first.told.size(), 3u);
   EXPECT_EQ(deleted, 1);
}

// Hardware table that completes writes only when the test says so (through the event
// loop, as a chip's completions arrive).
class FakeHwTable : public HwTable {
 public:
   FakeHwTable() : HwTable("FakeTable", 0, 16, 2) {}

   bool entryRead(Index, std::span<std::uint32_t>) const override { return false; }
   void forEachValidEntry(const std::function<void(Index, Words)>&) const override {}

   // Posts every issued write's completion; `failTicket` completes as failed.
   void completeAll(EventLoop& loop, WriteResponseSm::Ticket failTicket = 0) {
      for (WriteResponseSm::Ticket t : issued) {
         loop.post(
             [this, t, failTicket] { writeResponseSm()->writeCompleted(t, t != failTicket); });
      }
      issued.clear();
      loop.runUntilIdle();
   }

   std::vector<WriteResponseSm::Ticket> issued;
   Index throwOnWrite = invalidIndex;

 protected:
   void doWrite(Index index, Words, WriteResponseSm::Ticket ticket) override {
      if (index == throwOnWrite) throw std::runtime_error("fake write refused");
      issued.push_back(ticket);
   }
   void doClear(Index, WriteResponseSm::Ticket ticket) override { issued.push_back(ticket); }
};

// The message of the E that fn throws.
template <typename E>
std::string thrown(auto fn) {
   try {
      fn();
   } catch (const E& e) {
      return e.what();
   }
   return "<no exception>";
}

class WriteResponseSmTest : public ::testing::Test {
 protected:
   WriteResponseSmTest() { hw_->writeResponseSmIs(sm_.get()); }

   // Writes the indices inside a write context of `eh`.
   void writeIn(SwTableBase::EntryHandle* eh, std::initializer_list<Index> indices) {
      WriteResponseSm::WriteContext ctx(sm_.get(), eh);
      for (Index index : indices) hw_->entryWrite(index, words_);
   }

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
   EXPECT_EQ(hw_->issued, std::vector(2, WriteResponseSm::kNoTicket));
   EXPECT_EQ(sm_->outstandingWrites(), 0u);
   hw_->completeAll(loop_);
   EXPECT_TRUE(eh_->dispatched.empty());

   hw_->writeResponseSmIs(nullptr);
   WriteResponseSm::WriteContext ctx(sm_.get(), eh_.get());
   hw_->entryWrite(3, words_);
   EXPECT_EQ(hw_->issued.back(), WriteResponseSm::kNoTicket);
   EXPECT_EQ(sm_->outstandingWrites(), 0u);
}

// Verify that all writes of one context complete the handle once, after the last of
// them, with success; that the pending tickets keep the handle alive meanwhile; and that
// unknown and already-reported tickets are ignored.
TEST_F(WriteResponseSmTest, TwoWritesCompleteTheHandleOnceAfterBoth) {
   {
      WriteResponseSm::WriteContext ctx(sm_.get(), eh_.get());
      hw_->entryWrite(4, words_);
      hw_->entryClear(5);
   }
   ASSERT_EQ(hw_->issued.size(), 2u);
   EXPECT_NE(hw_->issued[0], hw_->issued[1]);
   EXPECT_EQ(sm_->outstandingWrites(eh_.get()), 2u);
   eh_->entryStateIs(EntryState::inProgress);
   SwTableBase::EntryHandle* raw = eh_.get();
   eh_.reset();
   EXPECT_EQ(deleted_, 0) << "outstanding writes must keep the handle";

   const auto first = hw_->issued[0];
   sm_->writeCompleted(first, true);
   EXPECT_EQ(raw->entryState(), EntryState::inProgress) << "completed before the last write";
   sm_->writeCompleted(first, false);
   sm_->writeCompleted(first + 1000, false);
   sm_->writeCompleted(WriteResponseSm::kNoTicket, false);
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
   writeIn(eh_.get(), {1, 2});
   hw_->completeAll(loop_, hw_->issued[0]);
   EXPECT_EQ(eh_->entryState(), EntryState::programFailed);
   EXPECT_EQ(eh_->dispatched, std::vector<EntryState>{EntryState::programFailed});

   // The next programming starts clean: its success is not spoiled by the old failure.
   writeIn(eh_.get(), {1});
   hw_->completeAll(loop_);
   EXPECT_EQ(eh_->entryState(), EntryState::success);
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
   hw_->completeAll(loop_);
   EXPECT_EQ(inner->entryState(), EntryState::success);
   EXPECT_EQ(eh_->entryState(), EntryState::success);
}

// Verify that bad writes are refused with the table, index or width named, and that a
// refused or failing write leaves no ticket behind to hold the handle's completion back.
TEST_F(WriteResponseSmTest, RefusedWritesLeaveNoTicket) {
   WriteResponseSm::WriteContext ctx(sm_.get(), eh_.get());
   EXPECT_THAT(thrown<std::out_of_range>([&] { hw_->entryWrite(16, words_); }),
               AllOf(HasSubstr("FakeTable"), HasSubstr("index 16")));
   EXPECT_THROW(hw_->entryClear(16), std::out_of_range);
   const std::array<std::uint32_t, 3> tooWide{1, 2, 3};
   EXPECT_THAT(thrown<std::invalid_argument>([&] { hw_->entryWrite(0, tooWide); }),
               HasSubstr("3 words, expected 2"));
   hw_->throwOnWrite = 7;
   EXPECT_THROW(hw_->entryWrite(7, words_), std::runtime_error);
   EXPECT_EQ(sm_->outstandingWrites(), 0u);
   EXPECT_EQ(sm_->outstandingWrites(eh_.get()), 0u);

   hw_->entryWrite(8, words_);
   hw_->completeAll(loop_);
   EXPECT_EQ(eh_->entryState(), EntryState::success);
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
   EXPECT_THAT(
       thrown<std::out_of_range>([&] { t.update(hw_->numEntries(), IndexUserTracker::taken); }),
       HasSubstr("past the hardware table"));
   EXPECT_EQ(t.updates(), 6u) << "a refused index counts nothing";
}

// Verify that responses arriving in any order complete each handle once, after its last
// write, and that a burst long enough to outgrow the ticket ring leaves nothing behind.
TEST_F(WriteResponseSmTest, ResponsesInAnyOrderCompleteEachHandleOnce) {
   std::vector<Ptr<TestHandle>> handles;
   std::vector<std::pair<WriteResponseSm::Ticket, TestHandle*>> tickets;
   for (int h = 0; h < 3000; ++h) {
      handles.push_back(makePtr<TestHandle>());
      writeIn(handles.back().get(), {Index(h % 8), Index((h + 1) % 8)});
      for (WriteResponseSm::Ticket t : hw_->issued) tickets.emplace_back(t, handles.back().get());
      hw_->issued.clear();
   }
   EXPECT_EQ(sm_->outstandingWrites(), 6000u);
   // Odd tickets first, from the newest down; then the even ones.
   for (auto it = tickets.rbegin(); it != tickets.rend(); ++it) {
      if (it->first % 2) sm_->writeCompleted(it->first, true);
   }
   // Each handle's two tickets are consecutive: every handle still waits for one.
   for (std::size_t h = 0; h < handles.size(); ++h) {
      EXPECT_TRUE(handles[h]->dispatched.empty()) << "handle " << h << " completed early";
   }
   for (const auto& [t, eh] : tickets) {
      if (t % 2 == 0) sm_->writeCompleted(t, true);
   }
   EXPECT_EQ(sm_->outstandingWrites(), 0u);
   for (std::size_t h = 0; h < handles.size(); ++h) {
      EXPECT_EQ(handles[h]->dispatched, std::vector<EntryState>{EntryState::success})
          << "handle " << h;
      EXPECT_EQ(sm_->outstandingWrites(handles[h].get()), 0u) << "handle " << h;
   }
   // A response reported twice, or one never issued, changes nothing.
   sm_->writeCompleted(tickets.front().first, false);
   sm_->writeCompleted(tickets.back().first + 100, false);
   EXPECT_EQ(handles.front()->dispatched.size(), 1u);
}

// Writes kept in flight as a sliding window: the tickets wrap around the ring, and the
// window widens while they do (the ring grows with its slots wrapped). Responses come
// newest-first within each step; every handle completes once, with its own outcome.
TEST_F(WriteResponseSmTest, SlidingWindowWrapsAndGrowsTheRing) {
   std::vector<Ptr<TestHandle>> handles;
   std::vector<WriteResponseSm::Ticket> inFlight;  // oldest first
   std::size_t completed = 0;
   auto completeOldest = [&](std::size_t n) {
      std::vector<WriteResponseSm::Ticket> batch(inFlight.begin(), inFlight.begin() + n);
      inFlight.erase(inFlight.begin(), inFlight.begin() + n);
      for (auto it = batch.rbegin(); it != batch.rend(); ++it) {
         sm_->writeCompleted(*it, *it % 7 != 0);
         ++completed;
      }
   };
   for (int step = 0; step < 2000; ++step) {
      handles.push_back(makePtr<TestHandle>());
      writeIn(handles.back().get(), {Index(step % 8)});
      inFlight.push_back(hw_->issued.back());
      const std::size_t window = step < 1013 ? 40 : 300;  // wider later: grows while wrapped
      if (inFlight.size() > window) completeOldest(3);
   }
   completeOldest(inFlight.size());
   EXPECT_EQ(completed, handles.size());
   EXPECT_EQ(sm_->outstandingWrites(), 0u);
   for (std::size_t h = 0; h < handles.size(); ++h) {
      const auto want = hw_->issued[h] % 7 != 0 ? EntryState::success : EntryState::programFailed;
      EXPECT_EQ(handles[h]->dispatched, std::vector<EntryState>{want}) << "handle " << h;
   }
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
   EXPECT_EQ(hw_->usedEntries(), 0u);
   IndexUserTracker::Stub::deleteTracker(nullptr, 0, false);  // no table: nothing to do
}

}  // namespace
}  // namespace Asic
