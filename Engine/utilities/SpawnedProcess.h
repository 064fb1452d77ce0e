#pragma once

#include <memory>

#include "Engine/utilities/Export.h"
#include "Engine/utilities/List.h"
#include "Engine/utilities/Reference.h"

/// \file
/// A program started as a child process, and reaped by a worker thread of its own.
///
/// What the program finds:
/// - its standard streams: those of this process, or "/dev/null" opened for writing, standard
///   input included. A stream that is closed here is closed there;
/// - no other descriptor, or all that are not closed on exec;
/// - the environment, the working directory and the signal mask of the thread that starts it;
/// - the dispositions of signals that a shell would give it: SIGPIPE and SIGTTIN, which the
///   library ignores in this process, have their default action.
///
/// A start costs the same however much memory this process has: the child shares that, and does
/// nothing but system calls, until it is the program, and the thread that starts it waits so long.
/// A child that is stopped before that (SIGSTOP, or SIGTSTP where this process handles it), or a
/// program on a file system that does not answer, holds the thread up until the child goes on or is
/// killed, as with posix_spawn().
/// Signals that the thread receives meanwhile are handled afterwards, and none of its handlers runs
/// in the child, nor do those of pthread_atfork() run anywhere. The environment is that of the
/// moment of the start, at which no other thread may change it (setenv()); who puts texts of his
/// own into it (putenv()) must leave them until the start is over.
///
/// The child belongs to the worker thread, which waits for it (see ProcessWaiter): nobody else
/// may, and a process that starts children must not ignore SIGCHLD. The thread ends with the
/// child, and no zombie stays behind. Neither the objects nor the worker thread keep a process
/// alive, and dropping the last object neither waits for the child nor ends it.
///
/// Copies stand for the same child. Any thread may use an object, and several may at once.

class EncodedString;
class ThreadListener;

class CUL_EXPORT SpawnedProcess {
 public:
  /// Starts a program. Takes one pass of the timer thread, 10 to 50 ms, while the child is
  /// already running.
  /// \param program   a name to look for along `path`, or a path that begins with "/".
  /// \param path      folders separated by ":", as for searchPath().
  /// \param arguments what follows the resolved path in the program's argument vector, as the
  ///   texts are stored: not converted, and cut at a zero byte. Needed during the call only.
  /// \param sharesParentConsoleIO   nonzero: the program uses this process's standard streams.
  /// \param inheritsFileDescriptors nonzero: descriptors above 2 stay open in the program.
  /// \throws StdException "File not found.", status -1: no such program, no child was made.
  /// \throws StdException "Fork failed.", status -1, with the error in the trace.
  /// \throws StdException status -1 when there can be no worker thread (or, at the first start
  ///   of the process, no timer thread), CUL_SemaphoreError when there can be no event. The
  ///   child, which may have begun its work, is killed and reaped before.
  ///
  /// A program that cannot be executed is not an error here: its child ends with exit code 1.
  SpawnedProcess(const EncodedString& program, const EncodedString& path,
                 const List<EncodedString*>& arguments, int sharesParentConsoleIO,
                 int inheritsFileDescriptors);

  /// Another object for the same child.
  SpawnedProcess(const SpawnedProcess& other);
  SpawnedProcess& operator=(const SpawnedProcess&) = delete;

  /// Leaves the child alone.
  ~SpawnedProcess();

  /// Whether the program uses this process's standard streams.
  [[nodiscard]] bool sharesParentConsoleIO() const noexcept { return sharesParentConsoleIO_ != 0; }
  /// Whether descriptors above 2 stay open in the program.
  [[nodiscard]] bool inheritsFileDescriptors() const noexcept {
    return inheritsFileDescriptors_ != 0;
  }

  /// The listener of the worker thread; outlives this object when it is kept.
  [[nodiscard]] Reference<ThreadListener> getWaiter() const;

  /// The raw status of waitpid(), for the macros of <sys/wait.h>; see ProcessWaiter::work().
  /// Means something once done() is true.
  [[nodiscard]] int returnCode() const;

  /// Whether the child has ended and is reaped. True at once; false after one pass of the timer
  /// thread, 10 to 50 ms.
  [[nodiscard]] bool done() const;

  /// Waits for the child's end.
  /// \param seconds the low 16 bits count: 65536 is 0, which takes 10 to 50 ms, and -1 is 65535.
  /// \return true when the time ran out first, false when the child has ended.
  [[nodiscard]] bool wait(int seconds) const;

 private:
  std::unique_ptr<Reference<ThreadListener>> waiter_;  // null until the child is started
  int sharesParentConsoleIO_;
  int inheritsFileDescriptors_;
};
