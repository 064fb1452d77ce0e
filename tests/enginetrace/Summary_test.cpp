#include "programs/enginetrace/Summary.h"

#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/enginetrace/Written.h"

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr WallTime second = microsecondsPerSecond;

struct Made {
  std::string whole;
  WallTime time;
  const Process* process = &root;
};

TraceFacts factsOf(const Process& process) {
  TraceFacts facts;
  facts.process = process;
  facts.first = noon;
  facts.last = noon + second;
  facts.size = 1234;
  return facts;
}

std::string summaryOf(const std::vector<Made>& lines, const std::vector<const TraceFacts*>& facts) {
  return written([&](Output& output) {
    Summary summary(output, facts);
    for (const auto& [whole, time, process] : lines) {
      summary.write({whole, time, process});
    }
    summary.finish();
  });
}

std::string summaryOf(const std::vector<Made>& lines) {
  const TraceFacts facts = factsOf(root);
  return summaryOf(lines, {&facts});
}

/// The part of a summary that begins with a line with `heading`, to the next empty line.
std::string partOf(const std::string& summary, const std::string& heading) {
  const std::size_t begin = summary.find(heading);
  return begin == std::string::npos ? ""
                                    : summary.substr(begin, summary.find("\n\n", begin) - begin);
}

}  // namespace

TEST(Summary, TellsWhatIsKnownOfEachProcess) {
  TraceFacts facts = factsOf(root);
  facts.started = noon - 98;
  facts.program = "Debugger Engine";
  facts.version = "1.0.0";
  facts.build = "2026-11-22 12:19:22";
  facts.included = {"AGENT", "ERROR"};
  facts.excluded = {"GMH"};
  facts.limit = 16 << 20;
  facts.last = noon + 90 * second;
  const TraceFacts other = factsOf(leaf);
  const std::string summary =
      summaryOf({{lineOf("main", "a"), noon}, {lineOf("main", "b"), noon}}, {&facts, &other});
  EXPECT_EQ(partOf(summary, "Process root"),
            "Process root.1234\n"
            "  File        /traces/root.1234.trc, 1,234 bytes\n"
            "  Program     Debugger Engine, version 1.0.0, built 2026-11-22 12:19:22\n"
            "  Started     2026-11-22 12:23:41\n"
            "  Span        2026-11-22 12:23:41.000098 to 2026-11-22 12:25:11.000098 (1 min 30 s)\n"
            "  Lines       2\n"
            "  Ring        16 MB\n"
            "  Lost        nothing\n"
            "  Types on    AGENT ERROR\n"
            "  Types off   GMH");
  EXPECT_EQ(partOf(summary, "Process leaf"),
            "Process leaf.1300\n"
            "  File        /traces/leaf.1300.trc, 1,234 bytes\n"
            "  Span        2026-11-22 12:23:41.000098 to 2026-11-22 12:23:42.000098 (1.000 s)\n"
            "  Lines       0\n"
            "  Lost        nothing");
}

TEST(Summary, TellsWhatTheRingHasLostAndWhatIsNotSure) {
  TraceFacts facts = factsOf(root);
  facts.hasLost = true;
  facts.lostFrom = noon - 3600 * second;
  facts.lostUntil = noon;
  facts.cutLines = 1;
  facts.unreadBytes = 2000;
  facts.isOrderUnknown = true;
  facts.isDateUnknown = true;
  const std::string summary = summaryOf({}, {&facts});
  EXPECT_THAT(summary, HasSubstr("  Lost        the lines from 2026-11-22 11:23:41.000098 to "
                                 "2026-11-22 12:23:41.000098 (1 h 0 min)\n"
                                 "  Cut         1 line at the seam of the ring\n"
                                 "  Not read    2,000 bytes\n"
                                 "  Order       not known for sure"));
  EXPECT_THAT(summary, HasSubstr("\n  Dates       not known for sure"));
}

TEST(Summary, SaysWhenThereAreNoLines) {
  EXPECT_THAT(summaryOf({}), testing::EndsWith("\n\nNo lines.\n"));
  EXPECT_EQ(summaryOf({}, {}), "No lines.\n");
}

