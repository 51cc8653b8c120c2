#pragma once
// A chip memory kept in a file-backed shared mapping, so that the chip outlives the agent
// process: a new process that maps the same chip directory finds every table as the last
// one left it, also when that one was killed with SIGKILL. Writes go to the mapping only;
// the kernel's page cache holds MAP_SHARED stores once they are made, so process death
// loses nothing and no msync is needed for it. flush() msyncs for durability across a
// machine crash and is never called on the write path.
//
// One file per memory, "<dir>/<name>.mem", in native byte order (a chip directory is not
// meant to move between machines):
//
//   [0, 64)               header: magic "CHIPSIMM", format version, header bytes, entries,
//                         words per entry, slots per entry (2), name length, offsets of
//                         the states and the words, file size, and a checksum (64-bit
//                         FNV-1a of everything before the states, the checksum field read
//                         as zero)
//   [64, 64 + name)       the memory's name, so a file copied under another name is refused
//   [states, +entries)    one state byte per entry: 0 invalid, 1 valid in slot 0, 2 valid
//                         in slot 1; padded to 64 bytes
//   [words, end)          two slots of entryWords words per entry, entry i slot k at word
//                         (2 * i + k) * entryWords
//
// Write ordering: a write copies the words into the slot the entry is not using, then
// stores the state byte naming that slot (a release store); the single byte store is the
// commit. A process killed anywhere in a write therefore leaves the entry old or new,
// never a mix, even when it overwrites a valid entry in place. A clear stores state 0.
//
// One process writes a chip directory at a time; nothing locks it. Another process may
// read it (a show tool) and sees each entry old or new unless the writer rewrites that
// same entry twice while the read copies it.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>

#include "Asic/RefCounted.h"
#include "ChipSim/Chip.h"
#include "ChipSim/Memory.h"

namespace ChipSim {

class MappedMemory final : public Memory {
 public:
   static constexpr std::uint32_t kFormatVersion = 1;

   // shared: writes reach the file (the chip). copyOnWrite: the file is opened read-only
   // and mapped privately, so writes stay in this process and the file keeps every byte
   // (a dry run sees the chip as its own writes leave it; nobody else does).
   enum class Sharing : std::uint8_t { shared, copyOnWrite };

   // Maps fileFor(dir, name). An absent file is created with every entry invalid (a cold
   // chip); a present one must hold this memory with this geometry. Throws
   // std::invalid_argument for a name that cannot be a file name or an empty geometry, and
   // std::runtime_error naming the file and what differs for a file it refuses (not a
   // memory file, another format version, another memory or geometry, a corrupt header,
   // truncated or too long) or cannot create or map.
   // A copyOnWrite memory is never created: its file must exist.
   MappedMemory(const std::filesystem::path& dir, std::string name, std::uint32_t numEntries,
                std::uint32_t entryWords, Sharing sharing = Sharing::shared);
   // Maps an existing memory file with the name and geometry its header records: for
   // readers of a chip directory that do not know its tables. Refuses a file as above.
   static Asic::Ptr<MappedMemory> existing(const std::filesystem::path& file);
   ~MappedMemory() override = default;
   MappedMemory(const MappedMemory&) = delete;
   MappedMemory& operator=(const MappedMemory&) = delete;

   static std::filesystem::path fileFor(const std::filesystem::path& dir, const std::string& name);
   const std::filesystem::path& path() const noexcept { return path_; }

   // Writes the mapping back to the file and waits (msync). Throws std::runtime_error naming
   // the file when that fails.
   void flush() const;

 private:
   // The file's mapping, unmapped when dropped.
   class Mapping {
    public:
      Mapping() = default;
      Mapping(std::byte* base, std::size_t bytes) noexcept : base_(base), bytes_(bytes) {}
      Mapping(Mapping&& o) noexcept
          : base_(std::exchange(o.base_, nullptr)), bytes_(std::exchange(o.bytes_, 0)) {}
      Mapping& operator=(Mapping&& o) noexcept {
         std::swap(base_, o.base_);
         std::swap(bytes_, o.bytes_);
         return *this;
      }
      ~Mapping();
      std::byte* base() const noexcept { return base_; }
      std::size_t bytes() const noexcept { return bytes_; }

    private:
      std::byte* base_ = nullptr;
      std::size_t bytes_ = 0;
   };
   struct Expected;  // what the caller asks the file to hold
   struct Opened;    // a validated mapping and what the file holds
   static Opened open(const std::filesystem::path& path, const Expected* expected,
                      Sharing sharing = Sharing::shared);
   static Opened validate(int fd, const std::filesystem::path& path, const Expected* expected,
                          Sharing sharing);
   static int create(const std::filesystem::path& path, const Expected& expected);

   MappedMemory(std::filesystem::path path, Opened opened);
   void attach(Opened opened) noexcept;

   bool doRead(Asic::Index index, std::span<std::uint32_t> out) const override;
   void doWrite(Asic::Index index, Words words) override;
   void doClear(Asic::Index index) override;
   void doForEachValid(const Visitor& fn) const override;

   std::uint32_t* slot(Asic::Index index, std::uint8_t state) const noexcept {
      return words_ + (std::size_t(index) * 2 + (state - 1u)) * entryWords();
   }

   std::filesystem::path path_;
   Mapping mapping_;
   std::uint8_t* states_ = nullptr;  // in the mapping
   std::uint32_t* words_ = nullptr;  // in the mapping
};

// A Chip memory factory whose memories are files under `dir`, created when absent: a chip
// that outlives the process. Throws std::invalid_argument when `dir` exists and is not a
// directory, std::runtime_error when it cannot be created.
Chip::MemoryFactory mappedMemories(std::filesystem::path dir);

// A Chip memory factory over the files under `dir` that writes none of them: each memory
// file present is mapped copy-on-write, each one absent (or the whole directory) is an
// empty memory in the heap. Nothing is created. Throws like MappedMemory for a file it
// refuses.
Chip::MemoryFactory copyOnWriteMemories(std::filesystem::path dir);

// Whether any memory file under `dir` holds a valid entry: false for a cold chip (no
// directory, no memory files, or only empty memories). Throws like MappedMemory::existing
// for a file it refuses.
bool chipHoldsEntries(const std::filesystem::path& dir);

}  // namespace ChipSim
