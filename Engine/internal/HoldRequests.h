#pragma once

#include <atomic>

/// \file
/// Keeps a thread alive over a stretch of code that must not be cut short.
///
/// A request to end a StdThread ends the thread by unwinding its stack, from a wait or from a
/// call that the program has made (RequestToEnd.h has the whole rule). Code of the library that
/// waits, or calls what may wait, while it is half-way through a change of what other threads
/// see would leave ruins behind. While a HoldRequests object lives, its thread does not end; the
/// request is met soon afterwards. Locks are requested first, since the wait for one is a place
/// that can be left; HeldLock.h does both. A thread that waits while it holds requests cannot be
/// asked to end. Where a wait may last, lift the hold around it:
/// \code
///   HoldRequests hold;
///   ...
///   HoldRequests::Lift lift(hold);
///   pthread_cond_wait(&condition, &mutex);
/// \endcode
/// Costs two moves to thread-local storage and no call. Unlike
/// StdThread::BlockTermination, it only delays requests and never loses one.

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

/// How many locks of the library the calling thread has: critical sections, mutexes and
/// read/write locks. Where a request to end cannot know that a guard would
/// release them, it waits until there is none.
extern constinit thread_local unsigned int locksHeld
    __attribute__((tls_model("initial-exec"), visibility("hidden")));

class LocksHeld {
 public:
  [[nodiscard]] static unsigned int count() noexcept {
    return __atomic_load_n(&locksHeld, __ATOMIC_RELAXED);
  }
  static void add() noexcept { __atomic_store_n(&locksHeld, count() + 1, __ATOMIC_RELAXED); }
  /// A plain mutex may be given back by another thread than the one that took it.
  static void remove() noexcept {
    const unsigned int present = count();
    __atomic_store_n(&locksHeld, present != 0 ? present - 1 : 0, __ATOMIC_RELAXED);
  }
};
