// The port aggregation register over the simulated chip: the key is the index, and after a
// restart the chip's values are adopted unless a replay says otherwise.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Asic/Assert.h"
#include "Asic/EventLoop.h"
#include "Asic/Trace.h"
#include "ChipSim/Chip.h"
#include "ChipSim/plugins/MmuRqeReplPortAggMapRegisterSimUtil.h"
#include "VelmarMcast/MmuRqeReplPortAggMapRegister.h"

namespace VelmarMcast {
namespace {

using testing::HasSubstr;
using State = Asic::SwTableBase::EntryState;
using Status = Asic::SwTable::ReconciliationStatus;
using Register = MmuRqeReplPortAggMapRegister;
using Entry = Register::Entry;
using Util = ChipSim::MmuRqeReplPortAggMapRegisterSimUtil;

constexpr std::uint32_t kEntries = 64;

Entry members(std::initializer_list<std::size_t> ports, std::size_t bits = 64) {
   Ulm::PerUnitBitmap bmp(bits);
   for (std::size_t p : ports) bmp.bitIs(p, true);
   return Entry(bmp);
}

TEST(MmuRqeReplPortAggMapRegisterBareTest, WithoutHardwareEveryIndexIsInRangeAndEmptyIsFalse) {
   auto reg = mmuRqeReplPortAggMapRegisterFactory();
   reg->hwTableIs(nullptr);
   EXPECT_EQ(reg->minIndex(), 0u);
   EXPECT_EQ(reg->maxIndex(), 0xFFFFFFFFu);
   EXPECT_FALSE(Entry{});
   EXPECT_FALSE(members({}, 160));
   EXPECT_TRUE(members({3}));
   reg->cleanup();
}

class MmuRqeReplPortAggMapRegisterTest : public ::testing::Test {
 protected:
   void SetUp() override { registerIs(); }
   void TearDown() override {
      if (reg_) reg_->cleanup();
   }
   void registerIs() {
      hw_ = chip_.tableIs(Util::kMemory, kEntries, Util::kEntryWords);
      reg_ = mmuRqeReplPortAggMapRegisterFactory();
      reg_->hwTableIs(hw_);
      reg_->utilIs(Asic::makePtr<Util>());
      reg_->doCreateAllocator();
   }
   // A new agent process over the same chip: synced, and adopted unless told otherwise.
   void restart(bool adopt = true) {
      loop_.runUntilIdle();
      reg_->detachFromChip();
      reg_->cleanup();
      registerIs();
      reg_->configReplayCompleteIs(false);
      reg_->syncEntries();
      reg_->autoCommitSyncedEntriesEnabledIs(adopt);
      reg_->autoCommitSyncedEntries();
      hw_->countersReset();
   }
   void initComplete() {
      reg_->doInitComplete();
      reg_->purgeStaleEntries();
      loop_.runUntilIdle();
   }
   std::optional<Entry> hwEntry(Asic::Index index) const {
      Util::Words words{};
      if (!hw_->entryRead(index, words)) return std::nullopt;
      return Util::decode(words);
   }

   Asic::ScopedAssertThrow asserts_;
   Asic::EventLoop loop_;
   ChipSim::Chip chip_{loop_, 0};
   Asic::Ptr<ChipSim::SimHwTable> hw_;
   Asic::Ptr<Register> reg_;
};

TEST_F(MmuRqeReplPortAggMapRegisterTest, RangeIsTheChipsAndAPortBeyondTheChipIsRefused) {
   EXPECT_EQ(reg_->minIndex(), 0u);
   EXPECT_EQ(reg_->maxIndex(), kEntries - 1);
   EXPECT_THAT([&] { reg_->entryCommit(8, members({170}, 192)); },
               testing::ThrowsMessage<std::invalid_argument>(HasSubstr("member port 170")));
   EXPECT_FALSE(reg_->entryHas(8));
   EXPECT_EQ(hw_->counters().writes, 0u);
}

TEST_F(MmuRqeReplPortAggMapRegisterTest, RestartAdoptsWhatIsNotReplayedAndReplayedValuesWin) {
   for (Asic::Index i : {1u, 2u, 3u}) reg_->entryCommit(i, members({i, i + 40}));
   loop_.runUntilIdle();

   restart();
   Asic::TraceCapture trace("VelmarMcast::MmuRqeReplPortAggMapRegister/8");
   auto same = reg_->entryCommit(1, members({1, 41}));     // as the chip holds it
   auto changed = reg_->entryCommit(2, members({2, 50}));  // index 3 is not replayed
   initComplete();
   EXPECT_EQ(same->entryState(), State::indexReconciled);
   EXPECT_EQ(changed->entryState(), State::success) << "rewritten in place";
   EXPECT_EQ(hw_->counters().writes, 1u) << "only the changed value";
   EXPECT_EQ(hw_->counters().clears, 0u);
   EXPECT_EQ(hwEntry(2), members({2, 50}, 160));
   EXPECT_EQ(hwEntry(3), members({3, 43}, 160)) << "adopted, so kept";
   EXPECT_EQ(reg_->entry(3), members({3, 43}, 160));
   EXPECT_THAT(trace.text(), HasSubstr("Skip resolved key:3"));
   EXPECT_TRUE(reg_->syncedEntries().empty());

   // Adopted values survive a restart that replays nothing at all.
   same.reset();
   changed.reset();
   restart();
   initComplete();
   EXPECT_EQ(hw_->counters().writes + hw_->counters().clears, 0u);
   EXPECT_EQ(hw_->memory().validEntries(), 3u);

   // A client taking up an adopted value later finds it on the chip: nothing is written.
   auto late = reg_->entryCommit(2, members({2, 50}, 160));
   loop_.runUntilIdle();
   EXPECT_EQ(late->entryState(), State::success);
   EXPECT_EQ(late->hwIndex(), 2u);
   EXPECT_EQ(hw_->counters().writes, 0u);

   // An adopted value has no client handle; removing it still takes it off the chip.
   reg_->entryRemove(3);
   loop_.runUntilIdle();
   EXPECT_FALSE(hwEntry(3));
}

TEST_F(MmuRqeReplPortAggMapRegisterTest, WithoutAdoptionWhatIsNotReplayedIsPurged) {
   for (Asic::Index i : {4u, 5u}) reg_->entryCommit(i, members({i}));
   loop_.runUntilIdle();
   restart(false);
   Asic::TraceCapture trace("VelmarMcast::MmuRqeReplPortAggMapRegister/8");
   auto kept = reg_->entryCommit(4, members({4}));
   initComplete();
   EXPECT_EQ(kept->entryState(), State::indexReconciled);
   EXPECT_FALSE(hwEntry(5));
   EXPECT_TRUE(hwEntry(4));
   EXPECT_THAT(trace.text(), HasSubstr(": Deleting stale hwEntry for key:5"));
   EXPECT_EQ(reg_->reconciliationStats()[Status::staleEntryDeleted], 1u);
   EXPECT_EQ(hw_->counters().writes, 0u);
}

}  // namespace
}  // namespace VelmarMcast
