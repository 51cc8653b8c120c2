#include "VelmarMcast/McastIpmcRemapTable.h"

#include "Asic/Trace.h"

namespace VelmarMcast {
namespace {

[[maybe_unused]] const bool kLibraryLoaded = Asic::SwTableLibrary<IngIpmcRemapTable>::load();

constexpr std::string_view kEntryName = "IngIpmcRemapTable::Entry";

void expect(Asic::CharRange& range, std::string_view literal, std::string_view attribute) {
   Asic::TextParse::expect(range, literal, attribute, kEntryName);
}
using Asic::TextParse::token;
std::uint64_t unsignedValue(std::string_view tok, std::string_view attribute, std::uint64_t max) {
   return Asic::TextParse::unsignedValue(tok, attribute, max, kEntryName);
}

}  // namespace

IngIpmcRemapTableEntry::IngIpmcRemapTableEntry(
    Asic::Ptr<const Asic::SwTableBase::EntryHandle> handle, std::uint8_t profile,
    Asic::WriteResponseFn fn)
    : remappedIpmcIndexHandle(std::move(handle)),
      strengthProfile(profile),
      writeResponseFn(std::move(fn)) {
   if (profile > kStrengthProfileMax) {
      throw Asic::AttributeRangeError(
          "strengthProfile", fmt::format("IngIpmcRemapTable::Entry: strengthProfile '{}' is out "
                                         "of range (0..{})",
                                         profile, kStrengthProfileMax));
   }
}

IngIpmcRemapTableEntry::IngIpmcRemapTableEntry(Asic::CharRange& range) {
   expect(range, "{remappedIpmcIndexHandle:", "remappedIpmcIndexHandle");
   if (auto tok = token(range); tok != "null") {
      throw Asic::AttributeRangeError(
          "remappedIpmcIndexHandle",
          fmt::format("IngIpmcRemapTable::Entry: remappedIpmcIndexHandle '{}' cannot be read "
                      "from text (only null)",
                      tok));
   }
   expect(range, ", remappedIpmcIndex:", "remappedIpmcIndex");
   remappedIpmcIndex =
       static_cast<std::uint16_t>(unsignedValue(token(range), "remappedIpmcIndex", 0xFFFF));
   expect(range, ", strengthProfile:", "strengthProfile");
   strengthProfile = static_cast<std::uint8_t>(
       unsignedValue(token(range), "strengthProfile", kStrengthProfileMax));
   expect(range, "}", "strengthProfile");
}

std::string IngIpmcRemapTableEntry::toString() const {
   return fmt::format("{{remappedIpmcIndexHandle: {}, remappedIpmcIndex: {}, strengthProfile: {}}}",
                      remappedIpmcIndexHandle
                          ? fmt::format("{}", fmt::ptr(remappedIpmcIndexHandle.get()))
                          : std::string("null"),
                      remappedIpmcIndex, strengthProfile);
}

void IngIpmcRemapTable::resolveDependentFields(Entry& entry) {
   const auto* needed = entry.remappedIpmcIndexHandle.get();
   if (!needed) return;
   const Asic::Index index = needed->hwIndexForDependentField();
   // A handle that will never be programmed has no real index: stored as it comes.
   if (needed->entryState() == Asic::SwTableBase::EntryState::wontProgram) {
      entry.remappedIpmcIndex = static_cast<std::uint16_t>(index);
   } else {
      entry.remappedIpmcIndex = Asic::castIntegral<std::uint16_t>(index);
   }
}

}  // namespace VelmarMcast
