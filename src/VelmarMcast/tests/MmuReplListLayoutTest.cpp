// Layout of a replication list into sparse and dense hardware entries, and the number of
// hardware entries a list occupies: worked cases, the traces, the refusals, and a
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

void PrintTo(const SparseReplListEntry& v, std::ostream* os) { *os << v.toString(); }
void PrintTo(const DenseReplListEntry& v, std::ostream* os) { *os << v.toString(); }

namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using Entry = MmuReplListTableEntry;
using Objects = std::vector<std::pair<std::uint32_t, PortList>>;

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

SparseReplListEntry sparse(std::initializer_list<std::uint32_t> indices) {
   SparseReplListEntry s;
   for (std::uint32_t i : indices) s.nexthopIdToPortIdIs({i, 1});
   return s;
}

DenseReplListEntry dense(std::uint32_t lsbVlan, std::initializer_list<std::size_t> bits,
                         std::uint8_t numBits) {
   DenseReplListEntry d{lsbVlan, {}, numBits};
   for (std::size_t bit : bits) d.memberBitmap.bitIs(bit, true);
   return d;
}

template <typename Map>
auto keysOf(const Map& map) {
   std::vector<typename Map::key_type> keys;
   for (const auto& [key, flag] : map) {
      EXPECT_TRUE(flag);
      keys.push_back(key);
   }
   return keys;
}

struct LayoutCase {
   std::string name;
   std::uint8_t sparseSize;
   std::uint8_t denseSize;
   Objects objects;
   std::vector<SparseReplListEntry> sparse;  // in the entry's (sorted) order
   std::vector<DenseReplListEntry> dense;
};

class ReplListLayoutCaseTest : public ::testing::TestWithParam<LayoutCase> {};

// Verify that each list yields exactly the expected sparse and dense entries.
TEST_P(ReplListLayoutCaseTest, YieldsExactlyTheExpectedEntries) {
   const LayoutCase& c = GetParam();
   const Entry e = makeEntry(c.sparseSize, c.denseSize, c.objects);
   replListMetaDataIs(e);
   EXPECT_THAT(keysOf(e.sparseReplListEntries()), ElementsAreArray(c.sparse));
   EXPECT_THAT(keysOf(e.denseReplListEntries()), ElementsAreArray(c.dense));
}

INSTANTIATE_TEST_SUITE_P(
    MmuReplList, ReplListLayoutCaseTest,
    ::testing::Values(
        LayoutCase{"SparseOnlyNoEgressObjects", 4, 0, {}, {}, {}},
        LayoutCase{
            "SparseOnlyOneObjectTenPorts",
            4,
            0,
            {{5, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}}},
            {{{5, 1}, {5, 2}, {5, 3}, {5, 4}}, {{5, 5}, {5, 6}, {5, 7}, {5, 8}}, {{5, 9}, {5, 10}}},
            {}},
        LayoutCase{"SparseOnlyObjectsShareAndSplitEntries",
                   3,
                   0,
                   {{2, {1, 2}}, {1, {2, 1}}, {9, {4}}},
                   {{{1, 1}, {1, 2}, {2, 1}}, {{2, 2}, {9, 4}}},
                   {}},
        LayoutCase{"DenseBucketBelowThreshold", 4, 64, onPort1({0, 1, 2}), {sparse({0, 1, 2})}, {}},
        LayoutCase{"DenseBucketAtThreshold",
                   4,
                   64,
                   onPort1({0, 1, 2, 3, 5, 70}),
                   {sparse({70})},
                   {dense(0, {0, 1, 2, 3, 5}, 5)}},
        LayoutCase{"DenseNeighbouringBucketsNeverGathered",
                   2,
                   64,
                   onPort1({63, 64}),
                   {sparse({63, 64})},
                   {}},
        LayoutCase{"DenseSparseStreamRunsAcrossBuckets",
                   3,
                   64,
                   onPort1({1, 65, 66, 129, 130, 131, 200}),
                   {sparse({1, 65, 66}), sparse({200})},
                   {dense(2, {1, 2, 3}, 3)}},
        LayoutCase{"DenseTwoBucketsInARow",
                   2,
                   64,
                   onPort1({0, 1, 2, 64, 127}),
                   {},
                   {dense(0, {0, 1, 2}, 3), dense(1, {0, 63}, 2)}},
        LayoutCase{"DenseBitIsIndexWithinEntryWidth",
                   2,
                   16,
                   onPort1({81, 82, 100}),
                   {},
                   {dense(1, {1, 2, 4}, 3)}}),
    [](const ::testing::TestParamInfo<LayoutCase>& info) { return info.param.name; });

class AggregatedDenseTest : public ::testing::TestWithParam<PortList> {};

