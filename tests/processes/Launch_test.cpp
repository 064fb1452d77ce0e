#include "Engine/utilities/Launch.h"

#include <cstdlib>
#include <filesystem>
#include <string>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>

#include "tests/processes/AbortedProcess.h"
#include "tests/support/Child.h"
#include "tests/support/ProgramTree.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;

const std::string entries = std::string(CUL_TEST_LIBRARIES) + "/libentries.so";

// Prints what a program sees of its start.
const std::string tell =
    "for word in \"$0\" \"$@\"; do echo \"$word\"; done\n"
    "echo \"$LD_LIBRARY_PATH\"\necho \"$QVX_DBG_LD_LIBRARY_PATH\"\n";

TEST(LoadAndExecute, RunsAProgramFromTheFolderOfTheLauncherWithItsArguments) {
  const ProgramTree tree;
  tree.addScript("bin/real", tell);
  const ChildResult r = runProgram({tree.launcher(), "execute", "real", "", "a b"},
                                   {.environment = {{"LD_LIBRARY_PATH", "/old"}}});
  const std::string folder = tree.file("bin");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, folder + "/real\nexecute\nreal\n\na b\n" + folder + ":/old\n/old\n");
  EXPECT_EQ(r.err, "");
}

TEST(LoadAndExecute, FindsTheFolderBehindALinkAndAlongPath) {
  const ProgramTree tree;
  tree.addScript("bin/real", "echo \"$0\"");
  std::filesystem::create_directory(tree.file("links"));
  std::filesystem::create_symlink("../bin/launcher", tree.file("links/start"));
  const ChildResult r =
      runProgram({"/bin/sh", "-c", "PATH=" + tree.file("links") + ":$PATH; start execute real"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, tree.file("links/../bin/real") + "\n");
}

TEST(LoadAndExecute, StaysOneProcessAndEndsWithTheProgramsStatus) {
  const ProgramTree tree;
  tree.addScript("bin/real", "echo $$; exit 7");
  const ChildResult r =
      runProgram({"/bin/sh", "-c", "echo $$; exec " + tree.launcher() + " execute real"});
  EXPECT_EQ(r.status, 7);
  const std::string process = r.out.substr(0, r.out.find('\n') + 1);
  EXPECT_EQ(r.out, process + process);
}

TEST(LoadAndExecute, LeavesTheLibraryPathAsItIsInASecondLauncher) {
  const ProgramTree tree;
  tree.addScript("bin/real", tree.launcher() + " path");
  const ChildResult r = runProgram({tree.launcher(), "execute", "real"},
                                   {.environment = {{"LD_LIBRARY_PATH", "/old"}}});
  const std::string folder = tree.file("bin");
  EXPECT_EQ(r.out, folder + "\n" + folder + ":/old\n/old\n");
}

TEST(LoadAndExecute, LetsTheShellRunAFileWithoutAFormat) {
  const ProgramTree tree;
  writeFile(tree.file("bin/real"), "echo run by the shell\n");
  std::filesystem::permissions(tree.file("bin/real"), std::filesystem::perms::owner_all);
  const ChildResult r = runProgram({tree.launcher(), "execute", "real"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "run by the shell\n");
}

TEST(LoadAndExecute, DoesNotSearchElsewhere) {
  const ProgramTree tree;
  tree.addScript("lib/real", "echo wrong\n");
  expectAbort(runProgram({tree.launcher(), "execute", "real"},
                         abortingWith({.environment = {{"PATH", tree.file("lib")}}})),
              "No such file or directory\n");
}

TEST(LoadAndExecute, EndsTheProcessWhenTheProgramCannotBeRun) {
  const ProgramTree tree;
  writeFile(tree.file("bin/plain"), "x");
  expectAbort(runProgram({tree.launcher(), "execute", "absent"}, abortingWith()),
              "No such file or directory\n");
  expectAbort(runProgram({tree.launcher(), "execute", "plain"}, abortingWith()),
              "Permission denied\n");
  expectAbort(runProgram({tree.launcher(), "execute", "plain/x"}, abortingWith()),
              "Not a directory\n");
}

CUL_CHILD(LaunchFromNowhere) {
  std::string name = childArguments().empty() ? "" : childArguments().at(0);
  char* argv[] = {childArguments().empty() ? nullptr : name.data(), nullptr};
  loadAndExecute("sh", 1, argv);
}

TEST(LoadAndExecute, EndsTheProcessWhenTheLauncherIsNotFound) {
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"no-such-launcher"}, {""}, {}}) {
    ChildOptions options;
    options.arguments = arguments;
    expectAbort(runChild("LaunchFromNowhere", abortingWith(options)),
                "No such file or directory\n");
  }
}

