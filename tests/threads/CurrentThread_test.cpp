#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <signal.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/RunningThreads.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/UNIX/UNIX_Mutex.h"

#include "tests/support/Child.h"
#include "tests/support/StandIn.h"
#include "tests/threads/PosixFailure.h"
#include "tests/threads/ThreadSupport.h"

namespace {

// Does on its thread what it is told, one thing after the other.
class Obedient {
 public:
  void loop() {
    std::unique_lock lock(mutex_);
    for (;;) {
      changed_.wait(lock, [this] { return isEnding_ || task_; });
      if (!task_) {
        return;
      }
      task_();
      task_ = nullptr;
      changed_.notify_all();
    }
  }

  void perform(std::function<void()> task) {
    std::unique_lock lock(mutex_);
    task_ = std::move(task);
    changed_.notify_all();
    changed_.wait(lock, [this] { return !task_; });
  }

  StdThread* current() {
    StdThread* found = nullptr;
    perform([&found] { found = StdThread::currentThread(); });
    return found;
  }

  void end() {
    const std::lock_guard lock(mutex_);
    isEnding_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::function<void()> task_;
  bool isEnding_ = false;
};

// A thread of the library's that obeys.
class ObedientThread {
 public:
  ObedientThread() : object_(startThread([this] { obedient_.loop(); }, &termination_)) {}
  ObedientThread(const ObedientThread&) = delete;
  ObedientThread& operator=(const ObedientThread&) = delete;
  ~ObedientThread() {
    obedient_.end();
    EXPECT_EQ(termination_.wait(0), 0);
  }

  StdThread* object() const { return object_; }

  StdThread* current() { return obedient_.current(); }

 private:
  Obedient obedient_;
  StdThread::Termination termination_;
  StdThread* object_;
};

// One that the library has not started.
class ForeignThread {
 public:
  ForeignThread() : thread_([this] { obedient_.loop(); }) {}
  ForeignThread(const ForeignThread&) = delete;
  ForeignThread& operator=(const ForeignThread&) = delete;
  ~ForeignThread() {
    obedient_.end();
    thread_.join();
  }

  StdThread* current() { return obedient_.current(); }

