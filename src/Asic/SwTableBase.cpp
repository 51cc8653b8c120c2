#include "Asic/SwTableBase.h"

#include <algorithm>

namespace Asic {

std::string_view toString(SwTableBase::EntryState state) noexcept {
   switch (state) {
      case SwTableBase::EntryState::unresolved:
         return "unresolved";
      case SwTableBase::EntryState::inProgress:
         return "inProgress";
      case SwTableBase::EntryState::indexReconciled:
         return "indexReconciled";
      case SwTableBase::EntryState::wontProgram:
         return "wontProgram";
      case SwTableBase::EntryState::success:
         return "success";
      case SwTableBase::EntryState::failedNeededEntry:
         return "failedNeededEntry";
      case SwTableBase::EntryState::programFailed:
         return "programFailed";
   }
   return "invalid";
}

SwTableBase::EntryHandle::~EntryHandle() { delete watchers_; }

void SwTableBase::EntryHandle::entryStateIs(EntryState state) {
   ASIC_ASSERT_MSG(static_cast<std::uint8_t>(state) < kEntryStateCount, "invalid entry state");
   if (entryState_ == static_cast<std::uint8_t>(state)) return;
   entryState_ = static_cast<std::uint8_t>(state);
   // An observer or watcher may drop the last other reference while being told: the
   // dispatch below still needs the handle.
   Pin pin(this);
   publish("entryState");
   notifyWatchers(state);
   handleEntryState();
}

void SwTableBase::EntryHandle::entryStateRepublish() {
   publish("entryState");
   handleEntryState();
}

void SwTableBase::EntryHandle::watcherIs(EntryHandleWatcher* watcher) {
   if (!watchers_) watchers_ = new std::vector<EntryHandleWatcher*>();
   watchers_->push_back(watcher);
}

void SwTableBase::EntryHandle::watcherDel(EntryHandleWatcher* watcher) noexcept {
   if (!watchers_) return;
   auto it = std::find(watchers_->begin(), watchers_->end(), watcher);
   if (it != watchers_->end()) watchers_->erase(it);
   if (watchers_->empty()) {
      delete watchers_;
      watchers_ = nullptr;
   }
}

void SwTableBase::EntryHandle::notifyWatchers(EntryState state) {
   if (!watchers_) return;
   // A watcher may resolve and unregister itself while being told: walk a copy, and keep
   // this handle alive for the walk (a pin: the walk itself is not a user).
   Pin pin(this);
   auto watchers = *watchers_;
   for (EntryHandleWatcher* w : watchers) {
      if (watchers_ && std::find(watchers_->begin(), watchers_->end(), w) != watchers_->end()) {
         w->neededEntryHandleStateIs(this, state);
      }
   }
}

void SwTableBase::suggestIndicesToNeededEntryHandle(const EntryHandle* eh, IndexSet indices) {
   if (!eh) return;
   const_cast<EntryHandle*>(eh)->handleIndexSuggestions(std::move(indices));
}

}  // namespace Asic
