#pragma once

#include <sys/types.h>
#include <thread>

#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/UNIX/UNIX_Event_Semaphore.h"

class StdioPipes;

/// \file
/// The program that the host runs.

/// Where a program gets its standard streams from.
struct DebuggeeStreams {
  /// The console on which those of the host's streams that are terminals are replaced; null:
  /// the program has the host's streams and is in the host's process group.
  StdioPipes* console = nullptr;
  /// Whether the console echoes what is typed.
  bool consoleEchoes = false;
};

/// A running program, reaped by a thread of its own, which posts HostEvents::debuggeeEnded.
class Debuggee {
 public:
  /// Starts the program in the file `path`, or nothing at all: what the host itself needs in
  /// order to wait for it is there before.
  /// \param arguments null-terminated, with the program's name first.
  /// \throws StdException with the reason as its text and an `errno` value as its status.
  Debuggee(const EncodedString& path, char* const* arguments, const DebuggeeStreams& streams);
  Debuggee(const Debuggee&) = delete;
  Debuggee& operator=(const Debuggee&) = delete;
  /// Waits for the end of the program.
  ~Debuggee();

  [[nodiscard]] pid_t id() const noexcept { return id_; }

  /// Waits for the end of the program.
  /// \return its exit status, or 128 + the signal that killed it.
  int wait();

  /// The signal that killed the program; 0 when it ended by itself. After wait().
  [[nodiscard]] int killer() const noexcept;

 private:
  void startReaper();
  void reap();

  pid_t id_ = 0;
  int rawStatus_ = 0;
  bool isProgram_ = false;          // rather than a child that could not become one
  UNIX_Event_Semaphore isSettled_;  // whether it is
  std::thread reaper_;
};
