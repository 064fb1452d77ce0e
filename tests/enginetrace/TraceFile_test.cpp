#include "programs/enginetrace/TraceFile.h"

#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <vector>

#include <gmock/gmock.h>

#include "tests/support/TemporaryFolder.h"

using testing::ElementsAre;

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

}  // namespace

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
