// The remap table driven through its public operations against the simulated chip: commit,
// resolution of the needed IPMC-index handle, allocation, the hardware write and its
// response, the client's callback, removal and the delete dance.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Asic/Errors.h"
#include "Asic/Trace.h"
#include "VelmarMcast/tests/RemapTableFixture.h"

namespace VelmarMcast::Testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

class RemapCommitTest : public RemapTableFixture {};

TEST_F(RemapCommitTest, ReadyNeededHandleProgramsAndCompletesThroughTheEventLoop) {
   // Verify that a commit whose needed handle is ready is written at once and reaches the
   // client's callback with success only when the chip's write response is delivered.
   auto target = testEntryHandle(100, State::success);
   CallbackLog log;
   auto eh = table_->entryCommit(groupKey(1), remapTo(target, 3, log.fn()));

   EXPECT_EQ(eh->entryState(), State::inProgress);
   EXPECT_EQ(eh->hwIndex(), 1u) << "index 0 is reserved";
   EXPECT_EQ(hw_->counters().writes, 1u);
   ASSERT_TRUE(hwEntry(1));
   EXPECT_EQ(hwEntry(1)->remappedIpmcIndex, 100);
   EXPECT_EQ(hwEntry(1)->strengthProfile, 3);
   EXPECT_EQ(log.count(State::success), 0u);

   loop_.runUntilIdle();
   EXPECT_EQ(eh->entryState(), State::success);
   EXPECT_EQ(eh->resolvedEntryState(), State::success);
   EXPECT_EQ(log.count(State::success), 1u);
   EXPECT_TRUE(table_->entryInHwTable(groupKey(1)));
   EXPECT_EQ(table_->entry(groupKey(1)).remappedIpmcIndex, 100);
}

TEST_F(RemapCommitTest, LateWriteResponseCompletesOnlyWhenItArrives) {
   // Verify that a write response held back by the chip keeps the key in progress until
   // the turn it arrives.
   hw_->completionsHeldIs(1, 3);
   auto eh = table_->entryCommit(groupKey(1), remapTo(testEntryHandle(5, State::success), 0));
   loop_.runOnce();
   loop_.runOnce();
   loop_.runOnce();
   EXPECT_EQ(eh->entryState(), State::inProgress);
   loop_.runUntilIdle();
   EXPECT_EQ(eh->entryState(), State::success);
}

TEST_F(RemapCommitTest, FailedWriteEndsInProgramFailed) {
   // Verify that a write the chip reports as failed reaches the client as programFailed.
   hw_->writesFailingIs(1);
   CallbackLog log;
   auto eh =
       table_->entryCommit(groupKey(1), remapTo(testEntryHandle(5, State::success), 0, log.fn()));
   loop_.runUntilIdle();
   EXPECT_EQ(eh->entryState(), State::programFailed);
   EXPECT_EQ(log.count(State::programFailed), 1u);
   EXPECT_FALSE(table_->entryInHwTable(groupKey(1)));
}

TEST_F(RemapCommitTest, WaitsForNeededHandleAndResolvesWhenItIsProgrammed) {
   // Verify that an entry waits, without touching hardware, until the handle it needs is
   // programmed, and then carries that handle's index.
   auto target = testEntryHandle();
   auto eh = table_->entryCommit(groupKey(7), remapTo(target, 1));
   EXPECT_EQ(eh->entryState(), State::unresolved);
   EXPECT_EQ(hw_->counters().writes, 0u);
   EXPECT_FALSE(table_->resolvedEntryHas(groupKey(7)));

   target->programmedIs(4242);
   EXPECT_EQ(hw_->counters().writes, 1u);
   EXPECT_EQ(table_->unresolvedEntries().size(), 0u);
   EXPECT_EQ(hwEntry(eh->hwIndex())->remappedIpmcIndex, 4242);
   EXPECT_EQ(target->watchers(), 0u) << "a resolved entry stops watching";
   loop_.runUntilIdle();
   EXPECT_EQ(eh->entryState(), State::success);
}

