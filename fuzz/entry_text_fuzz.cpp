// Bytes as the text form of every value the tables read back from text: the remap, head and
// L2 sub-port entries, the L3 multicast key and the agent's IPv4 addresses. Each parser
// either refuses with the error it documents or gives a value whose own text form reads back
// to the same value, consumed whole. The list entry and the head block have no text form:
// reading one is always a failed assertion, never anything else.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "Asic/Assert.h"
#include "Asic/CharRange.h"
#include "FuzzSupport.h"
#include "McastAgent/Config.h"
#include "VelmarL3Common/L3IpmcKey.h"
#include "VelmarMcast/McastIpmcRemapTable.h"
#include "VelmarMcast/MmuReplHeadTable.h"
#include "VelmarMcast/MmuReplListEntry.h"
#include "VelmarMcast/MmuReplListL2SubPortEntry.h"

namespace {

// The parse left the range on a suffix of what it was given.
void checkConsumedPrefix(std::string_view text, const Asic::CharRange& range) {
   FUZZ_CHECK(range.text.data() >= text.data() &&
                  range.text.data() + range.text.size() == text.data() + text.size(),
              "the range is not a suffix of the text after parsing '{}'", text);
}

// Parses `text` as E; on success, E's text form must parse to an entry with the same text
// form, consuming it whole. Only Asic::AttributeRangeError is a refusal.
template <typename E, typename Same>
void entryRoundTrip(std::string_view text, Same&& same) {
   Asic::CharRange range{text};
   std::optional<E> parsed;
   try {
      parsed.emplace(range);
   } catch (const Asic::AttributeRangeError& e) {
      FUZZ_CHECK(!e.attribute().empty(), "refusal names no attribute: {}", e.what());
      checkConsumedPrefix(text, range);
      return;
   }
   checkConsumedPrefix(text, range);
   const std::string form = parsed->toString();
   Asic::CharRange again{form};
   std::optional<E> reparsed;
   try {
      reparsed.emplace(again);
   } catch (const Asic::AttributeRangeError& e) {
      Fuzz::fail(
          fmt::format("'{}' parsed, its text form '{}' is refused: {}", text, form, e.what()));
   }
   FUZZ_CHECK(again.text.empty(), "text form '{}' leaves '{}' unread", form, again.text);
   FUZZ_CHECK(reparsed->toString() == form, "'{}' reads back as '{}'", form, reparsed->toString());
   FUZZ_CHECK(same(*parsed, *reparsed), "'{}' reads back as another value", form);
}

void remapEntry(std::string_view text) {
   using E = VelmarMcast::IngIpmcRemapTableEntry;
   entryRoundTrip<E>(text, [](const E& a, const E& b) {
      return a == b && a.remappedIpmcIndex == b.remappedIpmcIndex && !a.remappedIpmcIndexHandle;
   });
}

void headEntry(std::string_view text) {
   using E = VelmarMcast::MmuReplHeadTableEntry;
   entryRoundTrip<E>(text, [](const E& a, const E& b) {
      return a == b && a.headPtr == b.headPtr && !a.headPtrHandle;
   });
}

void l2SubPortEntry(std::string_view text) {
   using E = VelmarMcast::MmuReplListL2SubPortTableEntry;
   entryRoundTrip<E>(text, [](const E& a, const E& b) {
      return a == b && a.modeBitmap() <= E::kModeBitmapMax && a.hash(7) == b.hash(7);
   });
}

// Documented to fail an assertion whatever the text: with assertions throwing, that is
// the one outcome.
template <typename E>
void noTextForm(std::string_view text) {
   Asic::ScopedAssertThrow asserts;
   Asic::CharRange range{text};
   try {
      E e(range);
   } catch (const Asic::AssertionError&) {
      return;
   }
   Fuzz::fail(fmt::format("{} read from text '{}'", E::kTypeName, text));
}

void l3IpmcKey(std::string_view text) {
   VelmarL3Common::L3IpmcKey key;
   try {
      key = VelmarL3Common::parseL3IpmcKey(text);
   } catch (const std::invalid_argument&) {
      return;
   }
   const std::string form = fmt::format("{}", key);
   VelmarL3Common::L3IpmcKey again;
   try {
      again = VelmarL3Common::parseL3IpmcKey(form);
   } catch (const std::invalid_argument& e) {
      Fuzz::fail(
          fmt::format("'{}' parsed, its text form '{}' is refused: {}", text, form, e.what()));
   }
   FUZZ_CHECK(again == key, "'{}' reads back as {}", form, again);
}

void ipv4(std::string_view text) {
   std::uint32_t addr = 0;
   try {
      addr = McastAgent::ipv4FromString(std::string(text));
   } catch (const std::invalid_argument&) {
      return;
   }
   const std::string form = McastAgent::ipv4ToString(addr);
   FUZZ_CHECK(McastAgent::ipv4FromString(form) == addr, "'{}' reads back differently", form);
   // A dotted quad has one spelling without leading zeros; with them it still means the same.
   FUZZ_CHECK(form.size() <= text.size(), "'{}' was read from the shorter '{}'", form, text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
   const std::string_view text(reinterpret_cast<const char*>(data), size);
   remapEntry(text);
   headEntry(text);
   l2SubPortEntry(text);
   l3IpmcKey(text);
   ipv4(text);
   noTextForm<VelmarMcast::MmuReplListTableEntry>(text);
   noTextForm<VelmarMcast::MmuReplHeadTableEntryBlock>(text);
   return 0;
}
