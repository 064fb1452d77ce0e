#include "Engine/utilities/DebuggerUnsignedSetting.h"

#include <climits>
#include <cstdio>

#include <gtest/gtest.h>

#include "tests/settings/SettingSupport.h"

namespace {

DebuggerUnsignedSetting number(unsigned minimum, unsigned maximum) {
  return {EncodedString(L"TEST_UNSIGNED"), controlOf(67), 1, noDefault, minimum, maximum};
}

}  // namespace

TEST(DebuggerUnsignedSetting, TakesNumbersWithinItsRange) {
  DebuggerUnsignedSetting setting = number(10, 65535);
  EXPECT_EQ(afterOffer(setting, "9"), "refused  0");
  EXPECT_EQ(afterOffer(setting, "10"), "taken 10 10");
  EXPECT_EQ(afterOffer(setting, "65535"), "taken 65535 65535");
  EXPECT_EQ(afterOffer(setting, "65536"), "refused 65535 65535");
  EXPECT_EQ(afterOffer(setting, "\t+0011\n"), "taken +0011 11");
  EXPECT_EQ(afterOffer(setting, "0x10"), "refused +0011 11");
  EXPECT_EQ(afterOffer(setting, "1 2"), "refused +0011 11");
  EXPECT_EQ(afterOffer(setting, "12x"), "refused +0011 11");
  EXPECT_EQ(afterOffer(setting, ""), "refused +0011 11");
}

TEST(DebuggerUnsignedSetting, TakesTheWholeRangeOfTheType) {
  DebuggerUnsignedSetting setting = number(0, UINT_MAX);
  EXPECT_EQ(afterOffer(setting, "0"), "taken 0 0");
  EXPECT_EQ(afterOffer(setting, "4294967295"), "taken 4294967295 4294967295");
  EXPECT_EQ(setting.getValueAsInt(), -1);
}

TEST(DebuggerUnsignedSetting, MakesAGreatNumberOfANegativeOneAndThenAsksTheRange) {
  DebuggerUnsignedSetting whole = number(0, UINT_MAX);
  EXPECT_EQ(afterOffer(whole, "-1"), "taken -1 4294967295");
  EXPECT_EQ(afterOffer(whole, " -4294967295\n"), "taken -4294967295 1");
  EXPECT_EQ(afterOffer(whole, "-0"), "taken -0 0");
  DebuggerUnsignedSetting most = number(0, UINT_MAX - 1);
  EXPECT_EQ(afterOffer(most, "-1"), "refused  0");
  EXPECT_EQ(afterOffer(most, "-2"), "taken -2 4294967294");
  DebuggerUnsignedSetting least = number(UINT_MAX, UINT_MAX);
  EXPECT_EQ(afterOffer(least, "-2"), "refused  0");
  EXPECT_EQ(afterOffer(least, "-1"), "taken -1 4294967295");
}

TEST(DebuggerUnsignedSetting, TakesTheLow32BitsOfAGreaterNumber) {
  DebuggerUnsignedSetting setting = number(0, 65535);
  EXPECT_EQ(afterOffer(setting, "4294967297"), "taken 4294967297 1");
  EXPECT_EQ(afterOffer(setting, "4295032832"), "refused 4294967297 1");
  EXPECT_EQ(afterOffer(setting, "99999999999999999999"), "refused 4294967297 1")
      << "the greatest of 64 bits";
}

// Whatever the C library reads with nothing behind it is taken.
TEST(DebuggerUnsignedSetting, ReadsAsTheCLibraryDoes) {
  DebuggerUnsignedSetting setting = number(0, UINT_MAX);
  for (const char* text : {"5",
                           "+5",
                           "-5",
                           "--5",
                           "+-5",
                           "- 5",
                           "-",
                           "\v-5",
                           "5-",
                           "-5x",
                           "0x10",
                           "4294967295",
                           "4294967296",
                           "-4294967295",
                           "-4294967296",
                           "-4294967297",
                           "99999999999",
                           "9223372036854775808",
                           "-9223372036854775808",
                           "18446744073709551615",
                           "18446744073709551616",
                           "-18446744073709551615",
                           "-18446744073709551616",
                           "1e2",
                           "",
                           "x"}) {
    unsigned number = 0;
    char behind = 0;
    const bool expected = std::sscanf(text, "%u%c", &number, &behind) == 1;
    ASSERT_TRUE(set(setting, "77"));
    EXPECT_EQ(set(setting, text), expected) << text;
    EXPECT_EQ(valueOf(setting), expected ? text : "77");
    EXPECT_EQ(setting.getValueAsUnsigned(), expected ? number : 77) << text;
  }
}

TEST(DebuggerUnsignedSetting, PermitsItsRange) {
  EXPECT_EQ(plain(number(256, 65535).getPermittedValues()), "256 - 65535");
  EXPECT_EQ(plain(number(0, UINT_MAX).getPermittedValues()), "0 - 4294967295");
}
