#pragma once
// Attribute-change notifications of the agent's state model: an observable object
// announces which named attribute changed; observers (state mirrors, tests) subscribe.
// Few objects are ever observed while millions of entry handles are observable, so an
// object keeps only a flag and its observers live in one process-wide side table: an
// unobserved object pays one byte and one branch per announcement.

#include <cstdint>
#include <functional>
#include <string_view>

namespace Asic {

class Observable {
 public:
   using Observer = std::function<void(std::string_view attribute)>;
   using ObserverId = std::uint32_t;

   Observable() = default;
   Observable(const Observable&) noexcept {}  // observers follow the object, not its copies
   Observable& operator=(const Observable&) noexcept { return *this; }

   ObserverId observerIs(Observer observer);
   void observerDel(ObserverId id);

 protected:
   ~Observable() {
      if (observed_) [[unlikely]]
         forget();
   }
   void publish(std::string_view attribute) const {
      if (!observed_) [[likely]]
         return;
      tell(attribute);
   }

 private:
   void tell(std::string_view attribute) const;
   void forget() noexcept;

   bool observed_ = false;  // the side table holds observers of this object
};

}  // namespace Asic
