#pragma once

#include <sys/types.h>

#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/StdPipe.h"
#include "Engine/utilities/StdThread.h"

/// \file
/// The program that the host runs.

/// A running program. Its standard output and error are the write end of a pipe, its
/// standard input is the host's. A thread reaps it.
class Debuggee {
 public:
  /// Starts the program in the file `path` and closes the pipe's write end on this side.
  /// \param arguments null-terminated, with the program's name first.
  /// \throws StdException with the reason as its text and an `errno` value as its status.
  Debuggee(const EncodedString& path, char* const* arguments, StdPipe& output);
  Debuggee(const Debuggee&) = delete;
  Debuggee& operator=(const Debuggee&) = delete;
  /// Waits for the end of the program.
  ~Debuggee();

  [[nodiscard]] pid_t id() const noexcept { return id_; }

  /// Waits for the end of the program.
  /// \return its exit status, or 128 + the signal that killed it.
  int wait();

 private:
  void startReaper();

  pid_t id_ = 0;
  int rawStatus_ = 0;
  bool isReaped_ = false;
  StdThread::Termination reaper_;
};
