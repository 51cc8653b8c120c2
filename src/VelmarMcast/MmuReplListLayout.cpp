#include "VelmarMcast/MmuReplListLayout.h"

#include <stdexcept>

#include <absl/container/inlined_vector.h>

#include "Asic/Assert.h"
#include "Asic/Trace.h"

// Layout steps trace at level 9: "<table> : <function><text>". Callers keep the handle in
// a local, so a step whose level is off costs one branch and no call.
#define REPL_LAYOUT_TRACE(handle, op, text, ...)                                   \
   ASIC_TRACE(handle, 9, "{} : {}" text, ::VelmarMcast::kMmuReplListTableTypeName, \
              op __VA_OPT__(, ) __VA_ARGS__)

namespace VelmarMcast {
namespace {

using Entry = MmuReplListTableEntry;

constexpr std::string_view kResolved = "setResolvedEntryMetaData";
constexpr std::string_view kOnlySparse = "setOnlySparseEntryMetaData";
constexpr std::uint32_t kNoBucket = 0xFFFFFFFFu;
constexpr std::uint32_t kBucketShift = 6;  // 64 next hops per bucket, whatever the entry width

std::uint32_t bucketOf(std::uint32_t nextHop) noexcept { return nextHop >> kBucketShift; }

// The stream of sparse entries: pairs are added one by one and a sparse entry is written to
// the list each time it fills up. `op` names the function the traces speak for.
class SparseStream {
 public:
   SparseStream(const Entry& entry, std::string_view op)
       : entry_(entry), size_(entry.sparseEntrySize()), op_(op), trace_(mmuReplListTrace()) {}

   void add(NextHopPortInfo hop) {
      current_.nexthopIdToPortIdIs(hop);
      if (current_.nexthopIdToPortIds() == size_) {
         REPL_LAYOUT_TRACE(trace_, op_, " sparse threshold reached, adding new sparseEntry");
         entry_.sparseReplListEntryIs(current_, true);
         current_.nexthopIdToPortIdDelAll();
      }
   }

   // Writes the last, partly filled sparse entry, if any.
   void finish() {
      if (current_.empty()) return;
      REPL_LAYOUT_TRACE(trace_, op_, " leftover nexthops, adding final sparseEntry");
      entry_.sparseReplListEntryIs(current_, true);
      current_.nexthopIdToPortIdDelAll();
   }

 private:
   const Entry& entry_;
   std::size_t size_;
   std::string_view op_;
   const Asic::TraceHandle& trace_;
   SparseReplListEntry current_;
};

// Sets the bit of a next hop in a dense entry's bitmap: the one-hot value is written byte by
// byte into a temporary, which is ORed into a copy of the bitmap that is then assigned back.
// Both scratch bitmaps live as long as the layout, so no bit costs an allocation.
class DenseBitSetter {
 public:
   explicit DenseBitSetter(std::uint8_t denseEntrySize) noexcept
       : bitMask_(std::uint32_t(denseEntrySize) - 1) {}

   void set(Ulm::PerUnitBitmap& bitmap, std::uint32_t nextHop) {
      const std::uint64_t oneHot = std::uint64_t(1) << (nextHop & bitMask_);
      for (std::uint32_t byte = 0; byte < 8; ++byte) {
         oneHot_.bitsOr(byte * 8, static_cast<std::uint32_t>((oneHot >> (byte * 8)) & 0xFF), 8);
      }
      copy_ = bitmap;
      copy_ |= oneHot_;
      bitmap = copy_;
   }

