#include "Asic/IndexAllocator.h"

#include <algorithm>
#include <array>
#include <bit>
#include <map>
#include <memory>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>
#include <absl/hash/hash.h>
#include <fmt/format.h>

#include "Asic/Assert.h"

namespace Asic {
namespace {

constexpr std::uint32_t kWordBits = 64;
// Keeps every index, and every key record id, clear of the owner-slot sentinels below.
constexpr std::uint32_t kMaxEntries = 1u << 31;

constexpr std::uint32_t wordOf(std::uint64_t index) noexcept {
   return static_cast<std::uint32_t>(index / kWordBits);
}
constexpr std::uint32_t bitOf(std::uint64_t index) noexcept {
   return static_cast<std::uint32_t>(index % kWordBits);
}
constexpr std::uint32_t wordsFor(std::uint32_t bits) noexcept {
   return static_cast<std::uint32_t>((std::uint64_t{bits} + kWordBits - 1) / kWordBits);
}
// Bits [0, n) of a word, n in [0, 64].
constexpr std::uint64_t lowBits(std::uint32_t n) noexcept {
   return n >= kWordBits ? ~std::uint64_t{0} : (std::uint64_t{1} << n) - 1;
}

// Lowest bit position starting a run of `count` set bits (1..64) in `word`; 64 if none.
std::uint32_t firstRunInWord(std::uint64_t word, std::uint32_t count) noexcept {
   std::uint64_t starts = word;  // bit i: bits i .. i + have - 1 are all set
   std::uint32_t have = 1;
   while (have < count && starts != 0) {
      std::uint32_t shift = std::min(have, count - have);
      starts &= starts >> shift;
      have += shift;
   }
   return static_cast<std::uint32_t>(std::countr_zero(starts));
}

std::uint32_t longestRunInWord(std::uint64_t word) noexcept {
   std::uint32_t longest = 0;
   while (word != 0) {
      word >>= std::countr_zero(word);
      auto run = static_cast<std::uint32_t>(std::countr_one(word));
      longest = std::max(longest, run);
      word = run >= kWordBits ? 0 : word >> run;
   }
   return longest;
}

// The free indices: a bitmap (bit set = free) under a segment tree of its words. Every
// node keeps the free run at the start of its range, the one at its end and the longest
// inside, so "lowest free index from i" and "lowest run of n free indices" descend the
// tree in O(log words) instead of scanning indices, and the largest free run is the root's.
class FreeSpace {
 public:
   // Indices [old size, size) become free; indices >= size are dropped.
   void resize(std::uint32_t size) {
      std::uint32_t old = size_;
      words_.resize(wordsFor(size), 0);
      if (size > old) {
         for (std::uint64_t i = old; i < size;) {
            std::uint32_t bit = bitOf(i);
            std::uint32_t n =
                static_cast<std::uint32_t>(std::min<std::uint64_t>(kWordBits - bit, size - i));
            words_[wordOf(i)] |= lowBits(n) << bit;
            i += n;
         }
      } else if (bitOf(size) != 0) {
         words_.back() &= lowBits(bitOf(size));
      }
      size_ = size;
      free_ = 0;
      for (std::uint64_t word : words_) free_ += static_cast<std::uint32_t>(std::popcount(word));
      rebuild();
   }

   std::uint32_t size() const noexcept { return size_; }
   std::uint32_t freeCount() const noexcept { return free_; }
   std::uint32_t largestRun() const noexcept { return nodes_.empty() ? 0 : nodes_[1].longest; }
   bool isFree(Index index) const noexcept {
      return index < size_ && ((words_[wordOf(index)] >> bitOf(index)) & 1u);
   }

   void freeIs(Index index, bool free) {
      std::uint64_t& word = words_[wordOf(index)];
      std::uint64_t mask = std::uint64_t{1} << bitOf(index);
      std::uint64_t updated = free ? (word | mask) : (word & ~mask);
      if (updated == word) return;
      word = updated;
      if (free) {
         ++free_;
      } else {
         --free_;
      }
      update(wordOf(index));
   }

   Index nextFree(std::uint64_t from) const noexcept {
      if (from >= size_) return invalidIndex;
      std::uint32_t w = wordOf(from);
      std::uint64_t rest = words_[w] & (~std::uint64_t{0} << bitOf(from));
      if (rest != 0) return w * kWordBits + static_cast<std::uint32_t>(std::countr_zero(rest));
      // Climb until a right sibling holds a free index, then take its leftmost free leaf.
      std::size_t node = leaves_ + w;
      while (node > 1) {
         if ((node & 1) == 0 && nodes_[node + 1].longest > 0) {
            node += 1;
            while (node < leaves_) node = nodes_[2 * node].longest > 0 ? 2 * node : 2 * node + 1;
            auto leaf = static_cast<std::uint32_t>(node - leaves_);
            return leaf * kWordBits + static_cast<std::uint32_t>(std::countr_zero(words_[leaf]));
         }
         node >>= 1;
      }
      return invalidIndex;
   }

