#pragma once

#include <cstdint>
#include <pthread.h>

#include "Engine/utilities/CUL_Event_Semaphore.h"
#include "Engine/utilities/Export.h"
#include "Engine/utilities/List.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/UNIX/UNIX_Critical_Section.h"
#include "Engine/utilities/UNIX/UNIX_Mutex.h"

/// \file
/// An event on a POSIX condition, and the timer thread that ends its timed waits.
///
/// **Time limits.** A timed wait is a UNIX_Event_Semaphore::WaitInstance on the waiter's
/// stack, listed with the one MillisecondTimer of the process. That thread looks at the
/// wall clock at least every 50 ms and not more often than every 10 ms, and wakes the
/// waiters whose time has come: a timed wait ends between its deadline and about 50 ms
/// after it, and a limit of 0 on a closed event takes one look of the timer. Setting the
/// clock moves all deadlines. The timer thread is started by the first timed wait that
/// finds its event closed, and lives until the process ends; a process without one has
/// no timer thread. A forked child has none either until it waits; then it starts its own.
///
/// **Forked children.** A child uses an event of its parent as one of its own: it is as open
/// or closed as it was when the child was forked, and those who waited for it are not there.
///
/// **Locks.** The timer's lock is taken before an event's mutex: the timer thread holds
/// both while it wakes a waiter. A waiter talks to the timer only while it does not hold the
/// mutex. Every operation may be called from any thread.
///
/// **Errors.** What fails on the condition is a CUL_SemaphoreError with the function's
/// signature text as the file and the POSIX result as the status. What fails on the mutex is
/// only traced, see UNIX_Mutex. On the timer thread an error ends the process with status 99,
/// as on every StdThread.
///
/// **Ends.** Who has seen the event open may destroy it, even while the post() that opened
/// it has not returned. Destroying an event that threads still wait for is a mistake: those
/// that have a limit will not be woken by the timer any more. A StdThread that is asked to
/// end while it waits leaves neither the mutex locked nor its wait listed.

class CUL_EXPORT UNIX_Event_Semaphore : public CUL_Event_Semaphore {
 public:
  class MsecTime;
  class WaitInstance;
  class MillisecondTimer;

  /// A closed event.
  /// \throws CUL_SemaphoreError with the result of pthread_cond_init().
  UNIX_Event_Semaphore();

  /// Takes the timed waits on this event off the timer's list.
  ~UNIX_Event_Semaphore() override;

  /// \copydoc CUL_Event_Semaphore::wait
  /// On an open event this is one look, without a lock and without the timer.
  /// \throws CUL_SemaphoreError also with the result of pthread_cond_wait().
  /// \throws StdException status -1 when the timer thread cannot be started.
  bool wait(unsigned short amount, WaitTimeScale scale, bool throwOnTimeout) override;

  /// Waits until the event is open; always takes the mutex.
  /// \throws CUL_SemaphoreError with the result of pthread_cond_wait().
  void wait() override;

  void reset() override;

  /// Opens the event and wakes all who wait.
  /// \throws CUL_SemaphoreError with the result of pthread_cond_broadcast(); the event is
  ///   open then, but those who wait may not have noticed.
  void post() override;

  /// The timer of the process, made and started by the first call, never destroyed. A forked
  /// child gets another.
  /// \throws StdException status -1 when it cannot be started; the next call tries again.
  [[nodiscard]] static MillisecondTimer* timerInstance();

 private:
  [[nodiscard]] bool isPosted() const noexcept {
    return __atomic_load_n(&posted_, __ATOMIC_ACQUIRE) != 0;
  }
  __attribute__((visibility("hidden"))) void makeOwn();
  __attribute__((visibility("hidden"))) void makeAnew(unsigned int generation);