 private:
  Obedient obedient_;
  std::thread thread_;
};

// Whether the calling thread asks for a mutex when it looks itself up.
bool locksToFind(const StdThread* expected) {
  bool locks = false;
  const PosixMoment lock(PosixCall::mutexLock, [&locks] { locks = true; });
  EXPECT_EQ(StdThread::currentThread(), expected);
  const bool result = locks;
  if (!result) {
    UNIX_Mutex mutex;
    mutex.request("test", 1);
    mutex.release("test", 1);
  }
  return result;
}

// How many of the threads that were watched had no object of their own when all they had was
// destroyed.
std::atomic<unsigned> isMainInTheEnd = 0;
thread_local struct TheEnd {
  bool isWatched = false;
  ~TheEnd() {
    if (isWatched && StdThread::currentThread() == StdThread::thread1()) {
      ++isMainInTheEnd;
    }
  }
} theEnd;

// Starts and ends threads of both kinds, one of them on request, and makes and destroys objects.
void cause() {
  std::atomic<bool> isThere = false;
  StdThread::Termination termination;
  const std::unique_ptr<StdThread> asked(new FunctionThread(
      [&isThere] {
        static_cast<void>(StdThread::currentThread());
        isThere = true;
        for (;;) {
          pause();
        }
      },
      &termination));
  asked->start_thread(0);
  waitUntil([&isThere] { return isThere.load(); });
  EXPECT_EQ(asked->requestTerminate(), 0);
  EXPECT_EQ(termination.wait(0), 0);
  runOnThread([] { static_cast<void>(StdThread::currentThread()); });
  std::thread([] { static_cast<void>(StdThread::currentThread()); }).join();
  const FunctionThread never([] {});
}

}  // namespace

TEST(CurrentThread, IsFoundWithoutALockWhateverOtherThreadsStartAndEnd) {
  const auto test = [](const StdThread* self) {
    for (int i = 0; i < 20; ++i) {
      EXPECT_EQ(StdThread::currentThread(), self);
      EXPECT_FALSE(locksToFind(self));
      std::thread(cause).join();
      EXPECT_FALSE(locksToFind(self));
      cause();
      EXPECT_FALSE(locksToFind(self));
    }
  };
  runOnThread([&test] { test(StdThread::currentThread()); });
  std::thread([&test] { test(StdThread::thread1()); }).join();
}

TEST(CurrentThread, IsLookedUpAgainAfterAnObjectOfARunningThreadWasUnregisteredElsewhere) {
  const ObedientThread other;
  EXPECT_EQ(StdThread::currentThread(), StdThread::thread1());
  RunningThreads::instance().remove(other.object());
  EXPECT_TRUE(locksToFind(StdThread::thread1()));
  EXPECT_FALSE(locksToFind(StdThread::thread1()));
  RunningThreads::instance().append(other.object());
  EXPECT_TRUE(locksToFind(StdThread::thread1()));
}

TEST(CurrentThread, FollowsWhatTheThreadDoesToItsObject) {
  runOnThread([] {
    RunningThreads& registry = RunningThreads::instance();
    StdThread* const self = StdThread::currentThread();
    EXPECT_NE(self, StdThread::thread1());
    registry.remove(self);
    EXPECT_EQ(StdThread::currentThread(), StdThread::thread1());
    EXPECT_EQ(registry.find(pthread_self()), nullptr);
    registry.append(self);
    EXPECT_EQ(StdThread::currentThread(), self);
    registry.append(self);
    registry.remove(self);
    EXPECT_EQ(StdThread::currentThread(), self);
  });
}

TEST(CurrentThread, FollowsWhatAnotherThreadDoesToItsObject) {
  RunningThreads& registry = RunningThreads::instance();
  ObedientThread thread;
  ForeignThread foreign;
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(thread.current(), thread.object());
    EXPECT_EQ(foreign.current(), StdThread::thread1());
    registry.remove(thread.object());
    EXPECT_EQ(thread.current(), StdThread::thread1());
    EXPECT_EQ(foreign.current(), StdThread::thread1());
    registry.append(thread.object());
  }
  EXPECT_EQ(thread.current(), thread.object());
}

TEST(CurrentThread, IsNotWhatTheThreadFindsForAnotherId) {
  const ObedientThread other;
  EXPECT_EQ(StdThread::currentThread(), StdThread::thread1());
  EXPECT_EQ(RunningThreads::instance().find(other.object()->threadId()), other.object());
  EXPECT_EQ(StdThread::currentThread(), StdThread::thread1());
}

TEST(CurrentThread, FollowsWhatAnotherThreadDoesToTheMainObject) {
  RunningThreads& registry = RunningThreads::instance();
  StdThread* const main = StdThread::thread1();
  EXPECT_EQ(StdThread::currentThread(), main);
  std::thread([&] { registry.remove(main); }).join();
  EXPECT_EQ(registry.find(pthread_self()), nullptr);
  EXPECT_EQ(StdThread::currentThread(), main);
  std::thread([&] { registry.append(main); }).join();
  EXPECT_EQ(registry.find(pthread_self()), main);
  EXPECT_EQ(StdThread::currentThread(), main);
}

CUL_CHILD(ObjectDestroyedElsewhere) {
  static_cast<void>(StdThread::currentThread());
  // Never ends: its object is gone.
  static Obedient obedient;
  static const auto loop = [] { obedient.loop(); };
  class Victim : public StdThread {
   public:
    Victim() : StdThread("victim", 0, nullptr) {}
    void run() override { loop(); }
  };
  auto* const victim = new Victim;
  victim->start_thread(0);
  obedient.perform([&] { EXPECT_EQ(StdThread::currentThread(), victim); });
  delete victim;
  obedient.perform([] { EXPECT_EQ(StdThread::currentThread(), StdThread::thread1()); });
  _exit(testing::Test::HasFailure() ? 1 : 0);
}

