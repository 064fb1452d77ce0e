#include "Engine/utilities/DebuggerSetting.h"

#include <memory>

#include <gtest/gtest.h>

#include "Engine/utilities/DebuggerBooleanSetting.h"
#include "Engine/utilities/DebuggerEnumSetting.h"
#include "Engine/utilities/DebuggerIntegerSetting.h"
#include "Engine/utilities/DebuggerListSetting.h"
#include "Engine/utilities/DebuggerPathSetting.h"
#include "Engine/utilities/DebuggerUnsignedSetting.h"

#include "tests/settings/SettingSupport.h"
#include "tests/support/EnvironmentGuard.h"
#include "tests/support/VirtualSlot.h"

namespace {

constexpr DebuggerEnumSetting::EnumSettingItem enumItems[] = {{L"ONE", 1}, {nullptr, 0}};
constexpr DebuggerListSetting::ListSettingItem listItems[] = {{L"ONE", 1, true},
                                                              {nullptr, 0, false}};

const EncodedString name(L"TEST_SETTING");
constexpr const char* variable = "QVX_DBG_TEST_SETTING";

// Defaults of the registry by their identifiers.
constexpr int fifty = 33;     // "50"
constexpr int aBoolean = 9;   // "FALSE"
constexpr int emptyText = 0;  // ""

DebuggerUnsignedSetting number(int identifier, unsigned minimum = 0, unsigned maximum = 100) {
  return {name, controlOf(67), 1, identifier, minimum, maximum};
}

// Which of the conversions give the object itself: their letters, in their order.
std::string conversionsOf(DebuggerSetting& setting) {
  const auto same = [&](const char* letter, DebuggerSetting* converted) {
    EXPECT_TRUE(converted == nullptr || converted == &setting);
    return std::string(converted == nullptr ? "" : letter);
  };
  return same("s", setting.asStringSetting()) + same("p", setting.asPathSetting()) +
         same("n", setting.asNumericSetting()) + same("i", setting.asIntegerSetting()) +
         same("u", setting.asUnsignedSetting()) + same("b", setting.asBooleanSetting()) +
         same("e", setting.asEnumSetting()) + same("l", setting.asListSetting());
}

}  // namespace

TEST(DebuggerSetting, KeepsItsVirtualOperationsInTheirOrderBehindTheTwoDestructors) {
  EXPECT_EQ(virtualSlot(&DebuggerSetting::getPermittedValues), 2U);
  EXPECT_EQ(virtualSlot(&DebuggerSetting::getEnvValue), 3U);
  EXPECT_EQ(virtualSlot(&DebuggerSetting::asStringSetting), 4U);
  EXPECT_EQ(virtualSlot(&DebuggerSetting::asPathSetting), 5U);
  EXPECT_EQ(virtualSlot(&DebuggerSetting::asNumericSetting), 6U);
  EXPECT_EQ(virtualSlot(&DebuggerSetting::asIntegerSetting), 7U);
  EXPECT_EQ(virtualSlot(&DebuggerSetting::asUnsignedSetting), 8U);
  EXPECT_EQ(virtualSlot(&DebuggerSetting::asBooleanSetting), 9U);
  EXPECT_EQ(virtualSlot(&DebuggerSetting::asEnumSetting), 10U);
  EXPECT_EQ(virtualSlot(&DebuggerSetting::asListSetting), 11U);
  EXPECT_EQ(virtualSlot(&DebuggerSetting::setValue), 12U);
  EXPECT_EQ(virtualSlot(&DebuggerNumericSetting::getValueAsUnsigned), 13U);
  EXPECT_EQ(virtualSlot(&DebuggerNumericSetting::getValueAsInt), 14U);
  EXPECT_EQ(virtualSlot(&DebuggerNumericSetting::getValueAsBool), 15U);
}

TEST(DebuggerSetting, ConvertsToTheClassesItIsOfAndNoOther) {
  const auto control = controlOf(67);
  DebuggerStringSetting string(name, control, 1, emptyText, 0, 10);
  EXPECT_EQ(conversionsOf(string), "s");
  DebuggerPathSetting path(name, control, 1, emptyText, 0, 10);
  EXPECT_EQ(conversionsOf(path), "sp");
  DebuggerIntegerSetting integer(name, control, 1, fifty, 0, 10);
  EXPECT_EQ(conversionsOf(integer), "ni");
  DebuggerUnsignedSetting unsignedSetting(name, control, 1, fifty, 0, 10);
  EXPECT_EQ(conversionsOf(unsignedSetting), "nu");
  DebuggerBooleanSetting boolean(name, control, 1, aBoolean);
  EXPECT_EQ(conversionsOf(boolean), "nb");
  DebuggerEnumSetting enumSetting(name, control, enumItems, 1, fifty);
  EXPECT_EQ(conversionsOf(enumSetting), "ne");
  DebuggerListSetting list(name, control, listItems, 1, fifty, 0);
  EXPECT_EQ(conversionsOf(list), "nl");
}

TEST(DebuggerSetting, HasTheTypeOfItsClass) {
  const auto control = controlOf(67);
  EXPECT_EQ(int{DebuggerStringSetting(name, control, 1, 0, 0, 1).getType()}, 1);
  EXPECT_EQ(int{DebuggerBooleanSetting(name, control, 1, 0).getType()}, 2);
  EXPECT_EQ(int{DebuggerIntegerSetting(name, control, 1, 0, 0, 1).getType()}, 4);
  EXPECT_EQ(int{DebuggerUnsignedSetting(name, control, 1, 0, 0, 1).getType()}, 8);
  EXPECT_EQ(int{DebuggerEnumSetting(name, control, enumItems, 1, 0).getType()}, 16);
  EXPECT_EQ(int{DebuggerListSetting(name, control, listItems, 1, 0, 0).getType()}, 32);
  EXPECT_EQ(int{DebuggerPathSetting(name, control, 1, 0, 0, 1).getType()}, 64);
}

