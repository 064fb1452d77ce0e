#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <sstream>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "Engine/utilities/msgserv/LibraryMessageServer.h"

#include "programs/enginehost/Messages.h"
#include "tests/programs/Host.h"
#include "tests/support/ProgramMessages.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/Terminal.h"

/// What the host says, in which language, and when.

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

struct Language {
  const char* lang;
  const char* locale;
  const char* notFound;
  const char* status3;
  const char* killed;
  const char* usage;
};

constexpr Language languages[] = {
    {"en_US.UTF-8", "en_US", "tool: not found", "the program ended with status 3",
     "the program was ended by the signal SIGKILL",
     "usage: enginehost [options] [--] program [argument...]"},
    {"de_DE.UTF-8", "de_DE", "tool: nicht gefunden", "das Programm endete mit Status 3",
     "das Programm wurde durch das Signal SIGKILL beendet",
     "Aufruf: enginehost [Optionen] [--] Programm [Argument...]"},
    {"fr_CA.UTF-8", "fr_FR", "tool : introuvable",
     "le programme s'est terminé avec le code de retour 3",
     "le programme a été arrêté par le signal SIGKILL",
     "usage : enginehost [options] [--] programme [argument...]"},
    {"ja_JP.UTF-8", "ja_JP", "tool: 見つかりません", "プログラムはステータス 3 で終了しました",
     "プログラムはシグナル SIGKILL により終了しました",
     "使用法: enginehost [オプション] [--] プログラム [引数...]"},
    {"zh_HK.UTF-8", "zh_TW", "tool：找不到", "程式已結束，狀態為 3", "程式已被信號 SIGKILL 終止",
     "用法：enginehost [選項] [--] 程式 [引數...]"},
    {"zh_CN.UTF-8", "zh_CN", "tool：未找到", "程序已结束，状态为 3", "程序已被信号 SIGKILL 终止",
     "用法：enginehost [选项] [--] 程序 [参数...]"},
};

// The text from one on to another one behind it.
std::string partOf(const std::string& file, const std::string& from, const std::string& to) {
  const std::string text = contentsOf(CUL_SOURCE_FOLDER "/" + file);
  const size_t start = text.find(from);
  EXPECT_NE(start, std::string::npos) << file;
  return text.substr(start, text.find(to, start + from.size()) - start);
}

std::string said(const std::string& text) { return "enginehost: " + text + "\n"; }

// What a user sees of a script under the host at a terminal.
std::string seenOf(const std::string& script, const TerminalOptions& options, int status) {
  Terminal terminal;
  terminal.startProgram({host, "--", "sh", "-c", script}, options);
  EXPECT_EQ(terminal.wait(), status);
  return terminal.readToTheEnd();
}

TEST(EngineHostMessages, AreTheSameInTheBaseLanguageAndCompiledIn) {
  expectBaseIsCompiledIn(CUL_SOURCE_FOLDER);
}

TEST(EngineHostMessages, AreAllThereAndTriedHereInEachLanguageOfTheBuildsList) {
  expectAllLanguages(languages, CUL_SOURCE_FOLDER, CUL_PROGRAM_LANGUAGES);
}

TEST(EngineHostMessages, AreInLanguagesThatTheMessageServerHas) {
  for (const auto& [locale, name] : listedLanguages(CUL_PROGRAM_LANGUAGES)) {
    EXPECT_THAT(messageLocales, testing::Contains(testing::StrEq(locale)));
  }
}

TEST(EngineHostMessages, AreInTheLanguagesThatTheReadmeAndTheManualPageName) {
  const std::string readme = partOf("README.md", "\n## Messages\n", "\n## ");
  const std::string page = partOf("programs/enginehost/enginehost.1", "\n.It Ev LANG\n", "\n.It ");
  for (const auto& [locale, name] : listedLanguages(CUL_PROGRAM_LANGUAGES)) {
    EXPECT_THAT(readme, HasSubstr(name));
    EXPECT_THAT(page, HasSubstr(name));
  }
}

TEST(EngineHostMessages, AreInTheUsersLanguage) {
  for (const Language& language : languages) {
    const ChildOptions options = {.environment = {{"LANG", language.lang}}};
    const ChildResult r = runHost({"tool"}, options);
    EXPECT_EQ(r.err, said(language.notFound));
    EXPECT_EQ(r.status, 127);
    EXPECT_EQ(runHost({}, options).err, std::string(language.usage) + "\n");
  }
}

TEST(EngineHostMessages, AreEnglishForOtherLanguages) {
  for (const char* lang : {"C", "POSIX", "sv_SE.UTF-8", "", "eo"}) {
    EXPECT_EQ(runHost({"tool"}, {.environment = {{"LANG", lang}}}).err, said("tool: not found"))
        << lang;
  }
  EXPECT_EQ(runHost({"tool"}, {.environment = {{"LC_ALL", "de_DE"}}}).err, said("tool: not found"));
}

