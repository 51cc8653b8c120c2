#pragma once
// Index allocators: hand out hardware indices to keys of any registered type and remember
// which key owns which index. One allocator may serve several tables that share one index
// space ("vertical sharing": the same key of two tables owns one index, which stays
// assigned until every table has let go of it).
//
// Kinds differ only in how they pick indices for a key:
//   FirstFreeIndexAllocator  one index, the lowest free one;
//   DiscontBlockAllocator    a block of n indices, the n lowest free ones (scattered);
//   AnySizedBlockAllocator   a run of n consecutive free indices (the lowest such run).
// Exhaustion returns invalidIndex (or an empty vector) and changes nothing.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Asic/RefCounted.h"
#include "Asic/TypeRegistry.h"
#include "Asic/Types.h"

namespace Asic {

class GenericIndexAllocator : public RefCounted {
 public:
   // Outcome of requestIndexForKey.
   enum class RequestStatus : std::uint8_t {
      assigned,      // the index is now the key's
      alreadyOwned,  // the key already owned exactly this index
      indexTaken,    // another key owns the index, or it is reserved: nothing changed
      keyHasOther,   // the key owns another index: nothing changed
      outOfRange,    // index >= numEntries(): nothing changed
   };

   // Occupancy as the agent and tests see it.
   struct Occupancy {
      std::uint32_t used;
      std::uint32_t free;
      std::uint32_t largestFreeRun;
   };

   static std::string_view toString(RequestStatus status) noexcept;

   explicit GenericIndexAllocator(std::string name);
   GenericIndexAllocator(const GenericIndexAllocator&) = delete;
   GenericIndexAllocator& operator=(const GenericIndexAllocator&) = delete;

   const std::string& name() const noexcept;
   // Descriptor of the concrete allocator type (for the shared-allocator factory).
   virtual std::string_view allocatorTypeName() const = 0;

   // Set-up.
   void numEntriesIs(std::uint32_t numEntries);  // grows or shrinks the index space
   std::uint32_t numEntries() const noexcept;
   void initializedIs(bool initialized) noexcept;
   bool initialized() const noexcept;
   // Records the table that refers to the allocator and the name of its attribute.
   void setTableAttr(const void* table, std::string_view attribute);
   const void* table() const noexcept;
   const std::string& tableAttribute() const noexcept;
   // Takes the closed range out of circulation (never handed out, never "assigned").
   void reserveIndices(Index first, Index last);

   // One index per key. `user` is the table on whose behalf the call is made (null: the
   // allocator's own table); it counts towards vertical sharing.
   Index newIndexForKey(const TypeDescriptor& keyType, const void* key, const void* user = nullptr);
   RequestStatus requestIndexForKey(Index index, const TypeDescriptor& keyType, const void* key,
                                    const void* user = nullptr);
   // Restart: binds a free index to the key. False (and no change) when the index is owned
   // by any key, reserved, out of range, or the key already owns other indices.
   bool recoverIndexForKey(Index index, const TypeDescriptor& keyType, const void* key,
                           const void* user = nullptr);
   // First index of the key, if it has any.
   std::optional<Index> indexForKey(const TypeDescriptor& keyType, const void* key) const;
   // The same, asking first whether the key owns `hint` (where its caller last saw it): at a
   // million keys that is one owner check instead of a hash look-up's cache misses.
   std::optional<Index> indexForKey(const TypeDescriptor& keyType, const void* key,
                                    Index hint) const;

   // Blocks: n indices per key (scattered or consecutive, as the kind decides). A key that
   // already owns indices gets them back unchanged.
   std::vector<Index> newIndicesForKey(const TypeDescriptor& keyType, const void* key,
                                       std::uint32_t blockSize, const void* user = nullptr);
   // Adds `count` more indices to a key that owns some (a block whose first index the
   // caller placed): the whole block, or empty (nothing changed) when too few are free.
   std::vector<Index> extendIndicesForKey(const TypeDescriptor& keyType, const void* key,
                                          std::uint32_t count);
   std::vector<Index> indicesForKey(const TypeDescriptor& keyType, const void* key) const;
   bool recoverIndicesForKey(const std::vector<Index>& indices, const TypeDescriptor& keyType,
                             const void* key, const void* user = nullptr);
   // Block size recorded for a key (0 when it owns nothing).
   std::uint32_t getBlockSize(const TypeDescriptor& keyType, const void* key) const;

