#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <malloc.h>
#include <new>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/Iconv.h"
#include "Engine/utilities/StdException.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/StringPoolManager.h"
#include "Engine/utilities/TraceFlags.h"
#include "Engine/utilities/signals.h"

#include "tests/support/Child.h"
#include "tests/support/Sanitized.h"
#include "tests/support/StandIn.h"
#include "tests/threads/SignalSupport.h"
#include "tests/threads/ThreadSupport.h"

// What happens when a process ends in two ways at once.

namespace {

void fault() {
  void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  *static_cast<volatile int*>(page) = 1;
}

void divideByZero() { asm volatile("xorl %%ecx, %%ecx\n\tidivl %%ecx" ::: "eax", "ecx", "edx"); }

void runIntoNothing() { asm volatile("ud2"); }

void throwOut() { throw std::runtime_error("escapes"); }

[[noreturn]] void runOutOfMemory() {
  // The sanitizers' operator new never asks a new-handler.
  std::get_new_handler()();
  std::abort();
}

constexpr int returnedStatus = 0;
constexpr int exitStatus = 7;

enum class Place { anyThread, stdThread, mainThread };

struct Ending {
  const char* name;
  int status;
  Place place;
  void (*begin)();
};

const Ending endings[] = {
    {"escaping exception", 99, Place::stdThread, throwOut},
    {"SIGSEGV", 99, Place::anyThread, fault},
    {"SIGFPE", 99, Place::anyThread, divideByZero},
    {"SIGILL", 99, Place::anyThread, runIntoNothing},
    {"abort", 99, Place::anyThread, [] { std::abort(); }},
    {"terminate", 1, Place::anyThread, [] { std::terminate(); }},
    {"memory out", 1, Place::anyThread, runOutOfMemory},
    {"exit on a thread", exitStatus, Place::stdThread, [] { exit(exitStatus); }},
    {"exit on the first thread", exitStatus, Place::mainThread, [] { exit(exitStatus); }},
    {"main returns", returnedStatus, Place::mainThread, nullptr},
};

const Ending& endingNamed(const std::string& name) {
  for (const Ending& ending : endings) {
    if (name == ending.name) {
      return ending;
    }
  }
  ADD_FAILURE() << name;
  return endings[0];
}

void startDetached(const std::function<void()>& body, bool asStdThread) {
  if (asStdThread) {
    startThread(body);
  } else {
    std::thread(body).detach();
  }
}

constexpr int exitHandlers = 64;
std::atomic<int> handlersRun = 0;

void addExitHandlers(void (*handler)()) {
  for (int i = 0; i < exitHandlers; ++i) {
    ASSERT_EQ(std::atexit(handler), 0);
  }
}

// Forks, and waits in the parent for the child's end.
// \return 0 in the child; in the parent -1 when the child has ended with one of `statuses`.
int playRound(const std::vector<int>& statuses, const std::string& title) {
  const pid_t child = fork();
  if (child == 0) {
    return 0;
  }
  const auto descriptor = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
  pollfd waited = {descriptor, POLLIN, 0};
  constexpr int limitInMilliseconds = 60000;
  if (poll(&waited, 1, limitInMilliseconds) != 1) {
    ADD_FAILURE() << title << ": hangs";
    kill(child, SIGKILL);
  }
  close(descriptor);
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  const int ended = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  EXPECT_NE(std::find(statuses.begin(), statuses.end(), ended), statuses.end())
      << title << ": " << ended;
  return -1;
}

// Sets `copies` threads off at once, each with one of `ending`s in turn, and comes back when
// they are on their way.
class Start {
 public:
  void add(const Ending& ending, bool asStdThread) {
    ++expected_;
    startDetached(
        [this, begin = ending.begin] {
          await();
          begin();
        },
        asStdThread || ending.place == Place::stdThread);
  }

  void expectCaller() { ++expected_; }

