// Bytes as the contents of one chip memory, as a crash, a failed write or a corrupted chip
// directory can leave it: every reader of that memory must cope. Each format's decode
// refuses (std::invalid_argument) or gives an entry that encodes back to the same words; the
// chain walks refuse (std::runtime_error) or give a chain that follows the links; and a
// table synced from the memory, after a replay of nothing, purges every stale entry it
// synced, writes nothing, and lets go of every index it held.
//
// Input, front to back:
//   byte 0     the memory: 0 MMU_REPL_LIST, 1 MMU_REPL_LIST_L2_SUBPORT, 2 MMU_REPL_HEAD_TBL,
//              3 ING_IPMC_REMAP, 4 MMU_RQE_REPL_PORT_AGG_MAP, 5 L3_IPMC, 6 MMU_REPL_GROUP,
//              7 EGR_NEXT_HOP (modulo 8)
//   byte 1     entries: 1 + byte % 32 (small memories: chains reach the table's end often)
//   per entry  a byte whose bit 0 marks the entry valid, then its words, little-endian
// Bytes past the end read as zero.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Asic/EventLoop.h"
#include "Asic/IndexAllocator.h"
#include "ChipSim/Chip.h"
#include "ChipSim/Memory.h"
#include "ChipSim/NeighbourFormats.h"
#include "ChipSim/ReplListFormat.h"
#include "ChipSim/SimHwTable.h"
#include "ChipSim/plugins/SimTableRig.h"
#include "FuzzSupport.h"

