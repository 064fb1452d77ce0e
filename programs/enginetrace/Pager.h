#pragma once

#include <sys/types.h>

#include "programs/enginetrace/Output.h"

/// \file
/// A program that shows the output page by page.

class Pager {
 public:
  /// Starts the program that the environment variable PAGER names, else "less -R". Standard output
  /// is its input from now on. Keys that interrupt are the pager's alone.
  /// \throws OutputFailed when it cannot be started.
  Pager();
  Pager(const Pager&) = delete;
  Pager& operator=(const Pager&) = delete;
  /// Closes standard output and waits until the user has seen enough.
  ~Pager();

 private:
  pid_t process_ = -1;
};
