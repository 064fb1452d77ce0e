#include "Engine/utilities/ThreadManager.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/StdException.h"

#include "tests/support/Child.h"
#include "tests/threads/PosixFailure.h"
#include "tests/threads/ThreadSupport.h"
#include "tests/threads/WorkerSupport.h"

namespace {

using Ids = std::vector<unsigned long>;

constexpr auto ok = ThreadManager::THREADMANAGER_OK;
constexpr auto failed = ThreadManager::THREADMANAGER_FAILED;

Ids idsOf(ThreadManager& manager) {
  const List<unsigned long> ids = manager.getThreadIds();
  return {ids.begin(), ids.end()};
}

bool isOpen(UNIX_Event_Semaphore& event) {
  return !event.wait(0, CUL_Event_Semaphore::Seconds, false);
}

Reference<ThreadHandle> handleOf(const ThreadManager& manager, pthread_t id) {
  return Reference<ThreadHandle>(dynamic_cast<ThreadHandle*>(manager.getThread(id).get()));
}

}  // namespace

TEST(ThreadManager, HasItsResultCodes) {
  EXPECT_EQ(static_cast<unsigned>(ok), 0U);
  EXPECT_EQ(static_cast<unsigned>(failed), 1U);
}

TEST(ThreadManager, IsEmptyAndItsEventIsClosedAtFirst) {
  ThreadManager manager;
  EXPECT_TRUE(idsOf(manager).empty());
  EXPECT_FALSE(isOpen(manager.allEnded()));
  EXPECT_EQ(manager.getThreadIds().capacity(), 0U);
}

TEST(ThreadManager, StartRunsTheWorkAndGivesItsThreadId) {
  ThreadManager manager;
  GatedRunnable runnable(12);
  const pthread_t id = manager.start(runnable);
  EXPECT_NE(id, 0U);
  EXPECT_TRUE(waitUntil([&runnable] { return runnable.worker != 0; }));
  EXPECT_EQ(runnable.worker, id);
  EXPECT_EQ(idsOf(manager), Ids{id});
  const Reference<ThreadListener> listener = manager.getThread(id);
  EXPECT_EQ(listener->threadId(), id);
  EXPECT_FALSE(isOpen(listener->semaphore()));
  EXPECT_FALSE(isOpen(manager.allEnded()));
  runnable.gate.post();
  manager.allEnded().wait();
  EXPECT_TRUE(isOpen(listener->semaphore()));
  EXPECT_EQ(listener->result(), 12);
  EXPECT_TRUE(idsOf(manager).empty());
  EXPECT_EQ(runnable.runs, 1);
}

TEST(ThreadManager, StartGivesTheIdOfARunThatEndsAtOnce) {
  ThreadManager manager;
  std::atomic<pthread_t> worker = 0;
  FunctionRunnable runnable([&worker] {
    worker = pthread_self();
    return 0;
  });
  const pthread_t id = manager.start(runnable);
  EXPECT_NE(id, 0U);
  manager.allEnded().wait();
  EXPECT_EQ(worker, id);
}

// Another thread marks the run as ended while start() waits for the timer.
TEST(ThreadManager, StartGivesZeroWhenTheRunCountsAsEndedBeforeItCouldStart) {
  ThreadManager manager;
  QuickRunnable runnable;
  std::thread marker;
  const StdThread* const before = RunningThreads::instance().find(0);
  {
    const BeforeLocks locks([&marker] {
      const WorkerThread* worker = unstartedWorker();
      // Held by its worker, the starter and the list.
      if (worker == nullptr || worker->listener()->referenceCount() != 3) {
        return false;
      }
      marker = std::thread([listener = worker->listener()] { listener->notify(0, 5); });
      return waitUntil([worker] { return worker->listener()->result() == 5; }) &&
             waitUntil([worker] { return isOpen(worker->listener()->semaphore()); });
    });
    EXPECT_EQ(manager.start(runnable), 0U);
  }
  marker.join();
  EXPECT_EQ(runnable.runs, 0);
  EXPECT_TRUE(idsOf(manager).empty());
  EXPECT_TRUE(isOpen(manager.allEnded()));
  EXPECT_EQ(RunningThreads::instance().find(0), before);
}

