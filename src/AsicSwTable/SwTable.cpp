#include "AsicSwTable/SwTable.h"

#include <map>
#include <stdexcept>

#include "AsicSwTable/SwTableLibrary.h"

#include <algorithm>
#include <cstdlib>

namespace Asic {

const std::string* agentProcessName() {
   static const std::string* name = [] {
      const char* value = std::getenv("AGENT_PROCESS_NAME");
      return value ? new std::string(value) : nullptr;  // process lifetime
   }();
   return name;
}

namespace {
std::map<std::string, SwTableRegistry::Factory, std::less<>>& tableFactories() {
   static auto* factories = new std::map<std::string, SwTableRegistry::Factory, std::less<>>();
   return *factories;
}
}  // namespace

void SwTableRegistry::factoryIs(std::string_view tableType, Factory factory) {
   if (factory == nullptr) {
      throw std::invalid_argument(fmt::format("table factory for '{}' is null", tableType));
   }
   auto [it, inserted] = tableFactories().try_emplace(std::string(tableType), factory);
   if (!inserted && it->second != factory) {
      throw std::logic_error(
          fmt::format("table type '{}' is already registered with another factory", tableType));
   }
}

SwTableRegistry::Factory SwTableRegistry::factory(std::string_view tableType) {
   auto it = tableFactories().find(tableType);
   return it == tableFactories().end() ? nullptr : it->second;
}

Ptr<SwTable> SwTableRegistry::tableIs(std::string_view tableType) {
   Factory make = factory(tableType);
   if (!make) {
      throw std::out_of_range(fmt::format("no table type '{}' is registered", tableType));
   }
   return make();
}

void ChipInfo::hwTableIs(UnitId unit, std::string tableType, Ptr<HwTable> hwTable) {
   tables_[fmt::format("{}/{}", unit, tableType)] = std::move(hwTable);
}

Ptr<HwTable> ChipInfo::hwTable(UnitId unit, const std::string& tableType) const {
   auto it = tables_.find(fmt::format("{}/{}", unit, tableType));
   return it == tables_.end() ? nullptr : it->second;
}

void HwTableRecoverGroup::tableIs(std::string tableType, SwTable* table) {
   tables_[std::move(tableType)] = table;
}

SwTable* HwTableRecoverGroup::table(const std::string& tableType) const {
   auto it = tables_.find(tableType);
   return it == tables_.end() ? nullptr : it->second;
}

bool HwTableRecoverGroup::recovered(const std::string& tableType) const {
   return recovered_.contains(tableType);
}

void HwTableRecoverGroup::recoveredIs(const std::string& tableType) {
   recovered_.insert(tableType);
}

SwTable::~SwTable() {
   if (hwTable_ && hwTable_->writeResponseSm() == writeResponseSm_.get()) {
      hwTable_->writeResponseSmIs(nullptr);
   }
}

void SwTable::configReplayCompleteIs(bool complete) {
   if (configReplayComplete_ == complete) return;
   configReplayComplete_ = complete;
   publish("configReplayComplete");
}

void SwTable::hwTableIs(Ptr<HwTable> hwTable) {
   if (hwTable_ == hwTable) return;
   if (hwTable_ && hwTable_->writeResponseSm() == writeResponseSm_.get()) {
      hwTable_->writeResponseSmIs(nullptr);
   }
   hwTable_ = std::move(hwTable);
   if (hwTable_ && writeResponseSm_) hwTable_->writeResponseSmIs(writeResponseSm_.get());
   publish("hwTable");
}

std::uint32_t SwTable::numEntries() const noexcept {
   return hwTable_ ? hwTable_->numEntries() : numEntries_;
}

void SwTable::indexAllocatorIs(Ptr<GenericIndexAllocator> allocator) {
   if (indexAllocator_ == allocator) return;
   indexAllocator_ = std::move(allocator);
   publish("indexAllocator");
}

void SwTable::writeResponseSmIs(const SwTable* swTable) {
   writeResponseSm_ = makePtr<WriteResponseSm>(swTable);
   if (hwTable_) hwTable_->writeResponseSmIs(writeResponseSm_.get());
}

void SwTable::writeResponseSmDel() {
   if (hwTable_ && hwTable_->writeResponseSm() == writeResponseSm_.get()) {
      hwTable_->writeResponseSmIs(nullptr);
   }
   writeResponseSm_.reset();
}

std::string_view toString(SwTable::ReconciliationStatus status) noexcept {
   switch (status) {
      case SwTable::ReconciliationStatus::notReconciled:
         return "notReconciled";
      case SwTable::ReconciliationStatus::reconciled:
         return "reconciled";
      case SwTable::ReconciliationStatus::indexReconciledContentsDiffer:
         return "indexReconciledContentsDiffer";
      case SwTable::ReconciliationStatus::nothingToReconcile:
         return "nothingToReconcile";
      case SwTable::ReconciliationStatus::staleEntryDeleted:
         return "staleEntryDeleted";
   }
   return "invalid";
}

std::string toString(const SwTable::ReconciliationStats& stats) {
   std::string out;
   for (std::size_t i = 0; i < SwTable::kReconciliationStatusCount; ++i) {
      fmt::format_to(std::back_inserter(out), "{}{}={}", i ? " " : "",
                     toString(static_cast<SwTable::ReconciliationStatus>(i)), stats.counts[i]);
   }
   return out;
}

std::string_view toString(SwTable::EntryHandle::EntryType type) noexcept {
   switch (type) {
      case SwTable::EntryHandle::EntryType::none:
         return "none";
      case SwTable::EntryHandle::EntryType::referenceOnly:
         return "referenceOnly";
      case SwTable::EntryHandle::EntryType::committed:
         return "committed";
      case SwTable::EntryHandle::EntryType::inDeletion:
         return "inDeletion";
   }
   return "invalid";
}

void SwTable::UnresolvedEntry::neededEntryHandleSmIs(Ptr<const SwTableBase::EntryHandle> eh) {
   if (!eh) return;
   bool outstanding = !SwTableBase::EntryHandle::isReady(eh->entryState());
   const_cast<SwTableBase::EntryHandle*>(eh.get())->watcherIs(this);
   needed_.push_back(Needed{std::move(eh), outstanding});
   outstanding_ += outstanding;
}

void SwTable::UnresolvedEntry::neededEntryHandleSmDelAll() noexcept {
   for (auto& n : needed_) const_cast<SwTableBase::EntryHandle*>(n.eh.get())->watcherDel(this);
   needed_.clear();
   outstanding_ = 0;
}

bool SwTable::UnresolvedEntry::neededEntryHandleFailed() const {
   return std::any_of(needed_.begin(), needed_.end(), [](const Needed& n) {
      return SwTableBase::EntryHandle::isFailed(n.eh->entryState());
   });
}

void SwTable::UnresolvedEntry::markFailedNeededEntry() {
   state_ = EntryState::failedNeededEntry;
   doFailedNeededEntry();
}

void SwTable::UnresolvedEntry::neededEntryHandleStateIs(const SwTableBase::EntryHandle* eh,
                                                        EntryState state) {
   // Resolution deletes this unresolved entry from its table: stay alive until done.
   Pin pin(this);
   for (auto& n : needed_) {
      if (n.eh.get() != eh) continue;
      if (SwTableBase::EntryHandle::isReady(state) && n.outstanding) {
         n.outstanding = false;
         if (--outstanding_ == 0) {
            state_ = EntryState::unresolved;
            doResolve();
            return;
         }
      } else if (SwTableBase::EntryHandle::isFailed(state)) {
         markFailedNeededEntry();
         return;
      }
   }
}

bool SwTable::IndexHelper::indexHas(Index index) const {
   return std::find(indices_.begin(), indices_.end(), index) != indices_.end();
}

void SwTable::IndexHelper::indexIs(Index index) {
   if (!indexHas(index)) indices_.push_back(index);
}

void SwTable::IndexHelper::indexDel(Index index) { std::erase(indices_, index); }

void SwTable::Util::updateHwIndexRefCountTracker(HwTable* hwTable, Index index,
                                                 IndexUserTracker::Op op) {
   if (!hwTable) return;
   IndexUserTracker::Stub::tracker(*hwTable, hwTable->unit()).update(index, op);
}

void SwTable::Util::doMountHwTableMountInfo(std::string_view utilType,
                                            Statebase::MountGroup& mountGroup, std::string name) {
   mountGroup.mountIs(fmt::format("{}/mountInfo{}", utilType, name));
}

void SwTable::Util::doMountHwTableRecoveryStatus(std::string_view utilType,
                                                 Statebase::MountGroup& mountGroup,
                                                 std::string name) {
   mountGroup.mountIs(fmt::format("{}/recoveryStatus{}", utilType, name));
}

void SwTable::Util::doRecoverHwTable(std::string_view tableType, HwTableRecoverGroup& recoverGroup,
                                     UnitId unitId, Statebase::EntityManager&,
                                     const ChipInfo& chipInfo, std::string) {
   const std::string type(tableType);
   SwTable* table = recoverGroup.table(type);
   if (!table) {
      throw std::invalid_argument(
          fmt::format("doRecoverHwTable: no table of type {} in the recover group", type));
   }
   Ptr<HwTable> hwTable = chipInfo.hwTable(unitId, type);
   if (!hwTable) {
      throw std::invalid_argument(
          fmt::format("doRecoverHwTable: no hardware table for {} on unit {}", type, unitId));
   }
   table->hwTableIs(std::move(hwTable));
   recoverGroup.recoveredIs(type);
}

}  // namespace Asic

namespace Asic::Detail {
namespace {
std::optional<bool>& programmedStateOverride() noexcept {
   static std::optional<bool> value;
   return value;
}
}  // namespace

bool parseProgrammedStateSwitch(const char* value) noexcept {
   if (!value) return false;
   char* end = nullptr;
   long n = std::strtol(value, &end, 10);
   return end != value && n != 0;
}

bool publishEntryHandleProgrammedState() {
   static const bool fromEnv =
       parseProgrammedStateSwitch(std::getenv("PUBLISH_ENTRY_HANDLE_PROGRAMMED_STATE"));
   const auto& forced = programmedStateOverride();
   return forced ? *forced : fromEnv;
}

void publishEntryHandleProgrammedStateIs(std::optional<bool> value) noexcept {
   programmedStateOverride() = value;
}

}  // namespace Asic::Detail
