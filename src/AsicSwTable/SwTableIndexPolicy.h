#pragma once
// How a table's keys map to hardware indices: one small policy per kind, which a table
// selects in its traits (`using IndexPolicy = Asic::IndexPolicy::OneIndex;`). A policy
// acquires a key's indices for programming and retrieves the ones it holds, gives the shape
// of the Util's write and delete calls and of the Util itself, traces what it acquired, takes
// over a synced entry's indices at a restart and purges the stale ones. The engine
// (SwTable::Accessor) calls the policy and never asks which kind a table is.
//
// The policies' functions take the table's accessor (`a`), of which they are friends.

#include <concepts>
#include <cstddef>
#include <exception>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "Asic/Assert.h"
#include "Asic/IndexAllocator.h"
#include "Asic/IndexUserTracker.h"
#include "Asic/Trace.h"
#include "Asic/Types.h"
#include "AsicSwTable/SwTable.h"
#include "AsicSwTable/SwTableTraits.h"

// Engine trace from a policy: "<table type> : <operation><text>".
#define SWT_POLICY_TRACE(a, level, op, text, ...)                        \
   ASIC_TRACE(std::decay_t<decltype(a)>::trace(), level, "{} : {}" text, \
              std::decay_t<decltype(a)>::Table::kTypeName, op __VA_OPT__(, ) __VA_ARGS__)

namespace Asic {

// The chip's side of a table whose keys take one index each.
template <typename T>
class SwTableUtilOneIndexT : public SwTable::Util {
 public:
   using Util::Util;
   using Key = typename T::Key;
   using Entry = typename T::Value;

   // Writes the key's resolved value at the index; an empty value clears the entry.
   virtual void hwTableEntryIs(T& table, Index hwIndex, const Key& key) = 0;
   // Removes the entry at the index.
   virtual void hwTableEntryDel(T& table, Index hwIndex) = 0;
   // True when the hardware entry at the index equals `entry`.
   virtual bool compareHwEntries(T& table, Index hwIndex, const Entry& entry) = 0;
   // Reads every valid hardware entry into the table's synced entries.
   virtual void syncEntries(HwTable* hwTable, T& table) = 0;
};

// The chip's side of a table whose keys take a block of indices each.
template <typename T>
class SwTableUtilBlockT : public SwTable::Util {
 public:
   using Util::Util;
   using Key = typename T::Key;
   using Entry = typename T::Value;

   // Writes the key's resolved value over its indices, in order (the first is the one
   // dependents name); an empty value clears them.
   virtual void hwTableEntryIs(T& table, const std::vector<Index>& hwIndices, const Key& key) = 0;
   // Removes the entries at the indices.
   virtual void hwTableEntryDel(T& table, const std::vector<Index>& hwIndices) = 0;
   // True when the hardware entry that starts at `hwIndex` equals `entry`.
   virtual bool compareHwEntries(T& table, Index hwIndex, const Entry& entry) = 0;
   // Reads every valid hardware entry into the table's synced entries, one record per
   // entry, at its first index.
   virtual void syncEntries(HwTable* hwTable, T& table) = 0;
   // The index that follows `hwIndex` within one entry's indices, as the hardware records
   // it; invalidIndex after the last.
   virtual Index getNextHwIndex(T& table, Index hwIndex) const = 0;
};

// The chip's side of a table whose keys are blocks of consecutive hardware entries, each of
// the table's SyncedEntry type (a head block's entries).
template <typename T>
class SwTableUtilRunT : public SwTable::Util {
 public:
   using Util::Util;
   using HwEntry = typename T::SyncedEntry;

