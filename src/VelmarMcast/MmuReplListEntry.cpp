#include "VelmarMcast/MmuReplListEntry.h"

#include <algorithm>
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

const Entry::Derived Entry::kNoDerived;

Entry::MmuReplListTableEntry(const MmuReplListTableEntry& other)
    : EntryBase(other),
      identity_(other.identity_),
      derived_(other.derived_ ? std::make_unique<Derived>(*other.derived_) : nullptr),
      digest_(other.digest_),
      denseEntrySize_(other.denseEntrySize_),
      sparseEntrySize_(other.sparseEntrySize_),
      genId_(other.genId_),
      writeResponseFn(other.writeResponseFn) {}

Entry& Entry::operator=(const MmuReplListTableEntry& other) {
   if (this == &other) return *this;
   *this = MmuReplListTableEntry(other);
   return *this;
}

Entry::MmuReplListTableEntry(MmuReplListTableEntry&& other)
    : EntryBase(other),
      identity_(other.identity_),
      derived_(std::move(other.derived_)),
      digest_(other.digest_),
      denseEntrySize_(other.denseEntrySize_),
      sparseEntrySize_(other.sparseEntrySize_),
      genId_(other.genId_),
      writeResponseFn(other.writeResponseFn) {}

Entry& Entry::operator=(MmuReplListTableEntry&& other) {
   if (this == &other) return *this;
   EntryBase::operator=(other);
   identity_ = other.identity_;
   derived_ = std::move(other.derived_);  // the source is left with nothing derived
   digest_ = other.digest_;
   denseEntrySize_ = other.denseEntrySize_;
   sparseEntrySize_ = other.sparseEntrySize_;
   genId_ = other.genId_;
   writeResponseFn = other.writeResponseFn;
   return *this;
}

void Entry::egressObjectHandleIs(EntryHandlePtr eh, PortList ports) {
   if (!eh) {
      throw std::invalid_argument(
          fmt::format("{}: egressObjectHandle must not be a null entry handle", kTypeName));
   }
   Identity::forChange(identity_).value.insert_or_assign(std::move(eh), std::move(ports));
   digest_ = 0;
}

void Entry::egressObjectHandleDel(const EntryHandle* eh) {
   if (!egressObjectHandleHas(eh)) return;  // a shared body stays shared
   auto& handles = Identity::forChange(identity_).value;
   digest_ = 0;
   handles.erase(handles.find(eh));
   if (handles.empty()) identity_.reset();
}

const Entry::EgressObjectHandleMap Entry::kNoHandles;

