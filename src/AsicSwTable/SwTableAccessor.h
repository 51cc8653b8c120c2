#pragma once
// The generic engine: one instantiation per table drives the life of every entry, from
// commit through resolution of the entries it needs, index allocation, the hardware write
// and its response, to removal (the delete dance); plus set-up, restart reconciliation,
// the stale purge and iteration. A table supplies only what differs (its key, entry,
// dependent fields, Util and traits: see SwTableTraits.h) and derives from
// SwTable::TableImpl, which holds the collections and forwards every operation here.
//
// Ownership: the table's entryHandle collection holds one count of each handle; clients
// and dependent unresolved entries hold the others; a commit holds one more on the
// handle itself, given up by entryRemove. When only the table's count is left,
// lastUserGone() starts cleanup().

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <deque>
#include <iterator>
#include <memory>
#include <optional>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include <absl/container/btree_map.h>
#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>
#include <fmt/format.h>

#include "Asic/Assert.h"
#include "Asic/Errors.h"
#include "Asic/Hash.h"
#include "Asic/IndexAllocator.h"
#include "Asic/Kestrel.h"
#include "Asic/Trace.h"
#include "Asic/TypeRegistry.h"
#include "AsicSwTable/SwTable.h"
#include "AsicSwTable/SwTableIndexPolicy.h"
#include "AsicSwTable/SwTableLibrary.h"
#include "AsicSwTable/SwTableTraits.h"

// Engine trace: "<table type> : <operation><text>".
#define SWT_TRACE(level, op, text, ...) \
   ASIC_TRACE(trace(), level, "{} : {}" text, T::kTypeName, op __VA_OPT__(, ) __VA_ARGS__)

namespace Asic {

// A detached handle's commit no longer holds it: the table that counted it is going.
inline void dropCommitCount(SwTable::EntryHandle* eh) {
   if (eh->entryType() != SwTable::EntryHandle::EntryType::committed) return;
   eh->entryTypeIs(SwTable::EntryHandle::EntryType::referenceOnly);
   RefCounted::releaseQuietly(eh);
}

// ---------------------------------------------------------------------------------------
// Per-table entry handle: key, back-pointer to the table, pending-entry queue; forwards
// its notifications to the table's engine.
template <typename Table, typename Key, typename Entry>
class SwTableEntryHandleT : public SwTable::EntryHandle {
   using PolicyState = typename Table::Traits::IndexPolicy::HandleState;
   static constexpr bool kRecordsBlockSize = requires(PolicyState s) { s.blockSize; };

 public:
   SwTableEntryHandleT(const Key& key, Table* table) : key_(key) {
      if constexpr (kRecordsBlockSize) state_.blockSize = key.getBlockSize();
      swTableIs(table);
   }

   // Hardware entries the key's block occupies (block tables that keep it on the handle).
   std::uint32_t blockSize() const noexcept requires kRecordsBlockSize { return state_.blockSize; }
   void blockSizeIs(std::uint32_t blockSize) requires kRecordsBlockSize {
      if (state_.blockSize == blockSize) return;
      state_.blockSize = blockSize;
      publish("blockSize");
   }

   const Key& key() const noexcept { return key_; }
   Table* swTable() const noexcept { return swTable_; }  // not owned; null when detached
   void swTableIs(Table* table) {
      if (swTable_ == table) return;
      swTable_ = table;
      publish("swTable");
   }

   // Superseded values whose programming is still open, oldest first.
   void pendingEntryEnq(const Entry& entry) {
      if (!pending_) pending_ = std::make_unique<PendingQueue>();
      pending_->values.push_back(entry);
      publish("pendingEntry");
   }
   void pendingEntryDeq() {
      if (!pending_ || pending_->values.empty()) return;
      pending_->values.erase(pending_->values.begin());  // the queue is one or two values deep
      ++pending_->firstSeq;
      publish("pendingEntry");
   }
   // Empties the queue; its sequence numbers go on from where they were.
   void pendingEntryDelAll() {
      while (pendingEntries() != 0) pendingEntryDeq();
      if (pending_) std::vector<Entry>().swap(pending_->values);
   }
   std::size_t pendingEntries() const noexcept { return pending_ ? pending_->values.size() : 0; }
   Entry pendingEntryFront() const { return pendingAt(0); }
   Entry pendingEntryBack() const { return pendingAt(pendingEntries() - 1); }
   // Positional access by sequence number: the n-th value ever queued on this handle.
   bool pendingEntryHas(std::uint32_t seq) const noexcept {
      std::uint32_t first = pending_ ? pending_->firstSeq : 0;
      return seq >= first && seq - first < pendingEntries();
   }
   Entry pendingEntry(std::uint32_t seq) const {
      if (!pendingEntryHas(seq)) {
         throw std::out_of_range(
             fmt::format("pendingEntry: no element with sequence number {}", seq));
      }
      return pending_->values[seq - pending_->firstSeq];
   }

   // The key's resolved value while the handle is in its table, kept with the handle so that
   // every step of an operation on the key finds both with one look-up: null when the key has
   // none, else a value or a withdrawal (nullopt). The table moves it out when it lets go of
   // the handle. Engine state: clients read the table's resolvedEntry().
   const std::optional<Entry>* resolvedValue() const noexcept {
      return resolvedHeld() ? &resolved_ : nullptr;
   }
   std::optional<Entry>* resolvedValue() noexcept { return resolvedHeld() ? &resolved_ : nullptr; }
   void resolvedValueIs(std::optional<Entry> value) {
      resolved_ = std::move(value);
      engineFlags_ |= kResolvedHeld;
   }
   void resolvedValueDel() noexcept {
      resolved_.reset();
      engineFlags_ &= ~kResolvedHeld;
   }

   Index hwIndexForDependentField() const override;
   void handleEntryState() override;
   void handleResolvedEntryState() override;
   void handleIndexSuggestions(IndexSet indices) override;
   void cleanup() override;

 protected:
   void lastUserGone() override;

 private:
   Entry pendingAt(std::size_t i) const {
      if (i >= pendingEntries()) throw std::out_of_range("pendingEntry: queue is empty");
      return pending_->values[i];
   }

   struct PendingQueue {
      std::vector<Entry> values;
      std::uint32_t firstSeq = 0;  // sequence number of values.front()
   };

   // The engine's flag, in the bits the base leaves it: resolved_ is the key's resolved value.
   static constexpr std::uint8_t kResolvedHeld = 1;
   bool resolvedHeld() const noexcept { return (engineFlags_ & kResolvedHeld) != 0; }

   // Small members first: they fill the base's tail padding.
   Key key_;
   [[no_unique_address]] PolicyState state_;
   Table* swTable_ = nullptr;
   std::unique_ptr<PendingQueue> pending_;  // made on first use: usually never
   std::optional<Entry> resolved_;          // meaningful while resolvedHeld()
};

// Per-table unresolved entry: the committed value and the handles it waits for.
template <typename Table, typename Key, typename Entry>
class SwTableUnresolvedEntryT : public SwTable::UnresolvedEntry {
 public:
   SwTableUnresolvedEntryT(const Key& key, Table* table) : key_(key), swTable_(table) {}
   const Key& key() const noexcept { return key_; }
   const Entry& entry() const noexcept { return entry_; }
   void entryIs(const Entry& entry) { entry_ = entry; }

 protected:
   void doResolve() override;
   void doFailedNeededEntry() override;

 private:
   Key key_;
   Table* swTable_;  // not owned: the table owns this entry
   Entry entry_;
};

// The hardware hooks of one table, implemented by the plug-in that knows the chip, in the
// shape its index policy gives them.
template <typename T>
class SwTableUtilT : public T::Traits::IndexPolicy::template UtilBase<T> {
   using Base = typename T::Traits::IndexPolicy::template UtilBase<T>;

 public:
   using Base::Base;

   // Refuses, before anything changes, a value this chip cannot hold (throws
   // std::invalid_argument naming what does not fit).
   virtual void entryValidate(const typename T::Value&) const {}

   // Value of a dependent field as a hardware index of the needed table.
   virtual Index dependentFieldValueToHwIndex(Index value) const { return value; }
   // Index a dependent table writes for one of this table's handles.
   virtual Index hwIndexForDependentField(const SwTableBase::EntryHandle* eh) const {
      return SwTableBase::getHwEntryIndex(eh);
   }
   // The handle's hardware index (its first one, for a block).
   Index getHwIndex(const SwTableBase::EntryHandle* eh) const {
      return SwTableBase::getHwEntryIndex(eh);
   }
};

// ---------------------------------------------------------------------------------------
template <typename T>
class SwTable::Accessor {
 public:
   using Key = typename T::Key;
   using Entry = typename T::Value;
   using EntryHandle = typename T::EntryHandle;
   using UnresolvedEntry = typename T::UnresolvedEntry;
   using Util = typename T::Util;
   using EntryType = SwTable::EntryHandle::EntryType;
   using State = SwTableBase::EntryState;
   using Status = SwTable::ReconciliationStatus;
   using Table = T;
   using Policy = typename T::Traits::IndexPolicy;
   using Indices = typename Policy::Indices;
   friend Policy;
   friend IndexPolicy::PerEntrySync;
   friend IndexPolicy::SingleIndex;
   // The table contract (SwTableTraits.h), part by part.
   static_assert(Policy::template fits<T>,
                 "the table's IndexPolicy does not fit its traits: entries that state a block "
                 "size (getBlockSizeDefinedByUser) take a block policy, others OneIndex");
   static_assert(
       Trait::hasDependentFields<T> == Contract::declaresDependentFields<T>,
       "Traits::hasDependentFields goes with the static hooks forEachNeededEntryHandle, "
       "resolveDependentFields and forEachDependentField: one is there without the other");
   static_assert(Trait::hasEntryValidate<T> == Contract::declaresEntryValidate<T>,
                 "Traits::hasEntryValidate goes with a static entryValidate(const Entry&): one is "
                 "there without the other");
   static_assert(Trait::hasResolvedEntryMetaData<T> == Contract::declaresResolvedEntryMetaData<T>,
                 "Traits::hasResolvedEntryMetaData goes with setResolvedEntryMetaData(const "
                 "Entry&) const: one is there without the other");
   static_assert(Trait::isKnownIndexTable<T> == !Policy::usesAllocator &&
                     !(Trait::isKnownIndexTable<T> && Trait::isUnknownIndexTable<T>),
                 "a known-index table (isKnownIndexTable: the key is its index) takes the "
                 "KeyIsIndex policy, and every other table an allocating one");
   static_assert(!Trait::hasRemoteAllocator<T>,
                 "tables whose indices another agent allocates (hasRemoteAllocator) are not "
                 "implemented by this engine");
   static_assert(Trait::tableNeedsDeleteDance<T>,
                 "this engine always runs the delete dance: tableNeedsDeleteDance = false is not "
                 "implemented");
   static_assert(SwTableContract<T>,
                 "the table does not meet the engine's contract: see SwTableTraits.h for what a "
                 "table provides (Key, Entry, kTypeName, Util, SharedAllocator, Traits)");

   explicit Accessor(T* swTable) noexcept : swTable_(swTable) {}

