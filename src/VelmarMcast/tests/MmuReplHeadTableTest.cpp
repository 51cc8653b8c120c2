// The replication head table over the simulated chip: blocks of consecutive entries that
// wait for their replication lists, one write response per block, and a restart that
// reconciles blocks offset by offset, passes head pointers down to the lists and purges
// stale blocks whole.

#include <array>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Asic/Assert.h"
#include "Asic/EventLoop.h"
#include "Asic/Trace.h"
#include "ChipSim/Chip.h"
#include "ChipSim/plugins/MmuReplHeadTableSimUtil.h"
#include "ChipSim/plugins/MmuReplListTableSimUtil.h"
#include "VelmarMcast/MmuReplHeadTable.h"
#include "VelmarMcast/MmuReplListTable.h"
#include "VelmarMcast/VelmarMcastTestEntryHandle.h"

namespace VelmarMcast {
namespace {

using testing::HasSubstr;
using State = Asic::SwTableBase::EntryState;
using Status = Asic::SwTable::ReconciliationStatus;
using Block = MmuReplHeadTable::EntryBlock;
using HeadEntry = MmuReplHeadTable::Entry;
using HeadUtil = ChipSim::MmuReplHeadTableSimUtil;
using Speed = Interface::EthSpeed;

constexpr std::uint32_t kEntries = 512;

TEST(MmuReplHeadEntryTest, IdentityLeavesHeadPtrOutAndBlocksCompareByMembers) {
   auto list = testEntryHandle();
   HeadEntry a(list, 3, Speed::speed100Gbps, 7);
   HeadEntry b = a;
   b.headPtr = 99;
   EXPECT_EQ(a, b);
   EXPECT_EQ(a.hash(5), b.hash(5));
   EXPECT_NE(a, HeadEntry(list, 3, Speed::speed400Gbps, 7));

   Block x, y;
   x.entryIs(0, a);
   y.entryIs(0, b);
   EXPECT_EQ(x, y);
   EXPECT_EQ(x.hash(1), y.hash(1));
   EXPECT_TRUE(x);
   EXPECT_FALSE(Block{});
   EXPECT_EQ(Block{}.getBlockSize(), 0u);

   // An absent offset reads as the default entry and is not inserted.
   EXPECT_EQ(x.entry(4), HeadEntry{});
   EXPECT_FALSE(x.entryHas(4));
   // Overwriting an offset lets go of the old list handle.
   const auto before = list->refCount();
   x.entryInternalIs(0, HeadEntry(nullptr, 1, Speed::speed10Gbps, 7));
   EXPECT_EQ(list->refCount(), before - 1);
}

// Copies of a block share its entries until one changes: a change, resolution included,
// never reaches another copy, and the copies' equality and hash follow what they hold.
TEST(MmuReplHeadEntryTest, CopiesOfABlockNeverSeeEachOthersChanges) {
   auto list = testEntryHandle(40, State::success);
   Block original;
   original.entryIs(0, HeadEntry(list, 3, Speed::speed100Gbps, 7));
   original.entryIs(1, HeadEntry(list, 5, Speed::speed400Gbps, 7));
   const std::size_t hash = original.hash(9);

   Block resolved = original;
   MmuReplHeadTable::resolveDependentFields(resolved);
   EXPECT_EQ(resolved.entry(0).headPtr, 40u);
   EXPECT_EQ(original.entry(0).headPtr, 0u);
   EXPECT_EQ(resolved, original);  // the head pointer is not what the block is
   EXPECT_EQ(resolved.hash(9), hash);

   Block changed = original;
   changed.entryIs(1, HeadEntry(list, 6, Speed::speed400Gbps, 7));
   EXPECT_NE(changed, original);
   EXPECT_NE(changed.hash(9), hash);
   EXPECT_EQ(original.entry(1).numNextHops, 5u);
   EXPECT_EQ(original.hash(9), hash);

   Block fewer = original;
   fewer.entryDel(1);
   fewer.entryDel(7);  // absent: nothing changes
   EXPECT_EQ(fewer.getBlockSize(), 1u);
   EXPECT_EQ(original.getBlockSize(), 2u);
   EXPECT_LT(fewer, original);

   // Equal contents built apart are equal, with one hash, whatever their bodies.
   Block apart;
   apart.entryIs(1, HeadEntry(list, 5, Speed::speed400Gbps, 7));
   apart.entryIs(0, HeadEntry(list, 3, Speed::speed100Gbps, 7));
   EXPECT_EQ(apart, original);
   EXPECT_EQ(apart.hash(9), hash);
   EXPECT_EQ(apart <=> original, std::strong_ordering::equal);
}

TEST(MmuReplHeadEntryTest, TextFormReadsBackAndNamesTheFieldAtFault) {
   HeadEntry e(nullptr, 12, Speed::speed25Gbps, 300);
   e.headPtr = 41;
   const std::string text = e.toString();
   EXPECT_EQ(text,
             "{headPtrHandle: null, headPtr: 41, numNextHops: 12, portSpeed: speed25Gbps, "
             "ipmcIndex: 300}");
   Asic::CharRange range{text};
   HeadEntry back(range);
   EXPECT_EQ(back, e);
   EXPECT_EQ(back.headPtr, 41u);

   for (const auto& [bad, field] : std::vector<std::pair<std::string, std::string>>{
            {"{headPtrHandle: null, headPtr: 1, numNextHops: 70000, portSpeed: speed25Gbps, "
             "ipmcIndex: 1}",
             "numNextHops"},
            {"{headPtrHandle: null, headPtr: 1, numNextHops: 1, portSpeed: fast, ipmcIndex: 1}",
             "portSpeed"}}) {
      Asic::CharRange r{bad};
      try {
         HeadEntry parsed(r);
         ADD_FAILURE() << bad;
      } catch (const Asic::AttributeRangeError& err) {
         EXPECT_EQ(err.attribute(), field);
      }
   }
   Asic::ScopedAssertThrow asserts;
   Asic::CharRange blockText{"{0: {}}"};
   try {
      Block b(blockText);
      ADD_FAILURE() << "a block was read from text";
   } catch (const Asic::AssertionError& err) {
      EXPECT_EQ(err.info().expression,
                "\"No String constructor for EntryBlock - has collection\" == nullptr");
      EXPECT_EQ(err.info().source, "MmuReplHeadTable");
   }
}

class MmuReplHeadTableTest : public ::testing::Test {
 protected:
   void SetUp() override { tablesIs(); }
   void TearDown() override {
      if (heads_) heads_->cleanup();
      if (lists_) lists_->cleanup();
   }

