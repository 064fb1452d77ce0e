#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <stdlib.h>
#include <string>
#include <sys/ioctl.h>
#include <termios.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/StdException.h"
#include "Engine/utilities/TraceFlags.h"
#include "Engine/utilities/UNIX/UNIXStdioPipes.h"

#include "tests/processes/ConsoleSupport.h"
#include "tests/processes/FailingCall.h"
#include "tests/support/ChildMain.h"
#include "tests/support/WaitUntil.h"

namespace {

constexpr auto noStream = static_cast<StdioPipes::StdFileHandle>(3);

void openTrace() { (void)isTraced(TraceType::error); }

// The slave side of a console as the debugger itself opens it, passing every byte as it is.
class RawSlave {
 public:
  explicit RawSlave(const UNIXStdioPipes& console)
      : RawSlave(console.readHandle(StdioPipes::StdError)) {}
  explicit RawSlave(int master) : fd_(open(ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    EXPECT_GE(fd_, 0);
    termios modes = {};
    EXPECT_EQ(tcgetattr(fd_, &modes), 0);
    cfmakeraw(&modes);
    EXPECT_EQ(tcsetattr(fd_, TCSANOW, &modes), 0);
  }
  RawSlave(const RawSlave&) = delete;
  RawSlave& operator=(const RawSlave&) = delete;
  ~RawSlave() { close(fd_); }

  void print(const std::string& text) const {
    size_t printed = 0;
    while (printed < text.size()) {
      const ssize_t n = ::write(fd_, text.data() + printed, text.size() - printed);
      ASSERT_GT(n, 0);
      printed += static_cast<size_t>(n);
    }
  }

  std::string read(size_t size) const {
    std::string text;
    char c;
    while (text.size() < size && ::read(fd_, &c, 1) == 1) {
      text += c;
    }
    return text;
  }

 private:
  int fd_;
};

// Reads until `size` bytes have come: what is written to a slave takes a moment to arrive.
std::string readAll(const UNIXStdioPipes& console, StdioPipes::StdFileHandle stream,
                    unsigned size) {
  std::string all;
  EXPECT_TRUE(waitUntil([&] {
    ByteString out;
    const int n = console.read(stream, out, size - static_cast<unsigned>(all.size()));
    EXPECT_EQ(n, static_cast<int>(out.length()));
    all += out.view();
    return all.size() >= size;
  })) << all;
  return all;
}

void expectInvalid(const StdioPipes& console, StdioPipes::StdFileHandle stream) {
  try {
    (void)console.readHandle(stream);
    ADD_FAILURE() << "nothing was thrown";
  } catch (const StdException& e) {
    EXPECT_STREQ(static_cast<const char*>(e.text), "invalid call");
    EXPECT_STREQ(static_cast<const char*>(e.fileName),
                 "virtual HANDLE UNIXStdioPipes::readHandle(StdioPipes::StdFileHandle) const");
    EXPECT_EQ(e.line, 259U);
    EXPECT_EQ(e.status, -1);
  }
}

}  // namespace

CUL_CHILD(ConsoleHandles) {
  openTrace();
  UNIXStdioPipes console;
  const CallRecord record({LibcCall::dup, LibcCall::fcntl, LibcCall::setsid});
  for (const auto stream : {StdioPipes::StdInput, noStream}) {
    expectInvalid(console, stream);
    EXPECT_EQ(console.childWriteHandle(stream), -1);
  }
  EXPECT_EQ(record.calls().size(), 0U);
}

TEST(ConsoleStreams, RefuseWhatIsNoOutputStream) {
  expectSuccess("ConsoleHandles");
  const ChildResult r = runChild("ConsoleHandles");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_EQ(StdioPipes::StdInput, 0);
  EXPECT_EQ(StdioPipes::StdOutput, 1);
  EXPECT_EQ(StdioPipes::StdError, 2);
}

CUL_CHILD(ConsoleRead) {
  UNIXStdioPipes console;
  const RawSlave slave(console);
  ByteString out("old");
  EXPECT_EQ(console.read(StdioPipes::StdOutput, out, 100), 0) << "nothing is pending";
  EXPECT_EQ(out.length(), 0U);

  slave.print("output");
  EXPECT_EQ(readAll(console, StdioPipes::StdOutput, 6), "output");
  slave.print("error");
  EXPECT_EQ(readAll(console, StdioPipes::StdError, 5), "error");

  slave.print("abcdef");
  EXPECT_EQ(readAll(console, StdioPipes::StdOutput, 1), "a");
  for (const auto stream : {StdioPipes::StdInput, noStream}) {
    out = ByteString("old");
    EXPECT_EQ(console.read(stream, out, 100), 0);
    EXPECT_EQ(out.length(), 0U);
  }
  out = ByteString("old");
  EXPECT_EQ(console.read(StdioPipes::StdOutput, out, 0), 0);
  EXPECT_EQ(out.length(), 0U);
  EXPECT_EQ(readAll(console, StdioPipes::StdOutput, 5), "bcdef");
}

TEST(ConsoleStreams, ReadWhatIsPendingUpToTheMaximum) { expectSuccess("ConsoleRead"); }

CUL_CHILD(ConsoleReadStops) {
  UNIXStdioPipes console;
  const RawSlave slave(console);
  // All of it has arrived when its last byte is there.
  slave.print("abcdefgh");
  EXPECT_TRUE(waitUntil([&] {
    int waiting = 0;
    return ioctl(console.readHandle(StdioPipes::StdOutput), FIONREAD, &waiting) == 0 &&
           waiting == 8;
  }));
  ByteString out;
  EXPECT_EQ(console.read(StdioPipes::StdOutput, out, 3), 3);
  EXPECT_EQ(out.view(), "abc");
  char bytes[6] = {'.', '.', '.', '.', '.', '.'};
  EXPECT_EQ(console.read(StdioPipes::StdError, bytes, 4), 4);
  EXPECT_EQ(std::string(bytes, 6), "defg..");
  EXPECT_EQ(console.read(StdioPipes::StdError, bytes, 6), 1);
  EXPECT_EQ(std::string(bytes, 6), "hefg..");
  EXPECT_EQ(console.read(StdioPipes::StdError, bytes, 6), 0);
  EXPECT_EQ(console.read(StdioPipes::StdInput, bytes, 6), 0);
  EXPECT_EQ(console.read(StdioPipes::StdInput, nullptr, 0), 0);
  EXPECT_EQ(std::string(bytes, 6), "hefg..");
}

TEST(ConsoleStreams, StopReadingAtTheMaximum) { expectSuccess("ConsoleReadStops"); }

CUL_CHILD(ConsoleReadZeros) {
  UNIXStdioPipes console;
  const RawSlave slave(console);
  const auto print = [&](const std::string& text) {
    slave.print(text);
    EXPECT_TRUE(waitUntil([&] {
      int waiting = 0;
      return ioctl(console.readHandle(StdioPipes::StdOutput), FIONREAD, &waiting) == 0 &&
             waiting == static_cast<int>(text.size());
    }));
  };
  ByteString out;
  print(std::string("\0a\0\0b\0c\0\0d\0", 11));
  EXPECT_EQ(console.read(StdioPipes::StdOutput, out, 3), 3);
  EXPECT_EQ(out.view(), "abc");
  // Zero bytes are dropped while more is wanted, and only then.
  int waiting = 0;
  EXPECT_EQ(ioctl(console.readHandle(StdioPipes::StdOutput), FIONREAD, &waiting), 0);
  EXPECT_EQ(waiting, 4);
  EXPECT_EQ(console.read(StdioPipes::StdOutput, out, 3), 1);
  EXPECT_EQ(out.view(), "d");
  print(std::string(3, '\0'));
  EXPECT_EQ(console.read(StdioPipes::StdOutput, out, 3), 0);
  EXPECT_EQ(out.length(), 0U);
  EXPECT_EQ(ioctl(console.readHandle(StdioPipes::StdOutput), FIONREAD, &waiting), 0);
  EXPECT_EQ(waiting, 0);

  std::string all;
  std::string withoutZero;
  for (int i = 0; i < 256; ++i) {
    all.push_back(static_cast<char>(i));
  }
  print(all);
  withoutZero = all.substr(1);
  EXPECT_EQ(console.read(StdioPipes::StdOutput, out, 1000), 255);
  EXPECT_EQ(out.view(), withoutZero);
}

TEST(ConsoleStreams, DropZeroBytesFromWhatIsRead) { expectSuccess("ConsoleReadZeros"); }

CUL_CHILD(ConsoleReadMuch) {
  UNIXStdioPipes console;
  const RawSlave slave(console);
  std::string text;
  for (unsigned i = 0; i < 200000; ++i) {
    text.push_back(static_cast<char>(1 + i % 251));
  }
  std::thread debuggee([&] { slave.print(text); });
  EXPECT_EQ(readAll(console, StdioPipes::StdOutput, 200000), text);
  debuggee.join();
  // More than one piece at once.
  const std::string much(4095, 'm');
  slave.print(much);
  EXPECT_EQ(readAll(console, StdioPipes::StdOutput, 4095), much);
}

TEST(ConsoleStreams, CarryMoreThanATerminalHolds) { expectSuccess("ConsoleReadMuch"); }

CUL_CHILD(ConsoleReadAfterTheEnd) {
  UNIXStdioPipes console;
  {
    const RawSlave slave(console);
    slave.print("last words");
  }
  EXPECT_EQ(readAll(console, StdioPipes::StdOutput, 10), "last words");
  ByteString out("old");
  EXPECT_EQ(console.read(StdioPipes::StdOutput, out, 10), 0) << "nobody has the slave";
  EXPECT_EQ(out.length(), 0U);
  console.closePipes();
  const CallRecord record({LibcCall::poll, LibcCall::read, LibcCall::write});
  out = ByteString("old");
  EXPECT_EQ(console.read(StdioPipes::StdOutput, out, 10), 0);
  EXPECT_EQ(out.length(), 0U);
  EXPECT_EQ(console.write("x", 1), 0);
  EXPECT_EQ(record.calls().size(), 0U);
}

TEST(ConsoleStreams, ReadNothingAfterTheEnd) { expectSuccess("ConsoleReadAfterTheEnd"); }

CUL_CHILD(ConsoleReadFailing) {
  UNIXStdioPipes console;
  const RawSlave slave(console);
  const int master = console.writeHandle();
  slave.print("abc");
  EXPECT_TRUE(waitUntil([&] {
    int waiting = 0;
    return ioctl(master, FIONREAD, &waiting) == 0 && waiting == 3;
  }));
  ByteString out;
  {
    const FailingCall failing({.call = LibcCall::poll, .error = EINTR, .first = master});
    EXPECT_EQ(console.read(StdioPipes::StdOutput, out, 10), 0);
  }
  {
    const FailingCall failing({.call = LibcCall::read, .error = EIO, .first = master});
    EXPECT_EQ(console.read(StdioPipes::StdOutput, out, 10), 0);
  }
  {
    const FailingCall failing({.call = LibcCall::read, .result = 0, .first = master});
    EXPECT_EQ(console.read(StdioPipes::StdOutput, out, 10), 0);
  }
  {
    // What came before the failure stays.
    const CallRecord record({LibcCall::poll, LibcCall::read});
    const FailingCall failing({.call = LibcCall::poll, .first = master, .after = 1});
    EXPECT_EQ(console.read(StdioPipes::StdOutput, out, 10), 3);
    EXPECT_EQ(out.view(), "abc");
    for (const CallMade& made : record.calls()) {
      EXPECT_EQ(made.first, master);
      if (made.call == LibcCall::poll) {
        EXPECT_EQ(made.argument, 0) << "no time to wait";
        EXPECT_EQ(made.more, POLLIN | POLLPRI);
      }
    }
  }
}

TEST(ConsoleStreams, EndReadingAtAFailure) { expectSuccess("ConsoleReadFailing"); }

CUL_CHILD(ConsoleWrite) {
  UNIXStdioPipes console;
  const RawSlave slave(console);
  EXPECT_EQ(console.write("hello", 5), 5);
  EXPECT_EQ(slave.read(5), "hello");
  EXPECT_EQ(console.write(ByteString(static_cast<const void*>("a\0b"), 3)), 3);
  EXPECT_EQ(slave.read(3), std::string("a\0b", 3));
  EXPECT_EQ(console.write("", 0), 0);
  EXPECT_EQ(console.write(ByteString()), 0);
  const int master = console.writeHandle();
  {
    const FailingCall failing({.call = LibcCall::write, .first = master});
    EXPECT_EQ(console.write("x", 1), 0);
  }
  {
    const FailingCall failing({.call = LibcCall::write, .result = 2, .first = master});
    const CallRecord record({LibcCall::write});
    EXPECT_EQ(console.write("xyz", 3), 2) << "one write, which may take less";
    EXPECT_EQ(record.calls().size(), 1U);
  }
}

TEST(ConsoleStreams, TypeForTheDebuggee) { expectSuccess("ConsoleWrite"); }

TEST(ConsoleStreams, DuplicateAFileAtItsStart) {
  const TemporaryFolder folder;
  const std::string file = folder.file("file");
  writeFile(file, "contents");
  const int fd = open(file.c_str(), O_RDWR | O_CLOEXEC);
  const int other = open(file.c_str(), O_RDWR | O_CLOEXEC);
  lseek(fd, 5, SEEK_SET);
  const std::set<int> before = openDescriptors();
  int copy = -1;
  const int result = UNIXStdioPipes::dupAndRewind(copy, fd);
  EXPECT_EQ(result, copy);
  EXPECT_GT(copy, 2);
  EXPECT_NE(copy, fd);
  EXPECT_TRUE(isClosedOnExec(copy));
  EXPECT_EQ(lseek(copy, 0, SEEK_CUR), 0);
  EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 0) << "a duplicate shares its position";
  EXPECT_EQ(contentsOf(file), "contents");
  std::set<int> with = before;
  with.insert(copy);
  EXPECT_EQ(openDescriptors(), with);

