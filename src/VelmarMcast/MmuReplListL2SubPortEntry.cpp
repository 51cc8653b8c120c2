#include "VelmarMcast/MmuReplListL2SubPortEntry.h"

#include <initializer_list>
#include <stdexcept>
#include <utility>

namespace VelmarMcast {
namespace {

constexpr std::string_view kEntryName = "MmuReplListL2SubPortTable::Entry";

// Each piece may follow spaces: "{ modeBitmap :" reads like "{modeBitmap:".
void expect(Asic::CharRange& range, std::initializer_list<std::string_view> pieces,
            std::string_view attribute) {
   for (std::string_view piece : pieces)
      Asic::TextParse::expect(range, piece, attribute, kEntryName);
}
using Asic::TextParse::token;

[[noreturn]] void modeOutOfRange(std::string_view value) {
   throw Asic::AttributeRangeError(
       "modeBitmap", fmt::format("{}: modeBitmap '{}' is out of range (0..{})", kEntryName, value,
                                 MmuReplListL2SubPortTableEntry::kModeBitmapMax));
}

std::uint32_t parseMode(std::string_view tok) {
   return static_cast<std::uint32_t>(Asic::TextParse::unsignedValue(
       tok, "modeBitmap", MmuReplListL2SubPortTableEntry::kModeBitmapMax, kEntryName));
}

Ulm::PerUnitBitmap parseBitmap(std::string_view tok) {
   try {
      return Ulm::PerUnitBitmap::parse(tok);
   } catch (const std::invalid_argument& e) {
      throw Asic::AttributeRangeError("l2SubPortBitmap",
                                      fmt::format("{}: l2SubPortBitmap {}", kEntryName, e.what()));
   }
}

}  // namespace

MmuReplListL2SubPortTableEntry::MmuReplListL2SubPortTableEntry(std::uint32_t modeBitmap,
                                                               Ulm::PerUnitBitmap l2SubPortBitmap,
                                                               Asic::WriteResponseFn fn)
    : writeResponseFn(std::move(fn)), l2SubPortBitmap_(std::move(l2SubPortBitmap)) {
   modeBitmapIs(modeBitmap);
}

MmuReplListL2SubPortTableEntry::MmuReplListL2SubPortTableEntry(Asic::CharRange& range) {
   expect(range, {"{", "modeBitmap", ":"}, "modeBitmap");
   modeBitmap_ = parseMode(token(range));
   expect(range, {",", "l2SubPortBitmap", ":"}, "l2SubPortBitmap");
   l2SubPortBitmap_ = parseBitmap(token(range));
   expect(range, {"}"}, "l2SubPortBitmap");
}

void MmuReplListL2SubPortTableEntry::modeBitmapIs(std::uint32_t modeBitmap) {
   if (modeBitmap > kModeBitmapMax) modeOutOfRange(std::to_string(modeBitmap));
   modeBitmap_ = modeBitmap;
}

std::string MmuReplListL2SubPortTableEntry::toString() const {
   return fmt::format("{{modeBitmap: {}, l2SubPortBitmap: {}}}", modeBitmap_, l2SubPortBitmap_);
}

}  // namespace VelmarMcast
