#pragma once
// Follows a table's hardware writes to completion. The engine opens a write context for
// the handle whose value it writes; the hardware writes issued inside one context are one
// programming of that handle. The hardware layer reports each completion (through the
// event loop); when the last write of a handle's newest programming completes, the handle
// is told whether all of them succeeded. The responses of a programming that a newer one
// superseded are absorbed: the chip holds the newer value, whatever became of the older.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Asic/RefCounted.h"
#include "Asic/SwTableBase.h"

namespace Asic {

class WriteResponseSm : public RefCounted {
 public:
   using Ticket = std::uint64_t;
   static constexpr Ticket kNoTicket = 0;

   explicit WriteResponseSm(const void* swTable = nullptr) : swTable_(swTable) {}

   // RAII scope: writes issued while it lives belong to `eh`.
   class WriteContext {
    public:
      WriteContext(WriteResponseSm* sm, SwTableBase::EntryHandle* eh) noexcept;
      ~WriteContext();
      WriteContext(const WriteContext&) = delete;
      WriteContext& operator=(const WriteContext&) = delete;

    private:
      WriteResponseSm* sm_;
      SwTableBase::EntryHandle* previous_;
      bool previousStarted_;
   };

   // Hardware layer: a write is being issued. Returns kNoTicket outside a write context.
   Ticket writeIssued();
   // Hardware layer: the write of `ticket` completed.
   void writeCompleted(Ticket ticket, bool ok);
   // Hardware layer: the write of `ticket` was refused before it reached the chip (the
   // layer threw). No response will come; the handle's other writes, if any, now fail.
   void writeWithdrawn(Ticket ticket);

   // Engine: the handle's newest programming was refused part-way (the chip cannot hold the
   // value). Its writes already issued are absorbed when they complete; the caller reports
   // the failure itself.
   void programmingAbandoned(const SwTableBase::EntryHandle* eh);

   std::size_t outstandingWrites() const noexcept { return outstanding_; }
   std::size_t outstandingWrites(const SwTableBase::EntryHandle* eh) const;
   const void* swTable() const noexcept { return swTable_; }

 private:
   using Progress = SwTableBase::EntryHandle::WriteProgress;
   // The ticket taken out: its handle (null when the ticket is not outstanding).
   Ptr<SwTableBase::EntryHandle> take(Ticket ticket);
   static Progress& progress(SwTableBase::EntryHandle* eh) noexcept { return eh->writeProgress_; }
   // A handle with nothing outstanding starts its next programming afresh.
   static void forgetIfDone(Progress& out) noexcept {
      if (out.writes == 0 && out.superseded == 0) out = Progress{};
   }
   // The ticket was issued before the programming that `out` calls the newest.
   static bool superseded(Ticket ticket, const Progress& out) noexcept {
      return static_cast<std::int32_t>(static_cast<std::uint32_t>(ticket) - out.newest) < 0;
   }

   const void* swTable_;  // not owned
   SwTableBase::EntryHandle* context_ = nullptr;
   bool contextStarted_ = false;  // the open context has issued a write (a programming began)
   Ticket nextTicket_ = 1;
   // Outstanding tickets from `firstTicket_` on, by ticket: responses come mostly in the
   // order of their writes, so a ring without hashing; a slot whose response came is null
   // until the slots before it are done too. The ring's size is a power of two; it grows by
   // doubling and is kept between bursts, unless a burst made it larger than kRingKept.
   Ptr<SwTableBase::EntryHandle>& slot(Ticket ticket) noexcept {
      return ring_[(head_ + (ticket - firstTicket_)) & (ring_.size() - 1)];
   }
   void ringGrow();
   std::vector<Ptr<SwTableBase::EntryHandle>> ring_;
   std::size_t head_ = 0;     // slot of firstTicket_
   std::size_t tickets_ = 0;  // slots in use, from head_ on
   Ticket firstTicket_ = 1;
   std::size_t outstanding_ = 0;
   static constexpr std::size_t kRingKept = std::size_t{1} << 16;
};

}  // namespace Asic
