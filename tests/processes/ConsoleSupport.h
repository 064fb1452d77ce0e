#pragma once

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <map>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/OpenDescriptors.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/Terminal.h"
#include "tests/support/TracedChild.h"

/// \file
/// What the tests of the debuggee's console share.

/// The size of the terminal that runOnTerminal() gives a case; no terminal has it by itself.
inline constexpr TerminalSize unusualSize = {.rows = 31, .columns = 97};

struct TerminalRun {
  int status = -1;
  std::string shown;
  std::string trace;
};

/// Runs the child case `name` on a terminal of its own, with everything traced into a file.
inline TerminalRun runOnTerminal(const std::string& name, TerminalOptions options = {}) {
  const TemporaryFolder folder;
  const std::string file = folder.file("trace");
  options.environment["GDIA_ID"] = "root";
  options.environment["QVX_DBG_TRACE"] = file;
  Terminal terminal(unusualSize);
  terminal.startChild(name, options);
  TerminalRun run;
  run.status = terminal.wait();
  run.shown = terminal.seen();
  run.trace = contentsOf(file);
  return run;
}

/// Runs the child case on a terminal and expects it to succeed.
inline TerminalRun expectSuccess(const std::string& name, TerminalOptions options = {}) {
  TerminalRun run = runOnTerminal(name, std::move(options));
  EXPECT_EQ(run.status, 0) << name << "\n" << run.shown << run.trace;
  return run;
}

/// And that it traces just this error.
inline void expectOnlyError(const std::string& name, const std::string& error,
                            TerminalOptions options = {}) {
  const TerminalRun run = expectSuccess(name, std::move(options));
  EXPECT_EQ(occurrences(run.trace, "**ERROR: " + error + "\n"), 1U) << error << "\n" << run.trace;
  EXPECT_EQ(occurrences(run.trace, "**ERROR: "), 1U) << run.trace;
}

/// What the child case shows on a terminal when nothing is traced; expects it to succeed.
inline std::string shownWithoutTrace(const std::string& name, const TerminalOptions& options = {}) {
  Terminal terminal;
  terminal.startChild(name, options);
  EXPECT_EQ(terminal.wait(), 0) << name << "\n" << terminal.seen();
  return terminal.seen();
}

inline bool isOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }
inline bool isClosedOnExec(int fd) { return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0; }

inline int statusOf(pid_t process) {
  int raw = -1;
  EXPECT_EQ(waitpid(process, &raw, 0), process);
  return WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
}

/// Forks; the child runs `body` and ends with status 1 when an expectation failed in it.
template <typename Body>
pid_t fork(Body body) {
  std::fflush(nullptr);
  const pid_t child = ::fork();
  if (child == 0) {
    body();
    std::fflush(nullptr);
    // Not _exit(), which would lose what is noted for the end, such as the lines that were run.
    std::exit(testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed() ? 1 : 0);
  }
  return child;
}

/// Runs `body` in a forked child and expects its expectations to hold.
template <typename Body>
void inForkedChild(Body body) {
  EXPECT_EQ(statusOf(fork(body)), 0);
}
