#pragma once
// Base classes of every software table: the table itself (flags, statistics, hardware
// table, allocator, write-response state machine), the engine-side entry handle with its
// type and resolved-entry state, the unresolved entry that waits for other tables'
// handles, the per-handle index helper and the Util base. The generic engine
// (SwTable::Accessor<T>, SwTableAccessor.h) works on these.

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include <absl/container/btree_set.h>
#include <absl/container/flat_hash_map.h>
#include <fmt/format.h>

#include "Asic/Assert.h"
#include "Asic/HwTable.h"
#include "Asic/IndexAllocator.h"
#include "Asic/SwTableBase.h"
#include "Asic/Types.h"
#include "Asic/WriteResponseSm.h"

namespace Statebase {

// The agent's shared-state mount group, reduced to the record of what was mounted.
class MountGroup {
 public:
   void mountIs(std::string path) { mounts_.insert(std::move(path)); }
   bool mounted(const std::string& path) const { return mounts_.contains(path); }
   std::size_t mounts() const noexcept { return mounts_.size(); }

 private:
   absl::btree_set<std::string> mounts_;
};

}  // namespace Statebase

namespace Asic {

class SwTable;

// Which hardware table serves which software table on each unit.
class ChipInfo {
 public:
   void hwTableIs(UnitId unit, std::string tableType, Ptr<HwTable> hwTable);
   Ptr<HwTable> hwTable(UnitId unit, const std::string& tableType) const;

 private:
   absl::flat_hash_map<std::string, Ptr<HwTable>> tables_;  // "<unit>/<tableType>"
};

// The software tables of one agent that take part in a recovery.
class HwTableRecoverGroup {
 public:
   void tableIs(std::string tableType, SwTable* table);  // not owned
   SwTable* table(const std::string& tableType) const;
   bool recovered(const std::string& tableType) const;
   void recoveredIs(const std::string& tableType);

 private:
   absl::flat_hash_map<std::string, SwTable*> tables_;
   absl::btree_set<std::string> recovered_;
};

}  // namespace Asic

namespace Statebase {
// The agent's entity manager; only its identity matters to recovery here.
class EntityManager {};
}  // namespace Statebase

namespace Asic {

class SwTable : public SwTableBase {
 public:
   // Result of reconciling one key after a restart; 4 counts stale entries purged.
   enum class ReconciliationStatus : std::uint8_t {
      notReconciled = 0,
      reconciled = 1,
      indexReconciledContentsDiffer = 2,
      nothingToReconcile = 3,
      staleEntryDeleted = 4,
   };
   static constexpr std::size_t kReconciliationStatusCount = 5;

   struct ReconciliationStats {
      std::array<std::uint64_t, kReconciliationStatusCount> counts{};
      std::uint64_t operator[](ReconciliationStatus s) const {
         return counts[static_cast<std::size_t>(s)];
      }
   };

   class EntryHandle;
   class UnresolvedEntry;
   class IndexHelper;
   class Util;
   template <typename T>
   class Accessor;
   template <typename T>
   class EntryIteratorConst;

   const std::string& name() const noexcept { return name_; }

   // Configuration replay after a restart: true until the agent says it is complete.
   bool configReplayInProgress() const noexcept { return !configReplayComplete_; }
   bool configReplayComplete() const noexcept { return configReplayComplete_; }
   void configReplayCompleteIs(bool complete);

   // Every write waits for a hardware write response when set.
   bool hwResponseNeeded() const noexcept { return hwResponseNeeded_; }
   void hwResponseNeededIs(bool needed) noexcept { hwResponseNeeded_ = needed; }

   // The hardware table the table is bound to (null until mounted or recovered).
   HwTable* hwTable() const noexcept { return hwTable_.get(); }
   void hwTableIs(Ptr<HwTable> hwTable);
   // Entry count: the hardware table's, else the one set here.
   std::uint32_t numEntries() const noexcept;
   void numEntriesIs(std::uint32_t n) noexcept { numEntries_ = n; }
   UnitId unit() const noexcept { return hwTable_ ? hwTable_->unit() : 0; }

   GenericIndexAllocator* indexAllocator() const noexcept { return indexAllocator_.get(); }
   void indexAllocatorIs(Ptr<GenericIndexAllocator> allocator);

   WriteResponseSm* writeResponseSm() const noexcept { return writeResponseSm_.get(); }
   void writeResponseSmIs(const SwTable* swTable);
   void writeResponseSmDel();

   // Set at each programming to whether the index came from reconciliation.
   bool reconciledIndex() const noexcept { return reconciledIndex_; }
   void reconciledIndexIs(bool v) noexcept { reconciledIndex_ = v; }
   // How the next programming reports its index to the index-user tracker (0, 1, 2).
   std::uint8_t indexUserMode() const noexcept { return indexUserMode_; }
   void indexUserModeIs(std::uint8_t mode) noexcept { indexUserMode_ = mode; }
   // When set, clean-up of a never-programmed handle still goes through the delete dance.
   bool cleanupThroughDeleteDance() const noexcept { return cleanupThroughDeleteDance_; }
   void cleanupThroughDeleteDanceIs(bool v) noexcept { cleanupThroughDeleteDance_ = v; }

