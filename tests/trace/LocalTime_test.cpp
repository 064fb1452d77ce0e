#include "Engine/internal/LocalTime.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>

#include "Engine/utilities/TraceImplementation.h"

#include "tests/support/Child.h"
#include "tests/support/Sanitized.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/WaitUntil.h"
#include "tests/trace/TraceSupport.h"

namespace {

constexpr std::time_t hour = 3600;
constexpr std::time_t day = 24 * hour;
constexpr std::time_t step = (isSanitized ? 12 : 3) * hour;

std::string textOf(const std::tm& parts) {
  char text[128];
  std::snprintf(text, sizeof text, "%ld-%d-%d %d:%d:%d, day %d of the week, %d of the year",
                1900L + parts.tm_year, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min,
                parts.tm_sec, parts.tm_wday, parts.tm_yday);
  return text;
}

std::string told(LocalTime& time, std::time_t second) {
  std::tm parts = {};
  return time.breakDown(second, parts) ? textOf(parts) : "";
}

std::string toldByTheSystem(std::time_t second) {
  std::tm parts = {};
  return localtime_r(&second, &parts) != nullptr ? textOf(parts) : "";
}

long offsetAt(std::time_t second) {
  std::tm parts = {};
  localtime_r(&second, &parts);
  return parts.tm_gmtoff;
}

// Runs `body` in a child of a fork; what it returns is what was found wrong there.
template <class Body>
std::string inAFork(Body body) {
  int ends[2];
  EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const pid_t child = fork();
  if (child == 0) {
    alarm(60);
    const std::string wrong = body();
    const bool isWritten =
        write(ends[1], wrong.data(), wrong.size()) == static_cast<ssize_t>(wrong.size());
    _exit(isWritten ? 0 : 1);
  }
  close(ends[1]);
  std::string wrong;
  char chunk[4096];
  for (ssize_t n = 0; (n = read(ends[0], chunk, sizeof chunk)) > 0;) {
    wrong.append(chunk, static_cast<size_t>(n));
  }
  close(ends[0]);
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0) << "the child did not come to its end";
  return wrong;
}

// Years that are compared: leap years and others, before 1970, around the turn of
// the era of 400 years, and in which rules changed.
const std::vector<int> years = {1899, 1900, 1916, 1945, 1968, 1969, 1970, 1999, 2000,
                                2007, 2014, 2023, 2024, 2037, 2038, 2099, 2100, 2400};

std::time_t startOf(int year) {
  std::tm parts = {};
  parts.tm_year = year - 1900;
  parts.tm_mday = 1;
  return timegm(&parts);
}

}  // namespace

TEST(LocalTime, IsToldUpToTheLastDayThatTheSystemTells) {
  constexpr std::time_t last = 67768036191676799;  // of the largest year, in UTC
  for (const std::time_t second : {last - 2 * day, last - day}) {
    LocalTime time;
    const std::string expected = toldByTheSystem(second);
    EXPECT_NE(expected, "");
    EXPECT_EQ(told(time, second), expected);
    EXPECT_EQ(inAFork([&] { return told(time, second) == expected ? "" : "something else"; }), "");
  }
}

// Argument: a zone. Compares a fork's child with what the system told its parent.
CUL_CHILD(CompareAYearOfLocalTime) {
  for (const int year : years) {
    const std::time_t start = startOf(year);
    LocalTime time;
    EXPECT_EQ(told(time, start), toldByTheSystem(start));
    std::vector<std::time_t> seconds;
    Strings expected;
    const auto take = [&](std::time_t second) {
      seconds.push_back(second);
      expected.push_back(toldByTheSystem(second));
    };
    for (std::time_t second = start; second < start + 366 * day; second += step) {
      take(second);
      // The last second before the offset changes, and the first behind.
      std::time_t before = second;
      std::time_t behind = second + step;
      if (offsetAt(before) != offsetAt(behind)) {
        while (behind - before > 1) {
          const std::time_t middle = (before + behind) / 2;
          (offsetAt(middle) == offsetAt(second) ? before : behind) = middle;
        }
        take(before);
        take(behind);
      }
    }
    EXPECT_EQ(inAFork([&] {
                for (size_t i = 0; i < seconds.size(); ++i) {
                  if (told(time, seconds[i]) != expected[i]) {
                    return told(time, seconds[i]) + " instead of " + expected[i];
                  }
                }
                return std::string();
              }),
              "")
        << year;
  }
}

