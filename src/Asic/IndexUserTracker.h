#pragma once
// Per hardware table record of which indices are in use and how often, kept by the
// hardware-table layer so that it can tell live entries from free ones without asking
// every table.

#include <cstdint>

#include <absl/container/flat_hash_map.h>

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

   void update(Index index, Op op);
   std::uint32_t users(Index index) const;
   std::size_t usedIndices() const noexcept { return users_.size(); }
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
   absl::flat_hash_map<Index, std::uint32_t> users_;
   std::uint64_t updates_ = 0;
};

}  // namespace Asic
