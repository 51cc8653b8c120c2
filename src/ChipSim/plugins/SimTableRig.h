#pragma once
// A software table over its memory on the simulated chip: bound to the memory, given the
// table's Util for this chip and its allocator, ready for commits. Tests and benchmarks set
// their tables up through here, so that binding a table to the chip is written once.
//
// Each table states what the chip needs of it in a SimBinding specialisation:
//   Util          its Util for this chip
//   kMemory       the name of its memory on the chip
//   kEntryWords   the width of one entry of that memory, in 32-bit words
// A table added later needs only that.

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "Asic/RefCounted.h"
#include "AsicSwTable/SwTableLibrary.h"
#include "ChipSim/Chip.h"
#include "ChipSim/ReplListFormat.h"
#include "ChipSim/SimHwTable.h"
#include "ChipSim/plugins/IngIpmcRemapTableSimUtil.h"
#include "ChipSim/plugins/MmuReplHeadTableSimUtil.h"
#include "ChipSim/plugins/MmuReplListL2SubPortTableSimUtil.h"
#include "ChipSim/plugins/MmuReplListTableSimUtil.h"
#include "ChipSim/plugins/MmuRqeReplPortAggMapRegisterSimUtil.h"
#include "VelmarMcast/McastIpmcRemapTable.h"
#include "VelmarMcast/MmuReplHeadTable.h"
#include "VelmarMcast/MmuReplListL2SubPortTable.h"
#include "VelmarMcast/MmuReplListTable.h"
#include "VelmarMcast/MmuRqeReplPortAggMapRegister.h"

namespace ChipSim {

template <class Table>
struct SimBinding;  // a table without one cannot be bound to the chip

template <>
struct SimBinding<VelmarMcast::IngIpmcRemapTable> {
   using Util = IngIpmcRemapTableSimUtil;
   static constexpr std::string_view kMemory = "ING_IPMC_REMAP";
   static constexpr std::uint32_t kEntryWords = Util::kEntryWords;
};

template <>
struct SimBinding<VelmarMcast::MmuReplListTable> {
   using Util = MmuReplListTableSimUtil;
   static constexpr std::string_view kMemory = ReplListFormat::kMemory;
   static constexpr std::uint32_t kEntryWords = ReplListFormat::kEntryWords;
};

template <>
struct SimBinding<VelmarMcast::MmuReplListL2SubPortTable> {
   using Util = MmuReplListL2SubPortTableSimUtil;
   static constexpr std::string_view kMemory = L2SubPortFormat::kMemory;
   static constexpr std::uint32_t kEntryWords = L2SubPortFormat::kEntryWords;
};

template <>
struct SimBinding<VelmarMcast::MmuReplHeadTable> {
   using Util = MmuReplHeadTableSimUtil;
   static constexpr std::string_view kMemory = Util::kMemory;
   static constexpr std::uint32_t kEntryWords = Util::kEntryWords;
};

template <>
struct SimBinding<VelmarMcast::MmuRqeReplPortAggMapRegister> {
   using Util = MmuRqeReplPortAggMapRegisterSimUtil;
   static constexpr std::string_view kMemory = Util::kMemory;
   static constexpr std::uint32_t kEntryWords = Util::kEntryWords;
};

template <class Table>
struct SimTable {
   Asic::Ptr<Table> table;
   Asic::Ptr<SimHwTable> hw;  // the table's memory on the chip
};

// The chip's memory for the table: created with `entries` entries, or, when the chip has it
// already, taken with whatever it holds. Throws std::invalid_argument when it exists with
// another size.
template <class Table>
Asic::Ptr<SimHwTable> simMemoryIs(Chip& chip, std::uint32_t entries) {
   using Binding = SimBinding<Table>;
   return chip.tableIs(std::string(Binding::kMemory), entries, Binding::kEntryWords);
}

// A new table over the chip's memory for it (simMemoryIs), bound to `util`, or to its own
// Util for this chip when none is given, with its allocator created.
template <class Table>
SimTable<Table> simTableIs(Chip& chip, std::uint32_t entries,
                           Asic::Ptr<typename Table::Util> util = nullptr) {
   SimTable<Table> sim{Asic::swTableFactory<Table>(), simMemoryIs<Table>(chip, entries)};
   sim.table->hwTableIs(sim.hw);
   sim.table->utilIs(util ? std::move(util) : Asic::makePtr<typename SimBinding<Table>::Util>());
   sim.table->doCreateAllocator();
   return sim;
}

}  // namespace ChipSim
