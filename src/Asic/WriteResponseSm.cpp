#include "Asic/WriteResponseSm.h"

#include <algorithm>

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
   Progress& out = progress(context_);
   if (!contextStarted_) {
      // A new programming of the handle: whatever is still outstanding is superseded.
      contextStarted_ = true;
      out.newest = static_cast<std::uint32_t>(t);
      out.superseded += out.writes;
      out.writes = 0;
      out.failed = 0;
   }
   ++out.writes;
   if (tickets_ == 0) firstTicket_ = t;
   if (tickets_ == ring_.size()) ringGrow();
   ++tickets_;
   slot(t) = Ptr<SwTableBase::EntryHandle>(context_);
   ++outstanding_;
   return t;
}

void WriteResponseSm::ringGrow() {
   std::vector<Ptr<SwTableBase::EntryHandle>> grown(std::max<std::size_t>(64, ring_.size() * 2));
   for (std::size_t i = 0; i < tickets_; ++i) {
      grown[i] = std::move(ring_[(head_ + i) & (ring_.size() - 1)]);
   }
   ring_.swap(grown);
   head_ = 0;
}

std::size_t WriteResponseSm::outstandingWrites(const SwTableBase::EntryHandle* eh) const {
   const Progress& out = eh->writeProgress_;
   return out.writes + out.superseded;
}

Ptr<SwTableBase::EntryHandle> WriteResponseSm::take(Ticket ticket) {
   if (ticket < firstTicket_ || ticket - firstTicket_ >= tickets_) return {};
   Ptr<SwTableBase::EntryHandle> eh = std::move(slot(ticket));
   if (!eh) return eh;  // already reported
   --outstanding_;
   while (tickets_ != 0 && !ring_[head_]) {
      head_ = (head_ + 1) & (ring_.size() - 1);
      --tickets_;
      ++firstTicket_;
   }
   if (tickets_ == 0 && ring_.size() > kRingKept) {
      std::vector<Ptr<SwTableBase::EntryHandle>>().swap(ring_);  // a huge burst's ring goes
      head_ = 0;
   }
   return eh;
}

void WriteResponseSm::writeCompleted(Ticket ticket, bool ok) {
   Ptr<SwTableBase::EntryHandle> eh = take(ticket);
   if (!eh) return;
   Progress& out = progress(eh.get());
   if (superseded(ticket, out)) {
      --out.superseded;
      forgetIfDone(out);
      return;
   }
   out.failed |= !ok;
   if (--out.writes != 0) return;  // one response covers all writes of one programming
   const bool failed = out.failed;
   out.failed = 0;
   forgetIfDone(out);
   eh->hwWriteCompleted(!failed);  // `eh` keeps the handle alive for the call
}

void WriteResponseSm::writeWithdrawn(Ticket ticket) {
   Ptr<SwTableBase::EntryHandle> eh = take(ticket);
   if (!eh) return;
   Progress& out = progress(eh.get());
   if (superseded(ticket, out)) {
      --out.superseded;
   } else {
      out.failed = 1;
      --out.writes;
   }
   forgetIfDone(out);
}  // `eh` goes last: it may hold the last count of the handle

void WriteResponseSm::programmingAbandoned(const SwTableBase::EntryHandle* eh) {
   Progress& out = progress(const_cast<SwTableBase::EntryHandle*>(eh));
   if (out.writes == 0 && out.superseded == 0) return;
   out.newest = static_cast<std::uint32_t>(
       nextTicket_);  // every ticket issued so far now belongs to an older programming
   out.superseded += out.writes;
   out.writes = 0;
   out.failed = 0;
   forgetIfDone(out);
}

}  // namespace Asic