  lseek(other, 3, SEEK_SET);
  const CallRecord record({LibcCall::close});
  EXPECT_EQ(UNIXStdioPipes::dupAndTruncate(copy, other), copy);
  EXPECT_EQ(record.count(LibcCall::close), 1U);
  EXPECT_EQ(openDescriptors().size(), with.size()) << "the former copy is closed";
  EXPECT_TRUE(isClosedOnExec(copy));
  EXPECT_EQ(lseek(copy, 0, SEEK_CUR), 0);
  EXPECT_EQ(contentsOf(file), "");
  EXPECT_EQ(write(copy, "new", 3), 3);
  EXPECT_EQ(contentsOf(file), "new");
  close(copy);
  close(other);
  close(fd);
}

TEST(ConsoleStreams, DuplicateWhatHasNoPosition) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  int readCopy = -1;
  int writeCopy = -1;
  EXPECT_GE(UNIXStdioPipes::dupAndRewind(readCopy, ends[0]), 3);
  EXPECT_GE(UNIXStdioPipes::dupAndTruncate(writeCopy, ends[1]), 3);
  EXPECT_EQ(write(writeCopy, "x", 1), 1);
  char c = 0;
  EXPECT_EQ(read(readCopy, &c, 1), 1);
  EXPECT_EQ(c, 'x');
  for (const int fd : {readCopy, writeCopy, ends[0], ends[1]}) {
    close(fd);
  }
}

