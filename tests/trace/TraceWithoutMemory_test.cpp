#include <cerrno>
#include <cstdlib>
#include <string>
#include <sys/resource.h>

#include <gmock/gmock.h>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/TraceImplementation.h"

#include "tests/support/Child.h"
#include "tests/support/StandIn.h"
#include "tests/trace/TraceSupport.h"

using testing::StartsWith;

CUL_STAND_IN(char*, strndup, (const char* text, size_t longest), noexcept, text, longest)

CUL_CHILD(ConfigureWithoutMemory) {
  {
    const Instead noMemory(strndupStandIn, [](auto...) -> char* { return nullptr; });
    errno = 77;
    EXPECT_FALSE(isTraced(TraceType::error));
    EXPECT_EQ(errno, 77);
  }
  TraceImplementation* trace = traceImplementation();
  EXPECT_FALSE(trace->isTraceBitSet(nullptr));
  trace->openFiles();
  EXPECT_FALSE(trace->isActive());
  taggedTrace("f()", 1, "ERROR", "dropped");
}

TEST(TraceWithoutMemory, IsOffWhenItCannotBeConfigured) {
  EXPECT_EQ(runWith("ConfigureWithoutMemory", {{"QVX_DBG_TRACE", "stderr"}}).err, "");
}

// The sanitizers' allocators do not live with a limit.

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

CUL_CHILD(TraceWithoutMemory) {
  TraceImplementation::add(*new List<ByteString*>, ByteString("first use of the pools"));
  void* const reserve = malloc(100000);
  struct rlimit limit = {};
  ASSERT_EQ(getrlimit(RLIMIT_AS, &limit), 0);
  limit.rlim_cur = 0;
  ASSERT_EQ(setrlimit(RLIMIT_AS, &limit), 0);
  // Small blocks are left, one of the size of the line buffer is not.
  while (malloc(1000) != nullptr) {
  }
  free(reserve);
  const std::string text(10000, 'q');
  taggedTrace("f()", 1, "X", "%.3000s", text.c_str());
  taggedTrace("f()", 2, "X", "short");
}

TEST(TraceWithoutMemory, WritesShorterLines) {
  const ChildResult r = runWith("TraceWithoutMemory", {{"QVX_DBG_TRACE", "stderr"}});
  const Strings lines = linesOf(r.err);
  const Strings body = bodyOf(r.err);
  ASSERT_EQ(body.size(), 2U) << r.err;
  EXPECT_EQ(body[1], "**X: f(2): short");
  EXPECT_THAT(body[0], StartsWith("**X: f(1): qqq"));
  EXPECT_EQ(lines[lines.size() - 2].size(), 2048U - 1);
}

#endif
