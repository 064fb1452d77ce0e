#include <array>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <new>
#include <pthread.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>

#include <gmock/gmock.h>

#include "Engine/utilities/StringPoolManager.h"
#include "Engine/utilities/UNIX/UNIX_Critical_Section.h"
#include "Engine/utilities/UNIX/UNIX_Event_Semaphore.h"
#include "Engine/utilities/UNIX/UNIX_Mutex.h"

#include "tests/support/Child.h"
#include "tests/support/Famine.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/trace/TraceSupport.h"

/// \file
/// That the suite is watched for locks which are taken in two orders: by the thread sanitizer in
/// its build, by libraries/lockOrder.cpp in the plain one. Mistakes made on purpose are told of
/// although no two threads ever wait for each other.

#if defined(CUL_LOCK_ORDER) || defined(__SANITIZE_THREAD__)

namespace {

#if defined(__SANITIZE_THREAD__)
constexpr int statusOfAFinding = 66;
constexpr const char* finding = "lock-order-inversion";
#else
constexpr int statusOfAFinding = 128 + 6;
constexpr const char* finding = "lock order: two threads could wait for each other";
#endif

ChildResult runWatched(const std::string& name) {
  ChildOptions options;
#if defined(CUL_LOCK_ORDER)
  options.environment["LD_PRELOAD"] = CUL_LOCK_ORDER;
  options.environment["CUL_LOCK_ORDER_LOG"] = "";  // what is made on purpose is not told there
#endif
  return runChild(name, options);
}

void expectAFinding(const std::string& name) {
  const ChildResult child = runWatched(name);
  EXPECT_EQ(child.status, statusOfAFinding) << child.out << child.err;
  EXPECT_THAT(child.err, testing::HasSubstr(finding));
}

void expectNoFinding(const std::string& name) {
  const ChildResult child = runWatched(name);
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

void onAThread(const std::function<void()>& body) { std::thread(body).join(); }

// Holds one while it asks for the other.
void takeBoth(CUL_Critical_Section& first, CUL_Critical_Section& second) {
  first.request("test", 1);
  second.request("test", 2);
  second.release("test", 3);
  first.release("test", 4);
}

}  // namespace

CUL_CHILD(TwoSectionsInTwoOrders) {
  UNIX_Critical_Section one;
  UNIX_Critical_Section other;
  onAThread([&] { takeBoth(one, other); });
  onAThread([&] { takeBoth(other, one); });
}

TEST(LockOrder, IsToldOfTwoCriticalSections) { expectAFinding("TwoSectionsInTwoOrders"); }

CUL_CHILD(AMutexAndASectionInTwoOrders) {
  UNIX_Mutex mutex;
  UNIX_Critical_Section section;
  onAThread([&] { takeBoth(mutex, section); });
  onAThread([&] { takeBoth(section, mutex); });
}

TEST(LockOrder, IsToldOfAMutexAndACriticalSection) {
  expectAFinding("AMutexAndASectionInTwoOrders");
}

CUL_CHILD(ThreeSectionsInACircle) {
  UNIX_Critical_Section first;
  UNIX_Critical_Section second;
  UNIX_Critical_Section third;
  onAThread([&] { takeBoth(first, second); });
  onAThread([&] { takeBoth(second, third); });
  onAThread([&] { takeBoth(third, first); });
}

TEST(LockOrder, IsToldOfACircleOfThree) { expectAFinding("ThreeSectionsInACircle"); }

CUL_CHILD(TwoSectionsInOneOrder) {
  UNIX_Critical_Section one;
  UNIX_Critical_Section other;
  for (int i = 0; i < 2; ++i) {
    onAThread([&] {
      takeBoth(one, other);
      one.request("test", 1);
      takeBoth(one, other);
      one.release("test", 2);
    });
  }
  // One after the other is no order.
  onAThread([&] {
    other.request("test", 3);
    other.release("test", 4);
    one.request("test", 5);
    one.release("test", 6);
  });
}

TEST(LockOrder, OfLocksThatAreTakenInOneIsRight) { expectNoFinding("TwoSectionsInOneOrder"); }

namespace {

class RecursiveMutex {
 public:
  RecursiveMutex() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&mutex_, &attributes);
    pthread_mutexattr_destroy(&attributes);
  }
  RecursiveMutex(const RecursiveMutex&) = delete;
  RecursiveMutex& operator=(const RecursiveMutex&) = delete;
  ~RecursiveMutex() { pthread_mutex_destroy(&mutex_); }

