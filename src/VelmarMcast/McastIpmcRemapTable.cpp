#include "VelmarMcast/McastIpmcRemapTable.h"

#include <cstdlib>

#include "Asic/Trace.h"
#include "Asic/TypeRegistry.h"

namespace VelmarMcast {
namespace {

// Library load, in order: the agent's name, the table's types, the statistics trace
// handle, and the Util loader that asks the plug-in loader for the table's Util.
struct LibraryLoad {
   std::string agentName;
   LibraryLoad() {
      if (const char* name = std::getenv("AGENT_PROCESS_NAME")) agentName = name;
      VelmarL3Common::registerL3IpmcKeyType();
      VelmarL3Common::registerL3IpmcSharedAllocator();
      Asic::traceHandle(Asic::kSwTableStatTrace);
      // A broken plug-in must not stop the library from loading: the table then runs
      // without a Util, and the error is on record.
      try {
         IngIpmcRemapTable::UtilLoader::instance();
      } catch (const std::exception& e) {
         ASIC_TRACE(Asic::traceHandle(IngIpmcRemapTable::kTypeName), 0, "{} : UtilLoader {}",
                    IngIpmcRemapTable::kTypeName, e.what());
      }
   }
};

const LibraryLoad& libraryLoad() {
   static const LibraryLoad load;
   return load;
}
[[maybe_unused]] const LibraryLoad& libraryLoadAtStart = libraryLoad();

constexpr std::string_view kEntryName = "IngIpmcRemapTable::Entry";

void expect(Asic::CharRange& range, std::string_view literal, std::string_view attribute) {
   Asic::TextParse::expect(range, literal, attribute, kEntryName);
}
using Asic::TextParse::token;
std::uint64_t unsignedValue(std::string_view tok, std::string_view attribute, std::uint64_t max) {
   return Asic::TextParse::unsignedValue(tok, attribute, max, kEntryName);
}

}  // namespace

const std::string& agentProcessName() { return libraryLoad().agentName; }

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

IngIpmcRemapTable::IngIpmcRemapTable() : SwTableImpl("") {
   (void)libraryLoad();
   hwResponseNeededIs(true);
   // The search path may have been set after library load (the agent sets a default).
   utilIs(UtilLoader::instance().utilForNewTable());
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

Asic::Ptr<IngIpmcRemapTable> ingIpmcRemapTableFactory() {
   return Asic::makePtr<IngIpmcRemapTable>();
}

}  // namespace VelmarMcast
