#pragma once
// One intrusive reference count for every shared object (tables, handles, allocators,
// utility objects). Counts change atomically only when the process-wide thread-safety
// flag is set: the agent runs on one event-loop thread and pays for atomics only when a
// caller has declared otherwise.

#include <atomic>
#include <cstdint>

#include <boost/intrusive_ptr.hpp>

namespace Asic {

// Process-wide flag; set it before any shared object is created.
inline bool threadSafeRefCounts = false;

class RefCounted {
 public:
   RefCounted() = default;
   RefCounted(const RefCounted&) noexcept {}  // a copy is a new object with no owners
   RefCounted& operator=(const RefCounted&) noexcept { return *this; }

   std::uint32_t refCount() const noexcept { return refCount_; }

   friend void intrusive_ptr_add_ref(const RefCounted* p) noexcept { p->addRef(); }
   friend void intrusive_ptr_release(const RefCounted* p) { p->release(); }

 protected:
   virtual ~RefCounted() = default;
   // Runs when the count falls to one: the last owner (for entry handles, the table's own
   // collection) is all that is left. Entry handles start their clean-up here.
   virtual void lastUserGone() {}

 private:
   void addRef() const noexcept {
      if (threadSafeRefCounts) {
         std::atomic_ref<std::uint32_t>(refCount_).fetch_add(1, std::memory_order_relaxed);
      } else {
         ++refCount_;
      }
   }
   void release() const {
      std::uint32_t left;
      if (threadSafeRefCounts) {
         left = std::atomic_ref<std::uint32_t>(refCount_).fetch_sub(1, std::memory_order_acq_rel) - 1;
      } else {
         left = --refCount_;
      }
      if (left == 0) {
         delete this;
      } else if (left == 1) {
         const_cast<RefCounted*>(this)->lastUserGone();
      }
   }

   mutable std::uint32_t refCount_ = 0;
};

template <typename T>
using Ptr = boost::intrusive_ptr<T>;

template <typename T, typename... Args>
Ptr<T> makePtr(Args&&... args) {
   return Ptr<T>(new T(std::forward<Args>(args)...));
}

}  // namespace Asic
