#include "Engine/utilities/StdThread.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <future>
#include <memory>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/CUL_SemaphoreError.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/RunningThreads.h"
#include "Engine/utilities/StdException.h"

#include "tests/support/Child.h"
#include "tests/support/StandIn.h"
#include "tests/threads/PosixFailure.h"
#include "tests/threads/ThreadSupport.h"

namespace {

// The first call belongs to the main thread, whichever test of this program comes first. Children
// begin without the object.
class MainObject : public testing::Environment {
 public:
  void SetUp() override { EXPECT_NE(StdThread::thread1(), nullptr); }
};
[[maybe_unused]] const testing::Environment* const mainObject =
    testing::AddGlobalTestEnvironment(new MainObject);

std::string nameOf(const StdThread& thread) {
  const unsigned char* name = thread.name();
  return reinterpret_cast<const char*>(name);
}

// A thread that is never started.
class IdleThread : public StdThread {
 public:
  explicit IdleThread(const char* name = "idle", unsigned stackSize = 0,
                      Termination* termination = nullptr)
      : StdThread(name, stackSize, termination) {}
  void run() override {}
};

// The attributes of the calling thread, as the system sees them.
class OwnAttributes {
 public:
  OwnAttributes() { EXPECT_EQ(pthread_getattr_np(pthread_self(), &attributes_), 0); }
  OwnAttributes(const OwnAttributes&) = delete;
  OwnAttributes& operator=(const OwnAttributes&) = delete;
  ~OwnAttributes() { pthread_attr_destroy(&attributes_); }
  size_t stackSize() const {
    size_t size = 0;
    pthread_attr_getstacksize(&attributes_, &size);
    return size;
  }
  int detachState() const {
    int state = -1;
    pthread_attr_getdetachstate(&attributes_, &state);
    return state;
  }
  int scope() const {
    int scope = -1;
    pthread_attr_getscope(&attributes_, &scope);
    return scope;
  }

 private:
  pthread_attr_t attributes_;
};

}  // namespace

TEST(StdThread, RunIsTheFirstVirtualBehindTheDestructors) {
  EXPECT_EQ(virtualSlot(&StdThread::run), 2U);
}

TEST(StdThread, CopiesItsName) {
  char name[] = "worker";
  const IdleThread thread(name);
  name[0] = 'W';
  EXPECT_EQ(nameOf(thread), "worker");
}

TEST(StdThread, ANullNameIsEmpty) {
  const IdleThread thread(nullptr);
  EXPECT_EQ(nameOf(thread), "");
}

TEST(StdThread, TheDefaultStackSizeIs131072AndTheLeast) {
  EXPECT_EQ(StdThread::defaultStackSize(), 0x20000U);
  EXPECT_EQ(IdleThread("t", 0).stackSize(), 131072U);
  EXPECT_EQ(IdleThread("t", 131071).stackSize(), 131072U);
  EXPECT_EQ(IdleThread("t", 131072).stackSize(), 131072U);
  EXPECT_EQ(IdleThread("t", 131073).stackSize(), 131073U);
}

TEST(StdThread, RunsOnAThreadOfItsOwnWithTheStackAskedFor) {
  StdThread::Termination termination;
  size_t size = 0;
  int scope = -1;
  pthread_t id = 0;
  auto* thread = new FunctionThread(
      [&] {
        const OwnAttributes own;
        size = own.stackSize();
        scope = own.scope();
        id = pthread_self();
      },
      &termination, "t", 300000);
  thread->start_thread(4 * 1024 * 1024);
  EXPECT_EQ(termination.wait(0), 0);
  EXPECT_GE(size, 4U * 1024 * 1024);
  EXPECT_EQ(scope, PTHREAD_SCOPE_SYSTEM);
  EXPECT_NE(id, pthread_self());
  EXPECT_EQ(id, termination.threadId());
}

TEST(StdThread, ASmallerStackAtTheStartDoesNotCount) {
  std::promise<void> go;
  StdThread::Termination termination;
  auto* thread = new FunctionThread([&go] { go.get_future().wait(); }, &termination, "t", 300000);
  thread->start_thread(200000);
  EXPECT_EQ(thread->stackSize(), 300000U);
  go.set_value();
  termination.wait(0);
}

