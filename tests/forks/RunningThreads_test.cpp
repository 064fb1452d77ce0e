#include "Engine/utilities/RunningThreads.h"

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <pthread.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/TraceFlags.h"

#include "tests/support/Child.h"
#include "tests/support/TemporaryFolder.h"

// The free store of this program asks the new-handler for each block, if it is told to.
namespace {

class IdleThread : public StdThread {
 public:
  IdleThread() : StdThread("idle", 0, nullptr) {}
  void run() override {}
};

thread_local bool asksHandler = false;

void* allocate(std::size_t size) {
  if (std::exchange(asksHandler, false)) {
    std::get_new_handler()();
    asksHandler = true;
  }
  return std::malloc(size == 0 ? 1 : size);
}

}  // namespace

void* operator new(std::size_t size) {
  if (void* const block = allocate(size); block != nullptr) {
    return block;
  }
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return std::malloc(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return std::malloc(size); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }

CUL_CHILD(NewHandlerThatWaitsForATrace) {
  static_cast<void>(StdThread::currentThread());
  static unsigned asked = 0;
  std::set_new_handler([] {
    ++asked;
    std::thread([] {
      taggedTrace("CUL_CHILD", __LINE__, "ERROR", "memory is out on %p",
                  static_cast<void*>(StdThread::currentThread()));
    }).join();
  });
  std::vector<std::unique_ptr<StdThread>> threads(200);
  asksHandler = true;
  for (std::unique_ptr<StdThread>& thread : threads) {
    thread = std::make_unique<IdleThread>();
  }
  asksHandler = false;
  EXPECT_GT(asked, threads.size());
}

TEST(RunningThreads, AsksForMemoryWhileOtherThreadsMayTrace) {
  const TemporaryFolder folder;
  const ChildResult r =
      runChild("NewHandlerThatWaitsForATrace",
               {.environment = {{"GDIA_ID", "root"}, {"QVX_DBG_TRACE", folder.path() + ",ERROR,2"}},
                .limitInSeconds = 30});
  EXPECT_EQ(r.status, 0) << r.out;
}

namespace {

// Runs on a POSIX thread with the stack of a StdThread, which is made of the same memory as the
// last that has ended, and with it of its id.
pthread_t runOnForeignThread(void (*body)()) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, StdThread::defaultStackSize());
  pthread_t id = 0;
  const auto entry = [](void* function) -> void* {
    reinterpret_cast<void (*)()>(function)();
    return nullptr;
  };
  EXPECT_EQ(pthread_create(&id, &attributes, entry, reinterpret_cast<void*>(body)), 0);
  EXPECT_EQ(pthread_join(id, nullptr), 0);
  return id;
}

// Notes what its thread finds with its own registration and behind it.
class Seeker : public StdThread {
 public:
  struct Finding {
    StdThread* atFirst = nullptr;
    StdThread* whileUnregistered = nullptr;
    StdThread* asTheLast = nullptr;
    pthread_t id = 0;
  };

  Seeker(Termination* termination, Finding& finding)
      : StdThread("seeker", 0, termination), finding_(finding) {}

  void run() override {
    finding_.id = pthread_self();
    finding_.atFirst = currentThread();
    RunningThreads::instance().remove(this);
    finding_.whileUnregistered = currentThread();
    RunningThreads::instance().append(this);
    finding_.asTheLast = currentThread();
  }

 private:
  Finding& finding_;
};

}  // namespace