   static const TraceHandle& trace() {
      static const TraceHandle& handle = traceHandle(T::kTypeName);
      return handle;
   }
   static const TypeDescriptor& keyType() { return vixType<Key>(); }

   // --- commit, reference and resolution -----------------------------------------------
   Ptr<EntryHandle> entryCommit(const Key& key, const Entry& entry) {
      return commit(key, entry, false, "entryCommit");
   }
   Ptr<EntryHandle> entryRef(const Key& key, const Entry& entry) {
      return commit(key, entry, true, "entryRef");
   }

   // Stores a value as resolved without the commit path (no needed entries to wait for):
   // the key is committed and programmed at once.
   Ptr<EntryHandle> entryResolvedIs(const Key& key, const Entry& entry) {
      entryValidate(entry);
      Ptr<EntryHandle> eh = swTable_->entryHandleIs(key, swTable_);
      typeCommitted(eh.get());
      setResolvedEntry(key, entry);
      return eh;
   }

   // Places the key at an index the caller chooses: the allocator binds it first, then the
   // value is committed (or, needing no other entry, stored as resolved at once) and is
   // programmed there. An index the allocator refuses is a std::invalid_argument naming the
   // table, the index and why, with nothing bound or written, unless the table's rule is
   // that the commit follows anyway (writeAtRefusedIndexCommits).
   Ptr<EntryHandle> entryWriteAtIndex(Index index, const Key& key,
                                      const Entry& entry) requires Policy::usesAllocator {
      using Request = GenericIndexAllocator::RequestStatus;
      GenericIndexAllocator* alloc = swTable_->indexAllocator();
      if (!alloc) {
         throw std::logic_error(
             fmt::format("{}: entryWriteAtIndex({}) before the table's allocator is created",
                         T::kTypeName, index));
      }
      entryValidate(entry);  // before the index changes hands
      const Request status = Policy::bind(*this, index, key);
      if (status != Request::assigned && status != Request::alreadyOwned) {
         if constexpr (!Trait::writeAtRefusedIndexCommits<T>) {
            throw std::invalid_argument(
                fmt::format("{}: entryWriteAtIndex: index {} for key {}: {}", T::kTypeName, index,
                            key, GenericIndexAllocator::toString(status)));
         }
         SWT_TRACE(5, "entryWriteAtIndex", ": index {} refused ({}), key {} takes the allocator's",
                   index, GenericIndexAllocator::toString(status), key);
      }
      SWT_TRACE(5, "entryWriteAtIndex", ": Writing entry :{}", entry);
      try {
         if constexpr (Trait::hasDependentFields<T>) {
            return entryCommit(key, entry);
         } else {
            return entryResolvedIs(key, entry);
         }
      } catch (...) {
         // Nothing of a refused value stays behind, the index it was given included.
         if (status == Request::assigned && !swTable_->entryHandleHas(key)) {
            alloc->releaseIndexFromTable(keyType(), &key, allocatorUser());
         }
         throw;
      }
   }

   Ptr<EntryHandle> entryWontProgram(const Key& key) {
      Ptr<EntryHandle> eh = swTable_->entryHandleIs(key, swTable_);
      typeCommitted(eh.get());
      eh->entryStateIs(State::wontProgram);
      return eh;
   }

   // The key's value: the resolved one if present, else the one waiting for resolution.
   std::optional<Entry> entryIfExists(const Key& key) const {
      if (const Entry* value = entryIfPresent(key)) return *value;
      return std::nullopt;
   }
   // The same without a copy; valid until the table changes.
   const Entry* entryIfPresent(const Key& key) const {
      if (const auto* resolved = swTable_->resolvedEntry(key); resolved && resolved->has_value()) {
         return &**resolved;
      }
      if (const auto* ue = swTable_->unresolvedEntry(key)) return &ue->entry();
      return nullptr;
   }
   Entry entry(const Key& key) const {
      auto value = entryIfExists(key);
      if (!value) {
         throw std::out_of_range(fmt::format("{}: no entry for key {}", T::kTypeName, key));
      }
      return *value;
   }
   bool entryHas(const Key& key) const { return entryIfPresent(key) != nullptr; }
   const EntryHandle* entryWeakRef(const Key& key) const { return swTable_->entryHandle(key); }
   bool entryInHwTable(const Key& key) const {
      const auto* resolved = swTable_->resolvedEntry(key);
      const EntryHandle* eh = swTable_->entryHandle(key);
      if (!resolved || !resolved->has_value() || !eh || isExhausted(eh->hwIndex())) return false;
      State s = eh->resolvedEntryState();
      return s == State::success || s == State::indexReconciled;
   }

   void initUnresolvedEntry(UnresolvedEntry* ue, const Entry& entry) {
      ue->entryIs(entry);
      SWT_TRACE(6, "initUnresolvedEntry", ": key:{}", ue->key());
      initUnresolvedEntry(ue);
   }

   void initUnresolvedEntry(UnresolvedEntry* ue) {
      if constexpr (Trait::hasDependentFields<T>) {
         T::forEachNeededEntryHandle(ue->entry(), [ue](const SwTableBase::EntryHandle* needed) {
            ue->neededEntryHandleSmIs(Ptr<const SwTableBase::EntryHandle>(needed));
         });
      }
      forgetSuggestions(ue->key());
      // A needed entry that has failed already will not tell again: report it now. The value
      // still resolves if that entry is programmed later.
      if (ue->neededEntryHandleFailed()) {
         ue->markFailedNeededEntry();
         return;
      }
      if (ue->neededEntryHandleSms() == 0) doResolve(ue);
   }

   void doResolve(UnresolvedEntry* ue) {
      ASIC_ASSERT_TEXT(ue->neededEntryHandleSms() == 0, "ue->neededEntryHandleSms() == 0",
                       "function should not have been called");
      RefCounted::Pin pin(ue);
      const Key& key = ue->key();  // the pin keeps it alive
      resolve(key, ue->entry());
   }

   // Every entry the value needs is usable already: the value resolves at once, and the
   // unresolved record it would have had for no time at all is never made.
   bool neededEntriesReady(const Entry& entry) const {
      bool ready = true;
      if constexpr (Trait::hasDependentFields<T>) {
         T::forEachNeededEntryHandle(entry, [&ready](const SwTableBase::EntryHandle* needed) {
            ready = ready && (!needed || SwTableBase::EntryHandle::isReady(needed->entryState()));
         });
      }
      return ready;
   }
   void resolveAtOnce(const Key& key, const Entry& entry) {
      SWT_TRACE(6, "initUnresolvedEntry", ": key:{}", key);
      forgetSuggestions(key);
      resolve(key, entry);
   }

   // A new value makes earlier suggestions for the key meaningless.
   void forgetSuggestions(const Key& key) {
      if (const EntryHandle* eh = swTable_->entryHandle(key)) {
         if (auto* helper = swTable_->indexHelper(eh)) helper->indexDelAll();
      }
   }

   // The value's needed entries are all usable: its dependent fields are filled in and it
   // becomes the key's resolved value (programmed if it changed).
   void resolve(const Key& key, const Entry& entry) {
      EntryHandle* eh = swTable_->entryHandle(key);
      // Every needed entry is usable now: a failure reported earlier is over.
      if (eh && eh->entryState() == State::failedNeededEntry) eh->entryStateIs(State::unresolved);
      if (const auto* resolved = swTable_->resolvedEntry(key); resolved && resolved->has_value()) {
         if (eh) eh->pendingEntryEnq(**resolved);
      }
      Entry value = entry;
      if constexpr (Trait::hasDependentFields<T>) T::resolveDependentFields(value);
      if constexpr (Trait::hasResolvedEntryMetaData<T>) swTable_->setResolvedEntryMetaData(value);
      SWT_TRACE(6, "doResolve", ": key:{}", key);
      bool changed = setResolvedEntry(key, std::move(value));
      swTable_->unresolvedEntryDel(key);
      // An equal value programs nothing; tell the client where its key already stands
      // rather than leaving it at the `unresolved` of its commit.
      eh = swTable_->entryHandle(key);
      if (!changed && eh && eh->entryState() == State::unresolved) {
         State rs = eh->resolvedEntryState();
         if (rs == State::success || rs == State::indexReconciled) eh->entryStateIs(rs);
      }
   }

   // Returns whether the value changed (and so reached handleEntry).
   bool setResolvedEntry(const Key& key, std::optional<Entry> value) {
      return swTable_->resolvedEntryIs(key, std::move(value));
   }

   // --- programming and write responses ------------------------------------------------
   void handleEntry(const Key& key) requires(!Trait::hasRemoteAllocator<T>) {
      SWT_TRACE(6, "handleEntry", " key: {}, configReplayComplete: {}", key,
                swTable_->configReplayComplete());
      Util* util = swTable_->utilIfExists();
      const auto* resolved = swTable_->resolvedEntry(key);
      if (resolved) {
         if (swTable_->configReplayComplete() || !resolved->has_value()) {
            programHwEntry(key, State::inProgress);
            return;
         }
         handleReconciliation(key);
         return;
      }
      hwTableEntryDel(util, key, doRetrieveHwIndices(key));
   }

   void programHwEntry(const Key& key, State entryState) {
      SWT_TRACE(8, "programHwEntry", " key: {}, entryState:{}", key, entryState);
      EntryHandle* eh = swTable_->entryHandle(key);
      std::optional<RefCounted::Pin> pin;
      if (eh) {
         pin.emplace(eh);
         eh->entryStateIs(entryState);
         eh->resolvedEntryStateIs(entryState);
      }
      const auto* resolved = swTable_->resolvedEntry(key);
      const bool hasValue = resolved && resolved->has_value();
      // Withdrawing a value never needs new indices.
      const Indices hwIndices =
          hasValue ? Policy::acquire(*this, key, **resolved) : Policy::retrieve(*this, key);
      const Index hwIndex = Policy::first(hwIndices);
      traceHwIndex(hwIndices);
      if (Util* util = swTable_->utilIfExists()) {
         if (isExhausted(hwIndex)) {
            ASIC_ASSERT_TEXT(entryState != State::indexReconciled,
                             "entryState != indexReconciled()", "");
            // No write and so no response will come: without write responses that is the end.
            if (eh && hasValue && !swTable_->hwResponseNeeded() &&
                !Detail::publishEntryHandleProgrammedState()) {
               eh->resolvedEntryStateIs(State::programFailed);
            }
         } else {
            swTable_->reconciledIndexIs(entryState == State::indexReconciled);
            SWT_TRACE(8, "hwTableEntryIs", " : key: {}", key);
            hwTableEntryIs(util, key, hwIndices);
         }
      }
      if ((eh = swTable_->entryHandle(key))) eh->hwIndexIs(hwIndex);
      doCompleteEntryHandleForTesting(key);
   }

   void traceHwIndex(const Indices& hwIndices) { Policy::traceAcquired(*this, hwIndices); }

