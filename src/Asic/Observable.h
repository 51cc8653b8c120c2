#pragma once
// Attribute-change notifications of the agent's state model: an observable object
// announces which named attribute changed; observers (state mirrors, tests) subscribe.
// Objects without observers pay one pointer and one branch per announcement.

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>
#include <vector>

namespace Asic {

class Observable {
 public:
   using Observer = std::function<void(std::string_view attribute)>;
   using ObserverId = std::uint32_t;

   Observable() = default;
   Observable(const Observable&) noexcept {}  // observers follow the object, not its copies
   Observable& operator=(const Observable&) noexcept { return *this; }

   ObserverId observerIs(Observer observer) {
      if (!observers_) observers_ = std::make_unique<std::vector<ObserverEntry>>();
      observers_->push_back(ObserverEntry{++lastId_, std::move(observer)});
      return lastId_;
   }
   void observerDel(ObserverId id) {
      if (!observers_) return;
      std::erase_if(*observers_, [id](const ObserverEntry& e) { return e.id == id; });
   }

 protected:
   ~Observable() = default;
   void publish(std::string_view attribute) const {
      if (!observers_) [[likely]]
         return;
      // Copy: an observer may subscribe or unsubscribe (itself or others) while being told;
      // one removed meanwhile is not told any more.
      auto observers = *observers_;
      for (const auto& e : observers) {
         if (std::any_of(observers_->begin(), observers_->end(),
                         [&e](const ObserverEntry& live) { return live.id == e.id; })) {
            e.observer(attribute);
         }
      }
   }

 private:
   struct ObserverEntry {
      ObserverId id;
      Observer observer;
   };
   std::unique_ptr<std::vector<ObserverEntry>> observers_;
   ObserverId lastId_ = 0;
};

}  // namespace Asic
