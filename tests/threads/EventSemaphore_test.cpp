#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/CUL_SemaphoreError.h"
#include "Engine/utilities/UNIX/UNIX_Event_Semaphore.h"

#include "tests/support/Child.h"
#include "tests/threads/EventSupport.h"
#include "tests/threads/PosixFailure.h"
#include "tests/threads/ThreadSupport.h"

namespace {

// The wall clock in whole milliseconds, cut off.
long long wallMilliseconds() {
  return std::chrono::floor<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

long threadsOfTheProcess() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return std::distance(begin(tasks), end(tasks));
}

}  // namespace

TEST(CUL_Event_Semaphore, HasItsOperationsInOrder) {
  EXPECT_EQ(
      virtualSlot<bool (CUL_Event_Semaphore::*)(unsigned short, CUL_Event_Semaphore::WaitTimeScale,
                                                bool)>(&CUL_Event_Semaphore::wait),
      2U);
  EXPECT_EQ(virtualSlot<void (CUL_Event_Semaphore::*)()>(&CUL_Event_Semaphore::wait), 3U);
  EXPECT_EQ(virtualSlot(&CUL_Event_Semaphore::reset), 4U);
  EXPECT_EQ(virtualSlot(&CUL_Event_Semaphore::post), 5U);
  EXPECT_TRUE(std::is_abstract_v<CUL_Event_Semaphore>);
  EXPECT_TRUE(std::has_virtual_destructor_v<CUL_Event_Semaphore>);
}

TEST(CUL_Event_Semaphore, CountsSecondsAsZeroAndMillisecondsAsTheRest) {
  EXPECT_EQ(CUL_Event_Semaphore::Seconds, 0U);
  EXPECT_NE(CUL_Event_Semaphore::Milliseconds, 0U);
  UNIX_Event_Semaphore event;
  for (const unsigned scale : {1U, 2U, 1000U, 0xFFFFFFFFU}) {
    // 65535 milliseconds would do, 65535 seconds would not.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(event.wait(40, static_cast<CUL_Event_Semaphore::WaitTimeScale>(scale), false));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20)) << scale;
  }
}

TEST(UNIX_Event_Semaphore, IsClosedAfterConstruction) {
  UNIX_Event_Semaphore event;
  EXPECT_TRUE(event.wait(0, seconds, false));
}

TEST(UNIX_Event_Semaphore, StaysOpenFromPostToReset) {
  UNIX_Event_Semaphore event;
  event.post();
  for (int i = 0; i < 3; ++i) {
    event.wait();
    EXPECT_FALSE(event.wait(1, seconds, true));
    EXPECT_FALSE(event.wait(0, milliseconds, true));
  }
  event.post();  // once more changes nothing
  event.reset();
  EXPECT_TRUE(event.wait(1, milliseconds, false));
  event.reset();
  EXPECT_TRUE(event.wait(1, milliseconds, false));
}

TEST(UNIX_Event_Semaphore, PostWakesAllWhoWaitWithAndWithoutALimit) {
  UNIX_Event_Semaphore event;
  {
    Waiter untimed1(event);
    Waiter untimed2(event);
    Waiter timed1(event, 65535, seconds);
    Waiter timed2(event, 60000, milliseconds, true);
    for (Waiter* each : {&untimed1, &untimed2, &timed1, &timed2}) {
      each->waitUntilItSleeps();
    }
    for (Waiter* each : {&untimed1, &untimed2, &timed1, &timed2}) {
      EXPECT_FALSE(each->hasEnded());
    }
    event.post();
    for (Waiter* each : {&untimed1, &untimed2, &timed1, &timed2}) {
      EXPECT_FALSE(each->result());
    }
  }
  EXPECT_TRUE(pending().empty());

  event.reset();
  Waiter again(event);
  Waiter timedAgain(event, 65535, seconds);
  again.waitUntilItSleeps();
  waitUntil([] { return pending().size() == 1; });
  timedAgain.waitUntilItSleeps();
  EXPECT_FALSE(again.hasEnded());
  EXPECT_FALSE(timedAgain.hasEnded());
  event.post();
}

TEST(UNIX_Event_Semaphore, ATimedWaitEndsAtItsDeadlineAndNotBefore) {
  UNIX_Event_Semaphore event;
  for (const unsigned short amount : std::vector<unsigned short>{1, 9, 10, 11, 49, 50, 51, 120}) {
    const long long start = wallMilliseconds();
    EXPECT_TRUE(event.wait(amount, milliseconds, false));
    const long long elapsed = wallMilliseconds() - start;
    EXPECT_GE(elapsed, amount);
    // About 50 more are promised; the rest is for a busy machine.
    EXPECT_LT(elapsed, amount + 10000);
  }
  EXPECT_TRUE(pending().empty());
}

