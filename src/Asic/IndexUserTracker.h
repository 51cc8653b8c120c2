#pragma once
// Per hardware table record of which indices are in use and how often, kept by the
// hardware-table layer so that it can tell live entries from free ones without asking
// every table.

#include <cstdint>
#include <vector>

#include "Asic/RefCounted.h"
#include "Asic/Types.h"

namespace Asic {

class HwTable;

class IndexUserTracker : public RefCounted {
 public:
   // Operation codes of update().
   enum Op : std::uint8_t {
      taken = 0,             // a key starts using the index
      takenAgain = 1,        // a key that held the index with no value holds a value again
      released = 2,          // a stale index's use is dropped (purge)
      releasedByDelete = 3,  // a key's value is withdrawn (delete dance)
   };

   // `numEntries`: the hardware table's size; an index at or past it is refused.
   explicit IndexUserTracker(std::uint32_t numEntries = invalidIndex) : numEntries_(numEntries) {}

   // Throws std::out_of_range for an index past the hardware table.
   void update(Index index, Op op);
   std::uint32_t users(Index index) const;
   std::size_t usedIndices() const noexcept { return usedIndices_; }
   std::uint64_t updates() const noexcept { return updates_; }

   class Stub {
    public:
      // The tracker of a hardware table, created on first use.
      static IndexUserTracker& tracker(HwTable& hwTable, UnitId unit);
      // Drops the hardware table's tracker (table clean-up). `keepCounts` keeps the
      // table's used-entry count as it is.
      static void deleteTracker(HwTable* hwTable, UnitId unit, bool keepCounts);
   };

 private:
   // Counts by index, grown to the highest index seen: hardware tables are dense and every
   // write updates the tracker, so an array beats a hash map in time and space.
   std::vector<std::uint32_t> users_;
   std::size_t usedIndices_ = 0;
   std::uint32_t numEntries_;
   std::uint64_t updates_ = 0;
};

}  // namespace Asic
