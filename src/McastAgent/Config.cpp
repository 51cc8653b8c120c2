#include "McastAgent/Config.h"

#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace McastAgent {

namespace {

using Json = nlohmann::json;

constexpr std::pair<std::string_view, Interface::EthSpeed> kSpeeds[] = {
    {"1G", Interface::EthSpeed::speed1Gbps},     {"10G", Interface::EthSpeed::speed10Gbps},
    {"25G", Interface::EthSpeed::speed25Gbps},   {"40G", Interface::EthSpeed::speed40Gbps},
    {"50G", Interface::EthSpeed::speed50Gbps},   {"100G", Interface::EthSpeed::speed100Gbps},
    {"200G", Interface::EthSpeed::speed200Gbps}, {"400G", Interface::EthSpeed::speed400Gbps},
    {"800G", Interface::EthSpeed::speed800Gbps},
};

// A field name as a JSON pointer token: '~' and '/' escaped.
std::string pointerToken(const std::string& name) {
   std::string out;
   for (char c : name) {
      if (c == '~') {
         out += "~0";
      } else if (c == '/') {
         out += "~1";
      } else {
         out += c;
      }
   }
   return out;
}

// Walks the document with the JSON path of each value, so every refusal can name it.
class Reader {
 public:
   explicit Reader(std::string file) : file_(std::move(file)) {}

   [[noreturn]] void fail(const std::string& path, const std::string& reason) const {
      throw ConfigError(file_, path.empty() ? "/" : path, reason);
   }

   const Json& object(const Json& j, const std::string& path,
                      std::initializer_list<std::string_view> fields) const {
      if (!j.is_object()) fail(path, fmt::format("expected an object, found {}", j.type_name()));
      for (const auto& [name, value] : j.items()) {
         if (std::find(fields.begin(), fields.end(), name) == fields.end()) {
            std::string known;
            for (auto f : fields) known += fmt::format("{}{}", known.empty() ? "" : ", ", f);
            fail(path + "/" + pointerToken(name), fmt::format("unknown field (known: {})", known));
         }
      }
      return j;
   }
   const Json& array(const Json& j, const std::string& path) const {
      if (!j.is_array()) fail(path, fmt::format("expected an array, found {}", j.type_name()));
      return j;
   }
   const Json* field(const Json& obj, const std::string& name) const {
      auto it = obj.find(name);
      return it == obj.end() ? nullptr : &*it;
   }
   const Json& required(const Json& obj, const std::string& path, const std::string& name) const {
      const Json* j = field(obj, name);
      if (!j) fail(path + "/" + name, "required field is missing");
      return *j;
   }
   std::uint64_t number(const Json& j, const std::string& path, std::uint64_t lo,
                        std::uint64_t hi) const {
      if (!j.is_number_integer() ||
          (j.is_number_integer() && !j.is_number_unsigned() && j.get<std::int64_t>() < 0)) {
         if (j.is_number_integer()) {
            fail(path, fmt::format("{} is out of range {}..{}", j.get<std::int64_t>(), lo, hi));
         }
         fail(path, fmt::format("expected an integer, found {}", j.dump()));
      }
      const auto v = j.get<std::uint64_t>();
      if (v < lo || v > hi) fail(path, fmt::format("{} is out of range {}..{}", v, lo, hi));
      return v;
   }
   std::uint64_t number(const Json& obj, const std::string& path, const std::string& name,
                        std::uint64_t lo, std::uint64_t hi, std::uint64_t dflt) const {
      const Json* j = field(obj, name);
      return j ? number(*j, path + "/" + name, lo, hi) : dflt;
   }
   std::string string(const Json& j, const std::string& path) const {
      if (!j.is_string()) fail(path, fmt::format("expected a string, found {}", j.dump()));
      return j.get<std::string>();
   }
   // Ascending, unique numbers in lo..hi.
   template <typename N>
   std::vector<N> numberSet(const Json& j, const std::string& path, std::uint64_t lo,
                            std::uint64_t hi, const char* what) const {
      array(j, path);
      std::vector<N> out;
      std::set<std::uint64_t> seen;
      for (std::size_t i = 0; i < j.size(); ++i) {
         const auto v = number(j[i], fmt::format("{}/{}", path, i), lo, hi);
         if (!seen.insert(v).second) {
            fail(fmt::format("{}/{}", path, i), fmt::format("{} {} appears twice", what, v));
         }
         out.push_back(static_cast<N>(v));
      }
      std::sort(out.begin(), out.end());
      return out;
   }