TEST(DebuggerSetting, KeepsWhatItIsMadeOf) {
  const DebuggerBooleanSetting setting(name, controlOf(99), -5, 9);
  EXPECT_EQ(plain(setting.getName()), "TEST_SETTING");
  EXPECT_EQ(int{setting.getControl()}, 99);
  EXPECT_EQ(setting.getGroup(), -5);
  EXPECT_EQ(setting.getIdentifier(), 9);
}

TEST(DebuggerSetting, HasTheDefaultThatTheRegistryHasForItsIdentifier) {
  EXPECT_EQ(plain(number(fifty).getDefault()), "50");
  EXPECT_EQ(plain(number(44).getDefault()), "8001");
  EXPECT_EQ(plain(number(noDefault).getDefault()), "");
  EXPECT_EQ(plain(number(-1).getDefault()), "");
}

TEST(DebuggerSetting, ReadsItsVariableWithoutBlanksAtTheEnds) {
  const DebuggerUnsignedSetting setting = number(fifty);
  {
    const EnvironmentGuard guard(variable, std::nullopt);
    EXPECT_EQ(plain(setting.getEnvValue()), "");
  }
  for (const auto& [text, value] :
       std::vector<std::pair<std::string, std::string>>{{"", ""},
                                                        {"   ", ""},
                                                        {"x", "x"},
                                                        {"  a  b ", "a  b"},
                                                        {"\t1\n", "\t1\n"},
                                                        {repeated(" ", 100000) + "x", "x"}}) {
    const EnvironmentGuard guard(variable, text);
    EXPECT_EQ(plain(setting.getEnvValue()), value);
  }
}

TEST(DebuggerSetting, TakesAValidVariable) {
  const EnvironmentGuard guard(variable, " 7 ");
  const DebuggerUnsignedSetting setting = number(fifty);
  EXPECT_EQ(valueOf(setting), "7");
  EXPECT_EQ(setting.getValueAsUnsigned(), 7U);
  EXPECT_EQ(setting.getOrigin(), DebuggerSetting::Environment);
  EXPECT_FALSE(setting.isEnvValueRefused());
}

TEST(DebuggerSetting, TakesTheDefaultWhenTheVariableIsRefused) {
  for (const char* text : {"x", "101", "-1", "7x"}) {
    const EnvironmentGuard guard(variable, text);
    const DebuggerUnsignedSetting setting = number(fifty);
    EXPECT_EQ(valueOf(setting), "50");
    EXPECT_EQ(setting.getValueAsUnsigned(), 50U);
    EXPECT_EQ(setting.getOrigin(), DebuggerSetting::Default);
    EXPECT_TRUE(setting.isEnvValueRefused());
  }
}

TEST(DebuggerSetting, TakesTheDefaultWhenTheVariableIsNotSetOrBlank) {
  for (const std::optional<std::string>& text :
       {std::optional<std::string>(), std::optional<std::string>(""),
        std::optional<std::string>("  ")}) {
    const EnvironmentGuard guard(variable, text);
    const DebuggerUnsignedSetting setting = number(fifty);
    EXPECT_EQ(valueOf(setting), "50");
    EXPECT_EQ(setting.getOrigin(), DebuggerSetting::Default);
    EXPECT_FALSE(setting.isEnvValueRefused());
  }
}

TEST(DebuggerSetting, IsEmptyWhenTheDefaultIsRefusedToo) {
  const EnvironmentGuard guard(variable, "9");
  const DebuggerUnsignedSetting setting = number(fifty, 1, 8);
  EXPECT_EQ(valueOf(setting), "");
  EXPECT_EQ(setting.getValueAsUnsigned(), 0U);
  EXPECT_EQ(setting.getOrigin(), DebuggerSetting::Nowhere);
  EXPECT_TRUE(setting.isEnvValueRefused());
}

TEST(DebuggerSetting, SaysThatItWasChanged) {
  const EnvironmentGuard guard(variable, "7");
  DebuggerUnsignedSetting setting = number(fifty);
  EXPECT_FALSE(set(setting, "x"));
  EXPECT_EQ(setting.getOrigin(), DebuggerSetting::Environment);
  EXPECT_TRUE(set(setting, "8"));
  EXPECT_EQ(setting.getOrigin(), DebuggerSetting::Changed);
}

TEST(DebuggerSetting, SaysThatAListTookItsDefault) {
  const EnvironmentGuard guard(variable, ", ,");
  constexpr DebuggerListSetting::ListSettingItem items[] = {{L"50", 1, true}, {nullptr, 0, false}};
  DebuggerListSetting setting(name, controlOf(67), items, 1, fifty, 0);
  EXPECT_EQ(valueOf(setting), "50");
  EXPECT_EQ(setting.getOrigin(), DebuggerSetting::Default);
  EXPECT_FALSE(setting.isEnvValueRefused());
  EXPECT_TRUE(set(setting, "50"));
  EXPECT_EQ(setting.getOrigin(), DebuggerSetting::Changed);
  EXPECT_TRUE(set(setting, ""));
  EXPECT_EQ(setting.getOrigin(), DebuggerSetting::Default);
}

TEST(DebuggerSetting, TakesItsOwnValue) {
  DebuggerStringSetting setting(name, controlOf(67), 1, emptyText, 0, 100);
  ASSERT_TRUE(set(setting, "text"));
  EXPECT_TRUE(setting.setValue(setting.getValue()));
  EXPECT_EQ(valueOf(setting), "text");
}
