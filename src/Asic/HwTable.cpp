#include "Asic/HwTable.h"

#include <stdexcept>

#include <fmt/format.h>

namespace Asic {
namespace {

// The ticket of one write; withdrawn unless the write was handed over: a write that threw
// never completes, and its ticket must not hold the handle's completion back forever.
struct IssuedWrite {
   explicit IssuedWrite(WriteResponseSm* sm)
       : sm(sm), ticket(sm ? sm->writeIssued() : WriteResponseSm::kNoTicket) {}
   ~IssuedWrite() {
      if (ticket != WriteResponseSm::kNoTicket) sm->writeWithdrawn(ticket);
   }
   void done() noexcept { ticket = WriteResponseSm::kNoTicket; }

   WriteResponseSm* sm;  // not owned
   WriteResponseSm::Ticket ticket;
};

}  // namespace

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
   IssuedWrite w(writeResponseSm_);
   doWrite(index, words, w.ticket);
   w.done();
}

void HwTable::entryClear(Index index) {
   checkIndex(index);
   IssuedWrite w(writeResponseSm_);
   doClear(index, w.ticket);
   w.done();
}

void IndexUserTracker::update(Index index, Op op) {
   if (index >= numEntries_) {
      throw std::out_of_range(
          fmt::format("index user tracker: index {} is past the hardware table's {} entries", index,
                      numEntries_));
   }
   ++updates_;
   switch (op) {
      case taken:
      case takenAgain:
         if (index >= users_.size()) users_.resize(std::size_t{index} + 1, 0);
         if (users_[index]++ == 0) ++usedIndices_;
         break;
      case released:
      case releasedByDelete:
         if (index < users_.size() && users_[index] != 0 && --users_[index] == 0) --usedIndices_;
         break;
   }
}

std::uint32_t IndexUserTracker::users(Index index) const {
   return index < users_.size() ? users_[index] : 0;
}

IndexUserTracker& IndexUserTracker::Stub::tracker(HwTable& hwTable, UnitId) {
   if (!hwTable.indexUserTracker())
      hwTable.indexUserTrackerIs(makePtr<IndexUserTracker>(hwTable.numEntries()));
   return *hwTable.indexUserTracker();
}

void IndexUserTracker::Stub::deleteTracker(HwTable* hwTable, UnitId, bool keepCounts) {
   if (!hwTable) return;
   hwTable->indexUserTrackerIs(nullptr);
   if (!keepCounts) hwTable->usedEntriesIs(0);
}

}  // namespace Asic
