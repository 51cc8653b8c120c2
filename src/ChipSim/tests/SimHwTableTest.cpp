#include "ChipSim/SimHwTable.h"

#include <array>
#include <stdexcept>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Asic/SwTableBase.h"
#include "Asic/WriteResponseSm.h"
#include "ChipSim/Chip.h"

namespace ChipSim {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Entry = std::array<std::uint32_t, 2>;
using WriteContext = Asic::WriteResponseSm::WriteContext;

// Records every completion the write-response SM hands it.
class RecordingHandle : public Asic::SwTableBase::EntryHandle {
 public:
   void hwWriteCompleted(bool ok) override { completions.push_back(ok); }
   std::vector<bool> completions;
};

class SimHwTableTest : public ::testing::Test {
 protected:
   SimHwTableTest() { hw_->writeResponseSmIs(sm_.get()); }
   ~SimHwTableTest() override { hw_->writeResponseSmIs(nullptr); }

   Entry read(Asic::Index index) {
      Entry out{};
      EXPECT_TRUE(hw_->entryRead(index, out)) << "entry " << index << " is not valid";
      return out;
   }
   void writeFor(RecordingHandle& eh, Asic::Index index, const Entry& words) {
      WriteContext ctx(sm_.get(), &eh);
      hw_->entryWrite(index, words);
   }

