#include "Engine/utilities/RWlock.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/StdException.h"

#include "tests/support/Child.h"
#include "tests/threads/PosixFailure.h"
#include "tests/threads/ThreadSupport.h"

namespace {

// A thread that does as it is told, one step after the other.
class Actor {
 public:
  Actor() : thread_([this] { work(); }) {}
  Actor(const Actor&) = delete;
  Actor& operator=(const Actor&) = delete;
  ~Actor() {
    tell([this] { isDone_ = true; });
    thread_.join();
  }

  // Begins a step; the one before must have ended.
  void tell(std::function<void()> step) {
    waitUntilIdle();
    const std::lock_guard guard(mutex_);
    step_ = std::move(step);
    isIdle_ = false;
    condition_.notify_one();
  }
  void waitUntilIdle() {
    waitUntil([this] { return isIdle(); });
  }
  // Begins a step and waits for its end.
  void perform(std::function<void()> step) {
    tell(std::move(step));
    waitUntilIdle();
  }
  bool isIdle() const { return isIdle_; }

 private:
  void work() {
    std::unique_lock guard(mutex_);
    while (!isDone_) {
      condition_.wait(guard, [this] { return !isIdle_; });
      step_();
      isIdle_ = true;
    }
  }

  std::mutex mutex_;
  std::condition_variable condition_;
  std::function<void()> step_;
  std::atomic<bool> isIdle_ = true;
  bool isDone_ = false;
  std::thread thread_;
};

constexpr std::array allPriorities = {RWlockBase::NoPriority, RWlockBase::ReaderPriority,
                                      RWlockBase::WriterPriority,
                                      static_cast<RWlockBase::Priority>(77)};

class EachPriority : public testing::TestWithParam<RWlockBase::Priority> {};
INSTANTIATE_TEST_SUITE_P(RWlock, EachPriority, testing::ValuesIn(allPriorities));

}  // namespace

TEST(RWlock, PrioritiesHaveTheirNumbersIn32Bits) {
  EXPECT_EQ(RWlockBase::NoPriority, 0U);
  EXPECT_EQ(RWlockBase::ReaderPriority, 1U);
  EXPECT_EQ(RWlockBase::WriterPriority, 2U);
  static_assert(sizeof(RWlockBase::Priority) == 4);
}

TEST_P(EachPriority, AFreshLockIsHeldByNobody) {
  RWlock lock(GetParam());
  EXPECT_FALSE(lock.holdsAnyLock());
  EXPECT_FALSE(lock.holdsReadLock());
  EXPECT_FALSE(lock.holdsWriteLock());
  EXPECT_EQ(lock.readersWaiting(), 0);
  EXPECT_EQ(lock.writersWaiting(), 0);
}

TEST_P(EachPriority, ManyReadersShareTheLock) {
  RWlock lock(GetParam());
  Actor other;
  lock.requestRead();
  other.perform([&lock] {
    lock.requestRead();
    EXPECT_TRUE(lock.holdsReadLock());
    EXPECT_FALSE(lock.holdsWriteLock());
    EXPECT_TRUE(lock.holdsAnyLock());
  });
  EXPECT_TRUE(lock.holdsReadLock());
  EXPECT_FALSE(lock.holdsWriteLock());
  other.perform([&lock] { lock.release(); });
  lock.release();
  EXPECT_FALSE(lock.holdsAnyLock());
}

TEST_P(EachPriority, AWriterKeepsReadersAndWritersOut) {
  RWlock lock(GetParam());
  Actor reader;
  Actor writer;
  lock.requestWrite();
  EXPECT_TRUE(lock.holdsWriteLock());
  EXPECT_FALSE(lock.holdsReadLock());
  EXPECT_TRUE(lock.holdsAnyLock());
  reader.tell([&lock] {
    lock.requestRead();
    EXPECT_TRUE(lock.holdsReadLock());
    lock.release();
  });
  writer.tell([&lock] {
    lock.requestWrite();
    EXPECT_TRUE(lock.holdsWriteLock());
    lock.release();
  });
  waitUntil([&lock] { return lock.readersWaiting() == 1 && lock.writersWaiting() == 1; });
  EXPECT_FALSE(reader.isIdle());
  EXPECT_FALSE(writer.isIdle());
  lock.release();
  reader.waitUntilIdle();
  writer.waitUntilIdle();
  EXPECT_EQ(lock.readersWaiting(), 0);
  EXPECT_EQ(lock.writersWaiting(), 0);
}

