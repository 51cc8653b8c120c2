// The remap table's warm restart against the simulated chip: every software object goes,
// the chip keeps its memory, a new table reads it back, the IPMC lookup recovers its
// indices, the clients replay, and what no replayed key claimed is purged. Covers
// reconciliation statuses, index suggestions, the end of the replay, the stale purge and
// bulk removal.

#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

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

Asic::Ptr<Asic::GenericIndexAllocator> liveSharedAllocator() {
   return Asic::GenericIndexAllocatorStub::sharedAllocator(
       VelmarL3Common::L3IpmcSharedAllocator::kTypeName);
}

// The L3 multicast lookup that owns IPMC indices, reduced to what a restart needs of it:
// it gives each group an index on a cold start, keeps that index in its own hardware
// across a restart, recovers it into the shared allocator afterwards and lets go of its
// uses at shut-down. Its address is its user identity in the allocator.
class IpmcLookupStandIn {
 public:
   Asic::Index indexIs(Asic::GenericIndexAllocator& alloc, const Key& key) {
      const Asic::Index index = alloc.newIndexForKey(keyType(), &key, this);
      indices_[key] = index;
      return index;
   }
   // Recovers one group as the lookup's own restart would, at any point of the replay.
   void recover(Asic::GenericIndexAllocator& alloc, const Key& key) {
      ASSERT_TRUE(alloc.recoverIndexForKey(indices_.at(key), keyType(), &key, this))
          << fmt::format("{} at {}", key, indices_.at(key));
   }
   void recoverAll(Asic::GenericIndexAllocator& alloc) {
      for (const auto& [key, index] : indices_) recover(alloc, key);
   }
   void releaseAll(Asic::GenericIndexAllocator& alloc) {
      for (const auto& [key, index] : indices_) alloc.releaseIndexFromTable(keyType(), &key, this);
   }
   // The group is no longer in the lookup's own configuration (or not yet recovered).
   void groupDel(const Key& key) { indices_.erase(key); }
   Asic::Index index(const Key& key) const { return indices_.at(key); }

 private:
   std::map<Key, Asic::Index> indices_;
};

class RemapRestartFixture : public RemapTableFixture {
 protected:
   // The remap target of group n, as the lookup's handle presents it to dependents.
   static Asic::Ptr<VelmarMcastTestEntryHandle> target(std::uint32_t n) {
      return testEntryHandle(kTargetBase + n, State::success);
   }

   // A cold start of groups 1..n: the lookup allocates each group's index, the remap entry
   // follows, and every write response is delivered.
   void coldStart(std::uint32_t groups, std::uint8_t profile = 1) {
      for (std::uint32_t n = 1; n <= groups; ++n) {
         lookup_.indexIs(*table_->indexAllocator(), groupKey(n));
         table_->entryCommit(groupKey(n), remapTo(target(n), profile));
      }
      loop_.runUntilIdle();
      for (std::uint32_t n = 1; n <= groups; ++n) {
         const auto* eh = table_->entryWeakRef(groupKey(n));
         ASSERT_NE(eh, nullptr);
         ASSERT_EQ(eh->entryState(), State::success) << "group " << n;
         coldIndex_[n] = eh->hwIndex();
      }
   }

   // Every software object goes, the chip stays; the new table reads the chip back and the
   // lookup recovers what it still holds. Counters start afresh.
   void restart() {
      loop_.runUntilIdle();
      lookup_.releaseAll(*table_->indexAllocator());
      table_->cleanup();
      table_.reset();
      ASSERT_EQ(liveSharedAllocator(), nullptr) << "something still holds the shared allocator";
      tableIs(kEntries);
      table_->configReplayCompleteIs(false);
      table_->syncEntries();
      lookup_.recoverAll(*table_->indexAllocator());
      hw_->countersReset();
   }

