#pragma once

#include <cstdint>
#include <pthread.h>

/// \file
/// Random short waits at the operations by which threads meet.
///
/// The program's own definitions of the functions of mutexes, conditions and of the start of a
/// thread stand before those of the C library, also for calls from the library under test. In a
/// build that is instrumented for a thread sanitizer, so do its own definitions of the functions
/// that atomic operations are compiled to: under the thread sanitizer they go on to the
/// sanitizer's; in the build `schedules`, which has no sanitizer, they are the operations. While a
/// Waits object lives, each of these calls may be preceded by a wait: the processor is given up,
/// or the thread spins or sleeps for some microseconds. A wait for a condition may also end without
/// cause, as POSIX allows.
///
/// What a thread does at its n-th call follows from the seed and the thread's number alone. Which
/// thread comes first is the system's business: the same seed makes the same waits, but not always
/// the same schedule.

class Waits {
 public:
  /// All threads of the process wait by chance from now on. One object at a time.
  explicit Waits(std::uint64_t seed);
  Waits(const Waits&) = delete;
  Waits& operator=(const Waits&) = delete;
  ~Waits();

  /// Gives the calling thread a number. A thread without one has the next one above 1000 when it
  /// first comes to a call.
  static void numberThread(unsigned number) noexcept;

  /// Calls at which a thread could have waited, and waits, of the process so far. Calls of threads
  /// that have not waited lately are not counted yet.
  struct Counts {
    std::uint64_t calls;
    std::uint64_t waits;
  };
  [[nodiscard]] static Counts counts() noexcept;
};

/// Tells of what threads do with one mutex and its condition, in the order in which they do it:
/// each step is told of by the thread that has the mutex.
class MutexSteps {
 public:
  enum class Step {
    waits,       ///< About to wait for the condition.
    broadcasts,  ///< About to wake all who wait for it.
    unlocks,     ///< About to give the mutex back.
  };

  /// One object at a time.
  MutexSteps(const void* mutex, const void* condition) noexcept;
  MutexSteps(const MutexSteps&) = delete;
  MutexSteps& operator=(const MutexSteps&) = delete;
  virtual ~MutexSteps();

  /// A step of the calling thread.
  virtual void take(Step step) noexcept = 0;

  /// For the definitions of the functions.
  static void tell(const void* mutex, const void* condition, Step step) noexcept;

 private:
  const void* mutex_;
  const void* condition_;
};
