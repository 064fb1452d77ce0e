#include <string>

#include <gmock/gmock.h>

#include "tests/soak/Work.h"
#include "tests/support/Child.h"
#include "tests/support/Sanitized.h"

using testing::ContainsRegex;
using testing::HasSubstr;

namespace {

// The sanitizers' allocators do not look after their locks when a busy process forks.
constexpr const char* shortForm =
    isSanitized ? "--seconds 10 trace processes threads strings"
                : "--seconds 25 trace processes threads forks consoles strings";

ChildResult soak(const std::string& arguments, const std::string& before = {}) {
  return runProgram({"/bin/sh", "-c", before + "exec '" CUL_SOAK "' " + arguments},
                    {.limitInSeconds = 280});
}

TEST(Soak, ForAWhileFindsNothingWrongAndNothingLeft) {
  const ChildResult r = soak(shortForm);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_THAT(r.out, HasSubstr(" seconds: all well, nothing left behind\n"));
  EXPECT_THAT(r.out, ContainsRegex("\ntrace +[1-9][0-9]* +[0-9.]+ +0\n"));
  EXPECT_THAT(r.out, ContainsRegex("\ndescriptors +[0-9]+ +[0-9]+ +4 +0\n"));
}

// The thread sanitizer keeps its own notes in files that such a limit cuts.
#if !defined(__SANITIZE_THREAD__)

TEST(Soak, FailsWhenLinesAreMissing) {
  // Beyond the limit on file sizes the trace loses lines.
  const ChildResult r = soak("--seconds 1 trace", "ulimit -f 200; ");
  EXPECT_EQ(r.status, 1) << r.out << r.err;
  EXPECT_THAT(r.out, ContainsRegex("\ntrace +[1-9][0-9]* .* [1-9][0-9]* missing, first: "));
  EXPECT_THAT(r.out, HasSubstr(" seconds: not all well\n"));
}

#endif

TEST(Soak, RefusesWhatItDoesNotKnow) {
  for (const char* arguments : {"", "--seconds", "--seconds 0", "--seconds 1 --counts",
                                "--seconds 1 nothing", "--nothing"}) {
    const ChildResult r = soak(arguments);
    EXPECT_EQ(r.status, 2) << arguments;
    EXPECT_EQ(r.out, "");
    EXPECT_THAT(r.err, HasSubstr("usage: soak "));
  }
}

TEST(SoakedWork, TellsWhatWentWrongByItsKind) {
  Work work("part", 10);
  EXPECT_EQ(work.whatWentWrong(), "");
  work.wrong("hung");
  work.wrong("crashed", "signal 11");
  work.wrong("crashed", "signal 6", 2);
  EXPECT_EQ(work.whatWentWrong(), "3 crashed, first: signal 11; 1 hung");
}

TEST(SoakedWork, GoesOnUntilItIsOver) {
  Work work("part", 10);
  work.allow(2);
  EXPECT_TRUE(work.goesOn());
  work.done();
  EXPECT_TRUE(work.goesOn());
  work.end();
  EXPECT_FALSE(work.goesOn());
  EXPECT_EQ(work.count(), 1U);
  EXPECT_EQ(work.progress(), 0.1);
}

}  // namespace
