// The remap table through the field events that once broke the engine: writes that fail,
// values that change and change back while a write is in flight or a needed entry waits,
// wontProgram during a write, and a table that goes while its allocator lives on. Each
// test names the state every party must end in; none may end in an assertion.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "VelmarMcast/tests/RemapTableFixture.h"

namespace VelmarMcast::Testing {
namespace {

using ::testing::ElementsAre;

class RemapFieldEventTest : public RemapTableFixture {
 protected:
   Asic::GenericIndexAllocator& alloc() const { return *table_->indexAllocator(); }

   Asic::Ptr<VelmarMcastTestEntryHandle> ready_ = testEntryHandle(77, State::success);
};

TEST_F(RemapFieldEventTest, OlderValuesFailedWriteDoesNotFailTheNewerValueTheChipHolds) {
   // Verify that the response of a superseded write is not taken for the newer one's: the
   // older write fails, the newer one (issued before that response) succeeds.
   CallbackLog first, second;
   hw_->writesFailingIs(1);
   auto eh = table_->entryCommit(groupKey(1), remapTo(ready_, 1, first.fn()));
   table_->entryCommit(groupKey(1), remapTo(ready_, 2, second.fn()));
   loop_.runUntilIdle();
   EXPECT_EQ(eh->entryState(), State::success);
   ASSERT_TRUE(hwEntry(eh->hwIndex()));
   EXPECT_EQ(hwEntry(eh->hwIndex())->strengthProfile, 2);
   EXPECT_EQ(second.count(State::success), 1u);
   EXPECT_EQ(first.count(State::programFailed) + second.count(State::programFailed), 0u);
   EXPECT_TRUE(table_->entryInHwTable(groupKey(1)));
}

TEST_F(RemapFieldEventTest, RemovingAKeyWhoseWriteFailedDeletesWhatTheChipHoldsAndFreesTheIndex) {
   // The failed write of profile 2 leaves profile 1 in the chip; removal and the last
   // client's release clean both software and chip up.
   auto eh = table_->entryCommit(groupKey(1), remapTo(ready_, 1));
   loop_.runUntilIdle();
   hw_->writesFailingIs(1);
   table_->entryCommit(groupKey(1), remapTo(ready_, 2));
   loop_.runUntilIdle();
   ASSERT_EQ(eh->entryState(), State::programFailed);
   const Asic::Index index = eh->hwIndex();
   ASSERT_TRUE(hwEntry(index));
   EXPECT_EQ(hwEntry(index)->strengthProfile, 1) << "a failed write leaves the chip as it was";

   table_->entryRemove(groupKey(1));
   eh.reset();  // the last client goes: clean-up from a destructor
   loop_.runUntilIdle();
   EXPECT_FALSE(hwEntry(index));
   EXPECT_TRUE(alloc().isIndexFree(index));
   EXPECT_FALSE(table_->entryHandleHas(groupKey(1)));
   EXPECT_FALSE(table_->resolvedEntryHas(groupKey(1)));
}

TEST_F(RemapFieldEventTest, FailedWriteWhileANewerValueWaitsIsReportedThenTheNewerValueFinishes) {
   // The chip holds neither value: the client hears programFailed (through the failed
   // value's callback), and the newer value is programmed once it resolves.
   auto waiting = testEntryHandle();
   CallbackLog older, newer;
   hw_->writesFailingIs(1);
   auto eh = table_->entryCommit(groupKey(1), remapTo(ready_, 1, older.fn()));
   table_->entryCommit(groupKey(1), remapTo(waiting, 2, newer.fn()));
   loop_.runUntilIdle();
   EXPECT_EQ(eh->entryState(), State::programFailed);
   EXPECT_EQ(older.count(State::programFailed), 1u);
   EXPECT_TRUE(newer.states.empty());

   waiting->programmedIs(9);
   loop_.runUntilIdle();
   EXPECT_EQ(eh->entryState(), State::success);
   ASSERT_TRUE(hwEntry(eh->hwIndex()));
   EXPECT_EQ(hwEntry(eh->hwIndex())->remappedIpmcIndex, 9);
   EXPECT_EQ(newer.count(State::success), 1u);
}

TEST_F(RemapFieldEventTest, KeyFlappedBackToItsProgrammedValueEndsInThatValuesState) {
   // Commit A, commit B whose needed entry is not ready, commit A again: the chip forwards A
   // all along, so the key ends success and the client hears it; nothing is rewritten.
   CallbackLog log;
   auto eh = table_->entryCommit(groupKey(1), remapTo(ready_, 1, log.fn()));
   loop_.runUntilIdle();
   table_->entryCommit(groupKey(1), remapTo(testEntryHandle(), 2));
   ASSERT_EQ(eh->entryState(), State::unresolved);
   const auto calls = log.states.size();

   table_->entryCommit(groupKey(1), remapTo(ready_, 1, log.fn()));
   loop_.runUntilIdle();
   EXPECT_EQ(eh->entryState(), State::success);
   ASSERT_GT(log.states.size(), calls);
   EXPECT_EQ(log.states.back(), State::success);
   EXPECT_EQ(hw_->counters().writes, 1u);
}

TEST_F(RemapFieldEventTest, FlapBackWhileTheWriteIsInFlightCompletesWithItsResponse) {
   CallbackLog log;
   auto eh = table_->entryCommit(groupKey(1), remapTo(ready_, 1, log.fn()));
   table_->entryCommit(groupKey(1), remapTo(testEntryHandle(), 2));
   table_->entryCommit(groupKey(1), remapTo(ready_, 1, log.fn()));
   EXPECT_EQ(eh->entryState(), State::inProgress);
   loop_.runUntilIdle();
   EXPECT_EQ(eh->entryState(), State::success);
   EXPECT_EQ(log.states.back(), State::success);
}

TEST_F(RemapFieldEventTest, CommitNeedingAnAlreadyFailedEntryReportsItAtOnce) {
   auto failed = testEntryHandle();
   failed->entryStateIs(State::programFailed);
   CallbackLog log;
   auto eh = table_->entryCommit(groupKey(1), remapTo(failed, 1, log.fn()));
   EXPECT_EQ(eh->entryState(), State::failedNeededEntry);
   EXPECT_THAT(log.states, ElementsAre(State::failedNeededEntry));
   EXPECT_EQ(hw_->counters().writes, 0u);

   // The value still resolves if the needed entry is programmed after all.
   failed->programmedIs(5);
   loop_.runUntilIdle();
   EXPECT_EQ(eh->entryState(), State::success);
   EXPECT_EQ(log.states.back(), State::success);
}

TEST_F(RemapFieldEventTest, NeededEntryFailureReachesOnlyTheValueThatNeedsIt) {
   // Value 1 is programmed; value 2 replaces it and its needed entry fails: value 2's
   // callback is told, value 1's is not (the chip still holds value 1).
   CallbackLog first, second;
   auto eh = table_->entryCommit(groupKey(1), remapTo(ready_, 1, first.fn()));
   loop_.runUntilIdle();
   auto failing = testEntryHandle();
   table_->entryCommit(groupKey(1), remapTo(failing, 2, second.fn()));
   failing->entryStateIs(State::programFailed);
   EXPECT_EQ(eh->entryState(), State::failedNeededEntry);
   EXPECT_EQ(first.count(State::failedNeededEntry), 0u);
   EXPECT_THAT(second.states, ElementsAre(State::failedNeededEntry));
   EXPECT_EQ(hwEntry(eh->hwIndex())->strengthProfile, 1);
}

class RemapWontProgramInFlightTest : public RemapFieldEventTest,
                                     public ::testing::WithParamInterface<bool> {};

TEST_P(RemapWontProgramInFlightTest, ResponseIsAbsorbedAndTheKeyStaysWontProgram) {
   const bool writeFails = GetParam();
   if (writeFails) hw_->writesFailingIs(1);
   auto eh = table_->entryCommit(groupKey(1), remapTo(ready_, 1));
   table_->entryWontProgram(groupKey(1));
   loop_.runUntilIdle();
   EXPECT_EQ(eh->entryState(), State::wontProgram);
   EXPECT_EQ(eh->pendingEntries(), 0u);
}

INSTANTIATE_TEST_SUITE_P(WriteOutcome, RemapWontProgramInFlightTest, ::testing::Bool());

class RemapWithoutWriteResponsesTest : public RemapFieldEventTest {
 protected:
   RemapWithoutWriteResponsesTest() { entries_ = 3; }  // indices 1 and 2 usable
};

TEST_F(RemapWithoutWriteResponsesTest, EndsProgramFailedWhenIndicesRunOut) {
   table_->hwResponseNeededIs(false);
   CallbackLog log;
   auto a = table_->entryCommit(groupKey(1), remapTo(ready_, 1));
   auto b = table_->entryCommit(groupKey(2), remapTo(ready_, 1));
   auto c = table_->entryCommit(groupKey(3), remapTo(ready_, 1, log.fn()));
   EXPECT_EQ(a->entryState(), State::success);
   EXPECT_EQ(b->entryState(), State::success);
   EXPECT_EQ(c->entryState(), State::programFailed);
   EXPECT_EQ(log.states.back(), State::programFailed);

   table_->entryRemove(groupKey(3));
   c.reset();
   EXPECT_FALSE(table_->entryHandleHas(groupKey(3)));
   EXPECT_EQ(hw_->counters().writes, 2u);
}

TEST_F(RemapFieldEventTest, CleanupTakesTheEntriesOffTheChipAndReturnsIndicesToASharedAllocator) {
   // A neighbour (the IPMC lookup) keeps the shared allocator alive; a new table must not
   // inherit indices of the one that went.
   struct Lookup {
      std::string_view type = VelmarL3Common::L3IpmcSharedAllocator::kTypeName;
      Asic::Ptr<Asic::GenericIndexAllocator> alloc =
          Asic::GenericIndexAllocatorStub::createSharedAllocator(type, "IpmcLookup", this);
      ~Lookup() { Asic::GenericIndexAllocatorStub::freeSharedAllocator(type, "IpmcLookup", this); }
   } lookup;
   const auto& neighbour = lookup.alloc;
   ASSERT_EQ(neighbour, table_->indexAllocator());
   for (std::uint32_t n = 1; n <= 3; ++n) table_->entryCommit(groupKey(n), remapTo(ready_, 1));
   loop_.runUntilIdle();
   ASSERT_EQ(hw_->memory().validEntries(), 3u);

   table_->cleanup();
   EXPECT_EQ(hw_->memory().validEntries(), 0u);
   EXPECT_EQ(neighbour->totalUsedIndices(), 1u) << "only the reserved index 0";
   table_.reset();
   ASSERT_NO_FATAL_FAILURE(tableIs(entries_));
   EXPECT_EQ(table_->indexAllocator(), neighbour);
   auto eh = table_->entryCommit(groupKey(4), remapTo(ready_, 1));
   EXPECT_EQ(eh->hwIndex(), 1u);
}

TEST_F(RemapFieldEventTest, DestroyingATableDeletesItsEntriesUnlessDetachedFromTheChip) {
   auto survivor = testEntryHandle(8, State::success);
   table_->entryCommit(groupKey(1), remapTo(ready_, 1));
   loop_.runUntilIdle();
   table_.reset();
   EXPECT_EQ(hw_->memory().validEntries(), 0u);

   ASSERT_NO_FATAL_FAILURE(tableIs(entries_));
   table_->entryCommit(groupKey(2), remapTo(survivor, 1));
   loop_.runUntilIdle();
   table_->detachFromChip();
   table_.reset();
   EXPECT_EQ(hw_->memory().validEntries(), 1u) << "an exiting agent leaves the chip as it is";
}

}  // namespace
}  // namespace VelmarMcast::Testing