   Index firstRun(std::uint32_t count) const noexcept {
      if (count == 0 || largestRun() < count) return invalidIndex;
      std::size_t node = 1;
      std::uint64_t low = 0;
      std::uint64_t span = std::uint64_t{leaves_} * kWordBits;
      while (node < leaves_) {
         const Node& left = nodes_[2 * node];
         const Node& right = nodes_[2 * node + 1];
         span /= 2;
         if (left.longest >= count) {
            node = 2 * node;
         } else if (std::uint64_t{left.tail} + right.head >= count) {
            return static_cast<Index>(low + span - left.tail);  // the run crosses the middle
         } else {
            node = 2 * node + 1;
            low += span;
         }
      }
      auto leaf = static_cast<std::uint32_t>(node - leaves_);
      return leaf * kWordBits + firstRunInWord(words_[leaf], count);
   }

 private:
   struct Node {
      std::uint32_t head = 0;  // free run at the start of the range
      std::uint32_t tail = 0;  // free run at its end
      std::uint32_t longest = 0;
      bool operator==(const Node&) const = default;
   };

   static Node leafOf(std::uint64_t word) noexcept {
      return Node{static_cast<std::uint32_t>(std::countr_one(word)),
                  static_cast<std::uint32_t>(std::countl_one(word)), longestRunInWord(word)};
   }
   // `half` is the length in bits of each child's range.
   static Node combine(const Node& left, const Node& right, std::uint64_t half) noexcept {
      Node parent;
      parent.head = static_cast<std::uint32_t>(left.head == half ? half + right.head : left.head);
      parent.tail = static_cast<std::uint32_t>(right.tail == half ? half + left.tail : right.tail);
      parent.longest = std::max({left.longest, right.longest, left.tail + right.head});
      return parent;
   }

   void rebuild() {
      leaves_ = std::bit_ceil(std::max<std::size_t>(words_.size(), 1));
      nodes_.assign(2 * leaves_, Node{});
      for (std::size_t w = 0; w < words_.size(); ++w) nodes_[leaves_ + w] = leafOf(words_[w]);
      std::uint64_t half = kWordBits;
      for (std::size_t levelStart = leaves_ / 2; levelStart >= 1; levelStart /= 2, half *= 2) {
         for (std::size_t node = levelStart; node < 2 * levelStart; ++node) {
            nodes_[node] = combine(nodes_[2 * node], nodes_[2 * node + 1], half);
         }
      }
   }

   void update(std::uint32_t word) {
      std::size_t node = leaves_ + word;
      nodes_[node] = leafOf(words_[word]);
      std::uint64_t half = kWordBits;
      while (node > 1) {
         node >>= 1;
         Node parent = combine(nodes_[2 * node], nodes_[2 * node + 1], half);
         if (parent == nodes_[node]) break;  // nothing above can change either
         nodes_[node] = parent;
         half *= 2;
      }
   }

   std::vector<std::uint64_t> words_;
   std::vector<Node> nodes_;  // 1-based heap; leaf of word w at leaves_ + w
   std::size_t leaves_ = 0;
   std::uint32_t size_ = 0;
   std::uint32_t free_ = 0;
};

// A list that holds its first element inline: a key owns one index almost always, and a
// million keys must stay small.
template <typename T>
class CompactList {
   static_assert(std::is_trivially_copyable_v<T>);

 public:
   CompactList() noexcept : one_() {}
   CompactList(const CompactList&) = delete;
   CompactList& operator=(const CompactList&) = delete;
   ~CompactList() { clear(); }

   std::uint32_t size() const noexcept { return size_; }
   bool empty() const noexcept { return size_ == 0; }
   const T* begin() const noexcept { return size_ > 1 ? many_ : &one_; }
   const T* end() const noexcept { return begin() + size_; }
   T front() const noexcept { return *begin(); }
   bool contains(T value) const noexcept { return std::find(begin(), end(), value) != end(); }
   std::vector<T> toVector() const { return std::vector<T>(begin(), end()); }

   void assign(const T* first, std::uint32_t count) {
      if (count > 1) {
         T* many = new T[count];
         std::copy(first, first + count, many);
         clear();
         many_ = many;
      } else {
         clear();
         if (count == 1) one_ = *first;
      }
      size_ = count;
   }
   void pushBack(T value) {
      if (size_ == 0) {
         one_ = value;
      } else {
         T* many = new T[size_ + 1];
         std::copy(begin(), end(), many);
         many[size_] = value;
         if (size_ > 1) delete[] many_;
         many_ = many;
      }
      ++size_;
   }
   // False when the value is not in the list.
   bool erase(T value) {
      auto it = std::find(begin(), end(), value);
      if (it == end()) return false;
      auto pos = static_cast<std::uint32_t>(it - begin());
      if (size_ == 1) {
         size_ = 0;
      } else if (size_ == 2) {
         T other = many_[1 - pos];
         delete[] many_;
         one_ = other;
         size_ = 1;
      } else {
         T* many = new T[size_ - 1];
         std::copy(many_, many_ + pos, many);
         std::copy(many_ + pos + 1, many_ + size_, many + pos);
         delete[] many_;
         many_ = many;
         --size_;
      }
      return true;
   }
   void clear() noexcept {
      if (size_ > 1) delete[] many_;
      size_ = 0;
   }

