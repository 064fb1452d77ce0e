#include "Engine/utilities/PathSearch.h"

#include <filesystem>
#include <fstream>
#include <stdlib.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/Child.h"
#include "tests/support/DeadStandardError.h"
#include "tests/support/EnvironmentGuard.h"
#include "tests/support/LongFolder.h"
#include "tests/support/OrdinaryUser.h"
#include "tests/support/TemporaryFolder.h"

namespace {

EncodedString encoded(const std::string& text) {
  return {text.data(), static_cast<unsigned>(text.size()), EncodedString::utf8};
}

std::string search(const std::string& name, const std::string& directories) {
  return std::string(searchPath(encoded(name), encoded(directories)).view());
}

std::string resolve(const std::string& path, unsigned depth) {
  return std::string(resolveSymbolicLink(encoded(path), depth).view());
}

std::string strip(const std::string& path) { return std::string(stripPath(encoded(path)).view()); }

void makeTool(const std::string& file, mode_t mode = 0755) {
  writeFile(file, "x");
  ASSERT_EQ(chmod(file.c_str(), mode), 0);
}

// The folder's path without links, as getcwd() gives it.
std::string canonical(const TemporaryFolder& folder) {
  return std::filesystem::canonical(folder.path()).string();
}

// Runs a child in `folder`, which is also its first argument.
ChildResult runIn(const TemporaryFolder& folder, const std::string& childCase) {
  ChildOptions options;
  options.directory = folder.path();
  options.arguments = {canonical(folder)};
  return runChild(childCase, options);
}

void expectGood(const ChildResult& r) { EXPECT_EQ(r.status, 0) << r.out << r.err; }

// Links "1" to "n" in a folder, each to the next, and the last one to "end".
void makeChain(const TemporaryFolder& folder, unsigned n) {
  for (unsigned i = 1; i <= n; ++i) {
    const std::string target = i == n ? "end" : std::to_string(i + 1);
    std::filesystem::create_symlink(target, folder.file(std::to_string(i)));
  }
}

}  // namespace

TEST(SearchPath, GivesNothingForNoNameAndAnAbsoluteNameBack) {
  EXPECT_EQ(search("", "/bin"), "");
  EXPECT_EQ(search("/no/such/file", "/bin"), "/no/such/file");
  EXPECT_EQ(search("/", ""), "/");
}

TEST(SearchPath, GivesTheFirstExecutableCandidate) {
  const TemporaryFolder folder;
  const std::string one = folder.file("one");
  const std::string two = folder.file("two");
  const std::string three = folder.file("three");
  for (const std::string& sub : {one, two, three}) {
    std::filesystem::create_directory(sub);
  }
  makeTool(two + "/tool");
  makeTool(three + "/tool");
  makeTool(one + "/data", 0644);
  makeTool(two + "/data", 0755);
  EXPECT_EQ(search("tool", one + ":" + two + ":" + three), two + "/tool");
  EXPECT_EQ(search("tool", three + ":" + two), three + "/tool");
  EXPECT_EQ(search("data", one + ":" + two), two + "/data");
  EXPECT_EQ(search("tool", one), "");
  EXPECT_EQ(search("tool", ""), "");
  EXPECT_EQ(search("tool", "::" + one + "::" + two + ":"), two + "/tool");
  EXPECT_EQ(search("tool", two + "/"), two + "//tool");
  EXPECT_EQ(search("two/tool", folder.path()), two + "/tool");
}

TEST(SearchPath, AcceptsAnyExecuteBitAndFollowsLinks) {
  const TemporaryFolder folder;
  for (const mode_t mode : {0100U, 0010U, 0001U}) {
    makeTool(folder.file("tool"), mode);
    EXPECT_EQ(search("tool", folder.path()), folder.file("tool")) << mode;
  }
  makeTool(folder.file("data"), 0666);
  EXPECT_EQ(search("data", folder.path()), "");
  std::filesystem::create_symlink("tool", folder.file("link"));
  EXPECT_EQ(search("link", folder.path()), folder.file("link"));
  std::filesystem::create_symlink("none", folder.file("dangling"));
  EXPECT_EQ(search("dangling", folder.path()), "");
  std::filesystem::create_directory(folder.file("folder"));
  EXPECT_EQ(search("folder", folder.path()), "");
  ASSERT_EQ(mkfifo(folder.file("fifo").c_str(), 0755), 0);
  EXPECT_EQ(search("fifo", folder.path()), "");
}

