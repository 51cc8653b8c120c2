// Random operation sequences against each table the engine drives, checked against a small
// model of what every key should come to. At each quiet point (the event loop idle) the chip,
// the allocator, the entry handles and the clients' callbacks must agree with the model; at
// the end nothing may be left behind. Needed handles, chip faults and restarts (every
// software object dropped and rebuilt over the same chip memory, writes possibly in flight)
// are drawn at random too.
//
// Runs are seeded: a failure names its seed and step, and the shortest operation sequence
// found that still fails the same way. The engine's hash seeds follow the address layout, so a
// seed replays exactly in a new process only without address randomisation (setarch -R).
// By hand:
//   VELMAR_DIFF_STEPS=200000 VELMAR_DIFF_SEEDS=20   longer runs (steps per seed, seeds)
//   VELMAR_DIFF_SEED=7                              that seed only
//   VELMAR_DIFF_SHRINK=0                            report without shrinking
//   VELMAR_DIFF_FAULT_WEIGHT=30                     more chip faults (default 7 of ~90)

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include "Asic/Assert.h"
#include "Asic/EventLoop.h"
#include "ChipSim/Chip.h"
#include "ChipSim/ReplListFormat.h"
#include "ChipSim/plugins/IngIpmcRemapTableSimUtil.h"
#include "ChipSim/plugins/MmuReplListL2SubPortTableSimUtil.h"
#include "ChipSim/plugins/MmuReplListTableSimUtil.h"
#include "ChipSim/plugins/SimTableRig.h"
#include "ChipSim/plugins/SimUtilCommon.h"
#include "VelmarMcast/McastIpmcRemapTable.h"
#include "VelmarMcast/MmuReplListL2SubPortTable.h"
#include "VelmarMcast/MmuReplListTable.h"
#include "VelmarMcast/VelmarMcastTestEntryHandle.h"

namespace VelmarMcast::Testing {
namespace {

using Asic::Index;
using Asic::Ptr;
using State = Asic::SwTableBase::EntryState;
using Rng = std::mt19937;

// A broken invariant: ends the run. A shorter sequence must reproduce the same `kind`.
struct Violation : std::runtime_error {
   Violation(std::string k, const std::string& detail)
       : std::runtime_error(k + ": " + detail), kind(std::move(k)) {}
   std::string kind;
};

template <typename... Args>
[[noreturn]] void broken(std::string kind, fmt::format_string<Args...> text, Args&&... args) {
   throw Violation(std::move(kind), fmt::format(text, std::forward<Args>(args)...));
}

std::uint32_t envNumber(const char* name, std::uint32_t fallback) {
   const char* text = std::getenv(name);
   return text && *text ? static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10)) : fallback;
}

// Drops a counted reference outside any destructor, so that an assertion raised by the
// clean-up it starts reaches the test instead of terminating the process.
template <typename T>
void release(Ptr<T>& p) {
   if (T* raw = p.detach()) intrusive_ptr_release(raw);
}

// --- needed handles ------------------------------------------------------------------------

enum class Need : std::uint8_t { waiting, ready, failed };

// The handles of other tables that values need, owned by the test. Each slot holds the handle
// new values take; a handle once ready keeps its index for good.
class NeededHandles {
 public:
   explicit NeededHandles(int slots) {
      for (int s = 0; s < slots; ++s) slot_.push_back(make());
   }
   int current(std::uint32_t r) const { return slot_[r % slot_.size()]; }
   int renew(std::uint32_t r) { return slot_[r % slot_.size()] = make(); }
   int size() const { return static_cast<int>(all_.size()); }
   Need need(int id) const { return all_[id].need; }
   void needIs(int id, Need need) { all_[id].need = need; }
   const Ptr<VelmarMcastTestEntryHandle>& handle(int id) const { return all_[id].eh; }
   int idOf(const Asic::SwTableBase::EntryHandle* eh) const {
      auto it = byAddress_.find(eh);
      return it == byAddress_.end() ? -1 : it->second;
   }
   static Index indexOf(int id) { return 100 + static_cast<Index>(id) % 60000; }

 private:
   int make() {
      all_.push_back({testEntryHandle(), Need::waiting});
      byAddress_[all_.back().eh.get()] = size() - 1;
      return size() - 1;
   }
   struct Handle {
      Ptr<VelmarMcastTestEntryHandle> eh;
      Need need;
   };
   std::vector<Handle> all_;
   std::vector<int> slot_;
   std::map<const Asic::SwTableBase::EntryHandle*, int> byAddress_;
};

// --- tables --------------------------------------------------------------------------------
// Each adapter numbers its table's keys and values, names the handles a value needs, the
// indices a key holds and what the chip must hold there.

// Remap: ten groups; a value is (IPMC-index handle, strength profile 0..2). The IPMC lookup
// stand-in shares the allocator: it may hold a group's index before, during and after the
// remap key does, and keeps it across a restart.
class RemapAdapter {
 public:
   using Table = IngIpmcRemapTable;
   using IndexArg = Index;
   using Key = Table::Key;
   using Util = ChipSim::IngIpmcRemapTableSimUtil;
   static constexpr const char* kName = "IngIpmcRemap";
   static constexpr std::uint32_t kEntries = 128;
   static constexpr int kSlots = 5;
   static constexpr bool kHasLookup = true;

