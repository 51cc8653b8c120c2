#include "Asic/HwTable.h"

#include <stdexcept>

#include <fmt/format.h>

namespace Asic {

void HwTable::checkIndex(Index index) const {
   if (index >= numEntries_) {
      throw std::out_of_range(fmt::format("hardware table {}: index {} out of range (entries: {})",
                                          name_, index, numEntries_));
   }
}

void HwTable::entryWrite(Index index, Words words) {
   checkIndex(index);
   if (words.size() != entryWords_) {
      throw std::invalid_argument(fmt::format("hardware table {}: entry of {} words, expected {}",
                                              name_, words.size(), entryWords_));
   }
   doWrite(index, words, writeResponseSm_ ? writeResponseSm_->writeIssued() : WriteResponseSm::kNoTicket);
}

void HwTable::entryClear(Index index) {
   checkIndex(index);
   doClear(index, writeResponseSm_ ? writeResponseSm_->writeIssued() : WriteResponseSm::kNoTicket);
}

void IndexUserTracker::update(Index index, Op op) {
   ++updates_;
   switch (op) {
      case taken:
      case takenAgain:
         ++users_[index];
         break;
      case released:
      case releasedByDelete:
         if (auto it = users_.find(index); it != users_.end() && --it->second == 0) users_.erase(it);
         break;
   }
}

std::uint32_t IndexUserTracker::users(Index index) const {
   auto it = users_.find(index);
   return it == users_.end() ? 0 : it->second;
}

IndexUserTracker& IndexUserTracker::Stub::tracker(HwTable& hwTable, UnitId) {
   if (!hwTable.indexUserTracker()) hwTable.indexUserTrackerIs(makePtr<IndexUserTracker>());
   return *hwTable.indexUserTracker();
}

void IndexUserTracker::Stub::deleteTracker(HwTable* hwTable, UnitId, bool keepCounts) {
   if (!hwTable) return;
   hwTable->indexUserTrackerIs(nullptr);
   if (!keepCounts) hwTable->usedEntriesIs(0);
}

}  // namespace Asic