TEST_F(RemapCommitTest, FailedNeededHandleIsReportedAndNothingIsProgrammed) {
   // Verify that a failed needed entry reaches the client as failedNeededEntry, writes
   // nothing, and that the entry resolves once the needed entry recovers.
   auto target = testEntryHandle();
   CallbackLog log;
   auto eh = table_->entryCommit(groupKey(2), remapTo(target, 0, log.fn()));
   target->entryStateIs(State::programFailed);
   EXPECT_EQ(eh->entryState(), State::failedNeededEntry);
   EXPECT_THAT(log.states, ElementsAre(State::failedNeededEntry));
   EXPECT_EQ(hw_->counters().writes, 0u);

   target->programmedIs(9);
   loop_.runUntilIdle();
   EXPECT_EQ(eh->entryState(), State::success);
   EXPECT_EQ(hwEntry(eh->hwIndex())->remappedIpmcIndex, 9);
}

TEST_F(RemapCommitTest, WontProgramNeededHandleResolvesWithItsIndexUnchecked) {
   // Verify that a needed handle that will never be programmed lets the entry resolve, its
   // index stored truncated instead of failing the narrowing check.
   auto target = testEntryHandle(0x10005, State::wontProgram);
   table_->entryCommit(groupKey(3), remapTo(target, 0));
   EXPECT_EQ(table_->entry(groupKey(3)).remappedIpmcIndex, 5);
}

TEST_F(RemapCommitTest, NeededIndexAboveSixteenBitsIsANarrowingError) {
   // Verify that a needed index of 65536 cannot be written into the 16-bit field.
   try {
      table_->entryCommit(groupKey(4), remapTo(testEntryHandle(65536, State::success), 0));
      FAIL() << "expected a range error";
   } catch (const std::range_error& e) {
      EXPECT_STREQ(e.what(),
                   "Casting values: cast from unsigned int{ 65536 } to short unsigned int "
                   "(max = 65535) failed.");
   }
   EXPECT_EQ(hw_->counters().writes, 0u);
}

TEST_F(RemapCommitTest, RecommitOfAnEqualValueWritesNothingAndRetellsTheState) {
   // Verify that committing the same value again returns the same handle, writes nothing
   // and tells the client its current state once more.
   auto target = testEntryHandle(11, State::success);
   CallbackLog log;
   auto first = table_->entryCommit(groupKey(1), remapTo(target, 2, log.fn()));
   loop_.runUntilIdle();
   auto second = table_->entryCommit(groupKey(1), remapTo(target, 2, log.fn()));
   EXPECT_EQ(first, second);
   EXPECT_EQ(hw_->counters().writes, 1u);
   EXPECT_EQ(log.count(State::success), 2u);
}

TEST_F(RemapCommitTest, EntriesDifferingOnlyInDerivedIndexAreEqual) {
   // Verify that equality looks at the handle and the profile only.
   auto target = testEntryHandle(11, State::success);
   Entry a = remapTo(target, 2);
   Entry b = remapTo(target, 2);
   b.remappedIpmcIndex = 999;
   EXPECT_EQ(a, b);
   EXPECT_NE(a, remapTo(target, 3));
   EXPECT_NE(a, remapTo(testEntryHandle(11, State::success), 2));
   EXPECT_EQ(Entry(), Entry());
   EXPECT_LT(remapTo(target, 2), remapTo(target, 3));
}