 private:
   std::uint32_t size_ = 0;

 public:
   // Four bytes that alignment leaves free beside the size, for the owner's own use.
   std::uint32_t spare = 0;

 private:
   union {
      T one_;
      T* many_;
   };
};

// The tables that use keys' indices, numbered so that a key keeps its users as bits of one
// word: an allocator serves a handful of tables, and a million keys must stay small. A
// number is given back when no key uses it any more. Bit 31 is not a number: it says the
// key has users beyond the numbered ones, listed apart.
class UserNumbers {
 public:
   static constexpr std::uint32_t kMax = 31;
   static constexpr std::uint32_t kListedApart = 1u << kMax;

   // The table's bit, or 0 when it has no number.
   std::uint32_t bitOf(const void* user) const noexcept {
      if (last_ < kMax && slots_[last_].user == user) return 1u << last_;
      for (std::uint32_t i = 0; i < kMax; ++i) {
         if (slots_[i].user == user && slots_[i].keys != 0) {
            last_ = i;
            return 1u << i;
         }
      }
      return 0;
   }
   // The table's bit, numbering it if it has none; 0 when every number is in use.
   std::uint32_t bitFor(const void* user) noexcept {
      if (std::uint32_t bit = bitOf(user)) return bit;
      for (std::uint32_t i = 0; i < kMax; ++i) {
         if (slots_[i].keys == 0) {
            slots_[i].user = user;
            last_ = i;
            return 1u << i;
         }
      }
      return 0;
   }
   // Keys now count (or no longer count) the tables of `bits` among their users.
   void added(std::uint32_t bits) noexcept {
      bits &= ~kListedApart;
      for (; bits != 0; bits &= bits - 1) ++slots_[std::countr_zero(bits)].keys;
   }
   void removed(std::uint32_t bits) noexcept {
      bits &= ~kListedApart;
      for (; bits != 0; bits &= bits - 1) --slots_[std::countr_zero(bits)].keys;
   }

 private:
   struct Slot {
      const void* user = nullptr;  // not owned
      std::uint32_t keys = 0;      // keys that count the table among their users
   };
   std::array<Slot, kMax> slots_{};
   mutable std::uint32_t last_ = kMax;  // the number last asked for
};

// What the allocator knows of one key. Never empty while the key is known: a key that
// loses its last index is forgotten.
struct KeyRecord {
   GenericValue key;
   CompactList<Index> indices;  // its spare word: the bits of the tables using them
   std::uint32_t users() const noexcept { return indices.spare; }
};

// Key records by id, in fixed chunks so records never move and ids fit the per-index
// owner slots (4 bytes an index instead of a pointer).
class RecordSlab {
 public:
   static constexpr std::uint32_t kNone = invalidIndex;

   KeyRecord& at(std::uint32_t id) noexcept { return chunks_[id >> kChunkBits][id & kChunkMask]; }
   const KeyRecord& at(std::uint32_t id) const noexcept {
      return chunks_[id >> kChunkBits][id & kChunkMask];
   }
   std::uint32_t acquire() {
      if (!freeIds_.empty()) {
         std::uint32_t id = freeIds_.back();
         freeIds_.pop_back();
         return id;
      }
      if ((highWater_ >> kChunkBits) == chunks_.size()) {
         chunks_.push_back(std::make_unique<KeyRecord[]>(kChunkSize));
      }
      return highWater_++;
   }
   void release(std::uint32_t id) {
      KeyRecord& record = at(id);
      record.key = GenericValue();
      record.indices.clear();
      record.indices.spare = 0;
      freeIds_.push_back(id);
   }

 private:
   static constexpr std::uint32_t kChunkBits = 12;
   static constexpr std::uint32_t kChunkSize = 1u << kChunkBits;
   static constexpr std::uint32_t kChunkMask = kChunkSize - 1;

