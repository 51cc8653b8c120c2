// End-to-end cost of the engine on the remap table, in two halves each beside its bare
// baseline, so that the engine's overhead is read as a ratio from one run:
//   BM_RemapCommit   commit, resolve, allocate, write on the simulated chip, the write
//                    response through the event loop and the entry's callback;
//   BM_RemapRemove   entryRemove through the delete dance to the delete's response.
// heap_bytes_per_entry is the heap the committed table keeps per entry, in malloc's own
// accounting: every collection, the handles and the allocator (the entries share one
// completion callback).
// BM_RemapCommitHandleFloor is the baseline plus what any design with counted handles and
// asynchronous write responses pays: a handle per key, completed through the response.

#include <malloc.h>

#include <array>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <absl/container/flat_hash_map.h>
#include <benchmark/benchmark.h>

#include "Asic/EventLoop.h"
#include "ChipSim/Chip.h"
#include "ChipSim/plugins/SimTableRig.h"
#include "VelmarMcast/McastIpmcRemapTable.h"
#include "VelmarMcast/VelmarMcastTestEntryHandle.h"

namespace {

using VelmarL3Common::L3IpmcKey;

// Heap bytes in use (glibc's accounting). Resident memory is no measure here: an iteration
// reuses what the one before it freed, so its growth reads low, and transient queues that a
// fresh process grows for the burst read high.
std::size_t heapInUse() {
   const struct mallinfo2 m = mallinfo2();
   return m.uordblks + m.hblkhd;
}

std::uint32_t tableSizeFor(std::int64_t n) { return static_cast<std::uint32_t>(n + 1); }

// One remap table on a fresh chip, with the remap target every entry names.
struct EngineRig {
   explicit EngineRig(std::uint32_t n)
       : chip(loop, 0),
         rig(ChipSim::simTableIs<VelmarMcast::IngIpmcRemapTable>(chip, tableSizeFor(n))) {}
   ~EngineRig() {
      rig.table->cleanup();
      rig.table.reset();
   }
   // One completion callback for every entry, as a client with one completion handler has:
   // each value holds a count of it. A callable per entry would add its own size to each.
   void commitAll(std::uint32_t n, std::uint64_t* completed) {
      const Asic::WriteResponseFn told = [completed](Asic::SwTableBase::EntryState s) {
         *completed += s == Asic::SwTableBase::EntryState::success;
      };
      for (std::uint32_t i = 0; i < n; ++i) {
         table().entryCommit(L3IpmcKey{0xE0000000u + i, 0},
                             VelmarMcast::IngIpmcRemapTableEntry(target, i & 31, told));
      }
      loop.runUntilIdle();
   }
   void removeAll(std::uint32_t n) {
      for (std::uint32_t i = 0; i < n; ++i) table().entryRemove(L3IpmcKey{0xE0000000u + i, 0});
      loop.runUntilIdle();
   }
   VelmarMcast::IngIpmcRemapTable& table() { return *rig.table; }
   ChipSim::SimHwTable& hw() { return *rig.hw; }

