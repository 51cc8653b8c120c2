#pragma once
// The ingress IPMC remap table: for each IP-multicast group, the multicast index the
// group is remapped to and its strength profile. The remap target is named by the entry
// handle of the table that owns IPMC indices; the engine writes that handle's hardware
// index into `remappedIpmcIndex` once the handle is programmed.

#include <compare>
#include <cstdint>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "Asic/CharRange.h"
#include "AsicSwTable/SwTableAccessor.h"
#include "VelmarL3Common/L3IpmcKey.h"
#include "VelmarL3Common/L3IpmcSharedAllocator.h"

namespace VelmarMcast {

class IngIpmcRemapTable;
class IngIpmcRemapTableUtil;

class IngIpmcRemapTableEntry {
 public:
   static constexpr std::string_view kTypeName = "VelmarMcast::IngIpmcRemapTable::Entry";
   static constexpr std::uint8_t kStrengthProfileMax = 31;  // 5-bit field

   IngIpmcRemapTableEntry() = default;
   IngIpmcRemapTableEntry(Asic::Ptr<const Asic::SwTableBase::EntryHandle> handle,
                          std::uint8_t strengthProfile, Asic::WriteResponseFn fn = {});
   // Reads the text form back: handle, then index, then profile. The handle can only be
   // read as "null". Throws Asic::AttributeRangeError naming the attribute at fault.
   explicit IngIpmcRemapTableEntry(Asic::CharRange& range);

   Asic::Ptr<const Asic::SwTableBase::EntryHandle> remappedIpmcIndexHandle;
   std::uint16_t remappedIpmcIndex = 0;  // derived from the handle at resolution
   std::uint8_t strengthProfile = 0;
   Asic::WriteResponseFn writeResponseFn;

   // Identity only: the handle (by address) and the profile. The derived index and the
   // callback are not part of what the entry is.
   bool isEq(const IngIpmcRemapTableEntry& other) const noexcept {
      return this == &other || (remappedIpmcIndexHandle == other.remappedIpmcIndexHandle &&
                                strengthProfile == other.strengthProfile);
   }
   friend bool operator==(const IngIpmcRemapTableEntry& a,
                          const IngIpmcRemapTableEntry& b) noexcept {
      return a.isEq(b);
   }
   friend std::strong_ordering operator<=>(const IngIpmcRemapTableEntry& a,
                                           const IngIpmcRemapTableEntry& b) noexcept {
      if (&a == &b) return std::strong_ordering::equal;
      auto ha = reinterpret_cast<std::uintptr_t>(a.remappedIpmcIndexHandle.get());
      auto hb = reinterpret_cast<std::uintptr_t>(b.remappedIpmcIndexHandle.get());
      if (auto c = ha <=> hb; c != 0) return c;
      return a.strengthProfile <=> b.strengthProfile;
   }

   std::string toString() const;
};

class IngIpmcRemapTable : public Asic::SwTableImpl<IngIpmcRemapTable, VelmarL3Common::L3IpmcKey,
                                                   IngIpmcRemapTableEntry, IngIpmcRemapTableUtil> {
 public:
   static constexpr std::string_view kTypeName = "VelmarMcast::IngIpmcRemapTable";
   using SharedAllocator = VelmarL3Common::L3IpmcSharedAllocator;
   struct Traits {
      using IndexPolicy = Asic::IndexPolicy::OneIndex;
      static constexpr bool hasDependentFields = true;
      static constexpr bool isUnknownIndexTable = true;
      static constexpr bool hasRemoteAllocator = false;
      static constexpr bool getBlockSizeDefinedByUser = false;
      // entryWriteAtIndex on an index the allocator refuses still commits: the key then
      // takes the allocator's index.
      static constexpr bool writeAtRefusedIndexCommits = true;
   };
   // Dependent field: remappedIpmcIndexHandle -> remappedIpmcIndex.
   template <typename F>
   static void forEachNeededEntryHandle(const Entry& entry, F&& fn) {
      if (entry.remappedIpmcIndexHandle) fn(entry.remappedIpmcIndexHandle.get());
   }
   static void resolveDependentFields(Entry& entry);
   template <typename F>
   static void forEachDependentField(const Entry& swEntry, const Entry& syncedEntry, F&& fn) {
      if (swEntry.remappedIpmcIndexHandle) {
         fn(swEntry.remappedIpmcIndexHandle.get(), Asic::Index(syncedEntry.remappedIpmcIndex));
      }
   }
};

// Hardware hooks of the remap table; the chip's plug-in implements the pure ones.
class IngIpmcRemapTableUtil : public Asic::SwTableUtilT<IngIpmcRemapTable> {
 public:
   static constexpr std::string_view kTypeName = "VelmarMcast::IngIpmcRemapTable::Util";
   explicit IngIpmcRemapTableUtil(std::string name) : SwTableUtilT(std::move(name)) {}
};

inline Asic::Ptr<IngIpmcRemapTable> ingIpmcRemapTableFactory() {
   return Asic::swTableFactory<IngIpmcRemapTable>();
}

}  // namespace VelmarMcast

template <>
struct fmt::formatter<VelmarMcast::IngIpmcRemapTableEntry> : fmt::formatter<std::string_view> {
   auto format(const VelmarMcast::IngIpmcRemapTableEntry& e, format_context& ctx) const {
      return fmt::formatter<std::string_view>::format(e.toString(), ctx);
   }
};