TEST(CurrentThread, IsMainWhenItsObjectWasDestroyedElsewhere) {
  const ChildResult child = runChild("ObjectDestroyedElsewhere");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

TEST(CurrentThread, IsTheObjectUntilThatIsDestroyedAndMainAfterwards) {
  isMainInTheEnd = 0;
  class Witness : public StdThread {
   public:
    explicit Witness(Termination* termination) : StdThread("witness", 0, termination) {}
    ~Witness() override { EXPECT_EQ(StdThread::currentThread(), this); }
    void run() override {
      theEnd.isWatched = true;
      EXPECT_EQ(StdThread::currentThread(), this);
    }
  };
  StdThread::Termination termination;
  (new Witness(&termination))->start_thread(0);
  EXPECT_EQ(termination.wait(0), 0);
  EXPECT_EQ(isMainInTheEnd, 1U);
}

TEST(CurrentThread, OfAThreadAskedToEndIsItselfToTheEndAndThenMain) {
  constexpr unsigned count = 8;
  static std::atomic<unsigned> ready;
  static std::atomic<unsigned> wrong;
  ready = wrong = isMainInTheEnd = 0;
  struct InFrame {
    const StdThread* self;
    ~InFrame() { wrong += StdThread::currentThread() == self ? 0 : 1; }
  };
  std::vector<StdThread::Termination> terminations(count);
  std::vector<std::unique_ptr<FunctionThread>> threads;
  for (StdThread::Termination& termination : terminations) {
    threads.emplace_back(new FunctionThread(
        [] {
          theEnd.isWatched = true;
          const InFrame frame{StdThread::currentThread()};
          ++ready;
          for (;;) {
            wrong += StdThread::currentThread() == frame.self ? 0 : 1;
            StdThread::thread_yield();
          }
        },
        &termination));
    threads.back()->start_thread(0);
  }
  waitUntil([] { return ready == count; });
  for (unsigned i = 0; i < count; ++i) {
    EXPECT_EQ(threads[i]->requestTerminate(), 0);
    cause();
  }
  for (const StdThread::Termination& termination : terminations) {
    EXPECT_EQ(termination.wait(0), 0);
  }
  EXPECT_EQ(wrong, 0U);
  EXPECT_EQ(isMainInTheEnd, count);
}

TEST(CurrentThread, OfAForeignThreadWithTheIdOfAFormerThreadIsMain) {
  unsigned reused = 0;
  for (int i = 0; i < 50; ++i) {
    StdThread::Termination termination;
    startThread([] { static_cast<void>(StdThread::currentThread()); }, &termination);
    EXPECT_EQ(termination.wait(0), 0);
    std::pair<StdThread*, pthread_t> found = {nullptr, 0};
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, StdThread::defaultStackSize());
    pthread_t id = 0;
    ASSERT_EQ(pthread_create(
                  &id, &attributes,
                  [](void* result) -> void* {
                    *static_cast<std::pair<StdThread*, pthread_t>*>(result) = {
                        StdThread::currentThread(), pthread_self()};
                    return nullptr;
                  },
                  &found),
              0);
    EXPECT_EQ(pthread_join(id, nullptr), 0);
    EXPECT_EQ(found.first, StdThread::thread1());
    reused += found.second == termination.threadId() ? 1 : 0;
  }
  EXPECT_GT(reused, 0U);
}

TEST(CurrentThread, IsItselfOnEachOfManyThreadsAtOnceWhileTheyEndOneByOne) {
  constexpr unsigned count = 300;
  std::atomic<unsigned> ready = 0;
  std::atomic<unsigned> mayEnd = 0;
  std::atomic<unsigned> wrong = 0;
  class Member : public StdThread {
   public:
    Member(Termination* termination, std::function<void(const StdThread*)> body)
        : StdThread("member", 0, termination), body_(std::move(body)) {}
    void run() override { body_(this); }

   private:
    std::function<void(const StdThread*)> body_;
  };
  std::vector<StdThread::Termination> terminations(count);
  std::mutex mutex;
  std::condition_variable changed;
  for (unsigned i = 0; i < count; ++i) {
    (new Member(&terminations[i], [&, i](const StdThread* self) {
      wrong += StdThread::currentThread() == self ? 0 : 1;
      ++ready;
      std::unique_lock lock(mutex);
      changed.wait(lock, [&mayEnd, i] { return mayEnd > i; });
      wrong += StdThread::currentThread() == self ? 0 : 1;
    }))->start_thread(0);
  }
  waitUntil([&ready] { return ready == count; });
  for (unsigned i = 0; i < count; ++i) {
    {
      const std::lock_guard lock(mutex);
      mayEnd = i + 1;
    }
    changed.notify_all();
    EXPECT_EQ(terminations[i].wait(0), 0);
    EXPECT_EQ(StdThread::currentThread(), StdThread::thread1());
  }
  EXPECT_EQ(wrong, 0U);
}

