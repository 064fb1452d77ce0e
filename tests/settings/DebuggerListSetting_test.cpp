#include "Engine/utilities/DebuggerListSetting.h"

#include <gtest/gtest.h>

#include "tests/settings/SettingSupport.h"

namespace {

using Item = DebuggerListSetting::ListSettingItem;

constexpr int assertionDefault = 1;  // "NOEXCEPTION,NOPOPUP"
constexpr int allDefault = 40;       // "ALL"

DebuggerListSetting listOf(const Item* items, int acceptsAllAndNone = 0,
                           int identifier = noDefault) {
  return {EncodedString(L"TEST_LIST"), controlOf(67), items, 1, identifier, acceptsAllAndNone};
}

constexpr Item simple[] = {
    {L"A", 1, true}, {L"B", 2, true}, {L"AB", 3, true}, {L"HIGH", 0x80000000, true}, {}};

constexpr Item switches[] = {{L"EXCEPTION", 1, true},
                             {L"NOEXCEPTION", 1, false},
                             {L"POPUP", 2, true},
                             {L"NOPOPUP", 2, false},
                             {nullptr, 0, false}};

constexpr Item whole[] = {
    {L"A", 1, true}, {L"ALL", 0xFFFFFFFF, true}, {L"NONE", 0, true}, {nullptr, 0, false}};

// The bits that a setting's own value stands for, read by another setting of the kind.
void expectReadsBack(const Item* items, int acceptsAllAndNone, const DebuggerListSetting& setting) {
  DebuggerListSetting other = listOf(items, acceptsAllAndNone);
  EXPECT_TRUE(other.setValue(setting.getValue())) << valueOf(setting);
  EXPECT_EQ(other.getValueAsUnsigned(), setting.getValueAsUnsigned()) << valueOf(setting);
  EXPECT_EQ(valueOf(other), valueOf(setting));
}

}  // namespace

TEST(DebuggerListSetting, AddsUpTheBitsOfItsItems) {
  DebuggerListSetting setting = listOf(simple);
  EXPECT_EQ(afterOffer(setting, "A"), "taken A 1");
  EXPECT_EQ(afterOffer(setting, "HIGH"), "taken HIGH 2147483648");
  EXPECT_EQ(afterOffer(setting, "HIGH,A"), "taken A,HIGH 2147483649");
  EXPECT_EQ(afterOffer(setting, "B,A"), "taken A,B,AB 3");
  EXPECT_EQ(afterOffer(setting, "AB"), "taken A,B,AB 3");
  EXPECT_EQ(afterOffer(setting, "A,A,A"), "taken A 1");
}

TEST(DebuggerListSetting, SeparatesItemsByCommasAndBlanks) {
  DebuggerListSetting setting = listOf(simple);
  EXPECT_EQ(afterOffer(setting, "A HIGH"), "taken A,HIGH 2147483649");
  EXPECT_EQ(afterOffer(setting, " , A ,, HIGH ,"), "taken A,HIGH 2147483649");
  for (const char* text : {"A\tB", "A;B", "A\nB", "A/B", "A\vB"}) {
    EXPECT_EQ(afterOffer(setting, text), "refused A,HIGH 2147483649") << text;
  }
}

TEST(DebuggerListSetting, SetsAndClearsInTurn) {
  DebuggerListSetting setting = listOf(switches);
  EXPECT_EQ(afterOffer(setting, "EXCEPTION"), "taken EXCEPTION,NOPOPUP 1");
  EXPECT_EQ(afterOffer(setting, "POPUP,EXCEPTION"), "taken EXCEPTION,POPUP 3");
  EXPECT_EQ(afterOffer(setting, "EXCEPTION,POPUP,NOEXCEPTION"), "taken NOEXCEPTION,POPUP 2");
  EXPECT_EQ(afterOffer(setting, "NOPOPUP,POPUP"), "taken NOEXCEPTION,POPUP 2");
  EXPECT_EQ(afterOffer(setting, "NOPOPUP"), "taken NOEXCEPTION,NOPOPUP 0");
}

TEST(DebuggerListSetting, StartsEachValueWithNoBitSet) {
  DebuggerListSetting setting = listOf(switches);
  ASSERT_TRUE(set(setting, "EXCEPTION,POPUP"));
  EXPECT_EQ(afterOffer(setting, "NOEXCEPTION"), "taken NOEXCEPTION,NOPOPUP 0");
}

