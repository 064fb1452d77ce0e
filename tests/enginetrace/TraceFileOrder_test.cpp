#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "programs/enginetrace/FileBytes.h"
#include "programs/enginetrace/LastChange.h"
#include "programs/enginetrace/LineStart.h"
#include "programs/enginetrace/RingScan.h"
#include "programs/enginetrace/TraceFile.h"
#include "tests/enginetrace/RingModel.h"
#include "tests/support/Child.h"
#include "tests/support/EnvironmentGuard.h"
#include "tests/support/TemporaryFolder.h"

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

constexpr WallTime second = microsecondsPerSecond;
constexpr WallTime hour = 3600 * second;
constexpr std::uint64_t megabyte = 1'048'576;
constexpr WallTime start = 1'790'000'000 * second;

std::vector<ModelLine> read(TraceFile& file) {
  std::vector<ModelLine> lines;
  Line line;
  while (file.next(line)) {
    lines.push_back({std::string(line.whole), line.time});
  }
  return lines;
}

void expectSame(const std::vector<ModelLine>& lines, const std::vector<ModelLine>& expected) {
  ASSERT_EQ(lines.size(), expected.size());
  for (std::size_t i = 0; i < lines.size(); ++i) {
    ASSERT_EQ(lines[i].text, expected[i].text) << i;
    ASSERT_EQ(dateText(lines[i].time), dateText(expected[i].time)) << i << " " << lines[i].text;
  }
}

class TraceFileOrder : public testing::Test {
 protected:
  TraceFileOrder() { tzset(); }

  // As if it was changed last at some time.
  std::string put(const std::string& bytes, WallTime time) {
    writeFile(path_, bytes);
    const timespec moment = {time / second, time % second * 1000};
    const timespec times[] = {moment, moment};
    EXPECT_EQ(utimensat(AT_FDCWD, path_.c_str(), times, 0), 0);
    return path_;
  }

  // A line each second from `from` on, as many bytes as that, in lines of about `size`.
  WallTime fill(RingModel& ring, WallTime from, std::uint64_t bytes, std::size_t size = 100,
                bool exactly = false) {
    for (std::uint64_t written = 0; written < bytes; from += second) {
      std::string text = "**GMH: f(1): " + std::to_string(++number_) + " ";
      text.resize(size - 27 + (exactly ? 0 : number_ * 7919 % 13), 'x');
      ring.write(from, text);
      written += text.size() + 27;
    }
    return from - second;
  }

  unsigned number_ = 0;
  const EnvironmentGuard zone_{"TZ", "UTC0"};
  const TemporaryFolder folder_;
  const std::string path_ = folder_.file("root.12.trc");
};

}  // namespace

TEST_F(TraceFileOrder, FactsTellWhatTheHeaderDoes) {
  RingModel ring(2 * megabyte, start);
  const WallTime last = fill(ring, start + second, 1000);
  TraceFile file(put(ring.file(), last));
  const TraceFacts& facts = file.facts();
  EXPECT_EQ(facts.started, start);
  EXPECT_EQ(facts.program, "Debugger Engine");
  EXPECT_EQ(facts.version, "1.2.3");
  EXPECT_EQ(facts.build, "Nov 22 2026 10:11:12");
  EXPECT_THAT(facts.included, ElementsAre("GMH"));
  EXPECT_THAT(facts.excluded, ElementsAre("CHILD"));
  EXPECT_EQ(facts.limit, 2 * megabyte);
  EXPECT_EQ(facts.first, start);
  EXPECT_EQ(facts.last, last);
  EXPECT_EQ(facts.size, ring.file().size());
  EXPECT_FALSE(facts.hasLost);
  EXPECT_EQ(facts.cutLines, 0U);
  EXPECT_EQ(facts.unreadBytes, 0U);
  EXPECT_FALSE(facts.isOrderUnknown);
  EXPECT_FALSE(facts.isDateUnknown);
}

TEST_F(TraceFileOrder, FactsTellWhatTheRingHasLost) {
  RingModel ring(2 * megabyte, start);
  const WallTime last = fill(ring, start + second, 5 * megabyte);
  ASSERT_TRUE(ring.hasSeam());
  TraceFile file(put(ring.file(), last));
  expectSame(read(file), ring.lines());
  const TraceFacts& facts = file.facts();
  EXPECT_TRUE(facts.hasLost);
  EXPECT_EQ(facts.lostFrom, start + 70);
  EXPECT_EQ(facts.lostUntil, ring.lines()[8].time);
  EXPECT_LE(facts.cutLines, 1U);
  EXPECT_EQ(facts.unreadBytes, 0U);
}