TEST(ThreadManager, TheEventOpensWithTheLastEndAndClosesWithTheNextStart) {
  ThreadManager manager;
  GatedRunnable first;
  GatedRunnable second;
  const pthread_t firstId = manager.start(first);
  const pthread_t secondId = manager.start(second);
  EXPECT_EQ(idsOf(manager), (Ids{firstId, secondId}));
  first.gate.post();
  EXPECT_TRUE(waitUntil([&] { return idsOf(manager) == Ids{secondId}; }));
  EXPECT_FALSE(isOpen(manager.allEnded()));
  second.gate.post();
  manager.allEnded().wait();
  GatedRunnable third;
  manager.start(third);
  EXPECT_FALSE(isOpen(manager.allEnded()));
  third.gate.post();
  manager.allEnded().wait();
}

TEST(ThreadManager, StartClosesTheEventBeforeItLooksAtTheTimer) {
  ThreadManager manager;
  EXPECT_FALSE(isOpen(manager.allEnded()));  // the timer is to be there already
  manager.orphanThreads();
  EXPECT_TRUE(isOpen(manager.allEnded()));
  QuickRunnable runnable;
  unsigned locks = 0;
  bool wasOpen = true;
  {
    const BeforeLocks beforeLocks([&] {
      const WorkerThread* worker = unstartedWorker();
      // Held by its worker, the starter and the list.
      if (worker == nullptr || worker->listener()->referenceCount() != 3) {
        return false;
      }
      ++locks;
      if (locks < 2) {
        return false;  // the event's own
      }
      wasOpen = isOpen(manager.allEnded());
      return true;
    });
    EXPECT_NE(manager.start(runnable), 0U);
  }
  EXPECT_FALSE(wasOpen);
  manager.allEnded().wait();
}

TEST(ThreadManager, WorkMayUseItsManager) {
  ThreadManager manager;
  QuickRunnable inner;
  std::atomic<bool> foundItself = false;
  FunctionRunnable outer([&] {
    foundItself = manager.getThread(pthread_self())->threadId() == pthread_self();
    manager.start(inner);
    return 0;
  });
  manager.start(outer);
  manager.allEnded().wait();
  EXPECT_TRUE(foundItself);
  EXPECT_EQ(inner.runs, 1);
}

TEST(ThreadManager, WorkMayDestroyItsManager) {
  auto* manager = new ThreadManager;
  FunctionRunnable runnable([manager] {
    delete manager;
    return 3;
  });
  Reference<ThreadHandle> handle = ThreadHandle::instance(*manager, runnable);
  manager->append(handle);
  handle->start();
  handle->semaphore().wait();
  EXPECT_EQ(handle->result(), 3);
  EXPECT_EQ(handle->manager(), nullptr);
}

TEST(ThreadManager, AppendListsAHandleOnce) {
  ThreadManager manager;
  QuickRunnable runnable;
  Reference<ThreadHandle> handle = ThreadHandle::instance(manager, runnable);
  Reference<ThreadHandle> other = ThreadHandle::instance(manager, runnable);
  EXPECT_EQ(handle->referenceCount(), 2U);
  EXPECT_EQ(manager.append(handle), ok);
  EXPECT_EQ(handle->referenceCount(), 3U);
  EXPECT_EQ(manager.append(handle), failed);
  EXPECT_EQ(handle->referenceCount(), 3U);
  EXPECT_EQ(manager.append(other), ok);
  EXPECT_EQ(idsOf(manager), (Ids{0, 0}));
  EXPECT_EQ(manager.findThread(handle), 0);
  EXPECT_EQ(manager.findThread(other), 1);
}

TEST(ThreadManager, RemoveTakesAHandleOffTheListOnce) {
  ThreadManager manager;
  QuickRunnable runnable;
  Reference<ThreadHandle> handle = ThreadHandle::instance(manager, runnable);
  Reference<ThreadHandle> other = ThreadHandle::instance(manager, runnable);
  EXPECT_EQ(manager.remove(handle), failed);
  manager.append(handle);
  EXPECT_EQ(manager.remove(other), failed);
  EXPECT_EQ(manager.remove(handle), ok);
  EXPECT_EQ(handle->referenceCount(), 2U);
  EXPECT_EQ(handle->manager(), &manager);
  EXPECT_EQ(manager.remove(handle), failed);
  EXPECT_FALSE(isOpen(manager.allEnded()));
  EXPECT_EQ(manager.append(handle), ok);
}