  void await() {
    ++arrived_;
    while (arrived_ < expected_ || !complete_) {
      std::this_thread::yield();
    }
  }

  void complete() { complete_ = true; }

 private:
  std::atomic<int> expected_ = 0;
  std::atomic<int> arrived_ = 0;
  std::atomic<bool> complete_ = false;
};

[[noreturn]] void sleepForEver() {
  for (;;) {
    pause();
  }
}

// One round: several threads for each of two endings, all at the same time.
void meet(const Ending& one, const Ending& other, int round) {
  addExitHandlers([] { usleep(100); });
  // Used by threads until the end of the process.
  auto* start = new Start;
  const Ending* ofMain = nullptr;
  constexpr int threadsEach = 3;
  for (const Ending* ending : {&one, &other}) {
    if (ending->place == Place::mainThread) {
      ofMain = ending;
      continue;
    }
    for (int i = 0; i < threadsEach; ++i) {
      start->add(*ending, (round + i) % 2 == 0);
    }
  }
  if (ofMain == nullptr) {
    start->complete();
    sleepForEver();
  }
  start->expectCaller();
  start->complete();
  start->await();
  // A little later each time, so that every moment has its turn.
  for (int i = 0; i < round % 10; ++i) {
    usleep(20);
  }
  if (ofMain->begin != nullptr) {
    ofMain->begin();
  }
}

}  // namespace

CUL_CHILD(EndingsThatMeet) {
  const Ending& one = endingNamed(childArguments()[0]);
  const Ending& other = endingNamed(childArguments()[1]);
  const int rounds = std::stoi(childArguments()[2]);
  const std::string title = std::string(one.name) + " and " + other.name;
  for (int round = 0; round < rounds; ++round) {
    if (playRound({one.status, other.status}, title) == 0) {
      meet(one, other, round);
      return;
    }
  }
}

namespace {

void expectThatEndingsMeet(bool isTraced) {
  constexpr int rounds = isSanitized ? 1 : 4;
  for (const Ending& one : endings) {
    for (const Ending* other = &one; other != std::end(endings); ++other) {
      if (one.place == Place::mainThread && other->place == Place::mainThread) {
        continue;
      }
      ChildOptions options = withoutSanitizerHandlers();
      options.arguments = {one.name, other->name, std::to_string(rounds)};
      const ChildResult child = isTraced ? TracedChild("EndingsThatMeet", options).result
                                         : runChild("EndingsThatMeet", options);
      EXPECT_EQ(child.status, 0) << child.out << child.err;
    }
  }
}

}  // namespace

TEST(ProcessEnd, GivesOneOfTheStatusesWhenAnyTwoEndingsMeet) { expectThatEndingsMeet(false); }

TEST(ProcessEnd, GivesOneOfTheStatusesWhenAnyTwoEndingsMeetAndAreTraced) {
  expectThatEndingsMeet(true);
}

namespace {

// The second ending of a process, let go by the first one's first exit handler.
struct SecondEnding {
  std::atomic<bool> isLetGo = false;
  std::atomic<pid_t> task = 0;
};
SecondEnding second;

bool hasEnded(pid_t task) { return syscall(SYS_tgkill, getpid(), task, 0) != 0 && errno == ESRCH; }

void beSecond(const Ending& ending) {
  second.task = gettid();
  while (!second.isLetGo) {
    usleep(100);
  }
  if (ending.begin != nullptr) {
    ending.begin();
  }
}

// Whether the thread is where it will stay: it is gone, or it is the first and sleeps with all
// signals blocked.
bool hasStopped(pid_t task) {
  if (hasEnded(task)) {
    return true;
  }
  std::ifstream stream("/proc/self/task/" + std::to_string(task) + "/status");
  bool sleeps = false;
  for (std::string line; std::getline(stream, line);) {
    sleeps = sleeps || line.starts_with("State:\tS");
    if (line.starts_with("SigBlk:")) {
      sigset_t blocked = {};
      const unsigned long mask = std::stoul(line.substr(7), nullptr, 16);
      std::memcpy(&blocked, &mask, sizeof mask);
      return sleeps && sigismember(&blocked, SIGTERM) == 1 && sigismember(&blocked, SIGSEGV) == 1;
    }
  }
  return false;
}

void letSecondGo() {
  second.isLetGo = true;
  std::printf(waitUntil([] { return hasStopped(second.task); }) ? "stopped " : "went on ");
}

void startSecond(const Ending& ending) {
  startDetached([&ending] { beSecond(ending); }, ending.place == Place::stdThread);
  waitUntil([] { return second.task != 0; });
}

}  // namespace