 private:
   std::string file_;
};

NextHop readNextHop(const Reader& r, const Json& j, const std::string& path) {
   r.object(j, path, {"id", "port", "vlan"});
   NextHop nh;
   nh.id = static_cast<std::uint32_t>(
       r.number(r.required(j, path, "id"), path + "/id", 0, ChipLimits::kNextHops - 1));
   nh.port =
       static_cast<std::uint16_t>(r.number(r.required(j, path, "port"), path + "/port", 0, 0xFFFF));
   nh.vlan = static_cast<std::uint16_t>(r.number(j, path, "vlan", 0, ChipLimits::kMaxVlan, 0));
   return nh;
}

ReplicationList readList(const Reader& r, const Json& j, const std::string& path,
                         const Config& config) {
   r.object(j, path, {"speed", "egress", "sparseSize", "denseSize", "generation"});
   ReplicationList list;
   const std::string speed = r.string(r.required(j, path, "speed"), path + "/speed");
   auto it = std::find_if(std::begin(kSpeeds), std::end(kSpeeds),
                          [&](const auto& s) { return s.first == speed; });
   if (it == std::end(kSpeeds)) {
      r.fail(path + "/speed", fmt::format("unknown speed \"{}\" (known: 1G, 10G, 25G, 40G, 50G, "
                                          "100G, 200G, 400G, 800G)",
                                          speed));
   }
   list.speed = it->second;
   list.sparseSize =
       static_cast<std::uint8_t>(r.number(j, path, "sparseSize", 1, ChipLimits::kMaxSparseSize, 4));
   list.denseSize =
       static_cast<std::uint8_t>(r.number(j, path, "denseSize", 0, ChipLimits::kMaxDenseSize, 0));
   if (list.denseSize != 0 && list.denseSize != ChipLimits::kMaxDenseSize) {
      r.fail(path + "/denseSize",
             fmt::format("{}: this chip's dense entries are {} bits wide (0 turns them off)",
                         list.denseSize, ChipLimits::kMaxDenseSize));
   }
   list.generation = static_cast<std::uint32_t>(r.number(j, path, "generation", 0, 0xFFFFFFFFu, 1));
   const std::string epath = path + "/egress";
   const Json& egress = r.array(r.required(j, path, "egress"), epath);
   if (egress.empty()) r.fail(epath, "a replication list needs at least one egress object");
   std::set<std::uint32_t> seen;
   std::uint64_t replications = 0;
   for (std::size_t i = 0; i < egress.size(); ++i) {
      const std::string p = fmt::format("{}/{}", epath, i);
      Egress e;
      const Json& ej = egress[i];
      std::string nhPath = p;
      if (ej.is_object()) {
         r.object(ej, p, {"nextHop", "ports"});
         nhPath = p + "/nextHop";
         e.nextHop = static_cast<std::uint32_t>(
             r.number(r.required(ej, p, "nextHop"), nhPath, 0, ChipLimits::kNextHops - 1));
         if (const Json* ports = r.field(ej, "ports")) {
            e.ports = r.numberSet<std::uint16_t>(*ports, p + "/ports", 0, 0xFFFF, "port");
            if (e.ports.empty()) r.fail(p + "/ports", "an egress object needs at least one port");
         }
      } else {
         e.nextHop = static_cast<std::uint32_t>(r.number(ej, p, 0, ChipLimits::kNextHops - 1));
      }
      const NextHop* nh = config.nextHop(e.nextHop);
      if (!nh) r.fail(nhPath, fmt::format("next hop {} is not defined in /nextHops", e.nextHop));
      if (e.ports.empty()) e.ports.push_back(nh->port);
      if (!seen.insert(e.nextHop).second) {
         r.fail(nhPath, fmt::format("next hop {} appears twice in the list", e.nextHop));
      }
      if (list.denseSize != 0 && (e.ports.size() != 1 || e.ports[0] != nh->port)) {
         r.fail(p, fmt::format("a list with dense entries replicates each next hop to its own "
                               "port only ({}), not to {} ports",
                               nh->port, e.ports.size()));
      }
      replications += e.ports.size();
      list.egress.push_back(std::move(e));
   }
   if (replications > ChipLimits::kNextHopsPerList) {
      r.fail(epath, fmt::format("{} replications do not fit a head entry (at most {})",
                                replications, ChipLimits::kNextHopsPerList));
   }
   std::sort(list.egress.begin(), list.egress.end(),
             [](const Egress& a, const Egress& b) { return a.nextHop < b.nextHop; });
   return list;
}

// Hardware entries a list takes: its sparse entries of up to sparseSize pairs, and a dense
// entry for each bucket of 64 next hops that holds at least sparseSize of them.
std::uint64_t listEntries(const ReplicationList& list) {
   std::uint64_t sparsePairs = 0, dense = 0;
   if (list.denseSize == 0) {
      for (const Egress& e : list.egress) sparsePairs += e.ports.size();
   } else {
      std::map<std::uint32_t, std::uint32_t> buckets;
      for (const Egress& e : list.egress) ++buckets[e.nextHop >> 6];
      for (auto [bucket, hops] : buckets) {
         if (hops >= list.sparseSize) {
            ++dense;
         } else {
            sparsePairs += hops;
         }
      }
   }
   return dense + (sparsePairs + list.sparseSize - 1) / list.sparseSize;
}

}  // namespace

