#include "UserTerminal.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <unistd.h>

namespace {

UserTerminal* restoredAtExit = nullptr;

void restoreAtExit() {
  if (restoredAtExit != nullptr) {
    restoredAtExit->restore();
  }
}

// Interrupted by the signals of a stop and its end.
void setModes(int handle, const termios& modes) {
  while (tcsetattr(handle, TCSANOW, &modes) != 0 && errno == EINTR) {
  }
}

}  // namespace

UserTerminal::UserTerminal(int handle) : handle_(handle) {
  if (isInBackground()) {
    stopInBackground();
  }
  tcgetattr(handle_, &original_);
  static const int registered = std::atexit(restoreAtExit);
  static_cast<void>(registered);
  restoredAtExit = this;
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
    isRaw_ = false;
    setModes(handle_, original_);
  }
}

void UserTerminal::stopInBackground() noexcept { std::raise(SIGTTOU); }

bool UserTerminal::isInBackground() const noexcept {
  // No group: it is not the terminal that controls this process, and no job control applies.
  const pid_t foreground = tcgetpgrp(handle_);
  return foreground > 0 && foreground != getpgrp();
}