CUL_CHILD(EndingDuringAnother) {
  const Ending& one = endingNamed(childArguments()[0]);
  const Ending& other = endingNamed(childArguments()[1]);
  std::atexit([] { std::printf("%d handlers", handlersRun.load()); });
  addExitHandlers([] { ++handlersRun; });
  std::atexit(letSecondGo);
  if (other.place != Place::mainThread) {
    startSecond(other);
  }
  if (one.place == Place::mainThread) {
    if (one.begin != nullptr) {
      one.begin();
    }
    return;
  }
  if (one.place == Place::stdThread || other.place == Place::mainThread) {
    startDetached(
        [&one] {
          while (second.task == 0) {
            usleep(100);
          }
          one.begin();
        },
        one.place == Place::stdThread);
    if (other.place != Place::mainThread) {
      sleepForEver();
    }
    beSecond(other);
    return;
  }
  one.begin();
}

TEST(ProcessEnd, HasTheStatusOfTheFirstEndingAndRunsEveryExitHandlerOnce) {
  for (const Ending& one : endings) {
    for (const Ending& other : endings) {
      if (one.place == Place::mainThread && other.place == Place::mainThread) {
        continue;
      }
      ChildOptions options = withoutSanitizerHandlers();
      options.arguments = {one.name, other.name};
      const ChildResult child = runChild("EndingDuringAnother", options);
      EXPECT_EQ(child.status, one.status) << one.name << ", then " << other.name << child.err;
      // What memory out says on standard output stands before and behind.
      EXPECT_NE(child.out.find("stopped "), std::string::npos) << one.name << ", " << other.name;
      EXPECT_NE(child.out.find("64 handlers"), std::string::npos)
          << one.name << ", " << other.name << child.out;
    }
  }
}

CUL_CHILD(ExitHandlerThatJoinsAFailedThread) {
  static StdThread::Termination termination;
  static std::atomic<bool> isEnding = false;
  startThread(
      [] {
        while (!isEnding) {
          usleep(100);
        }
        fault();
      },
      &termination);
  std::atexit([] {
    isEnding = true;
    std::printf("%d", termination.wait(0));
  });
  exit(exitStatus);
}

// A thread that stops has not told the thread sanitizer, which waits for that in a join.
#if !defined(__SANITIZE_THREAD__)
TEST(ProcessEnd, LetsAnExitHandlerJoinAThreadThatHasFailedMeanwhile) {
  const ChildResult child =
      runChild("ExitHandlerThatJoinsAFailedThread", withoutSanitizerHandlers());
  EXPECT_EQ(child.status, exitStatus) << child.err;
  EXPECT_EQ(child.out, "0");
}
#endif

CUL_CHILD(CancelAThreadThatHasFailed) {
  static const pthread_t first = pthread_self();
  static const pid_t task = gettid();
  static std::atomic<bool> isEnding = false;
  std::atexit([] {
    isEnding = true;
    waitUntil([] { return hasStopped(task); });
    pthread_cancel(first);
    usleep(100000);  // Time to be cancelled, which nothing tells of when it is not.
  });
  startThread([] { exit(exitStatus); });
  waitUntil([] { return isEnding.load(); });
  std::terminate();
}

