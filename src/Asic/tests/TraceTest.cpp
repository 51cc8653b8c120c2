#include "Asic/Trace.h"

#include <cstdio>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Asic/Kestrel.h"

namespace {

// Counts how often it is formatted: a disabled trace level must never format it.
struct FormatCounter {
   int* formatted;
};

}  // namespace

template <>
struct fmt::formatter<FormatCounter> : fmt::formatter<std::string_view> {
   auto format(const FormatCounter& c, format_context& ctx) const {
      ++*c.formatted;
      return fmt::formatter<std::string_view>::format("counted", ctx);
   }
};

namespace Asic {
namespace {

using ::testing::HasSubstr;

constexpr std::uint16_t kAll = 0x3FF;
constexpr std::uint16_t bit(int level) { return std::uint16_t(1u << level); }

// Verify pattern matching and level syntax: '*' patterns, ranges, lists, items without
// levels (all levels), and that several matching items add up.
TEST(TraceTest, LevelsForPatternsRangesAndLists) {
   const std::string_view setting = "VelmarMcast::*/0-9,SwTableStat/0";
   EXPECT_EQ(Trace::levelsFor(setting, "VelmarMcast::MmuReplListTable"), kAll);
   EXPECT_EQ(Trace::levelsFor(setting, "SwTableStat"), bit(0));
   EXPECT_EQ(Trace::levelsFor(setting, "SwTableStatX"), 0) << "patterns match whole names";
   EXPECT_EQ(Trace::levelsFor("Foo/0,5,Bar/1", "Foo"), bit(0) | bit(5));
   EXPECT_EQ(Trace::levelsFor("Foo/0,5,Bar/1", "Bar"), bit(1));
   EXPECT_EQ(Trace::levelsFor("Foo/1-3,7", "Foo"), bit(1) | bit(2) | bit(3) | bit(7));
   EXPECT_EQ(Trace::levelsFor("Foo", "Foo"), kAll);
   EXPECT_EQ(Trace::levelsFor(" Foo/2 , Foo/4 ", "Foo"), bit(2) | bit(4));
   EXPECT_EQ(Trace::levelsFor("*/9", "Anything"), bit(9));
   EXPECT_EQ(Trace::levelsFor("", "Foo"), 0);
}

// Verify that every malformed item is rejected with a message naming it, and that a
// rejected setting leaves the handles' levels as they were.
TEST(TraceTest, BadLevelsThrowNamingTheItemAndChangeNothing) {
   const std::pair<const char*, const char*> cases[] = {{"Foo/10", "'10' in 'Foo/10'"},
                                                        {"Foo/x", "'x' in 'Foo/x'"},
                                                        {"Foo/3-1", "'3-1' in 'Foo/3-1'"},
                                                        {"Foo/-1", "'-1' in 'Foo/-1'"},
                                                        {"Foo/0-", "'0-' in 'Foo/0-'"},
                                                        {"Bar/1,Foo/0,5x", "'5x' in 'Foo/0,5x'"},
                                                        {"Foo/", "'Foo/'"},
                                                        {"/3", "'/3'"}};
   for (const auto& [setting, named] : cases) {
      try {
         Trace::levelsFor(setting, "Foo");
         ADD_FAILURE() << "setting '" << setting << "' was accepted";
      } catch (const std::invalid_argument& e) {
         EXPECT_THAT(e.what(), HasSubstr(named)) << "setting '" << setting << "'";
      }
   }
   TraceCapture capture("TraceTest::Keep/3");
   TraceHandle& h = traceHandle("TraceTest::Keep");
   EXPECT_THROW(Trace::configure("TraceTest::Keep/0,Other/12"), std::invalid_argument);
   EXPECT_EQ(h.levels(), bit(3));
}

// Verify that a capture records only enabled levels, with handle name and level, and
// that a disabled level neither evaluates nor formats its arguments.
TEST(TraceTest, CaptureRecordsOnlyEnabledLevels) {
   TraceCapture capture("TraceTest::Capture/0-2");
   const TraceHandle& h = traceHandle("TraceTest::Capture");
   const TraceHandle& other = traceHandle("TraceTest::Silent");
   int evaluated = 0;
   int formatted = 0;

   ASIC_TRACE(h, 1, "on {} {}", ++evaluated, FormatCounter{&formatted});
   ASIC_TRACE(h, 5, "off {} {}", ++evaluated, FormatCounter{&formatted});
   ASIC_TRACE(other, 0, "off {} {}", ++evaluated, FormatCounter{&formatted});

   EXPECT_EQ(evaluated, 1) << "arguments of a disabled level were evaluated";
   EXPECT_EQ(formatted, 1) << "arguments of a disabled level were formatted";
   ASSERT_EQ(capture.lines().size(), 1u) << capture.text();
   EXPECT_EQ(capture.lines()[0].handle, "TraceTest::Capture");
   EXPECT_EQ(capture.lines()[0].level, 1);
   EXPECT_EQ(capture.text(), "on 1 counted\n");
   EXPECT_EQ(capture.count("on"), 1u);
   EXPECT_FALSE(capture.contains("off"));
}

// Verify that captures nest and that each one's end restores the previous setting and
// the previous capture.
TEST(TraceTest, CaptureRestoresPreviousSettingAndCapture) {
   TraceCapture outer("TraceTest::Nest/4");
   const TraceHandle& h = traceHandle("TraceTest::Nest");
   {
      TraceCapture inner("TraceTest::Nest/0-1");
      EXPECT_EQ(h.levels(), bit(0) | bit(1));
      ASIC_TRACE(h, 0, "inner line");
      EXPECT_EQ(inner.lines().size(), 1u);
   }
   EXPECT_EQ(h.levels(), bit(4)) << "setting not restored";
   ASIC_TRACE(h, 4, "outer line");
   ASSERT_EQ(outer.lines().size(), 1u);
   EXPECT_EQ(outer.lines()[0].text, "outer line");
}

// Verify that a handle created after configuration picks up the setting, and that the
// same name always gives the same handle.
TEST(TraceTest, HandlesTakeTheCurrentSetting) {
   TraceCapture capture("TraceTest::Late*/6");
   TraceHandle& late = traceHandle("TraceTest::LateCreated");
   EXPECT_EQ(late.levels(), bit(6));
   EXPECT_EQ(&traceHandle("TraceTest::LateCreated"), &late);
}

// Verify the file sink's line format, and that an unusable path is named in the error
// and leaves the sink as it was.
TEST(TraceTest, FileSinkWritesNameLevelAndText) {
   const std::string path = ::testing::TempDir() + "TraceTest_sink.log";
   std::remove(path.c_str());
   // No capture may be active here: a capture takes lines before they reach the sink.
   TraceHandle& h = traceHandle("TraceTest::File");
   Trace::sinkFileIs(path);
   h.write(2, "to the file");
   try {
      Trace::sinkFileIs("/nonexistent-dir/trace.log");
      ADD_FAILURE() << "an unusable path was accepted";
   } catch (const std::runtime_error& e) {
      EXPECT_THAT(e.what(), HasSubstr("/nonexistent-dir/trace.log"));
   }
   h.write(3, "still the file");
   Trace::sinkFileIs("");

   std::ifstream in(path);
   EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}),
             "TraceTest::File/2: to the file\nTraceTest::File/3: still the file\n");
   std::remove(path.c_str());
}