TEST(Summary, CountsErrorsByTheirTextWithFirstAndLastTime) {
  const std::string summary = summaryOf({
      {lineOf("main", "**ERROR: int f(12): opendir(/proc) failed errno = 13"), noon},
      {lineOf("main", "**ERROR: int g(7): another"), noon + second},
      {lineOf("main", "**ERROR: int f(12): opendir(/proc) failed errno = 13"), noon + 2 * second},
      {lineOf("main", "**WARNING: int f(12): slow"), noon + 3 * second},
  });
  EXPECT_EQ(partOf(summary, "3 errors"),
            "3 errors, first and last time, function, text (\"#\": numbers that differ)\n"
            "           2  2026-11-22 12:23:41.000098 to 2026-11-22 12:23:43.000098\n"
            "              int f(12)\n"
            "              opendir(/proc) failed errno = 13\n"
            "           1  2026-11-22 12:23:42.000098\n"
            "              int g(7)\n"
            "              another");
  EXPECT_THAT(partOf(summary, "1 warning,"), HasSubstr("\n              slow"));
}

TEST(Summary, TextsThatDifferInNumbersOnlyAreOne) {
  const std::string summary = summaryOf({
      {lineOf("main", "**ERROR: no 0x7Fab of 12ms in libc6.so # 1"), noon},
      {lineOf("main", "**ERROR: no 0x1 of 12ms in libc7.so # 1"), noon},
      {lineOf("main", "**ERROR: no 0x7Fab of 12ms in libc6.so # 1"), noon},
      {lineOf("main", "**ERROR: no 5 of 5 in libm6.so # 1"), noon},
  });
  const std::string errors = partOf(summary, "4 errors");
  EXPECT_THAT(errors, HasSubstr("           3  2026-11-22 12:23:41.000098 to "
                                "2026-11-22 12:23:41.000098\n"
                                "              no # of 12ms in libc#.so # 1\n"));
  EXPECT_THAT(errors, HasSubstr("              no 5 of 5 in libm6.so # 1"));
}

TEST(Summary, TellsThatThereIsNoError) {
  const std::string summary = summaryOf({{lineOf("main", "text"), noon}});
  EXPECT_THAT(summary, HasSubstr("\n\nNo errors.\n\nNo warnings.\n\n"));
}

TEST(Summary, KnowsABoundedNumberOfErrorsAndCountsTheOthers) {
  std::vector<Made> lines;
  const std::size_t more = Counts::most + 7;
  for (std::size_t i = 0; i < more; ++i) {
    std::string word;
    for (std::size_t rest = i + 1; rest != 0; rest /= 26) {
      word += static_cast<char>('a' + rest % 26);
    }
    lines.push_back({lineOf("main", "**ERROR: " + word + "."), noon});
  }
  EXPECT_THAT(summaryOf(lines), HasSubstr("and 9,980 other texts with 9,987 lines\n"));
}

TEST(Summary, FindsTheLongestSilencesOfAllAndOfEachThread) {
  const std::string summary = summaryOf({
      {lineOf("main", "**CLI: one"), noon},
      {lineOf("worker", "two"), noon + second},
      {lineOf("worker", "three"), noon + 6 * second},
      {lineOf("main", "four"), noon + 8 * second},
  });
  EXPECT_EQ(
      partOf(summary, "Longest silences of all"),
      "Longest silences of all threads together\n"
      "     5.000 s  2026-11-22 12:23:42.000098 to 2026-11-22 12:23:47.000098  root.1234 worker\n"
      "              after two\n"
      "     2.000 s  2026-11-22 12:23:47.000098 to 2026-11-22 12:23:49.000098  root.1234 worker\n"
      "              after three\n"
      "     1.000 s  2026-11-22 12:23:41.000098 to 2026-11-22 12:23:42.000098  root.1234 main\n"
      "              after **CLI: one");
  EXPECT_EQ(
      partOf(summary, "Longest silence of each"),
      "Longest silence of each thread between two of its lines\n"
      "     8.000 s  2026-11-22 12:23:41.000098 to 2026-11-22 12:23:49.000098  root.1234 main\n"
      "              after **CLI: one\n"
      "     5.000 s  2026-11-22 12:23:42.000098 to 2026-11-22 12:23:47.000098  root.1234 worker\n"
      "              after two");
}

