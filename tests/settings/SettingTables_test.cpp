#include <map>
#include <set>
#include <string>

#include <gmock/gmock.h>

#include "Engine/utilities/DebuggerPathSetting.h"
#include "Engine/utilities/DebuggerSettings.h"
#include "Engine/utilities/DebuggerSettingsHKORV.h"

#include "tests/settings/EnvironmentRead.h"
#include "tests/settings/ExpectedSettings.h"
#include "tests/settings/SettingSupport.h"
#include "tests/support/Child.h"

/// \file
/// Every row of the tables of settings, in processes with various environments.

using testing::AnyOf;

namespace {

DebuggerSettings& registry() { return *DebuggerSettings::instance(); }

DebuggerSetting& find(const ExpectedSetting& expected) {
  DebuggerSetting* const setting =
      registry().getSetting(std::wstring(expected.name.begin(), expected.name.end()).c_str());
  if (setting == nullptr) {
    throw std::out_of_range(expected.name);
  }
  return *setting;
}

unsigned numberOf(DebuggerSetting& setting) {
  return setting.asNumericSetting()->getValueAsUnsigned();
}

std::string joinedNames(const ExpectedSetting& expected) {
  std::string names;
  for (const ExpectedItem& item : expected.items) {
    names += (names.empty() ? "" : ", ") + item.name;
  }
  return names;
}

std::string permittedBy(const ExpectedSetting& expected) {
  switch (expected.kind) {
    case Kind::boolean:
      return "YES/NO, Y/N, TRUE/FALSE, T/F, ON/OFF, 1/0";
    case Kind::number:
      return std::to_string(expected.minimum) + " - " + std::to_string(expected.maximum);
    case Kind::choice:
    case Kind::list:
      return joinedNames(expected);
    default:
      return "";
  }
}

// What each setting is without any variable, where that differs from its default text.
const std::map<std::string, std::pair<std::string, unsigned>> unusualFirstValues = {
    {"SOURCESTEP", {"ALL", 4294967295}},
    {"STEP_DEBUG", {"INCLUDE,SHALLOW", 2}},
    {"ASSERTION", {"NOEXCEPTION,NOPOPUP", 0}},
    {"SOURCE_CHECK", {"NODATE,NOCONTENT", 0}},
    {"SOURCE_FILTER", {"SOURCE", 1}},
    {"CONSOLE", {"REMOTE", 0}},
    {"FORK", {"BOTH", 1}},
    {"EXEC", {"STOP", 0}},
    {"LANGUAGE", {"", 0}},
    {"HRDM_PORT", {"", 0}},
    {"SOCKET_DESCRIPTOR", {"", 0}}};

void expectFirstValue(const ExpectedSetting& expected, DebuggerSetting& setting) {
  std::string value = expected.defaultText;
  unsigned number = 0;
  if (const auto unusual = unusualFirstValues.find(expected.name);
      unusual != unusualFirstValues.end()) {
    value = unusual->second.first;
    number = unusual->second.second;
  } else if (expected.kind == Kind::boolean) {
    number = expected.defaultText == "TRUE" ? 1 : 0;
    value = std::to_string(number);
  } else if (expected.kind == Kind::number) {
    number = static_cast<unsigned>(std::stoul(expected.defaultText));
  }
  EXPECT_EQ(valueOf(setting), value);
  if (setting.asNumericSetting() != nullptr) {
    EXPECT_EQ(numberOf(setting), number);
  }
  const bool refused = value.empty() && !expected.defaultText.empty();
  EXPECT_EQ(setting.getOrigin(), refused || expected.name == "SOCKET_DESCRIPTOR"
                                     ? DebuggerSetting::Nowhere
                                     : DebuggerSetting::Default);
}

// Offers a value that must be taken, or refused without a trace.
void offer(DebuggerSetting& setting, const std::string& text, bool taken, unsigned number) {
  const std::string valueBefore = valueOf(setting);
  const unsigned numberBefore = numberOf(setting);
  EXPECT_EQ(set(setting, text), taken) << text;
  EXPECT_EQ(numberOf(setting), taken ? number : numberBefore) << text;
  if (!taken) {
    EXPECT_EQ(valueOf(setting), valueBefore);
  }
}

void expectBounds(const ExpectedSetting& expected, DebuggerSetting& setting) {
  const auto at = [&](unsigned number, bool taken) {
    offer(setting, std::to_string(number), taken, number);
  };
  if (expected.minimum == 0) {
    offer(setting, "-1", false, 0);
  } else {
    at(expected.minimum - 1, false);
  }
  at(expected.minimum, true);
  at(expected.minimum + 1, true);
  at(expected.maximum - 1, true);
  at(expected.maximum, true);
  at(expected.maximum + 1, false);
}

void expectLengths(const ExpectedSetting& expected, DebuggerSetting& setting) {
  EXPECT_EQ(expected.minimum, 0U);
  EXPECT_TRUE(set(setting, ""));
  EXPECT_TRUE(set(setting, repeated("x", expected.maximum - 1)));
  EXPECT_TRUE(set(setting, repeated("x", expected.maximum)));
  EXPECT_EQ(set(setting, repeated("x", expected.maximum + 1)), expected.maximum == any);
  EXPECT_EQ(set(setting, repeated("x", 200000)), expected.maximum == any);
}

void expectChoices(const ExpectedSetting& expected, DebuggerSetting& setting) {
  std::map<unsigned, std::string> lastOfNumber;
  for (const ExpectedItem& item : expected.items) {
    lastOfNumber[item.number] = item.name;
    const bool stripped = item.name.back() == ' ';
    EXPECT_EQ(set(setting, item.name), !stripped) << item.name;
    if (!stripped) {
      EXPECT_EQ(valueOf(setting), item.name);
      EXPECT_EQ(numberOf(setting), item.number);
    }
  }
  for (const auto& [number, name] : lastOfNumber) {
    EXPECT_TRUE(set(setting, std::to_string(number)));
    EXPECT_EQ(valueOf(setting), name);
    EXPECT_EQ(numberOf(setting), number);
  }
  EXPECT_FALSE(set(setting, std::to_string(lastOfNumber.rbegin()->first + 1)));
  EXPECT_FALSE(set(setting, "NONE"));
}

void expectItems(const ExpectedSetting& expected, DebuggerSetting& setting) {
  std::string setters;
  unsigned all = 0;
  std::set<std::string> names;
  for (const ExpectedItem& item : expected.items) {
    names.insert(item.name);
    offer(setting, item.name, true, item.sets ? item.number : 0);
    if (item.sets) {
      all |= item.number;
      setters += (setters.empty() ? "" : ",") + item.name;
    }
  }
  offer(setting, setters, true, all);
  for (const ExpectedItem& item : expected.items) {
    offer(setting, setters + " " + item.name, true, item.sets ? all : all & ~item.number);
  }
  if (names.count("ALL") == 0) {
    offer(setting, "ALL", expected.acceptsAllAndNone, 4294967295);
    offer(setting, "NONE", expected.acceptsAllAndNone, 0);
  }
  offer(setting, "UNKNOWN", false, 0);
}

std::vector<std::string>& variablesRead() {
  static std::vector<std::string> names;
  return names;
}

void noteVariable(const char* name) {
  const std::string prefix = "QVX_DBG_";
  std::vector<std::string>& names = variablesRead();
  if (std::string(name).starts_with(prefix) && name != prefix + "CODEPAGE") {
    const std::string setting = name + prefix.size();
    if (std::find(names.begin(), names.end(), setting) == names.end()) {
      names.push_back(setting);
    }
  }
}

// The environment in which every variable of a kind has one text.
ChildOptions allOf(Kind kind, const std::string& text) {
  ChildOptions options;
  for (const ExpectedSetting& expected : expectedSettings) {
    if (expected.kind == kind) {
      options.environment["QVX_DBG_" + expected.name] = text;
    }
  }
  return options;
}

void expectGood(const ChildResult& result) {
  EXPECT_EQ(result.status, 0) << result.out << result.err;
}

}  // namespace