TEST(ConsoleStreams, DuplicateNothingThatIsNotOpen) {
  const std::set<int> before = openDescriptors();
  const CallRecord record({LibcCall::close});
  int copy = -1;
  EXPECT_EQ(UNIXStdioPipes::dupAndRewind(copy, -1), -1);
  EXPECT_EQ(copy, -1);
  EXPECT_EQ(UNIXStdioPipes::dupAndTruncate(copy, -1), -1);
  EXPECT_EQ(record.count(LibcCall::close), 0U) << "a negative copy is not closed";
  copy = dup(0);
  EXPECT_EQ(UNIXStdioPipes::dupAndTruncate(copy, -1), -1);
  EXPECT_EQ(copy, -1);
  EXPECT_EQ(openDescriptors(), before);
}

CUL_CHILD(ConsoleCopies) {
  openTrace();
  const std::set<int> before = openDescriptors();
  {
    UNIXStdioPipes console;
    EXPECT_EQ(console.writeHandle(), -1) << "no copy yet";
    EXPECT_EQ(console.readHandle(StdioPipes::StdOutput), -1);
    const int error = console.readHandle(StdioPipes::StdError);
    EXPECT_GE(error, 0) << "the terminal";
    const int in = console.childReadHandle();
    EXPECT_EQ(console.writeHandle(), in);
    const int out = console.childWriteHandle(StdioPipes::StdOutput);
    EXPECT_EQ(console.readHandle(StdioPipes::StdOutput), out);
    EXPECT_EQ(console.readHandle(StdioPipes::StdError), error);
    std::set<int> with = before;
    with.insert({in, out, error});
    EXPECT_EQ(openDescriptors(), with);
    for (const int fd : {in, out, error}) {
      EXPECT_TRUE(isClosedOnExec(fd));
    }
    EXPECT_EQ(lseek(out, 0, SEEK_END), 0) << "emptied";
    char text[16];
    EXPECT_EQ(read(in, text, sizeof text), 5);
    (void)console.childReadHandle();
    (void)console.childWriteHandle(StdioPipes::StdOutput);
    EXPECT_EQ(openDescriptors(), with) << "the former copies are closed";
    EXPECT_EQ(read(console.writeHandle(), text, sizeof text), 5) << "rewound";

    ByteString bytes("old");
    EXPECT_EQ(console.read(StdioPipes::StdOutput, bytes, 10), 0) << "what goes to a file";
    EXPECT_EQ(bytes.length(), 0U);

    // The console stays a console for what is typed, although input is a file.
    const RawSlave slave(console);
    EXPECT_EQ(console.write("typed", 5), 5);
    EXPECT_EQ(slave.read(5), "typed");
    slave.print("error");
    EXPECT_EQ(console.read(StdioPipes::StdOutput, bytes, 10), 0);
    EXPECT_EQ(readAll(console, StdioPipes::StdError, 5), "error");

    console.closePipes();
    EXPECT_EQ(console.readHandle(StdioPipes::StdError), -1);
    EXPECT_TRUE(isOpen(console.readHandle(StdioPipes::StdOutput)));
    EXPECT_TRUE(isOpen(console.writeHandle()));
  }
  EXPECT_EQ(openDescriptors(), before);
}

