#pragma once

#include <sys/types.h>

/// \file
/// A child process that becomes a program, at a cost that does not grow with the memory of this
/// process.
///
/// A fork copies the page tables. The child of startProgram() is made as vfork() makes its own:
/// until it is the program, or has ended, it works in the memory of this process, on the stack of
/// the calling thread, which waits for that. So
///
/// - no signal reaches the thread meanwhile, and no handler of this process runs in the child:
///   all signals are blocked before it is made, and those it receives wait until its dispositions
///   are the program's;
/// - the child makes system calls and nothing else: no function of the C library, not even
///   `errno`, which would be the thread's;
/// - its source is compiled without sanitizers, whose notes on this process the child would
///   change;
/// - other threads run on, may start programs, and may fork; no lock is taken, and no handlers of
///   pthread_atfork() run.
///
/// A request to end (SIGUSR2) waits, too; hold requests (HoldRequests.h) where the child must not
/// be lost afterwards.

/// What is to be started, and how. The child reads all of it in place.
struct ProgramStart {
  const char* file;
  char* const* arguments;    ///< Null-terminated, with the program's name first.
  char* const* environment;  ///< Null-terminated.
  bool silencesStreams;      ///< Streams that are open lead to "/dev/null", opened for writing.
  bool closesDescriptors;    ///< Those above 2.
};

/// Makes the child. It
/// 1. gives handled signals, SIGPIPE and SIGTTIN their default action;
/// 2. silences the standard streams, 3. closes the other descriptors, where that is wanted;
/// 4. takes over the calling thread's signal mask;
/// 5. executes the program, or ends with status 1.
/// What fails in 1 to 4 is left as it is.
/// \return the child's id, also when it could not become the program; -1 with `errno` set when
///         there is no child.
[[nodiscard]] pid_t startProgram(const ProgramStart& start) noexcept;
