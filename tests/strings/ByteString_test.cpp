#include "Engine/utilities/ByteString.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <utility>

#include <gtest/gtest.h>

namespace {

using namespace std::string_view_literals;

ByteString bytes(std::string_view text) {
  return {text.data(), static_cast<unsigned>(text.size())};
}

// Fails when the terminator is missing.
std::string text(const ByteString& s) {
  const unsigned char* const p = s;
  EXPECT_EQ(p[s.length()], 0);
  return std::string(s.view());
}

std::string strippedPointers(std::string_view before) {
  ByteString s = bytes(before);
  s.stripPointerWhiteSpace();
  return text(s);
}

std::string stripped(std::string_view before) { return text(stripWhiteSpace(bytes(before))); }

}  // namespace

TEST(ByteString, GivesAViewOfAllItsBytes) {
  const ByteString s("a\0\xFF", 3);
  EXPECT_EQ(s.view(), "a\0\xFF"sv);
  EXPECT_EQ(static_cast<const void*>(s.view().data()), static_cast<const unsigned char*>(s));
  EXPECT_EQ(ByteString().view(), "");
}

TEST(ByteString, IsEmptyWhenMadeFromNothing) {
  EXPECT_EQ(text(ByteString()), "");
  EXPECT_EQ(text(ByteString(static_cast<const char*>(nullptr))), "");
  EXPECT_EQ(text(ByteString(nullptr, 7U)), "");
  EXPECT_EQ(text(ByteString("")), "");
}

TEST(ByteString, CopiesATerminatedTextOrSoManyBytes) {
  EXPECT_EQ(text(ByteString("pipe")), "pipe");
  EXPECT_EQ(text(ByteString("a\0b", 3)), std::string("a\0b", 3));
}

TEST(ByteString, TakesSlicesOfOtherBuffers) {
  const ByteString s("abcdef");
  EXPECT_EQ(text(ByteString(s, 3)), "cdef");
  EXPECT_EQ(text(ByteString(s, 7)), "");
  EXPECT_EQ(text(ByteString(s, 2, 3, '.')), "bcd");
  EXPECT_EQ(text(ByteString(s, 5, 4, '.')), "ef..");
  EXPECT_EQ(text(ByteString(s, 9, 2, '.')), "..");
}

TEST(ByteString, JoinsThreePieces) {
  EXPECT_EQ(text(ByteString("ab", 2, "c", 1, "def", 3)), "abcdef");
  EXPECT_EQ(text(ByteString("ab", 2, "", 0, "def", 3)), "abdef");
  EXPECT_EQ(text(ByteString("ab", 2, nullptr, 0, nullptr, 0)), "ab");
  EXPECT_EQ(text(ByteString(nullptr, 0, nullptr, 0, nullptr, 0)), "");
}

TEST(ByteString, JoiningStopsAtTheFirstNullPiece) {
  EXPECT_EQ(text(ByteString("ab", 2, nullptr, 0, "def", 3)), std::string("ab\0\0\0", 5));
  EXPECT_EQ(text(ByteString("ab", 2, nullptr, 1, "d", 1)), std::string("ab\0\0", 4));
  EXPECT_EQ(text(ByteString(nullptr, 2, "c", 1, "d", 1)), std::string(4, '\0'));
}

TEST(ByteString, JoiningMoreThanALengthCanHoldGivesNothing) {
  EXPECT_EQ(ByteString("a", 0xFFFFFFFF, "b", 1, nullptr, 0).length(), 0U);
  EXPECT_EQ(ByteString("a", 0xFFFFFFFF, "b", 0xFFFFFFFF, "c", 0xFFFFFFFF).length(), 0U);
}

TEST(ByteString, RepeatsASixteenBitUnitInNativeByteOrder) {
  EXPECT_EQ(text(ByteString(static_cast<unsigned short>(0x6261), 3)), "ababab");
  EXPECT_EQ(text(ByteString(static_cast<unsigned short>(0x0041), 1)), std::string("A\0", 2));
  EXPECT_EQ(text(ByteString(static_cast<unsigned short>(0x6261), 0)), "");
  EXPECT_EQ(text(ByteString(static_cast<unsigned short>(0x6261), -1)), "");
}

TEST(ByteString, HexFormatWritesWhatPrintfWrites) {
  std::string all;
  std::string expected;
  for (unsigned byte = 0; byte < 256; ++byte) {
    all += static_cast<char>(byte);
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02X", byte);
    expected += digits;
  }
  EXPECT_EQ(text(ByteString::hexFormat(all.data(), 256)), expected);
  EXPECT_EQ(text(ByteString::hexFormat("\xAB", 1)), "AB");
  EXPECT_EQ(text(ByteString::hexFormat("x", 0)), "");
  EXPECT_EQ(text(ByteString::hexFormat(nullptr, 0)), "");
}

TEST(ByteString, HexFormatOfMoreThanALengthCanHoldIsEmpty) {
  EXPECT_EQ(ByteString::hexFormat("x", 0x80000000).length(), 0U);
}

TEST(ByteString, StripLeadingRemovesTheRunAtTheStart) {
  const auto result = [](std::string_view before, char c) {
    ByteString s = bytes(before);
    s.stripLeading(c);
    return text(s);
  };
  EXPECT_EQ(result("000120", '0'), "120");
  EXPECT_EQ(result("120", '0'), "120");
  EXPECT_EQ(result("000", '0'), "");
  EXPECT_EQ(result("", '0'), "");
  EXPECT_EQ(result("\xFF\xFFz", '\xFF'), "z");
  EXPECT_EQ(result(std::string_view("\0\0z", 3), '\0'), "z");
}

