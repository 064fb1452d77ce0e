#include "Engine/utilities/ASCII.h"

#include <cctype>
#include <string_view>

#include <gtest/gtest.h>

namespace {

bool isOneOf(unsigned c, std::string_view characters) {
  return characters.find(static_cast<char>(c)) != std::string_view::npos;
}

unsigned bitIf(bool condition, unsigned bit) { return condition ? bit : 0; }

}  // namespace

// The C library classifies in the "C" locale here; it knows ASCII too.
TEST(ASCII, ClassesAgreeWithTheCLibraryForEveryByte) {
  for (unsigned c = 0; c < 256; ++c) {
    const int i = static_cast<int>(c);
    const bool special = c != 0 && isOneOf(c, "@#$");
    const bool punctuation = std::ispunct(i) != 0 && !special;
    const unsigned expected =
        bitIf(std::islower(i) != 0, 0x001) | bitIf(std::isupper(i) != 0, 0x002) |
        bitIf(std::isdigit(i) != 0, 0x004) | bitIf(std::isxdigit(i) != 0, 0x008) |
        bitIf(isOneOf(c, " \t\n\r"), 0x010) | bitIf(punctuation, 0x020) |
        bitIf(c == '0' || c == '1', 0x040) | bitIf(std::isalpha(i) != 0 || special, 0x080) |
        bitIf(std::isprint(i) != 0, 0x100) | bitIf(isOneOf(c, "\n\t\v\b\r\f\a"), 0x200);
    EXPECT_EQ(ASCII::type(static_cast<unsigned char>(c)), expected) << c;
  }
}

TEST(ASCII, ClassesOfSomeCharactersAreTheKnownNumbers) {
  EXPECT_EQ(ASCII::type('_'), 0x120);
  EXPECT_EQ(ASCII::type('@'), 0x180);
  EXPECT_EQ(ASCII::type(' '), 0x110);
  EXPECT_EQ(ASCII::type('\t'), 0x210);
  EXPECT_EQ(ASCII::type('\v'), 0x200);
  EXPECT_EQ(ASCII::type('Z'), 0x182);
  EXPECT_EQ(ASCII::type('z'), 0x181);
  EXPECT_EQ(ASCII::type('F'), 0x18A);
  EXPECT_EQ(ASCII::type('f'), 0x189);
  EXPECT_EQ(ASCII::type('1'), 0x14C);
  EXPECT_EQ(ASCII::type('2'), 0x10C);
  EXPECT_EQ(ASCII::type('"'), 0x120);
  EXPECT_EQ(ASCII::type(0), 0);
  EXPECT_EQ(ASCII::type(0x7F), 0);
  EXPECT_EQ(ASCII::type(0xE9), 0);
}

TEST(ASCII, AllGraphicCharactersButLettersDigitsAndThreeSignsArePunctuation) {
  constexpr std::string_view list = "~`!%^&*()_+-={}|[]\\:\";',./<>?";
  for (unsigned c = 1; c < 256; ++c) {
    EXPECT_EQ((ASCII::type(static_cast<unsigned char>(c)) & ASCII::punctuation) != 0,
              isOneOf(c, list))
        << c;
  }
}

TEST(ASCII, OnlyTheTwentySixLettersHaveACase) {
  for (unsigned c = 0; c < 256; ++c) {
    const bool upper = c >= 'A' && c <= 'Z';
    const bool lower = c >= 'a' && c <= 'z';
    EXPECT_EQ(ASCII::toLower(static_cast<unsigned char>(c)), upper ? c + 32 : c);
    EXPECT_EQ(ASCII::toUpper(static_cast<unsigned char>(c)), lower ? c - 32 : c);
  }
}

TEST(ASCII, TablesAreConstantsOfTheCompiler) {
  static_assert(ASCII::type('a') == 0x189);
  static_assert(ASCII::toUpper('q') == 'Q');
  static_assert(ASCII::toLower('Q') == 'q');
  static_assert(isWhiteSpace('\n'));
}

TEST(IsWhiteSpace, IsTrueForBlankTabLineFeedAndCarriageReturnOnly) {
  for (int c = -128; c < 128; ++c) {
    EXPECT_EQ(isWhiteSpace(static_cast<char>(c)), c == 32 || c == 9 || c == 10 || c == 13) << c;
  }
}