   // Hears each reconciliation outcome as it is counted: the status, the hardware index it
   // concerns (a block's first) and the key as text (empty for a stale entry). Unset by
   // default, when counting costs one branch more; the key is formatted only when set.
   using ReconciliationObserver =
       std::function<void(ReconciliationStatus, Index, std::string_view key)>;
   void reconciliationObserverIs(ReconciliationObserver observer) {
      reconciliationObserver_ = std::move(observer);
   }

   // `key` (when given) must be formattable; it is formatted only for an observer.
   template <typename Key = std::nullptr_t>
   void updateStatistic(ReconciliationStatus status, Index index = invalidIndex,
                        const Key* key = nullptr) {
      ++stats_.counts[static_cast<std::size_t>(status)];
      if (reconciliationObserver_) [[unlikely]] {
         if constexpr (std::is_same_v<Key, std::nullptr_t>) {
            reconciliationObserver_(status, index, {});
         } else {
            reconciliationObserver_(status, index, key ? fmt::format("{}", *key) : std::string());
         }
      }
   }
   const ReconciliationStats& reconciliationStats() const noexcept { return stats_; }
   void reconciliationStatsDelAll() noexcept { stats_ = {}; }

   // Agent-side mounting and recovery of the hardware table.
   virtual void doMountHwTableMountInfo(Statebase::MountGroup& mountGroup) = 0;
   virtual void doMountHwTableRecoveryStatus(Statebase::MountGroup& mountGroup) = 0;
   virtual void doRecoverHwTable(HwTableRecoverGroup& recoverGroup, UnitId unitId,
                                 Statebase::EntityManager& entityManager,
                                 const ChipInfo& chipInfo) = 0;
   virtual std::string_view typeName() const noexcept = 0;

 protected:
   explicit SwTable(std::string name) : name_(std::move(name)) {}
   ~SwTable() override;

 private:
   std::string name_;
   Ptr<HwTable> hwTable_;
   Ptr<GenericIndexAllocator> indexAllocator_;
   Ptr<WriteResponseSm> writeResponseSm_;
   ReconciliationStats stats_;
   ReconciliationObserver reconciliationObserver_;
   std::uint32_t numEntries_ = 0;
   bool configReplayComplete_ = true;
   bool hwResponseNeeded_ = false;
   bool reconciledIndex_ = false;
   bool cleanupThroughDeleteDance_ = false;
   std::uint8_t indexUserMode_ = 0;
};

std::string_view toString(SwTable::ReconciliationStatus status) noexcept;
// "reconciled=3 indexReconciledContentsDiffer=0 ..." in status order.
std::string toString(const SwTable::ReconciliationStats& stats);

class SwTable::EntryHandle : public SwTableBase::EntryHandle {
 public:
   enum class EntryType : std::uint8_t {
      none = 0,
      referenceOnly = 1,
      committed = 2,
      inDeletion = 3,
   };

   EntryType entryType() const noexcept { return static_cast<EntryType>(entryType_); }
   void entryTypeIs(EntryType type) {
      if (entryType_ == static_cast<std::uint8_t>(type)) return;
      entryType_ = static_cast<std::uint8_t>(type);
      publish("entryType");
   }

   EntryState resolvedEntryState() const { return checked(resolvedEntryState_); }
   // Stores and publishes the state, then dispatches handleResolvedEntryState(), also when
   // it is unchanged: a write response is news even if the state already said so.
   void resolvedEntryStateIs(EntryState state) {
      ASIC_ASSERT_MSG(static_cast<std::uint8_t>(state) < kEntryStateCount, "invalid entry state");
      if (resolvedEntryState_ != static_cast<std::uint8_t>(state)) {
         resolvedEntryState_ = static_cast<std::uint8_t>(state);
         publish("resolvedEntryState");
      }
      handleResolvedEntryState();
   }

   // The key has nothing in hardware any more (its delete completed while a new commit held
   // the handle): back to never programmed, without a dispatch.
   void resolvedEntryStateReset() {
      hwIndexIs(invalidIndex);
      if (resolvedEntryState_ == static_cast<std::uint8_t>(EntryState::unresolved)) return;
      resolvedEntryState_ = static_cast<std::uint8_t>(EntryState::unresolved);
      publish("resolvedEntryState");
   }

   // A write response ends the programming of the handle's resolved value.
   void hwWriteCompleted(bool ok) override {
      resolvedEntryStateIs(ok ? EntryState::success : EntryState::programFailed);
   }

   virtual void handleResolvedEntryState() {}
   // Releases what the handle holds of other tables.
   virtual void doAmendReferences() {}
   virtual void cleanup() {}