   // Writes one hardware entry of a block.
   virtual void hwTableEntryIs(T& table, Index hwIndex, const HwEntry& entry) = 0;
   // Removes the entry at the index.
   virtual void hwTableEntryDel(T& table, Index hwIndex) = 0;
   // True when the two hold the same in hardware (every field the chip keeps).
   virtual bool compareEntries(const HwEntry& hw, const HwEntry& sw) const = 0;
   // Reads every valid hardware entry into the table's synced entries, one per index.
   virtual void syncEntries(HwTable* hwTable, T& table) = 0;
};

namespace IndexPolicy {

// What the kinds whose synced records are of the table's own entry type share.
struct PerEntrySync {
   struct HandleState {};  // nothing on the handle beyond its index
   static constexpr bool usesAllocator = true;

   // The index the key holds now, if any (its first, for a block).
   template <typename A>
   static std::optional<Index> heldIndex(A& a, const typename A::Key& key) {
      return a.allocator()->indexForKey(A::keyType(), &key);
   }

   // The hardware entry at `hwIndex` holds `value`.
   template <typename A>
   static bool matches(A& a, Index hwIndex, const typename A::Entry& value) {
      auto* util = a.swTable_->utilIfExists();
      return util && util->compareHwEntries(*a.swTable_, hwIndex, value);
   }
   // A key took over the hardware entry at `hwIndex`: it is no longer stale.
   template <typename A>
   static void syncedTakenOver(A& a, const typename A::Key&, Index hwIndex) {
      a.swTable_->syncedEntryDel(hwIndex);
   }
   // Passes what the chip holds at `hwIndex` to the tables `swValue` waits for.
   template <typename A>
   static void suggestDown(A& a, const typename A::Entry& swValue, Index hwIndex) {
      const auto* synced = a.swTable_->syncedEntry(hwIndex);
      a.suggestIndexToNeededTable(swValue, synced ? *synced : typename A::Entry{});
   }
};

// One index per key, the lowest free one of the allocator (the IPMC remap table).
// What the kinds with one index per key share: the index held inline (programming a key
// allocates nothing), the Util's one-index calls and their trace.
struct SingleIndex : PerEntrySync {
   using Indices = Index;
   template <typename T>
   using UtilBase = SwTableUtilOneIndexT<T>;

   static Index first(Index index) noexcept { return index; }
   static Index of(Index index) noexcept { return index; }
   template <typename F>
   static void forEach(Index index, F&& fn) {
      fn(index);
   }
   template <typename A>
   static void traceAcquired(const A& a, Index index) {
      SWT_POLICY_TRACE(a, 8, "traceHwIndex", " Acquired hwIndex : {}", index);
   }
   template <typename U, typename T, typename K>
   static void write(U& util, T& table, Index index, const K& key) {
      util.hwTableEntryIs(table, index, key);
   }
   template <typename U, typename T>
   static void del(U& util, T& table, Index index) {
      util.hwTableEntryDel(table, index);
   }
   // Sync keeps nothing beyond the records.
   template <typename A>
   static void synced(A&, typename A::Util&) {}
};

struct OneIndex : SingleIndex {
   // A table whose entries state a block size needs a block policy.
   template <typename T>
   static constexpr bool fits = !Trait::getBlockSizeDefinedByUser<T>;

   template <typename A>
   static Index acquire(A& a, const typename A::Key& key, const typename A::Entry&) {
      return a.allocator()->newIndexForKey(A::keyType(), &key, a.allocatorUser());
   }
   template <typename A>
   static Index retrieve(const A& a, const typename A::Key& key) {
      return a.doRetrieveHwIndex(key).value_or(invalidIndex);
   }
   // entryWriteAtIndex: the key's index is the one given.
   template <typename A>
   static GenericIndexAllocator::RequestStatus bind(A& a, Index index, const typename A::Key& key) {
      return a.allocator()->requestIndexForKey(index, A::keyType(), &key, a.allocatorUser());
   }