   int keyCount() const { return kKeys; }
   Key key(int k) const { return Key{kBase + static_cast<std::uint32_t>(k), 0}; }
   int keyOf(const Key& key, const NeededHandles&) const {
      return static_cast<int>(key.groupAddr - kBase);
   }
   std::pair<int, int> draw(NeededHandles& h, std::uint32_t a, std::uint32_t b) {
      return {static_cast<int>(a % kKeys), h.current(b) * kProfiles + static_cast<int>(b / 7 % 3)};
   }
   // A value that cannot resolve yet.
   std::optional<int> waitingValue(NeededHandles& h, std::uint32_t r) {
      for (std::uint32_t s = 0; s < kSlots; ++s) {
         if (h.need(h.current(r + s)) == Need::waiting) return h.current(r + s) * kProfiles;
      }
      return h.renew(r) * kProfiles;
   }
   std::pair<int, int> changed(int k, int value, NeededHandles& h, std::uint32_t r) {
      const int profile = value % kProfiles;
      return {k, r % 2 ? value - profile + (profile + 1) % kProfiles
                       : h.current(r / 2) * kProfiles + profile};
   }
   Table::Entry entry(int value, const NeededHandles& h, Asic::WriteResponseFn fn) const {
      return Table::Entry(h.handle(value / kProfiles), static_cast<std::uint8_t>(value % kProfiles),
                          std::move(fn));
   }
   std::vector<int> needed(int value) const { return {value / kProfiles}; }
   std::uint32_t testReferences(int) const { return 0; }
   int valueOf(const Table::Entry& e, const NeededHandles& h) const {
      const int id = h.idOf(e.remappedIpmcIndexHandle.get());
      return id < 0 ? -1 : id * kProfiles + e.strengthProfile;
   }
   std::string keyText(int k) const { return fmt::format("group {}", k); }
   std::string valueText(int v) const {
      return fmt::format("h{}/profile {}", v / kProfiles, v % kProfiles);
   }
   // The index the remap table uses (the lookup's own use does not count).
   std::vector<Index> indices(const Table& table, int k) const {
      const auto* alloc = table.indexAllocator();
      const Key kk = key(k);
      const auto index = alloc->indexForKey(Asic::vixType<Key>(), &kk);
      if (!index || !alloc->isIndexUsedBy(*index, Asic::vixType<Key>(),
                                          static_cast<const Asic::SwTable*>(&table))) {
         return {};
      }
      return {*index};
   }
   std::string chipDiffers(const ChipSim::SimHwTable& hw, const std::vector<Index>& indices,
                           int value) const {
      std::array<std::uint32_t, Util::kEntryWords> words{};
      if (!hw.entryRead(indices.front(), words)) return "no valid entry";
      const auto got = Util::decode(words);
      const Index want = NeededHandles::indexOf(value / kProfiles);
      if (got.remappedIpmcIndex == want && got.strengthProfile == value % kProfiles) return {};
      return fmt::format("holds index {} profile {}", got.remappedIpmcIndex, got.strengthProfile);
   }

   void lookupIs(Asic::GenericIndexAllocator& alloc, int k, bool held) {
      const Key kk = key(k);
      if (held && !lookup_.contains(k)) {
         const Index index = alloc.newIndexForKey(Asic::vixType<Key>(), &kk, this);
         if (!Asic::isExhausted(index)) lookup_[k] = index;
      } else if (!held && lookup_.erase(k)) {
         alloc.releaseIndexFromTable(Asic::vixType<Key>(), &kk, this);
      }
   }
   void lookupReleaseAll(Asic::GenericIndexAllocator& alloc) {
      for (const auto& [k, index] : lookup_) {
         const Key kk = key(k);
         alloc.releaseIndexFromTable(Asic::vixType<Key>(), &kk, this);
      }
   }
   std::string lookupRecoverAll(Asic::GenericIndexAllocator& alloc) {
      for (const auto& [k, index] : lookup_) {
         const Key kk = key(k);
         if (!alloc.recoverIndexForKey(index, Asic::vixType<Key>(), &kk, this)) {
            return fmt::format("the lookup cannot recover group {} at {}", k, index);
         }
      }
      return {};
   }
   void lookupClear() { lookup_.clear(); }
   bool lookupHolds(Index index) const {
      return std::any_of(lookup_.begin(), lookup_.end(),
                         [index](const auto& held) { return held.second == index; });
   }

 private:
   static constexpr std::uint32_t kBase = 0xEF000000u;
   static constexpr int kKeys = 10;
   static constexpr int kProfiles = 3;

   std::map<int, Index> lookup_;
};

// What the tables whose entry is its own key share: a value is its key, no IPMC lookup.
template <typename Self>
struct SelfKeyed {
   std::pair<int, int> changed(int, int, NeededHandles& h, std::uint32_t r) {
      return static_cast<Self*>(this)->draw(h, r, 0);
   }
   template <typename Entry>
   int valueOf(const Entry& e, const NeededHandles& h) const {
      return static_cast<const Self*>(this)->keyOf(e, h);
   }
   std::string valueText(int) const { return "itself"; }
   std::optional<int> waitingValue(NeededHandles&, std::uint32_t) { return std::nullopt; }
   void lookupIs(Asic::GenericIndexAllocator&, int, bool) {}
   void lookupReleaseAll(Asic::GenericIndexAllocator&) {}
   std::string lookupRecoverAll(Asic::GenericIndexAllocator&) { return {}; }
   void lookupClear() {}
   bool lookupHolds(Index) const { return false; }
};

// Replication lists: ten shapes over six egress-object slots. A key is a shape with the
// handles its slots held when it was drawn.
class ReplListAdapter : public SelfKeyed<ReplListAdapter> {
 public:
   using Table = MmuReplListTable;
   using IndexArg = const std::vector<Index>&;
   using Key = Table::Key;
   using Format = ChipSim::ReplListFormat;
   static constexpr const char* kName = "MmuReplList";
   static constexpr std::uint32_t kEntries = 1024;  // old lists pile up while their handles age
   static constexpr int kSlots = 6;
   static constexpr bool kHasLookup = false;

   int keyCount() const { return static_cast<int>(lists_.size()); }
   const Key& key(int k) const { return lists_[k].entry; }
   int keyOf(const Key& e, const NeededHandles& h) const {
      std::vector<int> ids;
      for (const auto& [eh, ports] : e.egressObjectHandles()) ids.push_back(h.idOf(eh.get()));
      auto it = byIdentity_.find(identity(static_cast<int>(e.genId()) - 1, ids));
      return it == byIdentity_.end() ? -1 : it->second;
   }
   std::pair<int, int> draw(NeededHandles& h, std::uint32_t a, std::uint32_t) {
      const int shape = static_cast<int>(a % kShapes);
      std::vector<int> ids;
      for (const Egress& part : egress(shape)) ids.push_back(h.current(part.slot));
      auto [it, fresh] = byIdentity_.emplace(identity(shape, ids), keyCount());
      if (fresh) {
         Key entry;
         const auto parts = egress(shape);
         for (std::size_t j = 0; j < parts.size(); ++j) {
            entry.egressObjectHandleIs(h.handle(ids[j]), parts[j].ports);
         }
         entry.genIdIs(static_cast<std::uint32_t>(shape) + 1);
         entry.sparseEntrySizeIs(static_cast<std::uint8_t>(1 + shape % 4));
         lists_.push_back({shape, ids, std::move(entry)});
         for (int id : ids) ++references_[id];
      }
      return {it->second, it->second};
   }
   Table::Entry entry(int value, const NeededHandles&, Asic::WriteResponseFn fn) const {
      Table::Entry e = lists_[value].entry;
      e.writeResponseFn = std::move(fn);
      return e;
   }
   std::vector<int> needed(int value) const { return lists_[value].handles; }
   // The lists kept here hold their egress objects' handles too.
   std::uint32_t testReferences(int id) const {
      auto it = references_.find(id);
      return it == references_.end() ? 0 : it->second;
   }
   std::string keyText(int k) const {
      return fmt::format("list {} (shape {}, h{})", k, lists_[k].shape,
                         fmt::join(lists_[k].handles, "/h"));
   }
   std::vector<Index> indices(const Table& table, int k) const {
      return table.indexAllocator()->indicesForKey(Asic::vixType<Key>(), &lists_[k].entry);
   }
   // The chain from the first index must be the list's indices, carrying its pairs.
   std::string chipDiffers(const ChipSim::SimHwTable& hw, const std::vector<Index>& indices,
                           int value) const {
      std::vector<Index> chain;
      try {
         chain = ChipSim::chainAt<Format>(hw, indices.front());
      } catch (const std::exception& e) {
         return e.what();
      }
      if (chain != indices) return fmt::format("chains {}", chain);
      std::vector<std::pair<std::uint32_t, std::uint16_t>> got, want;
      for (Index index : chain) {
         Format::Words words{};
         hw.entryRead(index, words);
         const auto pairs = Format::decode(words).pairs;
         got.insert(got.end(), pairs.begin(), pairs.end());
      }
      const auto parts = egress(lists_[value].shape);
      for (std::size_t j = 0; j < parts.size(); ++j) {
         for (auto port : parts[j].ports) {
            want.emplace_back(NeededHandles::indexOf(lists_[value].handles[j]), port);
         }
      }
      std::sort(got.begin(), got.end());
      std::sort(want.begin(), want.end());
      return got == want ? std::string() : fmt::format("holds {}", got);
   }