TEST(ProcessEnd, LetsNobodyCancelTheFirstThreadWhenItHasFailedMeanwhile) {
  const TracedChild child("CancelAThreadThatHasFailed", withoutSanitizerHandlers());
  EXPECT_EQ(child.result.status, exitStatus) << child.all();
  EXPECT_EQ(child.countContaining("C++ terminate() called"), 1) << child.all();
}

CUL_CHILD(CancelInAnExitHandler) {
  std::atexit([] {
    pthread_cancel(pthread_self());
    pthread_testcancel();
    std::printf("went on");
  });
  exit(exitStatus);
}

TEST(ProcessEnd, IsNotGivenUpWhenItsThreadIsCancelled) {
  const ChildResult child = runChild("CancelInAnExitHandler", withoutSanitizerHandlers());
  EXPECT_EQ(child.status, exitStatus) << child.err;
  EXPECT_EQ(child.out, "went on");
}

CUL_CHILD(FailureInsideATraceLine) {
  static std::atomic<bool> isEnding = false;
  static std::atomic<pid_t> task = 0;
  std::atexit([] {
    isEnding = true;
    waitUntil([] { return task != 0 && hasStopped(task); });
    CUL_TRACE(TraceType::error, "test", 1, "the lock is free");
  });
  startThread([] {
    task = gettid();
    while (!isEnding) {
      usleep(100);
    }
    void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    CUL_TRACE(TraceType::error, "test", 1, "%s", static_cast<char*>(page));
  });
  exit(exitStatus);
}

TEST(ProcessEnd, DoesNotWaitForTheTraceOfAThreadThatHasFailedInsideIt) {
  const TracedChild child("FailureInsideATraceLine", withoutSanitizerHandlers());
  EXPECT_EQ(child.count("**ERROR: test(1): the lock is free"), 1) << child.all();
}

CUL_CHILD(FailureInAnExitHandler) {
  static const Ending& inHandler = endingNamed(childArguments()[1]);
  std::atexit([] { std::printf("not reached"); });
  std::atexit([] { inHandler.begin(); });
  const Ending& first = endingNamed(childArguments()[0]);
  if (first.begin != nullptr) {
    if (first.place == Place::stdThread) {
      startThread(first.begin);
      sleepForEver();
    }
    first.begin();
  }
}

TEST(ProcessEnd, IsImmediateWhenAnExitHandlerFails) {
  const struct {
    const char* first;
    const char* inHandler;
    int status;
  } rows[] = {{"main returns", "SIGSEGV", 99},
              {"main returns", "terminate", 1},
              {"main returns", "memory out", 1},
              {"main returns", "abort", 99},
              {"exit on a thread", "SIGFPE", 99},
              {"exit on a thread", "memory out", 1},
              {"escaping exception", "SIGSEGV", 99},
              {"escaping exception", "terminate", 99},
              {"SIGSEGV", "SIGSEGV", 99},
              {"SIGSEGV", "SIGILL", 99},
              {"SIGSEGV", "memory out", 99},
              {"abort", "abort", 99},
              {"terminate", "abort", 1},
              {"terminate", "terminate", 1},
              {"memory out", "SIGSEGV", 1}};
  for (const auto& [first, inHandler, status] : rows) {
    ChildOptions options = withoutSanitizerHandlers();
    options.arguments = {first, inHandler};
    const ChildResult child = runChild("FailureInAnExitHandler", options);
    EXPECT_EQ(child.status, status) << first << ", " << inHandler << child.err;
    EXPECT_EQ(child.out.find("not reached"), std::string::npos) << first << ", " << inHandler;
  }
}

TEST(ProcessEnd, TellsOfAFailureInAnExitHandlerAlsoAfterOneBefore) {
  for (const auto& [first, reports] : {std::pair("main returns", 1), std::pair("SIGSEGV", 2)}) {
    ChildOptions options = withoutSanitizerHandlers();
    options.arguments = {first, "SIGSEGV"};
    const TracedChild child("FailureInAnExitHandler", options);
    EXPECT_EQ(child.result.status, 99) << child.all();
    EXPECT_EQ(child.countContaining("Signal 11 (SIGSEGV)"), reports) << child.all();
  }
}