   Asic::Ptr<const IngIpmcRemapTable::EntryHandle> replay(std::uint32_t n, std::uint8_t profile = 1,
                                                          Asic::WriteResponseFn fn = {}) {
      return table_->entryCommit(groupKey(n), remapTo(target(n), profile, std::move(fn)));
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
   // Verify that every replayed key keeps the index it had before the restart, that a key
   // whose hardware contents are unchanged is reconciled (status 1) without any hardware
   // access, and that a key whose contents differ is rewritten in place (status 2, one
   // write), whichever way handles complete.
   const ReplayCase& c = GetParam();
   Asic::Detail::publishEntryHandleProgrammedStateIs(c.programmedStateSwitch);
   const bool changed = c.targetDelta != 0 || c.profile != 1;
   ASSERT_NO_FATAL_FAILURE(coldStart(4));
   ASSERT_NO_FATAL_FAILURE(restart());
   ASSERT_EQ(table_->syncedEntries().size(), 4u);

   std::map<std::uint32_t, CallbackLog> logs;
   for (std::uint32_t n = 1; n <= 4; ++n) {
      if (n == 2) {
         table_->entryCommit(
             groupKey(2), remapTo(testEntryHandle(kTargetBase + 2 + c.targetDelta, State::success),
                                  c.profile, logs[n].fn()));
      } else {
         replay(n, 1, logs[n].fn());
      }
   }
   EXPECT_EQ(stat(Status::reconciled), changed ? 3u : 4u);
   EXPECT_EQ(stat(Status::indexReconciledContentsDiffer), changed ? 1u : 0u);
   EXPECT_EQ(stat(Status::notReconciled) + stat(Status::nothingToReconcile), 0u);
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
}

INSTANTIATE_TEST_SUITE_P(
    Restart, RemapReplayTest,
    ::testing::Values(ReplayCase{"Unchanged", 0, 1, false},
                      ReplayCase{"UnchangedWithProgrammedStateSwitch", 0, 1, true},
                      ReplayCase{"OtherStrengthProfile", 0, 7, false},
                      ReplayCase{"OtherRemapTarget", 40, 1, false},
                      ReplayCase{"OtherStrengthProfileWithProgrammedStateSwitch", 0, 7, true}),
    [](const auto& info) { return info.param.name; });

TEST_F(RemapRestartFixture, ReconciledKeyStaysAUserOfItsIndex) {
   // Verify that a key reconciled after a restart uses its index in the shared allocator as
   // it did before, so that the lookup letting go of the group does not free an index the
   // remap entry still occupies in hardware.
   ASSERT_NO_FATAL_FAILURE(coldStart(2));
   ASSERT_TRUE(alloc().isIndexVerticallyShared(coldIndex_[1], keyType()));
   ASSERT_NO_FATAL_FAILURE(restart());
   replay(1);
   replay(2);
   initCompleteAndPurge();
   EXPECT_TRUE(alloc().isIndexVerticallyShared(coldIndex_[1], keyType()));

   const Key group1 = groupKey(1);
   alloc().releaseIndexFromTable(keyType(), &group1, &lookup_);
   EXPECT_FALSE(alloc().isIndexFree(coldIndex_[1]));
   EXPECT_EQ(table_->swKeyFromHwIndex(coldIndex_[1]), groupKey(1));
   auto other = table_->entryCommit(groupKey(9), remapTo(target(9), 1));
   EXPECT_NE(other->hwIndex(), coldIndex_[1]) << "a newcomer must not land on group 1's entry";
   EXPECT_EQ(hwEntry(coldIndex_[1])->remappedIpmcIndex, kTargetBase + 1);
}

TEST_F(RemapRestartFixture, ReplayTracesEachKeysStatus) {
   // Verify that each replayed key's reconciliation is traced with its status and the
   // replay flag, and the consumed record with its index.
   ASSERT_NO_FATAL_FAILURE(coldStart(1));
   ASSERT_NO_FATAL_FAILURE(restart());
   Asic::TraceCapture capture(kTraceSetting);
   replay(1);
   EXPECT_TRUE(
       capture.contains("VelmarMcast::IngIpmcRemapTable : handleEntry: reconcileStatus: 1, "
                        "configReplayComplete:false"));
   EXPECT_TRUE(capture.contains(fmt::format(
       "VelmarMcast::IngIpmcRemapTable : handleEntry: Deleting syncedEntry reconciled at index:{}",
       coldIndex_[1])));
}

TEST_F(RemapRestartFixture, SyncBeforeTheFirstCommitOnly) {
   // Verify that reading the chip back into a table that already holds values stops the
   // agent: syncing must come first.
   table_->entryCommit(groupKey(1), remapTo(target(1), 0));
   try {
      table_->syncEntries();
      FAIL() << "expected an assertion";
   } catch (const Asic::AssertionError& e) {
      EXPECT_EQ(e.info().expression, "!swTable_->resolvedEntrys()");
   }
}

// --- the stale purge ----------------------------------------------------------------------

class RemapPurgeTest : public RemapRestartFixture {};

TEST_F(RemapPurgeTest, KeysAbsentFromTheReplayAreDeletedAndTheirIndicesFreed) {
   // Verify that hardware entries of groups that left the configuration are deleted by the
   // purge, their indices return to the allocator, each counts as status 4, and the
   // statistics line goes to "SwTableStat" at level 0.
   ASSERT_NO_FATAL_FAILURE(coldStart(6));
   lookup_.groupDel(groupKey(5));
   lookup_.groupDel(groupKey(6));
   ASSERT_NO_FATAL_FAILURE(restart());
   for (std::uint32_t n = 1; n <= 4; ++n) replay(n);
   table_->doInitComplete();
   EXPECT_EQ(table_->syncedEntries().size(), 2u);
   EXPECT_EQ(hw_->counters().clears, 0u) << "nothing is deleted before the purge";

   Asic::TraceCapture capture(kTraceSetting);
   table_->purgeStaleEntries();
   loop_.runUntilIdle();
   EXPECT_EQ(hw_->counters().clears, 2u);
   EXPECT_EQ(hw_->counters().writes, 0u);
   EXPECT_EQ(stat(Status::staleEntryDeleted), 2u);
   EXPECT_TRUE(table_->syncedEntries().empty());
   for (std::uint32_t n : {5u, 6u}) {
      EXPECT_FALSE(hwEntry(coldIndex_[n])) << "group " << n;
      EXPECT_TRUE(alloc().isIndexFree(coldIndex_[n])) << "group " << n;
      EXPECT_TRUE(capture.contains(fmt::format(
          "VelmarMcast::IngIpmcRemapTable : handleStaleEntries: Deleting stale hwEntry at index:{}",
          coldIndex_[n])));
   }
   EXPECT_EQ(capture.count("VelmarMcast::IngIpmcRemapTable : handleStaleEntries: Marking index "
                           "available in allocator"),
             2u);
   EXPECT_EQ(statLine(capture),
             "VelmarMcast::IngIpmcRemapTable : purgeStaleEntries notReconciled=0 reconciled=4 "
             "indexReconciledContentsDiffer=0 nothingToReconcile=0 staleEntryDeleted=2");
   for (std::uint32_t n = 1; n <= 4; ++n) {
      EXPECT_TRUE(table_->entryInHwTable(groupKey(n))) << "group " << n;
   }
   auto newcomer = table_->entryCommit(groupKey(7), remapTo(target(7), 1));
   EXPECT_EQ(newcomer->hwIndex(), coldIndex_[5]) << "a purged index is handed out again";
}

TEST_F(RemapPurgeTest, StaleRecordAtAnIndexAReplayedKeyOwnsIsSkipped) {
   // Verify that a record at an index that a replayed, still unresolved key owns is left in
   // hardware and its index stays taken; the key overwrites it once it resolves.
   ASSERT_NO_FATAL_FAILURE(coldStart(3));
   ASSERT_NO_FATAL_FAILURE(restart());
   replay(1);
   replay(2);
   auto waiting = testEntryHandle();
   auto eh = table_->entryCommit(groupKey(3), remapTo(waiting, 4));
   table_->doInitComplete();
   EXPECT_EQ(eh->entryState(), State::unresolved);

   Asic::TraceCapture capture(kTraceSetting);
   table_->purgeStaleEntries();
   loop_.runUntilIdle();
   EXPECT_TRUE(capture.contains(fmt::format(
       "VelmarMcast::IngIpmcRemapTable : handleStaleEntries Skip index:{}", coldIndex_[3])));
   EXPECT_FALSE(capture.contains("Marking index available"));
   EXPECT_EQ(hw_->counters().clears, 0u);
   EXPECT_TRUE(hwEntry(coldIndex_[3]));
   EXPECT_FALSE(alloc().isIndexFree(coldIndex_[3]));
   EXPECT_EQ(stat(Status::staleEntryDeleted), 0u);
   EXPECT_TRUE(table_->syncedEntries().empty());

   waiting->programmedIs(555);
   loop_.runUntilIdle();
   EXPECT_EQ(eh->hwIndex(), coldIndex_[3]);
   EXPECT_EQ(eh->entryState(), State::success);
   EXPECT_EQ(hw_->counters().writes, 1u);
   EXPECT_EQ(hwEntry(coldIndex_[3])->remappedIpmcIndex, 555);
   EXPECT_EQ(hwEntry(coldIndex_[3])->strengthProfile, 4);
}

TEST_F(RemapPurgeTest, VerticallySharedStaleIndexIsDeletedButStaysAssigned) {
   // Verify that a stale record at an index another table also uses is deleted from
   // hardware, while the index stays with its key.
   ASSERT_NO_FATAL_FAILURE(coldStart(3));
   ASSERT_NO_FATAL_FAILURE(restart());
   const int otherTable = 0;  // a second table of the IPMC index space, by address
   const Key group3 = groupKey(3);
   alloc().newIndexForKey(keyType(), &group3, &otherTable);
   ASSERT_TRUE(alloc().isIndexVerticallyShared(coldIndex_[3], keyType()));
   replay(1);
   replay(2);
   table_->doInitComplete();

   Asic::TraceCapture capture(kTraceSetting);
   table_->purgeStaleEntries();
   loop_.runUntilIdle();
   EXPECT_FALSE(hwEntry(coldIndex_[3]));
   EXPECT_EQ(hw_->counters().clears, 1u);
   EXPECT_EQ(stat(Status::staleEntryDeleted), 1u);
   EXPECT_FALSE(capture.contains("Marking index available"));
   EXPECT_FALSE(alloc().isIndexFree(coldIndex_[3]));
   EXPECT_EQ(table_->swKeyFromHwIndex(coldIndex_[3]), groupKey(3));
}

TEST_F(RemapPurgeTest, StaleEntryAtTheReservedIndexIsDeletedAndStaysReserved) {
   // Verify that a hardware entry at reserved index 0 is stale like any other, and the
   // purge does not put index 0 into circulation.
   hw_->entryWrite(0, ChipSim::IngIpmcRemapTableSimUtil::encode(Entry(nullptr, 3)));
   ASSERT_NO_FATAL_FAILURE(restart());
   initCompleteAndPurge();
   EXPECT_FALSE(hwEntry(0));
   EXPECT_EQ(stat(Status::staleEntryDeleted), 1u);
   EXPECT_FALSE(alloc().isIndexFree(0));
   EXPECT_NE(table_->entryCommit(groupKey(1), remapTo(target(1), 0))->hwIndex(), 0u);
}

TEST_F(RemapPurgeTest, EmptyChipReconcilesNothingAndThePurgeOnlyTraces) {
   // Verify that with nothing in hardware every replayed key is programmed as new (status
   // 3), and the purge only traces, its statistics line included.
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
   // Verify that a table without a Util reads nothing back and deletes nothing, however
   // full the chip is.
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
   // Groups 1..3 cold; after the restart the lookup has not recovered group 2, whose remap
   // entry is replayed (with `profile`) and finds no index of its own.
   void groupTwoWithoutIndex(std::uint8_t profile = 1) {
      ASSERT_NO_FATAL_FAILURE(coldStart(3));
      lookup_.groupDel(groupKey(2));
      ASSERT_NO_FATAL_FAILURE(restart());
      replay(1);
      replay(3);
      capture_.emplace(kTraceSetting);
      eh2_ = replay(2, profile);
   }
   void suggest(Asic::IndexSet indices) {
      Asic::SwTableBase::suggestIndicesToNeededEntryHandle(eh2_.get(), std::move(indices));
   }

   std::optional<Asic::TraceCapture> capture_;
   Asic::Ptr<const IngIpmcRemapTable::EntryHandle> eh2_;
};

TEST_F(RemapSuggestionTest, KeyWithoutAnIndexWaitsThenReconcilesThroughASuggestion) {
   // Verify that a replayed key the allocator knows nothing of is held back (status 0, no
   // statistic, no write), and that a suggestion of the index holding its contents
   // reconciles it there without a write.
   ASSERT_NO_FATAL_FAILURE(groupTwoWithoutIndex());
   EXPECT_TRUE(capture_->contains(
       "VelmarMcast::IngIpmcRemapTable : reconcileUsingIndexHelperIndex suggestions unavailable"));
   EXPECT_TRUE(capture_->contains("handleEntry: reconcileStatus: 0"));
   EXPECT_EQ(eh2_->entryState(), State::unresolved);
   EXPECT_EQ(stat(Status::reconciled), 2u);
   EXPECT_EQ(stat(Status::notReconciled), 0u) << "status 0 is not counted";
   EXPECT_EQ(hw_->counters().writes, 0u);

   suggest({coldIndex_[2]});
   EXPECT_EQ(eh2_->entryState(), State::indexReconciled);
   EXPECT_EQ(eh2_->resolvedEntryState(), State::indexReconciled);
   EXPECT_EQ(eh2_->hwIndex(), coldIndex_[2]);
   EXPECT_EQ(table_->swKeyFromHwIndex(coldIndex_[2]), groupKey(2));
   EXPECT_EQ(stat(Status::reconciled), 3u);
   EXPECT_EQ(table_->syncedEntry(coldIndex_[2]), nullptr);
   EXPECT_TRUE(capture_->contains(fmt::format(
       "processIndexSuggestion: Deleting syncedEntry reconciled at index:{}", coldIndex_[2])));

   initCompleteAndPurge();
   EXPECT_EQ(hw_->counters().writes + hw_->counters().clears, 0u);
   EXPECT_TRUE(table_->entryInHwTable(groupKey(2)));
}

TEST_F(RemapSuggestionTest, IndexOwnedByAnotherKeyIsRefusedAndARepeatIsIgnored) {
   // Verify that a suggested index another key already recovered is refused (" not free"),
   // that suggesting it again is not even tried, and that a later good index still works.
   ASSERT_NO_FATAL_FAILURE(groupTwoWithoutIndex());
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
   EXPECT_EQ(eh2_->hwIndex(), coldIndex_[2]);
}

TEST_F(RemapSuggestionTest, SuggestionWithOtherContentsIsTakenOnlyAtInitComplete) {
   // Verify that a suggested index whose hardware holds other contents is refused during
   // the replay, and taken at the end of the replay without comparison: rewritten in place
   // (status 2, one write) and consumed, so the purge leaves it alone.
   ASSERT_NO_FATAL_FAILURE(groupTwoWithoutIndex(9));
   suggest({coldIndex_[2]});
   EXPECT_EQ(eh2_->entryState(), State::unresolved);
   EXPECT_TRUE(alloc().isIndexFree(coldIndex_[2]));

   table_->doInitComplete();
   EXPECT_EQ(eh2_->hwIndex(), coldIndex_[2]);
   EXPECT_EQ(stat(Status::indexReconciledContentsDiffer), 1u);
   EXPECT_EQ(hw_->counters().writes, 1u);
   EXPECT_EQ(table_->syncedEntry(coldIndex_[2]), nullptr);
   table_->purgeStaleEntries();
   loop_.runUntilIdle();
   EXPECT_EQ(eh2_->entryState(), State::success);
   EXPECT_EQ(hw_->counters().clears, 0u);
   EXPECT_EQ(hwEntry(coldIndex_[2])->strengthProfile, 9);
}

TEST_F(RemapSuggestionTest, HeldBackKeyWithoutSuggestionsIsProgrammedAsNew) {
   // Verify that a held-back key nobody suggested anything for gets the lowest free index
   // at the end of the replay (status 3), which here is a stale group's old place: the
   // purge skips it as the key's own, and deletes the key's former place.
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

TEST_F(RemapSuggestionTest, KeyRecoveredLateIsRewrittenAtInitCompleteAndSurvivesThePurge) {
   // Verify that a held-back key whose index the lookup recovers only after the key's
   // replay is rewritten at that index when the replay ends, and that the purge does not
   // then delete what was just written.
   ASSERT_NO_FATAL_FAILURE(groupTwoWithoutIndex());
   suggest({coldIndex_[3]});  // refused: group 3 owns it; leaves a helper behind
   ASSERT_EQ(eh2_->entryState(), State::unresolved);
   lookup_.indexIs(alloc(), groupKey(2));  // the lookup's first free index is group 2's old one
   const Key group2 = groupKey(2);
   ASSERT_EQ(alloc().indexForKey(keyType(), &group2), coldIndex_[2]);

   initCompleteAndPurge();
   EXPECT_EQ(eh2_->hwIndex(), coldIndex_[2]);
   EXPECT_EQ(stat(Status::indexReconciledContentsDiffer), 1u);
   EXPECT_EQ(hw_->counters().writes, 1u);
   EXPECT_EQ(hw_->counters().clears, 0u);
   ASSERT_TRUE(hwEntry(coldIndex_[2]));
   EXPECT_EQ(hwEntry(coldIndex_[2])->remappedIpmcIndex, kTargetBase + 2);
   EXPECT_TRUE(table_->entryInHwTable(groupKey(2)));
}

TEST_F(RemapSuggestionTest, SuggestionForAWaitingKeyIsPassedDownAndUsedWhenItResolves) {
   // Verify that a suggestion for a key still waiting for its needed entry is handed on to
   // that entry with the index the hardware names, is not handed on twice, and reconciles
   // the key once it resolves.
   ASSERT_NO_FATAL_FAILURE(coldStart(2));
   lookup_.groupDel(groupKey(2));
   ASSERT_NO_FATAL_FAILURE(restart());
   replay(1);
   auto waiting = testEntryHandle();
   eh2_ = table_->entryCommit(groupKey(2), remapTo(waiting, 1));
   suggest({coldIndex_[2]});
   suggest({coldIndex_[2]});
   EXPECT_THAT(waiting->suggestions(), ElementsAre(Asic::IndexSet{kTargetBase + 2}));
   EXPECT_EQ(eh2_->entryState(), State::unresolved);

   waiting->programmedIs(kTargetBase + 2);
   EXPECT_EQ(eh2_->entryState(), State::indexReconciled);
   EXPECT_EQ(eh2_->hwIndex(), coldIndex_[2]);
   EXPECT_EQ(stat(Status::reconciled), 2u);
   initCompleteAndPurge();
   EXPECT_EQ(hw_->counters().writes + hw_->counters().clears, 0u);
}

TEST_F(RemapSuggestionTest, SuggestionsOutsideTheReplayOrForAResolvedHandleAreRefused) {
   // Verify that suggestions are a programming error once the replay is over, and for a
   // handle that is no longer unresolved.
   ASSERT_NO_FATAL_FAILURE(coldStart(1));
   ASSERT_NO_FATAL_FAILURE(restart());
   eh2_ = replay(1);
   ASSERT_EQ(eh2_->entryState(), State::indexReconciled);
   auto expressionOf = [this](Asic::IndexSet indices) -> std::string {
      try {
         suggest(std::move(indices));
      } catch (const Asic::AssertionError& e) {
         return e.info().expression;
      }
      return "no assertion";
   };
   EXPECT_EQ(expressionOf({5}), "eh->entryState() == unresolved()");

   auto waiting = table_->entryCommit(groupKey(2), remapTo(testEntryHandle(), 1));
   table_->doInitComplete();
   eh2_ = waiting;
   EXPECT_EQ(expressionOf({5}), "swTable_->configReplayInProgress()");
}

// --- bulk removal -----------------------------------------------------------------------

TEST_F(RemapRestartFixture, RemoveAllBeforeThePurgeIsRefusedAndThePurgeStillWorks) {
   // Verify that removing every entry while stale hardware entries remain stops with
   // "Should call purgeStaleEntries instead", and that the stale entry is still purged.
   ASSERT_NO_FATAL_FAILURE(coldStart(3));
   lookup_.groupDel(groupKey(3));
   ASSERT_NO_FATAL_FAILURE(restart());
   replay(1);
   replay(2);
   table_->doInitComplete();
   try {
      table_->entryRemoveAll();
      FAIL() << "expected an assertion";
   } catch (const Asic::AssertionError& e) {
      EXPECT_EQ(e.info().message, "Should call purgeStaleEntries instead");
   }
   EXPECT_EQ(table_->syncedEntries().size(), 1u);
   table_->purgeStaleEntries();
   loop_.runUntilIdle();
   EXPECT_FALSE(hwEntry(coldIndex_[3]));
   EXPECT_TRUE(alloc().isIndexFree(coldIndex_[3]));
}

class RemapRemoveAllTest : public RemapRestartFixture,
                           public ::testing::WithParamInterface<bool> {};

TEST_P(RemapRemoveAllTest, RemoveAllEmptiesTheChipOnceResponsesAreDelivered) {
   // Verify that removing every entry, after a cold start or after a warm restart and its
   // purge, clears every hardware entry, drops every handle and, once the lookup lets go
   // as well, returns every index.
   const bool warm = GetParam();
   ASSERT_NO_FATAL_FAILURE(coldStart(4));
   if (warm) {
      ASSERT_NO_FATAL_FAILURE(restart());
      for (std::uint32_t n = 1; n <= 4; ++n) replay(n);
      initCompleteAndPurge();
   }
   ASSERT_EQ(validHwEntries(), 4u);
   table_->entryRemoveAll();
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
