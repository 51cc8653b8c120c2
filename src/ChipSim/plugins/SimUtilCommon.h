#pragma once
// What every table's Util for the simulated chip needs.

#include <stdexcept>

#include <fmt/format.h>

#include "Asic/HwTable.h"

namespace ChipSim {

// The hardware table the software table is bound to; a Util cannot work without it.
template <typename Table>
Asic::HwTable& boundHwTable(Table& table) {
   if (!table.hwTable()) {
      throw std::logic_error(fmt::format("{}: no hardware table bound", Table::kTypeName));
   }
   return *table.hwTable();
}

}  // namespace ChipSim
