#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>

#include "Engine/utilities/ProductData.h"

#include "tests/enginetrace/Reader.h"

/// The reader as its users call it.

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

std::string stamped(const std::string& time, const std::string& thread, const std::string& text) {
  std::string name = thread;
  name.resize(8, ' ');
  return time + " (" + name + ")" + text + "\n";
}

const std::string one = stamped("12:00:01.000000", "main", "**GMH/step: void A::f(1): one");
const std::string two =
    stamped("12:00:02.000000", "worker", "**ERROR: void B::g(2): two\nand more");
const std::string three = stamped("12:00:03.000000", "main", "**WARNING: C::h(3): three");
const std::string four = stamped("12:00:04.500000", "aLongOne", "four");
const std::string five = stamped("12:10:05.000000", "main", "**GMH: void A::f(5): Five");

class Reader : public testing::Test {
 protected:
  Reader() {
    writeFile(file_, one + two + three + four + five);
    setWritten(file_, 12, 10, 5);
  }

  // What it shows of the file with these options.
  std::string shown(std::vector<std::string> words) const {
    words.push_back(file_);
    const ChildResult r = runReader(words);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    return r.out;
  }

  // What it says when it is called wrongly with these words and the file.
  std::string refused(std::vector<std::string> words) const {
    words.push_back(file_);
    const ChildResult r = runReader(words);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
    return r.err;
  }

  TemporaryFolder folder_;
  std::string file_ = folder_.file("root.7.trc");
};

TEST_F(Reader, ShowsTheLinesAsTheyAre) {
  EXPECT_EQ(shown({}), one + two + three + four + five);
  EXPECT_EQ(shown({"--"}), one + two + three + four + five);
}

TEST_F(Reader, ShowsLinesOfTheTypesThatAreNamed) {
  EXPECT_EQ(shown({"--type", "GMH"}), one + five);
  EXPECT_EQ(shown({"--type", "gmh,ERROR"}), one + two + five);
  EXPECT_EQ(shown({"--type=GMH", "--type", "ERROR"}), one + two + five);
  EXPECT_EQ(shown({"--type", "GM"}), "");
  EXPECT_EQ(shown({"--not", "GMH,error"}), three + four);
  EXPECT_EQ(shown({"--type", "GMH,ERROR", "--not", "GMH"}), two);
  EXPECT_EQ(shown({"--errors"}), two + three);
  EXPECT_EQ(shown({"--errors", "--type", "GMH"}), one + two + three + five);
}

TEST_F(Reader, ShowsLinesOfTheThreadsAndFunctionsThatAreNamed) {
  EXPECT_EQ(shown({"--thread", "worker"}), two);
  EXPECT_EQ(shown({"--thread", "worker", "--thread", "aLongOneIndeed"}), two + four);
  EXPECT_EQ(shown({"--thread", "work"}), "");
  EXPECT_EQ(shown({"--function", "A::f"}), one + five);
  EXPECT_EQ(shown({"--function", "void *::?"}), one + two + five);
  EXPECT_EQ(shown({"--function", "[BC]::*"}), two + three);
  EXPECT_EQ(shown({"--function", "A::f", "--thread", "worker"}), "");
}

TEST_F(Reader, ShowsLinesInWhichAnExpressionIsFound) {
  EXPECT_EQ(shown({"--grep", "f.ve"}), "");
  EXPECT_EQ(shown({"--grep", "f.ve", "-i"}), five);
  EXPECT_EQ(shown({"--grep", "f.ve", "--ignore-case"}), five);
  EXPECT_EQ(shown({"--grep", "^and m"}), two);
  EXPECT_EQ(shown({"--grep", "[four]{4}"}), four);
  EXPECT_EQ(shown({"--grep", ""}), one + two + three + four + five);
  EXPECT_EQ(shown({"--grep", "one", "--grep", "two"}), two);
}

TEST_F(Reader, ShowsLinesBetweenTimes) {
  EXPECT_EQ(shown({"--since", "12:00:03"}), three + four + five);
  EXPECT_EQ(shown({"--until", "12:00:03"}), one + two + three);
  EXPECT_EQ(shown({"--since", "12:00:02.000001", "--until", "12:00:04.5"}), three + four);
  EXPECT_EQ(shown({"--since", "1m"}), five);
  EXPECT_EQ(shown({"--until", "10m3s"}), one + two);
}

