#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "tests/enginetrace/Reader.h"

/// What bash completes of a call of the reader, where that is installed.

namespace {

using testing::ElementsAre;
using testing::IsSupersetOf;

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

TEST_F(ReaderCompletion, OffersTracesAndFolders) {
  EXPECT_THAT(offered({""}), ElementsAre("root.7.trc", "a folder"));
  EXPECT_THAT(offered({"--errors", "r"}), ElementsAre("root.7.trc"));
}

}  // namespace
