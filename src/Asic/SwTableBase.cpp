#include "Asic/SwTableBase.h"

#include <algorithm>
#include <mutex>
#include <vector>

#include <absl/container/flat_hash_map.h>

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

namespace {

using Watchers = std::vector<SwTableBase::EntryHandleWatcher*>;  // not owned

// Watchers of every watched handle. Locked so that handles of tables on several threads may
// be watched; one handle is watched and told from one thread at a time.
struct WatcherTable {
   std::mutex mutex;
   absl::flat_hash_map<const SwTableBase::EntryHandle*, Watchers> byHandle;
};

WatcherTable& watcherTable() {
   static auto* table = new WatcherTable;  // never destroyed: handles may outlive statics
   return *table;
}

}  // namespace

SwTableBase::EntryHandle::~EntryHandle() {
   if (!watched_) return;
   WatcherTable& side = watcherTable();
   std::lock_guard lock(side.mutex);
   side.byHandle.erase(this);
}

std::size_t SwTableBase::EntryHandle::watchers() const noexcept {
   if (!watched_) return 0;
   WatcherTable& side = watcherTable();
   std::lock_guard lock(side.mutex);
   auto it = side.byHandle.find(this);
   return it == side.byHandle.end() ? 0 : it->second.size();
}

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
   WatcherTable& side = watcherTable();
   std::lock_guard lock(side.mutex);
   side.byHandle[this].push_back(watcher);
   watched_ = 1;
}

void SwTableBase::EntryHandle::watcherDel(EntryHandleWatcher* watcher) noexcept {
   if (!watched_) return;
   WatcherTable& side = watcherTable();
   std::lock_guard lock(side.mutex);
   auto it = side.byHandle.find(this);
   if (it == side.byHandle.end()) return;
   Watchers& watchers = it->second;
   if (auto w = std::find(watchers.begin(), watchers.end(), watcher); w != watchers.end()) {
      watchers.erase(w);
   }
   if (watchers.empty()) {
      side.byHandle.erase(it);
      watched_ = 0;
   }
}

void SwTableBase::EntryHandle::notifyWatchers(EntryState state) {
   if (!watched_) return;
   WatcherTable& side = watcherTable();
   // A watcher may resolve and unregister itself while being told: walk a copy, and keep
   // this handle alive for the walk (a pin: the walk itself is not a user).
   Pin pin(this);
   Watchers watchers;
   {
      std::lock_guard lock(side.mutex);
      auto it = side.byHandle.find(this);
      if (it == side.byHandle.end()) return;
      watchers = it->second;
   }
   for (EntryHandleWatcher* w : watchers) {
      bool still = false;
      {
         std::lock_guard lock(side.mutex);
         auto it = side.byHandle.find(this);
         still = it != side.byHandle.end() &&
                 std::find(it->second.begin(), it->second.end(), w) != it->second.end();
      }
      if (still) w->neededEntryHandleStateIs(this, state);
   }
}

void SwTableBase::suggestIndicesToNeededEntryHandle(const EntryHandle* eh, IndexSet indices) {
   if (!eh) return;
   const_cast<EntryHandle*>(eh)->handleIndexSuggestions(std::move(indices));
}

}  // namespace Asic
