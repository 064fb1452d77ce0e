#include "Engine/utilities/InstallPath.h"

#include <filesystem>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/UNIX/LINUX_Installpath.h"
#include "Engine/utilities/UNIX/UNIX_Installpath.h"

#include "tests/support/Child.h"
#include "tests/support/EnvironmentGuard.h"
#include "tests/support/LongFolder.h"
#include "tests/support/ProgramTree.h"
#include "tests/support/TemporaryFolder.h"

namespace {

using testing::HasSubstr;

EncodedString encoded(const std::string& text) { return {text.c_str(), EncodedString::utf8}; }

// The install location of an executable, or nothing. A failure leaves the argument alone.
std::optional<std::string> locationOf(const std::string& executable) {
  EncodedString argument = encoded(executable);
  if (UNIX_Installpath::installLocation(argument)) {
    return std::string(argument.view());
  }
  EXPECT_EQ(argument.view(), executable);
  return std::nullopt;
}

std::string canonical(const TemporaryFolder& folder) {
  return std::filesystem::canonical(folder.path()).string();
}

void makeTool(const std::string& file) {
  std::filesystem::create_directories(std::filesystem::path(file).parent_path());
  writeFile(file, "x");
  ASSERT_EQ(chmod(file.c_str(), 0755), 0);
}

// Links "1" to "n" in a folder, each to the next, and the last one to "end".
void makeChain(const std::string& folder, unsigned n) {
  for (unsigned i = 1; i <= n; ++i) {
    const std::string target = i == n ? "end" : std::to_string(i + 1);
    std::filesystem::create_symlink(target, folder + "/" + std::to_string(i));
  }
}

ChildResult runIn(const TemporaryFolder& folder, const std::string& childCase) {
  ChildOptions options;
  options.directory = folder.path();
  options.arguments = {canonical(folder)};
  return runChild(childCase, options);
}

void expectSuccess(const ChildResult& r) {
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.err, "");
}

TEST(InstallLocation, IsTheFolderAboveBin) {
  EXPECT_EQ(locationOf("/opt/prod/bin/engine"), "/opt/prod");
  EXPECT_EQ(locationOf("/prod/bin/engine"), "/prod");
  EXPECT_EQ(locationOf("/opt/bin/bin/engine"), "/opt/bin");
  // Nothing is folded.
  EXPECT_EQ(locationOf("/opt/prod/lib/../bin/engine"), "/opt/prod/lib/..");
  EXPECT_EQ(locationOf("/opt//bin/engine"), "/opt/");
  EXPECT_EQ(locationOf("/opt/pr\xC3\xB6"
                       "d/bin/engine"),
            "/opt/pr\xC3\xB6"
            "d");
  EXPECT_EQ(locationOf("/opt/bin/"), "/opt");
}

TEST(InstallLocation, IsUnknownForAnExecutableInAnotherFolder) {
  for (const char* executable :
       {"/opt/prod/lib/engine", "/opt/prod/bin2/engine", "/opt/prod/sbin/engine",
        "/opt/prod/Bin/engine", "/opt/prod/bin/sub/engine", "/opt/bin//engine", "/opt/prod/bin",
        "/bin", "/engine", "/"}) {
    EXPECT_EQ(locationOf(executable), std::nullopt) << executable;
  }
}

TEST(InstallLocation, IsEmptyButKnownForAnExecutableInTheRootsBin) {
  EXPECT_EQ(locationOf("/bin/no-such-engine"), "");
}

TEST(InstallLocation, IsUnknownForNoExecutable) { EXPECT_EQ(locationOf(""), std::nullopt); }

CUL_CHILD(LocateRelative) {
  const std::string here = childArguments().at(0);
  EXPECT_EQ(locationOf("bin/engine"), here);
  EXPECT_EQ(locationOf("prod/bin/engine"), here + "/prod");
  EXPECT_EQ(locationOf("./bin/engine"), here + "/.");
  EXPECT_EQ(locationOf("lib/engine"), std::nullopt);
  ASSERT_EQ(mkdir("bin", 0755), 0);
  ASSERT_EQ(chdir("bin"), 0);
  EXPECT_EQ(locationOf("./engine"), std::nullopt);
  EXPECT_EQ(locationOf("../bin/engine"), here + "/bin/..");
}

TEST(InstallLocation, StartsFromTheWorkingDirectoryForARelativePath) {
  const TemporaryFolder folder;
  expectSuccess(runIn(folder, "LocateRelative"));
}

CUL_CHILD(LocateFrom1023) {
  ASSERT_NO_FATAL_FAILURE(enterFolders(childArguments().at(0), 1023));
  const std::string here = std::filesystem::current_path().string();
  ASSERT_EQ(here.size(), 1023U);
  EXPECT_EQ(locationOf("bin/engine"), here);
}

