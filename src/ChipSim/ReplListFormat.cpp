#include "ChipSim/ReplListFormat.h"

#include <algorithm>
#include <bit>
#include <optional>
#include <stdexcept>
#include <string>

#include <fmt/format.h>

namespace ChipSim {
namespace {

// One field of an entry: `width` bits of word `word`, from bit `lsb` up.
struct Field {
   std::uint32_t word;
   std::uint32_t lsb;
   std::uint32_t width;

   constexpr std::uint32_t mask() const { return width >= 32 ? ~0u : (1u << width) - 1; }
   constexpr std::uint32_t max() const { return mask(); }
   std::uint32_t get(std::span<const std::uint32_t> words) const {
      return (words[word] >> lsb) & mask();
   }
   // The caller has checked that the value fits.
   void put(std::span<std::uint32_t> words, std::uint32_t value) const {
      words[word] |= (value & mask()) << lsb;
   }
   void use(std::span<std::uint32_t> usedBits) const { usedBits[word] |= mask() << lsb; }
};

// Throws std::invalid_argument naming the memory, the field and the value.
void checkFits(std::string_view memory, std::string_view field, std::uint64_t value,
               std::uint64_t max) {
   if (value > max) {
      throw std::invalid_argument(
          fmt::format("{}: {} {} does not fit its field (0..{})", memory, field, value, max));
   }
}

void checkWordCount(std::string_view memory, std::span<const std::uint32_t> words,
                    std::uint32_t expected) {
   if (words.size() != expected) {
      throw std::invalid_argument(
          fmt::format("{}: entry of {} words, expected {}", memory, words.size(), expected));
   }
}

// Bits outside every field are never written, so a set one means the words are not an
// entry of this format (or not of this kind). `kind` names the kind whose fields these are
// ("" for any entry); the text is composed only for the error: every read of the chip
// decodes.
template <std::size_t N>
void checkUnusedClear(std::string_view memory, std::string_view kind,
                      std::span<const std::uint32_t> words,
                      const std::array<std::uint32_t, N>& usedBits) {
   for (std::size_t i = 0; i < N; ++i) {
      if (std::uint32_t stray = words[i] & ~usedBits[i]; stray != 0) {
         throw std::invalid_argument(
             fmt::format("{}: word {} has bits {:#010x} set outside the fields of {}", memory, i,
                         stray, kind.empty() ? "an entry" : fmt::format("a {} entry", kind)));
      }
   }
}

namespace ReplList {
using Format = ReplListFormat;
using Kind = Format::HwEntry::Kind;
constexpr std::string_view kMemory = Format::kMemory;

constexpr Field kKind{0, 0, 2};
constexpr Field kLast{0, 2, 1};
constexpr Field kPairCount{0, 3, 4};
constexpr Field kNumBits{0, 7, 7};
constexpr Field kNext{1, 0, 32};
constexpr std::uint32_t kFirstNextHopWord = 2;
constexpr std::uint32_t kFirstPortWord = kFirstNextHopWord + Format::kMaxSparsePairs;
constexpr Field kLsbVlan{2, 0, 26};
constexpr Field kMembersLow{3, 0, 32};
constexpr Field kMembersHigh{4, 0, 32};

static_assert(kFirstPortWord + Format::kMaxSparsePairs / 2 == Format::kEntryWords);
static_assert(kLsbVlan.max() == Format::kMaxLsbVlan);
static_assert(kPairCount.max() >= Format::kMaxSparsePairs && kNumBits.max() >= Format::kMaxNumBits);

constexpr Field nextHop(std::uint32_t pair) { return {kFirstNextHopWord + pair, 0, 32}; }
constexpr Field port(std::uint32_t pair) {
   return {kFirstPortWord + pair / 2, 16 * (pair % 2), 16};
}

std::string_view kindName(Kind kind) { return kind == Kind::sparse ? "sparse" : "dense"; }

void checkKind(std::uint32_t kind) {
   if (kind != std::uint32_t(Kind::sparse) && kind != std::uint32_t(Kind::dense)) {
      throw std::invalid_argument(
          fmt::format("{}: kind {} is not an entry kind (1 sparse, 2 dense)", kMemory, kind));
   }
}

// The bits an entry of this kind and pair count may set.
Format::Words usedBits(Kind kind, std::uint32_t pairCount) {
   Format::Words used{};
   for (const Field& f : {kKind, kLast, kNext}) f.use(used);
   if (kind == Kind::sparse) {
      kPairCount.use(used);
      for (std::uint32_t i = 0; i < pairCount; ++i) {
         nextHop(i).use(used);
         port(i).use(used);
      }
   } else {
      for (const Field& f : {kNumBits, kLsbVlan, kMembersLow, kMembersHigh}) f.use(used);
   }
   return used;
}

// A field of the other kind has nowhere to go.
void checkNoField(std::string_view kind, std::string_view field, std::uint64_t value) {
   if (value != 0) {
      throw std::invalid_argument(
          fmt::format("{}: {} {} has no field in a {} entry", kMemory, field, value, kind));
   }
}
}  // namespace ReplList

namespace L2SubPort {
using Format = L2SubPortFormat;

constexpr Field kMode{0, 0, 2};
constexpr Field kLast{0, 2, 1};
constexpr Field kNext{1, 0, 32};
constexpr Field bitmapWord(std::uint32_t i) { return {2 + i, 0, 32}; }

static_assert(kMode.max() == Format::kMaxMode);
static_assert(2 + Format::kBitmapWords == Format::kEntryWords);
}  // namespace L2SubPort

// --- chains ---------------------------------------------------------------------------------

template <ChainedFormat F>
void checkEntryWidth(const Asic::HwTable& hw) {
   if (hw.entryWords() != F::kEntryWords) {
      throw std::invalid_argument(
          fmt::format("{}: hardware table {} has entries of {} words, the format has {}",
                      std::string_view(F::kMemory), hw.name(), hw.entryWords(), F::kEntryWords));
   }
}

template <ChainedFormat F>
typename F::HwEntry decodeAt(Asic::Index index, std::span<const std::uint32_t> words) {
   try {
      return F::decode(words);
   } catch (const std::invalid_argument& e) {
      throw std::runtime_error(fmt::format("{}, at index {}", e.what(), index));
   }
}

// Null when the entry is not valid.
template <ChainedFormat F>
std::optional<typename F::HwEntry> readAt(const Asic::HwTable& hw, Asic::Index index) {
   std::array<std::uint32_t, F::kEntryWords> words{};
   if (!hw.entryRead(index, words)) return std::nullopt;
   return decodeAt<F>(index, words);
}

// The first index the walk reaches twice; called only once the walk is known to loop.
Asic::Index loopPoint(const std::vector<Asic::Index>& walked, Asic::Index at,
                      std::uint32_t numEntries) {
   std::vector<bool> seen(numEntries, false);
   for (Asic::Index i : walked) {
      if (seen[i]) return i;
      seen[i] = true;
   }
   return at;
}

}  // namespace

// --- MMU_REPL_LIST --------------------------------------------------------------------------

ReplListFormat::Words ReplListFormat::encode(const HwEntry& entry) {
   using namespace ReplList;
   checkKind(std::uint32_t(entry.kind));
   Words words{};
   kKind.put(words, std::uint32_t(entry.kind));
   kLast.put(words, entry.last ? 1 : 0);
   kNext.put(words, entry.next);
   if (entry.kind == Kind::sparse) {
      checkFits(kMemory, "pair count", entry.pairs.size(), kMaxSparsePairs);
      checkNoField("sparse", "lsbVlan", entry.lsbVlan);
      checkNoField("sparse", "members", entry.members);
      checkNoField("sparse", "numBits", entry.numBits);
      kPairCount.put(words, std::uint32_t(entry.pairs.size()));
      for (std::uint32_t i = 0; i < entry.pairs.size(); ++i) {
         nextHop(i).put(words, entry.pairs[i].first);
         port(i).put(words, entry.pairs[i].second);
      }
   } else {
      checkNoField("dense", "pairs", entry.pairs.size());
      checkFits(kMemory, "lsbVlan", entry.lsbVlan, kMaxLsbVlan);
      checkFits(kMemory, "numBits", entry.numBits, kMaxNumBits);
      kLsbVlan.put(words, entry.lsbVlan);
      kMembersLow.put(words, std::uint32_t(entry.members));
      kMembersHigh.put(words, std::uint32_t(entry.members >> 32));
      kNumBits.put(words, entry.numBits);
   }
   return words;
}

ReplListFormat::HwEntry ReplListFormat::decode(std::span<const std::uint32_t> words) {
   using namespace ReplList;
   checkWordCount(kMemory, words, kEntryWords);
   const std::uint32_t kind = kKind.get(words);
   checkKind(kind);
   HwEntry entry;
   entry.kind = Kind(kind);
   entry.last = kLast.get(words) != 0;
   entry.next = kNext.get(words);
   std::uint32_t pairCount = 0;
   if (entry.kind == Kind::sparse) {
      pairCount = kPairCount.get(words);
      checkFits(kMemory, "pair count", pairCount, kMaxSparsePairs);
   } else {
      checkFits(kMemory, "numBits", kNumBits.get(words), kMaxNumBits);
   }
   checkUnusedClear(kMemory, kindName(entry.kind), words, usedBits(entry.kind, pairCount));
   if (entry.kind == Kind::sparse) {
      entry.pairs.reserve(pairCount);
      for (std::uint32_t i = 0; i < pairCount; ++i) {
         entry.pairs.emplace_back(nextHop(i).get(words), std::uint16_t(port(i).get(words)));
      }
   } else {
      entry.lsbVlan = kLsbVlan.get(words);
      entry.members = std::uint64_t(kMembersHigh.get(words)) << 32 | kMembersLow.get(words);
      entry.numBits = std::uint8_t(kNumBits.get(words));
   }
   return entry;
}

// --- MMU_REPL_LIST_L2_SUBPORT ---------------------------------------------------------------

L2SubPortFormat::Words L2SubPortFormat::encode(const HwEntry& entry) {
   using namespace L2SubPort;
   checkFits(kMemory, "mode", entry.mode, kMaxMode);
   for (std::size_t i = kBitmapWords; i < entry.bitmapWords.size(); ++i) {
      if (const std::uint32_t w = entry.bitmapWords[i]; w != 0) {
         throw std::invalid_argument(
             fmt::format("{}: bitmapWords has sub-port {} set, the field holds sub-ports 0..{}",
                         kMemory, i * 32 + std::countr_zero(w), kBitmapWords * 32 - 1));
      }
   }
   Words words{};
   kMode.put(words, entry.mode);
   kLast.put(words, entry.last ? 1 : 0);
   kNext.put(words, entry.next);
   const std::size_t n = std::min<std::size_t>(entry.bitmapWords.size(), kBitmapWords);
   for (std::uint32_t i = 0; i < n; ++i) bitmapWord(i).put(words, entry.bitmapWords[i]);
   return words;
}

L2SubPortFormat::HwEntry L2SubPortFormat::decode(std::span<const std::uint32_t> words) {
   using namespace L2SubPort;
   checkWordCount(kMemory, words, kEntryWords);
   Words used{};
   for (const Field& f : {kMode, kLast, kNext}) f.use(used);
   for (std::uint32_t i = 0; i < kBitmapWords; ++i) bitmapWord(i).use(used);
   checkUnusedClear(kMemory, "", words, used);
   HwEntry entry;
   entry.mode = kMode.get(words);
   entry.last = kLast.get(words) != 0;
   entry.next = kNext.get(words);
   entry.bitmapWords.resize(kBitmapWords);
   for (std::uint32_t i = 0; i < kBitmapWords; ++i) entry.bitmapWords[i] = bitmapWord(i).get(words);
   return entry;
}

// --- chains ---------------------------------------------------------------------------------

template <ChainedFormat F>
std::vector<Asic::Index> chainAt(const Asic::HwTable& hw, Asic::Index first) {
   checkEntryWidth<F>(hw);
   std::vector<Asic::Index> chain;
   Asic::Index at = first;
   for (;;) {
      if (at >= hw.numEntries()) {
         throw std::runtime_error(
             fmt::format("{}: chain from {} reaches index {}, past the table (entries: {})",
                         hw.name(), first, at, hw.numEntries()));
      }
      // A list cannot hold more entries than the table: one more means it came round.
      if (chain.size() == hw.numEntries()) {
         throw std::runtime_error(fmt::format("{}: chain from {} loops back to index {}", hw.name(),
                                              first, loopPoint(chain, at, hw.numEntries())));
      }
      const auto entry = readAt<F>(hw, at);
      if (!entry) {
         throw std::runtime_error(
             fmt::format("{}: chain from {} reaches index {}, which holds no valid entry",
                         hw.name(), first, at));
      }
      chain.push_back(at);
      if (entry->last) return chain;
      at = entry->next;
   }
}

template <ChainedFormat F>
std::vector<Asic::Index> chainHeads(const Asic::HwTable& hw) {
   checkEntryWidth<F>(hw);
   std::vector<Asic::Index> valid;
   std::vector<Asic::Index> named;
   hw.forEachValidEntry([&](Asic::Index index, Asic::HwTable::Words words) {
      typename F::HwEntry entry;
      try {
         entry = F::decode(words);
      } catch (const std::invalid_argument&) {
         return;  // words no entry could have: neither a head nor a link
      }
      valid.push_back(index);
      if (!entry.last && entry.next != index) named.push_back(entry.next);
   });
   std::ranges::sort(valid);
   std::ranges::sort(named);
   std::erase_if(valid, [&named](Asic::Index i) { return std::ranges::binary_search(named, i); });
   return valid;
}

template <ChainedFormat F>
Asic::Index nextIndex(const Asic::HwTable& hw, Asic::Index index) {
   checkEntryWidth<F>(hw);
   const auto entry = readAt<F>(hw, index);
   return !entry || entry->last ? Asic::invalidIndex : entry->next;
}

template <ChainedFormat F>
void chainLink(std::span<typename F::HwEntry> entries, std::span<const Asic::Index> indices) {
   if (entries.empty() || entries.size() != indices.size()) {
      throw std::invalid_argument(fmt::format("{}: cannot link {} entries at {} indices",
                                              std::string_view(F::kMemory), entries.size(),
                                              indices.size()));
   }
   for (std::size_t i = 0; i + 1 < entries.size(); ++i) {
      entries[i].next = indices[i + 1];
      entries[i].last = false;
   }
   // The last entry's next is not followed; a fixed value keeps its words the same each time.
   entries.back().next = 0;
   entries.back().last = true;
}

template std::vector<Asic::Index> chainAt<ReplListFormat>(const Asic::HwTable&, Asic::Index);
template std::vector<Asic::Index> chainHeads<ReplListFormat>(const Asic::HwTable&);
template Asic::Index nextIndex<ReplListFormat>(const Asic::HwTable&, Asic::Index);
template void chainLink<ReplListFormat>(std::span<ReplListFormat::HwEntry>,
                                        std::span<const Asic::Index>);
template std::vector<Asic::Index> chainAt<L2SubPortFormat>(const Asic::HwTable&, Asic::Index);
template std::vector<Asic::Index> chainHeads<L2SubPortFormat>(const Asic::HwTable&);
template Asic::Index nextIndex<L2SubPortFormat>(const Asic::HwTable&, Asic::Index);
template void chainLink<L2SubPortFormat>(std::span<L2SubPortFormat::HwEntry>,
                                         std::span<const Asic::Index>);

}  // namespace ChipSim