 protected:
   EntryHandle() = default;
};

std::string_view toString(SwTable::EntryHandle::EntryType type) noexcept;

// An entry that waits for entry handles of other tables. Each needed handle that is not
// ready yet counts as outstanding; the last one to become ready triggers doResolve().
class SwTable::UnresolvedEntry : public RefCounted, public SwTableBase::EntryHandleWatcher {
 public:
   // Registers a needed handle; it counts as outstanding unless it is ready already.
   void neededEntryHandleSmIs(Ptr<const SwTableBase::EntryHandle> eh);
   // Number of needed handles still outstanding.
   std::uint32_t neededEntryHandleSms() const noexcept { return outstanding_; }
   std::size_t neededEntryHandles() const noexcept { return needed_.size(); }
   // Some needed handle is in a failed state.
   bool neededEntryHandleFailed() const;
   void neededEntryHandleSmDelAll() noexcept;

   EntryState state() const noexcept { return state_; }
   // A needed handle failed: the entry stays unresolved and its key's handle is told.
   void markFailedNeededEntry();

   void neededEntryHandleStateIs(const SwTableBase::EntryHandle* eh, EntryState state) override;

 protected:
   UnresolvedEntry() = default;
   ~UnresolvedEntry() override { neededEntryHandleSmDelAll(); }
   virtual void doResolve() = 0;
   virtual void doFailedNeededEntry() = 0;

 private:
   struct Needed {
      Ptr<const SwTableBase::EntryHandle> eh;
      bool outstanding;
   };
   std::vector<Needed> needed_;
   std::uint32_t outstanding_ = 0;
   EntryState state_ = EntryState::unresolved;
};

// Candidate hardware indices suggested for one handle during a restart, in the order
// they arrived; a repeated suggestion is ignored.
class SwTable::IndexHelper {
 public:
   bool indexHas(Index index) const;
   void indexIs(Index index);
   void indexDel(Index index);
   void indexDelAll() noexcept { indices_.clear(); }
   const std::vector<Index>& indices() const noexcept { return indices_; }
   bool empty() const noexcept { return indices_.empty(); }

 private:
   std::vector<Index> indices_;
};

// Base of every table's Util: the hardware hooks a table's plug-in provides, plus the
// mount and recovery services of the hardware-table layer.
class SwTable::Util : public RefCounted {
 public:
   explicit Util(std::string name) : name_(std::move(name)) {}
   const std::string& name() const noexcept { return name_; }

   // Index-use update on the hardware table's tracker.
   virtual void updateHwIndexRefCountTracker(HwTable* hwTable, Index index,
                                             IndexUserTracker::Op op);

   static void doMountHwTableMountInfo(std::string_view utilType, Statebase::MountGroup& mountGroup,
                                       std::string name);
   static void doMountHwTableRecoveryStatus(std::string_view utilType,
                                            Statebase::MountGroup& mountGroup, std::string name);
   // Binds the table of that type in the group to its hardware table on `unitId`.
   static void doRecoverHwTable(std::string_view tableType, HwTableRecoverGroup& recoverGroup,
                                UnitId unitId, Statebase::EntityManager& entityManager,
                                const ChipInfo& chipInfo, std::string name);

 protected:
   ~Util() override = default;

 private:
   std::string name_;
};

// Tables that choose hardware indices themselves through an allocator; keeps the index
// suggestions of each handle during a restart.
class SwUnknownIndexTable : public SwTable {
 public:
   IndexHelper& indexHelperIs(const SwTableBase::EntryHandle* eh) { return indexHelpers_[eh]; }
   // Suggestions exist only at a restart: outside one the collection is empty and is not
   // hashed into at every commit and removal.
   IndexHelper* indexHelper(const SwTableBase::EntryHandle* eh) {
      if (indexHelpers_.empty()) return nullptr;
      auto it = indexHelpers_.find(eh);
      return it == indexHelpers_.end() ? nullptr : &it->second;
   }
   void indexHelperDel(const SwTableBase::EntryHandle* eh) {
      if (!indexHelpers_.empty()) indexHelpers_.erase(eh);
   }
   void indexHelperDelAll() noexcept { indexHelpers_.clear(); }
   std::size_t indexHelpers() const noexcept { return indexHelpers_.size(); }

 protected:
   using SwTable::SwTable;

 private:
   absl::flat_hash_map<const SwTableBase::EntryHandle*, IndexHelper> indexHelpers_;
};

}  // namespace Asic

template <>
struct fmt::formatter<Asic::SwTable::EntryHandle::EntryType> : fmt::formatter<std::string_view> {
   auto format(Asic::SwTable::EntryHandle::EntryType t, format_context& ctx) const {
      return fmt::formatter<std::string_view>::format(Asic::toString(t), ctx);
   }
};
template <>
struct fmt::formatter<Asic::SwTable::ReconciliationStatus> : fmt::formatter<std::string_view> {
   auto format(Asic::SwTable::ReconciliationStatus s, format_context& ctx) const {
      return fmt::formatter<std::string_view>::format(Asic::toString(s), ctx);
   }
};

namespace Asic::Detail {

// "PUBLISH_ENTRY_HANDLE_PROGRAMMED_STATE": a non-zero decimal value completes handles at
// once, without waiting for a hardware write response. Read once per process.
bool publishEntryHandleProgrammedState();
bool parseProgrammedStateSwitch(const char* value) noexcept;
// For tests in one process that need both settings: overrides what the variable said.
void publishEntryHandleProgrammedStateIs(std::optional<bool> value) noexcept;

}  // namespace Asic::Detail
