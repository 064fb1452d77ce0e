#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/TraceFlags.h"

#include "tests/support/Child.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/WaitUntil.h"

namespace {

constexpr unsigned writers = 8;
constexpr unsigned converters = 2;
constexpr unsigned linesOfAWriter = 100'000 / writers;
constexpr const char* lastLine = "all writers have ended";

class Writer : public StdThread {
 public:
  // `number` counts from 1, as it serves as a line number too.
  Writer(unsigned number, Termination& end)
      : StdThread(("Writer" + std::to_string(number)).c_str(), 0, &end), number_(number) {}

  void run() override {
    for (unsigned line = 1; line <= linesOfAWriter; ++line) {
      CUL_TRACE(TraceType::agent, "void Writer::run()", number_, "writer %u, line %6u of %u",
                number_, line, linesOfAWriter);
    }
  }

 private:
  unsigned number_;
};

class Converter : public StdThread {
 public:
  Converter(std::atomic<bool>& stop, std::atomic<unsigned long>& rounds, Termination& end)
      : StdThread("Converter", 0, &end), stop_(stop), rounds_(rounds) {}

  void run() override {
    const EncodedString text("Grüße, Καλημέρα, 世界 🐞", EncodedString::utf8);
    do {
      const EncodedString native(text.convert(EncodedString::native), EncodedString::native);
      const EncodedString escaped(text.convert(EncodedString::slashU), EncodedString::slashU);
      if (escaped != text || native.length() == 0) {
        std::abort();
      }
      ++rounds_;
    } while (!stop_);
  }

