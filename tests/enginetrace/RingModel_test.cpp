#include "tests/enginetrace/RingModel.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <random>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "programs/enginetrace/TraceFile.h"
#include "tests/support/EnvironmentGuard.h"
#include "tests/support/Sanitized.h"
#include "tests/support/TemporaryFolder.h"

namespace {

constexpr WallTime second = microsecondsPerSecond;
constexpr WallTime hour = 3600 * second;

void setLastChange(const std::string& path, WallTime time) {
  const timespec moment = {time / second, time % second * 1000};
  const timespec times[] = {moment, moment};
  EXPECT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

// Chooses how a process traces, then writes as it would.
class RandomTrace {
 public:
  explicit RandomTrace(unsigned seed) : random_(seed), ring_(chooseLimit(), chooseStart()) {
    shortest_ = 30 + below(60);
    longest_ = oneIn(5) ? shortest_ : shortest_ + below(oneIn(4) ? 3000 : 150);
    shareOfTexts_ = oneIn(2) ? 0 : oneIn(2) ? 50 : oneIn(2) ? 500 : 1000;
    shareOfBlankTexts_ = oneIn(4) ? 100 : 0;
    // From fast to slow, and some that go on for days.
    longestGap_ = WallTime{1} << below(oneIn(3) ? 34 : 24);
    silences_ = oneIn(3) ? 1 + static_cast<unsigned>(below(2)) : 0;
    setsClock_ = oneIn(4);
    rewindPoints_ = oneIn(4) ? 20 : 0;
    run();
    lastChange_ = time_ + behindSecond_;
    isCopied_ = oneIn(10);
    if (isCopied_) {
      // Not by chance a whole number of time zones later.
      lastChange_ += 5 * second + 900 * second * static_cast<WallTime>(below(1000)) +
                     static_cast<WallTime>(below(890 * second));
    } else if (oneIn(5)) {
      // Written in another time zone.
      lastChange_ += 900 * second * (static_cast<WallTime>(below(95)) - 47);
    }
  }

  [[nodiscard]] const RingModel& ring() const { return ring_; }
  /// Of the file, in UTC.
  [[nodiscard]] WallTime lastChange() const { return lastChange_; }
  [[nodiscard]] bool isCopied() const { return isCopied_; }
  [[nodiscard]] bool endsWhole() const { return endsWhole_; }

 private:
  bool oneIn(unsigned count) { return below(count) == 0; }
  std::uint64_t below(std::uint64_t count) {
    return std::uniform_int_distribution<std::uint64_t>(0, count - 1)(random_);
  }

  std::uint64_t chooseLimit() { return oneIn(2000) ? 2 * 1'048'576 : 3'001 + below(12'000); }

  WallTime chooseStart() {
    behindSecond_ = static_cast<WallTime>(below(second));
    time_ = (1'790'000'000 + static_cast<WallTime>(below(30'000'000))) * second;
    return time_;
  }

  void run() {
    time_ += 100;
    const unsigned passes = static_cast<unsigned>(below(4));
    unsigned linesLeft = static_cast<unsigned>(below(300));
    while (ring_.passes() < passes || linesLeft > 0) {
      linesLeft -= ring_.passes() >= passes ? 1 : 0;
      step();
      writeLine();
    }
    endsWhole_ = oneIn(5);
    if (endsWhole_) {
      step();
      ring_.finish(time_);
    }
  }

  void step() {
    time_ += static_cast<WallTime>(1 + below(static_cast<std::uint64_t>(longestGap_)));
    if (silences_ > 0 && oneIn(300)) {
      --silences_;
      time_ += static_cast<WallTime>(below(static_cast<std::uint64_t>(18 * hour)));
    }
    if (setsClock_ && oneIn(500)) {
      setsClock_ = false;
      time_ -= oneIn(2) ? hour : static_cast<WallTime>(below(static_cast<std::uint64_t>(hour)));
    }
    // As many as leave a large ring room for a pass.
    if (rewindPoints_ > 0 && oneIn(300)) {
      --rewindPoints_;
      ring_.wrap();
    }
  }

  void writeLine() {
    std::string text = "**GMH: void A::f(" + std::to_string(++number_) + "): ";
    const std::size_t size = shortest_ + below(longest_ - shortest_ + 1);
    static const std::string letters(3000, 'x');
    text.append(letters, 0, size - std::min(size, text.size()));
    if (below(1000) < shareOfTexts_) {
      for (std::uint64_t lines = 1 + below(3); lines > 0; --lines) {
        text.insert(26 + below(text.size() - 26), "\n");
      }
    }
    if (below(1000) < shareOfBlankTexts_) {
      text += "\n";
    }
    ring_.write(time_, text, oneIn(200));
  }

  std::mt19937 random_;
  WallTime behindSecond_ = 0;
  WallTime time_ = 0;
  RingModel ring_;
  std::size_t shortest_ = 0;
  std::size_t longest_ = 0;
  unsigned shareOfTexts_ = 0;
  unsigned shareOfBlankTexts_ = 0;
  WallTime longestGap_ = 0;
  unsigned silences_ = 0;
  bool setsClock_ = false;
  unsigned rewindPoints_ = 0;
  WallTime lastChange_ = 0;
  bool isCopied_ = false;
  bool endsWhole_ = false;
  unsigned number_ = 0;
};

std::vector<ModelLine> read(TraceFile& file) {
  std::vector<ModelLine> lines;
  Line line;
  while (file.next(line)) {
    lines.push_back({std::string(line.whole), line.time});
  }
  return lines;
}

// Newlines in front of a line look like those behind the text before. And nothing tells the rest of
// a line that was cut from the last line of the newest text.
void makeComparable(std::vector<ModelLine>& lines) {
  for (ModelLine& line : lines) {
    line.text.resize(line.text.find_last_not_of('\n') + 1);
  }
  if (!lines.empty()) {
    std::string& text = lines.back().text;
    text.resize(std::min(text.find('\n'), text.size()));
  }
}

void expectLines(TraceFile& file, std::vector<ModelLine> expected) {
  std::vector<ModelLine> lines = read(file);
  makeComparable(lines);
  makeComparable(expected);
  ASSERT_EQ(lines.size(), expected.size());
  for (std::size_t i = 0; i < lines.size(); ++i) {
    ASSERT_EQ(lines[i].text, expected[i].text) << i;
    if (!file.facts().isDateUnknown) {
      ASSERT_EQ(dateText(lines[i].time), dateText(expected[i].time)) << i << lines[i].text;
    }
  }
}

unsigned numberIn(const char* variable, unsigned usual) {
  const char* const text = std::getenv(variable);
  return text != nullptr ? static_cast<unsigned>(std::atoi(text)) : usual;
}

}  // namespace

// A fixed number of rings, or as many as a variable says; another one names the first.
TEST(RandomRings, ComeOutInTheOrderOfWritingWithTheirDates) {
  const EnvironmentGuard zone("TZ", "UTC0");
  tzset();
  const TemporaryFolder folder;
  const std::string path = folder.file("root.1.trc");
  const unsigned first = numberIn("CUL_RINGS_FROM", 1);
  const unsigned count = numberIn("CUL_RINGS", isSanitized ? 300 : 3000);
  unsigned seams = 0;
  unsigned ordersUnknown = 0;
  unsigned datesUnknown = 0;
  for (unsigned seed = first; seed < first + count && !HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    const RandomTrace trace(seed);
    writeFile(path, trace.ring().file());
    setLastChange(path, trace.lastChange());
    TraceFile file(path);
    seams += trace.ring().hasSeam() ? 1 : 0;
    ordersUnknown += file.facts().isOrderUnknown ? 1 : 0;
    datesUnknown += file.facts().isDateUnknown ? 1 : 0;
    if (!file.facts().isOrderUnknown) {
      expectLines(file, trace.ring().lines());
      EXPECT_TRUE(!trace.isCopied() || file.facts().isDateUnknown || trace.endsWhole());
    }
  }
  std::printf("%u with a seam, order unknown %u times, dates %u times\n", seams, ordersUnknown,
              datesUnknown);
  if (count >= 1000) {
    EXPECT_GT(seams, count / 2);
    EXPECT_LT(ordersUnknown, count / 60);
    EXPECT_LT(datesUnknown, count / 5);
  }
}

// Rings of which a guess would be wrong: they go on at one of several rewind points, or a clock
// that was set back looks like a silence.
TEST(RandomRings, SayThatTheirOrderIsUnknownWhenSomethingElseIsAsLikely) {
  const EnvironmentGuard zone("TZ", "UTC0");
  tzset();
  const TemporaryFolder folder;
  const std::string path = folder.file("root.1.trc");
  for (const unsigned seed : {4407U, 101634U, 104794U, 106861U, 114598U}) {
    const RandomTrace trace(seed);
    writeFile(path, trace.ring().file());
    setLastChange(path, trace.lastChange());
    EXPECT_TRUE(TraceFile(path).facts().isOrderUnknown) << seed;
  }
}
