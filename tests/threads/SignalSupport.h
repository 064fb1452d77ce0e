#pragma once

#include <cstdlib>
#include <string>

#include "tests/support/Child.h"

/// \file
/// What the tests of fatal signals share.

/// The sanitizers install handlers of their own for fatal signals when they are loaded, which
/// the library then respects. A child that tests the library's handlers tells them not to.
inline ChildOptions withoutSanitizerHandlers() {
  ChildOptions options;
  for (const char* variable : {"ASAN_OPTIONS", "TSAN_OPTIONS"}) {
    const char* present = getenv(variable);
    options.environment[variable] =
        std::string(present == nullptr ? "" : present) +
        ":handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:handle_abort=0:"
        // What a process that ends in a signal handler leaves behind is no leak.
        "detect_leaks=0:report_thread_leaks=0:report_signal_unsafe=0:"
        // It need not wait for reports of other threads.
        "atexit_sleep_ms=0";
  }
  return options;
}
