#pragma once

/// \file
/// A standard error that cannot be written any more, while the signals that say so end the
/// process. For child cases.

#include <csignal>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

/// Standard error becomes a pipe that nobody reads.
inline void loseReaderOfStandardError() {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  close(ends[0]);
  ASSERT_EQ(dup2(ends[1], STDERR_FILENO), STDERR_FILENO);
  close(ends[1]);
  signal(SIGPIPE, SIG_DFL);
}

/// Standard error is, while this lives, a file that has reached the limit of its size. The
/// other files of the process cannot grow meanwhile either.
class FullStandardError {
 public:
  FullStandardError() : former_(dup(STDERR_FILENO)) {
    getrlimit(RLIMIT_FSIZE, &limit_);
    const rlimit none = {0, limit_.rlim_max};
    const int file = memfd_create("full", MFD_CLOEXEC);
    EXPECT_EQ(dup2(file, STDERR_FILENO), STDERR_FILENO);
    close(file);
    signal(SIGXFSZ, SIG_DFL);
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &none), 0);
  }
  FullStandardError(const FullStandardError&) = delete;
  FullStandardError& operator=(const FullStandardError&) = delete;
  ~FullStandardError() {
    setrlimit(RLIMIT_FSIZE, &limit_);
    dup2(former_, STDERR_FILENO);
    close(former_);
  }

 private:
  int former_;
  rlimit limit_ = {};
};
