#pragma once
// Value types of the MMU replication list: the ports of an egress object, one (next hop,
// port) pair, and the contents of one sparse and one dense hardware list entry.
//
// Every collection here is a sorted set, so iteration order, equality, ordering and hash
// depend only on the contents and never on the order in which elements were added: the
// layout walks ports in ascending order and two equal lists always lay out the same way.

#include <compare>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

#include <absl/hash/hash.h>
#include <fmt/format.h>
#include <boost/container/flat_set.hpp>
#include <boost/container/small_vector.hpp>

#include "Ulm/PerUnitBitmap.h"

namespace VelmarMcast {

// The ports an egress object replicates to, in ascending order.
class PortList {
 public:
   static constexpr std::string_view kTypeName = "VelmarMcast::PortList";
   using Port = std::uint16_t;
   // Inline up to 4 ports: lists are copied with every key, and most egress objects have one.
   using Ports =
       boost::container::flat_set<Port, std::less<Port>, boost::container::small_vector<Port, 4>>;
   using const_iterator = Ports::const_iterator;

   PortList() = default;
   // One insert per port: the range constructor trips a false overflow warning of GCC 12
   // at -O3 inside the container.
   PortList(std::initializer_list<Port> ports) {
      for (Port port : ports) port_.insert(port);
   }

   void portIs(Port port) { port_.insert(port); }
   void portDel(Port port) { port_.erase(port); }
   void portDelAll() noexcept { port_.clear(); }
   bool portHas(Port port) const { return port_.contains(port); }

   std::size_t size() const noexcept { return port_.size(); }
   bool empty() const noexcept { return port_.empty(); }
   // The lowest port; throws std::out_of_range when there is none.
   Port firstPort() const {
      if (port_.empty()) [[unlikely]]
         throwNoFirstPort();
      return *port_.begin();
   }

   const_iterator begin() const noexcept { return port_.begin(); }
   const_iterator end() const noexcept { return port_.end(); }

   bool isEq(const PortList& other) const noexcept { return port_ == other.port_; }
   friend bool operator==(const PortList& a, const PortList& b) noexcept { return a.isEq(b); }
   // Lexicographic over the ascending ports; a list that is a prefix of another is less.
   friend std::strong_ordering operator<=>(const PortList& a, const PortList& b) noexcept;

   template <typename H>
   friend H AbslHashValue(H h, const PortList& list) {
      for (Port port : list.port_) h = H::combine(std::move(h), port);
      return H::combine(std::move(h), list.port_.size());
   }
   std::size_t hash(std::uint32_t seed) const { return absl::HashOf(seed, *this); }

   // "{1, 2, 7}"; "{}" when empty.
   std::string toString() const;

 private:
   [[noreturn]] static void throwNoFirstPort();

   Ports port_;
};

// One next hop (the hardware index of an egress object) on one port.
struct NextHopPortInfo {
   static constexpr std::string_view kTypeName = "VelmarMcast::NextHopPortInfo";

   std::uint32_t nextHopId = 0;
   std::uint16_t portId = 0;

   friend bool operator==(const NextHopPortInfo&, const NextHopPortInfo&) = default;
   friend auto operator<=>(const NextHopPortInfo&, const NextHopPortInfo&) = default;

   template <typename H>
   friend H AbslHashValue(H h, const NextHopPortInfo& info) {
      return H::combine(std::move(h), info.nextHopId, info.portId);
   }

   // "{nextHopId: 5, portId: 3}"
   std::string toString() const;
};

// The (next hop, port) pairs of one sparse hardware list entry, ordered by next hop, then
// port.
class SparseReplListEntry {
 public:
   static constexpr std::string_view kTypeName = "VelmarMcast::SparseReplListEntry";
   // Inline up to the chip's widest sparse entry.
   using Pairs = boost::container::flat_set<NextHopPortInfo, std::less<NextHopPortInfo>,
                                            boost::container::small_vector<NextHopPortInfo, 8>>;
   using const_iterator = Pairs::const_iterator;

   SparseReplListEntry() = default;
   SparseReplListEntry(std::initializer_list<NextHopPortInfo> pairs) {
      for (const NextHopPortInfo& info : pairs) nexthopIdToPortId_.insert(info);
   }

