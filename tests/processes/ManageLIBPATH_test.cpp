#include "Engine/utilities/ManageLIBPATH.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "tests/processes/AbortedProcess.h"
#include "tests/support/Child.h"
#include "tests/support/DeadStandardError.h"
#include "tests/support/EnvironmentGuard.h"
#include "tests/support/LongFolder.h"
#include "tests/support/ProgramTree.h"
#include "tests/support/StandIn.h"
#include "tests/support/TemporaryFolder.h"

CUL_STAND_IN(int, putenv, (char* entry), noexcept, entry)
CUL_STAND_IN(int, setenv, (const char* name, const char* value, int replaces), noexcept, name,
             value, replaces)

namespace {

using ManagedString = ManageLIBPATH::ManagedString;

void makeTool(const std::string& file, mode_t mode = 0755) {
  if (const std::filesystem::path folder = std::filesystem::path(file).parent_path();
      !folder.empty()) {
    std::filesystem::create_directories(folder);
  }
  writeFile(file, "x");
  ASSERT_EQ(chmod(file.c_str(), mode), 0);
}

// The folder's path without links, as getcwd() gives it.
std::string canonical(const TemporaryFolder& folder) {
  return std::filesystem::canonical(folder.path()).string();
}

// Links "1" to "n" in a folder, each to the next, and the last one to "end".
void makeChain(const TemporaryFolder& folder, unsigned n) {
  for (unsigned i = 1; i <= n; ++i) {
    const std::string target = i == n ? "end" : std::to_string(i + 1);
    std::filesystem::create_symlink(target, folder.file(std::to_string(i)));
  }
}

// The text that `call` gives, or the number that it throws.
template <class Call>
std::string resultOf(Call call) {
  try {
    const ManagedString result = call();
    return result == nullptr ? "null" : static_cast<const char*>(result);
  } catch (const int error) {
    return "error " + std::to_string(error);
  }
}

std::string qualified(const char* argv0) {
  return resultOf([argv0] { return ManageLIBPATH::qualifiedExecutable(argv0); });
}

std::string resolved(const std::string& path) {
  return resultOf([&] { return ManageLIBPATH::resolveSymbolicLink(path.c_str()); });
}

std::string stripped(const char* path) {
  return resultOf([path] { return ManageLIBPATH::stripPath(path); });
}

const std::string notFound = "error " + std::to_string(ENOENT);

}  // namespace

TEST(ManagedString, IsACopyOfWhatItWasMadeFrom) {
  char text[] = "text";
  const ManagedString string(text);
  text[0] = 'n';
  EXPECT_STREQ(string, "text");
  EXPECT_TRUE(string.hasText());
  EXPECT_FALSE(ManagedString("").hasText());
  EXPECT_STREQ(ManagedString(""), "");
}

TEST(ManagedString, CanBeNull) {
  EXPECT_EQ(ManagedString(), nullptr);
  EXPECT_EQ(ManagedString(nullptr), nullptr);
  EXPECT_EQ(ManagedString(ManagedString()), nullptr);
  EXPECT_FALSE(ManagedString().hasText());
}

TEST(ManagedString, DuplicatesATextForTheCallerToFree) {
  const char* const text = "text";
  char* const copy = ManagedString::dupString(text);
  EXPECT_NE(copy, text);
  EXPECT_STREQ(copy, text);
  std::free(copy);
  char* const empty = ManagedString::dupString("");
  EXPECT_STREQ(empty, "");
  std::free(empty);
  EXPECT_EQ(ManagedString::dupString(nullptr), nullptr);
}

TEST(ManagedString, Appends) {
  ManagedString string("a");
  string += "bc";
  string += "";
  string += nullptr;
  EXPECT_STREQ(string, "abc");
  string += string;
  EXPECT_STREQ(string, "abcabc");
  ManagedString null;
  null += nullptr;
  EXPECT_EQ(null, nullptr);
  null += "";
  EXPECT_STREQ(null, "");
  ManagedString second;
  second += "text";
  EXPECT_STREQ(second, "text");
}

