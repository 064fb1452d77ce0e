#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <gnu/libc-version.h>
#include <memory>
#include <new>
#include <optional>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/internal/LockGuard.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/RWlock.h"
#include "Engine/utilities/RunningThreads.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/TraceFlags.h"
#include "Engine/utilities/UNIX/UNIX_Critical_Section.h"

#include "tests/support/Child.h"
#include "tests/support/StandIn.h"
#include "tests/threads/ThreadSupport.h"

namespace {

// Notes that the stack of a thread was unwound.
class Unwound {
 public:
  explicit Unwound(std::atomic<int>& count) : count_(count) {}
  Unwound(const Unwound&) = delete;
  Unwound& operator=(const Unwound&) = delete;
  ~Unwound() { ++count_; }

 private:
  std::atomic<int>& count_;
};

// What all threads use: after a thread has ended, others must still be able to.
void useTheLibrary() {
  for (int i = 0; i < 50; ++i) {
    const EncodedString text(std::string(static_cast<size_t>(i * 3), 'x').c_str(),
                             EncodedString::utf8);
    EncodedString copy = text;
    copy += text;
    EXPECT_EQ(copy.length(), static_cast<unsigned>(i * 6));
    CUL_TRACE(TraceType::cul, "useTheLibrary()", 1, "line %d", i);
    EXPECT_NE(StdThread::currentThread(), nullptr);
    std::free(std::malloc(static_cast<size_t>(i) * 1000));
  }
}

// Runs `wait` on a thread, asks it to end when `isReady` holds and waits for its end.
void expectEnd(const std::function<void(std::atomic<pid_t>&)>& wait,
               const std::function<bool(const std::atomic<pid_t>&)>& isReady) {
  std::atomic<int> unwound = 0;
  std::atomic<pid_t> task = 0;
  StdThread::Termination termination;
  const StdThread* thread = startThread(
      [&] {
        const Unwound here(unwound);
        wait(task);
      },
      &termination);
  const pthread_t id = thread->threadId();
  ASSERT_TRUE(isReady(task));
  EXPECT_EQ(thread->requestTerminate(), 0);
  EXPECT_EQ(termination.wait(0), 0);
  EXPECT_EQ(unwound, 1);
  // The object stays registered and undeleted, but its id may become another thread's.
  EXPECT_EQ(thread->threadId(), 0U);
  EXPECT_EQ(thread->requestTerminate(), ESRCH);
  EXPECT_EQ(RunningThreads::instance().find(0), thread);
  EXPECT_EQ(RunningThreads::instance().find(id), nullptr);
  useTheLibrary();
}

// Waits until no signal waits for the thread any more, or the thread has ended.
void waitUntilSignalled(const std::atomic<pid_t>& task) {
  waitUntil([&task] {
    std::ifstream status("/proc/self/task/" + std::to_string(task) + "/status");
    std::string word;
    while (status >> word && word != "SigPnd:") {
    }
    return !(status >> word) || word == "0000000000000000";
  });
}

bool isRunning(const std::atomic<pid_t>& task) {
  return waitUntil([&task] { return task != 0; });
}

struct Descriptors {
  int ends[2] = {-1, -1};
  Descriptors() { EXPECT_EQ(pipe(ends), 0); }
  Descriptors(const Descriptors&) = delete;
  Descriptors& operator=(const Descriptors&) = delete;
  ~Descriptors() {
    close(ends[0]);
    close(ends[1]);
  }
};

struct Mutex {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
};

class MutexGuard {
 public:
  explicit MutexGuard(Mutex& mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_.mutex); }
  MutexGuard(const MutexGuard&) = delete;
  MutexGuard& operator=(const MutexGuard&) = delete;
  ~MutexGuard() { pthread_mutex_unlock(&mutex_.mutex); }

 private:
  Mutex& mutex_;
};

// A frame that runs for ever and has nothing to clean up.
__attribute__((noinline)) void spin(std::atomic<unsigned long>& counter) {
  for (;;) {
    counter.fetch_add(1, std::memory_order_relaxed);
  }
}

