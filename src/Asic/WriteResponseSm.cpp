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

WriteResponseSm::Taken WriteResponseSm::take(Ticket ticket) {
   Taken taken;
   auto it = tickets_.find(ticket);
   if (it == tickets_.end()) return taken;  // not ours, or already reported
   taken.eh = std::move(it->second);
   tickets_.erase(it);
   auto found = perHandle_.find(taken.eh.get());
   if (found != perHandle_.end()) taken.out = &found->second;
   return taken;
}

void WriteResponseSm::writeCompleted(Ticket ticket, bool ok) {
   Taken t = take(ticket);
   if (!t.out) return;
   if (ticket < t.out->newest) {
      --t.out->superseded;
      forgetIfDone(t.eh.get(), *t.out);
      return;
   }
   t.out->failed |= !ok;
   if (--t.out->writes != 0) return;  // one response covers all writes of one programming
   const bool failed = t.out->failed;
   t.out->failed = 0;
   forgetIfDone(t.eh.get(), *t.out);
   t.eh->hwWriteCompleted(!failed);  // `t` keeps the handle alive for the call
}

void WriteResponseSm::writeWithdrawn(Ticket ticket) {
   Taken t = take(ticket);
   if (!t.out) return;
   if (ticket < t.out->newest) {
      --t.out->superseded;
   } else {
      t.out->failed = 1;
      --t.out->writes;
   }
   forgetIfDone(t.eh.get(), *t.out);
}  // `t` goes last: it may hold the last count of the handle

void WriteResponseSm::programmingAbandoned(const SwTableBase::EntryHandle* eh) {
   auto it = perHandle_.find(eh);
   if (it == perHandle_.end()) return;
   Outstanding& out = it->second;
   out.newest = nextTicket_;  // every ticket issued so far now belongs to an older programming
   out.superseded += out.writes;
   out.writes = 0;
   out.failed = 0;
   forgetIfDone(eh, out);
}

}  // namespace Asic