TEST_P(EachPriority, AWriterWaitsForTheLastReader) {
  RWlock lock(GetParam());
  Actor reader;
  Actor writer;
  lock.requestRead();
  reader.perform([&lock] { lock.requestRead(); });
  writer.tell([&lock] { lock.requestWrite(); });
  waitUntil([&lock] { return lock.writersWaiting() == 1; });
  reader.perform([&lock] { lock.release(); });
  EXPECT_FALSE(writer.isIdle());
  lock.release();
  writer.waitUntilIdle();
  EXPECT_FALSE(lock.holdsAnyLock());
  writer.perform([&lock] { lock.release(); });
}

TEST_P(EachPriority, ReadsAndWritesNest) {
  RWlock lock(GetParam());
  Actor other;
  std::atomic<bool> isIn = false;
  for (int i = 0; i < 3; ++i) {
    lock.requestWrite();
  }
  other.tell([&] {
    lock.requestRead();
    isIn = true;
    lock.release();
  });
  for (int i = 0; i < 3; ++i) {
    waitUntil([&lock] { return lock.readersWaiting() == 1; });
    EXPECT_FALSE(isIn);
    EXPECT_TRUE(lock.holdsWriteLock());
    lock.release();
  }
  other.waitUntilIdle();
  EXPECT_TRUE(isIn);
  lock.requestRead();
  lock.requestRead();
  lock.release();
  EXPECT_TRUE(lock.holdsReadLock());
  lock.release();
  EXPECT_FALSE(lock.holdsReadLock());
}

TEST_P(EachPriority, AReadRequestOfTheWriterIsAnotherWriteHold) {
  RWlock lock(GetParam());
  lock.requestWrite();
  lock.requestRead();
  EXPECT_FALSE(lock.holdsReadLock());
  lock.release();
  EXPECT_TRUE(lock.holdsWriteLock());
  EXPECT_FALSE(lock.holdsReadLock());
  lock.release();
  EXPECT_FALSE(lock.holdsAnyLock());
}

TEST_P(EachPriority, TheOnlyReaderUpgradesAtOnceAndReleasesTheWriteHoldFirst) {
  RWlock lock(GetParam());
  lock.requestRead();
  lock.requestWrite();
  EXPECT_TRUE(lock.holdsWriteLock());
  EXPECT_FALSE(lock.holdsReadLock());
  lock.release();
  EXPECT_TRUE(lock.holdsReadLock());
  lock.release();
  EXPECT_FALSE(lock.holdsAnyLock());
}

TEST_P(EachPriority, AReaderWhoWritesGivesAllWriteHoldsBackBeforeHisReadHolds) {
  RWlock lock(GetParam());
  Actor other;
  lock.requestRead();
  lock.requestRead();
  lock.requestWrite();
  lock.requestRead();  // a second write hold
  lock.release();
  EXPECT_FALSE(lock.holdsReadLock());
  other.tell([&lock] {
    lock.requestRead();
    EXPECT_TRUE(lock.holdsReadLock());
  });
  waitUntil([&lock] { return lock.readersWaiting() == 1; });
  lock.release();
  // With the last write hold gone others may read, too.
  other.waitUntilIdle();
  EXPECT_TRUE(lock.holdsReadLock());
  lock.release();
  EXPECT_TRUE(lock.holdsReadLock());
  lock.release();
  EXPECT_FALSE(lock.holdsAnyLock());
  other.perform([&lock] { lock.release(); });
}

TEST_P(EachPriority, AWriterWritesAgainThoughReadersAndWritersWait) {
  RWlock lock(GetParam());
  Actor reader;
  Actor writer;
  lock.requestWrite();
  reader.tell([&lock] {
    lock.requestRead();
    lock.release();
  });
  writer.tell([&lock] {
    lock.requestWrite();
    lock.release();
  });
  waitUntil([&lock] { return lock.readersWaiting() == 1 && lock.writersWaiting() == 1; });
  lock.requestWrite();
  lock.requestRead();
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(lock.holdsWriteLock()) << i;
    EXPECT_FALSE(reader.isIdle()) << i;
    EXPECT_FALSE(writer.isIdle()) << i;
    lock.release();
  }
}

