#pragma once

#include <cstdint>
#include <functional>

/// \file
/// Wall clocks that the tests set; this test program's own gettimeofday() and usleep() stand
/// before those of the C library, also for calls from the library under test.

/// The wall clock of the calling thread stands still.
class StillClock {
 public:
  /// \param microseconds since the epoch.
  explicit StillClock(std::uint64_t microseconds);
  StillClock(const StillClock&) = delete;
  StillClock& operator=(const StillClock&) = delete;
  ~StillClock();
};

/// Shortens each sleep of the timer thread to a tenth, for tests of many short timed waits.
/// One at a time.
class QuickTimer {
 public:
  QuickTimer();
  QuickTimer(const QuickTimer&) = delete;
  QuickTimer& operator=(const QuickTimer&) = delete;
  ~QuickTimer();
};

/// Drives the timer thread step by step. The wall clock of the whole process stands still
/// meanwhile, except for what StillClock says. For child cases; one at a time.
class TimerInHand {
 public:
  /// Must come before the timer thread is started.
  /// \param milliseconds since the epoch.
  explicit TimerInHand(std::uint64_t milliseconds);
  TimerInHand(const TimerInHand&) = delete;
  TimerInHand& operator=(const TimerInHand&) = delete;
  /// Gives the timer thread back to the real time.
  ~TimerInHand();

  void setClock(std::uint64_t milliseconds);

  /// Waits until the timer thread sleeps.
  /// \return for how long it wants to, in microseconds.
  unsigned sleep();

  /// Ends the sleep of the timer thread.
  /// \param first runs on the timer thread before it goes on.
  void wake(std::function<void()> first = nullptr);

  /// Lets the timer thread take one look at the list.
  /// \return for how long it wants to sleep then, in microseconds.
  unsigned look() {
    wake();
    return sleep();
  }

  /// How often the timer thread has read the clock.
  static unsigned clockReadings();
};
