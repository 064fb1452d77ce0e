#include "Engine/utilities/DebuggerEnumSetting.h"

#include <gtest/gtest.h>

#include "tests/settings/SettingSupport.h"

namespace {

using Item = DebuggerEnumSetting::EnumSettingItem;

DebuggerEnumSetting enumOf(const Item* items, int identifier = noDefault) {
  return {EncodedString(L"TEST_ENUM"), controlOf(67), items, 1, identifier};
}

constexpr Item colours[] = {{L"RED", 0},     {L"GREEN", 7},         {L"GRUEN", 7},  {L"12", 3},
                            {L"BLUE", 12},   {L"LAST", 4294967295}, {L" ODD ", 20}, {L"small", 21},
                            {L"\x00C4", 22}, {nullptr, 0}};

}  // namespace

TEST(DebuggerEnumSetting, TakesAnItemByItsNameInAnyCase) {
  DebuggerEnumSetting setting = enumOf(colours);
  EXPECT_EQ(afterOffer(setting, "GREEN"), "taken GREEN 7");
  EXPECT_EQ(afterOffer(setting, "  blue "), "taken BLUE 12");
  EXPECT_EQ(afterOffer(setting, "Red"), "taken RED 0");
  EXPECT_EQ(afterOffer(setting, "\xC3\x84"), "taken \xC3\x84 22");
}

TEST(DebuggerEnumSetting, TakesAnItemByItsDecimalNumber) {
  DebuggerEnumSetting setting = enumOf(colours);
  EXPECT_EQ(afterOffer(setting, "4294967295"), "taken LAST 4294967295");
  EXPECT_EQ(afterOffer(setting, " 0 "), "taken RED 0");
}

TEST(DebuggerEnumSetting, TakesTheLastOfSeveralThatMatch) {
  DebuggerEnumSetting setting = enumOf(colours);
  EXPECT_EQ(afterOffer(setting, "7"), "taken GRUEN 7");
  EXPECT_EQ(afterOffer(setting, "12"), "taken BLUE 12");
  EXPECT_EQ(afterOffer(setting, "3"), "taken 12 3");
}

TEST(DebuggerEnumSetting, TakesAnOddNameByItsNumberOnly) {
  DebuggerEnumSetting setting = enumOf(colours);
  ASSERT_TRUE(set(setting, "RED"));
  EXPECT_EQ(afterOffer(setting, " ODD "), "refused RED 0");
  EXPECT_EQ(afterOffer(setting, "ODD"), "refused RED 0");
  EXPECT_EQ(afterOffer(setting, "small"), "refused RED 0");
  EXPECT_EQ(afterOffer(setting, "20"), "taken  ODD  20");
  EXPECT_EQ(afterOffer(setting, "21"), "taken small 21");
}

TEST(DebuggerEnumSetting, RefusesEverythingElse) {
  DebuggerEnumSetting setting = enumOf(colours);
  ASSERT_TRUE(set(setting, "GREEN"));
  for (const std::string& text :
       {std::string(), std::string("  "), std::string("07"), std::string("+7"), std::string("-1"),
        std::string("GREE"), std::string("GREENS"), std::string("GREEN,RED"), std::string("8"),
        std::string("\tRED"), std::string("RED\0", 4), std::string("4294967303"),
        std::string("\xFF"), std::string("\xC3\xA4"), repeated("RED", 40000)}) {
    EXPECT_EQ(afterOffer(setting, text), "refused GREEN 7") << text;
  }
}

TEST(DebuggerEnumSetting, TakesItsDefault) {
  EXPECT_EQ(valueOf(enumOf(colours, 13)), "RED");
  EXPECT_EQ(valueOf(enumOf(colours)), "");
}

TEST(DebuggerEnumSetting, CopiesItsItems) {
  wchar_t text[] = L"NAME";
  Item items[] = {{text, 1}, {nullptr, 0}};
  DebuggerEnumSetting setting = enumOf(items);
  text[0] = L'F';
  items[0].number = 2;
  EXPECT_EQ(afterOffer(setting, "NAME"), "taken NAME 1");
}

TEST(DebuggerEnumSetting, PermitsTheNamesInTheOrderOfTheTable) {
  EXPECT_EQ(plain(enumOf(colours).getPermittedValues()),
            "RED, GREEN, GRUEN, 12, BLUE, LAST,  ODD , small, \xC3\x84");
}

TEST(DebuggerEnumSetting, MayHaveNoItems) {
  constexpr Item none[] = {{nullptr, 0}};
  DebuggerEnumSetting empty = enumOf(none);
  DebuggerEnumSetting null = enumOf(nullptr);
  for (DebuggerEnumSetting* setting : {&empty, &null}) {
    EXPECT_EQ(afterOffer(*setting, "0"), "refused  0");
    EXPECT_EQ(plain(setting->getPermittedValues()), "");
  }
}
