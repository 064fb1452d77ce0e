#pragma once

#include <stdlib.h>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/Child.h"

/// \file
/// Processes that end by abort(). The library's handler for the signal makes that an exit; it
/// looks at the trace before, which the thread sanitizer takes for a danger although the
/// signal comes from the thread itself.

/// What such a process ends with.
constexpr int aborted = 99;

/// These options, for a process that aborts.
inline ChildOptions abortingWith(ChildOptions options = {}) {
  const char* const present = getenv("TSAN_OPTIONS");
  options.environment["TSAN_OPTIONS"] =
      (present == nullptr ? "" : std::string(present) + ":") + "report_signal_unsafe=0";
  return options;
}

/// Expects that a process has aborted after saying just this on standard error.
inline void expectAbort(const ChildResult& r, const std::string& message) {
  EXPECT_EQ(r.status, aborted);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, message);
}