TEST_F(RemapCommitTest, ChangedValueWhileTheFirstWaitsDiscardsTheFirst) {
   // Verify that a second value committed while the first still waits replaces it, and
   // only the second reaches hardware.
   Asic::TraceCapture capture("VelmarMcast::IngIpmcRemapTable/6");
   auto target = testEntryHandle();
   table_->entryCommit(groupKey(1), remapTo(target, 1));
   table_->entryCommit(groupKey(1), remapTo(target, 2));
   EXPECT_TRUE(capture.contains(
       "VelmarMcast::IngIpmcRemapTable : entryCommit : Deleting existing unresolved entry at key "
       ": L3IpmcKey(group=239.0.0.1, vrf=0)"));
   target->programmedIs(8);
   EXPECT_EQ(hw_->counters().writes, 1u);
   EXPECT_EQ(hwEntry(1)->strengthProfile, 2);
}

TEST_F(RemapCommitTest, NewValueOfAProgrammedKeyKeepsTheIndexAndQueuesTheOldValue) {
   // Verify that a changed value is rewritten at the key's index, the old value waits in
   // the pending queue until the new write completes, and only the new callback sees it.
   auto target = testEntryHandle(11, State::success);
   CallbackLog oldLog, newLog;
   auto eh = table_->entryCommit(groupKey(1), remapTo(target, 1, oldLog.fn()));
   loop_.runUntilIdle();
   table_->entryCommit(groupKey(1), remapTo(target, 5, newLog.fn()));
   EXPECT_EQ(eh->hwIndex(), 1u);
   EXPECT_EQ(eh->pendingEntries(), 1u);
   EXPECT_EQ(eh->pendingEntryFront().strengthProfile, 1);
   loop_.runUntilIdle();
   EXPECT_EQ(eh->pendingEntries(), 0u);
   EXPECT_EQ(hwEntry(1)->strengthProfile, 5);
   EXPECT_EQ(oldLog.count(State::success), 1u);
   EXPECT_EQ(newLog.count(State::success), 1u);
}

TEST_F(RemapCommitTest, RefThenCommitAddsExactlyOneUseCount) {
   // Verify that a referenced handle taken over by a commit becomes committed with one
   // more count, and that a second commit adds none.
   auto target = testEntryHandle(11, State::success);
   auto ref = table_->entryRef(groupKey(1), remapTo(target, 1));
   EXPECT_EQ(ref->entryType(), EntryType::referenceOnly);
   const auto before = ref->refCount();
   auto committed = table_->entryCommit(groupKey(1), remapTo(target, 1));
   EXPECT_EQ(committed, ref);
   EXPECT_EQ(ref->entryType(), EntryType::committed);
   EXPECT_EQ(ref->refCount(), before + 2) << "one for the commit, one for the returned pointer";
   committed.reset();
   table_->entryCommit(groupKey(1), remapTo(target, 1));
   EXPECT_EQ(ref->refCount(), before + 1);
}

TEST_F(RemapCommitTest, WriteAtIndexUsesThatIndexAndMapsItBackToTheKey) {
   // Verify that entryWriteAtIndex programs the key at the index it names, and that the
   // index maps back to the key for this and other agents.
   auto eh =
       table_->entryWriteAtIndex(300, groupKey(9), remapTo(testEntryHandle(1, State::success), 0));
   EXPECT_EQ(eh->hwIndex(), 300u);
   ASSERT_TRUE(hwEntry(300));
   EXPECT_EQ(table_->swKeyFromHwIndex(300), groupKey(9));
   EXPECT_EQ(table_->swKeyFromHwIndex(301), std::nullopt);
   EXPECT_EQ(table_->hwIndexOnlyForCrossAgentCommunication(groupKey(9)), 300u);
   EXPECT_EQ(table_->hwIndexOnlyForCrossAgentCommunication(groupKey(10)), Asic::invalidIndex);
}

TEST_F(RemapCommitTest, BothCallbacksSetRaises) {
   // Verify that a value's own callback and a table-level callback together are refused.
   CallbackLog log;
   table_->writeResponseCallbackIs([](const auto*, const Key&) {});
   EXPECT_THROW(
       table_->entryCommit(groupKey(1), remapTo(testEntryHandle(1, State::success), 0, log.fn())),
       Asic::CallbackException);
}

