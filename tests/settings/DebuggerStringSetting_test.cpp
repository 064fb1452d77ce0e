#include "Engine/utilities/DebuggerStringSetting.h"

#include <gtest/gtest.h>

#include "tests/settings/SettingSupport.h"
#include "tests/support/EnvironmentGuard.h"

namespace {

constexpr unsigned short noLimit = 65535;
constexpr const char* variable = "QVX_DBG_TEST_STRING";

DebuggerStringSetting string(unsigned short minLength, unsigned short maxLength,
                             int identifier = noDefault) {
  return {EncodedString(L"TEST_STRING"), controlOf(67), 1, identifier, minLength, maxLength};
}

}  // namespace

TEST(DebuggerStringSetting, TakesLengthsWithinItsLimits) {
  DebuggerStringSetting setting = string(2, 4);
  EXPECT_EQ(valueOf(setting), "");
  EXPECT_FALSE(set(setting, "a"));
  EXPECT_EQ(valueOf(setting), "");
  EXPECT_TRUE(set(setting, "ab"));
  EXPECT_TRUE(set(setting, "abcd"));
  EXPECT_FALSE(set(setting, "abcde"));
  EXPECT_FALSE(set(setting, ""));
  EXPECT_EQ(valueOf(setting), "abcd");
}

TEST(DebuggerStringSetting, CountsCharactersNotBytes) {
  DebuggerStringSetting setting = string(1, 2);
  EXPECT_TRUE(set(setting, "\xC3\xA4\xE2\x82\xAC"));
  EXPECT_EQ(valueOf(setting), "\xC3\xA4\xE2\x82\xAC");
  EXPECT_FALSE(set(setting, "\xC3\xA4\xE2\x82\xAC."));
}

TEST(DebuggerStringSetting, KeepsTheTextAsGiven) {
  DebuggerStringSetting setting = string(0, noLimit);
  const std::string text("  Blanks, \t\0 and \xFF \0", 20);
  EXPECT_TRUE(set(setting, text));
  EXPECT_EQ(valueOf(setting), text);
}

TEST(DebuggerStringSetting, TakesLengthsUpToTheGreatestLimit) {
  DebuggerStringSetting setting = string(0, 65534);
  EXPECT_TRUE(set(setting, repeated("x", 65534)));
  EXPECT_FALSE(set(setting, repeated("x", 65535)));
}

TEST(DebuggerStringSetting, HasNoLimitAt65535) {
  DebuggerStringSetting setting = string(noLimit, noLimit);
  EXPECT_TRUE(set(setting, repeated("x", 65535)));
  EXPECT_TRUE(set(setting, repeated("x", 65536)));
  EXPECT_TRUE(set(setting, repeated("x", 200000)));
  EXPECT_TRUE(set(setting, ""));
  EXPECT_EQ(valueOf(setting), "");
}

TEST(DebuggerStringSetting, TakesAnEmptyVariableButTheDefaultWithoutOne) {
  constexpr int fifty = 33;
  {
    const EnvironmentGuard guard(variable, "");
    const DebuggerStringSetting setting = string(0, noLimit, fifty);
    EXPECT_EQ(valueOf(setting), "");
    EXPECT_EQ(setting.getOrigin(), DebuggerSetting::Environment);
  }
  {
    const EnvironmentGuard guard(variable, "");
    EXPECT_EQ(valueOf(string(1, noLimit, fifty)), "50");
  }
  const EnvironmentGuard guard(variable, std::nullopt);
  EXPECT_EQ(valueOf(string(0, noLimit, fifty)), "50");
}

TEST(DebuggerStringSetting, ListsNoPermittedValues) {
  EXPECT_EQ(plain(string(0, 8).getPermittedValues()), "");
}
