#pragma once
// The MMU replication head table: per IPMC group, a block of consecutive hardware entries,
// each naming the first entry of a replication list (its head pointer), the list's next-hop
// count, the port speed it serves and the group's IPMC index. The block is the table's key
// and its unit of commit, allocation and programming: one handle, one base index, one write
// response. Offset o of a block lives at base + o. A block waits until every replication
// list it names has a hardware index, which becomes that entry's `headPtr`.

#include <compare>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <absl/container/btree_map.h>
#include <fmt/format.h>

#include "Asic/CharRange.h"
#include "Asic/EntryBase.h"
#include "Asic/IndexAllocator.h"
#include "Asic/RefCounted.h"
#include "Asic/SharedBody.h"
#include "AsicSwTable/SwTableAccessor.h"
#include "Interface/EthSpeed.h"

namespace VelmarMcast {

class MmuReplHeadTableEntry {
 public:
   static constexpr std::string_view kTypeName = "VelmarMcast::MmuReplHeadTable::Entry";

   MmuReplHeadTableEntry() = default;
   MmuReplHeadTableEntry(Asic::Ptr<const Asic::SwTableBase::EntryHandle> headPtrHandle,
                         std::uint16_t numNextHops, Interface::EthSpeed portSpeed,
                         std::uint32_t ipmcIndex)
       : headPtrHandle(std::move(headPtrHandle)),
         numNextHops(numNextHops),
         portSpeed(portSpeed),
         ipmcIndex(ipmcIndex) {}
   // Reads the text form back (the handle only as "null"). Throws Asic::AttributeRangeError
   // naming the field at fault.
   explicit MmuReplHeadTableEntry(Asic::CharRange& range);

   Asic::Ptr<const Asic::SwTableBase::EntryHandle> headPtrHandle;
   Asic::Index headPtr = 0;  // the list's first index, derived from the handle at resolution
   std::uint16_t numNextHops = 0;
   Interface::EthSpeed portSpeed = Interface::EthSpeed::speedUnknown;
   std::uint32_t ipmcIndex = 0;

   // Identity leaves headPtr out: an unresolved entry and its resolved copy are one entry.
   friend bool operator==(const MmuReplHeadTableEntry& a, const MmuReplHeadTableEntry& b) noexcept {
      return (a <=> b) == 0;
   }
   friend std::strong_ordering operator<=>(const MmuReplHeadTableEntry& a,
                                           const MmuReplHeadTableEntry& b) noexcept {
      if (&a == &b) return std::strong_ordering::equal;
      auto ha = reinterpret_cast<std::uintptr_t>(a.headPtrHandle.get());
      auto hb = reinterpret_cast<std::uintptr_t>(b.headPtrHandle.get());
      if (auto c = ha <=> hb; c != 0) return c;
      if (auto c = a.numNextHops <=> b.numNextHops; c != 0) return c;
      if (auto c = a.portSpeed <=> b.portSpeed; c != 0) return c;
      return a.ipmcIndex <=> b.ipmcIndex;
   }
   std::size_t hash(std::uint32_t seed) const {
      return absl::HashOf(seed, headPtrHandle.get(), numNextHops,
                          static_cast<std::uint8_t>(portSpeed), ipmcIndex);
   }

   // "{headPtrHandle: null, headPtr: 0, numNextHops: 2, portSpeed: speed100Gbps, ipmcIndex: 7}"
   std::string toString() const;
};

// The table's key: the entries of one block by offset. Its size is its entry count; a
// client may state the size it means (`blockSizeIs`), and a block whose entries do not
// match it is refused at commit.
class MmuReplHeadTableEntryBlock : public Asic::EntryBase {
 public:
   static constexpr std::string_view kTypeName = "VelmarMcast::MmuReplHeadTable::EntryBlock";
   using Entry = MmuReplHeadTableEntry;
   using EntryMap = absl::btree_map<Asic::Index, Entry>;  // by offset, in offset order