TEST_F(RemapCommitTest, TableLevelCallbackIsCalledWithHandleAndKey) {
   // Verify that without a value callback the table-level callback is told.
   std::vector<std::pair<Key, State>> calls;
   table_->writeResponseCallbackIs(
       [&](const auto* eh, const Key& key) { calls.emplace_back(key, eh->entryState()); });
   table_->entryCommit(groupKey(1), remapTo(testEntryHandle(1, State::success), 0));
   loop_.runUntilIdle();
   ASSERT_FALSE(calls.empty());
   EXPECT_EQ(calls.back(), std::make_pair(groupKey(1), State::success));
}

TEST_F(RemapCommitTest, EngineTracesNameTableOperationAndKey) {
   // Verify the trace form "<table> : <operation><text>" and that the completion is traced.
   Asic::TraceCapture capture("VelmarMcast::IngIpmcRemapTable/0-9");
   table_->entryCommit(groupKey(1), remapTo(testEntryHandle(1, State::success), 0));
   loop_.runUntilIdle();
   EXPECT_TRUE(
       capture.contains("VelmarMcast::IngIpmcRemapTable : entryCommit : Writing new entry "
                        "at key: L3IpmcKey(group=239.0.0.1, vrf=0)"));
   EXPECT_TRUE(
       capture.contains("VelmarMcast::IngIpmcRemapTable : traceHwIndex Acquired hwIndex : 1"));
   EXPECT_TRUE(capture.contains(" entryhandle state: COMPLETE  success at key : L3IpmcKey("));
}

// --- exhaustion and the test switch ---------------------------------------------------

class RemapProgrammedStateSwitchTest : public RemapTableFixture {
 protected:
   void SetUp() override {
      RemapTableFixture::SetUp();
      Asic::Detail::publishEntryHandleProgrammedStateIs(true);
   }
};

TEST_F(RemapProgrammedStateSwitchTest, CompletesWithoutAWriteResponse) {
   // Verify that with the switch on a committed key reaches success with no response.
   CallbackLog log;
   auto eh =
       table_->entryCommit(groupKey(1), remapTo(testEntryHandle(1, State::success), 0, log.fn()));
   EXPECT_EQ(eh->entryState(), State::success);
   EXPECT_EQ(log.count(State::success), 1u);
   EXPECT_EQ(loop_.runUntilIdle(), 0u) << "no write response is awaited";
}

class RemapExhaustionTest : public RemapProgrammedStateSwitchTest {
 protected:
   RemapExhaustionTest() { entries_ = 4; }  // indices 1..3 usable
};

TEST_F(RemapExhaustionTest, ExhaustedAllocatorEndsInProgramFailed) {
   // Verify that one key more than the table holds gets no index, writes nothing, ends in
   // programFailed, and leaves the keys already programmed as they were.
   auto target = testEntryHandle(1, State::success);
   for (std::uint32_t n = 1; n <= 3; ++n) {
      EXPECT_EQ(table_->entryCommit(groupKey(n), remapTo(target, 0))->entryState(), State::success);
   }
   const auto writes = hw_->counters().writes;
   CallbackLog log;
   auto eh = table_->entryCommit(groupKey(4), remapTo(target, 0, log.fn()));
   EXPECT_EQ(eh->entryState(), State::programFailed);
   EXPECT_TRUE(Asic::isExhausted(eh->hwIndex()));
   EXPECT_EQ(log.count(State::programFailed), 1u);
   EXPECT_EQ(hw_->counters().writes, writes);
   EXPECT_EQ(table_->indexAllocator()->totalUsedIndices(), 4u);

   table_->entryRemove(groupKey(1));
   table_->entryCommit(groupKey(5), remapTo(target, 0));
   EXPECT_EQ(table_->entryWeakRef(groupKey(5))->hwIndex(), 1u) << "a freed index is reused";
}