TEST(ManagedString, IsCopiedMovedAndHandedOver) {
  ManagedString first("first");
  ManagedString copy(first);
  copy += "!";
  EXPECT_STREQ(first, "first");
  ManagedString moved(std::move(first));
  EXPECT_STREQ(moved, "first");
  copy = moved;
  EXPECT_STREQ(copy, "first");
  const ManagedString& same = copy;
  copy = same;
  EXPECT_STREQ(copy, "first");
  copy = ManagedString();
  EXPECT_EQ(copy, nullptr);
  char* const characters = moved.release();
  EXPECT_STREQ(characters, "first");
  EXPECT_EQ(moved, nullptr);
  std::free(characters);
}

CUL_CHILD(QualifyAbsolute) {
  EXPECT_EQ(qualified("/no/such/tool"), "/no/such/tool");
  EXPECT_EQ(qualified("/"), "/");
  ASSERT_NO_FATAL_FAILURE(enterFolders(childArguments().at(0), 1100));
  EXPECT_EQ(qualified("/no/such/tool"), "/no/such/tool");
}

namespace {

void expectSuccess(const std::string& childCase, const TemporaryFolder& folder) {
  ChildOptions options;
  options.directory = folder.path();
  options.arguments = {canonical(folder)};
  const ChildResult r = runChild(childCase, options);
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.err, "");
}

}  // namespace

TEST(QualifiedExecutable, IsAnAbsoluteNameAsItStands) {
  const TemporaryFolder folder;
  expectSuccess("QualifyAbsolute", folder);
}

CUL_CHILD(QualifyFromWorkingDirectory) {
  const std::string here = childArguments().at(0);
  makeTool("./tool");
  makeTool(".hidden");
  makeTool(".folder/tool");
  makeTool("folder/plain", 0644);
  EXPECT_EQ(qualified("./tool"), here + "/tool");
  EXPECT_EQ(qualified("././tool"), here + "/./tool");
  EXPECT_EQ(qualified(".//tool"), here + "//tool");
  EXPECT_EQ(qualified(".hidden"), here + "/.hidden");
  EXPECT_EQ(qualified(".folder/tool"), here + "/.folder/tool");
  ASSERT_EQ(chdir("folder"), 0);
  EXPECT_EQ(qualified("../tool"), here + "/folder/../tool");
  EXPECT_EQ(qualified("./plain"), notFound);
  EXPECT_EQ(qualified("./absent"), notFound);
  EXPECT_EQ(qualified("."), notFound);
  EXPECT_EQ(qualified("./"), notFound);
  EXPECT_EQ(qualified(".."), notFound);
}

TEST(QualifiedExecutable, StartsFromTheWorkingDirectoryWhenItBeginsWithAPoint) {
  const TemporaryFolder folder;
  expectSuccess("QualifyFromWorkingDirectory", folder);
}

CUL_CHILD(QualifyAlongPath) {
  const std::string here = childArguments().at(0);
  makeTool("a/plain", 0644);
  makeTool("b/plain");
  makeTool("b/tool");
  makeTool("c/tool");
  makeTool("c/sub/tool");
  makeTool("d/tool/file");
  makeTool("here");
  const EnvironmentGuard path("PATH",
                              "/none:" + here + "/a:" + here + "/d:" + here + "/b:" + here + "/c");
  EXPECT_EQ(qualified("plain"), here + "/b/plain");
  EXPECT_EQ(qualified("tool"), here + "/b/tool");
  EXPECT_EQ(qualified("sub/tool"), here + "/c/sub/tool");
  EXPECT_EQ(qualified("absent"), notFound);
  EXPECT_EQ(qualified(""), notFound);
  EXPECT_EQ(qualified(nullptr), notFound);
  // The working directory is not asked, whatever the shell would do.
  EXPECT_EQ(qualified("here"), notFound);
  EXPECT_EQ(qualified("b/tool"), notFound);
}

TEST(QualifiedExecutable, IsTheFirstOneAlongPath) {
  const TemporaryFolder folder;
  expectSuccess("QualifyAlongPath", folder);
}