TEST(Summary, TellsWhichThreadsWroteNothingMoreAlthoughTheyHaveNotEnded) {
  const std::string summary = summaryOf({
      {lineOf("stuck", "waits for an answer"), noon},
      {lineOf("over", "****: Engine/utilities/UNIX/UNIXStdThread(136): Terminating thread over"),
       noon + second},
      {lineOf("again", "****: Engine/utilities/UNIX/UNIXStdThread(136): Terminating thread again"),
       noon + second},
      {lineOf("again", "a later one of this name"), noon + 2 * second},
      {lineOf("main", "the only thread"), noon + 9 * second, &leaf},
      {lineOf("main", "newest"), noon + 5 * second},
  });
  EXPECT_EQ(
      partOf(summary, "Silent to the end"),
      "Silent to the end of the trace, without a line that ends the thread or its process\n"
      "     5.000 s  2026-11-22 12:23:41.000098 to 2026-11-22 12:23:46.000098  root.1234 stuck\n"
      "              after waits for an answer\n"
      "     3.000 s  2026-11-22 12:23:43.000098 to 2026-11-22 12:23:46.000098  root.1234 again\n"
      "              after a later one of this name");
}

TEST(Summary, NoThreadOfAProcessThatHasEndedHangs) {
  const std::string summary = summaryOf({
      {lineOf("worker", "text"), noon},
      {lineOf("main", "void TraceImplementation::traceInternal(718): Trace end at Sun"),
       noon + second},
      {lineOf("main", "of another"), noon + 9 * second, &leaf},
  });
  EXPECT_THAT(summary, Not(HasSubstr("Silent to the end")));
}

TEST(Summary, SaysThatNoTypeIsOff) {
  TraceFacts facts = factsOf(root);
  facts.included = {"ERROR"};
  EXPECT_THAT(summaryOf({}, {&facts}), HasSubstr("\n  Types off   none\n"));
}

TEST(Summary, WhatTheRingHasLostIsNoSilence) {
  TraceFacts facts = factsOf(root);
  facts.hasLost = true;
  facts.lostFrom = noon;
  facts.lostUntil = noon + 100 * second;
  const TraceFacts other = factsOf(leaf);
  const std::string summary = summaryOf(
      {
          {lineOf("main", "header"), noon},
          {lineOf("main", "of the other"), noon + 50 * second, &leaf},
          {lineOf("main", "oldest"), noon + 100 * second},
          {lineOf("main", "of the other"), noon + 101 * second, &leaf},
          {lineOf("main", "next"), noon + 103 * second},
      },
      {&facts, &other});
  EXPECT_EQ(
      partOf(summary, "Longest silence of each"),
      "Longest silence of each thread between two of its lines\n"
      "    51.000 s  2026-11-22 12:24:31.000098 to 2026-11-22 12:25:22.000098  leaf.1300 main\n"
      "              after of the other\n"
      "     3.000 s  2026-11-22 12:25:21.000098 to 2026-11-22 12:25:24.000098  root.1234 main\n"
      "              after oldest");
  EXPECT_THAT(partOf(summary, "Longest silences of all"), Not(HasSubstr("50.000 s")));
}

TEST(Summary, KeepsTheFiveLongestSilencesOfAll) {
  std::vector<Made> lines;
  WallTime time = noon;
  for (const int length : {3, 9, 1, 7, 4, 8, 2, 6, 5}) {
    lines.push_back({lineOf("main", "text"), time});
    time += length * second;
  }
  lines.push_back({lineOf("main", "text"), time});
  const std::string silences = partOf(summaryOf(lines), "Longest silences of all");
  for (const char* kept : {" 9.000 s", " 8.000 s", " 7.000 s", " 6.000 s", " 5.000 s"}) {
    EXPECT_THAT(silences, HasSubstr(kept));
  }
  EXPECT_THAT(silences, Not(HasSubstr(" 4.000 s")));
}

