#include "Asic/Observable.h"

#include <algorithm>
#include <iterator>
#include <mutex>
#include <utility>
#include <vector>

#include <absl/container/flat_hash_map.h>

namespace Asic {
namespace {

struct ObserverEntry {
   Observable::ObserverId id;
   Observable::Observer observer;
};
using Observers = std::vector<ObserverEntry>;

// Observers of every observed object. Locked so that objects may be observed and destroyed
// on several threads; one object is announced and observed from one thread at a time.
struct SideTable {
   std::mutex mutex;
   absl::flat_hash_map<const Observable*, Observers> byObject;
   Observable::ObserverId lastId = 0;  // ids are never reused, whatever object they were for
};

SideTable& sideTable() {
   static auto* table = new SideTable;  // never destroyed: objects may outlive statics
   return *table;
}

}  // namespace

Observable::ObserverId Observable::observerIs(Observer observer) {
   SideTable& side = sideTable();
   std::lock_guard lock(side.mutex);
   Observers& observers = side.byObject[this];
   observers.push_back(ObserverEntry{++side.lastId, std::move(observer)});
   observed_ = true;
   return side.lastId;
}

void Observable::observerDel(ObserverId id) {
   if (!observed_) return;
   SideTable& side = sideTable();
   // Destroyed once the lock is let go of: an observer may hold the last count of another
   // observed object, whose destruction takes the lock.
   Observers removed;
   std::lock_guard lock(side.mutex);
   auto it = side.byObject.find(this);
   if (it == side.byObject.end()) return;
   Observers& observers = it->second;
   auto gone = std::stable_partition(observers.begin(), observers.end(),
                                     [id](const ObserverEntry& e) { return e.id != id; });
   std::move(gone, observers.end(), std::back_inserter(removed));
   observers.erase(gone, observers.end());
   if (observers.empty()) {
      // Unobserved again: announcements go back to costing one branch.
      side.byObject.erase(it);
      observed_ = false;
   }
}

void Observable::tell(std::string_view attribute) const {
   SideTable& side = sideTable();
   // Copy: an observer may subscribe or unsubscribe (itself or others) while being told;
   // one removed meanwhile is not told any more.
   Observers snapshot;
   {
      std::lock_guard lock(side.mutex);
      auto it = side.byObject.find(this);
      if (it == side.byObject.end()) return;
      snapshot = it->second;
   }
   for (const auto& e : snapshot) {
      bool live = false;
      {
         std::lock_guard lock(side.mutex);
         auto it = side.byObject.find(this);
         live = it != side.byObject.end() &&
                std::any_of(it->second.begin(), it->second.end(),
                            [&e](const ObserverEntry& l) { return l.id == e.id; });
      }
      if (live) e.observer(attribute);
   }
}

void Observable::forget() noexcept {
   SideTable& side = sideTable();
   Observers gone;  // destroyed once the lock is let go of, as in observerDel
   std::lock_guard lock(side.mutex);
   auto it = side.byObject.find(this);
   if (it == side.byObject.end()) return;
   gone = std::move(it->second);
   side.byObject.erase(it);
}

}  // namespace Asic
