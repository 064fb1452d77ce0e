#include <regex>
#include <set>
#include <string>

#include <gmock/gmock.h>

#include "programs/enginetrace/Messages.h"
#include "tests/enginetrace/Reader.h"
#include "tests/support/ProgramMessages.h"

/// What the reader says, in which language, and where it is told of.

namespace {

using testing::HasSubstr;
using testing::StartsWith;

struct Language {
  const char* lang;
  const char* locale;
  const char* notATrace;
  const char* usage;
};

constexpr Language languages[] = {
    {"en_US.UTF-8", "en_US", "/etc/passwd: not a trace", "usage: enginetrace [options] "},
    {"de_DE.UTF-8", "de_DE", "/etc/passwd: keine Ablaufverfolgung",
     "Aufruf: enginetrace [Optionen] "},
    {"fr_CA.UTF-8", "fr_FR", "/etc/passwd : ce n'est pas une trace",
     "usage : enginetrace [options] "},
    {"ja_JP.UTF-8", "ja_JP", "/etc/passwd: トレースではありません",
     "使用法: enginetrace [オプション] "},
    {"zh_HK.UTF-8", "zh_TW", "/etc/passwd：不是追蹤記錄", "用法：enginetrace [選項] "},
    {"zh_CN.UTF-8", "zh_CN", "/etc/passwd：不是跟踪记录", "用法：enginetrace [选项] "},
};

std::string sourceFile(const std::string& name) { return contentsOf(CUL_SOURCE_FOLDER "/" + name); }

// All that a pattern's first group is in a text.
std::set<std::string> matchesIn(const std::string& text, const std::string& pattern) {
  const std::regex regex(pattern);
  std::set<std::string> result;
  for (std::sregex_iterator match(text.begin(), text.end(), regex), end; match != end; ++match) {
    result.insert((*match)[1]);
  }
  return result;
}

TEST(ReaderMessages, AreTheSameInTheBaseLanguageAndCompiledIn) {
  expectBaseIsCompiledIn(CUL_SOURCE_FOLDER);
}

TEST(ReaderMessages, AreAllThereAndTriedHereInEachLanguageOfTheBuildsList) {
  expectAllLanguages(languages, CUL_SOURCE_FOLDER, CUL_PROGRAM_LANGUAGES);
}

TEST(ReaderMessages, AreInTheLanguagesThatTheManualPageNames) {
  const std::string page = sourceFile("programs/enginetrace/enginetrace.1");
  for (const auto& language : listedLanguages(CUL_PROGRAM_LANGUAGES)) {
    EXPECT_THAT(page.substr(page.find(".It Ev LANG")), HasSubstr(language.second));
  }
}

TEST(ReaderMessages, AreInTheUsersLanguage) {
  for (const Language& language : languages) {
    const ChildOptions options = {.environment = {{"LANG", language.lang}}};
    EXPECT_EQ(runReader({"/etc/passwd"}, options).err, said(language.notATrace));
    EXPECT_THAT(runReader({"--help"}, options).out, StartsWith(language.usage));
  }
  EXPECT_EQ(runReader({"/etc/passwd"}, {.environment = {{"LANG", "sv_SE"}}}).err,
            said("/etc/passwd: not a trace"));
}

TEST(ReaderMessages, LeaveTheFormsForProgramsAsTheyAre) {
  const std::string line = "12:00:01.000000 (main    )**GMH: void f(1): text\n";
  for (const char* form : {"--json", "--trace-event"}) {
    const auto shownIn = [&](const char* lang) {
      return runReader({form, "-"}, {.environment = {{"LANG", lang}}, .input = line}).out;
    };
    EXPECT_EQ(shownIn("de_DE"), shownIn("C"));
  }
}

// Each option as the help tells it: "-A, --after-context N".
std::set<std::string> optionsOfTheHelp() {
  std::set<std::string> told =
      matchesIn(runReader({"--help"}).out, "\n  (?:    )?(-[^\n]*?)  (?=[^\n]*)");
  EXPECT_GE(told.size(), 25U);
  return told;
}

TEST(ReaderOptions, AreInTheManualPageWithTheirLettersAndValues) {
  const std::string page = sourceFile("programs/enginetrace/enginetrace.1");
  const std::regex item("\n\\.It (?:Fl (\\w) , )?Fl Fl ([a-z-]+)(?: Ar ([^\n]+))?(?=\n)");
  std::set<std::string> told;
  for (std::sregex_iterator match(page.begin(), page.end(), item), end; match != end; ++match) {
    const std::string letter = (*match)[1];
    const std::string value = (*match)[3];
    told.insert((letter.empty() ? "" : "-" + letter + ", ") + "--" + (*match)[2].str() +
                (value.empty() ? "" : " " + value));
  }
  EXPECT_EQ(told, optionsOfTheHelp());
}

TEST(ReaderOptions, InExamplesAreThoseThatItTakes) {
  std::set<std::string> taken;
  for (const std::string& option : optionsOfTheHelp()) {
    taken.merge(matchesIn(option, "(--?[A-Za-z-]+)"));
  }
  for (const char* file : {"README.md", "programs/enginetrace/enginetrace.1"}) {
    std::set<std::string> used;
    for (const std::string& call : matchesIn(sourceFile(file), "enginetrace( [^\n|`]*)")) {
      used.merge(matchesIn(call, " (--?[A-Za-z-]+)"));
    }
    EXPECT_GE(used.size(), 4U) << file;
    EXPECT_THAT(used, testing::IsSubsetOf(taken)) << file;
  }
}

}  // namespace
