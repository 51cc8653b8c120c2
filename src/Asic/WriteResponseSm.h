#pragma once
// Follows a table's hardware writes to completion. The engine opens a write context for
// the handle whose value it writes; the hardware writes issued inside one context are one
// programming of that handle. The hardware layer reports each completion (through the
// event loop); when the last write of a handle's newest programming completes, the handle
// is told whether all of them succeeded. The responses of a programming that a newer one
// superseded are absorbed: the chip holds the newer value, whatever became of the older.

#include <cstdint>

#include <absl/container/flat_hash_map.h>

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

   std::size_t outstandingWrites() const noexcept { return tickets_.size(); }
   std::size_t outstandingWrites(const SwTableBase::EntryHandle* eh) const;
   const void* swTable() const noexcept { return swTable_; }

 private:
   // Tickets only grow, so a ticket belongs to the handle's newest programming exactly when
   // it is not older than that programming's first one.
   struct Outstanding {
      Ticket newest = 0;                  // first ticket of the newest programming
      std::uint32_t writes = 0;           // of the newest programming
      std::uint32_t superseded : 31 = 0;  // of older programmings, absorbed when they complete
      std::uint32_t failed : 1 = 0;       // some write of the newest programming failed
   };
   // The ticket taken out: its handle, and the handle's record (null when none is left).
   struct Taken {
      Ptr<SwTableBase::EntryHandle> eh;
      Outstanding* out = nullptr;
   };
   Taken take(Ticket ticket);
   // Drops the handle's record once nothing of it is outstanding.
   void forgetIfDone(const SwTableBase::EntryHandle* eh, const Outstanding& out);

   const void* swTable_;  // not owned
   SwTableBase::EntryHandle* context_ = nullptr;
   bool contextStarted_ = false;  // the open context has issued a write (a programming began)
   Ticket nextTicket_ = 1;
   absl::flat_hash_map<Ticket, Ptr<SwTableBase::EntryHandle>> tickets_;
   absl::flat_hash_map<const SwTableBase::EntryHandle*, Outstanding> perHandle_;
};

}  // namespace Asic