  UNIX_Mutex mutex_;
  pthread_cond_t condition_ = PTHREAD_COND_INITIALIZER;
  // Written under the mutex, read without it, too. Loads and stores are atomic.
  unsigned char posted_ = 0;
  // The process, counted in forks, whose threads use the mutex and the condition. Atomically.
  unsigned int generation_;
};

/// A point in time: milliseconds of wall time since the epoch.
class CUL_EXPORT UNIX_Event_Semaphore::MsecTime {
 public:
  /// Now and `offset` milliseconds. Fractions of a millisecond of the clock are cut off.
  explicit MsecTime(unsigned int offset) noexcept;

  /// Milliseconds since the epoch.
  [[nodiscard]] std::uint64_t milliseconds() const noexcept { return milliseconds_; }

  [[nodiscard]] bool operator<(const MsecTime& other) const noexcept {
    return milliseconds_ < other.milliseconds_;
  }
  [[nodiscard]] bool operator<=(const MsecTime& other) const noexcept {
    return milliseconds_ <= other.milliseconds_;
  }

 private:
  std::uint64_t milliseconds_;
};

/// One timed wait that has not ended. Listed with the timer from construction until it
/// expires, it is destroyed, or its event is.
class CUL_EXPORT UNIX_Event_Semaphore::WaitInstance {
 public:
  /// Lists a wait.
  /// \param semaphore    may go first; it takes the wait off the list then.
  /// \param milliseconds from now to the deadline.
  /// \throws StdException status -1 when the timer thread cannot be started.
  WaitInstance(UNIX_Event_Semaphore& semaphore, unsigned int milliseconds);
  WaitInstance(const WaitInstance&) = delete;
  WaitInstance& operator=(const WaitInstance&) = delete;
  ~WaitInstance();

  /// Marks the wait as expired and wakes those who wait for the event. The timer thread
  /// calls it when the deadline has come.
  /// \throws CUL_SemaphoreError with the result of pthread_cond_broadcast(); the mark is set.
  void expire();

  /// Whether expire() has been called. Any thread.
  [[nodiscard]] bool isExpired() const noexcept {
    return __atomic_load_n(&expired_, __ATOMIC_ACQUIRE) != 0;
  }
  /// The event that is waited for.
  [[nodiscard]] const UNIX_Event_Semaphore* semaphore() const noexcept { return semaphore_; }
  /// When the wait ends at the latest.
  [[nodiscard]] const MsecTime& deadline() const noexcept { return deadline_; }

 private:
  UNIX_Event_Semaphore* semaphore_;
  MsecTime deadline_;
  MillisecondTimer* timer_;
  // Written under the event's mutex. Loads and stores are atomic.
  unsigned char expired_ = 0;
};

/// The thread "msecTimer". It keeps the timed waits of the process in the order of their
/// deadlines and expires them. It never ends; do not ask it to.
class CUL_EXPORT UNIX_Event_Semaphore::MillisecondTimer final : public StdThread {
 public:
  /// Starts the thread. Use timerInstance(): a wait is always listed with that one.
  /// \throws StdException status -1 when there can be no thread.
  MillisecondTimer();

  /// Lists a wait, or moves it to its place when it is listed. Among waits with the same
  /// deadline it goes behind the first and the last of the list and before those in the
  /// middle.
  void add(WaitInstance& wait);

  /// Takes a wait off the list; nothing when it is not listed.
  void remove(WaitInstance& wait);

  /// Takes all waits for an event off the list.
  void remove(UNIX_Event_Semaphore& semaphore);

  /// For diagnosis: appends the listed waits in their order. They may end at any time.
  void copyPending(List<const WaitInstance*>& copy);

  /// Expires waits, for ever. An error of WaitInstance::expire() leaves it, which ends the
  /// process with status 99.
  [[noreturn]] void run() override;

 private:
  friend class AcrossFork;

  unsigned int expireDue();

  UNIX_Critical_Section lock_;
  List<WaitInstance*> pending_ CUL_GUARDED_BY(lock_);  // the earliest deadline first
};