TEST(DebuggerListSetting, RefusesTheWholeTextForOneUnknownName) {
  DebuggerListSetting setting = listOf(switches);
  ASSERT_TRUE(set(setting, "POPUP"));
  for (const std::string& text :
       {std::string("EXCEPTION,X"), std::string("X,EXCEPTION"), std::string("exception"),
        std::string("EXCEPTIONS"), std::string("EXCEPTIO"), std::string("1"), std::string("ALL"),
        std::string("NONE"), std::string("EXCEPTION\0", 10), std::string("\xFF\x80"),
        std::string("EXCEPTION,\xC3"), repeated("X", 100000)}) {
    EXPECT_EQ(afterOffer(setting, text), "refused NOEXCEPTION,POPUP 2") << text;
  }
}

TEST(DebuggerListSetting, TakesAllAndNoneOnlyWhereTheyAreAccepted) {
  DebuggerListSetting refusing = listOf(simple);
  ASSERT_TRUE(set(refusing, "A"));
  EXPECT_EQ(afterOffer(refusing, "ALL"), "refused A 1");
  EXPECT_EQ(afterOffer(refusing, "NONE"), "refused A 1");
  DebuggerListSetting accepting = listOf(simple, -1);
  EXPECT_EQ(afterOffer(accepting, "ALL"), "taken ALL 4294967295");
  EXPECT_EQ(afterOffer(accepting, "NONE"), "taken NONE 0");
  EXPECT_EQ(afterOffer(accepting, "all"), "refused NONE 0");
  EXPECT_EQ(afterOffer(accepting, "none"), "refused NONE 0");
}

TEST(DebuggerListSetting, TakesAllAndNoneInTurnWithItems) {
  DebuggerListSetting setting = listOf(switches, 1);
  EXPECT_EQ(afterOffer(setting, "ALL,NONE,POPUP"), "taken NOEXCEPTION,POPUP 2");
  EXPECT_EQ(afterOffer(setting, "NONE"), "taken NOEXCEPTION,NOPOPUP 0");
  EXPECT_EQ(afterOffer(setting, "ALL"), "taken ALL 4294967295");
  EXPECT_EQ(afterOffer(setting, "POPUP, ALL NOPOPUP"), "taken POPUP,ALL,NOPOPUP 4294967293");
}

TEST(DebuggerListSetting, PrefersItemsToTheWordsAllAndNone) {
  constexpr Item items[] = {{L"ALL", 3, true}, {L"NONE", 4, true}, {nullptr, 0, false}};
  DebuggerListSetting setting = listOf(items, 1);
  EXPECT_EQ(afterOffer(setting, "ALL"), "taken ALL 3");
  EXPECT_EQ(afterOffer(setting, "NONE"), "taken NONE 4");
  EXPECT_EQ(afterOffer(setting, "ALL,NONE"), "taken ALL,NONE 7");
}

TEST(DebuggerListSetting, NamesTheItemOfAllBitsAlone) {
  DebuggerListSetting setting = listOf(whole);
  EXPECT_EQ(afterOffer(setting, "A,ALL"), "taken ALL 4294967295");
  EXPECT_EQ(afterOffer(setting, "NONE"), "taken NONE 0");
  EXPECT_EQ(afterOffer(setting, "NONE,A,NONE"), "taken A 1");
}

TEST(DebuggerListSetting, NamesAnItemThatClearsAllBitsWithTheOthers) {
  constexpr Item items[] = {
      {L"A", 1, true}, {L"NOTHING", 0xFFFFFFFF, false}, {L"NOA", 1, false}, {nullptr, 0, false}};
  DebuggerListSetting setting = listOf(items);
  EXPECT_EQ(afterOffer(setting, "A,NOTHING"), "taken NOTHING,NOA 0");
  EXPECT_EQ(afterOffer(setting, "NOTHING,A"), "taken A 1");
}

TEST(DebuggerListSetting, MeansTheLastOfSeveralItemsOfOneName) {
  constexpr Item items[] = {{L"X", 1, true}, {L"Y", 3, true}, {L"X", 2, true}, {nullptr, 0, false}};
  DebuggerListSetting setting = listOf(items);
  EXPECT_EQ(afterOffer(setting, "X"), "taken X 2");
}

