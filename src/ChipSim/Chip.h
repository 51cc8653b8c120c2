#pragma once
// The simulated chip of one unit: its table memories by name, each reached through a
// SimHwTable (the hardware-table layer). The chip is created once per unit and outlives
// the software tables bound to its tables; its tables stay alive while anyone holds them.

#include <cstdint>
#include <functional>
#include <string>

#include <absl/container/btree_map.h>

#include "Asic/EventLoop.h"
#include "Asic/RefCounted.h"
#include "Asic/Types.h"
#include "ChipSim/Memory.h"
#include "ChipSim/SimHwTable.h"

namespace ChipSim {

class Chip {
 public:
   // Makes the storage of one table; the default keeps memories in the heap.
   using MemoryFactory = std::function<Asic::Ptr<Memory>(
       const std::string& name, std::uint32_t numEntries, std::uint32_t entryWords)>;
   using Tables = absl::btree_map<std::string, Asic::Ptr<SimHwTable>>;

   // `loop` is not owned; completions of every table of the chip are posted to it.
   Chip(Asic::EventLoop& loop, Asic::UnitId unit, MemoryFactory memoryFactory = {});
   Chip(const Chip&) = delete;
   Chip& operator=(const Chip&) = delete;

   Asic::UnitId unit() const noexcept { return unit_; }
   Asic::EventLoop& eventLoop() const noexcept { return loop_; }

   // Creates the named table, or returns it when it exists with this geometry. Throws
   // std::invalid_argument naming the table when it exists with another geometry or the
   // geometry is empty.
   Asic::Ptr<SimHwTable> tableIs(const std::string& name, std::uint32_t numEntries,
                                 std::uint32_t entryWords);
   // Throws std::out_of_range naming the table when there is none of that name.
   SimHwTable& table(const std::string& name) const;
   bool tableHas(const std::string& name) const { return tables_.contains(name); }
   // By name, in name order.
   const Tables& tables() const noexcept { return tables_; }

 private:
   Asic::EventLoop& loop_;  // not owned
   Asic::UnitId unit_;
   MemoryFactory memoryFactory_;
   Tables tables_;
};

}  // namespace ChipSim
