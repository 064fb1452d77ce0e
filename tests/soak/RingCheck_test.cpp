#include "tests/soak/RingCheck.h"

#include <cstdio>
#include <string>
#include <vector>

#include <gmock/gmock.h>

using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr unsigned writers = 2;
constexpr std::size_t capacity = 1'000'000;
constexpr std::size_t margin = 300;

// "12:00:00.000100 (Writer01)" with the time in microseconds of the day.
std::string startOf(unsigned long time, const std::string& thread) {
  char start[64];
  std::snprintf(start, sizeof start, "%02lu:%02lu:%02lu.%06lu (%-8s)", time / 3'600'000'000 % 24,
                time / 60'000'000 % 60, time / 1'000'000 % 60, time % 1'000'000, thread.c_str());
  return start;
}

std::string numberedLine(unsigned long time, unsigned writer, unsigned long number) {
  return startOf(time, nameOfWriter(writer)) + "**AGENT: void Writer::run(" +
         std::to_string(writer) + "): " + textOfLine(writer, number) + "\n";
}

std::string markLine(unsigned long time, unsigned long number) {
  return startOf(time, "main") + "**AGENT: " + textOfMark(number) + "\n";
}

std::string lifeLine(unsigned long time) {
  return startOf(time, "soaked") + "source(132): Starting thread soaked\n";
}

constexpr unsigned long noon = 12UL * 3'600'000'000;

// Lines `first` to `last` of both writers in turn, a microsecond apart.
std::string linesOfBoth(unsigned long first, unsigned long last, unsigned long start = noon) {
  std::string text;
  for (unsigned long number = first; number <= last; ++number) {
    text += numberedLine(start + 2 * number, 1, number);
    text += numberedLine(start + 2 * number + 1, 2, number);
  }
  return text;
}

RingCheck::Findings findingsOf(const std::string& ring, unsigned long written) {
  RingCheck check(writers, capacity, margin);
  check.check(ring, 1, std::vector<unsigned long>(writers, written));
  return check.findings();
}

bool isClean(const RingCheck::Findings& findings) {
  return findings.torn + findings.outOfOrder + findings.missing + findings.errors == 0 &&
         findings.first.empty();
}

TEST(RingCheck, FindsNothingInARingThatHasNotWrapped) {
  const RingCheck::Findings findings = findingsOf(linesOfBoth(1, 70) + markLine(noon + 900, 1), 70);
  EXPECT_TRUE(isClean(findings)) << findings.first;
  EXPECT_EQ(findings.lines, 140U);
  EXPECT_EQ(findings.others, 1U);
}

TEST(RingCheck, ReadsOnBehindTheSeamOfARingWithTheOldestWholeLine) {
  const std::string oldest = linesOfBoth(11, 20);
  const std::string newest = linesOfBoth(21, 30) + markLine(noon + 900, 2);
  RingCheck check(writers, capacity, margin);
  check.check(linesOfBoth(1, 12) + markLine(noon + 25, 1), 1, std::vector<unsigned long>(2, 12));
  ASSERT_TRUE(isClean(check.findings()));
  for (std::size_t cut = 1; cut <= oldest.find('\n'); ++cut) {
    RingCheck next = check;
    next.check(newest + std::string(margin, '#') + oldest.substr(cut), 2,
               std::vector<unsigned long>(2, 30));
    EXPECT_TRUE(isClean(next.findings())) << next.findings().first;
    EXPECT_EQ(next.findings().lines, 24U + 39U) << "all but the cut one";
  }
}

TEST(RingCheck, LeavesOutWhatMayBeWrittenBehindTheMarkMeanwhile) {
  const std::string newest = linesOfBoth(5, 8) + markLine(noon + 50, 1);
  const std::string oldest = linesOfBoth(1, 4);
  const auto ringWith = [&](const std::string& middle) { return newest + middle + "\n" + oldest; };
  const std::string being = lifeLine(noon + 51) + "rest\nof lines\nthat are being written";
  EXPECT_TRUE(
      isClean(findingsOf(ringWith(being + "\n" + std::string(margin - being.size() - 1, '#')), 8)));
  EXPECT_EQ(findingsOf(ringWith(std::string(margin, '#') + "\n#\n#"), 8).torn, 2U);
}

TEST(RingCheck, LeavesOutTheBeginningWhenTheRingMayBeginAnewBehindTheMark) {
  const std::string beginning = std::string(margin - 10, '#') + "\ntorn, which may be\n";
  const std::string ring = beginning + linesOfBoth(1, 9) + markLine(noon + 50, 1);
  const auto tornWith = [&ring](std::size_t size) {
    RingCheck check(writers, size, margin);
    check.check(ring, 1, std::vector<unsigned long>(writers, 9));
    EXPECT_EQ(check.findings().lines, 18U);
    return check.findings().torn;
  };
  EXPECT_EQ(tornWith(ring.size()), 0U);
  EXPECT_EQ(tornWith(ring.size() + margin - 1), 0U);
  EXPECT_EQ(tornWith(ring.size() + margin), 2U) << "there is room for all at the end";
}