TEST(ConsoleStreams, KeepDuplicatesOfRedirectedStreamsUntilTheEnd) {
  const TemporaryFolder folder;
  writeFile(folder.file("in"), "input");
  writeFile(folder.file("out"), "former contents");
  const int in = open(folder.file("in").c_str(), O_RDONLY | O_CLOEXEC);
  const int out = open(folder.file("out").c_str(), O_RDWR | O_APPEND | O_CLOEXEC);
  const TerminalRun run = expectSuccess("ConsoleCopies", {.in = in, .out = out});
  EXPECT_EQ(contentsOf(folder.file("out")), "") << run.shown;
  close(in);
  close(out);
}

CUL_CHILD(ConsoleErrorCopy) {
  openTrace();
  const std::set<int> before = openDescriptors();
  {
    UNIXStdioPipes console;
    const int master = console.writeHandle();
    EXPECT_EQ(console.readHandle(StdioPipes::StdOutput), master);
    EXPECT_EQ(console.readHandle(StdioPipes::StdError), -1) << "no copy yet";
    const int error = console.childWriteHandle(StdioPipes::StdError);
    EXPECT_EQ(console.readHandle(StdioPipes::StdError), error);
    EXPECT_EQ(lseek(error, 0, SEEK_END), 0) << "emptied";
    std::set<int> with = before;
    with.insert({master, error});
    EXPECT_EQ(openDescriptors(), with);
    EXPECT_TRUE(isClosedOnExec(error));
    const RawSlave slave(master);
    slave.print("output");
    EXPECT_EQ(readAll(console, StdioPipes::StdOutput, 1), "o");
    ByteString bytes("old");
    EXPECT_EQ(console.read(StdioPipes::StdError, bytes, 10), 0) << "what goes to a file";
    EXPECT_EQ(bytes.length(), 0U);
    EXPECT_EQ(readAll(console, StdioPipes::StdOutput, 5), "utput");
  }
  EXPECT_EQ(openDescriptors(), before);
}