// The same, mostly inside the C library.
__attribute__((noinline)) void allocateAllTheTime(std::atomic<unsigned long>& counter) {
  for (;;) {
    void* volatile memory = std::malloc(3000 + counter % 100);
    std::free(memory);
    counter.fetch_add(1, std::memory_order_relaxed);
  }
}

__attribute__((noinline)) void allocateOnce() {
  static_cast<void>(std::make_unique<char[]>(100000));
}

}  // namespace

#if defined(__SANITIZE_ADDRESS__)
// A thread that is asked to end anywhere may take the memory with it that only it knew of.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions() {
  return "leak:allocateAllTheTime\nleak:allocateOnce\n";
}
#endif

CUL_STAND_IN(const char*, gnu_get_libc_version, (void), noexcept)
CUL_STAND_IN(int, pthread_setcanceltype, (int type, int* former), CUL_NOTHING, type, former)
CUL_STAND_IN(int, pthread_kill, (pthread_t thread, int signal), noexcept, thread, signal)

// Versions from 2.41 on do not tell waits by the type of cancellation.
CUL_CHILD(RequestWithANewerCLibrary) {
  const Instead version(gnu_get_libc_versionStandIn, []() noexcept { return "2.41"; });
  const Instead type(pthread_setcanceltypeStandIn, [](int, int* former) {
    if (former != nullptr) {
      *former = PTHREAD_CANCEL_DEFERRED;
    }
    return 0;
  });
  const Descriptors pipe;
  StdThread::Termination termination;
  std::atomic<pid_t> task = 0;
  const StdThread* const thread = startThread(
      [&] {
        task = gettid();
        char byte = 0;
        static_cast<void>(!read(pipe.ends[0], &byte, 1));
      },
      &termination);
  waitUntilAsleep(task);
  thread->requestTerminate();
  EXPECT_EQ(termination.wait(0), 0);
}

