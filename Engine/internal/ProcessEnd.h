#pragma once

/// \file
/// The end of the process, which happens once.
///
/// Several endings can meet: exceptions that escape from two threads, a fault, memory out, main
/// returning. The C library's exit() does not bear that: two threads in it free its list of
/// handlers under each other. So whoever wants to end the process claims that first. The first
/// claim decides the status and runs exit(); a thread that comes later stops for good where it
/// is. A failure of the thread that runs exit() ends the process at once, without what is left
/// of the exit handlers.
///
/// An ending that the program begins itself, by exit() or by returning from main, is noticed
/// where ExitWatch looks, before the first exit handler runs. On other threads it is noticed
/// when the exit handlers of this library run, which is late: a failure elsewhere may win until
/// then.
///
/// A claim holds in its own process: a forked child has none and can end itself.

/// Gives back the locks of the process that the calling thread has: it will never return to where
/// it took them, since it jumps out of a signal handler, or ends the process there. Others would
/// wait for them in vain, and whatever the thread still does would ask for locks out of their
/// order.
void abandonLocks() noexcept;

/// The same but for the lock of the trace, for whoever goes on to trace: a line may be written
/// while another one of the same thread is begun.
void abandonLocksBehindTrace() noexcept;

/// Ends the process with exit(status) when nobody ends it yet. The calling thread has none of the
/// process's locks then.
///
/// When another thread does, the calling thread stops for good: it holds no line of the trace
/// then, answers no signal, and counts as ended for whoever joins it, except for the first
/// thread, which sleeps.
///
/// \param mayHoldLocks whether the calling thread may have been stopped while it held a lock of
///   the library or of the allocator. The ending would wait for that for ever; such a thread
///   ends the process after endingLimit.
[[noreturn]] void endProcess(int status, bool mayHoldLocks = false) noexcept;

/// Ends the process with exit(status), or returns when some thread ends it already.
void endProcessUnlessEnding(int status) noexcept;

/// Ends the process without exit handlers, with the status of the failure that ends it already
/// or else with `status`. Safe in a signal handler.
[[noreturn]] void endProcessAtOnce(int status) noexcept;

/// Whether some thread ends the process. Safe in a signal handler.
bool isProcessEnding() noexcept;

/// Has the process end at once when its ending takes longer than endingLimit.
void limitEnding() noexcept;

/// How long an ending is waited for that may have to wait for a lock in vain, in seconds.
inline constexpr unsigned endingLimit = 3;

/// While it lives, exit() on the calling thread is noticed before the first exit handler runs.
/// To live in the frame of a thread's entry function, so that the thread's own end, which looks
/// the same from inside, is told apart.
class ExitWatch {
 public:
  ExitWatch() noexcept;
  ExitWatch(const ExitWatch&) = delete;
  ExitWatch& operator=(const ExitWatch&) = delete;
  ~ExitWatch();
};

/// Watches for exit() from now on: on the calling thread when that is the process's first, and
/// through an exit handler on all others. For the time of loading.
void watchForExit() noexcept;