 private:
  std::atomic<bool>& stop_;
  std::atomic<unsigned long>& rounds_;
};

std::size_t entriesOf(const char* folder) {
  const std::filesystem::directory_iterator entries(folder);
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

// A thread to have been, so that what a first thread brings along is counted before.
void runAThread() {
  std::atomic<bool> stop = true;
  std::atomic<unsigned long> rounds = 0;
  StdThread::Termination end;
  (new Converter(stop, rounds, end))->start_thread(0);
  EXPECT_EQ(end.wait(0), 0);
}

std::size_t threadsOfTheProcess() { return entriesOf("/proc/self/task"); }

CUL_CHILD(SoakTheTrace) {
  ASSERT_TRUE(isTraced(TraceType::agent));
  runAThread();
  const std::size_t descriptors = entriesOf("/proc/self/fd");
  // A thread that has been waited for may be listed a moment longer.
  std::size_t threads = threadsOfTheProcess();
  EXPECT_TRUE(waitUntil([&threads] {
    const std::size_t before = threads;
    threads = threadsOfTheProcess();
    return threads == before && threads <= 2;
  }));

  std::atomic<bool> stop = false;
  std::atomic<unsigned long> rounds = 0;
  std::array<StdThread::Termination, converters> converterEnds;
  for (StdThread::Termination& end : converterEnds) {
    (new Converter(stop, rounds, end))->start_thread(0);
  }
  std::array<StdThread::Termination, writers> writerEnds;
  for (unsigned i = 0; i < writers; ++i) {
    (new Writer(i + 1, writerEnds[i]))->start_thread(0);
  }
  for (StdThread::Termination& end : writerEnds) {
    EXPECT_EQ(end.wait(0), 0);
  }
  stop = true;
  for (StdThread::Termination& end : converterEnds) {
    EXPECT_EQ(end.wait(0), 0);
  }
  taggedTrace("main", 0, "AGENT", "%s", lastLine);

  EXPECT_GE(rounds, converters);
  EXPECT_EQ(entriesOf("/proc/self/fd"), descriptors);
  EXPECT_TRUE(waitUntil([threads] { return threadsOfTheProcess() <= threads; }));
}

// The lines of the ring, oldest first: the ring's newest line is `lastLine`, and what stands
// behind it is the rest of the pass before, whose first line is cut.
std::vector<std::string> oldestFirst(const std::string& ring) {
  const std::size_t newest = ring.find(lastLine);
  EXPECT_NE(newest, std::string::npos);
  const std::size_t seam = ring.find('\n', newest) + 1;
  const std::size_t afterCutLine = std::min(ring.find('\n', seam), ring.size() - 1) + 1;
  std::vector<std::string> lines;
  for (const std::string_view part :
       {std::string_view(ring).substr(afterCutLine), std::string_view(ring).substr(0, seam)}) {
    for (std::size_t start = 0; start < part.size();) {
      const std::size_t end = part.find('\n', start);
      EXPECT_NE(end, std::string_view::npos) << "a line without end";
      lines.emplace_back(part.substr(start, end - start));
      start = end == std::string_view::npos ? part.size() : end + 1;
    }
  }
  return lines;
}

// What a line of a writer says of itself.
struct WriterLine {
  unsigned thread = 0;
  unsigned place = 0;
  unsigned writer = 0;
  unsigned number = 0;
};

// Whether `line` is a writer's, from its first byte to its last.
bool isWriterLine(const std::string& line, WriterLine& found) {
  unsigned total = 0;
  int end = 0;
  const int items =
      std::sscanf(line.c_str(),
                  "%*2u:%*2u:%*2u.%*6u (Writer%1u )**AGENT: void Writer::run(%1u): writer %1u, "
                  "line %6u of %5u%n",
                  &found.thread, &found.place, &found.writer, &found.number, &total, &end);
  return items == 5 && total == linesOfAWriter && static_cast<std::size_t>(end) == line.size();
}

// Whether `line` tells of the life of a thread or is the last one.
bool isOtherLine(const std::string& line) {
  const bool isWhole = line.size() > 20 && line[2] == ':' && line[15] == ' ';
  return isWhole &&
         (line.find("(132): Starting thread ") != std::string::npos ||
          line.find("(136): Terminating thread ") != std::string::npos || line.ends_with(lastLine));
}

void expectTheNewestLinesInOrder(const std::vector<std::string>& lines) {
  std::array<unsigned, writers + 1> previous = {};
  for (const std::string& line : lines) {
    if (isOtherLine(line)) {
      continue;
    }
    WriterLine found;
    ASSERT_TRUE(isWriterLine(line, found)) << line;
    ASSERT_EQ(found.thread, found.writer) << line;
    ASSERT_EQ(found.place, found.writer) << line;
    ASSERT_LE(found.writer, writers) << line;
    unsigned& before = previous[found.writer];
    ASSERT_TRUE(before == 0 || found.number == before + 1) << line;
    before = found.number;
  }
  // A writer that was done long before the others may have been overwritten altogether.
  unsigned survivors = 0;
  for (const unsigned number : previous) {
    if (number != 0) {
      EXPECT_EQ(number, linesOfAWriter);
      ++survivors;
    }
  }
  EXPECT_GE(survivors, 1U);
}

TEST(TraceSoak, EightWritersFillTheRingWhileTwoThreadsConvertStrings) {
  const TemporaryFolder folder;
  const ChildResult r =
      runChild("SoakTheTrace", {.environment = {{"GDIA_ID", "root"},
                                                {"QVX_DBG_CODEPAGE", "ISO-8859-1"},
                                                {"QVX_DBG_TRACE", folder.file("trace") + ",2"}}});
  ASSERT_EQ(r.status, 0) << r.out << r.err;

  const std::string trace = contentsOf(folder.file("trace"));
  std::string separator(72, '=');
  separator += '\n';
  const std::size_t ringStart = trace.find(separator) + separator.size();
  ASSERT_GE(ringStart, separator.size());
  const std::string header = trace.substr(0, ringStart);
  EXPECT_THAT(header, testing::HasSubstr("Trace start at "));
  EXPECT_THAT(header, testing::HasSubstr("Trace size: 2Mb\n"));

  const std::string ring = trace.substr(ringStart);
  EXPECT_LE(ring.size(), 2U * 1024 * 1024);
  EXPECT_GT(ring.size(), 2U * 1024 * 1024 - 200) << "the ring has not wrapped";
  expectTheNewestLinesInOrder(oldestFirst(ring));
}

}  // namespace