TEST(SettingTables, HaveOneSettingForEachIdentifier) {
  EXPECT_EQ(expectedSettings.size(), DebuggerSettingsHKORV::slots);
  for (unsigned i = 0; i < DebuggerSettingsHKORV::slots; ++i) {
    EXPECT_NO_THROW(static_cast<void>(expectedSetting(i))) << i;
  }
}

CUL_CHILD(SettingTablesInACleanEnvironment) {
  const List<DebuggerSetting*>& all = registry().getAllSettings();
  ASSERT_EQ(all.count(), expectedSettings.size());
  for (unsigned i = 0; i < all.count(); ++i) {
    const ExpectedSetting& expected = expectedSetting(i);
    DebuggerSetting& setting = *all[i];
    SCOPED_TRACE(expected.name);
    EXPECT_EQ(plain(setting.getName()), expected.name);
    EXPECT_EQ(int{setting.getType()}, static_cast<int>(expected.kind));
    EXPECT_EQ(int{setting.getControl()}, expected.control);
    EXPECT_EQ(setting.getGroup(), expected.group);
    EXPECT_EQ(setting.getIdentifier(), static_cast<int>(i));
    EXPECT_EQ(plain(setting.getDefault()), expected.defaultText);
    EXPECT_EQ(plain(EncodedString(registry().defaultSetting(i))), expected.defaultText);
    EXPECT_EQ(plain(setting.getPermittedValues()), permittedBy(expected));
    EXPECT_EQ(plain(setting.getEnvValue()), "");
    EXPECT_EQ(setting.isSecret(), expected.name == "HRDM_KEY");
    EXPECT_FALSE(setting.isEnvValueRefused());
    expectFirstValue(expected, setting);
  }
}

