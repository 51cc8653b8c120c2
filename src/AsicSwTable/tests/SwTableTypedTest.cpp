// Every table the engine drives, through the same cases on the simulated chip: commit and
// write response, re-commit, a value changed while its write is in flight, needed entries,
// write failure, the delete dance, exhaustion, restart and purge, and clean-up beside a
// table that shares the allocator. Each case ends with nothing left behind: no value, no
// entry handle, no index and no chip entry.

#include <algorithm>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Asic/Assert.h"
#include "Asic/EventLoop.h"
#include "ChipSim/Chip.h"
#include "ChipSim/plugins/SimTableRig.h"
#include "VelmarMcast/McastIpmcRemapTable.h"
#include "VelmarMcast/MmuReplHeadTable.h"
#include "VelmarMcast/MmuReplListL2SubPortTable.h"
#include "VelmarMcast/MmuReplListTable.h"
#include "VelmarMcast/MmuRqeReplPortAggMapRegister.h"
#include "VelmarMcast/VelmarMcastTestEntryHandle.h"

namespace {

using Asic::Index;
using Asic::Ptr;
using ::testing::ElementsAre;
using State = Asic::SwTableBase::EntryState;
using EntryType = Asic::SwTable::EntryHandle::EntryType;
using Status = Asic::SwTable::ReconciliationStatus;
using NeededHandle = VelmarMcast::VelmarMcastTestEntryHandle;
using Log = std::vector<State>;

// The handles of other tables that values need, kept here: one ready handle per index (the
// same one each time, so that a value made twice is the same value), and late ones, not
// programmed yet.
class NeededHandles {
 public:
   const Ptr<NeededHandle>& ready(Index index) {
      auto& eh = ready_[index];
      if (!eh) eh = VelmarMcast::testEntryHandle(index, State::success);
      return eh;
   }
   Ptr<NeededHandle> late() { return late_.emplace_back(VelmarMcast::testEntryHandle()); }

   // Handles still held or watched by something besides this pool.
   std::size_t stillUsed() const {
      std::size_t n = 0;
      for (const auto& [index, eh] : ready_) n += eh->refCount() != 1 || eh->watchers() != 0;
      for (const auto& eh : late_) n += eh->refCount() != 1 || eh->watchers() != 0;
      return n;
   }

 private:
   std::map<Index, Ptr<NeededHandle>> ready_;
   std::vector<Ptr<NeededHandle>> late_;
};

// Counts a table's entry handles alive: each one carries an observer holding a tag that
// the census sees only weakly, so the tag expires exactly when its handle is destroyed.
class HandleCensus {
 public:
   void enrol(const Asic::SwTableBase::EntryHandle& eh) {
      auto& tag = tags_[&eh];
      if (!tag.expired()) return;
      auto live = std::make_shared<char>();
      tag = live;
      const_cast<Asic::SwTableBase::EntryHandle&>(eh).observerIs([live](std::string_view) {});
   }
   std::size_t alive() const {
      std::size_t n = 0;
      for (const auto& [eh, tag] : tags_) n += !tag.expired();
      return n;
   }

 private:
   std::map<const void*, std::weak_ptr<char>> tags_;
};

template <class Table>
struct Item {
   typename Table::Key key;
   typename Table::Value value;
   // The client's callback, for a table whose values carry none: the table's own callback
   // passes the key's outcome on to it.
   Asic::WriteResponseFn respond = {};
};

// --- the tables ---------------------------------------------------------------------------
// Each adapter makes the n-th key and its value; another variant of n is a value of the same
// size that differs. `late`, where a table has needed entries, takes the place of one of them.
// kAdoptsChip: the table takes what the chip holds as its own at a restart, so that a key
// left out of the replay is kept rather than purged.

struct L2SubPortAdapter;

// Group n remapped to IPMC index 1000 + n; the variant is the strength profile.
struct RemapAdapter {
   using Table = VelmarMcast::IngIpmcRemapTable;
   using Partner = void;  // no other table draws from its allocator
   static constexpr const char* kName = "IngIpmcRemap";
   static constexpr bool kValueIsKey = false;
   static constexpr bool kAdoptsChip = false;
   static constexpr std::uint32_t kBlock = 1;  // indices a key takes