   // Takes over the index for the key, if no key owns it (and, with compareHw, the hardware
   // entry there is the key's value).
   template <typename A>
   static bool recover(A& a, const typename A::Key& key, Index hwIndex, bool compareHw) {
      GenericIndexAllocator* alloc = a.allocator();
      if (!alloc->keyForIndex(hwIndex, A::keyType()).empty() || !alloc->isIndexFree(hwIndex)) {
         SWT_POLICY_TRACE(a, 8, "reconcileUsingHwIndex", ": Index:{} not free", hwIndex);
         return false;
      }
      const auto* resolved = a.swTable_->resolvedEntry(key);
      ASIC_ASSERT_TEXT(resolved && resolved->has_value(), "resolvedEntry", "no resolved entry");
      if (compareHw && !matches(a, hwIndex, **resolved)) return false;
      const bool recovered =
          alloc->recoverIndexForKey(hwIndex, A::keyType(), &key, a.allocatorUser());
      ASIC_ASSERT_TEXT(recovered,
                       "swTable_->indexAllocator()->recoverIndexForKey( hwIndex, vixType< "
                       "EntryKeyT >(), &key )",
                       "");
      return true;
   }

   // "Assigned" is owned by a key of this table (see the accessor's ownsIndex): an index that
   // only a neighbour sharing the allocator uses (the IPMC lookup's group) is vertically
   // shared, so the stale entry goes and the index stays with the neighbour.
   template <typename A>
   static void purge(A& a) {
      using Status = SwTable::ReconciliationStatus;
      auto* util = a.swTable_->utilIfExists();
      GenericIndexAllocator* alloc = a.allocator();
      for (const auto& [hwIndex, entry] : a.swTable_->syncedEntries()) {
         util->updateHwIndexRefCountTracker(a.swTable_->hwTable(), hwIndex,
                                            IndexUserTracker::released);
         const bool assigned = alloc->isIndexAssigned(hwIndex, A::keyType());
         const bool ownedHere = assigned && a.ownsIndex(*alloc, hwIndex);
         if (!ownedHere || alloc->isIndexVerticallyShared(hwIndex, A::keyType())) {
            util->hwTableEntryDel(*a.swTable_, hwIndex);
            SWT_POLICY_TRACE(a, 8, "handleStaleEntries", ": Deleting stale hwEntry at index:{}",
                             hwIndex);
            a.swTable_->updateStatistic(Status::staleEntryDeleted, hwIndex);
            if (!assigned) {
               SWT_POLICY_TRACE(a, 8, "handleStaleEntries",
                                ": Marking index available in allocator");
               alloc->markIndexAvailable(hwIndex, A::keyType());
            }
         } else {
            SWT_POLICY_TRACE(a, 8, "handleStaleEntries", " Skip index:{}", hwIndex);
            const GenericValue owner = alloc->keyForIndex(hwIndex, A::keyType());
            if (const auto* key = owner.template get<typename A::Key>()) {
               a.swTable_->skippedStaleEntryIs(hwIndex, *key);
            }
         }
      }
   }
};

// A block of indices per key, as many as the key's value states (Entry::getBlockSize()),
// scattered wherever the allocator has them (the replication list and L2 sub-port tables).
struct ScatteredBlock : PerEntrySync {
   using Indices = std::vector<Index>;
   template <typename T>
   static constexpr bool fits = Trait::getBlockSizeDefinedByUser<T>;
   template <typename T>
   using UtilBase = SwTableUtilBlockT<T>;

   static Index first(const Indices& indices) noexcept {
      return indices.empty() ? invalidIndex : indices.front();
   }
   static Indices of(Index index) { return Indices{index}; }
   template <typename F>
   static void forEach(const Indices& indices, F&& fn) {
      for (Index index : indices) fn(index);
   }

