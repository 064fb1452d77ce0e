#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/CUL_SemaphoreError.h"
#include "Engine/utilities/UNIX/UNIX_Event_Semaphore.h"

#include "tests/support/Child.h"
#include "tests/threads/EventSupport.h"
#include "tests/threads/FakeClock.h"
#include "tests/threads/PosixFailure.h"
#include "tests/threads/ThreadSupport.h"

namespace {

constexpr const char* timedWaitText =
    "virtual bool UNIX_Event_Semaphore::wait(short unsigned int, "
    "CUL_Event_Semaphore::WaitTimeScale, bool)";

// What `act` throws when the call fails with `result`.
void expectError(PosixCall call, int result, const std::function<void()>& act,
                 const std::string& file, unsigned line) {
  const PosixFailure failure(call, result, EDOM);
  try {
    act();
    ADD_FAILURE() << "nothing was thrown";
  } catch (const CUL_SemaphoreError& error) {
    EXPECT_EQ(file, static_cast<const char*>(error.fileName));
    EXPECT_EQ(error.line, line);
    EXPECT_EQ(error.status, result);
    EXPECT_STREQ(error.text, "");
  }
}

// Whether the event can still be used from another thread.
void expectUsable(UNIX_Event_Semaphore& event) {
  EXPECT_TRUE(pending().empty());
  std::thread([&event] {
    event.reset();
    EXPECT_TRUE(event.wait(0, milliseconds, false));
    event.post();
    event.wait();
    EXPECT_FALSE(event.wait(60, seconds, true));
    event.reset();
  }).join();
}

}  // namespace

TEST(UNIX_Event_Semaphore, CannotBeMadeWithoutACondition) {
  expectError(
      PosixCall::condInit, ENOMEM, [] { const UNIX_Event_Semaphore event; },
      "UNIX_Event_Semaphore::UNIX_Event_Semaphore()", 28);
}

TEST(UNIX_Event_Semaphore, IsOpenButTellsWhenPostCannotWake) {
  UNIX_Event_Semaphore event;
  expectError(
      PosixCall::condBroadcast, EINVAL, [&event] { event.post(); },
      "virtual void UNIX_Event_Semaphore::post()", 54);
  EXPECT_FALSE(event.wait(60, seconds, true));
  event.wait();
  expectUsable(event);
}

TEST(UNIX_Event_Semaphore, TellsWhenItCannotWait) {
  UNIX_Event_Semaphore event;
  expectError(
      PosixCall::condWait, EPERM, [&event] { event.wait(); },
      "virtual void UNIX_Event_Semaphore::wait()", 80);
  expectUsable(event);
}

TEST(UNIX_Event_Semaphore, TellsWhenItCannotWaitWithALimit) {
  UNIX_Event_Semaphore event;
  for (const bool throwOnTimeout : {false, true}) {
    expectError(
        PosixCall::condWait, EPERM, [&] { event.wait(60, seconds, throwOnTimeout); }, timedWaitText,
        137);
    EXPECT_TRUE(pending().empty());
    expectUsable(event);
  }
}

TEST(WaitInstance, IsExpiredButTellsWhenItCannotWake) {
  UNIX_Event_Semaphore event;
  {
    WaitInstance wait(event, 60000);
    expectError(
        PosixCall::condBroadcast, EINVAL, [&wait] { wait.expire(); },
        "void UNIX_Event_Semaphore::WaitInstance::expire()", 286);
    EXPECT_TRUE(wait.isExpired());
  }
  expectUsable(event);
}

TEST(UNIX_Event_Semaphore, IgnoresThatTheConditionCannotBeDestroyed) {
  auto event = std::make_unique<UNIX_Event_Semaphore>();
  const PosixFailure failure(PosixCall::condDestroy, EBUSY, 0);
  EXPECT_NO_THROW(event.reset());
}