CUL_CHILD(RecoveryPointOfBeforeTheEnd) {
  // main, and with it the place of the point, is left when the handler runs.
  std::atexit([] {
    if (StdThread::currentThread()->isRecoveryArmed()) {
      _exit(1);
    }
    fault();
  });
  static_cast<void>(StdThread::currentThread()->_setjmp());
}

TEST(ProcessEnd, ForgetsARecoveryPointOfBefore) {
  EXPECT_EQ(runChild("RecoveryPointOfBeforeTheEnd", withoutSanitizerHandlers()).status, 99);
}

CUL_CHILD(RecoveriesInAnExitHandler) {
  std::atexit([] {
    static int recoveries = 0;
    if (StdThread::currentThread()->_setjmp() == 0) {
      fault();
    }
    ++recoveries;
    if (StdThread::currentThread()->_setjmp() == 0) {
      fault();
    }
    std::printf("recovered %d", ++recoveries);
  });
}

TEST(ProcessEnd, LetsAnExitHandlerRecoverMoreThanOnce) {
  const ChildResult child = runChild("RecoveriesInAnExitHandler", withoutSanitizerHandlers());
  EXPECT_EQ(child.status, 0) << child.err;
  EXPECT_EQ(child.out, "recovered 2");
}

CUL_CHILD(SigtermDuringExit) {
  std::atexit([] { std::printf("and ended"); });
  static const int times = std::stoi(childArguments()[0]);
  std::atexit([] {
    for (int i = 0; i < times; ++i) {
      kill(getpid(), SIGTERM);
      std::printf("went on ");
      std::fflush(stdout);
    }
  });
  exit(exitStatus);
}

TEST(ProcessEnd, IsNotDisturbedByASignalFromOutside) {
  ChildOptions options = withoutSanitizerHandlers();
  options.arguments = {"1"};
  const ChildResult child = runChild("SigtermDuringExit", options);
  EXPECT_EQ(child.status, exitStatus);
  EXPECT_EQ(child.out, "went on and ended");
}

TEST(ProcessEnd, IsCutShortByTheSameSignalFromOutsideASecondTime) {
  ChildOptions options = withoutSanitizerHandlers();
  options.arguments = {"2"};
  const ChildResult child = runChild("SigtermDuringExit", options);
  EXPECT_EQ(child.status, 128 + SIGTERM);
  EXPECT_EQ(child.out, "went on ");
}

CUL_CHILD(ForkDuringExit) {
  // One thread ends the process, another one forks a child that ends in its own way.
  static const Ending& ending = endingNamed(childArguments()[0]);
  static std::atomic<bool> isEnding = false;
  static std::atomic<int> childStatus = -1;
  std::atexit([] {
    if (!isEnding.exchange(true)) {
      waitUntil([] { return childStatus >= 0; });
      std::printf("%d", childStatus.load());
      std::fflush(stdout);
    }
  });
  startThread([] {
    while (!isEnding) {
      usleep(100);
    }
    const pid_t child = fork();
    if (child == 0) {
      ending.begin();
    }
    int status = 0;
    waitpid(child, &status, 0);
    childStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  });
  exit(exitStatus + 1);
}

TEST(ProcessEnd, IsThatOfAForkedChildAlone) {
  for (const Ending& ending : endings) {
    if (ending.place == Place::mainThread) {
      continue;
    }
    ChildOptions options = withoutSanitizerHandlers();
    options.arguments = {ending.name};
    // Forked by a process with threads, a child may do anything but for the thread sanitizer.
    options.environment["TSAN_OPTIONS"] += ":die_after_fork=0";
    const ChildResult child = runChild("ForkDuringExit", options);
    EXPECT_EQ(child.status, exitStatus + 1) << ending.name;
    const std::string status = std::to_string(ending.status);
    EXPECT_EQ(child.out.substr(child.out.size() - status.size()), status)
        << ending.name << child.out << child.err;
  }
}