   // Writes the key's value (or clears it, when it has none) at its indices.
   void hwTableEntryIs(Util* util, const Key& key, const Indices& hwIndices) {
      const Index hwIndex = Policy::first(hwIndices);
      if (!util || isExhausted(hwIndex)) return;
      const auto* resolved = swTable_->resolvedEntry(key);
      const bool hasValue = resolved && resolved->has_value();
      const bool alreadyInHw = swTable_->reconciledIndex() && swTable_->syncedEntry(hwIndex);
      if (!swTable_->skippedStaleEntries().empty()) {
         swTable_->skippedStaleEntryDel(hwIndex);  // written over now
         deleteSkippedStaleEntries(key);           // the key lands elsewhere
      }
      if (!alreadyInHw) {
         const std::uint8_t mode = swTable_->indexUserMode();
         std::optional<IndexUserTracker::Op> op;
         if (hasValue) {
            if (mode == 0) op = IndexUserTracker::taken;
            if (mode == 1) op = IndexUserTracker::takenAgain;
         } else {
            // A withdrawn value of a key that holds an index: its use ends, also when its last
            // write failed (mode 0). Only a key that never took an index gets no report, and
            // it never reaches here.
            op = IndexUserTracker::releasedByDelete;
         }
         if (op) {
            Policy::forEach(hwIndices, [&](Index index) {
               util->updateHwIndexRefCountTracker(swTable_->hwTable(), index, *op);
            });
         }
      }
      EntryHandle* eh = swTable_->entryHandle(key);
      // The test switch stands in for the write response: none is awaited then.
      const bool awaitResponse =
          swTable_->hwResponseNeeded() && !Detail::publishEntryHandleProgrammedState();
      bool refused = false;
      {
         WriteResponseSm* sm = awaitResponse ? swTable_->writeResponseSm() : nullptr;
         WriteResponseSm::WriteContext context(sm, eh);
         try {
            Policy::write(*util, *swTable_, hwIndices, key);
         } catch (const std::exception& e) {
            // The chip cannot hold this value (a field that does not fit): the key's
            // programming fails, and the table goes on with the others.
            ASIC_TRACE(trace(), 0, "{} : hwTableEntryIs : write refused for key:{}: {}",
                       T::kTypeName, key, e.what());
            if (sm && eh) sm->programmingAbandoned(eh);
            refused = true;
         }
      }
      if (eh && refused) {
         eh->resolvedEntryStateIs(State::programFailed);
         return;
      }
      // Without write responses the write is done when the call returns.
      if (eh && !swTable_->hwResponseNeeded() && !Detail::publishEntryHandleProgrammedState()) {
         eh->resolvedEntryStateIs(State::success);
      }
   }

   void hwTableEntryDel(Util* util, const Key& key, const Indices& hwIndices) {
      if (isExhausted(Policy::first(hwIndices))) {
         SWT_TRACE(8, "hwTableEntryDel", "No entry in HwTable for this key. Skip delete");
         return;
      }
      SWT_TRACE(8, "hwTableEntryDel", ": Deleting entry at key:{}", key);
      if (util) {
         Policy::forEach(hwIndices, [&](Index index) {
            util->updateHwIndexRefCountTracker(swTable_->hwTable(), index,
                                               IndexUserTracker::released);
         });
         Policy::del(*util, *swTable_, hwIndices);
      }
      if constexpr (Policy::usesAllocator) {
         if (auto* alloc = swTable_->indexAllocator()) {
            alloc->releaseIndexFromTable(keyType(), &key, allocatorUser());
         }
      }
   }

   // The index the key holds: the allocator's record, else the handle's last index.
   std::optional<Index> doRetrieveHwIndex(const Key& key) const {
      if constexpr (!Policy::usesAllocator) {
         return Policy::retrieve(*this, key);
      } else {
         const EntryHandle* eh = swTable_->entryHandle(key);
         if (auto* alloc = swTable_->indexAllocator()) {
            auto index = eh ? alloc->indexForKey(keyType(), &key, eh->hwIndex())
                            : alloc->indexForKey(keyType(), &key);
            if (index) return index;
         }
         if (eh) return eh->hwIndex();
         return std::nullopt;
      }
   }
   // Every index the key holds, first one first.
   Indices doRetrieveHwIndices(const Key& key) const { return Policy::retrieve(*this, key); }

   void handleEntryState(EntryHandle* eh, const Key& key) {
      const State state = eh->entryState();
      SWT_TRACE(8, "handleEntryState", " entryhandle state: {} at key : {}", state, key);
      const bool inDeletion = eh->entryType() == EntryType::inDeletion;
      switch (state) {
         case State::unresolved:
            break;
         case State::inProgress:
         case State::indexReconciled:
            if (!inDeletion) executeWriteResponseFn(eh, key);
            break;
         case State::wontProgram:
            ASIC_ASSERT_TEXT(!inDeletion, "entryHandle->entryType() != EntryHandle::inDeletion()",
                             "");
            break;
         case State::success:
            executeWriteResponseFn(eh, key);
            break;
         case State::failedNeededEntry:
         case State::programFailed:
            ASIC_ASSERT_TEXT(!inDeletion, "entryHandle->entryType() != EntryHandle::inDeletion()",
                             "");
            executeWriteResponseFn(eh, key);
            break;
      }
      SWT_TRACE(8, "handleEntryState", " entryhandle state: COMPLETE  {} at key : {}", state, key);
   }

   void executeWriteResponseFn(EntryHandle* eh, const Key& key) {
      SWT_TRACE(8, "executeWriteResponseFn", " entryhandle type: {}", eh->entryType());
      ASIC_ASSERT_TEXT(
          eh->entryType() == EntryType::referenceOnly || eh->entryType() == EntryType::committed,
          "entryHandle->entryType() == EntryHandle::referenceOnly() || "
          "entryHandle->entryType() == EntryHandle::committed()",
          "");
      const auto& tableFn = swTable_->writeResponseCallback();
      if constexpr (HasWriteResponseFn<Entry>) {
         // A failed needed entry is the outcome of the value waiting for it, not of the value
         // that may still be programmed.
         const Entry* value = nullptr;
         if (eh->entryState() == State::failedNeededEntry) {
            if (const auto* ue = swTable_->unresolvedEntry(key)) value = &ue->entry();
         }
         if (!value) value = entryIfPresent(key);
         if (value && value->writeResponseFn) {
            if (tableFn) raise_callback_exception();
            // A copy: the callback may change the table, and the value with it.
            const WriteResponseFn fn = value->writeResponseFn;
            fn(eh->entryState());
            return;
         }
      }
      if (tableFn) tableFn(eh, key);
   }

   void doCompleteEntryHandleForTesting(const Key& key) {
      if (!Detail::publishEntryHandleProgrammedState()) return;
      EntryHandle* eh = swTable_->entryHandle(key);
      if (!eh) return;
      RefCounted::Pin pin(eh);
      auto hwIndex = doRetrieveHwIndex(key);
      if (hwIndex) eh->hwIndexIs(*hwIndex);
      eh->resolvedEntryStateIs(hwIndex && isExhausted(*hwIndex) ? State::programFailed
                                                                : State::success);
   }

   // --- removal and the delete dance ---------------------------------------------------
   void entryRemove(const Key& key) {
      EntryHandle* eh = swTable_->entryHandle(key);
      const std::uint32_t refCnt = eh ? eh->refCount() : 0;
      SWT_TRACE(6, "entryRemove", ": key:{}, entryType:{}, refCnt:{}", key,
                eh ? eh->entryType() : EntryType::none, refCnt);
      if (!eh || eh->entryType() != EntryType::committed) {
         SWT_TRACE(6, "entryRemove", " : Found no committed entry at key : {}, refCnt:{}", key,
                   refCnt);
         return;
      }
      SWT_TRACE(6, "entryRemove", " : Removing entry at key : {}", key);
      if (swTable_->unresolvedEntry(key)) swTable_->unresolvedEntryDel(key);
      eh->entryTypeIs(EntryType::referenceOnly);
      intrusive_ptr_release(eh);  // the commit's own count; may start cleanup at once
   }

   void cleanup(EntryHandle* eh) {
      if (!swTable_->entryHandleHeld(eh)) return;
      // Already waiting for the hardware to confirm its delete.
      if (eh->entryType() == EntryType::inDeletion) return;
      RefCounted::Pin pin(eh);
      const Key& key = eh->key();  // the pin keeps it alive
      eh->doAmendReferences();
      SWT_TRACE(6, "cleanup", " : entryhandle cleanup, eh : {}, key :{}, refCnt:{}", fmt::ptr(eh),
                key, eh->refCount());
      if (swTable_->unresolvedEntry(key)) swTable_->unresolvedEntryDel(key);
      if (eh->resolvedEntryState() == State::unresolved && !swTable_->cleanupThroughDeleteDance()) {
         finishCleanup(eh, key);
         return;
      }
      ASIC_ASSERT_TEXT(swTable_->entryHandleHas(key), "swTable_->entryHandleHas( key )", "");
      ASIC_ASSERT_TEXT(eh->entryType() == EntryType::referenceOnly,
                       "eh->entryType() == EntryHandle::referenceOnly()", "unexpected entryType");
      const bool programmed =
          !isExhausted(eh->hwIndex()) && eh->resolvedEntryState() == State::success;
      if (const auto* resolved = swTable_->resolvedEntry(key); resolved && resolved->has_value()) {
         eh->pendingEntryEnq(**resolved);
         setResolvedEntry(key, std::nullopt);
      }
      if (swTable_->entryHandle(key) != eh) {
         // The withdrawal completed at once (no write response awaited): dance is over.
         SWT_TRACE(6, "cleanup", " delete dance complete, key : {}", key);
         return;
      }
      if (programmed) {
         SWT_TRACE(6, "cleanup", " begin delete dance, key : {}", key);
         eh->entryTypeIs(EntryType::inDeletion);
         eh->entryStateIs(State::unresolved);
         ASIC_ASSERT_TEXT(eh->resolvedEntryState() == State::inProgress,
                          "eh->resolvedEntryState() == inProgress()", "");
         eh->entryStateIs(State::inProgress);
         return;
      }
      finishCleanup(eh, key);
   }

   void handleResolvedEntryState(EntryHandle* eh) {
      const State rs = eh->resolvedEntryState();
      const State entryState = eh->entryState();
      if (rs == State::inProgress || rs == State::indexReconciled) {
         eh->entryStateIs(rs);
         return;
      }
      RefCounted::Pin pin(eh);
      const Key& key = eh->key();  // the pin keeps the handle, and so its key
      const bool held = swTable_->entryHandleHeld(eh);
      ASIC_ASSERT_TEXT(held, "swTable_->entryHandleHas( key )", "");
      const auto* resolved = swTable_->resolvedEntry(key);
      if (!resolved || !resolved->has_value()) {
         ASIC_ASSERT_TEXT(rs == State::success, "resolvedEntryState == success()", "");
         deleteResolvedEntry(key);
         eh->pendingEntryDelAll();
         if (entryState == State::inProgress) {
            eh->swTableIs(nullptr);
            swTable_->entryHandleDel(key);
         } else {
            eh->resolvedEntryStateReset();  // committed again meanwhile: starts afresh
         }
         return;
      }
      eh->pendingEntryDelAll();
      switch (entryState) {
         case State::inProgress:
         case State::indexReconciled:
            eh->entryStateIs(rs);
            break;
         case State::unresolved:
            // A newer value waits for its needed entries. A failed write means the chip holds
            // neither value: the client is told (the resolved value's callback), and the newer
            // value is programmed when it resolves.
            if (rs == State::programFailed) {
               eh->entryStateIs(rs);
               break;
            }
            [[fallthrough]];
         case State::failedNeededEntry:
         case State::wontProgram:
            // A failed dependency or the client's wontProgram owns the entry state: this
            // response ends the programming quietly (a later programming writes over whatever
            // the chip kept).
            ASIC_ASSERT_TEXT(rs == State::success || rs == State::programFailed,
                             "resolvedEntryState == success() || resolvedEntryState == "
                             "programFailed()",
                             "");
            break;
         default:
            ASIC_ASSERT_TEXT(false,
                             "entryState == unresolved() || entryState == failedNeededEntry()", "");
      }
   }