TEST_P(EachPriority, TheOnlyReaderUpgradesPastAWaitingWriter) {
  RWlock lock(GetParam());
  Actor writer;
  lock.requestRead();
  writer.tell([&lock] {
    lock.requestWrite();
    lock.release();
  });
  waitUntil([&lock] { return lock.writersWaiting() == 1; });
  lock.requestWrite();
  EXPECT_FALSE(lock.holdsReadLock());
  lock.release();
  EXPECT_TRUE(lock.holdsReadLock());
  EXPECT_FALSE(writer.isIdle());
  lock.release();
}

TEST_P(EachPriority, AnyNumberOfReadersLeaveInAnyOrder) {
  RWlock lock(GetParam());
  // More than the list of holders has room for at first.
  std::array<Actor, 25> readers;
  for (Actor& reader : readers) {
    reader.perform([&lock] { lock.requestRead(); });
  }
  for (size_t i = 0; i < readers.size(); ++i) {
    Actor& leaving = readers[i * 7 % readers.size()];
    leaving.perform([&lock, i] {
      EXPECT_TRUE(lock.holdsReadLock());
      EXPECT_EQ(lock.holdsWriteLock(), i == 24);
      lock.release();
      EXPECT_FALSE(lock.holdsAnyLock());
    });
  }
  lock.requestWrite();
  EXPECT_TRUE(lock.holdsWriteLock());
  lock.release();
}

TEST_P(EachPriority, OneOfTwoReadersUpgradesWhenTheOtherLeaves) {
  RWlock lock(GetParam());
  Actor other;
  lock.requestRead();
  other.perform([&lock] { lock.requestRead(); });
  other.tell([&lock] { lock.requestWrite(); });
  waitUntil([&lock] { return lock.writersWaiting() == 1; });
  EXPECT_FALSE(other.isIdle());
  lock.release();
  other.waitUntilIdle();
  other.perform([&lock] {
    EXPECT_TRUE(lock.holdsWriteLock());
    lock.release();
    EXPECT_TRUE(lock.holdsReadLock());
    lock.release();
  });
}

TEST_P(EachPriority, TheOnlyReaderIsReportedAsTheWriter) {
  RWlock lock(GetParam());
  Actor other;
  lock.requestRead();
  EXPECT_TRUE(lock.holdsWriteLock());
  EXPECT_TRUE(lock.holdsReadLock());
  other.perform([&lock] { EXPECT_FALSE(lock.holdsWriteLock()); });
  other.perform([&lock] { lock.requestRead(); });
  EXPECT_FALSE(lock.holdsWriteLock());
  other.perform([&lock] { lock.release(); });
  lock.release();
}

TEST_P(EachPriority, EachOperationGivesItsMutexBackOnce) {
  RWlock lock(GetParam());
  for (void (RWlock::*operation)() :
       {&RWlock::requestRead, &RWlock::release, &RWlock::requestWrite, &RWlock::release}) {
    const PosixCount taken(PosixCall::mutexLock);
    const PosixCount givenBack(PosixCall::mutexUnlock);
    (lock.*operation)();
    EXPECT_EQ(taken.count(), 1U);
    EXPECT_EQ(givenBack.count(), 1U);
  }
}

TEST_P(EachPriority, ReleaseWithoutAHoldDoesNothing) {
  RWlock lock(GetParam());
  Actor other;
  lock.release();
  EXPECT_FALSE(lock.holdsAnyLock());
  lock.requestWrite();
  other.perform([&lock] { lock.release(); });
  EXPECT_TRUE(lock.holdsWriteLock());
  lock.release();
}

TEST_P(EachPriority, AReaderMayReadAgainWhileAWriterWaits) {
  RWlock lock(GetParam());
  Actor writer;
  lock.requestRead();
  writer.tell([&lock] { lock.requestWrite(); });
  waitUntil([&lock] { return lock.writersWaiting() == 1; });
  lock.requestRead();
  lock.release();
  lock.release();
  writer.waitUntilIdle();
  writer.perform([&lock] { lock.release(); });
}

