#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "tests/support/Child.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/Terminal.h"

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsSupersetOf;
using testing::Not;

using Words = std::vector<std::string>;

// Which completions a user's bash has.
enum class Shell {
  Common,  // those that Debian's package of them offers and finds
  Bare,    // just those of the programs
};

std::ostream& operator<<(std::ostream& out, Shell shell) {
  return out << (shell == Shell::Common ? "Common" : "Bare");
}

// What is installed, and a bash whose user types there, in a folder of his own.
class Completion : public testing::TestWithParam<Shell> {
 protected:
  Completion() {
    for (const char* part : {"Engine", "programs/enginehost", "programs/messagecompiler"}) {
      const ChildResult r = runProgram(
          {CUL_CMAKE, "--install", CUL_BUILD_FOLDER "/" + std::string(part), "--prefix", prefix_});
      EXPECT_EQ(r.status, 0) << r.out << r.err;
    }
    std::filesystem::create_directory(home_);
    writeFile(
        home_ + "/inputrc",
        "set enable-bracketed-paste off\nset bell-style none\nset completion-query-items -1\n");
    writeFile(home_ + "/some.properties", "key = value\n");
    const std::string completions = prefix_ + "/share/bash-completion/completions/";
    writeFile(home_ + "/bashrc",
              "PS1='ready> '\nwords() { printf '\\n<%s>' \"$@\"; printf '\\n%s\\n' end; }\n" +
                  (GetParam() == Shell::Common
                       ? std::string("source /usr/share/bash-completion/bash_completion\n")
                       : "source " + completions + "enginehost\nsource " + completions +
                             "cul-message-compiler\n"));
  }

  // What the line is, word by word, when the user has typed `typed` and then `keys`.
  Words completed(const std::string& typed, const std::string& keys = "\t") const {
    Terminal terminal({.rows = 24, .columns = 10000});
    terminal.startProgram({"/bin/bash", "--noprofile", "--rcfile", home_ + "/bashrc", "-i"},
                          {.environment = {{"TERM", "dumb"},
                                           {"HOME", home_},
                                           {"INPUTRC", home_ + "/inputrc"},
                                           {"HISTFILE", "/dev/null"},
                                           {"PATH", prefix_ + "/bin:/usr/bin:/bin"},
                                           {"QVX_DBG_TRACE", home_ + "/trace"},
                                           {"XDG_DATA_DIRS", prefix_ + "/share"}},
                           .directory = home_});
    terminal.readUntil("ready> ");
    // At the line's start again, what shows the words of it.
    const std::string toTheStart = "\x01";
    terminal.type(typed + keys + toTheStart + "words \n");
    std::istringstream lines(terminal.readUntil("\nend\r\n"));
    terminal.type("exit\n");
    EXPECT_EQ(terminal.wait(), 0);
    // Nothing was traced in the user's name.
    EXPECT_FALSE(std::filesystem::exists(home_ + "/trace"));
    Words words;
    for (std::string line; std::getline(lines, line);) {
      if (line.starts_with('<')) {
        words.push_back(line.substr(1, line.find('>') - 1));
      }
    }
    return words;
  }

  // All that bash offers for the last word.
  Words offered(const std::string& typed) const { return completed(typed, "\x1b*"); }

  const std::string& home() const { return home_; }

 private:
  TemporaryFolder folder_;
  std::string prefix_ = std::filesystem::canonical(folder_.path()).string() + "/opt";
  std::string home_ = folder_.file("home");
};

INSTANTIATE_TEST_SUITE_P(OfEnginehost, Completion, testing::Values(Shell::Common, Shell::Bare));

TEST_P(Completion, OffersTheOptionsThatTheHostTells) {
  EXPECT_THAT(completed("enginehost -qqui"), ElementsAre("enginehost", "-qquiet"));
  EXPECT_THAT(completed("enginehost -qqu 'ls'",
                        "\x1b"
                        "b\x02\x02\t"),
              ElementsAre("enginehost", "-qquiet", "ls"));
  // A value follows at once.
  EXPECT_THAT(completed("enginehost -qhos", "\there"), ElementsAre("enginehost", "-qhost=here"));
  EXPECT_THAT(offered("enginehost -qquiet -qt"),
              ElementsAre("enginehost", "-qquiet", "-qteamuser=", "-qtrace="));
  EXPECT_THAT(offered("enginehost -qquiet --"), ElementsAre("enginehost", "-qquiet", "--"));
}

TEST_P(Completion, OffersTheSmallCommandsAsTheFirstWordOnly) {
  const Words first = {"-?",         "--help",      "--version", "-convert",
                       "-processes", "-properties", "-settings"};
  EXPECT_THAT(offered("enginehost -"), IsSupersetOf(first));
  const Words second = offered("enginehost -qquiet -");
  EXPECT_THAT(second, Contains("-qtrace="));
  EXPECT_THAT(second, AllOf(Not(Contains("-convert")), Not(Contains("--version"))));
}

TEST_P(Completion, OffersTheArgumentsOfTheSmallCommands) {
  EXPECT_THAT(completed("enginehost -settings -"),
              ElementsAre("enginehost", "-settings", "--json"));
  EXPECT_THAT(completed("enginehost -processes -"),
              ElementsAre("enginehost", "-processes", "--json"));
  EXPECT_THAT(completed("enginehost -settings --json -"),
              ElementsAre("enginehost", "-settings", "--json", "-"));
  EXPECT_THAT(completed("enginehost -properties so"),
              ElementsAre("enginehost", "-properties", "some.properties"));
  EXPECT_THAT(completed("enginehost -convert VK"),
              ElementsAre("enginehost", "-convert", "VKT-1047"));
  EXPECT_THAT(offered("enginehost -convert escapes UTF-16"),
              ElementsAre("enginehost", "-convert", "escapes", "UTF-16", "UTF-16BE", "UTF-16LE"));
}

TEST_P(Completion, OffersProgramsAndTheirArguments) {
  EXPECT_THAT(completed("enginehost cul-message-c"),
              ElementsAre("enginehost", "cul-message-compiler"));
  EXPECT_THAT(completed("enginehost -qquiet -- cul-message-c"),
              ElementsAre("enginehost", "-qquiet", "--", "cul-message-compiler"));
  EXPECT_THAT(completed("enginehost -qhost=here cul-message-c"),
              ElementsAre("enginehost", "-qhost=here", "cul-message-compiler"));
  EXPECT_THAT(completed("enginehost cat so"), ElementsAre("enginehost", "cat", "some.properties"));
}

TEST_P(Completion, OffersTheArgumentsOfTheMessageCompiler) {
  const std::string compiler = "cul-message-compiler";
  EXPECT_THAT(completed(compiler + " -"), ElementsAre(compiler, "-o"));
  EXPECT_THAT(completed(compiler + " -o so"), ElementsAre(compiler, "-o", "some.properties"));
  EXPECT_THAT(completed(compiler + " -o x.cpp de", "\tso\t"),
              ElementsAre(compiler, "-o", "x.cpp", "de_DE=some.properties"));
}

}  // namespace