CUL_CHILD(QualifyAlongOddPaths) {
  const std::string here = childArguments().at(0);
  makeTool("relative/tool");
  makeTool("tool");
  {
    const EnvironmentGuard path("PATH", "none:relative");
    EXPECT_EQ(qualified("tool"), here + "/relative/tool");
  }
  {
    const EnvironmentGuard path("PATH", "./relative");
    EXPECT_EQ(qualified("tool"), here + "/relative/tool");
  }
  {
    const EnvironmentGuard path("PATH", ".");
    EXPECT_EQ(qualified("tool"), here + "/tool");
  }
  for (const char* const value : {"", ":", "/none:", ":/none", "/none::/none"}) {
    // An empty entry is the root folder.
    const EnvironmentGuard path("PATH", value);
    EXPECT_EQ(qualified("bin/sh"), "/bin/sh") << value;
    EXPECT_EQ(qualified("relative/tool"), notFound) << value;
  }
  const EnvironmentGuard path("PATH", std::nullopt);
  EXPECT_EQ(qualified("bin/sh"), notFound);
}

TEST(QualifiedExecutable, TakesRelativeEmptyAndAbsentEntriesOfPath) {
  const TemporaryFolder folder;
  expectSuccess("QualifyAlongOddPaths", folder);
}

CUL_CHILD(QualifyFrom1023) {
  ASSERT_NO_FATAL_FAILURE(enterFolders(childArguments().at(0), 1023));
  makeTool("./tool");
  const std::string here = std::filesystem::current_path().string();
  ASSERT_EQ(here.size(), 1023U);
  EXPECT_EQ(qualified("./tool"), here + "/tool");
  EXPECT_EQ(qualified("./absent"), notFound);
}

CUL_CHILD(QualifyFrom1024) {
  ASSERT_NO_FATAL_FAILURE(enterFolders(childArguments().at(0), 1024));
  makeTool("./tool");
  const std::string tooLong = "error " + std::to_string(ERANGE);
  EXPECT_EQ(qualified("./tool"), tooLong);
  EXPECT_EQ(ManageLIBPATH::executableLocation("./tool"), nullptr);
  // Read first, needed or not.
  const EnvironmentGuard path("PATH", "/bin");
  EXPECT_EQ(qualified("sh"), tooLong);
}

TEST(QualifiedExecutable, ReadsAWorkingDirectoryOfAtMost1023Bytes) {
  const TemporaryFolder known;
  expectSuccess("QualifyFrom1023", known);
  const TemporaryFolder tooLong;
  expectSuccess("QualifyFrom1024", tooLong);
}

CUL_CHILD(QualifyInARemovedFolder) {
  ASSERT_EQ(mkdir("gone", 0755), 0);
  ASSERT_EQ(chdir("gone"), 0);
  ASSERT_EQ(rmdir("../gone"), 0);
  const EnvironmentGuard path("PATH", "/bin");
  EXPECT_EQ(qualified("sh"), notFound);
}

TEST(QualifiedExecutable, ThrowsTheErrorOfReadingTheWorkingDirectory) {
  const TemporaryFolder folder;
  expectSuccess("QualifyInARemovedFolder", folder);
}

TEST(IsExecutable, HoldsForARegularFileWithPermissionLinksFollowed) {
  const TemporaryFolder folder;
  makeTool(folder.file("tool"));
  makeTool(folder.file("plain"), 0644);
  std::filesystem::create_symlink("tool", folder.file("link"));
  std::filesystem::create_symlink("absent", folder.file("dangling"));
  ASSERT_EQ(mkfifo(folder.file("fifo").c_str(), 0755), 0);
  const auto isExecutable = [&](const char* name) {
    ManagedString path(folder.file(name).c_str());
    return ManageLIBPATH::isExecutable(path);
  };
  EXPECT_TRUE(isExecutable("tool"));
  EXPECT_TRUE(isExecutable("link"));
  EXPECT_FALSE(isExecutable("plain"));
  EXPECT_FALSE(isExecutable("dangling"));
  EXPECT_FALSE(isExecutable("absent"));
  EXPECT_FALSE(isExecutable("fifo"));
  EXPECT_FALSE(isExecutable("."));
  EXPECT_FALSE(ManageLIBPATH::isExecutable(""));
  EXPECT_FALSE(ManageLIBPATH::isExecutable(nullptr));
}

