// Index allocators at 4K, 64K and 1M entries: the cost of one allocation or release should
// stay roughly flat as the index space grows, including on a fragmented space.
//
//   allocator_bench --benchmark_counters_tabular=true
//
// Items are allocations (or releases); "ns/op" is 1e9 / items_per_second. "bytes/key" is
// the heap the allocator holds per key when full (key records, reverse map and bitmaps).

#include <malloc.h>

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <random>
#include <string_view>
#include <vector>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include "Asic/IndexAllocator.h"

namespace {

using Asic::GenericIndexAllocator;
using Asic::Index;

// An 8-byte key with its own 32-bit hash, like the tables' keys.
struct BenchKey {
   static constexpr std::string_view kTypeName = "Bench::BenchKey";
   std::uint64_t id;
   bool operator==(const BenchKey&) const = default;
   std::uint32_t hash(std::uint32_t seed) const {
      std::uint64_t h = (id ^ seed) * 0x9E3779B97F4A7C15ull;
      return static_cast<std::uint32_t>(h ^ (h >> 29));
   }
};

}  // namespace

template <>
struct fmt::formatter<BenchKey> : fmt::formatter<std::string_view> {
   auto format(const BenchKey& key, fmt::format_context& ctx) const {
      return fmt::format_to(ctx.out(), "BenchKey({})", key.id);
   }
};