 private:
   static constexpr int kShapes = 10;
   struct Egress {
      int slot;
      PortList ports;
   };
   // Shape s: 1 to 3 egress objects on distinct slots, one or two ports each, in sparse
   // entries of 1 to 4 pairs: a list takes 1 to 6 indices.
   static std::vector<Egress> egress(int s) {
      std::vector<Egress> out;
      for (int j = 0; j <= s % 3; ++j) {
         const auto port = static_cast<std::uint16_t>(s + j);
         out.push_back(
             {(s + 2 * j) % kSlots,
              s % 2 ? PortList{port} : PortList{port, static_cast<std::uint16_t>(port + 16)}});
      }
      return out;
   }
   static std::vector<int> identity(int shape, std::vector<int> ids) {
      std::sort(ids.begin(), ids.end());
      ids.insert(ids.begin(), shape);
      return ids;
   }
   struct List {
      int shape;
      std::vector<int> handles;  // in egress order
      Key entry;
   };
   std::vector<List> lists_;
   std::map<std::vector<int>, int> byIdentity_;
   std::map<int, std::uint32_t> references_;
};

// L2 sub-port entries: ten entries, needing nothing.
class L2SubPortAdapter : public SelfKeyed<L2SubPortAdapter> {
 public:
   using Table = MmuReplListL2SubPortTable;
   using IndexArg = const std::vector<Index>&;
   using Key = Table::Key;
   using Format = ChipSim::L2SubPortFormat;
   static constexpr const char* kName = "MmuReplListL2SubPort";
   static constexpr std::uint32_t kEntries = 128;
   static constexpr int kSlots = 0;
   static constexpr bool kHasLookup = false;

   int keyCount() const { return kKeys; }
   Key key(int k) const { return entry(k, {}); }
   int keyOf(const Key& e, const NeededHandles&) const {
      const int k = static_cast<int>(e.l2SubPortBitmap().words().at(0)) - 1;
      return k >= 0 && k < kKeys && key(k) == e ? k : -1;
   }
   std::pair<int, int> draw(NeededHandles&, std::uint32_t a, std::uint32_t) {
      return {static_cast<int>(a % kKeys), static_cast<int>(a % kKeys)};
   }
   Table::Entry entry(int value, const NeededHandles&, Asic::WriteResponseFn fn) const {
      return entry(value, std::move(fn));
   }
   std::vector<int> needed(int) const { return {}; }
   std::uint32_t testReferences(int) const { return 0; }
   std::string keyText(int k) const { return fmt::format("l2 entry {}", k); }
   std::vector<Index> indices(const Table& table, int k) const {
      const Key kk = key(k);
      return table.indexAllocator()->indicesForKey(Asic::vixType<Key>(), &kk);
   }
   std::string chipDiffers(const ChipSim::SimHwTable& hw, const std::vector<Index>& indices,
                           int value) const {
      Format::Words words{};
      if (indices.size() != 1) return fmt::format("holds {} indices", indices.size());
      if (!hw.entryRead(indices.front(), words)) return "no valid entry";
      const auto got = Format::decode(words);
      if (Key(got.mode, Ulm::PerUnitBitmap(got.bitmapWords)) == key(value)) return {};
      return fmt::format("holds mode {} bitmap {}", got.mode, got.bitmapWords);
   }

 private:
   static constexpr int kKeys = 10;
   static Key entry(int k, Asic::WriteResponseFn fn) {
      const auto bits = static_cast<std::uint32_t>(k) + 1;
      return Key(static_cast<std::uint32_t>(k % 4), Ulm::PerUnitBitmap({bits, 0}), std::move(fn));
   }
};

// The chip's Util with a record of every value written: which key, which value, and whether
// every hardware write of it succeeded. That is how a failed write is told apart from the
// value whose programming it was.
template <typename A>
class RecordingUtil final : public ChipSim::SimBinding<typename A::Table>::Util {
 public:
   using Table = typename A::Table;
   using Base = typename ChipSim::SimBinding<Table>::Util;
   using Record =
       std::function<void(const typename Table::Key&, const typename Table::Entry&, bool)>;
   explicit RecordingUtil(Record record) : record_(std::move(record)) {}

   void hwTableEntryIs(Table& table, typename A::IndexArg indices,
                       const typename Table::Key& key) override {
      const auto& hw = static_cast<const ChipSim::SimHwTable&>(ChipSim::boundHwTable(table));
      const auto failedBefore = hw.counters().failedWrites;
      Base::hwTableEntryIs(table, indices, key);
      const auto* resolved = table.resolvedEntry(key);
      if (resolved && resolved->has_value()) {
         record_(key, **resolved, hw.counters().failedWrites == failedBefore);
      }
   }

 private:
   Record record_;
};

// --- operations -----------------------------------------------------------------------------

// clang-format off
enum class OpKind : std::uint8_t {
   commit, remove, wontProgram, dropClient, flap, handle, runOnce, settle, fault, lookup, restart,
};
// clang-format on

// Raw numbers, read against the state when the operation runs: a sequence stays runnable
// with any operation taken out.
struct Op {
   OpKind kind;
   std::uint32_t a, b, c;
};

