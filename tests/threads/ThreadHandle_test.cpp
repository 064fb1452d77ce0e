#include "Engine/utilities/ThreadHandle.h"

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/ThreadManager.h"

#include "tests/support/Child.h"
#include "tests/threads/PosixFailure.h"
#include "tests/threads/ThreadSupport.h"
#include "tests/threads/WorkerSupport.h"

namespace {

bool isOpen(UNIX_Event_Semaphore& event) {
  return !event.wait(0, CUL_Event_Semaphore::Seconds, false);
}

}  // namespace

TEST(ThreadHandle, OverridesNotifyInItsSlot) {
  EXPECT_EQ(virtualSlot(&ThreadHandle::notify), 4U);
  EXPECT_EQ(sizeof(ThreadHandle), sizeof(ThreadListener) + sizeof(void*));
}

TEST(ThreadHandle, KnowsItsManagerAndIsNotListedByItself) {
  QuickRunnable runnable;
  ThreadManager manager;
  Reference<ThreadHandle> handle = ThreadHandle::instance(manager, runnable);
  EXPECT_EQ(handle->manager(), &manager);
  EXPECT_EQ(manager.findThread(handle), -1);
  ThreadManager other;
  handle->setManager(&other);
  EXPECT_EQ(handle->manager(), &other);
  handle->setManager(nullptr);
  EXPECT_EQ(handle->manager(), nullptr);
  const Reference<ThreadHandle> orphan(new ThreadHandle(nullptr, runnable));
  EXPECT_EQ(orphan->manager(), nullptr);
}

TEST(ThreadHandle, OfNoManagerIsAListener) {
  QuickRunnable runnable(41);
  const Reference<ThreadHandle> handle(new ThreadHandle(nullptr, runnable));
  EXPECT_NE(handle->start(), 0U);
  handle->semaphore().wait();
  EXPECT_EQ(handle->result(), 41);
}

TEST(ThreadHandle, NotifyStoresTheResultOpensTheEventAndLeavesTheList) {
  QuickRunnable runnable;
  ThreadManager manager;
  Reference<ThreadHandle> handle = ThreadHandle::instance(manager, runnable);
  ASSERT_EQ(manager.append(handle), ThreadManager::THREADMANAGER_OK);
  EXPECT_FALSE(isOpen(manager.allEnded()));
  handle->notify(0, 42);
  EXPECT_EQ(handle->result(), 42);
  EXPECT_TRUE(isOpen(handle->semaphore()));
  EXPECT_EQ(manager.findThread(handle), -1);
  EXPECT_TRUE(isOpen(manager.allEnded()));
  // The run was marked as ended: the handle keeps its manager.
  EXPECT_EQ(handle->manager(), &manager);
}

TEST(ThreadHandle, NotifyOfAnotherManagersHandleLeavesThatList) {
  QuickRunnable runnable;
  ThreadManager first;
  ThreadManager second;
  Reference<ThreadHandle> handle = ThreadHandle::instance(first, runnable);
  first.append(handle);
  second.append(handle);
  handle->setManager(&second);
  handle->notify(0, 1);
  EXPECT_EQ(first.findThread(handle), 0);
  EXPECT_EQ(second.findThread(handle), -1);
  EXPECT_FALSE(isOpen(first.allEnded()));
  EXPECT_TRUE(isOpen(second.allEnded()));
}

TEST(ThreadHandle, NotifyOfAnOrphanTouchesNoManager) {
  QuickRunnable runnable;
  ThreadManager manager;
  Reference<ThreadHandle> handle = ThreadHandle::instance(manager, runnable);
  manager.append(handle);
  handle->setManager(nullptr);
  handle->notify(0, 1);
  EXPECT_EQ(manager.findThread(handle), 0);
  EXPECT_FALSE(isOpen(manager.allEnded()));
}

TEST(ThreadHandle, ReleasesItsLockBeforeItTakesItsManagers) {
  QuickRunnable runnable;
  ThreadManager manager;
  Reference<ThreadHandle> handle = ThreadHandle::instance(manager, runnable);
  manager.append(handle);
  bool wasFree = false;
  {
    // From the first lock after the event is open, nobody holds the handle's.
    const BeforeLocks locks([&handle, &wasFree] {
      if (handle->result() != 43 || !isOpen(handle->semaphore())) {
        return false;
      }
      std::future<ThreadManager*> other =
          std::async(std::launch::async, [&handle] { return handle->manager(); });
      wasFree = other.wait_for(std::chrono::seconds(60)) == std::future_status::ready;
      return true;
    });
    handle->notify(0, 43);
  }
  EXPECT_TRUE(wasFree);
}

TEST(ThreadHandle, SetManagerWaitsForANotifyThatIsUnderWay) {
  QuickRunnable runnable;
  ThreadManager manager;
  Reference<ThreadHandle> handle = ThreadHandle::instance(manager, runnable);
  manager.append(handle);
  std::atomic<pid_t> task = 0;
  std::atomic<bool> isSet = false;
  UNIX_Event_Semaphore gate;
  std::thread setter;
  {
    // The result is stored, the event is not open yet.
    const BeforeLocks locks([&] {
      if (handle->result() != 44) {
        return false;
      }
      setter = std::thread([&] {
        task = gettid();
        handle->setManager(nullptr);
        isSet = true;
        gate.wait();
      });
      waitUntilAsleep(task);
      EXPECT_FALSE(isSet);
      return true;
    });
    handle->notify(0, 44);
  }
  gate.post();
  setter.join();
  EXPECT_EQ(manager.findThread(handle), -1);
  EXPECT_EQ(handle->manager(), nullptr);
}

