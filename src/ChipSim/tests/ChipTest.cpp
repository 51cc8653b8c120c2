#include "ChipSim/Chip.h"

#include <array>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ChipSim/Memory.h"

namespace ChipSim {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using Words = std::vector<std::uint32_t>;

// Verify that a heap memory stores, reads back, clears and lists entries, and that a read
// of an invalid entry leaves the buffer alone.
TEST(HeapMemoryTest, StoresEntriesByIndex) {
   auto mem = Asic::makePtr<HeapMemory>("MEM", 8, 2);
   const std::array<std::uint32_t, 2> a{1, 2};
   const std::array<std::uint32_t, 2> b{3, 4};
   mem->write(7, a);
   mem->write(2, b);
   mem->write(2, a);

   std::array<std::uint32_t, 2> out{0xEE, 0xEE};
   EXPECT_TRUE(mem->read(2, out));
   EXPECT_EQ(out, a);
   out = {0xEE, 0xEE};
   EXPECT_FALSE(mem->read(3, out));
   EXPECT_EQ(out, (std::array<std::uint32_t, 2>{0xEE, 0xEE})) << "an invalid read must not write";

   std::vector<Asic::Index> listed;
   mem->forEachValid([&](Asic::Index i, Memory::Words w) {
      listed.push_back(i);
      EXPECT_EQ(Words(w.begin(), w.end()), Words(a.begin(), a.end())) << "entry " << i;
   });
   EXPECT_EQ(listed, (std::vector<Asic::Index>{2, 7}));

   mem->clear(7);
   mem->clear(7);  // clearing an invalid entry is harmless
   EXPECT_FALSE(mem->read(7, out));
   EXPECT_EQ(mem->validEntries(), 1u);
}

// Verify that a memory refuses an empty geometry and a read buffer of the wrong width (the
// index and entry checks are exercised through the hardware-table layer).
TEST(HeapMemoryTest, RejectsBadInput) {
   EXPECT_THROW(HeapMemory("EMPTY", 0, 1), std::invalid_argument);
   EXPECT_THROW(HeapMemory("EMPTY", 1, 0), std::invalid_argument);
   auto mem = Asic::makePtr<HeapMemory>("MEM", 4, 2);
   std::array<std::uint32_t, 1> narrow{};
   try {
      mem->read(0, narrow);
      FAIL() << "a 1-word read buffer was accepted";
   } catch (const std::invalid_argument& e) {
      EXPECT_THAT(e.what(), AllOf(HasSubstr("MEM"), HasSubstr("1 words, expected 2")));
   }
   EXPECT_THROW(mem->clear(4), std::out_of_range);
}

class ChipTest : public ::testing::Test {
 protected:
   Asic::EventLoop loop_;
   Chip chip_{loop_, 3};
};

// Verify that a table is created once per name: the same geometry gives the same table
// back, another geometry is refused with both geometries named.
TEST_F(ChipTest, TableIsCreatesOncePerName) {
   Asic::Ptr<SimHwTable> t = chip_.tableIs("MMU_REPL_LIST", 1024, 3);
   EXPECT_EQ(t->name(), "MMU_REPL_LIST");
   EXPECT_EQ(t->unit(), 3u);
   EXPECT_EQ(t->numEntries(), 1024u);
   EXPECT_EQ(t->entryWords(), 3u);
   EXPECT_EQ(chip_.tableIs("MMU_REPL_LIST", 1024, 3), t);
   EXPECT_EQ(&chip_.table("MMU_REPL_LIST"), t.get());

   try {
      chip_.tableIs("MMU_REPL_LIST", 1024, 2);
      FAIL() << "a second geometry for one table was accepted";
   } catch (const std::invalid_argument& e) {
      EXPECT_THAT(e.what(), AllOf(HasSubstr("MMU_REPL_LIST"), HasSubstr("1024 entries of 3 words"),
                                  HasSubstr("not 1024 of 2")));
   }
   EXPECT_EQ(chip_.table("MMU_REPL_LIST").entryWords(), 3u);
   EXPECT_THROW(chip_.tableIs("NO_ENTRIES", 0, 1), std::invalid_argument);
   EXPECT_FALSE(chip_.tableHas("NO_ENTRIES"));
}

// Verify that an unknown table is named in the error, and that tables list in name order.
TEST_F(ChipTest, TableLookup) {
   chip_.tableIs("ING_IPMC_REMAP", 16, 1);
   chip_.tableIs("IPMC", 16, 1);
   try {
      chip_.table("ING_IPMC");
      FAIL() << "an unknown table was found";
   } catch (const std::out_of_range& e) {
      EXPECT_THAT(e.what(), AllOf(HasSubstr("unit 3"), HasSubstr("no table ING_IPMC")));
   }
   std::vector<std::string> names;
   for (const auto& [name, table] : chip_.tables()) names.push_back(name);
   EXPECT_EQ(names, (std::vector<std::string>{"ING_IPMC_REMAP", "IPMC"}));
}

// Verify that the chip's memories come from the factory it was given.
TEST(ChipMemoryFactoryTest, UsesGivenFactory) {
   Asic::EventLoop loop;
   std::vector<std::string> made;
   Chip chip(loop, 0, [&](const std::string& name, std::uint32_t n, std::uint32_t w) {
      made.push_back(name);
      return Asic::Ptr<Memory>(Asic::makePtr<HeapMemory>(name, n, w));
   });
   auto t = chip.tableIs("T", 4, 1);
   chip.tableIs("T", 4, 1);
   EXPECT_EQ(made, std::vector<std::string>{"T"});

   Chip liar(loop, 0, [](const std::string&, std::uint32_t n, std::uint32_t w) {
      return Asic::Ptr<Memory>(Asic::makePtr<HeapMemory>("OTHER", n, w));
   });
   EXPECT_THROW(liar.tableIs("T", 4, 1), std::logic_error);
   EXPECT_FALSE(liar.tableHas("T"));
}

}  // namespace
}  // namespace ChipSim
