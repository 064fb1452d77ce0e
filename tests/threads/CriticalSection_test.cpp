#include <atomic>
#include <cerrno>
#include <pthread.h>
#include <thread>
#include <type_traits>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Engine/utilities/CUL_SemaphoreError.h"
#include "Engine/utilities/UNIX/UNIX_Critical_Section.h"
#include "Engine/utilities/UNIX/UNIX_Mutex.h"

#include "tests/support/Child.h"
#include "tests/threads/PosixFailure.h"
#include "tests/threads/ThreadSupport.h"

namespace {

// A lock that is made before main and used after exit.
UNIX_Critical_Section earlyLock;

struct UseAtExit {
  UseAtExit() { use("before main"); }
  ~UseAtExit() { use("after exit"); }

 private:
  static void use(const char* when) {
    earlyLock.request(when, 1);
    earlyLock.release(when, 2);
  }
} const useAtExit;

}  // namespace

TEST(CUL_Critical_Section, HasRequestAndReleaseBehindTheDestructors) {
  EXPECT_EQ(virtualSlot(&CUL_Critical_Section::request), 2U);
  EXPECT_EQ(virtualSlot(&CUL_Critical_Section::release), 3U);
  static_assert(sizeof(CUL_Critical_Section) == sizeof(void*));
}

TEST(UNIX_Mutex, HoldsOneMutexAndIsFreeAtFirst) {
  static_assert(sizeof(UNIX_Mutex) == sizeof(void*) + sizeof(pthread_mutex_t));
  UNIX_Mutex mutex;
  EXPECT_TRUE(isFree(mutex));
}

TEST(UNIX_Mutex, KeepsOthersOutBetweenRequestAndRelease) {
  UNIX_Mutex mutex;
  CUL_Critical_Section& lock = mutex;
  lock.request("test", 1);
  EXPECT_FALSE(isFree(mutex));
  lock.release("test", 2);
  EXPECT_TRUE(isFree(mutex));
}

CUL_CHILD(MutexLockedTwice) {
  static UNIX_Mutex mutex;
  static std::atomic<pid_t> task = 0;
  static std::atomic<bool> hasBoth = false;
  std::thread([] {
    mutex.request("first", 1);
    task = gettid();
    mutex.request("second", 2);
    hasBoth = true;
  }).detach();
  waitUntilAsleep(task);
  EXPECT_FALSE(hasBoth);
  _exit(testing::Test::HasFailure() ? 1 : 0);
}