TEST_F(Reader, ShowsNeighboursOfWhatIsFound) {
  EXPECT_EQ(shown({"--errors", "-A", "1"}), two + three + four);
  EXPECT_EQ(shown({"--errors", "-B1"}), one + two + three);
  EXPECT_EQ(shown({"--type", "GMH", "--after-context", "1"}), one + two + "--\n" + five);
  EXPECT_EQ(shown({"--type", "GMH", "--before-context=1"}), one + "--\n" + four + five);
  EXPECT_EQ(shown({"--grep", "three", "-C", "1"}), two + three + four);
  EXPECT_EQ(shown({"--grep", "three", "-C", "1", "-A0"}), two + three);
  EXPECT_EQ(shown({"--type", "GMH", "--context", "9"}), one + two + three + four + five);
  EXPECT_EQ(shown({"--type", "GMH"}), one + five);
  // Not those that lie outside the times.
  EXPECT_EQ(shown({"--grep", "three", "-C", "9", "--since", "12:00:02", "--until", "12:00:05"}),
            two + three + four);
}

TEST_F(Reader, ShowsTheFirstAndTheLastOfWhatIsFound) {
  EXPECT_EQ(shown({"--head", "2"}), one + two);
  EXPECT_EQ(shown({"--head", "0"}), "");
  EXPECT_EQ(shown({"--head", "1", "--type", "GMH", "-A1"}), one + two);
  EXPECT_EQ(shown({"--tail", "2"}), four + five);
  EXPECT_EQ(shown({"--tail", "0"}), "");
  EXPECT_EQ(shown({"--tail", "9"}), one + two + three + four + five);
  EXPECT_EQ(shown({"--tail", "1", "--type", "GMH", "-B1"}), four + five);
  EXPECT_EQ(shown({"--tail", "1", "--until", "12:00:04"}), three);
}

TEST_F(Reader, ReadsStandardInput) {
  for (const char* name : {"-", "/dev/stdin"}) {
    const ChildResult r = runReader({"--type", "GMH", name}, {.input = contentsOf(file_)});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, one + five);
    // Nobody knows when it was written.
    EXPECT_EQ(r.err, said("the dates of the lines are not certain: " + std::string(name)));
  }
}

TEST_F(Reader, MergesFilesAndMarksTheirLines) {
  const std::string other = folder_.file("leaf.12345.trc");
  writeFile(other,
            stamped("12:00:02.000000", "main", "a") + stamped("12:00:04.000000", "main", "b"));
  setWritten(other, 12, 0, 4);
  const auto marked = [](const std::string& mark, const std::string& lines) {
    std::string result;
    std::istringstream stream(lines);
    for (std::string line; std::getline(stream, line);) {
      result += mark + "  " + line + "\n";
    }
    return result;
  };
  const std::string merged = marked("root.7    ", one) +
                             marked("leaf.12345", stamped("12:00:02.000000", "main", "a")) +
                             marked("root.7    ", two + three) +
                             marked("leaf.12345", stamped("12:00:04.000000", "main", "b")) +
                             marked("root.7    ", four + five);
  // Lines of one time in the order of the arguments; those of a folder by their names.
  const ChildResult r = runReader({other, file_});
  EXPECT_EQ(r.out, merged);
  writeFile(folder_.file("notes.txt"), "no trace");
  EXPECT_EQ(runReader({folder_.path()}).out, merged);
  EXPECT_EQ(runReader({"--process", "root", folder_.path()}).out, one + two + three + four + five);
  EXPECT_EQ(runReader({"--process", "7", folder_.path()}).out, one + two + three + four + five);
  EXPECT_EQ(runReader({"--process", "root.7,leaf.12345", folder_.path()}).out, merged);
  EXPECT_EQ(runReader({"--process", "12", folder_.path()}).out, "");
}

TEST_F(Reader, MarksFilesOfOneNameByTheirPaths) {
  std::filesystem::create_directory(folder_.file("other"));
  const std::string other = folder_.file("other/root.7.trc");
  writeFile(other, one);
  const std::string out = runReader({file_, other, "--head", "2"}).out;
  EXPECT_THAT(out, AllOf(HasSubstr(file_ + "  "), HasSubstr(other + "  ")));
}

TEST_F(Reader, ShowsTheDateInFrontOfTheTimeWhenItIsAskedFor) {
  EXPECT_THAT(shown({"--date", "--head", "1"}),
              testing::MatchesRegex("20[0-9]{2}-[0-9]{2}-[0-9]{2} 12:00:01(.|\n)*"));
}

TEST_F(Reader, WritesTheOtherForms) {
  const auto object = nlohmann::json::parse(shown({"--json", "--head", "1"}));
  EXPECT_EQ(object["text"], "one");
  EXPECT_EQ(object["process"], "root.7");
  EXPECT_TRUE(nlohmann::json::parse(shown({"--trace-event"})).contains("traceEvents"));
  EXPECT_THAT(shown({"--summary"}), HasSubstr("root.7"));
  const std::string page = folder_.file("page.html");
  EXPECT_EQ(shown({"--html", page}), "");
  EXPECT_THAT(contentsOf(page), StartsWith("<!DOCTYPE html>"));
}

