#include "Engine/utilities/DebuggerBooleanSetting.h"

#include <gtest/gtest.h>

#include "tests/settings/SettingSupport.h"

namespace {

DebuggerBooleanSetting boolean(int identifier = noDefault) {
  return {EncodedString(L"TEST_BOOLEAN"), controlOf(67), 1, identifier};
}

}  // namespace

TEST(DebuggerBooleanSetting, KnowsSixPairsOfWords) {
  DebuggerBooleanSetting setting = boolean();
  for (const char* word : {"YES", "Y", "TRUE", "T", "ON", "1"}) {
    ASSERT_TRUE(set(setting, "0"));
    EXPECT_EQ(afterOffer(setting, word), "taken 1 1") << word;
    EXPECT_TRUE(setting.getValueAsBool());
  }
  for (const char* word : {"NO", "N", "FALSE", "F", "OFF", "0"}) {
    ASSERT_TRUE(set(setting, "1"));
    EXPECT_EQ(afterOffer(setting, word), "taken 0 0") << word;
    EXPECT_FALSE(setting.getValueAsBool());
  }
}

TEST(DebuggerBooleanSetting, TakesAnyCaseAndBlanksAroundTheWord) {
  DebuggerBooleanSetting setting = boolean();
  EXPECT_EQ(afterOffer(setting, "yes"), "taken 1 1");
  EXPECT_EQ(afterOffer(setting, "nO"), "taken 0 0");
  EXPECT_EQ(afterOffer(setting, "  On   "), "taken 1 1");
  EXPECT_EQ(afterOffer(setting, " oFf"), "taken 0 0");
  EXPECT_EQ(afterOffer(setting, "t"), "taken 1 1");
}

TEST(DebuggerBooleanSetting, RefusesEverythingElse) {
  DebuggerBooleanSetting setting = boolean();
  ASSERT_TRUE(set(setting, "1"));
  for (const std::string& text :
       {std::string(), std::string("  "), std::string("2"), std::string("00"), std::string("-1"),
        std::string("YE"), std::string("YES."), std::string("O N"), std::string("\tON"),
        std::string("ON\n"), std::string("ON\0", 3), std::string("YES/NO"), std::string("\xFFON"),
        repeated("ON", 50000)}) {
    EXPECT_EQ(afterOffer(setting, text), "refused 1 1") << text;
  }
}

TEST(DebuggerBooleanSetting, TakesItsDefault) {
  EXPECT_EQ(valueOf(boolean(9)), "0");
  EXPECT_EQ(valueOf(boolean(10)), "1");
  EXPECT_EQ(valueOf(boolean()), "");
  EXPECT_FALSE(boolean().getValueAsBool());
}

TEST(DebuggerBooleanSetting, PermitsThePairs) {
  EXPECT_EQ(plain(boolean().getPermittedValues()), "YES/NO, Y/N, TRUE/FALSE, T/F, ON/OFF, 1/0");
}