namespace {

using Words = std::vector<std::uint32_t>;
using Image = std::vector<std::optional<Words>>;  // by index; nullopt: not valid

constexpr std::uint32_t kMaxEntries = 32;

Image imageFrom(Fuzz::Bytes& in, std::uint32_t entries, std::uint32_t width) {
   Image image(entries);
   for (auto& entry : image) {
      const bool valid = in.byte() & 1u;
      Words words(width);
      for (auto& w : words) w = in.word();
      if (valid) entry = std::move(words);
   }
   return image;
}

// A chip whose one memory holds the image.
struct ImageChip {
   explicit ImageChip(const Image& image)
       : chip(loop, 0, [&image](const std::string& name, std::uint32_t n, std::uint32_t width) {
            auto memory = Asic::makePtr<ChipSim::HeapMemory>(name, n, width);
            for (std::uint32_t i = 0; i < n && i < image.size(); ++i) {
               if (image[i]) memory->write(i, *image[i]);
            }
            return memory;
         }) {}
   Asic::EventLoop loop;
   ChipSim::Chip chip;
};

std::string hex(std::span<const std::uint32_t> words) {
   return fmt::format("{:08x}", fmt::join(words, " "));
}

// decode refuses, or encodes back to the very words (every bit it accepts is a field's).
template <typename Format>
std::optional<typename Format::HwEntry> decodeRoundTrip(std::span<const std::uint32_t> words) {
   typename Format::HwEntry entry;
   try {
      entry = Format::decode(words);
   } catch (const std::invalid_argument&) {
      return std::nullopt;
   }
   const auto again = Format::encode(entry);
   FUZZ_CHECK(std::equal(again.begin(), again.end(), words.begin(), words.end()),
              "{}: [{}] decodes, encodes as [{}]", std::string_view(Format::kMemory), hex(words),
              hex(again));
   return entry;
}

template <typename Format>
void checkFormat(const Image& image) {
   for (const auto& words : image) {
      if (words) (void)decodeRoundTrip<Format>(*words);
   }
}

// The chain walks over a memory of a chained format.
template <typename Format>
void checkChains(const Image& image) {
   ImageChip c(image);
   const std::uint32_t n = std::uint32_t(image.size());
   auto hw = c.chip.tableIs(Format::kMemory, n, Format::kEntryWords);
   auto decoded = [&](Asic::Index i) -> std::optional<typename Format::HwEntry> {
      if (i >= n || !image[i]) return std::nullopt;
      try {
         return Format::decode(*image[i]);
      } catch (const std::invalid_argument&) {
         return std::nullopt;
      }
   };

   // A head is a decodable entry no other decodable entry links to.
   const std::vector<Asic::Index> heads = ChipSim::chainHeads<Format>(*hw);
   std::set<Asic::Index> named;
   for (Asic::Index i = 0; i < n; ++i) {
      const auto e = decoded(i);
      if (e && !e->last && e->next != i) named.insert(e->next);
   }
   std::vector<Asic::Index> expected;
   for (Asic::Index i = 0; i < n; ++i) {
      if (decoded(i) && !named.contains(i)) expected.push_back(i);
   }
   FUZZ_CHECK(heads == expected, "{}: heads [{}], expected [{}]", std::string_view(Format::kMemory),
              fmt::join(heads, " "), fmt::join(expected, " "));

   for (Asic::Index first = 0; first <= n; ++first) {
      std::vector<Asic::Index> chain;
      try {
         chain = ChipSim::chainAt<Format>(*hw, first);
      } catch (const std::runtime_error&) {
         continue;
      }
      FUZZ_CHECK(!chain.empty() && chain.front() == first, "chain from {} starts at {}", first,
                 chain.empty() ? Asic::invalidIndex : chain.front());
      std::set<Asic::Index> seen;
      for (std::size_t k = 0; k < chain.size(); ++k) {
         const auto e = decoded(chain[k]);
         FUZZ_CHECK(e.has_value(), "chain from {} holds index {}, no entry", first, chain[k]);
         FUZZ_CHECK(seen.insert(chain[k]).second, "chain from {} visits {} twice", first, chain[k]);
         const bool final = k + 1 == chain.size();
         FUZZ_CHECK(e->last == final, "chain from {}: index {} last={} at position {} of {}", first,
                    chain[k], e->last, k, chain.size());
         if (!final) {
            FUZZ_CHECK(e->next == chain[k + 1], "chain from {}: {} links {}, walk went to {}",
                       first, chain[k], e->next, chain[k + 1]);
         }
      }
   }

   for (Asic::Index i = 0; i < n; ++i) {
      Asic::Index next = Asic::invalidIndex;
      try {
         next = ChipSim::nextIndex<Format>(*hw, i);
      } catch (const std::runtime_error&) {
         FUZZ_CHECK(image[i] && !decoded(i), "nextIndex refused index {}, a readable one", i);
         continue;
      }
      const auto e = decoded(i);
      FUZZ_CHECK(!image[i] || e, "nextIndex followed index {}, an unreadable one", i);
      const Asic::Index want = !e || e->last ? Asic::invalidIndex : e->next;
      FUZZ_CHECK(next == want, "nextIndex({}) = {}, expected {}", i, next, want);
   }
   try {
      (void)ChipSim::nextIndex<Format>(*hw, n);
      Fuzz::fail(fmt::format("nextIndex past the table ({}) answered", n));
   } catch (const std::out_of_range&) {
   }
}

// What a table must leave of the memory after its purge, given what was there.
using Oracle = void (*)(const Image& before, const ChipSim::Memory& after);

// A table synced from the image, no key replayed, then init complete and the purge: the
// restart of an agent whose configuration no longer has anything the chip holds.
template <typename Table>
void checkSyncAndPurge(const Image& image, Oracle oracle) {
   ImageChip c(image);
   const std::uint32_t n = std::uint32_t(image.size());
   auto sim = ChipSim::simTableIs<Table>(c.chip, n);
   const ChipSim::Memory& memory = sim.hw->memory();
   Asic::GenericIndexAllocator* alloc = sim.table->indexAllocator();
   const std::uint32_t usedBefore = alloc ? alloc->totalUsedIndices() : 0;

   sim.table->configReplayCompleteIs(false);
   sim.table->syncEntries();
   std::set<Asic::Index> stale;
   for (const auto& [index, entry] : sim.table->syncedEntries()) {
      FUZZ_CHECK(index < n && image[index], "{} synced index {}, which held no entry",
                 Table::kTypeName, index);
      stale.insert(index);
      if (const auto* held = sim.table->syncedIndices(index))
         stale.insert(held->begin(), held->end());
   }
   sim.table->doInitComplete();
   sim.table->purgeStaleEntries();
   c.loop.runUntilIdle();

   FUZZ_CHECK(sim.table->syncedEntries().empty(), "{} keeps synced entries after the purge",
              Table::kTypeName);
   FUZZ_CHECK(sim.hw->counters().writes == 0, "{} wrote {} entries with nothing replayed",
              Table::kTypeName, sim.hw->counters().writes);
   Words words(memory.entryWords());
   for (Asic::Index i = 0; i < n; ++i) {
      const bool valid = memory.read(i, words);
      FUZZ_CHECK(!valid || (image[i] && *image[i] == words),
                 "{}: index {} holds [{}] after the purge, not what the chip held",
                 Table::kTypeName, i, hex(words));
      FUZZ_CHECK(!valid || !stale.contains(i), "{}: stale index {} survives the purge",
                 Table::kTypeName, i);
   }
   if (alloc) {
      FUZZ_CHECK(alloc->totalUsedIndices() == usedBefore,
                 "{}: {} indices used after the purge, {} before the sync", Table::kTypeName,
                 alloc->totalUsedIndices(), usedBefore);
      for (Asic::Index i = 0; i < n; ++i) {
         FUZZ_CHECK(!alloc->isIndexHeld(i), "{}: index {} still held after the purge",
                    Table::kTypeName, i);
      }
   }
   oracle(image, memory);

   sim.table->cleanup();
   sim.table.reset();
   if constexpr (requires { typename Table::SharedAllocator; }) {
      FUZZ_CHECK(
          !Asic::GenericIndexAllocatorStub::sharedAllocator(Table::SharedAllocator::kTypeName),
          "{}: the shared allocator outlives its only table", Table::kTypeName);
   }
}

// Every valid entry is synced, as a value or as a stale record: nothing is left.
void leavesNothing(const Image&, const ChipSim::Memory& after) {
   FUZZ_CHECK(after.validEntries() == 0, "{} holds {} entries after the purge", after.name(),
              after.validEntries());
}

// Only words no entry could have are passed over, for a later write to overwrite.
void leavesOnlyUndecodable(const Image&, const ChipSim::Memory& after) {
   after.forEachValid([&after](Asic::Index i, ChipSim::Memory::Words words) {
      bool decodes = true;
      try {
         (void)ChipSim::L2SubPortFormat::decode(words);
      } catch (const std::invalid_argument&) {
         decodes = false;
      }
      FUZZ_CHECK(!decodes, "{}: entry {} [{}] decodes but survives the purge", after.name(), i,
                 hex(words));
   });
}

// Every list goes that a head starts, along its links as far as they read: a whole list,
// or the readable part of one a crash cut short. What no head reaches (a loop without one,
// words no entry could have) may stay. Index 0 is reserved in every table, so no list of
// the table lies there: a chain stops before it, and a head at 0 holds no index, so only
// its own entry goes (what it links to is a head at the next restart).
void leavesNoList(const Image& before, const ChipSim::Memory& after) {
   constexpr Asic::Index kReserved = 0;
   const Asic::Index n = Asic::Index(before.size());
   std::vector<std::optional<ChipSim::ReplListFormat::HwEntry>> entries(n);
   std::set<Asic::Index> named;
   for (Asic::Index i = 0; i < n; ++i) {
      if (!before[i]) continue;
      try {
         entries[i] = ChipSim::ReplListFormat::decode(*before[i]);
         if (!entries[i]->last && entries[i]->next != i) named.insert(entries[i]->next);
      } catch (const std::invalid_argument&) {
      }
   }
   std::vector<bool> reached(n, false);
   for (Asic::Index head = 0; head < n; ++head) {
      if (!entries[head] || named.contains(head)) continue;
      for (Asic::Index i = head; i < n && entries[i] && !reached[i]; i = entries[i]->next) {
         reached[i] = true;
         if (i == kReserved || entries[i]->last || entries[i]->next == kReserved) break;
      }
   }
   Words words(after.entryWords());
   for (Asic::Index i = 0; i < n; ++i) {
      FUZZ_CHECK(!reached[i] || !after.read(i, words),
                 "{}: index {}, on a list a head starts, survives the purge", after.name(), i);
   }
}

void checkList(const Image& image) {
   checkFormat<ChipSim::ReplListFormat>(image);
   checkChains<ChipSim::ReplListFormat>(image);
   // One readable hardware entry is one entry of the table's list, and converts back to
   // the same kind with the same contents (sparse pairs as a set: the list keeps them sorted).
   using Util = ChipSim::MmuReplListTableSimUtil;
   using Kind = ChipSim::ReplListFormat::HwEntry::Kind;
   for (const auto& words : image) {
      if (!words) continue;
      const auto e = decodeRoundTrip<ChipSim::ReplListFormat>(*words);
      if (!e) continue;
      const auto back = Util::hwEntries(Util::entryFromHw({*e}));
      FUZZ_CHECK(back.size() == 1 && back[0].kind == e->kind, "[{}] converts back as {} entries",
                 hex(*words), back.size());
      if (e->kind == Kind::dense) {
         FUZZ_CHECK(back[0].lsbVlan == e->lsbVlan && back[0].members == e->members &&
                        back[0].numBits == e->numBits,
                    "dense [{}] converts back with other contents", hex(*words));
      } else {
         const std::set<std::pair<std::uint32_t, std::uint16_t>> pairs(e->pairs.begin(),
                                                                       e->pairs.end());
         const std::set<std::pair<std::uint32_t, std::uint16_t>> again(back[0].pairs.begin(),
                                                                       back[0].pairs.end());
         FUZZ_CHECK(again == pairs, "sparse [{}] converts back with other pairs", hex(*words));
      }
   }
   checkSyncAndPurge<VelmarMcast::MmuReplListTable>(image, leavesNoList);
}

void checkL2SubPort(const Image& image) {
   checkFormat<ChipSim::L2SubPortFormat>(image);
   checkChains<ChipSim::L2SubPortFormat>(image);
   for (const auto& words : image) {
      if (!words) continue;
      if (auto e = decodeRoundTrip<ChipSim::L2SubPortFormat>(*words)) {
         using Util = ChipSim::MmuReplListL2SubPortTableSimUtil;
         const auto back = Util::hwEntry(Util::entryFromHw(*e));
         FUZZ_CHECK(back.mode == e->mode && back.bitmapWords == e->bitmapWords,
                    "[{}] does not convert back to its own mode and sub-ports", hex(*words));
      }
   }
   checkSyncAndPurge<VelmarMcast::MmuReplListL2SubPortTable>(image, leavesOnlyUndecodable);
}

void checkHead(const Image& image) {
   using Util = ChipSim::MmuReplHeadTableSimUtil;
   for (const auto& words : image) {
      if (!words) continue;
      try {
         const auto entry = Util::decode(*words);
         const auto again = Util::encode(entry);
         FUZZ_CHECK(std::equal(again.begin(), again.end(), words->begin(), words->end()),
                    "{}: [{}] decodes, encodes as [{}]", Util::kMemory, hex(*words), hex(again));
      } catch (const std::invalid_argument&) {
      }
   }
   checkSyncAndPurge<VelmarMcast::MmuReplHeadTable>(image, leavesNothing);
}

void checkRemap(const Image& image) {
   using Util = ChipSim::IngIpmcRemapTableSimUtil;
   for (const auto& words : image) {
      if (!words) continue;
      const auto entry = Util::decode(*words);
      const auto again = Util::decode(Util::encode(entry));
      FUZZ_CHECK(again.remappedIpmcIndex == entry.remappedIpmcIndex &&
                     again.strengthProfile == entry.strengthProfile,
                 "ING_IPMC_REMAP: [{}] does not read back from its own encoding", hex(*words));
   }
   checkSyncAndPurge<VelmarMcast::IngIpmcRemapTable>(image, leavesNothing);
}

void checkPortAgg(const Image& image) {
   using Util = ChipSim::MmuRqeReplPortAggMapRegisterSimUtil;
   for (const auto& words : image) {
      if (!words) continue;
      const auto entry = Util::decode(*words);
      const auto again = Util::encode(entry);
      FUZZ_CHECK(std::equal(again.begin(), again.end(), words->begin(), words->end()),
                 "{}: [{}] decodes, encodes as [{}]", Util::kMemory, hex(*words), hex(again));
   }
   checkSyncAndPurge<VelmarMcast::MmuRqeReplPortAggMapRegister>(image, leavesNothing);
}

std::uint32_t widthOf(std::uint8_t memory) {
   switch (memory) {
      case 0:
         return ChipSim::ReplListFormat::kEntryWords;
      case 1:
         return ChipSim::L2SubPortFormat::kEntryWords;
      case 2:
         return ChipSim::MmuReplHeadTableSimUtil::kEntryWords;
      case 3:
         return ChipSim::IngIpmcRemapTableSimUtil::kEntryWords;
      case 4:
         return ChipSim::MmuRqeReplPortAggMapRegisterSimUtil::kEntryWords;
      case 5:
         return ChipSim::IpmcLookupFormat::kEntryWords;
      case 6:
         return ChipSim::ReplGroupFormat::kEntryWords;
      default:
         return ChipSim::NextHopFormat::kEntryWords;
   }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
   Fuzz::Bytes in(data, size);
   const std::uint8_t memory = in.byte() % 8;
   const std::uint32_t entries = 1 + in.byte() % kMaxEntries;
   const Image image = imageFrom(in, entries, widthOf(memory));
   switch (memory) {
      case 0:
         checkList(image);
         break;
      case 1:
         checkL2SubPort(image);
         break;
      case 2:
         checkHead(image);
         break;
      case 3:
         checkRemap(image);
         break;
      case 4:
         checkPortAgg(image);
         break;
      case 5:
         checkFormat<ChipSim::IpmcLookupFormat>(image);
         break;
      case 6:
         checkFormat<ChipSim::ReplGroupFormat>(image);
         break;
      default:
         checkFormat<ChipSim::NextHopFormat>(image);
         break;
   }
   return 0;
}
