#pragma once
// The port aggregation register's Util for the simulated chip. MMU_RQE_REPL_PORT_AGG_MAP,
// 5 words per index: member ports 0..159, word 0 holding ports 0..31. A bitmap with a port
// beyond 159 is refused (std::invalid_argument naming the port), never cut; a bitmap read
// back is always 160 ports wide.

#include <array>
#include <cstdint>
#include <span>

#include "VelmarMcast/MmuRqeReplPortAggMapRegister.h"

namespace ChipSim {

class MmuRqeReplPortAggMapRegisterSimUtil : public VelmarMcast::MmuRqeReplPortAggMapRegisterUtil {
 public:
   using Table = VelmarMcast::MmuRqeReplPortAggMapRegister;
   using Entry = VelmarMcast::MmuRqeReplPortAggMapRegisterEntry;
   static constexpr char kMemory[] = "MMU_RQE_REPL_PORT_AGG_MAP";
   static constexpr std::uint32_t kPorts = 160;
   static constexpr std::uint32_t kEntryWords = kPorts / 32;
   using Words = std::array<std::uint32_t, kEntryWords>;

   MmuRqeReplPortAggMapRegisterSimUtil()
       : MmuRqeReplPortAggMapRegisterUtil("MmuRqeReplPortAggMapRegisterSimUtil") {}

   static Words encode(const Entry& entry);
   static Entry decode(std::span<const std::uint32_t> words);

   void entryValidate(const Entry& entry) const override { (void)encode(entry); }
   void hwTableEntryIs(Table& table, Asic::Index hwIndex, const Asic::Index& key) override;
   void hwTableEntryDel(Table& table, Asic::Index hwIndex) override;
   bool compareHwEntries(Table& table, Asic::Index hwIndex, const Entry& entry) override;
   void syncEntries(Asic::HwTable* hwTable, Table& table) override;
};

}  // namespace ChipSim
