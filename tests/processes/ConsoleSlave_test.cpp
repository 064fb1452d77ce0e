#include <csignal>
#include <fcntl.h>
#include <stdlib.h>
#include <string>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Engine/utilities/TraceFlags.h"
#include "Engine/utilities/UNIX/UNIXStdioPipes.h"

#include "tests/processes/ConsoleSupport.h"
#include "tests/processes/FailingCall.h"

using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

void openTrace() { (void)isTraced(TraceType::error); }

std::string nameOfSlave(const UNIXStdioPipes& console) { return ptsname(console.writeHandle()); }

void showSlave(const UNIXStdioPipes& console) {
  std::printf("slave=%s.\n", nameOfSlave(console).c_str());
}

volatile sig_atomic_t sizesSeen = 0;
void noteSize(int) { sizesSeen = sizesSeen + 1; }
void noteSizeWithInformation(int, siginfo_t*, void*) { sizesSeen = sizesSeen + 1; }

struct sigaction sizeAction() {
  struct sigaction action = {};
  sigaction(SIGWINCH, nullptr, &action);
  return action;
}

// In the debuggee whose console could not be set up: it keeps the streams it was given, no
// descriptor is left, and there is no second attempt.
void expectNoSlave(UNIXStdioPipes& console, const std::set<int>& before, int master) {
  EXPECT_EQ(console.slaveHandle(), -1);
  std::set<int> after = before;
  after.erase(master);
  EXPECT_EQ(openDescriptors(), after);
  const CallRecord record({LibcCall::setsid, LibcCall::open});
  EXPECT_EQ(console.slaveHandle(), -1);
  EXPECT_EQ(console.childReadHandle(), 0);
  EXPECT_EQ(console.childWriteHandle(StdioPipes::StdOutput), 1);
  EXPECT_EQ(console.childWriteHandle(StdioPipes::StdError), 2);
  EXPECT_EQ(record.calls().size(), 0U);
  EXPECT_EQ(openDescriptors(), after);
}

// A console on which the debuggee's set-up fails with `failure`.
void failSetUp(const CallFailure& failure) {
  openTrace();
  UNIXStdioPipes console;
  showSlave(console);
  const int master = console.writeHandle();
  const std::set<int> before = openDescriptors();
  inForkedChild([&] {
    const FailingCall failing(failure);
    expectNoSlave(console, before, master);
  });
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(console.writeHandle(), master) << "the debugger keeps its side";
}

}  // namespace