template <typename A>
std::vector<Op> operations(std::uint32_t seed, std::uint32_t steps) {
   const std::pair<OpKind, std::uint32_t> weights[] = {
       {OpKind::commit, 25},
       {OpKind::remove, 10},
       {OpKind::wontProgram, 2},
       {OpKind::dropClient, 5},
       {OpKind::flap, 4},
       {OpKind::handle, A::kSlots > 0 ? 15u : 0u},
       {OpKind::runOnce, 8},
       {OpKind::settle, 14},
       {OpKind::fault, envNumber("VELMAR_DIFF_FAULT_WEIGHT", 7)},
       {OpKind::lookup, A::kHasLookup ? 5u : 0u},
       {OpKind::restart, 1},
   };
   std::uint32_t total = 0;
   for (const auto& [kind, weight] : weights) total += weight;
   Rng rng(seed);
   std::vector<Op> ops(steps);
   for (Op& op : ops) {
      std::uint32_t r = rng() % total;
      op.kind = OpKind::settle;
      for (const auto& [kind, weight] : weights) {
         if (r < weight) {
            op.kind = kind;
            break;
         }
         r -= weight;
      }
      op.a = rng();
      op.b = rng();
      op.c = rng();
   }
   return ops;
}

// --- the model and the driver -------------------------------------------------------------

struct KeyModel {
   bool committed = false;   // a commit the client has not removed
   bool clientHeld = false;  // the test holds the key's handle
   bool wontProgram = false;
   bool loose = false;     // state not predicted: removed while a client still holds it, ...
   bool failSeen = false;  // a needed handle of the value failed while it waited
   int value = -1;         // the value last given (kept after removal: callbacks may follow)
   std::optional<std::pair<int, bool>> lastWrite{};  // (value, ok) since the table was built
   std::map<int, State> lastCall{};                  // per value: its callbacks' last state
   Index firstIndex = Asic::invalidIndex;            // before the last restart
   bool live() const { return committed || clientHeld; }
};

struct CommitRecord {
   int key;
   int value;
   std::uint32_t incarnation;  // of the table
};

// Where the run is, for a failure that ends its process instead of throwing.
struct RunContext {
   std::size_t step = 0;
   const std::vector<std::string>* log = nullptr;
   int reportFd = -1;
};
RunContext runContext;

template <typename A>
class Driver {
 public:
   using Table = typename A::Table;
   using Key = typename Table::Key;
   using Entry = typename Table::Entry;
   using Handle = typename Table::EntryHandle;

   explicit Driver(bool trace) : trace_(trace) {
      if (Asic::GenericIndexAllocatorStub::sharedAllocator(Table::SharedAllocator::kTypeName)) {
         broken("setup", "a shared allocator is left over from an earlier run");
      }
      build();
   }
   Driver(const Driver&) = delete;
   Driver& operator=(const Driver&) = delete;

   void run(const std::vector<Op>& ops) {
      runContext.log = &log_;
      for (step_ = 0; step_ < ops.size(); ++step_) {
         runContext.step = step_;
         execute(ops[step_]);
         if (violation_) throw *violation_;
      }
      runContext.step = step_;
      finish();
   }
   std::size_t step() const { return step_; }
   const std::vector<std::string>& log() const { return log_; }
   std::size_t quietPoints() const { return quietPoints_; }
   std::size_t restarts() const { return incarnation_; }

 private:
   template <typename... Args>
   void note(fmt::format_string<Args...> text, Args&&... args) {
      if (trace_) log_.push_back(fmt::format(text, std::forward<Args>(args)...));
   }
   // For what the engine tells from inside its calls: raised once the operation is over.
   template <typename... Args>
   void fail(std::string kind, fmt::format_string<Args...> text, Args&&... args) {
      if (!violation_) {
         violation_.emplace(std::move(kind), fmt::format(text, std::forward<Args>(args)...));
      }
   }
   KeyModel& model(int k) {
      if (k >= static_cast<int>(keys_.size())) keys_.resize(k + 1);
      return keys_[k];
   }
   std::string keyText(int k) const { return adapter_.keyText(k); }
   std::string valueText(int v) const { return adapter_.valueText(v); }
   Asic::GenericIndexAllocator& alloc() const { return *table_->indexAllocator(); }

   void build() {
      auto sim = ChipSim::simTableIs<Table>(
          chip_, A::kEntries,
          Asic::makePtr<RecordingUtil<A>>([this](const Key& key, const Entry& value, bool ok) {
             writeRecorded(key, value, ok);
          }));
      table_ = std::move(sim.table);
      hw_ = std::move(sim.hw);
   }

   // --- operations ---------------------------------------------------------------------
   void execute(const Op& op) {
      switch (op.kind) {
         case OpKind::commit: {
            const auto [k, v] = adapter_.draw(handles_, op.a, op.b);
            const bool ref = op.c % 5 == 0;
            commit(k, v, ref ? op.c / 5 % 4 != 0 : op.c / 5 % 3 == 0, ref);
            break;
         }
         case OpKind::remove:
            if (const int k = pick(op.a, [](const KeyModel& m) { return m.committed; }); k >= 0) {
               remove(k);
            }
            break;
         case OpKind::wontProgram: {
            const int k = op.b % 2 ? pick(op.a, [](const KeyModel& m) { return m.live(); })
                                   : adapter_.draw(handles_, op.a, op.b).first;
            if (k >= 0) wontProgram(k, op.c % 2 == 0);
            break;
         }
         case OpKind::dropClient:
            if (const int k = pick(op.a, [](const KeyModel& m) { return m.clientHeld; }); k >= 0) {
               dropClient(k);
            }
            break;
         case OpKind::flap:
            flap(op);
            break;
         case OpKind::handle:
            if constexpr (A::kSlots > 0) handleOp(op);
            break;
         case OpKind::runOnce:
            runOnce();
            break;
         case OpKind::settle:
            settle();
            break;
         case OpKind::fault:
            if (op.c % 7 < 3) {
               note("next {} writes fail", 1 + op.a % 2);
               hw_->writesFailingIs(1 + op.a % 2);
            } else {
               note("next {} completions {} turns late", 1 + op.a % 3, 1 + op.b % 4);
               hw_->completionsHeldIs(1 + op.a % 3, 1 + op.b % 4);
            }
            break;
         case OpKind::lookup: {
            const int k = static_cast<int>(op.a % adapter_.keyCount());
            note("the lookup {} {}", op.b % 5 < 3 ? "takes" : "lets go of", keyText(k));
            adapter_.lookupIs(alloc(), k, op.b % 5 < 3);
            break;
         }
         case OpKind::restart:
            restart(op.a);
            break;
      }
   }

   template <typename F>
   int pick(std::uint32_t r, F&& matches) {
      std::vector<int> found;
      for (int k : active_) {
         if (matches(model(k))) found.push_back(k);
      }
      return found.empty() ? -1 : found[r % found.size()];
   }

