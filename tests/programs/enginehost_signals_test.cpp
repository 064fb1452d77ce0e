#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <map>
#include <set>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>

#include "tests/programs/HostAtTerminal.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/WaitUntil.h"

/// What every signal does to a host that somebody sends it to: with a console for its program, as
/// a plain program in a pipeline, and while it waits at its start. Either it goes on as if nothing
/// were, or it ends with a status, and with the user's terminal as it was.

namespace {

using testing::HasSubstr;

using Signals = std::set<int>;

// Those that the library handles as the crash of the process.
const Signals fatal = {SIGILL, SIGTRAP, SIGABRT, SIGFPE, SIGSEGV};

// Those that mean nothing to a process that does not handle them, or that the library ignores.
const Signals meaningless = {SIGPIPE, SIGCHLD, SIGCONT, SIGTTIN, SIGURG, SIGWINCH};

// Those that stop a process, where somebody can continue it. Nobody can continue the first
// process of a session.
const Signals stopping = {SIGTSTP, SIGTTOU};

// One that the C library keeps to itself: from the first thread on it passes over everybody else's.
// With the other one it does so only from pthread_cancel() on, which the host does not call.
const Signals internal = {33};

Signals operator|(Signals a, const Signals& b) {
  a.insert(b.begin(), b.end());
  return a;
}

// All that are in none of the sets and can be handled.
Signals others(const Signals& excluded) {
  Signals result;
  for (int signal = 1; signal <= SIGRTMAX; ++signal) {
    if (signal != SIGKILL && signal != SIGSTOP && excluded.count(signal) == 0) {
      result.insert(signal);
    }
  }
  return result;
}

// The sanitizers' handlers of fatal signals would be respected by the library.
TerminalOptions withSignalsLeftAlone(TerminalOptions options = {}) {
  for (const char* variable : {"ASAN_OPTIONS", "TSAN_OPTIONS"}) {
    const char* const present = getenv(variable);
    options.environment[variable] =
        std::string(present == nullptr ? "" : present) +
        ":handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:handle_abort=0:"
        "detect_leaks=0:report_thread_leaks=0:report_signal_unsafe=0";
  }
  return options;
}

// A program that reads lines, bears the keys' signals and leaves a file when it is hung up on.
std::string program(const std::string& fileOfTheHangUp) {
  return "trap '' INT QUIT TERM; trap 'echo hangup >" + fileOfTheHangUp +
         "; exit' HUP; echo ready; while :; do read line && echo \"<$line>\"; "
         "[ \"$line\" = end ] && exit; done";
}

// A host with a console, its terminal raw.
class HostWithConsole {
 public:
  using Environment = std::map<std::string, std::string>;

  HostWithConsole() : HostWithConsole(Environment()) {}
  explicit HostWithConsole(const Environment& environment) {
    startHostedShell(terminal, program(folder_.file("left")),
                     withSignalsLeftAlone({.environment = environment}));
    terminal.readUntil("ready");
    EXPECT_TRUE(waitUntil([&] { return isRaw(terminal); }));
  }

  [[nodiscard]] bool isHungUpOn() const {
    return waitUntil([&] { return contentsOf(folder_.file("left")) == "hangup\n"; });
  }

  [[nodiscard]] bool isAsBefore() const { return hasModesOf(terminal, before_); }

 private:
  TemporaryFolder folder_;

 public:
  Terminal terminal;

