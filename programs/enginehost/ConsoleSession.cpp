#include "ConsoleSession.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "Engine/utilities/StdioPipes.h"
#include "Engine/utilities/TraceFlags.h"

namespace {

// More than a pseudo-terminal holds.
constexpr unsigned long rest = 1 << 20;

bool isReadable(int handle) {
  pollfd waited = {handle, POLLIN, 0};
  return poll(&waited, 1, 0) > 0 && (waited.revents & POLLIN) != 0;
}

// A terminal that the host shares with others can be non-blocking.
void waitForRoom(int target) {
  pollfd room = {target, POLLOUT, 0};
  poll(&room, 1, -1);
}

bool writeAll(int target, const char* next, ssize_t left) {
  while (left > 0) {
    const ssize_t written = write(target, next, static_cast<size_t>(left));
    if (written < 0 && errno == EAGAIN) {
      waitForRoom(target);
    } else if (written < 0 && errno != EINTR) {
      return false;
    }
    if (written > 0) {
      next += written;
      left -= written;
    }
  }
  return true;
}

}  // namespace

ConsoleSession::ConsoleSession(const StdioPipes& console, UserTerminal& terminal,
                               const HostEvents& events)
    : console_(console),
      terminal_(terminal),
      events_(events),
      master_(console.readHandle(StdioPipes::StdOutput)),
      // With a terminal that stays open on this side, a program may close all its streams and
      // open them again later.
      slave_(ioctl(master_, TIOCGPTPEER, O_RDWR | O_NOCTTY | O_CLOEXEC)) {
  // A program that does not read must not keep the user from seeing what it prints.
  fcntl(master_, F_SETFL, fcntl(master_, F_GETFL) | O_NONBLOCK);
}

ConsoleSession::~ConsoleSession() { close(slave_); }

int ConsoleSession::run() {
  comeBack();
  for (;;) {
    const bool hasInput = typed_.length() > 0;
    pollfd waited[] = {
        {events_.handle(), POLLIN, 0},
        {hasInput ? -1 : STDIN_FILENO, POLLIN, 0},
        {master_, static_cast<short>(hasInput ? POLLIN | POLLOUT : POLLIN), 0},
    };
    if (poll(waited, std::size(waited), -1) < 0) {
      continue;
    }
    if (waited[0].revents != 0) {
      const int event = events_.next();
      if (event == HostEvents::debuggeeEnded) {
        relayRest();
        return 0;
      }
      if (const int signal = handle(event & ~HostEvents::toGroup); signal != 0) {
        return signal;
      }
    }
    if ((waited[1].revents != 0 && !takeInput()) ||
        ((waited[2].revents & POLLIN) != 0 && !relayOutput())) {
      // The user's terminal has gone.
      return SIGHUP;
    }
    if ((waited[2].revents & POLLOUT) != 0) {
      giveInput();
    }
  }
}

// Gives the signal by which the host has to end, 0 when it goes on.
int ConsoleSession::handle(int signal) {
  switch (signal) {
    case SIGWINCH:
      resize();
      return 0;
    case SIGINT:
    case SIGQUIT:
      // Meant for the program; only the keys come to it by themselves.
      ioctl(master_, TIOCSIG, signal);
      return 0;
    case SIGTSTP:
      terminal_.restore();
      std::raise(SIGSTOP);
      comeBack();
      return 0;
    case SIGCONT:
      comeBack();
      return 0;
    default:
      return signal;
  }
}

void ConsoleSession::comeBack() {
  wasStopped_ = false;
  terminal_.makeRaw();
  resize();
}

void ConsoleSession::resize() const {
  winsize size;
  if (ioctl(STDIN_FILENO, TIOCGWINSZ, &size) == 0) {
    ioctl(master_, TIOCSWINSZ, &size);
  }
}

bool ConsoleSession::takeInput() {
  char buffer[4096];
  const ssize_t length = read(STDIN_FILENO, buffer, sizeof buffer);
  if (length > 0) {
    typed_ = ByteString(buffer, static_cast<unsigned>(length));
    giveInput();
    return true;
  }
  if (length < 0 && terminal_.isInBackground() && !wasStopped_) {
    // The library ignores the signal that would have stopped a reader in the background.
    wasStopped_ = true;
    UserTerminal::stopInBackground();
    return true;
  }
  return length < 0 && (errno == EINTR || errno == EAGAIN);
}

void ConsoleSession::giveInput() {
  const unsigned taken = static_cast<unsigned>(console_.write(typed_));
  typed_ = ByteString(typed_, taken + 1);
}

bool ConsoleSession::relayOutput() {
  char buffer[65536];
  const ssize_t length = read(master_, buffer, sizeof buffer);
  if (length <= 0) {
    return true;
  }
  relayed_ += static_cast<unsigned long>(length);
  if (writeAll(STDOUT_FILENO, buffer, length)) {
    return true;
  }
  CUL_TRACE(TraceType::error, "bool ConsoleSession::relayOutput()", __LINE__,
            "write() failed with errno %d.", errno);
  return false;
}

// A process that the program has left behind may go on printing for ever.
void ConsoleSession::relayRest() {
  const unsigned long end = relayed_ + rest;
  while (relayed_ < end && isReadable(master_) && relayOutput()) {
  }
}