TEST(UNIX_Event_Semaphore, ATimedWaitInSecondsThrowsAtItsDeadlineWhenToldTo) {
  UNIX_Event_Semaphore event;
  const long long start = wallMilliseconds();
  try {
    event.wait(1, seconds, true);
    ADD_FAILURE() << "nothing was thrown";
  } catch (const CUL_SemaphoreError& error) {
    EXPECT_EQ(error.status, 110);
    EXPECT_EQ(error.status, ETIMEDOUT);
    EXPECT_EQ(error.line, 143U);
    EXPECT_STREQ(error.fileName,
                 "virtual bool UNIX_Event_Semaphore::wait(short unsigned int, "
                 "CUL_Event_Semaphore::WaitTimeScale, bool)");
    EXPECT_STREQ(error.text, "");
  }
  EXPECT_GE(wallMilliseconds() - start, 1000);
  EXPECT_TRUE(pending().empty());
  // The mutex is free.
  event.post();
  EXPECT_FALSE(event.wait(1, seconds, true));
}

TEST(UNIX_Event_Semaphore, WaitsOfManyThreadsEndEachAtItsOwnDeadline) {
  UNIX_Event_Semaphore event;
  std::vector<std::thread> threads;
  for (const unsigned short amount : std::vector<unsigned short>{300, 100, 200, 150, 100}) {
    threads.emplace_back([&event, amount] {
      const long long start = wallMilliseconds();
      EXPECT_TRUE(event.wait(amount, milliseconds, false));
      EXPECT_GE(wallMilliseconds() - start, amount);
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_TRUE(pending().empty());
}

TEST(UNIX_Event_Semaphore, TheLookAtAnOpenEventTakesNoLock) {
  UNIX_Event_Semaphore event;
  {
    const PosixFailure keptLocked(PosixCall::mutexUnlock, 0, 0);
    event.post();
  }
  // Nobody gets the mutex now, and still the wait passes.
  EXPECT_FALSE(event.wait(0, milliseconds, true));
  EXPECT_FALSE(event.wait(5, seconds, true));
  const PosixFailure heldAlready(PosixCall::mutexLock, 0, 0);
  event.reset();
}

CUL_CHILD(EventsWithoutATimer) {
  // With the first thread of a process a sanitizer may start one of its own.
  std::promise<void> end;
  std::thread first([&end] { end.get_future().wait(); });
  const long before = threadsOfTheProcess();
  std::optional<UNIX_Event_Semaphore> event(std::in_place);
  event->post();
  EXPECT_FALSE(event->wait(0, milliseconds, true));
  EXPECT_FALSE(event->wait(1, seconds, true));
  event->wait();
  event->reset();
  event.reset();
  EXPECT_EQ(threadsOfTheProcess(), before);

  event.emplace();
  EXPECT_TRUE(event->wait(1, milliseconds, false));
  EXPECT_EQ(threadsOfTheProcess(), before + 1);
  EXPECT_TRUE(event->wait(1, milliseconds, false));
  EXPECT_EQ(threadsOfTheProcess(), before + 1);
  end.set_value();
  first.join();
}

TEST(UNIX_Event_Semaphore, OnlyATimedWaitOnAClosedEventStartsTheTimer) {
  const ChildResult child = runChild("EventsWithoutATimer");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

CUL_CHILD(FirstTimedWait) {
  UNIX_Event_Semaphore event;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(event.wait(0, milliseconds, false));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(10));
}

TEST(UNIX_Event_Semaphore, AZeroLimitTakesALookOfTheTimer) {
  const ChildResult child = runChild("FirstTimedWait");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

TEST(UNIX_Event_Semaphore, WaitsOnWhenItWakesForNoReason) {
  UNIX_Event_Semaphore event;
  std::thread([&event] {
    const PosixFailure forNoReason(PosixCall::condWait, 0, 0);
    const long long start = wallMilliseconds();
    EXPECT_TRUE(event.wait(60, milliseconds, false));
    EXPECT_GE(wallMilliseconds() - start, 60);
  }).join();

  std::atomic<bool> isPosted = false;
  std::atomic<pid_t> task = 0;
  std::thread untimed([&] {
    const PosixFailure forNoReason(PosixCall::condWait, 0, 0);
    task = gettid();
    event.wait();
    EXPECT_TRUE(isPosted);
  });
  waitUntilAsleep(task);
  isPosted = true;
  event.post();
  untimed.join();
}

TEST(UNIX_Event_Semaphore, WhatHappenedBeforePostIsSeenAfterTheWait) {
  for (int round = 0; round < 300; ++round) {
    UNIX_Event_Semaphore event;
    int value = 0;  // plain: the thread sanitizer watches
    std::thread poster([&] {
      value = round;
      event.post();
    });
    if (round % 2 == 0) {
      event.wait();
    } else {
      EXPECT_FALSE(event.wait(60, seconds, true));
    }
    EXPECT_EQ(value, round);
    poster.join();
  }
}

TEST(UNIX_Event_Semaphore, WhoHasSeenItOpenMayDestroyItWhilePostIsStillAtWork) {
  auto event = std::make_unique<UNIX_Event_Semaphore>();
  std::atomic<bool> isOpen = false;
  std::atomic<pid_t> destroyer = 0;
  std::thread poster([&, posted = event.get()] {
    const PosixMoment beforeBroadcast(PosixCall::condBroadcast, [&] {
      isOpen = true;
      waitUntilAsleep(destroyer);
    });
    posted->post();
  });
  waitUntil([&isOpen] { return isOpen.load(); });
  EXPECT_FALSE(event->wait(60, seconds, true));
  destroyer = gettid();
  event.reset();  // asleep in here until the mutex is free
  poster.join();
}

// Checks that at `call` in `act` another thread does not get through with `request`.
static void expectMutexHeld(PosixCall call, const std::function<void()>& act,
                            const std::function<void()>& request) {
  std::atomic<bool> isThrough = false;
  std::atomic<pid_t> task = 0;
  std::promise<void> end;
  std::thread other;
  {
    const PosixMoment moment(call, [&] {
      other = std::thread([&] {
        task = gettid();
        request();
        isThrough = true;
        end.get_future().wait();
      });
      waitUntilAsleep(task);
      EXPECT_FALSE(isThrough);
    });
    act();
  }
  end.set_value();
  other.join();
}

TEST(UNIX_Event_Semaphore, ChangesUnderTheMutexUntilAllAreWoken) {
  UNIX_Event_Semaphore event;
  const auto reset = [&event] { event.reset(); };
  expectMutexHeld(
      PosixCall::condBroadcast, [&event] { event.post(); }, reset);
  WaitInstance wait(event, 65535000);
  expectMutexHeld(
      PosixCall::condBroadcast, [&wait] { wait.expire(); }, reset);
  // Closed by the time the mutex is given back.
  event.post();
  expectMutexHeld(PosixCall::mutexUnlock, reset, [&event] { event.wait(0, milliseconds, false); });
}

CUL_CHILD(ForkInTheMiddleOfAPost) {
  UNIX_Event_Semaphore event;
  std::atomic<bool> isPosting = false;
  std::atomic<bool> hasForked = false;
  std::thread poster([&] {
    const PosixMoment moment(PosixCall::condBroadcast, [&] {
      isPosting = true;
      while (!hasForked) {
        usleep(1000);
      }
    });
    event.post();
  });
  while (!isPosting) {
    usleep(1000);
  }
  const pid_t child = fork();
  if (child == 0) {
    event.reset();
    event.post();
    event.wait();
    _exit(0);
  }
  hasForked = true;
  poster.join();
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST(UNIX_Event_Semaphore, CanBeUsedInAChildOfAForkInTheMiddleOfAPost) {
  const ChildResult child = runChild("ForkInTheMiddleOfAPost", {.limitInSeconds = 30});
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

TEST(UNIX_Event_Semaphore, OutlivesWaitersPostersAndItsOwnEndInAnyMixture) {
  for (int round = 0; round < 20; ++round) {
    UNIX_Event_Semaphore event;
    std::atomic<unsigned> open = 0;
    std::atomic<unsigned> timedOut = 0;
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < 6; ++i) {
      threads.emplace_back([&, i] {
        std::minstd_rand random(i + 1);
        for (int n = 0; n < 10; ++n) {
          const auto amount = static_cast<unsigned short>(random() % 12);
          ++(event.wait(amount, milliseconds, false) ? timedOut : open);
        }
      });
    }
    for (int n = 0; n < 30; ++n) {
      event.post();
      std::this_thread::yield();
      event.reset();
      std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    event.post();
    for (std::thread& thread : threads) {
      thread.join();
    }
    EXPECT_EQ(open + timedOut, 60U);
    EXPECT_TRUE(pending().empty());
  }
}

CUL_CHILD(TimedWaitAfterExit) {
  std::atexit([] {
    UNIX_Event_Semaphore event;
    std::printf("timed out: %d\n", event.wait(15, milliseconds, false));
    event.post();
    std::printf("timed out: %d\n", event.wait(15, milliseconds, false));
    std::fflush(stdout);
  });
  UNIX_Event_Semaphore event;
  EXPECT_TRUE(event.wait(1, milliseconds, false));
  std::exit(0);
}

TEST(UNIX_Event_Semaphore, WaitsWithALimitAlsoWhileTheProcessExits) {
  const ChildResult child = runChild("TimedWaitAfterExit");
  EXPECT_EQ(child.status, 0) << child.err;
  EXPECT_EQ(child.out, "timed out: 1\ntimed out: 0\n");
}