   static Item<Table> item(NeededHandles& needed, int n, int variant, Asic::WriteResponseFn fn,
                           Ptr<NeededHandle> late) {
      const auto group = static_cast<std::uint32_t>(n);
      Ptr<const Asic::SwTableBase::EntryHandle> target = late;
      if (!target) target = needed.ready(1000 + group);
      return {Table::Key{0xEF000000u + group, 0},
              Table::Entry(target, static_cast<std::uint8_t>(variant), std::move(fn))};
   }
};

// List n: next hops 10n .. 10n + 2 (5000 higher for the variant), one port each, two
// pairs per sparse entry: two indices a list.
struct ReplListAdapter {
   using Table = VelmarMcast::MmuReplListTable;
   using Partner = L2SubPortAdapter;
   static constexpr const char* kName = "MmuReplList";
   static constexpr bool kValueIsKey = true;
   static constexpr bool kAdoptsChip = false;
   static constexpr std::uint32_t kBlock = 2;

   static Item<Table> item(NeededHandles& needed, int n, int variant, Asic::WriteResponseFn fn,
                           Ptr<NeededHandle> late) {
      Table::Entry list;
      for (std::uint16_t j = 0; j < 3; ++j) {
         Ptr<const Asic::SwTableBase::EntryHandle> eh = j == 2 ? late : nullptr;
         if (!eh) eh = needed.ready(Index(10 * n + j + 5000 * variant));
         list.egressObjectHandleIs(eh, VelmarMcast::PortList{j});
      }
      list.genIdIs(static_cast<std::uint32_t>(n) + 1);
      list.sparseEntrySizeIs(2);
      Item<Table> item{list, list};
      item.value.writeResponseFn = std::move(fn);
      return item;
   }
};

// Entry n: mode n % 4, sub-port bitmap n + 1 (the variant sets sub-port 32).
struct L2SubPortAdapter {
   using Table = VelmarMcast::MmuReplListL2SubPortTable;
   using Partner = ReplListAdapter;
   static constexpr const char* kName = "MmuReplListL2SubPort";
   static constexpr bool kValueIsKey = true;
   static constexpr bool kAdoptsChip = false;
   static constexpr std::uint32_t kBlock = 1;

   static Item<Table> item(NeededHandles&, int n, int variant, Asic::WriteResponseFn fn,
                           Ptr<NeededHandle>) {
      const auto bits = static_cast<std::uint32_t>(n) + 1;
      const Ulm::PerUnitBitmap bitmap(std::vector<std::uint32_t>{bits, variant ? 1u : 0u});
      const auto mode = static_cast<std::uint32_t>(n % 4);
      return {Table::Entry(mode, bitmap), Table::Entry(mode, bitmap, std::move(fn))};
   }
};

// Block n: two heads naming lists 10n and 10n + 1, IPMC index n; the variant adds four to
// each next-hop count. The block's own allocator is shared with no other table.
struct HeadAdapter {
   using Table = VelmarMcast::MmuReplHeadTable;
   using Partner = void;
   static constexpr const char* kName = "MmuReplHead";
   static constexpr bool kValueIsKey = true;
   static constexpr bool kAdoptsChip = false;
   static constexpr std::uint32_t kBlock = 2;

   static Item<Table> item(NeededHandles& needed, int n, int variant, Asic::WriteResponseFn fn,
                           Ptr<NeededHandle> late) {
      Table::EntryBlock block;
      for (Index o = 0; o < kBlock; ++o) {
         Ptr<const Asic::SwTableBase::EntryHandle> list = o == 1 ? late : nullptr;
         if (!list) list = needed.ready(Index(10 * n) + o);
         block.entryIs(
             o, Table::Entry(list, static_cast<std::uint16_t>(o + 1 + 4 * variant),
                             Interface::EthSpeed::speed100Gbps, static_cast<std::uint32_t>(n)));
      }
      return {block, block, std::move(fn)};
   }
};

// Index n holds ports n and 100 (101 for the variant). After a restart it adopts what the
// chip holds, as the agent runs it.
struct RegisterAdapter {
   using Table = VelmarMcast::MmuRqeReplPortAggMapRegister;
   using Partner = void;
   static constexpr const char* kName = "MmuRqeReplPortAggMap";
   static constexpr bool kValueIsKey = false;
   static constexpr bool kAdoptsChip = true;
   static constexpr std::uint32_t kBlock = 1;

