#include "ChipSim/Chip.h"

#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace ChipSim {

Chip::Chip(Asic::EventLoop& loop, Asic::UnitId unit, MemoryFactory memoryFactory)
    : loop_(loop), unit_(unit), memoryFactory_(std::move(memoryFactory)) {
   if (!memoryFactory_) {
      memoryFactory_ = [](const std::string& name, std::uint32_t numEntries,
                          std::uint32_t entryWords) -> Asic::Ptr<Memory> {
         return Asic::makePtr<HeapMemory>(name, numEntries, entryWords);
      };
   }
}

Asic::Ptr<SimHwTable> Chip::tableIs(const std::string& name, std::uint32_t numEntries,
                                    std::uint32_t entryWords) {
   if (auto it = tables_.find(name); it != tables_.end()) {
      const SimHwTable& t = *it->second;
      if (t.numEntries() != numEntries || t.entryWords() != entryWords) {
         throw std::invalid_argument(
             fmt::format("chip unit {}: table {} exists with {} entries of {} words, not {} of {}",
                         unit_, name, t.numEntries(), t.entryWords(), numEntries, entryWords));
      }
      return it->second;
   }
   Asic::Ptr<Memory> memory = memoryFactory_(name, numEntries, entryWords);
   if (!memory || memory->name() != name || memory->numEntries() != numEntries ||
       memory->entryWords() != entryWords) {
      throw std::logic_error(
          fmt::format("chip unit {}: memory factory did not make table {} as asked", unit_, name));
   }
   auto table = Asic::makePtr<SimHwTable>(loop_, unit_, std::move(memory));
   tables_.emplace(name, table);
   return table;
}

SimHwTable& Chip::table(const std::string& name) const {
   auto it = tables_.find(name);
   if (it == tables_.end()) {
      throw std::out_of_range(fmt::format("chip unit {}: no table {}", unit_, name));
   }
   return *it->second;
}

}  // namespace ChipSim
