#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "Engine/utilities/TraceImplementation.h"

#include "tests/support/Child.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/trace/TraceSupport.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

TEST(TraceOutput, NeedsARoleWhenPmdIsOff) {
  for (const char* id : {"root", "Middle.2", "LEAF"}) {
    expectOn({{"GDIA_ID", id}, {"QVX_DBG_TRACE", ",AGENT"}});
  }
  expectOff({{"QVX_DBG_TRACE", ",AGENT"}});
  expectOff({{"QVX_DBG_TRACE", ",~PMD"}});
  expectOff({{"GDIA_ID", "other"}, {"QVX_DBG_TRACE", ",AGENT"}});
  expectOff({{"GDIA_ID", "roo"}, {"QVX_DBG_TRACE", ",AGENT"}});
}

TEST(TraceOutput, IsOpenedInAnyProcessWhenPmdIsOn) {
  expectOn({{"QVX_DBG_TRACE", "stderr"}});
  expectOn({{"QVX_DBG_TRACE", ",PMD"}});
  expectOn({{"QVX_DBG_TRACE", ",ALL"}, {"GDIA_ID", "other"}});
}

TEST(TraceOutput, CanBeStandardOutput) {
  const ChildResult r = runWith("TraceOneLine", {{"QVX_DBG_TRACE", " stdout "}});
  EXPECT_THAT(bodyOf(r.out), ElementsAre("**ERROR: void f(12): a line"));
  EXPECT_EQ(r.err, "");
}

TEST(TraceOutput, IsStandardErrorWhenTheConfigurationStartsWithAComma) {
  const ChildResult r = runWith("TraceOneLine", {{"QVX_DBG_TRACE", ",PMD"}});
  EXPECT_THAT(bodyOf(r.err), ElementsAre("**ERROR: void f(12): a line"));
  EXPECT_EQ(r.out, "");
}

TEST(TraceOutput, OtherwiseIsAFileThatIsTruncated) {
  const TemporaryFolder folder;
  const std::string file = folder.file("the trace");
  writeFile(file, std::string(100000, 'q'));
  const ChildResult r = runWith("TraceOneLine", {{"QVX_DBG_TRACE", " " + file + " , PMD"}});
  EXPECT_THAT(contentsOf(file), StartsWith(linesOf(contentsOf(file)).front()));
  EXPECT_EQ(headerOf(contentsOf(file)).included, (Strings{"PMD", "ERROR", "WARNING"}));
  EXPECT_THAT(bodyOf(contentsOf(file)), ElementsAre("**ERROR: void f(12): a line"));
  EXPECT_THAT(contentsOf(file), testing::Not(HasSubstr("qq")));
  EXPECT_EQ(r.out + r.err, "");
}

TEST(TraceOutput, NamedStdoutInAnotherCaseIsAFile) {
  const TemporaryFolder folder;
  ChildOptions options = childWith({{"QVX_DBG_TRACE", "STDOUT"}});
  options.directory = folder.path();
  const ChildResult r = runChild("TraceOneLine", options);
  EXPECT_EQ(r.out + r.err, "");
  EXPECT_THAT(bodyOf(contentsOf(folder.file("STDOUT"))), SizeIs(1));
}

TEST(TraceOutput, InADirectoryIsNamedByTheProcessId) {
  for (const char* end : {"", "/"}) {
    const TemporaryFolder folder;
    const ChildResult r =
        runWith("PrintProcessIdAndTrace", {{"QVX_DBG_TRACE", folder.path() + end + ",!GMH,64"}});
    EXPECT_THAT(filesIn(folder.path()), ElementsAre(r.out + ".trc"));
    const std::string output = contentsOf(folder.file(r.out + ".trc"));
    EXPECT_THAT(bodyOf(output), ElementsAre("**ERROR: void f(12): line of ERROR"));
    EXPECT_EQ(headerOf(output).size, "64Mb");
  }
}