CUL_CHILD(ThreadsThatEndAndOneThatFails) {
  const std::string way = childArguments()[0];
  StdThread::Termination termination;
  const StdThread* thread = startThread(
      [&way] {
        if (way == "pthread_exit") {
          pthread_exit(nullptr);
        }
        while (way == "request") {
          usleep(1000);
        }
      },
      &termination);
  if (way == "request") {
    EXPECT_EQ(thread->requestTerminate(), 0);
  }
  EXPECT_EQ(termination.wait(0), 0);
  std::atexit([] { std::printf("ended"); });
  startThread(throwOut);
  if (way == "end of main") {
    pthread_exit(nullptr);
  }
  sleepForEver();
}

TEST(ProcessEnd, IsNotBegunByTheEndOfAThread) {
  for (const char* way : {"return", "pthread_exit", "request", "end of main"}) {
    ChildOptions options = withoutSanitizerHandlers();
    options.arguments = {way};
    const ChildResult child = runChild("ThreadsThatEndAndOneThatFails", options);
    EXPECT_EQ(child.status, 99) << way << child.err;
    EXPECT_EQ(child.out, "ended") << way;
  }
}

CUL_CHILD(RequestToAThreadThatExits) {
  std::atexit([] { std::printf("and ended"); });
  std::atexit([] {
    // It cannot be met before the exit handlers have run, nor later.
    StdThread* self = StdThread::currentThread();
    std::printf("%d ", self->requestTerminate());
    for (int i = 0; i < 100; ++i) {
      usleep(10);
    }
  });
  startThread([] { exit(exitStatus); });
  sleepForEver();
}

TEST(ProcessEnd, IsNotGivenUpWhenItsThreadIsAskedToEnd) {
  const ChildResult child = runChild("RequestToAThreadThatExits", withoutSanitizerHandlers());
  EXPECT_EQ(child.status, exitStatus) << child.err;
  EXPECT_EQ(child.out, "0 and ended");
}

CUL_CHILD(ExitOnAForeignThread) {
  std::atexit([] { std::printf("ended"); });
  std::thread([] { exit(exitStatus); }).join();
}

TEST(ProcessEnd, IsPossibleOnAThreadThatTheLibraryDidNotMake) {
  const ChildResult child = runChild("ExitOnAForeignThread", withoutSanitizerHandlers());
  EXPECT_EQ(child.status, exitStatus);
  EXPECT_EQ(child.out, "ended");
}

CUL_CHILD(FaultsAtOnce) {
  const int threads = std::stoi(childArguments()[0]);
  const bool asStdThreads = childArguments()[1] == "StdThread";
  const int rounds = std::stoi(childArguments()[2]);
  for (int round = 0; round < rounds; ++round) {
    if (playRound({99}, std::to_string(threads) + " faults") != 0) {
      continue;
    }
    addExitHandlers([] { usleep(10); });
    if (!asStdThreads) {
      runOnThread([] {});
    }
    auto* start = new Start;
    constexpr void (*ways[])() = {fault, divideByZero, runIntoNothing, [] { std::abort(); }};
    for (int i = 0; i < threads; ++i) {
      // Mostly the same signal, as that is the one whose default action threatens.
      void (*way)() = ways[i % 4 == 3 ? static_cast<size_t>(round) % std::size(ways) : 0];
      start->add({"", 99, Place::anyThread, way}, asStdThreads);
    }
    start->complete();
    sleepForEver();
  }
}