TEST_F(Reader, SendsNoByteToATerminalThatItWouldObey) {
  writeFile(file_, stamped("12:00:01.000000", "a\33b", "x\33[31my\xFF"));
  setWritten(file_, 12, 0, 1);
  const std::string expected = "12:00:01.000000 (a\\x1Bb     )x\\x1B[31my\\xFF\n";
  EXPECT_EQ(shown({}), expected);
  EXPECT_EQ(shown({"--grep", "x"}), expected);
  const std::string bad = folder_.file("no\33[7m\nfile");
  EXPECT_EQ(runReader({bad}).err,
            said(folder_.file("no\\x1B[7m\\x0Afile") + ": No such file or directory"));
}

TEST_F(Reader, IsInColourAtATerminalOnly) {
  const auto atTerminal = [&](std::vector<std::string> words, const TerminalOptions& options = {}) {
    words.insert(words.begin(), {reader, "--head", "2"});
    words.push_back(file_);
    Terminal terminal;
    terminal.startProgram(words, options);
    EXPECT_EQ(terminal.wait(), 0);
    return terminal.readToTheEnd();
  };
  const std::string red = "\33[1;31m";
  EXPECT_THAT(atTerminal({}), AllOf(HasSubstr(red + "**ERROR: void B::g(2): two\33[0m\r\n"),
                                    HasSubstr(red + "and more\33[0m\r\n"),
                                    HasSubstr("\33[36m**GMH/step\33[0m: void A::f(1): one\r\n")));
  EXPECT_EQ(atTerminal({"--color", "never"}), asShown(one + two));
  EXPECT_EQ(atTerminal({}, {.environment = {{"NO_COLOR", "1"}}}), asShown(one + two));
  EXPECT_THAT(atTerminal({}, {.environment = {{"NO_COLOR", ""}}}), HasSubstr(red));
  EXPECT_THAT(atTerminal({"--color=always"}, {.environment = {{"NO_COLOR", "1"}}}), HasSubstr(red));
  EXPECT_THAT(shown({"--color=always"}), HasSubstr(red));
  EXPECT_THAT(shown({"--color=auto"}), Not(HasSubstr(red)));
}

TEST_F(Reader, ShowsAllInAPagerWhenThatIsAskedFor) {
  const auto paged = [&](const std::string& pager, const TerminalOptions& more = {}) {
    TerminalOptions options = more;
    options.environment["PAGER"] = pager;
    Terminal terminal;
    terminal.startProgram({reader, "--pager", "--tail", "1", file_}, options);
    EXPECT_EQ(terminal.wait(), 0);
    return terminal.readToTheEnd();
  };
  // In colour, as at a terminal.
  EXPECT_THAT(paged("sed 's/^/paged: /'"),
              AllOf(StartsWith("paged: "), HasSubstr("\33[36m**GMH\33[0m: void A::f(5): Five")));
  // A user who has seen enough is no failure.
  EXPECT_EQ(paged("true"), "");
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  EXPECT_EQ(paged("echo paged", {.out = null}), "");
  close(null);
}

TEST_F(Reader, LeavesTheKeyThatInterruptsToThePager) {
  Terminal terminal;
  terminal.startProgram({reader, "--pager", file_},
                        {.environment = {{"PAGER",
                                          "trap 'echo interrupted; exit' INT; cat; "
                                          "while :; do sleep 0.05; done"}}});
  terminal.readUntil("Five");
  terminal.type("\x03");
  terminal.readUntil("interrupted");
  EXPECT_EQ(terminal.wait(), 0);
}