CUL_CHILD(LocateFrom1024) {
  ASSERT_NO_FATAL_FAILURE(enterFolders(childArguments().at(0), 1024));
  EXPECT_EQ(locationOf("bin/engine"), std::nullopt);
  EXPECT_EQ(locationOf("/opt/bin/engine"), "/opt");
}

CUL_CHILD(LocateInARemovedFolder) {
  ASSERT_EQ(mkdir("gone", 0755), 0);
  ASSERT_EQ(chdir("gone"), 0);
  ASSERT_EQ(rmdir("../gone"), 0);
  EXPECT_EQ(locationOf("bin/engine"), std::nullopt);
}

TEST(InstallLocation, IsUnknownForARelativePathWithoutAUsableWorkingDirectory) {
  const TemporaryFolder known;
  expectSuccess(runIn(known, "LocateFrom1023"));
  const TemporaryFolder tooLong;
  expectSuccess(runIn(tooLong, "LocateFrom1024"));
  const TemporaryFolder removed;
  expectSuccess(runIn(removed, "LocateInARemovedFolder"));
}

CUL_CHILD(LocateAlongPath) {
  const std::string here = childArguments().at(0);
  makeTool(here + "/lib/other");
  makeTool(here + "/prod/bin/engine");
  makeTool(here + "/last/bin/engine");
  makeTool(here + "/engine");
  {
    const EnvironmentGuard path(
        "PATH", "/none:" + here + "/lib:" + here + "/prod/bin:" + here + "/last/bin");
    EXPECT_EQ(locationOf("engine"), here + "/prod");
    EXPECT_EQ(locationOf("other"), std::nullopt);
    EXPECT_EQ(locationOf("absent"), std::nullopt);
  }
  {
    // What a relative entry gives stays relative.
    const EnvironmentGuard path("PATH", "last/bin");
    EXPECT_EQ(locationOf("engine"), "last");
  }
  ASSERT_EQ(chdir("last"), 0);
  {
    // This "bin" has no "/" before it.
    const EnvironmentGuard path("PATH", "bin");
    EXPECT_EQ(locationOf("engine"), std::nullopt);
  }
  {
    const EnvironmentGuard path("PATH", "./bin");
    EXPECT_EQ(locationOf("engine"), here + "/last/.");
  }
  const EnvironmentGuard path("PATH", std::nullopt);
  EXPECT_EQ(locationOf("engine"), std::nullopt);
}

TEST(InstallLocation, IsFoundAlongPathForABareName) {
  const TemporaryFolder folder;
  expectSuccess(runIn(folder, "LocateAlongPath"));
}

TEST(InstallLocation, FollowsTheLinksOfTheExecutable) {
  const TemporaryFolder folder;
  std::filesystem::create_directories(folder.file("links/bin"));
  std::filesystem::create_symlink("/opt/prod/bin/engine", folder.file("links/absolute"));
  std::filesystem::create_symlink("../prod/bin/engine", folder.file("links/relative"));
  std::filesystem::create_symlink("/opt/prod/lib/engine", folder.file("links/bin/away"));
  std::filesystem::create_symlink("links/bin", folder.file("folder"));
  EXPECT_EQ(locationOf(folder.file("links/absolute")), "/opt/prod");
  EXPECT_EQ(locationOf(folder.file("links/relative")), folder.file("links/../prod"));
  EXPECT_EQ(locationOf(folder.file("links/bin/away")), std::nullopt);
  // A link to the folder stays.
  EXPECT_EQ(locationOf(folder.file("folder/engine")), std::nullopt);
}

TEST(InstallLocation, FollowsTenLinks) {
  const TemporaryFolder folder;
  std::filesystem::create_directory(folder.file("bin"));
  makeChain(folder.file("bin"), 10);
  EXPECT_EQ(locationOf(folder.file("bin/1")), folder.path());
}

CUL_CHILD(LocateBehindElevenLinks) {
  makeChain(childArguments().at(0), 11);
  static_cast<void>(locationOf(childArguments().at(0) + "/1"));
}

TEST(InstallLocation, EndsTheProcessForAChainOfElevenLinks) {
  const TemporaryFolder folder;
  const ChildResult r = runIn(folder, "LocateBehindElevenLinks");
  EXPECT_EQ(r.status, 255);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "Cannot resolve symbolic link " + canonical(folder) + "/1\n");
}

// The tests themselves lie in a "bin".
TEST(InstallPath, IsTheFolderAboveTheBinOfThisProgram) {
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe");
  ASSERT_EQ(self.parent_path().filename(), "bin");
  const InstallPath* const path = InstallPath::instance();
  EXPECT_EQ(path->path().view(), self.parent_path().parent_path().string());
  EXPECT_EQ(InstallPath::instance(), path);
  EXPECT_EQ(&path->path(), &path->path());
  EXPECT_EQ(LINUX_Installpath().path().view(), path->path().view());
}

