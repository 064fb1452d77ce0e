#include "Engine/utilities/DebuggerUnsignedSetting.h"

#include <climits>

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

TEST(DebuggerUnsignedSetting, TakesTheWholeRangeOfTheTypeAndNothingBeyond) {
  DebuggerUnsignedSetting setting = number(0, UINT_MAX);
  EXPECT_EQ(afterOffer(setting, "0"), "taken 0 0");
  EXPECT_EQ(afterOffer(setting, "4294967295"), "taken 4294967295 4294967295");
  EXPECT_EQ(setting.getValueAsInt(), -1);
  for (const char* text : {"4294967296", "4294967297", "99999999999", "18446744073709551616",
                           "18446744073709551617"}) {
    EXPECT_FALSE(set(setting, text)) << text;
  }
  EXPECT_EQ(setting.getValueAsUnsigned(), UINT_MAX);
}

TEST(DebuggerUnsignedSetting, RefusesNegativeNumbersInsteadOfWrapping) {
  DebuggerUnsignedSetting setting = number(0, UINT_MAX);
  ASSERT_TRUE(set(setting, "5"));
  for (const char* text : {"-1", "-4294967295", "-4294967296", "-18446744073709551615"}) {
    EXPECT_FALSE(set(setting, text)) << text;
  }
  EXPECT_EQ(setting.getValueAsUnsigned(), 5U);
  EXPECT_EQ(afterOffer(setting, "-0"), "taken -0 0");
}

TEST(DebuggerUnsignedSetting, PermitsItsRange) {
  EXPECT_EQ(plain(number(256, 65535).getPermittedValues()), "256 - 65535");
  EXPECT_EQ(plain(number(0, UINT_MAX).getPermittedValues()), "0 - 4294967295");
}