TEST(StdThread, ASecondStartDoesNothing) {
  std::promise<void> go;
  std::atomic<int> runs = 0;
  StdThread::Termination termination;
  FunctionThread* thread = startThread(
      [&] {
        ++runs;
        go.get_future().wait();
      },
      &termination);
  const pthread_t id = thread->threadId();
  thread->start_thread(1024 * 1024);
  EXPECT_EQ(thread->stackSize(), StdThread::defaultStackSize());
  EXPECT_EQ(thread->threadId(), id);
  go.set_value();
  termination.wait(0);
  EXPECT_EQ(runs, 1);
}

TEST(StdThread, IsDetachedWithoutATokenAndJoinableWithOne) {
  std::promise<int> detached;
  startThread([&] { detached.set_value(OwnAttributes().detachState()); });
  EXPECT_EQ(detached.get_future().get(), PTHREAD_CREATE_DETACHED);
  runOnThread([] { EXPECT_EQ(OwnAttributes().detachState(), PTHREAD_CREATE_JOINABLE); });
}

TEST(StdThread, ManyThreadsThatEndAtOnceAreStartedSafely) {
  std::atomic<unsigned> runs = 0;
  constexpr unsigned threads = 300;
  for (unsigned i = 0; i < threads; ++i) {
    startThread([&runs] { ++runs; });
  }
  waitUntil([&runs] { return runs == threads; });
}

TEST(StdThread, DeletesItselfOnItsOwnThreadWhenRunReturns) {
  struct Deleted {
    std::atomic<pthread_t> on = 0;
  } deleted;
  class Witness : public StdThread {
   public:
    Witness(Deleted& deleted, Termination& termination)
        : StdThread("witness", 0, &termination), deleted_(deleted) {}
    ~Witness() override { deleted_.on = pthread_self(); }
    void run() override { EXPECT_EQ(deleted_.on, 0U); }

   private:
    Deleted& deleted_;
  };
  StdThread::Termination termination;
  auto* thread = new Witness(deleted, termination);
  thread->start_thread(0);
  EXPECT_EQ(termination.wait(0), 0);
  EXPECT_EQ(deleted.on, termination.threadId());
  EXPECT_EQ(RunningThreads::instance().find(termination.threadId()), nullptr);
}