TEST(RWlock, WithWriterPriorityANewReaderWaitsBehindAWaitingWriter) {
  RWlock lock(RWlockBase::WriterPriority);
  Actor writer;
  Actor reader;
  std::atomic<int> order = 0;
  int writerCame = 0;
  int readerCame = 0;
  lock.requestRead();
  writer.tell([&] {
    lock.requestWrite();
    writerCame = ++order;
  });
  waitUntil([&lock] { return lock.writersWaiting() == 1; });
  reader.tell([&] {
    lock.requestRead();
    readerCame = ++order;
    lock.release();
  });
  waitUntil([&lock] { return lock.readersWaiting() == 1; });
  lock.release();
  writer.waitUntilIdle();
  EXPECT_FALSE(reader.isIdle());
  writer.perform([&lock] { lock.release(); });
  reader.waitUntilIdle();
  EXPECT_EQ(writerCame, 1);
  EXPECT_EQ(readerCame, 2);
}

TEST(RWlock, WithoutWriterPriorityANewReaderPassesAWaitingWriter) {
  for (const RWlockBase::Priority priority :
       {RWlockBase::NoPriority, RWlockBase::ReaderPriority, static_cast<RWlockBase::Priority>(3)}) {
    RWlock lock(priority);
    Actor writer;
    Actor reader;
    lock.requestRead();
    writer.tell([&lock] { lock.requestWrite(); });
    waitUntil([&lock] { return lock.writersWaiting() == 1; });
    reader.perform([&lock] { lock.requestRead(); });
    EXPECT_FALSE(writer.isIdle());
    reader.perform([&lock] { lock.release(); });
    lock.release();
    writer.waitUntilIdle();
    writer.perform([&lock] { lock.release(); });
  }
}

TEST(RWlock, WithReaderPriorityAFreeLockGoesToTheWaitingReaderFirst) {
  for (int round = 0; round < 50; ++round) {
    RWlock lock(RWlockBase::ReaderPriority);
    Actor writer;
    Actor reader;
    std::atomic<int> order = 0;
    int writerCame = 0;
    int readerCame = 0;
    lock.requestWrite();
    writer.tell([&] {
      lock.requestWrite();
      writerCame = ++order;
      lock.release();
    });
    waitUntil([&lock] { return lock.writersWaiting() == 1; });
    reader.tell([&] {
      lock.requestRead();
      readerCame = ++order;
      lock.release();
    });
    waitUntil([&lock] { return lock.readersWaiting() == 1; });
    lock.release();
    reader.waitUntilIdle();
    writer.waitUntilIdle();
    ASSERT_EQ(readerCame, 1);
    ASSERT_EQ(writerCame, 2);
  }
}

TEST(RWlock, WithReaderPriorityTheOnlyReaderDoesNotUpgradePastAWaitingReader) {
  for (int round = 0; round < 50; ++round) {
    RWlock lock(RWlockBase::ReaderPriority);
    Actor reader;
    std::atomic<bool> hasRead = false;
    lock.requestRead();
    lock.requestWrite();
    reader.tell([&] {
      lock.requestRead();
      hasRead = true;
      lock.release();
    });
    waitUntil([&lock] { return lock.readersWaiting() == 1; });
    lock.release();
    lock.requestWrite();
    EXPECT_TRUE(hasRead);
    lock.release();
    lock.release();
  }
}

