#include "Asic/Observable.h"

#include <algorithm>
#include <memory>
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

struct Observers {
   std::vector<ObserverEntry> entries;
   Observable::ObserverId lastId = 0;
};

// Observers of every observed object. Locked only for observed objects: the agent runs on
// one thread, but tests and tools may observe from others.
struct SideTable {
   std::mutex mutex;
   absl::flat_hash_map<const Observable*, std::unique_ptr<Observers>> byObject;
};

SideTable& sideTable() {
   static SideTable* table = new SideTable;  // never destroyed: objects may outlive statics
   return *table;
}

}  // namespace

Observable::ObserverId Observable::observerIs(Observer observer) {
   SideTable& side = sideTable();
   std::lock_guard lock(side.mutex);
   auto& observers = side.byObject[this];
   if (!observers) observers = std::make_unique<Observers>();
   observed_ = true;
   observers->entries.push_back(ObserverEntry{++observers->lastId, std::move(observer)});
   return observers->lastId;
}

void Observable::observerDel(ObserverId id) {
   if (!observed_) return;
   SideTable& side = sideTable();
   std::lock_guard lock(side.mutex);
   auto it = side.byObject.find(this);
   if (it == side.byObject.end()) return;
   std::erase_if(it->second->entries, [id](const ObserverEntry& e) { return e.id == id; });
}

void Observable::tell(std::string_view attribute) const {
   SideTable& side = sideTable();
   // Copy: an observer may subscribe or unsubscribe (itself or others) while being told;
   // one removed meanwhile is not told any more.
   std::vector<ObserverEntry> snapshot;
   {
      std::lock_guard lock(side.mutex);
      auto it = side.byObject.find(this);
      if (it == side.byObject.end()) return;
      snapshot = it->second->entries;
   }
   for (const auto& e : snapshot) {
      bool live = false;
      {
         std::lock_guard lock(side.mutex);
         auto it = side.byObject.find(this);
         live = it != side.byObject.end() &&
                std::any_of(it->second->entries.begin(), it->second->entries.end(),
                            [&e](const ObserverEntry& l) { return l.id == e.id; });
      }
      if (live) e.observer(attribute);
   }
}

void Observable::forget() noexcept {
   SideTable& side = sideTable();
   std::unique_ptr<Observers> gone;  // destroyed outside the lock: observers may own objects
   std::lock_guard lock(side.mutex);
   auto it = side.byObject.find(this);
   if (it == side.byObject.end()) return;
   gone = std::move(it->second);
   side.byObject.erase(it);
}

}  // namespace Asic
