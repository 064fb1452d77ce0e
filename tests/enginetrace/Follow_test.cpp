#include <csignal>
#include <cstddef>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>

#include "Engine/utilities/TraceImplementation.h"

#include "tests/enginetrace/Reader.h"

/// What --follow shows of traces while they are written.

using testing::HasSubstr;

namespace {

// The numbers behind "number " in the lines of a text, in their order.
std::vector<unsigned> numbersIn(const std::string& text) {
  std::vector<unsigned> numbers;
  const std::string before = "number ";
  for (std::size_t at = text.find(before); at != std::string::npos; at = text.find(before, at)) {
    at += before.size();
    numbers.push_back(static_cast<unsigned>(std::stoul(text.substr(at, 8))));
  }
  return numbers;
}

std::vector<unsigned> numbersFrom(unsigned first, unsigned count) {
  std::vector<unsigned> numbers(count);
  for (unsigned i = 0; i < count; ++i) {
    numbers[i] = first + i;
  }
  return numbers;
}

void writeLines(unsigned first, unsigned count) {
  const std::string filling(700, 'x');
  for (unsigned number = first; number < first + count; ++number) {
    traceImplementation()->taggedTrace("void f()", 1, "X", "%.*s number %u",
                                       static_cast<int>(number % filling.size()), filling.c_str(),
                                       number);
  }
}

// What is not as it was written, told in a line; empty when the lines of writeLines() among those
// of a text are whole and each comes behind those that were written before.
std::string faultIn(const std::string& text) {
  std::istringstream lines(text);
  unsigned last = 0;
  bool isFirst = true;
  for (std::string line; std::getline(lines, line);) {
    const std::size_t at = line.find(")**X: ");
    if (at == std::string::npos) {
      continue;
    }
    const std::size_t place = line.rfind(" number ");
    if (place == std::string::npos) {
      return "not whole: " + line;
    }
    const auto number = static_cast<unsigned>(std::stoul(line.substr(place + 8)));
    if (line.substr(at) != ")**X: void f(1): " + std::string(number % 700, 'x') + " number " +
                               std::to_string(number)) {
      return "not whole: " + line;
    }
    if (!isFirst && number <= last) {
      return std::to_string(number) + " behind " + std::to_string(last);
    }
    last = number;
    isFirst = false;
  }
  return isFirst ? "no line" : "";
}

// A stamp of the present day.
std::string line(unsigned time, const std::string& text) {
  char stamp[64];
  std::snprintf(stamp, sizeof stamp, "12:%02u:%02u.000000 (main    )", time / 60, time % 60);
  return stamp + text + "\n";
}

void append(const std::string& file, const std::string& text) {
  std::ofstream(file, std::ios::binary | std::ios::app) << text;
}

}  // namespace

// Writes "batches" batches of lines to a trace, each when the reader's output has the one before.
CUL_CHILD(WriteWithTheReader) {
  const std::string output = childArguments()[0];
  const unsigned batches = static_cast<unsigned>(std::stoul(childArguments()[1]));
  const unsigned lines = static_cast<unsigned>(std::stoul(childArguments()[2]));
  for (unsigned batch = 0; batch < batches; ++batch) {
    writeLines(batch * lines, lines);
    if (batch == 2) {
      traceImplementation()->setRewindPoint();
    }
    const std::string last = "number " + std::to_string((batch + 1) * lines - 1) + "\n";
    waitUntil([&] { return endsWith(output, last); });
  }
}

