#include <algorithm>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "Engine/utilities/TraceFlags.h"

#include "tests/enginetrace/Reader.h"

/// What bash completes of a call of the reader, where that is installed.

namespace {

using testing::ElementsAre;
using testing::IsSupersetOf;
using testing::UnorderedElementsAreArray;

// A bash with nothing but this completion, which is asked as its line editor asks.
class ReaderCompletion : public testing::Test {
 protected:
  ReaderCompletion() {
    for (const char* part : {"Engine", "programs/enginetrace"}) {
      const ChildResult r = runProgram(
          {CUL_CMAKE, "--install", CUL_BUILD_FOLDER "/" + std::string(part), "--prefix", prefix_});
      EXPECT_EQ(r.status, 0) << r.out << r.err;
    }
    std::filesystem::create_directories(home_ + "/a folder");
    writeFile(home_ + "/root.7.trc", "");
    writeFile(home_ + "/notes.txt", "");
  }

  // What is offered for the last of the words.
  std::vector<std::string> offered(const std::vector<std::string>& words) const {
    std::string script = "compopt() { :; }; source " + prefix_ +
                         "/share/bash-completion/completions/enginetrace; COMP_WORDS=(" + program();
    for (const std::string& word : words) {
      script += " '" + word + "'";
    }
    script += "); COMP_CWORD=" + std::to_string(words.size()) + "; _enginetrace " + program() +
              "; ((${#COMPREPLY[@]} == 0)) || printf '%s\\n' \"${COMPREPLY[@]}\"";
    const ChildResult r = runProgram({"/bin/bash", "--norc", "-c", script}, {.directory = home_});
    EXPECT_EQ(r.err, "");
    std::vector<std::string> lines;
    std::istringstream stream(r.out);
    for (std::string line; std::getline(stream, line);) {
      lines.push_back(line);
    }
    return lines;
  }

  std::string program() const { return prefix_ + "/bin/enginetrace"; }

 private:
  TemporaryFolder folder_;
  std::string prefix_ = folder_.file("opt");
  std::string home_ = folder_.file("home");
};

TEST_F(ReaderCompletion, OffersTheOptionsThatTheReaderTells) {
  EXPECT_THAT(offered({"--tr"}), ElementsAre("--trace-event"));
  EXPECT_THAT(offered({"x.trc", "--s"}), ElementsAre("--since", "--summary"));
  EXPECT_THAT(offered({"-"}), IsSupersetOf({"-A", "-f", "-i", "-h", "--type", "--context"}));
}

TEST_F(ReaderCompletion, OffersWhatAnOptionTakes) {
  EXPECT_THAT(offered({"--type", "GMH"}), ElementsAre("GMH", "GMHT", "GMHS"));
  EXPECT_THAT(offered({"--not", "=", "ER"}), ElementsAre("ERROR"));
  EXPECT_THAT(offered({"--color", "="}), ElementsAre("always", "never", "auto"));
  EXPECT_THAT(offered({"--thread", ""}), ElementsAre());
}

TEST_F(ReaderCompletion, OffersTheTypesOfTheTrace) {
  std::vector<std::string> tags;
#define TAG(type, tag, place) tags.emplace_back(tag);
#define NO_TAG(name, place)
  CUL_TRACE_TYPES(TAG, NO_TAG)
#undef NO_TAG
#undef TAG
  // What marks all lines, and what switches all on.
  std::erase(tags, "**");
  std::erase(tags, "ALL");
  EXPECT_THAT(offered({"--type", ""}), UnorderedElementsAreArray(tags));
}

TEST_F(ReaderCompletion, OffersTracesBehindAnOptionOnlyWhereThatTakesNoValue) {
  const std::string help = runProgram({program(), "--help"}, {.environment = {{"LANG", "C"}}}).out;
  const std::regex option("\n  (?:    |(-.), )(--[a-z-]+)( [A-Z][^ \n]*)?(?=  )");
  unsigned count = 0;
  for (std::sregex_iterator match(help.begin(), help.end(), option), end; match != end; ++match) {
    for (const std::string& name : {(*match)[1].str(), (*match)[2].str()}) {
      if (!name.empty()) {
        const std::vector<std::string> words = offered({name, ""});
        EXPECT_EQ(std::count(words.begin(), words.end(), "root.7.trc"), (*match)[3].matched ? 0 : 1)
            << name;
        ++count;
      }
    }
  }
  EXPECT_GE(count, 31U);
}

TEST_F(ReaderCompletion, OffersTracesAndFolders) {
  EXPECT_THAT(offered({""}), ElementsAre("root.7.trc", "a folder"));
  EXPECT_THAT(offered({"--errors", "r"}), ElementsAre("root.7.trc"));
}

}  // namespace
