#include "Engine/utilities/ThreadManager.h"

#include <atomic>
#include <memory>
#include <pthread.h>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/StdException.h"

#include "tests/schedules/Schedules.h"
#include "tests/schedules/ThreadsAlive.h"

namespace {

// Ends at once, after a moment, or when it is told to.
class Work : public Runnable {
 public:
  Work() = default;
  Work(const Work&) = delete;
  Work& operator=(const Work&) = delete;
  virtual ~Work() { EXPECT_EQ(runs, ends); }

  int work() override {
    ++runs;
    // Written down before the work begins.
    if (const ThreadListener* const known = listener.load(); known != nullptr) {
      EXPECT_EQ(known->threadId(), pthread_self());
    }
    if (isGated) {
      gate.wait();
    }
    ++ends;
    return result;
  }

  UNIX_Event_Semaphore gate;
  std::atomic<const ThreadListener*> listener = nullptr;
  bool isGated = false;
  int result = 0;
  std::atomic<int> runs = 0;
  std::atomic<int> ends = 0;
};

std::vector<std::unique_ptr<Work>> makeWorks(Chance chance, unsigned count) {
  std::vector<std::unique_ptr<Work>> works;
  for (unsigned i = 0; i < count; ++i) {
    works.push_back(std::make_unique<Work>());
    works.back()->isGated = chance.oneIn(2);
    works.back()->result = static_cast<int>(i) + 1;
  }
  return works;
}

// Handles whose ends are seen.
class CountedHandle : public ThreadHandle {
 public:
  CountedHandle(ThreadManager* manager, Runnable& runnable) : ThreadHandle(manager, runnable) {
    ++alive;
  }
  ~CountedHandle() override { --alive; }

  inline static std::atomic<int> alive = 0;
};

}  // namespace

TEST(ScheduledThreadManager, RunsEachWorkOnceAndTellsWhenAllHaveEnded) {
  const long threads = threadsBefore();
  underSchedules(6, [threads](const Schedule& schedule) {
    ThreadManager manager;
    std::vector<std::unique_ptr<Work>> works = makeWorks(schedule.chance(), 6);
    std::atomic<unsigned> started = 0;
    schedule.onThreads(4, [&](unsigned thread) {
      if (thread <= 2) {
        for (std::size_t i = thread - 1; i < works.size(); i += 2) {
          EXPECT_NE(manager.start(*works[i]), 0U);
          ++started;
        }
      } else if (thread == 3) {
        for (std::unique_ptr<Work>& work : works) {
          work->gate.post();
        }
      } else {
        while (started != works.size()) {
          const List<unsigned long> ids = manager.getThreadIds();
          for (const unsigned long id : ids) {
            try {
              const Reference<ThreadListener> listener = manager.getThread(id);
              EXPECT_EQ(listener->threadId(), id);
            } catch (const StdException& exception) {
              EXPECT_EQ(exception.status, -1);  // its run has ended meanwhile
            }
          }
          std::this_thread::yield();
        }
      }
    });
    manager.allEnded().wait();
    EXPECT_EQ(manager.getThreadIds().count(), 0U);
    expectThreadsLeft(threads);
    for (const std::unique_ptr<Work>& work : works) {
      EXPECT_EQ(work->ends, 1);
    }
  });
}

TEST(ScheduledThreadManager, IsDestroyedWhileItsRunsEndAndTheyGoOn) {
  const long threads = threadsBefore();
  underSchedules(10, [threads](const Schedule& schedule) {
    std::vector<std::unique_ptr<Work>> works = makeWorks(schedule.chance(), 4);
    auto manager = std::make_unique<ThreadManager>();
    for (std::unique_ptr<Work>& work : works) {
      EXPECT_NE(manager->start(*work), 0U);
    }
    schedule.onThreads(2, [&](unsigned thread) {
      if (thread == 1) {
        manager.reset();
      } else {
        for (std::unique_ptr<Work>& work : works) {
          work->gate.post();
        }
      }
    });
    expectThreadsLeft(threads);
    for (const std::unique_ptr<Work>& work : works) {
      EXPECT_EQ(work->ends, 1);
    }
  });
}

TEST(ScheduledThreadManager, DropsRunsByHandWhileTheyEnd) {
  const long threads = threadsBefore();
  underSchedules(6, [threads](const Schedule& schedule) {
    std::vector<std::unique_ptr<Work>> works = makeWorks(schedule.chance(), 5);
    {
      ThreadManager manager;
      schedule.onThreads(3, [&](unsigned thread) {
        Chance chance = schedule.chance(thread);
        if (thread == 1) {
          for (std::unique_ptr<Work>& work : works) {
            EXPECT_NE(manager.start(*work), 0U);
          }
        } else if (thread == 2) {
          for (std::unique_ptr<Work>& work : works) {
            work->gate.post();
          }
        } else {
          for (unsigned i = 0; i < 20; ++i) {
            switch (chance.below(4)) {
              case 0:
                manager.orphanThreads();
                break;
              case 1:
                static_cast<void>(manager.destroy(chance.below(5)));
                break;
              case 2: {
                const List<unsigned long> ids = manager.getThreadIds();
                if (ids.count() != 0) {
                  static_cast<void>(manager.remove(ids[0]));
                }
                break;
              }
              default: {
                // A handle of its own, listed and taken off again, never started.
                Reference<ThreadHandle> handle(new CountedHandle(&manager, *works[0]));
                EXPECT_EQ(manager.append(handle), ThreadManager::THREADMANAGER_OK);
                if (chance.oneIn(2)) {
                  static_cast<void>(manager.remove(handle));
                }
              }
            }
          }
        }
      });
      for (std::unique_ptr<Work>& work : works) {
        work->gate.post();
      }
      manager.orphanThreads();
      EXPECT_EQ(manager.getThreadIds().count(), 0U);
      manager.allEnded().wait();
    }
    expectThreadsLeft(threads);
    EXPECT_EQ(CountedHandle::alive, 0);
    for (const std::unique_ptr<Work>& work : works) {
      EXPECT_EQ(work->ends, 1);
    }
  });
}

TEST(ScheduledThreadListener, StartsOnceWhoeverStartsIt) {
  const long threads = threadsBefore();
  underSchedules(8, [threads](const Schedule& schedule) {
    std::vector<std::unique_ptr<Work>> works = makeWorks(schedule.chance(), 4);
    std::vector<Reference<ThreadListener>> listeners;
    for (std::unique_ptr<Work>& work : works) {
      work->gate.post();
      listeners.push_back(ThreadListener::instance(*work));
      work->listener = listeners.back().get();
    }
    std::atomic<unsigned> ids = 0;
    schedule.onThreads(3, [&](unsigned thread) {
      Chance chance = schedule.chance(thread);
      std::vector<Reference<ThreadListener>> own = listeners;
      for (unsigned i = 0; i < own.size(); ++i) {
        const Reference<ThreadListener> listener = own[(i + thread) % own.size()];
        ids += listener->start() != 0 ? 1 : 0;
        if (chance.oneIn(2)) {
          listener->semaphore().wait();
          EXPECT_NE(listener->result(), 0);
        }
      }
    });
    EXPECT_EQ(ids, works.size());
    for (std::size_t i = 0; i < works.size(); ++i) {
      listeners[i]->semaphore().wait();
      EXPECT_EQ(listeners[i]->result(), works[i]->result);
    }
    listeners.clear();
    expectThreadsLeft(threads);
    for (const std::unique_ptr<Work>& work : works) {
      EXPECT_EQ(work->ends, 1);
    }
  });
}