TEST(ThreadManager, DestroyTakesAnIndexBelowTheCount) {
  ThreadManager manager;
  EXPECT_EQ(manager.destroy(0), failed);
  QuickRunnable runnable;
  std::vector<Reference<ThreadHandle>> handles;
  for (int i = 0; i < 3; ++i) {
    handles.push_back(ThreadHandle::instance(manager, runnable));
    manager.append(handles.back());
  }
  EXPECT_EQ(manager.destroy(4), failed);
  EXPECT_EQ(manager.destroy(3), failed);
  EXPECT_EQ(manager.destroy(0xFFFFFFFF), failed);
  EXPECT_EQ(manager.destroy(1), ok);
  EXPECT_EQ(handles[1]->referenceCount(), 2U);
  EXPECT_EQ(handles[1]->manager(), &manager);
  EXPECT_EQ(manager.findThread(handles[0]), 0);
  EXPECT_EQ(manager.findThread(handles[1]), -1);
  EXPECT_EQ(manager.findThread(handles[2]), 1);
  EXPECT_EQ(manager.destroy(1), ok);
  EXPECT_EQ(manager.destroy(0), ok);
  EXPECT_EQ(manager.destroy(0), failed);
  EXPECT_FALSE(isOpen(manager.allEnded()));
}

TEST(ThreadManager, RemoveByIdOrphansARunThatHasNotEnded) {
  ThreadManager manager;
  GatedRunnable runnable(8);
  const pthread_t id = manager.start(runnable);
  const Reference<ThreadHandle> handle = handleOf(manager, id);
  EXPECT_EQ(manager.remove(id), ok);
  EXPECT_EQ(handle->manager(), nullptr);
  EXPECT_TRUE(idsOf(manager).empty());
  EXPECT_EQ(manager.remove(id), failed);
  // Only notify() opens the event.
  EXPECT_FALSE(isOpen(manager.allEnded()));
  runnable.gate.post();
  handle->semaphore().wait();
  EXPECT_EQ(handle->result(), 8);
  EXPECT_TRUE(waitUntil([&handle] { return handle->referenceCount() == 1; }));
  EXPECT_FALSE(isOpen(manager.allEnded()));
}

TEST(ThreadManager, RemoveByIdLeavesTheManagerToARunThatHasEnded) {
  ThreadManager manager;
  QuickRunnable runnable;
  Reference<ThreadHandle> handle = ThreadHandle::instance(manager, runnable);
  manager.append(handle);
  handle->semaphore().post();
  EXPECT_EQ(manager.remove(pthread_t{0}), ok);
  EXPECT_EQ(handle->manager(), &manager);
}

TEST(ThreadManager, RemoveByIdTakesTheFirstOfThatId) {
  ThreadManager manager;
  QuickRunnable runnable;
  Reference<ThreadHandle> first = ThreadHandle::instance(manager, runnable);
  Reference<ThreadHandle> second = ThreadHandle::instance(manager, runnable);
  manager.append(first);
  manager.append(second);
  EXPECT_EQ(manager.findThread(pthread_t{0}), 0);
  EXPECT_TRUE(manager.getThread(0) == first);
  EXPECT_EQ(manager.remove(pthread_t{0}), ok);
  EXPECT_EQ(manager.findThread(first), -1);
  EXPECT_EQ(manager.findThread(second), 0);
}

TEST(ThreadManager, FindsThreadsByTheirIds) {
  ThreadManager manager;
  GatedRunnable first;
  GatedRunnable second;
  const pthread_t firstId = manager.start(first);
  const pthread_t secondId = manager.start(second);
  EXPECT_EQ(manager.findThread(firstId), 0);
  EXPECT_EQ(manager.findThread(secondId), 1);
  EXPECT_EQ(manager.findThread(pthread_self()), -1);
  Reference<ThreadHandle> handle = handleOf(manager, secondId);
  EXPECT_EQ(manager.findThread(handle), 1);
  EXPECT_EQ(handle->threadId(), secondId);
  first.gate.post();
  second.gate.post();
  manager.allEnded().wait();
  EXPECT_EQ(manager.findThread(firstId), -1);
}

TEST(ThreadManager, DoesNotFindAnUnknownThread) {
  ThreadManager manager;
  QuickRunnable runnable;
  Reference<ThreadHandle> handle = ThreadHandle::instance(manager, runnable);
  manager.append(handle);
  try {
    static_cast<void>(manager.getThread(pthread_self()));
    FAIL() << "found a thread that is not there";
  } catch (const StdException& exception) {
    EXPECT_EQ(exception.text.view(), "Thread not found.");
    EXPECT_EQ(exception.status, -1);
    EXPECT_EQ(exception.fileName.view(),
              "const Reference<ThreadListener> ThreadManager::getThread(pthread_t) const");
    EXPECT_EQ(exception.line, 80U);
  }
  // The lock is free again.
  std::thread([&manager] { EXPECT_EQ(idsOf(manager).size(), 1U); }).join();
}