std::string installPathOf(const std::string& program) {
  const ChildResult r = runProgram({program, "install"}, {.directory = "/"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  return r.out;
}

TEST(InstallPath, FollowsTheProgramWhereverItIsCopied) {
  const ProgramTree tree;
  EXPECT_EQ(installPathOf(tree.launcher()), tree.path() + "\n");
  std::filesystem::create_symlink("bin/launcher", tree.file("link"));
  EXPECT_EQ(installPathOf(tree.file("link")), tree.path() + "\n");
  tree.add(CUL_TEST_LAUNCHER, "lib/launcher");
  EXPECT_EQ(installPathOf(tree.file("lib/launcher")), "\n");
}

// What `cmake --install` makes, in a folder of its own. One part after the other: an
// installation of the whole also leaves a list of its files in the build folder, which may be
// another user's.
class Installation {
 public:
  Installation() : prefix_(canonical(folder_) + "/opt") {
    for (const char* part : {"Engine", "programs/enginehost"}) {
      const ChildResult r = runProgram(
          {CUL_CMAKE, "--install", CUL_BUILD_FOLDER "/" + std::string(part), "--prefix", prefix_});
      EXPECT_EQ(r.status, 0) << r.out << r.err;
    }
  }

  const std::string& prefix() const { return prefix_; }
  std::string program(const std::string& name) const {
    return prefix_ + "/" CUL_PROGRAM_SUBFOLDER "/" + name;
  }
  std::string library(const std::string& name) const {
    return prefix_ + "/" CUL_LIBRARY_SUBFOLDER "/" + name;
  }
  std::string module(const std::string& name) const { return library("cul/" + name); }

 private:
  TemporaryFolder folder_;
  std::string prefix_;
};

// In a process without any environment.
ChildResult runBare(std::vector<std::string> words) {
  words.insert(words.begin(), {"/usr/bin/env", "-i"});
  return runProgram(words, {.directory = "/"});
}

TEST(Installation, RunsFromWhereItIsInstalled) {
  const Installation installation;
  const ChildResult host =
      runBare({installation.program("enginehost"), "--", "/bin/echo", "hosted"});
  EXPECT_EQ(host.status, 0);
  EXPECT_EQ(host.out, "hosted\n");
  EXPECT_EQ(host.err, "");

  const std::string launcher = installation.program("launcher");
  std::filesystem::copy_file(CUL_TEST_LAUNCHER, launcher);
  const ChildResult place = runBare({launcher, "install"});
  EXPECT_EQ(place.out, installation.prefix() + "\n");
  const ChildResult configuration = runBare({launcher, "configuration"});
  EXPECT_EQ(configuration.status, 0);
  EXPECT_THAT(configuration.out, HasSubstr("\nSOURCE\nsame\n"));
  EXPECT_EQ(configuration.err, "");
}

TEST(Installation, SpeaksItsUsersLanguageAndEnglishWithoutItsMessages) {
  const Installation installation;
  const auto errors = [&](const std::string& assertion) {
    const ChildResult r =
        runProgram({installation.program("enginehost"), "/no/such/file"},
                   {.environment = {{"LANG", "de"}, {"QVX_DBG_ASSERTION", assertion}}});
    EXPECT_EQ(r.status, 127);
    return r.err;
  };
  EXPECT_EQ(errors(""), "enginehost: /no/such/file: nicht gefunden\n");
  std::filesystem::remove(installation.module("libwobnhost.so"));
  // What the library's loader says itself, for each entry that it is asked for.
  const std::string absent =
      "libwobnhost.so: cannot open shared object file: No such file or directory\n";
  const std::string english = "enginehost: /no/such/file: not found\n";
  EXPECT_EQ(errors(""), absent + absent + english);
  EXPECT_EQ(errors("EXCEPTION"), absent + english);
}

TEST(Installation, UsesNothingOfTheBuildFolder) {
  const Installation installation;
  const std::string launcher = installation.program("launcher");
  std::filesystem::copy_file(CUL_TEST_LAUNCHER, launcher);
  std::filesystem::remove(installation.module("libwobnConfig.so"));
  EXPECT_THAT(runBare({launcher, "configuration"}).err, HasSubstr("libwobnConfig.so: cannot open"));
  std::filesystem::remove(installation.library("libcul.so.1"));
  // The loader may find a library that is installed on this machine, but not that of the build.
  for (const std::string& program : {launcher, installation.program("enginehost")}) {
    // Nor what watches the tests.
    const ChildResult r = runProgram(
        {program}, {.environment = {{"LD_TRACE_LOADED_OBJECTS", "1"}, {"LD_PRELOAD", ""}}});
    EXPECT_THAT(r.out, HasSubstr("libcul.so.1 => ")) << program;
    EXPECT_THAT(r.out, Not(HasSubstr(CUL_BUILD_FOLDER))) << program;
  }
}

}  // namespace