CUL_CHILD(MainWithTheIdOfAnotherObject) {
  constexpr unsigned count = 20;
  std::vector<StdThread::Termination> terminations(2 * count);
  std::vector<Seeker::Finding> findings(2 * count);
  std::vector<Seeker*> seekers;
  for (unsigned i = 0; i < count; ++i) {
    seekers.push_back(new Seeker(&terminations[i], findings[i]));
  }
  // "main" is made in between, by a thread that ends.
  const pthread_t id = runOnForeignThread([] {
    EXPECT_EQ(StdThread::currentThread(), StdThread::thread1());
    EXPECT_EQ(StdThread::thread1()->threadId(), pthread_self());
  });
  StdThread* const main = StdThread::thread1();
  ASSERT_EQ(main->threadId(), id);
  for (unsigned i = count; i < 2 * count; ++i) {
    seekers.push_back(new Seeker(&terminations[i], findings[i]));
  }
  unsigned alike[] = {0, 0};
  for (unsigned i = 0; i < 2 * count; ++i) {
    StdThread* const seeker = seekers[i];
    seeker->start_thread(0);
    EXPECT_EQ(terminations[i].wait(0), 0);
    const bool isAlike = findings[i].id == id;
    const bool isOlder = i < count;
    alike[isOlder ? 0 : 1] += isAlike ? 1 : 0;
    EXPECT_EQ(findings[i].atFirst, isAlike && isOlder ? main : seeker) << i;
    EXPECT_EQ(findings[i].whileUnregistered, main);
    EXPECT_EQ(findings[i].asTheLast, seeker);
  }
  EXPECT_GT(alike[0], 0U);
  EXPECT_GT(alike[1], 0U);
}

TEST(RunningThreads, FindsTheLastRegisteredOfMainAndAnotherObjectWithTheSameId) {
  const ChildResult r = runChild("MainWithTheIdOfAnotherObject");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

namespace {

// Forks, and looks in the child whether the calling thread is `expected` and other threads
// find what they should.
bool isRightInAChild(StdThread* expected) {
  const pid_t child = fork();
  if (child == 0) {
    StdThread* const main = StdThread::thread1();
    bool isRight = StdThread::currentThread() == expected &&
                   RunningThreads::instance().find(pthread_self()) == expected &&
                   main->threadId() == (expected == main ? pthread_self() : 0);
// Under the sanitizers children of a busy process cannot start threads: the address sanitizer's
// allocator may be locked there for good.
#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)
    for (int i = 0; i < 3; ++i) {
      StdThread::Termination termination;
      Seeker::Finding finding;
      StdThread* const seeker = new Seeker(&termination, finding);
      seeker->start_thread(0);
      isRight = isRight && termination.wait(0) == 0 && finding.atFirst == seeker &&
                finding.whileUnregistered == main && finding.asTheLast == seeker;
      runOnForeignThread([] {
        if (StdThread::currentThread() != StdThread::thread1()) {
          _exit(2);
        }
      });
      isRight = isRight && StdThread::currentThread() == expected;
    }
#endif
    _exit(isRight ? 0 : 1);
  }
  int status = -1;
  return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

class Forker : public StdThread {
 public:
  explicit Forker(Termination* termination) : StdThread("forker", 0, termination) {}
  void run() override {
    for (int i = 0; i < 20; ++i) {
      EXPECT_EQ(currentThread(), this);
      EXPECT_TRUE(isRightInAChild(this));
      EXPECT_EQ(currentThread(), this);
    }
    RunningThreads::instance().remove(this);
    EXPECT_TRUE(isRightInAChild(thread1()));
    RunningThreads::instance().append(this);
  }
};

}  // namespace

CUL_CHILD(ForksWhileTheRegistryChanges) {
  StdThread* const main = StdThread::currentThread();
  std::atomic<bool> isDone = false;
  StdThread::Termination termination;
  Seeker::Finding finding;
  std::thread changing([&] {
    while (!isDone) {
      StdThread::Termination own;
      (new Seeker(&own, finding))->start_thread(0);
      own.wait(0);
    }
  });
  (new Forker(&termination))->start_thread(0);
  EXPECT_EQ(termination.wait(0), 0);
  for (int i = 0; i < 10; ++i) {
    EXPECT_TRUE(isRightInAChild(main));
    std::thread([main] {
      EXPECT_EQ(StdThread::currentThread(), main);
      EXPECT_TRUE(isRightInAChild(main));
      EXPECT_EQ(StdThread::currentThread(), main);
    }).join();
  }
  isDone = true;
  changing.join();
}

TEST(RunningThreads, TellsEachThreadOfAForkedChildWhoItIs) {
  const ChildResult r = runChild("ForksWhileTheRegistryChanges");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}