ConfigError::ConfigError(const std::string& file, const std::string& path,
                         const std::string& reason)
    : std::runtime_error(fmt::format("{}: {}: {}", file, path, reason)), path_(path) {}

const NextHop* Config::nextHop(std::uint32_t id) const {
   auto it = std::lower_bound(nextHops.begin(), nextHops.end(), id,
                              [](const NextHop& nh, std::uint32_t v) { return nh.id < v; });
   return it != nextHops.end() && it->id == id ? &*it : nullptr;
}

const Group* Config::group(const std::string& name) const {
   auto find = [&]() -> const Group* {
      auto it = groupByName_.find(name);
      return it != groupByName_.end() && it->second < groups.size() &&
                     groups[it->second].name == name
                 ? &groups[it->second]
                 : nullptr;
   };
   if (const Group* g = find()) return g;
   // Groups may have changed since the index was built: rebuild it once.
   groupByName_.clear();
   for (std::size_t i = 0; i < groups.size(); ++i) groupByName_.emplace(groups[i].name, i);
   return find();
}

const Group& Config::replicationOf(const Group& g) const {
   if (g.remapTo.empty()) return g;
   const Group* target = group(g.remapTo);
   if (!target) throw std::logic_error(fmt::format("group {}: no group {}", g.name, g.remapTo));
   return *target;
}

