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
using ::testing::ThrowsMessage;
using Entry = std::array<std::uint32_t, 2>;
using WriteContext = Asic::WriteResponseSm::WriteContext;
using Counters = SimHwTable::Counters;

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
   void writeFor(RecordingHandle& eh, Asic::Index index, const Entry& words,
                 Asic::WriteResponseSm* sm = nullptr) {
      WriteContext ctx(sm ? sm : sm_.get(), &eh);
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

// Verify that a write is readable at once, before any completion; that read-back of all
// entries lists exactly the valid ones; that a delete invalidates the entry and completes
// like a write; and that the counters count each operation and reset to zero.
TEST_F(SimHwTableTest, WritesAndClearsReachTheMemoryAtOnce) {
   hw_->entryWrite(5, a_);
   EXPECT_EQ(loop_.pending(), 0u) << "a write outside a context posts no completion";
   writeFor(*eh_, 9, b_);
   EXPECT_EQ(read(5), a_);
   EXPECT_EQ(read(9), b_);
   Entry out{};
   EXPECT_FALSE(hw_->entryRead(6, out));
   std::vector<Asic::Index> listed;
   hw_->forEachValidEntry([&](Asic::Index i, Asic::HwTable::Words) { listed.push_back(i); });
   EXPECT_EQ(listed, (std::vector<Asic::Index>{5, 9}));

   loop_.runUntilIdle();
   {
      WriteContext ctx(sm_.get(), eh_.get());
      hw_->entryClear(9);
   }
   EXPECT_FALSE(hw_->entryRead(9, out));
   EXPECT_EQ(chip_.table("ING_TEST").memory().validEntries(), 1u);
   loop_.runUntilIdle();
   EXPECT_THAT(eh_->completions, ElementsAre(true, true));
   EXPECT_EQ(hw_->counters(), (Counters{.writes = 2, .clears = 1, .completionsDelivered = 2}));
   hw_->countersReset();
   EXPECT_EQ(hw_->counters(), Counters{});
}

// Verify that bad indices and widths are refused, naming table and index, with no
// hardware operation counted and nothing posted.
TEST_F(SimHwTableTest, RejectsBadIndexAndWidth) {
   hw_->entryWrite(1, a_);
   hw_->countersReset();
   const auto index16 =
       ThrowsMessage<std::out_of_range>(AllOf(HasSubstr("ING_TEST"), HasSubstr("index 16")));
   EXPECT_THAT([&] { writeFor(*eh_, 16, b_); }, index16);
   const std::array<std::uint32_t, 3> wide{1, 2, 3};
   EXPECT_THAT(
       [&] { hw_->entryWrite(1, wide); },
       ThrowsMessage<std::invalid_argument>(AllOf(HasSubstr("ING_TEST"), HasSubstr("3 words"))));
   EXPECT_THROW(hw_->entryClear(99), std::out_of_range);
   Entry out{};
   EXPECT_THAT([&] { hw_->entryRead(16, out); }, index16);
   std::array<std::uint32_t, 1> narrow{};
   EXPECT_THROW(hw_->entryRead(1, narrow), std::invalid_argument);

   EXPECT_EQ(read(1), a_);
   EXPECT_EQ(hw_->counters(), Counters{});
   EXPECT_EQ(loop_.pending(), 0u);
   EXPECT_EQ(sm_->outstandingWrites(), 0u) << "a refused write must not stay outstanding";
}

// Verify that a completion reaches the handle only when the loop runs, on the next turn, and
// that all writes of one context give the handle one completion.
TEST_F(SimHwTableTest, CompletionArrivesThroughTheLoopOncePerContext) {
   {
      WriteContext ctx(sm_.get(), eh_.get());
      hw_->entryWrite(3, a_);
      hw_->entryWrite(4, b_);
   }
   EXPECT_TRUE(eh_->completions.empty());
   EXPECT_EQ(sm_->outstandingWrites(eh_.get()), 2u);
   EXPECT_EQ(loop_.runOnce(), 2u);
   EXPECT_THAT(eh_->completions, ElementsAre(true));
   EXPECT_EQ(sm_->outstandingWrites(), 0u);
   EXPECT_EQ(hw_->counters().completionsDelivered, 2u);
}

// Verify that a failed write leaves the memory as it was and completes as failed, that
// the fault is used up, and that the counters say so.
TEST_F(SimHwTableTest, FailedWriteKeepsMemoryAndReportsFailure) {
   hw_->entryWrite(2, a_);
   hw_->writesFailingIs(1);
   writeFor(*eh_, 2, b_);
   EXPECT_EQ(read(2), a_) << "a failed write must not reach the memory";
   EXPECT_EQ(hw_->writesFailing(), 0u);
   loop_.runUntilIdle();
   EXPECT_THAT(eh_->completions, ElementsAre(false));

   // A newer programming of the same handle supersedes a failing one still in flight: the
   // handle hears only the newer outcome, which is what the chip holds.
   hw_->writesFailingIs(1);
   writeFor(*eh_, 2, b_);
   writeFor(*eh_, 7, b_);
   loop_.runUntilIdle();
   EXPECT_EQ(read(7), b_);
   EXPECT_THAT(eh_->completions, ElementsAre(false, true));
   EXPECT_EQ(hw_->counters(),
             (Counters{.writes = 4, .failedWrites = 2, .completionsDelivered = 3}));
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
   writeFor(*eh_, 1, a_, oldSm.get());
   hw_->writeResponseSmIs(newSm.get());
   hw_->completionsHeldIs(1, 2);
   writeFor(*newEh, 2, b_, newSm.get());  // gets the same ticket number in the new SM
   loop_.runOnce();
   EXPECT_TRUE(newEh->completions.empty()) << "the old SM's response completed a stranger";
   loop_.runUntilIdle();
   EXPECT_THAT(newEh->completions, ElementsAre(true));
   EXPECT_TRUE(eh_->completions.empty());
   EXPECT_EQ(hw_->counters(),
             (Counters{.writes = 3, .completionsDelivered = 1, .completionsDropped = 2}));
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

}  // namespace
}  // namespace ChipSim
