// Layout of a replication list into sparse and dense hardware entries, and the number of
// hardware entries a list occupies: the traces of worked cases, the refusals, and a
// randomized check of the layout's invariants over thousands of lists.

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>
#include <ostream>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Asic/Assert.h"
#include "Asic/Trace.h"
#include "VelmarMcast/MmuReplListLayout.h"
#include "VelmarMcast/VelmarMcastTestEntryHandle.h"

namespace VelmarMcast {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Entry = MmuReplListTableEntry;
using Objects = std::vector<std::pair<std::uint32_t, PortList>>;
const std::string kTable = "VelmarMcast::MmuReplListTable";

Entry makeEntry(std::uint8_t sparseSize, std::uint8_t denseSize, const Objects& objects) {
   Entry e;
   if (sparseSize) e.sparseEntrySizeIs(sparseSize);
   e.denseEntrySizeIs(denseSize);
   for (const auto& [index, ports] : objects) e.egressObjectIs(index, ports);
   return e;
}

// Egress objects on port 1 each, as dense entries need.
Objects onPort1(std::initializer_list<std::uint32_t> indices) {
   Objects out;
   for (std::uint32_t i : indices) out.push_back({i, PortList{1}});
   return out;
}

// Verify that an egress object without exactly one port stops a dense layout with the
// message naming its ports.
TEST(MmuReplListLayoutTest, AggregatedObjectStopsADenseLayout) {
   Asic::ScopedAssertThrow throwing;
   for (const PortList& ports : {PortList{4, 5}, PortList{}}) {
      const Entry e = makeEntry(4, 64, {{1, {2}}, {3, ports}});
      try {
         replListMetaDataIs(e);
         ADD_FAILURE() << "ports " << ports.toString() << " were laid out densely";
      } catch (const Asic::AssertionError& err) {
         EXPECT_EQ(err.info().message,
                   " Aggregated ReplList in Dense mode not supported. Ports " + ports.toString());
      }
   }
}

// Verify that sparse sizes the layout cannot use are refused, naming field and value,
// before anything is added.
TEST(MmuReplListLayoutTest, RefusesUnusableSparseSizes) {
   for (auto [sparseSize, denseSize, text] :
        {std::tuple(0, 0, "sparseEntrySize 0"), std::tuple(0, 64, "sparseEntrySize 0"),
         std::tuple(1, 64, "sparseEntrySize 1 is below 2")}) {
      const Entry e = makeEntry(std::uint8_t(sparseSize), std::uint8_t(denseSize), onPort1({1}));
      try {
         replListMetaDataIs(e);
         ADD_FAILURE() << "sparseEntrySize " << sparseSize << " was laid out";
      } catch (const std::invalid_argument& err) {
         EXPECT_THAT(err.what(), HasSubstr(text));
      }
      EXPECT_TRUE(e.sparseReplListEntries().empty() && e.denseReplListEntries().empty());
   }
}

std::vector<std::string> traced(std::string_view setting, const auto& action) {
   Asic::TraceCapture capture(setting);
   action();
   std::vector<std::string> out;
   for (const auto& line : capture.lines()) out.push_back(line.text);
   return out;
}

// Verify every level-9 line of a sparse-only layout, in order.
TEST(MmuReplListLayoutTest, SparseOnlyTraces) {
   const Entry e = makeEntry(2, 0, {{7, {1, 2, 3}}});
   const std::string p = kTable + " : ";
   const std::string hop = p +
                           "setOnlySparseEntryMetaData setOnlySparseEntryMetaData: "
                           "egrObjNhHwIndex: 7 port: ";
   EXPECT_THAT(
       traced(kTable + "/9", [&] { replListMetaDataIs(e); }),
       ElementsAre(
           p + "setResolvedEntryMetaData",
           p + "setResolvedEntryMetaDatadenseEntry mode not supported.", hop + "1", hop + "2",
           p + "setOnlySparseEntryMetaData sparse threshold reached, adding new sparseEntry",
           hop + "3",
           p + "setOnlySparseEntryMetaData leftover nexthops, adding final sparseEntry"));
}

// Verify every line of a dense layout that opens, fills and closes a dense entry, then
// flushes a buffered next hop to the sparse stream.
TEST(MmuReplListLayoutTest, DenseTraces) {
   const Entry e = makeEntry(4, 64, onPort1({0, 1, 2, 3, 5, 70, 130}));
   const std::string p = kTable + " : setResolvedEntryMetaData";
   EXPECT_THAT(
       traced(kTable + "/9", [&] { replListMetaDataIs(e); }),
       ElementsAre(
           p, p + " currBucket=4294967295, egrObjHwIndex0",
           p + " currBucket does not match bucketId 0", p + " currBucket=0, egrObjHwIndex1",
           p + " adding 1 to nh[1]", p + " currBucket=0, egrObjHwIndex2", p + " adding 2 to nh[2]",
           p + " currBucket=0, egrObjHwIndex3", p + " initializing dense entry",
           p + " currBucket=0, egrObjHwIndex5", p + " added 5 to dense entry",
           p + " currBucket=0, egrObjHwIndex70", p + " currBucket does not match bucketId 1",
           p + " adding finalized dense entry, lsbVlan: 0, numBits: 5",
           p + " currBucket=1, egrObjHwIndex130", p + " currBucket does not match bucketId 2",
           p + " bufferHops = 1", p + " added currNh = 70 to sparseEntry", p + " finalized routine",
           p + " leftover nexthops, adding final sparseEntry"));
}

// Verify the number of hardware entries a list takes before it is laid out (the randomized
// test covers laid-out lists): an unresolved list counts its handles' pairs, resolved egress
// objects win over handles, and a computed 0 is reported and raised to 1.
TEST(MmuReplListLayoutTest, BlockSizeBeforeLayout) {
   struct Case {
      Entry entry;
      std::vector<PortList> handlePorts;  // one handle per list
      std::uint32_t computed;             // 0 is raised to 1, with a trace
   };
   for (Case& c : std::vector<Case>{{makeEntry(4, 0, {}), {{1, 2, 3, 4}, {5, 6, 7, 8}}, 2},
                                    {makeEntry(1, 0, {{1, {1}}}), {{1, 2, 3}}, 1},
                                    {makeEntry(2, 64, onPort1({0, 1, 2})), {}, 0},
                                    {makeEntry(0, 0, {}), {}, 0}}) {
      for (const PortList& ports : c.handlePorts) {
         c.entry.egressObjectHandleIs(testEntryHandle(), ports);
      }
      Asic::TraceCapture capture(kTable + "/7");
      EXPECT_EQ(c.entry.getBlockSize(), std::max(c.computed, 1u)) << c.entry.toString();
      EXPECT_EQ(capture.contains("blockSize is calculated as 0, allocating default value = 1"),
                c.computed == 0)
          << c.entry.toString();
   }
}

// Verify the two level-7 lines word for word, no layout line at level 7, and that pairs
// without a sparse size are an error rather than a division by zero.
TEST(MmuReplListLayoutTest, BlockSizeTracesAndRefusal) {
   const Entry e = makeEntry(4, 0, {});
   const std::string p = kTable + " : getBlockSize";
   EXPECT_THAT(traced(kTable + "/7",
                      [&] {
                         replListMetaDataIs(e);
                         EXPECT_EQ(e.getBlockSize(), 1u);
                      }),
               ElementsAre(p + "blockSize is calculated as 0, allocating default value = 1",
                           p + " allocating blockSize: 1 entries for repl_list, "
                               "numEgressObjects: 0, numEgresHandlesObjects: 0, "
                               "sparseReplListEntry size: 0, denseReplListEntry size: 0"));
   EXPECT_THROW((void)makeEntry(0, 0, {{1, {1}}}).getBlockSize(), std::invalid_argument);
}

// Only a failure streams it, so passing rounds never build the entry's text form.
struct RoundText {
   int round;
   const Entry& entry;
   friend std::ostream& operator<<(std::ostream& os, const RoundText& w) {
      return os << "round " << w.round << ", " << w.entry.toString();
   }
};

// Verify over thousands of random lists in both modes that every (next hop, port) pair
// lands exactly once; that a bucket becomes one dense entry exactly when it holds at least
// sparseEntrySize next hops (numBits, bits); that the other pairs fill sparse entries of
// sparseEntrySize pairs in one ascending stream, only the last partly; and the block size.
// Together these pin the whole layout down.
TEST(MmuReplListLayoutTest, RandomListsKeepTheLayoutInvariants) {
   std::mt19937 rng(20240611);
   auto uniform = [&rng](std::uint32_t lo, std::uint32_t hi) {
      return std::uniform_int_distribution<std::uint32_t>(lo, hi)(rng);
   };
   const std::uint32_t spans[] = {64, 256, 1024, 1u << 16, 0xFFFFFFFEu};
   const std::uint8_t denseSizes[] = {8, 16, 32, 64, 64};

   for (int round = 0; round < 2000; ++round) {
      const bool denseMode = round % 2 == 1;
      const auto sparseSize = static_cast<std::uint8_t>(uniform(denseMode ? 2 : 1, 16));
      const std::uint8_t denseSize = denseMode ? denseSizes[uniform(0, 4)] : 0;
      const std::uint32_t span = spans[uniform(0, 4)];
      const std::uint32_t objects = uniform(0, std::min<std::uint32_t>(span, 100));
      std::map<std::uint32_t, PortList> input;
      while (input.size() < objects) {
         PortList ports;
         const std::uint32_t portCount = denseMode ? 1 : uniform(1, 4);
         while (ports.size() < portCount) ports.portIs(static_cast<std::uint16_t>(uniform(0, 63)));
         input.emplace(uniform(0, span - 1), ports);
      }
      Entry e;
      e.sparseEntrySizeIs(sparseSize);
      e.denseEntrySizeIs(denseSize);
      std::map<std::uint32_t, std::size_t> bucketSize;
      std::set<std::pair<std::uint32_t, std::uint16_t>> expected;
      for (const auto& [index, ports] : input) {
         e.egressObjectIs(index, ports);
         ++bucketSize[index >> 6];
         for (std::uint16_t port : ports) expected.insert({index, port});
      }
      replListMetaDataIs(e);
      const RoundText what{round, e};

      std::multiset<std::pair<std::uint32_t, std::uint16_t>> seen;
      std::set<std::uint32_t> denseBuckets;
      for (const auto& [d, flag] : e.denseReplListEntries()) {
         ASSERT_TRUE(denseBuckets.insert(d.lsbVlan).second) << what;
         EXPECT_GE(d.numBits, sparseSize) << what;
         EXPECT_EQ(d.numBits, bucketSize[d.lsbVlan]) << what;
         std::set<std::size_t> bits;
         for (auto it = input.lower_bound(d.lsbVlan << 6);
              it != input.end() && (it->first >> 6) == d.lsbVlan; ++it) {
            bits.insert(it->first & (denseSize - 1u));
            seen.insert({it->first, it->second.firstPort()});
         }
         EXPECT_EQ(d.memberBitmap.popcount(), bits.size()) << what;
         for (std::size_t bit : bits) EXPECT_TRUE(d.memberBitmap.bit(bit)) << what;
      }
      for (const auto& [bucket, size] : bucketSize) {
         EXPECT_EQ(denseBuckets.contains(bucket), denseMode && size >= sparseSize) << what;
      }

      bool partial = false;
      const NextHopPortInfo* previousLast = nullptr;
      for (const auto& [s, flag] : e.sparseReplListEntries()) {
         ASSERT_FALSE(s.empty()) << what;
         EXPECT_LE(s.nexthopIdToPortIds(), sparseSize) << what;
         EXPECT_FALSE(partial) << "a partly filled sparse entry before the last: " << what;
         partial = s.nexthopIdToPortIds() < sparseSize;
         if (previousLast) {
            EXPECT_LT(*previousLast, *s.begin()) << "interleaved: " << what;
         }
         previousLast = &*std::prev(s.end());
         for (const NextHopPortInfo& info : s) seen.insert({info.nextHopId, info.portId});
      }
      ASSERT_EQ(seen, std::multiset(expected.begin(), expected.end())) << what;

      const std::size_t written =
          e.sparseReplListEntries().size() + e.denseReplListEntries().size();
      const std::size_t blockSize =
          denseMode ? written : (expected.size() + sparseSize - 1) / sparseSize;
      EXPECT_EQ(e.getBlockSize(), std::max<std::size_t>(blockSize, 1)) << what;
      EXPECT_EQ(written, blockSize) << what;
   }
}

}  // namespace
}  // namespace VelmarMcast
