#include "Asic/Assert.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

#include <fmt/format.h>

namespace Asic {
namespace {

AssertHandler& currentHandler() {
   static AssertHandler handler;
   return handler;
}

}  // namespace

AssertionError::AssertionError(AssertionInfo info)
    : std::logic_error(formatAssertion(info)), info_(std::move(info)) {}

ScopedAssertHandler::ScopedAssertHandler(AssertHandler handler)
    : previous_(std::exchange(currentHandler(), std::move(handler))) {}

ScopedAssertHandler::~ScopedAssertHandler() { currentHandler() = std::move(previous_); }

ScopedAssertThrow::ScopedAssertThrow()
    : ScopedAssertHandler([](const AssertionInfo& info) { throw AssertionError(info); }) {}

std::string formatAssertion(const AssertionInfo& info) {
   std::string text =
       fmt::format("assertion ({}) failed in {} [{}]", info.expression, info.source, info.function);
   if (!info.message.empty()) fmt::format_to(std::back_inserter(text), ": {}", info.message);
   return text;
}

std::string_view sourceName(std::string_view file) noexcept {
   if (auto slash = file.find_last_of('/'); slash != std::string_view::npos) {
      file.remove_prefix(slash + 1);
   }
   if (auto dot = file.find('.'); dot != std::string_view::npos) file = file.substr(0, dot);
   return file;
}

void assertFail(std::string_view expression, std::string_view file, std::string_view function,
                std::string message) {
   AssertionInfo info{std::string(expression), std::string(sourceName(file)), std::string(function),
                      std::move(message)};
   if (auto& handler = currentHandler()) handler(info);
   // A handler that returns does not make the broken invariant hold again.
   std::fprintf(stderr, "%s\n", formatAssertion(info).c_str());
   std::fflush(stderr);
   std::abort();
}

}  // namespace Asic