   static Item<Table> item(NeededHandles&, int n, int variant, Asic::WriteResponseFn fn,
                           Ptr<NeededHandle>) {
      Ulm::PerUnitBitmap members(160);
      members.bitIs(static_cast<std::size_t>(n), true);
      members.bitIs(static_cast<std::size_t>(100 + variant), true);
      return {Index(n), Table::Entry(members, std::move(fn))};
   }
};

// --- the fixture ----------------------------------------------------------------------------

template <class A>
class SwTableTypedTest : public ::testing::Test {
 protected:
   using Table = typename A::Table;
   using Key = typename Table::Key;
   using Entry = typename Table::Value;
   using HandlePtr = Ptr<const typename Table::EntryHandle>;
   static constexpr std::uint32_t kBlock = A::kBlock;
   static constexpr std::uint32_t kEntries = 1024;
   static constexpr bool kHasNeeded = Asic::Trait::hasDependentFields<Table>;
   // Whether keys draw indices from an allocator; otherwise the key is the index.
   static constexpr bool kAllocates = Asic::SwTable::Accessor<Table>::Policy::usesAllocator;
   // Whether the chip is read back as whole values, one record per key. Otherwise it is read
   // entry by entry and does not record where one key ends and the next begins.
   static constexpr bool kSyncsKeys = std::is_same_v<typename Table::SyncedEntry, Entry>;

   void SetUp() override { chipIs(kEntries); }

   void TearDown() override {
      loop_.runUntilIdle();
      Ptr<Asic::GenericIndexAllocator> alloc;
      if (table_) {
         alloc = table_->indexAllocator();
         table_->cleanup();
         table_.reset();
      }
      loop_.runUntilIdle();
      responders_.clear();
      EXPECT_EQ(census_.alive(), 0u) << "entry handles outlive their table";
      EXPECT_EQ(valueToken_.use_count(), 1) << "values outlive their table";
      EXPECT_EQ(needed_.stillUsed(), 0u) << "needed handles still held or watched";
      if constexpr (kAllocates) {
         EXPECT_EQ(
             Asic::GenericIndexAllocatorStub::sharedAllocator(Table::SharedAllocator::kTypeName),
             nullptr)
             << "the shared allocator outlives its table";
      }
      if (alloc) {
         EXPECT_EQ(alloc->totalUsedIndices(), 1u) << "only the reserved index 0";
      }
      EXPECT_EQ(hw_->memory().validEntries(), 0u);
   }

   // A new chip whose memory for the table holds `entries` entries, and a table over it.
   void chipIs(std::uint32_t entries) {
      if (table_) table_->cleanup();
      table_.reset();
      chip_.emplace(loop_, 0);
      tableIs(entries);
   }
   // A new table over the chip's memory, which keeps what it holds.
   void tableIs(std::uint32_t entries) {
      auto sim = ChipSim::simTableIs<Table>(*chip_, entries);
      table_ = std::move(sim.table);
      hw_ = std::move(sim.hw);
      if constexpr (!Asic::HasWriteResponseFn<Entry>) {
         table_->writeResponseCallbackIs(
             [this](const typename Table::EntryHandle* eh, const Key& key) {
                // The callback goes with the key's value, as a value's own would.
                if (!table_->entryHas(key)) return;
                auto it = responders_.find(key);
                if (it != responders_.end() && it->second) it->second(eh->entryState());
             });
      }
   }

   // The n-th key and its value; the value's callback records into `log`.
   Item<Table> item(int n, int variant = 0, Log* log = nullptr, Ptr<NeededHandle> late = nullptr) {
      return A::item(needed_, n, variant, callback(log), std::move(late));
   }
   // Every value holds a count of the token, so that no value can outlive the table unseen.
   Asic::WriteResponseFn callback(Log* log) {
      return [log, token = valueToken_](State state) {
         (void)token;
         if (log) log->push_back(state);
      };
   }
   Log& newLog() { return logs_.emplace_back(); }

   HandlePtr commit(const Item<Table>& item) {
      if constexpr (!Asic::HasWriteResponseFn<Entry>) {
         responders_.insert_or_assign(item.key, item.respond);
      }
      HandlePtr eh = table_->entryCommit(item.key, item.value);
      census_.enrol(*eh);
      return eh;
   }

