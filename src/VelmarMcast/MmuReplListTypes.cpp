#include "VelmarMcast/MmuReplListTypes.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>

namespace VelmarMcast {
namespace {

// Writes "{a, b, c}" with each element in its own text form.
template <typename Range>
void appendBraced(std::string& out, const Range& range) {
   out += '{';
   bool first = true;
   for (const auto& element : range) {
      if (!first) out += ", ";
      first = false;
      fmt::format_to(std::back_inserter(out), "{}", element);
   }
   out += '}';
}

}  // namespace

void PortList::throwNoFirstPort() {
   throw std::out_of_range(fmt::format("{}::firstPort: the list has no port", kTypeName));
}

std::strong_ordering operator<=>(const PortList& a, const PortList& b) noexcept {
   return std::lexicographical_compare_three_way(a.begin(), a.end(), b.begin(), b.end());
}

std::string PortList::toString() const {
   std::string out;
   appendBraced(out, port_);
   return out;
}

std::string NextHopPortInfo::toString() const {
   return fmt::format("{{nextHopId: {}, portId: {}}}", nextHopId, portId);
}

std::strong_ordering operator<=>(const SparseReplListEntry& a,
                                 const SparseReplListEntry& b) noexcept {
   return std::lexicographical_compare_three_way(a.begin(), a.end(), b.begin(), b.end());
}

std::string SparseReplListEntry::toString() const {
   std::string out = "{nexthopIdToPortId: ";
   appendBraced(out, nexthopIdToPortId_);
   out += '}';
   return out;
}

std::string DenseReplListEntry::toString() const {
   return fmt::format("{{lsbVlan: {}, memberBitmap: {}, numBits: {}}}", lsbVlan, memberBitmap,
                      numBits);
}

}  // namespace VelmarMcast
