#include "Engine/utilities/ElapsedTime.h"

#include <chrono>
#include <cstdint>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

constexpr std::uint64_t second = 1000000;

std::uint64_t wallClock() {
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                        std::chrono::system_clock::now().time_since_epoch())
                                        .count());
}

// The microseconds in a text, which must be digits, a point and exactly six digits.
std::uint64_t microsecondsIn(const std::string& text) {
  EXPECT_THAT(text, testing::MatchesRegex("[0-9]+\\.[0-9]{6}"));
  const std::size_t point = text.find('.');
  return std::stoull(text.substr(0, point)) * second + std::stoull(text.substr(point + 1));
}

TEST(ElapsedTime, NowIsTheWallClockInMicroseconds) {
  const std::uint64_t before = wallClock();
  const std::uint64_t now = ElapsedTime::now();
  const std::uint64_t after = wallClock();
  // The two clocks may round to the microsecond differently.
  EXPECT_GE(now + 1, before);
  EXPECT_LE(now, after + 1);
}

TEST(ElapsedTime, TextIsTheTimeSinceTheStartWithSixDecimals) {
  for (const std::uint64_t ago :
       {std::uint64_t{0}, std::uint64_t{42}, second - 1, 12 * second + 345, 100000 * second}) {
    ElapsedTime timer;
    const std::uint64_t before = ElapsedTime::now();
    timer.start = before - ago;
    const std::uint64_t elapsed = microsecondsIn(timer.elapsedTime());
    const std::uint64_t after = ElapsedTime::now();
    EXPECT_GE(elapsed, ago);
    EXPECT_LE(elapsed, ago + (after - before));
  }
}

TEST(ElapsedTime, UnsetStartCountsFromTheEpoch) {
  const ElapsedTime timer;
  EXPECT_EQ(timer.start, 0U);
  const std::uint64_t before = ElapsedTime::now();
  const std::uint64_t elapsed = microsecondsIn(timer.elapsedTime());
  EXPECT_GE(elapsed, before);
  EXPECT_LE(elapsed, ElapsedTime::now());
}

TEST(ElapsedTime, StartThatLiesAheadGivesZero) {
  ElapsedTime timer;
  timer.start = ElapsedTime::now() + 3600 * second;
  EXPECT_STREQ(timer.elapsedTime(), "0.000000");
  timer.start = UINT64_MAX;
  EXPECT_STREQ(timer.elapsedTime(), "0.000000");
}

TEST(ElapsedTime, TextStaysInTheAreaOfTheObject) {
  ElapsedTime one;
  ElapsedTime other;
  one.start = other.start = ElapsedTime::now();
  const char* const text = one.elapsedTime();
  EXPECT_NE(text, other.elapsedTime());
  one.start = UINT64_MAX;
  EXPECT_EQ(one.elapsedTime(), text);
  EXPECT_STREQ(text, "0.000000") << "overwritten";
}

}  // namespace
