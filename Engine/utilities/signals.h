#pragma once

#include <csignal>

#include "Engine/utilities/Export.h"

/// \file
/// What happens when a process of the debugger fails: fatal signals, std::terminate and
/// memory exhaustion are traced with the call chain. A fatal signal then resumes the thread
/// at its recovery point (see StdThread) or ends the process with status 99; the others end
/// it with status 1.
///
/// The handlers are installed when the library is loaded and again by each StdThread. They
/// run on the thread that failed. All threads that are not a StdThread have one recovery point,
/// that of "main": a fault on any of them resumes there, on the thread that failed, which has
/// not got the frame that armed it unless it armed it itself. Arm it only where no other such
/// thread may fail.
///
/// **Several endings.** A process ends once. When failures meet, or meet a program that calls
/// exit() or returns from main, the first gives the status and runs the exit handlers. A thread
/// that fails later may still be traced, but then ends there, as seen by whoever joins it, with
/// whatever it holds; the first thread of the process sleeps instead. One that fails inside an
/// allocation, or inside this library, holds what the exit handlers may need, and lets them have
/// three more seconds. A failure of the thread that runs the exit handlers ends the process at
/// once, without the handlers that are left and what is in the buffers of streams: with the
/// status of the first failure, which an exit() by the program is not. exit() called on a thread
/// that is neither a StdThread nor the process's first is noticed only when the exit handlers of
/// this library run, among the last; until then a failure elsewhere may meet it in exit().
///
/// A signal that is sent from outside while the process ends does nothing but put its default
/// action in force, so that it ends the process when it is sent a second time. One that comes
/// inside an allocation or inside this library is handled a moment later.
///
/// **Stack overflow** is a fault like others on the process's first thread and on each StdThread:
/// these have a second stack for the handler, and for the exit handlers when it ends the process,
/// unless they had one before. On other threads it ends the process by SIGSEGV.

/// A signal that has arrived.
class CUL_EXPORT SignalOccurred {
 public:
  /// \param signal a number of <signal.h>, or any other.
  explicit SignalOccurred(int signal) noexcept : signal_(signal) {}

  /// The signal's number.
  [[nodiscard]] int whichSignal() const noexcept { return signal_; }

  /// The signal's name, "Unknown Signal" when the table has none. Signal 5 is named
  /// "SIGPIPE" and signal 13 is unknown, as tools that read traces know it. The text is static.
  [[nodiscard]] const char* signalName() const noexcept;

 private:
  int signal_;
};

/// Installs everything: CUL_SignalHandler() for SIGTRAP, SIGHUP, SIGTERM, SIGABRT, SIGFPE,
/// SIGILL and SIGSEGV, the terminate, unexpected and new handlers; ignores SIGPIPE and
/// SIGTTIN.
CUL_EXPORT void registerErrorHandlers();

/// Installs CUL_SignalHandler() for one signal, unless it has a handler function already.
///
/// The action has the flags SA_SIGINFO and SA_RESETHAND and an empty mask; for SIGTRAP, SIGABRT,
/// SIGFPE, SIGILL, SIGBUS and SIGSEGV also SA_ONSTACK. In a process with several threads these
/// six go without SA_RESETHAND, so that threads that fault at the same moment all find the
/// handler; one that was installed before is then exchanged. Every StdThread does so when it
/// starts. A program with other threads only has to call registerErrorHandlers() once they run.
/// \return the result of the last sigaction().
CUL_EXPORT int registerHandlerForSignal(int signal);

/// Traces the signal and the call chain, then resumes the current thread at its recovery
/// point, or ends the process with status 99. The signal's default action is in force
/// afterwards, except that faults of other threads are still caught while the process ends.
/// Returns for SIGPIPE, and for a signal from outside that comes while the process ends or has
/// to wait a moment.
extern "C" CUL_EXPORT void CUL_SignalHandler(int signal, siginfo_t* info, void* context);

/// Writes the chain of calls that led here, at most 50.
/// \param toStandardError to standard error; otherwise to the trace, when that takes
///   errors.
CUL_EXPORT void dumpModulesAndChain(bool toStandardError);

/// The handler of std::terminate: traces and ends the process with status 1, see above.
[[noreturn]] CUL_EXPORT void CUL_terminate();

/// The handler of unexpected exceptions: traces and ends the process with status 1.
[[noreturn]] CUL_EXPORT void CUL_unexpected();

/// The handler of memory exhaustion: frees the reserve set aside when the library was
/// loaded, reports to the trace and to standard output, and ends the process with status 1.
[[noreturn]] CUL_EXPORT void newHandler();
