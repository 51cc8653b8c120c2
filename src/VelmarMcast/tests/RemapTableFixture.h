#pragma once
// A remap table bound to a simulated chip's remap memory, with its Util, its allocator and
// an event loop that delivers write responses. Assertions throw instead of aborting.

#include <array>
#include <vector>

#include <gtest/gtest.h>

#include "Asic/Assert.h"
#include "Asic/EventLoop.h"
#include "ChipSim/Chip.h"
#include "ChipSim/plugins/IngIpmcRemapTableSimUtil.h"
#include "ChipSim/plugins/SimTableRig.h"
#include "VelmarMcast/McastIpmcRemapTable.h"
#include "VelmarMcast/VelmarMcastTestEntryHandle.h"

namespace VelmarMcast::Testing {

using State = Asic::SwTableBase::EntryState;
using EntryType = Asic::SwTable::EntryHandle::EntryType;
using Entry = IngIpmcRemapTable::Entry;
using Key = VelmarL3Common::L3IpmcKey;

inline Key groupKey(std::uint32_t n) { return Key{0xEF000000u + n, 0}; }

// What an assertion inside `fn` reports; "no assertion" as expression when there is none.
template <typename F>
Asic::AssertionInfo assertionOf(F&& fn) {
   try {
      fn();
   } catch (const Asic::AssertionError& e) {
      return e.info();
   }
   Asic::AssertionInfo none;
   none.expression = "no assertion";
   return none;
}

// Records every state a client's write-response function is called with.
struct CallbackLog {
   std::vector<State> states;
   Asic::WriteResponseFn fn() {
      return [this](State s) { states.push_back(s); };
   }
   std::size_t count(State s) const { return std::count(states.begin(), states.end(), s); }
};

class RemapTableFixture : public ::testing::Test {
 protected:
   void SetUp() override { tableIs(entries_); }
   void TearDown() override {
      if (table_) table_->cleanup();
      table_.reset();
      Asic::Detail::publishEntryHandleProgrammedStateIs(std::nullopt);
   }

   // A fresh table over the chip's remap memory (which keeps whatever it holds): the old
   // table goes as an exiting agent's would, leaving the chip as it is.
   void tableIs(std::uint32_t entries) {
      if (table_) {
         table_->detachFromChip();
         table_->cleanup();
      }
      auto sim = ChipSim::simTableIs<IngIpmcRemapTable>(chip_, entries);
      hw_ = std::move(sim.hw);
      table_ = std::move(sim.table);
   }

   // The remap word at an index, or nothing when the entry is not valid.
   std::optional<Entry> hwEntry(Asic::Index index) const {
      std::array<std::uint32_t, 1> words{};
      if (!hw_->entryRead(index, words)) return std::nullopt;
      return ChipSim::IngIpmcRemapTableSimUtil::decode(words);
   }

   Entry remapTo(const Asic::Ptr<VelmarMcastTestEntryHandle>& target, std::uint8_t profile,
                 Asic::WriteResponseFn fn = {}) {
      return Entry(target, profile, std::move(fn));
   }

   std::uint32_t entries_ = 4096;  // size of the chip's remap memory (set before SetUp)
   Asic::ScopedAssertThrow asserts_;
   Asic::EventLoop loop_;
   ChipSim::Chip chip_{loop_, 0};
   Asic::Ptr<ChipSim::SimHwTable> hw_;
   Asic::Ptr<IngIpmcRemapTable> table_;
};

}  // namespace VelmarMcast::Testing