TEST(ConsoleStreams, KeepADuplicateOfARedirectedErrorUntilTheEnd) {
  const TemporaryFolder folder;
  writeFile(folder.file("error"), "former contents");
  const int error = open(folder.file("error").c_str(), O_RDWR | O_CLOEXEC);
  expectSuccess("ConsoleErrorCopy", {.error = error});
  EXPECT_EQ(contentsOf(folder.file("error")), "");
  close(error);
}

// What a started debuggee finds.
CUL_CHILD(ConsoleDebuggee) {
  const std::string terminals = childArguments()[0];
  EXPECT_EQ(openDescriptors(), (std::set<int>{0, 1, 2}));
  bool hasConsole = false;
  for (int stream = 0; stream < 3; ++stream) {
    const bool expected = terminals[static_cast<size_t>(stream)] == 't';
    EXPECT_EQ(isatty(stream) != 0, expected) << stream;
    if (expected) {
      hasConsole = true;
      EXPECT_EQ(tcgetsid(stream), getpid());
      EXPECT_EQ(tcgetpgrp(stream), getpid());
      termios modes = {};
      EXPECT_EQ(tcgetattr(stream, &modes), 0);
      EXPECT_EQ(modes.c_lflag & tcflag_t{ECHO}, 0U);
      winsize size = {};
      EXPECT_EQ(ioctl(stream, TIOCGWINSZ, &size), 0);
      EXPECT_EQ(size.ws_row, unusualSize.rows);
      EXPECT_EQ(size.ws_col, unusualSize.columns);
    }
  }
  const int tty = open("/dev/tty", O_RDWR | O_CLOEXEC);
  EXPECT_GE(tty, 0);
  EXPECT_EQ(tcgetsid(tty) == getpid(), hasConsole);
  char line[64] = {};
  EXPECT_EQ(read(0, line, sizeof line - 1), 8);
  const std::string out = std::string("out ") + line;
  const std::string error = std::string("err ") + line;
  EXPECT_EQ(write(1, out.data(), out.size()), static_cast<ssize_t>(out.size()));
  EXPECT_EQ(write(2, error.data(), error.size()), static_cast<ssize_t>(error.size()));
}