TEST(LocalTime, InAForksChildIsThatOfItsParent) {
  const Strings zones = {"UTC0",
                         "XYZ-14",
                         "<+0545>-5:45",
                         "<-0930>9:30",
                         "CET-1CEST,M3.5.0,M10.5.0/3",
                         "EST5EDT,M3.2.0,M11.1.0",
                         "NST3:30NDT,M3.2.0/0:01,M11.1.0/0:01",
                         "<+1030>-10:30<+11>-11,M10.1.0,M4.1.0",  // summer is half an hour
                         "IST-1GMT0,M10.5.0,M3.5.0/1",            // "summer" is earlier
                         "AAA3BBB,J60/0,J300/0",
                         "Europe/Berlin",
                         "Africa/Casablanca",
                         "America/Noronha",
                         "America/Caracas",
                         "Asia/Kolkata",
                         "Australia/Lord_Howe",
                         "Pacific/Apia",
                         "right/Europe/Paris"};
  for (const std::string& zone : zones) {
    const ChildResult r = runChild("CompareAYearOfLocalTime", childWith({{"TZ", zone}}));
    EXPECT_EQ(r.status, 0) << zone << "\n" << r.out << r.err;
  }
}

CUL_CHILD(AskForAFarFuture) {
  LocalTime time;
  const std::time_t far = std::time_t{1} << 60;
  EXPECT_EQ(told(time, far), "");
  EXPECT_EQ(inAFork([&] { return told(time, far) + told(time, 0); }), "");
  EXPECT_EQ(told(time, 0), toldByTheSystem(0));
  EXPECT_EQ(inAFork([&] { return told(time, far); }), "");
  EXPECT_EQ(told(time, -far), "");
}

