#include "ChipSim/MappedMemory.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Asic/EventLoop.h"
#include "ChipSim/Chip.h"
#include "ChipSim/ScratchDir.h"

namespace ChipSim {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::HasSubstr;
using Words = std::vector<std::uint32_t>;
using Contents = std::map<Asic::Index, Words>;

constexpr const char* kName = "MMU_REPL_LIST";

using TempDir = ChipSim::ScratchDir;

Contents contentsOf(const Memory& mem) {
   Contents c;
   mem.forEachValid([&](Asic::Index i, Memory::Words w) {
      EXPECT_TRUE(c.empty() || c.rbegin()->first < i) << "entry " << i << " listed out of order";
      c.emplace(i, Words(w.begin(), w.end()));
   });
   return c;
}

Words entry(std::uint32_t seed, std::uint32_t width) {
   Words w;
   for (std::uint32_t k = 0; k < width; ++k) w.push_back(seed * 0x10001u + k);
   return w;
}

void patch(const fs::path& file, off_t offset, const std::string& bytes) {
   int fd = ::open(file.c_str(), O_WRONLY);
   ASSERT_GE(fd, 0);
   ASSERT_EQ(::pwrite(fd, bytes.data(), bytes.size(), offset), ssize_t(bytes.size()));
   ::close(fd);
}

// Verify that entries written through one mapping are seen by another on the same file at
// once, and by a new one after both are gone, including overwrites and clears.
TEST(MappedMemoryTest, RoundTripAcrossMappings) {
   TempDir dir;
   Contents expected;
   {
      auto a = Asic::makePtr<MappedMemory>(dir.path(), kName, 64, 3);
      EXPECT_EQ(a->path(), dir.path() / "MMU_REPL_LIST.mem");
      EXPECT_TRUE(fs::is_regular_file(a->path()));
      EXPECT_EQ(a->validEntries(), 0u) << "a new file is a cold memory";

      a->write(5, entry(1, 3));
      a->write(63, entry(2, 3));
      a->write(0, entry(3, 3));
      a->write(5, entry(4, 3));  // overwrites take turns between the entry's slots
      a->write(5, entry(5, 3));
      a->clear(63);
      a->clear(10);
      expected = {{0, entry(3, 3)}, {5, entry(5, 3)}};

      auto b = Asic::makePtr<MappedMemory>(dir.path(), kName, 64, 3);
      EXPECT_EQ(contentsOf(*b), expected);
      a->write(7, entry(6, 3));
      expected[7] = entry(6, 3);
      Words out(3, 0xEE);
      EXPECT_TRUE(b->read(7, out));
      EXPECT_EQ(out, entry(6, 3)) << "a shared mapping shows another's write at once";
      a->flush();
   }
   auto c = Asic::makePtr<MappedMemory>(dir.path(), kName, 64, 3);
   EXPECT_EQ(contentsOf(*c), expected);
   Words out(3, 0xEE);
   EXPECT_FALSE(c->read(63, out));
   EXPECT_EQ(out, Words(3, 0xEE)) << "an invalid read must not write";

   EXPECT_EQ(contentsOf(*MappedMemory::existing(dir.path() / "MMU_REPL_LIST.mem")), expected);
}

// Verify that the words of a write whose commit never happened (its process killed between
// copying the words and storing the state byte) do not show: an overwritten entry reads old.
TEST(MappedMemoryTest, UncommittedWordsDoNotShow) {
   TempDir dir;
   {
      auto mem = Asic::makePtr<MappedMemory>(dir.path(), kName, 64, 3);
      mem->write(5, entry(1, 3));  // slot 0
      mem->write(5, entry(2, 3));  // slot 1; the next write would fill slot 0
   }
   // 64 entries of 3 words named MMU_REPL_LIST: words from byte 192, entry 5 slot 0 at 312.
   const Words torn = entry(3, 3);
   patch(MappedMemory::fileFor(dir.path(), kName), 312,
         std::string(reinterpret_cast<const char*>(torn.data()), 8));
   EXPECT_EQ(contentsOf(*Asic::makePtr<MappedMemory>(dir.path(), kName, 64, 3)),
             (Contents{{5, entry(2, 3)}}));
}

// Verify that a big memory lists its few entries in order, across the eight-state groups
// the scan skips and the odd tail past the last full group.
TEST(MappedMemoryTest, ListsFewEntriesOfABigMemory) {
   TempDir dir;
   constexpr std::uint32_t n = 1'000'003;
   const std::vector<Asic::Index> indices{n - 1, 500'000, 9, 0, 64, n - 2, 7, 63, 8, n - 4};
   Contents expected;
   {
      auto mem = Asic::makePtr<MappedMemory>(dir.path(), kName, n, 2);
      for (Asic::Index i : indices) {
         mem->write(i, entry(i, 2));
         expected[i] = entry(i, 2);
      }
   }
   EXPECT_EQ(contentsOf(*Asic::makePtr<MappedMemory>(dir.path(), kName, n, 2)), expected);
}

// Verify that a file that is not this memory as written is refused, the error naming the
// file and what differs, and that the file is left as it was found.
TEST(MappedMemoryTest, RefusesFilesNotMatchingTheMemory) {
   using Spoil = std::function<void(const fs::path&)>;
   struct Case {
      const char* what;
      std::string reason;
      Spoil spoil = [](const fs::path&) {};
      std::string openAs = kName;
      std::uint32_t entries = 64;
      std::uint32_t words = 3;
   };
   auto patchAt = [](off_t at, std::string bytes) -> Spoil {
      return [=](const fs::path& f) { patch(f, at, bytes); };
   };
   auto resizeTo = [](std::function<std::uintmax_t(std::uintmax_t)> size) -> Spoil {
      return [=](const fs::path& f) { fs::resize_file(f, size(fs::file_size(f))); };
   };
   // 64 entries of 3 words named MMU_REPL_LIST: the states start at byte 128.
   const std::vector<Case> cases{
       {.what = "more entries",
        .reason = "holds 64 entries of 3 words, not 128 of 3",
        .entries = 128},
       {.what = "other width", .reason = "not 64 of 2", .words = 2},
       {.what = "other memory",
        .reason = "holds memory MMU_REPL_LIST, not OTHER",
        .spoil = [](const fs::path& f) { fs::copy_file(f, f.parent_path() / "OTHER.mem"); },
        .openAs = "OTHER"},
       {.what = "no magic", .reason = "not a chip memory file", .spoil = patchAt(0, "NOTCHIPS")},
       {.what = "other version",
        .reason = "format version 2, this build reads version 1",
        .spoil = patchAt(8, std::string("\x02\0\0\0", 4))},
       {.what = "corrupt header",
        .reason = "corrupt header: checksum mismatch",
        .spoil = patchAt(16, "\x41")},
       {.what = "corrupt state",
        .reason = "corrupt entry 3: state 7",
        .spoil = patchAt(131, "\x07")},
       {.what = "truncated", .reason = "truncated", .spoil = resizeTo([](auto n) {
                                                       return n / 2;
                                                    })},
       {.what = "truncated header", .reason = "truncated: 10 bytes", .spoil = resizeTo([](auto) {
                                                                        return 10;
                                                                     })},
       {.what = "empty", .reason = "truncated: 0 bytes", .spoil = resizeTo([](auto) { return 0; })},
       {.what = "too long", .reason = "longer than", .spoil = resizeTo([](auto n) {
                                                        return n + 4;
                                                     })},
       {.what = "directory",
        .reason = "Is a directory",
        .spoil =
            [](const fs::path& f) {
               fs::remove(f);
               fs::create_directory(f);
            }},
   };
   for (const Case& c : cases) {
      SCOPED_TRACE(c.what);
      TempDir dir;
      const fs::path file = MappedMemory::fileFor(dir.path(), c.openAs);
      Asic::makePtr<MappedMemory>(dir.path(), kName, 64, 3)->write(1, entry(1, 3));
      c.spoil(MappedMemory::fileFor(dir.path(), kName));
      const auto sizeBefore = fs::is_regular_file(file) ? fs::file_size(file) : 0;
      try {
         Asic::makePtr<MappedMemory>(dir.path(), c.openAs, c.entries, c.words);
         ADD_FAILURE() << "the file was accepted";
      } catch (const std::runtime_error& e) {
         EXPECT_THAT(e.what(), AllOf(HasSubstr(file.string()), HasSubstr(c.reason)));
      }
      if (fs::is_regular_file(file)) {
         EXPECT_EQ(fs::file_size(file), sizeBefore) << "a refused file must be left alone";
      }
   }

   // A reader that takes the geometry from the file still checks the file holds its name.
   TempDir dir;
   Asic::makePtr<MappedMemory>(dir.path(), kName, 4, 1);
   fs::copy_file(dir.path() / "MMU_REPL_LIST.mem", dir.path() / "X.mem");
   EXPECT_THAT([&] { MappedMemory::existing(dir.path() / "X.mem"); },
               ::testing::ThrowsMessage<std::runtime_error>(
                   AllOf(HasSubstr("X.mem"), HasSubstr("holds memory MMU_REPL_LIST"))));
}

// Verify that names that would leave the directory, and directories that are files, are
// refused naming them.
TEST(MappedMemoryTest, RejectsBadArguments) {
   TempDir dir;
   for (const char* name : {"", ".", "..", "A/B"}) {
      EXPECT_THROW(MappedMemory::fileFor(dir.path(), name), std::invalid_argument) << name;
   }
   EXPECT_THAT([&] { Asic::makePtr<MappedMemory>(dir.path() / "absent", kName, 4, 1); },
               ::testing::ThrowsMessage<std::runtime_error>(
                   AllOf(HasSubstr("absent/MMU_REPL_LIST.mem"), HasSubstr("cannot create"))));
   const fs::path file = dir.path() / "file";
   Asic::makePtr<MappedMemory>(dir.path(), "file", 4, 1);
   fs::rename(dir.path() / "file.mem", file);
   EXPECT_THAT([&] { mappedMemories(file); },
               ::testing::ThrowsMessage<std::invalid_argument>(
                   HasSubstr(file.string() + ": exists and is not")));
   EXPECT_THROW(chipHoldsEntries(file), std::invalid_argument);
}

// Verify that a process killed between two writes leaves the chip with exactly the writes
// and clears it made before it died, overwrites of valid entries included, for a new chip
// object to find; and that the cold/warm test follows the entries.
TEST(MappedChipTest, SurvivesProcessKilledBetweenWrites) {
   TempDir tmp;
   const fs::path dir = tmp.path() / "unit0";
   struct Op {
      Asic::Index index;
      std::optional<Words> words;  // none: clear
   };
   std::vector<Op> ops;
   for (Asic::Index i = 0; i < 10; ++i) ops.push_back({i, entry(100 + i, 3)});
   const std::size_t beforeFork = ops.size();
   for (Asic::Index i = 0; i < 5; ++i) ops.push_back({i, entry(200 + i, 3)});
   ops.push_back({5, std::nullopt});
   ops.push_back({6, std::nullopt});
   for (Asic::Index i = 20; i < 30; ++i) ops.push_back({i, entry(300 + i, 3)});
   const std::size_t killedAt = beforeFork + 12;  // the child plans more than it makes
   ASSERT_LT(killedAt, ops.size());

   auto apply = [&](SimHwTable& hw, std::size_t from, std::size_t to) {
      for (std::size_t j = from; j < to; ++j) {
         if (ops[j].words) {
            hw.entryWrite(ops[j].index, *ops[j].words);
         } else {
            hw.entryClear(ops[j].index);
         }
      }
   };
   EXPECT_FALSE(chipHoldsEntries(dir)) << "no directory is a cold chip";
   Asic::EventLoop loop;
   {
      Chip chip(loop, 0, mappedMemories(dir));
      auto hw = chip.tableIs(kName, 4096, 3);
      EXPECT_FALSE(chipHoldsEntries(dir)) << "empty memories are a cold chip";
      apply(*hw, 0, beforeFork);
   }

   const pid_t child = ::fork();
   ASSERT_GE(child, 0);
   if (child == 0) {
      try {
         Asic::EventLoop childLoop;
         Chip chip(childLoop, 0, mappedMemories(dir));
         auto hw = chip.tableIs(kName, 4096, 3);
         apply(*hw, beforeFork, killedAt);
         ::raise(SIGKILL);
         apply(*hw, killedAt, ops.size());
      } catch (...) {
         ::_exit(2);
      }
      ::_exit(3);
   }
   int status = 0;
   ASSERT_EQ(::waitpid(child, &status, 0), child);
   ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "status " << status;

   Contents expected;
   for (std::size_t j = 0; j < killedAt; ++j) {
      if (ops[j].words) {
         expected[ops[j].index] = *ops[j].words;
      } else {
         expected.erase(ops[j].index);
      }
   }
   EXPECT_TRUE(chipHoldsEntries(dir));
   Chip chip(loop, 0, mappedMemories(dir));
   auto hw = chip.tableIs(kName, 4096, 3);
   EXPECT_EQ(contentsOf(hw->memory()), expected);
   for (const auto& [index, words] : expected) hw->entryClear(index);
   EXPECT_FALSE(chipHoldsEntries(dir));
}

}  // namespace
}  // namespace ChipSim