CUL_CHILD(ExecutableForOthers) {
  if (geteuid() == 0) {
    ASSERT_EQ(setuid(65534), 0);
  }
  EXPECT_FALSE(ManageLIBPATH::isExecutable(childArguments().at(0).c_str()));
  EXPECT_TRUE(ManageLIBPATH::isExecutable(childArguments().at(1).c_str()));
}

TEST(IsExecutable, AsksForThePermissionOfThisUser) {
  const TemporaryFolder folder;
  ASSERT_EQ(chmod(folder.path().c_str(), 0755), 0);
  // The superuser's own file, or one that is for anybody but its owner.
  makeTool(folder.file("others"), geteuid() == 0 ? 0700 : 0611);
  makeTool(folder.file("everybody"));
  ChildOptions options;
  options.arguments = {folder.file("others"), folder.file("everybody")};
  const ChildResult r = runChild("ExecutableForOthers", options);
  EXPECT_EQ(r.status, 0) << r.out;
}

TEST(LauncherSymbolicLink, GivesAPathThatIsNoLinkBack) {
  EXPECT_EQ(resolved("/no/such/path"), "/no/such/path");
  EXPECT_EQ(resolved("/"), "/");
  EXPECT_EQ(resolved(""), "");
  EXPECT_EQ(ManageLIBPATH::resolveSymbolicLink(ManagedString()), nullptr);
}

TEST(LauncherSymbolicLink, FollowsRelativeAndAbsoluteTargets) {
  const TemporaryFolder folder;
  std::filesystem::create_directory(folder.file("bin"));
  std::filesystem::create_symlink("../lib/x", folder.file("bin/relative"));
  std::filesystem::create_symlink("/no/where", folder.file("bin/absolute"));
  std::filesystem::create_symlink("bin", folder.file("folder"));
  EXPECT_EQ(resolved(folder.file("bin/relative")), folder.file("bin/../lib/x"));
  EXPECT_EQ(resolved(folder.file("bin/absolute")), "/no/where");
  // A link among the folders stays.
  EXPECT_EQ(resolved(folder.file("folder/relative")), folder.file("folder/../lib/x"));
}

CUL_CHILD(ResolveInWorkingDirectory) {
  std::filesystem::create_symlink("target", "link");
  EXPECT_EQ(resolved("link"), "target");
}

TEST(LauncherSymbolicLink, LeavesARelativeLinkRelative) {
  const TemporaryFolder folder;
  expectSuccess("ResolveInWorkingDirectory", folder);
}

TEST(LauncherSymbolicLink, FollowsFortyLinksAndNoMore) {
  const TemporaryFolder forty;
  makeChain(forty, 40);
  EXPECT_EQ(resolved(forty.file("1")), forty.file("end"));
  const TemporaryFolder more;
  makeChain(more, 41);
  const std::string tooMany = "error " + std::to_string(ELOOP);
  EXPECT_EQ(resolved(more.file("1")), tooMany);
  std::filesystem::create_symlink("loop", more.file("loop"));
  EXPECT_EQ(resolved(more.file("loop")), tooMany);
}

TEST(LauncherSymbolicLink, TakesTheLongestTarget) {
  const TemporaryFolder folder;
  const std::string target = "/" + std::string().append(4094, 'x');
  std::filesystem::create_symlink(target, folder.file("link"));
  EXPECT_EQ(resolved(folder.file("link")), target);
}

TEST(LauncherStripPath, CutsTheLastComponent) {
  EXPECT_EQ(stripped("/a/b/c"), "/a/b");
  EXPECT_EQ(stripped("/a/b/"), "/a/b");
  EXPECT_EQ(stripped("a/b"), "a");
  EXPECT_EQ(stripped("/a"), "/");
  EXPECT_EQ(stripped("/"), "/");
  EXPECT_EQ(stripped("a"), "");
  EXPECT_EQ(stripped(""), "");
  EXPECT_EQ(stripped(nullptr), "");
}

