#include "Asic/WriteResponseSm.h"

namespace Asic {

WriteResponseSm::WriteContext::WriteContext(WriteResponseSm* sm,
                                            SwTableBase::EntryHandle* eh) noexcept
    : sm_(sm),
      previous_(sm ? sm->context_ : nullptr),
      previousStarted_(sm ? sm->contextStarted_ : false) {
   if (!sm_) return;
   sm_->context_ = eh;
   sm_->contextStarted_ = false;
}

WriteResponseSm::WriteContext::~WriteContext() {
   if (!sm_) return;
   sm_->context_ = previous_;
   sm_->contextStarted_ = previousStarted_;
}

WriteResponseSm::Ticket WriteResponseSm::writeIssued() {
   if (!context_) return kNoTicket;
   const Ticket t = nextTicket_++;
   Outstanding& out = perHandle_[context_];
   if (!contextStarted_) {
      // A new programming of the handle: whatever is still outstanding is superseded.
      contextStarted_ = true;
      out.newest = t;
      out.superseded += out.writes;
      out.writes = 0;
      out.failed = 0;
   }
   ++out.writes;
   tickets_.emplace(t, Ptr<SwTableBase::EntryHandle>(context_));
   return t;
}

std::size_t WriteResponseSm::outstandingWrites(const SwTableBase::EntryHandle* eh) const {
   auto it = perHandle_.find(eh);
   return it == perHandle_.end() ? 0 : it->second.writes + it->second.superseded;
}

void WriteResponseSm::forgetIfDone(const SwTableBase::EntryHandle* eh, const Outstanding& out) {
   if (out.writes == 0 && out.superseded == 0) perHandle_.erase(eh);
}

void WriteResponseSm::writeCompleted(Ticket ticket, bool ok) {
   auto it = tickets_.find(ticket);
   if (it == tickets_.end()) return;  // not ours, or already reported
   Ptr<SwTableBase::EntryHandle> eh = std::move(it->second);
   tickets_.erase(it);
   auto found = perHandle_.find(eh.get());
   if (found == perHandle_.end()) return;
   Outstanding& out = found->second;
   if (ticket < out.newest) {
      --out.superseded;
      forgetIfDone(eh.get(), out);
      return;
   }
   out.failed |= !ok;
   if (--out.writes != 0) return;  // one response covers all writes of one programming
   const bool failed = out.failed;
   out.failed = 0;
   forgetIfDone(eh.get(), out);
   eh->hwWriteCompleted(!failed);  // `eh` keeps the handle alive for the call
}

void WriteResponseSm::writeWithdrawn(Ticket ticket) {
   auto it = tickets_.find(ticket);
   if (it == tickets_.end()) return;
   Ptr<SwTableBase::EntryHandle> eh = std::move(it->second);
   tickets_.erase(it);
   auto found = perHandle_.find(eh.get());
   if (found == perHandle_.end()) return;
   Outstanding& out = found->second;
   if (ticket < out.newest) {
      --out.superseded;
   } else {
      out.failed = 1;
      --out.writes;
   }
   forgetIfDone(eh.get(), out);
}  // `eh` goes last: it may hold the last count of the handle

}  // namespace Asic
