#pragma once
// The MMU RQE replication port aggregation map: a register array whose index is its own key,
// each index holding the member ports aggregated there. No allocator, no needed entry. After
// a restart the values the chip holds can be adopted as the software's own
// (autoCommitSyncedEntries), so that indices nobody replays keep forwarding; a replayed value
// wins over an adopted one, and an unchanged replay writes nothing.

#include <compare>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "AsicSwTable/SwTableAccessor.h"
#include "Ulm/PerUnitBitmap.h"

namespace VelmarMcast {

class MmuRqeReplPortAggMapRegisterEntry {
 public:
   static constexpr std::string_view kTypeName = "VelmarMcast::MmuRqeReplPortAggMapRegister::Entry";

   MmuRqeReplPortAggMapRegisterEntry() = default;
   explicit MmuRqeReplPortAggMapRegisterEntry(Ulm::PerUnitBitmap memberBmp,
                                              Asic::WriteResponseFn fn = {})
       : memberBmp(std::move(memberBmp)), writeResponseFn(std::move(fn)) {}

   Ulm::PerUnitBitmap memberBmp;
   Asic::WriteResponseFn writeResponseFn;  // the client's callback; not part of the value

   // An entry with no member port is false, whatever its bitmap's size.
   explicit operator bool() const noexcept { return memberBmp.any(); }
   friend bool operator==(const MmuRqeReplPortAggMapRegisterEntry& a,
                          const MmuRqeReplPortAggMapRegisterEntry& b) noexcept {
      return a.memberBmp == b.memberBmp;
   }
   friend std::strong_ordering operator<=>(const MmuRqeReplPortAggMapRegisterEntry& a,
                                           const MmuRqeReplPortAggMapRegisterEntry& b) noexcept {
      return a.memberBmp <=> b.memberBmp;
   }
   std::size_t hash(std::uint32_t seed) const { return memberBmp.hash(seed); }
   std::string toString() const { return fmt::format("{{memberBmp: {}}}", memberBmp); }
};

class MmuRqeReplPortAggMapRegisterUtil;

class MmuRqeReplPortAggMapRegister
    : public Asic::SwTableImpl<MmuRqeReplPortAggMapRegister, Asic::Index,
                               MmuRqeReplPortAggMapRegisterEntry,
                               MmuRqeReplPortAggMapRegisterUtil> {
 public:
   static constexpr std::string_view kTypeName = "VelmarMcast::MmuRqeReplPortAggMapRegister";
   struct Traits {
      using IndexPolicy = Asic::IndexPolicy::KeyIsIndex;
      static constexpr bool isKnownIndexTable = true;
      static constexpr bool hasRemoteAllocator = false;
      static constexpr bool isExternalKeyType = false;
      static constexpr bool isOwnedByMergeTable = false;
   };

   // A replayed value equal to the one adopted from the chip is reconciled against it, so
   // that the client's handle completes without a write.
   Asic::Ptr<const EntryHandle> entryCommit(Asic::Index index, const Entry& entry);
   // An adopted value has no handle of its own: removing it deletes it from the chip.
   void entryRemove(Asic::Index index);

   // The register's index range: the Util's, or everything when no hardware is attached.
   Asic::Index minIndex() const;
   Asic::Index maxIndex() const;

   // Adopts every synced value as its index's resolved value (unless switched off).
   void autoCommitSyncedEntries();
   bool autoCommitSyncedEntriesEnabled() const noexcept { return autoCommit_; }
   void autoCommitSyncedEntriesEnabledIs(bool enabled) noexcept { autoCommit_ = enabled; }

 private:
   bool autoCommit_ = true;
};

// Hardware hooks of the register; the chip's plug-in implements the pure ones.
class MmuRqeReplPortAggMapRegisterUtil : public Asic::SwTableUtilT<MmuRqeReplPortAggMapRegister> {
 public:
   static constexpr std::string_view kTypeName = "VelmarMcast::MmuRqeReplPortAggMapRegister::Util";
   explicit MmuRqeReplPortAggMapRegisterUtil(std::string name) : SwTableUtilT(std::move(name)) {}

   // The indices the chip's register array has.
   virtual Asic::Index minIndex(const Asic::HwTable&) const { return 0; }
   virtual Asic::Index maxIndex(const Asic::HwTable& hw) const { return hw.numEntries() - 1; }
};

inline Asic::Ptr<MmuRqeReplPortAggMapRegister> mmuRqeReplPortAggMapRegisterFactory() {
   return Asic::swTableFactory<MmuRqeReplPortAggMapRegister>();
}

}  // namespace VelmarMcast

template <>
struct fmt::formatter<VelmarMcast::MmuRqeReplPortAggMapRegisterEntry>
    : fmt::formatter<std::string_view> {
   auto format(const VelmarMcast::MmuRqeReplPortAggMapRegisterEntry& e, format_context& ctx) const {
      return fmt::formatter<std::string_view>::format(e.toString(), ctx);
   }
};