TEST(StdThread, StartsWithNoSignalBlocked) {
  sigset_t some;
  sigset_t before;
  sigemptyset(&some);
  sigaddset(&some, SIGUSR1);
  sigaddset(&some, SIGUSR2);
  pthread_sigmask(SIG_BLOCK, &some, &before);
  runOnThread([] {
    sigset_t now;
    pthread_sigmask(SIG_SETMASK, nullptr, &now);
    for (int signal = 1; signal < SIGRTMIN; ++signal) {
      EXPECT_EQ(sigismember(&now, signal), 0) << signal;
    }
    struct sigaction action;
    sigaction(SIGUSR2, nullptr, &action);
    EXPECT_EQ(action.sa_handler, &sigUSR2handler);
  });
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(StdThread, EachThreadInstallsTheHandlerOfRequestsItself) {
  StdThread::Termination termination;
  {
    const PosixMoment changed(PosixCall::create, [] { signal(SIGUSR2, SIG_DFL); });
    startThread(
        [] {
          struct sigaction action;
          sigaction(SIGUSR2, nullptr, &action);
          EXPECT_EQ(action.sa_handler, &sigUSR2handler);
        },
        &termination);
  }
  EXPECT_EQ(termination.wait(0), 0);
}

TEST(StdThread, AFailedCreationThrowsAndLeavesTheObjectUnstarted) {
  StdThread::Termination termination;
  std::atomic<bool> hasRun = false;
  auto* thread = new FunctionThread([&hasRun] { hasRun = true; }, &termination);
  {
    const PosixFailure failure(PosixCall::create, EAGAIN, 0);
    try {
      thread->start_thread(0);
      ADD_FAILURE() << "nothing was thrown";
    } catch (const StdException& exception) {
      EXPECT_STREQ(exception.fileName, "Engine/utilities/UNIX/UNIXStdThread");
      EXPECT_EQ(exception.line, 169U);
      EXPECT_EQ(exception.status, -1);
      EXPECT_STREQ(exception.text, "");
    }
  }
  EXPECT_EQ(thread->threadId(), 0U);
  EXPECT_EQ(termination.threadId(), 0U);
  EXPECT_EQ(termination.wait(0), -1);
  EXPECT_EQ(thread->requestTerminate(), ESRCH);
  thread->start_thread(0);
  EXPECT_EQ(termination.wait(0), 0);
  EXPECT_TRUE(hasRun);
}

#if !defined(__SANITIZE_THREAD__)  // which makes these calls before a thread is ready for it
CUL_STAND_IN(int, pthread_attr_init, (pthread_attr_t * attributes), noexcept, attributes)
CUL_STAND_IN(int, pthread_attr_setdetachstate, (pthread_attr_t * attributes, int state), noexcept,
             attributes, state)
CUL_STAND_IN(int, pthread_attr_setsigmask_np,
             (pthread_attr_t * attributes, const sigset_t* blocked), CUL_NOTHING, attributes,
             blocked)

TEST(StdThread, AFailedAttributeThrowsAndLeavesTheObjectUnstarted) {
  std::atomic<bool> hasRun = false;
  auto* const thread = new FunctionThread([&hasRun] { hasRun = true; });
  const auto expectFailure = [thread] {
    try {
      thread->start_thread(0);
      ADD_FAILURE() << "nothing was thrown";
    } catch (const StdException& exception) {
      EXPECT_STREQ(exception.fileName, "Engine/utilities/UNIX/UNIXStdThread");
      EXPECT_EQ(exception.line, 169U);
      EXPECT_EQ(exception.status, -1);
    }
    EXPECT_EQ(thread->threadId(), 0U);
  };
  {
    const Instead none(pthread_attr_initStandIn, [](auto...) { return ENOMEM; });
    expectFailure();
  }
  {
    const Instead none(pthread_attr_setdetachstateStandIn, [](auto...) { return EINVAL; });
    expectFailure();
  }
  {
    const Instead none(pthread_attr_setsigmask_npStandIn, [](auto...) { return ENOMEM; });
    expectFailure();
  }
  thread->start_thread(0);
  EXPECT_TRUE(waitUntil([&hasRun] { return hasRun.load(); }));
}
#endif

CUL_STAND_IN(int, sched_yield, (), noexcept)

TEST(StdThread, YieldsTheProcessor) {
  static std::atomic<pthread_t> yielded = 0;
  const Instead note(sched_yieldStandIn, []() noexcept {
    yielded = pthread_self();
    return sched_yieldStandIn.real();
  });
  StdThread::thread_yield();
  EXPECT_EQ(yielded, pthread_self());
}

TEST(StdThread, TheCurrentThreadOfForeignThreadsIsTheOneMainObject) {
  StdThread* here = StdThread::currentThread();
  EXPECT_EQ(here, StdThread::thread1());
  EXPECT_EQ(nameOf(*here), "main");
  EXPECT_EQ(here->threadId(), pthread_self());
  EXPECT_EQ(here->stackSize(), StdThread::defaultStackSize());
  std::thread([here] { EXPECT_EQ(StdThread::currentThread(), here); }).join();
  here->start_thread(0);
  EXPECT_EQ(here->threadId(), pthread_self());
}

TEST(StdThread, FindsItselfAsTheCurrentThread) {
  StdThread::Termination termination;
  std::atomic<StdThread*> found = nullptr;
  const StdThread* thread =
      startThread([&found] { found = StdThread::currentThread(); }, &termination);
  termination.wait(0);
  EXPECT_EQ(found, thread);
}

TEST(StdThread, CurrentThreadIdIsThePosixId) {
  EXPECT_EQ(StdThread::currentThreadId(), pthread_self());
  runOnThread([] { EXPECT_EQ(StdThread::currentThreadId(), pthread_self()); });
  StdThread::thread_yield();
}

TEST(StdThread_Termination, WaitsForTheEndOfTheThread) {
  StdThread::Termination termination;
  EXPECT_EQ(termination.threadId(), 0U);
  std::atomic<bool> isDone = false;
  std::promise<void> go;
  startThread(
      [&] {
        go.get_future().wait();
        isDone = true;
      },
      &termination);
  EXPECT_NE(termination.threadId(), 0U);
  go.set_value();
  EXPECT_EQ(termination.wait(1), 0);
  EXPECT_TRUE(isDone);
  EXPECT_NE(termination.threadId(), 0U);
}

TEST(StdThread_Termination, WaitTellsWhetherAnUnstartedThreadUsesTheToken) {
  StdThread::Termination termination;
  EXPECT_EQ(termination.wait(0), 0);
  {
    const IdleThread thread("idle", 0, &termination);
    EXPECT_EQ(termination.wait(0), -1);
  }
  EXPECT_EQ(termination.wait(0), 0);
}

TEST(StdThread_Termination, GivesTheResultOfTheJoin) {
  StdThread::Termination termination;
  startThread([] {}, &termination);
  {
    const PosixFailure failure(PosixCall::join, EDEADLK, 0);
    EXPECT_EQ(termination.wait(0), EDEADLK);
  }
  {
    const PosixFailure failure(PosixCall::join, EINVAL, 0);
    EXPECT_EQ(termination.systemWait(0), EINVAL);
  }
  EXPECT_EQ(termination.systemWait(0), 0);
}

TEST(StdThread_Termination, ServesOneObjectAtATime) {
  StdThread::Termination termination;
  {
    const IdleThread first("first", 0, &termination);
    // An unstarted object has the id 0, and the last one registered is found.
    ASSERT_EQ(RunningThreads::instance().find(0), &first);
    try {
      const IdleThread second("second", 0, &termination);
      ADD_FAILURE() << "nothing was thrown";
    } catch (const StdException& exception) {
      EXPECT_STREQ(exception.fileName, "Engine/utilities/StdThread");
      EXPECT_EQ(exception.line, 81U);
      EXPECT_STREQ(exception.text, "Termination object used for 2 threads");
      EXPECT_EQ(exception.status, -1);
    }
    EXPECT_EQ(RunningThreads::instance().find(0), &first);
    EXPECT_EQ(termination.wait(0), -1);
  }
  const IdleThread third("third", 0, &termination);
  EXPECT_EQ(termination.wait(0), -1);
}

TEST(RunningThreads, FindsFromTheLastToTheFirstAndForgetsTheDestroyed) {
  RunningThreads& registry = RunningThreads::instance();
  EXPECT_EQ(&registry, &RunningThreads::instance());
  const IdleThread first;
  {
    IdleThread second;
    EXPECT_EQ(registry.find(0), &second);
    registry.remove(&second);
    EXPECT_EQ(registry.find(0), &first);
    registry.remove(&second);
    EXPECT_EQ(registry.find(0), &first);
    registry.append(&second);
    registry.append(&second);
    registry.remove(&second);
    EXPECT_EQ(registry.find(0), &second);
  }
  EXPECT_EQ(registry.find(0), &first);
  EXPECT_EQ(registry.find(pthread_t{1}), nullptr);
}

TEST(RunningThreads, GrowsUnderItsLock) {
  RunningThreads& registry = RunningThreads::instance();
  FunctionThread thread([] {});
  bool hasGrown = false;
  unsigned registered = 0;
  for (; !hasGrown; ++registered) {
    const PosixCount locks(PosixCall::mutexLock);
    registry.append(&thread);
    // To see that there is no room, to make some, and to see that there is.
    hasGrown = locks.count() != 1;
    EXPECT_EQ(locks.count(), hasGrown ? 3U : 1U);
  }
  for (; registered != 0; --registered) {
    registry.remove(&thread);
  }
}

TEST(RunningThreads, HoldsMoreThanItsInitialCapacity) {
  // Threads that were asked to end stay registered, without an id.
  const StdThread* before = RunningThreads::instance().find(0);
  std::vector<std::unique_ptr<IdleThread>> threads;
  for (int i = 0; i < 200; ++i) {
    threads.push_back(std::make_unique<IdleThread>());
    EXPECT_EQ(RunningThreads::instance().find(0), threads.back().get());
  }
  while (!threads.empty()) {
    EXPECT_EQ(RunningThreads::instance().find(0), threads.back().get());
    threads.pop_back();
  }
  EXPECT_EQ(RunningThreads::instance().find(0), before);
}

CUL_CHILD(RegistryInAForkedChild) {
  static_cast<void>(StdThread::currentThread());  // the first call belongs to the main thread
  std::atomic<bool> isDone = false;
  std::atomic<bool> isAtWork = false;
  std::thread busy([&] {
    while (!isDone) {
      static_cast<void>(StdThread::currentThread());
      isAtWork = true;
    }
  });
  // It is no more in malloc, where the address sanitizer bears no fork.
  EXPECT_TRUE(waitUntil([&] { return isAtWork.load(); }));
  for (int i = 0; i < 200; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      _exit(StdThread::currentThread() == StdThread::thread1() ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
  isDone = true;
  busy.join();
}

TEST(RunningThreads, IsUsableInAForkedChildWhateverOtherThreadsDid) {
  const ChildResult child = runChild("RegistryInAForkedChild");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

TEST(StdThread_Slots, AreMadeEmptyAndFoundByTheirWholeKey) {
  IdleThread thread;
  char key[] = "a";
  void** slot = thread._getKeyValue(key);
  EXPECT_EQ(*slot, nullptr);
  *slot = &thread;
  key[0] = 'b';
  EXPECT_EQ(thread._getKeyValue("a"), slot);
  EXPECT_EQ(*thread._getKeyValue("ab"), nullptr);
  EXPECT_EQ(*thread._getKeyValue(""), nullptr);
  EXPECT_EQ(*thread._getKeyValue("b"), nullptr);
  EXPECT_EQ(*thread._getKeyValue("A"), nullptr);
  EXPECT_EQ(*thread._getKeyValue("a"), &thread);
}

TEST(StdThread_Slots, AreManyAndKeepTheirValues) {
  IdleThread thread;
  std::vector<std::string> keys;
  for (int i = 0; i < 100; ++i) {
    keys.push_back(std::string(static_cast<size_t>(i), 'k'));
  }
  for (std::string& key : keys) {
    *thread._getKeyValue(key.c_str()) = &key;
  }
  for (std::string& key : keys) {
    EXPECT_EQ(*thread._getKeyValue(key.c_str()), &key);
  }
}

TEST(StdThread, OfMainHasNothingToRun) {
  StdThread* const main = StdThread::thread1();
  main->run();
  EXPECT_EQ(StdThread::thread1(), main);
  EXPECT_EQ(main->threadId(), pthread_self());
  EXPECT_EQ(main->name().view(), "main");
}

TEST(StdThread_Slots, BelongToTheThreadObject) {
  *StdThread::currentThread()->_getKeyValue("key") = &errno;
  runOnThread([] { EXPECT_EQ(*StdThread::currentThread()->_getKeyValue("key"), nullptr); });
  // All foreign threads share the object "main".
  std::thread([] { EXPECT_NE(*StdThread::currentThread()->_getKeyValue("key"), nullptr); }).join();
}

TEST(StdThread_Recovery, LongjmpReturnsWhenNothingIsArmed) {
  IdleThread thread;
  EXPECT_FALSE(thread.isRecoveryArmed());
  thread.longjmp(1, 0);
  volatile int passes = 0;
  if (thread._setjmp() == 0) {
    EXPECT_TRUE(thread.isRecoveryArmed());
    thread.clearjmp();
    EXPECT_FALSE(thread.isRecoveryArmed());
    thread.longjmp(1, 0);
    passes = passes + 1;
  } else {
    ADD_FAILURE() << "resumed at a point that was disarmed";
  }
  EXPECT_EQ(passes, 1);
}

TEST(StdThread_Recovery, ResumesWithTheValueInTheFrameThatArmedThePoint) {
  IdleThread thread;
  volatile int passes = 0;
  const std::string local = "still here, and long enough not to be stored inside";
  const int value = thread._setjmp();
  passes = passes + 1;
  if (value == 0) {
    const std::function<void(int)> deeper = [&thread, &deeper](int depth) {
      if (depth == 0) {
        thread.longjmp(4711, 0);
      }
      deeper(depth - 1);
    };
    deeper(20);
  }
  EXPECT_EQ(value, 4711);
  EXPECT_EQ(passes, 2);
  EXPECT_EQ(local, "still here, and long enough not to be stored inside");
  // One jump has disarmed the point.
  thread.longjmp(1, 0);
  EXPECT_EQ(passes, 2);
}

TEST(StdThread_Recovery, StaysArmedWhenAskedTo) {
  IdleThread thread;
  volatile int jumps = 0;
  const int value = thread._setjmp();
  EXPECT_EQ(value, jumps);
  EXPECT_EQ(thread.isRecoveryArmed(), jumps < 5);
  if (jumps < 5) {
    jumps = jumps + 1;
    thread.longjmp(jumps, jumps < 5 ? 7 : 0);
    ADD_FAILURE() << "longjmp returned";
  }
  EXPECT_EQ(jumps, 5);
  thread.longjmp(99, 1);
}

TEST(StdThread_Recovery, CanBeArmedAgain) {
  IdleThread thread;
  volatile int round = 1;
  while (round < 4) {
    if (const int value = thread._setjmp(); value == 0) {
      thread.longjmp(round, 0);
    } else {
      EXPECT_EQ(value, round);
      round = round + 1;
    }
  }
}

TEST(StdThread_Recovery, WorksOnEveryThread) {
  runOnThread([] {
    StdThread* self = StdThread::currentThread();
    volatile bool hasJumped = false;
    if (const int value = self->_setjmp(); value == 0) {
      hasJumped = true;
      self->longjmp(3, 0);
    } else {
      EXPECT_EQ(value, 3);
    }
    EXPECT_TRUE(hasJumped);
  });
}

CUL_CHILD(ThreadThatRuns) {
  StdThread::Termination termination;
  startThread([] {}, &termination, "a name");
  EXPECT_EQ(termination.wait(0), 0);
}

TEST(StdThread, TracesItsStartAndItsEnd) {
  const TracedChild child("ThreadThatRuns");
  EXPECT_EQ(child.result.status, 0) << child.all();
  EXPECT_EQ(child.count("****: Engine/utilities/UNIX/UNIXStdThread(132): Starting thread a name"),
            1)
      << child.all();
  EXPECT_EQ(
      child.count("****: Engine/utilities/UNIX/UNIXStdThread(136): Terminating thread a name"), 1)
      << child.all();
  EXPECT_EQ(child.countContaining("(a name  )****: "), 2) << child.all();
}

CUL_CHILD(EscapingException) {
  const std::string& kind = childArguments()[0];
  startThread(
      [&kind] {
        std::printf("%d", static_cast<int>(pthread_self()));
        std::fflush(stdout);
        if (kind == "object") {
          throw StdException("thrower", 17, "text", 3);
        }
        if (kind == "pointer") {
          throw new StdException("thrower", 18, 3);
        }
        if (kind == "derived") {
          throw CUL_SemaphoreError("void thrower()", 19, nullptr, 3);
        }
        throw 42;
      },
      nullptr, "failing");
  for (;;) {
    pause();
  }
}

TEST(StdThread, AnEscapingExceptionEndsTheProcessWithStatus99AndIsTraced) {
  const struct {
    const char* kind;
    const char* place;
    const char* text;
  } cases[] = {
      {"object", "thrower(17)", "Internal error on thread failing("},
      {"pointer", "thrower(18)", "Internal error on thread failing("},
      {"derived", "void thrower(19)", "Internal error on thread failing("},
      {"other", "Engine/utilities/UNIX/UNIXStdThread(79)",
       "Unidentified internal error on thread failing("},
  };
  for (const auto& [kind, place, text] : cases) {
    ChildOptions options;
    options.arguments = {kind};
    // The exception thrown by pointer is nobody's.
    options.environment["LSAN_OPTIONS"] = "detect_leaks=0";
    options.environment["ASAN_OPTIONS"] = "detect_leaks=0";
    options.environment["TSAN_OPTIONS"] = "report_thread_leaks=0";
    const TracedChild child("EscapingException", options);
    EXPECT_EQ(child.result.status, 99) << child.all();
    EXPECT_EQ(child.count(std::string("**ERROR: ") + place + ": " + text + child.result.out + ")."),
              1)
        << child.all();
    EXPECT_EQ(child.countContaining("nternal error on thread"), 1) << child.all();
    EXPECT_EQ(child.countContaining("Signal "), 0) << child.all();
    EXPECT_EQ(child.countContaining("Terminating thread"), 0) << child.all();
    const ChildResult untraced = runChild("EscapingException", options);
    EXPECT_EQ(untraced.status, 99) << untraced.err;
  }
}
