#pragma once
// Hardware formats of the simulated chip's MMU replication list memories, and the walk over
// the lists they hold.
//
// A replication list takes several entries that need not be adjacent. Its entries are
// chained: each names the index of the next entry of its list, and the final one carries
// the "last" flag, so a reader that knows only the first index finds the whole list. This
// is also how the lists are found again after a restart: a chain head is an entry that no
// other entry names.
//
// MMU_REPL_LIST, 14 words per entry (bits not listed are zero):
//   word 0  [1:0]   kind: 1 sparse, 2 dense (0 and 3 are not entries)
//           [2]     last
//           [6:3]   pairCount, sparse: (next hop, port) pairs held, 0..8
//           [13:7]  numBits, dense: next hops in the entry, 0..64
//   word 1  [31:0]  next: index of the list's next entry (kept, but not followed, when last)
//   sparse: words 2..9    [31:0]  next hop of pair 0..7
//           words 10..13  [15:0]  port of pair 2 * (word - 10), [31:16] port of the pair after
//   dense:  word 2  [25:0]  lsbVlan: the bucket (next hop >> 6)
//           word 3  [31:0]  members, next hops 0..31 of the bucket
//           word 4  [31:0]  members, next hops 32..63 of the bucket
//
// MMU_REPL_LIST_L2_SUBPORT, 4 words per entry (bits not listed are zero):
//   word 0  [1:0]   mode
//           [2]     last
//   word 1  [31:0]  next (as above)
//   word 2  [31:0]  sub-ports 0..31
//   word 3  [31:0]  sub-ports 32..63
// The sub-port field is as wide as a default Ulm::PerUnitBitmap, so a bitmap of that size
// reads back from the chip equal to what was written.
//
// encode() refuses (std::invalid_argument naming the field and the value) anything that
// does not fit, never cutting a value; decode() refuses words that no encode() could have
// written. Neither knows the software tables: their Util plug-ins convert.

#include <array>
#include <concepts>
#include <cstdint>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "Asic/HwTable.h"
#include "Asic/Types.h"

namespace ChipSim {

struct ReplListFormat {
   static constexpr char kMemory[] = "MMU_REPL_LIST";
   static constexpr std::uint32_t kEntryWords = 14;
   static constexpr std::uint32_t kMaxSparsePairs = 8;
   static constexpr std::uint32_t kMaxNumBits = 64;
   static constexpr std::uint32_t kMaxLsbVlan = (1u << 26) - 1;

   struct HwEntry {
      enum class Kind : std::uint8_t { sparse = 1, dense = 2 };
      Kind kind = Kind::sparse;
      // sparse: (next hop, port), in the order they are written
      std::vector<std::pair<std::uint32_t, std::uint16_t>> pairs{};
      std::uint32_t lsbVlan = 0;  // dense: the bucket
      std::uint64_t members = 0;  // dense: one bit per next hop of the bucket
      std::uint8_t numBits = 0;   // dense
      Asic::Index next = 0;       // next entry of the list; meaningless when last
      bool last = true;
      bool operator==(const HwEntry&) const = default;
   };
   using Words = std::array<std::uint32_t, kEntryWords>;

   // A sparse entry carries no dense field and a dense one no pair: both are refused, as
   // they would be lost.
   static Words encode(const HwEntry& entry);
   // Pairs come back in the order they were encoded.
   static HwEntry decode(std::span<const std::uint32_t> words);
};

struct L2SubPortFormat {
   static constexpr char kMemory[] = "MMU_REPL_LIST_L2_SUBPORT";
   static constexpr std::uint32_t kBitmapWords = 2;
   static constexpr std::uint32_t kEntryWords = 2 + kBitmapWords;
   static constexpr std::uint32_t kMaxMode = 3;

   struct HwEntry {
      std::uint32_t mode = 0;                    // 2 bits
      std::vector<std::uint32_t> bitmapWords{};  // word 0 holds sub-ports 0..31
      Asic::Index next = 0;                      // meaningless when last
      bool last = true;
      bool operator==(const HwEntry&) const = default;
   };
   using Words = std::array<std::uint32_t, kEntryWords>;

   // A bitmap shorter than the field is padded with zero words; a longer one is taken when
   // its extra words are zero.
   static Words encode(const HwEntry& entry);
   // The bitmap comes back exactly kBitmapWords long.
   static HwEntry decode(std::span<const std::uint32_t> words);
};

// What the chain walk needs of a format.
template <typename F>
concept ChainedFormat = requires(std::span<const std::uint32_t> words, typename F::HwEntry e) {
   { F::kMemory } -> std::convertible_to<std::string_view>;
   { F::kEntryWords } -> std::convertible_to<std::uint32_t>;
   { F::decode(words) } -> std::same_as<typename F::HwEntry>;
   { e.next } -> std::convertible_to<Asic::Index>;
   { e.last } -> std::convertible_to<bool>;
};

// The walks below throw std::invalid_argument when the table's entries are not of the
// format's width; chainAt and nextIndex throw std::runtime_error naming the index at fault
// when an entry on the way cannot be decoded.

// The list's indices in chain order, starting at `first`. Throws std::runtime_error naming
// the index when the chain reaches an entry that is not valid, leaves the table, or loops.
template <ChainedFormat F>
std::vector<Asic::Index> chainAt(const Asic::HwTable& hw, Asic::Index first);

// Valid entries that no other valid entry names as its (non-last) next, ascending. An entry
// that names itself is a head, so that its walk reports the loop instead of the list going
// unseen. Words that no entry could have are passed over: they head nothing and name
// nothing, so a restart finds every intact list around them.
template <ChainedFormat F>
std::vector<Asic::Index> chainHeads(const Asic::HwTable& hw);

// The entry's next index, or Asic::invalidIndex when it is the last of its list or not
// valid. Throws std::out_of_range for an index past the table.
template <ChainedFormat F>
Asic::Index nextIndex(const Asic::HwTable& hw, Asic::Index index);

// Links `entries` into one list laid out at `indices`, both in list order: each entry names
// the next index and the final one is marked last. Throws std::invalid_argument when the
// lengths differ or there is no entry.
template <ChainedFormat F>
void chainLink(std::span<typename F::HwEntry> entries, std::span<const Asic::Index> indices);

// Defined for both formats in ReplListFormat.cpp.
extern template std::vector<Asic::Index> chainAt<ReplListFormat>(const Asic::HwTable&, Asic::Index);
extern template std::vector<Asic::Index> chainHeads<ReplListFormat>(const Asic::HwTable&);
extern template Asic::Index nextIndex<ReplListFormat>(const Asic::HwTable&, Asic::Index);
extern template void chainLink<ReplListFormat>(std::span<ReplListFormat::HwEntry>,
                                               std::span<const Asic::Index>);
extern template std::vector<Asic::Index> chainAt<L2SubPortFormat>(const Asic::HwTable&,
                                                                  Asic::Index);
extern template std::vector<Asic::Index> chainHeads<L2SubPortFormat>(const Asic::HwTable&);
extern template Asic::Index nextIndex<L2SubPortFormat>(const Asic::HwTable&, Asic::Index);
extern template void chainLink<L2SubPortFormat>(std::span<L2SubPortFormat::HwEntry>,
                                                std::span<const Asic::Index>);

}  // namespace ChipSim
