#include "Engine/utilities/DebuggerIntegerSetting.h"

#include <climits>
#include <clocale>
#include <cstdio>

#include <gtest/gtest.h>

#include "tests/settings/SettingSupport.h"

namespace {

DebuggerIntegerSetting integer(int minimum, int maximum, int identifier = noDefault) {
  return {EncodedString(L"TEST_INTEGER"), controlOf(67), 1, identifier, minimum, maximum};
}

}  // namespace

TEST(DebuggerIntegerSetting, TakesNumbersWithinItsRange) {
  DebuggerIntegerSetting setting = integer(1, 8);
  EXPECT_EQ(afterOffer(setting, "0"), "refused  0");
  EXPECT_EQ(afterOffer(setting, "1"), "taken 1 1");
  EXPECT_EQ(afterOffer(setting, "8"), "taken 8 8");
  EXPECT_EQ(afterOffer(setting, "9"), "refused 8 8");
  EXPECT_EQ(afterOffer(setting, "3x"), "refused 8 8");
  EXPECT_EQ(afterOffer(setting, "  3 "), "taken 3 3");
}

TEST(DebuggerIntegerSetting, TakesNegativeNumbers) {
  DebuggerIntegerSetting setting = integer(-5, -2);
  EXPECT_FALSE(set(setting, "-6"));
  EXPECT_FALSE(set(setting, "-1"));
  EXPECT_TRUE(set(setting, "-5"));
  EXPECT_EQ(setting.getValueAsInt(), -5);
  EXPECT_EQ(setting.getValueAsUnsigned(), 0xFFFFFFFBU);
  EXPECT_TRUE(setting.getValueAsBool());
  EXPECT_TRUE(set(setting, "-2"));
  EXPECT_EQ(valueOf(setting), "-2");
}

TEST(DebuggerIntegerSetting, TakesTheWholeRangeOfTheType) {
  DebuggerIntegerSetting setting = integer(INT_MIN, INT_MAX);
  EXPECT_TRUE(set(setting, "-2147483648"));
  EXPECT_EQ(setting.getValueAsInt(), INT_MIN);
  EXPECT_TRUE(set(setting, "2147483647"));
  EXPECT_EQ(setting.getValueAsInt(), INT_MAX);
}

TEST(DebuggerIntegerSetting, TakesTheLow32BitsOfAGreaterNumber) {
  DebuggerIntegerSetting setting = integer(1, 8);
  EXPECT_EQ(afterOffer(setting, "4294967296"), "refused  0");
  EXPECT_EQ(afterOffer(setting, "4294967297"), "taken 4294967297 1");
  EXPECT_EQ(afterOffer(setting, "-4294967290"), "taken -4294967290 6");
  DebuggerIntegerSetting negative = integer(-1, -1);
  EXPECT_TRUE(set(negative, repeated("9", 100000))) << "the greatest of 64 bits";
}

// Whatever the C library reads with nothing behind it is taken.
TEST(DebuggerIntegerSetting, ReadsAsTheCLibraryDoes) {
  DebuggerIntegerSetting setting = integer(INT_MIN, INT_MAX);
  for (const char* text : {"5",
                           "+5",
                           "-5",
                           "+0",
                           "-0",
                           "007",
                           "-007",
                           "\v5",
                           "\f5",
                           "0x10",
                           "1 2",
                           "1,2",
                           "1.0",
                           "5\v",
                           "5-",
                           "--5",
                           "+-5",
                           "-+5",
                           "- 5",
                           "+ 5",
                           "",
                           "+",
                           "-",
                           "x",
                           "1e2",
                           "5\f",
                           "٣",
                           "1'000",
                           "５",
                           "5u",
                           "nan",
                           "2147483648",
                           "-2147483649",
                           "4294967296",
                           "4294967301",
                           "-4294967301",
                           "99999999999",
                           "9223372036854775807",
                           "9223372036854775808",
                           "-9223372036854775809",
                           "18446744073709551617",
                           "99999999999999999999999999",
                           "\u00A05",
                           "5\u00A0"}) {
    int number = 0;
    char behind = 0;
    const bool expected = std::sscanf(text, "%d%c", &number, &behind) == 1;
    ASSERT_TRUE(set(setting, "77"));
    EXPECT_EQ(set(setting, text), expected) << text;
    EXPECT_EQ(valueOf(setting), expected ? text : "77");
    EXPECT_EQ(setting.getValueAsInt(), expected ? number : 77) << text;
  }
}

TEST(DebuggerIntegerSetting, StripsWhiteSpaceAndKeepsTheRestAsGiven) {
  DebuggerIntegerSetting setting = integer(0, 100);
  EXPECT_EQ(afterOffer(setting, " \t\r\n+007\n\r\t "), "taken +007 7");
  EXPECT_EQ(afterOffer(setting, "   "), "refused +007 7");
}

TEST(DebuggerIntegerSetting, ReadsUpToTheFirstZeroByte) {
  DebuggerIntegerSetting setting = integer(0, 100);
  EXPECT_TRUE(set(setting, std::string("5\0x", 3)));
  EXPECT_EQ(valueOf(setting), std::string("5\0x", 3));
  EXPECT_EQ(setting.getValueAsInt(), 5);
  EXPECT_FALSE(set(setting, std::string("\0"
                                        "6",
                                        2)));
}

TEST(DebuggerIntegerSetting, RefusesAnOverlongFormOfADigit) {
  DebuggerIntegerSetting setting = integer(0, 100);
  EXPECT_FALSE(set(setting, "\xC0\xB5"));
}

TEST(DebuggerIntegerSetting, TakesItsDefault) {
  const DebuggerIntegerSetting setting = integer(10, 100, 33);
  EXPECT_EQ(valueOf(setting), "50");
  EXPECT_EQ(setting.getValueAsInt(), 50);
}

TEST(DebuggerIntegerSetting, PermitsItsRange) {
  EXPECT_EQ(plain(integer(1, 8).getPermittedValues()), "1 - 8");
  EXPECT_EQ(plain(integer(INT_MIN, INT_MAX).getPermittedValues()), "-2147483648 - 2147483647");
}

TEST(DebuggerIntegerSetting, TakesNothingWithAnEmptyRange) {
  DebuggerIntegerSetting setting = integer(5, 4);
  EXPECT_FALSE(set(setting, "4"));
  EXPECT_FALSE(set(setting, "5"));
}
