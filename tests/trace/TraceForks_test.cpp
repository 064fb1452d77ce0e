#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <string>
#include <sys/types.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "Engine/utilities/TraceImplementation.h"

#include "tests/support/Child.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/trace/TraceSupport.h"

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::SizeIs;

// Writes a line, forks, lets the child write one before and one after processForked(), and
// writes another.
CUL_CHILD(ForkAndTrace) {
  TraceImplementation* trace = traceImplementation();
  taggedTrace("f()", 1, "X", "parent before");
  const pid_t child = fork();
  if (child == 0) {
    trace->processForked();
    const bool isOn = isTraced(TraceType::active);
    EXPECT_EQ(isOn, trace->isActive());
    EXPECT_EQ(isOn, trace->flags[TraceType::active]);
    if (!isOn) {
      EXPECT_TRUE(trace->pause(true));
      EXPECT_TRUE(trace->pause(false));
      EXPECT_FALSE(trace->isActive());
      trace->processForked();
      EXPECT_EQ(trace->wrap(), 0);
    }
    taggedTrace("f()", 2, "X", "child %d", static_cast<int>(getpid()));
    _exit(isOn ? 1 : 0);
  }
  const int status = statusOf(child);
  taggedTrace("f()", 3, "X", "parent %d: child %d has %s", static_cast<int>(getpid()),
              static_cast<int>(child), status == 1 ? "traced" : "not traced");
  EXPECT_LE(status, 1);
}

namespace {

// The numbers in the last line of ForkAndTrace.
struct Family {
  std::string parent;
  std::string child;
};

Family familyOf(const std::string& line) {
  int parent = 0;
  int child = 0;
  EXPECT_EQ(std::sscanf(line.c_str(), "**X: f(3): parent %d: child %d has ", &parent, &child), 2)
      << line;
  return {std::to_string(parent), std::to_string(child)};
}

}  // namespace

TEST(TraceAfterFork, ToAPlainFileStopsInTheChild) {
  const TemporaryFolder folder;
  const std::string file = folder.file("trace");
  runWith("ForkAndTrace", {{"QVX_DBG_TRACE", file + ",ALL,CHILD"}});
  EXPECT_THAT(bodyOf(contentsOf(file)),
              ElementsAre("**X: f(1): parent before", EndsWith("not traced")));
  EXPECT_THAT(filesIn(folder.path()), SizeIs(1));
}

TEST(TraceAfterFork, ToADirectoryGoesOnInANewFileWithChild) {
  const TemporaryFolder folder;
  runWith("ForkAndTrace", {{"GDIA_ID", "root"}, {"QVX_DBG_TRACE", folder.path() + ",CHILD,4"}});
  const Strings files = filesIn(folder.path());
  ASSERT_THAT(files, SizeIs(2));
  std::string parentsFile = contentsOf(folder.file(files[0]));
  std::string childsFile = contentsOf(folder.file(files[1]));
  if (!bodyOf(parentsFile).back().ends_with(" has traced")) {
    std::swap(parentsFile, childsFile);
  }
  const Strings parentsLines = bodyOf(parentsFile);
  ASSERT_THAT(parentsLines, ElementsAre("**X: f(1): parent before", EndsWith(" has traced")));
  const Family family = familyOf(parentsLines[1]);
  EXPECT_THAT(files, testing::UnorderedElementsAre("root." + family.parent + ".trc",
                                                   "root." + family.child + ".trc"));
  EXPECT_EQ(headerOf(childsFile).included, (Strings{"CHILD", "ERROR", "WARNING"}));
  EXPECT_EQ(headerOf(childsFile).size, "4Mb");
  EXPECT_THAT(bodyOf(childsFile), ElementsAre("**X: f(2): child " + family.child));
}

TEST(TraceAfterFork, ToADirectoryStopsInTheChildWithoutChild) {
  const TemporaryFolder folder;
  runWith("ForkAndTrace", {{"GDIA_ID", "root"}, {"QVX_DBG_TRACE", folder.path() + ",ALL"}});
  const Strings files = filesIn(folder.path());
  ASSERT_THAT(files, SizeIs(1));
  EXPECT_THAT(bodyOf(contentsOf(folder.file(files[0]))),
              ElementsAre("**X: f(1): parent before", EndsWith("not traced")));
}

TEST(TraceAfterFork, ToAStandardStreamStopsInTheChildWithoutChild) {
  const ChildResult r = runWith("ForkAndTrace", {{"QVX_DBG_TRACE", "stderr,ALL"}});
  EXPECT_THAT(bodyOf(r.err), ElementsAre("**X: f(1): parent before", EndsWith("not traced")));
}

