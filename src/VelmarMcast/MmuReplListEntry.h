#pragma once
// The value and key of the MMU replication list table: one multicast replication list.
//
// What the list is (its identity) is the set of egress-object entry handles with their port
// lists, plus a generation number. Everything else is either a parameter of the chip (the
// two entry sizes) or derived at resolution: the egress objects by hardware index, and the
// sparse and dense hardware entries that the layout produces from them. The table keeps each
// entry as a const key, so the derived hardware entries are a cache that the layout fills
// through const mutators; they never take part in equality, ordering or hashing.

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include <fmt/format.h>
#include <boost/container/flat_map.hpp>

#include "Asic/EntryBase.h"
#include "Asic/RefCounted.h"
#include "Asic/SharedBody.h"
#include "Asic/SwTableBase.h"
#include "VelmarMcast/MmuReplListTypes.h"

namespace Asic {
struct CharRange;
class TraceHandle;
}  // namespace Asic

namespace VelmarMcast {

// Trace handle of the replication list table (named after the table's type).
inline constexpr std::string_view kMmuReplListTableTypeName = "VelmarMcast::MmuReplListTable";
const Asic::TraceHandle& mmuReplListTrace();

class MmuReplListTableEntry : public Asic::EntryBase {
 public:
   static constexpr std::string_view kTypeName = "VelmarMcast::MmuReplListTable::Entry";
   // Widest dense entry: one bucket of 64 next hops.
   static constexpr std::uint8_t kDenseEntrySizeMax = 64;

   using EntryHandle = Asic::SwTableBase::EntryHandle;
   using EntryHandlePtr = Asic::Ptr<const EntryHandle>;
   // Handles are ordered by address so that equality, ordering and hash walk both maps in
   // the same order whatever the insertion history.
   struct ByAddress {
      using is_transparent = void;
      static std::uintptr_t address(const EntryHandle* eh) noexcept {
         return reinterpret_cast<std::uintptr_t>(eh);
      }
      bool operator()(const EntryHandle* a, const EntryHandle* b) const noexcept {
         return address(a) < address(b);
      }
      bool operator()(const EntryHandlePtr& a, const EntryHandlePtr& b) const noexcept {
         return address(a.get()) < address(b.get());
      }
      bool operator()(const EntryHandlePtr& a, const EntryHandle* b) const noexcept {
         return address(a.get()) < address(b);
      }
      bool operator()(const EntryHandle* a, const EntryHandlePtr& b) const noexcept {
         return address(a) < address(b.get());
      }
   };
   // Sorted vectors: one allocation per copy, and a list is copied into every collection
   // that holds its key.
   using EgressObjectHandleMap = boost::container::flat_map<EntryHandlePtr, PortList, ByAddress>;
   using EgressObjectMap = boost::container::flat_map<std::uint32_t, PortList>;
   // The layout adds hardware entries in order, so a sorted vector takes each at its end.
   using SparseReplListEntryMap = boost::container::flat_map<SparseReplListEntry, bool>;
   using DenseReplListEntryMap = boost::container::flat_map<DenseReplListEntry, bool>;

   MmuReplListTableEntry() = default;
   // There is no text form to read back: always fails an assertion.
   explicit MmuReplListTableEntry(Asic::CharRange& range);
   ~MmuReplListTableEntry() override = default;

   // The copy shares the identity (see Identity) and copies what was derived from it.
   MmuReplListTableEntry(const MmuReplListTableEntry& other);
   MmuReplListTableEntry& operator=(const MmuReplListTableEntry& other);
   // Takes what was derived over (the source is left with nothing derived) and shares the
   // identity, the sizes, genId and the callback.
   MmuReplListTableEntry(MmuReplListTableEntry&& other);
   MmuReplListTableEntry& operator=(MmuReplListTableEntry&& other);

   // --- identity --------------------------------------------------------------------------
   const EgressObjectHandleMap& egressObjectHandles() const noexcept {
      return identity_ ? identity_->value : kNoHandles;
   }
   // Inserts the handle, or replaces the ports of a handle already present. Throws
   // std::invalid_argument for a null handle.
   void egressObjectHandleIs(EntryHandlePtr eh, PortList ports);
   void egressObjectHandleDel(const EntryHandle* eh);
   void egressObjectHandleDel(const EntryHandlePtr& eh) { egressObjectHandleDel(eh.get()); }
   void egressObjectHandleDelAll() noexcept {
      identity_.reset();
      digest_ = 0;
   }
   bool egressObjectHandleHas(const EntryHandle* eh) const {
      return egressObjectHandles().find(eh) != egressObjectHandles().end();
   }
   // The ports of a handle; throws std::out_of_range when the handle is not in the list.
   const PortList& egressObjectHandle(const EntryHandle* eh) const;

   std::uint32_t genId() const noexcept { return genId_; }
   void genIdIs(std::uint32_t genId) noexcept {
      genId_ = genId;
      digest_ = 0;
   }

   // --- parameters ------------------------------------------------------------------------
   std::uint8_t sparseEntrySize() const noexcept { return sparseEntrySize_; }
   // Throws std::invalid_argument for 0: a sparse entry holds at least one next hop.
   void sparseEntrySizeIs(std::uint8_t size);
   std::uint8_t denseEntrySize() const noexcept { return denseEntrySize_; }
   // 0 (no dense entries) or a power of two of at most 64; anything else throws
   // std::invalid_argument.
   void denseEntrySizeIs(std::uint8_t size);