// Verify that a full ring keeps exactly the newest kRingSize records, still in order.
TEST(KestrelTest, WrapKeepsNewest) {
   Kestrel::clear();
   constexpr std::size_t kExtra = 10;
   for (std::size_t i = 0; i < Kestrel::kRingSize + kExtra; ++i) {
      Kestrel::record("Type", i % 2 ? "odd" : "even");
   }
   auto records = Kestrel::snapshot();
   ASSERT_EQ(records.size(), Kestrel::kRingSize);
   for (std::size_t i = 0; i < records.size(); ++i) {
      ASSERT_EQ(records[i].sequence, i + kExtra) << "record #" << i;
      ASSERT_STREQ(records[i].operation, (i + kExtra) % 2 ? "odd" : "even") << "record #" << i;
   }
}

// Verify the dump text: one "sequence type operation" line per record, oldest first.
TEST(KestrelTest, DumpTextOldestFirst) {
   Kestrel::clear();
   Kestrel::record("VelmarMcast::MmuReplListTable", "commit");
   Kestrel::record("SwTableStat", "sync");
   std::FILE* f = std::tmpfile();
   ASSERT_NE(f, nullptr);
   Kestrel::dump(f);
   std::rewind(f);
   char buf[256] = {};
   std::size_t n = std::fread(buf, 1, sizeof buf - 1, f);
   std::fclose(f);
   EXPECT_EQ(std::string(buf, n), "0 VelmarMcast::MmuReplListTable commit\n1 SwTableStat sync\n");
}

}  // namespace
}  // namespace Asic