 private:
  termios before_ = terminal.modes();
};

TEST(EngineHostSignals, LeaveAHostWithAConsoleUndisturbedThatAreNotToEndIt) {
  HostWithConsole hosted;
  for (const int signal : meaningless | internal | Signals{SIGINT, SIGQUIT, SIGTTOU}) {
    hosted.terminal.send(signal);
    hosted.terminal.type("after " + std::to_string(signal) + "\n");
    hosted.terminal.readUntil("<after " + std::to_string(signal) + ">");
    EXPECT_TRUE(waitUntil([&] { return isRaw(hosted.terminal); })) << signal;
  }
  hosted.terminal.type("end\n");
  EXPECT_EQ(hosted.terminal.wait(), 0);
  EXPECT_TRUE(hosted.isAsBefore());
}

TEST(EngineHostSignals, EndAHostWithAConsoleWhoseTerminalIsAsBefore) {
  for (const int signal : others(meaningless | stopping | internal | Signals{SIGINT, SIGQUIT})) {
    HostWithConsole hosted;
    hosted.terminal.send(signal);
    EXPECT_EQ(hosted.terminal.wait(), fatal.count(signal) != 0 ? 99 : 128 + signal);
    EXPECT_TRUE(hosted.isAsBefore()) << signal;
    EXPECT_TRUE(hosted.isHungUpOn()) << signal;
  }
}

// A host that is a plain program: its standard input is a pipe.
class HostInPipeline {
 public:
  HostInPipeline() {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    TerminalOptions options = withSignalsLeftAlone({.in = ends[0]});
    startHostedShell(terminal,
                     "trap '' INT QUIT TERM HUP; echo ready; "
                     "while read line; do echo \"<$line>\"; done; echo end",
                     options);
    close(ends[0]);
    input_ = ends[1];
    terminal.readUntil("ready");
  }
  HostInPipeline(const HostInPipeline&) = delete;
  HostInPipeline& operator=(const HostInPipeline&) = delete;
  ~HostInPipeline() { end(); }