TEST(EngineHostMessages, TellAUserHowTheProgramEnded) {
  for (const Language& language : languages) {
    const TerminalOptions options = {.environment = {{"LANG", language.lang}}};
    // Behind a restored terminal: "\n" is translated again.
    EXPECT_EQ(seenOf("echo out; exit 3", options, 3), asShown("out\n" + said(language.status3)));
    EXPECT_EQ(seenOf("kill -KILL $$", options, 128 + SIGKILL), asShown(said(language.killed)));
  }
}

TEST(EngineHostMessages, TellHowAProgramEndedThatHasTheUsersTerminal) {
  const TerminalOptions local = {.environment = {{"QVX_DBG_CONSOLE", "LOCAL"}}};
  EXPECT_EQ(seenOf("echo out; exit 3", local, 3),
            asShown("out\n" + said("the program ended with status 3")));
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  EXPECT_EQ(seenOf("exit 4", {.in = null}, 4), asShown(said("the program ended with status 4")));
  EXPECT_EQ(seenOf("kill -TERM $$", {.out = null}, 128 + SIGTERM),
            asShown(said("the program was ended by the signal SIGTERM")));
  close(null);
}

TEST(EngineHostMessages, NameARealTimeSignalByItsNumber) {
  EXPECT_EQ(seenOf("kill -40 $$", {}, 128 + 40),
            asShown(said("the program was ended by the signal 40")));
}

TEST(EngineHostMessages, TellNothingAboutAProgramThatEndedWell) {
  EXPECT_EQ(seenOf("echo out", {}, 0), asShown("out\n"));
}

TEST(EngineHostMessages, TellNothingAboutAKeyThatInterruptsOrAReaderWhoHasSeenEnough) {
  EXPECT_EQ(seenOf("kill -INT $$", {}, 128 + SIGINT), "");
  EXPECT_EQ(seenOf("kill -PIPE $$", {}, 128 + SIGPIPE), "");
}

TEST(EngineHostMessages, TellNothingWhereNobodyReadsTheErrors) {
  const TemporaryFolder folder;
  const int file = open(folder.file("errors").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  EXPECT_EQ(seenOf("exit 3", {.error = file}, 3), "");
  close(file);
  EXPECT_EQ(contentsOf(folder.file("errors")), "");
  const ChildResult r = runHost({"--", "sh", "-c", "exit 3"});
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.out + r.err, "");
}

TEST(EngineHostMessages, TellWhyTheHostWasCalledWrongly) {
  const ChildOptions german = {.environment = {{"LANG", "de"}}};
  EXPECT_EQ(runHost({"-x", "true"}, german).err,
            said("-x: ungültige Option oder ungültiger Wert, siehe enginehost -?"));
  EXPECT_EQ(runHost({"-a1"}, german).err,
            said("das Anhängen an einen Prozess ist Sache der Engine"));
  EXPECT_EQ(runHost({"-settings", "x"}, german).err,
            said("-settings nimmt nichts außer --json an"));
  EXPECT_EQ(runHost({"-processes", "x"}, german).err,
            said("-processes nimmt nichts außer --json an"));
  EXPECT_EQ(runHost({"-properties"}, german).err,
            said("-properties nimmt eine Datei und höchstens einen Schlüssel an"));
  EXPECT_EQ(runHost({"-convert"}, german).err, said("-convert nimmt zwei Codepages an"));
  EXPECT_EQ(runHost({"-convert", "x", "y"}, german).err, said("x: unbekannte Codepage"));
}

TEST(EngineHostMessages, HeadTheListOfProcesses) {
  const auto headIn = [](const char* lang) {
    const std::string list = runHost({"-processes"}, {.environment = {{"LANG", lang}}}).out;
    return list.substr(0, list.find('\n'));
  };
  EXPECT_EQ(headIn("C"), "PROCESS  ARGUMENTS");
  EXPECT_EQ(headIn("fr_FR"), "PROCESSUS  ARGUMENTS");
  // Two columns for each character.
  EXPECT_EQ(headIn("zh_CN"), "   进程  参数");
}

TEST(EngineHostMessages, TellOfModulesAndWindows) {
  EXPECT_EQ(
      runHost({"true"}, {.environment = {{"LANG", "de"}, {"QVX_DBG_RUNTIME_MODULES", "absent"}}})
          .err,
      said("Modul absent kann nicht geladen werden; der Grund steht in der Ablaufverfolgung"));
  const TerminalOptions gui = {.environment = {{"LANG", "zh"}, {"QVX_DBG_CONSOLE", "GUI"}}};
  EXPECT_EQ(seenOf("echo out", gui, 0),
            asShown(said("此处没有窗口：控制台就在本终端上") + "out\n"));
}