TEST(UNIX_Mutex, LockedTwiceByOneThreadWaitsForEver) {
  ChildOptions options;
  // The thread sanitizer rightly calls the double lock a bug; here it is the point.
  options.environment["TSAN_OPTIONS"] = "report_mutex_bugs=0:report_thread_leaks=0";
  const ChildResult child = runChild("MutexLockedTwice", options);
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

CUL_CHILD(FailingMutexCalls) {
  {
    const PosixFailure failure(PosixCall::mutexInit, 35, 7);
    const UNIX_Mutex mutex;
  }
  UNIX_Mutex mutex;
  {
    const PosixFailure failure(PosixCall::mutexLock, 35, 8);
    mutex.request("void Caller::lock(int)", 123);
  }
  mutex.request("test", 1);
  {
    const PosixFailure failure(PosixCall::mutexUnlock, 35, 9);
    mutex.release("void Caller::unlock(int)", 124);
  }
  mutex.release("test", 2);
  const PosixFailure failure(PosixCall::mutexDestroy, 35, 10);
  { const UNIX_Mutex doomed; }
}

TEST(UNIX_Mutex, TracesFailuresAsWarningsWithErrnoAndGoesOn) {
  const TracedChild child("FailingMutexCalls");
  EXPECT_EQ(child.result.status, 0) << child.all();
  EXPECT_EQ(child.count("**WARNING: UNIX_Mutex::UNIX_Mutex(29): pthread_mutex_init failed - "
                        "error = 7"),
            1)
      << child.all();
  EXPECT_EQ(child.count("**WARNING: void Caller::lock(123): pthread_mutex_lock failed - error = 8"),
            1)
      << child.all();
  EXPECT_EQ(
      child.count("**WARNING: void Caller::unlock(124): pthread_mutex_unlock failed - error = 9"),
      1)
      << child.all();
  EXPECT_EQ(child.countContaining("**WARNING"), 3) << child.all();
}

TEST(UNIX_Mutex, FailuresAreSilentWithoutATrace) {
  const ChildResult child = runChild("FailingMutexCalls");
  EXPECT_EQ(child.status, 0);
  EXPECT_EQ(child.out + child.err, "");
}

TEST(UNIX_Critical_Section, IsAMutexWithAnOwnerAndACount) {
  static_assert(std::is_base_of_v<UNIX_Mutex, UNIX_Critical_Section>);
  static_assert(sizeof(UNIX_Critical_Section) ==
                sizeof(UNIX_Mutex) + sizeof(pthread_t) + 2 * sizeof(unsigned));
  UNIX_Critical_Section section;
  EXPECT_TRUE(isFree(section));
  CUL_Critical_Section& lock = section;
  lock.request("test", 1);
  lock.request("test", 2);
  EXPECT_FALSE(isFree(section));
  lock.release("test", 3);
  lock.release("test", 4);
  EXPECT_TRUE(isFree(section));
}

TEST(UNIX_Critical_Section, BelongsToItsThreadUntilReleasedAsOftenAsRequested) {
  UNIX_Critical_Section lock;
  for (unsigned i = 0; i < 5; ++i) {
    lock.request("test", i);
  }
  for (unsigned i = 0; i < 5; ++i) {
    EXPECT_FALSE(isFree(lock)) << i;
    lock.release("test", i);
  }
  EXPECT_TRUE(isFree(lock));
}

TEST(UNIX_Critical_Section, ReleaseOfAFreeLockThrowsWithTheCallersPlaceAndErrno) {
  UNIX_Critical_Section lock;
  try {
    errno = EDOM;
    lock.release("void Caller::release(int)", 77);
    FAIL() << "nothing was thrown";
  } catch (const CUL_SemaphoreError& error) {
    EXPECT_STREQ(error.fileName, "void Caller::release(int)");
    EXPECT_EQ(error.line, 77U);
    EXPECT_EQ(error.status, EDOM);
    EXPECT_STREQ(error.text, "");
  }
  EXPECT_TRUE(isFree(lock));
}

TEST(UNIX_Critical_Section, ReleaseByAnotherThreadThrowsAndLeavesTheLockAlone) {
  UNIX_Critical_Section lock;
  lock.request("owner", 1);
  lock.request("owner", 2);
  std::thread([&lock] { EXPECT_THROW(lock.release("thief", 3), CUL_SemaphoreError); }).join();
  lock.release("owner", 4);
  EXPECT_FALSE(isFree(lock));
  lock.release("owner", 5);
  EXPECT_TRUE(isFree(lock));
  EXPECT_THROW(lock.release("owner", 6), CUL_SemaphoreError);
}

TEST(UNIX_Critical_Section, MisuseIsAStdExceptionToo) {
  UNIX_Critical_Section lock;
  EXPECT_THROW(lock.release("test", 1), StdException);
}

CUL_CHILD(MisusedCriticalSection) {
  UNIX_Critical_Section lock;
  std::printf("%p", static_cast<const void*>(&lock));
  errno = 5;
  EXPECT_THROW(lock.release("void Caller::release(int)", 77), CUL_SemaphoreError);
  {
    const PosixFailure failure(PosixCall::mutexLock, 35, 8);
    lock.request("void Caller::lock(int)", 123);
  }
  lock.release("test", 1);
  lock.request("test", 2);
  const PosixFailure failure(PosixCall::mutexUnlock, 35, 9);
  lock.release("void Caller::unlock(int)", 124);
}

TEST(UNIX_Critical_Section, MisuseAndFailuresAreTraced) {
  ChildOptions options;
  // A lock that is said to have failed is unlocked all the same, and the other way round.
  options.environment["TSAN_OPTIONS"] = "report_mutex_bugs=0:report_destroy_locked=0";
  const TracedChild child("MisusedCriticalSection", options);
  EXPECT_EQ(child.result.status, 0) << child.all();
  // Nothing is created, but this is the text.
  EXPECT_EQ(child.count("**WARNING: void Caller::release(77): MutexCreate failed - error = 5"), 1)
      << child.all();
  EXPECT_EQ(child.count("**ERROR: void Caller::release(77): Error on object " + child.result.out),
            1)
      << child.all();
  EXPECT_EQ(child.count("**WARNING: void Caller::lock(123): pthread_mutex_lock failed - error = 8"),
            1)
      << child.all();
  EXPECT_EQ(
      child.count("**WARNING: void Caller::unlock(124): pthread_mutex_unlock failed - error = 9"),
      1)
      << child.all();
}

TEST(UNIX_Critical_Section, ExcludesThreadsFromEachOther) {
  UNIX_Critical_Section lock;
  unsigned counter = 0;
  constexpr unsigned rounds = 20000;
  const auto count = [&lock, &counter] {
    for (unsigned i = 0; i < rounds; ++i) {
      lock.request("count", 1);
      lock.request("count", 2);
      ++counter;
      lock.release("count", 3);
      lock.release("count", 4);
    }
  };
  std::thread first(count);
  std::thread second(count);
  first.join();
  second.join();
  EXPECT_EQ(counter, 2 * rounds);
}

TEST(UNIX_Critical_Section, WorksBeforeMainAndAfterExit) {
  earlyLock.request("main", 3);
  EXPECT_FALSE(isFree(earlyLock));
  earlyLock.release("main", 4);
}

TEST(CUL_SemaphoreError, CarriesPlaceAndStatusAndNoText) {
  const CUL_SemaphoreError error("void Some::function()", 28, nullptr, 110);
  EXPECT_STREQ(error.fileName, "void Some::function()");
  EXPECT_EQ(error.line, 28U);
  EXPECT_EQ(error.status, 110);
  EXPECT_STREQ(error.text, "");
}

CUL_CHILD(MakeASemaphoreError) {
  int object = 0;
  std::printf("%p", static_cast<void*>(&object));
  const CUL_SemaphoreError error("void Some::function()", 28, &object, 110);
  const CUL_SemaphoreError without("void Other::function()", 29, nullptr, 0);
}

TEST(CUL_SemaphoreError, IsTracedWithTheAddressOfTheObject) {
  const TracedChild child("MakeASemaphoreError");
  EXPECT_EQ(child.result.status, 0) << child.all();
  EXPECT_EQ(child.count("**ERROR: void Some::function(28): Error on object " + child.result.out), 1)
      << child.all();
  EXPECT_EQ(child.count("**ERROR: void Other::function(29): Error on object (nil)"), 1)
      << child.all();
  const ChildResult untraced = runChild("MakeASemaphoreError");
  EXPECT_EQ(untraced.status, 0);
  EXPECT_EQ(untraced.err, "");
}
