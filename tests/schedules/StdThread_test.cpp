#include "Engine/utilities/StdThread.h"

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/RWlock.h"
#include "Engine/utilities/RunningThreads.h"
#include "Engine/utilities/UNIX/UNIX_Critical_Section.h"
#include "Engine/utilities/UNIX/UNIX_Event_Semaphore.h"
#include "Engine/utilities/UNIX/UNIX_Mutex.h"

#include "tests/schedules/Schedules.h"
#include "tests/schedules/ThreadsAlive.h"

namespace {

// What all threads of a schedule use.
struct Shared {
  UNIX_Critical_Section section;
  UNIX_Mutex mutex;
  RWlock readWrite{RWlockBase::WriterPriority};
  UNIX_Event_Semaphore never;
  std::atomic<bool> stop = false;
  unsigned counted = 0;  // under the section
  std::atomic<unsigned> mistakes = 0;
  std::atomic<unsigned> inside = 0;
  std::atomic<unsigned> deleted = 0;
};

// Takes a lock for the time of a scope.
class Held {
 public:
  explicit Held(CUL_Critical_Section& lock) : lock_(lock) { lock_.request("test", 1); }
  Held(const Held&) = delete;
  Held& operator=(const Held&) = delete;
  ~Held() noexcept(false) { lock_.release("test", 2); }

 private:
  CUL_Critical_Section& lock_;
};

class Reading {
 public:
  explicit Reading(RWlock& lock) : lock_(lock) { lock_.requestRead(); }
  Reading(const Reading&) = delete;
  Reading& operator=(const Reading&) = delete;
  ~Reading() { lock_.release(); }

 private:
  RWlock& lock_;
};

class Writing {
 public:
  explicit Writing(RWlock& lock) : lock_(lock) { lock_.requestWrite(); }
  Writing(const Writing&) = delete;
  Writing& operator=(const Writing&) = delete;
  ~Writing() { lock_.release(); }

 private:
  RWlock& lock_;
};

// Works until it is told to stop, or asked to end.
class Busy : public StdThread {
 public:
  Busy(Shared& shared, unsigned number, Chance chance, Termination& end)
      : StdThread(("Busy" + std::to_string(number)).c_str(), 0, &end),
        shared_(shared),
        number_(number),
        chance_(chance) {}
  ~Busy() override { ++shared_.deleted; }

  void run() override {
    Waits::numberThread(number_);
    for (unsigned i = 0; !shared_.stop; ++i) {
      workOnce();
      shared_.inside += i == atWork ? 1 : 0;
    }
  }

 private:
  static constexpr unsigned atWork = 20;
#if defined(__SANITIZE_THREAD__)
  // No waits for conditions: the sanitizer checks that only pthread_cancel() ends those.
  static constexpr unsigned kindsOfWork = 40;
#else
  static constexpr unsigned kindsOfWork = 61;
#endif

  void workOnce() {
    if (currentThread() != this) {
      ++shared_.mistakes;
    }
    switch (chance_.below(kindsOfWork) / 10) {
      case 0: {
        const Held held(shared_.section);
        const Held again(shared_.section);
        ++shared_.counted;
        break;
      }
      case 1: {
        const Held held(shared_.mutex);
        break;
      }
      case 2: {
        EncodedString text("text", EncodedString::utf8);
        text += text;
        if (text.convert(EncodedString::utf8).length() != 8) {
          ++shared_.mistakes;
        }
        break;
      }
      case 3:
        thread_yield();
        break;
      case 4: {
        const Reading reading(shared_.readWrite);
        break;
      }
      case 5: {
        const Writing writing(shared_.readWrite);
        break;
      }
      default:
        // Seldom, as it takes the timer 10 ms and more.
        static_cast<void>(shared_.never.wait(1, CUL_Event_Semaphore::Milliseconds, false));
    }
  }

  Shared& shared_;
  unsigned number_;
  Chance chance_;
};

// A thread of a schedule and its token.
struct Started {
  StdThread::Termination end;
  StdThread* thread = nullptr;
};

}  // namespace