   void tablesIs() {
      headHw_ = chip_.tableIs(HeadUtil::kMemory, kEntries, HeadUtil::kEntryWords);
      listHw_ = chip_.tableIs(ChipSim::ReplListFormat::kMemory, kEntries,
                              ChipSim::ReplListFormat::kEntryWords);
      heads_ = mmuReplHeadTableFactory();
      heads_->hwTableIs(headHw_);
      heads_->utilIs(Asic::makePtr<HeadUtil>());
      heads_->doCreateAllocator();
      lists_ = mmuReplListTableFactory();
      lists_->hwTableIs(listHw_);
      lists_->utilIs(Asic::makePtr<ChipSim::MmuReplListTableSimUtil>());
      lists_->doCreateAllocator();
   }
   // Every software object goes, the chip stays; the new tables read it back.
   void restart() {
      loop_.runUntilIdle();
      for (auto* t :
           {static_cast<Asic::SwTable*>(heads_.get()), static_cast<Asic::SwTable*>(lists_.get())}) {
         t->hwTableIs(nullptr);
      }
      heads_->utilIs(nullptr);
      lists_->utilIs(nullptr);
      heads_->cleanup();
      lists_->cleanup();
      heads_.reset();
      lists_.reset();
      tablesIs();
      heads_->configReplayCompleteIs(false);
      lists_->configReplayCompleteIs(false);
      heads_->syncEntries();
      lists_->syncEntries();
      headHw_->countersReset();
      listHw_->countersReset();
   }
   void initComplete() {
      lists_->doInitComplete();
      heads_->doInitComplete();
      lists_->purgeStaleEntries();
      heads_->purgeStaleEntries();
      loop_.runUntilIdle();
   }