   // A key placed by entryWriteAtIndex holds its first index only: the rest of its block is
   // added when the value (and so its size) is known.
   template <typename A>
   static Indices acquire(A& a, const typename A::Key& key, const typename A::Entry& value) {
      GenericIndexAllocator* alloc = a.allocator();
      const std::uint32_t blockSize = value.getBlockSize();
      Indices indices = alloc->newIndicesForKey(A::keyType(), &key, blockSize, a.allocatorUser());
      if (!indices.empty() && indices.size() < blockSize) {
         return alloc->extendIndicesForKey(A::keyType(), &key,
                                           blockSize - static_cast<std::uint32_t>(indices.size()));
      }
      return indices;
   }
   // entryWriteAtIndex: the given index is the first of the key's block, the one its
   // dependents name.
   template <typename A>
   static GenericIndexAllocator::RequestStatus bind(A& a, Index index, const typename A::Key& key) {
      const Indices held = a.allocator()->indicesForKey(A::keyType(), &key);
      if (!held.empty() && held.front() == index) {
         return GenericIndexAllocator::RequestStatus::alreadyOwned;
      }
      return a.allocator()->requestIndexForKey(index, A::keyType(), &key, a.allocatorUser());
   }
   template <typename A>
   static Indices retrieve(const A& a, const typename A::Key& key) {
      if (auto* alloc = a.swTable_->indexAllocator()) {
         auto indices = alloc->indicesForKey(A::keyType(), &key);
         if (!indices.empty()) return indices;
      }
      if (auto index = a.doRetrieveHwIndex(key)) return Indices{*index};
      return {};
   }
   template <typename A>
   static void traceAcquired(const A& a, const Indices& indices) {
      SWT_POLICY_TRACE(a, 8, "traceHwIndex", "Acquired hwIndex vector starting :{}, size:{}",
                       first(indices), indices.size());
   }
   template <typename U, typename T, typename K>
   static void write(U& util, T& table, const Indices& indices, const K& key) {
      util.hwTableEntryIs(table, indices, key);
   }
   template <typename U, typename T>
   static void del(U& util, T& table, const Indices& indices) {
      util.hwTableEntryDel(table, indices);
   }

   // Until the purge, no new entry may be given an index that a stale entry still occupies:
   // each record's indices (its hardware links, as far as they lead to indices no earlier
   // record claimed and nothing else owns) are held, and kept with the record. A record whose
   // first index is already in use (reserved, or another record's, of this table or of one
   // sharing the allocator) keeps no index: the purge only takes it out of this memory.
   template <typename A>
   static void synced(A& a, typename A::Util& util) {
      GenericIndexAllocator* alloc = a.allocator();
      auto& table = *a.swTable_;
      for (const auto& [hwIndex, entry] : table.syncedEntries()) {
         Indices indices;
         const std::uint32_t bound = table.numEntries();
         for (Index index = hwIndex; !isExhausted(index) && indices.size() < bound;) {
            if (!alloc->holdIndex(index)) break;  // a loop, another record's, reserved or owned
            indices.push_back(index);
            try {
               index = util.getNextHwIndex(table, index);
            } catch (const std::exception&) {
               break;  // a link the chip cannot follow ends the entry
            }
         }
         if (indices.empty()) {
            SWT_POLICY_TRACE(a, 0, "syncEntries", ": hwEntry at index:{} is on an index in use",
                             hwIndex);
         }
         table.syncedIndicesIs(hwIndex, std::move(indices));
      }
   }