TEST(RemapProgrammedStateSwitch, ParsesTheVariableAsADecimalNumber) {
   // Verify which values of the variable turn the switch on.
   EXPECT_FALSE(Asic::Detail::parseProgrammedStateSwitch(nullptr));
   EXPECT_FALSE(Asic::Detail::parseProgrammedStateSwitch("0"));
   EXPECT_FALSE(Asic::Detail::parseProgrammedStateSwitch("abc"));
   EXPECT_TRUE(Asic::Detail::parseProgrammedStateSwitch("1"));
   EXPECT_TRUE(Asic::Detail::parseProgrammedStateSwitch("12"));
}

// --- removal and the delete dance -----------------------------------------------------

class RemapRemoveTest : public RemapTableFixture {
 protected:
   // A programmed key whose write response was delivered; the client keeps no handle.
   void programmed(std::uint32_t n, std::uint8_t profile = 0) {
      table_->entryCommit(groupKey(n), remapTo(target_, profile));
      loop_.runUntilIdle();
   }
   Asic::Ptr<VelmarMcastTestEntryHandle> target_ = testEntryHandle(77, State::success);
};

TEST_F(RemapRemoveTest, DeleteDanceWaitsForTheHardwareDeleteThenFreesEverything) {
   // Verify that removing a programmed key marks its handle inDeletion, clears the chip
   // entry, and only when the chip confirms drops the handle and frees the index.
   programmed(1);
   const Asic::Index index = table_->entryWeakRef(groupKey(1))->hwIndex();
   Asic::Ptr<const IngIpmcRemapTable::EntryHandle> watch(table_->entryWeakRef(groupKey(1)));
   watch.reset();
   hw_->countersReset();

   table_->entryRemove(groupKey(1));
   const auto* eh = table_->entryWeakRef(groupKey(1));
   ASSERT_NE(eh, nullptr);
   EXPECT_EQ(eh->entryType(), EntryType::inDeletion);
   EXPECT_EQ(eh->entryState(), State::inProgress);
   EXPECT_FALSE(hwEntry(index)) << "the chip entry is cleared at once";
   EXPECT_FALSE(table_->indexAllocator()->isIndexFree(index)) << "until the delete is confirmed";

   loop_.runUntilIdle();
   EXPECT_EQ(table_->entryWeakRef(groupKey(1)), nullptr);
   EXPECT_FALSE(table_->entryHas(groupKey(1)));
   EXPECT_FALSE(table_->resolvedEntryHas(groupKey(1)));
   EXPECT_TRUE(table_->indexAllocator()->isIndexFree(index));
   EXPECT_EQ(hw_->counters().writes, 0u);
}

TEST_F(RemapRemoveTest, RemovalWhileReferencedKeepsTheEntryUntilTheLastReferenceGoes) {
   // Verify that the hardware entry stays while another client still references the key.
   auto ref = table_->entryRef(groupKey(1), remapTo(target_, 0));
   programmed(1);
   table_->entryRemove(groupKey(1));
   EXPECT_EQ(ref->entryType(), EntryType::referenceOnly);
   EXPECT_TRUE(hwEntry(ref->hwIndex()));
   EXPECT_TRUE(table_->entryInHwTable(groupKey(1)));

   const Asic::Index index = ref->hwIndex();
   ref.reset();
   loop_.runUntilIdle();
   EXPECT_FALSE(hwEntry(index));
   EXPECT_EQ(table_->entryWeakRef(groupKey(1)), nullptr);
}

TEST_F(RemapRemoveTest, RemovalOfAnUncommittedKeyIsTracedAndChangesNothing) {
   // Verify that removing a key that is only referenced is not an error.
   Asic::TraceCapture capture("VelmarMcast::IngIpmcRemapTable/6");
   auto ref = table_->entryRef(groupKey(1), remapTo(target_, 0));
   table_->entryRemove(groupKey(1));
   table_->entryRemove(groupKey(2));
   EXPECT_EQ(capture.count(" : Found no committed entry at key : "), 2u);
   EXPECT_EQ(ref->entryType(), EntryType::referenceOnly);
}