CUL_CHILD(SearchPathFindsASocket) {
  const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(socket, 0);
  sockaddr_un address = {AF_UNIX, "socket"};
  ASSERT_EQ(bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  close(socket);
  ASSERT_EQ(chmod("socket", 0755), 0);
  EXPECT_EQ(search("socket", childArguments().at(0)), childArguments().at(0) + "/socket");
}

TEST(SearchPath, AcceptsASocketWhichSharesTheTypeBit) {
  const TemporaryFolder folder;
  expectGood(runIn(folder, "SearchPathFindsASocket"));
}

CUL_CHILD(SearchPathWithDots) {
  const std::string top = childArguments().at(0);
  EXPECT_EQ(search("tool", "."), top + "/./tool");
  EXPECT_EQ(search("tool", "./"), top + "/.//tool");
  EXPECT_EQ(search("hidden", "none:.h"), top + "/.h/hidden");
  EXPECT_EQ(search("beside", "sub:sub/.."), "");
  ASSERT_EQ(chdir("sub"), 0);
  EXPECT_EQ(search("tool", "none:..:/bin"), top + "/sub/../tool");
}

TEST(SearchPath, PutsEntriesThatBeginWithADotBehindTheWorkingDirectory) {
  const TemporaryFolder folder;
  std::filesystem::create_directory(folder.file("sub"));
  std::filesystem::create_directory(folder.file(".h"));
  makeTool(folder.file("tool"));
  makeTool(folder.file(".h/hidden"));
  expectGood(runIn(folder, "SearchPathWithDots"));
}

CUL_CHILD(SearchPathWithRelativeEntries) { EXPECT_EQ(search("tool", "sub"), "sub/tool"); }

TEST(SearchPath, LeavesOtherRelativeEntriesAsTheyAre) {
  const TemporaryFolder folder;
  std::filesystem::create_directory(folder.file("sub"));
  makeTool(folder.file("sub/tool"));
  expectGood(runIn(folder, "SearchPathWithRelativeEntries"));
}

CUL_CHILD(SearchPathAlongPATH) {
  const std::string top = childArguments().at(0);
  {
    const EnvironmentGuard path("PATH", "/none:" + top + "/sub");
    EXPECT_EQ(searchPath(encoded("other")).view(), top + "/sub/other");
    EXPECT_EQ(searchPath(encoded("tool")).view(), "");
  }
  {
    const EnvironmentGuard path("PATH", "");
    EXPECT_EQ(searchPath(encoded("tool")).view(), "");
  }
  const EnvironmentGuard path("PATH", std::nullopt);
  EXPECT_EQ(searchPath(encoded("tool")).view(), top + "/./tool");
  EXPECT_EQ(searchPath(encoded("other")).view(), "");
  EXPECT_EQ(searchPath(encoded("/other")).view(), "/other");
}

TEST(SearchPath, UsesPATHOrTheWorkingDirectoryWhenItIsNotSet) {
  const TemporaryFolder folder;
  std::filesystem::create_directory(folder.file("sub"));
  makeTool(folder.file("tool"));
  makeTool(folder.file("sub/other"));
  expectGood(runIn(folder, "SearchPathAlongPATH"));
}

CUL_CHILD(SearchPathInARemovedFolder) {
  const std::string top = childArguments().at(0);
  ASSERT_EQ(mkdir("gone", 0755), 0);
  ASSERT_EQ(chdir("gone"), 0);
  ASSERT_EQ(rmdir((top + "/gone").c_str()), 0);
  EXPECT_EQ(search("tool", "."), "");
  EXPECT_EQ(search("tool", ".:" + top), top + "/tool");
}

TEST(SearchPath, GoesOnWithoutAWorkingDirectory) {
  const TemporaryFolder folder;
  makeTool(folder.file("tool"));
  expectGood(runIn(folder, "SearchPathInARemovedFolder"));
}

namespace {

void searchFromLongPath(size_t length, bool isKnown) {
  const std::string start = childArguments().at(0);
  ASSERT_NO_FATAL_FAILURE(enterFolders(start, length));
  makeTool("tool");
  const std::string current = std::filesystem::current_path().string();
  ASSERT_EQ(current.size(), length);
  EXPECT_EQ(search("tool", "."), isKnown ? current + "/./tool" : "./tool");
}

}  // namespace

CUL_CHILD(SearchPathFrom1023) { searchFromLongPath(1023, true); }
CUL_CHILD(SearchPathFrom1024) { searchFromLongPath(1024, false); }

TEST(SearchPath, UsesTheEntryAsItStandsWhenTheWorkingDirectoryIsTooLong) {
  const TemporaryFolder known;
  expectGood(runIn(known, "SearchPathFrom1023"));
  const TemporaryFolder tooLong;
  expectGood(runIn(tooLong, "SearchPathFrom1024"));
}

CUL_CHILD(SearchPathWithForeignNames) {
  const std::string top = childArguments().at(0);
  const std::string folder = top + "/\xC3\xA9";
  ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
  makeTool(folder + "/\xE2\x82\xAC");
  EXPECT_EQ(search("\xE2\x82\xAC", folder), folder + "/\xE2\x82\xAC");
  ASSERT_EQ(chdir(folder.c_str()), 0);
  EXPECT_EQ(search("\xE2\x82\xAC", "."), folder + "/./\xE2\x82\xAC");
  const EnvironmentGuard path("PATH", folder);
  EXPECT_EQ(searchPath(encoded("\xE2\x82\xAC")).view(), folder + "/\xE2\x82\xAC");
  ASSERT_EQ(symlink("\xE2\x82\xAC", "link"), 0);
  EXPECT_EQ(resolve(folder + "/link", 10), folder + "/\xE2\x82\xAC");
}

TEST(SearchPath, FindsNamesThatTheNativeCodePageDoesNotKnow) {
  const TemporaryFolder folder;
  expectGood(runIn(folder, "SearchPathWithForeignNames"));
}

TEST(ResolveSymbolicLink, GivesAPathThatIsNoLinkBack) {
  const TemporaryFolder folder;
  writeFile(folder.file("file"), "x");
  EXPECT_EQ(resolve(folder.file("file"), 10), folder.file("file"));
  EXPECT_EQ(resolve(folder.path(), 10), folder.path());
  EXPECT_EQ(resolve(folder.file("none"), 10), folder.file("none"));
  EXPECT_EQ(resolve("", 10), "");
  EXPECT_EQ(resolveSymbolicLink(encoded(folder.file("file"))).view(), folder.file("file"));
}

TEST(ResolveSymbolicLink, JoinsARelativeTargetToTheFolderOfItsLink) {
  const TemporaryFolder folder;
  std::filesystem::create_directory(folder.file("bin"));
  std::filesystem::create_symlink("../lib/x", folder.file("bin/x"));
  EXPECT_EQ(resolve(folder.file("bin/x"), 10), folder.file("bin/../lib/x"));
}

TEST(ResolveSymbolicLink, TakesAnAbsoluteTargetAsItIs) {
  const TemporaryFolder folder;
  std::filesystem::create_symlink("/no/such/file", folder.file("link"));
  std::filesystem::create_symlink(folder.file("link"), folder.file("first"));
  EXPECT_EQ(resolve(folder.file("first"), 10), "/no/such/file");
}

TEST(ResolveSymbolicLink, LeavesLinksAmongTheFoldersOnTheWay) {
  const TemporaryFolder folder;
  std::filesystem::create_directory(folder.file("real"));
  std::filesystem::create_symlink("real", folder.file("way"));
  std::filesystem::create_symlink("end", folder.file("real/link"));
  EXPECT_EQ(resolve(folder.file("way/link"), 10), folder.file("way/end"));
}

TEST(ResolveSymbolicLink, FollowsTenLinksAndNoMoreWithDepthTen) {
  const TemporaryFolder folder;
  makeChain(folder, 11);
  EXPECT_EQ(resolve(folder.file("2"), 10), folder.file("end"));
  EXPECT_EQ(resolveSymbolicLink(encoded(folder.file("2"))).view(), folder.file("end"));
  try {
    const std::string result = resolve(folder.file("1"), 10);
    FAIL() << result;
  } catch (const EncodedString& path) {
    EXPECT_EQ(path.view(), folder.file("end"));
  }
}

TEST(ResolveSymbolicLink, WithDepthZeroThrowsForAnyLink) {
  const TemporaryFolder folder;
  makeChain(folder, 2);
  writeFile(folder.file("end"), "x");
  EXPECT_EQ(resolve(folder.file("end"), 0), folder.file("end"));
  EXPECT_EQ(resolve(folder.file("2"), 1), folder.file("end"));
  try {
    const std::string result = resolve(folder.file("1"), 0);
    FAIL() << result;
  } catch (const EncodedString& path) {
    EXPECT_EQ(path.view(), folder.file("2"));
  }
}

TEST(ResolveSymbolicLink, ThrowsForALoop) {
  const TemporaryFolder folder;
  std::filesystem::create_symlink("b", folder.file("a"));
  std::filesystem::create_symlink("a", folder.file("b"));
  EXPECT_THROW(static_cast<void>(resolve(folder.file("a"), 10)), EncodedString);
  EXPECT_THROW(static_cast<void>(resolve(folder.file("a"), 1000)), EncodedString);
}

TEST(ResolveSymbolicLink, DoesNotFollowALinkTextThatMayBeCut) {
  const TemporaryFolder folder;
  for (const size_t length : {1023U, 1024U, 1025U}) {
    std::string target = "end";
    while (target.size() + 2 <= length) {
      target.insert(0, "./");
    }
    target.insert(0, length - target.size(), '.');
    ASSERT_EQ(target.size(), length);
    const std::string link = folder.file(std::to_string(length));
    std::filesystem::create_symlink(target, link);
    EXPECT_EQ(resolve(link, 10), length < 1024 ? folder.path() + "/" + target : link);
  }
}

CUL_CHILD(ResolveALongChain) {
  const EncodedString result = resolveSymbolicLink(encoded(childArguments().at(0)));
  ADD_FAILURE() << std::string(result.view());
}

TEST(ResolveSymbolicLink, EndsTheProcessForAChainOfElevenLinks) {
  const TemporaryFolder folder;
  makeChain(folder, 11);
  ChildOptions options;
  options.arguments = {folder.file("1")};
  const ChildResult r = runChild("ResolveALongChain", options);
  EXPECT_EQ(r.status, 255) << r.out;
  EXPECT_EQ(r.err, "Cannot resolve symbolic link " + folder.file("1") + "\n");
  EXPECT_EQ(r.out, "");
}

namespace {

void printResolved() {
  for (const std::string& path : childArguments()) {
    std::printf("%s\n", std::string(resolveSymbolicLink(encoded(path)).view()).c_str());
  }
}

}  // namespace

CUL_CHILD(ResolveALongChainUnheard) {
  loseReaderOfStandardError();
  const EncodedString result = resolveSymbolicLink(encoded(childArguments().at(0)));
  ADD_FAILURE() << std::string(result.view());
}

TEST(ResolveSymbolicLink, EndsTheProcessWithItsStatusWhenNobodyReadsWhy) {
  const TemporaryFolder folder;
  makeChain(folder, 11);
  ChildOptions options;
  options.arguments = {folder.file("1")};
  const ChildResult r = runChild("ResolveALongChainUnheard", options);
  EXPECT_EQ(r.status, 255);
  EXPECT_EQ(r.out, "");
}

CUL_CHILD(ResolveWithoutPermission) {
  const OrdinaryUser user;
  printResolved();
}

CUL_CHILD(ResolveToTheEnd) { printResolved(); }

TEST(ResolveSymbolicLink, SaysNothingOfAPathThatIsNoLinkOrDoesNotExist) {
  const TemporaryFolder folder;
  makeChain(folder, 1);
  writeFile(folder.file("file"), "x");
  ChildOptions options;
  options.arguments = {folder.file("1"), folder.file("file"), folder.path()};
  const ChildResult r = runChild("ResolveToTheEnd", options);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, folder.file("end") + "\n" + folder.file("file") + "\n" + folder.path() + "\n");
  EXPECT_EQ(r.err, "");
}