TEST_F(TraceFileOrder, IsKnownOfALargeRingFromFewLines) {
  RingModel ring(20 * megabyte, start);
  WallTime last = fill(ring, start + second, 30 * megabyte, 700);
  last = fill(ring, last + 5 * hour, megabyte, 333);
  ASSERT_TRUE(ring.hasSeam());
  TraceFile file(put(ring.file(), last));
  expectSame(read(file), ring.lines());
  EXPECT_FALSE(file.facts().isDateUnknown);
  EXPECT_EQ(file.facts().last, last);
}

TEST_F(TraceFileOrder, OfALargeRingWithRewindPointsIsKnown) {
  for (const unsigned percent : {30U, 99U, 170U}) {
    RingModel ring(17 * megabyte, start);
    WallTime last = start;
    for (int part = 0; part < 3; ++part) {
      last = fill(ring, last + second, 17 * megabyte / 100 * percent, 1200);
      ring.wrap();
    }
    last = fill(ring, last + second, 17 * megabyte / 100 * percent, 1200);
    TraceFile file(put(ring.file(), last));
    expectSame(read(file), ring.lines());
    EXPECT_FALSE(file.facts().isOrderUnknown);
    file.rewind();
    std::string bytes;
    for (std::string_view some; !(some = file.nextBytes()).empty();) {
      bytes += some;
    }
    std::string text;
    for (const ModelLine& line : ring.lines()) {
      text += line.text + "\n";
    }
    EXPECT_TRUE(bytes == text) << percent;
  }
}