TEST(ThreadManager, NotifyOfAnUnknownRunOpensTheEventOfAnEmptyListOnly) {
  ThreadManager manager;
  QuickRunnable runnable;
  Reference<ThreadHandle> handle = ThreadHandle::instance(manager, runnable);
  manager.append(handle);
  manager.notify(pthread_self(), 1);
  EXPECT_FALSE(isOpen(manager.allEnded()));
  manager.remove(handle);
  EXPECT_FALSE(isOpen(manager.allEnded()));
  manager.notify(pthread_self(), 1);
  EXPECT_TRUE(isOpen(manager.allEnded()));
}

TEST(ThreadManager, NotifyOrphansARunThatIsNotMarkedAsEnded) {
  ThreadManager manager;
  QuickRunnable runnable;
  Reference<ThreadHandle> handle = ThreadHandle::instance(manager, runnable);
  manager.append(handle);
  manager.notify(0, 77);
  EXPECT_EQ(handle->manager(), nullptr);
  EXPECT_EQ(handle->result(), 0);
  EXPECT_EQ(manager.findThread(handle), -1);
  EXPECT_TRUE(isOpen(manager.allEnded()));
}

TEST(ThreadManager, OrphanedRunsGoOnAndKeepTheirManager) {
  ThreadManager manager;
  GatedRunnable first(1);
  GatedRunnable second(2);
  const Reference<ThreadHandle> firstHandle = handleOf(manager, manager.start(first));
  const Reference<ThreadHandle> secondHandle = handleOf(manager, manager.start(second));
  manager.orphanThreads();
  EXPECT_TRUE(idsOf(manager).empty());
  EXPECT_TRUE(isOpen(manager.allEnded()));
  EXPECT_EQ(firstHandle->manager(), &manager);
  EXPECT_EQ(secondHandle->manager(), &manager);
  EXPECT_FALSE(isOpen(firstHandle->semaphore()));

  // The end of an orphan does not look like the end of another run.
  GatedRunnable third;
  manager.start(third);
  first.gate.post();
  EXPECT_TRUE(waitUntil([&firstHandle] { return firstHandle->referenceCount() == 1; }));
  EXPECT_EQ(firstHandle->result(), 1);
  EXPECT_FALSE(isOpen(manager.allEnded()));
  third.gate.post();
  manager.allEnded().wait();

  // On an empty list it opens the event again.
  manager.allEnded().reset();
  second.gate.post();
  manager.allEnded().wait();
  EXPECT_EQ(secondHandle->result(), 2);
}

TEST(ThreadManager, OrphaningNothingOpensTheEvent) {
  ThreadManager manager;
  manager.orphanThreads();
  EXPECT_TRUE(isOpen(manager.allEnded()));
}

TEST(ThreadManager, ARunThatCannotStartIsNotListed) {
  ThreadManager manager;
  GatedRunnable live;
  const pthread_t id = manager.start(live);
  const StdThread* const before = RunningThreads::instance().find(0);
  QuickRunnable runnable;
  {
    const PosixFailure failure(PosixCall::create, 11, 11);
    EXPECT_THROW(manager.start(runnable), StdException);
  }
  EXPECT_EQ(idsOf(manager), Ids{id});
  EXPECT_EQ(RunningThreads::instance().find(0), before);
  EXPECT_FALSE(isOpen(manager.allEnded()));
  live.gate.post();
  manager.allEnded().wait();
  {
    const PosixFailure failure(PosixCall::create, 11, 11);
    EXPECT_THROW(manager.start(runnable), StdException);
  }
  EXPECT_TRUE(idsOf(manager).empty());
  EXPECT_TRUE(isOpen(manager.allEnded()));
  // The lock is free again.
  std::thread([&] { EXPECT_NE(manager.start(runnable), 0U); }).join();
  manager.allEnded().wait();
  EXPECT_EQ(runnable.runs, 1);
}

TEST(ThreadManager, RunsOutliveTheirManager) {
  static constexpr int runs = 5;
  std::vector<std::unique_ptr<GatedRunnable>> runnables;
  std::vector<Reference<ThreadHandle>> handles;
  {
    ThreadManager manager;
    for (int i = 0; i < runs; ++i) {
      runnables.push_back(std::make_unique<GatedRunnable>(i));
      handles.push_back(handleOf(manager, manager.start(*runnables.back())));
    }
    // Also one that is not listed any more.
    manager.remove(handles[0]);
  }
  for (int i = 0; i < runs; ++i) {
    EXPECT_EQ(handles[static_cast<size_t>(i)]->manager(), nullptr);
    runnables[static_cast<size_t>(i)]->gate.post();
    handles[static_cast<size_t>(i)]->semaphore().wait();
    EXPECT_EQ(handles[static_cast<size_t>(i)]->result(), i);
  }
}