TEST(ByteString, StripTrailingRemovesTheRunAtTheEnd) {
  const auto result = [](std::string_view before, char c) {
    ByteString s = bytes(before);
    s.stripTrailing(c);
    return text(s);
  };
  EXPECT_EQ(result("012000", '0'), "012");
  EXPECT_EQ(result("012", '0'), "012");
  EXPECT_EQ(result("000", '0'), "");
  EXPECT_EQ(result("", '0'), "");
  EXPECT_EQ(result("z\xFF\xFF", '\xFF'), "z");
  EXPECT_EQ(result(std::string_view("z\0\0", 3), '\0'), "z");
}

TEST(ByteString, StripPointerWhiteSpaceRemovesTheBlanksInFrontOfAStar) {
  EXPECT_EQ(strippedPointers("char *"), "char*");
  EXPECT_EQ(strippedPointers("char * const *"), "char* const*");
  EXPECT_EQ(strippedPointers("char * *"), "char**");
  EXPECT_EQ(strippedPointers("char  *"), "char*");
  EXPECT_EQ(strippedPointers(" *"), "*");
}

TEST(ByteString, StripPointerWhiteSpaceLeavesEverythingElse) {
  EXPECT_EQ(strippedPointers("unsigned int"), "unsigned int");
  EXPECT_EQ(strippedPointers("a* b "), "a* b ");
  EXPECT_EQ(strippedPointers("a\t*"), "a\t*");
  EXPECT_EQ(strippedPointers("a \t*"), "a \t*");
  EXPECT_EQ(strippedPointers(""), "");
}

TEST(ByteString, FirstTokenTakesTheTokenAndTheDelimitersBehindIt) {
  ByteString s("--key==value=x");
  EXPECT_EQ(text(s.firstToken("=-")), "key");
  EXPECT_EQ(text(s), "value=x");
  EXPECT_EQ(text(s.firstToken("=-")), "value");
  EXPECT_EQ(text(s), "x");
  EXPECT_EQ(text(s.firstToken("=-")), "x");
  EXPECT_EQ(text(s), "");
  EXPECT_EQ(text(s.firstToken("=-")), "");
  EXPECT_EQ(text(s), "");
}

TEST(ByteString, FirstTokenOfDelimitersOnlyIsEmpty) {
  ByteString s("===");
  EXPECT_EQ(text(s.firstToken("=")), "");
  EXPECT_EQ(text(s), "");
}

TEST(ByteString, FirstTokenWithoutDelimitersTakesEverything) {
  for (const char* none : {"", static_cast<const char*>(nullptr)}) {
    ByteString s("a=b");
    EXPECT_EQ(text(s.firstToken(none)), "a=b");
    EXPECT_EQ(text(s), "");
  }
}

TEST(ByteString, FirstTokenKeepsZeroBytesAndKnowsHighDelimiters) {
  ByteString s(
      "a\0b\xFF"
      "c",
      5);
  EXPECT_EQ(text(s.firstToken("\xFF")), std::string("a\0b", 3));
  EXPECT_EQ(text(s), "c");
}

TEST(ByteString, FirstTokenTakesEveryTextApartLikeAPlainLoop) {
  std::mt19937 random(1);
  for (int round = 0; round < 2000; ++round) {
    std::string whole;
    for (auto n = random() % 12; n > 0; --n) {
      whole += "ab,;"[random() % 4];
    }
    const size_t start = std::min(whole.find_first_not_of(",;"), whole.size());
    const size_t end = std::min(whole.find_first_of(",;", start), whole.size());
    const size_t next = std::min(whole.find_first_not_of(",;", end), whole.size());
    ByteString s = bytes(whole);
    EXPECT_EQ(text(s.firstToken(",;")), whole.substr(start, end - start)) << whole;
    EXPECT_EQ(text(s), whole.substr(next)) << whole;
  }
}

TEST(ByteString, ConcatenatesAndAppends) {
  const ByteString a("ab");
  const ByteString b("c");
  EXPECT_EQ(text(a + b), "abc");
  EXPECT_EQ(text(a + ByteString()), "ab");
  EXPECT_EQ(text(ByteString() + b), "c");
  EXPECT_EQ(text(ByteString() + ByteString()), "");
  ByteString c = a;
  c += b;
  c += c;
  EXPECT_EQ(text(c), "abcabc");
}

TEST(ByteString, MovingLeavesTheSourceEmpty) {
  ByteString a("moved text that is long enough for the heap, not only for the pool of blocks");
  const std::string before = text(a);
  ByteString b(std::move(a));
  EXPECT_EQ(text(b), before);
  EXPECT_EQ(text(a), "");  // What is left is promised.
  a = std::move(b);
  EXPECT_EQ(text(a), before);
  EXPECT_EQ(text(b), "");
}

TEST(ByteString, IsDestroyedThroughItsBase) {
  const std::unique_ptr<StringBuffer<unsigned char>> s = std::make_unique<ByteString>("abc");
  EXPECT_EQ(s->length(), 3U);
}

TEST(StripWhiteSpace, RemovesWhiteSpaceAtBothEnds) {
  EXPECT_EQ(stripped(" \t\r\na b\n "), "a b");
  EXPECT_EQ(stripped("ab"), "ab");
  EXPECT_EQ(stripped(" \t\r\n"), "");
  EXPECT_EQ(stripped(""), "");
  EXPECT_EQ(stripped("\va\f"), "\va\f");
  EXPECT_EQ(stripped(std::string_view("\0 a \0", 5)), std::string("\0 a \0", 5));
}
