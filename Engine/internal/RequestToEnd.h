#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>
#include <ucontext.h>

#include "Engine/internal/WayOut.h"

/// \file
/// How a request to end is met: the whole rule.
///
/// A request is a signal, SIGUSR2, and arrives between any two instructions. The thread ends by
/// unwinding its stack, which is sound at calls only (see WayOut.h). So the signal's handler
/// looks where the thread is, and
///
/// 1. while the thread is in a BlockTermination, only leaves the mark that is promised;
/// 2. while the library holds requests back (HoldRequests.h), goes no further than 5;
/// 3. ends the thread at once when it waits: in a cancellation point of the C library, whose wait
///    the signal has cut short, or for a mutex. A wait for a mutex that was cut short has
///    counted nothing and was not woken, so nobody misses what is not there any more;
/// 4. ends it at once when an exception that it throws looks for its handler: nothing has moved
///    yet, no lock is held, and the exception gives way to the end;
/// 5. when it is in a call that is known to throw at times, ends it when the call returns to the
///    program (one of the library: when it hands nothing over): the return address is diverted
///    (DivertedReturn.S) to a place that ends the thread as if the call had thrown. Memory that was
///    just allocated is given back; what another call hands over, a descriptor say, is lost;
/// 6. in any other call or between two calls does the same, but not before it has seen the
///    innermost function with something to destroy in one and the same call for a
///    twentieth of a second: what the program is in the middle of leaves nothing half done that is
///    destroyed. (Functions that the C library calls are part of its call.) It may have locks,
///    though, whose guards the compiler did not bother to note where
///    nothing throws. So the thread must have none of the library; and if it was seen to take or
///    give back locks of the C library meanwhile, it ends only where it has just given one back.
///
/// No call is ended that takes a lock or gives memory back. Besides, a thread in a call of the
/// library that takes a lock, asks for the memory of a string or yields ends there, before it has
/// the lock or the memory (endIfAsked()).
///
/// Each time, all frames from there to the thread's entry must be such as can be left: every
/// call is one that its function's exception table lists. What is not met is looked at again,
/// soon at first, then each millisecond, and less often when the thread sleeps. For that it
/// takes a timer of the system; without one (RLIMIT_SIGPENDING) the thread looks again when it is
/// asked again, or in endIfAsked().
///
/// What remains is told in StdThread.h: a thread that makes none of these calls, in a loop of a
/// function with something to destroy, or in a noexcept one.

/// Whether a request to the calling thread is still to be met.
extern constinit thread_local bool requestIsPending
    __attribute__((tls_model("initial-exec"), visibility("hidden")));

/// Ends the calling thread when it was asked to and could not until now; at the start of a
/// function that may throw.
void endIfAsked();

class StdThread;

/// The request to the calling thread. What a signal handler needs must not be searched for: the
/// signal may have arrived inside the lock of the registry of threads.
class RequestToEnd {
 public:
  /// The calling thread's.
  static RequestToEnd& own() noexcept;

  constexpr RequestToEnd() = default;
  RequestToEnd(const RequestToEnd&) = delete;
  RequestToEnd& operator=(const RequestToEnd&) = delete;
  ~RequestToEnd() = default;

  /// Notes whose thread this is, in its entry function.
  void begin(StdThread* thread, const void* entryFrame) noexcept {
    entryFrame_ = entryFrame;
    thread_ = thread;
  }

  /// The object of the calling thread; null on threads that StdThread has not started.
  [[nodiscard]] StdThread* thread() const noexcept { return thread_; }

  /// From now on requests come too late: the thread is ending.
  void comeTooLate() noexcept { isTooLate_ = true; }
  [[nodiscard]] bool isTooLate() const noexcept { return isTooLate_; }

  /// Notes what the signal has interrupted; null when that is not known.
  void interrupt(const ucontext_t* context) noexcept { context_ = context; }

  /// Whether the thread can end now, in the handler. Otherwise, where that can be, its present
  /// call ends it when it returns.
  [[nodiscard]] bool canEndInHandler();

  /// Whether the thread can end now, at a call of the library that may end it.
  [[nodiscard]] bool canEndInCall() const;

  /// A diverted call has returned.
  /// \return whether the thread can end where the call was.
  [[nodiscard]] bool canEndAtReturn() noexcept;

  /// Gives back what that call has allocated, when the thread ends.
  void dispose(void* result) const noexcept;

  /// Has the thread signalled again in a moment.
  void putOff() noexcept;

  /// Forgets the request, and what was done to meet it.
  void drop() noexcept;

  /// In a child of a fork: requests were made to the parent's thread.
  void dropInChild() noexcept;

 private:
  void undivert() noexcept;
  void divert(const WayOut& way) noexcept;

  StdThread* thread_ = nullptr;
  const void* entryFrame_ = nullptr;  // of the thread's entry function
  const ucontext_t* context_ = nullptr;
  std::uintptr_t* divertedPlace_ = nullptr;  // where the return address was, null: nowhere
  WayOut::Result divertedResult_ = WayOut::Result::unknown;
  std::size_t diversion_ = 0;     // which of the places to return to is in use
  std::uintptr_t anchor_ = 0;     // see WayOut
  std::uint64_t since_ = 0;       // nanoseconds; when that was first seen
  std::uintptr_t restsAt_ = 0;    // the stack pointer that the last look has found
  unsigned looks_ = 0;            // since then
  unsigned attempts_ = 0;         // of a request that could not be met at once
  unsigned restingAttempts_ = 0;  // the last of these that have found the thread at one place
  pid_t task_ = 0;                // the thread that was asked: a child of a fork was not
  bool divertedIsCertain_ = false;
  bool usesRuntimeLocks_ = false;
  bool isTooLate_ = false;
  bool hasTimer_ = false;
  int timer_ = 0;
};

/// The kernel's record of what a signal has interrupted, for the handler itself, which was
/// installed without SA_SIGINFO; null when it was called by somebody else.
/// \param returnAddress of the handler.
/// \param frame         address of its frame.
[[nodiscard]] const ucontext_t* interruptedBy(const void* returnAddress,
                                              const void* frame) noexcept;