   // Takes over the indices sync held for the record at `hwIndex`, if no key owns that index,
   // the hardware entry has the key's length and (with compareHw) is the key's value.
   template <typename A>
   static bool recover(A& a, const typename A::Key& key, Index hwIndex, bool compareHw) {
      using T = typename A::Table;
      auto& table = *a.swTable_;
      const bool owned = !a.allocator()->keyForIndex(hwIndex, A::keyType()).empty();
      if constexpr (Trait::suggestedIndexMustBeFree<T>) {
         ASIC_ASSERT_TEXT(
             !owned, "!allocator->isIndexAssigned( hwIndex, Vix::vixType< EntryKeyT >() )", "");
      }
      if (owned) {
         SWT_POLICY_TRACE(a, 8, "reconcileUsingHwIndex", ": Index:{} not free", hwIndex);
         return false;
      }
      // Only a hardware entry that sync found, and holds for this table, can be taken over.
      const Indices* indices = table.syncedIndices(hwIndex);
      if (!indices) {
         SWT_POLICY_TRACE(a, 8, "reconcileUsingHwIndex", ": Index:{} holds no synced entry",
                          hwIndex);
         return false;
      }
      if (indices->empty()) {
         SWT_POLICY_TRACE(a, 8, "reconcileUsingHwIndex", ": Index:{} not free", hwIndex);
         return false;
      }
      const auto* resolved = table.resolvedEntry(key);
      ASIC_ASSERT_TEXT(resolved && resolved->has_value(), "resolvedEntry", "no resolved entry");
      const auto& entry = **resolved;
      auto* util = table.utilIfExists();
      if (!util) return false;
      const std::uint32_t blockSize = entry.getBlockSize();
      // A hardware entry of another length cannot take this value in place.
      if (indices->size() != blockSize) {
         SWT_POLICY_TRACE(a, 8, "reconcileUsingHwIndex",
                          ": Index:{} holds {} entries, key needs {}", hwIndex, indices->size(),
                          blockSize);
         return false;
      }
      if (compareHw && !util->compareHwEntries(table, hwIndex, entry)) return false;
      const bool recovered =
          a.allocator()->recoverIndicesForKey(*indices, A::keyType(), &key, a.allocatorUser());
      ASIC_ASSERT_TEXT(recovered,
                       "swTable_->indexAllocator()->recoverIndicesForKey( hwIndices, vixType< "
                       "EntryKeyT >(), &key )",
                       "");
      return true;
   }

   // Each stale record stands for all the indices of its hardware entry, as sync held them:
   // they are deleted and freed together.
   template <typename A>
   static void purge(A& a) {
      using Status = SwTable::ReconciliationStatus;
      auto& table = *a.swTable_;
      auto* util = table.utilIfExists();
      GenericIndexAllocator* alloc = a.allocator();
      for (const auto& [hwIndex, entry] : table.syncedEntries()) {
         const Indices* indices = table.syncedIndices(hwIndex);
         if (!indices) continue;
         if (indices->empty()) {
            // On an index in use elsewhere: only this memory's entry goes.
            util->hwTableEntryDel(table, of(hwIndex));
            SWT_POLICY_TRACE(a, 8, "handleStaleEntries",
                             ": Deleting stale hwEntry at index:{}, size:0", hwIndex);
            table.updateStatistic(Status::staleEntryDeleted, hwIndex);
            continue;
         }
         for (Index index : *indices) {
            ASIC_ASSERT_TEXT(!alloc->isIndexAssigned(index, A::keyType()),
                             "!allocator->isIndexAssigned( hwIndex.value(), Vix::vixType< "
                             "EntryKeyT >() )",
                             "");
            util->updateHwIndexRefCountTracker(table.hwTable(), index, IndexUserTracker::released);
         }
         util->hwTableEntryDel(table, *indices);
         SWT_POLICY_TRACE(a, 8, "handleStaleEntries",
                          ": Deleting stale hwEntry at index:{}, size:{}", hwIndex,
                          indices->size());
         table.updateStatistic(Status::staleEntryDeleted, hwIndex);
         SWT_POLICY_TRACE(a, 8, "handleStaleEntries", ": Marking index available in allocator");
         for (Index index : *indices) {
            if (alloc->isIndexHeld(index)) alloc->markIndexAvailable(index, A::keyType());
         }
      }
   }
};

// A run of consecutive indices per key, as many as the key states (Key::getBlockSize()),
// whose entries are hardware entries of their own type (the replication head table: a block
// of head entries, Key::entry(offset)). Offset o of a key lives at base + o. Nothing is
// allocated per programming.
struct ConsecutiveRun {
   static constexpr bool usesAllocator = true;
   template <typename A>
   static std::optional<Index> heldIndex(A& a, const typename A::Key& key) {
      return PerEntrySync::heldIndex(a, key);
   }
   struct Indices {
      Index base = invalidIndex;
      std::uint32_t size = 0;
      bool operator==(const Indices&) const = default;
   };
   struct HandleState {
      std::uint32_t blockSize = 0;
   };
   template <typename T>
   static constexpr bool fits =
       Trait::getBlockSizeDefinedByUser<T>&& requires(const typename T::Key& key, Index offset) {
      { key.entry(offset) } -> std::same_as<typename T::SyncedEntry>;
   };
   template <typename T>
   using UtilBase = SwTableUtilRunT<T>;