TEST(ResolveSymbolicLink, SaysWhenALinkMayNotBeReadAndStopsThere) {
  const TemporaryFolder folder;
  const std::string locked = folder.file("locked");
  std::filesystem::create_directory(locked);
  std::filesystem::create_symlink("end", locked + "/link");
  std::filesystem::create_symlink("locked/link", folder.file("outer"));
  ASSERT_EQ(chmod(folder.path().c_str(), 0755), 0);
  ASSERT_EQ(chmod(locked.c_str(), 0), 0);
  ChildOptions options;
  options.arguments = {locked + "/link", folder.file("outer")};
  const ChildResult r = runChild("ResolveWithoutPermission", options);
  ASSERT_EQ(chmod(locked.c_str(), 0755), 0);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, locked + "/link\n" + locked + "/link\n");
  const std::string message =
      "Access denied! The user running the debugger doesn't have permission to access " + locked +
      "/link\n";
  EXPECT_EQ(r.err, message + message);
}

TEST(StripPath, GivesTheFolderWithItsSeparator) {
  EXPECT_EQ(strip("/a/b/c"), "/a/b/");
  EXPECT_EQ(strip("/a/b/"), "/a/");
  EXPECT_EQ(strip("/"), "/");
  EXPECT_EQ(strip("name"), "");
  EXPECT_EQ(strip(""), "");
  EXPECT_EQ(strip("a/b"), "a/");
  EXPECT_EQ(strip("/a"), "/");
  EXPECT_EQ(strip("/a/"), "/");
}

TEST(StripPath, PassesOverOneTrailingSeparatorOnly) {
  EXPECT_EQ(strip("a/"), "");
  EXPECT_EQ(strip("//"), "/");
  EXPECT_EQ(strip("a//"), "a/");
  EXPECT_EQ(strip("/a//"), "/a/");
}
