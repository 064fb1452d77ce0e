#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <sched.h>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/TraceFlags.h"

#include "tests/requests/RequestWork.h"
#include "tests/support/Child.h"
#include "tests/support/Sanitized.h"
#include "tests/threads/ThreadSupport.h"

/// \file
/// Asks threads to end that are at all kinds of work, many times over. Each must end soon, leave
/// no lock behind and harm nobody. CUL_REQUEST_ROUNDS sets how many times each is asked.

namespace {

constexpr unsigned defaultRounds = isSanitized ? 10 : 50;
constexpr auto limit = std::chrono::seconds(10);  // far beyond what is promised: a hung thread

using Clock = std::chrono::steady_clock;

struct Outcome {
  double slowestMs = 0;
  double meanMs = 0;
};

// What every other thread must still be able to do.
void useEverything(SharedWork& shared) {
  CUL_TRACE(TraceType::cul, "void useEverything()", 1, "a line");
  EncodedString text("text that is longer than what the pool has", EncodedString::utf8);
  text += text;
  EXPECT_EQ(text.convert(EncodedString::utf8).length(), text.length());
  std::free(std::malloc(1000));
  shared.section.request("test", 2);
  shared.section.release("test", 2);
  shared.mutex.request("test", 3);
  shared.mutex.release("test", 3);
  pthread_mutex_lock(&shared.nativeMutex);
  pthread_mutex_unlock(&shared.nativeMutex);
  { const std::lock_guard guard(shared.standardMutex); }
  shared.readWrite.requestWrite();
  shared.readWrite.release();
}

// Ends the process with a line when what it watches does not come to its end in time.
class Watch {
 public:
  Watch(std::string what, std::chrono::seconds time)
      : what_(std::move(what)), thread_([this, time] {
          std::unique_lock lock(mutex_);
          if (!condition_.wait_for(lock, time, [this] { return isOver_; })) {
            std::printf("%s\n", what_.c_str());
            std::fflush(stdout);
            _exit(3);
          }
        }) {}
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;
  ~Watch() {
    {
      const std::lock_guard lock(mutex_);
      isOver_ = true;
    }
    condition_.notify_one();
    thread_.join();
  }

 private:
  std::string what_;
  std::mutex mutex_;
  std::condition_variable condition_;
  bool isOver_ = false;
  std::thread thread_;
};

Outcome askMany(const RequestWork& work, unsigned rounds, unsigned threads, SharedWork& shared) {
  Outcome outcome;
  for (unsigned round = 0; round < rounds; ++round) {
    std::vector<StdThread::Termination> terminations(threads);
    std::vector<const StdThread*> asked;
    if (work.hold != nullptr) {
      work.hold(shared);
    }
    const long before = shared.rounds;
    for (StdThread::Termination& termination : terminations) {
      asked.push_back(startThread([&] { work.run(shared); }, &termination));
    }
    EXPECT_TRUE(waitUntil([&] { return shared.rounds >= before + threads; }));
    usleep(round * 137 % 1000);
    const Clock::time_point start = Clock::now();
    {
      const Watch watch("not ended", limit);
      for (const StdThread* thread : asked) {
        EXPECT_EQ(thread->requestTerminate(), 0);
      }
      for (const StdThread::Termination& termination : terminations) {
        EXPECT_EQ(termination.wait(0), 0);
      }
    }
    const double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    outcome.slowestMs = std::max(outcome.slowestMs, ms);
    outcome.meanMs += ms / rounds;
    if (work.release != nullptr) {
      work.release(shared);
    }
    const Watch watch("a lock is still held", limit);
    std::thread([&shared] { useEverything(shared); }).join();
  }
  return outcome;
}

const RequestWork& workNamed(const std::string& name, bool optimized) {
  static const std::vector<RequestWork> works[] = {plainRequestWork(), optimizedRequestWork()};
  const std::vector<RequestWork>& list = works[optimized ? 1 : 0];
  return *std::find_if(list.begin(), list.end(),
                       [&name](const RequestWork& work) { return work.name == name; });
}

unsigned roundsWanted() {
  const char* const rounds = std::getenv("CUL_REQUEST_ROUNDS");
  return rounds != nullptr ? static_cast<unsigned>(std::atoi(rounds)) : defaultRounds;
}

}  // namespace

#if defined(__SANITIZE_ADDRESS__)
// A thread that ends takes with it what a call was about to hand over, or what it was throwing.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions() {
  return "leak:StdThreadRunFF\nleak:std::string::_Rep::_S_create\n";
}
#endif

CUL_CHILD(AskedToEnd) {
  const std::vector<std::string>& arguments = childArguments();
  SharedWork shared;
  shared.folder = arguments[4];
  static_cast<void>(StdThread::thread1());
  const Outcome outcome = askMany(workNamed(arguments[0], arguments[1] == "optimized"),
                                  static_cast<unsigned>(std::stoul(arguments[2])),
                                  static_cast<unsigned>(std::stoul(arguments[3])), shared);
  std::printf("%.1f ms in the mean, %.1f ms at most", outcome.meanMs, outcome.slowestMs);
}

class RequestTable : public testing::TestWithParam<std::tuple<std::string, std::string>> {};

TEST_P(RequestTable, EndsTheThreadAndLeavesNoLock) {
  const TemporaryFolder folder;
  const auto [name, code] = GetParam();
  ChildOptions options;
  const unsigned rounds = roundsWanted();
  options.arguments = {name, code, std::to_string(rounds), "1", folder.path()};
  options.environment["GDIA_ID"] = "root";
  options.environment["QVX_DBG_TRACE"] = folder.file("trace") + ",2";
  options.limitInSeconds = 60 + rounds;
  const ChildResult result = runChild("AskedToEnd", options);
  EXPECT_EQ(result.status, 0) << name << ": " << result.out << result.err;
  std::printf("%-45s %-9s %s\n", name.c_str(), code.c_str(), result.out.c_str());
}

