#include "ChipSim/MappedMemory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <limits>
#include <optional>
#include <span>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <vector>

#include <fmt/format.h>

namespace ChipSim {
namespace fs = std::filesystem;
namespace {

constexpr std::array<char, 8> kMagic{'C', 'H', 'I', 'P', 'S', 'I', 'M', 'M'};
constexpr std::uint32_t kSlots = 2;
constexpr std::uint64_t kAlign = 64;
constexpr std::uint32_t kMaxNameBytes = 255;  // a file name's limit
constexpr std::string_view kSuffix = ".mem";

struct Header {
   std::array<char, 8> magic;
   std::uint32_t version;
   std::uint32_t headerBytes;
   std::uint32_t numEntries;
   std::uint32_t entryWords;
   std::uint32_t slotsPerEntry;
   std::uint32_t nameBytes;
   std::uint64_t statesOffset;
   std::uint64_t wordsOffset;
   std::uint64_t fileBytes;
   std::uint64_t checksum;
};
static_assert(sizeof(Header) == 64 && std::is_trivially_copyable_v<Header>);

struct Layout {
   std::uint64_t statesOffset;
   std::uint64_t wordsOffset;
   std::uint64_t fileBytes;
};

constexpr std::uint64_t alignUp(std::uint64_t n) { return (n + kAlign - 1) / kAlign * kAlign; }

// Where everything lives for this geometry; nullopt when the file would be too big to map.
std::optional<Layout> layoutFor(std::uint32_t nameBytes, std::uint32_t numEntries,
                                std::uint32_t entryWords) {
   Layout l{};
   l.statesOffset = alignUp(sizeof(Header) + nameBytes);
   l.wordsOffset = alignUp(l.statesOffset + numEntries);
   constexpr std::uint64_t limit = std::min<std::uint64_t>(std::numeric_limits<off_t>::max(),
                                                           std::numeric_limits<std::size_t>::max());
   const std::uint64_t perEntry = std::uint64_t(entryWords) * kSlots * sizeof(std::uint32_t);
   if (numEntries != 0 && perEntry > (limit - l.wordsOffset) / numEntries) return std::nullopt;
   l.fileBytes = l.wordsOffset + perEntry * numEntries;
   return l;
}

// 64-bit FNV-1a of the header block (header, name, padding) with the checksum field as zero.
std::uint64_t checksumOf(std::span<const std::byte> block) {
   constexpr std::size_t at = offsetof(Header, checksum);
   std::uint64_t h = 14695981039346656037ull;
   for (std::size_t i = 0; i < block.size(); ++i) {
      const bool inField = i >= at && i < at + sizeof(Header::checksum);
      h ^= inField ? 0u : std::uint64_t(block[i]);
      h *= 1099511628211ull;
   }
   return h;
}

[[noreturn]] void refuse(const fs::path& path, std::string_view reason) {
   throw std::runtime_error(fmt::format("chip memory file {}: {}", path.string(), reason));
}

[[noreturn]] void failed(const fs::path& path, std::string_view what, int err) {
   refuse(path, fmt::format("{}: {}", what, std::system_category().message(err)));
}

class Fd {
 public:
   explicit Fd(int fd = -1) noexcept : fd_(fd) {}
   Fd(Fd&& o) noexcept : fd_(std::exchange(o.fd_, -1)) {}
   Fd& operator=(Fd&& o) noexcept {
      std::swap(fd_, o.fd_);
      return *this;
   }
   ~Fd() {
      if (fd_ >= 0) ::close(fd_);
   }
   int get() const noexcept { return fd_; }
   int release() noexcept { return std::exchange(fd_, -1); }
   explicit operator bool() const noexcept { return fd_ >= 0; }

 private:
   int fd_;
};

void readAt(int fd, const fs::path& path, void* out, std::size_t bytes, std::uint64_t offset) {
   auto* p = static_cast<char*>(out);
   while (bytes > 0) {
      ssize_t n = ::pread(fd, p, bytes, off_t(offset));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) failed(path, "cannot read", errno);
      if (n == 0) refuse(path, "truncated while reading its header");
      p += n;
      bytes -= std::size_t(n);
      offset += std::uint64_t(n);
   }
}

void writeAt(int fd, const fs::path& path, const void* in, std::size_t bytes) {
   auto* p = static_cast<const char*>(in);
   off_t offset = 0;
   while (bytes > 0) {
      ssize_t n = ::pwrite(fd, p, bytes, offset);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) failed(path, "cannot write its header", errno);
      p += n;
      bytes -= std::size_t(n);
      offset += n;
   }
}

}  // namespace

