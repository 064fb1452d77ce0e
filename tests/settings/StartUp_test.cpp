#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "Engine/utilities/DebuggerSettings.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/TraceFlags.h"

#include "tests/settings/ExpectedSettings.h"
#include "tests/settings/SettingSupport.h"
#include "tests/support/Child.h"
#include "tests/support/TemporaryFolder.h"

/// \file
/// A start with nonsense in every variable that the library reads.

namespace {

std::string nonsense(const std::string& kind) {
  if (kind == "long") {
    return repeated("9", 100000);
  }
  if (kind == "long words") {
    return repeated("ALL,9 -x:/", 10000);
  }
  if (kind == "empty") {
    return "";
  }
  if (kind == "blank") {
    return " , ,\t ";
  }
  if (kind == "negative") {
    return "-1";
  }
  if (kind == "great") {
    return "99999999999999999999";
  }
  std::string bytes;  // "binary"
  for (int round = 0; round < 3; ++round) {
    for (int byte = 255; byte > 0; --byte) {
      bytes += static_cast<char>(byte);
    }
  }
  return bytes;
}

void setEverything(const std::string& text) {
  for (const ExpectedSetting& expected : expectedSettings) {
    setenv(("QVX_DBG_" + expected.name).c_str(), text.c_str(), 1);
  }
  for (const char* name :
       {"QVX_DBG_TRACE_ROOT", "QVX_DBG_TRACE_MIDDLE", "QVX_DBG_TRACE_LEAF", "WZ4_DBG_TRACE",
        "QVX_DBG_TRACEHOST", "GDIA_ID", "QVX_DBG_CODEPAGE", "LANG", "LC_ALL", "LD_LIBRARY_PATH",
        "QVX_DBG_LD_LIBRARY_PATH", "PATH", "QVX_DBG_FRAME_ADD_DISABLE"}) {
    setenv(name, text.c_str(), 1);
  }
}

bool isOneOf(const std::string& value, const ExpectedSetting& expected) {
  for (const ExpectedItem& item : expected.items) {
    if (item.name == value) {
      return true;
    }
  }
  return false;
}

// Whether a value may be that of the setting; 0 without a value means that none was given.
void expectLegal(const ExpectedSetting& expected, DebuggerSetting& setting) {
  SCOPED_TRACE(expected.name);
  const std::string value = valueOf(setting);
  const unsigned number =
      setting.asNumericSetting() == nullptr ? 0 : setting.asNumericSetting()->getValueAsUnsigned();
  switch (expected.kind) {
    case Kind::number: {
      const bool isPort = expected.name == "HRDM_PORT" || expected.name == "SOCKET_DESCRIPTOR";
      if (isPort && value.empty()) {
        EXPECT_EQ(number, 0U);
      } else {
        EXPECT_EQ(std::stoul(value), number);
        EXPECT_GE(number, expected.minimum);
        EXPECT_LE(number, expected.maximum);
      }
      break;
    }
    case Kind::boolean:
      EXPECT_EQ(value, number == 1 ? "1" : "0");
      EXPECT_LE(number, 1U);
      break;
    case Kind::choice:
      EXPECT_TRUE(isOneOf(value, expected) || (expected.name == "LANGUAGE" && value.empty()));
      break;
    case Kind::list:
      EXPECT_TRUE(set(setting, value));
      EXPECT_EQ(setting.asNumericSetting()->getValueAsUnsigned(), number);
      break;
    case Kind::string:
    case Kind::path:
      if (expected.maximum != any) {
        EXPECT_LE(setting.getValue().charCount(), expected.maximum);
      }
      break;
  }
}

}  // namespace

CUL_CHILD(StartUpWithNonsense) {
  setEverything(nonsense(childArguments()[0]));
  CUL_TRACE(TraceType::error, "StartUpWithNonsense()", 1, "line");
  DebuggerSettings& registry = *DebuggerSettings::instance();
  ASSERT_EQ(registry.getAllSettings().count(), expectedSettings.size());
  for (const ExpectedSetting& expected : expectedSettings) {
    expectLegal(expected, *registry.getAllSettings()[expected.identifier]);
  }
  registry.debugDelay();
}

class StartUp : public testing::TestWithParam<const char*> {};

TEST_P(StartUp, SurvivesNonsenseInEveryVariable) {
  const TemporaryFolder folder;
  ChildOptions options;
  options.directory = folder.path();
  options.arguments = {GetParam()};
  const ChildResult r = runChild("StartUpWithNonsense", options);
  EXPECT_EQ(r.status, 0) << r.out << r.err.substr(0, 2000);
}

INSTANTIATE_TEST_SUITE_P(Nonsense, StartUp,
                         testing::Values("long", "long words", "empty", "blank", "negative",
                                         "great", "binary"));