CUL_CHILD(TimerThatCannotStart) {
  UNIX_Event_Semaphore event;
  try {
    const PosixFailure failure(PosixCall::create, EAGAIN, 0);
    event.wait(1, milliseconds, false);
    ADD_FAILURE() << "nothing was thrown";
  } catch (const StdException& exception) {
    EXPECT_STREQ(exception.fileName, "Engine/utilities/UNIX/UNIXStdThread");
    EXPECT_EQ(exception.line, 169U);
    EXPECT_EQ(exception.status, -1);
  }
  event.post();
  EXPECT_FALSE(event.wait(1, milliseconds, true));
  event.reset();
  EXPECT_TRUE(event.wait(1, milliseconds, false));
}

TEST(UNIX_Event_Semaphore, StartsTheTimerLaterWhenItCouldNotAtFirst) {
  const ChildResult child = runChild("TimerThatCannotStart");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

namespace {

// Prints what the trace is to show of an object.
void print(const void* object) { std::printf("%p\n", object); }

std::string lineOf(const std::string& out, unsigned line) {
  size_t start = 0;
  for (; line > 0; --line) {
    start = out.find('\n', start) + 1;
  }
  return out.substr(start, out.find('\n', start) - start);
}

}  // namespace

CUL_CHILD(TracedErrors) {
  UNIX_Event_Semaphore event;
  print(&event);
  {
    const PosixFailure failure(PosixCall::condBroadcast, EINVAL, 0);
    EXPECT_THROW(event.post(), CUL_SemaphoreError);
  }
  event.reset();
  {
    const PosixFailure failure(PosixCall::condWait, EINVAL, 0);
    EXPECT_THROW(event.wait(), CUL_SemaphoreError);
  }
  {
    const PosixFailure failure(PosixCall::condWait, EINVAL, 0);
    EXPECT_THROW(event.wait(60, seconds, false), CUL_SemaphoreError);
  }
  EXPECT_THROW(event.wait(0, seconds, true), CUL_SemaphoreError);
  WaitInstance wait(event, 60000);
  print(&wait);
  const PosixFailure failure(PosixCall::condBroadcast, EINVAL, 0);
  EXPECT_THROW(wait.expire(), CUL_SemaphoreError);
}

TEST(UNIX_Event_Semaphore, ErrorsAreTracedWithTheirObject) {
  const TracedChild child("TracedErrors");
  EXPECT_EQ(child.result.status, 0) << child.all();
  const std::string event = lineOf(child.result.out, 0);
  const std::string wait = lineOf(child.result.out, 1);
  for (const std::string place : {"virtual void UNIX_Event_Semaphore::post(54)",
                                  "virtual void UNIX_Event_Semaphore::wait(80)",
                                  "virtual bool UNIX_Event_Semaphore::wait(137)",
                                  "virtual bool UNIX_Event_Semaphore::wait(143)"}) {
    std::string line = "**ERROR: " + place;
    line += ": Error on object " + event;
    EXPECT_EQ(child.count(line), 1) << line << child.all();
  }
  EXPECT_EQ(child.count("**ERROR: void UNIX_Event_Semaphore::WaitInstance::expire(286): Error on "
                        "object " +
                        wait),
            1)
      << child.all();
  EXPECT_EQ(child.countContaining("Starting thread msecTimer"), 1) << child.all();
}

CUL_CHILD(PostThatFailsTwice) {
  UNIX_Event_Semaphore event;
  {
    const PosixFailure broadcast(PosixCall::condBroadcast, EINVAL, 0);
    const PosixFailure unlock(PosixCall::mutexUnlock, EINVAL, 21);
    EXPECT_THROW(event.post(), CUL_SemaphoreError);
  }
  const PosixFailure heldAlready(PosixCall::mutexLock, 0, 0);
  event.reset();
}

TEST(UNIX_Event_Semaphore, PostGivesTheMutexBackBeforeItTells) {
  const TracedChild child("PostThatFailsTwice");
  EXPECT_EQ(child.result.status, 0) << child.all();
  const auto lineWith = [&child](const char* text) {
    return std::find_if(child.lines.begin(), child.lines.end(), [text](const std::string& line) {
      return line.find(text) != std::string::npos;
    });
  };
  const auto unlocked = lineWith("post(47): pthread_mutex_unlock failed - error = 21");
  const auto told = lineWith("post(54): Error on object");
  ASSERT_NE(told, child.lines.end()) << child.all();
  EXPECT_LT(unlocked, told) << child.all();
}

namespace {

// Does `act` twice: first its unlock number `passing` fails, which leaves the mutex locked,
// then its lock of the same number, which finds it so.
void failBoth(unsigned passing, int unlockError, int lockError, const std::function<void()>& act) {
  {
    const PosixFailure failure(PosixCall::mutexUnlock, EPERM, unlockError, passing);
    act();
  }
  const PosixFailure failure(PosixCall::mutexLock, EPERM, lockError, passing);
  act();
}

// The same on the timer thread, at its next two looks.
void failBothOnTheTimer(TimerInHand& timer, int unlockError, int lockError) {
  timer.sleep();
  timer.wake([unlockError] {
    static const auto* const failure = new PosixFailure(PosixCall::mutexUnlock, EPERM, unlockError);
    EXPECT_NE(failure, nullptr);
  });
  timer.sleep();
  timer.wake([lockError] {
    static const auto* const failure = new PosixFailure(PosixCall::mutexLock, EPERM, lockError);
    EXPECT_NE(failure, nullptr);
  });
  timer.sleep();
}

}  // namespace

CUL_CHILD(FailingMutexesOfEvents) {
  UNIX_Event_Semaphore event;
  MillisecondTimer* timer = nullptr;
  {
    TimerInHand inHand(1700000000000);
    timer = UNIX_Event_Semaphore::timerInstance();
    failBothOnTheTimer(inHand, 21, 22);
  }
  failBoth(0, 31, 32, [&] { event.reset(); });
  failBoth(1, 41, 42, [&] { EXPECT_TRUE(event.wait(0, milliseconds, false)); });
  failBoth(0, 51, 52, [&] { event.post(); });
  failBoth(0, 61, 62, [&] { event.wait(); });
  UNIX_Event_Semaphore other;
  WaitInstance wait(other, 65535000);
  failBoth(0, 71, 72, [&] { wait.expire(); });
  failBoth(0, 81, 82, [&] { timer->add(wait); });
  failBoth(0, 91, 92, [&] { timer->remove(wait); });
  failBoth(0, 101, 102, [&] { timer->remove(other); });
  event.reset();
  EXPECT_TRUE(event.wait(0, milliseconds, false));
}

TEST(UNIX_Event_Semaphore, FailuresOfItsMutexAndTheTimersAreOnlyTraced) {
  ChildOptions options;
  // A mutex whose unlock is said to have failed looks held while the timer's lock is taken.
  options.environment["TSAN_OPTIONS"] = "detect_deadlocks=0:halt_on_error=1";
  options.environment["LD_PRELOAD"] = "";
  const TracedChild child("FailingMutexesOfEvents", options);
  EXPECT_EQ(child.result.status, 0) << child.all();
  const auto expectBoth = [&child](const std::string& place, int unlockError, int lockError) {
    const std::string start = "**WARNING: " + place + ": ";
    EXPECT_EQ(
        child.count(start + "pthread_mutex_unlock failed - error = " + std::to_string(unlockError)),
        1)
        << place << "\n"
        << child.all();
    EXPECT_EQ(
        child.count(start + "pthread_mutex_lock failed - error = " + std::to_string(lockError)), 1)
        << place << "\n"
        << child.all();
  };
  const std::string event = "UNIX_Event_Semaphore::";
  const std::string timer = event + "MillisecondTimer::";
  expectBoth("virtual void " + timer + "run(230)", 21, 22);
  expectBoth("virtual void " + event + "reset(40)", 31, 32);
  expectBoth("virtual bool " + event + "wait(126)", 41, 42);
  expectBoth("virtual void " + event + "post(47)", 51, 52);
  expectBoth("virtual void " + event + "wait(69)", 61, 62);
  expectBoth("void " + event + "WaitInstance::expire(282)", 71, 72);
  expectBoth("void " + timer + "add(167)", 81, 82);
  expectBoth("void " + timer + "remove(196)", 91, 92);
  expectBoth("void " + timer + "remove(210)", 101, 102);
}

CUL_CHILD(TimerThatCannotWake) {
  TimerInHand timer(1700000000000);
  UNIX_Event_Semaphore event;
  const WaitInstance wait(event, 0);
  print(&wait);
  std::fflush(stdout);
  timer.wake([] {
    static const auto* const failure = new PosixFailure(PosixCall::condBroadcast, EINVAL, 0);
    EXPECT_NE(failure, nullptr);
  });
  for (;;) {
    pause();
  }
}

TEST(MillisecondTimer, EndsTheProcessWhenItCannotWakeAWaiter) {
  const TracedChild child("TimerThatCannotWake");
  EXPECT_EQ(child.result.status, 99) << child.all();
  const std::string place = "**ERROR: void UNIX_Event_Semaphore::WaitInstance::expire(286): ";
  EXPECT_EQ(child.count(place + "Error on object " + lineOf(child.result.out, 0)), 1)
      << child.all();
  EXPECT_EQ(child.countContaining(place + "Internal error on thread msecTimer("), 1) << child.all();
}

#if !defined(__SANITIZE_THREAD__)  // which checks that only pthread_cancel() ends such waits

namespace {

// Asks a thread to end that sleeps in `wait`.
void endWhileWaiting(const std::function<void()>& wait) {
  std::atomic<pid_t> task = 0;
  std::atomic<bool> isBehind = false;
  StdThread::Termination termination;
  const StdThread* thread = startThread(
      [&] {
        task = gettid();
        wait();
        isBehind = true;
      },
      &termination);
  waitUntilAsleep(task);
  EXPECT_EQ(thread->requestTerminate(), 0);
  EXPECT_EQ(termination.wait(0), 0);
  EXPECT_FALSE(isBehind);
}

}  // namespace

TEST(UNIX_Event_Semaphore, AThreadThatIsAskedToEndLeavesAWait) {
  UNIX_Event_Semaphore event;
  Waiter other(event);
  other.waitUntilItSleeps();
  endWhileWaiting([&event] { event.wait(); });
  EXPECT_FALSE(other.hasEnded());
  event.post();
  EXPECT_FALSE(other.result());
  expectUsable(event);
}

TEST(UNIX_Event_Semaphore, AThreadThatIsAskedToEndTakesItsTimedWaitOffTheList) {
  UNIX_Event_Semaphore event;
  EXPECT_TRUE(event.wait(0, seconds, false));  // the timer is there
  for (const bool throwOnTimeout : {false, true}) {
    Waiter other(event, 50, seconds);
    waitUntil([] { return pending().size() == 1; });
    const std::vector<const WaitInstance*> before = pending();
    endWhileWaiting([&] { event.wait(60, seconds, throwOnTimeout); });
    EXPECT_EQ(pending(), before);
    EXPECT_FALSE(other.hasEnded());
    event.post();
    EXPECT_FALSE(other.result());
    event.reset();
  }
  expectUsable(event);
}

TEST(UNIX_Event_Semaphore, AThreadMayBeAskedToEndAnywhereInItsUseOfEvents) {
  UNIX_Event_Semaphore event;
  for (int round = 0; round < 60; ++round) {
    std::atomic<bool> isRunning = false;
    StdThread::Termination termination;
    const StdThread* thread = startThread(
        [&] {
          for (unsigned short i = 0;; ++i) {
            event.wait(static_cast<unsigned short>(i % 3), milliseconds, false);
            event.post();
            event.wait();
            event.reset();
            isRunning = true;
            StdThread::thread_yield();
          }
        },
        &termination);
    waitUntil([&isRunning] { return isRunning.load(); });
    std::this_thread::sleep_for(std::chrono::microseconds(round * 37 % 1000));
    EXPECT_EQ(thread->requestTerminate(), 0);
    EXPECT_EQ(termination.wait(0), 0);
    EXPECT_TRUE(pending().empty());
    event.post();
    event.wait();
    event.reset();
  }
  expectUsable(event);
}

#endif
