#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <new>
#include <pthread.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/TraceFlags.h"
#include "Engine/utilities/UNIX/UNIX_Event_Semaphore.h"

#include "tests/support/Child.h"
#include "tests/support/OrdinaryUser.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/WaitUntil.h"

namespace {

// Forks, and has the child do `body`.
// \return its exit status: 0 when the body gives true, 128 + SIGALRM when it never ends.
int statusOfForked(const std::function<bool()>& body) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(20);
    _exit(body() ? 0 : 1);
  }
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

class FunctionThread : public StdThread {
 public:
  FunctionThread(std::function<void()> body, Termination* termination)
      : StdThread("function", 0, termination), body_(std::move(body)) {}
  void run() override { body_(); }

 private:
  std::function<void()> body_;
};

FunctionThread* startThread(std::function<void()> body, StdThread::Termination& termination) {
  auto* const thread = new FunctionThread(std::move(body), &termination);
  thread->start_thread(0);
  return thread;
}

bool waitBriefly() {
  UNIX_Event_Semaphore event;
  return event.wait(1, CUL_Event_Semaphore::Milliseconds, false);
}

std::vector<std::string> tasks() {
  std::vector<std::string> folders;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    folders.push_back(entry.path());
  }
  return folders;
}

// Whether there are `n` threads that wait for something, besides this one.
bool areAsleep(int n) {
  int asleep = 0;
  for (const std::string& task : tasks()) {
    std::ifstream stat(task + "/stat");
    const std::string text{std::istreambuf_iterator<char>(stat), {}};
    const std::size_t name = text.rfind(") ");
    asleep += name != std::string::npos && text[name + 2] == 'S' ? 1 : 0;
  }
  return asleep == n;
}

[[maybe_unused]] std::size_t threadCount() { return tasks().size(); }

// A thread that waits for the end of the object.
class Bystander {
 public:
  Bystander() {
    thread = startThread([this] { over_.wait(); }, termination);
    EXPECT_TRUE(waitUntil([] { return areAsleep(1); }));
  }
  Bystander(const Bystander&) = delete;
  Bystander& operator=(const Bystander&) = delete;
  ~Bystander() {
    over_.post();
    EXPECT_EQ(termination.wait(0), 0);
  }

  StdThread::Termination termination;
  StdThread* thread = nullptr;

 private:
  UNIX_Event_Semaphore over_;
};

}  // namespace

// Under the thread sanitizer a child of a process with threads cannot start any.
#if !defined(__SANITIZE_THREAD__)
CUL_CHILD(TimerOfAChild) {
  EXPECT_TRUE(waitBriefly());
  const auto usesATimerOfItsOwn = [] {
    const std::size_t before = threadCount();
    return waitBriefly() && before == 1 && threadCount() == 2 && waitBriefly() &&
           threadCount() == 2;
  };
  EXPECT_EQ(statusOfForked([&] {
              return usesATimerOfItsOwn() && statusOfForked(usesATimerOfItsOwn) == 0 &&
                     waitBriefly();
            }),
            0);
  EXPECT_TRUE(waitBriefly());
}

TEST(AcrossFork, AChildAndItsOwnChildStartATimerWhenTheyWaitAndNotBefore) {
  const ChildResult r = runChild("TimerOfAChild");
  EXPECT_EQ(r.status, 0) << r.out;
}

CUL_CHILD(EventThatThreadsWaitFor) {
  UNIX_Event_Semaphore* const event = new UNIX_Event_Semaphore;
  std::thread waiting([event] { event->wait(); });
  std::thread waitingWithALimit(
      [event] { event->wait(1000, CUL_Event_Semaphore::Seconds, false); });
  EXPECT_TRUE(waitUntil([] { return areAsleep(3); }));  // with the timer
  EXPECT_EQ(statusOfForked([event] {
              for (int i = 0; i < 3; ++i) {
                if (!event->wait(1, CUL_Event_Semaphore::Milliseconds, false)) {
                  return false;
                }
                event->post();
                event->wait();
                event->reset();
              }
              delete event;
              return true;
            }),
            0);
  event->post();
  EXPECT_EQ(
      statusOfForked([event] { return !event->wait(0, CUL_Event_Semaphore::Seconds, false); }), 0);
  waiting.join();
  waitingWithALimit.join();
  delete event;
}

