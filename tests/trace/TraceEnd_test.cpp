#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/types.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "Engine/utilities/TraceImplementation.h"

#include "tests/support/Child.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/trace/TraceSupport.h"

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

CUL_CHILD(DestroyTheTrace) {
  TraceImplementation* trace = traceImplementation();
  EXPECT_TRUE(isTraced(TraceType::error));
  if (!childArguments().empty()) {
    trace->pause(true);
  }
  errno = 5;
  delete trace;
  EXPECT_EQ(errno, 5);
  for (const unsigned char flag : traceFlags.bytes) {
    EXPECT_EQ(flag, 0);
  }
  CUL_TRACE(TraceType::error, "f()", 1, "dropped");
  taggedTrace("f()", 2, "X", "dropped");
  std::printf("%d%d", fcntl(STDOUT_FILENO, F_GETFD) >= 0, fcntl(STDERR_FILENO, F_GETFD) >= 0);
}

TEST(TraceEnd, IsWrittenByTheDestructorWithTheTime) {
  const TemporaryFolder folder;
  const std::string file = folder.file("trace");
  const ChildResult r = runWith("DestroyTheTrace", {{"QVX_DBG_TRACE", file}});
  EXPECT_EQ(r.out, "11");
  const Strings body = bodyOf(contentsOf(file));
  ASSERT_THAT(body, SizeIs(2));
  EXPECT_THAT(body[0], testing::MatchesRegex(
                           "void TraceImplementation::traceInternal\\(718\\): Trace end at "
                           "(Mon|Tue|Wed|Thu|Fri|Sat|Sun) [A-Z][a-z][a-z] [ 0-9][0-9] "
                           "[0-9][0-9]:[0-9][0-9]:[0-9][0-9] [0-9][0-9][0-9][0-9]"));
  EXPECT_EQ(body[1], "");
}

TEST(TraceEnd, LeavesStandardStreamsOpen) {
  EXPECT_EQ(runWith("DestroyTheTrace", {{"QVX_DBG_TRACE", "stderr"}}).out, "11");
  EXPECT_THAT(runWith("DestroyTheTrace", {{"QVX_DBG_TRACE", "stdout"}}).out, EndsWith("\n11"));
}

TEST(TraceEnd, IsNotWrittenWhilePaused) {
  const ChildResult r = runWith("DestroyTheTrace", {{"QVX_DBG_TRACE", "stderr"}}, {"paused"});
  EXPECT_THAT(bodyOf(r.err), IsEmpty());
}

CUL_CHILD(DestroyATraceThatIsOff) { delete traceImplementation(); }

TEST(TraceEnd, IsSilentWhenTracingIsOff) {
  EXPECT_EQ(runWith("DestroyATraceThatIsOff", {}).err, "");
}

CUL_CHILD(BeginAgainAfterTheEnd) {
  delete traceImplementation();
  taggedTrace("f()", 1, "X", "dropped");
  TraceImplementation::instance(L"stdout,PMD,3");
  taggedTrace("f()", 2, "X", "begun again");
}

TEST(TraceEnd, IsFollowedByANewTraceOnlyWhenThatIsAskedFor) {
  const ChildResult r = runWith("BeginAgainAfterTheEnd", {{"QVX_DBG_TRACE", "stderr"}});
  EXPECT_THAT(bodyOf(r.err), ElementsAre(HasSubstr("Trace end at "), ""));
  EXPECT_EQ(headerOf(r.out).size, "3Mb");
  EXPECT_THAT(bodyOf(r.out), ElementsAre("**X: f(2): begun again"));
}

CUL_CHILD(ForkAfterTheEnd) {
  delete traceImplementation();
  const pid_t child = fork();
  if (child == 0) {
    taggedTrace("f()", 1, "X", "dropped");
    _exit(isTraced(TraceType::active) ? 1 : 0);
  }
  EXPECT_EQ(statusOf(child), 0);
}

TEST(TraceEnd, LeavesForksAlone) {
  const ChildResult r = runWith("ForkAfterTheEnd", {{"QVX_DBG_TRACE", "stderr"}});
  EXPECT_THAT(bodyOf(r.err), ElementsAre(HasSubstr("Trace end at "), ""));
}

namespace {

// Made before main and destroyed after exit, in the child case that switches it on.
struct EarlyAndLate {
  EarlyAndLate() {
    if (const char* value = getenv("TEST_TRACES_EARLY"); value != nullptr) {
      CUL_TRACE(TraceType::error, "f()", 1, "before main");
    }
  }
  ~EarlyAndLate() {
    if (getenv("TEST_TRACES_EARLY") != nullptr) {
      CUL_TRACE(TraceType::error, "f()", 3, "after exit");
    }
  }
};

const EarlyAndLate earlyAndLate;

}  // namespace

CUL_CHILD(TraceInMain) {
  std::atexit([] { taggedTrace("f()", 2, "ERROR", "at exit"); });
  taggedTrace("f()", 1, "ERROR", "in main");
  std::exit(0);
}

TEST(TraceEnd, ComesAfterStaticDestructorsAndTheStartBeforeStaticConstructors) {
  for (const char* stream : {"stdout", "stderr"}) {
    const ChildResult r =
        runWith("TraceInMain", {{"TEST_TRACES_EARLY", "1"}, {"QVX_DBG_TRACE", stream}});
    EXPECT_THAT(bodyOf(stream[3] == 'o' ? r.out : r.err),
                ElementsAre("**ERROR: f(1): before main", "**ERROR: f(1): in main",
                            "**ERROR: f(2): at exit", "**ERROR: f(3): after exit"));
  }
}
