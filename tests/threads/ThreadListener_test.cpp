#include "Engine/utilities/ThreadListener.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/StdException.h"

#include "tests/support/Child.h"
#include "tests/threads/PosixFailure.h"
#include "tests/threads/ThreadSupport.h"
#include "tests/threads/WorkerSupport.h"

namespace {

// Tells when it goes.
class TrackedListener : public ThreadListener {
 public:
  TrackedListener(Runnable& runnable, std::atomic<int>& gone)
      : ThreadListener(runnable), gone_(gone) {}

  TrackedListener(const TrackedListener&) = delete;
  TrackedListener& operator=(const TrackedListener&) = delete;
  ~TrackedListener() override { ++gone_; }

 private:
  std::atomic<int>& gone_;
};

Reference<ThreadListener> tracked(Runnable& runnable, std::atomic<int>& gone) {
  return Reference<ThreadListener>(new TrackedListener(runnable, gone));
}

std::set<pid_t> tasks() {
  std::set<pid_t> ids;
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir("/proc/self/task"), closedir);
  while (const dirent* entry = readdir(folder.get())) {
    if (const int id = std::atoi(entry->d_name); id > 0) {
      ids.insert(id);
    }
  }
  return ids;
}

}  // namespace

TEST(ThreadListener, HasNotifyBehindTheReferences) {
  EXPECT_EQ(virtualSlot(&ThreadListener::addReference), 2U);
  EXPECT_EQ(virtualSlot(&ThreadListener::removeReference), 3U);
  EXPECT_EQ(virtualSlot(&ThreadListener::notify), 4U);
}

TEST(ThreadListener, IsClosedWithoutResultAndIdUntilStarted) {
  QuickRunnable runnable(7);
  const Reference<ThreadListener> listener = ThreadListener::instance(runnable);
  EXPECT_TRUE(listener->semaphore().wait(0, CUL_Event_Semaphore::Seconds, false));
  EXPECT_EQ(listener->result(), 0);
  EXPECT_EQ(listener->threadId(), 0U);
  EXPECT_EQ(runnable.runs, 0);
}

TEST(ThreadListener, IsHeldByItsWorkerToo) {
  QuickRunnable runnable;
  const Reference<ThreadListener> listener = ThreadListener::instance(runnable);
  EXPECT_EQ(listener->referenceCount(), 2U);
  const WorkerThread* worker = unstartedWorker();
  ASSERT_NE(worker, nullptr);
  EXPECT_TRUE(worker->listener() == listener);
}

TEST(ThreadListener, RunsTheWorkOnceOnAThreadOfItsOwn) {
  std::atomic<pthread_t> worker = 0;
  FunctionRunnable runnable([&worker] {
    worker = pthread_self();
    return -17;
  });
  const Reference<ThreadListener> listener = ThreadListener::instance(runnable);
  const pthread_t id = listener->start();
  listener->semaphore().wait();
  EXPECT_EQ(runnable.runs, 1);
  EXPECT_NE(id, 0U);
  EXPECT_NE(id, pthread_self());
  EXPECT_EQ(id, worker);
  EXPECT_EQ(listener->threadId(), id);
  EXPECT_EQ(listener->result(), -17);
}

TEST(ThreadListener, KeepsAllBitsOfTheResult) {
  const QuickTimer timer;
  for (const int result : {-2147483647 - 1, -1, 0, 1, 0x7F00, 2147483647}) {
    QuickRunnable runnable(result);
    const Reference<ThreadListener> listener = ThreadListener::instance(runnable);
    listener->start();
    listener->semaphore().wait();
    EXPECT_EQ(listener->result(), result);
  }
}