CUL_CHILD(SlaveSetUp) {
  openTrace();
  UNIXStdioPipes console;
  const int master = console.writeHandle();
  const std::string name = nameOfSlave(console);
  const std::set<int> before = openDescriptors();
  inForkedChild([&] {
    const CallRecord record({LibcCall::setsid, LibcCall::open, LibcCall::tcsetattr, LibcCall::ioctl,
                             LibcCall::tcflush, LibcCall::close});
    const int slave = console.slaveHandle();
    const std::vector<CallMade> calls = record.calls();
    ASSERT_EQ(calls.size(), 5U);
    EXPECT_EQ(calls[0].call, LibcCall::close);
    EXPECT_EQ(calls[0].first, master);
    EXPECT_EQ(calls[1].call, LibcCall::setsid);
    EXPECT_EQ(calls[2].path, name);
    EXPECT_EQ(calls[2].argument, O_RDWR | O_CLOEXEC);
    EXPECT_EQ(calls[3].call, LibcCall::tcsetattr);
    EXPECT_EQ(calls[3].first, slave);
    EXPECT_EQ(calls[3].argument, TCSANOW);
    EXPECT_EQ(calls[4].call, LibcCall::ioctl);
    EXPECT_EQ(calls[4].first, slave);
    EXPECT_EQ(calls[4].argument, static_cast<long>(TIOCSWINSZ));

    // The slave takes the number of the master, the lowest free one.
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_TRUE(isClosedOnExec(slave));
    EXPECT_EQ(console.writeHandle(), -1);
    EXPECT_EQ(console.readHandle(StdioPipes::StdOutput), -1);
    EXPECT_EQ(console.write("x", 1), 0);

    // It is the controlling terminal of a session of the debuggee's own, in the foreground.
    EXPECT_EQ(ttyname(slave), name);
    EXPECT_EQ(getsid(0), getpid());
    EXPECT_EQ(tcgetsid(slave), getpid());
    EXPECT_EQ(tcgetpgrp(slave), getpid());
    const int tty = open("/dev/tty", O_RDWR | O_CLOEXEC);
    EXPECT_GE(tty, 0);
    EXPECT_EQ(tcgetsid(tty), getpid());
    winsize size = {};
    EXPECT_EQ(ioctl(tty, TIOCGWINSZ, &size), 0);
    EXPECT_EQ(size.ws_row, unusualSize.rows);
    EXPECT_EQ(size.ws_col, unusualSize.columns);
    termios modes = {};
    EXPECT_EQ(tcgetattr(slave, &modes), 0);
    EXPECT_EQ(modes.c_lflag & tcflag_t{ECHO}, 0U);
    // The rest is that of the debugger's terminal.
    termios debuggers = {};
    EXPECT_EQ(tcgetattr(0, &debuggers), 0);
    EXPECT_NE(debuggers.c_lflag & tcflag_t{ECHO}, 0U);
    EXPECT_EQ(debuggers.c_lflag & ~tcflag_t{ECHO}, modes.c_lflag);
    EXPECT_EQ(debuggers.c_iflag, modes.c_iflag);
    EXPECT_EQ(debuggers.c_oflag, modes.c_oflag);
    EXPECT_EQ(debuggers.c_cc[VERASE], modes.c_cc[VERASE]);
    EXPECT_EQ(modes.c_cc[VERASE], '%');
    close(tty);

    EXPECT_EQ(console.slaveHandle(), slave);
    EXPECT_EQ(console.childReadHandle(), slave);
    EXPECT_EQ(console.childWriteHandle(StdioPipes::StdOutput), slave);
    EXPECT_EQ(console.childWriteHandle(StdioPipes::StdError), slave);
    EXPECT_EQ(record.count(LibcCall::setsid), 1U);
    EXPECT_EQ(openDescriptors(), before);
  });
  EXPECT_EQ(openDescriptors(), before);
}

TEST(ConsoleSlave, IsTheControllingTerminalOfTheDebuggee) {
  const TemporaryFolder folder;
  Terminal terminal(unusualSize);
  termios modes = terminal.modes();
  modes.c_cc[VERASE] = '%';
  terminal.setModes(modes);
  const std::string trace = folder.file("trace");
  terminal.startChild("SlaveSetUp",
                      {.environment = {{"GDIA_ID", "root"}, {"QVX_DBG_TRACE", trace}}});
  EXPECT_EQ(terminal.wait(), 0) << terminal.seen();
  EXPECT_TRUE(terminal.echoes()) << "the debugger's own terminal is left alone";
  EXPECT_EQ(occurrences(contentsOf(trace), "**ERROR"), 0U) << contentsOf(trace);
}

CUL_CHILD(SlaveShownByStty) {
  UNIXStdioPipes console;
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  inForkedChild([&] {
    dup2(console.childReadHandle(), 0);
    dup2(ends[1], 1);
    execl("/bin/stty", "stty", "-a", nullptr);
  });
  close(ends[1]);
  char text[4096] = {};
  EXPECT_GT(read(ends[0], text, sizeof text - 1), 0);
  EXPECT_THAT(text, HasSubstr("rows 31; columns 97;"));
  EXPECT_THAT(text, HasSubstr(" -echo "));
  EXPECT_THAT(text, HasSubstr(" icanon "));
}

TEST(ConsoleSlave, ShowsItsSizeAndNoEchoToOtherPrograms) { expectSuccess("SlaveShownByStty"); }

CUL_CHILD(SlaveWithoutConsole) {
  openTrace();
  const CallRecord record({LibcCall::setsid, LibcCall::open, LibcCall::close});
  UNIXStdioPipes console;
  EXPECT_EQ(console.slaveHandle(), -1);
  EXPECT_EQ(console.slaveHandle(), -1);
  EXPECT_EQ(record.calls().size(), 0U);
}

TEST(ConsoleSlave, IsNotSetUpWithoutAConsole) {
  const TracedChildResult r = runTracedChild("SlaveWithoutConsole");
  EXPECT_EQ(r.child.status, 0) << r.child.out << r.child.err;
  EXPECT_EQ(occurrences(r.trace, "**ERROR"), 0U) << r.trace;
}

