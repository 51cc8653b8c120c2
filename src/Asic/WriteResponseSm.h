#pragma once
// Follows a table's hardware writes to completion. The engine opens a write context for
// the handle whose value it writes; every hardware write issued inside the context counts
// as outstanding for that handle. The hardware layer reports each completion (through the
// event loop); when a handle's last outstanding write completes, the handle is told.

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
   };

   // Hardware layer: a write is being issued. Returns kNoTicket outside a write context.
   Ticket writeIssued();
   // Hardware layer: the write of `ticket` completed.
   void writeCompleted(Ticket ticket, bool ok);
   // Hardware layer: the write of `ticket` was refused before it reached the chip (the
   // layer threw). No response will come; the handle's other writes, if any, now fail.
   void writeWithdrawn(Ticket ticket);

   std::size_t outstandingWrites() const noexcept { return tickets_.size(); }
   std::size_t outstandingWrites(const SwTableBase::EntryHandle* eh) const;
   const void* swTable() const noexcept { return swTable_; }

 private:
   struct Outstanding {
      std::uint32_t writes = 0;
      bool failed = false;
   };
   const void* swTable_;  // not owned
   SwTableBase::EntryHandle* context_ = nullptr;
   Ticket nextTicket_ = 1;
   absl::flat_hash_map<Ticket, Ptr<SwTableBase::EntryHandle>> tickets_;
   absl::flat_hash_map<const SwTableBase::EntryHandle*, Outstanding> perHandle_;
};

}  // namespace Asic