   std::vector<Index> indices(const Key& key) const {
      if constexpr (kAllocates) {
         return table_->indexAllocator()->indicesForKey(Asic::vixType<Key>(), &key);
      } else {
         return isFree(key) ? std::vector<Index>{} : std::vector<Index>{key};
      }
   }
   // Without an allocator, an index is held while a handle or a value of its key is there.
   bool isFree(Index index) const {
      if constexpr (kAllocates) {
         return table_->indexAllocator()->isIndexFree(index);
      } else {
         return !table_->entryWeakRef(index) && !table_->entryHas(index);
      }
   }
   bool allFree(const std::vector<Index>& indices) const {
      return std::all_of(indices.begin(), indices.end(), [this](Index i) { return isFree(i); });
   }
   // Whether the chip holds `value` from `first` on, as the table writes it once resolved.
   bool chipHolds(const Entry& value, Index first) const {
      Entry resolved = value;
      if constexpr (kHasNeeded) Table::resolveDependentFields(resolved);
      if constexpr (Asic::Trait::hasResolvedEntryMetaData<Table>) {
         table_->setResolvedEntryMetaData(resolved);
      }
      auto& util = table_->util();
      if constexpr (requires { util.compareHwEntries(*table_, first, resolved); }) {
         return util.compareHwEntries(*table_, first, resolved);
      } else {
         // A block's chip hooks compare one hardware entry at a time, offset o at first + o.
         using SimUtil = typename ChipSim::SimBinding<Table>::Util;
         for (const auto& [offset, entry] : resolved.entryInternal()) {
            typename SimUtil::Words words{};
            if (!hw_->entryRead(first + offset, words)) return false;
            if (!util.compareEntries(SimUtil::decode(words), entry)) return false;
         }
         return true;
      }
   }
   std::uint32_t chipEntries() const { return hw_->memory().validEntries(); }
   std::uint64_t stat(Status s) const { return table_->reconciliationStats()[s]; }

   // Keys 1..n programmed; the indices each holds are kept in cold_.
   void coldStart(int n) {
      for (int k = 1; k <= n; ++k) commit(item(k));
      loop_.runUntilIdle();
      for (int k = 1; k <= n; ++k) {
         const auto* eh = table_->entryWeakRef(item(k).key);
         ASSERT_NE(eh, nullptr);
         ASSERT_EQ(eh->entryState(), State::success) << "key " << k;
         cold_[k] = indices(item(k).key);
      }
   }
   // The software goes as an exiting agent's does, the chip stays; the new table reads it.
   void restart() {
      loop_.runUntilIdle();
      table_->detachFromChip();
      table_->cleanup();
      table_.reset();
      if constexpr (kAllocates) {
         ASSERT_EQ(
             Asic::GenericIndexAllocatorStub::sharedAllocator(Table::SharedAllocator::kTypeName),
             nullptr);
      }
      tableIs(kEntries);
      table_->configReplayCompleteIs(false);
      table_->syncEntries();
      if constexpr (A::kAdoptsChip) table_->autoCommitSyncedEntries();
      hw_->countersReset();
   }
   // A replayed key, suggested where the chip holds key `at`'s entry (a block's base), as a
   // dependent that read its own entries back would. A key that is its index needs none.
   HandlePtr replay(const Item<Table>& item, int at) {
      HandlePtr eh = commit(item);
      if constexpr (kAllocates) {
         Asic::SwTableBase::suggestIndicesToNeededEntryHandle(eh.get(), {cold_.at(at).front()});
      }
      return eh;
   }
   void initCompleteAndPurge() {
      table_->doInitComplete();
      table_->purgeStaleEntries();
      loop_.runUntilIdle();
   }

