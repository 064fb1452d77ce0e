#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/types.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/TraceImplementation.h"
#include "Engine/utilities/signals.h"

#include "tests/support/Child.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/WaitUntil.h"
#include "tests/trace/TraceSupport.h"

using testing::Contains;
using testing::EndsWith;
using testing::HasSubstr;

CUL_CHILD(TraceFromManyThreads) {
  EXPECT_TRUE(isTraced(TraceType::error));
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([thread] {
      for (int i = 0; i < 500; ++i) {
        taggedTrace(
            "f()", 1, "X", "%d %03d %s", thread, i,
            std::string(static_cast<std::size_t>(i % 97), static_cast<char>('a' + thread)).c_str());
        if (i % 50 == 0) {
          traceImplementation()->setRewindPoint();
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

TEST(TraceThreads, WriteWholeLines) {
  const TemporaryFolder folder;
  const std::string file = folder.file("trace");
  runWith("TraceFromManyThreads", {{"QVX_DBG_TRACE", file}});
  std::multiset<std::string> expected;
  for (int thread = 0; thread < 4; ++thread) {
    for (int i = 0; i < 500; ++i) {
      char text[160];
      std::snprintf(
          text, sizeof text, "**X: f(1): %d %03d %s", thread, i,
          std::string(static_cast<std::size_t>(i % 97), static_cast<char>('a' + thread)).c_str());
      expected.insert(text);
      if (i % 50 == 0) {
        expected.insert(separator);
      }
    }
  }
  const Strings body = bodyOf(contentsOf(file));
  EXPECT_TRUE(std::multiset<std::string>(body.begin(), body.end()) == expected);
}

CUL_CHILD(ForkWhileOthersTrace) {
  EXPECT_TRUE(isTraced(TraceType::error));
  std::atomic<bool> isDone = false;
  std::atomic<unsigned> atWork = 0;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 2; ++thread) {
    threads.emplace_back([&] {
      for (unsigned round = 0; !isDone; ++round) {
        atWork += round == 1 ? 1 : 0;
        taggedTrace("f()", 1, "X", "busy");
      }
    });
  }
  // Nor must the child wait for the lock of the string pool.
  threads.emplace_back([&] {
    for (unsigned round = 0; !isDone; ++round) {
      atWork += round == 1 ? 1 : 0;
      const ByteString text("short");
    }
  });
  // None of them is in malloc any more, where the address sanitizer bears no fork.
  EXPECT_TRUE(waitUntil([&] { return atWork == threads.size(); }));
  for (int i = 0; i < 100; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(60);
      taggedTrace("f()", 2, "X", "child before");
      traceImplementation()->processForked();
      taggedTrace("f()", 3, "X", "child after");
      _exit(isTraced(TraceType::active) ? 0 : 9);
    }
    EXPECT_EQ(statusOf(child), 0) << i;
  }
  isDone = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
}

TEST(TraceThreads, DoNotHoldUpAForkedChild) {
  const TemporaryFolder folder;
  runWith("ForkWhileOthersTrace", {{"QVX_DBG_TRACE", folder.path() + ",PMD,CHILD,511"}});
  unsigned children = 0;
  for (const std::string& name : filesIn(folder.path())) {
    const Strings body = bodyOf(contentsOf(folder.file(name)));
    if (body == Strings{"**X: f(3): child after"}) {
      ++children;
      continue;
    }
    for (const std::string& line : body) {
      EXPECT_THAT(line, testing::AnyOf("**X: f(1): busy", "**X: f(2): child before"));
    }
  }
  EXPECT_EQ(children, 100U);
}

namespace {

// Under a sanitizer, too, faults are to reach the library's handlers, and the ends of
// threads and the reports that come out of a signal handler are meant.
Environment withSignalsLeftAlone(Environment environment) {
  for (const char* name : {"ASAN_OPTIONS", "TSAN_OPTIONS"}) {
    const char* options = getenv(name);
    environment[name] = (options != nullptr ? options + std::string(":") : "") +
                        "handle_segv=0:report_signal_unsafe=0";
  }
  return environment;
}

}  // namespace

CUL_CHILD(EndThreadsWhileTheyTrace) {
  class Busy : public StdThread {
   public:
    Busy(Termination& termination, std::atomic<unsigned>& lines)
        : StdThread("busy", 0, &termination), lines_(lines) {}
    void run() override {
      for (;;) {
        for (int i = 0; i < 20; ++i) {
          taggedTrace("f()", 1, "X", "busy");
        }
        lines_ += 20;
        StdThread::thread_yield();
      }
    }

   private:
    std::atomic<unsigned>& lines_;
  };
  EXPECT_TRUE(isTraced(TraceType::error));
  for (int i = 0; i < 20; ++i) {
    StdThread::Termination termination;
    std::atomic<unsigned> lines = 0;
    auto* thread = new Busy(termination, lines);
    thread->start_thread(0);
    while (lines < 10) {
      StdThread::thread_yield();
    }
    EXPECT_EQ(thread->requestTerminate(), 0);
    EXPECT_EQ(termination.wait(0), 0);
    taggedTrace("f()", 2, "X", "next");
  }
}

TEST(TraceThreads, AskedToEndWhileTheyTraceLeaveTheTraceUsable) {
  const TemporaryFolder folder;
  const std::string file = folder.file("trace");
  runWith("EndThreadsWhileTheyTrace", withSignalsLeftAlone({{"QVX_DBG_TRACE", file}}));
  unsigned next = 0;
  for (const std::string& line : bodyOf(contentsOf(file))) {
    next += line == "**X: f(2): next" ? 1 : 0;
    EXPECT_THAT(line, testing::AnyOf(EndsWith("**X: f(1): busy"), "**X: f(2): next",
                                     HasSubstr("Starting thread busy")));
  }
  EXPECT_EQ(next, 20U);
}

CUL_CHILD(RecoverFromATraceCall) {
  registerErrorHandlers();
  EXPECT_TRUE(isTraced(TraceType::error));
  StdThread* self = StdThread::currentThread();
  if (self->_setjmp() == 0) {
    const char* volatile text = reinterpret_cast<const char*>(8);
    taggedTrace("f()", 1, "X", "%s", text);
    ADD_FAILURE() << "came back";
  }
  self->clearjmp();
  std::thread([] { taggedTrace("f()", 2, "X", "from another thread"); }).join();
}

TEST(TraceThreads, ThatRecoverFromAFaultInATraceCallLeaveTheTraceUsable) {
  const ChildResult r =
      runWith("RecoverFromATraceCall", withSignalsLeftAlone({{"QVX_DBG_TRACE", "stdout,CLI,PMD"}}));
  EXPECT_THAT(bodyOf(r.out), Contains("**X: f(2): from another thread"));
}
