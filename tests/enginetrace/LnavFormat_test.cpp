#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Engine/utilities/TraceImplementation.h"

#include "programs/enginetrace/Line.h"
#include "programs/enginetrace/TraceFile.h"
#include "tests/support/Child.h"
#include "tests/support/TemporaryFolder.h"

// The log viewer lnav with the format file of the package.

namespace {

using nlohmann::json;

// The folder that the package installs the file in, below a home.
constexpr const char* formats = "/.lnav/formats/enginetrace";

class LnavFormat : public testing::Test {
 protected:
  LnavFormat() {
    std::filesystem::create_directories(home_.path() + formats);
    std::filesystem::copy_file(CUL_SOURCE_FOLDER "/programs/enginetrace/lnav/enginetrace.json",
                               home_.path() + formats + "/enginetrace.json");
  }

  ChildResult lnav(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), CUL_LNAV);
    return runProgram(arguments, {.environment = {{"HOME", home_.path()}, {"TZ", "UTC"}}});
  }

  TemporaryFolder home_;
};

// What looks like a number is one in the JSON that lnav writes.
std::string textOf(const json& value) {
  return value.is_null() ? "" : value.is_string() ? value.get<std::string>() : value.dump();
}

std::string firstLineOf(std::string_view text) {
  return std::string(text.substr(0, text.find('\n')));
}

}  // namespace

// A trace with all that can stand in front of a text.
CUL_CHILD(TraceForLnav) {
  // NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): final, and never deleted.
  struct Handler final : GMH_HandlerDiagnostic {
    const char* diagnosticText() const override { return "step over"; }
  } handler;
  TraceImplementation& trace = *traceImplementation();
  trace.taggedTrace("void A::f(int)", 147, "GMH", "text");
  trace._traceGMH("void A::f(int)", 147, "GMH", &handler, "text: with a colon");
  trace.traceSession("bool ns::B<int, char*>::operator!=(const B&)", 0, "TLS", &trace, "%d%%", 50);
  trace.taggedTrace("(anonymous namespace)", 7, "CLI", "in no namespace");
  trace.taggedTrace("int plain(int)", 7, "ERROR", "opendir(/proc) failed errno = %d", 13);
  trace.taggedTrace("int plain(int)", 0, "WARNING", "first\nsecond: (12): line");
  trace.taggedTrace(nullptr, 0, "PMD", "no function: but a colon");
  trace.taggedTrace(nullptr, 0, nullptr, "no tag");
  trace.taggedTrace(nullptr, 0, "PMD", "%s", "");
  trace.wrap();
  trace.taggedTrace("void A::f(int)", 147, "", "an empty tag");
  trace.taggedTrace("void A::f(int)", 147, "A/B C", "more than one detail");
}

TEST_F(LnavFormat, IsFoundCorrect) {
  const ChildResult result = lnav({"-C"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
}

TEST_F(LnavFormat, TakesTheLinesOfATraceApartAsTheReaderDoes) {
  const std::string file = home_.file("root.7.trc");
  const ChildResult child =
      runChild("TraceForLnav",
               {.environment = {{"GDIA_ID", "root"}, {"QVX_DBG_TRACE", file}, {"TZ", "UTC"}}});
  ASSERT_EQ(child.status, 0) << child.out;
  const ChildResult result = lnav({"-n", "-c",
                                   ";SELECT thread, type, detail, function, line, log_body, "
                                   "log_level FROM enginetrace_log ORDER BY log_line",
                                   "-c", ":write-json-to -", file});
  ASSERT_EQ(result.status, 0) << result.err;
  const json rows = json::parse(result.out);
  TraceFile trace(file);
  std::size_t row = 0;
  for (Line line; trace.next(line);) {
    const Parts parts = partsOf(line.whole);
    if (parts.thread.empty()) {
      continue;  // a ruler, which lnav counts to the line before
    }
    ASSERT_LT(row, rows.size());
    const json& shown = rows[row++];
    EXPECT_EQ(textOf(shown["thread"]), parts.thread) << line.whole;
    EXPECT_EQ(textOf(shown["type"]), parts.type) << line.whole;
    EXPECT_EQ(textOf(shown["detail"]), parts.detail) << line.whole;
    EXPECT_EQ(textOf(shown["function"]), parts.function) << line.whole;
    EXPECT_EQ(textOf(shown["line"]), parts.line == 0 ? "" : std::to_string(parts.line));
    EXPECT_EQ(firstLineOf(textOf(shown["log_body"])), firstLineOf(parts.text)) << line.whole;
    EXPECT_EQ(shown["log_level"], parts.type == "ERROR"     ? "error"
                                  : parts.type == "WARNING" ? "warning"
                                                            : "info");
  }
  EXPECT_EQ(row, rows.size());
  EXPECT_GT(row, 40U);
}

TEST_F(LnavFormat, ShowsATrace) {
  const std::string file = home_.file("root.7.trc");
  ASSERT_EQ(runChild("TraceForLnav",
                     {.environment = {{"GDIA_ID", "root"}, {"QVX_DBG_TRACE", file}, {"TZ", "UTC"}}})
                .status,
            0);
  ChildResult result = lnav({"-n", file});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.out,
              testing::HasSubstr("**GMH/step over: void A::f(147): text: with a colon\n"));
  // lnav adds the date to the times of lines that it knows.
  EXPECT_THAT(result.out, testing::ContainsRegex("\n20[0-9-]+ [0-9:.]+ \\([^)]*\\)\\*\\*ERROR: "));

  // With dates, the times keep their microseconds.
  const std::string other = home_.file("leaf.8.trc");
  std::filesystem::copy_file(file, other);
  const ChildResult reader = runProgram({CUL_ENGINETRACE, "--date", file, other});
  ASSERT_EQ(reader.status, 0) << reader.err;
  writeFile(home_.file("merged"), reader.out);
  result = lnav({"-n", "-c",
                 ";SELECT process, count(*) AS n FROM enginetrace_log GROUP BY process "
                 "ORDER BY process",
                 "-c", ":write-json-to -", home_.file("merged")});
  const json rows = json::parse(result.out);
  ASSERT_EQ(rows.size(), 2U) << result.out;
  EXPECT_EQ(rows[0]["process"], "leaf.8");
  EXPECT_EQ(rows[1]["process"], "root.7");
  EXPECT_GT(rows[1]["n"], 40);
  EXPECT_THAT(lnav({"-n", home_.file("merged")}).out, testing::HasSubstr(reader.out));
}