TEST_F(RemapRemoveTest, RemovalBeforeResolutionNeverTouchesHardware) {
   // Verify that a key removed while it waits leaves at once and stops waiting.
   auto waiting = testEntryHandle();
   table_->entryCommit(groupKey(1), remapTo(waiting, 0));
   EXPECT_EQ(waiting->watchers(), 1u);
   table_->entryRemove(groupKey(1));
   EXPECT_EQ(table_->entryWeakRef(groupKey(1)), nullptr);
   EXPECT_EQ(waiting->watchers(), 0u);
   waiting->programmedIs(3);
   EXPECT_EQ(hw_->counters().writes + hw_->counters().clears, 0u);
}

TEST_F(RemapRemoveTest, NoCallbackIsCalledDuringTheDeleteDance) {
   // Verify that a handle in deletion tells its client nothing while in progress.
   CallbackLog log;
   table_->entryCommit(groupKey(1), remapTo(target_, 0, log.fn()));
   loop_.runUntilIdle();
   const auto calls = log.states.size();
   table_->entryRemove(groupKey(1));
   loop_.runUntilIdle();
   EXPECT_EQ(log.states.size(), calls);
}

TEST_F(RemapRemoveTest, NewReferenceDuringTheDanceTakesTheKeyBack) {
   // Verify that a reference arriving during the delete dance types the handle
   // referenceOnly again and the key is programmed anew.
   programmed(1);
   table_->entryRemove(groupKey(1));
   auto ref = table_->entryRef(groupKey(1), remapTo(target_, 4));
   EXPECT_EQ(ref->entryType(), EntryType::referenceOnly);
   loop_.runUntilIdle();
   EXPECT_TRUE(table_->entryHas(groupKey(1)));
   ASSERT_TRUE(hwEntry(ref->hwIndex()));
   EXPECT_EQ(hwEntry(ref->hwIndex())->strengthProfile, 4);
}

// --- assertion texts of order violations -----------------------------------------------

TEST_F(RemapRemoveTest, FailedHardwareDeleteIsAnAssertion) {
   // Verify that a delete the chip does not confirm as success stops with its text.
   programmed(1);
   table_->entryRemove(groupKey(1));
   // The clear of the dance is a completion like a write: make it fail.
   auto* eh = const_cast<IngIpmcRemapTable::EntryHandle*>(table_->entryWeakRef(groupKey(1)));
   try {
      eh->hwWriteCompleted(false);
      FAIL() << "expected an assertion";
   } catch (const Asic::AssertionError& e) {
      EXPECT_EQ(e.info().expression, "resolvedEntryState == success()");
      EXPECT_EQ(e.info().source, "SwTableAccessor");
      EXPECT_THAT(e.info().function, HasSubstr("handleResolvedEntryState"));
   }
}

TEST_F(RemapRemoveTest, CleanupOfACommittedHandleIsAnAssertion) {
   // Verify that the clean-up of a handle that is still committed stops with its text.
   auto eh = table_->entryCommit(groupKey(1), remapTo(target_, 0));
   loop_.runUntilIdle();
   try {
      const_cast<IngIpmcRemapTable::EntryHandle*>(eh.get())->cleanup();
      FAIL() << "expected an assertion";
   } catch (const Asic::AssertionError& e) {
      EXPECT_EQ(e.info().expression, "eh->entryType() == EntryHandle::referenceOnly()");
      EXPECT_EQ(e.info().message, "unexpected entryType");
   }
}