   static Index first(const Indices& run) noexcept { return run.size ? run.base : invalidIndex; }
   static Indices of(Index index) noexcept { return {index, 1}; }
   template <typename F>
   static void forEach(const Indices& run, F&& fn) {
      if (isExhausted(first(run))) return;
      for (std::uint32_t o = 0; o < run.size; ++o) fn(run.base + o);
   }

   template <typename A>
   static Indices acquire(A& a, const typename A::Key& key, const typename A::Entry&) {
      const std::uint32_t size = key.getBlockSize();
      const auto indices =
          a.allocator()->newIndicesForKey(A::keyType(), &key, size, a.allocatorUser());
      if (indices.empty()) return {};
      return {indices.front(), static_cast<std::uint32_t>(indices.size())};
   }
   template <typename A>
   static Indices retrieve(const A& a, const typename A::Key& key) {
      auto index = a.doRetrieveHwIndex(key);
      if (!index || isExhausted(*index)) return {};
      return {*index, key.getBlockSize()};
   }
   // entryWriteAtIndex: the key's run starts at the index given.
   template <typename A>
   static GenericIndexAllocator::RequestStatus bind(A& a, Index index, const typename A::Key& key) {
      using Status = GenericIndexAllocator::RequestStatus;
      GenericIndexAllocator* alloc = a.allocator();
      if (auto held = alloc->indexForKey(A::keyType(), &key)) {
         return *held == index ? Status::alreadyOwned : Status::keyHasOther;
      }
      const std::uint32_t size = key.getBlockSize();
      if (index >= alloc->numEntries() || size > alloc->numEntries() - index) {
         return Status::outOfRange;
      }
      return alloc->recoverIndicesForKey(runOf(index, size), A::keyType(), &key, a.allocatorUser())
                 ? Status::assigned
                 : Status::indexTaken;
   }
   template <typename A>
   static void traceAcquired(const A& a, const Indices& run) {
      SWT_POLICY_TRACE(a, 8, "traceHwIndex", " Acquired hwIndex : {}", first(run));
   }
   // Offsets are walked by count: an offset the block lacks is written as the default entry.
   template <typename U, typename T, typename K>
   static void write(U& util, T& table, const Indices& run, const K& key) {
      const auto* resolved = table.resolvedEntry(key);
      for (std::uint32_t o = 0; o < run.size; ++o) {
         if (resolved && resolved->has_value()) {
            util.hwTableEntryIs(table, run.base + o, (*resolved)->entry(o));
         } else {
            util.hwTableEntryDel(table, run.base + o);  // a withdrawn value leaves the chip
         }
      }
   }
   template <typename U, typename T>
   static void del(U& util, T& table, const Indices& run) {
      forEach(run, [&](Index index) { util.hwTableEntryDel(table, index); });
   }

   // Until the purge, no new block may be placed over entries the chip still holds: a
   // block that changed is written beside the old one, which keeps replicating until its
   // owner switches over. The purge (or a recovery) ends each hold.
   template <typename A>
   static void synced(A& a, typename A::Util&) {
      GenericIndexAllocator* alloc = a.allocator();
      for (const auto& [hwIndex, entry] : a.swTable_->syncedEntries()) alloc->holdIndex(hwIndex);
   }

