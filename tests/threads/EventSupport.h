#pragma once

#include <atomic>
#include <exception>
#include <functional>
#include <optional>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/UNIX/UNIX_Event_Semaphore.h"

#include "tests/threads/ThreadSupport.h"

/// \file
/// What the tests of event semaphores share.

using WaitInstance = UNIX_Event_Semaphore::WaitInstance;
using MillisecondTimer = UNIX_Event_Semaphore::MillisecondTimer;
inline constexpr auto seconds = CUL_Event_Semaphore::Seconds;
inline constexpr auto milliseconds = CUL_Event_Semaphore::Milliseconds;

/// What the timer has listed, in its order.
inline std::vector<const WaitInstance*> pending() {
  List<const WaitInstance*> copy;
  UNIX_Event_Semaphore::timerInstance()->copyPending(copy);
  return {copy.begin(), copy.end()};
}

/// A thread that waits for an event; joined at the end, by when it must have ended.
class Waiter {
 public:
  /// Waits without a limit.
  explicit Waiter(UNIX_Event_Semaphore& event)
      : Waiter([&event] {
          event.wait();
          return false;
        }) {}
  Waiter(UNIX_Event_Semaphore& event, unsigned short amount,
         CUL_Event_Semaphore::WaitTimeScale scale, bool throwOnTimeout = false)
      : Waiter([=, &event] { return event.wait(amount, scale, throwOnTimeout); }) {}
  Waiter(const Waiter&) = delete;
  Waiter& operator=(const Waiter&) = delete;
  ~Waiter() { thread_.join(); }

  /// Waits until the thread sleeps, most likely for the event.
  void waitUntilItSleeps() { waitUntilAsleep(task_); }

  [[nodiscard]] bool hasEnded() const { return hasEnded_; }

  /// What the wait returned; throws what it threw.
  bool result() {
    waitUntil([this] { return hasEnded(); });
    if (failure_) {
      std::rethrow_exception(failure_);
    }
    return result_;
  }

 private:
  explicit Waiter(std::function<bool()> wait)
      : thread_([this, wait = std::move(wait)] {
          task_ = gettid();
          try {
            result_ = wait();
          } catch (...) {
            failure_ = std::current_exception();
          }
          hasEnded_ = true;
        }) {}

  std::atomic<pid_t> task_ = 0;
  std::atomic<bool> hasEnded_ = false;
  bool result_ = false;
  std::exception_ptr failure_;
  std::thread thread_;
};
