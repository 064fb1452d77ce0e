#include "programs/enginetrace/TraceFile.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>

#include "programs/enginetrace/Traces.h"
#include "tests/support/StandIn.h"
#include "tests/support/TemporaryFolder.h"

using testing::ElementsAre;

CUL_STAND_IN(ssize_t, pread, (int file, void* to, size_t size, off_t place), CUL_NOTHING, file, to,
             size, place)

namespace {

std::vector<std::string> linesIn(const std::string& path) {
  TraceFile file(path);
  std::vector<std::string> lines;
  Line line;
  std::string text;
  while (file.next(line)) {
    lines.emplace_back(line.whole);
    text += lines.back() + "\n";
  }
  file.rewind();
  std::string bytes;
  for (std::string_view some; !(some = file.nextBytes()).empty();) {
    bytes += some;
  }
  EXPECT_EQ(bytes, text);
  return lines;
}

std::string at(const std::string& time, const std::string& text) {
  return time + " (main    )" + text;
}

// A file whose bytes behind the first half megabyte cannot be read any more.
constexpr off_t halfMegabyte = 524'288;
ssize_t preadOfADamagedDisk(int file, void* to, size_t size, off_t place) {
  if (place >= halfMegabyte) {
    errno = EIO;
    return -1;
  }
  return preadStandIn.real(file, to, size, place);
}

constexpr unsigned linesOfAMegabyte = 20'000;
std::string megabyteOfLines() {
  std::string lines;
  for (unsigned i = 0; i < linesOfAMegabyte; ++i) {
    const std::string number = std::to_string(100'000 + i);
    lines += at("10:00:00." + number, "**GMH: f(1): line number " + number) + "\n";
  }
  return lines;
}

}  // namespace

TEST(TraceFile, EndsWhereItCannotBeReadAnyMoreAndTellsWhyAndHowMuchIsLeft) {
  const TemporaryFolder folder;
  const std::string path = folder.file("root.12.trc");
  const std::string bytes = megabyteOfLines();
  writeFile(path, bytes);
  TraceFile file(path);
  for (int pass = 0; pass < 2; ++pass) {
    const Instead damaged(preadStandIn, preadOfADamagedDisk);
    file.rewind();
    std::uint64_t size = 0;
    if (pass == 0) {
      for (Line line; file.next(line); size += line.whole.size() + 1) {
        EXPECT_EQ(line.whole, bytes.substr(size, line.whole.size()));
      }
    } else {
      for (std::string_view some; !(some = file.nextBytes()).empty(); size += some.size()) {
        EXPECT_EQ(some, bytes.substr(size, some.size()));
      }
    }
    EXPECT_GT(size, static_cast<std::uint64_t>(halfMegabyte) / 2);
    EXPECT_LE(size, static_cast<std::uint64_t>(halfMegabyte));
    EXPECT_EQ(file.facts().failure.value(), EIO);
    EXPECT_EQ(file.facts().unreadBytes, bytes.size() - size);
  }
  file.rewind();
  unsigned lines = 0;
  for (Line line; file.next(line);) {
    ++lines;
  }
  EXPECT_EQ(lines, linesOfAMegabyte);
  EXPECT_FALSE(file.facts().failure);
  EXPECT_EQ(file.facts().unreadBytes, 0U);
}

TEST(Traces, TellWhichFileCouldNotBeReadToItsEnd) {
  const TemporaryFolder folder;
  const std::string path = folder.file("root.12.trc");
  writeFile(path, megabyteOfLines());
  Options options;
  options.paths = {path};
  const Traces traces(options);
  EXPECT_FALSE(traces.hasFailed());
  const Instead damaged(preadStandIn, preadOfADamagedDisk);
  for (Line line; traces.all()[0].file->next(line);) {
  }
  EXPECT_TRUE(traces.hasFailed());
  testing::internal::CaptureStderr();
  traces.tellNotes();
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              testing::StartsWith("enginetrace: " + path +
                                  ": Input/output error\n"
                                  "enginetrace: bytes left out because they could not be read"));
}

TEST(TraceFile, GivesTheLinesWithAllLinesOfTheirTexts) {
  const TemporaryFolder folder;
  const std::string path = folder.file("root.12.trc");
  const std::string a = at("10:00:00.000000", "a");
  const std::string b = at("10:00:00.000001", "b\nb\n");
  const std::string c = at("10:00:00.000002", "c");
  writeFile(path, a + "\n" + std::string(72, '=') + "\n" + b + "\n" + c);
  EXPECT_THAT(linesIn(path), ElementsAre(a, b, c));
  EXPECT_EQ(TraceFile(path).facts().process.role, "root");
  EXPECT_EQ(TraceFile(path).facts().process.id, 12U);
  EXPECT_EQ(TraceFile(path).facts().process.mark, "root.12");
}

TEST(TraceFile, IsNoneWhereNoLineBegins) {
  const TemporaryFolder folder;
  writeFile(folder.file("x"), "text\nand more\n");
  EXPECT_THROW(TraceFile(folder.file("x")), NotATrace);
  EXPECT_THROW(TraceFile("/dev/zero"), NotATrace);
  EXPECT_THROW(TraceFile(folder.path()), std::system_error);
  EXPECT_THROW(TraceFile(folder.file("none")), std::system_error);
  writeFile(folder.file("empty"), "");
  EXPECT_THAT(linesIn(folder.file("empty")), ElementsAre());
}

TEST(TraceFile, HasItsBytesAlsoWhenItsDateIsBeforeTheFirstThatCanBeTold) {
  const TemporaryFolder folder;
  const std::string path = folder.file("old.trc");
  const timespec times[] = {{0, UTIME_OMIT}, {-1'000'000, 0}};
  const std::string line = at("10:00:00.000000", "a");
  writeFile(path, line + "\n");
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  EXPECT_EQ(TraceFile(path).facts().size, line.size() + 1);
  EXPECT_THAT(linesIn(path), ElementsAre(line));
  writeFile(path, "text\n");
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  EXPECT_THROW(TraceFile{path}, NotATrace);
}