TEST(DebuggerListSetting, HasAValueThatReadsBackToTheSameBits) {
  constexpr Item overlapping[] = {{L"X", 1, true},     {L"XY", 3, true},       {L"NOX", 1, false},
                                  {L"NOXY", 3, false}, {L"NOTHING", 0, false}, {L"Z", 4, true},
                                  {nullptr, 0, false}};
  constexpr Item unspeakable[] = {
      {L"A B", 3, true}, {L"A", 1, true}, {L"B", 2, true}, {L"", 4, true}, {nullptr, 0, false}};
  for (const Item* items : {simple, switches, whole, overlapping, unspeakable}) {
    std::vector<std::string> words = {"ALL", "NONE"};
    for (const Item* item = items; item->name != nullptr; ++item) {
      words.push_back(plain(EncodedString(item->name)));
    }
    DebuggerListSetting setting = listOf(items, 1);
    unsigned taken = 0;
    for (const std::string& a : words) {
      for (const std::string& b : words) {
        for (const std::string& c : words) {
          if (set(setting, std::string(a).append(",").append(b).append(",").append(c))) {
            ++taken;
            expectReadsBack(items, 1, setting);
          }
        }
      }
    }
    EXPECT_GE(taken, 27U);
  }
}

TEST(DebuggerListSetting, KeepsTheNamesGivenWhereTheItemsCannotExpressTheBits) {
  constexpr Item items[] = {{L"XY", 3, true}, {L"NOX", 1, false}, {nullptr, 0, false}};
  DebuggerListSetting setting = listOf(items);
  EXPECT_EQ(afterOffer(setting, " XY  NOX "), "taken XY,NOX 2");
  // A name with a blank stands for the same bits, but could not be given.
  constexpr Item twoWords[] = {{L"ONE", 1, true}, {L"TWO WORDS", 1, true}, {nullptr, 0, false}};
  DebuggerListSetting other = listOf(twoWords);
  EXPECT_EQ(afterOffer(other, "ONE ONE"), "taken ONE,ONE 1");
}

TEST(DebuggerListSetting, TakesTheDefaultForATextWithoutNames) {
  for (const char* text : {"", " ", ",", " ,, , "}) {
    DebuggerListSetting setting = listOf(switches, 0, assertionDefault);
    ASSERT_TRUE(set(setting, "POPUP"));
    EXPECT_EQ(afterOffer(setting, text), "taken NOEXCEPTION,NOPOPUP 0");
  }
  DebuggerListSetting all = listOf(whole, 0, allDefault);
  ASSERT_TRUE(set(all, "A"));
  EXPECT_EQ(afterOffer(all, ""), "taken ALL 4294967295");
}

TEST(DebuggerListSetting, RefusesATextWithoutNamesWhenTheDefaultHasNoneOrIsRefused) {
  DebuggerListSetting none = listOf(switches);
  ASSERT_TRUE(set(none, "POPUP"));
  EXPECT_EQ(afterOffer(none, ""), "refused NOEXCEPTION,POPUP 2");
  DebuggerListSetting refused = listOf(simple, 0, assertionDefault);
  EXPECT_EQ(valueOf(refused), "");
  ASSERT_TRUE(set(refused, "A"));
  EXPECT_EQ(afterOffer(refused, " , "), "refused A 1");
}

TEST(DebuggerListSetting, TakesLongTexts) {
  DebuggerListSetting setting = listOf(simple, 1);
  EXPECT_EQ(afterOffer(setting, repeated("A,B ", 50000)), "taken A,B,AB 3");
  EXPECT_TRUE(set(setting, repeated(", ", 100000) + "ALL"));
  EXPECT_EQ(valueOf(setting), "ALL");
}

TEST(DebuggerListSetting, PermitsTheNamesInTheOrderOfTheTable) {
  EXPECT_EQ(plain(listOf(switches).getPermittedValues()), "EXCEPTION, NOEXCEPTION, POPUP, NOPOPUP");
  EXPECT_EQ(plain(listOf(simple, 1).getPermittedValues()), "A, B, AB, HIGH");
}

TEST(DebuggerListSetting, MayHaveNoItems) {
  DebuggerListSetting setting = listOf(nullptr, 1);
  EXPECT_EQ(plain(setting.getPermittedValues()), "");
  EXPECT_EQ(afterOffer(setting, "ALL"), "taken ALL 4294967295");
  EXPECT_EQ(afterOffer(setting, "NONE"), "taken NONE 0");
  EXPECT_EQ(afterOffer(setting, "A"), "refused NONE 0");
}
