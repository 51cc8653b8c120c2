// The remap table's warm restart against the simulated chip: every software object goes,
// the chip keeps its memory, a new table reads it back, the IPMC lookup recovers its
// indices, the clients replay, and what no replayed key claimed is purged. Covers
// reconciliation statuses, index suggestions, the end of the replay, the stale purge and
// bulk removal.

#include <map>
#include <optional>
#include <ostream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Asic/Trace.h"
#include "VelmarMcast/tests/RemapTableFixture.h"

namespace VelmarMcast::Testing {
namespace {

using ::testing::ElementsAre;
using Status = Asic::SwTable::ReconciliationStatus;

constexpr std::uint32_t kEntries = 4096;
constexpr Asic::Index kTargetBase = 1000;  // remap target of group n: IPMC index 1000 + n
constexpr char kTraceSetting[] = "VelmarMcast::*/0-9,SwTableStat/0";

const Asic::TypeDescriptor& keyType() { return Asic::vixType<Key>(); }

// The L3 multicast lookup that owns IPMC indices, reduced to what a restart needs of it: an
// index per group on a cold start, kept in its own hardware across a restart, recovered into
// the shared allocator afterwards. Its address is its user identity in the allocator.
class IpmcLookupStandIn {
 public:
   Asic::Index indexIs(Asic::GenericIndexAllocator& alloc, const Key& key) {
      return indices_[key] = alloc.newIndexForKey(keyType(), &key, this);
   }
   void recoverAll(Asic::GenericIndexAllocator& alloc) {
      for (const auto& [key, index] : indices_) {
         ASSERT_TRUE(alloc.recoverIndexForKey(index, keyType(), &key, this))
             << fmt::format("{} at {}", key, index);
      }
   }
   void releaseAll(Asic::GenericIndexAllocator& alloc) {
      for (const auto& [key, index] : indices_) alloc.releaseIndexFromTable(keyType(), &key, this);
   }
   // The group left the lookup's configuration (or is not recovered yet).
   void groupDel(const Key& key) { indices_.erase(key); }

 private:
   std::map<Key, Asic::Index> indices_;
};

class RemapRestartFixture : public RemapTableFixture {
 protected:
   static Asic::Ptr<VelmarMcastTestEntryHandle> target(std::uint32_t n) {
      return testEntryHandle(kTargetBase + n, State::success);
   }

   // Groups 1..n: the lookup's index first, then the remap entry; responses delivered.
   void coldStart(std::uint32_t groups) {
      for (std::uint32_t n = 1; n <= groups; ++n) {
         lookup_.indexIs(*table_->indexAllocator(), groupKey(n));
         table_->entryCommit(groupKey(n), remapTo(target(n), 1));
      }
      loop_.runUntilIdle();
      for (std::uint32_t n = 1; n <= groups; ++n) {
         const auto* eh = table_->entryWeakRef(groupKey(n));
         ASSERT_NE(eh, nullptr);
         ASSERT_EQ(eh->entryState(), State::success) << "group " << n;
         coldIndex_[n] = eh->hwIndex();
      }
   }

   // Software goes, the chip stays; the new table reads it back, the lookup recovers.
   void restart() {
      loop_.runUntilIdle();
      lookup_.releaseAll(*table_->indexAllocator());
      table_->detachFromChip();
      table_->cleanup();
      table_.reset();
      ASSERT_EQ(Asic::GenericIndexAllocatorStub::sharedAllocator(
                    VelmarL3Common::L3IpmcSharedAllocator::kTypeName),
                nullptr)
          << "something still holds the shared allocator";
      tableIs(kEntries);
      table_->configReplayCompleteIs(false);
      table_->syncEntries();
      lookup_.recoverAll(*table_->indexAllocator());
      hw_->countersReset();
   }

   Asic::Ptr<const IngIpmcRemapTable::EntryHandle> replay(std::uint32_t n) {
      return table_->entryCommit(groupKey(n), remapTo(target(n), 1));
   }

   void initCompleteAndPurge() {
      table_->doInitComplete();
      table_->purgeStaleEntries();
      loop_.runUntilIdle();
   }