  void lock() { pthread_mutex_lock(&mutex_); }
  void unlock() { pthread_mutex_unlock(&mutex_); }

 private:
  pthread_mutex_t mutex_;
};

}  // namespace

CUL_CHILD(AMutexThatIsTakenAgainBehindAnother) {
  RecursiveMutex mutex;
  UNIX_Critical_Section section;
  mutex.lock();
  section.request("test", 1);
  mutex.lock();
  mutex.unlock();
  section.release("test", 2);
  mutex.unlock();
}

TEST(LockOrder, IsNotMadeByTakingAgainWhatTheThreadHas) {
  expectNoFinding("AMutexThatIsTakenAgainBehindAnother");
}

#if !defined(__SANITIZE_THREAD__)

namespace {

// Whether the library that watches is part of this process.
bool isWatched() {
  std::ifstream maps("/proc/self/maps");
  const std::string all{std::istreambuf_iterator<char>(maps), {}};
  return all.find("/liblock_order.so") != std::string::npos;
}

}  // namespace

CUL_CHILD(AProcessThatMustBeWatched) { EXPECT_TRUE(isWatched()); }

// Nothing here says so: ctest and script/try do.
TEST(LockOrder, IsWatchedInEachTestAndWhatItStarts) {
  EXPECT_TRUE(isWatched()) << "run it by ctest or script/try";
  const ChildResult child = runChild("AProcessThatMustBeWatched");
  EXPECT_EQ(child.status, 0) << child.out;
}

namespace {

// What is added to the log by a child that ends well.
std::string logOf(const std::string& name) {
  const TemporaryFolder folder;
  ChildOptions options;
  options.environment = {{"LD_PRELOAD", CUL_LOCK_ORDER},
                         {"CUL_LOCK_ORDER_LOG", folder.file("log")}};
  const ChildResult child = runChild(name, options);
  EXPECT_EQ(child.status, 0) << child.out << child.err;
  std::ifstream log(folder.file("log"));
  return {std::istreambuf_iterator<char>(log), {}};
}

}  // namespace

CUL_CHILD(AProcessThatEnds) {}

TEST(LockOrder, IsHeldAgainstTheOneWrittenDownAtTheEndOfAProcess) {
  EXPECT_THAT(logOf("AProcessThatEnds"), testing::EndsWith(" orders, written order\n"));
}

CUL_CHILD(AProcessThatEndsWithALock) {
  UNIX_Critical_Section section;
  section.request("test", 1);
  std::exit(0);
}

TEST(LockOrder, IsNotHeldAgainstTheOneWrittenDownWhereAProcessEndsWithALock) {
  EXPECT_THAT(logOf("AProcessThatEndsWithALock"), testing::EndsWith(", ended with a lock\n"));
}

CUL_CHILD(AProcessThatIsWatchedNoMore) {
  void* const stop = dlsym(RTLD_DEFAULT, "watchNoLocks");
  ASSERT_NE(stop, nullptr);
  reinterpret_cast<void (*)()>(stop)();
  UNIX_Critical_Section one;
  UNIX_Critical_Section other;
  takeBoth(one, other);
  takeBoth(other, one);
}

TEST(LockOrder, IsNotWatchedAnyMoreWhereAProcessSaysSo) {
  EXPECT_THAT(logOf("AProcessThatIsWatchedNoMore"), testing::EndsWith(", not all is watched\n"));
}

namespace {

constexpr pthread_mutex_t unlocked = PTHREAD_MUTEX_INITIALIZER;
template <std::size_t... i>
constexpr std::array<pthread_mutex_t, sizeof...(i)> unlockedMutexes(std::index_sequence<i...>) {
  return {((void)i, unlocked)...};
}
// Each is a kind of its own.
std::array<pthread_mutex_t, 1024> manyMutexes = unlockedMutexes(std::make_index_sequence<1024>());

}  // namespace

CUL_CHILD(TooManyKindsOfMutexes) {
  UNIX_Critical_Section first;
  first.request("test", 1);
  for (pthread_mutex_t& mutex : manyMutexes) {
    pthread_mutex_lock(&mutex);
    pthread_mutex_unlock(&mutex);
  }
  first.release("test", 2);
}

