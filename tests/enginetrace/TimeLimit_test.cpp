#include "programs/enginetrace/TimeLimit.h"

#include <string>

#include <gmock/gmock.h>

namespace {

constexpr WallTime second = microsecondsPerSecond;
constexpr WallTime minute = 60 * second;
constexpr WallTime hour = 60 * minute;
constexpr WallTime day = microsecondsPerDay;

// 20779 days from 1970-01-01 to 2026-11-22: 56 years, of which 14 have a leap day, and 325 days.
constexpr WallTime midnight = (56 * 365 + 14 + 325) * day;

// What a text means when the traces go from 10:00 to 11:30 of this day.
WallTime meant(const std::string& text,
               TimeSpan span = {midnight + 10 * hour, midnight + 11 * hour + 30 * minute}) {
  const std::optional<TimeLimit> limit = TimeLimit::parse(text);
  EXPECT_TRUE(limit.has_value()) << text;
  return limit ? limit->within(span) : 0;
}

TEST(TimeLimit, IsAMoment) {
  EXPECT_EQ(meant("2026-11-22"), midnight);
  EXPECT_EQ(meant("2026-11-22 12:23"), midnight + 12 * hour + 23 * minute);
  EXPECT_EQ(meant("2026-11-22T12:23:41"), midnight + 12 * hour + 23 * minute + 41 * second);
  EXPECT_EQ(meant("2026-11-22 12:23:41.000098"),
            midnight + 12 * hour + 23 * minute + 41 * second + 98);
  EXPECT_EQ(meant("2026-11-22 0:00:00.5"), midnight + second / 2);
  EXPECT_EQ(meant("1970-01-01"), 0);
  EXPECT_EQ(meant("2024-02-29") + day, meant("2024-03-01"));
}

TEST(TimeLimit, IsATimeOfTheDayOnWhichTheTracesEnd) {
  EXPECT_EQ(meant("10:30"), midnight + 10 * hour + 30 * minute);
  EXPECT_EQ(meant("10:30:05"), midnight + 10 * hour + 30 * minute + 5 * second);
  EXPECT_EQ(meant("09:00"), midnight + 9 * hour);
  EXPECT_EQ(meant("12:00"), midnight + 12 * hour);
}

TEST(TimeLimit, IsATimeOfTheDayBeforeWhereTheTracesHaveItThere) {
  const TimeSpan overMidnight = {midnight - 2 * hour, midnight + 5 * minute};
  EXPECT_EQ(meant("23:50", overMidnight), midnight - 10 * minute);
  EXPECT_EQ(meant("00:05", overMidnight), midnight + 5 * minute);
  EXPECT_EQ(meant("00:06", overMidnight), midnight + 6 * minute);
  EXPECT_EQ(meant("22:00", overMidnight), midnight - 2 * hour);
  // Not between the two: on the last day.
  EXPECT_EQ(meant("21:59", overMidnight), midnight + 22 * hour - minute);
}

TEST(TimeLimit, IsATimeBeforeTheEnd) {
  const WallTime end = midnight + 11 * hour + 30 * minute;
  EXPECT_EQ(meant("0s"), end);
  EXPECT_EQ(meant("30s"), end - 30 * second);
  EXPECT_EQ(meant("5m"), end - 5 * minute);
  EXPECT_EQ(meant("2h"), end - 2 * hour);
  EXPECT_EQ(meant("1d"), end - day);
  EXPECT_EQ(meant("1h30m"), end - hour - 30 * minute);
}

TEST(TimeLimit, IsNothingElse) {
  for (const std::string text : {"",
                                 "x",
                                 "12",
                                 "5",
                                 "12:",
                                 "12:3",
                                 "24:00",
                                 "12:60",
                                 "12:00:61",
                                 "12:00:0",
                                 "12:00:00.",
                                 "12:00:00.1234567",
                                 "12:00 ",
                                 " 12:00",
                                 "2026-13-01",
                                 "2026-02-29",
                                 "2026-11",
                                 "2026-11-",
                                 "2026-11-22 ",
                                 "2026-11-22x",
                                 "2026-11-22 25:00",
                                 "26-11-22",
                                 "5x",
                                 "m",
                                 "5m ",
                                 "-5m",
                                 "5m3",
                                 "1234567d",
                                 "+1:00",
                                 "-1:00"}) {
    EXPECT_FALSE(TimeLimit::parse(text).has_value()) << '"' << text << '"';
  }
  EXPECT_FALSE(TimeLimit::parse({"12:00\0", 6}).has_value());
  // Not more than can be reckoned with.
  std::string years;
  for (int i = 0; i < 1000; ++i) {
    years += "999999d";
  }
  EXPECT_FALSE(TimeLimit::parse(years).has_value());
}

}  // namespace
