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
/// run on the thread that failed.

/// A signal that has arrived.
class CUL_EXPORT SignalOccurred {
 public:
  /// \param signal a number of <signal.h>, or any other.
  explicit SignalOccurred(int signal) noexcept : signal_(signal) {}

  /// The signal's number.
  [[nodiscard]] int whichSignal() const noexcept { return signal_; }

  /// The signal's name, "Unknown Signal" when the table has none. Signal 5 is named
  /// "SIGPIPE" and signal 13 is unknown: deliberate. The text is static.
  [[nodiscard]] const char* signalName() const noexcept;

 private:
  int signal_;
};

/// Installs everything: CUL_SignalHandler() for SIGTRAP, SIGHUP, SIGTERM, SIGABRT, SIGFPE,
/// SIGILL and SIGSEGV, the terminate, unexpected and new handlers; ignores SIGPIPE and
/// SIGTTIN.
CUL_EXPORT void registerErrorHandlers();

/// Installs CUL_SignalHandler() for one signal, unless it has a handler function already.
/// \return the result of the last sigaction().
CUL_EXPORT int registerHandlerForSignal(int signal);

/// Traces the signal and the call chain, then resumes the current thread at its recovery
/// point, or ends the process with status 99. The signal's default action is in force
/// afterwards; returns for SIGPIPE only.
extern "C" CUL_EXPORT void CUL_SignalHandler(int signal, siginfo_t* info, void* context);

/// Writes the chain of calls that led here, at most 50.
/// \param toStandardError to standard error; otherwise to the trace, when that takes
///   errors.
CUL_EXPORT void dumpModulesAndChain(bool toStandardError);

/// The handler of std::terminate: traces and ends the process with status 1.
[[noreturn]] CUL_EXPORT void CUL_terminate();

/// The handler of unexpected exceptions: traces and ends the process with status 1.
[[noreturn]] CUL_EXPORT void CUL_unexpected();

/// The handler of memory exhaustion: frees the reserve set aside when the library was
/// loaded, reports to the trace and to standard output, and ends the process with status 1.
[[noreturn]] CUL_EXPORT void newHandler();
