#pragma once

#include <stdlib.h>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/Child.h"

/// \file
/// Processes and threads that end in a signal handler of the library. One that handles abort()
/// makes it an exit and looks at the trace before; the one by which a thread is asked to end
/// unwinds its stack. The thread sanitizer takes both for a danger, although the first signal
/// comes from the thread itself and the second is heeded only where it does no harm.

/// What a process that aborts ends with.
constexpr int aborted = 99;

/// These options, for a process that ends, or one of whose threads does, in such a handler.
inline ChildOptions endingInHandlerWith(ChildOptions options) {
  const char* const present = getenv("TSAN_OPTIONS");
  options.environment["TSAN_OPTIONS"] =
      (present == nullptr ? "" : std::string(present) + ":") + "report_signal_unsafe=0";
  return options;
}

/// These options, for a process that aborts.
inline ChildOptions abortingWith(const ChildOptions& options = {}) {
  return endingInHandlerWith(options);
}

/// Expects that a process has aborted after saying just this on standard error.
inline void expectAbort(const ChildResult& r, const std::string& message) {
  EXPECT_EQ(r.status, aborted);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, message);
}