  void say(const std::string& line) const {
    const std::string text = line + "\n";
    EXPECT_EQ(write(input_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    terminal.readUntil("<" + line + ">");
  }

  void end() {
    if (input_ >= 0) {
      close(input_);
      input_ = -1;
    }
  }

  mutable Terminal terminal;

 private:
  int input_ = -1;
};

TEST(EngineHostSignals, LeaveAHostInAPipelineUndisturbedThatAreNotToEndIt) {
  HostInPipeline hosted;
  for (const int signal :
       meaningless | stopping | internal | Signals{SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
    hosted.terminal.send(signal);
    hosted.say("after " + std::to_string(signal));
  }
  hosted.end();
  EXPECT_EQ(hosted.terminal.wait(), 0);
}

TEST(EngineHostSignals, EndAHostInAPipelineAndNotItsProgram) {
  for (const int signal :
       others(meaningless | stopping | internal | Signals{SIGHUP, SIGINT, SIGQUIT, SIGTERM})) {
    HostInPipeline hosted;
    hosted.terminal.send(signal);
    EXPECT_EQ(hosted.terminal.wait(), fatal.count(signal) != 0 ? 99 : 128 + signal);
    hosted.end();
    hosted.terminal.readUntil("end");
  }
}

// A host that waits for somebody to attach to it, as its setting says.
void startWaitingHost(Terminal& terminal, const char* seconds) {
  startHost(terminal, {"echo", "started"},
            withSignalsLeftAlone({.environment = {{"QVX_DBG_DEBUG_DELAY", seconds}}}));
  const std::string sleeps = std::to_string(SYS_clock_nanosleep) + " ";
  const std::string file = "/proc/" + std::to_string(terminal.process()) + "/syscall";
  EXPECT_TRUE(waitUntil([&] { return contentsOf(file).rfind(sleeps, 0) == 0; }));
}

TEST(EngineHostSignals, LeaveAHostThatWaitsAtItsStartUndisturbedThatAreNotToEndIt) {
  Terminal terminal;
  startWaitingHost(terminal, "1");
  for (const int signal : meaningless | stopping) {
    terminal.send(signal);
  }
  EXPECT_EQ(terminal.wait(), 0);
  EXPECT_EQ(terminal.seen(), "started\r\n");
}

TEST(EngineHostSignals, EndAHostThatWaitsAtItsStartBeforeItHasStartedAnything) {
  for (const int signal : others(meaningless | stopping | internal)) {
    Terminal terminal;
    const termios before = terminal.modes();
    startWaitingHost(terminal, "200");
    terminal.send(signal);
    EXPECT_EQ(terminal.wait(), fatal.count(signal) != 0 ? 99 : 128 + signal);
    EXPECT_EQ(terminal.seen(), "") << signal;
    EXPECT_TRUE(hasModesOf(terminal, before)) << signal;
  }
}

// A module of the host has started a thread of the library's.
TEST(EngineHostSignals, ThatAskAThreadToEndMeanNothingToAHostThatHasSome) {
  HostWithConsole hosted(HostWithConsole::Environment{
      {"QVX_DBG_RUNTIME_MODULES", CUL_TEST_LIBRARIES "/libstartsThread.so"}});
  for (int times = 0; times < 100; ++times) {
    const std::string line = "after " + std::to_string(times);
    hosted.terminal.send(SIGUSR2);
    hosted.terminal.type(line + "\n");
    hosted.terminal.readUntil("<" + line + ">");
  }
  hosted.terminal.type("end\n");
  EXPECT_EQ(hosted.terminal.wait(), 0);
  EXPECT_TRUE(hosted.isAsBefore());
}

// Signals that come while it starts, runs and ends.
TEST(EngineHostSignals, NeverLeaveADeadHost) {
  for (const int signal : {SIGUSR2, SIGTERM, SIGUSR1}) {
    for (int delay = 0; delay < 40; ++delay) {
      const std::string microseconds = std::to_string(delay * 500);
      const ChildResult r = runProgram(
          {"/bin/bash", "-c",
           std::string(host) + " -- sh -c 'exit 3' & sleep $(printf 0.%06d " + microseconds +
               "); kill -" + std::to_string(signal) + " $! 2>/dev/null; wait $! 2>/dev/null"},
          {.environment = withSignalsLeftAlone().environment, .limitInSeconds = 20});
      // Some are passed on to the program.
      EXPECT_THAT(r.status, testing::AnyOf(3, 128 + signal)) << signal << ' ' << delay;
    }
  }
}

// A shell with job control, which leaves the modes of the terminal as they are, between the
// terminal and a host with a console.
void startJob(Terminal& terminal) {
  terminal.startProgram({"/bin/sh", "-m", "-c",
                         std::string(host) + " -- sh -c '" + answering +
                             "; exit 5'; echo stopped; read word; fg; echo \"ended $?\""});
  terminal.readUntil("ready");
  EXPECT_TRUE(waitUntil([&] { return isRaw(terminal); }));
}

TEST(EngineHostSignals, StopAHostWhoseTerminalIsAsBeforeUntilItGoesOn) {
  for (const int signal : stopping) {
    Terminal terminal;
    const termios before = terminal.modes();
    startJob(terminal);
    const pid_t job = terminal.foregroundGroup();
    ASSERT_NE(job, terminal.process());
    for (int times = 0; times < 2; ++times) {
      kill(job, SIGCONT);
      terminal.type("running\n");
      terminal.readUntil("<running>");
    }
    kill(job, signal);
    // Translated as by a terminal that is not raw.
    terminal.readUntil("stopped\r\n");
    EXPECT_TRUE(hasModesOf(terminal, before)) << signal;
    terminal.type("go\n");
    EXPECT_TRUE(waitUntil([&] { return isRaw(terminal); }));
    terminal.type("back\n");
    terminal.readUntil("<back>");
    terminal.type("\x04");
    terminal.readUntil("ended 5\r\n");
    EXPECT_EQ(terminal.wait(), 0);
    EXPECT_TRUE(hasModesOf(terminal, before)) << signal;
  }
}

TEST(EngineHostSignals, EndAHostThatIsStopped) {
  for (const int signal : {SIGTERM, SIGUSR1, SIGRTMIN}) {
    Terminal terminal;
    const termios before = terminal.modes();
    startJob(terminal);
    const pid_t job = terminal.foregroundGroup();
    kill(job, SIGTSTP);
    terminal.readUntil("stopped\r\n");
    kill(job, signal);
    terminal.type("go\n");
    terminal.readUntil("ended " + std::to_string(128 + signal) + "\r\n");
    EXPECT_EQ(terminal.wait(), 0);
    EXPECT_TRUE(hasModesOf(terminal, before)) << signal;
  }
}

}  // namespace
