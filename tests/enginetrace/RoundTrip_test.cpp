#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/TraceImplementation.h"

#include "programs/enginetrace/TraceFile.h"
#include "tests/enginetrace/RingModel.h"
#include "tests/support/Child.h"
#include "tests/support/EnvironmentGuard.h"
#include "tests/support/StandIn.h"
#include "tests/support/TemporaryFolder.h"

CUL_STAND_IN(int, gettimeofday, (timeval * time, void* zone), noexcept, time, zone)
CUL_STAND_IN(std::time_t, time, (std::time_t * time), noexcept, time)
CUL_STAND_IN(ssize_t, write, (int file, const void* bytes, size_t size), CUL_NOTHING, file, bytes,
             size)

namespace {

constexpr WallTime second = microsecondsPerSecond;
constexpr WallTime hour = 3600 * second;
constexpr unsigned megabyte = 1'048'576;

// The clock of the process; each look at it takes a while.
constinit std::atomic<WallTime> clockNow = 0;
constinit std::atomic<WallTime> lookTakes = 0;
// Where it is set to, so many lines before the end, instead of now and then; 0: nowhere.
constinit std::atomic<WallTime> setTo = 0;
constexpr unsigned linesBehind = 5000;

// Everything that the trace writes goes here, too, in the order of writing: its lock is held.
constinit std::atomic<int> record = -1;
constinit std::atomic<unsigned> writes = 0;
constinit std::atomic<unsigned> linesWanted = 0;

struct Entry {
  WallTime time;
  std::uint64_t size;
};

int tellClock(timeval* time, void* /*zone*/) noexcept {
  const WallTime now = clockNow += lookTakes;
  time->tv_sec = now / second;
  time->tv_usec = now % second;
  return 0;
}

std::time_t tellSecond(std::time_t* time) noexcept {
  const std::time_t now = clockNow / second;
  if (time != nullptr) {
    *time = now;
  }
  return now;
}

// The clock is set between two lines, behind the trace's start at any time. Not by what the threads
// count, who come round very often while the trace is paused. Not within the last two seconds:
// where it was set back by an hour just before the end, the file may as well come from another
// zone.
void setClock(unsigned written) {
  if (setTo != 0) {
    if (written + linesBehind == linesWanted) {
      clockNow = setTo.load();
    }
  } else if (written % 8000 == 4000) {
    clockNow += written % 16'000 == 4000 ? 9 * hour : -hour;
  }
}

ssize_t writeTwice(int file, const void* bytes, size_t size) {
  const ssize_t written = writeStandIn.real(file, bytes, size);
  if (file > STDERR_FILENO && record >= 0) {
    const Entry entry = {clockNow, size};
    writeStandIn.real(static_cast<int>(record), static_cast<const void*>(&entry), sizeof entry);
    writeStandIn.real(static_cast<int>(record), bytes, size);
    setClock(++writes);
  }
  return written;
}

// One of eight threads. Now and then something happens.
void traceLines(unsigned thread, bool setsRewindPoints) {
  TraceImplementation* const trace = traceImplementation();
  const std::string letters(300, 'x');
  unsigned nextRewindPoint = 10'000;
  for (unsigned i = 1; writes < linesWanted; ++i) {
    const unsigned mix = (i * 2654435761U) ^ (thread * 40503U);
    trace->taggedTrace("void A::f(int)", thread, "GMH",
                       mix % 97 == 0 ? "%u\nof %u %.*s" : "%u of %u %.*s", i, thread,
                       static_cast<int>(mix % 300), letters.c_str());
    if (setsRewindPoints && thread == 2 && writes >= nextRewindPoint) {
      trace->wrap();
      nextRewindPoint += 10'000;
    }
    if (thread == 3 && i % 700 == 0) {
      trace->pause(true);
      trace->taggedTrace("void A::f(int)", thread, "GMH", "while paused");
      std::this_thread::yield();
      trace->pause(false);
    }
  }
}

// What the process has written, played again, and when that was, by its clock.
RingModel replay(const std::string& recorded, WallTime& last) {
  RingModel ring(2 * megabyte);
  for (std::size_t at = 0; at < recorded.size();) {
    Entry entry = {};
    std::memcpy(&entry, recorded.data() + at, sizeof entry);
    at += sizeof entry;
    ring.replay(recorded.substr(at, entry.size), entry.time);
    at += entry.size;
    last = entry.time;
  }
  return ring;
}

void setLastChange(const std::string& path, WallTime time) {
  const timespec moment = {time / second, time % second * 1000};
  const timespec times[] = {moment, moment};
  EXPECT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

// Microseconds by which a clock on the wall is before UTC.
WallTime offsetAt(WallTime time) {
  const std::time_t moment = time / second;
  std::tm parts = {};
  localtime_r(&moment, &parts);
  return parts.tm_gmtoff * second;
}

// Within the second that the trace's start was cut by, and the one of the line itself; when summer
// ends or begins just then, before or behind that.
bool isTimeAt(WallTime moment, WallTime wallTime) {
  constexpr WallTime most = 2 * second;
  const auto isAt = [&](WallTime time) { return time <= moment && time + most >= moment; };
  return isAt(wallTime - offsetAt(moment)) || isAt(wallTime - offsetAt(moment - most));
}

// The lines of a file are those that are left, in the order of writing, with their dates.
void expectLines(const std::string& path, const std::vector<ModelLine>& expected,
                 bool datesAreKnown) {
  TraceFile file(path);
  EXPECT_FALSE(file.facts().isOrderUnknown);
  EXPECT_TRUE(!file.facts().isDateUnknown || !datesAreKnown);
  Line line;
  std::size_t count = 0;
  for (; file.next(line) && count < expected.size(); ++count) {
    const ModelLine& wanted = expected[count];
    // Nothing tells the rest of a line that was cut from the end of the newest text, also when the
    // rest is its newline alone.
    const bool isNewest = count + 1 == expected.size();
    const auto compared = [isNewest](std::string_view text) {
      return text.substr(0, isNewest ? text.find('\n') : std::string_view::npos);
    };
    ASSERT_EQ(compared(line.whole), compared(wanted.text)) << count;
    if (!datesAreKnown) {
      continue;
    }
    ASSERT_TRUE(isTimeAt(wanted.time, line.time)) << count << wanted.text << line.time;
  }
  EXPECT_EQ(count, expected.size());
  EXPECT_FALSE(file.next(line));
}

}  // namespace

// Arguments: the record, the clock's start, what a look at it takes, the number of lines, where the
// clock is set to, "wraps".
CUL_CHILD(TraceFromEightThreads) {
  record = open(childArguments()[0].c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  ASSERT_GE(record, 0);
  clockNow = std::stoll(childArguments()[1]);
  lookTakes = std::stoll(childArguments()[2]);
  const Instead time(gettimeofdayStandIn, tellClock);
  const Instead seconds(timeStandIn, tellSecond);
  const Instead bytes(writeStandIn, writeTwice);
  linesWanted = static_cast<unsigned>(std::stoul(childArguments()[3]));
  setTo = std::stoll(childArguments()[4]);
  const bool setsRewindPoints = childArguments()[5] == "wraps";
  static_cast<void>(isTraced(TraceType::error));
  std::vector<std::thread> threads;
  for (unsigned thread = 0; thread < 8; ++thread) {
    threads.emplace_back([=] { traceLines(thread, setsRewindPoints); });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

namespace {

// A process whose eight threads trace.
struct TracedRun {
  std::string name;
  WallTime start;
  WallTime lookTakes;
  unsigned lines;
  bool setsRewindPoints = false;
  WallTime setTo = 0;
};

// All at once.
void trace(const std::vector<TracedRun>& runs, const TemporaryFolder& folder,
           const std::string& zone) {
  std::vector<std::thread> processes;
  for (const TracedRun& run : runs) {
    processes.emplace_back([&] {
      ChildOptions options;
      options.environment = {
          {"GDIA_ID", run.name}, {"QVX_DBG_TRACE", folder.file(run.name) + ",2"}, {"TZ", zone}};
      options.arguments = {folder.file(run.name + ".record"), std::to_string(run.start),
                           std::to_string(run.lookTakes),     std::to_string(run.lines),
                           std::to_string(run.setTo),         run.setsRewindPoints ? "wraps" : ""};
      const ChildResult result = runChild("TraceFromEightThreads", options);
      EXPECT_EQ(result.status, 0) << result.out << result.err;
    });
  }
  for (std::thread& process : processes) {
    process.join();
  }
}

// What is left of a process's lines, which the reader has given. Their times are UTC.
RingModel check(const TracedRun& run, const TemporaryFolder& folder) {
  WallTime last = 0;
  const std::string recorded = contentsOf(folder.file(run.name + ".record"));
  EXPECT_EQ(recorded.find("while paused"), std::string::npos);
  RingModel ring = replay(recorded, last);
  EXPECT_TRUE(ring.file() == contentsOf(folder.file(run.name)));
  setLastChange(folder.file(run.name), last);
  // Between parts that are kept, days may be missing.
  expectLines(folder.file(run.name), ring.lines(), !run.setsRewindPoints);
  return ring;
}

}  // namespace

TEST(RoundTrip, GivesTheLinesThatAreLeftInTheOrderOfWriting) {
  const TemporaryFolder folder;
  const EnvironmentGuard zone("TZ", "UTC0");
  tzset();
  const WallTime start = 1'790'000'000 * second + 20 * hour + 123'456;
  // From a trace of a minute to one of many days; the last one has just begun.
  const std::vector<TracedRun> runs = {{"root", start, 1000, 66'000},
                                       {"middle", start, 3'000'000, 45'000},
                                       {"middle2", start, 20'000'000, 45'000},
                                       {"leaf", start, 700, 47'000, true},
                                       {"leaf2", start, 900, 80}};
  trace(runs, folder, "UTC0");
  unsigned passes = 0;
  for (const TracedRun& run : runs) {
    SCOPED_TRACE(run.name);
    const RingModel ring = check(run, folder);
    passes += ring.passes();
    if (run.name == "middle2") {
      EXPECT_GT(ring.lines().back().time - ring.lines()[20].time, 2 * microsecondsPerDay);
    }
  }
  EXPECT_GT(passes, 12U);
}

TEST(RoundTrip, GivesTheHourThatIsRepeatedWhenSummerEndsInOrderAndNoneForTheOneThatIsSkipped) {
  constexpr const char* zone = "CET-1CEST,M3.5.0,M10.5.0/3";
  const TemporaryFolder folder;
  const EnvironmentGuard guard("TZ", zone);
  tzset();
  // 2026-10-25 and 2027-03-28, 01:00 UTC.
  constexpr WallTime end = 1'792'890'000 * second;
  constexpr WallTime begin = 1'806'195'600 * second;
  constexpr WallTime before = 300 * second;
  const std::vector<TracedRun> runs = {
      {"root", end - 20 * hour, 900'000, 30'000, false, end - before},
      {"middle", begin - 20 * hour, 900'000, 30'000, false, begin - before}};
  trace(runs, folder, zone);
  for (const TracedRun& run : runs) {
    SCOPED_TRACE(run.name);
    const WallTime change = run.setTo + before;
    ASSERT_NE(offsetAt(change - second), offsetAt(change));
    const RingModel ring = check(run, folder);
    EXPECT_GT(ring.passes(), 1U);
    const std::vector<ModelLine> lines = ring.lines();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [&](const ModelLine& line) {
      return line.time > run.setTo && line.time < change - 4 * second;
    }));
    EXPECT_GT(lines.back().time, change + hour);
  }
}