TEST(ThreadManager, GoesWhileItsRunsAreEnding) {
  const QuickTimer timer;
  static constexpr int testers = 10;
  static constexpr int rounds = 5;
  static constexpr int runs = 4;
  std::vector<std::thread> threads;
  threads.reserve(testers);
  for (int i = 0; i < testers; ++i) {
    threads.emplace_back([] {
      for (int round = 0; round < rounds; ++round) {
        UNIX_Event_Semaphore gate;
        std::vector<std::unique_ptr<FunctionRunnable>> runnables;
        std::vector<Reference<ThreadHandle>> handles;
        auto manager = std::make_unique<ThreadManager>();
        for (int run = 0; run < runs; ++run) {
          runnables.push_back(std::make_unique<FunctionRunnable>([&gate] {
            gate.wait();
            return 1;
          }));
          handles.push_back(handleOf(*manager, manager->start(*runnables.back())));
        }
        gate.post();
        manager.reset();
        for (const Reference<ThreadHandle>& handle : handles) {
          handle->semaphore().wait();
          EXPECT_EQ(handle->result(), 1);
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

TEST(ThreadManager, MayGoAsSoonAsItsRunsHaveEnded) {
  const QuickTimer timer;
  static constexpr int testers = 20;
  static constexpr int rounds = 10;
  std::vector<std::thread> threads;
  threads.reserve(testers);
  for (int i = 0; i < testers; ++i) {
    threads.emplace_back([] {
      for (int round = 0; round < rounds; ++round) {
        QuickRunnable runnable;
        ThreadManager manager;
        EXPECT_NE(manager.start(runnable), 0U);
        manager.allEnded().wait();
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

TEST(ThreadManager, AThousandRunsOnManyManagersAllEnd) {
  const QuickTimer timer;
  static constexpr int managers = 50;
  static constexpr int runsEach = 20;
  std::atomic<int> runs = 0;
  std::vector<std::thread> threads;
  threads.reserve(managers);
  for (int i = 0; i < managers; ++i) {
    threads.emplace_back([&runs] {
      ThreadManager manager;
      FunctionRunnable runnable([&runs] { return ++runs; });
      for (int n = 0; n < runsEach; ++n) {
        EXPECT_NE(manager.start(runnable), 0U);
      }
      manager.allEnded().wait();
      EXPECT_TRUE(idsOf(manager).empty());
      EXPECT_EQ(runnable.runs, runsEach);
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(runs, managers * runsEach);
}

TEST(ThreadManager, ManyThreadsStartOnOneManager) {
  const QuickTimer timer;
  static constexpr int starters = 8;
  static constexpr int runsEach = 10;
  ThreadManager manager;
  QuickRunnable runnable;
  std::atomic<bool> isDone = false;
  std::vector<std::thread> threads;
  threads.reserve(starters);
  for (int i = 0; i < starters; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < runsEach; ++n) {
        EXPECT_NE(manager.start(runnable), 0U);
      }
    });
  }
  // Others look meanwhile.
  std::thread looker([&] {
    while (!isDone) {
      for (const unsigned long id : idsOf(manager)) {
        try {
          const Reference<ThreadListener> listener = manager.getThread(id);
          EXPECT_EQ(listener->threadId(), id);
        } catch (const StdException&) {
          // It has ended.
        }
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  });
  for (std::thread& thread : threads) {
    thread.join();
  }
  manager.allEnded().wait();
  isDone = true;
  looker.join();
  EXPECT_TRUE(idsOf(manager).empty());
  EXPECT_EQ(runnable.runs, starters * runsEach);
}

TEST(ThreadManager, ARunAskedToEndInItsWorkStaysListedAndLeavesTheManagerUsable) {
  EndlessRunnable endless;
  ThreadManager manager;
  const pthread_t id = manager.start(endless);
  StdThread* const worker = RunningThreads::instance().find(id);
  ASSERT_NE(worker, nullptr);
  EXPECT_TRUE(waitUntil([&endless] { return endless.isWorking.load(); }));
  EXPECT_EQ(worker->requestTerminate(), 0);
  EXPECT_TRUE(waitUntil([worker] { return worker->threadId() == 0; }));
  EXPECT_EQ(idsOf(manager), Ids{id});
  EXPECT_FALSE(isOpen(manager.allEnded()));
  QuickRunnable runnable;
  EXPECT_NE(manager.start(runnable), 0U);
  EXPECT_TRUE(waitUntil([&] { return idsOf(manager) == Ids{id}; }));
  EXPECT_EQ(manager.remove(id), ok);
}

CUL_CHILD(ManagerLocks) {
  QuickRunnable runnable;
  auto manager = std::make_unique<ThreadManager>();
  Reference<ThreadHandle> handle = ThreadHandle::instance(*manager, runnable);
  traceLockPlaces([&] { manager->append(handle); });
  EXPECT_EQ(manager->findThread(handle), 0);
  traceLockPlaces([&] { EXPECT_EQ(idsOf(*manager), Ids{0}); });
  traceLockPlaces([&] { EXPECT_EQ(manager->findThread(handle), 0); });
  traceLockPlaces([&] { EXPECT_EQ(manager->findThread(pthread_t{0}), 0); });
  traceLockPlaces([&] { EXPECT_TRUE(manager->getThread(0) == handle); });
  traceLockPlaces([&] { manager->notify(pthread_self(), 0); });
  traceLockPlaces([&] { EXPECT_EQ(manager->remove(pthread_self()), failed); });
  traceLockPlaces([&] { manager->remove(handle); });
  EXPECT_EQ(manager->findThread(handle), -1);
  traceLockPlaces([&] { EXPECT_EQ(manager->destroy(0), failed); });
  // The event's mutex is given back before.
  traceLockPlaces([&] { manager->orphanThreads(); }, 1);
}

TEST(ThreadManager, LocksAtTheLinesCallersKnow) {
  const TracedChild child("ManagerLocks");
  EXPECT_EQ(child.result.status, 0) << child.all();
  const std::string rc = "ThreadManager::THREADMANAGER_RC ThreadManager::";
  struct Place {
    std::string function;
    unsigned line;
  };
  const std::vector<Place> places = {
      {rc + "append", 25},
      {rc + "destroy", 40},
      {"List<long unsigned int> ThreadManager::getThreadIds", 46},
      {rc + "remove", 59},
      {"const Reference<ThreadListener> ThreadManager::getThread", 66},
      {rc + "remove", 71},
      {"void ThreadManager::orphanThreads", 86},
      {"int ThreadManager::findThread", 104},
      {"void ThreadManager::notify", 105},
      {"int ThreadManager::findThread", 124},
  };
  for (const Place& place : places) {
    expectLockLines(child, place.function, place.line, place.line);
  }
  EXPECT_EQ(child.countContaining("**WARNING"), 2 * static_cast<long>(places.size()))
      << child.all();
}

CUL_CHILD(ManagerLockOfStart) {
  ThreadManager manager;
  QuickRunnable runnable;
  {
    const PosixFailure failure(PosixCall::mutexUnlock, 35, 9);
    EXPECT_TRUE(idsOf(manager).empty());
  }
  {
    const PosixFailure failure(PosixCall::mutexLock, 35, 8);
    EXPECT_NE(manager.start(runnable), 0U);
  }
  manager.allEnded().wait();
}

TEST(ThreadManager, StartLocksAtTheLineCallersKnow) {
  const TracedChild child("ManagerLockOfStart");
  EXPECT_EQ(child.result.status, 0) << child.all();
  EXPECT_EQ(child.count("**WARNING: pthread_t ThreadManager::start(33): pthread_mutex_lock failed "
                        "- error = 8"),
            1)
      << child.all();
}

CUL_CHILD(ManagerLockOfDestructor) {
  auto manager = std::make_unique<ThreadManager>();
  {
    const PosixFailure failure(PosixCall::mutexUnlock, 35, 9);
    EXPECT_TRUE(idsOf(*manager).empty());
  }
  // The way to the manager is cut before.
  const PosixFailure failure(PosixCall::mutexLock, 35, 8, 1);
  manager.reset();
}

TEST(ThreadManager, TheDestructorLocksAtTheLineCallersKnow) {
  const TracedChild child("ManagerLockOfDestructor");
  EXPECT_EQ(child.result.status, 0) << child.all();
  EXPECT_EQ(child.count("**WARNING: ThreadManager::~ThreadManager(25): pthread_mutex_lock failed - "
                        "error = 8"),
            1)
      << child.all();
}