TEST(LocalTime, IsNotToldForAYearThatDoesNotFit) {
  const ChildResult r = runChild("AskForAFarFuture", childWith({{"TZ", "XYZ-3"}}));
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

CUL_CHILD(SetZones) {
  const auto set = [](const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  };
  const std::time_t noon = startOf(2024) + 12 * hour;
  LocalTime time;
  EXPECT_EQ(told(time, noon), textOf(*gmtime(&noon)));
  // In the process itself at once.
  set("AAA-2");
  EXPECT_THAT(told(time, noon), testing::StartsWith("2024-1-1 14:0:0"));
  EXPECT_EQ(told(time, noon), toldByTheSystem(noon));
  EXPECT_THAT(inAFork([&] { return told(time, noon); }), testing::StartsWith("2024-1-1 14:0:0"));
  // In a child when the zone is set there, in its own child again as it was when that began.
  EXPECT_THAT(inAFork([&] {
                std::string texts = told(time, noon);
                set("BBB+3");
                texts += ";" + told(time, noon) + ";" + told(time, noon + 300 * day) + ";";
                return texts + inAFork([&] { return told(time, noon + 100 * day); });
              }),
              testing::MatchesRegex("2024-1-1 14:.*;2024-1-1 9:.*;2024-10-27 9:.*;2024-4-10 9:.*"));
  // Told of the fork, a parent knows the zone that was set after its last line.
  set("CCC+1CCD,M3.5.0,M10.5.0");
  time.prepareFork(noon);
  const Strings expected = {toldByTheSystem(noon), toldByTheSystem(noon + 150 * day)};
  EXPECT_EQ(inAFork([&] {
              return Strings{told(time, noon), told(time, noon + 150 * day)} == expected
                         ? std::string()
                         : told(time, noon);
            }),
            "");
}

CUL_CHILD(LocalTimeOfAClockThatLeaps) {
  LocalTime time;
  for (const std::time_t second :
       {std::time_t{1700000000}, std::time_t{18446744073709}, std::time_t{1700000000},
        std::time_t{1700000000} + 50 * 366 * day}) {
    EXPECT_EQ(told(time, second), toldByTheSystem(second));
  }
}

TEST(LocalTime, IsToldAtOnceByAClockThatLeapsHalfAMillionYears) {
  const ChildResult r = runChild("LocalTimeOfAClockThatLeaps",
                                 {.environment = {{"TZ", "Europe/Berlin"}}, .limitInSeconds = 60});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

TEST(LocalTime, FollowsTheZoneThatTheProgramSets) {
  const ChildResult r = runChild("SetZones", childWith({{"TZ", "UTC0"}}));
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

CUL_CHILD(GrowOld) {
  // The parent asks once a month for ten years; a child is born after each.
  LocalTime time;
  const std::time_t start = startOf(2015);
  for (std::time_t now = start; now < start + 3653 * day; now += 30 * day) {
    static_cast<void>(told(time, now));
    Strings expected;
    for (std::time_t second = start; second < now + 360 * day; second += 11 * day) {
      expected.push_back(toldByTheSystem(second));
    }
    static_cast<void>(told(time, now));
    EXPECT_EQ(inAFork([&] {
                size_t i = 0;
                for (std::time_t second = start; second < now + 360 * day; second += 11 * day) {
                  if (told(time, second) != expected[i++]) {
                    return told(time, second) + " instead of " + expected[i - 1];
                  }
                }
                return std::string();
              }),
              "");
  }
}

TEST(LocalTime, IsLearntAheadAsTheProcessGrowsOld) {
  const ChildResult r = runChild("GrowOld", childWith({{"TZ", "CET-1CEST,M3.5.0,M10.5.0/3"}}));
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

// ---------------------------------------------------------------------------------------
// The lock of the time zone

namespace {

// A thread that has the C library's lock of the time zone: it reads the zone from a FIFO
// whose writer is silent.
class ZoneLockHolder {
 public:
  explicit ZoneLockHolder(const std::string& fifo) {
    EXPECT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    setenv("TZ", (":" + fifo).c_str(), 1);
    thread_ = std::thread([] { tzset(); });
    // There is a reader as soon as the thread stands in tzset().
    waitUntil([&] {
      writer_ = open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
      return writer_ >= 0;
    });
  }
  ZoneLockHolder(const ZoneLockHolder&) = delete;
  ZoneLockHolder& operator=(const ZoneLockHolder&) = delete;
  ~ZoneLockHolder() {
    close(writer_);
    thread_.join();
  }

 private:
  std::thread thread_;
  int writer_ = -1;
};

}  // namespace

// Argument: a folder.
CUL_CHILD(ForkWhileTheZoneIsLocked) {
  TraceImplementation* trace = traceImplementation();
  taggedTrace("f()", 1, "X", "parent");
  const ZoneLockHolder holder(childArguments()[0] + "/zone");
  const pid_t child = fork();
  if (child == 0) {
    alarm(60);
    // The clock's text is made anew in another second.
    const std::time_t start = std::time(nullptr);
    taggedTrace("f()", 2, "X", "child before");
    while (std::time(nullptr) <= start + 1) {
      usleep(10000);
    }
    taggedTrace("f()", 3, "X", "child in another second");
    trace->processForked();
    taggedTrace("f()", 4, "X", "child after");
    delete trace;
    _exit(0);
  }
  EXPECT_EQ(statusOf(child), 0) << "128 and SIGALRM: the child hung";
}

TEST(LocalTime, InAForksChildNeedsNoLockThatAThreadOfTheParentHas) {
  const TemporaryFolder folder;
  const ChildResult r = runChild(
      "ForkWhileTheZoneIsLocked",
      childWith({{"TZ", "XYZ-3"}, {"QVX_DBG_TRACE", "stderr,ALL,CHILD"}}, {folder.path()}));
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  for (const char* text : {"f(1): parent", "f(2): child before", "f(3): child in another second",
                           "f(4): child after", "Trace end at "}) {
    EXPECT_THAT(r.err, testing::HasSubstr(text));
  }
  // Both headers tell the same start.
  Strings starts;
  for (const std::string& line : linesOf(r.err)) {
    if (line.find("Trace start at ") != std::string::npos) {
      starts.push_back(withoutStamp(line));
    }
  }
  ASSERT_EQ(starts.size(), 2U);
  EXPECT_EQ(starts[0], starts[1]);
}

CUL_CHILD(ForkWhileOthersAskForTheTime) {
  TraceImplementation* trace = traceImplementation();
  taggedTrace("f()", 1, "X", "parent");
  std::atomic<bool> isDone = false;
  std::atomic<unsigned> atWork = 0;
  std::vector<std::thread> threads;
  threads.emplace_back([&] {
    for (std::time_t second = 0; !isDone; second += 40 * day) {
      atWork += second == 40 * day ? 1 : 0;
      static_cast<void>(offsetAt(second % (100 * 365 * day)));
    }
  });
  threads.emplace_back([&] {
    for (unsigned round = 0; !isDone; ++round) {
      atWork += round == 1 ? 1 : 0;
      tzset();
    }
  });
  // None of them is in malloc any more, where the address sanitizer bears no fork.
  EXPECT_TRUE(waitUntil([&] { return atWork == threads.size(); }));
  for (int i = 0; i < 300; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(60);
      trace->processForked();
      taggedTrace("f()", 2, "X", "child");
      _exit(isTraced(TraceType::active) ? 0 : 9);
    }
    EXPECT_EQ(statusOf(child), 0) << i;
  }
  isDone = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
}

TEST(LocalTime, DoesNotHoldUpAForksChildWhileThreadsAskForTheTime) {
  const TemporaryFolder folder;
  const ChildResult r = runChild(
      "ForkWhileOthersAskForTheTime",
      childWith({{"TZ", "Europe/Berlin"}, {"QVX_DBG_TRACE", folder.path() + ",ALL,CHILD"}}));
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}