   bool resolvable(int value) const {
      const auto needed = adapter_.needed(value);
      return std::all_of(needed.begin(), needed.end(),
                         [this](int id) { return handles_.need(id) == Need::ready; });
   }
   bool anyFailed(int value) const {
      const auto needed = adapter_.needed(value);
      return std::any_of(needed.begin(), needed.end(),
                         [this](int id) { return handles_.need(id) == Need::failed; });
   }

   // The model changes first: the engine may call back before it returns.
   void commit(int k, int v, bool keep, bool ref) {
      KeyModel& m = model(k);
      // The same value still waiting is kept as it is, with what it has been told.
      const bool sameWaiting = m.live() && m.value == v && !resolvable(v);
      m.failSeen = (sameWaiting && m.failSeen) || anyFailed(v);
      m.value = v;
      m.wontProgram = m.loose = false;
      if (!ref) m.committed = true;
      active_.insert(k);
      const int id = static_cast<int>(commits_.size());
      commits_.push_back({k, v, incarnation_});
      note("{}#{} {} = {}{}", ref ? "ref" : "commit", id, keyText(k), valueText(v),
           keep ? ", client keeps the handle" : "");
      const Entry entry = adapter_.entry(v, handles_, [this, id, token = token_](State state) {
         (void)token;  // counts the values alive
         callbackCalled(id, state);
      });
      keepOrRelease(k, keep, [&] {
         return ref ? table_->entryRef(adapter_.key(k), entry)
                    : table_->entryCommit(adapter_.key(k), entry);
      });
   }

   // The handle an operation returns is the client's while the call runs.
   template <typename F>
   void keepOrRelease(int k, bool keep, F&& call) {
      const bool held = model(k).clientHeld;
      model(k).clientHeld = true;
      Ptr<const Handle> eh = call();
      if (keep) {
         std::swap(clients_[k], eh);
      } else {
         model(k).clientHeld = held;
      }
      release(eh);
   }

   void remove(int k) {
      note("remove {}", keyText(k));
      KeyModel& m = model(k);
      m.committed = false;
      m.loose = m.clientHeld;  // the value waiting is dropped, the resolved one stays
      m.failSeen = false;
      table_->entryRemove(adapter_.key(k));
   }

   void dropClient(int k) {
      note("client drops {}", keyText(k));
      model(k).clientHeld = false;
      release(clients_[k]);
      clients_.erase(k);
   }

   void wontProgram(int k, bool keep) {
      note("wontProgram {}", keyText(k));
      KeyModel& m = model(k);
      // What is still under way for the key's value may overtake the client's word.
      const bool underWay = m.live() ? m.value >= 0 && (!resolvable(m.value) || loop_.pending())
                                     : loop_.pending() > 0;
      m.loose = (m.loose && m.live()) || underWay;
      m.committed = m.wontProgram = true;
      active_.insert(k);
      keepOrRelease(k, keep, [&] { return table_->entryWontProgram(adapter_.key(k)); });
   }

   // A key leaves its value and comes back to it: over a value that waits where the key can
   // take other values, else through a removal.
   void flap(const Op& op) {
      const auto [k, v] = adapter_.draw(handles_, op.a, op.b);
      note("flap {}", keyText(k));
      commit(k, v, false, false);
      if (op.c % 2) runOnce();
      if (const auto waiting = adapter_.waitingValue(handles_, op.c)) {
         commit(k, *waiting, false, false);
      } else {
         remove(k);
         if (model(k).clientHeld) dropClient(k);
      }
      if (op.c % 4 >= 2) runOnce();
      commit(k, v, op.c % 8 >= 4, false);
   }

   // Mostly the handles that new values take, sometimes an older one.
   void handleOp(const Op& op) {
      if (op.c % 5 == 0) {
         const int id = handles_.renew(op.a);
         note("h{} replaces slot {}'s handle", id, op.a % A::kSlots);
         return;
      }
      const int id = op.b % 3 ? handles_.current(op.a) : static_cast<int>(op.a % handles_.size());
      if (op.c % 5 == 1) {
         handleFail(id);
      } else {
         handleReady(id);
      }
   }

   void handleReady(int id) {
      if (handles_.need(id) == Need::ready) return;
      note("h{} programmed at {}", id, NeededHandles::indexOf(id));
      handles_.needIs(id, Need::ready);
      handles_.handle(id)->programmedIs(NeededHandles::indexOf(id));
   }

   void handleFail(int id) {
      if (handles_.need(id) != Need::waiting) return;
      note("h{} fails", id);
      handles_.needIs(id, Need::failed);
      for (int k : active_) {
         if (model(k).value < 0) continue;
         const auto needed = adapter_.needed(model(k).value);
         if (std::find(needed.begin(), needed.end(), id) != needed.end()) model(k).failSeen = true;
      }
      handles_.handle(id)->entryStateIs(State::programFailed);
   }

   void runOnce() {
      note("run once");
      loop_.runOnce();
   }

   void settle() {
      note("run until idle");
      loop_.runUntilIdle();
      checkQuiet();
   }

   // --- what the engine tells ----------------------------------------------------------
   // The key's last write, of a value it has since left, failed.
   static bool olderWriteFailed(const KeyModel& m) {
      return m.lastWrite && m.lastWrite->first != m.value && !m.lastWrite->second;
   }

   void callbackCalled(int commitId, State state) {
      const CommitRecord& c = commits_[commitId];
      if (c.incarnation != incarnation_) {
         return fail("callback", "commit #{} of {} from before the restart told {}", commitId,
                     keyText(c.key), state);
      }
      KeyModel& m = model(c.key);
      // A failed write is the outcome of the value written, also after the key moved on.
      const bool ownFailure =
          state == State::programFailed && olderWriteFailed(m) && c.value == m.lastWrite->first;
      if (c.value != m.value && !ownFailure) {
         fail("callback", "{}: commit #{} ({}) told {} while the key's value is {}", keyText(c.key),
              commitId, valueText(c.value), state, valueText(m.value));
      }
      m.lastCall[c.value] = state;
   }

   void writeRecorded(const Key& key, const Entry& value, bool ok) {
      const int k = adapter_.keyOf(key, handles_);
      const int v = adapter_.valueOf(value, handles_);
      if (k < 0 || v < 0) return fail("write", "a value the test never gave was written");
      model(k).lastWrite = std::make_pair(v, ok);
   }