TEST(TraceAfterFork, ToAStandardStreamGoesOnInTheChildWithChild) {
  for (const char* stream : {"stdout", "stderr"}) {
    const ChildResult r =
        runWith("ForkAndTrace", {{"QVX_DBG_TRACE", std::string(stream) + ",ALL,CHILD"}});
    const std::string& output = stream[3] == 'o' ? r.out : r.err;
    const Strings body = bodyOf(output);
    ASSERT_FALSE(body.empty()) << stream;
    const Family family = familyOf(body.back());
    EXPECT_THAT(body, AllOf(Contains("**X: f(1): parent before"),
                            Contains("**X: f(2): child " + family.child), Contains(separator)));
  }
}

CUL_CHILD(ForkAndLookAtDescriptors) {
  TraceImplementation* trace = traceImplementation();
  const int next = dup(STDERR_FILENO);
  close(next);
  const pid_t child = fork();
  if (child == 0) {
    trace->processForked();
    const bool isClosed = fcntl(STDERR_FILENO, F_GETFD) < 0 && errno == EBADF;
    const int copy = fcntl(next, F_GETFD);
    const bool goesOn = copy >= 0 && (copy & FD_CLOEXEC) != 0;
    _exit((isClosed ? 1 : 0) + (goesOn ? 2 : 0));
  }
  std::printf("%d", statusOf(child));
}

TEST(TraceAfterFork, ClosesTheStandardStreamAndGoesOnOnACopyOfItsDescriptor) {
  EXPECT_EQ(runWith("ForkAndLookAtDescriptors", {{"QVX_DBG_TRACE", ",ALL"}}).out, "1");
  EXPECT_EQ(runWith("ForkAndLookAtDescriptors", {{"QVX_DBG_TRACE", ",ALL,CHILD"}}).out, "3");
}

CUL_CHILD(ForkAndOpenAgain) {
  TraceImplementation* trace = traceImplementation();
  const pid_t child = fork();
  if (child == 0) {
    trace->processForked();
    trace->openFiles();
    taggedTrace("f()", 1, "X", "dropped");
    _exit(trace->isActive() ? 1 : 0);
  }
  EXPECT_EQ(statusOf(child), 0);
}

TEST(TraceAfterFork, DoesNotOpenAStandardStreamThatWasClosedForGood) {
  for (const char* stream : {"stdout", "stderr"}) {
    runWith("ForkAndOpenAgain", {{"QVX_DBG_TRACE", std::string(stream) + ",ALL"}});
  }
}

CUL_CHILD(ForkAGrandchild) {
  TraceImplementation* trace = traceImplementation();
  const pid_t child = fork();
  if (child == 0) {
    trace->processForked();
    const pid_t grandchild = fork();
    if (grandchild == 0) {
      trace->processForked();
      taggedTrace("f()", 1, "X", "grandchild");
      _exit(0);
    }
    const int status = statusOf(grandchild);
    taggedTrace("f()", 2, "X", "child");
    _exit(status);
  }
  EXPECT_EQ(statusOf(child), 0);
  taggedTrace("f()", 3, "X", "parent");
}

TEST(TraceAfterFork, GoesOnForGrandchildren) {
  const ChildResult r = runWith("ForkAGrandchild", {{"QVX_DBG_TRACE", "stderr,ALL,CHILD"}});
  EXPECT_THAT(bodyOf(r.err), AllOf(Contains("**X: f(1): grandchild"), Contains("**X: f(2): child"),
                                   Contains("**X: f(3): parent")));
}

CUL_CHILD(ForkAndFillTheRingOfTheChild) {
  TraceImplementation* trace = traceImplementation();
  const std::string text(1000, 'p');
  for (int i = 0; i < 1500; ++i) {
    trace->taggedTrace("f()", 1, "X", "%s", text.c_str());
  }
  const pid_t child = fork();
  if (child == 0) {
    trace->processForked();
    for (int i = 0; i < 5000; ++i) {
      trace->taggedTrace("f()", 1, "X", "%s", text.c_str());
    }
    _exit(0);
  }
  EXPECT_EQ(statusOf(child), 0);
  std::printf("%d", static_cast<int>(child));
}

TEST(TraceAfterFork, CountsTheChildsFileFromItsStart) {
  const TemporaryFolder folder;
  const ChildResult r =
      runWith("ForkAndFillTheRingOfTheChild", {{"QVX_DBG_TRACE", folder.path() + ",PMD,CHILD,2"}});
  const std::string output = contentsOf(folder.file(r.out + ".trc"));
  EXPECT_EQ(headerOf(output).included, (Strings{"CHILD", "PMD", "ERROR", "WARNING"}));
  EXPECT_LE(output.size(), 2 * megabyte + 4000);
  EXPECT_THAT(bodyOf(output), Contains("**X: f(1): " + std::string(1000, 'p')));
  EXPECT_EQ(output.find('\0'), std::string::npos);
}
