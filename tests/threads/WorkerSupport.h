#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <pthread.h>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/Reference.h"
#include "Engine/utilities/Runnable.h"
#include "Engine/utilities/RunningThreads.h"
#include "Engine/utilities/ThreadListener.h"
#include "Engine/utilities/UNIX/UNIX_Event_Semaphore.h"
#include "Engine/utilities/WorkerThread.h"

#include "tests/threads/FakeClock.h"
#include "tests/threads/PosixFailure.h"
#include "tests/threads/ThreadSupport.h"

/// \file
/// What the tests of worker threads share.

/// Runs a function.
class FunctionRunnable : public Runnable {
 public:
  explicit FunctionRunnable(std::function<int()> body) : body_(std::move(body)) {}
  FunctionRunnable(const FunctionRunnable&) = delete;
  FunctionRunnable& operator=(const FunctionRunnable&) = delete;
  virtual ~FunctionRunnable() = default;
  int work() override {
    ++runs;
    return body_();
  }

  std::atomic<int> runs = 0;

 private:
  std::function<int()> body_;
};

/// Gives a result at once.
class QuickRunnable final : public FunctionRunnable {
 public:
  explicit QuickRunnable(int result = 0) : FunctionRunnable([result] { return result; }) {}
};

/// Waits until it may go on, then gives its result.
class GatedRunnable final : public FunctionRunnable {
 public:
  explicit GatedRunnable(int result = 0)
      : FunctionRunnable([this, result] {
          worker = pthread_self();
          gate.wait();
          return result;
        }) {}

  std::atomic<pthread_t> worker = 0;  ///< The thread once it works.
  UNIX_Event_Semaphore gate;
};

/// Works until its thread is asked to end.
class EndlessRunnable : public Runnable {
 public:
  EndlessRunnable() = default;
  EndlessRunnable(const EndlessRunnable&) = delete;
  EndlessRunnable& operator=(const EndlessRunnable&) = delete;
  virtual ~EndlessRunnable() = default;

  int work() override {
    const Unwound here(*this);
    isWorking = true;
    for (;;) {
      usleep(1000000);
    }
  }

  std::atomic<bool> isWorking = false;
  std::atomic<bool> isUnwound = false;

 private:
  class Unwound {
   public:
    explicit Unwound(EndlessRunnable& runnable) : runnable_(runnable) {}
    Unwound(const Unwound&) = delete;
    Unwound& operator=(const Unwound&) = delete;
    ~Unwound() { runnable_.isUnwound = true; }

   private:
    EndlessRunnable& runnable_;
  };
};

/// The worker made last that is not started; null if there is none.
inline WorkerThread* unstartedWorker() {
  return dynamic_cast<WorkerThread*>(RunningThreads::instance().find(0));
}

/// Calls `action` before each time that the calling thread takes a mutex, until it returns
/// true. Fails the test when it never does.
class BeforeLocks {
 public:
  explicit BeforeLocks(std::function<bool()> action) : action_(std::move(action)) { arm(); }
  BeforeLocks(const BeforeLocks&) = delete;
  BeforeLocks& operator=(const BeforeLocks&) = delete;
  ~BeforeLocks() {
    while (!moments_.empty()) {
      moments_.pop_back();
    }
  }

 private:
  void arm() {
    moments_.push_back(std::make_unique<PosixMoment>(PosixCall::mutexLock, [this] {
      if (!action_()) {
        arm();
      }
    }));
  }

  std::function<bool()> action_;
  std::vector<std::unique_ptr<PosixMoment>> moments_;
};

/// Calls `operation` twice: its lock is not given back the first time and not taken the second
/// time, so that both leave a warning with their places in the trace.
/// \param unlocks how many other mutexes are given back before.
inline void traceLockPlaces(const std::function<void()>& operation, unsigned unlocks = 0) {
  {
    const PosixFailure failure(PosixCall::mutexUnlock, 35, 9, unlocks);
    operation();
  }
  const PosixFailure failure(PosixCall::mutexLock, 35, 8);
  operation();
}

/// Expects one warning each of a failed lock and unlock with these places.
inline void expectLockLines(const TracedChild& child, const std::string& function,
                            unsigned requested, unsigned released) {
  EXPECT_EQ(child.count("**WARNING: " + function + "(" + std::to_string(requested) +
                        "): pthread_mutex_lock failed - error = 8"),
            1)
      << function << "\n"
      << child.all();
  EXPECT_EQ(child.count("**WARNING: " + function + "(" + std::to_string(released) +
                        "): pthread_mutex_unlock failed - error = 9"),
            1)
      << function << "\n"
      << child.all();
}
