#pragma once
// A simulated chip table seen as the hardware-table layer. A write lands in the table's
// memory at once, as a real chip's memory holds a PIO write when the call returns; its
// completion is posted to the event loop and reaches the bound write-response SM only when
// the loop runs.
//
// Lifetime contract: a posted completion keeps this table alive (a counted reference) and
// looks up the bound SM when it runs, never earlier. The owner of an SM must unbind it
// (writeResponseSmIs(nullptr)) before the SM goes; a completion whose SM is no longer the
// one bound when the write was issued is dropped, and counted as dropped. So a software
// table may be destroyed while its completions are still queued.
//
// Faults for tests, per table: completions held back for a number of loop turns, and
// writes that fail (the memory keeps its old contents; the completion reports failure).

#include <cstdint>
#include <deque>
#include <functional>
#include <span>

#include "Asic/EventLoop.h"
#include "Asic/HwTable.h"
#include "Asic/RefCounted.h"
#include "ChipSim/Faults.h"
#include "ChipSim/Memory.h"

namespace ChipSim {

class SimHwTable : public Asic::HwTable {
 public:
   // Hardware operations seen by this table since construction or the last reset.
   struct Counters {
      std::uint64_t writes = 0;                // every write that reached the chip, failed ones too
      std::uint64_t failedWrites = 0;          // of those, the ones that failed
      std::uint64_t clears = 0;                // deletes
      std::uint64_t completionsDelivered = 0;  // handed to the bound SM
      std::uint64_t completionsDropped = 0;    // SM unbound or replaced before delivery
      friend bool operator==(const Counters&, const Counters&) = default;
   };

   // `loop` is not owned and must outlive every completion this table posts.
   SimHwTable(Asic::EventLoop& loop, Asic::UnitId unit, Asic::Ptr<Memory> memory);

   Memory& memory() const noexcept { return *memory_; }

   bool entryRead(Asic::Index index, std::span<std::uint32_t> out) const override;
   void forEachValidEntry(const std::function<void(Asic::Index, Words)>& fn) const override;

   const Counters& counters() const noexcept { return counters_; }
   void countersReset() noexcept { counters_ = {}; }

   // The next `count` completions arrive `turns` loop turns later than they otherwise would.
   void completionsHeldIs(std::uint32_t count, std::uint32_t turns) noexcept {
      heldCompletions_ = count;
      holdTurns_ = turns;
   }
   std::uint32_t completionsHeld() const noexcept { return heldCompletions_; }
   // A chip-wide fault plan: writes and deletes that fail at random, completions late or out
   // of order. Null: none.
   void faultsIs(Asic::Ptr<Faults> faults) noexcept { faults_ = std::move(faults); }
   // The next `count` writes fail. Deletes are not affected.
   void writesFailingIs(std::uint32_t count) noexcept { failingWrites_ = count; }
   std::uint32_t writesFailing() const noexcept { return failingWrites_; }

 protected:
   ~SimHwTable() override = default;
   void doWrite(Asic::Index index, Words words, Asic::WriteResponseSm::Ticket ticket) override;
   void doClear(Asic::Index index, Asic::WriteResponseSm::Ticket ticket) override;

 private:
   struct Completion {
      const Asic::WriteResponseSm* issuedTo;  // compared, never dereferenced
      Asic::WriteResponseSm::Ticket ticket;
      bool ok;
      std::uint32_t turnsLeft;  // loop turns still to wait
   };
   void completionPost(Asic::WriteResponseSm::Ticket ticket, bool ok);
   void completionQueue(const Completion& completion);
   void completionTurn();
   void completionDeliver(const Completion& completion);

   Asic::EventLoop& loop_;  // not owned
   Asic::Ptr<Memory> memory_;
   Counters counters_;
   std::uint32_t heldCompletions_ = 0;
   std::uint32_t holdTurns_ = 0;
   std::uint32_t failingWrites_ = 0;
   Asic::Ptr<Faults> faults_;
   std::deque<Completion> completions_;  // posted, in the order of their loop tasks
};

}  // namespace ChipSim
