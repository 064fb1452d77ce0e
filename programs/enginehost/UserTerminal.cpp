#include "UserTerminal.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <unistd.h>

namespace {

// Any thread may take the signal that ends the process.
std::atomic<UserTerminal*> restoredAtExit = nullptr;

void restoreAtExit() {
  if (UserTerminal* const terminal = restoredAtExit; terminal != nullptr) {
    terminal->restore();
  }
}

// The signal has its default action again when this runs.
extern "C" void restoreAndEnd(int signal) {
  restoreAtExit();
  std::raise(signal);
}

bool endsByDefault(int signal) {
  switch (signal) {
    case SIGKILL:
    case SIGCHLD:
    case SIGCONT:
    case SIGSTOP:
    case SIGTSTP:
    case SIGTTIN:
    case SIGTTOU:
    case SIGURG:
    case SIGWINCH:
      return false;
    default:
      return true;
  }
}

// A signal that ends the process does so with the terminal restored. Those that are handled or
// ignored are left alone.
void restoreAtSignals() {
  for (int signal = 1; signal < NSIG; ++signal) {
    struct sigaction former;
    if (!endsByDefault(signal) || sigaction(signal, nullptr, &former) != 0 ||
        (former.sa_flags & SA_SIGINFO) != 0 || former.sa_handler != SIG_DFL) {
      continue;
    }
    struct sigaction action = {};
    action.sa_handler = restoreAndEnd;
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_NODEFER);
    sigaction(signal, &action, nullptr);
  }
}

// Interrupted by the signals of a stop and its end.
void setModes(int handle, const termios& modes) {
  while (tcsetattr(handle, TCSANOW, &modes) != 0 && errno == EINTR) {
  }
}

}  // namespace

UserTerminal::UserTerminal(int handle) : handle_(handle) {
  // The system stops a process in the background that does this, also one that is continued
  // there.
  while (isInBackground() && tcdrain(handle_) != 0 && errno == EINTR) {
  }
  tcgetattr(handle_, &original_);
  static const int registered = std::atexit(restoreAtExit);
  static_cast<void>(registered);
  restoredAtExit = this;
  restoreAtSignals();
}

UserTerminal::~UserTerminal() {
  restore();
  restoredAtExit = nullptr;
}

void UserTerminal::makeRaw() {
  termios raw = original_;
  cfmakeraw(&raw);
  isRaw_ = true;
  setModes(handle_, raw);
}

void UserTerminal::restore() noexcept {
  if (isRaw_ && !isInBackground()) {
    setModes(handle_, original_);
    // Only now: a signal may end the process in between.
    isRaw_ = false;
  }
}

void UserTerminal::stopInBackground() noexcept { std::raise(SIGTTOU); }

bool UserTerminal::isInBackground() const noexcept {
  // No group: it is not the terminal that controls this process, and no job control applies.
  const pid_t foreground = tcgetpgrp(handle_);
  return foreground > 0 && foreground != getpgrp();
}
