#include "programs/enginetrace/SummaryText.h"

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

TEST(SummaryText, NumbersAreGroupedByThousands) {
  EXPECT_EQ(grouped(0), "0");
  EXPECT_EQ(grouped(999), "999");
  EXPECT_EQ(grouped(1000), "1,000");
  EXPECT_EQ(grouped(1'234'567), "1,234,567");
  EXPECT_EQ(grouped(UINT64_MAX), "18,446,744,073,709,551,615");
  EXPECT_EQ(grouped(1234, 8), "   1,234");
  EXPECT_EQ(counted(1, "line"), "1 line");
  EXPECT_EQ(counted(0, "line"), "0 lines");
}

TEST(SummaryText, FitsTextsIntoColumns) {
  EXPECT_EQ(fitted("12345", 5), "12345");
  EXPECT_EQ(fitted("123456", 5), "12...");
  EXPECT_EQ(padded("123", 5), "123  ");
  EXPECT_EQ(padded("123456", 5), "12...");
  // Two columns for each of these, one for each with an accent.
  EXPECT_EQ(fitted("日本語", 6), "日本語");
  EXPECT_EQ(fitted("日本語", 5), "日...");
  EXPECT_EQ(padded("äöü", 4), "äöü ");
}

TEST(SummaryText, KeepsATextOnOneLineAndAwayFromTheTerminal) {
  EXPECT_EQ(fitted("a\nb\tc\x1B", 20), "a b c\\x1B");
  EXPECT_EQ(fitted(std::string(1000, '\xFF'), 10), "\\xFF\\xF...");
}

TEST(SummaryText, AlignsDurations) {
  EXPECT_EQ(durationText(80, 8), "   80 us");
  EXPECT_EQ(durationText(80), "80 us");
  EXPECT_EQ(timeText(0), "1970-01-01 00:00:00.000000");
}