   // Every offset of `value` is in the synced entries at base + offset, as the chip holds it.
   template <typename A>
   static bool matches(A& a, Index base, const typename A::Entry& value) {
      auto& table = *a.swTable_;
      auto* util = table.utilIfExists();
      if (!util) return false;
      const std::uint32_t size = value.getBlockSize();
      for (std::uint32_t o = 0; o < size; ++o) {
         const Index index = base + o;
         const auto* synced = table.syncedEntry(index);
         if (!synced) {
            SWT_POLICY_TRACE(a, 8, "reconcileUsingHwIndex", ": No synced entry at index:{}", index);
            return false;
         }
         const auto entry = value.entry(o);
         if (!util->compareEntries(*synced, entry)) {
            SWT_POLICY_TRACE(a, 8, "reconcileUsingHwIndex",
                             ": Mismatch entry:{}, syncedEntry:{}, hwIndex:{}, offset:{}, "
                             "blockSize:{}",
                             entry, *synced, base, o, size);
            return false;
         }
      }
      return true;
   }

   // Takes over the run at `hwIndex` for the key: every entry there is the key's (with
   // compareHw) and the allocator gives the run.
   template <typename A>
   static bool recover(A& a, const typename A::Key& key, Index hwIndex, bool compareHw) {
      SWT_POLICY_TRACE(a, 8, "reconcileUsingHwIndex", ": hwIndex:{}", hwIndex);
      const auto* resolved = a.swTable_->resolvedEntry(key);
      ASIC_ASSERT_TEXT(resolved && resolved->has_value(), "resolvedEntry", "no resolved entry");
      const std::uint32_t size = key.getBlockSize();
      if (compareHw && size != 0 && !matches(a, hwIndex, **resolved)) return false;
      GenericIndexAllocator* alloc = a.allocator();
      const bool fitsTable = hwIndex < alloc->numEntries() && size <= alloc->numEntries() - hwIndex;
      if (!fitsTable || !alloc->recoverIndicesForKey(runOf(hwIndex, size), A::keyType(), &key,
                                                     a.allocatorUser())) {
         SWT_POLICY_TRACE(a, 8, "reconcileUsingHwIndex", ": BlockSize: {} not available at: {}",
                          size, hwIndex);
         return false;
      }
      return true;
   }

   // A key took over the run at `base`: none of its entries is stale any more.
   template <typename A>
   static void syncedTakenOver(A& a, const typename A::Key& key, Index base) {
      const std::uint32_t size = key.getBlockSize();
      for (std::uint32_t o = 0; o < size; ++o) a.swTable_->syncedEntryDel(base + o);
   }

   // The lists a waiting block names are offered the head pointers the chip holds at the
   // same offsets of the run at `base`.
   template <typename A>
   static void suggestDown(A& a, const typename A::Entry& swValue, Index base) {
      const std::uint32_t size = swValue.getBlockSize();
      SWT_POLICY_TRACE(a, 8, "suggestIndexToNeededTable",
                       ": entryBlock:{}, baseIndex:{}, blockSize:{}", swValue, base, size);
      typename A::Entry synced;
      for (std::uint32_t o = 0; o < size; ++o) {
         if (const auto* hw = a.swTable_->syncedEntry(base + o)) synced.entryIs(o, *hw);
      }
      A::suggestDependentFields(swValue, synced);
   }