TEST(AcrossFork, AChildUsesAndDestroysAnEventThatThreadsOfTheParentWaitFor) {
  const ChildResult r = runChild("EventThatThreadsWaitFor");
  EXPECT_EQ(r.status, 0) << r.out;
}

#endif

CUL_CHILD(ThreadsThatAChildDoesNotHave) {
  const Bystander bystander;
  EXPECT_EQ(statusOfForked([&bystander] {
              return bystander.thread->requestTerminate() == ESRCH &&
                     bystander.thread->threadId() == 0 && bystander.termination.wait(0) == -1;
            }),
            0);
  EXPECT_NE(bystander.thread->threadId(), 0U);
}

TEST(AcrossFork, ThreadsThatAChildDoesNotHaveCountAsNotRunning) {
  const ChildResult r = runChild("ThreadsThatAChildDoesNotHave");
  EXPECT_EQ(r.status, 0) << r.out;
}

#if !defined(__SANITIZE_THREAD__)
CUL_CHILD(TokenOfAThreadThatHasEndedByARequest) {
  class Waiting : public StdThread {
   public:
    explicit Waiting(Termination& token) : StdThread("waiting", 0, &token) {}
    void run() override {
      for (;;) {
        usleep(100000);
      }
    }
  };
  // The thread's object stays registered; its token goes when the thread has been waited for.
  alignas(StdThread::Termination) unsigned char place[sizeof(StdThread::Termination)];
  auto* const token = new (place) StdThread::Termination;
  auto* const thread = new Waiting(*token);
  thread->start_thread(0);
  EXPECT_EQ(thread->requestTerminate(), 0);
  EXPECT_EQ(token->wait(0), 0);
  token->~Termination();
  std::fill(std::begin(place), std::end(place), static_cast<unsigned char>(0xff));
  EXPECT_EQ(statusOfForked([&place] {
              return std::all_of(std::begin(place), std::end(place),
                                 [](unsigned char byte) { return byte == 0xff; });
            }),
            0);
}

