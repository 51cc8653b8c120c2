#pragma once
// The hardware-table layer as a table's Util sees it: a fixed number of entries of
// fixed width, written, deleted and read back by index. Writes and deletes complete
// asynchronously: the implementation reports each one to the bound write-response state
// machine (through the event loop). The simulated chip is one implementation.

#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "Asic/IndexUserTracker.h"
#include "Asic/RefCounted.h"
#include "Asic/Types.h"
#include "Asic/WriteResponseSm.h"

namespace Asic {

class HwTable : public RefCounted {
 public:
   using Words = std::span<const std::uint32_t>;

   HwTable(std::string name, UnitId unit, std::uint32_t numEntries, std::uint32_t entryWords)
       : name_(std::move(name)), unit_(unit), numEntries_(numEntries), entryWords_(entryWords) {}

   const std::string& name() const noexcept { return name_; }
   UnitId unit() const noexcept { return unit_; }
   std::uint32_t numEntries() const noexcept { return numEntries_; }
   std::uint32_t entryWords() const noexcept { return entryWords_; }

   // Entry-use counting: the table's count of used entries grows by `count`.
   virtual void usedEntriesInc(std::uint32_t count) { usedEntries_ += count; }
   std::uint64_t usedEntries() const noexcept { return usedEntries_; }
   void usedEntriesIs(std::uint64_t n) noexcept { usedEntries_ = n; }

   // Writes issued while a write context of this SM is open report their completion to it.
   void writeResponseSmIs(WriteResponseSm* sm) noexcept { writeResponseSm_ = sm; }
   WriteResponseSm* writeResponseSm() const noexcept { return writeResponseSm_; }

   // Index-user tracker, owned here; see IndexUserTracker::Stub.
   IndexUserTracker* indexUserTracker() const noexcept { return tracker_.get(); }
   void indexUserTrackerIs(Ptr<IndexUserTracker> t) noexcept { tracker_ = std::move(t); }

   // Throws std::out_of_range for an index past the table and std::invalid_argument for a
   // payload of the wrong width.
   void entryWrite(Index index, Words words);
   // Invalidates the entry. Completion is reported like a write.
   void entryClear(Index index);
   // Copies the entry's words; false when the entry is not valid.
   virtual bool entryRead(Index index, std::span<std::uint32_t> out) const = 0;
   virtual void forEachValidEntry(const std::function<void(Index, Words)>& fn) const = 0;

 protected:
   ~HwTable() override = default;
   void checkIndex(Index index) const;
   // Store the entry and report `ticket` (if not kNoTicket) when the write completes.
   virtual void doWrite(Index index, Words words, WriteResponseSm::Ticket ticket) = 0;
   virtual void doClear(Index index, WriteResponseSm::Ticket ticket) = 0;

 private:
   std::string name_;
   UnitId unit_;
   std::uint32_t numEntries_;
   std::uint32_t entryWords_;
   std::uint64_t usedEntries_ = 0;
   WriteResponseSm* writeResponseSm_ = nullptr;  // not owned; the table owns it
   Ptr<IndexUserTracker> tracker_;
};

}  // namespace Asic