Config configFromJson(const Json& json, const std::string& file) {
   Reader r(file);
   r.object(json, "", {"nextHops", "groups", "l2SubPorts", "portAggregation"});
   Config config;

   if (const Json* nhs = r.field(json, "nextHops")) {
      r.array(*nhs, "/nextHops");
      std::set<std::uint32_t> ids;
      for (std::size_t i = 0; i < nhs->size(); ++i) {
         const std::string p = fmt::format("/nextHops/{}", i);
         NextHop nh = readNextHop(r, (*nhs)[i], p);
         if (!ids.insert(nh.id).second) {
            r.fail(p + "/id", fmt::format("next hop {} is defined twice", nh.id));
         }
         config.nextHops.push_back(nh);
      }
      std::sort(config.nextHops.begin(), config.nextHops.end(),
                [](const NextHop& a, const NextHop& b) { return a.id < b.id; });
   }

   std::uint64_t listEntriesTotal = 0, headEntries = 0;
   if (const Json* groups = r.field(json, "groups")) {
      r.array(*groups, "/groups");
      if (groups->size() >= ChipLimits::kIpmcIndices) {
         r.fail("/groups", fmt::format("{} groups do not fit the chip's {} IPMC indices (index 0 "
                                       "is reserved)",
                                       groups->size(), ChipLimits::kIpmcIndices - 1));
      }
      std::set<std::string> names;
      std::set<std::pair<std::uint32_t, std::uint32_t>> keys;
      std::vector<std::string> remapPaths;
      for (std::size_t i = 0; i < groups->size(); ++i) {
         const std::string p = fmt::format("/groups/{}", i);
         const Json& j = (*groups)[i];
         r.object(j, p, {"name", "group", "vrf", "strengthProfile", "replication", "remapTo"});
         Group g;
         g.name = r.string(r.required(j, p, "name"), p + "/name");
         if (g.name.empty()) r.fail(p + "/name", "a group name cannot be empty");
         if (!names.insert(g.name).second) {
            r.fail(p + "/name", fmt::format("group \"{}\" is defined twice", g.name));
         }
         const std::string addr = r.string(r.required(j, p, "group"), p + "/group");
         try {
            g.groupAddr = ipv4FromString(addr);
         } catch (const std::invalid_argument& e) {
            r.fail(p + "/group", e.what());
         }
         if ((g.groupAddr >> 28) != 0xE) {
            r.fail(p + "/group",
                   fmt::format("{} is not an IPv4 multicast group (224.0.0.0/4)", addr));
         }
         g.vrf = static_cast<std::uint32_t>(r.number(j, p, "vrf", 0, 0xFFFFFFFFu, 0));
         if (!keys.insert({g.vrf, g.groupAddr}).second) {
            r.fail(p + "/group", fmt::format("group {} in vrf {} is defined twice", addr, g.vrf));
         }
         g.strengthProfile = static_cast<std::uint8_t>(
             r.number(j, p, "strengthProfile", 0, ChipLimits::kMaxStrengthProfile, 0));
         const Json* repl = r.field(j, "replication");
         const Json* remap = r.field(j, "remapTo");
         if (!repl == !remap) {
            r.fail(p, "a group has either \"replication\" or \"remapTo\", and not both");
         }
         if (remap) {
            g.remapTo = r.string(*remap, p + "/remapTo");
            if (g.remapTo.empty()) r.fail(p + "/remapTo", "names no group");
            remapPaths.push_back(p + "/remapTo");
         } else {
            remapPaths.emplace_back();
            const std::string rp = p + "/replication";
            r.array(*repl, rp);
            if (repl->empty() || repl->size() > ChipLimits::kListsPerGroup) {
               r.fail(rp, fmt::format("a group replicates over 1 to {} port speeds, not {}",
                                      ChipLimits::kListsPerGroup, repl->size()));
            }
            std::set<Interface::EthSpeed> speeds;
            for (std::size_t l = 0; l < repl->size(); ++l) {
               const std::string lp = fmt::format("{}/{}", rp, l);
               ReplicationList list = readList(r, (*repl)[l], lp, config);
               if (!speeds.insert(list.speed).second) {
                  r.fail(lp + "/speed", fmt::format("speed {} has two lists in this group",
                                                    speedName(list.speed)));
               }
               listEntriesTotal += listEntries(list);
               g.replication.push_back(std::move(list));
            }
            headEntries += g.replication.size();
         }
         config.groups.push_back(std::move(g));
      }
      for (std::size_t i = 0; i < config.groups.size(); ++i) {
         const Group& g = config.groups[i];
         if (g.remapTo.empty()) continue;
         const Group* target = config.group(g.remapTo);
         if (!target) {
            r.fail(remapPaths[i], fmt::format("group \"{}\" is not defined", g.remapTo));
         }
         if (!target->remapTo.empty()) {
            r.fail(remapPaths[i], fmt::format("group \"{}\" is itself remapped; remap to a group "
                                              "with its own replication",
                                              g.remapTo));
         }
      }
   }
   if (const Json* l2 = r.field(json, "l2SubPorts")) {
      r.array(*l2, "/l2SubPorts");
      std::set<std::pair<std::uint8_t, std::vector<std::uint32_t>>> seen;
      for (std::size_t i = 0; i < l2->size(); ++i) {
         const std::string p = fmt::format("/l2SubPorts/{}", i);
         const Json& j = (*l2)[i];
         r.object(j, p, {"mode", "subPorts"});
         L2SubPortList list;
         list.mode = static_cast<std::uint8_t>(r.number(j, p, "mode", 0, 3, 0));
         list.subPorts = r.numberSet<std::uint32_t>(r.required(j, p, "subPorts"), p + "/subPorts",
                                                    0, ChipLimits::kSubPorts - 1, "sub-port");
         if (list.mode == 0 && list.subPorts.empty()) {
            r.fail(p, "an entry with mode 0 and no sub-port replicates nowhere");
         }
         if (!seen.insert({list.mode, list.subPorts}).second) {
            r.fail(p, "the same L2 sub-port list is defined twice");
         }
         config.l2SubPorts.push_back(std::move(list));
      }
      listEntriesTotal += l2->size();
   }

   // Lists equal in value share their entries on the chip; counting each anyway keeps the
   // check simple and errs on the safe side.
   if (listEntriesTotal + 1 > ChipLimits::kListEntries) {
      r.fail("/groups", fmt::format("the replication lists need {} list entries; the chip has {}",
                                    listEntriesTotal, ChipLimits::kListEntries - 1));
   }
   if (headEntries + 1 > ChipLimits::kHeadEntries) {
      r.fail("/groups", fmt::format("the groups need {} head entries; the chip has {}", headEntries,
                                    ChipLimits::kHeadEntries - 1));
   }

   if (const Json* aggs = r.field(json, "portAggregation")) {
      r.array(*aggs, "/portAggregation");
      std::set<std::uint32_t> indices;
      for (std::size_t i = 0; i < aggs->size(); ++i) {
         const std::string p = fmt::format("/portAggregation/{}", i);
         const Json& j = (*aggs)[i];
         r.object(j, p, {"index", "members"});
         PortAggregation agg;
         agg.index = static_cast<std::uint32_t>(
             r.number(r.required(j, p, "index"), p + "/index", 0, ChipLimits::kPortAggIndices - 1));
         if (!indices.insert(agg.index).second) {
            r.fail(p + "/index", fmt::format("index {} is defined twice", agg.index));
         }
         agg.members = r.numberSet<std::uint32_t>(r.required(j, p, "members"), p + "/members", 0,
                                                  ChipLimits::kPorts - 1, "member port");
         if (agg.members.empty()) r.fail(p + "/members", "an aggregation needs a member port");
         config.portAggregation.push_back(std::move(agg));
      }
      std::sort(config.portAggregation.begin(), config.portAggregation.end(),
                [](const auto& a, const auto& b) { return a.index < b.index; });
   }
   return config;
}

