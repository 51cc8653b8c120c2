#pragma once
// One table's memory on the simulated chip: a fixed number of entries of fixed width, each
// valid or not. The interface is kept small so that storage other than the heap (a
// file-backed shared mapping that outlives the agent process) can stand in for it; the
// public calls check index and width once, here, and implementations see only good input.

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "Asic/RefCounted.h"
#include "Asic/Types.h"

namespace ChipSim {

class Memory : public Asic::RefCounted {
 public:
   using Words = std::span<const std::uint32_t>;
   using Visitor = std::function<void(Asic::Index, Words)>;

   const std::string& name() const noexcept { return name_; }
   std::uint32_t numEntries() const noexcept { return numEntries_; }
   std::uint32_t entryWords() const noexcept { return entryWords_; }

   // Copies the entry into `out` (exactly entryWords() long); false, and `out` untouched,
   // when the entry is not valid.
   bool read(Asic::Index index, std::span<std::uint32_t> out) const;
   // Stores the entry and marks it valid.
   void write(Asic::Index index, Words words);
   // Marks the entry invalid. Clearing an invalid entry is not an error.
   void clear(Asic::Index index);
   // Every valid entry in ascending index order.
   void forEachValid(const Visitor& fn) const { doForEachValid(fn); }
   std::uint32_t validEntries() const;

 protected:
   // Throws std::invalid_argument for an empty geometry.
   Memory(std::string name, std::uint32_t numEntries, std::uint32_t entryWords);
   ~Memory() override = default;

   virtual bool doRead(Asic::Index index, std::span<std::uint32_t> out) const = 0;
   virtual void doWrite(Asic::Index index, Words words) = 0;
   virtual void doClear(Asic::Index index) = 0;
   virtual void doForEachValid(const Visitor& fn) const = 0;

 private:
   // Throw std::out_of_range / std::invalid_argument naming the memory.
   void checkIndex(Asic::Index index) const;
   void checkWidth(std::size_t words, const char* what) const;

   std::string name_;
   std::uint32_t numEntries_;
   std::uint32_t entryWords_;
};

// Memory in the process's heap: gone with the process.
class HeapMemory final : public Memory {
 public:
   HeapMemory(std::string name, std::uint32_t numEntries, std::uint32_t entryWords);

 private:
   bool doRead(Asic::Index index, std::span<std::uint32_t> out) const override;
   void doWrite(Asic::Index index, Words words) override;
   void doClear(Asic::Index index) override;
   void doForEachValid(const Visitor& fn) const override;

   Words entry(Asic::Index index) const noexcept {
      return Words(words_).subspan(std::size_t(index) * entryWords(), entryWords());
   }

   std::vector<std::uint32_t> words_;  // entry i at [i * entryWords, (i + 1) * entryWords)
   std::vector<std::uint8_t> valid_;
};

}  // namespace ChipSim
