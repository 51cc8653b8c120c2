// The remap table driven through its public operations against the simulated chip: its
// word and index, its needed IPMC-index handle, references, callbacks and removal. What
// every table does alike (commit, failures, the delete dance, restarts) is exercised for
// each table by AsicSwTable/tests/SwTableTypedTest.cpp.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Asic/Errors.h"
#include "Asic/Trace.h"
#include "VelmarMcast/tests/RemapTableFixture.h"

namespace VelmarMcast::Testing {
namespace {

using ::testing::HasSubstr;

class RemapCommitTest : public RemapTableFixture {};

TEST_F(RemapCommitTest, FirstKeyTakesIndexOneAndItsWordAndTraceSayWhatWasWritten) {
   Asic::TraceCapture capture("VelmarMcast::IngIpmcRemapTable/0-9");
   auto eh = table_->entryCommit(groupKey(1), remapTo(testEntryHandle(100, State::success), 3));
   EXPECT_EQ(eh->hwIndex(), 1u) << "index 0 is reserved";
   ASSERT_TRUE(hwEntry(1));
   EXPECT_EQ(hwEntry(1)->remappedIpmcIndex, 100);
   EXPECT_EQ(hwEntry(1)->strengthProfile, 3);
   loop_.runUntilIdle();
   EXPECT_EQ(table_->entry(groupKey(1)).remappedIpmcIndex, 100);
   EXPECT_TRUE(
       capture.contains("VelmarMcast::IngIpmcRemapTable : entryCommit : Writing new entry "
                        "at key: L3IpmcKey(group=239.0.0.1, vrf=0)"));
   EXPECT_TRUE(
       capture.contains("VelmarMcast::IngIpmcRemapTable : traceHwIndex Acquired hwIndex : 1"));
   EXPECT_TRUE(capture.contains(" entryhandle state: COMPLETE  success at key : L3IpmcKey("));
}

TEST_F(RemapCommitTest, WaitsForNeededHandleAndProgramsTheLatestValueWhenItIsProgrammed) {
   Asic::TraceCapture capture("VelmarMcast::IngIpmcRemapTable/6");
   auto target = testEntryHandle();
   table_->entryCommit(groupKey(7), remapTo(target, 1));
   auto eh = table_->entryCommit(groupKey(7), remapTo(target, 2));
   EXPECT_TRUE(capture.contains(
       "VelmarMcast::IngIpmcRemapTable : entryCommit : Deleting existing unresolved entry at key "
       ": L3IpmcKey(group=239.0.0.7, vrf=0)"));
   EXPECT_EQ(eh->entryState(), State::unresolved);
   EXPECT_EQ(hw_->counters().writes, 0u);
   EXPECT_FALSE(table_->resolvedEntryHas(groupKey(7)));

   target->programmedIs(4242);
   EXPECT_EQ(hw_->counters().writes, 1u) << "only the latest value is written";
   EXPECT_EQ(table_->unresolvedEntries().size(), 0u);
   EXPECT_EQ(hwEntry(eh->hwIndex())->remappedIpmcIndex, 4242);
   EXPECT_EQ(hwEntry(eh->hwIndex())->strengthProfile, 2);
   EXPECT_EQ(target->watchers(), 0u) << "a resolved entry stops watching";
   loop_.runUntilIdle();
   EXPECT_EQ(eh->entryState(), State::success);
}

TEST_F(RemapCommitTest, NeededIndexAboveSixteenBitsFailsUnlessTheHandleWontProgram) {
   // A handle that will never be programmed has no real index: stored truncated, unchecked.
   table_->entryCommit(groupKey(3), remapTo(testEntryHandle(0x10005, State::wontProgram), 0));
   EXPECT_EQ(table_->entry(groupKey(3)).remappedIpmcIndex, 5);

   const auto writes = hw_->counters().writes;
   EXPECT_THAT(
       [&] {
          table_->entryCommit(groupKey(4), remapTo(testEntryHandle(65536, State::success), 0));
       },
       ::testing::ThrowsMessage<std::range_error>(
           ::testing::StrEq("Casting values: cast from unsigned int{ 65536 } to short unsigned "
                            "int (max = 65535) failed.")));
   EXPECT_EQ(hw_->counters().writes, writes);
}

TEST_F(RemapCommitTest, AnotherTargetHandleWithTheSameIndexIsAnotherValue) {
   // A value names its target by handle, not by the index the handle has now.
   auto eh = table_->entryCommit(groupKey(1), remapTo(testEntryHandle(11, State::success), 1));
   loop_.runUntilIdle();
   table_->entryCommit(groupKey(1), remapTo(testEntryHandle(11, State::success), 1));
   loop_.runUntilIdle();
   EXPECT_EQ(hw_->counters().writes, 2u);
   EXPECT_EQ(eh->entryState(), State::success);
}

TEST_F(RemapCommitTest, RefThenCommitAddsExactlyOneUseCount) {
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
   auto eh =
       table_->entryWriteAtIndex(300, groupKey(9), remapTo(testEntryHandle(1, State::success), 0));
   EXPECT_EQ(eh->hwIndex(), 300u);
   ASSERT_TRUE(hwEntry(300));
   EXPECT_EQ(table_->swKeyFromHwIndex(300), groupKey(9));
   EXPECT_EQ(table_->swKeyFromHwIndex(301), std::nullopt);
   EXPECT_EQ(table_->hwIndexOnlyForCrossAgentCommunication(groupKey(9)), 300u);
   EXPECT_EQ(table_->hwIndexOnlyForCrossAgentCommunication(groupKey(10)), Asic::invalidIndex);

   // An index another key owns: the allocator keeps it, and the commit still follows at an
   // index of the allocator's choosing.
   auto other =
       table_->entryWriteAtIndex(300, groupKey(10), remapTo(testEntryHandle(2, State::success), 1));
   loop_.runUntilIdle();
   EXPECT_EQ(other->entryState(), State::success);
   EXPECT_NE(other->hwIndex(), 300u);
   EXPECT_EQ(table_->swKeyFromHwIndex(300), groupKey(9));
}

TEST_F(RemapCommitTest, TableLevelCallbackIsToldAndExcludesAValueCallback) {
   std::vector<std::pair<Key, State>> calls;
   table_->writeResponseCallbackIs(
       [&](const auto* eh, const Key& key) { calls.emplace_back(key, eh->entryState()); });
   table_->entryCommit(groupKey(1), remapTo(testEntryHandle(1, State::success), 0));
   loop_.runUntilIdle();
   ASSERT_FALSE(calls.empty());
   EXPECT_EQ(calls.back(), std::make_pair(groupKey(1), State::success));

   CallbackLog log;
   EXPECT_THROW(
       table_->entryCommit(groupKey(2), remapTo(testEntryHandle(1, State::success), 0, log.fn())),
       Asic::CallbackException);
}

TEST_F(RemapCommitTest, SetUpReservesIndexZeroAndTheFactoryFindsTheUtilThroughThePlugIns) {
   const auto shared = [] {
      return Asic::GenericIndexAllocatorStub::sharedAllocator(
          VelmarL3Common::L3IpmcSharedAllocator::kTypeName);
   };
   EXPECT_FALSE(table_->indexAllocator()->isIndexFree(0));
   EXPECT_EQ(hw_->usedEntries(), 1u);
   EXPECT_EQ(shared(), table_->indexAllocator());

   EXPECT_EQ(IngIpmcRemapTable::UtilLoader::prefixPath(), "AsicFeature");
   EXPECT_EQ(IngIpmcRemapTable::UtilLoader::suffixPath(), "VelmarMcast::IngIpmcRemapTable");
   auto other = ingIpmcRemapTableFactory();
   ASSERT_NE(other->utilIfExists(), nullptr) << "is VELMAR_PLUGIN_PATH set?";
   EXPECT_NE(dynamic_cast<ChipSim::IngIpmcRemapTableSimUtil*>(other->utilIfExists()), nullptr);

   table_->cleanup();
   EXPECT_EQ(table_->indexAllocator(), nullptr);
   EXPECT_EQ(shared(), nullptr) << "cleanup releases the shared allocator";
   table_.reset();
}

// --- the test switch and exhaustion -----------------------------------------------------

class RemapProgrammedStateSwitchTest : public RemapTableFixture {
 protected:
   RemapProgrammedStateSwitchTest() { entries_ = 4; }  // indices 1..3 usable
   void SetUp() override {
      RemapTableFixture::SetUp();
      Asic::Detail::publishEntryHandleProgrammedStateIs(true);
   }
};

TEST_F(RemapProgrammedStateSwitchTest, CompletesWithoutAWriteResponseUntilTheTableIsExhausted) {
   // One key more than the table holds gets no index, writes nothing and ends in
   // programFailed; the keys already programmed stay, and a freed index is reused.
   auto target = testEntryHandle(1, State::success);
   CallbackLog log;
   for (std::uint32_t n = 1; n <= 3; ++n) {
      EXPECT_EQ(table_->entryCommit(groupKey(n), remapTo(target, 0, log.fn()))->entryState(),
                State::success);
   }
   EXPECT_EQ(log.count(State::success), 3u);
   EXPECT_EQ(loop_.runUntilIdle(), 0u) << "no write response is awaited";
   const auto writes = hw_->counters().writes;
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
   for (const char* off : {static_cast<const char*>(nullptr), "0", "abc"}) {
      EXPECT_FALSE(Asic::Detail::parseProgrammedStateSwitch(off)) << (off ? off : "unset");
   }
   for (const char* on : {"1", "12"}) EXPECT_TRUE(Asic::Detail::parseProgrammedStateSwitch(on));
}

// --- removal and the delete dance -----------------------------------------------------

class RemapRemoveTest : public RemapTableFixture {
 protected:
   // A programmed key whose write response was delivered; the client keeps no handle.
   void programmed(std::uint32_t n) {
      table_->entryCommit(groupKey(n), remapTo(target_, 0));
      loop_.runUntilIdle();
   }
   IngIpmcRemapTable::EntryHandle* handle(std::uint32_t n) {
      return const_cast<IngIpmcRemapTable::EntryHandle*>(table_->entryWeakRef(groupKey(n)));
   }
   Asic::Ptr<VelmarMcastTestEntryHandle> target_ = testEntryHandle(77, State::success);
};

TEST_F(RemapRemoveTest, RemovalWhileReferencedKeepsTheEntryUntilTheLastReferenceGoes) {
   // Removing a key that is not committed is traced, not an error.
   Asic::TraceCapture capture("VelmarMcast::IngIpmcRemapTable/6");
   auto ref = table_->entryRef(groupKey(1), remapTo(target_, 0));
   table_->entryRemove(groupKey(1));
   table_->entryRemove(groupKey(2));
   EXPECT_EQ(capture.count(" : Found no committed entry at key : "), 2u);
   EXPECT_EQ(ref->entryType(), EntryType::referenceOnly);

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

TEST_F(RemapRemoveTest, RemovalBeforeResolutionNeverTouchesHardware) {
   auto waiting = testEntryHandle();
   table_->entryCommit(groupKey(1), remapTo(waiting, 0));
   EXPECT_EQ(waiting->watchers(), 1u);
   table_->entryRemove(groupKey(1));
   EXPECT_EQ(table_->entryWeakRef(groupKey(1)), nullptr);
   EXPECT_EQ(waiting->watchers(), 0u);
   waiting->programmedIs(3);
   EXPECT_EQ(hw_->counters().writes + hw_->counters().clears, 0u);
}

TEST_F(RemapRemoveTest, NewReferenceDuringTheDanceTakesTheKeyBack) {
   programmed(1);
   table_->entryRemove(groupKey(1));
   auto ref = table_->entryRef(groupKey(1), remapTo(target_, 4));
   EXPECT_EQ(ref->entryType(), EntryType::referenceOnly);
   loop_.runUntilIdle();
   EXPECT_TRUE(table_->entryHas(groupKey(1)));
   ASSERT_TRUE(hwEntry(ref->hwIndex()));
   EXPECT_EQ(hwEntry(ref->hwIndex())->strengthProfile, 4);
}

TEST_F(RemapRemoveTest, OrderViolationsAroundTheDeleteDanceAreAssertions) {
   programmed(1);
   programmed(2);
   programmed(3);
   const auto cleanup = assertionOf([&] { handle(3)->cleanup(); });
   EXPECT_EQ(cleanup.expression, "eh->entryType() == EntryHandle::referenceOnly()");
   EXPECT_EQ(cleanup.message, "unexpected entryType");

   table_->entryRemove(groupKey(1));
   table_->entryRemove(groupKey(2));
   EXPECT_EQ(assertionOf([&] { handle(2)->entryStateIs(State::wontProgram); }).expression,
             "entryHandle->entryType() != EntryHandle::inDeletion()");
   // The clear of the dance completes like a write: make it fail.
   const auto failedDelete = assertionOf([&] { handle(1)->hwWriteCompleted(false); });
   EXPECT_EQ(failedDelete.expression, "resolvedEntryState == success()");
   EXPECT_EQ(failedDelete.source, "SwTableAccessor");
   EXPECT_THAT(failedDelete.function, HasSubstr("handleResolvedEntryState"));
}

// --- the entry's text form ------------------------------------------------------------

TEST(RemapEntryText, RoundTripsAndNamesTheAttributeOutOfRange) {
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

   const auto text3 = [](const char* handle, int index, int profile) {
      return fmt::format(
          "{{remappedIpmcIndexHandle: {}, remappedIpmcIndex: {}, strengthProfile: {}}}", handle,
          index, profile);
   };
   const std::pair<std::string, std::string> bad[] = {
       {text3("0x1234", 1, 1), "remappedIpmcIndexHandle"},
       {text3("null", 65536, 1), "remappedIpmcIndex"},
       {text3("null", 1, 32), "strengthProfile"},
   };
   for (const auto& [input, attribute] : bad) {
      std::string named = "none";
      try {
         Asic::CharRange r{input};
         Entry e(r);
      } catch (const Asic::AttributeRangeError& e) {
         named = e.attribute();
      }
      EXPECT_EQ(named, attribute) << input;
   }
   EXPECT_THROW(Entry(nullptr, 32), Asic::AttributeRangeError);
}

}  // namespace
}  // namespace VelmarMcast::Testing