TEST(AbsPath, PutsAFolderBeforeWhatIsNotAbsolute) {
  EXPECT_STREQ(ManageLIBPATH::absPath("/f", "/a"), "/a");
  EXPECT_STREQ(ManageLIBPATH::absPath("/f", "a/b"), "/f/a/b");
  EXPECT_STREQ(ManageLIBPATH::absPath("/f", "./a"), "/f/a");
  EXPECT_STREQ(ManageLIBPATH::absPath("/f", ".a"), "/f/.a");
  EXPECT_STREQ(ManageLIBPATH::absPath("/f", "../a"), "/f/../a");
  EXPECT_STREQ(ManageLIBPATH::absPath("/f", ""), "/f/");
}

CUL_CHILD(LocateExecutables) {
  const std::string here = childArguments().at(0);
  makeTool("real/tool");
  std::filesystem::create_directory("bin");
  std::filesystem::create_symlink("../real/tool", "bin/tool");
  std::filesystem::create_symlink("loop", "bin/loop");
  EXPECT_STREQ(ManageLIBPATH::executableLocation("./real/tool"), (here + "/real").c_str());
  EXPECT_STREQ(ManageLIBPATH::executableLocation("./bin/tool"), (here + "/bin/../real").c_str());
  EXPECT_STREQ(ManageLIBPATH::executableLocation("/no/such/tool"), "/no/such");
  EXPECT_EQ(ManageLIBPATH::executableLocation("./absent"), nullptr);
  EXPECT_EQ(ManageLIBPATH::executableLocation((here + "/bin/loop").c_str()), nullptr);
  EXPECT_EQ(ManageLIBPATH::executableLocation(nullptr), nullptr);
}

TEST(ExecutableLocation, IsTheFolderOfTheFileBehindAllLinksOrNull) {
  const TemporaryFolder folder;
  expectSuccess("LocateExecutables", folder);
}

namespace {

// What a launcher prints of its folder and of the two variables.
std::string libraryPathWith(const ProgramTree& tree,
                            const std::map<std::string, std::string>& environment) {
  const ChildResult r = runProgram({tree.launcher(), "path"}, {.environment = environment});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  return r.out;
}

}  // namespace

TEST(GetLibPath, PutsTheFolderBeforeTheLibraryPathAndKeepsTheFormerValue) {
  const ProgramTree tree;
  const std::string folder = tree.file("bin");
  EXPECT_EQ(libraryPathWith(tree, {}), folder + "\n" + folder + "\n\n");
  EXPECT_EQ(libraryPathWith(tree, {{"LD_LIBRARY_PATH", ""}}), folder + "\n" + folder + "\n\n");
  EXPECT_EQ(libraryPathWith(tree, {{"LD_LIBRARY_PATH", "/old:/older"}}),
            folder + "\n" + folder + ":/old:/older\n/old:/older\n");
}

TEST(GetLibPath, ChangesNothingWhenTheFormerValueIsKeptAlready) {
  const ProgramTree tree;
  const std::string folder = tree.file("bin");
  EXPECT_EQ(libraryPathWith(tree, {{"QVX_DBG_LD_LIBRARY_PATH", ""}}), folder + "\nunset\n\n");
  EXPECT_EQ(
      libraryPathWith(tree, {{"QVX_DBG_LD_LIBRARY_PATH", "/user"}, {"LD_LIBRARY_PATH", "/old"}}),
      folder + "\n/old\n/user\n");
}

TEST(GetLibPath, FindsTheFolderHoweverTheProgramWasStarted) {
  const ProgramTree tree;
  const std::string folder = tree.file("bin");
  const auto outputOf = [&](const std::string& command) {
    return runProgram({"/bin/sh", "-c", command}, {.directory = tree.path()}).out;
  };
  EXPECT_EQ(outputOf("PATH=" + folder + "; launcher path"), folder + "\n" + folder + "\n\n");
  EXPECT_EQ(outputOf("./bin/launcher path"), folder + "\n" + folder + "\n\n");
  EXPECT_EQ(outputOf("PATH=bin:$PATH; launcher path"), folder + "\n" + folder + "\n\n");
  std::filesystem::create_symlink("bin/launcher", tree.file("link"));
  EXPECT_EQ(outputOf("./link path"), folder + "\n" + folder + "\n\n");
}