   // --- quiet points -------------------------------------------------------------------
   std::vector<State> expectedStates(int k, const KeyModel& m) const {
      if (m.wontProgram) return {State::wontProgram};
      if (!resolvable(m.value)) {
         if (anyFailed(m.value)) return {State::failedNeededEntry};
         std::vector<State> states{State::unresolved};
         if (m.failSeen) states.push_back(State::failedNeededEntry);
         // The chip holds neither value when the older one's write failed meanwhile.
         if (olderWriteFailed(m)) states.push_back(State::programFailed);
         return states;
      }
      if (m.lastWrite && m.lastWrite->first == m.value) {
         return {m.lastWrite->second ? State::success : State::programFailed};
      }
      // After a restart a key whose chip entry already holds its value is not written.
      if (incarnation_ > 0 && !m.lastWrite) {
         const auto indices = adapter_.indices(*table_, k);
         if (!indices.empty() && adapter_.chipDiffers(*hw_, indices, m.value).empty()) {
            return {State::indexReconciled};
         }
      }
      broken("write", "{} = {} can be programmed but was never written", keyText(k),
             valueText(m.value));
   }

   void checkKey(int k, const KeyModel& m, const Handle& eh, const std::vector<Index>& indices) {
      const State s = eh.entryState();
      const bool programmed = s == State::success || s == State::indexReconciled;
      if ((programmed || s == State::programFailed) &&
          (indices.empty() || eh.hwIndex() != indices.front())) {
         broken("index", "{} is {} at index {}, its indices {}", keyText(k), s, eh.hwIndex(),
                indices);
      }
      int resolved = -1;
      if (programmed) {
         const auto* value = table_->resolvedEntry(adapter_.key(k));
         if (!value || !value->has_value())
            broken("state", "{} is {} with no value", keyText(k), s);
         resolved = adapter_.valueOf(**value, handles_);
         if (const auto diff = adapter_.chipDiffers(*hw_, indices, resolved); !diff.empty()) {
            broken("chip", "{} = {} is {} but the chip at {} {}", keyText(k), valueText(resolved),
                   s, indices, diff);
         }
      }
      if (m.loose) return;
      const auto expected = expectedStates(k, m);
      if (std::find(expected.begin(), expected.end(), s) == expected.end()) {
         broken(fmt::format("state {} instead of {}", s, fmt::join(expected, "/")), "{} = {}",
                keyText(k), valueText(m.value));
      }
      if (programmed && !m.wontProgram && resolved != m.value) {
         broken("value", "{} holds {}, committed {}", keyText(k), valueText(resolved),
                valueText(m.value));
      }
      if ((programmed || s == State::programFailed || s == State::failedNeededEntry) &&
          !m.wontProgram) {
         const int owner =
             s == State::programFailed && olderWriteFailed(m) ? m.lastWrite->first : m.value;
         const auto call = m.lastCall.find(owner);
         if (call == m.lastCall.end() || call->second != s) {
            broken("callback", "{} = {} ended {} but its callback was last told {}", keyText(k),
                   valueText(owner), s,
                   call == m.lastCall.end() ? "nothing" : fmt::format("{}", call->second));
         }
      }
   }

   void checkQuiet() {
      ++quietPoints_;
      if (loop_.pending()) broken("loop", "tasks left after running until idle");
      for (const auto& [key, eh] : table_->entryHandles()) {
         const int k = adapter_.keyOf(key, handles_);
         if (k < 0 || !model(k).live()) {
            broken("leak", "{} still has a handle ({}, {})", k < 0 ? "an unknown key" : keyText(k),
                   eh->entryType(), eh->entryState());
         }
         if (eh->entryType() == Asic::SwTable::EntryHandle::EntryType::inDeletion ||
             eh->entryState() == State::inProgress ||
             eh->resolvedEntryState() == State::inProgress) {
            broken("stuck", "{} stays {} ({}, resolved {})", keyText(k), eh->entryState(),
                   eh->entryType(), eh->resolvedEntryState());
         }
      }
      std::map<Index, int> owner;   // indices the table holds for live keys
      std::set<Index> keysEntries;  // where the chip may hold a live key's entry
      std::vector<int> gone;
      for (int k : active_) {
         const KeyModel& m = model(k);
         const auto indices = adapter_.indices(*table_, k);
         if (!m.live()) {
            if (!indices.empty()) broken("leak", "removed {} still holds {}", keyText(k), indices);
            gone.push_back(k);
            continue;
         }
         for (Index index : indices) {
            if (const auto [it, fresh] = owner.emplace(index, k); !fresh) {
               broken("allocator", "index {} held by {} and {}", index, keyText(it->second),
                      keyText(k));
            }
         }
         keysEntries.insert(indices.begin(), indices.end());
         const Handle* eh = table_->entryWeakRef(adapter_.key(k));
         if (!eh) broken("handle", "{} has no handle", keyText(k));
         checkKey(k, m, *eh, indices);
      }
      // A replayed key still waiting keeps its old entry, which the purge passed over, until it
      // writes over it or goes.
      for (const auto& [index, key] : table_->skippedStaleEntries()) {
         if (const int k = adapter_.keyOf(key, handles_); k >= 0 && model(k).live()) {
            keysEntries.insert(index);
         }
      }
      // Keys found gone need no more looking at: the walks below still see all the table holds.
      for (int k : gone) {
         active_.erase(k);
         model(k) = KeyModel{.value = model(k).value};
      }
      if (alloc().isIndexFree(0) || owner.contains(0)) broken("allocator", "index 0 handed out");
      for (Index index = 1; index < alloc().numEntries(); ++index) {
         if (alloc().isIndexHeld(index)) broken("allocator", "index {} still held", index);
         const bool used = owner.contains(index) || adapter_.lookupHolds(index);
         if (alloc().isIndexFree(index) == used) {
            broken("allocator", "index {} is {} but {}", index, used ? "free" : "in use",
                   used ? "a key holds it" : "no key holds it");
         }
      }
      if (const auto stale = chipEntries(keysEntries); !stale.empty()) {
         broken("chip", "entries at {} belong to no key", stale);
      }
   }

   // Valid chip entries outside `expected`.
   std::vector<Index> chipEntries(const std::set<Index>& expected) const {
      std::vector<Index> found;
      hw_->forEachValidEntry([&](Index index, Asic::HwTable::Words) {
         if (!expected.contains(index)) found.push_back(index);
      });
      return found;
   }