   std::uint64_t stat(Status s) const { return table_->reconciliationStats()[s]; }
   Asic::GenericIndexAllocator& alloc() const { return *table_->indexAllocator(); }
   std::size_t validHwEntries() const {
      std::size_t n = 0;
      hw_->forEachValidEntry([&n](Asic::Index, Asic::HwTable::Words) { ++n; });
      return n;
   }

   static std::string statLine(const Asic::TraceCapture& capture) {
      for (const auto& line : capture.lines()) {
         if (line.handle == Asic::kSwTableStatTrace && line.level == 0) return line.text;
      }
      return "<no SwTableStat line>";
   }

   IpmcLookupStandIn lookup_;
   std::map<std::uint32_t, Asic::Index> coldIndex_;
};

// --- replay of what the chip already holds ------------------------------------------------

struct ReplayCase {
   std::string name;
   Asic::Index targetDelta;  // added to group 2's remap target in the replay
   std::uint8_t profile;     // group 2's strength profile in the replay (cold start: 1)
   bool programmedStateSwitch;
   friend void PrintTo(const ReplayCase& c, std::ostream* os) { *os << c.name; }
};

class RemapReplayTest : public RemapRestartFixture,
                        public ::testing::WithParamInterface<ReplayCase> {};

TEST_P(RemapReplayTest, KeysKeepTheirIndicesAndOnlyChangedContentsAreWritten) {
   // Unchanged contents reconcile (status 1) without hardware access; group 2's changed
   // contents are rewritten in place (status 2, one write), whichever way handles complete.
   const ReplayCase& c = GetParam();
   Asic::Detail::publishEntryHandleProgrammedStateIs(c.programmedStateSwitch);
   const bool changed = c.targetDelta != 0 || c.profile != 1;
   ASSERT_NO_FATAL_FAILURE(coldStart(4));
   ASSERT_NO_FATAL_FAILURE(restart());
   ASSERT_EQ(table_->syncedEntries().size(), 4u);

   Asic::TraceCapture capture(kTraceSetting);
   std::map<std::uint32_t, CallbackLog> logs;
   for (std::uint32_t n = 1; n <= 4; ++n) {
      const Asic::Index target = kTargetBase + n + (n == 2 ? c.targetDelta : 0);
      table_->entryCommit(groupKey(n), remapTo(testEntryHandle(target, State::success),
                                               n == 2 ? c.profile : 1, logs[n].fn()));
   }
   EXPECT_EQ(stat(Status::reconciled), changed ? 3u : 4u);
   EXPECT_EQ(stat(Status::indexReconciledContentsDiffer), changed ? 1u : 0u);
   EXPECT_EQ(stat(Status::notReconciled) + stat(Status::nothingToReconcile), 0u);
   EXPECT_EQ(capture.count("VelmarMcast::IngIpmcRemapTable : handleEntry: reconcileStatus: 1, "
                           "configReplayComplete:false"),
             changed ? 3u : 4u);
   EXPECT_TRUE(capture.contains(fmt::format(
       "VelmarMcast::IngIpmcRemapTable : handleEntry: Deleting syncedEntry reconciled at index:{}",
       coldIndex_[1])));
   EXPECT_TRUE(table_->syncedEntries().empty()) << "every reconciled record is consumed";
   initCompleteAndPurge();

   EXPECT_EQ(hw_->counters().writes, changed ? 1u : 0u);
   EXPECT_EQ(hw_->counters().clears, 0u);
   EXPECT_EQ(stat(Status::staleEntryDeleted), 0u);
   for (std::uint32_t n = 1; n <= 4; ++n) {
      const auto* eh = table_->entryWeakRef(groupKey(n));
      ASSERT_NE(eh, nullptr);
      EXPECT_EQ(eh->hwIndex(), coldIndex_[n]) << "group " << n;
      EXPECT_TRUE(table_->entryInHwTable(groupKey(n))) << "group " << n;
      EXPECT_EQ(logs[n].count(State::indexReconciled), 1u) << "group " << n;
      const bool rewritten = changed && n == 2;
      const State expected =
          rewritten || c.programmedStateSwitch ? State::success : State::indexReconciled;
      EXPECT_EQ(eh->entryState(), expected) << "group " << n;
      EXPECT_EQ(eh->resolvedEntryState(), expected) << "group " << n;
   }
   const auto hw2 = hwEntry(coldIndex_[2]);
   ASSERT_TRUE(hw2);
   EXPECT_EQ(hw2->remappedIpmcIndex, kTargetBase + 2 + c.targetDelta);
   EXPECT_EQ(hw2->strengthProfile, c.profile);

   // A reconciled key stays a user of its index: the lookup letting go of the group must not
   // free an index still occupied in hardware.
   EXPECT_TRUE(alloc().isIndexVerticallyShared(coldIndex_[1], keyType()));
   const Key group1 = groupKey(1);
   alloc().releaseIndexFromTable(keyType(), &group1, &lookup_);
   EXPECT_FALSE(alloc().isIndexFree(coldIndex_[1]));
   EXPECT_EQ(table_->swKeyFromHwIndex(coldIndex_[1]), groupKey(1));
   auto other = table_->entryCommit(groupKey(9), remapTo(target(9), 1));
   EXPECT_NE(other->hwIndex(), coldIndex_[1]) << "a newcomer must not land on group 1's entry";
   EXPECT_EQ(hwEntry(coldIndex_[1])->remappedIpmcIndex, kTargetBase + 1);
}

INSTANTIATE_TEST_SUITE_P(
    Restart, RemapReplayTest,
    ::testing::Values(ReplayCase{"Unchanged", 0, 1, false},
                      ReplayCase{"UnchangedWithProgrammedStateSwitch", 0, 1, true},
                      ReplayCase{"OtherStrengthProfile", 0, 7, false},
                      ReplayCase{"OtherRemapTarget", 40, 1, false},
                      ReplayCase{"OtherStrengthProfileWithProgrammedStateSwitch", 0, 7, true}),
    [](const auto& info) { return info.param.name; });

TEST_F(RemapRestartFixture, SyncBeforeTheFirstCommitOnly) {
   table_->entryCommit(groupKey(1), remapTo(target(1), 0));
   EXPECT_EQ(assertionOf([&] { table_->syncEntries(); }).expression, "!swTable_->resolvedEntrys()");
}

// --- the stale purge ----------------------------------------------------------------------

class RemapPurgeTest : public RemapRestartFixture {};

TEST_F(RemapPurgeTest, StaleEntriesAreDeletedUnlessAReplayedKeyOwnsTheIndex) {
   // Groups 5 and 6 left the configuration: deleted, indices freed. Group 7's index is also
   // used by another table: deleted, index stays assigned. Reserved index 0: deleted, stays
   // reserved. Group 3 is replayed but still unresolved: its record is skipped, and the key
   // overwrites it once it resolves. Each deletion counts as status 4; the statistics line
   // goes to "SwTableStat" at level 0.
   ASSERT_NO_FATAL_FAILURE(coldStart(7));
   hw_->entryWrite(0, ChipSim::IngIpmcRemapTableSimUtil::encode(Entry(nullptr, 3)));
   lookup_.groupDel(groupKey(5));
   lookup_.groupDel(groupKey(6));
   ASSERT_NO_FATAL_FAILURE(restart());
   const int otherTable = 0;  // a second table of the IPMC index space, by address
   const Key group7 = groupKey(7);
   alloc().newIndexForKey(keyType(), &group7, &otherTable);
   ASSERT_TRUE(alloc().isIndexVerticallyShared(coldIndex_[7], keyType()));
   for (std::uint32_t n : {1u, 2u, 4u}) replay(n);
   auto waiting = testEntryHandle();
   auto eh3 = table_->entryCommit(groupKey(3), remapTo(waiting, 4));
   table_->doInitComplete();
   EXPECT_EQ(eh3->entryState(), State::unresolved);
   EXPECT_EQ(table_->syncedEntries().size(), 5u);
   EXPECT_EQ(hw_->counters().clears, 0u) << "nothing is deleted before the purge";

   Asic::TraceCapture capture(kTraceSetting);
   table_->purgeStaleEntries();
   loop_.runUntilIdle();
   EXPECT_EQ(hw_->counters().clears, 4u);
   EXPECT_EQ(hw_->counters().writes, 0u);
   EXPECT_EQ(stat(Status::staleEntryDeleted), 4u);
   EXPECT_TRUE(table_->syncedEntries().empty());
   for (Asic::Index index : {Asic::Index(0), coldIndex_[5], coldIndex_[6], coldIndex_[7]}) {
      EXPECT_FALSE(hwEntry(index)) << "index " << index;
      EXPECT_TRUE(capture.contains(fmt::format(
          "VelmarMcast::IngIpmcRemapTable : handleStaleEntries: Deleting stale hwEntry at index:{}",
          index)));
   }
   EXPECT_TRUE(alloc().isIndexFree(coldIndex_[5]));
   EXPECT_TRUE(alloc().isIndexFree(coldIndex_[6]));
   EXPECT_FALSE(alloc().isIndexFree(coldIndex_[7]));
   EXPECT_EQ(table_->swKeyFromHwIndex(coldIndex_[7]), groupKey(7));
   EXPECT_FALSE(alloc().isIndexFree(0));
   EXPECT_EQ(capture.count("VelmarMcast::IngIpmcRemapTable : handleStaleEntries: Marking index "
                           "available in allocator"),
             3u)
       << "groups 5 and 6, and index 0, which the allocator keeps reserved";
   EXPECT_TRUE(capture.contains(fmt::format(
       "VelmarMcast::IngIpmcRemapTable : handleStaleEntries Skip index:{}", coldIndex_[3])));
   EXPECT_TRUE(hwEntry(coldIndex_[3]));
   EXPECT_FALSE(alloc().isIndexFree(coldIndex_[3]));
   EXPECT_EQ(statLine(capture),
             "VelmarMcast::IngIpmcRemapTable : purgeStaleEntries notReconciled=0 reconciled=3 "
             "indexReconciledContentsDiffer=0 nothingToReconcile=0 staleEntryDeleted=4");
   for (std::uint32_t n : {1u, 2u, 4u}) {
      EXPECT_TRUE(table_->entryInHwTable(groupKey(n))) << "group " << n;
   }

   waiting->programmedIs(555);
   loop_.runUntilIdle();
   EXPECT_EQ(eh3->hwIndex(), coldIndex_[3]);
   EXPECT_EQ(eh3->entryState(), State::success);
   EXPECT_EQ(hw_->counters().writes, 1u);
   EXPECT_EQ(hwEntry(coldIndex_[3])->remappedIpmcIndex, 555);
   EXPECT_EQ(hwEntry(coldIndex_[3])->strengthProfile, 4);
   auto newcomer = table_->entryCommit(groupKey(8), remapTo(target(8), 1));
   EXPECT_EQ(newcomer->hwIndex(), coldIndex_[5]) << "a purged index is handed out again";
}

TEST_F(RemapPurgeTest, RecordAtAnIndexOnlyTheIpmcLookupHoldsIsDeletedAndTheIndexStaysWithIt) {
   // Group 2 left the remap configuration but not the lookup's: the chip must stop
   // remapping it, and the lookup keeps its index.
   ASSERT_NO_FATAL_FAILURE(coldStart(2));
   ASSERT_NO_FATAL_FAILURE(restart());
   replay(1);
   initCompleteAndPurge();
   EXPECT_FALSE(hwEntry(coldIndex_[2]));
   EXPECT_TRUE(alloc().isIndexAssigned(coldIndex_[2], keyType()));
   EXPECT_EQ(stat(Status::staleEntryDeleted), 1u);
   EXPECT_TRUE(hwEntry(coldIndex_[1]));
}

TEST_F(RemapPurgeTest, EmptyChipReconcilesNothingAndThePurgeOnlyTraces) {
   // Every replayed key is programmed as new (status 3).
   ASSERT_NO_FATAL_FAILURE(restart());
   ASSERT_TRUE(table_->syncedEntries().empty());
   replay(1);
   replay(2);
   EXPECT_EQ(stat(Status::nothingToReconcile), 2u);
   EXPECT_EQ(hw_->counters().writes, 2u);
   table_->doInitComplete();

   Asic::TraceCapture capture(kTraceSetting);
   table_->purgeStaleEntries();
   loop_.runUntilIdle();
   EXPECT_TRUE(capture.contains(
       "VelmarMcast::IngIpmcRemapTable : syncedEntryRemoveAllNo stale entries in syncedEntryColl"));
   EXPECT_FALSE(capture.contains("handleStaleEntries"));
   EXPECT_EQ(statLine(capture),
             "VelmarMcast::IngIpmcRemapTable : purgeStaleEntries notReconciled=0 reconciled=0 "
             "indexReconciledContentsDiffer=0 nothingToReconcile=2 staleEntryDeleted=0");
   EXPECT_EQ(hw_->counters().clears, 0u);
   EXPECT_TRUE(table_->entryInHwTable(groupKey(1)));
}

TEST_F(RemapPurgeTest, TableWithoutUtilSyncsAndPurgesNothing) {
   ASSERT_NO_FATAL_FAILURE(coldStart(3));
   ASSERT_NO_FATAL_FAILURE(restart());
   table_->syncedEntryDelAll();
   table_->utilIs(nullptr);
   table_->syncEntries();
   EXPECT_TRUE(table_->syncedEntries().empty());
   Asic::TraceCapture capture(kTraceSetting);
   table_->purgeStaleEntries();
   EXPECT_TRUE(capture.contains("syncedEntryRemoveAllNo stale entries in syncedEntryColl"));
   EXPECT_EQ(validHwEntries(), 3u);
   EXPECT_EQ(hw_->counters().clears, 0u);
}

// --- index suggestions ----------------------------------------------------------------------

class RemapSuggestionTest : public RemapRestartFixture {
 protected:
   // Groups 1..3 cold; the lookup has not recovered group 2, whose replayed remap entry
   // (`profile`, remapped to `needed`) finds no index of its own.
   void groupTwoWithoutIndex(std::uint8_t profile = 1,
                             Asic::Ptr<VelmarMcastTestEntryHandle> needed = target(2)) {
      ASSERT_NO_FATAL_FAILURE(coldStart(3));
      lookup_.groupDel(groupKey(2));
      ASSERT_NO_FATAL_FAILURE(restart());
      replay(1);
      replay(3);
      capture_.emplace(kTraceSetting);
      eh2_ = table_->entryCommit(groupKey(2), remapTo(needed, profile));
   }
   void suggest(Asic::IndexSet indices) {
      Asic::SwTableBase::suggestIndicesToNeededEntryHandle(eh2_.get(), std::move(indices));
   }