struct MappedMemory::Expected {
   std::string_view name;
   std::uint32_t numEntries;
   std::uint32_t entryWords;
};

struct MappedMemory::Opened {
   Mapping mapping;
   std::string name;
   std::uint32_t numEntries;
   std::uint32_t entryWords;
   std::uint64_t statesOffset;
   std::uint64_t wordsOffset;
};

MappedMemory::Mapping::~Mapping() {
   if (base_) ::munmap(base_, bytes_);
}

fs::path MappedMemory::fileFor(const fs::path& dir, const std::string& name) {
   // The name becomes a file name: it must stay one, inside `dir`.
   if (name.empty() || name == "." || name == ".." ||
       name.find_first_of(std::string_view("/\0", 2)) != std::string::npos ||
       name.size() + kSuffix.size() > kMaxNameBytes) {
      throw std::invalid_argument(
          fmt::format("chip memory '{}': not usable as a file name under {}", name, dir.string()));
   }
   return dir / (name + std::string(kSuffix));
}

MappedMemory::MappedMemory(const fs::path& dir, std::string name, std::uint32_t numEntries,
                           std::uint32_t entryWords, Sharing sharing)
    : Memory(std::move(name), numEntries, entryWords), path_(fileFor(dir, this->name())) {
   const Expected expected{this->name(), numEntries, entryWords};
   attach(open(path_, &expected, sharing));
}

MappedMemory::MappedMemory(fs::path path, Opened opened)
    : Memory(opened.name, opened.numEntries, opened.entryWords), path_(std::move(path)) {
   attach(std::move(opened));
}

Asic::Ptr<MappedMemory> MappedMemory::existing(const fs::path& file) {
   Opened opened = open(file, nullptr);
   if (file.filename() != fileFor({}, opened.name).filename()) {
      refuse(file, fmt::format("holds memory {}, which belongs in {}{}", opened.name, opened.name,
                               kSuffix));
   }
   return Asic::Ptr<MappedMemory>(new MappedMemory(file, std::move(opened)));
}

void MappedMemory::attach(Opened opened) noexcept {
   mapping_ = std::move(opened.mapping);
   states_ = reinterpret_cast<std::uint8_t*>(mapping_.base() + opened.statesOffset);
   words_ = reinterpret_cast<std::uint32_t*>(mapping_.base() + opened.wordsOffset);
}

MappedMemory::Opened MappedMemory::open(const fs::path& path, const Expected* expected,
                                        Sharing sharing) {
   if (sharing == Sharing::copyOnWrite) {
      Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
      if (!fd) failed(path, "cannot open", errno);
      return validate(fd.get(), path, expected, sharing);
   }
   Fd fd(::open(path.c_str(), O_RDWR | O_CLOEXEC));
   if (!fd && errno == ENOENT && expected) {
      fd = Fd(create(path, *expected));
      if (!fd) fd = Fd(::open(path.c_str(), O_RDWR | O_CLOEXEC));  // another process won
   }
   if (!fd) failed(path, "cannot open", errno);
   return validate(fd.get(), path, expected, sharing);
}