TEST(TerminateRequest, EndsWaitsAlsoOnANewerCLibraryThanTheOneBuiltWith) {
  const ChildResult r = runChild("RequestWithANewerCLibrary", {.limitInSeconds = 30});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

TEST(TerminateRequest, EndsAThreadInABlockingRead) {
  const Descriptors pipe;
  expectEnd(
      [&pipe](std::atomic<pid_t>& task) {
        task = gettid();
        char byte;
        EXPECT_EQ(read(pipe.ends[0], &byte, 1), 1);
        ADD_FAILURE() << "the read has ended";
      },
      waitUntilAsleep);
}

TEST(TerminateRequest, EndsAThreadInAPoll) {
  expectEnd(
      [](std::atomic<pid_t>& task) {
        task = gettid();
        poll(nullptr, 0, -1);
        ADD_FAILURE() << "the poll has ended";
      },
      waitUntilAsleep);
}

#if !defined(__SANITIZE_THREAD__)  // which checks that only pthread_cancel() ends such a wait
TEST(TerminateRequest, EndsAThreadInAConditionWaitAndReleasesItsMutex) {
  Mutex mutex;
  expectEnd(
      [&mutex](std::atomic<pid_t>& task) {
        const MutexGuard guard(mutex);
        task = gettid();
        for (;;) {
          pthread_cond_wait(&mutex.condition, &mutex.mutex);
        }
      },
      waitUntilAsleep);
  EXPECT_EQ(pthread_mutex_trylock(&mutex.mutex), 0);
  pthread_mutex_unlock(&mutex.mutex);
}
#endif

TEST(TerminateRequest, EndsAThreadInUsleep) {
  expectEnd(
      [](std::atomic<pid_t>& task) {
        task = gettid();
        for (;;) {
          usleep(900000);
        }
      },
      waitUntilAsleep);
}

TEST(TerminateRequest, EndsAThreadInABusyLoop) {
  std::atomic<unsigned long> counter = 0;
  expectEnd(
      [&counter](std::atomic<pid_t>& task) {
        task = gettid();
        spin(counter);
      },
      [&counter](const std::atomic<pid_t>&) {
        return waitUntil([&counter] { return counter > 0; });
      });
}

TEST(TerminateRequest, EndsAThreadThatAllocatesAllTheTime) {
  std::atomic<unsigned long> counter = 0;
  for (int i = 0; i < 20; ++i) {
    expectEnd([&counter](std::atomic<pid_t>&) { allocateAllTheTime(counter); },
              [&counter](const std::atomic<pid_t>&) {
                const unsigned long before = counter;
                return waitUntil([&] { return counter > before + 10; });
              });
  }
}

TEST(TerminateRequest, EndsAThreadThatComputesAndYields) {
  expectEnd(
      [](std::atomic<pid_t>& task) {
        std::vector<std::string> texts(10);
        for (unsigned i = 0;; ++i) {
          texts[i % 10] = std::string(i % 5000, 'x');
          task = gettid();
          StdThread::thread_yield();
        }
      },
      isRunning);
}

TEST(TerminateRequest, YieldingInANoexceptFunctionGoesOn) {
  std::atomic<bool> isBehind = false;
  runOnThread([&isBehind] {
    const auto yield = [&isBehind]() noexcept {
      const std::string local(100, 'x');  // something to clean up
      raise(SIGUSR2);
      for (int i = 0; i < 100; ++i) {
        StdThread::thread_yield();
      }
      isBehind = true;
    };
    yield();
    for (;;) {
      StdThread::thread_yield();
    }
  });
  EXPECT_TRUE(isBehind);
}

TEST(TerminateRequest, EndsAThreadThatHandlesStringsAllTheTime) {
  expectEnd(
      [](std::atomic<pid_t>& task) {
        for (;;) {
          useTheLibrary();
          task = gettid();
          StdThread::thread_yield();
        }
      },
      isRunning);
}

TEST(TerminateRequest, ReleasesTheLocksThatGuardsHold) {
  UNIX_Critical_Section lock;
  const Descriptors pipe;
  expectEnd(
      [&](std::atomic<pid_t>& task) {
        const LockGuard outer(lock, "test", 1);
        const LockGuard inner(lock, "test", 2);
        task = gettid();
        char byte;
        EXPECT_EQ(read(pipe.ends[0], &byte, 1), 1);
      },
      waitUntilAsleep);
  std::thread([&lock] {
    EXPECT_EQ(pthread_mutex_trylock(lock.nativeHandle()), 0);
    pthread_mutex_unlock(lock.nativeHandle());
  }).join();
}

TEST(TerminateRequest, WaitsForALockThatIsBeingTaken) {
  UNIX_Critical_Section lock;
  std::atomic<bool> isOut = false;
  std::optional<LockGuard> mine;
  mine.emplace(lock, "owner", 1);
  StdThread::Termination termination;
  std::atomic<pid_t> task = 0;
  const StdThread* thread = startThread(
      [&] {
        task = gettid();
        for (;;) {
          LockGuard guard(lock, "waiter", 1);
          usleep(1);
          isOut = true;
        }
      },
      &termination);
  waitUntilAsleep(task);
  thread->requestTerminate();
  mine.reset();
  EXPECT_EQ(termination.wait(0), 0);
  LockGuard guard(lock, "owner", 2);
}

TEST(TerminateRequest, WaitsUntilALockOfTheCLibraryIsTaken) {
  // A robust mutex tells when its owner has ended with it.
  pthread_mutexattr_t robust;
  pthread_mutexattr_init(&robust);
  pthread_mutexattr_setrobust(&robust, PTHREAD_MUTEX_ROBUST);
  pthread_mutex_t mutex;
  pthread_mutex_init(&mutex, &robust);
  pthread_mutexattr_destroy(&robust);
  pthread_mutex_lock(&mutex);
  StdThread::Termination termination;
  std::atomic<pid_t> task = 0;
  const StdThread* thread = startThread(
      [&] {
        task = gettid();
        pthread_mutex_lock(&mutex);
        for (;;) {
          usleep(1000);
        }
      },
      &termination);
  waitUntilAsleep(task);
  EXPECT_EQ(thread->requestTerminate(), 0);
  // Else the wait might end by the lock alone.
  waitUntilSignalled(task);
  pthread_mutex_unlock(&mutex);
  EXPECT_EQ(termination.wait(0), 0);
  EXPECT_EQ(pthread_mutex_lock(&mutex), EOWNERDEAD) << "the thread ended while it waited";
  pthread_mutex_consistent(&mutex);
  pthread_mutex_unlock(&mutex);
  pthread_mutex_destroy(&mutex);
}

TEST(TerminateRequest, CannotEndTheProcessRightAfterTheStart) {
  for (int i = 0; i < 200; ++i) {
    StdThread::Termination termination;
    const auto sleep = [] {
      // The thread sanitizer may put a signal off until the next call.
      for (;;) {
        usleep(1000);
      }
    };
    const StdThread* thread = startThread(sleep, &termination);
    EXPECT_EQ(thread->requestTerminate(), 0);
    EXPECT_EQ(termination.wait(0), 0);
  }
  useTheLibrary();
}

CUL_CHILD(RequestsRightAfterTheStartInsideAGuard) {
  // On one processor the new thread runs when this one waits, so the request comes first.
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(sched_getcpu(), &one);
  EXPECT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
  const StdThread::BlockTermination block;
  for (int i = 0; i < 100; ++i) {
    StdThread::Termination termination;
    const auto sleep = [] {
      for (;;) {
        usleep(1000);
      }
    };
    EXPECT_EQ(startThread(sleep, &termination)->requestTerminate(), 0);
    EXPECT_EQ(termination.wait(0), 0);
  }
}

TEST(TerminateRequest, RightAfterTheStartIsNotTakenForARequestToTheStarter) {
  const ChildResult child = runChild("RequestsRightAfterTheStartInsideAGuard");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

TEST(TerminateRequest, WaitsUntilANoexceptFunctionIsLeft) {
  const Descriptors pipe;
  std::atomic<bool> isBehind = false;
  std::atomic<pid_t> task = 0;
  StdThread::Termination termination;
  const StdThread* thread = startThread(
      [&] {
        const auto readOne = [&]() noexcept {
          const std::string local(100, 'x');  // something to clean up
          char byte;
          task = gettid();
          while (read(pipe.ends[0], &byte, 1) == -1 && errno == EINTR) {
          }
          isBehind = true;
        };
        readOne();
        for (;;) {
          usleep(1000);
        }
      },
      &termination);
  waitUntilAsleep(task);
  EXPECT_EQ(thread->requestTerminate(), 0);
  EXPECT_EQ(write(pipe.ends[1], "x", 1), 1);
  EXPECT_EQ(termination.wait(0), 0);
  EXPECT_TRUE(isBehind);
}

CUL_CHILD(RequestToAThreadThatIsEnding) {
  static std::atomic<bool> isAsked = false;
  static std::atomic<pid_t> task = 0;
  static std::atomic<const StdThread*> thread = nullptr;
  const Instead meet(pthread_killStandIn, [](pthread_t id, int signal) {
    if (signal != SIGUSR2) {
      return pthread_killStandIn.real(id, signal);
    }
    // The thread waits with its id, which could be another thread's soon.
    isAsked = true;
    for (int i = 0; i < 100 && thread.load()->threadId() == id; ++i) {
      usleep(1000);
    }
    EXPECT_EQ(thread.load()->threadId(), id);
    return 0;
  });
  StdThread::Termination termination;
  thread = startThread(
      [] {
        task = gettid();
        while (!isAsked) {
        }
        pthread_exit(nullptr);
      },
      &termination);
  waitUntil([] { return task != 0; });
  EXPECT_EQ(thread.load()->requestTerminate(), 0);
  EXPECT_EQ(termination.wait(0), 0);
}

TEST(TerminateRequest, GoesToTheThreadItIsMeantForAlsoWhenThatEndsJustThen) {
  const ChildResult child = runChild("RequestToAThreadThatIsEnding");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

CUL_CHILD(RequestBehindACallOfNothing) {
  struct sigaction action = {};
  action.sa_handler = [](int) {
    raise(SIGUSR2);
    exit(7);
  };
  sigaction(SIGSEGV, &action, nullptr);
  runOnThread([] {
    void (*volatile nothing)() = nullptr;
    nothing();  // That is the point.
  });
}

TEST(TerminateRequest, WaitsInAHandlerOfACallThroughANullPointer) {
  const ChildResult child = runChild("RequestBehindACallOfNothing");
  EXPECT_EQ(child.status, 7) << child.out << child.err;
}

namespace {

// A noexcept function cannot be unwound, so a request is put off.
void askWhereNothingCanEnd() noexcept {
  const std::string local(100, 'x');  // something to clean up
  raise(SIGUSR2);
}

// The same, and keeps the repetitions of the request away.
void askOnceWhereNothingCanEnd() noexcept {
  const std::string local(100, 'x');
  raise(SIGUSR2);
  sigset_t request;
  sigemptyset(&request);
  sigaddset(&request, SIGUSR2);
  pthread_sigmask(SIG_BLOCK, &request, nullptr);
}

// A thread object whose memory is still there when it is gone, filled with ones.
class ThreadInAPlace : public StdThread {
 public:
  explicit ThreadInAPlace(Termination& termination) : StdThread("in a place", 0, &termination) {}
  void run() override {}

  static void* operator new(size_t) { return place; }
  static void operator delete(void*) {
    std::memset(place, 0xff, sizeof(ThreadInAPlace));
    raise(SIGUSR2);
  }

  static unsigned char place[];
};
alignas(16) unsigned char ThreadInAPlace::place[sizeof(ThreadInAPlace)];

}  // namespace

TEST(TerminateRequest, DoesNotTouchAThreadObjectThatIsGone) {
  StdThread::Termination termination;
  (new ThreadInAPlace(termination))->start_thread(0);
  EXPECT_EQ(termination.wait(0), 0);
  for (const unsigned char byte : ThreadInAPlace::place) {
    EXPECT_EQ(byte, 0xff);
  }
}

CUL_CHILD(RequestBeforeAnEscapingException) {
  std::atexit([] { StdThread::thread_yield(); });
  runOnThread([] {
    askOnceWhereNothingCanEnd();
    throw 42;
  });
}

TEST(TerminateRequest, DoesNotEndAThreadThatEndsTheProcess) {
  const ChildResult child = runChild("RequestBeforeAnEscapingException");
  EXPECT_EQ(child.status, 99) << child.out << child.err;
}

// How many timers this process has. The system numbers those that a process makes from 0 on.
unsigned countTimers() {
  constexpr int enough = 1000;
  unsigned count = 0;
  for (int id = 0; id < enough; ++id) {
    count += syscall(SYS_timer_getoverrun, id) != -1 ? 1 : 0;
  }
  return count;
}

CUL_CHILD(ManyRequestsThatArePutOff) {
  ASSERT_EQ(countTimers(), 0U);
  const auto askAndWait = [](void*) -> void* {
    askWhereNothingCanEnd();
    for (;;) {
      usleep(1000);
    }
  };
  for (unsigned i = 0; i < 20; ++i) {
    unsigned present = 0;
    runOnThread([&present] {
      const auto ask = [&present]() noexcept {
        askWhereNothingCanEnd();
        present = countTimers();
      };
      ask();
    });
    EXPECT_EQ(present, 1U);
    EXPECT_EQ(countTimers(), 0U);
    pthread_t foreign;
    EXPECT_EQ(pthread_create(&foreign, nullptr, askAndWait, nullptr), 0);
    EXPECT_EQ(pthread_join(foreign, nullptr), 0);
    EXPECT_EQ(countTimers(), 0U);
  }
}

TEST(TerminateRequest, LeavesNoTimerBehind) {
  const ChildResult child = runChild("ManyRequestsThatArePutOff");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

CUL_CHILD(RequestWithoutATimer) {
  const rlimit none = {0, 0};
  EXPECT_EQ(setrlimit(RLIMIT_SIGPENDING, &none), 0);
  bool isAlive = false;
  runOnThread([&isAlive] {
    askWhereNothingCanEnd();
    usleep(5000);
    isAlive = true;
    for (;;) {
      StdThread::thread_yield();
    }
  });
  EXPECT_TRUE(isAlive);
}

TEST(TerminateRequest, ThatCannotBeRepeatedActsWhenTheThreadYields) {
  const ChildResult child = runChild("RequestWithoutATimer");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

namespace {

// What a call has done that the thread may not end behind, and how it is undone.
void (*holdOn)() = nullptr;
void (*letGo)() = nullptr;
sighandler_t meetRequest = nullptr;

UNIX_Critical_Section heldBehindACall;
std::optional<StdThread::BlockTermination> guardBehindACall;

// Asks its own thread, until it ends or long after it would have. Where lines are counted, this
// one's are not: to count what an exception leaves, it would catch them, and then none could begin
// in a call that is declared to throw nothing.
__attribute__((noinline, no_profile_instrument_function)) void askAllTheTime() {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
  for (unsigned i = 0; i < 200 || std::chrono::steady_clock::now() < end; ++i) {
    raise(SIGUSR2);  // This call ends the thread when it returns, after a twentieth of a second.
    if (letGo != nullptr) {
      letGo();
    }
  }
}

// No request is repeated, so that each comes in raise().
void expectEndBehindACallOnlyWithoutIt() {
  const rlimit none = {0, 0};
  EXPECT_EQ(setrlimit(RLIMIT_SIGPENDING, &none), 0);
  std::atomic<int> unwound = 0;
  bool hasGoneOn = false;
  bool isStillThere = false;
  runOnThread([&] {
    const Unwound here(unwound);
    meetRequest = signal(SIGUSR2, [](int number) {
      meetRequest(number);
      if (holdOn != nullptr) {
        holdOn();
      }
    });
    askAllTheTime();
    hasGoneOn = true;
    holdOn = letGo = nullptr;
    askAllTheTime();
    isStillThere = true;
  });
  EXPECT_TRUE(hasGoneOn);
  EXPECT_FALSE(isStillThere);
  EXPECT_EQ(unwound, 1);
}

}  // namespace

CUL_CHILD(RequestInACallThatTakesALock) {
  holdOn = [] {
    const StdThread::BlockTermination block;
    heldBehindACall.request("holdOn()", 1);
  };
  letGo = [] { heldBehindACall.release("letGo()", 1); };
  expectEndBehindACallOnlyWithoutIt();
  EXPECT_TRUE(isFree(heldBehindACall));
}

TEST(TerminateRequest, EndsNoThreadBehindACallThatHasTakenALock) {
  const ChildResult child = runChild("RequestInACallThatTakesALock");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

CUL_CHILD(RequestInACallThatEntersAGuard) {
  holdOn = [] { guardBehindACall.emplace(); };
  letGo = [] { guardBehindACall.reset(); };
  expectEndBehindACallOnlyWithoutIt();
}

TEST(BlockTermination, EnteredInACallKeepsTheThreadThatTheCallWouldHaveEnded) {
  const ChildResult child = runChild("RequestInACallThatEntersAGuard");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

TEST(TerminateRequest, MayComeTwiceFromSeveralThreadsWhileTheThreadEnds) {
  constexpr unsigned largeStack = 256 * 1024 * 1024;  // given back to the system at once
  for (int i = 0; i < 100; ++i) {
    auto* thread = new FunctionThread([] { pause(); }, nullptr, "ending", largeStack);
    thread->start_thread(0);
    const auto ask = [thread] {
      int result = 0;
      do {
        result = thread->requestTerminate();
      } while (result == 0);
      EXPECT_EQ(result, ESRCH);
      EXPECT_EQ(thread->threadId(), 0U);
    };
    std::thread other(ask);
    ask();
    other.join();
  }
}

TEST(TerminateRequest, GivesTheResultOfPthreadKill) {
  const FunctionThread unstarted([] {});
  EXPECT_EQ(unstarted.requestTerminate(), ESRCH);
}

TEST(TerminateRequest, TheHandlerKeepsErrno) {
  const StdThread::BlockTermination block;
  errno = EDOM;
  StdThread::sigUSR2handler(SIGUSR2);
  EXPECT_EQ(errno, EDOM);
}

namespace {

// A thread that is asked to end inside a guard; afterwards it runs `then`.
void requestInsideGuard(const std::function<void()>& then) {
  StdThread::Termination termination;
  std::atomic<bool> isInside = false;
  std::atomic<bool> hasArrived = false;
  std::atomic<bool> goOn = false;
  const StdThread* thread = startThread(
      [&] {
        {
          const StdThread::BlockTermination outer;
          const StdThread::BlockTermination inner;
          isInside = true;
          // Cut short by the signal, and only by it.
          hasArrived = poll(nullptr, 0, 60000) == -1 && errno == EINTR;
          while (!goOn) {
            usleep(100);
          }
        }
        then();
      },
      &termination);
  waitUntil([&isInside] { return isInside.load(); });
  waitUntil([&] {
    thread->requestTerminate();
    return hasArrived.load();
  });
  goOn = true;
  EXPECT_EQ(termination.wait(0), 0);
}

}  // namespace

TEST(BlockTermination, ARequestInsideIsNotActedOnWhenTheGuardEnds) {
  bool isAlive = false;
  requestInsideGuard([&isAlive] {
    { const StdThread::BlockTermination another; }
    usleep(20000);  // a wait in which a request would act
    isAlive = true;
  });
  EXPECT_TRUE(isAlive);
}

TEST(BlockTermination, AnUncountedEndActsOnThePendingRequest) {
  bool isAlive = false;
  std::atomic<int> unwound = 0;
  requestInsideGuard([&] {
    const Unwound here(unwound);
    alignas(StdThread::BlockTermination) unsigned char place[sizeof(StdThread::BlockTermination)];
    // Counted on another thread object, ended here.
    auto* guard = new (place) StdThread::BlockTermination;
    guard->~BlockTermination();
    guard->~BlockTermination();
    isAlive = true;
  });
  EXPECT_FALSE(isAlive);
  EXPECT_EQ(unwound, 1);
}

TEST(BlockTermination, AnUncountedEndIsNotDisturbedByAnotherRequest) {
  bool isBlocked = false;
  requestInsideGuard([&isBlocked] {
    struct Look {
      bool& isBlocked;
      ~Look() {
        sigset_t now;
        pthread_sigmask(SIG_SETMASK, nullptr, &now);
        isBlocked = sigismember(&now, SIGUSR2) == 1;
      }
    } const look{isBlocked};
    alignas(StdThread::BlockTermination) unsigned char place[sizeof(StdThread::BlockTermination)];
    auto* guard = new (place) StdThread::BlockTermination;
    guard->~BlockTermination();
    guard->~BlockTermination();
  });
  EXPECT_TRUE(isBlocked);
}

TEST(BlockTermination, AnUncountedEndWithoutARequestOnlyResetsTheCount) {
  bool isAlive = false;
  runOnThread([&isAlive] {
    alignas(StdThread::BlockTermination) unsigned char place[sizeof(StdThread::BlockTermination)];
    auto* guard = new (place) StdThread::BlockTermination;
    guard->~BlockTermination();
    guard->~BlockTermination();
    // Had the count stayed at 65535, this guard would bring it to 0 and leave a request be.
    const StdThread::BlockTermination block;
    raise(SIGUSR2);
    isAlive = true;
  });
  EXPECT_TRUE(isAlive);
}

TEST(BlockTermination, HoldsARequestAlsoWhereTheRegistryFindsAnotherObject) {
  bool isAlive = false;
  runOnThread([&isAlive] {
    StdThread* const self = StdThread::currentThread();
    RunningThreads::instance().remove(self);
    EXPECT_NE(StdThread::currentThread(), self);
    {
      const StdThread::BlockTermination block;
      self->requestTerminate();
      usleep(20000);  // a wait in which a request would act
      isAlive = true;
    }
    RunningThreads::instance().append(self);
  });
  EXPECT_TRUE(isAlive);
}

TEST(BlockTermination, ARequestBeforeTheGuardIsNotLost) {
  std::atomic<bool> isAlive = false;
  runOnThread([&isAlive] {
    const auto work = [&isAlive] {
      askWhereNothingCanEnd();
      {
        const StdThread::BlockTermination block;
        usleep(5000);
      }
      usleep(60000000);
      isAlive = true;
    };
    work();
  });
  EXPECT_FALSE(isAlive);
}

TEST(TerminateRequest, ThatIsPendingIsMetWhereAReadWriteLockIsAskedForOutsideOfGuards) {
  for (void (RWlock::*ask)() : {&RWlock::requestRead, &RWlock::requestWrite}) {
    RWlock lock(RWlockBase::NoPriority);
    std::atomic<bool> isThroughGuard = false;
    std::atomic<bool> isThrough = false;
    runOnThread([&] {
      askOnceWhereNothingCanEnd();
      {
        const StdThread::BlockTermination block;
        (lock.*ask)();
        lock.release();
        isThroughGuard = true;
      }
      (lock.*ask)();
      isThrough = true;
      lock.release();
    });
    EXPECT_TRUE(isThroughGuard);
    EXPECT_FALSE(isThrough);
    lock.requestWrite();
    EXPECT_TRUE(lock.holdsWriteLock());
    lock.release();
  }
}

TEST(BlockTermination, ARequestBeforeTheGuardDoesNotEndAThreadThatYieldsInIt) {
  bool isThrough = false;
  runOnThread([&isThrough] {
    askOnceWhereNothingCanEnd();
    {
      const StdThread::BlockTermination block;
      StdThread::thread_yield();
      isThrough = true;
    }
    for (;;) {
      StdThread::thread_yield();
    }
  });
  EXPECT_TRUE(isThrough);
}

CUL_CHILD(RequestInATraceCall) {
  for (int i = 0; i < 30; ++i) {
    std::atomic<bool> isTracing = false;
    StdThread::Termination termination;
    const StdThread* thread = startThread(
        [&isTracing] {
          for (int line = 0;; ++line) {
            CUL_TRACE(TraceType::cul, "void traceForEver()", 1, "line %d of a thread", line);
            isTracing = true;
          }
        },
        &termination, "tracer");
    waitUntil([&isTracing] { return isTracing.load(); });
    EXPECT_EQ(thread->requestTerminate(), 0);
    EXPECT_EQ(termination.wait(0), 0);
    useTheLibrary();
  }
}

TEST(TerminateRequest, EndsAThreadThatTracesAllTheTimeBetweenTwoLines) {
  const TracedChild child("RequestInATraceCall");
  EXPECT_EQ(child.result.status, 0) << child.result.out << child.result.err;
  EXPECT_EQ(child.countContaining("Starting thread tracer"), 30);
  EXPECT_EQ(child.countContaining("Terminating thread"), 0);
  EXPECT_EQ(child.countContaining("(main    )**CUL: useTheLibrary(1): line 49"), 30);
  for (const std::string& line : child.lines) {
    // No line was cut short: each of the tracer's has its end.
    if (line.find("traceForEver") != std::string::npos) {
      ASSERT_EQ(line.substr(line.size() - 12), " of a thread") << line;
    }
  }
}

CUL_CHILD(RequestsAtAnyTime) {
  // Threads of all kinds are asked to end at whatever they are doing just then.
  UNIX_Critical_Section lock;
  std::atomic<int> unwound = 0;
  const std::vector<std::function<void()>> bodies = {
      [] { useTheLibrary(); },
      [] { CUL_TRACE(TraceType::cul, "void work()", 1, "a line"); },
      allocateOnce,
      [&lock] {
        LockGuard guard(lock, "work", 1);
        usleep(1);
      },
      [] { static_cast<void>(StdThread::currentThread()); },
      [] { usleep(1); },
  };
  for (unsigned round = 0; round < 120; ++round) {
    std::atomic<bool> isRunning = false;
    StdThread::Termination termination;
    const StdThread* thread = startThread(
        [&] {
          const Unwound here(unwound);
          for (;;) {
            bodies[round % bodies.size()]();
            isRunning = true;
            StdThread::thread_yield();
          }
        },
        &termination, "worker");
    waitUntil([&isRunning] { return isRunning.load(); });
    usleep(round * 7 % 100);
    thread->requestTerminate();
    thread->requestTerminate();
    EXPECT_EQ(termination.wait(0), 0);
    useTheLibrary();
    LockGuard guard(lock, "main", 1);
  }
  EXPECT_EQ(unwound, 120);
}

TEST(TerminateRequest, LeavesNothingBrokenBehindWheneverItComes) {
  const TracedChild child("RequestsAtAnyTime");
  EXPECT_EQ(child.result.status, 0) << child.result.out << child.result.err;
}