TEST(ScheduledStdThread, EndsWhereItIsAskedToAndLeavesEveryLockFree) {
  const long threads = threadsBefore();
  underSchedules(6, [threads](const Schedule& schedule) {
    Shared shared;
    std::vector<Started> asked(2 + schedule.chance().below(2));
    std::vector<Started> others(1 + schedule.chance(1).below(2));
    unsigned number = 0;
    for (std::vector<Started>* const runs : {&asked, &others}) {
      for (Started& run : *runs) {
        ++number;
        run.thread = new Busy(shared, number, schedule.chance(number), run.end);
        run.thread->start_thread(0);
      }
    }
    EXPECT_TRUE(waitUntil([&] { return shared.inside == asked.size() + others.size(); }));
    for (Started& run : asked) {
      EXPECT_EQ(run.thread->requestTerminate(), 0);
    }
    for (Started& run : asked) {
      EXPECT_EQ(run.end.wait(0), 0);
    }
    EXPECT_EQ(shared.deleted, 0U);
    // The others go on, and so can we.
    {
      const Held held(shared.section);
      const Held mutex(shared.mutex);
      const Writing writing(shared.readWrite);
      EXPECT_TRUE(shared.readWrite.holdsWriteLock());
    }
    shared.stop = true;
    for (Started& run : others) {
      EXPECT_EQ(run.end.wait(0), 0);
    }
    EXPECT_EQ(shared.deleted, others.size());
    for (Started& run : asked) {
      delete run.thread;  // which an end by request leaves to its owner
    }
    EXPECT_EQ(shared.mistakes, 0U);
    EXPECT_EQ(shared.readWrite.readersWaiting(), 0);
    EXPECT_EQ(shared.readWrite.writersWaiting(), 0);
    List<const UNIX_Event_Semaphore::WaitInstance*> listed;
    UNIX_Event_Semaphore::timerInstance()->copyPending(listed);
    EXPECT_EQ(listed.count(), 0U);
    expectThreadsLeft(threads);
  });
}

TEST(ScheduledStdThread, IsFoundAsTheCurrentOneWhileOthersStartAndEnd) {
  const long threads = threadsBefore();
  underSchedules(20, [threads](const Schedule& schedule) {
    std::atomic<unsigned> mistakes = 0;
    std::atomic<unsigned> runs = 0;
    class Short : public StdThread {
     public:
      Short(std::atomic<unsigned>& mistakes, std::atomic<unsigned>& runs, Termination* end)
          : StdThread("Short", 0, end), mistakes_(mistakes), runs_(runs) {}
      void run() override {
        *_getKeyValue("own") = this;
        if (currentThread() != this || threadId() != pthread_self() ||
            *currentThread()->_getKeyValue("own") != this) {
          ++mistakes_;
        }
        ++runs_;
      }

     private:
      std::atomic<unsigned>& mistakes_;
      std::atomic<unsigned>& runs_;
    };
    constexpr unsigned each = 10;
    schedule.onThreads(3, [&](unsigned thread) {
      Chance chance = schedule.chance(thread);
      for (unsigned i = 0; i < each; ++i) {
        if (chance.oneIn(2)) {
          StdThread::Termination end;
          (new Short(mistakes, runs, &end))->start_thread(0);
          EXPECT_EQ(end.wait(0), 0);
        } else if (chance.oneIn(2)) {
          (new Short(mistakes, runs, nullptr))->start_thread(0);
        } else {
          // Never started, and unregistered on a thread that is not its own.
          const std::unique_ptr<StdThread> unstarted =
              std::make_unique<Short>(mistakes, runs, nullptr);
          ++runs;
        }
        // A thread that StdThread has not started is "main", whoever comes and goes.
        if (StdThread::currentThread() != StdThread::thread1()) {
          ++mistakes;
        }
      }
    });
    EXPECT_TRUE(waitUntil([&] { return runs == 3 * each; }));
    expectThreadsLeft(threads);
    EXPECT_EQ(mistakes, 0U);
  });
}
