#include "ChipSim/Memory.h"

#include <algorithm>
#include <stdexcept>

#include <fmt/format.h>

namespace ChipSim {

Memory::Memory(std::string name, std::uint32_t numEntries, std::uint32_t entryWords)
    : name_(std::move(name)), numEntries_(numEntries), entryWords_(entryWords) {
   if (numEntries_ == 0 || entryWords_ == 0) {
      throw std::invalid_argument(
          fmt::format("chip memory {}: {} entries of {} words is not a memory", name_, numEntries_,
                      entryWords_));
   }
}

void Memory::checkIndex(Asic::Index index) const {
   if (index >= numEntries_) {
      throw std::out_of_range(fmt::format("chip memory {}: index {} out of range (entries: {})",
                                          name_, index, numEntries_));
   }
}

void Memory::checkWidth(std::size_t words, const char* what) const {
   if (words != entryWords_) {
      throw std::invalid_argument(fmt::format("chip memory {}: {} of {} words, expected {}", name_,
                                              what, words, entryWords_));
   }
}

bool Memory::read(Asic::Index index, std::span<std::uint32_t> out) const {
   checkIndex(index);
   checkWidth(out.size(), "read buffer");
   return doRead(index, out);
}

void Memory::write(Asic::Index index, Words words) {
   checkIndex(index);
   checkWidth(words.size(), "entry");
   doWrite(index, words);
}

void Memory::clear(Asic::Index index) {
   checkIndex(index);
   doClear(index);
}

std::uint32_t Memory::validEntries() const {
   std::uint32_t n = 0;
   forEachValid([&n](Asic::Index, Words) { ++n; });
   return n;
}

HeapMemory::HeapMemory(std::string name, std::uint32_t numEntries, std::uint32_t entryWords)
    : Memory(std::move(name), numEntries, entryWords),
      words_(std::size_t(numEntries) * entryWords, 0),
      valid_(numEntries, 0) {}

bool HeapMemory::doRead(Asic::Index index, std::span<std::uint32_t> out) const {
   if (!valid_[index]) return false;
   std::ranges::copy(entry(index), out.begin());
   return true;
}

void HeapMemory::doWrite(Asic::Index index, Words words) {
   std::ranges::copy(words, words_.begin() + std::ptrdiff_t(index) * entryWords());
   valid_[index] = 1;
}

void HeapMemory::doClear(Asic::Index index) {
   auto first = words_.begin() + std::ptrdiff_t(index) * entryWords();
   std::fill(first, first + entryWords(), 0u);
   valid_[index] = 0;
}

void HeapMemory::doForEachValid(const Visitor& fn) const {
   for (Asic::Index i = 0; i < numEntries(); ++i) {
      if (valid_[i]) fn(i, entry(i));
   }
}

}  // namespace ChipSim