   void deleteResolvedEntry(const Key& key) { swTable_->resolvedEntryDel(key); }

   void markFailedNeededEntry(UnresolvedEntry* ue) {
      SWT_TRACE(6, "markFailedNeededEntry", ": key:{}", ue->key());
      if (EntryHandle* eh = swTable_->entryHandle(ue->key())) {
         eh->entryStateIs(State::failedNeededEntry);
      }
   }

   // --- set-up -------------------------------------------------------------------------
   void doCreateAllocator() {
      if constexpr (!Policy::usesAllocator) return;  // the key is the index
      swTable_->doInitAllocator();
      if (HwTable* hw = swTable_->hwTable()) {
         const std::uint32_t used = allocator()->totalUsedIndices();
         for (std::uint32_t i = 0; i < used; ++i) hw->usedEntriesInc(1);
      }
   }

   template <typename A>
   void initAllocator() {
      ASIC_TRACE(trace(), 6, "Creating shared allocator of type: {} for table: {}", A::kTypeName,
                 T::kTypeName);
      ASIC_ASSERT_TEXT(swTable_ != nullptr, "table", "");
      Ptr<GenericIndexAllocator> shalloc = GenericIndexAllocatorStub::createSharedAllocator(
          A::kTypeName, T::kTypeName, allocatorUser());
      ASIC_ASSERT_TEXT(shalloc != nullptr, "shalloc", "");
      swTable_->indexAllocatorIs(shalloc);
      shalloc->setTableAttr(allocatorUser(), "indexAllocator");
      if (swTable_->numEntries() > shalloc->numEntries())
         shalloc->numEntriesIs(swTable_->numEntries());
      swTable_->doReserveIndicesAtTableInit();
   }

   // --- restart: sync, reconciliation and suggestions ----------------------------------
   void syncEntries() {
      SWT_TRACE(6, "syncEntries", ": swTableInstPtr:{}", swTable_->tableText());
      ASIC_ASSERT_TEXT(swTable_->hwTable() != nullptr, "hwTable()", "");
      ASIC_ASSERT_TEXT(swTable_->resolvedEntrys() == 0, "!swTable_->resolvedEntrys()", "");
      Util* util = swTable_->utilIfExists();
      if (!util) return;
      util->syncEntries(swTable_->hwTable(), *swTable_);
      Policy::synced(*this, *util);
   }

   // `held`, when given, receives the index the key already held, if it held one: the
   // caller needs it next and need not look it up again.
   Status reconcileSyncedEntry(const Key& key, std::optional<Index>* held = nullptr) {
      if (swTable_->syncedEntries().empty()) return Status::nothingToReconcile;
      auto index = Policy::heldIndex(*this, key);
      if (held && index && !isExhausted(*index)) *held = index;
      if (!index || isExhausted(*index)) {
         return isExhausted(reconcileUsingIndexHelper(key, true)) ? Status::notReconciled
                                                                  : Status::reconciled;
      }
      const auto* resolved = swTable_->resolvedEntry(key);
      ASIC_ASSERT_TEXT(resolved && resolved->has_value(), "resolvedEntry", "no resolved entry");
      if (!swTable_->syncedEntry(*index)) return Status::nothingToReconcile;
      Util* util = swTable_->utilIfExists();
      return util && Policy::matches(*this, *index, **resolved)
                 ? Status::reconciled
                 : Status::indexReconciledContentsDiffer;
   }

   // The one place a hardware index is taken over at a restart (the policy knows how).
   bool reconcileUsingHwIndex(const Key& key, Index hwIndex,
                              bool compareHw) requires(!Trait::hasRemoteAllocator<T>) {
      return Policy::recover(*this, key, hwIndex, compareHw);
   }

   Index reconcileUsingIndexHelper(const Key& key, bool compareHw) {
      EntryHandle* eh = swTable_->entryHandle(key);
      SwTable::IndexHelper* helper = eh ? swTable_->indexHelper(eh) : nullptr;
      if (!helper) {
         SWT_TRACE(8, "reconcileUsingIndexHelper", "Index suggestions unavailable");
         return invalidIndex;
      }
      SWT_TRACE(8, "reconcileUsingIndexHelper", ": key:{}", key);
      const std::vector<Index> candidates = helper->indices();
      for (Index candidate : candidates) {
         if (compareHw && !swTable_->syncedEntry(candidate)) continue;
         if (!reconcileUsingHwIndex(key, candidate, compareHw)) continue;
         swTable_->indexHelperDel(eh);
         SWT_TRACE(8, "reconcileUsingIndexHelper", ": Deleting syncedEntry reconciled at index:{}",
                   candidate);
         Policy::syncedTakenOver(*this, key, candidate);
         SWT_TRACE(8, "reconcileUsingIndexHelper", ": Reconciled key:{}, hwIndex:{}", key,
                   candidate);
         return candidate;
      }
      return invalidIndex;
   }

   void handleIndexSuggestions(EntryHandle* eh,
                               IndexSet indices) requires(!Trait::hasRemoteAllocator<T>) {
      ASIC_ASSERT_TEXT(eh->entryState() == State::unresolved, "eh->entryState() == unresolved()",
                       "");
      ASIC_ASSERT_TEXT(swTable_->configReplayInProgress(), "swTable_->configReplayInProgress()",
                       "");
      SWT_TRACE(8, "handleIndexSuggestions", ": eh:{}, key:{}, numSuggestions:{}", fmt::ptr(eh),
                eh->key(), indices.size());
      RefCounted::Pin pin(eh);
      swTable_->indexHelperIs(eh);
      Util* util = swTable_->utilIfExists();
      for (Index value : indices) {
         const Index hwIndex = util ? util->dependentFieldValueToHwIndex(value) : value;
         SwTable::IndexHelper* helper = swTable_->indexHelper(eh);
         if (!helper) break;  // reconciled meanwhile
         if (helper->indexHas(hwIndex)) continue;
         helper->indexIs(hwIndex);
         SWT_TRACE(8, "handleIndexSuggestions", ": hwIndex:{}", hwIndex);
         if (processIndexSuggestion(eh, hwIndex)) break;
      }
   }

   bool processIndexSuggestion(EntryHandle* eh, Index hwIndex) {
      const Key key = eh->key();
      const auto* resolved = swTable_->resolvedEntry(key);
      if (!resolved || !resolved->has_value()) {
         if (auto* ue = swTable_->unresolvedEntry(key)) {
            // Its needed entries may reconcile at once, and the record resolve and go, while
            // its value is still being walked.
            RefCounted::Pin pin(ue);
            Policy::suggestDown(*this, ue->entry(), hwIndex);
         }
         return false;
      }
      SWT_TRACE(8, "processIndexSuggestion", ": eh:{}, key:{}, hwIndex:{}", fmt::ptr(eh), key,
                hwIndex);
      if (!reconcileUsingHwIndex(key, hwIndex, true)) return false;
      swTable_->updateStatistic(Status::reconciled, hwIndex, &key);
      SWT_TRACE(8, "processIndexSuggestion", ": Deleting syncedEntry reconciled at index:{}",
                hwIndex);
      Policy::syncedTakenOver(*this, key, hwIndex);
      swTable_->indexHelperDel(eh);
      eh->hwIndexIs(hwIndex);
      eh->entryStateIs(State::indexReconciled);
      eh->resolvedEntryStateIs(State::indexReconciled);
      doCompleteEntryHandleForTesting(key);
      return true;
   }

   void suggestIndexToNeededTable(const Entry& swEntry, const Entry& syncedEntry) {
      SWT_TRACE(8, "suggestIndexToNeededTable", ": swEntry:{}, syncedEntry:{}", swEntry,
                syncedEntry);
      suggestDependentFields(swEntry, syncedEntry);
   }
   // Each needed handle is offered the index the synced value's dependent field holds.
   static void suggestDependentFields(const Entry& swEntry, const Entry& syncedEntry) {
      if constexpr (Trait::hasDependentFields<T>) {
         T::forEachDependentField(
             swEntry, syncedEntry, [](const SwTableBase::EntryHandle* needed, Index value) {
                if (needed) SwTableBase::suggestIndicesToNeededEntryHandle(needed, {value});
             });
      }
   }

   // --- end of restart, purge and bulk removal -----------------------------------------
   void doInitComplete() {
      SWT_TRACE(9, "doInitComplete", "");
      swTable_->configReplayCompleteIs(true);
      // Keys whose programming was held back during the replay, in the order the replay
      // held them back, so that they take their indices alike in every process (the order
      // of the handle collection follows the process's hash seed and heap addresses): a dry
      // run then places them where the real run will. Keys held back some other way follow.
      std::vector<Key> heldBack;
      absl::flat_hash_set<Key, SeededHash<Key, 0x27D4EB2Fu>> seen;
      auto heldBackIs = [&](const Key& key, const EntryHandle* eh) {
         const auto* resolved = swTable_->resolvedEntry(key);
         if (eh && eh->entryState() == State::unresolved && resolved && resolved->has_value() &&
             seen.insert(key).second) {
            heldBack.push_back(key);
         }
      };
      for (const Key& key : swTable_->replayHeldBack()) heldBackIs(key, swTable_->entryHandle(key));
      swTable_->replayHeldBackDelAll();
      for (const auto& [key, eh] : swTable_->entryHandles()) heldBackIs(key, eh.get());
      for (const Key& key : heldBack) {
         EntryHandle* eh = swTable_->entryHandle(key);
         if (!eh) continue;
         RefCounted::Pin pin(eh);
         if (swTable_->indexHelper(eh)) {
            auto index = Policy::heldIndex(*this, key);
            if (!index) {
               const Index found = reconcileUsingIndexHelper(key, false);
               if (!isExhausted(found)) {
                  eh->hwIndexIs(found);
                  programHwEntry(key, State::indexReconciled);
                  swTable_->updateStatistic(Status::indexReconciledContentsDiffer, found, &key);
                  continue;
               }
            } else {
               eh->hwIndexIs(*index);
               if (swTable_->syncedEntry(*index)) {
                  programHwEntry(key, State::indexReconciled);
                  swTable_->updateStatistic(Status::indexReconciledContentsDiffer, *index, &key);
                  // Taken over: the purge must not delete what was just written there.
                  SWT_TRACE(8, "doInitComplete", ": Deleting syncedEntry reconciled at index:{}",
                            *index);
                  Policy::syncedTakenOver(*this, key, *index);
               } else {
                  swTable_->reconciledIndexIs(false);
                  programHwEntry(key, State::inProgress);
                  swTable_->updateStatistic(Status::nothingToReconcile, eh->hwIndex(), &key);
               }
               continue;
            }
         }
         swTable_->reconciledIndexIs(false);
         programHwEntry(key, State::inProgress);
         swTable_->updateStatistic(Status::nothingToReconcile, eh->hwIndex(), &key);
      }
      swTable_->reconciledIndexIs(false);
   }

