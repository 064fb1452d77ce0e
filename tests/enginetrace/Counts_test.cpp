#include "programs/enginetrace/Counts.h"

#include <string>

#include <gtest/gtest.h>

TEST(Counts, TheBiggestComeFirstAndEqualOnesByTheAlphabet) {
  Counts counts;
  for (const char* text : {"b", "c", "a", "c", "", "c"}) {
    counts.add(text);
  }
  const auto biggest = counts.biggest(3);
  ASSERT_EQ(biggest.size(), 3U);
  EXPECT_EQ(biggest[0].text, "c");
  EXPECT_EQ(biggest[0].count, 3U);
  EXPECT_EQ(biggest[1].text, "");
  EXPECT_EQ(biggest[2].text, "a");
  EXPECT_EQ(counts.all(), 6U);
  EXPECT_EQ(counts.different(), 4U);
  EXPECT_EQ(counts.biggest(100).size(), 4U);
}

TEST(Counts, TextsThatDifferInOneByteAreTwo) {
  Counts counts;
  const std::string text = "void Symbols::load(int)";
  counts.add(text);
  for (std::size_t i = 0; i < text.size(); ++i) {
    std::string other = text;
    other[i] ^= 1;
    counts.add(other);
    counts.add(text.substr(0, i));
  }
  EXPECT_EQ(counts.different(), 2 * text.size() + 1);
}

TEST(Counts, OfLongTextsTheFirstBytesCount) {
  Counts counts;
  counts.add(std::string(Counts::longest, 'x'));
  counts.add(std::string(Counts::longest + 1, 'x'));
  counts.add(std::string(Counts::longest - 1, 'x'));
  EXPECT_EQ(counts.different(), 2U);
}

TEST(Counts, DoNotGrowBeyondTheMostDifferentTexts) {
  Counts counts;
  for (std::size_t i = 0; i < Counts::most + 500; ++i) {
    counts.add(std::to_string(i));
  }
  counts.add("0");
  EXPECT_EQ(counts.different(), Counts::most);
  EXPECT_EQ(counts.all(), Counts::most + 501);
  EXPECT_EQ(counts.biggest(1)[0].text, "0");
}