TEST_F(RemapRemoveTest, WontProgramDuringDeletionIsAnAssertion) {
   // Verify that a handle in deletion cannot be told it will not be programmed.
   programmed(1);
   table_->entryRemove(groupKey(1));
   auto* eh = const_cast<IngIpmcRemapTable::EntryHandle*>(table_->entryWeakRef(groupKey(1)));
   try {
      eh->entryStateIs(State::wontProgram);
      FAIL() << "expected an assertion";
   } catch (const Asic::AssertionError& e) {
      EXPECT_EQ(e.info().expression, "entryHandle->entryType() != EntryHandle::inDeletion()");
   }
}

// --- the entry's text form and the table's set-up ---------------------------------------

TEST(RemapEntryText, RoundTripsAndNamesTheAttributeOutOfRange) {
   // Verify that the text form reads back and a bad value names its attribute.
   Entry entry;
   entry.remappedIpmcIndex = 513;
   entry.strengthProfile = 31;
   const std::string written = entry.toString();
   Asic::CharRange text{written};
   EXPECT_EQ(text.text,
             "{remappedIpmcIndexHandle: null, remappedIpmcIndex: 513, strengthProfile: 31}");
   Entry back(text);
   EXPECT_EQ(back.remappedIpmcIndex, 513);
   EXPECT_EQ(back.strengthProfile, 31);

   auto attributeOf = [](std::string s) {
      try {
         Asic::CharRange r{s};
         Entry e(r);
      } catch (const Asic::AttributeRangeError& e) {
         return e.attribute();
      }
      return std::string("none");
   };
   EXPECT_EQ(
       attributeOf("{remappedIpmcIndexHandle: 0x1234, remappedIpmcIndex: 1, strengthProfile: 1}"),
       "remappedIpmcIndexHandle");
   EXPECT_EQ(
       attributeOf("{remappedIpmcIndexHandle: null, remappedIpmcIndex: 65536, strengthProfile: 1}"),
       "remappedIpmcIndex");
   EXPECT_EQ(
       attributeOf("{remappedIpmcIndexHandle: null, remappedIpmcIndex: 1, strengthProfile: 32}"),
       "strengthProfile");
   EXPECT_THROW(Entry(nullptr, 32), Asic::AttributeRangeError);
}

TEST_F(RemapCommitTest, FactoryTableGetsItsUtilFromThePlugInLoader) {
   // Verify that a table made by its factory finds its Util through the plug-in loader,
   // under "AsicFeature" and the table's full type name.
   EXPECT_EQ(IngIpmcRemapTable::UtilLoader::prefixPath(), "AsicFeature");
   EXPECT_EQ(IngIpmcRemapTable::UtilLoader::suffixPath(), "VelmarMcast::IngIpmcRemapTable");
   auto other = ingIpmcRemapTableFactory();
   ASSERT_NE(other->utilIfExists(), nullptr) << "is VELMAR_PLUGIN_PATH set?";
   EXPECT_NE(dynamic_cast<ChipSim::IngIpmcRemapTableSimUtil*>(other->utilIfExists()), nullptr);
}

TEST_F(RemapCommitTest, SetUpReservesIndexZeroAndCountsUsedEntries) {
   // Verify that set-up reserves index 0, shares one allocator and counts its used index
   // in the hardware table.
   EXPECT_FALSE(table_->indexAllocator()->isIndexFree(0));
   EXPECT_EQ(hw_->usedEntries(), 1u);
   EXPECT_EQ(Asic::GenericIndexAllocatorStub::sharedAllocator(
                 VelmarL3Common::L3IpmcSharedAllocator::kTypeName),
             table_->indexAllocator());
   table_->cleanup();
   EXPECT_EQ(table_->indexAllocator(), nullptr);
   EXPECT_EQ(Asic::GenericIndexAllocatorStub::sharedAllocator(
                 VelmarL3Common::L3IpmcSharedAllocator::kTypeName),
             nullptr);
   table_.reset();
}

}  // namespace
}  // namespace VelmarMcast::Testing
