#include "Asic/WriteResponseSm.h"

namespace Asic {

WriteResponseSm::WriteContext::WriteContext(WriteResponseSm* sm,
                                            SwTableBase::EntryHandle* eh) noexcept
    : sm_(sm), previous_(sm ? sm->context_ : nullptr) {
   if (sm_) sm_->context_ = eh;
}

WriteResponseSm::WriteContext::~WriteContext() {
   if (sm_) sm_->context_ = previous_;
}

WriteResponseSm::Ticket WriteResponseSm::writeIssued() {
   if (!context_) return kNoTicket;
   Ticket t = nextTicket_++;
   tickets_.emplace(t, Ptr<SwTableBase::EntryHandle>(context_));
   ++perHandle_[context_].writes;
   return t;
}

std::size_t WriteResponseSm::outstandingWrites(const SwTableBase::EntryHandle* eh) const {
   auto it = perHandle_.find(eh);
   return it == perHandle_.end() ? 0 : it->second.writes;
}

void WriteResponseSm::writeCompleted(Ticket ticket, bool ok) {
   auto it = tickets_.find(ticket);
   if (it == tickets_.end()) return;  // not ours, or already reported
   Ptr<SwTableBase::EntryHandle> eh = std::move(it->second);
   tickets_.erase(it);
   auto& out = perHandle_[eh.get()];
   out.failed |= !ok;
   if (--out.writes != 0) return;  // one response covers all writes of one programming
   bool failed = out.failed;
   perHandle_.erase(eh.get());
   eh->hwWriteCompleted(!failed);
}

void WriteResponseSm::writeWithdrawn(Ticket ticket) {
   auto it = tickets_.find(ticket);
   if (it == tickets_.end()) return;
   const SwTableBase::EntryHandle* eh = it->second.get();
   auto out = perHandle_.find(eh);
   if (out != perHandle_.end()) {
      out->second.failed = true;
      if (--out->second.writes == 0) perHandle_.erase(out);
   }
   tickets_.erase(it);  // last: may release the handle
}

}  // namespace Asic