CUL_CHILD(GetLibPathTwice) {
  unsetenv("LD_LIBRARY_PATH");
  char* const first = ManageLIBPATH::getLibPath("/some/where/tool");
  EXPECT_STREQ(first, "/some/where");
  EXPECT_STREQ(getenv("LD_LIBRARY_PATH"), "/some/where");
  unsetenv("QVX_DBG_LD_LIBRARY_PATH");
  char* const second = ManageLIBPATH::getLibPath("/else/where/tool");
  EXPECT_STREQ(second, "/some/where");
  EXPECT_NE(first, second);
  std::free(first);
  std::free(second);
  EXPECT_STREQ(getenv("LD_LIBRARY_PATH"), "/some/where");
  EXPECT_EQ(getenv("QVX_DBG_LD_LIBRARY_PATH"), nullptr);
}

TEST(GetLibPath, SetsTheLibraryPathUpOncePerProcessAndGivesACopyEachTime) {
  const ChildResult r = runChild("GetLibPathTwice");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

CUL_CHILD(GetLibPathOfNothing) {
  const bool isNull = childArguments().empty();
  std::free(ManageLIBPATH::getLibPath(isNull ? nullptr : childArguments().at(0).c_str()));
}

TEST(GetLibPath, EndsTheProcessWhenTheExecutableIsNotFound) {
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"no-such-tool"}, {"./no-such-tool"}, {""}, {}}) {
    ChildOptions options;
    options.arguments = arguments;
    expectAbort(runChild("GetLibPathOfNothing", abortingWith(options)),
                "No such file or directory\n");
  }
}

CUL_CHILD(GetLibPathWithoutRoomInTheEnvironment) {
  constexpr auto fail = [](auto...) {
    errno = ENOMEM;
    return -1;
  };
  if (childArguments()[0] == "putenv") {
    putenvStandIn.callInstead(fail);
  } else {
    setenvStandIn.callInstead(fail);
  }
  std::free(ManageLIBPATH::getLibPath("/some/where/tool"));
}

TEST(GetLibPath, EndsTheProcessWhenTheEnvironmentTakesNoVariable) {
  for (const char* call : {"putenv", "setenv"}) {
    ChildOptions options;
    options.arguments = {call};
    expectAbort(runChild("GetLibPathWithoutRoomInTheEnvironment", abortingWith(options)),
                "Cannot allocate memory\n");
  }
}

CUL_CHILD(GetLibPathWithAnExitHandler) {
  ASSERT_EQ(std::atexit([] { std::puts("the handler"); }), 0);
  std::free(ManageLIBPATH::getLibPath("no-such-tool"));
}

TEST(GetLibPath, RunsTheExitHandlersWhenItEndsTheProcess) {
  const ChildResult r = runChild("GetLibPathWithAnExitHandler", abortingWith());
  EXPECT_EQ(r.status, aborted);
  EXPECT_EQ(r.out, "the handler\n");
}

CUL_CHILD(GetLibPathUnheard) {
  loseReaderOfStandardError();
  std::free(ManageLIBPATH::getLibPath("no-such-tool"));
}

TEST(GetLibPath, EndsTheProcessWithItsStatusWhenNobodyReadsWhy) {
  EXPECT_EQ(runChild("GetLibPathUnheard", abortingWith()).status, aborted);
}

// The sanitizers' allocators do not live with a limit.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

CUL_CHILD(DuplicateWithoutMemory) {
  const std::string text(100 << 20, 'x');
  const rlimit none = {0, RLIM_INFINITY};
  ASSERT_EQ(setrlimit(RLIMIT_AS, &none), 0);
  std::free(ManagedString::dupString(text.c_str()));
}

TEST(ManagedString, EndsTheProcessWhenThereIsNoMemory) {
  expectAbort(runChild("DuplicateWithoutMemory", abortingWith()), "Cannot allocate memory\n");
}

#endif