// A cold memory is made under a temporary name and linked into place whole, so that a
// process killed while creating it never leaves a file without its header behind.
// Returns -1 when another process linked the file first.
int MappedMemory::create(const fs::path& path, const Expected& expected) {
   const auto nameBytes = std::uint32_t(expected.name.size());
   const std::optional<Layout> layout =
       layoutFor(nameBytes, expected.numEntries, expected.entryWords);
   if (!layout) {
      throw std::invalid_argument(
          fmt::format("chip memory {}: {} entries of {} words do not fit in a file", expected.name,
                      expected.numEntries, expected.entryWords));
   }
   fs::path tmp = path;
   tmp += fmt::format(".{}.tmp", ::getpid());
   ::unlink(tmp.c_str());  // left by a creator of this pid that died
   Fd fd(::open(tmp.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
   if (!fd) failed(path, "cannot create", errno);
   struct Unlink {
      const fs::path& tmp;
      ~Unlink() { ::unlink(tmp.c_str()); }
   } unlinkTmp{tmp};

   // Zero-filled by ftruncate: every entry starts invalid, and the file is sparse.
   if (::ftruncate(fd.get(), off_t(layout->fileBytes)) != 0) {
      failed(path, fmt::format("cannot size to {} bytes", layout->fileBytes), errno);
   }
   Header h{};
   h.magic = kMagic;
   h.version = kFormatVersion;
   h.headerBytes = sizeof(Header);
   h.numEntries = expected.numEntries;
   h.entryWords = expected.entryWords;
   h.slotsPerEntry = kSlots;
   h.nameBytes = nameBytes;
   h.statesOffset = layout->statesOffset;
   h.wordsOffset = layout->wordsOffset;
   h.fileBytes = layout->fileBytes;
   std::vector<std::byte> block(layout->statesOffset);
   std::memcpy(block.data(), &h, sizeof h);
   std::memcpy(block.data() + sizeof h, expected.name.data(), nameBytes);
   h.checksum = checksumOf(block);
   std::memcpy(block.data(), &h, sizeof h);
   writeAt(fd.get(), path, block.data(), block.size());
   // Creation is rare; making the header durable before the name appears keeps "a file
   // under its name has a whole header" true across a machine crash too.
   if (::fsync(fd.get()) != 0) failed(path, "cannot sync", errno);
   if (::link(tmp.c_str(), path.c_str()) != 0) {
      if (errno == EEXIST) return -1;
      failed(path, "cannot create", errno);
   }
   return fd.release();
}

MappedMemory::Opened MappedMemory::validate(int fd, const fs::path& path, const Expected* expected,
                                            Sharing sharing) {
   struct stat st {};
   if (::fstat(fd, &st) != 0) failed(path, "cannot stat", errno);
   if (!S_ISREG(st.st_mode)) refuse(path, "not a regular file");
   const auto size = std::uint64_t(st.st_size);
   if (size < sizeof(Header)) {
      refuse(path, fmt::format("truncated: {} bytes, shorter than the {}-byte header", size,
                               sizeof(Header)));
   }
   Header h{};
   readAt(fd, path, &h, sizeof h, 0);
   if (h.magic != kMagic) refuse(path, "not a chip memory file (no magic)");
   if (h.version != kFormatVersion) {
      refuse(path, fmt::format("format version {}, this build reads version {}", h.version,
                               kFormatVersion));
   }
   if (h.nameBytes == 0 || h.nameBytes > kMaxNameBytes) {
      refuse(path, fmt::format("corrupt header: name of {} bytes", h.nameBytes));
   }
   const std::uint64_t blockBytes = alignUp(sizeof(Header) + h.nameBytes);
   if (size < blockBytes) {
      refuse(path,
             fmt::format("truncated: {} bytes, shorter than its {}-byte header", size, blockBytes));
   }
   std::vector<std::byte> block(blockBytes);
   readAt(fd, path, block.data(), block.size(), 0);
   if (checksumOf(block) != h.checksum) refuse(path, "corrupt header: checksum mismatch");

   // The checksum held: the fields are as written. Check them anyway before trusting them
   // with the mapping's bounds.
   std::string name(reinterpret_cast<const char*>(block.data() + sizeof(Header)), h.nameBytes);
   const std::optional<Layout> layout = layoutFor(h.nameBytes, h.numEntries, h.entryWords);
   if (h.headerBytes != sizeof(Header) || h.slotsPerEntry != kSlots || h.numEntries == 0 ||
       h.entryWords == 0 || !layout || layout->statesOffset != h.statesOffset ||
       layout->wordsOffset != h.wordsOffset || layout->fileBytes != h.fileBytes) {
      refuse(path, "corrupt header: layout does not follow from its geometry");
   }
   if (expected) {
      if (name != expected->name) {
         refuse(path, fmt::format("holds memory {}, not {}", name, expected->name));
      }
      if (h.numEntries != expected->numEntries || h.entryWords != expected->entryWords) {
         refuse(path, fmt::format("holds {} entries of {} words, not {} of {}", h.numEntries,
                                  h.entryWords, expected->numEntries, expected->entryWords));
      }
   }
   if (size < h.fileBytes) {
      refuse(path, fmt::format("truncated: {} bytes, its header says {}", size, h.fileBytes));
   }
   if (size > h.fileBytes) {
      refuse(path, fmt::format("{} bytes, longer than the {} its header says", size, h.fileBytes));
   }

   const int flags = sharing == Sharing::shared ? MAP_SHARED : MAP_PRIVATE;
   void* base = ::mmap(nullptr, std::size_t(h.fileBytes), PROT_READ | PROT_WRITE, flags, fd, 0);
   if (base == MAP_FAILED) failed(path, "cannot map", errno);
   Opened opened{Mapping(static_cast<std::byte*>(base), std::size_t(h.fileBytes)),
                 std::move(name),
                 h.numEntries,
                 h.entryWords,
                 h.statesOffset,
                 h.wordsOffset};
   // Reads trust a state to name a slot; a stray byte must not send them elsewhere.
   const auto* states =
       reinterpret_cast<const std::uint8_t*>(opened.mapping.base() + h.statesOffset);
   for (std::uint32_t i = 0; i < h.numEntries; ++i) {
      if (states[i] > kSlots) {
         refuse(path, fmt::format("corrupt entry {}: state {}, not 0 to {}", i, states[i], kSlots));
      }
   }
   return opened;
}

void MappedMemory::flush() const {
   if (::msync(mapping_.base(), mapping_.bytes(), MS_SYNC) != 0)
      failed(path_, "cannot sync", errno);
}

bool MappedMemory::doRead(Asic::Index index, std::span<std::uint32_t> out) const {
   const std::uint8_t state =
       std::atomic_ref<std::uint8_t>(states_[index]).load(std::memory_order_acquire);
   if (state == 0) return false;
   std::memcpy(out.data(), slot(index, state), std::size_t(entryWords()) * sizeof(std::uint32_t));
   return true;
}

void MappedMemory::doWrite(Asic::Index index, Words words) {
   // The words go to the slot not in use; the state byte naming it is the commit, stored
   // after them (release), so a process killed at any point leaves the old entry or the new.
   const std::uint8_t next = states_[index] == 1 ? 2 : 1;
   std::memcpy(slot(index, next), words.data(), words.size_bytes());
   std::atomic_ref<std::uint8_t>(states_[index]).store(next, std::memory_order_release);
}

void MappedMemory::doClear(Asic::Index index) {
   std::atomic_ref<std::uint8_t>(states_[index]).store(0, std::memory_order_release);
}

void MappedMemory::doForEachValid(const Visitor& fn) const {
   // Eight states at a time: a big memory with few entries costs little more than reading
   // its state bytes.
   const std::uint32_t n = numEntries();
   std::uint32_t i = 0;
   while (i < n) {
      if (n - i >= 8) {
         std::uint64_t eight;
         std::memcpy(&eight, states_ + i, sizeof eight);
         if (eight == 0) {
            i += 8;
            continue;
         }
      }
      const std::uint32_t end = std::min(n, i + 8);
      for (; i < end; ++i) {
         const std::uint8_t state = states_[i];
         if (state != 0) fn(i, Words(slot(i, state), entryWords()));
      }
   }
}

Chip::MemoryFactory mappedMemories(fs::path dir) {
   std::error_code ec;
   fs::create_directories(dir, ec);
   if (!fs::is_directory(dir)) {
      if (fs::exists(dir)) {
         throw std::invalid_argument(
             fmt::format("chip directory {}: exists and is not a directory", dir.string()));
      }
      throw std::runtime_error(
          fmt::format("chip directory {}: cannot create: {}", dir.string(), ec.message()));
   }
   return [dir = std::move(dir)](const std::string& name, std::uint32_t numEntries,
                                 std::uint32_t entryWords) -> Asic::Ptr<Memory> {
      return Asic::makePtr<MappedMemory>(dir, name, numEntries, entryWords);
   };
}

Chip::MemoryFactory copyOnWriteMemories(fs::path dir) {
   std::error_code ec;
   if (fs::exists(dir, ec) && !fs::is_directory(dir, ec)) {
      throw std::invalid_argument(
          fmt::format("chip directory {}: exists and is not a directory", dir.string()));
   }
   return [dir = std::move(dir)](const std::string& name, std::uint32_t numEntries,
                                 std::uint32_t entryWords) -> Asic::Ptr<Memory> {
      std::error_code absent;
      if (!fs::exists(MappedMemory::fileFor(dir, name), absent)) {
         return Asic::makePtr<HeapMemory>(name, numEntries, entryWords);
      }
      return Asic::makePtr<MappedMemory>(dir, name, numEntries, entryWords,
                                         MappedMemory::Sharing::copyOnWrite);
   };
}

bool chipHoldsEntries(const fs::path& dir) {
   std::error_code ec;
   if (!fs::exists(dir, ec)) return false;
   if (!fs::is_directory(dir)) {
      throw std::invalid_argument(
          fmt::format("chip directory {}: exists and is not a directory", dir.string()));
   }
   for (const fs::directory_entry& e : fs::directory_iterator(dir)) {
      if (e.path().extension() != kSuffix || !e.is_regular_file()) continue;
      if (MappedMemory::existing(e.path())->validEntries() > 0) return true;
   }
   return false;
}

}  // namespace ChipSim