TEST(LoadSharedLib, LoadsAnEntryOfALibraryBesideThisOne) {
  const ProgramTree tree;
  tree.add(entries, "lib/libentries.so");
  const ChildResult r = runProgram({tree.launcher(), "load", "entries", "entriesFunction"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "2\n");
  EXPECT_EQ(r.err, "");
}

TEST(LoadSharedLib, FindsALibraryInTheFolderOfTheLauncherThatStartedTheProgram) {
  const ProgramTree tree;
  tree.add(entries, "bin/libentries.so");
  tree.addScript("bin/real", "exec " + tree.launcher() + " load entries entriesFunction");
  const ChildResult r = runProgram({tree.launcher(), "execute", "real"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "2\n");
  EXPECT_EQ(r.err, "");
}

TEST(LoadSharedLib, EndsTheProcessWhenTheLibraryOrItsEntryIsMissing) {
  const ProgramTree tree;
  expectAbort(runProgram({tree.launcher(), "load", "entries", "entriesFunction"}, abortingWith()),
              "libentries.so: cannot open shared object file: No such file or directory\n");
  tree.add(entries, "lib/libentries.so");
  const ChildResult r = runProgram({tree.launcher(), "load", "entries", "absent"}, abortingWith());
  EXPECT_EQ(r.status, aborted);
  EXPECT_EQ(r.out, "");
  EXPECT_THAT(r.err, EndsWith("/libentries.so: undefined symbol: absent\n"));
}

CUL_CHILD(LoadFromNowhere) {
  static_cast<void>(loadSharedLib("no-such-launcher", "entries", "", "entriesFunction"));
}

TEST(LoadSharedLib, EndsTheProcessWhenTheLauncherIsNotFound) {
  expectAbort(runChild("LoadFromNowhere",
                       abortingWith({.environment = {{"LD_LIBRARY_PATH", CUL_TEST_LIBRARIES}}})),
              "No such file or directory\n");
}

CUL_CHILD(LoadSetsUp) {
  unsetenv("LD_LIBRARY_PATH");
  EXPECT_NE(loadSharedLib("/some/where/tool", "entries", nullptr, "entriesFunction"), nullptr);
  EXPECT_STREQ(getenv("LD_LIBRARY_PATH"), "/some/where");
  EXPECT_STREQ(getenv("QVX_DBG_LD_LIBRARY_PATH"), "");
}

TEST(LoadSharedLib, SetsTheLibraryPathUp) {
  const ChildResult r =
      runChild("LoadSetsUp", {.environment = {{"LD_LIBRARY_PATH", CUL_TEST_LIBRARIES}}});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

// The cleaned environment, which is freed.
std::vector<std::string> cleaned(std::vector<const char*> environment) {
  environment.push_back(nullptr);
  char** const result = cleanEnvironment(environment.data());
  std::vector<std::string> texts;
  for (char** entry = result; *entry != nullptr; ++entry) {
    for (const char* original : environment) {
      EXPECT_NE(*entry, original);
    }
    texts.emplace_back(*entry);
    std::free(*entry);
  }
  std::free(static_cast<void*>(result));
  return texts;
}

TEST(CleanEnvironment, CopiesTheVariablesThatHaveAValue) {
  EXPECT_THAT(cleaned({"X=1", "Y=", "Z"}), ElementsAre("X=1"));
  EXPECT_THAT(cleaned({"Z", "", "=", "A= ", "Y=", "B=1=2", "=v", "C=="}),
              ElementsAre("A= ", "B=1=2", "=v", "C=="));
  EXPECT_THAT(cleaned({}), IsEmpty());
  EXPECT_THAT(cleaned({"Y=", "Z"}), IsEmpty());
}

CUL_CHILD(CleanNothing) {
  std::vector<std::string> before;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    before.emplace_back(*variable);
  }
  std::string name = "no-such-launcher";
  char* argv[] = {name.data(), nullptr};
  cleanLIBPATHandRun(1, argv);
  EXPECT_EQ(argv[0], name.data());
  EXPECT_EQ(name, "no-such-launcher");
  std::vector<std::string> after;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    after.emplace_back(*variable);
  }
  EXPECT_EQ(after, before);
}

TEST(CleanLIBPATHandRun, DoesNothing) {
  const ChildResult r =
      runChild("CleanNothing", {.environment = {{"LD_LIBRARY_PATH", "/old"}, {"EMPTY", ""}}});
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.err, "");
}

}  // namespace
