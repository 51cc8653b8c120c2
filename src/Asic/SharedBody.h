#pragma once
// The contents of a value shared by all its copies until one of them changes them. A value
// that several collections and an allocator hold as their key (a replication list, a head
// block) then costs one body, and its copies compare equal by pointer. A shared body is
// never changed: the first change copies it. The body keeps a seed-free digest of its
// contents, since such a key is hashed at every look-up of every collection that holds it.

#include <cstdint>
#include <utility>

#include "Asic/RefCounted.h"

namespace Asic {

template <typename T>
struct SharedBody : RefCounted {
   T value;
   mutable std::uint64_t digest = 0;
   mutable bool digestValid = false;

   // The body `body` points to, made or copied so that `body` alone holds it, its digest
   // forgotten: ready to change.
   static SharedBody& forChange(Ptr<SharedBody>& body) {
      if (!body) {
         body = makePtr<SharedBody>();
      } else if (body->refCount() > 1) {
         auto copy = makePtr<SharedBody>();
         copy->value = body->value;
         body = std::move(copy);
      }
      body->digestValid = false;
      return *body;
   }
   // The digest, from `compute(value)` unless kept.
   template <typename F>
   std::uint64_t digestOf(F&& compute) const {
      if (!digestValid) {
         digest = compute(value);
         digestValid = true;
      }
      return digest;
   }
};

}  // namespace Asic
