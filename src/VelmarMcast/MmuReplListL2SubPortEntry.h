#pragma once
// The entry of the L2 sub-port replication list table, which is also its key: a two-bit
// replication mode and the sub-ports the entry replicates to.
//
// "No sub-ports" is a default-constructed Ulm::PerUnitBitmap (64 clear bits), the width the
// chip's sub-port field reads back as, so that an entry read from the chip and the entry a
// client built compare equal. An entry is false only when its mode is 0 and its bitmap equals
// that default: a bitmap of another size is a value the client chose, and counts, even with
// no bit set.

#include <compare>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "Asic/CharRange.h"
#include "Asic/EntryBase.h"
#include "Asic/SwTableBase.h"
#include "Ulm/PerUnitBitmap.h"

namespace VelmarMcast {

class MmuReplListL2SubPortTableEntry : public Asic::EntryBase {
 public:
   static constexpr std::string_view kTypeName = "VelmarMcast::MmuReplListL2SubPortTable::Entry";
   static constexpr std::uint32_t kModeBitmapMax = 3;  // two bits

   MmuReplListL2SubPortTableEntry() = default;
   // Throws Asic::AttributeRangeError naming "modeBitmap" for a mode over two bits.
   MmuReplListL2SubPortTableEntry(std::uint32_t modeBitmap, Ulm::PerUnitBitmap l2SubPortBitmap,
                                  Asic::WriteResponseFn fn = {});
   // Reads the text form back, leaving the range after the closing brace. Throws
   // Asic::AttributeRangeError naming the attribute at fault.
   explicit MmuReplListL2SubPortTableEntry(Asic::CharRange& range);

   std::uint32_t modeBitmap() const noexcept { return modeBitmap_; }
   // Throws Asic::AttributeRangeError naming "modeBitmap" for a value over two bits.
   void modeBitmapIs(std::uint32_t modeBitmap);
   const Ulm::PerUnitBitmap& l2SubPortBitmap() const noexcept { return l2SubPortBitmap_; }
   void l2SubPortBitmapIs(Ulm::PerUnitBitmap bitmap) noexcept {
      l2SubPortBitmap_ = std::move(bitmap);
   }

   // The client's completion callback; not part of what the entry is.
   Asic::WriteResponseFn writeResponseFn;

   std::uint32_t getBlockSize() const override { return 1; }

   explicit operator bool() const noexcept {
      return modeBitmap_ != 0 ||
             l2SubPortBitmap_.wordCount() != Ulm::PerUnitBitmap::kDefaultWords ||
             l2SubPortBitmap_.any();
   }

   friend bool operator==(const MmuReplListL2SubPortTableEntry& a,
                          const MmuReplListL2SubPortTableEntry& b) noexcept {
      return a.modeBitmap_ == b.modeBitmap_ && a.l2SubPortBitmap_ == b.l2SubPortBitmap_;
   }
   friend std::strong_ordering operator<=>(const MmuReplListL2SubPortTableEntry& a,
                                           const MmuReplListL2SubPortTableEntry& b) noexcept {
      if (auto c = a.modeBitmap_ <=> b.modeBitmap_; c != 0) return c;
      return a.l2SubPortBitmap_ <=> b.l2SubPortBitmap_;
   }
   std::size_t hash(std::uint32_t seed) const {
      return absl::HashOf(seed, modeBitmap_, l2SubPortBitmap_);
   }

   // "{modeBitmap: 1, l2SubPortBitmap: 0x00000000_0000002f}"
   std::string toString() const;

 private:
   std::uint32_t modeBitmap_ = 0;
   Ulm::PerUnitBitmap l2SubPortBitmap_;
};

}  // namespace VelmarMcast

template <>
struct fmt::formatter<VelmarMcast::MmuReplListL2SubPortTableEntry>
    : fmt::formatter<std::string_view> {
   auto format(const VelmarMcast::MmuReplListL2SubPortTableEntry& e, format_context& ctx) const {
      return fmt::formatter<std::string_view>::format(e.toString(), ctx);
   }
};