TEST(RWlock, WritersExcludeEachOtherAndReaders) {
  for (const RWlockBase::Priority priority : allPriorities) {
    RWlock lock(priority);
    int first = 0;
    int second = 0;
    const auto work = [&lock, &first, &second](bool writes) {
      for (int i = 0; i < 500; ++i) {
        writes ? lock.requestWrite() : lock.requestRead();
        EXPECT_EQ(first, second);
        if (writes) {
          ++first;
          ++second;
        }
        lock.release();
      }
    };
    std::vector<std::thread> threads;
    for (const bool writes : {true, false, true, false}) {
      threads.emplace_back(work, writes);
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    EXPECT_EQ(first, 1000);
  }
}

#if !defined(__SANITIZE_THREAD__)  // which checks that only pthread_cancel() ends such a wait
TEST(RWlock, AWaiterAskedToEndLeavesNoTrace) {
  for (const bool writes : {true, false}) {
    RWlock lock(RWlockBase::WriterPriority);
    Actor owner;
    Actor reader;
    owner.perform([&] { writes ? lock.requestRead() : lock.requestWrite(); });
    StdThread::Termination termination;
    const StdThread* waiter =
        startThread([&] { writes ? lock.requestWrite() : lock.requestRead(); }, &termination);
    waitUntil([&] { return lock.writersWaiting() + lock.readersWaiting() == 1; });
    if (writes) {
      // This reader waits for the writer only, and must learn that he is gone.
      reader.tell([&lock] { lock.requestRead(); });
      waitUntil([&lock] { return lock.readersWaiting() == 1; });
    }
    EXPECT_EQ(waiter->requestTerminate(), 0);
    EXPECT_EQ(termination.wait(0), 0);
    EXPECT_EQ(lock.writersWaiting(), 0);
    if (writes) {
      reader.waitUntilIdle();
      reader.perform([&lock] { lock.release(); });
    }
    owner.perform([&lock] { lock.release(); });
    lock.requestWrite();
    EXPECT_TRUE(lock.holdsWriteLock());
    lock.release();
  }
}
#endif

namespace {

struct Failure {
  PosixCall call;
  std::string function;
  unsigned line;
  std::string expression;
  void (*act)(RWlock&);
};

// Waiting is provoked by a second thread that writes until the wait has failed.
void waitForWriter(RWlock& lock, void (RWlock::*request)()) {
  Actor writer;
  writer.perform([&lock] { lock.requestWrite(); });
  std::atomic<bool> hasThrown = false;
  std::thread end([&] {
    waitUntil([&] { return hasThrown || lock.readersWaiting() + lock.writersWaiting() > 0; });
    writer.perform([&lock] { lock.release(); });
  });
  struct Join {
    std::thread& thread;
    std::atomic<bool>& hasThrown;
    ~Join() {
      hasThrown = true;
      thread.join();
    }
  } const join{end, hasThrown};
  (lock.*request)();
}

const std::vector<Failure>& failures() {
  static const std::vector<Failure> all = {
      {PosixCall::mutexLock, "void RWlock::requestRead()", 32, "!pthread_mutex_lock(&_mutex)",
       [](RWlock& lock) { lock.requestRead(); }},
      {PosixCall::mutexUnlock, "void RWlock::requestRead()", 70, "!pthread_mutex_unlock(&_mutex)",
       [](RWlock& lock) { lock.requestRead(); }},
      {PosixCall::mutexLock, "void RWlock::requestWrite()", 77, "!pthread_mutex_lock(&_mutex)",
       [](RWlock& lock) { lock.requestWrite(); }},
      {PosixCall::mutexUnlock, "void RWlock::requestWrite()", 113, "!pthread_mutex_unlock(&_mutex)",
       [](RWlock& lock) { lock.requestWrite(); }},
      {PosixCall::mutexLock, "void RWlock::release()", 120, "!pthread_mutex_lock(&_mutex)",
       [](RWlock& lock) { lock.release(); }},
      {PosixCall::mutexUnlock, "void RWlock::release()", 137, "!pthread_mutex_unlock(&_mutex)",
       [](RWlock& lock) { lock.release(); }},
      {PosixCall::mutexLock, "bool RWlock::holdsAnyLock()", 144, "!pthread_mutex_lock(&_mutex)",
       [](RWlock& lock) { EXPECT_FALSE(lock.holdsAnyLock()); }},
      {PosixCall::mutexUnlock, "bool RWlock::holdsAnyLock()", 154, "!pthread_mutex_unlock(&_mutex)",
       [](RWlock& lock) { EXPECT_FALSE(lock.holdsAnyLock()); }},
      {PosixCall::mutexLock, "bool RWlock::holdsReadLock()", 162, "!pthread_mutex_lock(&_mutex)",
       [](RWlock& lock) { EXPECT_FALSE(lock.holdsReadLock()); }},
      {PosixCall::mutexUnlock, "bool RWlock::holdsReadLock()", 172,
       "!pthread_mutex_unlock(&_mutex)", [](RWlock& lock) { EXPECT_FALSE(lock.holdsReadLock()); }},
      {PosixCall::mutexLock, "bool RWlock::holdsWriteLock()", 179, "!pthread_mutex_lock(&_mutex)",
       [](RWlock& lock) { EXPECT_FALSE(lock.holdsWriteLock()); }},
      {PosixCall::mutexUnlock, "bool RWlock::holdsWriteLock()", 181,
       "!pthread_mutex_unlock(&_mutex)", [](RWlock& lock) { EXPECT_FALSE(lock.holdsWriteLock()); }},
      {PosixCall::condBroadcast, "void RWlock::release()", 135, "!pthread_cond_broadcast(&_cond)",
       [](RWlock& lock) {
         lock.requestRead();
         lock.release();
       }},
      {PosixCall::condWait, "void RWlock::requestRead()", 66, "!pthread_cond_wait(&_cond, &_mutex)",
       [](RWlock& lock) { waitForWriter(lock, &RWlock::requestRead); }},
      {PosixCall::condWait, "void RWlock::requestWrite()", 109,
       "!pthread_cond_wait(&_cond, &_mutex)",
       [](RWlock& lock) { waitForWriter(lock, &RWlock::requestWrite); }},
      {PosixCall::mutexInit, "RWlock::RWlock(RWlockBase::Priority)", 18,
       "!pthread_mutex_init(&_mutex, 0)", [](RWlock&) { RWlock made(RWlockBase::NoPriority); }},
      {PosixCall::condInit, "RWlock::RWlock(RWlockBase::Priority)", 19,
       "!pthread_cond_init(&_cond, 0)", [](RWlock&) { RWlock made(RWlockBase::NoPriority); }},
      {PosixCall::mutexDestroy, "RWlock::~RWlock()", 24, "!pthread_mutex_destroy(&_mutex)",
       [](RWlock&) { RWlock made(RWlockBase::NoPriority); }},
      {PosixCall::condDestroy, "RWlock::~RWlock()", 25, "!pthread_cond_destroy(&_cond)",
       [](RWlock&) { RWlock made(RWlockBase::NoPriority); }},
  };
  return all;
}

}  // namespace

CUL_CHILD(RWlockFailure) {
  const Failure& failure = failures()[std::stoul(childArguments()[0])];
  // Never destroyed: a lock whose unlocking has failed is still locked.
  static RWlock& lock = *new RWlock(RWlockBase::NoPriority);
  const PosixFailure injected(failure.call, 22, 22);
  if (childArguments()[1] == "returns") {
    failure.act(lock);
    return;
  }
  try {
    failure.act(lock);
    ADD_FAILURE() << "nothing was thrown";
  } catch (const StdException& exception) {
    EXPECT_EQ("Engine/utilities/UNIX/UNIX_RWlock - " + failure.function,
              static_cast<const char*>(exception.fileName));
    EXPECT_EQ(exception.line, failure.line);
    EXPECT_EQ(failure.expression, static_cast<const char*>(exception.text));
    EXPECT_EQ(exception.status, -1);
  }
}

TEST(RWlock, EachFailingCallIsAFailedAssertionThatIsTraced) {
  for (size_t i = 0; i < failures().size(); ++i) {
    const Failure& failure = failures()[i];
    ChildOptions options;
    options.arguments = {std::to_string(i), "returns"};
    // Locks that are said to have failed are unlocked all the same here.
    options.environment["TSAN_OPTIONS"] = "report_mutex_bugs=0";
    const TracedChild child("RWlockFailure", options);
    EXPECT_EQ(child.result.status, 0) << child.all();
    const std::string function = failure.function.substr(0, failure.function.find('('));
    EXPECT_EQ(child.count("**ERROR: Engine/utilities/UNIX/UNIX_RWlock - " + function + "(" +
                          std::to_string(failure.line) + "): " + failure.expression),
              1)
        << child.all();
  }
}

TEST(RWlock, EachFailingCallThrowsWhenAssertionsDo) {
  for (size_t i = 0; i < failures().size(); ++i) {
    ChildOptions options;
    options.arguments = {std::to_string(i), "throws"};
    options.environment["QVX_DBG_ASSERTION"] = "EXCEPTION";
    options.environment["TSAN_OPTIONS"] = "report_mutex_bugs=0";
    const ChildResult child = runChild("RWlockFailure", options);
    EXPECT_EQ(child.status, 0) << failures()[i].line << "\n" << child.out << child.err;
  }
}