   void purgeStaleEntries() {
      syncedEntryRemoveAll();
      ASIC_TRACE(traceHandle(kSwTableStatTrace), 0, "{} : purgeStaleEntries {}", T::kTypeName,
                 toString(swTable_->reconciliationStats()));
   }

   void syncedEntryRemoveAll() {
      Kestrel::record(T::kTypeName.data(), "syncedEntryRemoveAll");
      SWT_TRACE(8, "syncedEntryRemoveAll", "");
      if (!swTable_->utilIfExists() || swTable_->syncedEntries().empty()) {
         SWT_TRACE(8, "syncedEntryRemoveAll", "No stale entries in syncedEntryColl");
         return;
      }
      handleStaleEntries();
      swTable_->syncedEntryDelAll();
   }

   void handleStaleEntries() { Policy::purge(*this); }

   void entryRemoveAll() {
      Kestrel::record(T::kTypeName.data(), "entryRemoveAll");
      SWT_TRACE(5, "entryRemoveAll", "");
      entryHandleRemoveAll(false);
      ASIC_ASSERT_TEXT(!swTable_->utilIfExists() || swTable_->syncedEntries().empty(),
                       "!swTable_->utilIfExists() || swTable_->syncedEntries().empty()",
                       "Should call purgeStaleEntries instead");
   }

   // `skipMarked` leaves out handles whose resolved-entry state byte is set (keys that
   // reached programming), so that only keys still waiting are removed.
   void entryHandleRemoveAll(bool skipMarked) {
      std::vector<Key> keys;
      keys.reserve(swTable_->entryHandles().size());
      for (const auto& [key, eh] : swTable_->entryHandles()) {
         if (skipMarked && eh->resolvedEntryState() != State::unresolved) continue;
         keys.push_back(key);
      }
      for (const Key& key : keys) entryRemove(key);
   }

   // Takes the table's entries off the chip and lets go of everything: each key's resolved
   // entry is deleted (hardware entry first, then its index back to the allocator), so that an
   // allocator shared with a table that lives on keeps nothing for this one. A table detached
   // from the chip (detachFromChip) leaves the chip as it is, as an exiting agent must.
   void cleanup() {
      SWT_TRACE(6, "cleanup", "");
      swTable_->detachHandles();
      swTable_->unresolvedEntryDelAll();
      std::vector<Key> resolved;
      resolved.reserve(swTable_->resolvedEntrys());
      for (const auto& [key, value] : swTable_->resolvedEntries()) resolved.push_back(key);
      for (const Key& key : resolved) deleteResolvedEntry(key);
      while (!swTable_->skippedStaleEntries().empty()) {
         deleteSkippedStaleEntry(swTable_->skippedStaleEntries().begin()->first);
      }
      swTable_->detachAll();
   }

 private:
   // A key of this table owns the index when the table uses it, or when the key has a value
   // here that will be programmed over it (one still waiting for its needed entries).
   bool ownsIndex(const GenericIndexAllocator& alloc, Index hwIndex) const {
      if (alloc.isIndexUsedBy(hwIndex, keyType(), allocatorUser())) return true;
      const GenericValue owner = alloc.keyForIndex(hwIndex, keyType());
      const Key* key = owner.template get<Key>();
      return key && entryHas(*key);
   }

   // The table as the allocator knows it (one pointer for every call).
   const void* allocatorUser() const noexcept { return static_cast<const SwTable*>(swTable_); }
   GenericIndexAllocator* allocator() const {
      GenericIndexAllocator* alloc = swTable_->indexAllocator();
      ASIC_ASSERT_MSG(alloc != nullptr, "table has no index allocator: doCreateAllocator first");
      return alloc;
   }

   // A handle becomes committed once; the commit holds its own count until entryRemove.
   static void typeCommitted(EntryHandle* eh) {
      if (eh->entryType() == EntryType::committed) return;
      intrusive_ptr_add_ref(eh);
      eh->entryTypeIs(EntryType::committed);
   }
   static void typeReferenced(EntryHandle* eh) {
      if (eh->entryType() == EntryType::none || eh->entryType() == EntryType::inDeletion) {
         eh->entryTypeIs(EntryType::referenceOnly);
      }
   }
   Ptr<EntryHandle> expectEntryHandle(const Key& key) {
      EntryHandle* eh = swTable_->entryHandle(key);
      ASIC_ASSERT_TEXT(eh != nullptr, fmt::format("expect a valid entryHandle, key: {}", key), "");
      return Ptr<EntryHandle>(eh);
   }

   // A value the table or its chip cannot take is refused before anything changes.
   void entryValidate(const Entry& entry) const {
      if constexpr (Trait::hasEntryValidate<T>) T::entryValidate(entry);
      if (const Util* util = swTable_->utilIfExists()) util->entryValidate(entry);
   }

   Ptr<EntryHandle> commit(const Key& key, const Entry& entry, bool ref, const char* op) {
      entryValidate(entry);
      auto type = [ref](EntryHandle* eh) { ref ? typeReferenced(eh) : typeCommitted(eh); };
      if (UnresolvedEntry* ue = swTable_->unresolvedEntry(key)) {
         if (ue->entry() == entry) {
            SWT_TRACE(6, op, " : Found existing unresolved entry at key : {}, entry : {}", key,
                      entry);
            Ptr<EntryHandle> eh = expectEntryHandle(key);
            type(eh.get());
            // Committed again after wontProgram: the value is wanted after all, and waits (or
            // has already failed, if a needed entry did).
            if (eh->entryState() == State::wontProgram) {
               if (ue->neededEntryHandleFailed()) {
                  ue->markFailedNeededEntry();
               } else {
                  eh->entryStateIs(State::unresolved);
               }
            }
            return eh;
         }
         SWT_TRACE(6, op, " : Deleting existing unresolved entry at key : {}", key);
         swTable_->unresolvedEntryDel(key);
      }
      if (const auto* resolved = swTable_->resolvedEntry(key);
          resolved && resolved->has_value() && **resolved == entry) {
         SWT_TRACE(6, op, " : Found already existing resolved entry at key : {}, entry : {}", key,
                   entry);
         if (!swTable_->entryHandle(key)) {
            // A value adopted from the chip has no client yet: the first one gets a handle
            // that waits, and the table decides how the value the chip holds is confirmed.
            Ptr<EntryHandle> eh = swTable_->entryHandleIs(key, swTable_);
            type(eh.get());
            eh->entryStateIs(State::unresolved);
            return eh;
         }
         Ptr<EntryHandle> eh = expectEntryHandle(key);
         type(eh.get());
         // A newer value that was committed meanwhile (and is now withdrawn) left the entry
         // state `unresolved` or `failedNeededEntry`, or the client had said wontProgram: the
         // key is back where its resolved value stands, and the client is told so.
         const State entryState = eh->entryState();
         const State rs = eh->resolvedEntryState();
         if ((entryState == State::unresolved || entryState == State::failedNeededEntry ||
              entryState == State::wontProgram) &&
             rs != State::unresolved) {
            eh->entryStateIs(rs);
         } else if (entryState == State::wontProgram) {
            // Held back by the replay and then declared wontProgram: never programmed. Wanted
            // again, it is held back anew, or programmed now that the replay is over.
            eh->entryStateIs(State::unresolved);
            if (swTable_->configReplayComplete()) handleEntry(key);
         } else {
            eh->entryStateRepublish();
         }
         return eh;
      }
      if (ref) {
         SWT_TRACE(6, op, " : Writing new entry at key: {}, entry:{}", key, entry);
      } else {
         SWT_TRACE(6, op, " : Writing new entry at key: {}", key);
      }
      Ptr<EntryHandle> eh = swTable_->entryHandleIs(key, swTable_);
      type(eh.get());
      eh->entryStateIs(State::unresolved);
      if (neededEntriesReady(entry)) {
         resolveAtOnce(key, entry);
         return eh;
      }
      Ptr<UnresolvedEntry> ue = swTable_->unresolvedEntryIs(key);
      initUnresolvedEntry(ue.get(), entry);
      return eh;
   }

   // Restart: the replayed key is matched against what the hardware holds.
   void handleReconciliation(const Key& key) {
      std::optional<Index> held;
      const Status status = reconcileSyncedEntry(key, &held);
      SWT_TRACE(8, "handleEntry", ": reconcileStatus: {}, configReplayComplete:{}",
                static_cast<int>(status), swTable_->configReplayComplete());
      // The allocator's record of the key, looked up once (a replay reconciles every key).
      std::optional<Index> allocated;
      if constexpr (Policy::usesAllocator) {
         allocated = held;
         if (!allocated) {
            if (auto* alloc = swTable_->indexAllocator()) {
               allocated = alloc->indexForKey(keyType(), &key);
            }
         }
      }
      const auto hwIndex = allocated ? allocated : doRetrieveHwIndex(key);
      EntryHandle* eh = swTable_->entryHandle(key);
      std::optional<RefCounted::Pin> pin;
      if (eh) pin.emplace(eh);
      auto takeOverIndex = [&](bool complete) {
         // This table now uses the index as a cold start's allocation would have recorded,
         // so that a neighbour letting go of the key cannot free it under the entry.
         if constexpr (Policy::usesAllocator) {
            if (allocated) {
               allocator()->requestIndexForKey(*allocated, keyType(), &key, allocatorUser());
            }
         }
         if (eh) {
            swTable_->indexHelperDel(eh);
            if (hwIndex) eh->hwIndexIs(*hwIndex);
            if (complete) {
               eh->entryStateIs(State::indexReconciled);
               eh->resolvedEntryStateIs(State::indexReconciled);
               doCompleteEntryHandleForTesting(key);
            }
         }
      };
      auto dropSynced = [&] {
         ASIC_ASSERT_TEXT(hwIndex && !isExhausted(*hwIndex), "!isExhausted( hwIndex )", "");
         SWT_TRACE(8, "handleEntry", ": Deleting syncedEntry reconciled at index:{}", *hwIndex);
         Policy::syncedTakenOver(*this, key, *hwIndex);
      };
      switch (status) {
         case Status::notReconciled:
            swTable_->replayHeldBackIs(key);  // programmed at init complete
            return;
         case Status::reconciled:
            takeOverIndex(true);
            if (swTable_->syncedEntry(hwIndex.value_or(invalidIndex))) dropSynced();
            break;
         case Status::indexReconciledContentsDiffer:
            takeOverIndex(false);
            programHwEntry(key, State::indexReconciled);
            dropSynced();
            break;
         case Status::nothingToReconcile:
            programHwEntry(key, State::inProgress);
            break;
         default:
            ASIC_ASSERT_TEXT(false, "false", "unexpected reconciliation status");
      }
      swTable_->reconciledIndexIs(false);
      swTable_->updateStatistic(status, eh ? eh->hwIndex() : hwIndex.value_or(invalidIndex), &key);
   }

