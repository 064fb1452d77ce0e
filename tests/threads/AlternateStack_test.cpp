#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <limits>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/signals.h"

#include "tests/support/Child.h"
#include "tests/support/StandIn.h"
#include "tests/threads/SignalSupport.h"
#include "tests/threads/ThreadSupport.h"

// Stack overflow.

namespace {

// Deeper than any stack.
volatile int deepest = std::numeric_limits<int>::max();

__attribute__((noinline)) int overflow(int depth) {
  volatile char part[1024];
  part[0] = static_cast<char>(depth);
  return depth == deepest ? 0 : overflow(depth + 1) + part[0];
}

void runOverOnce() { std::printf("%d", overflow(0)); }

stack_t presentStack() {
  stack_t present = {};
  EXPECT_EQ(sigaltstack(nullptr, &present), 0);
  return present;
}

unsigned long mappings() {
  std::ifstream maps("/proc/self/maps");
  return static_cast<unsigned long>(
      std::count(std::istreambuf_iterator<char>(maps), std::istreambuf_iterator<char>(), '\n'));
}

}  // namespace

CUL_CHILD(Overflow) {
  std::atexit([] { std::printf("exit handlers run"); });
  if (childArguments()[0] == "thread") {
    startThread(runOverOnce);
    for (;;) {
      pause();
    }
  }
  runOverOnce();
}

TEST(StackOverflow, IsReportedAndEndsTheProcessWithStatus99) {
  for (const char* where : {"thread", "main"}) {
    ChildOptions options = withoutSanitizerHandlers();
    options.arguments = {where};
    const TracedChild child("Overflow", options);
    EXPECT_EQ(child.result.status, 99) << where << child.result.err;
    EXPECT_EQ(child.result.out, "exit handlers run") << where;
    EXPECT_EQ(child.countContaining("Signal 11 (SIGSEGV) at location 0x"), 1) << where;
    EXPECT_EQ(child.countContaining("---- End callback trace ----"), 1) << where;
    EXPECT_EQ(child.countContaining("No recovery possible"), 1) << where;
    const ChildResult untraced = runChild("Overflow", options);
    EXPECT_EQ(untraced.status, 99) << where << untraced.err;
  }
}

CUL_CHILD(OverflowAndRecovery) {
  const auto recover = [] {
    std::atomic<int> times = 0;  // keeps its value over the jumps
    while (++times <= 3) {
      if (const int signal = StdThread::currentThread()->_setjmp(); signal == 0) {
        runOverOnce();
      } else {
        EXPECT_EQ(signal, SIGSEGV);
        // The thread is back on its own stack, and the other one is free.
        EXPECT_EQ(presentStack().ss_flags & (SS_DISABLE | SS_ONSTACK), 0);
        std::printf("recovered ");
      }
      registerErrorHandlers();
    }
  };
  recover();
  runOnThread(recover);
}

TEST(StackOverflow, ResumesAtTheRecoveryPointAsOftenAsTheHandlersAreRegisteredAgain) {
  const ChildResult child = runChild("OverflowAndRecovery", withoutSanitizerHandlers());
  EXPECT_EQ(child.status, 0) << child.err;
  EXPECT_EQ(child.out, "recovered recovered recovered recovered recovered recovered ");
}

#if !defined(__SANITIZE_ADDRESS__)
// The handler begins anew on a second stack that has run over, among what the address sanitizer
// has noted about the frames that were there.

CUL_CHILD(OverflowInTheExitHandlers) {
  std::atexit([] { std::printf("not reached"); });
  std::atexit(runOverOnce);
  startThread(runOverOnce);
  for (;;) {
    pause();
  }
}

TEST(StackOverflow, EndsTheProcessAtOnceWhenTheSecondStackRunsOverAsWell) {
  const ChildResult child = runChild("OverflowInTheExitHandlers", withoutSanitizerHandlers());
  EXPECT_EQ(child.status, 99) << child.err;
  EXPECT_EQ(child.out, "");
}
#endif