TEST(SettingTables, GiveEachSettingItsColumnsAndItsDefault) {
  expectGood(runChild("SettingTablesInACleanEnvironment"));
}

CUL_CHILD(SettingTablesBounds) {
  unsigned numbers = 0;
  for (const ExpectedSetting& expected : expectedSettings) {
    SCOPED_TRACE(expected.name);
    DebuggerSetting& setting = find(expected);
    switch (expected.kind) {
      case Kind::number:
        ++numbers;
        expectBounds(expected, setting);
        break;
      case Kind::string:
      case Kind::path:
        expectLengths(expected, setting);
        break;
      case Kind::choice:
        expectChoices(expected, setting);
        break;
      case Kind::list:
        expectItems(expected, setting);
        break;
      case Kind::boolean:
        offer(setting, "yes", true, 1);
        offer(setting, "2", false, 0);
        offer(setting, "off", true, 0);
        break;
    }
  }
  EXPECT_GE(numbers, 16U);
}

TEST(SettingTables, GiveEachSettingItsBoundsLengthsAndItems) {
  expectGood(runChild("SettingTablesBounds"));
}

CUL_CHILD(SettingTablesOrder) {
  {
    const Instead noting(getenvStandIn, announceAndRead<noteVariable>);
    static_cast<void>(registry());
  }
  std::vector<std::string> expected;
  for (const ExpectedSetting& setting : expectedSettings) {
    expected.push_back(setting.name);
  }
  // Whoever traces meanwhile reads the variables of the trace.
  EXPECT_EQ(variablesRead(), expected);
}

TEST(SettingTables, AreWorkedOffInTheirOrder) { expectGood(runChild("SettingTablesOrder")); }

// The first argument is the text that every variable holds.
CUL_CHILD(SettingTablesWithNumbers) {
  const std::string& text = childArguments()[0];
  // A sign and what is too great count as in the C library.
  const auto number = static_cast<unsigned>(std::stoul(text));
  for (const ExpectedSetting& expected : expectedSettings) {
    if (expected.kind != Kind::number) {
      continue;
    }
    SCOPED_TRACE(expected.name);
    DebuggerSetting& setting = find(expected);
    if (number < expected.minimum || number > expected.maximum) {
      expectFirstValue(expected, setting);
      EXPECT_TRUE(setting.isEnvValueRefused());
    } else {
      EXPECT_EQ(valueOf(setting), text);
      EXPECT_EQ(numberOf(setting), number);
      EXPECT_EQ(setting.getOrigin(), DebuggerSetting::Environment);
      EXPECT_FALSE(setting.isEnvValueRefused());
    }
  }
}

TEST(SettingTables, TakeTheVariablesOfNumbersWithinTheBoundsOnly) {
  for (const char* text :
       {"0",     "1",     "2",          "5",          "8",   "9",      "10",         "11",
        "20",    "21",    "255",        "256",        "257", "30000",  "30001",      "65534",
        "65535", "65536", "4294967295", "4294967306", "-1",  "-65536", "-4294967286"}) {
    ChildOptions options = allOf(Kind::number, text);
    options.arguments = {text};
    SCOPED_TRACE(text);
    expectGood(runChild("SettingTablesWithNumbers", options));
  }
}