   // The chip does not record where one block ends and the next begins: each run of
   // adjacent stale entries goes as one block. An index a key of this table holds now is
   // skipped (it is, or will be, written over).
   template <typename A>
   static void purge(A& a) {
      using Status = SwTable::ReconciliationStatus;
      auto& table = *a.swTable_;
      auto* util = table.utilIfExists();
      GenericIndexAllocator* alloc = a.allocator();
      Indices run;
      auto flush = [&] {
         if (run.size == 0) return;
         forEach(run, [&](Index index) {
            util->updateHwIndexRefCountTracker(table.hwTable(), index, IndexUserTracker::released);
         });
         SWT_POLICY_TRACE(a, 8, "handleStaleEntries",
                          ": Deleting stale block from syncedEntry. size={}, baseIndex:{}",
                          run.size, run.base);
         del(*util, table, run);
         table.updateStatistic(Status::staleEntryDeleted, run.base);
         forEach(run, [&](Index index) {
            if (alloc->isIndexHeld(index)) alloc->markIndexAvailable(index, A::keyType());
         });
         run = {};
      };
      for (const auto& [hwIndex, entry] : table.syncedEntries()) {
         const GenericValue owner = alloc->keyForIndex(hwIndex, A::keyType());
         if (const auto* key = owner.template get<typename A::Key>()) {
            flush();
            SWT_POLICY_TRACE(a, 8, "handleStaleEntries", " Skip index:{}", hwIndex);
            // Left for the key to write over, or to delete if it goes first; a key that has
            // written there already has nothing to leave.
            const auto* eh = table.entryHandle(*key);
            if (!eh || isExhausted(eh->hwIndex())) table.skippedStaleEntryIs(hwIndex, *key);
            continue;
         }
         if (run.size != 0 && hwIndex != run.base + run.size) flush();
         if (run.size == 0) run.base = hwIndex;
         ++run.size;
      }
      flush();
   }

 private:
   static std::vector<Index> runOf(Index base, std::uint32_t size) {
      std::vector<Index> indices(size);
      for (std::uint32_t o = 0; o < size; ++o) indices[o] = base + o;
      return indices;
   }
};

// The key is the hardware index (the port aggregation register): no allocator, nothing to
// acquire, nothing to take over but the key's own index.
struct KeyIsIndex : SingleIndex {
   static constexpr bool usesAllocator = false;
   template <typename T>
   static constexpr bool fits =
       std::same_as<typename T::Key, Index> && !Trait::getBlockSizeDefinedByUser<T>;
   template <typename A>
   static std::optional<Index> heldIndex(A&, Index key) {
      return key;
   }
   template <typename A>
   static Index acquire(A&, Index key, const typename A::Entry&) {
      return key;
   }
   template <typename A>
   static Index retrieve(const A&, Index key) {
      return key;
   }
   template <typename A>
   static bool recover(A& a, Index key, Index hwIndex, bool compareHw) {
      if (hwIndex != key) return false;
      const auto* resolved = a.swTable_->resolvedEntry(key);
      ASIC_ASSERT_TEXT(resolved && resolved->has_value(), "resolvedEntry", "no resolved entry");
      return !compareHw || matches(a, hwIndex, **resolved);
   }

   // An index someone holds (a replayed or adopted value) keeps its hardware entry; the
   // others go.
   template <typename A>
   static void purge(A& a) {
      using Status = SwTable::ReconciliationStatus;
      auto& table = *a.swTable_;
      auto* util = table.utilIfExists();
      for (const auto& [index, entry] : table.syncedEntries()) {
         const auto* resolved = table.resolvedEntry(index);
         if (resolved && resolved->has_value()) {
            SWT_POLICY_TRACE(a, 8, "handleStaleEntries", " Skip resolved key:{}", index);
            continue;  // the synced records all go when the purge ends
         }
         util->updateHwIndexRefCountTracker(table.hwTable(), index, IndexUserTracker::released);
         util->hwTableEntryDel(table, index);
         SWT_POLICY_TRACE(a, 8, "handleStaleEntries", ": Deleting stale hwEntry for key:{}", index);
         table.updateStatistic(Status::staleEntryDeleted, index);
      }
   }
};

}  // namespace IndexPolicy
}  // namespace Asic