TEST(Summary, TimeThatStandsStillOrRunsBackwardIsNoSilence) {
  const std::string summary = summaryOf({{lineOf("main", "a"), noon},
                                         {lineOf("main", "b"), noon},
                                         {lineOf("main", "c"), noon - 3600 * second},
                                         {lineOf("main", "d"), noon - 3599 * second}});
  EXPECT_EQ(
      partOf(summary, "Longest silence of each"),
      "Longest silence of each thread between two of its lines\n"
      "     1.000 s  2026-11-22 11:23:41.000098 to 2026-11-22 11:23:42.000098  root.1234 main\n"
      "              after c");
  EXPECT_THAT(summary, HasSubstr("           4  root.1234 main                  "
                                 "2026-11-22 11:23:41.000098  2026-11-22 12:23:41.000098\n"));
}

TEST(Summary, TellsLinesByThreadTypeAndFunction) {
  const std::string summary = summaryOf({
      {lineOf("main", "**GMH/step: void A::f(147): text"), noon},
      {lineOf("main", "**GMH: void A::f(150): text"), noon},
      {lineOf("worker", "text"), noon + second},
      {"no line", noon + second},
      {std::string(72, '='), noon + second},
  });
  EXPECT_EQ(partOf(summary, "       Lines  Thread"),
            "       Lines  Thread                          First line                  Last line\n"
            "           2  root.1234 main                  2026-11-22 12:23:41.000098  "
            "2026-11-22 12:23:41.000098\n"
            "           1  root.1234 worker                2026-11-22 12:23:42.000098  "
            "2026-11-22 12:23:42.000098\n"
            "           1  root.1234 (no thread)           2026-11-22 12:23:42.000098  "
            "2026-11-22 12:23:42.000098");
  EXPECT_EQ(partOf(summary, "       Lines  Share    Type"),
            "       Lines  Share    Type\n"
            "           2   50.0 %  (no type)\n"
            "           2   50.0 %  GMH");
  EXPECT_EQ(partOf(summary, "       Lines  Share    Function"),
            "       Lines  Share    Function\n"
            "           2   50.0 %  (no function)\n"
            "           2   50.0 %  void A::f\n");
}

TEST(Summary, TellsTheBiggestOfThousandsOfThreadsAndHowManyAreLeft) {
  std::vector<Made> lines;
  for (int i = 0; i < 5000; ++i) {
    lines.push_back({lineOf("t" + std::to_string(i), "text"), noon + i});
    lines.push_back({lineOf("main", "text"), noon + i});
  }
  const std::string summary = summaryOf(lines);
  EXPECT_THAT(summary, HasSubstr("       5,000  root.1234 main"));
  EXPECT_THAT(summary, HasSubstr("              and 4,951 other threads with 4,951 lines\n"));
}

TEST(Summary, NoLineIsWiderThanAHundredColumnsAndNoByteUpsetsATerminal) {
  std::string any;
  for (int byte = 0; byte < 256; ++byte) {
    any += static_cast<char>(byte);
  }
  const std::string wide = "\xE6\x97\xA5\xE6\x9C\xAC";
  std::string wideText;
  for (int i = 0; i < 100; ++i) {
    wideText += wide;
  }
  const Process strange = {any + any, "", 0, any + any};
  TraceFacts facts = factsOf(strange);
  facts.program = any;
  facts.version = wideText;
  facts.included = {any, wideText, std::string(300, 'x')};
  const std::string summary = summaryOf(
      {{lineOf(any.substr(10, 8), "**ERROR: void A::" + wide + "(12): " + any), noon, &strange},
       {lineOf("main", "**ERROR: " + wideText), noon + second, &strange},
       {lineOf("main", "**WARNING: " + std::string(500, 'y')), noon + 9 * second, &strange},
       {any, noon + 12 * second, &strange}},
      {&facts});
  std::istringstream lines(summary);
  for (std::string line; std::getline(lines, line);) {
    std::size_t columns = 0;
    for (const char c : line) {
      const unsigned byte = static_cast<unsigned char>(c);
      EXPECT_TRUE(byte >= 0x20 && byte != 0x7F) << byte;
      columns += byte >= 0xE3 ? 2 : (byte & 0xC0) != 0x80 ? 1 : 0;
    }
    EXPECT_LE(columns, 100U) << line;
  }
}