   MmuReplHeadTableEntryBlock() = default;
   // A block has no text to be read from: always an assertion failure.
   explicit MmuReplHeadTableEntryBlock(Asic::CharRange& range);

   // The entry at the offset, or the default entry (nothing inserted) when absent.
   Entry entry(Asic::Index offset) const {
      const EntryMap& entries = entryInternal();
      auto it = entries.find(offset);
      return it == entries.end() ? Entry{} : it->second;
   }
   bool entryHas(Asic::Index offset) const { return entryInternal().contains(offset); }
   void entryIs(Asic::Index offset, const Entry& entry) { entryInternalIs(offset, entry); }
   void entryInternalIs(Asic::Index offset, const Entry& entry) {
      Body::forChange(body_).value.insert_or_assign(offset, entry);
   }
   void entryDel(Asic::Index offset) { entryInternalDel(offset); }
   void entryInternalDel(Asic::Index offset) {
      if (entryHas(offset))
         Body::forChange(body_).value.erase(offset);  // a shared body stays shared
   }
   void entryInternalDelAll() noexcept { body_.reset(); }
   const EntryMap& entryInternal() const noexcept { return body_ ? body_->value : kNoEntries; }
   EntryMap& entryInternalMutable() { return Body::forChange(body_).value; }
   // Fills each entry's headPtr from its handle (resolution). The head pointer is not part
   // of what the block is, so the block keeps its digest.
   void headPtrsResolve();

   std::uint32_t getBlockSize() const override {
      return static_cast<std::uint32_t>(entryInternal().size());
   }
   // The size the client means; the entry count unless stated.
   std::uint32_t blockSize() const noexcept {
      return statedSize_ ? statedSize_ - 1 : getBlockSize();
   }
   void blockSizeIs(std::uint32_t blockSize) noexcept { statedSize_ = blockSize + 1; }

   explicit operator bool() const noexcept { return !entryInternal().empty(); }

   friend bool operator==(const MmuReplHeadTableEntryBlock& a,
                          const MmuReplHeadTableEntryBlock& b) noexcept {
      if (&a == &b || a.body_ == b.body_) return true;  // one body: copies of one block
      if (a.digest() != b.digest()) return false;
      return a.entryInternal() == b.entryInternal();
   }
   friend std::strong_ordering operator<=>(const MmuReplHeadTableEntryBlock& a,
                                           const MmuReplHeadTableEntryBlock& b) noexcept {
      if (&a == &b || a.body_ == b.body_) return std::strong_ordering::equal;
      const EntryMap& ea = a.entryInternal();
      const EntryMap& eb = b.entryInternal();
      return std::lexicographical_compare_three_way(ea.begin(), ea.end(), eb.begin(), eb.end());
   }
   std::size_t hash(std::uint32_t seed) const { return absl::HashOf(seed, digest()); }

   // "{0: {...}, 1: {...}}"
   std::string toString() const;

 private:
   // The entries, shared by every copy of the block.
   using Body = Asic::SharedBody<EntryMap>;
   static const EntryMap kNoEntries;
   std::uint64_t digest() const noexcept;