namespace {

const Asic::TypeDescriptor& keyType() { return Asic::vixType<BenchKey>(); }

template <typename Alloc>
Asic::Ptr<Alloc> makeAllocator(std::uint32_t entries) {
   auto alloc = Asic::makePtr<Alloc>("bench");
   alloc->numEntriesIs(entries);
   alloc->reserveIndices(0, 0);
   return alloc;
}

// Keys 1 .. entries - 1 each own one index (index 0 is reserved).
template <typename Alloc>
Asic::Ptr<Alloc> makeFull(std::uint32_t entries) {
   auto alloc = makeAllocator<Alloc>(entries);
   for (std::uint64_t id = 1; id < entries; ++id) {
      BenchKey key{id};
      alloc->newIndexForKey(keyType(), &key);
   }
   return alloc;
}

// A random half of keys 1 .. entries - 1, fixed per size.
std::vector<std::uint64_t> randomHalf(std::uint32_t entries) {
   std::vector<std::uint64_t> ids(entries - 1);
   std::iota(ids.begin(), ids.end(), 1);
   std::mt19937_64 rng(entries);
   std::shuffle(ids.begin(), ids.end(), rng);
   ids.resize(ids.size() / 2);
   return ids;
}

void releaseAll(GenericIndexAllocator& alloc, const std::vector<std::uint64_t>& ids) {
   for (std::uint64_t id : ids) {
      BenchKey key{id};
      alloc.releaseIndexFromTable(keyType(), &key, nullptr);
   }
}

// A space filled with blocks of random sizes 1 .. 2 * maxRun, of which a random half was
// released: free runs of every length up to about 4 * maxRun, scattered.
template <typename Alloc>
Asic::Ptr<Alloc> makeFragmentedRuns(std::uint32_t entries, std::uint32_t maxRun) {
   auto alloc = makeAllocator<Alloc>(entries);
   std::mt19937 rng(entries + maxRun);
   std::uniform_int_distribution<std::uint32_t> size(1, 2 * maxRun);
   std::bernoulli_distribution release(0.5);
   std::vector<std::uint64_t> released;
   for (std::uint64_t id = 1;; ++id) {
      BenchKey key{id};
      if (alloc->newIndicesForKey(keyType(), &key, size(rng)).empty()) {
         if (alloc->newIndexForKey(keyType(), &key) == Asic::invalidIndex) break;
      }
      if (release(rng)) released.push_back(id);
   }
   releaseAll(*alloc, released);
   return alloc;
}

std::size_t heapInUse() { return mallinfo2().uordblks; }

// Allocate every index of an empty allocator.
template <typename Alloc>
void BM_AllocateAll(benchmark::State& state) {
   const auto entries = static_cast<std::uint32_t>(state.range(0));
   double bytesPerKey = 0;
   for (auto _ : state) {
      state.PauseTiming();
      std::size_t before = heapInUse();
      auto alloc = makeAllocator<Alloc>(entries);
      state.ResumeTiming();
      for (std::uint64_t id = 1; id < entries; ++id) {
         BenchKey key{id};
         benchmark::DoNotOptimize(alloc->newIndexForKey(keyType(), &key));
      }
      state.PauseTiming();
      bytesPerKey = static_cast<double>(heapInUse() - before) / (entries - 1);
      alloc.reset();
      state.ResumeTiming();
   }
   state.SetItemsProcessed(state.iterations() * (entries - 1));
   state.counters["bytes/key"] = bytesPerKey;
}

// Release a random half of a full allocator.
template <typename Alloc>
void BM_ReleaseRandomHalf(benchmark::State& state) {
   const auto entries = static_cast<std::uint32_t>(state.range(0));
   const std::vector<std::uint64_t> half = randomHalf(entries);
   for (auto _ : state) {
      state.PauseTiming();
      auto alloc = makeFull<Alloc>(entries);
      state.ResumeTiming();
      releaseAll(*alloc, half);
      state.PauseTiming();
      alloc.reset();
      state.ResumeTiming();
   }
   state.SetItemsProcessed(state.iterations() * half.size());
}

// Allocate again, one index per new key, into the holes a random half left: every pick
// is the lowest free index of a fragmented space.
template <typename Alloc>
void BM_ReallocateFragmented(benchmark::State& state) {
   const auto entries = static_cast<std::uint32_t>(state.range(0));
   const std::vector<std::uint64_t> half = randomHalf(entries);
   for (auto _ : state) {
      state.PauseTiming();
      auto alloc = makeFull<Alloc>(entries);
      releaseAll(*alloc, half);
      state.ResumeTiming();
      for (std::size_t i = 0; i < half.size(); ++i) {
         BenchKey key{entries + i};
         benchmark::DoNotOptimize(alloc->newIndexForKey(keyType(), &key));
      }
      state.PauseTiming();
      alloc.reset();
      state.ResumeTiming();
   }
   state.SetItemsProcessed(state.iterations() * half.size());
}

// Blocks of `range(1)` indices into a fragmented space, until half of its free indices
// are used. Items are blocks.
template <typename Alloc>
void BM_Blocks(benchmark::State& state) {
   const auto entries = static_cast<std::uint32_t>(state.range(0));
   const auto blockSize = static_cast<std::uint32_t>(state.range(1));
   std::size_t blocks = 0;
   for (auto _ : state) {
      state.PauseTiming();
      auto alloc = makeFragmentedRuns<Alloc>(entries, blockSize);
      const std::uint32_t target = alloc->occupancy().free / 2;
      state.ResumeTiming();
      std::uint32_t used = 0;
      for (std::uint64_t id = entries; used < target; ++id) {
         BenchKey key{id};
         if (alloc->newIndicesForKey(keyType(), &key, blockSize).empty()) break;
         used += blockSize;
         ++blocks;
      }
      state.PauseTiming();
      alloc.reset();
      state.ResumeTiming();
   }
   state.SetItemsProcessed(static_cast<std::int64_t>(blocks));
}

// Exposes the kinds' search helpers, to time the free-space search on its own (no key
// records, no hashing).
class SearchProbe : public Asic::AnySizedBlockAllocator {
 public:
   using AnySizedBlockAllocator::AnySizedBlockAllocator;
   using GenericIndexAllocator::firstFreeFrom;
   using GenericIndexAllocator::firstFreeRun;
};

// Lowest free index at or after a random point of a space a random half of which is free.
void BM_SearchFirstFreeFrom(benchmark::State& state) {
   const auto entries = static_cast<std::uint32_t>(state.range(0));
   auto alloc = makeFull<SearchProbe>(entries);
   releaseAll(*alloc, randomHalf(entries));
   std::mt19937 rng(11);
   std::uniform_int_distribution<std::uint32_t> from(0, entries - 1);
   for (auto _ : state) benchmark::DoNotOptimize(alloc->firstFreeFrom(from(rng)));
   state.SetItemsProcessed(state.iterations());
}

// Lowest run of `range(1)` free indices; the space has runs of every length up to about
// 4 * range(1), scattered.
void BM_SearchRun(benchmark::State& state) {
   const auto entries = static_cast<std::uint32_t>(state.range(0));
   const auto run = static_cast<std::uint32_t>(state.range(1));
   auto alloc = makeFragmentedRuns<SearchProbe>(entries, run);
   for (auto _ : state) benchmark::DoNotOptimize(alloc->firstFreeRun(run));
   state.SetItemsProcessed(state.iterations());
}

// Look-ups both ways on a full allocator.
void BM_Lookups(benchmark::State& state) {
   const auto entries = static_cast<std::uint32_t>(state.range(0));
   auto alloc = makeFull<Asic::FirstFreeIndexAllocator>(entries);
   std::mt19937 rng(7);
   std::uniform_int_distribution<std::uint32_t> pick(1, entries - 1);
   for (auto _ : state) {
      BenchKey key{pick(rng)};
      auto index = alloc->indexForKey(keyType(), &key);
      benchmark::DoNotOptimize(alloc->isIndexAssigned(*index, keyType()));
   }
   state.SetItemsProcessed(state.iterations());
}

void sizes(benchmark::internal::Benchmark* b) {
   for (std::int64_t n : {4096, 65536, 1 << 20}) b->Arg(n);
   b->Unit(benchmark::kMillisecond);
}

void sizesAndBlocks(benchmark::internal::Benchmark* b) {
   for (std::int64_t n : {4096, 65536, 1 << 20}) {
      for (std::int64_t block : {4, 16}) b->Args({n, block});
   }
   b->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_AllocateAll<Asic::FirstFreeIndexAllocator>)->Apply(sizes);
BENCHMARK(BM_ReleaseRandomHalf<Asic::FirstFreeIndexAllocator>)->Apply(sizes);
BENCHMARK(BM_ReallocateFragmented<Asic::FirstFreeIndexAllocator>)->Apply(sizes);
BENCHMARK(BM_Blocks<Asic::DiscontBlockAllocator>)->Apply(sizesAndBlocks);
BENCHMARK(BM_Blocks<Asic::AnySizedBlockAllocator>)->Apply(sizesAndBlocks);
BENCHMARK(BM_Lookups)->Arg(4096)->Arg(65536)->Arg(1 << 20);
BENCHMARK(BM_SearchFirstFreeFrom)->Arg(4096)->Arg(65536)->Arg(1 << 20);
BENCHMARK(BM_SearchRun)
    ->Args({4096, 16})
    ->Args({65536, 16})
    ->Args({1 << 20, 16})
    ->Args({1 << 20, 1024});

}  // namespace

BENCHMARK_MAIN();