TEST_F(Reader, TellsAtATerminalHowFarItIsWhenItTakesLong) {
  // A FIFO that is fed when the user has been told.
  const std::string fifo = folder_.file("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  // Both ends: the reader would not wait for a writer, nor this for the reader.
  const int writer = open(fifo.c_str(), O_RDWR | O_CLOEXEC);
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  Terminal terminal;
  terminal.startProgram({reader, fifo}, {.out = null});
  close(null);
  terminal.readUntil("\renginetrace: reading: ");
  EXPECT_EQ(write(writer, one.data(), one.size()), static_cast<ssize_t>(one.size()));
  close(writer);
  EXPECT_EQ(terminal.wait(), 0);
  // Wiped out, and then the note that a pipe has no date.
  EXPECT_THAT(terminal.readToTheEnd(), HasSubstr(" %\33[K\r\33[Kenginetrace: the dates"));
}

TEST_F(Reader, TellsItsUsageAndVersion) {
  for (const char* option : {"-h", "--help"}) {
    const ChildResult r = runReader({option});
    EXPECT_EQ(r.status, 0);
    EXPECT_THAT(r.out,
                AllOf(StartsWith("usage: enginetrace [options] file|folder|- ...\n"),
                      HasSubstr("\n  -i, --ignore-case "), HasSubstr("\n      --type TYPE,...")));
  }
  const ProductData& product = productData();
  EXPECT_EQ(runReader({"--version"}).out, std::string("enginetrace ") + product.version + " (" +
                                              product.name + ", build " + product.buildStamp +
                                              ")\n");
}

TEST_F(Reader, RefusesAWrongCallInOneLine) {
  const std::string see = ", see enginetrace --help";
  EXPECT_EQ(runReader({}).err, said("no file is named" + see));
  EXPECT_EQ(runReader({}).status, 2);
  EXPECT_EQ(refused({"--foo"}), said("--foo: invalid option" + see));
  EXPECT_EQ(refused({"-x"}), said("-x: invalid option" + see));
  EXPECT_EQ(refused({"--typ", "A"}), said("--typ: invalid option" + see));
  EXPECT_EQ(refused({"--json=3"}), said("--json takes no value" + see));
  EXPECT_EQ(runReader({file_, "--head"}).err, said("--head needs a value" + see));
  for (const char* number : {"x", "-1", "1x", "0x1", "99999999999999999999", ""}) {
    for (const char* option :
         {"--head", "--tail", "--context", "--before-context", "--after-context"}) {
      EXPECT_EQ(refused({option, number}),
                said(std::string(option) + " " + number + ": invalid value" + see));
    }
  }
  EXPECT_EQ(refused({"--since", "yesterday"}), said("--since yesterday: invalid value" + see));
  EXPECT_EQ(refused({"--until", "25:00"}), said("--until 25:00: invalid value" + see));
  EXPECT_EQ(refused({"--color", "blue"}), said("--color blue: invalid value" + see));
  EXPECT_EQ(refused({"--grep", "a("}), said("--grep a(: invalid pattern (missing ): a()"));
  EXPECT_THAT(refused({"--function", "[b-a]"}), HasSubstr("--function [b-a]: invalid pattern"));
  EXPECT_EQ(refused({"--foo\33"}), said("--foo\\x1B: invalid option" + see));
}

TEST_F(Reader, TakesNoFileForTheEmptyValueOfAnOption) {
  EXPECT_EQ(shown({"--grep="}), one + two + three + four + five);
  EXPECT_EQ(shown({"--grep", ""}), one + two + three + four + five);
  EXPECT_EQ(shown({"--thread="}), "");
  EXPECT_EQ(shown({"--grep", "--type=", "--thread=main"}), "");
  const std::string see = ", see enginetrace --help";
  EXPECT_EQ(refused({"--head="}), said("--head : invalid value" + see));
  EXPECT_EQ(refused({"--since="}), said("--since : invalid value" + see));
  EXPECT_EQ(refused({"--html="}), said("--html : invalid value" + see));
  EXPECT_EQ(refused({"--html", ""}), said("--html : invalid value" + see));
  EXPECT_EQ(refused({"--json="}), said("--json takes no value" + see));
  // The trace that would have been the page.
  EXPECT_EQ(contentsOf(file_), one + two + three + four + five);
}

TEST_F(Reader, RefusesOptionsThatDoNotGoTogether) {
  const auto together = [](const std::string& a, const std::string& b) {
    return said(a + " and " + b + " do not go together, see enginetrace --help");
  };
  EXPECT_EQ(refused({"--json", "--summary"}), together("--json", "--summary"));
  EXPECT_EQ(refused({"--html", "x", "--trace-event"}), together("--trace-event", "--html"));
  EXPECT_EQ(refused({"--head", "1", "--tail", "1"}), together("--head", "--tail"));
  EXPECT_EQ(refused({"--follow", "--summary"}), together("--follow", "--summary"));
  EXPECT_EQ(refused({"-f", "--html", "x"}), together("--follow", "--html"));
  EXPECT_EQ(refused({"-f", "--trace-event"}), together("--follow", "--trace-event"));
  EXPECT_EQ(refused({"-f", "--pager"}), together("--follow", "--pager"));
}

TEST_F(Reader, WritesNoPageOverATrace) {
  const std::string before = contentsOf(file_);
  EXPECT_EQ(refused({"--html", file_}), said(file_ + ": is a trace and is not written over"));
  const std::string plain = folder_.file("plain");
  std::filesystem::copy_file(file_, plain);
  setWritten(plain, 12, 10, 5);
  const ChildResult r = runReader({"--html", plain, plain});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, said(plain + ": is a trace and is not written over"));
  EXPECT_EQ(contentsOf(plain), before);
}

