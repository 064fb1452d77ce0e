#include "programs/enginetrace/TimeText.h"

#include <cstdint>
#include <ctime>
#include <string>

#include <gtest/gtest.h>

namespace {

std::string timeOf(WallTime time) {
  std::string text;
  appendTime(text, time);
  return text;
}

std::string lengthOf(WallTime duration) {
  std::string text;
  appendDuration(text, duration);
  return text;
}

}  // namespace

TEST(TimeText, TimesAreThoseOfTheCLibrary) {
  for (const std::time_t second :
       {0L, 951'782'400L, 951'868'799L, 1'795'350'221L, -1L, 4'102'444'799L}) {
    std::tm parts = {};
    gmtime_r(&second, &parts);
    char expected[32];
    std::strftime(expected, sizeof expected, "%Y-%m-%dT%H:%M:%S", &parts);
    EXPECT_EQ(timeOf(second * microsecondsPerSecond + 98), expected + std::string(".000098"));
  }
}

TEST(TimeText, TheLastMicrosecondOfADayIsStillOfThatDay) {
  EXPECT_EQ(timeOf(microsecondsPerDay - 1), "1970-01-01T23:59:59.999999");
  EXPECT_EQ(timeOf(microsecondsPerDay), "1970-01-02T00:00:00.000000");
  EXPECT_EQ(timeOf(-1), "1969-12-31T23:59:59.999999");
}

TEST(TimeText, TheSeparatorIsTheCallers) {
  std::string text = "at ";
  appendTime(text, 0, ' ');
  EXPECT_EQ(text, "at 1970-01-01 00:00:00.000000");
}

TEST(TimeText, DurationsHaveTheTwoUnitsThatTellMost) {
  EXPECT_EQ(lengthOf(0), "0 us");
  EXPECT_EQ(lengthOf(999), "999 us");
  EXPECT_EQ(lengthOf(1000), "1.000 ms");
  EXPECT_EQ(lengthOf(17'004), "17.004 ms");
  EXPECT_EQ(lengthOf(999'999), "999.999 ms");
  EXPECT_EQ(lengthOf(1'000'000), "1.000 s");
  EXPECT_EQ(lengthOf(59'999'999), "59.999 s");
  EXPECT_EQ(lengthOf(60'000'000), "1 min 0 s");
  EXPECT_EQ(lengthOf(3'599'999'999), "59 min 59 s");
  EXPECT_EQ(lengthOf(3'600'000'000), "1 h 0 min");
  EXPECT_EQ(lengthOf(microsecondsPerDay - 1), "23 h 59 min");
  EXPECT_EQ(lengthOf(microsecondsPerDay * 3 + 7'200'000'000), "3 d 2 h");
  EXPECT_EQ(lengthOf(-80), "-80 us");
  EXPECT_EQ(lengthOf(INT64_MIN), "-106751991 d 4 h");
}