   Asic::EventLoop loop;
   ChipSim::Chip chip;
   ChipSim::SimTable<VelmarMcast::IngIpmcRemapTable> rig;
   Asic::Ptr<const Asic::SwTableBase::EntryHandle> target =
       VelmarMcast::testEntryHandle(42, Asic::SwTableBase::EntryState::success);
};

void perEntry(benchmark::State& state, std::uint32_t n) {
   state.SetItemsProcessed(state.iterations() * n);
   state.counters["ns_per_entry"] =
       benchmark::Counter(double(n) * double(state.iterations()),
                          benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// Commit -> resolve -> allocate -> write -> write response -> the entry's callback, for n
// new keys; and the heap that stays per entry afterwards.
void BM_RemapCommit(benchmark::State& state) {
   const auto n = static_cast<std::uint32_t>(state.range(0));
   double heapPerEntry = 0;
   for (auto _ : state) {
      state.PauseTiming();
      auto rig = std::make_unique<EngineRig>(n);
      std::uint64_t completed = 0;
      const std::size_t heapBefore = heapInUse();
      state.ResumeTiming();

      rig->commitAll(n, &completed);

      state.PauseTiming();
      heapPerEntry = (double(heapInUse()) - double(heapBefore)) / n;
      if (rig->hw().memory().validEntries() != n || completed != n) {
         state.SkipWithError("not every entry was programmed and told");
      }
      rig.reset();
      state.ResumeTiming();
   }
   perEntry(state, n);
   state.counters["heap_bytes_per_entry"] = heapPerEntry;
}

// entryRemove of n programmed keys, through the delete dance to the delete's response.
void BM_RemapRemove(benchmark::State& state) {
   const auto n = static_cast<std::uint32_t>(state.range(0));
   for (auto _ : state) {
      state.PauseTiming();
      auto rig = std::make_unique<EngineRig>(n);
      std::uint64_t completed = 0;
      rig->commitAll(n, &completed);
      state.ResumeTiming();

      rig->removeAll(n);

      state.PauseTiming();
      if (rig->hw().memory().validEntries() != 0 || rig->table().entryHandles().size() != 0) {
         state.SkipWithError("entries left after removal");
      }
      rig.reset();
      state.ResumeTiming();
   }
   perEntry(state, n);
}

// The unavoidable work per key, beside the engine: one hash map insert, one index
// allocation, one memory write; for removal, one look-up, one clear, one free, one erase.
struct BaselineRig {
   explicit BaselineRig(std::uint32_t n)
       : chip(loop, 0),
         hw(chip.tableIs("ING_IPMC_REMAP", tableSizeFor(n), 1)),
         alloc(Asic::makePtr<Asic::FirstFreeIndexAllocator>("baseline")) {
      alloc->numEntriesIs(tableSizeFor(n));
      alloc->reserveIndices(0, 0);
   }
   void insertAll(std::uint32_t n) {
      for (std::uint32_t i = 0; i < n; ++i) {
         const L3IpmcKey key{0xE0000000u + i, 0};
         const Asic::Index index = alloc->newIndexForKey(type, &key);
         map.emplace(key, index);
         const std::array<std::uint32_t, 1> words{42u | ((i & 31u) << 16)};
         hw->entryWrite(index, words);
      }
      loop.runUntilIdle();
   }
   void eraseAll(std::uint32_t n) {
      for (std::uint32_t i = 0; i < n; ++i) {
         const L3IpmcKey key{0xE0000000u + i, 0};
         auto it = map.find(key);
         hw->entryClear(it->second);
         alloc->releaseIndexFromTable(type, &key, nullptr);
         map.erase(it);
      }
      loop.runUntilIdle();
   }
   Asic::EventLoop loop;
   ChipSim::Chip chip;
   Asic::Ptr<ChipSim::SimHwTable> hw;
   Asic::Ptr<Asic::FirstFreeIndexAllocator> alloc;
   absl::flat_hash_map<L3IpmcKey, Asic::Index, Asic::SeededHash<L3IpmcKey, 1>> map;
   const Asic::TypeDescriptor& type = Asic::vixType<L3IpmcKey>();
};

// Also the heap the bare work keeps per key (its map and the allocator), the floor under the
// engine's heap_bytes_per_entry.
void BM_RemapCommitBaseline(benchmark::State& state) {
   const auto n = static_cast<std::uint32_t>(state.range(0));
   double heapPerEntry = 0;
   for (auto _ : state) {
      state.PauseTiming();
      auto rig = std::make_unique<BaselineRig>(n);
      const std::size_t heapBefore = heapInUse();
      state.ResumeTiming();
      rig->insertAll(n);
      state.PauseTiming();
      heapPerEntry = (double(heapInUse()) - double(heapBefore)) / n;
      rig.reset();
      state.ResumeTiming();
   }
   perEntry(state, n);
   state.counters["heap_bytes_per_entry"] = heapPerEntry;
}

void BM_RemapRemoveBaseline(benchmark::State& state) {
   const auto n = static_cast<std::uint32_t>(state.range(0));
   for (auto _ : state) {
      state.PauseTiming();
      auto rig = std::make_unique<BaselineRig>(n);
      rig->insertAll(n);
      state.ResumeTiming();
      rig->eraseAll(n);
      state.PauseTiming();
      rig.reset();
      state.ResumeTiming();
   }
   perEntry(state, n);
}

// The floor of a design with counted entry handles and asynchronous write responses: the
// baseline plus, per key, a handle that the write's response completes through the
// write-response SM and the event loop, and the client's callback. What the engine costs
// beyond this is the generic machinery itself (resolution, collections, reconciliation
// and delete-dance state).
class FloorHandle : public Asic::SwTableBase::EntryHandle {
 public:
   explicit FloorHandle(Asic::WriteResponseFn fn) : fn_(std::move(fn)) {}
   void handleEntryState() override { fn_(entryState()); }

 private:
   Asic::WriteResponseFn fn_;
};

void BM_RemapCommitHandleFloor(benchmark::State& state) {
   const auto n = static_cast<std::uint32_t>(state.range(0));
   for (auto _ : state) {
      state.PauseTiming();
      auto rig = std::make_unique<BaselineRig>(n);
      auto sm = Asic::makePtr<Asic::WriteResponseSm>();
      rig->hw->writeResponseSmIs(sm.get());
      absl::flat_hash_map<L3IpmcKey, Asic::Ptr<FloorHandle>, Asic::SeededHash<L3IpmcKey, 2>>
          handles;
      std::uint64_t completed = 0;
      state.ResumeTiming();

      for (std::uint32_t i = 0; i < n; ++i) {
         const L3IpmcKey key{0xE0000000u + i, 0};
         auto eh = Asic::makePtr<FloorHandle>([&completed](Asic::SwTableBase::EntryState s) {
            completed += s == Asic::SwTableBase::EntryState::success;
         });
         const Asic::Index index = rig->alloc->newIndexForKey(rig->type, &key);
         eh->hwIndexIs(index);
         const std::array<std::uint32_t, 1> words{42u | ((i & 31u) << 16)};
         Asic::WriteResponseSm::WriteContext context(sm.get(), eh.get());
         rig->hw->entryWrite(index, words);
         handles.emplace(key, std::move(eh));
      }
      rig->loop.runUntilIdle();

      state.PauseTiming();
      if (completed != n) state.SkipWithError("not every write was told");
      rig->hw->writeResponseSmIs(nullptr);
      handles.clear();
      rig.reset();
      state.ResumeTiming();
   }
   perEntry(state, n);
}

void sizes(benchmark::internal::Benchmark* b) {
   b->Arg(16 << 10)->Arg(256 << 10)->Arg(1 << 20)->Unit(benchmark::kMillisecond)->Iterations(3);
}
BENCHMARK(BM_RemapCommit)->Apply(sizes);
BENCHMARK(BM_RemapCommitBaseline)->Apply(sizes);
BENCHMARK(BM_RemapCommitHandleFloor)->Apply(sizes);
BENCHMARK(BM_RemapRemove)->Apply(sizes);
BENCHMARK(BM_RemapRemoveBaseline)->Apply(sizes);

}  // namespace

BENCHMARK_MAIN();