   // --- restart ------------------------------------------------------------------------
   void restart(std::uint32_t seed) {
      Rng rng(seed);
      note("restart");
      std::vector<std::pair<int, bool>> config;  // committed keys, wontProgram
      for (int k : active_) {
         const auto indices = adapter_.indices(*table_, k);
         model(k).firstIndex = indices.empty() ? Asic::invalidIndex : indices.front();
         if (model(k).committed) config.emplace_back(k, model(k).wontProgram);
      }
      // The process dies, writes possibly in flight: the chip keeps what it holds.
      table_->utilIs(nullptr);
      table_->hwTableIs(nullptr);
      adapter_.lookupReleaseAll(alloc());
      table_->cleanup();
      release(table_);
      for (auto& [k, p] : clients_) release(p);
      clients_.clear();
      loop_.runUntilIdle();  // its completions find nobody
      if (token_.use_count() != 1) {
         broken("leak", "{} values outlive the dropped table", token_.use_count() - 1);
      }
      for (int id = 0; id < handles_.size(); ++id) {
         if (handles_.handle(id)->watchers() != 0) broken("leak", "h{} is still watched", id);
      }
      for (int k : active_) {
         model(k) = KeyModel{.value = model(k).value, .firstIndex = model(k).firstIndex};
      }
      ++incarnation_;
      token_ = std::make_shared<int>(0);

      build();
      table_->configReplayCompleteIs(false);
      table_->syncEntries();
      if (const auto error = adapter_.lookupRecoverAll(alloc()); !error.empty()) {
         broken("restart", "{}", error);
      }
      for (std::size_t i = config.size(); i > 1; --i) std::swap(config[i - 1], config[rng() % i]);
      for (const auto& [key, wont] : config) {
         const std::uint32_t roll = rng() % 100;
         if (roll < 10) continue;  // left out of the replay
         if (wont) {
            wontProgram(key, roll % 2);
         } else {
            const int value = model(key).value;
            const auto [k, v] =
                roll < 20 ? adapter_.changed(key, value, handles_, rng()) : std::pair{key, value};
            commit(k, v, roll % 3 == 0, false);
            suggest(k, rng);
         }
         if (A::kSlots > 0 && rng() % 8 == 0) handleReady(handles_.current(rng()));
      }
      note("init complete, purge");
      table_->doInitComplete();
      table_->purgeStaleEntries();
      loop_.runUntilIdle();
      checkQuiet();
   }

   // What a dependent table that read its own entries back would suggest: mostly where the
   // key was, sometimes an index that is wrong or another key's. The dependents of a table
   // whose suggestions must name free indices point only at the key's own entry in the chip.
   void suggest(int k, Rng& rng) {
      const Handle* eh = table_->entryWeakRef(adapter_.key(k));
      if (!eh || eh->entryState() != State::unresolved) return;
      const std::uint32_t roll = rng() % 10;
      Index index = model(k).firstIndex;
      if constexpr (Asic::Trait::suggestedIndexMustBeFree<Table>) {
         // As its real dependents do: only where the chip holds the key's entry.
         const auto* synced = Asic::isExhausted(index) ? nullptr : table_->syncedEntry(index);
         if (!synced || !(*synced == adapter_.key(k))) return;
      } else if (roll >= 8 || Asic::isExhausted(index)) {
         const Index other = model(static_cast<int>(rng() % adapter_.keyCount())).firstIndex;
         index = roll % 2 && !Asic::isExhausted(other) ? other : 1 + rng() % (A::kEntries - 1);
      }
      if (roll < 2) return;
      note("suggest {} to {}", index, keyText(k));
      Asic::SwTableBase::suggestIndicesToNeededEntryHandle(eh, {index});
   }

   // --- the end ------------------------------------------------------------------------
   void finish() {
      note("finish: remove every key, clean up, drop the table");
      settle();
      for (int k : std::vector<int>(active_.begin(), active_.end())) {
         if (model(k).committed) remove(k);
      }
      settle();
      const Ptr<Asic::GenericIndexAllocator> allocator = table_->indexAllocator();
      adapter_.lookupReleaseAll(*allocator);
      adapter_.lookupClear();
      table_->cleanup();
      release(table_);
      loop_.runUntilIdle();
      for (auto& [k, p] : clients_) {
         if (p->refCount() != 1) {
            broken("leak", "{}: the client's handle is counted {} more times", keyText(k),
                   p->refCount() - 1);
         }
         model(k).clientHeld = false;
         release(p);
      }
      clients_.clear();
      if (Asic::GenericIndexAllocatorStub::sharedAllocator(Table::SharedAllocator::kTypeName)) {
         broken("leak", "the shared allocator outlives its table");
      }
      std::vector<Index> used;
      for (Index index = 1; index < allocator->numEntries(); ++index) {
         if (!allocator->isIndexFree(index)) used.push_back(index);
      }
      if (!used.empty()) broken("leak", "indices {} still in use after clean-up", used);
      if (const auto left = chipEntries({}); !left.empty()) {
         broken("leak", "the chip still holds entries at {}", left);
      }
      if (token_.use_count() != 1) {
         broken("leak", "{} values outlive the table", token_.use_count() - 1);
      }
      for (int id = 0; id < handles_.size(); ++id) {
         const auto& eh = handles_.handle(id);
         if (eh->watchers() != 0 || eh->refCount() != 1u + adapter_.testReferences(id)) {
            broken("leak", "h{} still watched {} times, counted {} times", id, eh->watchers(),
                   eh->refCount());
         }
      }
   }

   A adapter_;
   NeededHandles handles_{A::kSlots};
   Asic::EventLoop loop_;
   ChipSim::Chip chip_{loop_, 0};
   Ptr<ChipSim::SimHwTable> hw_;
   Ptr<Table> table_;
   std::vector<KeyModel> keys_;
   std::set<int> active_;  // keys that may hold anything in the table
   std::map<int, Ptr<const Handle>> clients_;
   std::vector<CommitRecord> commits_;
   std::shared_ptr<int> token_ = std::make_shared<int>(0);  // one count per live value
   std::uint32_t incarnation_ = 0;
   std::optional<Violation> violation_;
   bool trace_;
   std::vector<std::string> log_;
   std::size_t step_ = 0;
   std::size_t quietPoints_ = 0;
};

// --- runs -----------------------------------------------------------------------------------

struct Outcome {
   bool failed = false;
   std::string kind;
   std::string what;
   std::size_t step = 0;
   std::size_t quietPoints = 0, restarts = 0;
   std::vector<std::string> log{};
};

// An outcome crosses from the run's process one field a line.
std::string encode(const Outcome& o) {
   auto line = [](std::string text) {
      std::replace(text.begin(), text.end(), '\n', ' ');
      return text + '\n';
   };
   std::string out = line(o.kind) + line(o.what) +
                     fmt::format("{} {} {} {}\n", o.failed, o.step, o.quietPoints, o.restarts);
   for (const std::string& entry : o.log) out += line(entry);
   return out;
}

std::optional<Outcome> decode(const std::string& text) {
   std::istringstream in(text);
   Outcome o;
   std::string numbers, failed;
   if (!std::getline(in, o.kind) || !std::getline(in, o.what) || !std::getline(in, numbers)) {
      return std::nullopt;
   }
   std::istringstream(numbers) >> failed >> o.step >> o.quietPoints >> o.restarts;
   o.failed = failed == "true";
   for (std::string entry; std::getline(in, entry);) o.log.push_back(entry);
   return o;
}

