#include "VelmarMcast/MmuReplListEntry.h"

#include <cmath>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "Asic/Assert.h"
#include "Asic/Trace.h"
#include "Asic/TypeRegistry.h"

namespace VelmarMcast {
namespace {

using Entry = MmuReplListTableEntry;

template <typename Map>
std::uint32_t portCount(const Map& map) noexcept {
   std::uint32_t total = 0;
   for (const auto& [key, ports] : map) total += static_cast<std::uint32_t>(ports.size());
   return total;
}

// "{k: v, ...}" with each key written by `key`.
template <typename Map, typename KeyText>
void appendMap(std::string& out, const Map& map, KeyText key) {
   out += '{';
   bool first = true;
   for (const auto& [k, v] : map) {
      if (!first) out += ", ";
      first = false;
      fmt::format_to(std::back_inserter(out), "{}: {}", key(k), v);
   }
   out += '}';
}

}  // namespace

const Asic::TraceHandle& mmuReplListTrace() {
   // Looked up once: the layout and the allocator's size queries trace on every call.
   static const Asic::TraceHandle& handle = Asic::traceHandle(kMmuReplListTableTypeName);
   return handle;
}

Entry::MmuReplListTableEntry(Asic::CharRange& range) {
   (void)range;
   ASIC_ASSERT_MSG(false, "No String constructor for Entry - has collection");
}

Entry::MmuReplListTableEntry(MmuReplListTableEntry&& other)
    : EntryBase(other),
      egressObjectHandle_(other.egressObjectHandle_),
      egressObject_(std::move(other.egressObject_)),
      denseEntrySize_(other.denseEntrySize_),
      denseReplListEntry_(std::move(other.denseReplListEntry_)),
      sparseEntrySize_(other.sparseEntrySize_),
      sparseReplListEntry_(std::move(other.sparseReplListEntry_)),
      genId_(other.genId_),
      digest_(other.digest_),
      digestValid_(other.digestValid_),
      writeResponseFn(other.writeResponseFn) {
   // A moved-from container is only "valid"; the source is promised empty ones.
   other.egressObject_.clear();
   other.denseReplListEntry_.clear();
   other.sparseReplListEntry_.clear();
}

Entry& Entry::operator=(MmuReplListTableEntry&& other) {
   if (this == &other) return *this;
   EntryBase::operator=(other);
   egressObjectHandle_ = other.egressObjectHandle_;
   egressObject_ = std::move(other.egressObject_);
   denseEntrySize_ = other.denseEntrySize_;
   denseReplListEntry_ = std::move(other.denseReplListEntry_);
   sparseEntrySize_ = other.sparseEntrySize_;
   sparseReplListEntry_ = std::move(other.sparseReplListEntry_);
   genId_ = other.genId_;
   digest_ = other.digest_;
   digestValid_ = other.digestValid_;
   writeResponseFn = other.writeResponseFn;
   other.egressObject_.clear();
   other.denseReplListEntry_.clear();
   other.sparseReplListEntry_.clear();
   return *this;
}

void Entry::egressObjectHandleIs(EntryHandlePtr eh, PortList ports) {
   if (!eh) {
      throw std::invalid_argument(
          fmt::format("{}: egressObjectHandle must not be a null entry handle", kTypeName));
   }
   egressObjectHandle_.insert_or_assign(std::move(eh), std::move(ports));
   digestValid_ = false;
}

const PortList& Entry::egressObjectHandle(const EntryHandle* eh) const {
   auto it = egressObjectHandle_.find(eh);
   if (it == egressObjectHandle_.end()) {
      throw std::out_of_range(
          fmt::format("{}: egressObjectHandle {} is not in the list", kTypeName, fmt::ptr(eh)));
   }
   return it->second;
}

void Entry::sparseEntrySizeIs(std::uint8_t size) {
   if (size == 0) {
      throw std::invalid_argument(
          fmt::format("{}: sparseEntrySize 0 is invalid (a sparse entry holds at least one "
                      "next hop)",
                      kTypeName));
   }
   sparseEntrySize_ = size;
}

void Entry::denseEntrySizeIs(std::uint8_t size) {
   if (size > kDenseEntrySizeMax || (size & (size - 1)) != 0) {
      throw std::invalid_argument(
          fmt::format("{}: denseEntrySize {} is invalid (0 or a power of two of at most {})",
                      kTypeName, size, kDenseEntrySizeMax));
   }
   denseEntrySize_ = size;
}

PortList Entry::egressObject(std::uint32_t index) const {
   auto it = egressObject_.find(index);
   return it == egressObject_.end() ? PortList() : it->second;
}

const PortList& Entry::egressObjectGet(std::uint32_t index) const {
   auto it = egressObject_.find(index);
   if (it == egressObject_.end()) {
      throw std::out_of_range(
          fmt::format("{}: egressObject {} is not in the list", kTypeName, index));
   }
   return it->second;
}

std::uint32_t Entry::getBlockSize() const {
   std::uint32_t blockSize = 0;
   if (denseEntrySize_ != 0) {
      // Only meaningful once the layout has run.
      blockSize =
          static_cast<std::uint32_t>(sparseReplListEntry_.size() + denseReplListEntry_.size());
   } else {
      // An entry that is not resolved yet is counted from its handles.
      std::uint32_t total = portCount(egressObject_);
      if (total == 0) total = portCount(egressObjectHandle_);
      if (total != 0) {
         if (sparseEntrySize_ == 0) {
            throw std::invalid_argument(fmt::format(
                "{}: sparseEntrySize 0 cannot hold the list's {} (next hop, port) pairs", kTypeName,
                total));
         }
         blockSize = static_cast<std::uint32_t>(
             std::ceil(static_cast<float>(total) / static_cast<float>(sparseEntrySize_)));
      }
   }
   const Asic::TraceHandle& trace = mmuReplListTrace();
   if (blockSize == 0) {
      ASIC_TRACE(trace, 7, "{} : {}blockSize is calculated as 0, allocating default value = 1",
                 kMmuReplListTableTypeName, "getBlockSize");
      blockSize = 1;
   }
   ASIC_TRACE(trace, 7,
              "{} : {} allocating blockSize: {} entries for repl_list, numEgressObjects: {}, "
              "numEgresHandlesObjects: {}, sparseReplListEntry size: {}, denseReplListEntry "
              "size: {}",
              kMmuReplListTableTypeName, "getBlockSize", blockSize, egressObject_.size(),
              egressObjectHandle_.size(), sparseReplListEntry_.size(), denseReplListEntry_.size());
   return blockSize;
}

bool Entry::isEq(const MmuReplListTableEntry& other) const noexcept {
   if (this == &other) return true;
   if (genId_ != other.genId_) return false;
   if (egressObjectHandle_.size() != other.egressObjectHandle_.size()) return false;
   if (digest() != other.digest()) return false;
   auto theirs = other.egressObjectHandle_.begin();
   for (const auto& [eh, ports] : egressObjectHandle_) {
      if (eh != theirs->first || ports != theirs->second) return false;
      ++theirs;
   }
   return true;
}

std::strong_ordering operator<=>(const MmuReplListTableEntry& a,
                                 const MmuReplListTableEntry& b) noexcept {
   if (&a == &b) return std::strong_ordering::equal;
   using ByAddress = MmuReplListTableEntry::ByAddress;
   auto ia = a.egressObjectHandle_.begin();
   auto ib = b.egressObjectHandle_.begin();
   for (; ia != a.egressObjectHandle_.end() && ib != b.egressObjectHandle_.end(); ++ia, ++ib) {
      if (auto c = ByAddress::address(ia->first.get()) <=> ByAddress::address(ib->first.get());
          c != 0) {
         return c;
      }
      if (auto c = ia->second <=> ib->second; c != 0) return c;
   }
   if (auto c = a.egressObjectHandle_.size() <=> b.egressObjectHandle_.size(); c != 0) return c;
   return a.genId_ <=> b.genId_;
}

std::uint64_t Entry::digest() const {
   if (!digestValid_) {
      std::uint64_t h = absl::HashOf(egressObjectHandle_.size());
      for (const auto& [eh, ports] : egressObjectHandle_) {
         h = absl::HashOf(h, ByAddress::address(eh.get()), ports);
      }
      digest_ = absl::HashOf(h, genId_);
      digestValid_ = true;
   }
   return digest_;
}

std::size_t Entry::hash(std::uint32_t seed) const { return absl::HashOf(seed, digest()); }

std::string Entry::toString() const {
   auto same = [](const auto& k) -> const auto& { return k; };
   std::string out = "{egressObjectHandle: ";
   appendMap(out, egressObjectHandle_, [](const EntryHandlePtr& eh) { return fmt::ptr(eh.get()); });
   out += ", egressObject: ";
   appendMap(out, egressObject_, same);
   fmt::format_to(std::back_inserter(out),
                  ", denseEntrySize: {}, denseReplListEntry: ", denseEntrySize_);
   appendMap(out, denseReplListEntry_, same);
   fmt::format_to(std::back_inserter(out),
                  ", sparseEntrySize: {}, sparseReplListEntry: ", sparseEntrySize_);
   appendMap(out, sparseReplListEntry_, same);
   fmt::format_to(std::back_inserter(out), ", genId: {}}}", genId_);
   return out;
}

void registerMmuReplListTypes() {
   Asic::TypeRegistry::registerType<PortList>();
   Asic::TypeRegistry::registerType<NextHopPortInfo>();
   Asic::TypeRegistry::registerType<SparseReplListEntry>();
   Asic::TypeRegistry::registerType<DenseReplListEntry>();
   Asic::TypeRegistry::registerType<MmuReplListTableEntry>();
}

namespace {
[[maybe_unused]] const bool kRegistered = (registerMmuReplListTypes(), true);
}  // namespace

}  // namespace VelmarMcast
