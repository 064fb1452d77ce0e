#pragma once

#include "Engine/utilities/Export.h"
#include "Engine/utilities/Runnable.h"

/// \file
/// The work of waiting for a child process: what the worker thread of a SpawnedProcess does,
/// and of use to anybody who has made a child of his own.
///
/// A child is waited for once, by one waiter. While it waits, its thread cannot be asked to
/// end (see StdThread::BlockTermination): the child would stay behind as a zombie.

// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): final, nobody derives from it.
class CUL_EXPORT ProcessWaiter final : public Runnable {
 public:
  /// \param process id of a child of this process.
  explicit ProcessWaiter(int process) noexcept : process_(process) {}

  /// Waits until the child has ended, and reaps it. Interruptions by signals do not count.
  /// \return the raw wait status, for the macros of <sys/wait.h>; -1, with the error in the
  ///   trace, when the child is not there to be waited for: somebody else has reaped it, or
  ///   the process ignores SIGCHLD. None of the macros takes -1 for an end.
  int work() override;

 private:
  int process_;
};
