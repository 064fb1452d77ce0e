#include "Engine/utilities/TraceImplementation.h"

#include <cstddef>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/TraceFlags.h"

#include "tests/schedules/Schedules.h"
#include "tests/support/Child.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/trace/TraceSupport.h"

namespace {

constexpr unsigned linesOfAThread = 60;

std::string paddingOf(unsigned thread, unsigned line) {
  return std::string((thread * 31 + line * 7) % 200, static_cast<char>('a' + line % 26));
}

// The text of a thread's line, behind time stamp and thread name.
std::string textOf(unsigned thread, unsigned line) {
  return "**AGENT: void Writer::run(" + std::to_string(line + 1) + "): line " +
         std::to_string(line) + " of thread " + std::to_string(thread) + " " +
         paddingOf(thread, line);
}

class Writer : public StdThread {
 public:
  Writer(const Schedule& schedule, unsigned number, Termination& end)
      : StdThread(("Writer" + std::to_string(number)).c_str(), 0, &end),
        chance_(schedule.chance(number)),
        number_(number) {}

  void run() override {
    Waits::numberThread(number_);
    for (unsigned line = 0; line < linesOfAThread; ++line) {
      CUL_TRACE(TraceType::agent, "void Writer::run", line + 1, "line %u of thread %u %s", line,
                number_, paddingOf(number_, line).c_str());
      if (chance_.oneIn(16)) {
        traceImplementation()->setRewindPoint();
      }
    }
  }

 private:
  Chance chance_;
  unsigned number_;
};

}  // namespace

CUL_CHILD(TraceUnderASchedule) {
  const ScheduleOfChild schedule;
  const auto threads = static_cast<unsigned>(std::stoul(childArguments().at(1)));
  std::vector<StdThread::Termination> ends(threads);
  for (unsigned thread = 0; thread < threads; ++thread) {
    (new Writer(schedule, thread, ends[thread]))->start_thread(0);
  }
  for (const StdThread::Termination& end : ends) {
    EXPECT_EQ(end.wait(0), 0);
  }
}

TEST(ScheduledTrace, HasEveryLineOfEachThreadWholeAndInItsOrder) {
  underSchedulesOfChildren(8, [](const Schedule& schedule) {
    const TemporaryFolder folder;
    const std::string file = folder.file("trace");
    const unsigned threads = 2 + schedule.chance().below(4);
    runUnder(schedule, "TraceUnderASchedule",
             childWith({{"GDIA_ID", "root"}, {"QVX_DBG_TRACE", file}}, {std::to_string(threads)}));
    std::vector<unsigned> next(threads, 0);
    bool inBody = false;
    for (const std::string& line : linesOf(contentsOf(file))) {
      inBody = inBody || line == separator;
      if (!inBody || line == separator) {
        continue;
      }
      ASSERT_TRUE(hasStamp(line)) << line;
      const std::string text = withoutStamp(line);
      unsigned thread = 0;
      const std::size_t at = text.find(" of thread ");
      if (at == std::string::npos) {
        // What StdThread traces of its threads.
        EXPECT_TRUE(text.find("ing thread Writer") != std::string::npos) << line;
        continue;
      }
      thread = static_cast<unsigned>(std::stoul(text.substr(at + 11)));
      ASSERT_LT(thread, threads) << line;
      EXPECT_EQ(text, textOf(thread, next[thread]));
      EXPECT_EQ(line.substr(17, 8), "Writer" + std::to_string(thread) + " ") << line;
      ++next[thread];
    }
    for (const unsigned lines : next) {
      EXPECT_EQ(lines, linesOfAThread);
    }
  });
}
