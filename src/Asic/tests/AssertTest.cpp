#include "Asic/Assert.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Asic {
namespace {

using ::testing::HasSubstr;

int checkedDivide(int a, int b) {
   ASIC_ASSERT_MSG(b != 0, "divisor is zero");
   return a / b;
}

void checkedPositive(int v) { ASIC_ASSERT(v > 0); }

void checkedSpelled(int v) { ASIC_ASSERT_TEXT(v % 2 == 0, "isEven(v)", "odd value"); }

AssertionInfo failureOf(void (*fn)()) {
   ScopedAssertThrow guard;
   try {
      fn();
   } catch (const AssertionError& e) {
      return e.info();
   }
   ADD_FAILURE() << "no assertion fired";
   return {};
}

// Verify that the handler receives the expression text, the file's bare name, the
// signature of the asserting function and the message, and that what() carries them all.
TEST(AssertTest, CarriesExpressionSourceFunctionAndMessage) {
   ScopedAssertThrow guard;
   try {
      checkedDivide(1, 0);
      FAIL() << "checkedDivide(1, 0) did not assert";
   } catch (const AssertionError& e) {
      EXPECT_EQ(e.info().expression, "b != 0");
      EXPECT_EQ(e.info().source, "AssertTest");
      EXPECT_THAT(e.info().function, HasSubstr("checkedDivide(int, int)"));
      EXPECT_EQ(e.info().message, "divisor is zero");
      EXPECT_EQ(std::string(e.what()), formatAssertion(e.info()));
      EXPECT_THAT(e.what(), HasSubstr("assertion (b != 0) failed in AssertTest ["));
      EXPECT_THAT(e.what(), HasSubstr("]: divisor is zero"));
   }
   EXPECT_EQ(checkedDivide(6, 3), 2) << "a holding assertion must not fire";
}

// Verify the plain and the explicitly-spelled forms: no message, and the recorded text in
// place of the code's spelling.
TEST(AssertTest, PlainAndSpelledForms) {
   AssertionInfo plain = failureOf([] { checkedPositive(0); });
   EXPECT_EQ(plain.expression, "v > 0");
   EXPECT_EQ(plain.message, "");
   EXPECT_THAT(formatAssertion(plain), ::testing::Not(HasSubstr("]:")));

   AssertionInfo spelled = failureOf([] { checkedSpelled(3); });
   EXPECT_EQ(spelled.expression, "isEven(v)");
   EXPECT_EQ(spelled.message, "odd value");
   EXPECT_THAT(spelled.function, HasSubstr("checkedSpelled"));
}

// Verify that handlers nest: the innermost one is used, and each scope's exit brings the
// previous handler back.
TEST(AssertTest, HandlersNestAndRestore) {
   struct Recorded {};
   std::vector<std::string> outer;
   ScopedAssertHandler outerGuard([&outer](const AssertionInfo& info) {
      outer.push_back(info.expression);
      throw Recorded{};
   });
   {
      ScopedAssertThrow inner;
      EXPECT_THROW(checkedPositive(-1), AssertionError);
      {
         std::vector<std::string> innermost;
         ScopedAssertHandler innermostGuard([&innermost](const AssertionInfo& info) {
            innermost.push_back(info.message);
            throw Recorded{};
         });
         EXPECT_THROW(checkedDivide(1, 0), Recorded);
         EXPECT_EQ(innermost, std::vector<std::string>{"divisor is zero"});
      }
      EXPECT_THROW(checkedPositive(-1), AssertionError) << "inner handler not restored";
   }
   EXPECT_THROW(checkedPositive(-2), Recorded) << "outer handler not restored";
   EXPECT_EQ(outer, std::vector<std::string>{"v > 0"});
}

// Verify that without a handler, and with a handler that returns, a failed assertion
// aborts after printing its text.
TEST(AssertDeathTest, DefaultAndReturningHandlerAbort) {
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   EXPECT_DEATH(checkedDivide(1, 0), "assertion \\(b != 0\\) failed in AssertTest");
   EXPECT_DEATH(
       {
          ScopedAssertHandler ignore([](const AssertionInfo&) {});
          checkedPositive(0);
       },
       "assertion \\(v > 0\\) failed");
}

// Verify that the source name drops the directory and every extension.
TEST(AssertTest, SourceNameStripsDirectoryAndExtension) {
   struct Case {
      const char* file;
      const char* name;
   };
   const Case cases[] = {
       {"src/AsicSwTable/SwTableAccessor.h", "SwTableAccessor"},
       {"/abs/path/AssertTest.cpp", "AssertTest"},
       {"Plain.cpp", "Plain"},
       {"NoExtension", "NoExtension"},
       {"dir.with.dots/File.inl.h", "File"},
       {"trailing/", ""},
   };
   for (const Case& c : cases) EXPECT_EQ(sourceName(c.file), c.name) << "file " << c.file;
}

}  // namespace
}  // namespace Asic