TEST(LockOrder, IsNotWatchedInPart) {
  const ChildResult child = runWatched("TooManyKindsOfMutexes");
  EXPECT_EQ(child.status, statusOfAFinding) << child.out << child.err;
  EXPECT_THAT(child.err, testing::HasSubstr("more than 1024 kinds of mutexes"));
}

CUL_CHILD(TooManyMutexesAtOnce) {
  for (pthread_mutex_t& mutex : manyMutexes) {
    pthread_mutex_lock(&mutex);
  }
}

TEST(LockOrder, IsNotWatchedWithoutWhatAThreadHas) {
  const ChildResult child = runWatched("TooManyMutexesAtOnce");
  EXPECT_EQ(child.status, statusOfAFinding) << child.out << child.err;
  EXPECT_THAT(child.err, testing::HasSubstr("more than 64 mutexes that one thread has"));
}

// Other threads are in the middle of watching most of the time.
CUL_CHILD(TwoSectionsInTwoOrdersInForkedChildren) {
  std::atomic<bool> isOver = false;
  std::thread other([&] {
    while (!isOver) {
      pthread_mutex_t mutex;
      pthread_mutex_init(&mutex, nullptr);
      pthread_mutex_destroy(&mutex);
    }
  });
  for (int i = 0; i < 20 && !testing::Test::HasFailure(); ++i) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(20);
      UNIX_Critical_Section one;
      UNIX_Critical_Section another;
      dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
      takeBoth(one, another);
      takeBoth(another, one);
      _exit(0);
    }
    EXPECT_EQ(statusOf(child), statusOfAFinding);
  }
  isOver = true;
  other.join();
}

TEST(LockOrder, IsWatchedInChildrenOfAProcessThatIsBusyWithLocks) {
  expectNoFinding("TwoSectionsInTwoOrdersInForkedChildren");
}

CUL_CHILD(AWaitForAConditionBehindAnotherLock) {
  pthread_mutex_t& mutex = manyMutexes[0];
  pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  UNIX_Critical_Section section;
  pthread_mutex_lock(&mutex);
  section.request("test", 1);
  alarm(20);
  pthread_cond_wait(&condition, &mutex);
}

TEST(LockOrder, IsToldOfAMutexThatAWaitTakesAgainBehindAnother) {
  expectAFinding("AWaitForAConditionBehindAnotherLock");
}

namespace {

// Each has locks of its own, which are made at the same places.
struct Pair {
  Pair() : one(std::make_unique<UNIX_Critical_Section>()), other(std::make_unique<UNIX_Mutex>()) {}
  std::unique_ptr<UNIX_Critical_Section> one;
  std::unique_ptr<UNIX_Mutex> other;
};

}  // namespace

CUL_CHILD(LocksOfTwoPairsInTwoOrders) {
  std::array<std::unique_ptr<Pair>, 2> pairs;
  for (std::unique_ptr<Pair>& pair : pairs) {
    pair = std::make_unique<Pair>();
  }
  takeBoth(*pairs[0]->one, *pairs[0]->other);
  takeBoth(*pairs[1]->other, *pairs[1]->one);
}

TEST(LockOrder, IsToldOfKindsOfLocksThatNeverMeetInTwoOrders) {
  expectAFinding("LocksOfTwoPairsInTwoOrders");
}

namespace {

std::unique_ptr<Famine> famine;
bool wasHungry = false;

}  // namespace

// The string pool asks for memory under its lock, which is written down behind that of events.
CUL_CHILD(EventsUnderTheLockOfStrings) {
  StringPoolManager& pool = StringPoolManager::instance();
  famine = std::make_unique<Famine>();
  std::set_new_handler([] {
    std::set_new_handler(nullptr);
    famine = nullptr;
    wasHungry = true;
    static_cast<void>(UNIX_Event_Semaphore::timerInstance());
  });
  while (!wasHungry) {
    static_cast<void>(pool.getBuffer(64));
  }
}

TEST(LockOrder, IsToldOfWhatIsAgainstTheOrderWrittenDown) {
  expectAFinding("EventsUnderTheLockOfStrings");
}

#endif
#endif
