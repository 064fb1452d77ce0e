#include "Engine/utilities/Checksums.h"

#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace {

// The definition itself: the remainder of the text, with as many zero bits behind it as the
// polynomial has, divided bit by bit.
template <class Check>
Check remainder(std::string_view text, Check polynomial) {
  constexpr unsigned bits = sizeof(Check) * 8;
  std::vector<bool> dividend;
  for (const char c : text) {
    for (int bit = 7; bit >= 0; --bit) {
      dividend.push_back((static_cast<unsigned char>(c) >> bit & 1) != 0);
    }
  }
  dividend.insert(dividend.end(), bits, false);
  std::uint64_t rest = 0;
  for (const bool bit : dividend) {
    rest = rest << 1 | (bit ? 1 : 0);
    if ((rest >> bits & 1) != 0) {
      rest ^= std::uint64_t{1} << bits | polynomial;
    }
  }
  return static_cast<Check>(rest);
}

unsigned char crc8Of(std::string_view text) {
  return crc8(static_cast<unsigned>(text.size()), text.data(), 0U);
}

unsigned crc32Of(std::string_view text) {
  return crc32(static_cast<unsigned>(text.size()), text.data(), 0U);
}

std::string randomBytes(std::mt19937& random, std::size_t length) {
  std::string text(length, '\0');
  for (char& c : text) {
    c = static_cast<char>(random());
  }
  return text;
}

TEST(Checksums, OfASingleOneBitAreThePolynomials) {
  EXPECT_EQ(crc8Of("\x01"), 0xB8);
  EXPECT_EQ(crc32Of("\x01"), 0xEB31D82EU);
  // One bit further to the left: doubled, and the carry divided out again.
  EXPECT_EQ(crc8Of("\x02"), 0x70 ^ 0xB8);
  EXPECT_EQ(crc32Of("\x02"), 0xD663B05CU ^ 0xEB31D82EU);
}

TEST(Checksums, OfNoDataAreZero) {
  EXPECT_EQ(crc8(0, "x", 0U), 0);
  EXPECT_EQ(crc32(0, "x", 0U), 0U);
  EXPECT_EQ(crc8(3, nullptr), 0);
  EXPECT_EQ(crc32(3, nullptr), 0U);
  EXPECT_EQ(crc8(0, nullptr), 0);
  EXPECT_EQ(crc32(0, nullptr), 0U);
  EXPECT_EQ(crc8(0, nullptr, 3U, "abc", 0U), 0) << "a null first pointer ends everything";
  EXPECT_EQ(crc32(0, nullptr, 3U, "abc", 0U), 0U);
}

TEST(Checksums, AgreeWithTheDivisionForEveryByte) {
  for (unsigned byte = 0; byte < 256; ++byte) {
    const std::string text(1, static_cast<char>(byte));
    EXPECT_EQ(crc8Of(text), remainder<std::uint8_t>(text, 0xB8)) << byte;
    EXPECT_EQ(crc32Of(text), remainder<std::uint32_t>(text, 0xEB31D82E)) << byte;
  }
}

TEST(Checksums, AgreeWithTheDivisionForEveryLengthAndAlignment) {
  std::mt19937 random(3);
  for (std::size_t length = 0; length < 150; ++length) {
    const std::string text = randomBytes(random, 16 + length);
    const std::string_view piece = std::string_view(text).substr(length % 16, length);
    EXPECT_EQ(crc8Of(piece), remainder<std::uint8_t>(piece, 0xB8)) << length;
    EXPECT_EQ(crc32Of(piece), remainder<std::uint32_t>(piece, 0xEB31D82E)) << length;
  }
}

TEST(Checksums, OfPiecesAreThoseOfTheirConcatenation) {
  std::mt19937 random(4);
  for (unsigned round = 0; round < 200; ++round) {
    const std::string a = randomBytes(random, 1 + random() % 200);
    const std::string b = randomBytes(random, 1 + random() % 200);
    const std::string c = randomBytes(random, 1 + random() % 200);
    const std::string all = std::string(a).append(b).append(c);
    const auto na = static_cast<unsigned>(a.size());
    const auto nb = static_cast<unsigned>(b.size());
    const auto nc = static_cast<unsigned>(c.size());
    EXPECT_EQ(crc8(na, a.data(), nb, b.data(), nc, c.data(), 0U), crc8Of(all));
    EXPECT_EQ(crc32(na, a.data(), nb, b.data(), nc, c.data(), 0U), crc32Of(all));
  }
}

TEST(Checksums, SkipAnEmptyFirstPiece) {
  EXPECT_EQ(crc8(0, "x", 3U, "abc", 0U), crc8Of("abc"));
  EXPECT_EQ(crc32(0, "x", 3U, "abc", 0U), crc32Of("abc"));
}

TEST(Checksums, StopAtTheFirstLengthOfZeroAndAtTheFirstNullPointer) {
  EXPECT_EQ(crc8(3, "abc", 0U, "def", 3U, "def", 0U), crc8Of("abc"));
  EXPECT_EQ(crc32(3, "abc", 0U, "def", 3U, "def", 0U), crc32Of("abc"));
  const void* const none = nullptr;
  EXPECT_EQ(crc8(3, "abc", 3U, none, 3U, "def", 0U), crc8Of("abc"));
  EXPECT_EQ(crc32(3, "abc", 3U, none, 3U, "def", 0U), crc32Of("abc"));
}

TEST(Checksums, NoticeEveryTransposition) {
  EXPECT_NE(crc8Of("ab"), crc8Of("ba"));
  EXPECT_NE(crc32Of("ab"), crc32Of("ba"));
}

}  // namespace