   Asic::EventLoop loop_;
   Chip chip_{loop_, 1};
   Asic::Ptr<SimHwTable> hw_ = chip_.tableIs("ING_TEST", 16, 2);
   Asic::Ptr<Asic::WriteResponseSm> sm_ = Asic::makePtr<Asic::WriteResponseSm>();
   Asic::Ptr<RecordingHandle> eh_ = Asic::makePtr<RecordingHandle>();
   const Entry a_{0x11, 0x22};
   const Entry b_{0x33, 0x44};
};

// Verify that a write is readable at once, before any completion, and that read-back of
// all entries lists exactly the valid ones.
TEST_F(SimHwTableTest, WriteIsReadableAtOnce) {
   hw_->entryWrite(5, a_);
   hw_->entryWrite(9, b_);
   EXPECT_EQ(read(5), a_);
   EXPECT_EQ(read(9), b_);
   Entry out{};
   EXPECT_FALSE(hw_->entryRead(6, out));

   std::vector<Asic::Index> listed;
   hw_->forEachValidEntry([&](Asic::Index i, Asic::HwTable::Words) { listed.push_back(i); });
   EXPECT_EQ(listed, (std::vector<Asic::Index>{5, 9}));
   EXPECT_EQ(loop_.pending(), 0u) << "a write outside a context posts no completion";
   EXPECT_EQ(hw_->counters().writes, 2u);
}

// Verify that a delete invalidates the entry and completes like a write.
TEST_F(SimHwTableTest, ClearInvalidatesAndCompletes) {
   hw_->entryWrite(5, a_);
   {
      WriteContext ctx(sm_.get(), eh_.get());
      hw_->entryClear(5);
   }
   Entry out{};
   EXPECT_FALSE(hw_->entryRead(5, out));
   EXPECT_EQ(chip_.table("ING_TEST").memory().validEntries(), 0u);
   loop_.runUntilIdle();
   EXPECT_THAT(eh_->completions, ElementsAre(true));
   EXPECT_EQ(hw_->counters().clears, 1u);
}

// Verify that bad indices and widths are refused, naming table and index, with no
// hardware operation counted and nothing posted.
TEST_F(SimHwTableTest, RejectsBadIndexAndWidth) {
   hw_->entryWrite(1, a_);
   hw_->countersReset();
   try {
      WriteContext ctx(sm_.get(), eh_.get());
      hw_->entryWrite(16, b_);
      FAIL() << "index 16 of 16 entries was accepted";
   } catch (const std::out_of_range& e) {
      EXPECT_THAT(e.what(), AllOf(HasSubstr("ING_TEST"), HasSubstr("index 16")));
   }
   const std::array<std::uint32_t, 3> wide{1, 2, 3};
   try {
      hw_->entryWrite(1, wide);
      FAIL() << "a 3-word entry was accepted";
   } catch (const std::invalid_argument& e) {
      EXPECT_THAT(e.what(), AllOf(HasSubstr("ING_TEST"), HasSubstr("3 words")));
   }
   EXPECT_THROW(hw_->entryClear(99), std::out_of_range);
   Entry out{};
   try {
      hw_->entryRead(16, out);
      FAIL() << "a read of index 16 was accepted";
   } catch (const std::out_of_range& e) {
      EXPECT_THAT(e.what(), AllOf(HasSubstr("ING_TEST"), HasSubstr("index 16")));
   }
   std::array<std::uint32_t, 1> narrow{};
   EXPECT_THROW(hw_->entryRead(1, narrow), std::invalid_argument);

   EXPECT_EQ(read(1), a_);
   EXPECT_EQ(hw_->counters(), SimHwTable::Counters{});
   EXPECT_EQ(loop_.pending(), 0u);
   EXPECT_EQ(sm_->outstandingWrites(), 0u) << "a refused write must not stay outstanding";
}

// Verify that a completion reaches the handle only when the loop runs, on the next turn.
TEST_F(SimHwTableTest, CompletionArrivesThroughTheLoop) {
   writeFor(*eh_, 3, a_);
   EXPECT_TRUE(eh_->completions.empty());
   EXPECT_EQ(sm_->outstandingWrites(eh_.get()), 1u);
   EXPECT_EQ(loop_.runOnce(), 1u);
   EXPECT_THAT(eh_->completions, ElementsAre(true));
   EXPECT_EQ(sm_->outstandingWrites(), 0u);
   EXPECT_EQ(hw_->counters().completionsDelivered, 1u);
}

// Verify that all writes of one context give the handle one completion.
TEST_F(SimHwTableTest, TwoWritesInOneContextCompleteOnce) {
   {
      WriteContext ctx(sm_.get(), eh_.get());
      hw_->entryWrite(3, a_);
      hw_->entryWrite(4, b_);
   }
   loop_.runUntilIdle();
   EXPECT_THAT(eh_->completions, ElementsAre(true));
   EXPECT_EQ(hw_->counters().completionsDelivered, 2u);
}

// Verify that a failed write leaves the memory as it was and completes as failed, that
// the fault is used up, and that the counters say so.
TEST_F(SimHwTableTest, FailedWriteKeepsMemoryAndReportsFailure) {
   hw_->entryWrite(2, a_);
   hw_->writesFailingIs(1);
   writeFor(*eh_, 2, b_);
   writeFor(*eh_, 7, b_);  // another programming of the same handle: not failing
   EXPECT_EQ(read(2), a_) << "a failed write must not reach the memory";
   EXPECT_EQ(read(7), b_);
   EXPECT_EQ(hw_->writesFailing(), 0u);
   loop_.runUntilIdle();
   EXPECT_THAT(eh_->completions, ElementsAre(false));

   writeFor(*eh_, 2, b_);
   loop_.runUntilIdle();
   EXPECT_EQ(read(2), b_);
   EXPECT_THAT(eh_->completions, ElementsAre(false, true));
   EXPECT_EQ(hw_->counters().writes, 4u);
   EXPECT_EQ(hw_->counters().failedWrites, 1u);
   EXPECT_EQ(hw_->counters().completionsDelivered, 3u);
}

// Verify that a held-back completion arrives exactly `turns` loop turns later than an
// undisturbed one, and that only the held count is delayed.
class HeldCompletionTest : public SimHwTableTest, public ::testing::WithParamInterface<int> {};

TEST_P(HeldCompletionTest, ArrivesExactlyThatManyTurnsLater) {
   const auto turns = static_cast<std::uint32_t>(GetParam());
   auto prompt = Asic::makePtr<RecordingHandle>();
   hw_->completionsHeldIs(1, turns);
   writeFor(*eh_, 1, a_);
   writeFor(*prompt, 2, b_);
   EXPECT_EQ(hw_->completionsHeld(), 0u);

   loop_.runOnce();
   EXPECT_THAT(prompt->completions, ElementsAre(true)) << "the second write was not held";
   for (std::uint32_t turn = 1; turn <= turns; ++turn) {
      EXPECT_TRUE(eh_->completions.empty()) << "arrived " << turns - turn + 1 << " turns early";
      loop_.runOnce();
   }
   EXPECT_THAT(eh_->completions, ElementsAre(true));
   EXPECT_EQ(loop_.pending(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Turns, HeldCompletionTest, ::testing::Values(0, 1, 3));

// Verify that a completion whose SM was unbound, or replaced by another SM, is dropped:
// the new SM numbers its tickets afresh and must not see the old table's responses.
TEST_F(SimHwTableTest, CompletionForAnUnboundSmIsDropped) {
   writeFor(*eh_, 1, a_);
   hw_->writeResponseSmIs(nullptr);
   loop_.runUntilIdle();
   EXPECT_TRUE(eh_->completions.empty());

   auto oldSm = Asic::makePtr<Asic::WriteResponseSm>();
   auto newSm = Asic::makePtr<Asic::WriteResponseSm>();
   auto newEh = Asic::makePtr<RecordingHandle>();
   hw_->writeResponseSmIs(oldSm.get());
   {
      WriteContext ctx(oldSm.get(), eh_.get());
      hw_->entryWrite(1, a_);
   }
   hw_->writeResponseSmIs(newSm.get());
   hw_->completionsHeldIs(1, 2);
   {
      WriteContext ctx(newSm.get(), newEh.get());
      hw_->entryWrite(2, b_);  // gets the same ticket number in the new SM
   }
   loop_.runOnce();
   EXPECT_TRUE(newEh->completions.empty()) << "the old SM's response completed a stranger";
   loop_.runUntilIdle();
   EXPECT_THAT(newEh->completions, ElementsAre(true));
   EXPECT_TRUE(eh_->completions.empty());
   EXPECT_EQ(hw_->counters().completionsDropped, 2u);
   EXPECT_EQ(hw_->counters().completionsDelivered, 1u);
}

// Verify that queued completions keep the chip's table alive after the chip and every
// other owner have gone, and are dropped when they run.
TEST(SimHwTableLifetimeTest, QueuedCompletionOutlivesChip) {
   Asic::EventLoop loop;
   auto eh = Asic::makePtr<RecordingHandle>();
   Asic::Ptr<SimHwTable> hw;
   {
      Chip chip(loop, 0);
      hw = chip.tableIs("T", 4, 1);
      auto sm = Asic::makePtr<Asic::WriteResponseSm>();
      hw->writeResponseSmIs(sm.get());
      const std::array<std::uint32_t, 1> words{7};
      {
         WriteContext ctx(sm.get(), eh.get());
         hw->entryWrite(0, words);
      }
      hw->writeResponseSmIs(nullptr);  // the owner of the SM unbinds it before it goes
   }
   hw.reset();  // the queued completion is now the table's only owner
   EXPECT_EQ(loop.runUntilIdle(), 1u);
   EXPECT_TRUE(eh->completions.empty());
}

// Verify that counters count operations and reset to zero.
TEST_F(SimHwTableTest, CountersReset) {
   writeFor(*eh_, 1, a_);
   hw_->entryClear(1);
   loop_.runUntilIdle();
   EXPECT_EQ(hw_->counters(), (SimHwTable::Counters{.writes = 1,
                                                    .failedWrites = 0,
                                                    .clears = 1,
                                                    .completionsDelivered = 1,
                                                    .completionsDropped = 0}));
   hw_->countersReset();
   EXPECT_EQ(hw_->counters(), SimHwTable::Counters{});
}

}  // namespace
}  // namespace ChipSim
