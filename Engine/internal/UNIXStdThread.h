#pragma once

#include <pthread.h>

#include "Engine/utilities/UNIX/UNIX_Critical_Section.h"

/// \file
/// How a StdThread gets onto its POSIX thread.

class StdThread;
class StdException;

/// Carries a thread object from start_thread() to the new thread's entry function, which
/// deletes the record.
class StdThreadRun {
 public:
  /// Creates the POSIX thread, with startLock() held.
  /// \throws StdException status -1.
  pthread_t start(StdThread* thread);

  /// Runs the thread object on the calling thread and deletes it.
  void run();

  /// Traces the exception that run() let out, and ends the process with status 99.
  [[noreturn]] void fail(const StdException& exception) const;
  [[noreturn]] void fail() const;

  /// Ends the calling thread by unwinding; no further request disturbs that.
  [[noreturn]] static void end();

  /// Notes that the thread ends without deleting its object. Nobody signals it any more
  /// when this returns.
  void abandon() noexcept;

  /// Ends the calling thread when it was asked to and can end at this call.
  static void endIfAsked();

  /// Ends the calling thread for the request that has diverted the return of a call, unless
  /// something has come between; see RequestToEnd.h.
  /// \param result what the call has returned, where that is a pointer.
  static void diversionReturned(void* result);
  /// Notes in a forked child that it does not have the thread of an object.
  static void leaveBehind(StdThread& thread) noexcept;

  /// Has the object "main" stand for the calling thread.
  static void beMain() noexcept;

  [[nodiscard]] StdThread* thread() const noexcept { return thread_; }

  /// Held while a thread is created; the new thread passes it before it does anything. Also
  /// held while a thread is signalled, so that it cannot be gone halfway.
  static UNIX_Critical_Section& startLock();

 private:
  StdThread* thread_ = nullptr;
};

/// The entry function of all threads.
extern "C" void* StdThreadRunFF(void* runRecord);

/// Where DivertedReturn.S goes on when a diverted call has returned.
extern "C" void divertedCallReturned(void* result) __attribute__((visibility("hidden")));