// The manager goes after the handle has seen it and before it is told.
TEST(ThreadHandle, DoesNotTellAManagerThatHasGoneMeanwhile) {
  QuickRunnable runnable;
  auto manager = std::make_unique<ThreadManager>();
  Reference<ThreadHandle> handle = ThreadHandle::instance(*manager, runnable);
  manager->append(handle);
  {
    const BeforeLocks locks([&] {
      if (handle->result() != 45 || !isOpen(handle->semaphore())) {
        return false;
      }
      manager.reset();
      return true;
    });
    handle->notify(0, 45);
  }
  EXPECT_EQ(manager, nullptr);
  EXPECT_EQ(handle->manager(), nullptr);
}

TEST(ThreadHandle, AManagerDoesNotGoWhileItIsTold) {
  QuickRunnable runnable;
  auto manager = std::make_unique<ThreadManager>();
  Reference<ThreadHandle> handle = ThreadHandle::instance(*manager, runnable);
  manager->append(handle);
  unsigned locks = 0;
  std::atomic<pid_t> task = 0;
  std::atomic<bool> hasGone = false;
  UNIX_Event_Semaphore gate;
  std::thread destroyer;
  {
    const BeforeLocks beforeLocks([&] {
      if (handle->result() != 46 || !isOpen(handle->semaphore())) {
        return false;
      }
      ++locks;
      if (locks < 2) {
        return false;  // the one that keeps the manager
      }
      destroyer = std::thread([&] {
        task = gettid();
        manager.reset();
        hasGone = true;
        gate.wait();
      });
      waitUntilAsleep(task);
      EXPECT_FALSE(hasGone);
      return true;
    });
    handle->notify(0, 46);
  }
  gate.post();
  destroyer.join();
  EXPECT_TRUE(hasGone);
}

TEST(ThreadHandle, HasNoManagerOnceThatIsGone) {
  QuickRunnable runnable;
  auto manager = std::make_unique<ThreadManager>();
  Reference<ThreadHandle> listed = ThreadHandle::instance(*manager, runnable);
  const Reference<ThreadHandle> unlisted = ThreadHandle::instance(*manager, runnable);
  manager->append(listed);
  EXPECT_EQ(listed->referenceCount(), 3U);
  manager.reset();
  EXPECT_EQ(listed->referenceCount(), 2U);
  EXPECT_EQ(listed->manager(), nullptr);
  EXPECT_EQ(unlisted->manager(), nullptr);
  listed->notify(0, 4);
  unlisted->notify(0, 5);
  EXPECT_EQ(listed->result(), 4);
  EXPECT_EQ(unlisted->result(), 5);
}

TEST(ThreadHandle, FindsAManagerOnlyWhileItIsThere) {
  // A new manager at the place of one that is gone is none of the old one's handles' business.
  alignas(ThreadManager) unsigned char place[sizeof(ThreadManager)];
  QuickRunnable runnable;
  auto* manager = new (place) ThreadManager;
  const Reference<ThreadHandle> handle = ThreadHandle::instance(*manager, runnable);
  manager->~ThreadManager();
  manager = new (place) ThreadManager;
  EXPECT_EQ(handle->manager(), nullptr);
  handle->notify(0, 1);
  EXPECT_FALSE(isOpen(manager->allEnded()));
  manager->~ThreadManager();
}

TEST(ThreadHandle, NeverStartedIsFreedWithItsLastReference) {
  QuickRunnable runnable;
  ThreadManager manager;
  const StdThread* const before = RunningThreads::instance().find(0);
  { const Reference<ThreadHandle> handle = ThreadHandle::instance(manager, runnable); }
  EXPECT_EQ(RunningThreads::instance().find(0), before);
  {
    Reference<ThreadHandle> handle = ThreadHandle::instance(manager, runnable);
    manager.append(handle);
  }
  EXPECT_NE(RunningThreads::instance().find(0), before);
  EXPECT_EQ(manager.destroy(0), ThreadManager::THREADMANAGER_OK);
  EXPECT_EQ(RunningThreads::instance().find(0), before);
}

CUL_CHILD(HandleLocks) {
  QuickRunnable runnable;
  const Reference<ThreadHandle> orphan(new ThreadHandle(nullptr, runnable));
  // The event's mutex is given back before.
  traceLockPlaces([&orphan] { orphan->notify(0, 1); }, 1);
}

CUL_CHILD(ManagedHandleLocks) {
  QuickRunnable runnable;
  ThreadManager manager;
  const Reference<ThreadHandle> handle = ThreadHandle::instance(manager, runnable);
  // The event's mutex is given back before.
  traceLockPlaces([&handle] { handle->notify(0, 1); }, 1);
}

CUL_CHILD(ManagerlessHandleLocks) {
  QuickRunnable runnable;
  auto manager = std::make_unique<ThreadManager>();
  const Reference<ThreadHandle> handle = ThreadHandle::instance(*manager, runnable);
  manager.reset();
  // The event's mutex is given back before.
  traceLockPlaces([&handle] { handle->notify(0, 1); }, 1);
}

TEST(ThreadHandle, LocksAtTheLinesCallersKnow) {
  const TracedChild orphan("HandleLocks");
  EXPECT_EQ(orphan.result.status, 0) << orphan.all();
  expectLockLines(orphan, "virtual void ThreadHandle::notify", 169, 182);
  const TracedChild managed("ManagedHandleLocks");
  EXPECT_EQ(managed.result.status, 0) << managed.all();
  expectLockLines(managed, "virtual void ThreadHandle::notify", 169, 176);
  const TracedChild managerless("ManagerlessHandleLocks");
  EXPECT_EQ(managerless.result.status, 0) << managerless.all();
  expectLockLines(managerless, "virtual void ThreadHandle::notify", 169, 182);
}