 private:
   std::uint32_t bitMask_;  // the bit within an entry; the bucket rule is separate
   Ulm::PerUnitBitmap oneHot_;
   Ulm::PerUnitBitmap copy_;
};

void setOnlySparseEntryMetaData(const Entry& entry) {
   const Asic::TraceHandle& trace = mmuReplListTrace();
   SparseStream sparse(entry, kOnlySparse);
   for (const auto& [index, ports] : entry.egressObjects()) {
      for (PortList::Port port : ports) {
         REPL_LAYOUT_TRACE(trace, kOnlySparse,
                           " setOnlySparseEntryMetaData: egrObjNhHwIndex: {} port: {}", index,
                           port);
         sparse.add({index, port});
      }
   }
   sparse.finish();
}

void setDenseEntryMetaData(const Entry& entry) {
   const std::uint8_t sparseEntrySize = entry.sparseEntrySize();
   // The buffer needs a slot beyond the threshold test: a size of 1 would make every next
   // hop its own dense entry before it was ever buffered.
   if (sparseEntrySize < 2) {
      throw std::invalid_argument(fmt::format(
          "{}: sparseEntrySize {} is below 2, the least that dense entries (denseEntrySize {}) "
          "can be gathered with",
          Entry::kTypeName, sparseEntrySize, entry.denseEntrySize()));
   }
   const Asic::TraceHandle& trace = mmuReplListTrace();
   SparseStream sparse(entry, kResolved);
   DenseBitSetter bits(entry.denseEntrySize());
   absl::InlinedVector<NextHopPortInfo, 16> bufferHops(sparseEntrySize);
   std::uint8_t buffered = 0;
   std::uint8_t denseHops = 0;
   std::uint32_t currBucket = kNoBucket;
   DenseReplListEntry dense;

   for (const auto& [index, ports] : entry.egressObjects()) {
      ASIC_ASSERT_MSG(
          ports.size() == 1,
          fmt::format(" Aggregated ReplList in Dense mode not supported. Ports {}", ports));
      const PortList::Port port = ports.firstPort();
      const std::uint32_t bucket = bucketOf(index);
      REPL_LAYOUT_TRACE(trace, kResolved, " currBucket={}, egrObjHwIndex{}", currBucket, index);

      if (bucket != currBucket) {
         REPL_LAYOUT_TRACE(trace, kResolved, " currBucket does not match bucketId {}", bucket);
         if (denseHops != 0) {
            ASIC_ASSERT(denseHops >= entry.sparseEntrySize());
            REPL_LAYOUT_TRACE(trace, kResolved,
                              " adding finalized dense entry, lsbVlan: {}, numBits: {}",
                              dense.lsbVlan, denseHops);
            dense.numBits = denseHops;
            entry.denseReplListEntryIs(dense, true);
            dense.memberBitmap = Ulm::PerUnitBitmap();
         }
         if (buffered != 0) {
            REPL_LAYOUT_TRACE(trace, kResolved, " bufferHops = {}", buffered);
            for (std::uint8_t i = 0; i < buffered; ++i) {
               REPL_LAYOUT_TRACE(trace, kResolved, " added currNh = {} to sparseEntry",
                                 bufferHops[i].nextHopId);
               sparse.add(bufferHops[i]);
            }
         }
         bufferHops[0] = {index, port};
         buffered = 1;
         denseHops = 0;
         currBucket = bucket;
         continue;
      }

      if (denseHops < sparseEntrySize) {
         if (buffered == sparseEntrySize - 1) {
            REPL_LAYOUT_TRACE(trace, kResolved, " initializing dense entry");
            dense.lsbVlan = currBucket;
            for (std::uint8_t i = 0; i < buffered; ++i) {
               bits.set(dense.memberBitmap, bufferHops[i].nextHopId);
            }
            bits.set(dense.memberBitmap, index);
            denseHops = sparseEntrySize;
            buffered = 0;
         } else {
            REPL_LAYOUT_TRACE(trace, kResolved, " adding {} to nh[{}]", index, buffered);
            bufferHops[buffered] = {index, port};
            ++buffered;
         }
      } else {
         bits.set(dense.memberBitmap, index);
         REPL_LAYOUT_TRACE(trace, kResolved, " added {} to dense entry", index);
         ++denseHops;
      }
   }

   REPL_LAYOUT_TRACE(trace, kResolved, " finalized routine");
   if (denseHops != 0) {
      dense.numBits = denseHops;
      entry.denseReplListEntryIs(dense, true);
   }
   for (std::uint8_t i = 0; i < buffered; ++i) sparse.add(bufferHops[i]);
   sparse.finish();
}

}  // namespace

void replListMetaDataIs(const MmuReplListTableEntry& entry) {
   const Asic::TraceHandle& trace = mmuReplListTrace();
   REPL_LAYOUT_TRACE(trace, kResolved, "");
   if (entry.sparseEntrySize() == 0) {
      throw std::invalid_argument(fmt::format(
          "{}: sparseEntrySize 0 is invalid (a sparse entry holds at least one next hop)",
          Entry::kTypeName));
   }
   if (entry.denseEntrySize() == 0) {
      REPL_LAYOUT_TRACE(trace, kResolved, "denseEntry mode not supported.");
      setOnlySparseEntryMetaData(entry);
   } else {
      setDenseEntryMetaData(entry);
   }
}

}  // namespace VelmarMcast