   void finishCleanup(EntryHandle* eh, const Key& key) {
      deleteResolvedEntry(key);
      deleteSkippedStaleEntries(key);
      eh->swTableIs(nullptr);
      swTable_->entryHandleDel(key);
      SWT_TRACE(6, "cleanup", " delete dance complete, key : {}", key);
      ASIC_ASSERT_TEXT(!swTable_->entryHandleHas(key), "!swTable_->entryHandleHas( key )", "");
   }

   // A key that goes, or is written elsewhere, without writing over the stale entries the
   // purge left for it takes them off the chip.
   void deleteSkippedStaleEntries(const Key& key) {
      std::vector<Index> indices;
      for (const auto& [index, owner] : swTable_->skippedStaleEntries()) {
         if (owner == key) indices.push_back(index);
      }
      for (Index index : indices) deleteSkippedStaleEntry(index);
   }
   void deleteSkippedStaleEntry(Index index) {
      swTable_->skippedStaleEntryDel(index);
      Util* util = swTable_->utilIfExists();
      if (!util) return;
      SWT_TRACE(8, "cleanup", ": Deleting stale hwEntry at index:{}", index);
      util->updateHwIndexRefCountTracker(swTable_->hwTable(), index, IndexUserTracker::released);
      Policy::del(*util, *swTable_, Policy::of(index));
   }

   T* swTable_;  // not owned
};

// ---------------------------------------------------------------------------------------
// Walks the unresolved entries, then the resolved entries that hold a value.
template <typename T>
class SwTable::EntryIteratorConst {
 public:
   using Key = typename T::Key;
   using Entry = typename T::Value;
   using UnresolvedIt = typename T::UnresolvedEntryMap::const_iterator;
   using ResolvedIt = typename T::ResolvedEntryMap::const_iterator;

   explicit EntryIteratorConst(const T* table) : swTable_(table) {
      startUnresolved(table->unresolvedEntries().begin());
   }
   EntryIteratorConst(const T* table, const Key& key) : swTable_(table) {
      auto it = table->unresolvedEntries().find(key);
      if (it != table->unresolvedEntries().end()) {
         position_ = it;
         return;
      }
      startResolved(table->resolvedEntries().find(key));
   }

   // 0 at the end, 1 in the unresolved map, 2 in the resolved map.
   std::uint8_t tag() const noexcept {
      return position_.valueless_by_exception() ? 255
                                                : static_cast<std::uint8_t>(position_.index());
   }
   bool done() const noexcept { return position_.index() == 0; }
   explicit operator bool() const noexcept { return !done(); }

   const Key& key() const {
      if (position_.index() == 1) return std::get<1>(position_)->first;
      return std::get<2>(position_)->first;
   }
   // The entry: the value waiting for resolution, or the resolved value.
   const Entry& entry() const {
      if (position_.index() == 1) return std::get<1>(position_)->second->entry();
      return *std::get<2>(position_)->second;
   }
   bool resolved() const noexcept { return position_.index() == 2; }

   void advance() {
      switch (position_.index()) {
         case 1:
            startUnresolved(std::next(std::get<1>(position_)));
            break;
         case 2:
            startResolved(std::next(std::get<2>(position_)));
            break;
         default:
            break;
      }
   }
   EntryIteratorConst& operator++() {
      advance();
      return *this;
   }

 private:
   void startUnresolved(UnresolvedIt it) {
      if (it != swTable_->unresolvedEntries().end()) {
         position_ = it;
      } else {
         startResolved(swTable_->resolvedEntries().begin());
      }
   }
   void startResolved(ResolvedIt it) {
      const auto end = swTable_->resolvedEntries().end();
      while (it != end && !it->second.has_value()) ++it;
      if (it == end) {
         position_ = std::monostate{};
      } else {
         position_ = it;
      }
   }

   const T* swTable_;
   std::variant<std::monostate, UnresolvedIt, ResolvedIt> position_;
};

// ---------------------------------------------------------------------------------------
// What an iterator over (key, value) pairs made on the spot has besides its position: the
// standard names, `it->first` and post-increment. `Derived` supplies *it, ++it and ==.
template <typename Derived, typename Pair>
class PairIteratorBase {
 public:
   using iterator_category = std::forward_iterator_tag;
   using value_type = Pair;
   using difference_type = std::ptrdiff_t;
   using reference = Pair;
   struct pointer {
      Pair pair;
      const Pair* operator->() const noexcept { return &pair; }
   };

   pointer operator->() const { return pointer{*self()}; }
   Derived operator++(int) {
      Derived before = self();
      ++self();
      return before;
   }

 private:
   const Derived& self() const noexcept { return static_cast<const Derived&>(*this); }
   Derived& self() noexcept { return static_cast<Derived&>(*this); }
};

// A table's handles as a collection keyed by their keys: each seen as (key, handle).
// Read-only; valid until the table changes.
template <typename Set, typename Key>
class EntryHandleView {
 public:
   using Handle = typename Set::value_type;
   using value_type = std::pair<const Key&, const Handle&>;

   class const_iterator : public PairIteratorBase<const_iterator, value_type> {
    public:
      using PairIteratorBase<const_iterator, value_type>::operator++;
      const_iterator() = default;
      explicit const_iterator(typename Set::const_iterator it) : it_(it) {}
      value_type operator*() const { return {(*it_)->key(), *it_}; }
      const_iterator& operator++() {
         ++it_;
         return *this;
      }
      friend bool operator==(const const_iterator& a, const const_iterator& b) {
         return a.it_ == b.it_;
      }

    private:
      typename Set::const_iterator it_{};
   };
   using iterator = const_iterator;

   explicit EntryHandleView(const Set& set) noexcept : set_(&set) {}
   const_iterator begin() const { return const_iterator(set_->begin()); }
   const_iterator end() const { return const_iterator(set_->end()); }
   std::size_t size() const noexcept { return set_->size(); }
   bool empty() const noexcept { return set_->empty(); }
   const_iterator find(const Key& key) const { return const_iterator(set_->find(key)); }
   bool contains(const Key& key) const { return set_->contains(key); }

 private:
   const Set* set_;  // not owned: the table's handles
};

// A table's resolved values as a collection keyed by their keys: those its handles hold,
// then those of keys no handle holds (a register's adopted values, values whose handle has
// gone). Each seen as (key, value). Read-only; valid until the table changes.
template <typename Set, typename Map>
class ResolvedEntryView {
 public:
   using Key = typename Map::key_type;
   using Value = typename Map::mapped_type;
   using value_type = std::pair<const Key&, const Value&>;

   class const_iterator : public PairIteratorBase<const_iterator, value_type> {
    public:
      using PairIteratorBase<const_iterator, value_type>::operator++;
      const_iterator() = default;
      const_iterator(typename Set::const_iterator held, typename Set::const_iterator heldEnd,
                     typename Map::const_iterator unheld)
          : held_(held), heldEnd_(heldEnd), unheld_(unheld) {
         skip();
      }
      value_type operator*() const {
         if (held_ != heldEnd_) return {(*held_)->key(), *(*held_)->resolvedValue()};
         return {unheld_->first, unheld_->second};
      }
      const_iterator& operator++() {
         if (held_ != heldEnd_) {
            ++held_;
            skip();
         } else {
            ++unheld_;
         }
         return *this;
      }
      friend bool operator==(const const_iterator& a, const const_iterator& b) {
         return a.held_ == b.held_ && a.unheld_ == b.unheld_;
      }

    private:
      void skip() {
         while (held_ != heldEnd_ && !(*held_)->resolvedValue()) ++held_;
      }
      typename Set::const_iterator held_{};
      typename Set::const_iterator heldEnd_{};
      typename Map::const_iterator unheld_{};
   };
   using iterator = const_iterator;

   ResolvedEntryView(const Set& held, const Map& unheld, std::size_t count) noexcept
       : held_(&held), unheld_(&unheld), count_(count) {}
   const_iterator begin() const {
      return const_iterator(held_->begin(), held_->end(), unheld_->begin());
   }
   const_iterator end() const { return const_iterator(held_->end(), held_->end(), unheld_->end()); }
   std::size_t size() const noexcept { return count_; }
   bool empty() const noexcept { return count_ == 0; }
   const_iterator find(const Key& key) const {
      if (auto it = held_->find(key); it != held_->end()) {
         // A key with a handle has its value there, if anywhere.
         if (!(*it)->resolvedValue()) return end();
         return const_iterator(it, held_->end(), unheld_->begin());
      }
      auto it = unheld_->find(key);
      if (it == unheld_->end()) return end();
      return const_iterator(held_->end(), held_->end(), it);
   }
   bool contains(const Key& key) const { return find(key) != end(); }

 private:
   const Set* held_;    // not owned: the table's handles
   const Map* unheld_;  // not owned: values of keys without a handle
   std::size_t count_;
};

// ---------------------------------------------------------------------------------------
// What every table built on the engine has: its collections with their attribute-style
// mutators, its Util and the client operations, each forwarding to Accessor<Derived>.
// `UtilT` may be incomplete here (it derives from SwTableUtilT<Derived>).
// `SyncedT` is what the chip holds at one index, read back at a restart: the entry itself,
// unless a key's value spans several hardware entries of another type (a head block).
template <typename Derived, typename KeyT, typename EntryT, typename UtilT,
          typename SyncedT = EntryT, typename Base = SwUnknownIndexTable>
class SwTableImpl : public Base {
 public:
   using Key = KeyT;
   using Entry = EntryT;
   using Value = EntryT;  // what the engine stores per key, whatever a table calls Entry
   using SyncedEntry = SyncedT;
   using Util = UtilT;
   using EntryHandle = SwTableEntryHandleT<Derived, KeyT, EntryT>;
   using UnresolvedEntry = SwTableUnresolvedEntryT<Derived, KeyT, EntryT>;
   // The handle is the key's record: the table keeps a set of handles, looked up by the key
   // inside each, and a handle holds the key's resolved value. Every step of an operation on
   // a key (commit, resolution, programming, the write's response, the delete dance) finds
   // both with one look-up, and a key costs the table one pointer besides its handle.
   using KeyHash = SeededHash<Key, 0x2545F491u>;
   struct HandleHash {
      using is_transparent = void;
      std::size_t operator()(const Key& key) const { return KeyHash{}(key); }
      std::size_t operator()(const Ptr<EntryHandle>& eh) const { return KeyHash{}(eh->key()); }
   };
   struct HandleEq {
      using is_transparent = void;
      static const Key& keyOf(const Key& key) noexcept { return key; }
      static const Key& keyOf(const Ptr<EntryHandle>& eh) noexcept { return eh->key(); }
      template <typename A, typename B>
      bool operator()(const A& a, const B& b) const {
         return keyOf(a) == keyOf(b);
      }
   };
   using HandleSet = absl::flat_hash_set<Ptr<EntryHandle>, HandleHash, HandleEq>;
   // Resolved values of keys that no handle holds: a register's adopted values, and values
   // whose handle the table let go of before their withdrawal completed. Usually empty.
   using UnheldResolvedMap = absl::flat_hash_map<Key, std::optional<Entry>, KeyHash>;
   using UnresolvedEntryMap =
       absl::flat_hash_map<Key, Ptr<UnresolvedEntry>, SeededHash<Key, 0x9E3779B9u>>;
   using EntryHandleMap = EntryHandleView<HandleSet, Key>;
   using ResolvedEntryMap = ResolvedEntryView<HandleSet, UnheldResolvedMap>;
   using SyncedEntryMap = absl::btree_map<Index, SyncedEntry>;
   using SyncedIndicesMap = absl::btree_map<Index, std::vector<Index>>;
   using WriteResponseCallback = std::function<void(const EntryHandle*, const Key&)>;
   using EntryIteratorConst = SwTable::EntryIteratorConst<Derived>;
   using UtilLoader = SwTableUtilLoader<Derived>;

