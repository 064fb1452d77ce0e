#include <chrono>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "Engine/utilities/DebuggerSettingsHKORV.h"

#include "tests/programs/Host.h"

/// The listing of the settings, and what the host does with some of them.

namespace {

using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

json listed(const std::map<std::string, std::string>& environment = {}) {
  const ChildResult r = runHost({"-settings", "--json"}, {.environment = environment});
  EXPECT_EQ(r.status, 0) << r.err;
  return json::parse(r.out);
}

json settingOf(const json& listing, const std::string& name) {
  for (const json& setting : listing["settings"]) {
    if (setting["name"] == name) {
      return setting;
    }
  }
  ADD_FAILURE() << name << " is not listed";
  return {};
}

TEST(EngineHostSettings, AreListedForProgramsWithAllTheirParts) {
  const json listing = listed();
  EXPECT_EQ(listing["settings"].size(), DebuggerSettingsHKORV::slots);
  EXPECT_TRUE(listing["unknown"].empty());
  EXPECT_EQ(settingOf(listing, "REPLY_TIMEOUT"), json({{"name", "REPLY_TIMEOUT"},
                                                       {"type", "Unsigned"},
                                                       {"permitted", "10 - 65535"},
                                                       {"default", "50"},
                                                       {"value", "50"},
                                                       {"from", "default"}}));
  EXPECT_EQ(settingOf(listing, "EXEC")["permitted"], "STOP, RUN");
  EXPECT_EQ(settingOf(listing, "PATH")["type"], "Path");
  EXPECT_EQ(settingOf(listing, "TXMN_STEP")["type"], "Boolean");
  EXPECT_EQ(settingOf(listing, "SOURCE_FILTER")["value"], "SOURCE");
  EXPECT_EQ(settingOf(listing, "SOURCESTEP")["type"], "List");
  EXPECT_EQ(settingOf(listing, "ADDR")["type"], "String");
  EXPECT_EQ(settingOf(listing, "HRDM_PORT")["from"], "none");
}

TEST(EngineHostSettings, TellThatTheyComeFromTheEnvironment) {
  const json setting = settingOf(listed({{"QVX_DBG_REPLY_TIMEOUT", " 77 "}}), "REPLY_TIMEOUT");
  EXPECT_EQ(setting["value"], "77");
  EXPECT_EQ(setting["default"], "50");
  EXPECT_EQ(setting["from"], "environment");
}

TEST(EngineHostSettings, TellWhatTheyRefuseAndWhy) {
  const json listing = listed({{"QVX_DBG_REPLY_TIMEOUT", "5"},
                               {"QVX_DBG_HRDM_KEY", "much too long"},
                               {"QVX_DBG_FORK", "none of them"}});
  const json number = settingOf(listing, "REPLY_TIMEOUT");
  EXPECT_EQ(number["value"], "50");
  EXPECT_EQ(number["from"], "default");
  EXPECT_EQ(number["refused"], json({{"value", "5"}, {"reason", "it is not within 10 - 65535"}}));
  EXPECT_EQ(settingOf(listing, "HRDM_KEY")["refused"],
            json({{"value", "********"}, {"reason", "it is not 0 to 8 characters long"}}));
  EXPECT_EQ(settingOf(listing, "FORK")["refused"]["reason"], "it is none of PARENT, BOTH, BOTHRUN");
}

TEST(EngineHostSettings, DoNotShowAKey) {
  const ChildResult r = runHost({"-settings"}, {.environment = {{"QVX_DBG_HRDM_KEY", "opensesa"}}});
  EXPECT_THAT(r.out, AllOf(HasSubstr("********"), Not(HasSubstr("opensesa"))));
}

TEST(EngineHostSettings, PointOutVariablesThatNobodyReads) {
  const json listing = listed({{"QVX_DBG_REPLY_TIMOUT", "5"},
                               {"QVX_DBG_TRACEHOSTS", "x"},
                               {"QVX_DBG_TRACE_ROOT", ""},
                               {"QVX_DBG_CODEPAGE", "UTF-8"},
                               {"QVX_OTHER", "x"}});
  EXPECT_THAT(
      listing["unknown"],
      testing::UnorderedElementsAre(
          json({{"variable", "QVX_DBG_REPLY_TIMOUT"}, {"nearest", "QVX_DBG_REPLY_TIMEOUT"}}),
          json({{"variable", "QVX_DBG_TRACEHOSTS"}, {"nearest", "QVX_DBG_TRACEHOST"}})));
}

TEST(EngineHostSettings, AreAlignedForPeople) {
  const ChildResult r =
      runHost({"-settings"}, {.environment = {{"QVX_DBG_REPLY_TIMEOUT", "5"},
                                              {"QVX_DBG_TAB", "3"},
                                              {"QVX_DBG_TABB", "3"},
                                              {"QVX_DBG_FILE_CACHE", "ä\x1B[2Jß"}}});
  EXPECT_EQ(r.status, 0);
  const std::string heading = r.out.substr(0, r.out.find('\n'));
  EXPECT_THAT(heading, testing::MatchesRegex("NAME +TYPE +VALUE +DEFAULT +FROM +PERMITTED"));
  const auto lineOf = [&](const std::string& name) {
    const std::size_t start = r.out.find("\n" + name + " ") + 1;
    return r.out.substr(start, r.out.find('\n', start) - start);
  };
  const std::string tab = lineOf("TAB");
  for (const auto& [column, text] :
       std::vector<std::pair<std::string, std::string>>{{"TYPE", "Unsigned"},
                                                        {"VALUE", "3 "},
                                                        {"DEFAULT", "8 "},
                                                        {"FROM", "environment"},
                                                        {"PERMITTED", "1 - 8"}}) {
    EXPECT_EQ(tab.find(text, heading.find(column)), heading.find(column)) << column << "\n" << tab;
  }
  EXPECT_THAT(r.out, HasSubstr("\n    QVX_DBG_REPLY_TIMEOUT=\"5\" is refused: "
                               "it is not within 10 - 65535\n"));
  EXPECT_THAT(r.out, HasSubstr("\nQVX_DBG_TABB is no variable of the debugger; "
                               "the nearest is QVX_DBG_TAB\n"));
  // Nothing in the environment can upset the terminal.
  EXPECT_THAT(lineOf("FILE_CACHE"), HasSubstr("\\x1B[2J"));
  EXPECT_THAT(r.out, Not(HasSubstr("\x1B")));
}

TEST(EngineHostSettings, TakeNothingButJson) {
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"-settings", "--xml"}, {"-settings", "--json", "more"}}) {
    const ChildResult r = runHost(words);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "enginehost: -settings takes nothing but --json\n");
    EXPECT_EQ(r.out, "");
  }
}