// The thread sanitizer looks on.
TEST(CurrentThread, IsRightOnManyThreadsWhileTheRegistryChangesAllTheTime) {
  constexpr unsigned count = 3;
  std::atomic<bool> isDone = false;
  std::atomic<unsigned> wrong = 0;
  std::atomic<unsigned> ready = 0;
  std::vector<StdThread::Termination> terminations(count);
  std::vector<std::thread> foreign;
  const auto look = [&](const StdThread* self) {
    ++ready;
    while (!isDone) {
      wrong += StdThread::currentThread() == self ? 0 : 1;
      StdThread::thread_yield();
    }
  };
  for (StdThread::Termination& termination : terminations) {
    startThread([&look] { look(StdThread::currentThread()); }, &termination);
    foreign.emplace_back([&look] { look(StdThread::thread1()); });
  }
  waitUntil([&ready] { return ready == 2 * count; });
  RunningThreads& registry = RunningThreads::instance();
  for (int i = 0; i < 50; ++i) {
    cause();
    ObedientThread thread;
    EXPECT_EQ(thread.current(), thread.object());
    registry.remove(thread.object());
    EXPECT_EQ(thread.current(), StdThread::thread1());
    registry.append(thread.object());
    EXPECT_EQ(thread.current(), thread.object());
  }
  isDone = true;
  for (std::thread& thread : foreign) {
    thread.join();
  }
  for (const StdThread::Termination& termination : terminations) {
    EXPECT_EQ(termination.wait(0), 0);
  }
  EXPECT_EQ(wrong, 0U);
}

// The sanitizers call these functions themselves, before there is a thread and before they can
// bear to see what the functions do.
#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)
extern StandIn<int(const stack_t*, stack_t*)> sigaltstackStandIn;  // of AlternateStack_test.cpp

namespace {

// Called by a new thread before the library lets it run, with the lock of starts held elsewhere.
std::atomic<void (*)()> beforeTheStart = nullptr;
std::atomic<bool> isBeforeTheStart = false;

}  // namespace

CUL_STAND_IN(int, pthread_attr_destroy, (pthread_attr_t * attributes), noexcept, attributes)

TEST(CurrentThread, IsFoundByAThreadThatHasLookedBeforeItWasLetGo) {
  static std::atomic<StdThread*> early;
  early = nullptr;
  std::atomic<StdThread*> late = nullptr;
  isBeforeTheStart = false;
  beforeTheStart = [] { early = StdThread::currentThread(); };
  const Instead looks(sigaltstackStandIn, [](const stack_t* stack, stack_t* former) {
    if (void (*const function)() = beforeTheStart.load(); function != nullptr) {
      function();
      isBeforeTheStart = true;
    }
    return sigaltstackStandIn.real(stack, former);
  });
  // The starter calls it between the creation of the thread and the note of its id.
  const Instead waits(pthread_attr_destroyStandIn, [](pthread_attr_t* attributes) {
    waitUntil([] { return isBeforeTheStart.load(); });
    return pthread_attr_destroyStandIn.real(attributes);
  });
  StdThread::Termination termination;
  const StdThread* const thread =
      startThread([&late] { late = StdThread::currentThread(); }, &termination);
  beforeTheStart = nullptr;
  EXPECT_EQ(termination.wait(0), 0);
  EXPECT_EQ(early, StdThread::thread1());
  EXPECT_EQ(late, thread);
}
#endif