TEST(EngineHostMessages, TellTheUsageWithItsFormsBelowEachOther) {
  const auto usageIn = [](const char* lang) {
    return runHost({"-?"}, {.environment = {{"LANG", lang}}}).out;
  };
  EXPECT_THAT(usageIn("en"), HasSubstr(" program [argument...]\n       enginehost -"));
  EXPECT_THAT(usageIn("de"), AllOf(HasSubstr(" [Argument...]\n        enginehost -"),
                                   HasSubstr("\n\nOptionen, jeweils mit ihrer kürzesten Form:\n"),
                                   HasSubstr("\nEinstellungen, in der Umgebung jeweils als "
                                             "QVX_DBG_ mit ihrem Namen anzugeben:\n"),
                                   HasSubstr("\n  REPLY_TIMEOUT                  10 - 65535\n")));
  EXPECT_THAT(usageIn("fr"), HasSubstr(" [argument...]\n        enginehost -"));
  // Each character of these takes two columns.
  EXPECT_THAT(usageIn("ja"), HasSubstr(" [引数...]\n        enginehost -"));
  EXPECT_THAT(usageIn("zh"), HasSubstr(" [参数...]\n      enginehost -"));
}

TEST(EngineHostMessages, TellTheSettingsToPeople) {
  const ChildResult r =
      runHost({"-settings"}, {.environment = {{"LANG", "de"},
                                              {"QVX_DBG_REPLY_TIMEOUT", "5"},
                                              {"QVX_DBG_HRDM_KEY", "much too long"},
                                              {"QVX_DBG_FORK", "x"},
                                              {"QVX_DBG_TABB", "4"}}});
  EXPECT_EQ(r.status, 0);
  EXPECT_THAT(r.out,
              testing::MatchesRegex("NAME +TYP +WERT +STANDARD +HERKUNFT +ERLAUBT\n(.|\n)*"));
  EXPECT_THAT(r.out,
              HasSubstr("    QVX_DBG_REPLY_TIMEOUT=\"5\" wird abgelehnt: der Wert liegt nicht "
                        "im Bereich 10 - 65535\n"));
  EXPECT_THAT(r.out, HasSubstr("    QVX_DBG_HRDM_KEY=\"********\" wird abgelehnt: die Länge liegt "
                               "nicht zwischen 0 und 8 Zeichen\n"));
  EXPECT_THAT(r.out, HasSubstr("    QVX_DBG_FORK=\"x\" wird abgelehnt: der Wert ist keiner von "
                               "PARENT, BOTH, BOTHRUN\n"));
  EXPECT_THAT(r.out, HasSubstr("\nQVX_DBG_TABB ist keine Variable des Debuggers; am nächsten kommt "
                               "QVX_DBG_TAB\n"));
}

TEST(EngineHostMessages, StandAboveTheirColumnsInAnyScript) {
  const std::string table = runHost({"-settings"}, {.environment = {{"LANG", "ja"}}}).out;
  const std::string row = table.substr(table.find("\nADDR ") + 1);
  // Two characters of two columns each.
  EXPECT_THAT(table, StartsWith("名前" + std::string().append(row.find("String") - 4, ' ') + "型"));
}

TEST(EngineHostMessages, AreEnglishForPrograms) {
  ChildOptions options = {.environment = {{"QVX_DBG_REPLY_TIMEOUT", "5"}, {"QVX_DBG_TABB", "4"}}};
  const std::string english = runHost({"-settings", "--json"}, options).out;
  EXPECT_THAT(english, HasSubstr("it is not within 10 - 65535"));
  options.environment["LANG"] = "de_DE.UTF-8";
  EXPECT_EQ(runHost({"-settings", "--json"}, options).out, english);
}

TEST(EngineHostMessages, AreInTheNativeCodePageWhereItCanHoldThem) {
  const auto inLatin1 = [](const char* lang) {
    return runHost({"-x"}, {.environment = {{"LANG", lang}, {"QVX_DBG_CODEPAGE", "ISO-8859-1"}}})
        .err;
  };
  EXPECT_THAT(inLatin1("de"), HasSubstr("ung\xfcltige Option oder ung\xfcltiger Wert"));
  EXPECT_THAT(inLatin1("ja"), HasSubstr("オプションまたは値"));
}

// Whether a host with these words opens its catalog.
bool opensItsCatalog(const std::vector<std::string>& words) {
  const TemporaryFolder folder;
  runHost(words,
          {.environment = {{"LD_DEBUG", "files"}, {"LD_DEBUG_OUTPUT", folder.file("loaded")}}});
  std::string loaded;
  for (const auto& file : std::filesystem::directory_iterator(folder.path())) {
    loaded += contentsOf(file.path());
  }
  EXPECT_THAT(loaded, HasSubstr("libcul.so"));
  return loaded.find("libwobnhost.so") != std::string::npos;
}

TEST(EngineHostMessages, AreNotLoadedBeforeThereIsSomethingToSay) {
  EXPECT_FALSE(opensItsCatalog({"true"}));
  EXPECT_FALSE(opensItsCatalog({"--", "sh", "-c", "exit 3"}));
  EXPECT_FALSE(opensItsCatalog({"-settings", "--json"}));
  EXPECT_TRUE(opensItsCatalog({"tool"}));
}

}  // namespace