TEST(EngineHostSettings, TellThatTheyCannotBeWritten) {
  for (const std::string words : {"-settings", "-settings --json", "-?"}) {
    const ChildResult r =
        runProgram({"/bin/sh", "-c", "exec \"$0\" " + words + " > /dev/full", CUL_ENGINEHOST});
    EXPECT_EQ(r.status, 125) << words;
    EXPECT_EQ(r.err, "enginehost: standard output cannot be written\n") << words;
  }
}

TEST(EngineHostSettings, LoadTheModulesThatTheyName) {
  const std::string library = std::string(CUL_TEST_LIBRARIES) + "/libgreeting.so";
  const ChildResult r =
      runHost({"echo", "started"}, {.environment = {{"QVX_DBG_RUNTIME_MODULES", library}}});
  EXPECT_EQ(r.out, "module loaded\nstarted\n");
  EXPECT_EQ(r.status, 0);
}

TEST(EngineHostSettings, KeepTheProgramFromStartingWithoutItsModules) {
  const ChildResult r = runHost({"echo", "started"},
                                {.environment = {{"QVX_DBG_RUNTIME_MODULES", "/no/such/module"}}});
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "enginehost: module /no/such/module cannot be loaded; the trace tells why\n");
  EXPECT_EQ(r.status, 125);
}

TEST(EngineHostSettings, DelayTheStart) {
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(runHost({"echo", "started"}, {.environment = {{"QVX_DBG_DEBUG_DELAY", "1"}}}).out,
            "started\n");
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::seconds(1));
}

}  // namespace