TEST(AlternateStack, MayGiveWayToOneOfTheProgramsOwn) {
  static char memory[65536];
  runOnThread([] {
    const stack_t former = presentStack();
    stack_t own = {};
    own.ss_sp = memory;
    own.ss_size = sizeof memory;
    EXPECT_EQ(sigaltstack(&own, nullptr), 0);
    registerErrorHandlers();
    EXPECT_EQ(presentStack().ss_sp, static_cast<void*>(memory));
    // Whoever set the former one may want it back; a thread that ends does not care.
    EXPECT_EQ(sigaltstack(&former, nullptr), 0);
  });
#if !defined(__SANITIZE_ADDRESS__)
  // The address sanitizer unmaps whatever stack it finds at the end of a thread.
  runOnThread([] {
    stack_t own = {};
    own.ss_sp = memory;
    own.ss_size = sizeof memory;
    EXPECT_EQ(sigaltstack(&own, nullptr), 0);
  });
#endif
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// The sanitizers map memory and set stacks themselves.

TEST(AlternateStack, IsSetNoMoreWhenTheObjectsOfItsThreadAreDestroyed) {
  static std::atomic<int> flags = 0;
  struct Last {
    bool isMade = false;
    ~Last() { flags = presentStack().ss_flags; }
  };
  runOnThread([] {
    EXPECT_EQ(presentStack().ss_flags, 0);
    static thread_local Last last;
    last.isMade = true;
  });
  EXPECT_EQ(flags, SS_DISABLE);
}

CUL_STAND_IN(void*, mmap,
             (void* address, size_t size, int protection, int flags, int file, off_t offset),
             noexcept, address, size, protection, flags, file, offset)
CUL_STAND_IN(int, sigaltstack, (const stack_t* stack, stack_t* former), noexcept, stack, former)

TEST(AlternateStack, IsDoneWithoutWhenThereIsNoMemory) {
  const Instead noMemory(mmapStandIn, [](auto...) {
    errno = ENOMEM;
    return MAP_FAILED;
  });
  int flags = 0;
  runOnThread([&flags] { flags = presentStack().ss_flags; });
  EXPECT_EQ(flags, SS_DISABLE);
}

TEST(AlternateStack, IsGivenBackWhenItCannotBeSet) {
  runOnThread([] {});
  const unsigned long before = mappings();
  for (int i = 0; i < 50; ++i) {
    const Instead refused(sigaltstackStandIn, [](auto...) {
      errno = ENOMEM;
      return -1;
    });
    runOnThread([] {});
  }
  EXPECT_LT(mappings(), before + 20);
}

TEST(AlternateStack, GivesWayToOneThatTheThreadHasAlready) {
  alignas(16) static char memory[65536];
  // As if whatever runs at the start of a thread had set one.
  const Instead setBefore(sigaltstackStandIn, [](const stack_t* stack, stack_t* former) {
    const int result = sigaltstackStandIn.real(stack, former);
    if (stack != nullptr && former != nullptr && former->ss_flags == SS_DISABLE) {
      former->ss_sp = memory;
      former->ss_size = sizeof memory;
      former->ss_flags = 0;
    }
    return result;
  });
  const void* place = nullptr;
  runOnThread([&place] { place = presentStack().ss_sp; });
  EXPECT_EQ(place, memory);
}

TEST(AlternateStack, StaysWhenItsThreadEndsOnIt) {
  static std::atomic<void*> place = nullptr;
  runOnThread([] {
    place = presentStack().ss_sp;
    sigaltstackStandIn.callInstead([](auto...) {
      errno = EPERM;
      return -1;
    });
  });
  sigaltstackStandIn.callInstead(nullptr);
  unsigned char isThere = 0;
  EXPECT_EQ(mincore(place, 1, &isThere), 0) << "it was unmapped under the feet of its thread";
}
#endif

CUL_CHILD(ManyThreadsInTurn) {
  const std::string way = childArguments()[0];
  const auto run = [&way](int threads) {
    for (int i = 0; i < threads; ++i) {
      StdThread::Termination termination;
      std::atomic<bool> isRunning = false;
      const StdThread* thread = startThread(
          [&way, &isRunning] {
            EXPECT_EQ(presentStack().ss_flags & SS_DISABLE, 0);
            isRunning = true;
            if (way == "pthread_exit") {
              pthread_exit(nullptr);
            }
            while (way == "request") {
              usleep(1000);
            }
          },
          &termination);
      if (way == "request") {
        waitUntil([&isRunning] { return isRunning.load(); });
        EXPECT_EQ(thread->requestTerminate(), 0);
      }
      EXPECT_EQ(termination.wait(0), 0);
    }
  };
  // What stays behind of the first is kept for the next.
  run(20);
  const unsigned long before = mappings();
  run(200);
  const unsigned long after = mappings();
  EXPECT_LT(after, before + 50);
}

TEST(AlternateStack, GoesWithItsThreadInWhateverWayThatEnds) {
  for (const char* way : {"return", "pthread_exit", "request"}) {
    ChildOptions options = withoutSanitizerHandlers();
    options.arguments = {way};
    const ChildResult child = runChild("ManyThreadsInTurn", options);
    EXPECT_EQ(child.status, 0) << way << child.out << child.err;
  }
}

CUL_CHILD(ManyThreadsAtOnce) {
  constexpr unsigned threads = 500;
  const auto resident = [] {
    std::ifstream stream("/proc/self/statm");
    unsigned long total = 0;
    unsigned long pages = 0;
    stream >> total >> pages;
    return pages * static_cast<unsigned long>(getpagesize());
  };
  std::atomic<bool> go = false;
  std::atomic<unsigned> running = 0;
  StdThread::Termination terminations[threads];
  const unsigned long before = resident();
  for (StdThread::Termination& termination : terminations) {
    startThread(
        [&go, &running] {
          ++running;
          while (!go) {
            usleep(1000);
          }
        },
        &termination);
  }
  waitUntil([&running] { return running == threads; });
  const unsigned long each = (resident() - before) / threads;
  go = true;
  for (StdThread::Termination& termination : terminations) {
    EXPECT_EQ(termination.wait(0), 0);
  }
  // Some pages of its own stack and of the thread's data; a second stack that is not used has
  // none.
  EXPECT_LT(each, 65536U);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// The sanitizers keep much about each thread themselves.
TEST(AlternateStack, TakesNoMemoryUntilItIsUsed) {
  const ChildResult child = runChild("ManyThreadsAtOnce");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}
#endif
