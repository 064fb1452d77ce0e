#include <atomic>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/Iconv.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/StringPoolManager.h"
#include "Engine/utilities/TraceFlags.h"
#include "Engine/utilities/UNIX/UNIX_Event_Semaphore.h"

#include "tests/schedules/Schedules.h"
#include "tests/support/Child.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/trace/TraceSupport.h"

/// \file
/// Forks of a process whose threads are inside of the library at any step of theirs.

// The sanitizers' allocators do not look after their locks when a busy process forks.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

namespace {

class Short : public StdThread {
 public:
  explicit Short(Termination* end) : StdThread("Short", 0, end) {}
  void run() override { const ByteString text("short"); }
};

// A converter of a thread's own. It is opened before there are forks, which the C library does not
// look after there.
class Converter {
 public:
  Converter() : descriptor_(iconv_open("UTF-8", "ISO-8859-1")) {}
  Converter(const Converter&) = delete;
  Converter& operator=(const Converter&) = delete;
  ~Converter() { iconv_close(descriptor_); }

  void use() const {
    char area[8];
    EXPECT_EQ(iconvDebug(descriptor_, "abc", 3, area, sizeof area), 3U);
  }

 private:
  iconv_t descriptor_;
};

void useTheLibrary(Chance& chance, const Converter& converter) {
  switch (chance.below(6)) {
    case 0: {
      EncodedString text("text", EncodedString::utf8);
      text += text;
      EXPECT_EQ(text.convert(EncodedString::native).length(), 8U);
      break;
    }
    case 1:
      CUL_TRACE(TraceType::agent, "void useTheLibrary()", 1, "a line");
      break;
    case 2: {
      StringPoolManager& pool = StringPoolManager::instance();
      void* blocks[100];
      const unsigned size = 1 + chance.below(64);
      for (void*& block : blocks) {
        block = pool.getBuffer(size);
      }
      for (void* const block : blocks) {
        pool.freeBuffer(block, size);
      }
      break;
    }
    case 3:
      for (unsigned i = 0; i < 100; ++i) {
        converter.use();
      }
      break;
    case 4: {
      StdThread::Termination end;
      (new Short(&end))->start_thread(0);
      EXPECT_EQ(end.wait(0), 0);
      break;
    }
    default: {
      UNIX_Event_Semaphore event;
      EXPECT_TRUE(event.wait(0, CUL_Event_Semaphore::Milliseconds, false));
    }
  }
}

}  // namespace

CUL_CHILD(ForkUnderASchedule) {
  const ScheduleOfChild schedule;
  std::atomic<bool> isOver = false;
  std::atomic<unsigned> atWork = 0;
  constexpr unsigned threads = 3;
  schedule.onThreads(threads + 1, [&](unsigned thread) {
    Chance chance = schedule.chance(thread);
    const Converter converter;
    if (thread <= threads) {
      for (unsigned i = 0; !isOver; ++i) {
        useTheLibrary(chance, converter);
        atWork += i == 2 ? 1 : 0;
      }
      return;
    }
    while (atWork != threads) {
      std::this_thread::yield();
    }
    for (unsigned i = 0; i < 6 && !testing::Test::HasFailure(); ++i) {
      const pid_t child = fork();
      if (child == 0) {
        alarm(20);
        for (unsigned j = 0; j < 4; ++j) {
          useTheLibrary(chance, converter);
        }
        _exit(testing::Test::HasFailure() ? 1 : 0);
      }
      EXPECT_EQ(statusOf(child), 0);
    }
    isOver = true;
  });
}

TEST(ScheduledFork, LeavesEveryChildALibraryThatItCanUse) {
  underSchedulesOfChildren(8, [](const Schedule& schedule) {
    const TemporaryFolder folder;
    runUnder(schedule, "ForkUnderASchedule",
             childWith({{"GDIA_ID", "root"}, {"QVX_DBG_TRACE", folder.file("trace")}}));
  });
}

#endif
