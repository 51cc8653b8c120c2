#pragma once
// One assertion facility for broken invariants. The expression text is part of the
// design (tests and field logs match on it), so it is always carried verbatim.
// Default behaviour aborts; tests install a ScopedAssertThrow to get an exception.

#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Asic {

struct AssertionInfo {
   std::string expression;  // the expression text as written at the assertion
   std::string source;      // source name, e.g. "SwTableAccessor"
   std::string function;    // full signature of the asserting function
   std::string message;     // optional explanation
};

// Thrown instead of aborting while a ScopedAssertThrow is alive.
class AssertionError : public std::logic_error {
 public:
   explicit AssertionError(AssertionInfo info);
   const AssertionInfo& info() const noexcept { return info_; }

 private:
   AssertionInfo info_;
};

using AssertHandler = std::function<void(const AssertionInfo&)>;

// Installs a handler for the current scope; the previous one comes back on exit.
class ScopedAssertHandler {
 public:
   explicit ScopedAssertHandler(AssertHandler handler);
   ~ScopedAssertHandler();
   ScopedAssertHandler(const ScopedAssertHandler&) = delete;
   ScopedAssertHandler& operator=(const ScopedAssertHandler&) = delete;

 private:
   AssertHandler previous_;
};

// The usual test handler: every failed assertion throws AssertionError.
class ScopedAssertThrow : public ScopedAssertHandler {
 public:
   ScopedAssertThrow();
};

// Text form used by the default handler and by AssertionError::what().
std::string formatAssertion(const AssertionInfo& info);

// "src/AsicSwTable/SwTableAccessor.h" -> "SwTableAccessor"
std::string_view sourceName(std::string_view file) noexcept;

[[noreturn]] void assertFail(std::string_view expression, std::string_view file,
                             std::string_view function, std::string message = {});

}  // namespace Asic

// ASIC_ASSERT(cond) carries #cond; ASIC_ASSERT_MSG adds a message; ASIC_ASSERT_TEXT names
// the expression text explicitly where the code's spelling differs from the recorded one.
#define ASIC_ASSERT(cond)                                          \
   do {                                                            \
      if (!(cond)) [[unlikely]]                                    \
         ::Asic::assertFail(#cond, __FILE__, __PRETTY_FUNCTION__); \
   } while (0)
#define ASIC_ASSERT_MSG(cond, msg)                                        \
   do {                                                                   \
      if (!(cond)) [[unlikely]]                                           \
         ::Asic::assertFail(#cond, __FILE__, __PRETTY_FUNCTION__, (msg)); \
   } while (0)
#define ASIC_ASSERT_TEXT(cond, text, msg)                                  \
   do {                                                                    \
      if (!(cond)) [[unlikely]]                                            \
         ::Asic::assertFail((text), __FILE__, __PRETTY_FUNCTION__, (msg)); \
   } while (0)