   Asic::ScopedAssertThrow asserts_;
   Asic::EventLoop loop_;
   std::optional<ChipSim::Chip> chip_;
   Ptr<ChipSim::SimHwTable> hw_;
   Ptr<Table> table_;
   NeededHandles needed_;
   HandleCensus census_;
   std::shared_ptr<int> valueToken_ = std::make_shared<int>(0);
   std::deque<Log> logs_;
   std::map<int, std::vector<Index>> cold_;
   std::map<Key, Asic::WriteResponseFn> responders_;  // see Item::respond
};

struct AdapterNames {
   template <class A>
   static std::string GetName(int) {
      return A::kName;
   }
};
using Adapters =
    ::testing::Types<RemapAdapter, ReplListAdapter, L2SubPortAdapter, HeadAdapter, RegisterAdapter>;
TYPED_TEST_SUITE(SwTableTypedTest, Adapters, AdapterNames);

// --- commit and write responses --------------------------------------------------------------

TYPED_TEST(SwTableTypedTest, CommitIsWrittenAtOnceAndCompletesWithItsWriteResponse) {
   // One completion is held back three turns: the key is done only when it arrives.
   this->hw_->completionsHeldIs(1, 3);
   Log& log = this->newLog();
   const auto it = this->item(1, 0, &log);
   auto eh = this->commit(it);
   EXPECT_EQ(eh->entryType(), EntryType::committed);
   EXPECT_EQ(eh->entryState(), State::inProgress);
   EXPECT_EQ(this->hw_->counters().writes, this->kBlock);
   const auto held = this->indices(it.key);
   ASSERT_EQ(held.size(), this->kBlock);
   EXPECT_EQ(eh->hwIndex(), held.front());
   EXPECT_TRUE(this->chipHolds(it.value, eh->hwIndex()));
   for (int turn = 0; turn < 3; ++turn) this->loop_.runOnce();
   EXPECT_EQ(eh->entryState(), State::inProgress);

   this->loop_.runUntilIdle();
   EXPECT_EQ(eh->entryState(), State::success);
   EXPECT_EQ(eh->resolvedEntryState(), State::success);
   EXPECT_THAT(log, ElementsAre(State::inProgress, State::success));
   EXPECT_TRUE(this->table_->entryInHwTable(it.key));
}

TYPED_TEST(SwTableTypedTest, EqualRecommitWritesNothingAndRetellsTheState) {
   Log& log = this->newLog();
   auto eh = this->commit(this->item(1, 0, &log));
   this->loop_.runUntilIdle();
   const auto held = this->indices(this->item(1).key);
   const auto counted = eh->refCount();

   EXPECT_EQ(this->commit(this->item(1, 0, &log)), eh);
   this->loop_.runUntilIdle();
   EXPECT_EQ(this->hw_->counters().writes, this->kBlock);
   EXPECT_EQ(this->hw_->counters().clears, 0u);
   EXPECT_EQ(this->indices(this->item(1).key), held);
   EXPECT_EQ(eh->refCount(), counted) << "a key is committed once";
   EXPECT_THAT(log, ElementsAre(State::inProgress, State::success, State::success));
}

TYPED_TEST(SwTableTypedTest, ValueChangedWhileItsWriteIsInFlightEndsWithTheNewestOnTheChip) {
   // The first value's completion arrives last, or its write fails: either way the key ends
   // with the newer value, and only the newer value's client hears how it went.
   if constexpr (TypeParam::kValueIsKey) {
      GTEST_SKIP() << "the value is the key: a key's value cannot change";
   } else {
      for (const bool firstFails : {false, true}) {
         SCOPED_TRACE(firstFails ? "first write fails" : "first completion held back");
         const int n = firstFails ? 2 : 1;
         if (firstFails) {
            this->hw_->writesFailingIs(1);
         } else {
            this->hw_->completionsHeldIs(1, 3);
         }
         Log& older = this->newLog();
         Log& newer = this->newLog();
         auto eh = this->commit(this->item(n, 0, &older));
         const Index index = eh->hwIndex();
         EXPECT_EQ(this->commit(this->item(n, 1, &newer)), eh);
         EXPECT_EQ(eh->hwIndex(), index);
         EXPECT_EQ(eh->pendingEntries(), 1u) << "the older value waits for its response";
         EXPECT_EQ(eh->entryState(), State::inProgress);

         this->loop_.runUntilIdle();
         EXPECT_EQ(eh->pendingEntries(), 0u);
         EXPECT_EQ(eh->entryState(), State::success);
         EXPECT_EQ(eh->resolvedEntryState(), State::success);
         EXPECT_TRUE(this->chipHolds(this->item(n, 1).value, index));
         EXPECT_FALSE(this->chipHolds(this->item(n, 0).value, index));
         EXPECT_THAT(older, ElementsAre(State::inProgress));
         EXPECT_THAT(newer, ElementsAre(State::inProgress, State::success));
      }
   }
}

// --- needed entries ----------------------------------------------------------------------

TYPED_TEST(SwTableTypedTest, ValueWaitsForItsNeededEntryAndIsWrittenOnceItIsReady) {
   if constexpr (!TestFixture::kHasNeeded) {
      GTEST_SKIP() << "its values need no other entry";
   } else {
      auto late = this->needed_.late();
      Log& log = this->newLog();
      const auto it = this->item(1, 0, &log, late);
      auto eh = this->commit(it);
      EXPECT_EQ(eh->entryState(), State::unresolved);
      EXPECT_EQ(late->watchers(), 1u);
      EXPECT_TRUE(this->indices(it.key).empty()) << "no index before the value can be written";
      this->loop_.runUntilIdle();
      EXPECT_EQ(this->hw_->counters().writes, 0u);

      late->programmedIs(77);
      EXPECT_EQ(late->watchers(), 0u) << "a resolved value stops watching";
      EXPECT_EQ(this->hw_->counters().writes, this->kBlock);
      this->loop_.runUntilIdle();
      EXPECT_EQ(eh->entryState(), State::success);
      EXPECT_TRUE(this->chipHolds(it.value, eh->hwIndex()));
      EXPECT_THAT(log, ElementsAre(State::inProgress, State::success));
   }
}

TYPED_TEST(SwTableTypedTest, FailedNeededEntryIsReportedAndTheValueIsWrittenWhenItRecovers) {
   if constexpr (!TestFixture::kHasNeeded) {
      GTEST_SKIP() << "its values need no other entry";
   } else {
      auto late = this->needed_.late();
      Log& log = this->newLog();
      const auto it = this->item(1, 0, &log, late);
      auto eh = this->commit(it);
      late->entryStateIs(State::programFailed);
      EXPECT_EQ(eh->entryState(), State::failedNeededEntry);
      EXPECT_THAT(log, ElementsAre(State::failedNeededEntry));
      this->loop_.runUntilIdle();
      EXPECT_EQ(this->hw_->counters().writes, 0u);

      late->programmedIs(78);
      this->loop_.runUntilIdle();
      EXPECT_EQ(eh->entryState(), State::success);
      EXPECT_TRUE(this->chipHolds(it.value, eh->hwIndex()));
      EXPECT_THAT(log, ElementsAre(State::failedNeededEntry, State::inProgress, State::success));
   }
}

// --- failures and exhaustion ------------------------------------------------------------------

TYPED_TEST(SwTableTypedTest, FailedWriteEndsInProgramFailed) {
   // One write of the value fails (of a block, the others succeed): the key failed.
   this->hw_->writesFailingIs(1);
   Log& log = this->newLog();
   const auto it = this->item(1, 0, &log);
   auto eh = this->commit(it);
   this->loop_.runUntilIdle();
   EXPECT_EQ(this->hw_->counters().failedWrites, 1u);
   EXPECT_EQ(eh->entryState(), State::programFailed);
   EXPECT_EQ(eh->resolvedEntryState(), State::programFailed);
   EXPECT_THAT(log, ElementsAre(State::inProgress, State::programFailed));
   EXPECT_FALSE(this->table_->entryInHwTable(it.key));
}

TYPED_TEST(SwTableTypedTest, KeyPastAFullTableGetsNoIndexAndIsNeverWritten) {
   if constexpr (!TestFixture::kAllocates) {
      GTEST_SKIP() << "the key is its index: nothing is allocated, so nothing runs out";
   }
   constexpr int kFit = 3;
   this->chipIs(kFit * this->kBlock + 1);  // index 0 is reserved
   std::vector<typename TestFixture::HandlePtr> fitting;
   for (int n = 1; n <= kFit; ++n) fitting.push_back(this->commit(this->item(n)));
   this->loop_.runUntilIdle();
   for (const auto& eh : fitting) EXPECT_EQ(eh->entryState(), State::success);
   EXPECT_EQ(this->chipEntries(), kFit * this->kBlock);

   Log& log = this->newLog();
   const auto over = this->item(kFit + 1, 0, &log);
   auto eh = this->commit(over);
   this->loop_.runUntilIdle();
   EXPECT_TRUE(Asic::isExhausted(eh->hwIndex()));
   EXPECT_TRUE(this->indices(over.key).empty());
   EXPECT_EQ(this->hw_->counters().writes, kFit * this->kBlock);
   EXPECT_NE(eh->entryState(), State::success);
   EXPECT_EQ(std::count(log.begin(), log.end(), State::success), 0);
   EXPECT_FALSE(this->table_->entryInHwTable(over.key));
   for (const auto& held : fitting) EXPECT_EQ(held->entryState(), State::success);
}

// --- removal ----------------------------------------------------------------------------------

TYPED_TEST(SwTableTypedTest, DeleteDanceWaitsForTheDeleteResponseThenFreesEverything) {
   // The chip entry is cleared at once; the handle and the indices go only when the chip
   // confirms, and the client hears nothing meanwhile.
   Log& log = this->newLog();
   const auto it = this->item(1, 0, &log);
   this->commit(it);
   this->loop_.runUntilIdle();
   const auto held = this->indices(it.key);
   const auto told = log.size();
   this->hw_->countersReset();

   this->table_->entryRemove(it.key);
   const auto* eh = this->table_->entryWeakRef(it.key);
   ASSERT_NE(eh, nullptr);
   EXPECT_EQ(eh->entryType(), EntryType::inDeletion);
   EXPECT_EQ(eh->entryState(), State::inProgress);
   EXPECT_EQ(this->chipEntries(), 0u);
   EXPECT_EQ(this->hw_->counters().clears, this->kBlock);
   for (Index index : held) EXPECT_FALSE(this->isFree(index)) << "until confirmed";

   this->loop_.runUntilIdle();
   EXPECT_EQ(this->table_->entryWeakRef(it.key), nullptr);
   EXPECT_FALSE(this->table_->entryHas(it.key));
   EXPECT_TRUE(this->allFree(held));
   EXPECT_EQ(this->census_.alive(), 0u);
   EXPECT_EQ(this->hw_->counters().writes, 0u);
   EXPECT_EQ(log.size(), told);
}

TYPED_TEST(SwTableTypedTest, RemovalWhileTheWriteIsInFlightWaitsForItsOutcomeThenLeavesNothing) {
   // The client hears how the write in flight went; then the key goes, whatever the outcome.
   for (const bool fails : {false, true}) {
      SCOPED_TRACE(fails ? "the write fails" : "the write succeeds");
      const int n = fails ? 2 : 1;
      this->hw_->completionsHeldIs(1, 3);
      if (fails) this->hw_->writesFailingIs(1);
      Log& log = this->newLog();
      const auto it = this->item(n, 0, &log);
      this->commit(it);
      const auto held = this->indices(it.key);
      ASSERT_EQ(held.size(), this->kBlock);

      this->table_->entryRemove(it.key);
      EXPECT_NE(this->table_->entryWeakRef(it.key), nullptr);
      this->loop_.runUntilIdle();
      EXPECT_EQ(this->table_->entryWeakRef(it.key), nullptr);
      EXPECT_FALSE(this->table_->entryHas(it.key));
      EXPECT_TRUE(this->allFree(held));
      EXPECT_EQ(this->chipEntries(), 0u);
      EXPECT_EQ(this->census_.alive(), 0u);
      EXPECT_THAT(log,
                  ElementsAre(State::inProgress, fails ? State::programFailed : State::success));
   }
}

// --- restart and purge --------------------------------------------------------------------

// A table that adopts the chip's values cannot take an unchanged replay yet: the commit finds
// the equal adopted value, which has no entry handle, and asserts.
TYPED_TEST(SwTableTypedTest, UnchangedReplayReconcilesEveryKeyInPlaceWithoutHardwareAccess) {
   ASSERT_NO_FATAL_FAILURE(this->coldStart(3));
   ASSERT_NO_FATAL_FAILURE(this->restart());
   EXPECT_EQ(this->table_->syncedEntries().size(), 3u * (this->kSyncsKeys ? 1 : this->kBlock));
   for (int n = 1; n <= 3; ++n) {
      auto eh = this->replay(this->item(n), n);
      EXPECT_EQ(eh->entryState(), State::indexReconciled) << "key " << n;
   }
   this->initCompleteAndPurge();
   EXPECT_EQ(this->hw_->counters().writes + this->hw_->counters().clears, 0u);
   EXPECT_EQ(this->stat(Status::reconciled), 3u);
   for (int n = 1; n <= 3; ++n) {
      const auto it = this->item(n);
      EXPECT_EQ(this->indices(it.key), this->cold_[n]) << "key " << n;
      EXPECT_TRUE(this->table_->entryInHwTable(it.key)) << "key " << n;
   }
}

TYPED_TEST(SwTableTypedTest, ChangedReplayIsRewrittenInPlaceAtTheEndOfTheReplay) {
   // Key 2's replay differs from what the chip holds where it is suggested: held back while
   // the replay runs, then written over that entry. A key that is its index is reconciled at
   // commit and written over its entry at once.
   ASSERT_NO_FATAL_FAILURE(this->coldStart(3));
   ASSERT_NO_FATAL_FAILURE(this->restart());
   this->replay(this->item(1), 1);
   const auto changed = this->item(2, 1);
   auto eh = this->replay(changed, 2);
   this->replay(this->item(3), 3);
   if constexpr (TestFixture::kAllocates) {
      EXPECT_EQ(eh->entryState(), State::unresolved);
      EXPECT_EQ(this->hw_->counters().writes, 0u);
   }

   this->initCompleteAndPurge();
   EXPECT_EQ(eh->entryState(), State::success);
   EXPECT_EQ(this->indices(changed.key), this->cold_[2]);
   EXPECT_TRUE(this->chipHolds(changed.value, eh->hwIndex()));
   EXPECT_EQ(this->hw_->counters().writes, this->kBlock);
   EXPECT_EQ(this->hw_->counters().clears, 0u);
   EXPECT_EQ(this->stat(Status::reconciled), 2u);
   EXPECT_EQ(this->stat(Status::indexReconciledContentsDiffer), 1u);
   EXPECT_EQ(this->stat(Status::staleEntryDeleted), 0u);
}

// A table that adopts the chip's values keeps what nobody replays; any other purges it with
// every index it held.
TYPED_TEST(SwTableTypedTest, KeyLeftOutOfTheReplayIsPurgedUnlessAdopted) {
   constexpr bool kKept = TypeParam::kAdoptsChip;
   ASSERT_NO_FATAL_FAILURE(this->coldStart(3));
   ASSERT_NO_FATAL_FAILURE(this->restart());
   this->replay(this->item(1), 1);
   this->replay(this->item(3), 3);
   this->table_->doInitComplete();
   EXPECT_EQ(this->hw_->counters().clears, 0u) << "nothing is deleted before the purge";

   this->table_->purgeStaleEntries();
   this->loop_.runUntilIdle();
   EXPECT_EQ(this->stat(Status::staleEntryDeleted), kKept ? 0u : 1u);
   EXPECT_TRUE(this->table_->syncedEntries().empty());
   EXPECT_EQ(this->hw_->counters().clears, kKept ? 0u : this->kBlock);
   EXPECT_EQ(this->hw_->counters().writes, 0u);
   EXPECT_EQ(this->allFree(this->cold_[2]), !kKept);
   EXPECT_EQ(this->chipEntries(), (kKept ? 3 : 2) * this->kBlock);
}

TYPED_TEST(SwTableTypedTest, PurgeAfterAnEmptyReplayClearsTheChipUnlessAdopted) {
   constexpr bool kKept = TypeParam::kAdoptsChip;
   ASSERT_NO_FATAL_FAILURE(this->coldStart(3));
   ASSERT_NO_FATAL_FAILURE(this->restart());
   this->initCompleteAndPurge();
   // Blocks side by side on a chip read entry by entry are one stale run.
   EXPECT_EQ(this->stat(Status::staleEntryDeleted), kKept ? 0u : this->kSyncsKeys ? 3u : 1u);
   EXPECT_EQ(this->chipEntries(), (kKept ? 3 : 0) * this->kBlock);
   EXPECT_EQ(this->hw_->counters().writes, 0u);
   for (int n = 1; n <= 3; ++n) {
      EXPECT_EQ(this->allFree(this->cold_[n]), !kKept) << "key " << n;
   }

   auto eh = this->commit(this->item(4));
   this->loop_.runUntilIdle();
   EXPECT_EQ(eh->entryState(), State::success);
   EXPECT_EQ(this->chipEntries(), (kKept ? 4 : 1) * this->kBlock);
}

// --- clean-up ----------------------------------------------------------------------------

TYPED_TEST(SwTableTypedTest, CleanupLeavesTheIndicesOfATableSharingTheAllocator) {
   using Partner = typename TypeParam::Partner;
   if constexpr (std::is_void_v<Partner>) {
      GTEST_SKIP() << "no other table draws from its allocator";
   } else {
      using PartnerTable = typename Partner::Table;
      auto partner = ChipSim::simTableIs<PartnerTable>(*this->chip_, this->kEntries);
      ASSERT_EQ(partner.table->indexAllocator(), this->table_->indexAllocator());
      const auto theirs = Partner::item(this->needed_, 1, 0, this->callback(nullptr), nullptr);
      auto theirHandle = partner.table->entryCommit(theirs.key, theirs.value);
      this->census_.enrol(*theirHandle);
      this->commit(this->item(1));
      this->commit(this->item(2));
      this->loop_.runUntilIdle();
      ASSERT_EQ(theirHandle->entryState(), State::success);
      const Ptr<Asic::GenericIndexAllocator> shared = this->table_->indexAllocator();
      const auto theirIndices =
          shared->indicesForKey(Asic::vixType<typename PartnerTable::Key>(), &theirs.key);
      ASSERT_EQ(theirIndices.size(), Partner::kBlock);
      std::vector<Index> ours = this->indices(this->item(1).key);
      for (Index index : this->indices(this->item(2).key)) ours.push_back(index);

      this->table_->cleanup();
      this->table_.reset();
      EXPECT_EQ(this->chipEntries(), 0u);
      for (Index index : ours) EXPECT_TRUE(shared->isIndexFree(index)) << index;
      EXPECT_EQ(shared->totalUsedIndices(), 1u + Partner::kBlock);
      EXPECT_EQ(shared->indicesForKey(Asic::vixType<typename PartnerTable::Key>(), &theirs.key),
                theirIndices);
      EXPECT_EQ(theirHandle->entryState(), State::success);
      EXPECT_EQ(partner.hw->memory().validEntries(), Partner::kBlock);

      theirHandle.reset();
      partner.table->cleanup();
      partner.table.reset();
      this->loop_.runUntilIdle();
      EXPECT_EQ(partner.hw->memory().validEntries(), 0u);
      EXPECT_EQ(shared->totalUsedIndices(), 1u);
   }
}

}  // namespace