   // A list over one programmed next hop.
   MmuReplListTable::Entry list(std::uint32_t n) {
      MmuReplListTable::Entry entry;
      auto& eh = nextHops_[n];
      if (!eh) eh = testEntryHandle(n, State::success);
      entry.egressObjectHandleIs(eh, PortList{static_cast<std::uint16_t>(n % 32)});
      entry.genIdIs(n);
      entry.sparseEntrySizeIs(4);
      return entry;
   }
   // A block of `lists.size()` entries, offset o naming the list's handle.
   Block block(const std::vector<Asic::Ptr<const Asic::SwTableBase::EntryHandle>>& lists,
               std::uint32_t ipmc) {
      Block b;
      for (std::size_t o = 0; o < lists.size(); ++o) {
         b.entryIs(
             o, HeadEntry(lists[o], static_cast<std::uint16_t>(o + 1), Speed::speed100Gbps, ipmc));
      }
      return b;
   }
   std::optional<HeadEntry> hwEntry(Asic::Index index) const {
      HeadUtil::Words words{};
      if (!headHw_->entryRead(index, words)) return std::nullopt;
      return HeadUtil::decode(words);
   }

   Asic::ScopedAssertThrow asserts_;
   Asic::EventLoop loop_;
   ChipSim::Chip chip_{loop_, 0};
   Asic::Ptr<ChipSim::SimHwTable> headHw_, listHw_;
   Asic::Ptr<MmuReplHeadTable> heads_;
   Asic::Ptr<MmuReplListTable> lists_;
   std::map<std::uint32_t, Asic::Ptr<VelmarMcastTestEntryHandle>> nextHops_;
};

TEST_F(MmuReplHeadTableTest, BlockWaitsForItsListsThenTakesConsecutiveEntriesWithOneResponse) {
   auto late = testEntryHandle();
   auto early = testEntryHandle(40, State::success);
   const Block b = block({early, late, nullptr}, 9);
   auto eh = heads_->entryBlockCommit(b);
   EXPECT_EQ(eh->entryState(), State::unresolved);
   EXPECT_EQ(eh->blockSize(), 3u);
   loop_.runUntilIdle();
   EXPECT_EQ(headHw_->counters().writes, 0u);

   late->programmedIs(77);
   EXPECT_EQ(eh->entryState(), State::inProgress) << "one response covers the whole block";
   loop_.runUntilIdle();
   ASSERT_EQ(eh->entryState(), State::success);
   const Asic::Index base = eh->hwIndex();
   EXPECT_EQ(headHw_->counters().writes, 3u);
   const std::array<Asic::Index, 3> heads = {40, 77, 0};
   for (std::uint32_t o = 0; o < 3; ++o) {
      auto hw = hwEntry(base + o);
      ASSERT_TRUE(hw) << "offset " << o;
      EXPECT_EQ(hw->headPtr, heads[o]);
      EXPECT_EQ(hw->numNextHops, o + 1);
      EXPECT_EQ(hw->ipmcIndex, 9u);
   }
   EXPECT_EQ(heads_->swKeyFromHwIndex(base), b);
   EXPECT_EQ(heads_->hwIndexOnlyForCrossAgentCommunication(b), base);
   EXPECT_TRUE(heads_->entryInHwTable(b));
}

TEST_F(MmuReplHeadTableTest, OffsetsAreWalkedByCountAndBadBlocksAreRefusedBeforeAnythingChanges) {
   Block gap;
   gap.entryIs(0, HeadEntry(nullptr, 1, Speed::speed10Gbps, 5));
   gap.entryIs(2, HeadEntry(nullptr, 3, Speed::speed10Gbps, 5));
   auto eh = heads_->entryBlockCommit(gap);
   loop_.runUntilIdle();
   ASSERT_EQ(eh->entryState(), State::success);
   EXPECT_EQ(hwEntry(eh->hwIndex() + 1), HeadEntry{}) << "the missing offset 1 is the default";
   EXPECT_EQ(headHw_->memory().validEntries(), 2u) << "offset 2 lies past the block's size";

   Block stated = block({nullptr, nullptr}, 6);
   stated.blockSizeIs(3);
   try {
      heads_->entryBlockCommit(stated);
      ADD_FAILURE() << "a block of 2 entries stating 3 was committed";
   } catch (const std::logic_error& e) {
      EXPECT_STREQ(e.what(), "Unsupported behavior: entryInternals: 2, blockSize: 3");
   }
   EXPECT_THROW(heads_->entryBlockCommit(Block{}), std::logic_error);
   Block wide;
   wide.entryIs(0, HeadEntry(nullptr, 5000, Speed::speed10Gbps, 1));  // 12-bit field
   EXPECT_THAT([&] { heads_->entryBlockCommit(wide); },
               testing::ThrowsMessage<std::invalid_argument>(HasSubstr("numNextHops 5000")));
   EXPECT_FALSE(heads_->entryBlockHas(stated));
   EXPECT_FALSE(heads_->entryBlockHas(wide));
   EXPECT_EQ(heads_->entryHandles().size(), 1u);
}

TEST_F(MmuReplHeadTableTest, HeadPointerTheChipCannotHoldFailsThatBlockOnly) {
   // Known only at resolution: a list beyond the 18-bit head pointer.
   auto far = testEntryHandle(ChipSim::MmuReplHeadTableSimUtil::kHeadPtrMax + 1, State::success);
   auto near = testEntryHandle(12, State::success);
   auto bad = heads_->entryBlockCommit(block({near, far}, 1));
   auto good = heads_->entryBlockCommit(block({near}, 2));
   loop_.runUntilIdle();
   EXPECT_EQ(bad->entryState(), State::programFailed);
   EXPECT_EQ(good->entryState(), State::success);
   EXPECT_EQ(hwEntry(good->hwIndex())->headPtr, 12u);
   // Removing the failed block frees its run whatever it holds.
   bad.reset();
   heads_->entryBlockRemove(block({near, far}, 1));
   loop_.runUntilIdle();
   EXPECT_EQ(headHw_->memory().validEntries(), 1u);
}

TEST_F(MmuReplHeadTableTest, RestartPassesHeadPointersDownAndWritesNothingForAnUnchangedGroup) {
   // Cold: two lists and the block that names them.
   const auto l0 = list(1), l1 = list(2);
   auto eh0 = lists_->entryCommit(l0, l0);
   auto eh1 = lists_->entryCommit(l1, l1);
   const Block b = block({eh0, eh1}, 4);
   auto head = heads_->entryBlockCommit(b);
   loop_.runUntilIdle();
   ASSERT_EQ(head->entryState(), State::success);
   const Asic::Index base = head->hwIndex();
   const Asic::Index list1 = eh1->hwIndex();

   restart();
   EXPECT_EQ(heads_->syncedEntries().size(), 2u) << "one synced record per hardware entry";
   // Replay in dependency order: the lists cannot place themselves, the block waits for
   // them; the group entry that names the block suggests its base, and the block passes
   // what the chip holds at each offset down to the list it names.
   eh0 = lists_->entryCommit(l0, l0);
   eh1 = lists_->entryCommit(l1, l1);
   Asic::TraceCapture trace("VelmarMcast::MmuReplHeadTable/8");
   head = heads_->entryBlockCommit(block({eh0, eh1}, 4));
   Asic::SwTableBase::suggestIndicesToNeededEntryHandle(head.get(), {base});
   initComplete();
   EXPECT_EQ(head->entryState(), State::indexReconciled);
   EXPECT_EQ(head->hwIndex(), base);
   EXPECT_EQ(eh1->hwIndex(), list1);
   EXPECT_EQ(headHw_->counters().writes, 0u);
   EXPECT_EQ(listHw_->counters().writes, 0u);
   EXPECT_EQ(headHw_->counters().clears, 0u);
   EXPECT_THAT(trace.text(), HasSubstr(fmt::format("baseIndex:{}, blockSize:2", base)));
}

TEST_F(MmuReplHeadTableTest, RestartRewritesAChangedBlockAndPurgesAStaleOneWhole) {
   Block kept = block({nullptr, nullptr}, 1);
   Block changed = block({nullptr, nullptr, nullptr}, 2);
   Block dropped = block({nullptr, nullptr, nullptr, nullptr}, 3);
   auto hk = heads_->entryBlockCommit(kept);
   auto hc = heads_->entryBlockCommit(changed);
   auto hd = heads_->entryBlockCommit(dropped);
   loop_.runUntilIdle();
   const Asic::Index keptBase = hk->hwIndex(), changedBase = hc->hwIndex(),
                     droppedBase = hd->hwIndex();
   hk.reset();
   hc.reset();
   hd.reset();

   restart();
   Asic::TraceCapture trace("VelmarMcast::MmuReplHeadTable/8");
   hk = heads_->entryBlockCommit(kept);
   Asic::SwTableBase::suggestIndicesToNeededEntryHandle(hk.get(), {keptBase});
   // The third entry differs: the whole block is new, placed elsewhere.
   Block changedNow = changed;
   changedNow.entryIs(2, HeadEntry(nullptr, 9, Speed::speed400Gbps, 2));
   hc = heads_->entryBlockCommit(changedNow);
   Asic::SwTableBase::suggestIndicesToNeededEntryHandle(hc.get(), {changedBase});
   initComplete();

   EXPECT_EQ(hk->hwIndex(), keptBase);
   EXPECT_EQ(hk->entryState(), State::indexReconciled);
   EXPECT_EQ(hc->entryState(), State::success);
   EXPECT_THAT(trace.text(), HasSubstr(": Mismatch entry:"));
   EXPECT_THAT(trace.text(), HasSubstr(fmt::format(", offset:2, blockSize:3")));
   EXPECT_EQ(headHw_->counters().writes, 3u) << "only the changed block is written";
   EXPECT_EQ(heads_->reconciliationStats()[Status::reconciled], 1u);
   // The old runs of the changed and the dropped block are stale; what the new block took
   // over of them is skipped, everything else goes.
   EXPECT_THAT(trace.text(), HasSubstr("Deleting stale block from syncedEntry. size="));
   for (std::uint32_t o = 0; o < 4; ++o) {
      const Asic::Index index = droppedBase + o;
      const bool reused = index >= hc->hwIndex() && index < hc->hwIndex() + 3;
      EXPECT_EQ(hwEntry(index).has_value(), reused) << "index " << index;
   }
   EXPECT_EQ(headHw_->memory().validEntries(), 5u);
   EXPECT_TRUE(heads_->syncedEntries().empty());
   (void)changedBase;
}

TEST_F(MmuReplHeadTableTest, ReconciliationNeedsEveryOffsetInTheChip) {
   auto eh = heads_->entryBlockCommit(block({nullptr, nullptr}, 8));
   loop_.runUntilIdle();
   const Asic::Index base = eh->hwIndex();
   eh.reset();
   restart();
   // The replay asks for three entries where the chip holds two.
   Asic::TraceCapture trace("VelmarMcast::MmuReplHeadTable/8");
   Block longer = block({nullptr, nullptr, nullptr}, 8);
   eh = heads_->entryBlockCommit(longer);
   Asic::SwTableBase::suggestIndicesToNeededEntryHandle(eh.get(), {base});
   initComplete();
   EXPECT_THAT(trace.text(), HasSubstr(fmt::format(": No synced entry at index:{}", base + 2)));
   EXPECT_EQ(eh->entryState(), State::success);
   EXPECT_EQ(headHw_->memory().validEntries(), 3u);
}

}  // namespace
}  // namespace VelmarMcast