// Writes some lines with the reader, and then many while that is stopped.
CUL_CHILD(WriteInTwoParts) {
  writeLines(0, 100);
  waitUntil([] { return endsWith(childArguments()[0], "number 99\n"); });
  const pid_t stopped = std::stoi(childArguments()[1]);
  kill(stopped, SIGSTOP);
  writeLines(100, 60'000);
  kill(stopped, SIGCONT);
}

CUL_CHILD(WriteAsFastAsCanBe) { writeLines(0, 60'000); }

// Writes until a file is there.
CUL_CHILD(WriteAsLongAsIsAskedFor) {
  for (unsigned first = 0; access(childArguments()[0].c_str(), F_OK) != 0; first += 100) {
    writeLines(first, 100);
  }
}

namespace {

// A ring of 2 MB that a child writes to.
class FollowedRing : public testing::Test {
 protected:
  ChildResult write(const std::string& name, const std::vector<std::string>& arguments) {
    return runChild(name,
                    {.environment = {{"GDIA_ID", "root"}, {"QVX_DBG_TRACE", ring_ + ",ALL,2"}},
                     .arguments = arguments});
  }

  TemporaryFolder folder_;
  std::string ring_ = folder_.file("ring.trc");
};

TEST_F(FollowedRing, IsShownLineByLineOverItsSeamAndItsRewindPoints) {
  writeFile(ring_, "");
  RunningReader reader({"--follow", ring_});
  // 16 MB in all.
  const ChildResult r = write("WriteWithTheReader", {reader.output(), "40", "1000"});
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(reader.end(), "");
  EXPECT_EQ(numbersIn(reader.written()), numbersFrom(0, 40'000));
}

TEST_F(FollowedRing, IsShownFromItsOldestLineOnWhenItWasWrittenOverBeforeItCouldBeRead) {
  writeFile(ring_, "");
  RunningReader reader({"--follow", ring_});
  EXPECT_EQ(write("WriteWithTheReader", {reader.output(), "1", "100"}).status, 0);
  reader.terminal().send(SIGSTOP);
  EXPECT_EQ(write("WriteAsFastAsCanBe", {}).status, 0);
  reader.terminal().send(SIGCONT);
  EXPECT_TRUE(waitUntil([&] { return endsWith(reader.output(), "number 59999\n"); }));
  std::vector<unsigned> numbers = numbersIn(reader.written());
  ASSERT_GT(numbers.size(), 100U);
  const std::vector<unsigned> behind(numbers.begin() + 100, numbers.end());
  EXPECT_GT(behind.front(), 50'000U);
  EXPECT_EQ(behind, numbersFrom(behind.front(), 60'000 - behind.front()));
}

TEST_F(FollowedRing, IsInOrderAndWholeHoweverFastItIsWritten) {
  writeFile(ring_, "");
  RunningReader reader({"--follow", ring_});
  EXPECT_EQ(write("WriteAsFastAsCanBe", {}).status, 0);
  EXPECT_TRUE(waitUntil([&] { return endsWith(reader.output(), "number 59999\n"); }));
  const std::string written = reader.written();
  EXPECT_EQ(faultIn(written), "");
  const bool isComplete = numbersIn(written) == numbersFrom(0, 60'000);
  const std::string told = reader.end();
  EXPECT_EQ(told.empty(), isComplete) << told;
  // The seam is told of by a reader that comes too late for the first pass.
  std::istringstream lines(told);
  for (std::string line; std::getline(lines, line);) {
    EXPECT_THAT(
        line,
        testing::AnyOf(said("lines were written over before they could be shown: " + ring_, "\r"),
                       said("lines left out because the ring's seam has cut them: 1", "\r")));
  }
}

TEST_F(FollowedRing, IsInOrderAndWholeWhenItIsReadWhileItIsWritten) {
  const std::string end = folder_.file("end");
  writeFile(ring_, "");
  std::thread writer([&] { EXPECT_EQ(write("WriteAsLongAsIsAskedFor", {end}).status, 0); });
  waitUntil([&] { return std::filesystem::file_size(ring_) > 2'000'000; });
  // Of a ring that is written so fast, there may be nothing left to show now and then.
  unsigned shown = 0;
  for (unsigned i = 0; i < 24; ++i) {
    // As lines are copied, and as they are read.
    const ChildResult r =
        runReader({i % 2 == 0 ? "--color=never" : "--date", "--type", "X", ring_});
    EXPECT_EQ(r.status, 0);
    const std::string fault = faultIn(r.out);
    EXPECT_THAT(fault, testing::AnyOf("", "no line")) << r.err;
    shown += fault.empty() ? 1 : 0;
  }
  EXPECT_GT(shown, 0U);
  writeFile(end, "");
  writer.join();
  EXPECT_EQ(faultIn(runReader({"--type", "X", ring_}).out), "");
}

TEST_F(FollowedRing, TellsWhenLinesWereWrittenOverBeforeTheyCouldBeRead) {
  writeFile(ring_, "");
  RunningReader reader({"--follow", ring_});
  EXPECT_EQ(write("WriteInTwoParts", {reader.output(), std::to_string(reader.terminal().process())})
                .status,
            0);
  EXPECT_TRUE(waitUntil([&] { return endsWith(reader.output(), "number 60099\n"); }));
  EXPECT_EQ(reader.end(),
            said("lines were written over before they could be shown: " + ring_, "\r\n"));
}

TEST(Follow, ShowsWhatIsThereAndThenEachNewLine) {
  const TemporaryFolder folder;
  const std::string file = folder.file("root.7.trc");
  writeFile(file, line(1, "one") + line(2, "two"));
  setWritten(file, 12, 0, 2);
  RunningReader reader({"-f", file});
  reader.waitFor(line(2, "two"));
  append(file, line(3, "three\nwith a second line\n"));
  reader.waitFor(line(3, "three\nwith a second line\n"));
  append(file, line(4, "four"));
  reader.waitFor(line(4, "four"));
  EXPECT_EQ(reader.end(SIGTERM), "");
  EXPECT_EQ(reader.written(), contentsOf(file));
}

TEST(Follow, WaitsForTheRestOfALine) {
  const TemporaryFolder folder;
  const std::string file = folder.file("a.trc");
  writeFile(file, line(1, "one"));
  RunningReader reader({"--follow", file});
  reader.waitFor(line(1, "one"));
  const std::string two = line(2, "two");
  append(file, line(2, "a") + two.substr(0, 28));
  reader.waitFor(line(2, "a"));
  append(file, two.substr(28));
  reader.waitFor(two);
  EXPECT_EQ(reader.written(), contentsOf(file));
}

TEST(Follow, WaitsForTheRestOfALineThatWasBegunBefore) {
  const TemporaryFolder folder;
  const std::string file = folder.file("a.trc");
  const std::string two = line(2, "two");
  writeFile(file, line(1, "one") + two.substr(0, 28));
  setWritten(file, 12, 0, 2);
  RunningReader reader({"--follow", file});
  reader.waitFor(line(1, "one"));
  append(file, two.substr(28));
  reader.waitFor(two);
  append(file, line(3, "three"));
  reader.waitFor(line(3, "three"));
  EXPECT_EQ(reader.end(), "");
  EXPECT_EQ(reader.written(), contentsOf(file));
}

TEST(Follow, ShowsTheFirstLinesOfAFileWithTheirDates) {
  const TemporaryFolder folder;
  const std::string file = folder.file("a.trc");
  const std::string other = folder.file("b.trc");
  writeFile(file, "");
  writeFile(other, line(1, "one"));
  RunningReader reader({"--follow", "--date", file, other});
  reader.waitFor(line(1, "one"));
  const std::string start = line(
      2, "void TraceImplementation::traceInternal(718): Trace start at Sun Nov 22 12:00:02 2026");
  append(file, start);
  reader.waitFor(start);
  EXPECT_THAT(reader.written(), HasSubstr("\na.trc  2026-11-22 12:00:02"));
}

TEST(Follow, ShowsFilesThatAppearInAFolder) {
  const TemporaryFolder folder;
  RunningReader reader({"--follow", folder.path()});
  writeFile(folder.file("root.1.trc"), line(1, "one"));
  reader.waitFor("root.1  " + line(1, "one"));
  writeFile(folder.file("no trace"), line(1, "one"));
  writeFile(folder.file("leaf.2.trc"), line(2, "two"));
  reader.waitFor("leaf.2  " + line(2, "two"));
  append(folder.file("root.1.trc"), line(3, "three"));
  reader.waitFor("root.1  " + line(3, "three"));
  EXPECT_EQ(reader.written(), "root.1  " + line(1, "one") + "leaf.2  " + line(2, "two") +
                                  "root.1  " + line(3, "three"));
}

TEST(Follow, GoesOnWithAFileThatTakesThePlaceOfAnother) {
  const TemporaryFolder folder;
  const std::string file = folder.file("a.trc");
  writeFile(file, line(1, "one"));
  RunningReader reader({"--follow", file});
  reader.waitFor(line(1, "one"));
  writeFile(folder.file("new"), line(2, "two"));
  append(file, line(3, "three"));
  std::filesystem::rename(folder.file("new"), file);
  reader.waitFor(line(2, "two"));
  append(file, line(4, "four"));
  reader.waitFor(line(4, "four"));
  EXPECT_EQ(reader.written(), line(1, "one") + line(3, "three") + line(2, "two") + line(4, "four"));
}

TEST(Follow, GoesOnWithAFileThatIsRemovedAndMadeAgain) {
  const TemporaryFolder folder;
  const std::string file = folder.file("a.trc");
  writeFile(file, line(1, "one"));
  RunningReader reader({"--follow", file});
  reader.waitFor(line(1, "one"));
  std::filesystem::remove(file);
  writeFile(file, line(2, "two"));
  reader.waitFor(line(2, "two"));
}

TEST(Follow, GoesOnWithATraceThatIsBegunAnewInItsFile) {
  const TemporaryFolder folder;
  const std::string file = folder.file("a.trc");
  writeFile(file, line(1, "one") + line(2, "two") + line(3, "three"));
  RunningReader reader({"--follow", file});
  reader.waitFor(line(3, "three"));
  writeFile(file, line(4, "four"));
  reader.waitFor(line(4, "four"));
  // Longer than it was.
  writeFile(file, line(5, "five") + line(6, "six"));
  reader.waitFor(line(5, "five") + line(6, "six"));
}

TEST(Follow, GoesOnWithATraceThatBeginsLikeTheOneBefore) {
  const TemporaryFolder folder;
  const std::string file = folder.file("a.trc");
  const std::string start = line(1, "void TraceImplementation::traceInternal(718): Trace start at");
  const std::string end = line(1, "Trace size: 2Mb") + std::string(72, '=') + "\n";
  writeFile(file, start + line(1, "Version: 1.2.3") + end + line(2, "two"));
  RunningReader reader({"--follow", file});
  reader.waitFor(line(2, "two"));
  // In one step, and longer than it was.
  const int descriptor = open(file.c_str(), O_WRONLY | O_CLOEXEC);
  const std::string next =
      start + line(1, "Version: 1.2.4") + end + line(3, "three") + line(4, "four");
  EXPECT_EQ(write(descriptor, next.data(), next.size()), static_cast<ssize_t>(next.size()));
  close(descriptor);
  reader.waitFor(line(1, "Version: 1.2.4") + line(1, "Trace size: 2Mb") + line(3, "three") +
                 line(4, "four"));
}

TEST(Follow, HandsNewLinesToFiltersAndForms) {
  const TemporaryFolder folder;
  const std::string file = folder.file("root.7.trc");
  writeFile(file, line(1, "**ERROR: one") + line(2, "**GMH: two"));
  RunningReader reader({"--follow", "--json", "--errors", "-A1", file});
  reader.waitFor("\"text\":\"two\"}\n");
  append(file, line(3, "**GMH: three") + line(4, "**GMH: four") + line(5, "**ERROR: five"));
  reader.waitFor("\"text\":\"five\"}\n");
  EXPECT_THAT(reader.written(), Not(HasSubstr("three")));
}

TEST(Follow, EndsWithTheLastLineThatIsAskedFor) {
  const TemporaryFolder folder;
  const std::string file = folder.file("a.trc");
  writeFile(file, line(1, "one"));
  RunningReader reader({"--follow", "--head", "2", file});
  reader.waitFor(line(1, "one"));
  append(file, line(2, "two") + line(3, "three"));
  EXPECT_EQ(reader.terminal().wait(), 0);
  EXPECT_EQ(reader.written(), line(1, "one") + line(2, "two"));
}

TEST(Follow, BeginsWithTheLastLinesWhenThoseAreAskedFor) {
  const TemporaryFolder folder;
  const std::string file = folder.file("a.trc");
  writeFile(file, line(1, "one") + line(2, "two") + line(3, "three"));
  RunningReader reader({"--follow", "--tail", "1", file});
  reader.waitFor(line(3, "three"));
  append(file, line(4, "four") + line(5, "five"));
  reader.waitFor(line(5, "five"));
  EXPECT_EQ(reader.written(), line(3, "three") + line(4, "four") + line(5, "five"));
}

TEST(Follow, EndsQuietlyWhenItsReaderHasGone) {
  const TemporaryFolder folder;
  const std::string file = folder.file("a.trc");
  writeFile(file, line(1, "one"));
  setWritten(file, 12, 0, 1);
  const ChildResult r = runProgram(
      {"/bin/bash", "-c", reader + (" --follow " + file + " | head -n 1; echo ${PIPESTATUS[0]}")});
  EXPECT_EQ(r.out, line(1, "one") + "1\n");
  EXPECT_EQ(r.err, "");
}

TEST(Follow, WaitsForAFileThatIsNotThere) {
  const TemporaryFolder folder;
  const std::string there = folder.file("root.1.trc");
  const std::string other = folder.file("later/leaf.2.trc");
  writeFile(there, line(1, "one"));
  setWritten(there, 12, 0, 1);
  RunningReader reader({"--follow", other, there});
  reader.waitFor("root.1  " + line(1, "one"));
  std::filesystem::create_directory(folder.file("later"));
  writeFile(other, line(2, "two"));
  reader.waitFor("leaf.2  " + line(2, "two"));
  append(other, line(3, "three"));
  reader.waitFor("leaf.2  " + line(3, "three"));
  EXPECT_EQ(reader.end(), said(other + ": No such file or directory", "\r\n"));
}

TEST(Follow, OpensOnlyTheFilesOfProcessesThatAreAskedFor) {
  const TemporaryFolder folder;
  const std::string file = folder.file("root.1.trc");
  writeFile(file, line(1, "one"));
  setWritten(file, 12, 0, 1);
  writeFile(folder.file("leaf.2.trc"), "no trace");
  RunningReader reader({"--follow", "--process", "root", folder.path(), folder.file("leaf.3.trc")});
  reader.waitFor(line(1, "one"));
  writeFile(folder.file("leaf.4.trc"), "no trace");
  append(file, line(2, "two"));
  reader.waitFor(line(2, "two"));
  EXPECT_EQ(reader.end(), "");
}

TEST(Follow, OfStandardInputEndsWhenThatDoes) {
  const ChildResult r = runReader({"--follow", "-"}, {.input = line(1, "one")});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, line(1, "one"));
}

}  // namespace