CUL_CHILD(PrintProcessIdAndTrace) {
  std::printf("%d", static_cast<int>(getpid()));
  traceEach({"GMH", "ERROR"});
}

TEST(TraceOutput, InADirectoryIsNamedByGdiaIdAndTheProcessIdWhenThatIsSet) {
  const TemporaryFolder folder;
  const ChildResult r =
      runWith("PrintProcessIdAndTrace",
              {{"GDIA_ID", "Root.7"}, {"QVX_DBG_TRACE", folder.path() + ",ERROR"}});
  EXPECT_THAT(filesIn(folder.path()), ElementsAre("Root.7." + r.out + ".trc"));
}

TEST(TraceOutput, InADirectoryWhoseNameEndsInABackslashGetsNoSlash) {
  const TemporaryFolder folder;
  const std::string name = folder.file("odd\\");
  ASSERT_EQ(mkdir(name.c_str(), 0700), 0);
  const ChildResult r = runWith("PrintProcessIdAndTrace", {{"QVX_DBG_TRACE", name}});
  EXPECT_THAT(filesIn(folder.path()), ElementsAre("odd\\", "odd\\" + r.out + ".trc"));
}

TEST(TraceOutput, ThatCannotBeOpenedLeavesTracingOff) {
  const TemporaryFolder folder;
  expectOff({{"QVX_DBG_TRACE", folder.file("no such folder") + "/file"}});
  expectOff({{"QVX_DBG_TRACE", folder.file(std::string(300, 'q'))}});
  expectOff({{"QVX_DBG_TRACE", "/" + std::string(5000, 'q')}});
  expectOff({{"GDIA_ID", "no/such"}, {"QVX_DBG_TRACE", folder.path()}});
  expectOff({{"GDIA_ID", std::string(5000, 'q')}, {"QVX_DBG_TRACE", folder.path()}});
  EXPECT_THAT(filesIn(folder.path()), IsEmpty());
}

TEST(TraceOutput, WhoseWholeNameIsTooLongForAPathIsNotOpenedByAPartOfIt) {
  const TemporaryFolder folder;
  // The folder itself can be named in 4092 bytes; the name of the file in it would be cut.
  std::string name = folder.path();
  if (name.size() % 2 != 0) {
    name += '/';
  }
  while (name.size() < 4092) {
    name += "/.";
  }
  ASSERT_TRUE(std::filesystem::is_directory(name));
  expectOff({{"QVX_DBG_TRACE", name}});
  EXPECT_THAT(filesIn(folder.path()), IsEmpty());
}

CUL_CHILD(CountOwnDescriptors) {
  taggedTrace("f", 1, "ERROR", "open");
  unsigned traceFiles = 0;
  for (int fd = 3; fd < 64; ++fd) {
    const int flags = fcntl(fd, F_GETFD);
    char name[4096] = {};
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    if (flags >= 0 && readlink(link.c_str(), name, sizeof name - 1) > 0 &&
        childArguments()[0] == name) {
      ++traceFiles;
      EXPECT_NE(flags & FD_CLOEXEC, 0);
    }
  }
  EXPECT_EQ(traceFiles, 1U);
}

TEST(TraceOutput, IsNotInheritedByOtherPrograms) {
  const TemporaryFolder folder;
  const std::string file = std::filesystem::canonical(folder.path()).string() + "/trace";
  runWith("CountOwnDescriptors", {{"QVX_DBG_TRACE", file}}, {file});
}

CUL_CHILD(OpenTwice) {
  taggedTrace("f", 1, "ERROR", "open");
  traceImplementation()->openFiles();
  traceImplementation()->pause(true);
  traceImplementation()->openFiles();
}

TEST(TraceOutput, IsOpenedOnlyOnce) {
  const ChildResult r = runWith("OpenTwice", {{"QVX_DBG_TRACE", "stderr"}});
  EXPECT_THAT(bodyOf(r.err), ElementsAre("**ERROR: f(1): open"));
}
