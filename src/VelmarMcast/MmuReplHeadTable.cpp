#include "VelmarMcast/MmuReplHeadTable.h"

#include <stdexcept>

#include "Asic/Assert.h"
#include "Asic/Errors.h"
#include "Asic/TypeRegistry.h"

namespace VelmarMcast {
namespace {

[[maybe_unused]] const bool kLibraryLoaded = Asic::SwTableLibrary<MmuReplHeadTable>::load();
[[maybe_unused]] const bool kEntryRegistered =
    (Asic::TypeRegistry::registerType<MmuReplHeadTableEntry>(), true);

constexpr std::string_view kEntryName = "MmuReplHeadTable::Entry";

void expect(Asic::CharRange& range, std::string_view literal, std::string_view attribute) {
   Asic::TextParse::expect(range, literal, attribute, kEntryName);
}
using Asic::TextParse::token;
std::uint64_t unsignedValue(std::string_view tok, std::string_view attribute, std::uint64_t max) {
   return Asic::TextParse::unsignedValue(tok, attribute, max, kEntryName);
}

}  // namespace

MmuReplHeadTableEntry::MmuReplHeadTableEntry(Asic::CharRange& range) {
   expect(range, "{headPtrHandle:", "headPtrHandle");
   if (auto tok = token(range); tok != "null") {
      throw Asic::AttributeRangeError(
          "headPtrHandle",
          fmt::format("{}: headPtrHandle '{}' cannot be read from text (only null)", kEntryName,
                      tok));
   }
   expect(range, ", headPtr:", "headPtr");
   headPtr = static_cast<Asic::Index>(unsignedValue(token(range), "headPtr", 0xFFFFFFFFu));
   expect(range, ", numNextHops:", "numNextHops");
   numNextHops = static_cast<std::uint16_t>(unsignedValue(token(range), "numNextHops", 0xFFFF));
   expect(range, ", portSpeed:", "portSpeed");
   const auto speedText = token(range);
   const auto speed = Interface::ethSpeedOf(speedText);
   if (!speed) {
      throw Asic::AttributeRangeError(
          "portSpeed", fmt::format("{}: portSpeed '{}' is not a speed", kEntryName, speedText));
   }
   portSpeed = *speed;
   expect(range, ", ipmcIndex:", "ipmcIndex");
   ipmcIndex = static_cast<std::uint32_t>(unsignedValue(token(range), "ipmcIndex", 0xFFFFFFFFu));
   expect(range, "}", "ipmcIndex");
}

std::string MmuReplHeadTableEntry::toString() const {
   return fmt::format(
       "{{headPtrHandle: {}, headPtr: {}, numNextHops: {}, portSpeed: {}, ipmcIndex: {}}}",
       headPtrHandle ? fmt::format("{}", fmt::ptr(headPtrHandle.get())) : std::string("null"),
       headPtr, numNextHops, portSpeed, ipmcIndex);
}

MmuReplHeadTableEntryBlock::MmuReplHeadTableEntryBlock(Asic::CharRange&) {
   ASIC_ASSERT_TEXT(false, "\"No String constructor for EntryBlock - has collection\" == nullptr",
                    "");
}

const MmuReplHeadTableEntryBlock::EntryMap MmuReplHeadTableEntryBlock::kNoEntries;

std::uint64_t MmuReplHeadTableEntryBlock::digest() const noexcept {
   static const std::uint64_t kNoEntriesDigest = absl::HashOf(std::size_t{0});
   if (!body_) return kNoEntriesDigest;
   return body_->digestOf([](const EntryMap& entries) {
      std::uint64_t h = absl::HashOf(entries.size());
      for (const auto& [offset, entry] : entries) h = absl::HashOf(h, offset, entry.hash(0));
      return h;
   });
}

void MmuReplHeadTableEntryBlock::headPtrsResolve() {
   if (!body_) return;
   const bool digestValid = body_->digestValid;
   const std::uint64_t digest = body_->digest;
   Body& body = Body::forChange(body_);
   for (auto& [offset, entry] : body.value) {
      if (entry.headPtrHandle) entry.headPtr = entry.headPtrHandle->hwIndexForDependentField();
   }
   body.digest = digest;
   body.digestValid = digestValid;
}

std::string MmuReplHeadTableEntryBlock::toString() const {
   std::string out = "{";
   for (const auto& [offset, entry] : entryInternal()) {
      if (out.size() > 1) out += ", ";
      fmt::format_to(std::back_inserter(out), "{}: {}", offset, entry);
   }
   out += "}";
   return out;
}

void MmuReplHeadTable::entryValidate(const EntryBlock& block) {
   const std::uint32_t entries = block.getBlockSize();
   if (entries == 0 && block.blockSize() == 0) {
      throw std::logic_error(fmt::format("{}: an empty block has no entry to program", kTypeName));
   }
   if (entries != block.blockSize()) {
      throw std::logic_error(fmt::format("Unsupported behavior: entryInternals: {}, blockSize: {}",
                                         entries, block.blockSize()));
   }
}

void MmuReplHeadTable::resolveDependentFields(EntryBlock& block) { block.headPtrsResolve(); }

}  // namespace VelmarMcast
