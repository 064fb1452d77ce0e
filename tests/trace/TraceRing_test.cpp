#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <sys/stat.h>

#include <gmock/gmock.h>

#include "Engine/utilities/TraceImplementation.h"

#include "tests/support/Child.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/trace/TraceSupport.h"

using testing::HasSubstr;

CUL_CHILD(FillTheRing) {
  TraceImplementation* trace = traceImplementation();
  const unsigned lines = static_cast<unsigned>(std::stoul(childArguments()[0]));
  for (unsigned i = 1; i <= lines; ++i) {
    trace->taggedTrace("f()", 1, "X", "%08u %.*s", i, static_cast<int>(i % 401),
                       std::string(400, 'y').c_str());
  }
}

namespace {

// The size of line `i` of the ring, with its newline.
std::size_t sizeOfRingLine(unsigned i) { return 26 + 11 + 9 + i % 401 + 1; }

// Plays the ring by hand: what a file holds behind its header after `lines` lines.
std::string ringAfter(unsigned lines, std::size_t limit) {
  std::string ring;
  std::size_t position = 0;
  for (unsigned i = 1; i <= lines; ++i) {
    const std::size_t size = sizeOfRingLine(i);
    if (limit < position + size) {
      ring.resize(position);
      position = 0;
    }
    char text[32];
    std::snprintf(text, sizeof text, "**X: f(1): %08u ", i);
    const std::string line = std::string(26, '#') + text + std::string(i % 401, 'y') + "\n";
    EXPECT_EQ(line.size(), size);
    ring.replace(position, std::min(size, ring.size() - position), line);
    position += size;
  }
  return ring;
}

// Time stamps are not known beforehand.
void hideStamps(std::string& text) {
  for (std::size_t at = text.find("(main    )**X: f(1): "); at != std::string::npos;
       at = text.find("(main    )**X: f(1): ", at + 1)) {
    const std::size_t start = at - std::min<std::size_t>(at, 16);
    text.replace(start, at + 10 - start, at + 10 - start, '#');
  }
}

}  // namespace

TEST(TraceRing, GoesOnBehindTheHeaderAndLeavesNoStaleTail) {
  // Lines of 47 to 447 bytes in 2 Mb: just before the first wrap, just behind it, and after
  // several.
  std::size_t sum = 0;
  unsigned fitting = 0;
  while (sum + sizeOfRingLine(fitting + 1) <= 2 * megabyte) {
    sum += sizeOfRingLine(++fitting);
  }
  for (const unsigned lines : {fitting, fitting + 1, fitting + 2, fitting * 7 / 2}) {
    const TemporaryFolder folder;
    const std::string file = folder.file("trace");
    runWith("FillTheRing", {{"QVX_DBG_TRACE", file + ",PMD,2"}}, {std::to_string(lines)});
    std::string output = contentsOf(file);
    const std::size_t header = output.find(separator) + separator.size() + 1;
    ASSERT_GT(header, 73U);
    EXPECT_EQ(headerOf(output).included, (Strings{"PMD", "ERROR", "WARNING"}));
    EXPECT_THAT(output, HasSubstr("Trace start at "));
    std::string ring = output.substr(header);
    EXPECT_LE(ring.size(), 2 * megabyte);
    hideStamps(ring);
    std::string expected = ringAfter(lines, 2 * megabyte);
    // Where the newest line ends, the rest of an older one follows, perhaps with a part of
    // its stamp: compare what lies before and behind.
    char newest[16];
    std::snprintf(newest, sizeof newest, "%08u ", lines);
    const std::size_t seam = expected.find('\n', expected.find(newest)) + 1;
    EXPECT_TRUE(ring.substr(0, seam) == expected.substr(0, seam)) << lines;
    ASSERT_EQ(ring.size(), expected.size()) << lines;
    const std::size_t next = std::min(expected.find('\n', seam), expected.size());
    EXPECT_TRUE(ring.substr(next) == expected.substr(next)) << lines;
  }
}

CUL_CHILD(MarkARewindPoint) {
  TraceImplementation* trace = traceImplementation();
  struct stat info = {};
  const std::string& file = childArguments()[0];
  const auto size = [&] {
    EXPECT_EQ(stat(file.c_str(), &info), 0);
    return static_cast<unsigned>(info.st_size);
  };
  const unsigned header = size();
  trace->taggedTrace("f()", 1, "X", "kept for good");
  const unsigned withLine = size();
  EXPECT_GT(withLine, header);
  EXPECT_EQ(trace->setRewindPoint(), withLine + 73);
  EXPECT_EQ(size(), withLine + 73);
  EXPECT_EQ(trace->wrap(), static_cast<int>(withLine + 2 * 73));
  trace->pause(true);
  EXPECT_EQ(trace->wrap(), static_cast<int>(withLine + 3 * 73));
  trace->pause(false);
  const std::string text(1000, 'z');
  for (int i = 0; i < 5000; ++i) {
    trace->taggedTrace("f()", 1, "X", "%s", text.c_str());
  }
}

TEST(TraceRing, KeepsWhatStandsBeforeARewindPoint) {
  const TemporaryFolder folder;
  const std::string file = folder.file("trace");
  runWith("MarkARewindPoint", {{"QVX_DBG_TRACE", file + ",2"}}, {file});
  const Strings body = bodyOf(contentsOf(file));
  ASSERT_GT(body.size(), 4U);
  EXPECT_EQ(body[0], "**X: f(1): kept for good");
  EXPECT_EQ(body[1], separator);
  EXPECT_EQ(body[2], separator);
  EXPECT_EQ(body[3], separator);
  EXPECT_EQ(body[4], "**X: f(1): " + std::string(1000, 'z'));
  EXPECT_LE(std::filesystem::file_size(file), 2 * megabyte + 10000);
}

CUL_CHILD(FillTheRingToTheByte) {
  TraceImplementation* trace = traceImplementation();
  const auto size = [] {
    struct stat info = {};
    EXPECT_EQ(stat(childArguments()[0].c_str(), &info), 0);
    return static_cast<unsigned>(info.st_size);
  };
  constexpr unsigned lineSize = 1024;
  constexpr unsigned fitting = 2 * megabyte / lineSize;
  const auto write = [&](unsigned lines) {
    // Stamp, tag, function and line take 37 bytes and the newline 1.
    const std::string text(lineSize - 38, 'z');
    for (unsigned i = 0; i < lines; ++i) {
      trace->taggedTrace("f()", 1, "X", "%s", text.c_str());
    }
  };
  const unsigned first = trace->setRewindPoint();
  write(fitting);
  EXPECT_EQ(size(), first + 2 * megabyte) << "the last line still fits";
  write(1);
  EXPECT_EQ(size(), first + 2 * megabyte) << "one more does not";
  write(99);

  // A point in the second pass of the ring keeps what this pass has written, no more.
  const unsigned second = trace->setRewindPoint();
  EXPECT_EQ(second, first + 100 * lineSize + 73);
  EXPECT_EQ(size(), first + 2 * megabyte);
  write(fitting);
  EXPECT_EQ(size(), second + 2 * megabyte);
  write(2);
  EXPECT_EQ(size(), second + 2 * megabyte);
  EXPECT_EQ(trace->setRewindPoint(), second + 2 * lineSize + 73);
}

TEST(TraceRing, IsFullToTheByteBehindEachRewindPoint) {
  const TemporaryFolder folder;
  const std::string file = folder.file("trace");
  runWith("FillTheRingToTheByte", {{"QVX_DBG_TRACE", file + ",2"}}, {file});
}