   Asic::Ptr<Body> body_;          // null: no entries
   std::uint32_t statedSize_ = 0;  // stated size + 1; 0 when none was stated
};

// The head table's own allocator type: consecutive runs, one per block.
class MmuReplHeadAllocator : public Asic::AnySizedBlockAllocator {
 public:
   static constexpr std::string_view kTypeName = "VelmarMcast::MmuReplHeadAllocator";
   using AnySizedBlockAllocator::AnySizedBlockAllocator;
   std::string_view allocatorTypeName() const override { return kTypeName; }
};

class MmuReplHeadTableUtil;

class MmuReplHeadTable : public Asic::SwTableImpl<MmuReplHeadTable, MmuReplHeadTableEntryBlock,
                                                  MmuReplHeadTableEntryBlock, MmuReplHeadTableUtil,
                                                  MmuReplHeadTableEntry> {
 public:
   static constexpr std::string_view kTypeName = "VelmarMcast::MmuReplHeadTable";
   using EntryBlock = MmuReplHeadTableEntryBlock;
   using Entry = MmuReplHeadTableEntry;  // one hardware entry; the engine's value is the block
   using UnresolvedEntryBlock = UnresolvedEntry;
   using SharedAllocator = MmuReplHeadAllocator;
   struct Traits {
      using IndexPolicy = Asic::IndexPolicy::ConsecutiveRun;
      static constexpr bool hasDependentFields = true;
      static constexpr bool hasEntryValidate = true;
      static constexpr bool isUnknownIndexTable = true;
      static constexpr bool hasRemoteAllocator = false;
      static constexpr bool getBlockSizeDefinedByUser = true;
   };

   // The block operations, under the names a block table's clients use.
   Asic::Ptr<const EntryHandle> entryBlockCommit(const EntryBlock& block) {
      return entryCommit(block, block);
   }
   Asic::Ptr<const EntryHandle> entryBlockRef(const EntryBlock& block) {
      return entryRef(block, block);
   }
   void entryBlockRemove(const EntryBlock& block) { entryRemove(block); }
   void entryBlockRemoveAll() { entryRemoveAll(); }
   void handleEntryBlock(const EntryBlock& block) { handleEntry(block); }
   bool entryBlockHas(const EntryBlock& block) const { return entryHandleHas(block); }

   // A block whose entries are not the size it states, or that has no entry, is refused:
   // std::logic_error "Unsupported behavior: entryInternals: <n>, blockSize: <m>".
   static void entryValidate(const EntryBlock& block);

   // Dependent fields: each entry's headPtrHandle -> its headPtr.
   template <typename F>
   static void forEachNeededEntryHandle(const EntryBlock& block, F&& fn) {
      for (const auto& [offset, entry] : block.entryInternal()) {
         if (entry.headPtrHandle) fn(entry.headPtrHandle.get());
      }
   }
   static void resolveDependentFields(EntryBlock& block);
   // At a restart, each list a block names is offered the head pointer the chip holds at
   // the same offset.
   template <typename F>
   static void forEachDependentField(const EntryBlock& swBlock, const EntryBlock& syncedBlock,
                                     F&& fn) {
      for (const auto& [offset, entry] : swBlock.entryInternal()) {
         if (!entry.headPtrHandle || !syncedBlock.entryHas(offset)) continue;
         fn(entry.headPtrHandle.get(), syncedBlock.entry(offset).headPtr);
      }
   }
};

// Hardware hooks of the head table; the chip's plug-in implements the pure ones.
class MmuReplHeadTableUtil : public Asic::SwTableUtilT<MmuReplHeadTable> {
 public:
   static constexpr std::string_view kTypeName = "VelmarMcast::MmuReplHeadTable::Util";
   explicit MmuReplHeadTableUtil(std::string name) : SwTableUtilT(std::move(name)) {}
};

inline Asic::Ptr<MmuReplHeadTable> mmuReplHeadTableFactory() {
   return Asic::swTableFactory<MmuReplHeadTable>();
}

}  // namespace VelmarMcast

template <>
struct fmt::formatter<VelmarMcast::MmuReplHeadTableEntry> : fmt::formatter<std::string_view> {
   auto format(const VelmarMcast::MmuReplHeadTableEntry& e, format_context& ctx) const {
      return fmt::formatter<std::string_view>::format(e.toString(), ctx);
   }
};
template <>
struct fmt::formatter<VelmarMcast::MmuReplHeadTableEntryBlock> : fmt::formatter<std::string_view> {
   auto format(const VelmarMcast::MmuReplHeadTableEntryBlock& b, format_context& ctx) const {
      return fmt::formatter<std::string_view>::format(b.toString(), ctx);
   }
};