TEST(ThreadListener, StartsNothingASecondTime) {
  GatedRunnable runnable;
  const Reference<ThreadListener> listener = ThreadListener::instance(runnable);
  const pthread_t id = listener->start();
  EXPECT_NE(id, 0U);
  EXPECT_EQ(listener->start(), 0U);
  EXPECT_EQ(listener->threadId(), id);
  runnable.gate.post();
  listener->semaphore().wait();
  EXPECT_EQ(listener->start(), 0U);
  EXPECT_EQ(runnable.runs, 1);
}

TEST(ThreadListener, IsStartedOnceByManyThreadsAtOnce) {
  QuickRunnable runnable;
  const Reference<ThreadListener> listener = ThreadListener::instance(runnable);
  std::atomic<int> started = 0;
  std::vector<std::thread> threads;
  threads.reserve(10);
  for (int i = 0; i < 10; ++i) {
    threads.emplace_back([&started, own = listener] {
      if (own->start() != 0) {
        ++started;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  listener->semaphore().wait();
  EXPECT_EQ(started, 1);
  EXPECT_EQ(runnable.runs, 1);
}

CUL_CHILD(FirstStartOfAProcess) {
  QuickRunnable runnable;
  const Reference<ThreadListener> listener = ThreadListener::instance(runnable);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_NE(listener->start(), 0U);
  // The timer sleeps before its first look.
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(9));
  listener->semaphore().wait();
}

TEST(ThreadListener, StartsOnlyAfterALookOfTheTimer) {
  const ChildResult child = runChild("FirstStartOfAProcess");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

TEST(ThreadListener, NotifyStoresTheResultAndOpensTheEvent) {
  QuickRunnable runnable;
  const Reference<ThreadListener> listener = ThreadListener::instance(runnable);
  listener->notify(0, 33);
  EXPECT_FALSE(listener->semaphore().wait(0, CUL_Event_Semaphore::Seconds, false));
  EXPECT_EQ(listener->result(), 33);
  EXPECT_EQ(listener->threadId(), 0U);
}

// The starter is stopped right before it makes the thread.
TEST(ThreadListener, NotifyWaitsForAStartThatIsUnderWay) {
  QuickRunnable runnable(4);
  const Reference<ThreadListener> listener = ThreadListener::instance(runnable);
  EXPECT_TRUE(listener->semaphore().wait(0, CUL_Event_Semaphore::Seconds, false));
  std::thread notifier;
  {
    const PosixMoment creation(PosixCall::create, [&listener, &notifier] {
      std::atomic<pid_t> task = 0;
      notifier = std::thread([&listener, &task] {
        task = gettid();
        listener->notify(0, 33);
      });
      waitUntilAsleep(task);
      EXPECT_EQ(listener->result(), 0);
    });
    EXPECT_NE(listener->start(), 0U);
  }
  notifier.join();
  EXPECT_TRUE(waitUntil([&listener] { return listener->referenceCount() == 1; }));
  EXPECT_EQ(runnable.runs, 1);
}

// The timer does not look before the event is open.
CUL_CHILD(NotifyDuringTheLook) {
  const TimerInHand timer(1000000);
  QuickRunnable runnable;
  const Reference<ThreadListener> listener = ThreadListener::instance(runnable);
  std::thread notifier;
  {
    const PosixMoment look(PosixCall::condWait, [&listener, &notifier] {
      notifier = std::thread([&listener] { listener->notify(0, 33); });
    });
    EXPECT_EQ(listener->start(), 0U);
  }
  notifier.join();
  EXPECT_EQ(listener->result(), 33);
  EXPECT_EQ(runnable.runs, 0);
}

TEST(ThreadListener, MayBeNotifiedWhileStartLooksAtTheEvent) {
  const ChildResult child = runChild("NotifyDuringTheLook");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

TEST(ThreadListener, DoesNotStartARunThatCountsAsEnded) {
  QuickRunnable runnable;
  std::atomic<int> gone = 0;
  {
    const Reference<ThreadListener> listener = tracked(runnable, gone);
    listener->notify(0, 33);
    EXPECT_EQ(listener->start(), 0U);
    EXPECT_EQ(listener->threadId(), 0U);
    EXPECT_EQ(listener->result(), 33);
  }
  EXPECT_EQ(gone, 1);
  EXPECT_EQ(runnable.runs, 0);
}

TEST(ThreadListener, GoesWithItsWorkerWhenItWasNeverStarted) {
  const StdThread* const before = RunningThreads::instance().find(0);
  QuickRunnable runnable;
  std::atomic<int> gone = 0;
  {
    const Reference<ThreadListener> listener = tracked(runnable, gone);
    EXPECT_NE(RunningThreads::instance().find(0), before);
    const Reference<ThreadListener> another(listener.get());
    EXPECT_EQ(listener->referenceCount(), 3U);
  }
  EXPECT_EQ(gone, 1);
  EXPECT_EQ(RunningThreads::instance().find(0), before);
}

TEST(ThreadListener, NeverStartedGoesOnceWhenManyThreadsLetItGo) {
  QuickRunnable runnable;
  std::atomic<int> gone = 0;
  static constexpr int rounds = 300;
  for (int round = 0; round < rounds; ++round) {
    Reference<ThreadListener> listener = tracked(runnable, gone);
    std::atomic<bool> go = false;
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&go, own = listener]() mutable {
        while (!go) {
          std::this_thread::yield();
        }
        own = Reference<ThreadListener>();
      });
    }
    listener = Reference<ThreadListener>();
    go = true;
    for (std::thread& thread : threads) {
      thread.join();
    }
    ASSERT_EQ(gone, round + 1);
  }
}

TEST(ThreadListener, SurvivesLettingGoWhileAnotherThreadStartsIt) {
  std::atomic<int> gone = 0;
  static constexpr int rounds = 100;
  std::vector<std::unique_ptr<QuickRunnable>> runnables;
  std::vector<std::thread> threads;
  threads.reserve(rounds);
  for (int round = 0; round < rounds; ++round) {
    runnables.push_back(std::make_unique<QuickRunnable>());
    Reference<ThreadListener> listener = tracked(*runnables.back(), gone);
    threads.emplace_back([own = listener] { EXPECT_NE(own->start(), 0U); });
    threads.emplace_back([own = listener]() mutable {
      own->semaphore().wait();
      own = Reference<ThreadListener>();
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  threads.clear();
  EXPECT_TRUE(waitUntil([&gone] { return gone == rounds; }));
  for (const auto& runnable : runnables) {
    EXPECT_EQ(runnable->runs, 1);
  }
}

TEST(ThreadListener, StaysUntilItsRunHasEndedWhenItsUsersHaveLeft) {
  std::atomic<int> gone = 0;
  GatedRunnable runnable;
  EXPECT_NE(tracked(runnable, gone)->start(), 0U);
  EXPECT_TRUE(waitUntil([&runnable] { return runnable.worker != 0; }));
  EXPECT_EQ(gone, 0);
  runnable.gate.post();
  EXPECT_TRUE(waitUntil([&gone] { return gone == 1; }));
}

TEST(ThreadListener, LeavesNothingBehindWhenADerivedConstructorThrows) {
  class Failing : public ThreadListener {
   public:
    explicit Failing(Runnable& runnable) : ThreadListener(runnable) {
      throw std::runtime_error("failing");
    }
  };
  const StdThread* const before = RunningThreads::instance().find(0);
  QuickRunnable runnable;
  EXPECT_THROW(new Failing(runnable), std::runtime_error);
  EXPECT_EQ(RunningThreads::instance().find(0), before);
}

TEST(ThreadListener, StaysUnstartedWhenThereCanBeNoThread) {
  QuickRunnable runnable(3);
  std::atomic<int> gone = 0;
  {
    const Reference<ThreadListener> listener = tracked(runnable, gone);
    // The timer is to be there already.
    EXPECT_TRUE(listener->semaphore().wait(0, CUL_Event_Semaphore::Seconds, false));
    {
      const PosixFailure failure(PosixCall::create, 11, 11);
      EXPECT_THROW(listener->start(), StdException);
    }
    EXPECT_EQ(listener->threadId(), 0U);
    EXPECT_EQ(listener->referenceCount(), 2U);
    EXPECT_NE(listener->start(), 0U);
    listener->semaphore().wait();
    EXPECT_EQ(listener->result(), 3);
  }
  EXPECT_TRUE(waitUntil([&gone] { return gone == 1; }));
}

TEST(ThreadListener, GoesWithItsWorkerWhenItCouldNotBeStarted) {
  QuickRunnable runnable;
  std::atomic<int> gone = 0;
  {
    const Reference<ThreadListener> listener = tracked(runnable, gone);
    EXPECT_TRUE(listener->semaphore().wait(0, CUL_Event_Semaphore::Seconds, false));
    const PosixFailure failure(PosixCall::create, 11, 11);
    EXPECT_THROW(listener->start(), StdException);
  }
  EXPECT_EQ(gone, 1);
}

// The starter is stopped after it has made the thread: before it has written down the thread's
// id in the listener, and before it gives the listener's lock back.
TEST(ThreadListener, WorkWaitsUntilItsThreadIdIsKnown) {
  std::atomic<pthread_t> known = 0;
  const Reference<ThreadListener>* listening = nullptr;
  UNIX_Event_Semaphore gate;
  FunctionRunnable runnable([&known, &listening, &gate] {
    known = (*listening)->threadId();
    gate.wait();
    return 0;
  });
  const Reference<ThreadListener> listener = ThreadListener::instance(runnable);
  listening = &listener;
  EXPECT_TRUE(listener->semaphore().wait(0, CUL_Event_Semaphore::Seconds, false));

  std::set<pid_t> before;
  std::atomic<pid_t> worker = 0;
  std::unique_ptr<PosixMoment> afterCreation;
  std::unique_ptr<PosixMoment> beforeIdIsKnown;
  std::unique_ptr<PosixMoment> beforeLockIsFree;
  bool wasStopped = false;
  pthread_t id = 0;
  {
    const PosixMoment creation(PosixCall::create, [&] {
      before = tasks();
      afterCreation = std::make_unique<PosixMoment>(PosixCall::mutexUnlock, [&] {
        beforeIdIsKnown = std::make_unique<PosixMoment>(PosixCall::mutexUnlock, [&] {
          for (const pid_t task : tasks()) {
            if (before.count(task) == 0) {
              worker = task;
            }
          }
          EXPECT_NE(worker, 0);
          waitUntilAsleep(worker);
          EXPECT_EQ(listener->threadId(), 0U);
          EXPECT_EQ(runnable.runs, 0);
          beforeLockIsFree = std::make_unique<PosixMoment>(PosixCall::mutexUnlock, [&] {
            EXPECT_NE(listener->threadId(), 0U);
            waitUntilAsleep(worker);
            EXPECT_EQ(runnable.runs, 0);
            wasStopped = true;
          });
        });
      });
    });
    id = listener->start();
    beforeLockIsFree.reset();
    beforeIdIsKnown.reset();
    afterCreation.reset();
  }
  gate.post();
  listener->semaphore().wait();
  EXPECT_TRUE(wasStopped);
  EXPECT_NE(id, 0U);
  EXPECT_EQ(known, id);
}

TEST(ThreadListener, AThousandRunsThatEndAtOnceKnowTheirIds) {
  const QuickTimer timer;
  static constexpr int starters = 50;
  static constexpr int runsEach = 20;
  std::atomic<int> gone = 0;
  std::vector<std::thread> threads;
  threads.reserve(starters);
  for (int i = 0; i < starters; ++i) {
    threads.emplace_back([&gone] {
      for (int n = 0; n < runsEach; ++n) {
        QuickRunnable runnable(n);
        const Reference<ThreadListener> listener = tracked(runnable, gone);
        const pthread_t id = listener->start();
        EXPECT_NE(id, 0U);
        listener->semaphore().wait();
        EXPECT_EQ(listener->threadId(), id);
        EXPECT_EQ(listener->result(), n);
        EXPECT_EQ(runnable.runs, 1);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_TRUE(waitUntil([&gone] { return gone == starters * runsEach; }));
}

TEST(ThreadListener, AWorkerAskedToEndInItsWorkNeverTellsAndHoldsNoLock) {
  std::atomic<int> gone = 0;
  EndlessRunnable endless;
  {
    const Reference<ThreadListener> listener = tracked(endless, gone);
    const pthread_t id = listener->start();
    StdThread* const worker = RunningThreads::instance().find(id);
    ASSERT_NE(worker, nullptr);
    EXPECT_TRUE(waitUntil([&endless] { return endless.isWorking.load(); }));
    EXPECT_EQ(worker->requestTerminate(), 0);
    EXPECT_TRUE(waitUntil([worker] { return worker->threadId() == 0; }));
    EXPECT_TRUE(endless.isUnwound);
    EXPECT_TRUE(listener->semaphore().wait(100, CUL_Event_Semaphore::Milliseconds, false));
    EXPECT_EQ(listener->threadId(), id);
    EXPECT_EQ(listener->start(), 0U);
    // The thread object stays, and holds the listener.
    EXPECT_EQ(listener->referenceCount(), 2U);
    // Nobody holds the lock.
    std::thread([&listener] { listener->notify(0, 9); }).join();
    EXPECT_EQ(listener->result(), 9);
  }
  EXPECT_EQ(gone, 0);
}

TEST(ThreadListener, AWorkerAskedToEndAfterItsWorkTellsAllTheSame) {
  class AskedToEnd : public ThreadListener {
   public:
    using ThreadListener::ThreadListener;
    void notify(pthread_t id, int result) override {
      EXPECT_EQ(pthread_kill(pthread_self(), SIGUSR2), 0);
      // The request comes again and again meanwhile.
      usleep(50000);
      StdThread::thread_yield();
      ThreadListener::notify(id, result);
    }
  };
  QuickRunnable runnable(6);
  const Reference<ThreadListener> listener(new AskedToEnd(runnable));
  EXPECT_NE(listener->start(), 0U);
  EXPECT_FALSE(listener->semaphore().wait(10, CUL_Event_Semaphore::Seconds, false));
  EXPECT_EQ(listener->result(), 6);
  EXPECT_TRUE(waitUntil([&listener] { return listener->referenceCount() == 1; }));
}

CUL_CHILD(WorkThatThrows) {
  FunctionRunnable runnable([]() -> int { throw StdException("Work.cpp", 12, "no luck", 5); });
  const Reference<ThreadListener> listener = ThreadListener::instance(runnable);
  listener->start();
  listener->semaphore().wait();
}

CUL_CHILD(WorkThatThrowsSomethingElse) {
  FunctionRunnable runnable([]() -> int { throw std::runtime_error("no luck"); });
  const Reference<ThreadListener> listener = ThreadListener::instance(runnable);
  listener->start();
  listener->semaphore().wait();
}

TEST(ThreadListener, WorkThatThrowsEndsTheProcessWithStatus99) {
  const TracedChild child("WorkThatThrows");
  EXPECT_EQ(child.result.status, 99) << child.all();
  EXPECT_EQ(child.countContaining("**ERROR: Work.cpp(12): Internal error on thread ThrdListener("),
            1)
      << child.all();
  const TracedChild other("WorkThatThrowsSomethingElse");
  EXPECT_EQ(other.result.status, 99) << other.all();
  EXPECT_EQ(other.countContaining("Unidentified internal error on thread ThrdListener("), 1)
      << other.all();
}