   std::vector<std::unique_ptr<KeyRecord[]>> chunks_;
   std::vector<std::uint32_t> freeIds_;
   std::uint32_t highWater_ = 0;
};

std::uint32_t hashKey(const TypeDescriptor& type, const void* value) {
   return static_cast<std::uint32_t>(
       absl::HashOf(static_cast<const void*>(&type), type.hash(value)));
}

// Element of the key set: the record id with its key's hash, so that growing the set
// never has to read the records (a cache miss each at a million keys).
struct KeySlot {
   std::uint32_t id;
   std::uint32_t hash;
};

// A key as callers pass it; looked up without building a GenericValue.
struct KeyRef {
   KeyRef(const TypeDescriptor& t, const void* v) : type(&t), value(v), hash(hashKey(t, v)) {}
   const TypeDescriptor* type;
   const void* value;
   std::uint32_t hash;
};

struct KeySlotHash {
   using is_transparent = void;
   std::size_t operator()(const KeySlot& slot) const noexcept { return slot.hash; }
   std::size_t operator()(const KeyRef& ref) const noexcept { return ref.hash; }
};

struct KeySlotEq {
   using is_transparent = void;
   const RecordSlab* slab;
   bool operator()(const KeySlot& a, const KeySlot& b) const noexcept { return a.id == b.id; }
   bool operator()(const KeySlot& slot, const KeyRef& ref) const {
      return slot.hash == ref.hash && slab->at(slot.id).key.is(*ref.type, ref.value);
   }
   bool operator()(const KeyRef& ref, const KeySlot& slot) const { return (*this)(slot, ref); }
};

// Per-index owner slot: a key record id or one of these.
constexpr std::uint32_t kFreeSlot = 0xFFFFFFFFu;
constexpr std::uint32_t kReservedSlot = 0xFFFFFFFEu;
constexpr std::uint32_t kHeldSlot = 0xFFFFFFFDu;  // stale hardware entry awaiting the purge

}  // namespace

struct GenericIndexAllocator::Impl {
   explicit Impl(std::string allocatorName)
       : name(std::move(allocatorName)), keys(0, KeySlotHash{}, KeySlotEq{&slab}) {}

   std::string name;
   std::uint32_t numEntries = 0;
   bool initialized = false;
   const void* table = nullptr;  // not owned
   std::string tableAttribute;
   FreeSpace freeSpace;
   std::vector<std::uint32_t> owner;  // per index: record id, kFreeSlot, kReservedSlot, kHeldSlot
   RecordSlab slab;
   absl::flat_hash_set<KeySlot, KeySlotHash, KeySlotEq> keys;
   UserNumbers userNumbers;
   // Users of keys beyond the numbered tables, by record id: empty unless more than 31
   // tables share the allocator at once.
   absl::flat_hash_map<std::uint32_t, std::vector<const void*>> usersApart;

   std::uint32_t find(const KeyRef& ref) const {
      auto it = keys.find(ref);
      return it == keys.end() ? RecordSlab::kNone : it->id;
   }
   std::uint32_t find(const TypeDescriptor& type, const void* key) const {
      return find(KeyRef(type, key));
   }
   // The table a call is made for: null stands for the allocator's own table.
   const void* userOf(const void* user) const noexcept { return user ? user : table; }
   // The users of the key of record `id`. `user` is as callers pass it (null: own table).
   bool hasUser(std::uint32_t id, const KeyRecord& record, const void* user) const {
      const void* table = userOf(user);
      if ((record.users() & userNumbers.bitOf(table)) != 0) return true;
      if ((record.users() & UserNumbers::kListedApart) == 0) return false;
      const auto& apart = usersApart.at(id);
      return std::find(apart.begin(), apart.end(), table) != apart.end();
   }
   std::size_t userCount(std::uint32_t id, const KeyRecord& record) const {
      std::size_t count = std::popcount(record.users() & ~UserNumbers::kListedApart);
      if (record.users() & UserNumbers::kListedApart) count += usersApart.at(id).size();
      return count;
   }
   void addUser(std::uint32_t id, KeyRecord& record, const void* user) {
      if (hasUser(id, record, user)) return;
      const void* table = userOf(user);
      if (std::uint32_t bit = userNumbers.bitFor(table)) {
         record.indices.spare |= bit;
         userNumbers.added(bit);
         return;
      }
      usersApart[id].push_back(table);
      record.indices.spare |= UserNumbers::kListedApart;
   }
   // False when the key did not count the user.
   bool removeUser(std::uint32_t id, KeyRecord& record, const void* user) {
      const void* table = userOf(user);
      if (std::uint32_t bit = userNumbers.bitOf(table) & record.users()) {
         record.indices.spare &= ~bit;
         userNumbers.removed(bit);
         return true;
      }
      if ((record.users() & UserNumbers::kListedApart) == 0) return false;
      auto it = usersApart.find(id);
      auto& apart = it->second;
      auto found = std::find(apart.begin(), apart.end(), table);
      if (found == apart.end()) return false;
      apart.erase(found);
      if (apart.empty()) {
         usersApart.erase(it);
         record.indices.spare &= ~UserNumbers::kListedApart;
      }
      return true;
   }
   void dropUsers(std::uint32_t id, KeyRecord& record) noexcept {
      userNumbers.removed(record.users());
      if (record.users() & UserNumbers::kListedApart) usersApart.erase(id);
      record.indices.spare = 0;
   }
   bool isFreeSlot(Index index) const noexcept {
      return index < numEntries && owner[index] == kFreeSlot;
   }
   // What a restart may bind to a key: free, or held for the stale entry found there.
   bool isRecoverableSlot(Index index) const noexcept {
      return index < numEntries && (owner[index] == kFreeSlot || owner[index] == kHeldSlot);
   }
   // The record of the key of `type` owning `index`, or null.
   const KeyRecord* ownerOf(Index index, const TypeDescriptor& type) const {
      if (index >= numEntries || owner[index] >= kHeldSlot) return nullptr;
      const KeyRecord& record = slab.at(owner[index]);
      return record.key.type() == &type ? &record : nullptr;
   }

