#pragma once
// Named trace handles with levels 0..9, enabled per handle by the TRACE environment
// variable ("VelmarMcast::*/0-9,SwTableStat/0"), written to stderr or to the file named by
// TRACE_FILE. A disabled level costs one branch: ASIC_TRACE formats nothing unless the
// level is on. TraceCapture lets a test enable handles and read the lines back.

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

namespace Asic {

class TraceHandle {
 public:
   explicit TraceHandle(std::string name);
   TraceHandle(const TraceHandle&) = delete;
   TraceHandle& operator=(const TraceHandle&) = delete;

   const std::string& name() const noexcept { return name_; }
   bool enabled(int level) const noexcept { return (levels_ >> level) & 1u; }
   std::uint16_t levels() const noexcept { return levels_; }
   void levelsIs(std::uint16_t mask) noexcept { levels_ = mask; }

   void write(int level, std::string_view text) const;

 private:
   std::string name_;
   std::uint16_t levels_ = 0;
};

// The handle of that name, created on first use and kept for the life of the process.
TraceHandle& traceHandle(std::string_view name);

// Shared handle for reconciliation statistics of all tables.
inline constexpr std::string_view kSwTableStatTrace = "SwTableStat";

namespace Trace {

// Replaces the enabled levels of every handle from a TRACE-style setting. Throws
// std::invalid_argument naming the bad item for a malformed setting.
void configure(std::string_view setting);

// Level mask for one handle name under a setting; exposed for tests.
std::uint16_t levelsFor(std::string_view setting, std::string_view handleName);

// Sink selection: empty path means stderr.
void sinkFileIs(const std::string& path);

struct Line {
   std::string handle;
   int level;
   std::string text;
};

}  // namespace Trace

// While alive, enables the given setting and captures every line instead of writing it.
class TraceCapture {
 public:
   explicit TraceCapture(std::string_view setting = "*/0-9");
   ~TraceCapture();
   TraceCapture(const TraceCapture&) = delete;
   TraceCapture& operator=(const TraceCapture&) = delete;

   const std::vector<Trace::Line>& lines() const noexcept { return lines_; }
   // Lines whose text contains the fragment.
   std::size_t count(std::string_view fragment) const;
   bool contains(std::string_view fragment) const { return count(fragment) != 0; }
   std::string text() const;  // every captured line, one per line
   void clear() { lines_.clear(); }

   void add(const TraceHandle& handle, int level, std::string_view text);

 private:
   std::vector<Trace::Line> lines_;
   TraceCapture* previous_;
   std::string previousSetting_;
};

}  // namespace Asic

#define ASIC_TRACE(handle, level, ...)                                \
   do {                                                               \
      const ::Asic::TraceHandle& asicTraceHandle_ = (handle);         \
      if (asicTraceHandle_.enabled(level)) [[unlikely]]               \
         asicTraceHandle_.write((level), ::fmt::format(__VA_ARGS__)); \
   } while (0)