   static_assert(SwTableKey<KeyT>, "a table key needs kTypeName, ==, a formatter and a hash");
   static_assert(SwTableEntry<EntryT>, "a table entry needs identity == and a formatter");

   // --- client operations --------------------------------------------------------------
   Ptr<const EntryHandle> entryCommit(const Key& key, const Entry& entry) {
      return accessor().entryCommit(key, entry);
   }
   Ptr<const EntryHandle> entryRef(const Key& key, const Entry& entry) {
      return accessor().entryRef(key, entry);
   }
   // The key at an index of the caller's choosing (SwTable::Accessor::entryWriteAtIndex).
   Ptr<const EntryHandle> entryWriteAtIndex(Index index, const Key& key, const Entry& entry) {
      return accessor().entryWriteAtIndex(index, key, entry);
   }
   // Tables whose entry is its own key.
   Ptr<const EntryHandle> entryWriteAtIndex(
       Index index, const Entry& entry) requires std::is_same_v<KeyT, EntryT> {
      return accessor().entryWriteAtIndex(index, entry, entry);
   }
   Ptr<const EntryHandle> entryWontProgram(const Key& key) {
      return accessor().entryWontProgram(key);
   }
   void entryRemove(const Key& key) { accessor().entryRemove(key); }
   void entryRemoveAll() { accessor().entryRemoveAll(); }
   Entry entry(const Key& key) const { return caccessor().entry(key); }
   bool entryHas(const Key& key) const { return caccessor().entryHas(key); }
   bool entryInHwTable(const Key& key) const { return caccessor().entryInHwTable(key); }
   const EntryHandle* entryWeakRef(const Key& key) const { return caccessor().entryWeakRef(key); }
   EntryIteratorConst entryIteratorConst() const { return EntryIteratorConst(self()); }
   EntryIteratorConst entryIteratorConst(const Key& key) const {
      return EntryIteratorConst(self(), key);
   }
   void handleEntry(const Key& key) { accessor().handleEntry(key); }
   // The key that owns a hardware index, if any.
   std::optional<Key> swKeyFromHwIndex(Index index) const {
      auto* alloc = this->indexAllocator();
      if (!alloc) return std::nullopt;
      GenericValue owner = alloc->keyForIndex(index, vixType<Key>());
      if (const Key* key = owner.template get<Key>()) return *key;
      return std::nullopt;
   }
   // The key's index for another agent, without touching the table's state.
   Index hwIndexOnlyForCrossAgentCommunication(const Key& key) const {
      const EntryHandle* eh = entryHandle(key);
      return eh ? eh->hwIndexForDependentField() : invalidIndex;
   }

   // --- life cycle ---------------------------------------------------------------------
   void doCreateAllocator() { accessor().doCreateAllocator(); }
   virtual void doInitAllocator() {
      if constexpr (SwTable::Accessor<Derived>::Policy::usesAllocator) {
         accessor().template initAllocator<typename Derived::SharedAllocator>();
         this->indexAllocator()->initializedIs(true);
      }
   }
   virtual void doReserveIndicesAtTableInit() {
      if (auto* alloc = this->indexAllocator()) alloc->reserveIndices(0, 0);
   }
   void syncEntries() { accessor().syncEntries(); }
   void doInitComplete() { accessor().doInitComplete(); }
   void purgeStaleEntries() { accessor().purgeStaleEntries(); }
   void cleanup() { accessor().cleanup(); }
   // Lets go of the chip (the Util and the hardware table): clean-up and destruction then
   // leave the chip as it is, as an agent process that exits for a warm restart leaves it.
   void detachFromChip() {
      utilIs(nullptr);
      this->hwTableIs(nullptr);
   }

   // Each handle still attached lets go of the table and of what it holds of other tables.
   void detachHandles() {
      for (const Ptr<EntryHandle>& held : handles_) {
         EntryHandle* eh = held.get();
         if (!eh->swTable()) continue;
         eh->swTableIs(nullptr);
         eh->doAmendReferences();
      }
   }

   // The part of clean-up that touches no hardware: handles detached (clients that still
   // hold one keep a handle of no table), values, synced records and suggestions forgotten,
   // indices still held for stale records and the shared allocator let go of.
   void detachAll() {
      detachHandles();
      for (const Ptr<EntryHandle>& eh : handles_) dropCommitCount(eh.get());
      unresolvedEntryDelAll();
      resolvedEntryDelAll();
      this->indexHelperDelAll();
      if (auto* alloc = this->indexAllocator()) {
         for (const auto& [index, indices] : syncedIndices_) {
            for (Index held : indices) {
               if (alloc->isIndexHeld(held)) alloc->markIndexAvailable(held, vixType<Key>());
            }
         }
      }
      syncedEntries_.clear();
      syncedIndices_.clear();
      skippedStale_.clear();
      replayHeldBackDelAll();
      if (auto* alloc = this->indexAllocator()) {
         ASIC_TRACE(SwTable::Accessor<Derived>::trace(), 6,
                    "Trying to delete shared allocator for table:{}", tableText());
         GenericIndexAllocatorStub::freeSharedAllocator(
             alloc->allocatorTypeName(), Derived::kTypeName, static_cast<const SwTable*>(this));
         this->indexAllocatorIs(nullptr);
         if (utilIfExists() && this->hwTable()) {
            IndexUserTracker::Stub::deleteTracker(this->hwTable(), this->unit(), false);
         }
      }
      // Handles still held by clients live on, detached; the table lets go of its counts
      // only after every handle is detached, so no clean-up runs against a half-empty table.
      entryHandleDelAll();
   }

   void doMountHwTableMountInfo(Statebase::MountGroup& mountGroup) override {
      SwTable::Util::doMountHwTableMountInfo(Util::kTypeName, mountGroup, "");
   }
   void doMountHwTableRecoveryStatus(Statebase::MountGroup& mountGroup) override {
      SwTable::Util::doMountHwTableRecoveryStatus(Util::kTypeName, mountGroup, "");
   }
   void doRecoverHwTable(HwTableRecoverGroup& recoverGroup, UnitId unitId,
                         Statebase::EntityManager& entityManager,
                         const ChipInfo& chipInfo) override {
      SwTable::Util::doRecoverHwTable(Derived::kTypeName, recoverGroup, unitId, entityManager,
                                      chipInfo, "");
   }
   std::string_view typeName() const noexcept override { return Derived::kTypeName; }
   std::string tableText() const {
      return fmt::format("{}(entries={}, handles={})", Derived::kTypeName, this->numEntries(),
                         handles_.size());
   }

   // --- Util -----------------------------------------------------------------------------
   Util* utilIfExists() const noexcept { return util_.get(); }
   Util& util() const {
      ASIC_ASSERT_MSG(util_ != nullptr, "table has no Util");
      return *util_;
   }
   void utilIs(Ptr<Util> util) { util_ = std::move(util); }

   // Table-level write-response callback, for clients that do not put one in each value.
   const WriteResponseCallback& writeResponseCallback() const noexcept { return callback_; }
   void writeResponseCallbackIs(WriteResponseCallback callback) { callback_ = std::move(callback); }

   // --- collections --------------------------------------------------------------------
   EntryHandleMap entryHandles() const noexcept { return EntryHandleMap(handles_); }
   EntryHandle* entryHandle(const Key& key) const {
      if (lastFound_ && lastFound_->key() == key) return lastFound_;
      auto it = handles_.find(key);
      if (it == handles_.end()) return nullptr;
      lastFound_ = it->get();
      return lastFound_;
   }
   bool entryHandleHas(const Key& key) const { return entryHandle(key) != nullptr; }
   // Whether the table holds this handle, answered from the handle: one that names the table
   // is in the set (it lets go of the table whenever it leaves the set). The look-ups of its
   // key that follow find it without a probe, so a write's response, which arrives with its
   // handle, looks nothing up.
   bool entryHandleHeld(EntryHandle* eh) const noexcept {
      if (eh->swTable() != self()) return false;
      lastFound_ = eh;
      return true;
   }
   Ptr<EntryHandle> entryHandleIs(const Key& key, Derived* table) {
      if (table != self()) {
         throw std::logic_error(
             fmt::format("{}: entry handle of key {} re-instantiated for another table",
                         Derived::kTypeName, key));
      }
      if (EntryHandle* eh = entryHandle(key)) return Ptr<EntryHandle>(eh);
      handles_.reserve(handles_.size() + 1);  // the insertion below cannot throw then
      Ptr<EntryHandle> eh = entryHandleFactory(key, table);
      handles_.insert(eh);
      lastFound_ = eh.get();
      if (!unheldResolved_.empty()) {
         // The key's value outlived its previous handle: the new one holds it now.
         if (auto it = unheldResolved_.find(key); it != unheldResolved_.end()) {
            eh->resolvedValueIs(std::move(it->second));
            unheldResolved_.erase(it);
         }
      }
      return eh;
   }
   static Ptr<EntryHandle> entryHandleFactory(const Key& key, Derived* table) {
      return makePtr<EntryHandle>(key, table);
   }
   void entryHandleDel(const Key& key) {
      auto it = handles_.find(key);
      if (it == handles_.end()) return;
      EntryHandle* eh = it->get();
      keepResolvedOf(eh);
      takeCount(*it);
      handles_.erase(it);
      lastFound_ = nullptr;
      this->indexHelperDel(eh);
      eh->swTableIs(nullptr);
      RefCounted::releaseQuietly(eh);  // no clean-up for a key that is gone
   }
   void entryHandleDelAll() {
      std::vector<EntryHandle*> handles;
      handles.reserve(handles_.size());
      for (const Ptr<EntryHandle>& held : handles_) keepResolvedOf(held.get());
      for (const Ptr<EntryHandle>& held : handles_) handles.push_back(takeCount(held));
      handles_.clear();
      lastFound_ = nullptr;
      this->indexHelperDelAll();
      for (EntryHandle* eh : handles) {
         eh->swTableIs(nullptr);
         RefCounted::releaseQuietly(eh);
      }
   }