TEST_F(TraceFileOrder, OldLinesComeBeforeThePartsThatTheNewestPassHasKept) {
  RingModel ring(2 * megabyte, start);
  WallTime last = fill(ring, start + second, 3 * megabyte);
  ring.wrap();
  last = fill(ring, last + second, 10'000);
  ring.wrap();
  last = fill(ring, last + second, 10'050);
  ASSERT_TRUE(ring.hasSeam());
  TraceFile file(put(ring.file(), last));
  expectSame(read(file), ring.lines());
  EXPECT_FALSE(file.facts().isOrderUnknown);
}

TEST_F(TraceFileOrder, EndsAtARewindPointThatNothingFollows) {
  RingModel ring(2 * megabyte, start);
  const WallTime last = fill(ring, start + second, 3 * megabyte);
  ring.wrap();
  ASSERT_TRUE(ring.hasSeam());
  TraceFile file(put(ring.file(), last));
  expectSame(read(file), ring.lines());
}

TEST_F(TraceFileOrder, RewindPointsWithNothingBetweenThemAreOne) {
  RingModel ring(2 * megabyte, start);
  const WallTime last = fill(ring, start + second, 1000);
  std::string bytes = ring.file();
  constexpr std::uint64_t more = 100'000;
  for (std::uint64_t i = 0; i < more; ++i) {
    bytes += separatorLine;
  }
  std::vector<ModelLine> expected = ring.lines();
  for (WallTime time = last + second; time < last + 100 * second; time += second) {
    expected.push_back({stampAt(time) + "behind them", time});
    bytes += expected.back().text + "\n";
  }
  const std::string path = put(bytes, expected.back().time);
  const RingScan scan(FileBytes(path), LastChange(-1, 0));
  EXPECT_EQ(scan.separators, 1 + more);
  // The header, what the last one of them keeps, and the ring.
  EXPECT_EQ(scan.parts.size(), 3U);
  TraceFile file(path);
  expectSame(read(file), expected);
  EXPECT_EQ(file.facts().unreadBytes, 0U);
  EXPECT_FALSE(file.facts().isOrderUnknown);
}

TEST_F(TraceFileOrder, IsKnownWhenTheCutIsBetweenTwoLines) {
  RingModel ring(2 * megabyte, start);
  const WallTime last = fill(ring, start + second, 3 * megabyte, 64, true);
  TraceFile file(put(ring.file(), last));
  expectSame(read(file), ring.lines());
  EXPECT_EQ(file.facts().cutLines, 0U);
}

TEST_F(TraceFileOrder, IsKnownOfACopyByTheCutLine) {
  RingModel ring(2 * megabyte, start);
  fill(ring, start + second, 3 * megabyte, 101);
  TraceFile file(put(ring.file(), start + 2000 * hour));
  std::vector<ModelLine> lines = read(file);
  expectSame(lines, ring.lines());
  EXPECT_TRUE(file.facts().isDateUnknown);
  EXPECT_FALSE(file.facts().isOrderUnknown);
}

TEST_F(TraceFileOrder, DatesGoOnOverMidnightsAndBackWithTheClock) {
  RingModel ring(2 * megabyte, start);
  WallTime time = start;
  for (const WallTime step :
       {2 * hour, 20 * hour, 20 * hour, -hour, 5 * hour, -2 * hour, 19 * hour}) {
    time += step;
    ring.write(time, "text");
  }
  TraceFile file(put(ring.file(), time));
  expectSame(read(file), ring.lines());
  EXPECT_FALSE(file.facts().isDateUnknown);
}

TEST_F(TraceFileOrder, DaysOfSilenceAreWhereTheSilenceIs) {
  RingModel ring(2 * megabyte, start);
  fill(ring, start + second, 10'000);
  fill(ring, start + 75 * hour, 10'000);
  const WallTime last = fill(ring, start + 76 * hour, 1'000);
  TraceFile file(put(ring.file(), last));
  expectSame(read(file), ring.lines());
  EXPECT_TRUE(file.facts().isDateUnknown);
}

TEST_F(TraceFileOrder, TheLineAtTheEndOfATraceTellsItsDate) {
  RingModel ring(2 * megabyte, start);
  const WallTime last = fill(ring, start + 100 * hour, 3 * megabyte);
  ring.finish(last + 4 * hour);
  TraceFile file(put(ring.file(), start + 2000 * hour));
  expectSame(read(file), ring.lines());
  EXPECT_FALSE(file.facts().isDateUnknown);
  EXPECT_EQ(file.facts().last, last + 4 * hour);
}

TEST_F(TraceFileOrder, AFileWithoutHeaderHasTheDateOfItsLastChange) {
  RingModel ring(2 * megabyte, start);
  const WallTime last = fill(ring, start + second, 10'000);
  const std::string bytes = ring.file().substr(ring.rewindPoint());
  TraceFile file(put("e of a line\n" + bytes, last));
  const std::vector<ModelLine> lines = read(file);
  ASSERT_GT(lines.size(), 90U);
  EXPECT_EQ(lines[0].time, start + second);
  EXPECT_EQ(file.facts().unreadBytes, 12U);
  EXPECT_FALSE(file.facts().isDateUnknown);
  EXPECT_EQ(file.facts().started, std::nullopt);
}

TEST_F(TraceFileOrder, ALastLineMayLackItsNewline) {
  RingModel ring(2 * megabyte, start);
  const WallTime last = fill(ring, start + second, 10'000);
  ring.tear(last + second, "**GMH: f(1): and so", 40);
  TraceFile file(put(ring.file(), last + second));
  const std::vector<ModelLine> lines = read(file);
  ASSERT_EQ(lines.size(), ring.lines().size() + 1);
  EXPECT_EQ(lines.back().text.size(), 40U);
}

TEST_F(TraceFileOrder, ATornLineIsFollowedByOldOnes) {
  for (const std::size_t size : {5U, 20U, 40U}) {
    RingModel ring(2 * megabyte, start);
    const WallTime last = fill(ring, start + second, 3 * megabyte, 150);
    ring.tear(last + second, "**GMH: f(1): and so it goes on", size);
    TraceFile file(put(ring.file(), last + second));
    std::vector<ModelLine> lines = read(file);
    // Torn in its text, nobody knows where it ends.
    if (size == 40) {
      EXPECT_THAT(lines.back().text, HasSubstr("f(1): a"));
      lines.pop_back();
    }
    expectSame(lines, ring.lines());
  }
}

TEST_F(TraceFileOrder, GoesOnBehindTheWriterOfARingThatIsWritten) {
  const auto now = [] {
    struct timespec time = {};
    clock_gettime(CLOCK_REALTIME, &time);
    return time.tv_sec * second + time.tv_nsec / 1000;
  };
  const WallTime present = now();
  RingModel live(2 * megabyte, (present / second - 100'000) * second);
  const auto write = [&](WallTime from, unsigned lines) {
    for (unsigned i = 0; i < lines; ++i) {
      live.write(from + i, "**GMH: f(1): " + std::to_string(i) + std::string(140, 'x'));
    }
  };
  write(present - 90'000 * second, 15'000);
  write(present - 50'000 * second, 3'000);
  ASSERT_TRUE(live.hasSeam());
  TraceFile file(put(live.file(), present - 50'000 * second + 3'000));
  const std::vector<ModelLine> before = live.lines();
  Line line;
  std::vector<std::string> lines;
  for (int i = 0; i < 200 && file.next(line); ++i) {
    lines.emplace_back(line.whole);
  }
  // The writer overwrites what was not read yet, and more than what was.
  write(now(), 6'000);
  {
    const int out = open(path_.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(pwrite(out, live.file().data(), live.file().size(), 0),
              static_cast<ssize_t>(live.file().size()));
    close(out);
  }
  while (file.next(line)) {
    lines.emplace_back(line.whole);
  }
  // All that is old is there in its order, and nothing that is new.
  std::size_t at = 0;
  for (const std::string& text : lines) {
    while (at < before.size() && before[at].text != text) {
      ++at;
    }
    ASSERT_LT(at, before.size()) << text;
    ++at;
  }
  std::size_t left = 0;
  for (const ModelLine& old : live.lines()) {
    left += old.time < present - second ? 1 : 0;
  }
  EXPECT_GE(lines.size(), left);
  EXPECT_GT(file.facts().unreadBytes, 500'000U);
}

TEST_F(TraceFileOrder, AFileThatIsCutWhileItIsReadEndsThere) {
  RingModel ring(2 * megabyte, start);
  const WallTime last = fill(ring, start + second, 3 * megabyte);
  TraceFile file(put(ring.file(), last));
  Line line;
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(file.next(line));
  }
  ASSERT_EQ(truncate(path_.c_str(), 10'000), 0);
  std::vector<ModelLine> rest = read(file);
  EXPECT_LT(rest.size(), 12'000U);
  EXPECT_GT(file.facts().unreadBytes, 1'000'000U);
  std::filesystem::remove(path_);
  file.rewind();
  EXPECT_FALSE(read(file).empty());
}

TEST_F(TraceFileOrder, ATextWithoutNewlineComesInPieces) {
  const std::string text(5 * megabyte, 'x');
  TraceFile file(put(stampAt(start) + text, start));
  std::string all;
  Line line;
  std::size_t pieces = 0;
  while (file.next(line)) {
    EXPECT_LE(line.whole.size(), longestLine);
    EXPECT_EQ(line.time, start);
    all += line.whole;
    ++pieces;
  }
  EXPECT_EQ(pieces, 6U);
  EXPECT_TRUE(all == stampAt(start) + text);
}

CUL_CHILD(ReadATraceFromStandardInput) {
  TraceFile file("-");
  for (const ModelLine& line : read(file)) {
    std::printf("%s\n", line.text.c_str());
  }
  EXPECT_TRUE(file.facts().isDateUnknown);
}

TEST_F(TraceFileOrder, IsThatOfAFileAlsoForAPipe) {
  RingModel ring(2 * megabyte, start);
  fill(ring, start + second, 3 * megabyte);
  ChildOptions options;
  options.input = ring.file();
  const ChildResult result = runChild("ReadATraceFromStandardInput", options);
  EXPECT_EQ(result.status, 0) << result.err;
  std::string text;
  for (const ModelLine& line : ring.lines()) {
    text += line.text + "\n";
  }
  EXPECT_TRUE(result.out == text);
}

TEST_F(TraceFileOrder, OfTimesThatNoDayHasIsThatOfTheFile) {
  TraceFile file(put("29:59:69.999999 (main    )a\n00:00:00.000000 (main    )b\n", start));
  const std::vector<ModelLine> lines = read(file);
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_THAT(lines[0].text, HasSubstr(")a"));
  EXPECT_EQ(timeBetween(microsecondsPerDay + 1, 0), microsecondsPerDay - 1);
  EXPECT_EQ(timeBetween(0, microsecondsPerDay + 1), 1);
}

TEST_F(TraceFileOrder, OfAFifoNeedsAWriter) {
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  EXPECT_EQ(TraceFile(path_).facts().size, 0U);
}
