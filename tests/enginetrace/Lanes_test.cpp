#include "programs/enginetrace/Lanes.h"

#include <string>

#include <gtest/gtest.h>

#include "tests/enginetrace/Written.h"

TEST(Lanes, AreNumberedAsTheyAppear) {
  Lanes lanes;
  const auto add = [&](const Process& process, std::string_view thread) {
    return lanes.add({"", noon, &process}, thread);
  };
  EXPECT_EQ(add(root, "main"), 0U);
  EXPECT_EQ(add(root, "worker"), 1U);
  EXPECT_EQ(add(leaf, "main"), 2U);
  EXPECT_EQ(add(root, ""), 3U);
  EXPECT_EQ(add(root, "main"), 0U);
  EXPECT_EQ(add(leaf, "main"), 2U);
  EXPECT_EQ(add(root, "12345678"), 4U);
  ASSERT_EQ(lanes.all().size(), 5U);
  EXPECT_EQ(lanes.all()[2].process, &leaf);
  EXPECT_EQ(lanes.all()[4].thread, "12345678");
}

TEST(Lanes, KnowTheirEarliestAndLatestTime) {
  Lanes lanes;
  for (const WallTime time : {noon, noon + 7, noon - 3, noon}) {
    lanes.add({"", time, &root}, "main");
  }
  EXPECT_EQ(lanes.all()[0].first, noon - 3);
  EXPECT_EQ(lanes.all()[0].last, noon + 7);
}

TEST(Lanes, ThreadsBeyondTheMostShareTheLastLane) {
  Lanes lanes;
  for (std::size_t i = 0; i < Lanes::most; ++i) {
    ASSERT_EQ(lanes.add({"", noon, &root}, std::to_string(i)), i);
  }
  EXPECT_EQ(lanes.add({"", noon, &root}, "beyond"), Lanes::most - 1);
  EXPECT_EQ(lanes.add({"", noon, &leaf}, "0"), Lanes::most - 1);
  EXPECT_EQ(lanes.add({"", noon, &root}, "0"), 0U);
  EXPECT_EQ(lanes.all().size(), Lanes::most);
}
