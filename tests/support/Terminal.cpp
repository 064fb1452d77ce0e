#include "tests/support/Terminal.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/ChildMain.h"

namespace {

using Clock = std::chrono::steady_clock;

int millisecondsUntil(Clock::time_point end) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
  return static_cast<int>(std::max<long>(left.count(), 0));
}

winsize windowSize(TerminalSize size) {
  winsize result = {};
  result.ws_row = size.rows;
  result.ws_col = size.columns;
  return result;
}

void becomeSessionOn(int slave) {
  // A test that is killed takes the process along.
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  setsid();
  if (ioctl(slave, TIOCSCTTY, 0) != 0) {
    _exit(126);
  }
}

// Puts the three streams in place. A given descriptor may itself be 0, 1 or 2, so that all are
// moved out of the way first.
void takeStreams(int slave, const TerminalOptions& options) {
  constexpr int firstFree = 10;
  const std::optional<int> given[] = {options.in, options.out, options.error};
  int copies[3];
  for (int stream = 0; stream < 3; ++stream) {
    const int from = given[stream].value_or(slave);
    copies[stream] = from < 0 ? -1 : fcntl(from, F_DUPFD_CLOEXEC, firstFree);
  }
  for (int stream = 0; stream < 3; ++stream) {
    if (copies[stream] < 0) {
      close(stream);
    } else {
      dup2(copies[stream], stream);
    }
  }
  close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
}

void setDefaultSignals() {
  for (const int ignored :
       {SIGPIPE, SIGTTIN, SIGTTOU, SIGHUP, SIGINT, SIGQUIT, SIGTSTP, SIGWINCH}) {
    signal(ignored, SIG_DFL);
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

}  // namespace

Terminal::Terminal(TerminalSize size) {
  master_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  char name[64];
  if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0 ||
      ptsname_r(master_, name, sizeof name) != 0) {
    ADD_FAILURE() << "no pseudo-terminal: " << std::strerror(errno);
    return;
  }
  name_ = name;
  slave_ = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
  EXPECT_GE(slave_, 0) << name << ": " << std::strerror(errno);
  resize(size);
}

Terminal::~Terminal() {
  if (process_ > 0 && !status_) {
    kill(-process_, SIGKILL);
    kill(process_, SIGKILL);
    reap(0);
  }
  if (slave_ >= 0) {
    close(slave_);
  }
  if (master_ >= 0) {
    close(master_);
  }
}

void Terminal::startProgram(const std::vector<std::string>& command,
                            const TerminalOptions& options) {
  std::vector<std::string> words = command;
  std::vector<std::string> variables = childEnvironment(options.environment);
  const std::vector<char*> argv = pointersTo(words);
  const std::vector<char*> envp = pointersTo(variables);
  process_ = fork();
  if (process_ == 0) {
    becomeSessionOn(slave_);
    takeStreams(slave_, options);
    setDefaultSignals();
    if (!options.directory.empty() && chdir(options.directory.c_str()) != 0) {
      _exit(126);
    }
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  EXPECT_GT(process_, 0) << "fork: " << std::strerror(errno);
  close(slave_);
  slave_ = -1;
}

void Terminal::startChild(const std::string& name, const TerminalOptions& options) {
  startProgram(childCommand(name, options.arguments), options);
}

void Terminal::type(const std::string& text) {
  for (size_t typed = 0; typed < text.size();) {
    const ssize_t n = write(master_, text.data() + typed, text.size() - typed);
    if (n < 0 && errno != EINTR) {
      ADD_FAILURE() << "typing: " << std::strerror(errno);
      return;
    }
    typed += n > 0 ? static_cast<size_t>(n) : 0;
  }
}

// False when nothing came in time or nothing can come any more.
bool Terminal::readMore(int limitInMilliseconds) {
  pollfd wait = {master_, POLLIN, 0};
  if (hasEnded_ || poll(&wait, 1, limitInMilliseconds) <= 0) {
    return false;
  }
  char chunk[4096];
  const ssize_t n = read(master_, chunk, sizeof chunk);
  if (n > 0) {
    seen_.append(chunk, static_cast<size_t>(n));
  } else if (errno != EINTR) {
    hasEnded_ = true;  // EIO: nobody has the slave.
    return false;
  }
  return true;
}

std::string Terminal::readUntil(const std::string& text, unsigned limitInSeconds) {
  const auto end = Clock::now() + std::chrono::seconds(limitInSeconds);
  for (;;) {
    if (const size_t at = seen_.find(text, matched_); at != std::string::npos) {
      matched_ = at + text.size();
      return seen_;
    }
    const int left = millisecondsUntil(end);
    if (hasEnded_ || left == 0) {
      ADD_FAILURE() << '"' << text << "\" did not appear, but:\n" << seen_;
      return seen_;
    }
    readMore(left);
  }
}

std::string Terminal::readToTheEnd(unsigned limitInSeconds) {
  const auto end = Clock::now() + std::chrono::seconds(limitInSeconds);
  while (!hasEnded_) {
    const int left = millisecondsUntil(end);
    if (left == 0) {
      ADD_FAILURE() << "the terminal is still in use after " << limitInSeconds << " s\n" << seen_;
      break;
    }
    readMore(left);
  }
  return seen_;
}

void Terminal::resize(TerminalSize size) {
  const winsize window = windowSize(size);
  EXPECT_EQ(ioctl(master_, TIOCSWINSZ, &window), 0) << std::strerror(errno);
}

TerminalSize Terminal::size() const {
  winsize window = {};
  EXPECT_EQ(ioctl(master_, TIOCGWINSZ, &window), 0) << std::strerror(errno);
  return {.rows = window.ws_row, .columns = window.ws_col};
}

termios Terminal::modes() const {
  // The master answers for the slave.
  termios result = {};
  EXPECT_EQ(tcgetattr(master_, &result), 0) << std::strerror(errno);
  return result;
}

void Terminal::setModes(const termios& modes) {
  EXPECT_EQ(tcsetattr(master_, TCSANOW, &modes), 0) << std::strerror(errno);
}

pid_t Terminal::foregroundGroup() const {
  pid_t group = 0;
  return ioctl(master_, TIOCGPGRP, &group) == 0 ? group : 0;
}

void Terminal::send(int signal) const {
  EXPECT_EQ(kill(process_, signal), 0) << std::strerror(errno);
}

bool Terminal::reap(int options) {
  if (!status_) {
    int raw = 0;
    pid_t found;
    do {
      found = waitpid(process_, &raw, options);
    } while (found < 0 && errno == EINTR);
    if (found == process_) {
      status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    } else if (found < 0) {
      ADD_FAILURE() << "waitpid: " << std::strerror(errno);
      status_ = -1;
    }
  }
  return status_.has_value();
}

int Terminal::wait(unsigned limitInSeconds) {
  const auto end = Clock::now() + std::chrono::seconds(limitInSeconds);
  while (!reap(WNOHANG)) {
    if (millisecondsUntil(end) == 0) {
      ADD_FAILURE() << "still running after " << limitInSeconds << " s, having printed\n" << seen_;
      kill(-process_, SIGKILL);
      kill(process_, SIGKILL);
      reap(0);
    } else if (!readMore(5) && hasEnded_) {
      usleep(1000);
    }
  }
  while (readMore(0)) {
  }
  return *status_;
}

void Terminal::hangUp() {
  while (readMore(0)) {
  }
  hasEnded_ = true;
  close(master_);
  master_ = -1;
}

std::string asShown(const std::string& text) {
  std::string result;
  for (const char c : text) {
    if (c == '\n') {
      result += '\r';
    }
    result += c;
  }
  return result;
}
