#include "Engine/utilities/EnvironmentVariables.h"

#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <string>

#include <gmock/gmock.h>

#include "tests/programs/Host.h"
#include "tests/support/TemporaryFolder.h"

/// The table of environment variables against what is written of them elsewhere.

namespace {

using Names = std::set<std::string>;
using testing::IsSubsetOf;

Names namesIn(EnvironmentVariable::Place place) {
  Names names;
  for (const EnvironmentVariable& variable : environmentVariables) {
    if ((variable.places & place) != 0) {
      names.emplace(variable.name);
    }
  }
  return names;
}

Names allNames() {
  Names names;
  for (const EnvironmentVariable& variable : environmentVariables) {
    names.emplace(variable.name);
  }
  return names;
}

std::string textOf(const std::string& file) {
  std::string text = contentsOf(CUL_SOURCE_FOLDER "/" + file);
  EXPECT_NE(text, "") << file;
  return text;
}

// What the first group of the expression matches.
Names matches(const std::string& text, const std::string& expression) {
  const std::regex regex(expression);
  Names names;
  for (std::sregex_iterator match(text.begin(), text.end(), regex), end; match != end; ++match) {
    names.insert((*match)[1]);
  }
  return names;
}

// The text from a line on to the next one that begins alike.
std::string section(const std::string& text, const std::string& heading,
                    const std::string& beginning) {
  const size_t start = text.find("\n" + heading + "\n");
  EXPECT_NE(start, std::string::npos) << heading;
  const size_t behind = start + heading.size() + 1;
  return text.substr(behind, text.find("\n" + beginning, behind) - behind);
}

// The names of the settings' variables.
Names settingVariables() {
  Names names;
  const auto listing = nlohmann::json::parse(runHost({"-settings", "--json"}).out);
  for (const nlohmann::json& setting : listing["settings"]) {
    names.insert("QVX_DBG_" + setting["name"].get<std::string>());
  }
  return names;
}

}  // namespace

TEST(EnvironmentVariables, AreToldOfInTheManualPageWhereTheTableSaysSo) {
  const std::string page =
      section(textOf("programs/enginehost/enginehost.1"), ".Sh ENVIRONMENT", ".Sh ");
  EXPECT_EQ(matches(page, "\n\\.It Ev ([A-Z0-9_]+)(?=\n)"), namesIn(EnvironmentVariable::manual));
  Names known = settingVariables();
  known.merge(allNames());
  EXPECT_THAT(matches(page, "\n\\.(?:It )?Ev ([A-Z0-9_]+)(?=\n)"), IsSubsetOf(known));
}

TEST(EnvironmentVariables, AreThoseThatTheScriptForRunningLooksAtWhereTheTableSaysSo) {
  EXPECT_EQ(matches(textOf("script/run"), "\\b((?:QVX|WZ4)_DBG_[A-Z_]+|GDIA_[A-Z_]+)\\b"),
            namesIn(EnvironmentVariable::run));
}

TEST(EnvironmentVariables, AreAllInTheRecordOfWhatMustNotMove) {
  const std::string part = section(textOf("docs/contract.md"), "## Environment variables", "## ");
  Names names = matches(part, "`([A-Z0-9_]+)`");
  EXPECT_EQ(names.erase("QVX_DBG_"), 1U);
  EXPECT_EQ(names, allNames());
}

TEST(EnvironmentVariables, AreNoStrangersToTheListingOfSettings) {
  ChildOptions options;
  options.environment["QVX_DBG_"] = "a stranger";
  const auto unknown = [&] {
    return nlohmann::json::parse(runHost({"-settings", "--json"}, options).out)["unknown"].size();
  };
  EXPECT_EQ(unknown(), 1U);
  for (const std::string& name : allNames()) {
    if (name.starts_with("QVX_DBG_")) {
      options.environment[name] = "";
    }
  }
  EXPECT_EQ(unknown(), 1U);
}