CUL_CHILD(SlaveOfGroupLeader) {
  openTrace();
  UNIXStdioPipes console;
  const int master = console.writeHandle();
  const std::set<int> before = openDescriptors();
  inForkedChild([&] {
    setpgid(0, 0);
    expectNoSlave(console, before, master);
  });
}

CUL_CHILD(SlaveWithoutSession) { failSetUp({.call = LibcCall::setsid, .error = EPERM}); }

TEST(ConsoleSlave, IsNoneWhenThereIsNoSession) {
  for (const char* const name : {"SlaveOfGroupLeader", "SlaveWithoutSession"}) {
    expectOnlyError(name, "int UNIXStdioPipes::slaveHandle(273): setsid() failed");
  }
}

CUL_CHILD(SlaveNotOpened) { failSetUp({.call = LibcCall::open, .path = "/dev/pts/"}); }

CUL_CHILD(SlaveOfClosedMaster) {
  openTrace();
  UNIXStdioPipes console;
  showSlave(console);
  // Keeps the name from going to another terminal.
  const int kept = open(nameOfSlave(console).c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  console.closePipes();
  const std::set<int> before = openDescriptors();
  inForkedChild([&] { expectNoSlave(console, before, -1); });
  close(kept);
}

TEST(ConsoleSlave, IsNoneWhenItCannotBeOpened) {
  for (const char* const name : {"SlaveNotOpened", "SlaveOfClosedMaster"}) {
    const TerminalRun run = expectSuccess(name);
    const size_t from = run.shown.find("slave=") + 6;
    const std::string slave = run.shown.substr(from, run.shown.find('.') - from);
    EXPECT_EQ(occurrences(run.trace,
                          "**ERROR: int UNIXStdioPipes::slaveHandle(278): "
                          "debuggee open '" +
                              slave + "' failed\n"),
              1U)
        << slave << run.trace;
    EXPECT_EQ(occurrences(run.trace, "**ERROR"), 1U) << run.trace;
  }
}

CUL_CHILD(SlaveWithoutAttributes) { failSetUp({.call = LibcCall::tcsetattr}); }

TEST(ConsoleSlave, IsNoneWhenItsAttributesCannotBeSet) {
  expectOnlyError("SlaveWithoutAttributes",
                  "int UNIXStdioPipes::slaveHandle(284): tcsetattr failed");
}

CUL_CHILD(SlaveWithoutSize) {
  openTrace();
  signal(SIGWINCH, noteSize);
  UNIXStdioPipes console;
  inForkedChild([&] {
    const FailingCall failing({.call = LibcCall::ioctl, .argument = TIOCSWINSZ});
    const int slave = console.slaveHandle();
    EXPECT_GE(slave, 0);
    EXPECT_EQ(console.childReadHandle(), slave);
    EXPECT_EQ(sizeAction().sa_handler, noteSize);
    winsize size = {};
    EXPECT_EQ(ioctl(slave, TIOCGWINSZ, &size), 0);
    EXPECT_EQ(size.ws_row, 0);
  });
}

TEST(ConsoleSlave, GoesOnWithoutASize) {
  expectOnlyError("SlaveWithoutSize",
                  "int UNIXStdioPipes::slaveHandle(294): ioctl(TIOCSWINSZ) failed");
}

TEST(ConsoleSlave, FailsWithoutATraceToo) {
  for (const char* const name :
       {"SlaveWithoutSession", "SlaveNotOpened", "SlaveWithoutAttributes"}) {
    EXPECT_THAT(shownWithoutTrace(name), MatchesRegex("slave=/dev/pts/[0-9]+[.]\r\n")) << name;
  }
  EXPECT_EQ(shownWithoutTrace("SlaveWithoutSize"), "");
}

CUL_CHILD(SlaveAndSizeSignal) {
  UNIXStdioPipes console;
  const auto setUpSlave = [&] {
    const int slave = console.slaveHandle();
    EXPECT_GE(slave, 0);
    EXPECT_EQ(sizesSeen, 0) << "the new size was signalled";
    return slave;
  };
  const auto changeSize = [](int slave) {
    const winsize size = {3, 4, 0, 0};
    EXPECT_EQ(ioctl(slave, TIOCSWINSZ, &size), 0);
  };
  inForkedChild([&] {
    signal(SIGWINCH, noteSize);
    const int slave = setUpSlave();
    EXPECT_EQ(sizeAction().sa_handler, noteSize);
    changeSize(slave);
    EXPECT_EQ(sizesSeen, 1);
  });
  inForkedChild([&] {
    struct sigaction action = {};
    action.sa_sigaction = noteSizeWithInformation;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigaddset(&action.sa_mask, SIGUSR1);
    sigaction(SIGWINCH, &action, nullptr);
    const int slave = setUpSlave();
    const struct sigaction after = sizeAction();
    EXPECT_EQ(after.sa_sigaction, noteSizeWithInformation);
    EXPECT_EQ(after.sa_flags & (SA_SIGINFO | SA_RESTART), SA_SIGINFO | SA_RESTART);
    EXPECT_EQ(sigismember(&after.sa_mask, SIGUSR1), 1);
    changeSize(slave);
    EXPECT_EQ(sizesSeen, 1);
  });
  inForkedChild([&] {
    signal(SIGWINCH, SIG_IGN);
    setUpSlave();
    EXPECT_EQ(sizeAction().sa_handler, SIG_IGN);
  });
  inForkedChild([&] {
    signal(SIGWINCH, SIG_DFL);
    setUpSlave();
    EXPECT_EQ(sizeAction().sa_handler, SIG_DFL);
  });
}

TEST(ConsoleSlave, IsGivenItsSizeWithoutASignalAndKeepsTheDebuggeesHandler) {
  expectSuccess("SlaveAndSizeSignal");
}

CUL_CHILD(SlaveClosed) {
  openTrace();
  const std::set<int> before = openDescriptors();
  auto* const console = new UNIXStdioPipes;
  const int master = console->writeHandle();
  inForkedChild([&] {
    const int slave = console->slaveHandle();
    const CallRecord record({LibcCall::tcflush, LibcCall::close});
    delete console;
    const std::vector<CallMade> calls = record.calls();
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_EQ(calls[0].call, LibcCall::tcflush);
    EXPECT_EQ(calls[0].first, slave);
    EXPECT_EQ(calls[0].argument, TCIOFLUSH);
    EXPECT_EQ(calls[1].call, LibcCall::close);
    EXPECT_EQ(calls[1].first, slave);
    EXPECT_EQ(openDescriptors(), before);
  });
  const CallRecord record({LibcCall::tcflush, LibcCall::close});
  console->closePipes();
  const std::vector<CallMade> calls = record.calls();
  ASSERT_EQ(calls.size(), 2U);
  EXPECT_EQ(calls[0].call, LibcCall::tcflush);
  EXPECT_EQ(calls[0].first, master);
  EXPECT_EQ(calls[0].argument, TCIOFLUSH);
  EXPECT_EQ(calls[1].call, LibcCall::close);
  EXPECT_EQ(calls[1].first, master);
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(console->writeHandle(), -1);
  console->closePipes();
  EXPECT_EQ(record.calls().size(), 2U) << "nothing is closed twice";
  delete console;
}

TEST(ConsoleSlave, IsFlushedAndClosedAsTheMasterIs) {
  const TerminalRun run = expectSuccess("SlaveClosed");
  EXPECT_EQ(occurrences(run.trace, "destroyed"), 1U) << "only by the debugger\n" << run.trace;
}

CUL_CHILD(DebuggeeHungUp) {
  auto* const console = new UNIXStdioPipes;
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const pid_t debuggee = fork([&] {
    signal(SIGHUP, SIG_DFL);
    EXPECT_GE(console->slaveHandle(), 0);
    EXPECT_EQ(write(ends[1], "r", 1), 1);
    for (;;) {
      pause();
    }
  });
  char ready = 0;
  EXPECT_EQ(read(ends[0], &ready, 1), 1);
  delete console;
  EXPECT_EQ(statusOf(debuggee), 128 + SIGHUP);
}

TEST(ConsoleSlave, HangsUpWhenTheDebuggerClosesTheConsole) { expectSuccess("DebuggeeHungUp"); }