TEST(ProcessEnd, HasStatus99WhenManyThreadsFaultAtOnce) {
  for (const char* threads : {"3", "6", "12"}) {
    for (const char* kind : {"StdThread", "std::thread"}) {
      ChildOptions options = withoutSanitizerHandlers();
      options.arguments = {threads, kind, isSanitized ? "10" : "50"};
      const ChildResult child = runChild("FaultsAtOnce", options);
      EXPECT_EQ(child.status, 0) << child.out << child.err;
    }
  }
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// The sanitizers bring an allocator of their own, with other locks.

namespace {

void* volatile allocated = nullptr;

[[noreturn]] void allocateAllTheTime() {
  for (;;) {
    // Too large for the stock of blocks that each thread has without a lock.
    allocated = malloc(5000);
    free(allocated);
  }
}

}  // namespace

CUL_CHILD(SigtermWhileAllThreadsAllocate) {
  const int rounds = std::stoi(childArguments()[0]);
  for (int round = 0; round < rounds; ++round) {
    if (playRound({99}, "SIGTERM in an allocation") != 0) {
      continue;
    }
    std::atexit([] {
      for (int i = 0; i < 100; ++i) {
        allocated = malloc(5000);
      }
    });
    std::thread([round] {
      usleep(static_cast<useconds_t>(2000 + round * 10));
      kill(getpid(), SIGTERM);
      sleepForEver();
    }).detach();
    allocateAllTheTime();
  }
}

TEST(ProcessEnd, ComesWhenASignalInterruptsAnAllocation) {
  ChildOptions options = withoutSanitizerHandlers();
  options.arguments = {"20"};
  const ChildResult child = runChild("SigtermWhileAllThreadsAllocate", options);
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

CUL_CHILD(AbortInsideTheAllocator) {
  std::atexit([] {
    for (int i = 0; i < 100; ++i) {
      allocated = malloc(5000);
    }
  });
  std::thread([] {
    // The size that the allocator keeps before the rest of its memory. What it finds wrong
    // there it tells with its lock taken.
    auto* block = static_cast<size_t*>(malloc(5000));
    block[malloc_usable_size(block) / sizeof(size_t)] = 1;
    allocated = malloc(50000);
    std::printf("nothing found");
  }).detach();
  sleepForEver();
}

TEST(ProcessEnd, ComesWhenTheAllocatorItselfAborts) {
  const ChildResult child = runChild("AbortInsideTheAllocator", withoutSanitizerHandlers());
  EXPECT_EQ(child.status, 99) << child.err;
  EXPECT_EQ(child.out, "");
  EXPECT_NE(child.err.find("malloc"), std::string::npos) << child.err;
}
#endif

CUL_STAND_IN(size_t, iconv,
             (iconv_t descriptor, char** input, size_t* inputLength, char** output, size_t* room),
             CUL_NOTHING, descriptor, input, inputLength, output, room)

namespace {

bool canConvert() {
  char area[100];
  const iconv_t descriptor = iconv_open("UTF-8", "ISO-8859-1");
  const size_t length = iconvDebug(descriptor, "x", 1, area, sizeof area);
  iconv_close(descriptor);
  return length == 1;
}

}  // namespace

CUL_CHILD(EndInAConversion) {
  iconvStandIn.callInstead([](auto... arguments) -> size_t {
    iconvStandIn.callInstead(nullptr);
    endingNamed(childArguments()[0]).begin();
    return iconvStandIn.real(arguments...);
  });
  std::atexit([] {
    if (canConvert()) {
      std::puts("converted");
    }
  });
  canConvert();
}

TEST(ProcessEnd, LetsExitHandlersConvertWhenItComesInAConversion) {
  for (const auto& [name, status] : {std::pair("terminate", 1), std::pair("memory out", 1)}) {
    ChildOptions options;
    options.arguments = {name};
    const ChildResult child = runChild("EndInAConversion", options);
    EXPECT_EQ(child.status, status) << name << child.err;
    EXPECT_NE(child.out.find("converted"), std::string::npos) << name << child.out;
  }
}

// The sanitizers look at what a converter is to read before it does.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
namespace {

// What the converter reads from is not there.
void convertFromNowhere() {
  char area[100];
  const iconv_t descriptor = iconv_open("UTF-8", "ISO-8859-1");
  iconvDebug(descriptor, reinterpret_cast<const char*>(64), 50, area, sizeof area);
  iconv_close(descriptor);
}

}  // namespace

CUL_CHILD(FaultInAConversion) {
  std::atexit([] {
    if (canConvert()) {
      std::puts("converted");
    }
  });
  convertFromNowhere();
}

TEST(ProcessEnd, LetsExitHandlersConvertAfterAFaultInAConversion) {
  const ChildResult child = runChild("FaultInAConversion");
  EXPECT_EQ(child.status, 99) << child.out << child.err;
  EXPECT_NE(child.out.find("converted"), std::string::npos) << child.out;
}

namespace {

void recoverFromAConversion() {
  registerErrorHandlers();
  StdThread* const self = StdThread::currentThread();
  if (self->_setjmp() == 0) {
    convertFromNowhere();
    ADD_FAILURE() << "no fault";
  }
}

}  // namespace

// The report of a fault asks for locks that a fork takes before that of conversions.
CUL_CHILD(FaultsInConversionsBesideForks) {
  EXPECT_TRUE(isTraced(TraceType::error));
  std::atomic<bool> isOver = false;
  std::thread forking([&isOver] {
    while (!isOver) {
      const pid_t child = fork();
      if (child == 0) {
        _exit(0);
      }
      EXPECT_EQ(waitpid(child, nullptr, 0), child);
    }
  });
  for (unsigned i = 0; i < 50; ++i) {
    recoverFromAConversion();
  }
  isOver = true;
  forking.join();
}

TEST(ProcessEnd, DoesNotComeByAFaultInAConversionThatIsReportedBesideForks) {
  const TracedChild child("FaultsInConversionsBesideForks");
  EXPECT_EQ(child.result.status, 0) << child.all();
  EXPECT_EQ(child.countContaining("Attempting longjmp recovery"), 50);
}

// A fork takes the lock of strings, which the exit handler asks for, before that of the trace.
CUL_CHILD(FaultInATraceCallBesideForks) {
  EXPECT_TRUE(isTraced(TraceType::error));
  std::thread([] {
    for (;;) {
      const pid_t child = fork();
      if (child == 0) {
        _exit(0);
      }
      waitpid(child, nullptr, 0);
    }
  }).detach();
  std::atexit([] {
    for (unsigned i = 0; i < 300; ++i) {
      StringPoolManager& pool = StringPoolManager::instance();
      void* blocks[200];
      for (void*& block : blocks) {
        block = pool.getBuffer(8);
      }
      for (void* const block : blocks) {
        pool.freeBuffer(block, 8);
      }
    }
    std::puts("made strings");
  });
  registerErrorHandlers();
  taggedTrace("f()", 1, "X", "%s", reinterpret_cast<const char*>(64));
}

TEST(ProcessEnd, LetsExitHandlersMakeStringsAfterAFaultInATraceCallBesideForks) {
  const TracedChild child("FaultInATraceCallBesideForks");
  EXPECT_EQ(child.result.status, 99) << child.all();
  EXPECT_EQ(child.result.out, "made strings\n") << child.all();
}

CUL_CHILD(RecoveryFromAFaultInAConversion) {
  StdThread* const self = StdThread::currentThread();
  if (self->_setjmp() == 0) {
    convertFromNowhere();
    ADD_FAILURE() << "no fault";
  }
  std::thread([] { EXPECT_TRUE(canConvert()); }).join();
}

TEST(ProcessEnd, LetsAllThreadsConvertAfterARecoveryInsideOfAConversion) {
  const ChildResult child = runChild("RecoveryFromAFaultInAConversion");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}
#endif