Config configLoad(const std::filesystem::path& file) {
   std::ifstream in(file);
   if (!in) throw ConfigError(file.string(), "/", "cannot be read");
   Json json;
   try {
      json = Json::parse(in);
   } catch (const Json::parse_error& e) {
      throw ConfigError(file.string(), "/", fmt::format("not valid JSON: {}", e.what()));
   }
   return configFromJson(json, file.string());
}

Json Config::toJson() const {
   Json out = Json::object();
   out["nextHops"] = Json::array();
   for (const NextHop& nh : nextHops) {
      out["nextHops"].push_back({{"id", nh.id}, {"port", nh.port}, {"vlan", nh.vlan}});
   }
   out["groups"] = Json::array();
   for (const Group& g : groups) {
      Json j = {{"name", g.name},
                {"group", ipv4ToString(g.groupAddr)},
                {"vrf", g.vrf},
                {"strengthProfile", g.strengthProfile}};
      if (!g.remapTo.empty()) {
         j["remapTo"] = g.remapTo;
      } else {
         j["replication"] = Json::array();
         for (const ReplicationList& l : g.replication) {
            Json egress = Json::array();
            for (const Egress& e : l.egress) {
               const NextHop* nh = nextHop(e.nextHop);
               if (nh && e.ports.size() == 1 && e.ports[0] == nh->port) {
                  egress.push_back(e.nextHop);
               } else {
                  egress.push_back({{"nextHop", e.nextHop}, {"ports", e.ports}});
               }
            }
            j["replication"].push_back({{"speed", speedName(l.speed)},
                                        {"egress", std::move(egress)},
                                        {"sparseSize", l.sparseSize},
                                        {"denseSize", l.denseSize},
                                        {"generation", l.generation}});
         }
      }
      out["groups"].push_back(std::move(j));
   }
   out["l2SubPorts"] = Json::array();
   for (const L2SubPortList& l : l2SubPorts) {
      out["l2SubPorts"].push_back({{"mode", l.mode}, {"subPorts", l.subPorts}});
   }
   out["portAggregation"] = Json::array();
   for (const PortAggregation& a : portAggregation) {
      out["portAggregation"].push_back({{"index", a.index}, {"members", a.members}});
   }
   return out;
}

std::string ipv4ToString(std::uint32_t a) {
   return fmt::format("{}.{}.{}.{}", a >> 24, (a >> 16) & 0xFF, (a >> 8) & 0xFF, a & 0xFF);
}

std::uint32_t ipv4FromString(const std::string& text) {
   std::uint32_t addr = 0;
   std::size_t pos = 0;
   for (int octet = 0; octet < 4; ++octet) {
      std::size_t end = pos;
      while (end < text.size() && end - pos < 4 && text[end] >= '0' && text[end] <= '9') ++end;
      const bool sep = octet == 3 ? end == text.size() : end < text.size() && text[end] == '.';
      if (end == pos || end - pos > 3 || !sep) {
         throw std::invalid_argument(fmt::format("\"{}\" is not an IPv4 address", text));
      }
      const unsigned v = std::stoul(text.substr(pos, end - pos));
      if (v > 255) throw std::invalid_argument(fmt::format("\"{}\" is not an IPv4 address", text));
      addr = addr << 8 | v;
      pos = end + 1;
   }
   return addr;
}

std::string speedName(Interface::EthSpeed speed) {
   for (const auto& [name, s] : kSpeeds) {
      if (s == speed) return std::string(name);
   }
   return std::string(Interface::toString(speed));
}

}  // namespace McastAgent
