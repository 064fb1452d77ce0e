#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/resource.h>

#include <gmock/gmock.h>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/TraceImplementation.h"

#include "tests/support/Child.h"
#include "tests/trace/TraceSupport.h"

using testing::StartsWith;

namespace {

// Whether there is no memory for copies of texts.
constinit bool copiesFail = false;

}  // namespace

extern "C" char* strndup(const char* text, size_t longest) noexcept {
  const size_t length = strnlen(text, longest);
  auto* const copy = copiesFail ? nullptr : static_cast<char*>(malloc(length + 1));
  if (copy != nullptr) {
    std::memcpy(copy, text, length);
    copy[length] = 0;
  }
  return copy;
}

CUL_CHILD(ConfigureWithoutMemory) {
  copiesFail = true;
  errno = 77;
  EXPECT_FALSE(isTraced(TraceType::error));
  EXPECT_EQ(errno, 77);
  copiesFail = false;
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
