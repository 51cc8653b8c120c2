#include "Asic/Trace.h"

#include <fnmatch.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>

#include <charconv>
#include <map>

namespace Asic {
namespace {

// Debian's abseil has its own string_view; the standard library is enough here.
std::vector<std::string_view> splitItems(std::string_view text, char sep) {
   std::vector<std::string_view> out;
   while (!text.empty()) {
      auto pos = text.find(sep);
      auto item = text.substr(0, pos);
      while (!item.empty() && (item.front() == ' ' || item.front() == '\t')) item.remove_prefix(1);
      while (!item.empty() && (item.back() == ' ' || item.back() == '\t')) item.remove_suffix(1);
      if (!item.empty()) out.push_back(item);
      if (pos == std::string_view::npos) break;
      text.remove_prefix(pos + 1);
   }
   return out;
}

// Items and the levels of one item are both separated by ',' ("Foo/0,5,Bar/1"): a piece
// without '/' that starts with a digit continues the previous item's levels (handle names
// never start with a digit).
std::vector<std::string_view> splitSetting(std::string_view setting) {
   std::vector<std::string_view> items;
   for (std::string_view piece : splitItems(setting, ',')) {
      bool continues = !items.empty() && items.back().find('/') != std::string_view::npos &&
                       piece.find('/') == std::string_view::npos && piece.front() >= '0' &&
                       piece.front() <= '9';
      if (continues) {
         // Both views point into `setting`: widen the previous one over this piece.
         const char* begin = items.back().data();
         items.back() = std::string_view(begin, std::size_t(piece.data() + piece.size() - begin));
      } else {
         items.push_back(piece);
      }
   }
   return items;
}

bool parseInt(std::string_view text, int* out) {
   auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), *out);
   return ec == std::errc() && ptr == text.data() + text.size();
}

struct Registry {
   std::map<std::string, std::unique_ptr<TraceHandle>, std::less<>> handles;
   std::string setting;
   std::FILE* sink = stderr;
   TraceCapture* capture = nullptr;

   Registry() {
      if (const char* env = std::getenv("TRACE")) setting = env;
      if (const char* file = std::getenv("TRACE_FILE"); file && *file) {
         if (std::FILE* f = std::fopen(file, "a")) sink = f;
      }
   }
};

Registry& registry() {
   static Registry* r = new Registry();  // never destroyed: handles outlive static users
   return *r;
}

std::uint16_t parseLevels(std::string_view levels, std::string_view item) {
   std::uint16_t mask = 0;
   auto parts = splitItems(levels, ',');
   if (parts.empty()) {
      throw std::invalid_argument(
          fmt::format("trace setting: no levels after '/' in '{}' (expected 0-9)", item));
   }
   for (std::string_view part : parts) {
      auto dash = part.find('-');
      int lo = 0;
      int hi = 0;
      bool ok = dash == std::string_view::npos
                    ? parseInt(part, &lo) && (hi = lo, true)
                    : parseInt(part.substr(0, dash), &lo) && parseInt(part.substr(dash + 1), &hi);
      if (!ok || lo < 0 || hi > 9 || lo > hi) {
         throw std::invalid_argument(
             fmt::format("trace setting: bad levels '{}' in '{}' (expected 0-9)", part, item));
      }
      for (int l = lo; l <= hi; ++l) mask |= std::uint16_t(1u << l);
   }
   return mask;
}

}  // namespace

TraceHandle::TraceHandle(std::string name) : name_(std::move(name)) {}

void TraceHandle::write(int level, std::string_view text) const {
   auto& r = registry();
   if (r.capture) {
      r.capture->add(*this, level, text);
      return;
   }
   fmt::print(r.sink, "{}/{}: {}\n", name_, level, text);
}

TraceHandle& traceHandle(std::string_view name) {
   auto& r = registry();
   auto it = r.handles.find(name);
   if (it == r.handles.end()) {
      auto handle = std::make_unique<TraceHandle>(std::string(name));
      handle->levelsIs(Trace::levelsFor(r.setting, name));
      it = r.handles.emplace(std::string(name), std::move(handle)).first;
   }
   return *it->second;
}

namespace Trace {

std::uint16_t levelsFor(std::string_view setting, std::string_view handleName) {
   std::uint16_t mask = 0;
   const std::string name(handleName);
   for (std::string_view item : splitSetting(setting)) {
      auto slash = item.rfind('/');
      std::string pattern(item.substr(0, slash));
      std::uint16_t levels = slash == std::string_view::npos
                                 ? std::uint16_t(0x3FF)
                                 : parseLevels(item.substr(slash + 1), item);
      if (pattern.empty()) {
         throw std::invalid_argument(fmt::format("trace setting: empty handle name in '{}'", item));
      }
      if (fnmatch(pattern.c_str(), name.c_str(), 0) == 0) mask |= levels;
   }
   return mask;
}

void configure(std::string_view setting) {
   auto& r = registry();
   levelsFor(setting, "");  // parses every item: a bad setting changes nothing
   r.setting = std::string(setting);
   for (auto& [name, handle] : r.handles) handle->levelsIs(levelsFor(setting, name));
}

void sinkFileIs(const std::string& path) {
   auto& r = registry();
   std::FILE* next = stderr;
   if (!path.empty()) {
      next = std::fopen(path.c_str(), "a");
      if (!next) throw std::runtime_error(fmt::format("trace sink: cannot open '{}'", path));
   }
   if (r.sink != stderr) std::fclose(r.sink);
   r.sink = next;
}

}  // namespace Trace

TraceCapture::TraceCapture(std::string_view setting)
    : previous_(registry().capture), previousSetting_(registry().setting) {
   Trace::configure(setting);
   registry().capture = this;
}

TraceCapture::~TraceCapture() {
   registry().capture = previous_;
   Trace::configure(previousSetting_);
}

void TraceCapture::add(const TraceHandle& handle, int level, std::string_view text) {
   lines_.push_back(Trace::Line{handle.name(), level, std::string(text)});
}

std::size_t TraceCapture::count(std::string_view fragment) const {
   std::size_t n = 0;
   for (const auto& line : lines_) n += line.text.find(fragment) != std::string::npos;
   return n;
}

std::string TraceCapture::text() const {
   std::string out;
   for (const auto& line : lines_) fmt::format_to(std::back_inserter(out), "{}\n", line.text);
   return out;
}

}  // namespace Asic