namespace {

// The thread sanitizer puts signals off while a thread is in one of its mutex calls, and bears
// no condition wait that is left otherwise than by pthread_cancel().
bool canRun([[maybe_unused]] const std::string& name) {
#if defined(__SANITIZE_THREAD__)
  return !name.starts_with("waits") && name != "counts under a std::mutex";
#else
  return true;
#endif
}

std::vector<std::string> names() {
  std::vector<std::string> result;
  for (const RequestWork& work : plainRequestWork()) {
    if (canRun(work.name)) {
      result.emplace_back(work.name);
    }
  }
  return result;
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(All, RequestTable,
                         testing::Combine(testing::ValuesIn(names()),
                                          testing::Values(std::string("plain"),
                                                          std::string("optimized"))),
                         [](const auto& row) {
                           std::string name;
                           for (const char c : std::get<0>(row.param)) {
                             name += std::isalnum(static_cast<unsigned char>(c)) != 0 ? c : '_';
                           }
                           return name + "_" + std::get<1>(row.param);
                         });

TEST(RequestTable, EndsAThousandThreads) {
  const TemporaryFolder folder;
  ChildOptions options;
  options.arguments = {"sleeps", "plain", "1", "1000", folder.path()};
  const ChildResult result = runChild("AskedToEnd", options);
  EXPECT_EQ(result.status, 0) << result.out << result.err;
  std::printf("1,000 threads: %s\n", result.out.c_str());
}

#if !defined(__SANITIZE_THREAD__)  // see canRun()
namespace {

// Keeps the calling thread, and those that it starts, on the processor that it is on.
class OneProcessor {
 public:
  OneProcessor() {
    EXPECT_EQ(sched_getaffinity(0, sizeof before_, &before_), 0);
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(sched_getcpu(), &one);
    EXPECT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
  }
  OneProcessor(const OneProcessor&) = delete;
  OneProcessor& operator=(const OneProcessor&) = delete;
  ~OneProcessor() { EXPECT_EQ(sched_setaffinity(0, sizeof before_, &before_), 0); }

 private:
  cpu_set_t before_;
};

// Asks a thread to end that waits for a lock, and lets it have the lock afterwards. The request
// is made once more just when the wait is over: a thread of the batch kind does not drive another
// one away from the only processor, so it finds both when this one waits.
template <class Wait>
void askBehindALock(Wait wait, const std::function<void()>& unlock) {
  const OneProcessor oneProcessor;
  std::atomic<pid_t> task = 0;
  StdThread::Termination termination;
  const StdThread* thread = startThread(
      [&] {
        const sched_param parameters = {};
        EXPECT_EQ(sched_setscheduler(0, SCHED_BATCH, &parameters), 0);
        task = gettid();
        for (;;) {
          wait();
          usleep(10000);
        }
      },
      &termination);
  waitUntilAsleep(task);
  EXPECT_EQ(thread->requestTerminate(), 0);
  usleep(200000);  // the thread is looked at many times
  unlock();
  thread->requestTerminate();
  EXPECT_EQ(termination.wait(0), 0);
}

// A guard whose functions may throw, as far as the compiler knows.
class NativeGuard {
 public:
  explicit NativeGuard(pthread_mutex_t& mutex) : mutex_(mutex) {
    static int (*volatile const lock)(pthread_mutex_t*) = pthread_mutex_lock;
    lock(&mutex_);
  }
  NativeGuard(const NativeGuard&) = delete;
  NativeGuard& operator=(const NativeGuard&) = delete;
  ~NativeGuard() { pthread_mutex_unlock(&mutex_); }

 private:
  pthread_mutex_t& mutex_;
};

// Expects a mutex of a kind to be free when a thread has ended that waited for it.
void expectNotKept(void (*setKind)(pthread_mutexattr_t*)) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  setKind(&attributes);
  pthread_mutex_t mutex;
  pthread_mutex_init(&mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
  pthread_mutex_lock(&mutex);
  askBehindALock([&mutex] { const NativeGuard guard(mutex); },
                 [&mutex] { pthread_mutex_unlock(&mutex); });
  EXPECT_EQ(pthread_mutex_trylock(&mutex), 0) << "the thread ended with it";
  pthread_mutex_unlock(&mutex);
  pthread_mutex_destroy(&mutex);
}

}  // namespace

TEST(RequestBehindALock, DoesNotKeepATimedMutex) {
  std::timed_mutex mutex;
  mutex.lock();
  askBehindALock([&mutex] { const std::unique_lock lock(mutex, std::chrono::seconds(60)); },
                 [&mutex] { mutex.unlock(); });
  const bool isFree = mutex.try_lock();
  EXPECT_TRUE(isFree);
  if (isFree) {
    mutex.unlock();
  }
}

TEST(RequestBehindALock, DoesNotKeepARobustMutex) {
  expectNotKept([](pthread_mutexattr_t* attributes) {
    pthread_mutexattr_setrobust(attributes, PTHREAD_MUTEX_ROBUST);
  });
}

TEST(RequestBehindALock, DoesNotKeepAMutexWithPriorityInheritance) {
  expectNotKept([](pthread_mutexattr_t* attributes) {
    pthread_mutexattr_setprotocol(attributes, PTHREAD_PRIO_INHERIT);
  });
}
#endif