const PortList& Entry::egressObjectHandle(const EntryHandle* eh) const {
   const auto& handles = egressObjectHandles();
   auto it = handles.find(eh);
   if (it == handles.end()) {
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

void Entry::egressObjectsIs(EgressObjectMap::sequence_type objects) {
   auto byIndex = [](const auto& a, const auto& b) { return a.first < b.first; };
   if (objects.size() <= 32) {
      // Insertion sort: stable and without the buffer std::stable_sort allocates.
      for (auto it = objects.begin(); it != objects.end(); ++it) {
         for (auto at = it; at != objects.begin() && byIndex(*at, *std::prev(at)); --at) {
            std::iter_swap(at, std::prev(at));
         }
      }
   } else {
      std::stable_sort(objects.begin(), objects.end(), byIndex);
   }
   // Keep the last of each run of one index.
   auto out = objects.begin();
   for (auto it = objects.begin(); it != objects.end(); ++it) {
      auto next = std::next(it);
      if (next != objects.end() && next->first == it->first) continue;
      if (out != it) *out = std::move(*it);
      ++out;
   }
   objects.erase(out, objects.end());
   derived().egressObject.adopt_sequence(boost::container::ordered_unique_range,
                                         std::move(objects));
}

PortList Entry::egressObject(std::uint32_t index) const {
   auto it = egressObjects().find(index);
   return it == egressObjects().end() ? PortList() : it->second;
}

const PortList& Entry::egressObjectGet(std::uint32_t index) const {
   auto it = egressObjects().find(index);
   if (it == egressObjects().end()) {
      throw std::out_of_range(
          fmt::format("{}: egressObject {} is not in the list", kTypeName, index));
   }
   return it->second;
}

std::uint32_t Entry::getBlockSize() const {
   std::uint32_t blockSize = 0;
   if (denseEntrySize_ != 0) {
      // Only meaningful once the layout has run.
      blockSize = static_cast<std::uint32_t>(sparseReplListEntries().size() +
                                             denseReplListEntries().size());
   } else {
      // An entry that is not resolved yet is counted from its handles.
      std::uint32_t total = portCount(egressObjects());
      if (total == 0) total = portCount(egressObjectHandles());
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
              kMmuReplListTableTypeName, "getBlockSize", blockSize, egressObjects().size(),
              egressObjectHandles().size(), sparseReplListEntries().size(),
              denseReplListEntries().size());
   return blockSize;
}

bool Entry::isEq(const MmuReplListTableEntry& other) const noexcept {
   if (this == &other) return true;
   if (genId_ != other.genId_) return false;
   if (identity_ == other.identity_) return true;  // one body: copies of one list
   const auto& mine = egressObjectHandles();
   const auto& theirs = other.egressObjectHandles();
   if (mine.size() != theirs.size()) return false;
   if (digest() != other.digest()) return false;
   auto it = theirs.begin();
   for (const auto& [eh, ports] : mine) {
      if (eh != it->first || ports != it->second) return false;
      ++it;
   }
   return true;
}

std::strong_ordering operator<=>(const MmuReplListTableEntry& a,
                                 const MmuReplListTableEntry& b) noexcept {
   if (&a == &b) return std::strong_ordering::equal;
   using ByAddress = MmuReplListTableEntry::ByAddress;
   const auto& ha = a.egressObjectHandles();
   const auto& hb = b.egressObjectHandles();
   if (a.identity_ != b.identity_) {
      auto ia = ha.begin();
      auto ib = hb.begin();
      for (; ia != ha.end() && ib != hb.end(); ++ia, ++ib) {
         if (auto c = ByAddress::address(ia->first.get()) <=> ByAddress::address(ib->first.get());
             c != 0) {
            return c;
         }
         if (auto c = ia->second <=> ib->second; c != 0) return c;
      }
      if (auto c = ha.size() <=> hb.size(); c != 0) return c;
   }
   return a.genId_ <=> b.genId_;
}

std::uint64_t Entry::digest() const {
   if (digest_ != 0) return digest_;
   static const std::uint64_t kNoHandlesDigest = absl::HashOf(std::size_t{0});
   std::uint64_t handles = kNoHandlesDigest;
   if (identity_) {
      handles = identity_->digestOf([](const EgressObjectHandleMap& map) {
         std::uint64_t h = absl::HashOf(map.size());
         for (const auto& [eh, ports] : map)
            h = absl::HashOf(h, ByAddress::address(eh.get()), ports);
         return h;
      });
   }
   digest_ = absl::HashOf(handles, genId_);
   return digest_;
}

std::size_t Entry::hash(std::uint32_t seed) const { return absl::HashOf(seed, digest()); }

std::string Entry::toString() const {
   auto same = [](const auto& k) -> const auto& { return k; };
   std::string out = "{egressObjectHandle: ";
   appendMap(out, egressObjectHandles(),
             [](const EntryHandlePtr& eh) { return fmt::ptr(eh.get()); });
   out += ", egressObject: ";
   appendMap(out, egressObjects(), same);
   fmt::format_to(std::back_inserter(out),
                  ", denseEntrySize: {}, denseReplListEntry: ", denseEntrySize_);
   appendMap(out, denseReplListEntries(), same);
   fmt::format_to(std::back_inserter(out),
                  ", sparseEntrySize: {}, sparseReplListEntry: ", sparseEntrySize_);
   appendMap(out, sparseReplListEntries(), same);
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
