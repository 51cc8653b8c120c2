#pragma once
// An entry handle of some other table, for tests and the reference agent's neighbour
// tables: its hardware index is simply stored, and its state is whatever its owner sets,
// so that the handles a table needs can be made ready, failed or wontProgram at will.
// It records the index suggestions it receives at restart.

#include <vector>

#include "Asic/RefCounted.h"
#include "Asic/SwTableBase.h"
#include "Asic/Types.h"

namespace VelmarMcast {

class VelmarMcastTestEntryHandle : public Asic::SwTableBase::EntryHandle {
 public:
   static constexpr std::string_view kTypeName = "VelmarMcast::VelmarMcastTestEntryHandle";
   using EntryState = Asic::SwTableBase::EntryState;

   explicit VelmarMcastTestEntryHandle(Asic::Index hwIndex = Asic::invalidIndex,
                                       EntryState state = EntryState::unresolved) {
      hwIndexIs(hwIndex);
      entryState_ = static_cast<std::uint8_t>(state);
   }

   // Makes the handle usable by dependents: its index, then `success`.
   void programmedIs(Asic::Index hwIndex) {
      hwIndexIs(hwIndex);
      entryStateIs(EntryState::success);
   }

   void handleIndexSuggestions(Asic::IndexSet indices) override {
      suggestions_.push_back(std::move(indices));
   }
   const std::vector<Asic::IndexSet>& suggestions() const noexcept { return suggestions_; }

 private:
   std::vector<Asic::IndexSet> suggestions_;
};

inline Asic::Ptr<VelmarMcastTestEntryHandle> testEntryHandle(
    Asic::Index hwIndex = Asic::invalidIndex,
    Asic::SwTableBase::EntryState state = Asic::SwTableBase::EntryState::unresolved) {
   return Asic::makePtr<VelmarMcastTestEntryHandle>(hwIndex, state);
}

}  // namespace VelmarMcast