   std::optional<Asic::TraceCapture> capture_;
   Asic::Ptr<const IngIpmcRemapTable::EntryHandle> eh2_;
};

TEST_F(RemapSuggestionTest, KeyWithoutAnIndexWaitsThenReconcilesThroughASuggestion) {
   // Held back as status 0 (not counted, nothing written). An index another key recovered is
   // refused (" not free") and not tried again; the index holding the key's contents
   // reconciles it without a write. Suggestions for a resolved handle are refused.
   ASSERT_NO_FATAL_FAILURE(groupTwoWithoutIndex());
   EXPECT_TRUE(capture_->contains(
       "VelmarMcast::IngIpmcRemapTable : reconcileUsingIndexHelperIndex suggestions unavailable"));
   EXPECT_TRUE(capture_->contains("handleEntry: reconcileStatus: 0"));
   EXPECT_EQ(eh2_->entryState(), State::unresolved);
   EXPECT_EQ(stat(Status::reconciled), 2u);
   EXPECT_EQ(stat(Status::notReconciled), 0u) << "status 0 is not counted";
   EXPECT_EQ(hw_->counters().writes, 0u);

   const std::string notFree = fmt::format(
       "VelmarMcast::IngIpmcRemapTable : reconcileUsingHwIndex: Index:{} not free", coldIndex_[1]);
   suggest({coldIndex_[1]});
   EXPECT_EQ(capture_->count(notFree), 1u);
   EXPECT_EQ(eh2_->entryState(), State::unresolved);
   EXPECT_EQ(table_->swKeyFromHwIndex(coldIndex_[1]), groupKey(1));
   suggest({coldIndex_[1]});
   EXPECT_EQ(capture_->count(notFree), 1u) << "a repeated suggestion is ignored";
   EXPECT_EQ(capture_->count("handleIndexSuggestions: hwIndex:"), 1u);

   suggest({coldIndex_[1], coldIndex_[2]});
   EXPECT_EQ(capture_->count(notFree), 1u);
   EXPECT_EQ(eh2_->entryState(), State::indexReconciled);
   EXPECT_EQ(eh2_->resolvedEntryState(), State::indexReconciled);
   EXPECT_EQ(eh2_->hwIndex(), coldIndex_[2]);
   EXPECT_EQ(table_->swKeyFromHwIndex(coldIndex_[2]), groupKey(2));
   EXPECT_EQ(stat(Status::reconciled), 3u);
   EXPECT_EQ(table_->syncedEntry(coldIndex_[2]), nullptr);
   EXPECT_TRUE(capture_->contains(fmt::format(
       "processIndexSuggestion: Deleting syncedEntry reconciled at index:{}", coldIndex_[2])));

   EXPECT_EQ(assertionOf([this] { suggest({5}); }).expression, "eh->entryState() == unresolved()");

   initCompleteAndPurge();
   EXPECT_EQ(hw_->counters().writes + hw_->counters().clears, 0u);
   EXPECT_TRUE(table_->entryInHwTable(groupKey(2)));
   eh2_ = table_->entryCommit(groupKey(4), remapTo(testEntryHandle(), 1));
   EXPECT_EQ(assertionOf([this] { suggest({5}); }).expression, "swTable_->configReplayInProgress()")
       << "suggestions come only during the replay";
}

class RemapLateIndexTest : public RemapSuggestionTest,
                           public ::testing::WithParamInterface<bool> {};

TEST_P(RemapLateIndexTest, HeldBackKeyIsRewrittenInPlaceAtInitCompleteAndSurvivesThePurge) {
   // Either its own index was suggested but holds other contents (refused during the
   // replay, then taken without comparison), or the lookup recovers the group only after
   // the key's replay. Either way status 2, one write, record consumed, nothing purged.
   const bool suggestedOtherContents = GetParam();
   ASSERT_NO_FATAL_FAILURE(groupTwoWithoutIndex(suggestedOtherContents ? 9 : 1));
   if (suggestedOtherContents) {
      suggest({coldIndex_[2]});
      EXPECT_TRUE(alloc().isIndexFree(coldIndex_[2]));
   } else {
      suggest({coldIndex_[3]});               // refused: group 3 owns it; leaves a helper behind
      lookup_.indexIs(alloc(), groupKey(2));  // its first free index is group 2's old one
      const Key group2 = groupKey(2);
      ASSERT_EQ(alloc().indexForKey(keyType(), &group2), coldIndex_[2]);
   }
   EXPECT_EQ(eh2_->entryState(), State::unresolved);

   table_->doInitComplete();
   EXPECT_EQ(eh2_->hwIndex(), coldIndex_[2]);
   EXPECT_EQ(stat(Status::indexReconciledContentsDiffer), 1u);
   EXPECT_EQ(hw_->counters().writes, 1u);
   EXPECT_EQ(table_->syncedEntry(coldIndex_[2]), nullptr);
   table_->purgeStaleEntries();
   loop_.runUntilIdle();
   EXPECT_EQ(eh2_->entryState(), State::success);
   EXPECT_EQ(hw_->counters().clears, 0u);
   ASSERT_TRUE(hwEntry(coldIndex_[2]));
   EXPECT_EQ(hwEntry(coldIndex_[2])->remappedIpmcIndex, kTargetBase + 2);
   EXPECT_EQ(hwEntry(coldIndex_[2])->strengthProfile, suggestedOtherContents ? 9 : 1);
   EXPECT_TRUE(table_->entryInHwTable(groupKey(2)));
}

INSTANTIATE_TEST_SUITE_P(Restart, RemapLateIndexTest, ::testing::Bool(), [](const auto& info) {
   return info.param ? "SuggestedWithOtherContents" : "RecoveredLate";
});

TEST_F(RemapSuggestionTest, HeldBackKeyWithoutSuggestionsIsProgrammedAsNew) {
   // It gets the lowest free index at the end of the replay (status 3), here a stale group's
   // old place: the purge skips it as the key's own and deletes the key's former place.
   ASSERT_NO_FATAL_FAILURE(coldStart(3));
   lookup_.groupDel(groupKey(1));
   lookup_.groupDel(groupKey(2));
   ASSERT_NO_FATAL_FAILURE(restart());
   replay(3);
   auto eh = replay(2);
   EXPECT_EQ(eh->entryState(), State::unresolved);
   initCompleteAndPurge();
   EXPECT_EQ(eh->hwIndex(), coldIndex_[1]);
   EXPECT_EQ(eh->entryState(), State::success);
   EXPECT_EQ(stat(Status::nothingToReconcile), 1u);
   EXPECT_EQ(stat(Status::staleEntryDeleted), 1u);
   EXPECT_EQ(hwEntry(coldIndex_[1])->remappedIpmcIndex, kTargetBase + 2);
   EXPECT_FALSE(hwEntry(coldIndex_[2]));
   EXPECT_TRUE(alloc().isIndexFree(coldIndex_[2]));
   EXPECT_EQ(hw_->counters().writes, 1u);
   EXPECT_EQ(hw_->counters().clears, 1u);
}

TEST_F(RemapSuggestionTest, SuggestionForAWaitingKeyIsPassedDownAndUsedWhenItResolves) {
   // Handed on once, with the index the hardware names; reconciles the key once it resolves.
   auto waiting = testEntryHandle();
   ASSERT_NO_FATAL_FAILURE(groupTwoWithoutIndex(1, waiting));
   suggest({coldIndex_[2]});
   suggest({coldIndex_[2]});
   EXPECT_THAT(waiting->suggestions(), ElementsAre(Asic::IndexSet{kTargetBase + 2}));
   EXPECT_EQ(eh2_->entryState(), State::unresolved);

   waiting->programmedIs(kTargetBase + 2);
   EXPECT_EQ(eh2_->entryState(), State::indexReconciled);
   EXPECT_EQ(eh2_->hwIndex(), coldIndex_[2]);
   EXPECT_EQ(stat(Status::reconciled), 3u);
   initCompleteAndPurge();
   EXPECT_EQ(hw_->counters().writes + hw_->counters().clears, 0u);
}

// --- bulk removal -----------------------------------------------------------------------

class RemapRemoveAllTest : public RemapRestartFixture,
                           public ::testing::WithParamInterface<bool> {};

TEST_P(RemapRemoveAllTest, RemoveAllEmptiesTheChipOnceResponsesAreDelivered) {
   // After a cold start, or after a warm restart, where it also stops with "Should call
   // purgeStaleEntries instead" while a stale record remains, which the purge still deletes.
   // Every index returns once the lookup lets go as well.
   const bool warm = GetParam();
   ASSERT_NO_FATAL_FAILURE(coldStart(4));
   if (warm) {
      lookup_.groupDel(groupKey(4));
      ASSERT_NO_FATAL_FAILURE(restart());
      for (std::uint32_t n = 1; n <= 3; ++n) replay(n);
      table_->doInitComplete();
   }
   ASSERT_EQ(validHwEntries(), 4u);
   EXPECT_EQ(assertionOf([this] { table_->entryRemoveAll(); }).message,
             warm ? "Should call purgeStaleEntries instead" : "");
   EXPECT_EQ(table_->syncedEntries().size(), warm ? 1u : 0u);
   table_->purgeStaleEntries();
   loop_.runUntilIdle();
   EXPECT_EQ(validHwEntries(), 0u);
   EXPECT_TRUE(table_->entryHandles().empty());
   EXPECT_TRUE(table_->resolvedEntries().empty());
   EXPECT_EQ(hw_->counters().writes, warm ? 0u : 4u);
   lookup_.releaseAll(alloc());
   EXPECT_EQ(alloc().totalUsedIndices(), 1u) << "only the reserved index 0";
}

INSTANTIATE_TEST_SUITE_P(Restart, RemapRemoveAllTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Warm" : "Cold"; });

}  // namespace
}  // namespace VelmarMcast::Testing