TEST_F(Reader, ReadsTheOthersWhenAFileIsNoTrace) {
  const std::string text = folder_.file("text");
  writeFile(text, "some text\n");
  const ChildResult r = runReader({text, file_, folder_.file("absent")});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, one + two + three + four + five);
  EXPECT_EQ(r.err, said(text + ": not a trace") +
                       said(folder_.file("absent") + ": No such file or directory"));
  const std::string empty = folder_.file("empty");
  std::filesystem::create_directory(empty);
  EXPECT_EQ(runReader({empty}).err, said(empty + ": no file in this folder ends in .trc"));
  EXPECT_EQ(runReader({empty}).status, 2);
}

TEST_F(Reader, SeesThatAFileOfTheKernelIsNoTraceThoughItSaysItIsEmpty) {
  const ChildResult r = runReader({"/proc/version"});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, said("/proc/version: not a trace"));
}

TEST_F(Reader, ShowsNothingOfAnEmptyTrace) {
  writeFile(file_, "");
  EXPECT_EQ(shown({}), "");
  EXPECT_EQ(shown({"--json"}), "");
}

TEST_F(Reader, EndsQuietlyWhenNobodyReadsOn) {
  std::ofstream stream(file_, std::ios::app);
  for (int i = 0; i < 100'000; ++i) {  // Much more than a pipe takes.
    stream << five;
  }
  stream.close();
  setWritten(file_, 12, 10, 5);
  for (const char* options : {"", "--date", "--json", "--summary", "--trace-event"}) {
    SCOPED_TRACE(options);
    const ChildResult r = runProgram(
        {"/bin/bash", "-c",
         std::string(reader) + " " + options + " " + file_ + " | true; echo ${PIPESTATUS[0]}"});
    EXPECT_THAT(r.out, testing::AnyOf("1\n", std::string(options) == "--summary" ? "0\n" : "1\n"));
    EXPECT_EQ(r.err, "");
  }
}

TEST_F(Reader, TellsWhenItsOutputCannotBeWritten) {
  for (const char* options : {"", "--date", "--json", "--summary", "--trace-event", "--help"}) {
    const std::string call = std::string(reader) + " " + options + " " + file_;
    const ChildResult full = runProgram({"/bin/sh", "-c", call + " >/dev/full"});
    EXPECT_EQ(full.status, 1);
    EXPECT_EQ(full.err, said("standard output: No space left on device"));
    const ChildResult closed = runProgram({"/bin/sh", "-c", call + " >&-"});
    EXPECT_EQ(closed.status, 1);
    EXPECT_EQ(closed.err, said("standard output: Bad file descriptor"));
  }
  const ChildResult page = runReader({"--html", "/dev/full", file_});
  EXPECT_EQ(page.status, 1);
  EXPECT_EQ(page.err, said("/dev/full: No space left on device"));
  EXPECT_EQ(runReader({"--html", "/no/such/page", file_}).status, 1);
}

TEST_F(Reader, TracesNothingItself) {
  const std::string before = contentsOf(file_);
  const ChildResult r = runReader({"--foo", file_}, {.environment = {{"GDIA_ID", "root"},
                                                                     {"QVX_DBG_TRACE", file_},
                                                                     {"QVX_DBG_TRACE_ROOT", file_},
                                                                     {"WZ4_DBG_TRACE", file_}}});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(contentsOf(file_), before);
}

TEST_F(Reader, TellsWhatIsLeftOutAtTheEnd) {
  // A ring by hand: new lines, the rest of a cut one, old lines.
  std::string ring;
  for (int i = 0; i < 600; ++i) {
    ring += stamped("12:30:00." + std::to_string(100'000 + i), "main", "new");
  }
  ring += "of a line\n";
  for (int i = 0; i < 600; ++i) {
    ring += stamped("12:20:00." + std::to_string(100'000 + i), "main", "old");
  }
  writeFile(file_, ring);
  setWritten(file_, 12, 30, 0);
  const ChildResult r = runReader({file_});
  EXPECT_EQ(r.status, 0);
  EXPECT_THAT(r.err, HasSubstr(said("lines left out because the ring's seam has cut them: 1")));
  EXPECT_LT(r.out.find("old"), r.out.find("new"));
  EXPECT_THAT(r.out, Not(HasSubstr("of a line")));
}

}  // namespace