// Verify that an egress object without exactly one port stops a dense layout with the
// message naming its ports.
TEST_P(AggregatedDenseTest, StopsWithTheAggregatedListAssertion) {
   Asic::ScopedAssertThrow throwing;
   const Entry e = makeEntry(4, 64, {{1, {2}}, {3, GetParam()}});
   try {
      replListMetaDataIs(e);
      FAIL() << "ports " << GetParam().toString() << " were laid out densely";
   } catch (const Asic::AssertionError& err) {
      EXPECT_EQ(err.info().message,
                " Aggregated ReplList in Dense mode not supported. Ports " + GetParam().toString());
   }
}

INSTANTIATE_TEST_SUITE_P(MmuReplList, AggregatedDenseTest,
                         ::testing::Values(PortList{4, 5}, PortList{}));

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
   const std::string p = "VelmarMcast::MmuReplListTable : ";
   const std::string hop = p +
                           "setOnlySparseEntryMetaData setOnlySparseEntryMetaData: "
                           "egrObjNhHwIndex: 7 port: ";
   EXPECT_THAT(
       traced("VelmarMcast::MmuReplListTable/9", [&] { replListMetaDataIs(e); }),
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
   const std::string p = "VelmarMcast::MmuReplListTable : setResolvedEntryMetaData";
   EXPECT_THAT(
       traced("VelmarMcast::MmuReplListTable/9", [&] { replListMetaDataIs(e); }),
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

struct BlockSizeCase {
   std::string name;
   std::uint8_t sparseSize;
   std::uint8_t denseSize;
   Objects objects;
   std::vector<PortList> handlePorts;  // one handle per list
   bool layOut;
   std::uint32_t expected;
};

class BlockSizeTest : public ::testing::TestWithParam<BlockSizeCase> {};

// Verify the number of hardware entries a list takes, and that a computed 0 is reported
// and raised to 1.
TEST_P(BlockSizeTest, CountsHardwareEntries) {
   const auto& c = GetParam();
   Entry e = makeEntry(c.sparseSize, c.denseSize, c.objects);
   for (const PortList& ports : c.handlePorts) e.egressObjectHandleIs(testEntryHandle(), ports);
   if (c.layOut) replListMetaDataIs(e);
   Asic::TraceCapture capture("VelmarMcast::MmuReplListTable/7");
   EXPECT_EQ(e.getBlockSize(), c.expected);
   EXPECT_EQ(capture.contains("blockSize is calculated as 0, allocating default value = 1"),
             c.name.ends_with("Default"));
}

INSTANTIATE_TEST_SUITE_P(
    MmuReplList, BlockSizeTest,
    ::testing::Values(
        BlockSizeCase{
            "SparseRoundsUp", 8, 0, {{1, {1, 2, 3}}, {2, {1, 2, 3, 4, 5}}, {3, {1}}}, {}, false, 2},
        BlockSizeCase{"SparseEmptyGetsDefault", 4, 0, {}, {}, false, 1},
        BlockSizeCase{
            "SparseUnresolvedCountsHandles", 4, 0, {}, {{1, 2, 3, 4}, {5, 6, 7, 8}}, false, 2},
        BlockSizeCase{
            "SparseResolvedObjectsWinOverHandles", 1, 0, {{1, {1}}}, {{1, 2, 3}}, false, 1},
        BlockSizeCase{"DenseThreeSparseTwoDense",
                      2,
                      64,
                      onPort1({0, 1, 64, 65, 130, 200, 300, 400, 500}),
                      {},
                      true,
                      5},
        BlockSizeCase{"DenseBeforeLayoutGetsDefault", 2, 64, onPort1({0, 1, 2}), {}, false, 1},
        BlockSizeCase{"NoSizesGetsDefault", 0, 0, {}, {}, false, 1}),
    [](const ::testing::TestParamInfo<BlockSizeCase>& info) { return info.param.name; });

// Verify the two level-7 lines word for word, no layout line at level 7, and that pairs
// without a sparse size are an error rather than a division by zero.
TEST(MmuReplListLayoutTest, BlockSizeTracesAndRefusal) {
   const Entry e = makeEntry(4, 0, {});
   const std::string p = "VelmarMcast::MmuReplListTable : getBlockSize";
   EXPECT_THAT(traced("VelmarMcast::MmuReplListTable/7",
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
// sparseEntrySize next hops (numBits, bits); that sparse entries hold at most
// sparseEntrySize pairs, only one fewer, in one ascending stream; and the block size.
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

      std::size_t partial = 0;
      const NextHopPortInfo* previousLast = nullptr;
      for (const auto& [s, flag] : e.sparseReplListEntries()) {
         ASSERT_FALSE(s.empty()) << what;
         EXPECT_LE(s.nexthopIdToPortIds(), sparseSize) << what;
         partial += s.nexthopIdToPortIds() < sparseSize;
         if (previousLast) {
            EXPECT_LT(*previousLast, *s.begin()) << "interleaved: " << what;
         }
         previousLast = &*std::prev(s.end());
         for (const NextHopPortInfo& info : s) seen.insert({info.nextHopId, info.portId});
      }
      EXPECT_LE(partial, 1u) << what;
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
