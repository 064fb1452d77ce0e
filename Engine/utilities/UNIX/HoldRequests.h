#pragma once

#include <atomic>

/// \file
/// Keeps a thread alive over a stretch of code that must not be cut short.
///
/// A request to end a StdThread arrives as a signal, between any two instructions, and
/// ends the thread by unwinding its stack. Code that has taken a lock and not yet stored
/// that it did, or that is half-way through a change of what other threads see, would
/// leave ruins behind. While a HoldRequests object lives, its thread does not end; a
/// request that arrives meanwhile is repeated many times a millisecond until the thread can end.
/// \code
///   HoldRequests hold;
///   LockGuard guard(lock_, "void RunningThreads::append(StdThread*)", 24);
/// \endcode
/// A thread that waits while it holds requests cannot be asked to end. Where a wait may
/// last, lift the hold around it:
/// \code
///   HoldRequests hold;
///   ...
///   HoldRequests::Lift lift(hold);
///   pthread_cond_wait(&condition, &mutex);
/// \endcode
/// Costs two moves to thread-local storage and no call. Unlike
/// StdThread::BlockTermination, it only delays requests and never loses one. Internal to
/// the library.

/// How many holds the calling thread is in. Written by HoldRequests and by a recovery,
/// which leaves all holds at once; read by the signal handler on the same thread.
extern constinit thread_local unsigned int requestsHeld
    __attribute__((tls_model("initial-exec"), visibility("hidden")));

class HoldRequests {
 public:
  HoldRequests() noexcept : outer_(level()) { setLevel(outer_ + 1); }
  HoldRequests(const HoldRequests&) = delete;
  HoldRequests& operator=(const HoldRequests&) = delete;
  ~HoldRequests() { setLevel(outer_); }

  /// Gives one hold up until the end of the scope; outer holds stay.
  class Lift {
   public:
    explicit Lift(const HoldRequests& hold) noexcept : hold_(hold) { setLevel(hold.outer_); }
    Lift(const Lift&) = delete;
    Lift& operator=(const Lift&) = delete;
    ~Lift() { setLevel(hold_.outer_ + 1); }

   private:
    const HoldRequests& hold_;
  };

  /// The depth of holds of the calling thread.
  [[nodiscard]] static unsigned int level() noexcept {
    return __atomic_load_n(&requestsHeld, __ATOMIC_RELAXED);
  }

  /// A hold without an object, for a pair of functions; ended by leave().
  static void enter() noexcept { setLevel(level() + 1); }
  static void leave() noexcept { setLevel(level() - 1); }

  /// Leaves all holds of the calling thread; for a jump that skips their destructors.
  static void leaveAll() noexcept { setLevel(0); }

 private:
  // The fences keep the guarded code between the two stores.
  static void setLevel(unsigned int level) noexcept {
    std::atomic_signal_fence(std::memory_order_seq_cst);
    __atomic_store_n(&requestsHeld, level, __ATOMIC_RELAXED);
    std::atomic_signal_fence(std::memory_order_seq_cst);
  }

  unsigned int outer_;
};