// Runs it on a console. The streams of this process are terminals, files or pipes as the
// argument says: for each a letter, 't' for a terminal.
CUL_CHILD(ConsoleDebugger) {
  openTrace();
  const std::string terminals = childArguments()[0];
  const std::set<int> before = openDescriptors();
  {
    UNIXStdioPipes console;
    const pid_t debuggee = fork([&] {
      const HANDLE in = console.childReadHandle();
      const HANDLE out = console.childWriteHandle(StdioPipes::StdOutput);
      const HANDLE error = console.childWriteHandle(StdioPipes::StdError);
      dup2(in, 0);
      dup2(out, 1);
      dup2(error, 2);
      std::vector<std::string> words = childCommand("ConsoleDebuggee", {terminals});
      execv(words[0].c_str(), pointersTo(words).data());
    });
    if (terminals[0] == 't') {
      // What is typed before the debuggee has set its terminal up is echoed.
      EXPECT_TRUE(waitUntil([&] {
        termios modes = {};
        return tcgetattr(console.writeHandle(), &modes) == 0 &&
               (modes.c_lflag & tcflag_t{ECHO}) == 0;
      }));
      EXPECT_EQ(console.write("command\n", 8), 8);
    }
    std::string expected;
    expected += terminals[1] == 't' ? "out command\r\n" : "";
    expected += terminals[2] == 't' ? "err command\r\n" : "";
    if (!expected.empty()) {
      EXPECT_EQ(readAll(console, terminals[1] == 't' ? StdioPipes::StdOutput : StdioPipes::StdError,
                        static_cast<unsigned>(expected.size())),
                expected);
    }
    EXPECT_EQ(statusOf(debuggee), 0);
    ByteString rest;
    EXPECT_EQ(console.read(StdioPipes::StdOutput, rest, 1000), 0) << rest.view();
    EXPECT_EQ(console.read(StdioPipes::StdError, rest, 1000), 0) << rest.view();
  }
  EXPECT_EQ(openDescriptors(), before);
}

