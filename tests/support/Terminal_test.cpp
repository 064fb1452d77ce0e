#include "tests/support/Terminal.h"

#include <csignal>
#include <fcntl.h>
#include <set>
#include <sys/ioctl.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>

#include "tests/support/Child.h"
#include "tests/support/OpenDescriptors.h"
#include "tests/support/TemporaryFolder.h"

using testing::HasSubstr;

namespace {

constexpr TerminalSize unusualSize = {.rows = 31, .columns = 97};

}  // namespace

CUL_CHILD(TerminalOfItsOwn) {
  EXPECT_EQ(getsid(0), getpid());
  EXPECT_EQ(tcgetpgrp(0), getpid());
  EXPECT_STREQ(ttyname(0), childArguments()[0].c_str());
  EXPECT_EQ(openDescriptors(), (std::set<int>{0, 1, 2}));
  const int tty = open("/dev/tty", O_RDWR);
  EXPECT_EQ(write(tty, "through tty\n", 12), 12);
  winsize size = {};
  EXPECT_EQ(ioctl(2, TIOCGWINSZ, &size), 0);
  EXPECT_EQ(size.ws_row, 31);
  EXPECT_EQ(size.ws_col, 97);
}

TEST(Terminal, IsTheControllingTerminalAndTheThreeStreams) {
  Terminal terminal(unusualSize);
  terminal.startChild("TerminalOfItsOwn", {.arguments = {terminal.name()}});
  EXPECT_EQ(terminal.wait(), 0) << terminal.seen();
  EXPECT_THAT(terminal.seen(), HasSubstr("through tty\r\n"));
}

TEST(Terminal, TypesAndReads) {
  Terminal terminal;
  terminal.startProgram({"/bin/sh", "-c", "read a; echo got $a; read b; echo got $b; exit 7"});
  terminal.type("one\n");
  EXPECT_EQ(terminal.readUntil("got one\r\n"), "one\r\ngot one\r\n");
  terminal.type("two\n");
  EXPECT_EQ(terminal.readToTheEnd(), "one\r\ngot one\r\ntwo\r\ngot two\r\n");
  EXPECT_EQ(terminal.wait(), 7);
  EXPECT_EQ(asShown("a\nb\n"), "a\r\nb\r\n");
}

TEST(Terminal, GivesSingleStreamsAway) {
  const TemporaryFolder folder;
  const std::string file = folder.file("out");
  const int out = open(file.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
  Terminal terminal;
  terminal.startProgram(
      {"/bin/sh", "-c", "test -t 0 || echo no input >&2; test -t 1 || echo no output"},
      {.in = -1, .out = out, .directory = folder.path()});
  EXPECT_EQ(terminal.wait(), 0);
  close(out);
  EXPECT_EQ(terminal.seen(), "no input\r\n");
  EXPECT_EQ(contentsOf(file), "no output\n");
}

CUL_CHILD(TerminalResized) {
  sigset_t newSize;
  sigemptyset(&newSize);
  sigaddset(&newSize, SIGWINCH);
  sigprocmask(SIG_BLOCK, &newSize, nullptr);
  std::printf("ready\n");
  std::fflush(stdout);
  int signal = 0;
  EXPECT_EQ(sigwait(&newSize, &signal), 0);
  winsize size = {};
  EXPECT_EQ(ioctl(0, TIOCGWINSZ, &size), 0);
  EXPECT_EQ(size.ws_row, 5);
  EXPECT_EQ(size.ws_col, 6);
}

TEST(Terminal, TellsOfANewSize) {
  Terminal terminal(unusualSize);
  EXPECT_EQ(terminal.size(), unusualSize);
  terminal.startChild("TerminalResized");
  terminal.readUntil("ready");
  EXPECT_EQ(terminal.foregroundGroup(), terminal.process());
  terminal.resize({.rows = 5, .columns = 6});
  EXPECT_EQ(terminal.wait(), 0) << terminal.seen();
}

TEST(Terminal, ShowsAndSetsModesAlsoWhenTheProcessHasEnded) {
  Terminal terminal;
  EXPECT_TRUE(terminal.echoes());
  termios modes = terminal.modes();
  modes.c_lflag &= ~tcflag_t{ECHO};
  terminal.setModes(modes);
  EXPECT_FALSE(terminal.echoes());
  terminal.startProgram({"/bin/sh", "-c", "stty -icanon"});
  EXPECT_EQ(terminal.wait(), 0) << terminal.seen();
  EXPECT_FALSE(terminal.echoes());
  EXPECT_EQ(terminal.modes().c_lflag & tcflag_t{ICANON}, 0U);
}

TEST(Terminal, SendsSignalsAndHangsUp) {
  {
    Terminal terminal;
    terminal.startProgram({"/bin/sh", "-c", "echo first; exec sleep 100"});
    // Before, the process may still ignore the signal, as a shell's jobs in the background do.
    terminal.readUntil("first");
    terminal.send(SIGINT);
    EXPECT_EQ(terminal.wait(), 128 + SIGINT);
  }
  {
    Terminal terminal;
    terminal.startProgram({"/bin/sh", "-c", "echo first; exec sleep 100"});
    terminal.readUntil("first");
    terminal.hangUp();
    EXPECT_EQ(terminal.wait(), 128 + SIGHUP);
  }
  {
    Terminal terminal;
    terminal.startProgram({"/bin/sh", "-c", "echo first; exec sleep 100"});
    terminal.readUntil("first");
    terminal.type("\003");
    EXPECT_EQ(terminal.wait(), 128 + SIGINT);
  }
}

TEST(Terminal, KillsWhatStillRuns) {
  pid_t process;
  {
    Terminal terminal;
    terminal.startProgram({"/bin/sh", "-c", "trap '' HUP; echo first; sleep 100; exit 0"});
    terminal.readUntil("first");
    process = terminal.process();
    EXPECT_EQ(kill(process, 0), 0);
  }
  EXPECT_EQ(kill(process, 0), -1);
  EXPECT_EQ(errno, ESRCH);
}

TEST(Terminal, FailsATestWhoseTextDoesNotAppear) {
  Terminal terminal;
  terminal.startProgram({"/bin/echo", "something"});
  EXPECT_NONFATAL_FAILURE(terminal.readUntil("else"), "\"else\" did not appear, but:\nsomething");
  EXPECT_EQ(terminal.wait(), 0);
}
