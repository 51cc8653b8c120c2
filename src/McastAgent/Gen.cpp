#include "McastAgent/Gen.h"

#include <algorithm>
#include <set>
#include <stdexcept>

#include <fmt/format.h>

namespace McastAgent {

namespace {

// splitmix64: the same numbers from the same seed on every platform and library.
class Random {
 public:
   explicit Random(std::uint64_t seed) : state_(seed) {}
   std::uint64_t next() {
      std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
      z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
      z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
      return z ^ (z >> 31);
   }
   std::uint32_t below(std::uint32_t n) { return static_cast<std::uint32_t>(next() % n); }

 private:
   std::uint64_t state_;
};

constexpr std::uint32_t kNextHops = 1024;
constexpr Interface::EthSpeed kSpeeds[] = {
    Interface::EthSpeed::speed25Gbps, Interface::EthSpeed::speed100Gbps,
    Interface::EthSpeed::speed400Gbps, Interface::EthSpeed::speed800Gbps};

}  // namespace

Config generate(const GenOptions& opt) {
   if (opt.groups >= ChipLimits::kIpmcIndices) {
      throw std::invalid_argument(fmt::format("{} groups do not fit the chip's {} IPMC indices",
                                              opt.groups, ChipLimits::kIpmcIndices - 1));
   }
   if (opt.egressPerList == 0 || opt.egressPerList > 64) {
      throw std::invalid_argument(
          fmt::format("{} egress objects per list: 1 to 64 are generated", opt.egressPerList));
   }
   Random rng(opt.seed);
   Config config;
   for (std::uint32_t id = 1; id <= kNextHops; ++id) {
      config.nextHops.push_back(
          {id, static_cast<std::uint16_t>(id % 128), static_cast<std::uint16_t>(100 + id / 128)});
   }
   std::uint32_t listNo = 0;
   for (std::uint32_t i = 0; i < opt.groups; ++i) {
      Group g;
      g.name = fmt::format("g{}", i);
      g.groupAddr = 0xEF000001u + i;
      g.strengthProfile = static_cast<std::uint8_t>(rng.below(32));
      if (i % 4 == 3) {
         g.remapTo = fmt::format("g{}", i - 3);
         config.groups.push_back(std::move(g));
         continue;
      }
      const std::uint32_t speeds = 1 + rng.below(2);
      const std::uint32_t first = rng.below(4);
      for (std::uint32_t s = 0; s < speeds; ++s) {
         ReplicationList list;
         list.speed = kSpeeds[(first + s) % 4];
         std::set<std::uint32_t> hops;
         if (++listNo % 5 == 0) {
            // Next hops of one bucket of 64: gathered into a dense entry.
            list.denseSize = 64;
            const std::uint32_t bucket = 1 + rng.below(kNextHops / 64 - 1);
            while (hops.size() < std::min(opt.egressPerList, 63u)) {
               hops.insert(bucket * 64 + rng.below(64));
            }
         } else {
            while (hops.size() < opt.egressPerList) hops.insert(1 + rng.below(kNextHops));
         }
         for (std::uint32_t nh : hops) list.egress.push_back({nh, {config.nextHop(nh)->port}});
         g.replication.push_back(std::move(list));
      }
      config.groups.push_back(std::move(g));
   }
   // Only the next hops the lists use: a small configuration makes few writes.
   std::set<std::uint32_t> used;
   for (const Group& g : config.groups) {
      for (const ReplicationList& l : g.replication) {
         for (const Egress& e : l.egress) used.insert(e.nextHop);
      }
   }
   std::erase_if(config.nextHops, [&](const NextHop& nh) { return !used.contains(nh.id); });
   const std::uint32_t extras = std::min(opt.groups, 8u);
   for (std::uint32_t i = 0; i < extras; ++i) {
      L2SubPortList l2;
      l2.mode = static_cast<std::uint8_t>(1 + i % 3);
      l2.subPorts = {i, 8 + i, 16 + rng.below(ChipLimits::kSubPorts - 16)};
      std::sort(l2.subPorts.begin(), l2.subPorts.end());
      l2.subPorts.erase(std::unique(l2.subPorts.begin(), l2.subPorts.end()), l2.subPorts.end());
      config.l2SubPorts.push_back(std::move(l2));
      PortAggregation agg;
      agg.index = 1 + 2 * i;
      std::set<std::uint32_t> members;
      while (members.size() < 4) members.insert(rng.below(ChipLimits::kPorts));
      agg.members.assign(members.begin(), members.end());
      config.portAggregation.push_back(std::move(agg));
   }
   return config;
}

}  // namespace McastAgent