   // Binds free indices to a new key. Everything that can throw happens before the
   // indices change hands.
   // `ref` is the key as the caller looked it up: its hash is not computed twice.
   void bind(const KeyRef& ref, const Index* indices, std::uint32_t count, const void* user) {
      for (std::uint32_t i = 0; i < count; ++i) {
         ASIC_ASSERT_MSG(isRecoverableSlot(indices[i]),
                         "allocator picked an index that is not free");
      }
      std::uint32_t id = slab.acquire();
      try {
         KeyRecord& record = slab.at(id);
         record.key = GenericValue(*ref.type, ref.value);
         record.indices.assign(indices, count);
         addUser(id, record, user);
         keys.insert(KeySlot{id, ref.hash});
      } catch (...) {
         dropUsers(id, slab.at(id));
         slab.release(id);
         throw;
      }
      for (std::uint32_t i = 0; i < count; ++i) {
         owner[indices[i]] = id;
         freeSpace.freeIs(indices[i], false);
      }
   }

   using KeySet = absl::flat_hash_set<KeySlot, KeySlotHash, KeySlotEq>;
   void forget(std::uint32_t id) {
      const KeyRecord& record = slab.at(id);
      forget(id, keys.find(KeySlot{id, hashKey(*record.key.type(), record.key.data())}));
   }
   // `slot` is the key's element of the key set, where the caller found the key.
   void forget(std::uint32_t id, KeySet::iterator slot) {
      KeyRecord& record = slab.at(id);
      for (Index index : record.indices) {
         owner[index] = kFreeSlot;
         freeSpace.freeIs(index, true);
      }
      keys.erase(slot);
      dropUsers(id, record);
      slab.release(id);
   }
};

GenericIndexAllocator::GenericIndexAllocator(std::string name) : impl_(new Impl(std::move(name))) {}

GenericIndexAllocator::~GenericIndexAllocator() { delete impl_; }

const std::string& GenericIndexAllocator::name() const noexcept { return impl_->name; }

void GenericIndexAllocator::numEntriesIs(std::uint32_t numEntries) {
   Impl& s = *impl_;
   if (numEntries > kMaxEntries) {
      throw std::invalid_argument(
          fmt::format("index allocator '{}': {} entries exceed the limit of {}", s.name, numEntries,
                      kMaxEntries));
   }
   // Reserved indices past the new end are simply dropped; assigned ones refuse the shrink.
   for (Index index = numEntries; index < s.numEntries; ++index) {
      std::uint32_t slot = s.owner[index];
      if (slot < kHeldSlot) {
         throw std::invalid_argument(fmt::format(
             "index allocator '{}': cannot shrink to {} entries: index {} is assigned to key {}",
             s.name, numEntries, index, s.slab.at(slot).key.toString()));
      }
   }
   s.owner.resize(numEntries, kFreeSlot);
   s.freeSpace.resize(numEntries);
   s.numEntries = numEntries;
}

std::uint32_t GenericIndexAllocator::numEntries() const noexcept { return impl_->numEntries; }

void GenericIndexAllocator::initializedIs(bool initialized) noexcept {
   impl_->initialized = initialized;
}

bool GenericIndexAllocator::initialized() const noexcept { return impl_->initialized; }

void GenericIndexAllocator::setTableAttr(const void* table, std::string_view attribute) {
   impl_->tableAttribute = std::string(attribute);
   impl_->table = table;
}

const void* GenericIndexAllocator::table() const noexcept { return impl_->table; }

const std::string& GenericIndexAllocator::tableAttribute() const noexcept {
   return impl_->tableAttribute;
}

std::size_t GenericIndexAllocator::numKeys() const noexcept { return impl_->keys.size(); }

void GenericIndexAllocator::reserveIndices(Index first, Index last) {
   Impl& s = *impl_;
   if (first > last) {
      throw std::invalid_argument(
          fmt::format("index allocator '{}': cannot reserve indices {} to {}: first is after last",
                      s.name, first, last));
   }
   if (last >= s.numEntries) {
      throw std::out_of_range(fmt::format(
          "index allocator '{}': cannot reserve indices {} to {}: the allocator has {} entries",
          s.name, first, last, s.numEntries));
   }
   for (std::uint64_t index = first; index <= last; ++index) {
      std::uint32_t slot = s.owner[index];
      if (slot < kHeldSlot) {
         throw std::invalid_argument(
             fmt::format("index allocator '{}': cannot reserve index {}: it is assigned to key {}",
                         s.name, index, s.slab.at(slot).key.toString()));
      }
   }
   for (std::uint64_t index = first; index <= last; ++index) {
      if (s.owner[index] == kReservedSlot) continue;
      s.owner[index] = kReservedSlot;
      s.freeSpace.freeIs(static_cast<Index>(index), false);
   }
}

Index GenericIndexAllocator::newIndexForKey(const TypeDescriptor& keyType, const void* key,
                                            const void* user) {
   Impl& s = *impl_;
   const KeyRef ref(keyType, key);
   if (std::uint32_t id = s.find(ref); id != RecordSlab::kNone) {
      KeyRecord& record = s.slab.at(id);
      s.addUser(id, record, user);
      return record.indices.front();
   }
   std::vector<Index> picked = pickIndices(1);
   if (picked.size() != 1) return invalidIndex;
   s.bind(ref, picked.data(), 1, user);
   return picked.front();
}

std::string_view GenericIndexAllocator::toString(RequestStatus status) noexcept {
   switch (status) {
      case RequestStatus::assigned:
         return "assigned";
      case RequestStatus::alreadyOwned:
         return "already owned";
      case RequestStatus::indexTaken:
         return "taken by another key or reserved";
      case RequestStatus::keyHasOther:
         return "the key already holds another index";
      case RequestStatus::outOfRange:
         return "out of range";
   }
   return "unknown";
}

GenericIndexAllocator::RequestStatus GenericIndexAllocator::requestIndexForKey(
    Index index, const TypeDescriptor& keyType, const void* key, const void* user) {
   Impl& s = *impl_;
   const KeyRef ref(keyType, key);
   if (index >= s.numEntries) return RequestStatus::outOfRange;
   if (std::uint32_t id = s.find(ref); id != RecordSlab::kNone) {
      KeyRecord& record = s.slab.at(id);
      if (record.indices.size() != 1 || record.indices.front() != index) {
         return RequestStatus::keyHasOther;
      }
      s.addUser(id, record, user);
      return RequestStatus::alreadyOwned;
   }
   if (s.owner[index] != kFreeSlot) return RequestStatus::indexTaken;
   s.bind(ref, &index, 1, user);
   return RequestStatus::assigned;
}

bool GenericIndexAllocator::recoverIndexForKey(Index index, const TypeDescriptor& keyType,
                                               const void* key, const void* user) {
   Impl& s = *impl_;
   const KeyRef ref(keyType, key);
   if (!s.isRecoverableSlot(index) || s.find(ref) != RecordSlab::kNone) return false;
   s.bind(ref, &index, 1, user);
   return true;
}

std::optional<Index> GenericIndexAllocator::indexForKey(const TypeDescriptor& keyType,
                                                        const void* key) const {
   std::uint32_t id = impl_->find(keyType, key);
   if (id == RecordSlab::kNone) return std::nullopt;
   return impl_->slab.at(id).indices.front();
}

std::optional<Index> GenericIndexAllocator::indexForKey(const TypeDescriptor& keyType,
                                                        const void* key, Index hint) const {
   const Impl& s = *impl_;
   if (hint < s.numEntries && s.owner[hint] < kHeldSlot) {
      const KeyRecord& record = s.slab.at(s.owner[hint]);
      if (record.key.is(keyType, key)) return record.indices.front();
   }
   return indexForKey(keyType, key);
}

std::vector<Index> GenericIndexAllocator::newIndicesForKey(const TypeDescriptor& keyType,
                                                           const void* key, std::uint32_t blockSize,
                                                           const void* user) {
   Impl& s = *impl_;
   const KeyRef ref(keyType, key);
   if (std::uint32_t id = s.find(ref); id != RecordSlab::kNone) {
      KeyRecord& record = s.slab.at(id);
      s.addUser(id, record, user);
      return record.indices.toVector();
   }
   if (blockSize == 0) {
      throw std::invalid_argument(
          fmt::format("index allocator '{}': block size 0 requested for key {}", s.name,
                      keyType.toString(key)));
   }
   if (blockSize > s.freeSpace.freeCount()) return {};
   std::vector<Index> picked = pickIndices(blockSize);
   if (picked.size() != blockSize) return {};
   s.bind(ref, picked.data(), blockSize, user);
   return picked;
}

std::vector<Index> GenericIndexAllocator::extendIndicesForKey(const TypeDescriptor& keyType,
                                                              const void* key,
                                                              std::uint32_t count) {
   Impl& s = *impl_;
   std::uint32_t id = s.find(keyType, key);
   if (id == RecordSlab::kNone) {
      throw std::invalid_argument(fmt::format(
          "index allocator '{}': key {} owns no index to extend", s.name, keyType.toString(key)));
   }
   KeyRecord& record = s.slab.at(id);
   if (count == 0) return record.indices.toVector();
   if (count > s.freeSpace.freeCount()) return {};
   std::vector<Index> picked = pickIndices(count);
   if (picked.size() != count) return {};
   for (Index index : picked) {
      ASIC_ASSERT_MSG(s.isRecoverableSlot(index), "allocator picked an index that is not free");
      record.indices.pushBack(index);
      s.owner[index] = id;
      s.freeSpace.freeIs(index, false);
   }
   return record.indices.toVector();
}

std::vector<Index> GenericIndexAllocator::indicesForKey(const TypeDescriptor& keyType,
                                                        const void* key) const {
   std::uint32_t id = impl_->find(keyType, key);
   if (id == RecordSlab::kNone) return {};
   return impl_->slab.at(id).indices.toVector();
}

bool GenericIndexAllocator::recoverIndicesForKey(const std::vector<Index>& indices,
                                                 const TypeDescriptor& keyType, const void* key,
                                                 const void* user) {
   Impl& s = *impl_;
   const KeyRef ref(keyType, key);
   if (indices.empty() || indices.size() > s.numEntries) return false;
   if (s.find(ref) != RecordSlab::kNone) return false;
   for (Index index : indices) {
      if (!s.isRecoverableSlot(index)) return false;
   }
   std::vector<Index> sorted(indices);
   std::sort(sorted.begin(), sorted.end());
   if (std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end()) return false;
   s.bind(ref, indices.data(), static_cast<std::uint32_t>(indices.size()), user);
   return true;
}

std::uint32_t GenericIndexAllocator::getBlockSize(const TypeDescriptor& keyType,
                                                  const void* key) const {
   std::uint32_t id = impl_->find(keyType, key);
   return id == RecordSlab::kNone ? 0 : impl_->slab.at(id).indices.size();
}

GenericValue GenericIndexAllocator::keyForIndex(Index index, const TypeDescriptor& keyType) const {
   const KeyRecord* record = impl_->ownerOf(index, keyType);
   return record ? record->key : GenericValue();
}

bool GenericIndexAllocator::isIndexAssigned(Index index, const TypeDescriptor& keyType) const {
   return impl_->ownerOf(index, keyType) != nullptr;
}

bool GenericIndexAllocator::isIndexVerticallyShared(Index index,
                                                    const TypeDescriptor& keyType) const {
   const KeyRecord* record = impl_->ownerOf(index, keyType);
   return record && impl_->userCount(impl_->owner[index], *record) > 1;
}

bool GenericIndexAllocator::isIndexUsedBy(Index index, const TypeDescriptor& keyType,
                                          const void* table) const {
   const KeyRecord* record = impl_->ownerOf(index, keyType);
   return record && impl_->hasUser(impl_->owner[index], *record, table);
}

// Reserved indices stay reserved: a stale purge must not put index 0 (or any other
// reserved range) back into circulation.
void GenericIndexAllocator::markIndexAvailable(Index index, const TypeDescriptor&) {
   Impl& s = *impl_;
   if (index >= s.numEntries) {
      throw std::out_of_range(
          fmt::format("index allocator '{}': cannot free index {}: the allocator has {} entries",
                      s.name, index, s.numEntries));
   }
   std::uint32_t id = s.owner[index];
   if (id == kHeldSlot) {
      s.owner[index] = kFreeSlot;
      s.freeSpace.freeIs(index, true);
      return;
   }
   if (id == kFreeSlot || id == kReservedSlot) return;
   KeyRecord& record = s.slab.at(id);
   if (record.indices.size() == 1) {
      s.forget(id);
      return;
   }
   record.indices.erase(index);
   s.owner[index] = kFreeSlot;
   s.freeSpace.freeIs(index, true);
}

void GenericIndexAllocator::releaseIndexFromTable(const TypeDescriptor& keyType, const void* key,
                                                  const void* table) {
   Impl& s = *impl_;
   auto slot = s.keys.find(KeyRef(keyType, key));
   if (slot == s.keys.end()) return;
   const std::uint32_t id = slot->id;
   KeyRecord& record = s.slab.at(id);
   // The key goes from where it was found: no second hash and probe.
   if (s.removeUser(id, record, table) && record.users() == 0) s.forget(id, slot);
}

std::uint32_t GenericIndexAllocator::totalUsedIndices() const noexcept {
   return impl_->numEntries - impl_->freeSpace.freeCount();
}

bool GenericIndexAllocator::isIndexFree(Index index) const { return impl_->isFreeSlot(index); }

bool GenericIndexAllocator::holdIndex(Index index) {
   Impl& s = *impl_;
   if (!s.isFreeSlot(index)) return false;
   s.owner[index] = kHeldSlot;
   s.freeSpace.freeIs(index, false);
   return true;
}

bool GenericIndexAllocator::isIndexHeld(Index index) const {
   return index < impl_->numEntries && impl_->owner[index] == kHeldSlot;
}

GenericIndexAllocator::Occupancy GenericIndexAllocator::occupancy() const {
   const FreeSpace& space = impl_->freeSpace;
   return Occupancy{impl_->numEntries - space.freeCount(), space.freeCount(), space.largestRun()};
}

Index GenericIndexAllocator::firstFreeFrom(Index from) const {
   return impl_->freeSpace.nextFree(from);
}

Index GenericIndexAllocator::firstFreeRun(std::uint32_t count) const {
   return impl_->freeSpace.firstRun(count);
}

std::vector<Index> GenericIndexAllocator::lowestFreeIndices(std::uint32_t count) const {
   if (count == 0 || count > impl_->freeSpace.freeCount()) return {};
   std::vector<Index> picked;
   picked.reserve(count);
   for (Index index = firstFreeFrom(0); picked.size() < count && index != invalidIndex;
        index = firstFreeFrom(index + 1)) {
      picked.push_back(index);
   }
   return picked;
}

// ---- kinds ----------------------------------------------------------------------------

std::vector<Index> FirstFreeIndexAllocator::pickIndices(std::uint32_t count) const {
   return lowestFreeIndices(count);
}

std::vector<Index> DiscontBlockAllocator::pickIndices(std::uint32_t count) const {
   return lowestFreeIndices(count);
}

std::vector<Index> AnySizedBlockAllocator::pickIndices(std::uint32_t count) const {
   Index base = firstFreeRun(count);
   if (base == invalidIndex) return {};
   std::vector<Index> picked(count);
   for (std::uint32_t i = 0; i < count; ++i) picked[i] = base + i;
   return picked;
}

Index AnySizedBlockAllocator::newIndexForBlock(const TypeDescriptor& keyType, const void* key,
                                               std::uint32_t blockSize, const void* user) {
   std::vector<Index> indices = newIndicesForKey(keyType, key, blockSize, user);
   return indices.empty() ? invalidIndex : indices.front();
}

// ---- shared-allocator factory -----------------------------------------------------------

namespace {

struct SharedAllocator {
   Ptr<GenericIndexAllocator> allocator;
   std::vector<const void*> tables;  // not owned
};

struct StubRegistry {
   std::map<std::string, GenericIndexAllocatorStub::Factory, std::less<>> factories;
   std::map<std::string, SharedAllocator, std::less<>> shared;
};

// Kept for the life of the process: factories register from static initialisers of other
// libraries, and tables may let go of their allocators at exit.
StubRegistry& stubRegistry() {
   static auto* registry = new StubRegistry();
   return *registry;
}

}  // namespace

void GenericIndexAllocatorStub::allocatorFactoryIs(std::string_view allocatorType,
                                                   Factory factory) {
   if (factory == nullptr) {
      throw std::invalid_argument(fmt::format("allocator factory for '{}' is null", allocatorType));
   }
   auto& factories = stubRegistry().factories;
   auto it = factories.find(allocatorType);
   if (it == factories.end()) {
      factories.emplace(std::string(allocatorType), factory);
   } else if (it->second != factory) {
      throw std::logic_error(fmt::format(
          "allocator type '{}' is already registered with another factory", allocatorType));
   }
}

Ptr<GenericIndexAllocator> GenericIndexAllocatorStub::createSharedAllocator(
    std::string_view allocatorType, std::string_view, const void* table) {
   if (table == nullptr) return nullptr;
   StubRegistry& registry = stubRegistry();
   auto shared = registry.shared.find(allocatorType);
   if (shared == registry.shared.end()) {
      auto factory = registry.factories.find(allocatorType);
      if (factory == registry.factories.end()) return nullptr;
      Ptr<GenericIndexAllocator> allocator =
          factory->second(fmt::format("{} shared", allocatorType));
      if (!allocator) return nullptr;
      shared =
          registry.shared.emplace(std::string(allocatorType), SharedAllocator{allocator, {}}).first;
   }
   auto& tables = shared->second.tables;
   if (std::find(tables.begin(), tables.end(), table) == tables.end()) tables.push_back(table);
   return shared->second.allocator;
}

void GenericIndexAllocatorStub::freeSharedAllocator(std::string_view allocatorType,
                                                    std::string_view, const void* table) {
   StubRegistry& registry = stubRegistry();
   auto shared = registry.shared.find(allocatorType);
   if (shared == registry.shared.end()) return;
   auto& tables = shared->second.tables;
   tables.erase(std::remove(tables.begin(), tables.end(), table), tables.end());
   if (tables.empty()) registry.shared.erase(shared);
}

Ptr<GenericIndexAllocator> GenericIndexAllocatorStub::sharedAllocator(
    std::string_view allocatorType) {
   auto& shared = stubRegistry().shared;
   auto it = shared.find(allocatorType);
   return it == shared.end() ? nullptr : it->second.allocator;
}

std::size_t GenericIndexAllocatorStub::sharedAllocators() { return stubRegistry().shared.size(); }

}  // namespace Asic
