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

   // Keeps an object alive across a section that may drop its other owners, without
   // running lastUserGone() for a count that was already at its last owner when pinned.
   class Pin {
    public:
      explicit Pin(const RefCounted* obj) noexcept : obj_(obj), pinnedAt_(obj->refCount_) {
         obj_->addRef();
      }
      ~Pin() {
         std::uint32_t left = obj_->decrement();
         if (left == 0) {
            destroy(obj_);
         } else if (left == 1 && pinnedAt_ > 1) {
            const_cast<RefCounted*>(obj_)->lastUserGone();
         }
      }
      Pin(const Pin&) = delete;
      Pin& operator=(const Pin&) = delete;

    private:
      const RefCounted* obj_;
      std::uint32_t pinnedAt_;
   };

   // Drops one count without running lastUserGone(): for an owner that lets go of an object
   // it has already detached, so that no clean-up starts for a key that is gone.
   static void releaseQuietly(const RefCounted* p) noexcept {
      if (p && p->decrement() == 0) destroy(p);
   }

   friend void intrusive_ptr_add_ref(const RefCounted* p) noexcept { p->addRef(); }
   friend void intrusive_ptr_release(const RefCounted* p) { p->release(); }

 protected:
   virtual ~RefCounted() = default;
   // Runs when the count falls to one: the last owner (for entry handles, the table's own
   // collection) is all that is left. Entry handles start their clean-up here.
   virtual void lastUserGone() {}
   // Runs when the last count is gone, while the whole object still exists (a destructor
   // can no longer reach the most derived part): tables tear their entries down here. The
   // object is kept alive for the call; it is deleted after it unless it was taken again.
   virtual void lastReferenceGone() {}

 private:
   void addRef() const noexcept {
      if (threadSafeRefCounts) {
         std::atomic_ref<std::uint32_t>(refCount_).fetch_add(1, std::memory_order_relaxed);
      } else {
         ++refCount_;
      }
   }
   std::uint32_t decrement() const noexcept {
      if (threadSafeRefCounts) {
         return std::atomic_ref<std::uint32_t>(refCount_).fetch_sub(1, std::memory_order_acq_rel) -
                1;
      }
      return --refCount_;
   }
   void release() const {
      std::uint32_t left = decrement();
      if (left == 0) {
         destroy(this);
      } else if (left == 1) {
         const_cast<RefCounted*>(this)->lastUserGone();
      }
   }

   static void destroy(const RefCounted* p) {
      p->addRef();
      const_cast<RefCounted*>(p)->lastReferenceGone();
      if (p->decrement() == 0) delete p;
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