void report(const Outcome& o) {
   const std::string text = encode(o);
   for (std::size_t done = 0; done < text.size();) {
      const ssize_t n = ::write(runContext.reportFd, text.data() + done, text.size() - done);
      if (n <= 0) break;
      done += static_cast<std::size_t>(n);
   }
}

// An assertion raised where it cannot propagate (in a destructor) ends the process.
[[noreturn]] void reportTermination() {
   Outcome o{.failed = true, .kind = "abort", .what = "terminated", .step = runContext.step};
   if (runContext.log) o.log = *runContext.log;
   try {
      if (const auto e = std::current_exception()) std::rethrow_exception(e);
   } catch (const Asic::AssertionError& e) {
      o.kind = "abort on assertion " + e.info().expression;
      o.what = fmt::format("{}, raised where it cannot propagate: the process ends", e.what());
   } catch (const std::exception& e) {
      o.what = fmt::format("terminated by: {}", e.what());
   } catch (...) {
   }
   report(o);
   ::_exit(3);
}

// One run in this process. Nothing is torn down after a failure: the process ends.
template <typename A>
Outcome runOps(const std::vector<Op>& ops, bool trace) {
   Outcome out;
   auto* driver = new Driver<A>(trace);
   try {
      driver->run(ops);
   } catch (const Violation& v) {
      out = {.failed = true, .kind = v.kind, .what = v.what()};
   } catch (const Asic::AssertionError& e) {
      out = {.failed = true, .kind = "assertion " + e.info().expression, .what = e.what()};
   } catch (const std::exception& e) {
      out = {.failed = true, .kind = "exception", .what = e.what()};
   }
   out.step = driver->step();
   out.log = driver->log();
   out.quietPoints = driver->quietPoints();
   out.restarts = driver->restarts();
   return out;
}

// Each run goes in a process of its own, so that one that ends its process ends only itself.
template <typename A>
Outcome runIsolated(const std::vector<Op>& ops, bool trace) {
   int fds[2];
   if (::pipe(fds) != 0) throw std::runtime_error("pipe failed");
   std::fflush(nullptr);
   const pid_t pid = ::fork();
   if (pid < 0) throw std::runtime_error("fork failed");
   if (pid == 0) {
      ::close(fds[0]);
      runContext.reportFd = fds[1];
      std::set_terminate(reportTermination);
      try {
         report(runOps<A>(ops, trace));
      } catch (const std::exception& e) {
         report({.failed = true, .kind = "setup", .what = e.what()});
      }
      ::_exit(0);
   }
   ::close(fds[1]);
   std::string text;
   char buffer[4096];
   for (ssize_t n; (n = ::read(fds[0], buffer, sizeof buffer)) > 0;) text.append(buffer, n);
   ::close(fds[0]);
   int status = 0;
   ::waitpid(pid, &status, 0);
   if (auto o = decode(text)) return *o;
   return {.failed = true,
           .kind = "crash",
           .what = fmt::format("the run died (wait status {})", status),
           .step = ops.size()};
}

// Takes out what the failure does not need, as long as the same kind of failure remains.
template <typename A>
std::vector<Op> shrink(std::vector<Op> ops, const std::string& kind) {
   std::uint32_t budget = envNumber("VELMAR_DIFF_SHRINK_RUNS", 1000);
   for (std::size_t chunk = std::max<std::size_t>(ops.size() / 2, 1); chunk >= 1; chunk /= 2) {
      for (std::size_t i = 0; i < ops.size() && budget > 0; --budget) {
         std::vector<Op> candidate(ops.begin(), ops.begin() + i);
         candidate.insert(candidate.end(), ops.begin() + std::min(i + chunk, ops.size()),
                          ops.end());
         const Outcome o = runIsolated<A>(candidate, false);
         if (o.failed && o.kind == kind) {
            candidate.resize(std::min(candidate.size(), o.step + 1));
            ops = std::move(candidate);
         } else {
            i += chunk;
         }
      }
   }
   return ops;
}

template <typename A>
void runSeeds() {
   Asic::ScopedAssertThrow asserts;
   const std::uint32_t steps = envNumber("VELMAR_DIFF_STEPS", 600);
   const bool oneSeed = std::getenv("VELMAR_DIFF_SEED") != nullptr;
   const std::uint32_t first = oneSeed ? envNumber("VELMAR_DIFF_SEED", 1) : 1;
   const std::uint32_t seeds = oneSeed ? 1 : envNumber("VELMAR_DIFF_SEEDS", 5);
   const bool shrinking = envNumber("VELMAR_DIFF_SHRINK", 1) != 0;
   std::set<std::string> reported;
   Outcome total;
   for (std::uint32_t seed = first; seed < first + seeds; ++seed) {
      const auto ops = operations<A>(seed, steps);
      const Outcome outcome = runIsolated<A>(ops, false);
      total.quietPoints += outcome.quietPoints;
      total.restarts += outcome.restarts;
      if (!outcome.failed) continue;
      if (!reported.insert(outcome.kind).second) {
         ADD_FAILURE() << fmt::format("{} seed {} step {} of {}: {} (same kind as above)", A::kName,
                                      seed, outcome.step, steps, outcome.what);
         continue;
      }
      std::vector<Op> shortest(ops.begin(), ops.begin() + std::min(ops.size(), outcome.step + 1));
      if (shrinking) shortest = shrink<A>(std::move(shortest), outcome.kind);
      const Outcome replay = runIsolated<A>(shortest, true);
      ADD_FAILURE() << fmt::format(
          "{} seed {} (VELMAR_DIFF_SEED={}) failed at step {} of {}:\n  {}\n"
          "shortest sequence found, {} operations, failing with:\n  {}\n  {}",
          A::kName, seed, seed, outcome.step, steps, outcome.what, shortest.size(), replay.what,
          fmt::join(replay.log, "\n  "));
   }
   if (std::getenv("VELMAR_DIFF_STEPS") || std::getenv("VELMAR_DIFF_SEEDS")) {
      std::printf("%s: %u seed(s) x %u steps, %zu quiet points, %zu restarts\n", A::kName, seeds,
                  steps, total.quietPoints, total.restarts);
   }
}

template <typename A>
class EngineDifferential : public ::testing::Test {};

struct AdapterName {
   template <typename A>
   static std::string GetName(int) {
      return A::kName;
   }
};

using Adapters = ::testing::Types<RemapAdapter, ReplListAdapter, L2SubPortAdapter>;
TYPED_TEST_SUITE(EngineDifferential, Adapters, AdapterName);

TYPED_TEST(EngineDifferential, RandomOperationsKeepChipAllocatorAndClientsInStepWithTheModel) {
   runSeeds<TypeParam>();
}

}  // namespace
}  // namespace VelmarMcast::Testing