TEST(RingCheck, FindsEachByteThatIsNotAsItWasWritten) {
  const std::string before = linesOfBoth(1, 3);
  const std::string line = numberedLine(noon + 8, 1, 4);
  const std::string behind = numberedLine(noon + 9, 2, 4) + markLine(noon + 900, 1);
  ASSERT_TRUE(isClean(findingsOf(before + line + behind, 4)));
  for (std::size_t place = 0; place < line.size(); ++place) {
    std::string changed = line;
    changed[place] = '#';
    const RingCheck::Findings findings = findingsOf(before + changed + behind, 4);
    EXPECT_GE(findings.torn, 1U) << changed;
    EXPECT_THAT(findings.first, StartsWith("torn: \""));
  }
}

TEST(RingCheck, FindsALineThatLacksItsMiddleOrEnd) {
  const std::string line = numberedLine(noon + 8, 1, 4);
  for (std::size_t length = 1; length + 1 < line.size(); ++length) {
    const std::string ring = linesOfBoth(1, 3) + line.substr(0, length) + "\n" +
                             numberedLine(noon + 9, 2, 4) + markLine(noon + 900, 1);
    EXPECT_EQ(findingsOf(ring, 4).torn, 1U) << length;
  }
  const std::string noEnd = linesOfBoth(2, 3) + markLine(noon + 900, 1) + std::string(margin, '#') +
                            "\n" + numberedLine(noon, 1, 1) + startOf(noon + 1, "Writer02");
  EXPECT_EQ(findingsOf(noEnd, 3).torn, 1U);
}

TEST(RingCheck, FindsLinesInAnotherOrder) {
  const auto ringWith = [](unsigned long third, unsigned long fourth) {
    return linesOfBoth(1, 2) + numberedLine(noon + 6, 1, third) + numberedLine(noon + 7, 2, 3) +
           numberedLine(noon + 8, 1, fourth) + numberedLine(noon + 9, 2, 4) +
           markLine(noon + 900, 1);
  };
  EXPECT_TRUE(isClean(findingsOf(ringWith(3, 4), 4)));
  const RingCheck::Findings exchanged = findingsOf(ringWith(4, 3), 4);
  EXPECT_EQ(exchanged.outOfOrder, 1U);
  EXPECT_THAT(exchanged.first, HasSubstr("line 4: "));
  EXPECT_EQ(findingsOf(ringWith(3, 3), 4).outOfOrder, 1U) << "twice";
}

TEST(RingCheck, FindsALineThatIsEarlierThanTheOneBeforeButNotAtMidnight) {
  const std::string mark = markLine(noon + 900, 1);
  const std::string early = numberedLine(noon + 3, 1, 1) + numberedLine(noon + 2, 2, 1) + mark;
  EXPECT_EQ(findingsOf(early, 1).outOfOrder, 1U);
  constexpr unsigned long midnight = 24UL * 3'600'000'000;
  EXPECT_TRUE(
      isClean(findingsOf(linesOfBoth(1, 9, midnight - 10) + markLine(midnight + 900, 1), 9)));
}

TEST(RingCheck, CountsTheLinesThatAreMissing) {
  std::string ring = linesOfBoth(1, 3) + numberedLine(noon + 20, 1, 9) +
                     numberedLine(noon + 21, 2, 4) + markLine(noon + 900, 1);
  RingCheck check(writers, capacity, margin);
  check.check(ring, 1, std::vector<unsigned long>{9, 4});
  EXPECT_EQ(check.findings().missing, 5U) << "in between";

  check = RingCheck(writers, capacity, margin);
  check.check(ring, 1, std::vector<unsigned long>{9, 6});
  EXPECT_EQ(check.findings().missing, 5U + 2U) << "the newest";

  ring = linesOfBoth(13, 14) + markLine(noon + 901, 2);
  check = RingCheck(writers, capacity, margin);
  check.check(linesOfBoth(1, 9) + markLine(noon + 900, 1), 1, std::vector<unsigned long>(2, 9));
  ASSERT_TRUE(isClean(check.findings()));
  check.check(ring, 2, std::vector<unsigned long>(2, 14));
  EXPECT_EQ(check.findings().missing, 6U) << "written over before they were looked at";

  EXPECT_EQ(findingsOf(linesOfBoth(1, 3), 3).missing, 1U) << "the mark";
}

TEST(RingCheck, FindsALineThatWasNotWrittenYet) {
  EXPECT_EQ(findingsOf(linesOfBoth(1, 4) + markLine(noon + 900, 1), 3).torn, 2U);
}

TEST(RingCheck, FindsErrorsAndStrangeLines) {
  const std::string mark = markLine(noon + 900, 1);
  const RingCheck::Findings findings = findingsOf(
      linesOfBoth(1, 3) + startOf(noon + 9, "main") + "**ERROR: f(1): failed\n" + mark, 3);
  EXPECT_EQ(findings.errors, 1U);
  EXPECT_THAT(findings.first, HasSubstr("**ERROR: f(1): failed"));
  EXPECT_EQ(findingsOf(linesOfBoth(1, 3) + startOf(noon + 9, "main") + "strange\n" + mark, 3).torn,
            1U);
}

TEST(RingCheck, TellsLinesApartByTheirFirstBytesAndTheirLast) {
  EXPECT_EQ(textOfLine(3, 61), "writer 3, line 61: |61");
  EXPECT_EQ(textOfLine(12, 108),
            "writer 12, line 108: cdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVW|108");
  EXPECT_EQ(nameOfWriter(7), "Writer07");
  EXPECT_EQ(nameOfWriter(16), "Writer16");
}

}  // namespace