namespace {

// A stream of the debugger that is no terminal: a file with former contents, or a pipe.
class Redirected {
 public:
  Redirected(bool isPipe, const std::string& file, const std::string& contents, bool isInput)
      : file_(isPipe ? "" : file) {
    if (isPipe) {
      EXPECT_EQ(pipe2(ends_, O_CLOEXEC), 0);
      given_ = ends_[isInput ? 0 : 1];
      if (isInput) {
        EXPECT_EQ(::write(ends_[1], contents.data(), contents.size()),
                  static_cast<ssize_t>(contents.size()));
      }
    } else {
      writeFile(file, contents);
      given_ = ends_[0] = open(file.c_str(), O_RDWR | O_CLOEXEC);
      lseek(given_, 0, SEEK_END);
    }
  }
  Redirected(const Redirected&) = delete;
  Redirected& operator=(const Redirected&) = delete;
  ~Redirected() {
    for (const int fd : ends_) {
      if (fd >= 0) {
        close(fd);
      }
    }
  }

  [[nodiscard]] int given() const { return given_; }

  // What the debuggee has left there.
  std::string contents() {
    if (!file_.empty()) {
      return contentsOf(file_);
    }
    close(ends_[1]);
    ends_[1] = -1;
    std::string all;
    char c;
    while (::read(ends_[0], &c, 1) == 1) {
      all += c;
    }
    return all;
  }

 private:
  std::string file_;
  int ends_[2] = {-1, -1};
  int given_ = -1;
};

// Each letter: 't' terminal, 'f' file, 'p' pipe.
void runDebuggerWith(const std::string& streams) {
  SCOPED_TRACE(streams);
  const TemporaryFolder folder;
  std::optional<Redirected> redirected[3];
  const char* const contents[] = {"command\n", "a much longer former output\n",
                                  "a much longer former error\n"};
  for (size_t i = 0; i < 3; ++i) {
    if (streams[i] != 't') {
      redirected[i].emplace(streams[i] == 'p', folder.file(std::to_string(i)), contents[i], i == 0);
    }
  }
  const auto given = [&](int stream) -> std::optional<int> {
    return redirected[stream] ? std::optional(redirected[stream]->given()) : std::nullopt;
  };
  const TerminalRun run =
      runOnTerminal("ConsoleDebugger",
                    {.in = given(0), .out = given(1), .error = given(2), .arguments = {streams}});
  const std::string out = redirected[1] ? redirected[1]->contents() : "out command\n";
  const std::string error = redirected[2] ? redirected[2]->contents() : "err command\n";
  EXPECT_EQ(run.status, 0) << run.shown << out << error << run.trace;
  EXPECT_EQ(out, "out command\n");
  EXPECT_EQ(error, "err command\n");
  EXPECT_EQ(run.shown, "") << "all went to the console";
  const bool hasConsole = streams.find('t') != std::string::npos;
  EXPECT_EQ(occurrences(run.trace, "successfully created"), hasConsole ? 1U : 0U);
  EXPECT_EQ(occurrences(run.trace, "**ERROR"), 0U) << run.trace;
}

}  // namespace

TEST(ConsoleStreams, ReachADebuggeeInEveryCombinationOfTerminalsAndFiles) {
  for (const char* const streams : {"ttt", "ttf", "tft", "tff", "ftt", "ftf", "fft", "fff"}) {
    runDebuggerWith(streams);
  }
}

TEST(ConsoleStreams, ReachADebuggeeInEveryCombinationOfTerminalsAndPipes) {
  for (const char* const streams :
       {"ttp", "tpt", "tpp", "ptt", "ptp", "ppt", "ppp", "pff", "fpt"}) {
    runDebuggerWith(streams);
  }
}