   void nexthopIdToPortIdIs(NextHopPortInfo info) { nexthopIdToPortId_.insert(info); }
   void nexthopIdToPortIdDel(NextHopPortInfo info) { nexthopIdToPortId_.erase(info); }
   // Keeps the storage, so a reused entry fills again without allocating.
   void nexthopIdToPortIdDelAll() noexcept { nexthopIdToPortId_.clear(); }
   bool nexthopIdToPortIdHas(NextHopPortInfo info) const {
      return nexthopIdToPortId_.contains(info);
   }
   // Number of pairs held.
   std::size_t nexthopIdToPortIds() const noexcept { return nexthopIdToPortId_.size(); }
   bool empty() const noexcept { return nexthopIdToPortId_.empty(); }

   const_iterator begin() const noexcept { return nexthopIdToPortId_.begin(); }
   const_iterator end() const noexcept { return nexthopIdToPortId_.end(); }

   bool isEq(const SparseReplListEntry& other) const noexcept {
      return nexthopIdToPortId_ == other.nexthopIdToPortId_;
   }
   friend bool operator==(const SparseReplListEntry& a, const SparseReplListEntry& b) noexcept {
      return a.isEq(b);
   }
   friend std::strong_ordering operator<=>(const SparseReplListEntry& a,
                                           const SparseReplListEntry& b) noexcept;

   template <typename H>
   friend H AbslHashValue(H h, const SparseReplListEntry& e) {
      for (const NextHopPortInfo& info : e.nexthopIdToPortId_) h = H::combine(std::move(h), info);
      return H::combine(std::move(h), e.nexthopIdToPortId_.size());
   }
   std::size_t hash(std::uint32_t seed) const { return absl::HashOf(seed, *this); }

   // "{nexthopIdToPortId: {{nextHopId: 5, portId: 3}, ...}}"
   std::string toString() const;

 private:
   Pairs nexthopIdToPortId_;
};

// One dense hardware list entry: a bucket of 64 consecutive next hops as a bitmap.
struct DenseReplListEntry {
   static constexpr std::string_view kTypeName = "VelmarMcast::DenseReplListEntry";

   std::uint32_t lsbVlan = 0;        // the bucket: next-hop index >> 6
   Ulm::PerUnitBitmap memberBitmap;  // one bit per next hop of the bucket
   std::uint8_t numBits = 0;         // next hops in the entry

   bool isEq(const DenseReplListEntry& other) const noexcept {
      return lsbVlan == other.lsbVlan && numBits == other.numBits &&
             memberBitmap == other.memberBitmap;
   }
   friend bool operator==(const DenseReplListEntry& a, const DenseReplListEntry& b) noexcept {
      return a.isEq(b);
   }
   friend std::strong_ordering operator<=>(const DenseReplListEntry& a,
                                           const DenseReplListEntry& b) noexcept {
      if (auto c = a.lsbVlan <=> b.lsbVlan; c != 0) return c;
      if (auto c = a.memberBitmap <=> b.memberBitmap; c != 0) return c;
      return a.numBits <=> b.numBits;
   }

   template <typename H>
   friend H AbslHashValue(H h, const DenseReplListEntry& e) {
      return H::combine(std::move(h), e.lsbVlan, e.memberBitmap, e.numBits);
   }
   std::size_t hash(std::uint32_t seed) const { return absl::HashOf(seed, *this); }

   // "{lsbVlan: 0, memberBitmap: 0x00000000_0000002f, numBits: 5}"
   std::string toString() const;
};

}  // namespace VelmarMcast

template <>
struct fmt::formatter<VelmarMcast::PortList> : fmt::formatter<std::string_view> {
   auto format(const VelmarMcast::PortList& v, format_context& ctx) const {
      return fmt::formatter<std::string_view>::format(v.toString(), ctx);
   }
};

template <>
struct fmt::formatter<VelmarMcast::NextHopPortInfo> : fmt::formatter<std::string_view> {
   auto format(const VelmarMcast::NextHopPortInfo& v, format_context& ctx) const {
      return fmt::formatter<std::string_view>::format(v.toString(), ctx);
   }
};

template <>
struct fmt::formatter<VelmarMcast::SparseReplListEntry> : fmt::formatter<std::string_view> {
   auto format(const VelmarMcast::SparseReplListEntry& v, format_context& ctx) const {
      return fmt::formatter<std::string_view>::format(v.toString(), ctx);
   }
};

template <>
struct fmt::formatter<VelmarMcast::DenseReplListEntry> : fmt::formatter<std::string_view> {
   auto format(const VelmarMcast::DenseReplListEntry& v, format_context& ctx) const {
      return fmt::formatter<std::string_view>::format(v.toString(), ctx);
   }
};
