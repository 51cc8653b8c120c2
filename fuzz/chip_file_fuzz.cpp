// Bytes as a chip memory file, "<dir>/<NAME>.mem", opened by a reader that knows nothing of
// the chip (MappedMemory::existing). It refuses the file (std::runtime_error, or
// std::invalid_argument for a name that is no file name) or maps a memory that reads every
// index, visits exactly its valid entries, and writes and clears like any memory.
//
// The first input byte steers, the rest is the file:
//   bit 0  recompute the header checksum, so that mutations of the header reach the checks
//          behind it instead of stopping at the checksum
//   bit 1  name the file after the memory the header names (when that is a file name), so
//          that the name check passes

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "ChipSim/MappedMemory.h"
#include "FuzzSupport.h"

namespace {

namespace fs = std::filesystem;

// Header fields the steering touches (offsets in the 64-byte header).
constexpr std::size_t kHeaderBytes = 64;
constexpr std::size_t kNameBytesAt = 28;
constexpr std::size_t kChecksumAt = 56;

// Removed at exit. Never destroyed: exit handlers registered before a static's
// construction ends run after its destructor.
const fs::path& scratchDir() {
   static const fs::path* dir = [] {
      const char* tmp = std::getenv("TMPDIR");
      std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/chip_file_fuzz.XXXXXX";
      if (!::mkdtemp(pattern.data())) Fuzz::fail("cannot create a scratch directory");
      std::atexit([] {
         std::error_code ec;
         fs::remove_all(scratchDir(), ec);
      });
      return new fs::path(pattern);
   }();
   return *dir;
}

std::uint32_t u32At(const std::vector<std::uint8_t>& file, std::size_t at) {
   std::uint32_t v = 0;
   std::memcpy(&v, file.data() + at, sizeof v);
   return v;
}

// 64-bit FNV-1a over the header block (header, name, padding to 64 bytes), the checksum
// field read as zero: as the chip writes it.
void fixChecksum(std::vector<std::uint8_t>& file) {
   if (file.size() < kHeaderBytes) return;
   const std::uint32_t nameBytes = u32At(file, kNameBytesAt);
   if (nameBytes > 255) return;
   const std::size_t block = (kHeaderBytes + nameBytes + 63) / 64 * 64;
   if (file.size() < block) return;
   std::uint64_t h = 14695981039346656037ull;
   for (std::size_t i = 0; i < block; ++i) {
      const bool inField = i >= kChecksumAt && i < kChecksumAt + 8;
      h ^= inField ? 0u : file[i];
      h *= 1099511628211ull;
   }
   std::memcpy(file.data() + kChecksumAt, &h, sizeof h);
}

// The memory name the header records, when it can be a file name.
std::string headerName(const std::vector<std::uint8_t>& file) {
   if (file.size() < kHeaderBytes) return {};
   const std::uint32_t nameBytes = u32At(file, kNameBytesAt);
   if (nameBytes == 0 || nameBytes > 200 || file.size() < kHeaderBytes + nameBytes) return {};
   std::string name(reinterpret_cast<const char*>(file.data() + kHeaderBytes), nameBytes);
   if (name == "." || name == ".." || name.find_first_of(std::string("/\0", 2)) != name.npos) {
      return {};
   }
   return name;
}

void checkMemory(ChipSim::Memory& memory) {
   const std::uint32_t n = memory.numEntries();
   const std::uint32_t width = memory.entryWords();
   FUZZ_CHECK(n > 0 && width > 0, "mapped an empty geometry: {} x {}", n, width);

   std::vector<std::vector<std::uint32_t>> visited(n);
   std::vector<bool> valid(n, false);
   std::int64_t last = -1;
   memory.forEachValid([&](Asic::Index index, ChipSim::Memory::Words words) {
      FUZZ_CHECK(index < n && std::int64_t(index) > last, "visit of index {} after {} (of {})",
                 index, last, n);
      FUZZ_CHECK(words.size() == width, "entry {} of {} words, not {}", index, words.size(), width);
      last = index;
      valid[index] = true;
      visited[index].assign(words.begin(), words.end());
   });
   std::uint32_t count = 0;
   std::vector<std::uint32_t> out(width);
   for (std::uint32_t i = 0; i < n; ++i) {
      const bool read = memory.read(i, out);
      FUZZ_CHECK(read == valid[i], "read of entry {} says valid={}, the visit {}", i, read,
                 bool(valid[i]));
      if (read) {
         FUZZ_CHECK(out == visited[i], "entry {} reads other words than visited", i);
         ++count;
      }
   }
   FUZZ_CHECK(memory.validEntries() == count, "{} valid entries counted, {} visited",
              memory.validEntries(), count);
   try {
      (void)memory.read(n, out);
      Fuzz::fail(fmt::format("entry {} read past the end", n));
   } catch (const std::out_of_range&) {
   }

   // The mapping is the memory: a write reads back, and a clear leaves it invalid.
   const Asic::Index at = n - 1;
   std::vector<std::uint32_t> words(width);
   for (std::uint32_t w = 0; w < width; ++w) words[w] = 0x9E3779B9u * (w + 1);
   memory.write(at, words);
   FUZZ_CHECK(memory.read(at, out) && out == words, "entry {} does not read back its write", at);
   memory.clear(at);
   FUZZ_CHECK(!memory.read(at, out), "entry {} still valid after a clear", at);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
   if (size == 0) return 0;
   const std::uint8_t steer = data[0];
   std::vector<std::uint8_t> file(data + 1, data + size);
   if (steer & 1) fixChecksum(file);
   std::string name = (steer & 2) ? headerName(file) : std::string();
   if (name.empty()) name = "FUZZ";
   const fs::path path = scratchDir() / (name + ".mem");
   {
      std::ofstream out(path, std::ios::binary | std::ios::trunc);
      out.write(reinterpret_cast<const char*>(file.data()), std::streamsize(file.size()));
      if (!out) Fuzz::fail(fmt::format("cannot write {}", path.string()));
   }
   {
      Asic::Ptr<ChipSim::MappedMemory> memory;
      try {
         memory = ChipSim::MappedMemory::existing(path);
      } catch (const std::runtime_error&) {
      } catch (const std::invalid_argument&) {
      }
      if (memory) {
         FUZZ_CHECK(memory->path() == path && memory->name() == name, "{} maps memory {} as {}",
                    path.string(), memory->name(), memory->path().string());
         checkMemory(*memory);
      }
   }
   fs::remove(path);
   return 0;
}