TEST(AcrossFork, AChildLeavesTheTokenOfAThreadAloneThatHasEnded) {
  const ChildResult child = runChild("TokenOfAThreadThatHasEndedByARequest");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

CUL_CHILD(IdsThatAreUsedAgain) {
  const Bystander bystander;
  const pthread_t id = bystander.thread->threadId();
  EXPECT_EQ(statusOfForked([&bystander, id] {
              // The system gives the stack of the thread that is not there to the next one of
              // its size, and with it the id.
              std::atomic<bool> isKnown = false;
              StdThread::Termination termination;
              StdThread* const thread = startThread(
                  [&isKnown, &thread] { isKnown = StdThread::currentThread() == thread; },
                  termination);
              const bool isUsedAgain = termination.threadId() == id;
              const bool isJoined = termination.wait(0) == 0;
              pthread_attr_t attributes;
              pthread_attr_init(&attributes);
              pthread_attr_setstacksize(&attributes, StdThread::defaultStackSize());
              StdThread* found = nullptr;
              pthread_t foreign = 0;
              pthread_create(
                  &foreign, &attributes,
                  [](void* result) -> void* {
                    *static_cast<StdThread**>(result) = StdThread::currentThread();
                    return nullptr;
                  },
                  &found);
              pthread_join(foreign, nullptr);
              return isUsedAgain && isJoined && foreign == id && found == StdThread::thread1() &&
                     found != bystander.thread;
            }),
            0);
}

TEST(AcrossFork, AnIdThatIsUsedAgainInAChildIsNotTakenForTheFormerThreads) {
  const ChildResult r = runChild("IdsThatAreUsedAgain");
  EXPECT_EQ(r.status, 0) << r.out;
}

CUL_CHILD(ForkOnAThread) {
  StdThread::Termination termination;
  StdThread* thread = nullptr;
  std::atomic<bool> isKnown = false;
  int status = -1;
  thread = new FunctionThread(
      [&] {
        status = statusOfForked([&] {
          StdThread::Termination another;
          startThread([&isKnown] { isKnown = true; }, another);
          return StdThread::currentThread() == thread && another.wait(0) == 0 && isKnown &&
                 StdThread::thread1()->requestTerminate() == ESRCH && waitBriefly();
        });
      },
      &termination);
  thread->start_thread(0);
  EXPECT_EQ(termination.wait(0), 0);
  EXPECT_EQ(status, 0);
}

TEST(AcrossFork, AThreadThatForksIsTheSameThreadInTheChild) {
  const ChildResult r = runChild("ForkOnAThread");
  EXPECT_EQ(r.status, 0) << r.out;
}

#endif

CUL_CHILD(ForkOnAThreadOfTheProgram) {
  EXPECT_EQ(StdThread::thread1()->threadId(), pthread_self());
  int status = -1;
  std::thread([&status] {
    status = statusOfForked([] {
      return StdThread::currentThread() == StdThread::thread1() &&
             StdThread::thread1()->threadId() == pthread_self();
    });
  }).join();
  EXPECT_EQ(status, 0);
  EXPECT_EQ(StdThread::thread1()->threadId(), pthread_self());
}

TEST(AcrossFork, AThreadOfTheProgramThatForksIsMainInTheChild) {
  const ChildResult r = runChild("ForkOnAThreadOfTheProgram");
  EXPECT_EQ(r.status, 0) << r.out;
}

namespace {

std::atomic<unsigned> handlerRuns = 0;

// As a program's handler of a fork may.
void useTheLibrary() {
  const EncodedString text("caf\xE9", EncodedString::native);
  static_cast<void>(text.convert(EncodedString::native));
  taggedTrace("void useTheLibrary()", __LINE__, "ERROR", "forking");
  static_cast<void>(StdThread::currentThread());
  UNIX_Event_Semaphore event;
  event.post();
  event.wait();
  ++handlerRuns;
}

}  // namespace

// The sanitizers' allocators are not safe in children of a busy process.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
CUL_CHILD(HandlersOfTheProgram) {
  EXPECT_EQ(pthread_atfork(useTheLibrary, useTheLibrary, useTheLibrary), 0);
  useTheLibrary();
  std::atomic<bool> isOver = false;
  std::vector<std::thread> busy;
  busy.reserve(2);
  for (int i = 0; i < 2; ++i) {
    busy.emplace_back([&isOver] {
      while (!isOver) {
        useTheLibrary();
      }
    });
  }
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(statusOfForked([] { return handlerRuns > 2; }), 0);
  }
  isOver = true;
  for (std::thread& thread : busy) {
    thread.join();
  }
}

TEST(AcrossFork, HandlersOfTheProgramMayUseTheLibrary) {
  const TemporaryFolder folder;
  const ChildResult r = runChild(
      "HandlersOfTheProgram",
      {.environment = {{"GDIA_ID", "root"}, {"QVX_DBG_TRACE", folder.path() + ",ERROR,2"}}});
  EXPECT_EQ(r.status, 0) << r.out;
}

#endif

CUL_CHILD(ForkThatFails) {
  useTheLibrary();
  {
    const OrdinaryUser user;
    rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_NPROC, &before), 0);
    const rlimit none = {0, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NPROC, &none), 0);
    EXPECT_EQ(fork(), -1);
    EXPECT_EQ(errno, EAGAIN);
    ASSERT_EQ(setrlimit(RLIMIT_NPROC, &before), 0);
  }
  std::thread(useTheLibrary).join();
  StdThread::Termination termination;
  startThread([] { EXPECT_TRUE(waitBriefly()); }, termination);
  EXPECT_EQ(termination.wait(0), 0);
}

TEST(AcrossFork, AForkThatFailsLeavesNoLockHeld) {
  const ChildResult r = runChild("ForkThatFails", {.limitInSeconds = 30});
  EXPECT_EQ(r.status, 0) << r.out;
}
