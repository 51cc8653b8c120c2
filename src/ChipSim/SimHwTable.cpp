#include "ChipSim/SimHwTable.h"

#include <utility>

#include "Asic/Trace.h"

namespace ChipSim {
namespace {

const Asic::TraceHandle& chipTrace() {
   static const Asic::TraceHandle& handle = Asic::traceHandle("ChipSim");
   return handle;
}

}  // namespace

SimHwTable::SimHwTable(Asic::EventLoop& loop, Asic::UnitId unit, Asic::Ptr<Memory> memory)
    : HwTable(memory->name(), unit, memory->numEntries(), memory->entryWords()),
      loop_(loop),
      memory_(std::move(memory)) {}

bool SimHwTable::entryRead(Asic::Index index, std::span<std::uint32_t> out) const {
   checkIndex(index);
   return memory_->read(index, out);
}

void SimHwTable::forEachValidEntry(const std::function<void(Asic::Index, Words)>& fn) const {
   memory_->forEachValid(fn);
}

void SimHwTable::doWrite(Asic::Index index, Words words, Asic::WriteResponseSm::Ticket ticket) {
   ++counters_.writes;
   bool ok = true;
   if (failingWrites_ > 0 || (faults_ && faults_->operationFails())) {
      if (failingWrites_ > 0) --failingWrites_;
      ++counters_.failedWrites;
      ok = false;
   } else {
      memory_->write(index, words);
   }
   ASIC_TRACE(chipTrace(), 9, "ChipSim : write {}[{}] {}", name(), index, ok ? "ok" : "failed");
   completionPost(ticket, ok);
}

void SimHwTable::doClear(Asic::Index index, Asic::WriteResponseSm::Ticket ticket) {
   ++counters_.clears;
   const bool ok = !(faults_ && faults_->operationFails());
   if (ok) memory_->clear(index);
   ASIC_TRACE(chipTrace(), 9, "ChipSim : clear {}[{}] {}", name(), index, ok ? "ok" : "failed");
   completionPost(ticket, ok);
}

void SimHwTable::completionPost(Asic::WriteResponseSm::Ticket ticket, bool ok) {
   if (ticket == Asic::WriteResponseSm::kNoTicket) return;  // nobody waits for it
   std::uint32_t delay = 0;
   if (heldCompletions_ > 0) {
      --heldCompletions_;
      delay = holdTurns_;
   }
   if (faults_) delay += faults_->completionDelay();
   completionQueue(Completion{writeResponseSm(), ticket, ok, delay});
}

// The loop task carries only the table (small enough for the task's inline storage, so a
// write allocates nothing for its response); the completion waits in the table's own queue.
// Tasks of one table run in the order they were posted and each takes the queue's front,
// so each task meets the completion it was posted for.
void SimHwTable::completionQueue(const Completion& completion) {
   completions_.push_back(completion);
   loop_.post([self = Asic::Ptr<SimHwTable>(this)] { self->completionTurn(); });
}

void SimHwTable::completionTurn() {
   Completion completion = completions_.front();
   completions_.pop_front();
   if (completion.turnsLeft > 0) {
      --completion.turnsLeft;
      completionQueue(completion);  // one more turn
   } else {
      completionDeliver(completion);
   }
}

void SimHwTable::completionDeliver(const Completion& completion) {
   Asic::WriteResponseSm* sm = writeResponseSm();
   // A different SM numbers its tickets afresh: an old ticket would complete a stranger.
   if (!sm || sm != completion.issuedTo) {
      ++counters_.completionsDropped;
      return;
   }
   ++counters_.completionsDelivered;
   sm->writeCompleted(completion.ticket, completion.ok);
}

}  // namespace ChipSim