CUL_CHILD(SettingTablesWithBooleans) {
  for (const ExpectedSetting& expected : expectedSettings) {
    if (expected.kind == Kind::boolean) {
      SCOPED_TRACE(expected.name);
      EXPECT_EQ(valueOf(find(expected)), childArguments()[0]);
      EXPECT_EQ(find(expected).getOrigin(), DebuggerSetting::Environment);
    }
  }
}

TEST(SettingTables, TakeTheVariablesOfBooleans) {
  ChildOptions on = allOf(Kind::boolean, " on ");
  on.arguments = {"1"};
  expectGood(runChild("SettingTablesWithBooleans", on));
  ChildOptions off = allOf(Kind::boolean, "f");
  off.arguments = {"0"};
  expectGood(runChild("SettingTablesWithBooleans", off));
}

CUL_CHILD(SettingTablesWithTexts) {
  for (const ExpectedSetting& expected : expectedSettings) {
    if (expected.kind == Kind::string || expected.kind == Kind::path) {
      SCOPED_TRACE(expected.name);
      DebuggerSetting& setting = find(expected);
      const bool isTaken = expected.maximum == any;
      EXPECT_EQ(valueOf(setting), isTaken ? "/a:/b/c:x" : "");
      EXPECT_EQ(setting.isEnvValueRefused(), !isTaken);
      if (expected.kind == Kind::path) {
        EXPECT_EQ(setting.asPathSetting()->getPaths().count(), 3U);
      }
    }
  }
}

TEST(SettingTables, TakeTheVariablesOfTexts) {
  ChildOptions options = allOf(Kind::string, " /a:/b/c:x ");
  options.environment.merge(allOf(Kind::path, " /a:/b/c:x ").environment);
  expectGood(runChild("SettingTablesWithTexts", options));
}

CUL_CHILD(SettingTablesWithListsAndChoices) {
  const auto expect = [](const char* name, const char* value, unsigned number) {
    const EncodedString wide(name, EncodedString::utf8);
    DebuggerSetting* const setting =
        registry().getSetting(std::wstring(name, name + wide.length()).c_str());
    ASSERT_NE(setting, nullptr);
    EXPECT_EQ(valueOf(*setting), value);
    EXPECT_EQ(numberOf(*setting), number) << name;
  };
  expect("SOURCESTEP", "C++,CPP,RPG", 36);
  expect("STEP_DEBUG", "NOINCLUDE,DEEP", 1);
  expect("ASSERTION", "EXCEPTION,POPUP", 3);
  expect("SOURCE_CHECK", "NODATE,CONTENT", 2);
  expect("SOURCE_FILTER", "ASSEMBLER", 0);
  expect("LANGUAGE", "NONE ", 0);
  expect("CONSOLE", "LOCAL", 2);
  expect("FORK", "BOTHRUN", 2);
  expect("EXEC", "RUN", 1);
}

TEST(SettingTables, TakeTheVariablesOfListsAndChoices) {
  ChildOptions options;
  options.environment = {{"QVX_DBG_SOURCESTEP", " RPG CPP"},
                         {"QVX_DBG_STEP_DEBUG", "DEEP"},
                         {"QVX_DBG_ASSERTION", "POPUP,EXCEPTION"},
                         {"QVX_DBG_SOURCE_CHECK", "NONE,CONTENT"},
                         {"QVX_DBG_SOURCE_FILTER", "0"},
                         {"QVX_DBG_LANGUAGE", "0"},
                         {"QVX_DBG_CONSOLE", "local"},
                         {"QVX_DBG_FORK", "2"},
                         {"QVX_DBG_EXEC", " Run "}};
  expectGood(runChild("SettingTablesWithListsAndChoices", options));
}

CUL_CHILD(SettingTablesRefuseTheNameNone) {
  DebuggerSetting& language = find(expectedSetting(19));
  EXPECT_EQ(valueOf(language), "");
  EXPECT_EQ(numberOf(language), 0U);
  EXPECT_TRUE(language.isEnvValueRefused());
}

TEST(SettingTables, RefuseTheLanguageNoneByItsName) {
  ChildOptions options;
  for (const char* text : {"NONE", "NONE ", "none"}) {
    options.environment = {{"QVX_DBG_LANGUAGE", text}};
    expectGood(runChild("SettingTablesRefuseTheNameNone", options));
  }
}
