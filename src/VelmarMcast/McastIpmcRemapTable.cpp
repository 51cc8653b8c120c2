#include "VelmarMcast/McastIpmcRemapTable.h"

#include <charconv>
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

void expect(Asic::CharRange& range, std::string_view literal, std::string_view attribute) {
   while (!range.text.empty() && range.text.front() == ' ') range.text.remove_prefix(1);
   if (range.text.substr(0, literal.size()) != literal) {
      throw Asic::AttributeRangeError(
          std::string(attribute),
          fmt::format("IngIpmcRemapTable::Entry: expected '{}' before {} in '{}'", literal,
                      attribute, range.text));
   }
   range.text.remove_prefix(literal.size());
}

std::string_view token(Asic::CharRange& range) {
   while (!range.text.empty() && range.text.front() == ' ') range.text.remove_prefix(1);
   auto end = range.text.find_first_of(",}");
   auto tok = range.text.substr(0, end);
   range.text.remove_prefix(tok.size());
   while (!tok.empty() && tok.back() == ' ') tok.remove_suffix(1);
   return tok;
}

std::uint64_t unsignedValue(std::string_view tok, std::string_view attribute, std::uint64_t max) {
   std::uint64_t value = 0;
   auto [ptr, ec] = std::from_chars(tok.data(), tok.data() + tok.size(), value);
   if (ec != std::errc() || ptr != tok.data() + tok.size() || tok.empty() || value > max) {
      throw Asic::AttributeRangeError(
          std::string(attribute),
          fmt::format("IngIpmcRemapTable::Entry: {} '{}' is out of range (0..{})", attribute, tok,
                      max));
   }
   return value;
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
   return fmt::format(
       "{{remappedIpmcIndexHandle: {}, remappedIpmcIndex: {}, strengthProfile: {}}}",
       remappedIpmcIndexHandle ? fmt::format("{}", fmt::ptr(remappedIpmcIndexHandle.get()))
                               : std::string("null"),
       remappedIpmcIndex, strengthProfile);
}

IngIpmcRemapTable::IngIpmcRemapTable() : SwTableImpl("") {
   (void)libraryLoad();
   hwResponseNeededIs(true);
   UtilLoader& loader = UtilLoader::instance();
   // The search path may have been set after library load (the agent sets a default).
   if (!loader.util()) loader.load();
   utilIs(loader.util());
}

IngIpmcRemapTable::UtilLoader& IngIpmcRemapTable::UtilLoader::instance() {
   static UtilLoader* loader = [] {
      auto* created = new UtilLoader(std::string(kTypeName));  // lives for the process
      created->load();
      return created;
   }();
   return *loader;
}

std::size_t IngIpmcRemapTable::UtilLoader::load() {
   return Ancillary::Core::Loader::Singleton::instance().load(prefixPath(), suffixPath(), *this);
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
