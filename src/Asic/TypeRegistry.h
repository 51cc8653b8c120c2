#pragma once
// A small type system: one descriptor per registered value type, found by its full name,
// and GenericValue, an owning type-erased value. Allocators keep the key that owns an
// index as a GenericValue and give it back to whoever asks, whatever table it belongs to.
//
// A type takes part by declaring `static constexpr std::string_view kTypeName` (its full
// name, namespace included), equality, a fmt::formatter, and either a member
// `hash(std::uint32_t seed)` or an AbslHashValue overload.

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <type_traits>

#include <absl/hash/hash.h>
#include <fmt/format.h>

#include "Asic/TypeName.h"

namespace Asic {

struct TypeDescriptor {
   std::string_view name;
   std::size_t size;
   std::size_t align;
   void (*copyConstruct)(void* dst, const void* src);
   void (*destroy)(void* obj) noexcept;
   bool (*equal)(const void* a, const void* b);
   std::size_t (*hash)(const void* obj);
   std::string (*toString)(const void* obj);
};

// Built-in unsigned integers take part under their own spelling ("unsigned int"): a table
// whose key is its hardware index keys on one.
template <typename T>
concept RegisteredType = (std::unsigned_integral<T> && !std::same_as<T, bool>) ||
                         requires(const T& t) {
   { T::kTypeName } -> std::convertible_to<std::string_view>;
   { t == t } -> std::convertible_to<bool>;
   {fmt::format("{}", t)};
};

template <RegisteredType T>
constexpr std::string_view registeredTypeName() noexcept {
   if constexpr (std::unsigned_integral<T>) {
      return compilerTypeName<T>();
   } else {
      return T::kTypeName;
   }
}

template <typename T>
std::size_t hashOf(const T& value, std::uint32_t seed = 0) {
   if constexpr (requires { value.hash(seed); }) {
      return static_cast<std::size_t>(value.hash(seed));
   } else {
      return absl::HashOf(value, seed);
   }
}

template <RegisteredType T>
const TypeDescriptor& vixType() {
   static const TypeDescriptor descriptor{
       registeredTypeName<T>(),
       sizeof(T),
       alignof(T),
       [](void* dst, const void* src) { ::new (dst) T(*static_cast<const T*>(src)); },
       [](void* obj) noexcept { static_cast<T*>(obj)->~T(); },
       [](const void* a, const void* b) {
          return *static_cast<const T*>(a) == *static_cast<const T*>(b);
       },
       [](const void* obj) { return hashOf(*static_cast<const T*>(obj)); },
       [](const void* obj) { return fmt::format("{}", *static_cast<const T*>(obj)); },
   };
   return descriptor;
}

namespace TypeRegistry {

// Registers the descriptor under its name. Registering the same descriptor again is a
// no-op; a different descriptor under a taken name throws std::logic_error.
void registerType(const TypeDescriptor& type);
template <RegisteredType T>
const TypeDescriptor& registerType() {
   registerType(vixType<T>());
   return vixType<T>();
}
// Null when no type of that name is registered.
const TypeDescriptor* find(std::string_view name);
std::size_t size();

}  // namespace TypeRegistry

// An owning value of any registered type, or empty.
class GenericValue {
 public:
   GenericValue() noexcept = default;
   GenericValue(const TypeDescriptor& type, const void* value) { assign(type, value); }
   template <RegisteredType T>
   static GenericValue of(const T& value) {
      return GenericValue(vixType<T>(), &value);
   }

   GenericValue(const GenericValue& other) {
      if (other.type_) assign(*other.type_, other.data());
   }
   GenericValue(GenericValue&& other) noexcept { steal(other); }
   GenericValue& operator=(const GenericValue& other) {
      if (this != &other) {
         reset();
         if (other.type_) assign(*other.type_, other.data());
      }
      return *this;
   }
   GenericValue& operator=(GenericValue&& other) noexcept {
      if (this != &other) {
         reset();
         steal(other);
      }
      return *this;
   }
   ~GenericValue() { reset(); }

   bool empty() const noexcept { return type_ == nullptr; }
   explicit operator bool() const noexcept { return type_ != nullptr; }
   const TypeDescriptor* type() const noexcept { return type_; }
   const void* data() const noexcept { return isInline() ? storage_.bytes : storage_.heap; }

   // The value if it is of type T, else null.
   template <RegisteredType T>
   const T* get() const noexcept {
      return type_ == &vixType<T>() ? static_cast<const T*>(data()) : nullptr;
   }
   // True when this holds a value of `type` equal to *value.
   bool is(const TypeDescriptor& type, const void* value) const {
      return type_ == &type && type.equal(data(), value);
   }

   std::string toString() const { return type_ ? type_->toString(data()) : std::string("<none>"); }

   friend bool operator==(const GenericValue& a, const GenericValue& b) {
      if (a.type_ != b.type_) return false;
      return a.type_ == nullptr || a.type_->equal(a.data(), b.data());
   }
   template <typename H>
   friend H AbslHashValue(H h, const GenericValue& v) {
      return H::combine(std::move(h), v.type_, v.type_ ? v.type_->hash(v.data()) : 0);
   }

 private:
   static constexpr std::size_t kInline = 16;
   bool isInline() const noexcept {
      return type_ && type_->size <= kInline && type_->align <= alignof(std::max_align_t);
   }
   void assign(const TypeDescriptor& type, const void* value) {
      type_ = &type;
      if (isInline()) {
         type.copyConstruct(storage_.bytes, value);
      } else {
         void* mem = ::operator new(type.size, std::align_val_t(type.align));
         try {
            type.copyConstruct(mem, value);
         } catch (...) {
            ::operator delete(mem, std::align_val_t(type.align));
            type_ = nullptr;
            throw;
         }
         storage_.heap = mem;
      }
   }
   void reset() noexcept {
      if (!type_) return;
      if (isInline()) {
         type_->destroy(storage_.bytes);
      } else {
         type_->destroy(storage_.heap);
         ::operator delete(storage_.heap, std::align_val_t(type_->align));
      }
      type_ = nullptr;
   }
   void steal(GenericValue& other) noexcept {
      if (!other.type_) return;
      if (other.isInline()) {
         // Registered key types are trivially relocatable in practice only if trivially
         // copyable; copy-and-destroy keeps the general case correct.
         type_ = other.type_;
         type_->copyConstruct(storage_.bytes, other.storage_.bytes);
         other.reset();
      } else {
         type_ = other.type_;
         storage_.heap = other.storage_.heap;
         other.type_ = nullptr;
      }
   }

   const TypeDescriptor* type_ = nullptr;
   union Storage {
      alignas(std::max_align_t) unsigned char bytes[kInline];
      void* heap;
   } storage_{};
};

}  // namespace Asic

namespace Vix {
using Asic::vixType;
}