   const UnresolvedEntryMap& unresolvedEntries() const noexcept { return unresolvedEntries_; }
   UnresolvedEntry* unresolvedEntry(const Key& key) const {
      if (unresolvedEntries_.empty()) return nullptr;  // usually: no hash to compute
      auto it = unresolvedEntries_.find(key);
      return it == unresolvedEntries_.end() ? nullptr : it->second.get();
   }
   Ptr<UnresolvedEntry> unresolvedEntryIs(const Key& key) {
      auto [it, inserted] = unresolvedEntries_.try_emplace(key);
      if (inserted) it->second = makePtr<UnresolvedEntry>(key, self());
      return it->second;
   }
   void unresolvedEntryDel(const Key& key) {
      if (unresolvedEntries_.empty()) return;
      auto it = unresolvedEntries_.find(key);
      if (it == unresolvedEntries_.end()) return;
      Ptr<UnresolvedEntry> ue = std::move(it->second);
      unresolvedEntries_.erase(it);
   }
   void unresolvedEntryDelAll() {
      UnresolvedEntryMap entries = std::move(unresolvedEntries_);
      unresolvedEntries_.clear();
   }

   ResolvedEntryMap resolvedEntries() const noexcept {
      return ResolvedEntryMap(handles_, unheldResolved_, resolvedCount_);
   }
   std::size_t resolvedEntrys() const noexcept { return resolvedCount_; }
   const std::optional<Entry>* resolvedEntry(const Key& key) const {
      if (const EntryHandle* eh = entryHandle(key)) return eh->resolvedValue();
      if (unheldResolved_.empty()) return nullptr;
      auto it = unheldResolved_.find(key);
      return it == unheldResolved_.end() ? nullptr : &it->second;
   }
   bool resolvedEntryHas(const Key& key) const { return resolvedEntry(key) != nullptr; }
   // Stores a changed value and hands the key to the engine; an equal value (identity
   // equality; two empty values are equal) changes nothing. Returns whether it changed.
   bool resolvedEntryIs(const Key& key, std::optional<Entry> value) {
      return resolvedEntryStore(key, value);
   }
   // Out of line: inlined into a caller that passes std::nullopt, GCC's -O3 flow analysis
   // takes the branches that read the value for reads of an empty optional's payload
   // (-Wmaybe-uninitialized in the entry's comparison and move constructor).
   [[gnu::noinline]] bool resolvedEntryStore(const Key& key, std::optional<Entry>& value) {
      EntryHandle* eh = entryHandle(key);
      std::optional<Entry>* current = nullptr;
      if (eh) {
         current = eh->resolvedValue();
         if (!current) eh->resolvedValueIs(std::move(value));
      } else {
         // try_emplace leaves the value alone when the key is there already.
         auto [it, inserted] = unheldResolved_.try_emplace(key, std::move(value));
         if (!inserted) current = &it->second;
      }
      std::uint8_t mode = 0;
      if (!current) {
         ++resolvedCount_;
      } else {
         if (current->has_value() == value.has_value() && (!value || **current == *value))
            return false;
         mode =
             !*current
                 ? 1
                 : (eh && eh->resolvedEntryState() == SwTableBase::EntryState::programFailed ? 0
                                                                                             : 2);
         *current = std::move(value);
      }
      this->indexUserModeIs(mode);
      this->publish("resolvedEntry");
      accessor().handleEntry(key);
      return true;
   }
   // Stores a value the chip already holds as the key's resolved one, without programming
   // it (a register adopting what it read back at a restart). A key with a value keeps it.
   bool resolvedEntryAdopt(const Key& key, const Entry& value) {
      if (EntryHandle* eh = entryHandle(key)) {
         if (eh->resolvedValue()) return false;
         eh->resolvedValueIs(value);
      } else if (!unheldResolved_.try_emplace(key, value).second) {
         return false;
      }
      ++resolvedCount_;
      this->publish("resolvedEntry");
      return true;
   }
   void resolvedEntryDel(const Key& key) {
      if (EntryHandle* eh = entryHandle(key)) {
         if (!eh->resolvedValue()) return;
         eh->resolvedValueDel();
      } else if (unheldResolved_.empty() || !unheldResolved_.erase(key)) {
         return;
      }
      --resolvedCount_;
      this->publish("resolvedEntry");
      accessor().handleEntry(key);
   }
   // Forgets every value without touching the hardware (table clean-up).
   void resolvedEntryDelAll() {
      for (const Ptr<EntryHandle>& eh : handles_) eh->resolvedValueDel();
      unheldResolved_.clear();
      resolvedCount_ = 0;
   }

   const SyncedEntryMap& syncedEntries() const noexcept { return syncedEntries_; }
   const SyncedEntry* syncedEntry(Index index) const {
      auto it = syncedEntries_.find(index);
      return it == syncedEntries_.end() ? nullptr : &it->second;
   }
   // The synced entry at an index; throws std::out_of_range naming the index when none.
   const SyncedEntry& syncedEntryGet(Index index) const {
      const SyncedEntry* entry = syncedEntry(index);
      if (!entry) {
         throw std::out_of_range(
             fmt::format("{}: no synced entry at index {}", Derived::kTypeName, index));
      }
      return *entry;
   }
   void syncedEntryIs(Index index, const SyncedEntry& entry) {
      syncedEntries_.insert_or_assign(index, entry);
      this->publish("syncedEntry");
   }
   void syncedEntryDel(Index index) {
      syncedIndices_.erase(index);
      if (syncedEntries_.erase(index)) this->publish("syncedEntry");
   }
   void syncedEntryDelAll() {
      syncedEntries_.clear();
      syncedIndices_.clear();
      this->publish("syncedEntry");
   }
   // Block tables: every index of the hardware entry a synced record stands for, as sync held
   // them. Reconciliation binds exactly these and the purge frees exactly these, so that
   // nothing sync holds is left behind whatever the chip held.
   const std::vector<Index>* syncedIndices(Index index) const {
      auto it = syncedIndices_.find(index);
      return it == syncedIndices_.end() ? nullptr : &it->second;
   }
   void syncedIndicesIs(Index index, std::vector<Index> indices) {
      syncedIndices_.insert_or_assign(index, std::move(indices));
   }
   // Keys the replay held back (not reconciled: programmed at init complete), in the order
   // it held them back; a key may appear more than once. Empty outside a replay.
   const std::vector<Key>& replayHeldBack() const noexcept { return replayHeldBack_; }
   void replayHeldBackIs(const Key& key) { replayHeldBack_.push_back(key); }
   void replayHeldBackDelAll() { std::vector<Key>().swap(replayHeldBack_); }

   // Stale entries the purge left at indices of keys that will write over them (keys still
   // waiting for their needed entries), by index, with the key: deleted if the key goes, or
   // is written elsewhere, without writing over them. Usually empty.
   using SkippedStaleEntryMap = absl::btree_map<Index, Key>;
   const SkippedStaleEntryMap& skippedStaleEntries() const noexcept { return skippedStale_; }
   void skippedStaleEntryIs(Index index, const Key& key) {
      skippedStale_.insert_or_assign(index, key);
   }
   void skippedStaleEntryDel(Index index) {
      if (!skippedStale_.empty()) skippedStale_.erase(index);
   }

 protected:
   // Every table waits for the hardware to confirm its writes, and starts with the Util
   // its plug-in supplied (the search path may have been set after library load).
   explicit SwTableImpl(std::string name = "") : Base(std::move(name)) {
      SwTableLibrary<Derived>::load();
      this->writeResponseSmIs(this);
      this->hwResponseNeededIs(true);
      utilIs(UtilLoader::instance().utilForNewTable());
   }
   // A table owned through Ptr has run cleanup() already (lastReferenceGone); whatever is
   // left is only let go of, since the derived table is gone by now.
   ~SwTableImpl() override { detachAll(); }
   void lastReferenceGone() override { accessor().cleanup(); }

   SwTable::Accessor<Derived> accessor() { return SwTable::Accessor<Derived>(self()); }
   SwTable::Accessor<Derived> caccessor() const {
      return SwTable::Accessor<Derived>(const_cast<Derived*>(self()));
   }

 private:
   Derived* self() noexcept { return static_cast<Derived*>(this); }
   const Derived* self() const noexcept { return static_cast<const Derived*>(this); }

   // The table's count of a handle, out of the set's slot (about to be erased), so that the
   // caller lets go of it quietly.
   static EntryHandle* takeCount(const Ptr<EntryHandle>& slot) noexcept {
      return const_cast<Ptr<EntryHandle>&>(slot).detach();
   }
   // A handle the table lets go of leaves its key's resolved value with the table.
   void keepResolvedOf(EntryHandle* eh) {
      std::optional<Entry>* value = eh->resolvedValue();
      if (!value) return;
      unheldResolved_.insert_or_assign(eh->key(), std::move(*value));
      eh->resolvedValueDel();
   }

   Ptr<Util> util_;
   HandleSet handles_;
   mutable EntryHandle* lastFound_ = nullptr;  // the handle last looked up; not owned
   UnheldResolvedMap unheldResolved_;
   std::size_t resolvedCount_ = 0;  // held by handles and unheld
   UnresolvedEntryMap unresolvedEntries_;
   std::vector<Key> replayHeldBack_;
   SyncedEntryMap syncedEntries_;
   SyncedIndicesMap syncedIndices_;
   SkippedStaleEntryMap skippedStale_;
   WriteResponseCallback callback_;
};

// ---------------------------------------------------------------------------------------
// Handle and unresolved-entry forwarding, now that the accessor is complete.

template <typename Table, typename Key, typename Entry>
Index SwTableEntryHandleT<Table, Key, Entry>::hwIndexForDependentField() const {
   if (swTable_) {
      if (auto* util = swTable_->utilIfExists()) return util->hwIndexForDependentField(this);
   }
   return SwTableBase::getHwEntryIndex(this);
}

template <typename Table, typename Key, typename Entry>
void SwTableEntryHandleT<Table, Key, Entry>::handleEntryState() {
   if (swTable_) SwTable::Accessor<Table>(swTable_).handleEntryState(this, key_);
}

template <typename Table, typename Key, typename Entry>
void SwTableEntryHandleT<Table, Key, Entry>::handleResolvedEntryState() {
   if (swTable_) SwTable::Accessor<Table>(swTable_).handleResolvedEntryState(this);
}

template <typename Table, typename Key, typename Entry>
void SwTableEntryHandleT<Table, Key, Entry>::handleIndexSuggestions(IndexSet indices) {
   if (swTable_) SwTable::Accessor<Table>(swTable_).handleIndexSuggestions(this, IndexSet(indices));
}

template <typename Table, typename Key, typename Entry>
void SwTableEntryHandleT<Table, Key, Entry>::cleanup() {
   if (swTable_) SwTable::Accessor<Table>(swTable_).cleanup(this);
}

template <typename Table, typename Key, typename Entry>
void SwTableEntryHandleT<Table, Key, Entry>::lastUserGone() {
   SwTable::EntryHandle::lastUserGone();
   if (swTable_) SwTable::Accessor<Table>(swTable_).cleanup(this);
}

template <typename Table, typename Key, typename Entry>
void SwTableUnresolvedEntryT<Table, Key, Entry>::doResolve() {
   SwTable::Accessor<Table>(swTable_).doResolve(
       static_cast<typename Table::UnresolvedEntry*>(this));
}

template <typename Table, typename Key, typename Entry>
void SwTableUnresolvedEntryT<Table, Key, Entry>::doFailedNeededEntry() {
   SwTable::Accessor<Table>(swTable_).markFailedNeededEntry(
       static_cast<typename Table::UnresolvedEntry*>(this));
}

}  // namespace Asic