   // Reverse look-ups by index, for keys of `keyType` only.
   GenericValue keyForIndex(Index index, const TypeDescriptor& keyType) const;
   bool isIndexAssigned(Index index, const TypeDescriptor& keyType) const;
   // The index's key is used by more than one table.
   bool isIndexVerticallyShared(Index index, const TypeDescriptor& keyType) const;
   // The index's key counts `table` among its users (null: the allocator's own table).
   bool isIndexUsedBy(Index index, const TypeDescriptor& keyType, const void* table) const;
   // Returns the index to the free pool whoever owned it (stale purge). The owning key loses
   // that index; a key left without indices is forgotten. A reserved index stays reserved.
   void markIndexAvailable(Index index, const TypeDescriptor& keyType);
   // `table` stops using the key's indices; when no table uses them they become free.
   void releaseIndexFromTable(const TypeDescriptor& keyType, const void* key, const void* table);

   std::uint32_t totalUsedIndices() const noexcept;  // assigned + reserved
   bool isIndexFree(Index index) const;
   // Restart: keeps a free index out of new allocations because the chip still holds a
   // stale entry there. Only a recovery (which binds it) or markIndexAvailable (which frees
   // it) ends the hold. False when the index is not free.
   bool holdIndex(Index index);
   bool isIndexHeld(Index index) const;
   Occupancy occupancy() const;
   // Keys that own at least one index.
   std::size_t numKeys() const noexcept;

 protected:
   ~GenericIndexAllocator() override;
   // The kind's choice of `count` free indices (ascending for runs). Empty when exhausted.
   virtual std::vector<Index> pickIndices(std::uint32_t count) const = 0;
   // Shared helpers for the kinds: lowest free index at or after `from`, or invalidIndex.
   Index firstFreeFrom(Index from) const;
   // Lowest start of `count` consecutive free indices, or invalidIndex.
   Index firstFreeRun(std::uint32_t count) const;
   // The `count` lowest free indices, ascending; empty when fewer are free.
   std::vector<Index> lowestFreeIndices(std::uint32_t count) const;

 private:
   struct Impl;
   Impl* impl_;
};

class FirstFreeIndexAllocator : public GenericIndexAllocator {
 public:
   using GenericIndexAllocator::GenericIndexAllocator;
   static constexpr std::string_view kTypeName = "Asic::FirstFreeIndexAllocator";
   std::string_view allocatorTypeName() const override { return kTypeName; }

 protected:
   std::vector<Index> pickIndices(std::uint32_t count) const override;
};

class DiscontBlockAllocator : public GenericIndexAllocator {
 public:
   using GenericIndexAllocator::GenericIndexAllocator;
   static constexpr std::string_view kTypeName = "Asic::DiscontBlockAllocator";
   std::string_view allocatorTypeName() const override { return kTypeName; }

 protected:
   std::vector<Index> pickIndices(std::uint32_t count) const override;
};

class AnySizedBlockAllocator : public GenericIndexAllocator {
 public:
   using GenericIndexAllocator::GenericIndexAllocator;
   static constexpr std::string_view kTypeName = "Asic::AnySizedBlockAllocator";
   std::string_view allocatorTypeName() const override { return kTypeName; }
   // Base index of a new run of `blockSize` for the key (or the key's existing base).
   Index newIndexForBlock(const TypeDescriptor& keyType, const void* key, std::uint32_t blockSize,
                          const void* user = nullptr);

 protected:
   std::vector<Index> pickIndices(std::uint32_t count) const override;
};

// Factory of shared allocators: one allocator per allocator type, shared by every table
// that asks for it, freed when the last of them lets go.
class GenericIndexAllocatorStub {
 public:
   using Factory = Ptr<GenericIndexAllocator> (*)(std::string name);

   // Registers how to make an allocator type (done once per type, at library load).
   static void allocatorFactoryIs(std::string_view allocatorType, Factory factory);
   // The shared allocator of that type, created on first use; `table` becomes a user.
   // Null when no factory is registered for the type or `table` is null.
   static Ptr<GenericIndexAllocator> createSharedAllocator(std::string_view allocatorType,
                                                           std::string_view tableType,
                                                           const void* table);
   // `table` stops using it; the factory drops the allocator after its last user.
   static void freeSharedAllocator(std::string_view allocatorType, std::string_view tableType,
                                   const void* table);
   // The live shared allocator of a type, or null.
   static Ptr<GenericIndexAllocator> sharedAllocator(std::string_view allocatorType);
   static std::size_t sharedAllocators();
};

// The factory an allocator type registers under its kTypeName: one function per type, so
// registering from several libraries is the same registration.
template <typename A>
Ptr<GenericIndexAllocator> sharedAllocatorFactory(std::string name) {
   return Ptr<GenericIndexAllocator>(new A(std::move(name)));
}
template <typename A>
void registerSharedAllocator() {
   GenericIndexAllocatorStub::allocatorFactoryIs(A::kTypeName, &sharedAllocatorFactory<A>);
}

}  // namespace Asic