   // --- resolved egress objects -----------------------------------------------------------
   const EgressObjectMap& egressObjects() const noexcept {
      return derived_ ? derived_->egressObject : kNoDerived.egressObject;
   }
   void egressObjectIs(std::uint32_t index, PortList ports) {
      derived().egressObject.insert_or_assign(index, std::move(ports));
   }
   // Every resolved egress object at once, in any order, replacing those there were. Of two
   // at one index the later stays, as with egressObjectIs one by one.
   void egressObjectsIs(EgressObjectMap::sequence_type objects);
   void egressObjectDel(std::uint32_t index) {
      if (derived_) derived_->egressObject.erase(index);
   }
   void egressObjectDelAll() noexcept {
      if (derived_) derived_->egressObject.clear();
   }
   bool egressObjectHas(std::uint32_t index) const {
      return egressObjects().find(index) != egressObjects().end();
   }
   // The ports of an index; an empty list when the index is absent.
   PortList egressObject(std::uint32_t index) const;
   // The ports of an index; throws std::out_of_range naming the index when it is absent.
   const PortList& egressObjectGet(std::uint32_t index) const;

   // --- derived hardware entries (a cache: callable on a const entry) ----------------------
   const SparseReplListEntryMap& sparseReplListEntries() const noexcept {
      return derived_ ? derived_->sparse : kNoDerived.sparse;
   }
   void sparseReplListEntryIs(const SparseReplListEntry& e, bool value) const& {
      derived().sparse.insert_or_assign(e, value);
   }
   void sparseReplListEntryDel(const SparseReplListEntry& e) const& {
      if (derived_) derived_->sparse.erase(e);
   }
   void sparseReplListEntryDelAll() const& noexcept {
      if (derived_) derived_->sparse.clear();
   }

   const DenseReplListEntryMap& denseReplListEntries() const noexcept {
      return derived_ ? derived_->dense : kNoDerived.dense;
   }
   void denseReplListEntryIs(const DenseReplListEntry& e, bool value) const& {
      derived().dense.insert_or_assign(e, value);
   }
   void denseReplListEntryDel(const DenseReplListEntry& e) const& {
      if (derived_) derived_->dense.erase(e);
   }
   void denseReplListEntryDelAll() const& noexcept {
      if (derived_) derived_->dense.clear();
   }

   // Hardware entries the list occupies: the laid-out entries when dense entries are
   // possible, else one sparse entry per sparseEntrySize (next hop, port) pairs. Never 0.
   // Throws std::invalid_argument when pairs exist but sparseEntrySize is 0.
   std::uint32_t getBlockSize() const override;

   // --- identity comparison ---------------------------------------------------------------
   bool isEq(const MmuReplListTableEntry& other) const noexcept;
   friend bool operator==(const MmuReplListTableEntry& a, const MmuReplListTableEntry& b) noexcept {
      return a.isEq(b);
   }
   // Handles element by element (address, then ports), then the handle count, then genId.
   friend std::strong_ordering operator<=>(const MmuReplListTableEntry& a,
                                           const MmuReplListTableEntry& b) noexcept;
   std::size_t hash(std::uint32_t seed) const;
   explicit operator bool() const noexcept { return genId_ != 0 || !egressObjectHandles().empty(); }

   std::string toString() const;

 private:
   // The list's handles with their ports, shared by every copy of the entry.
   using Identity = Asic::SharedBody<EgressObjectHandleMap>;
   static const EgressObjectHandleMap kNoHandles;

   Asic::Ptr<Identity> identity_;  // null: no handles
   // What resolution and the layout derive from the identity. A list used as a key has none,
   // so it lives behind a pointer that is null until something is derived: the collections
   // that key on a list keep a small object.
   struct Derived {
      EgressObjectMap egressObject;
      SparseReplListEntryMap sparse;
      DenseReplListEntryMap dense;
   };
   static const Derived kNoDerived;
   Derived& derived() const {
      if (!derived_) derived_ = std::make_unique<Derived>();
      return *derived_;
   }

   mutable std::unique_ptr<Derived> derived_;  // null: nothing derived
   // The identity's digest with genId, kept in the entry too: hashing a key held by a
   // collection then reads only the collection's slot, not the shared body.
   mutable std::uint64_t digest_ = 0;  // 0: not computed
   std::uint8_t denseEntrySize_ = 0;
   std::uint8_t sparseEntrySize_ = 0;
   std::uint32_t genId_ = 0;
   std::uint64_t digest() const;

 public:
   // The client's completion callback; not part of what the entry is.
   Asic::WriteResponseFn writeResponseFn;
};

// Registers the list's value types and the entry with the type system (idempotent).
void registerMmuReplListTypes();

}  // namespace VelmarMcast

template <>
struct fmt::formatter<VelmarMcast::MmuReplListTableEntry> : fmt::formatter<std::string_view> {
   auto format(const VelmarMcast::MmuReplListTableEntry& e, format_context& ctx) const {
      return fmt::formatter<std::string_view>::format(e.toString(), ctx);
   }
};
