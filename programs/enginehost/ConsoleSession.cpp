#include "ConsoleSession.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "Engine/utilities/StdException.h"
#include "Engine/utilities/StdioPipes.h"
#include "Engine/utilities/TraceFlags.h"

namespace {

// More than a pseudo-terminal holds: what is shown of the output after the program's end. A
// process that the program has left behind may go on printing for ever.
constexpr unsigned long rest = 1 << 20;

bool isReadable(int handle) {
  pollfd waited = {handle, POLLIN, 0};
  return poll(&waited, 1, 0) > 0 && (waited.revents & POLLIN) != 0;
}

// The user's terminal, without waiting for it where it can be opened again: the open
// terminal is shared with others.
int openScreen() {
  const int again = open("/proc/self/fd/1", O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  return again >= 0 ? again : fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
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
      slave_(ioctl(master_, TIOCGPTPEER, O_RDWR | O_NOCTTY | O_CLOEXEC)),
      screen_(openScreen()) {
  if (!slave_.isOpen() || !screen_.isOpen()) {
    StdException::throwException(__PRETTY_FUNCTION__, __LINE__, std::strerror(errno), -1);
  }
  // A program that does not read must not keep the user from seeing what it prints.
  fcntl(master_, F_SETFL, fcntl(master_, F_GETFL) | O_NONBLOCK);
}

int ConsoleSession::run() {
  for (;;) {
    if (isAway_ && events_.isEmpty()) {
      comeBack();
    }
    if (hasEnded_ && printed_.empty() &&
        (relayed_ >= mostRelayed_ || !isReadable(master_) || !takeOutput())) {
      return 0;
    }
    const bool hasInput = typed_.length() > 0;
    const bool hasOutput = !printed_.empty();
    const int fromConsole = (hasOutput ? 0 : POLLIN) | (hasInput && !hasEnded_ ? POLLOUT : 0);
    pollfd waited[] = {
        {events_.handle(), POLLIN, 0},
        {hasEnded_ ? -1 : STDIN_FILENO, static_cast<short>(hasInput ? 0 : POLLIN), 0},
        {fromConsole == 0 ? -1 : master_, static_cast<short>(fromConsole), 0},
        {hasOutput ? screen_.get() : -1, POLLOUT, 0},
    };
    if (poll(waited, std::size(waited), -1) < 0) {
      continue;
    }
    if (waited[0].revents != 0) {
      const int event = events_.next();
      if (event == HostEvents::debuggeeEnded) {
        hasEnded_ = true;
        mostRelayed_ = relayed_ + rest;
      } else if (const int signal = handle(event & ~HostEvents::toGroup); signal != 0) {
        return signal;
      }
    }
    if ((waited[2].revents & POLLIN) != 0) {
      takeOutput();
    }
    // Asked for nothing, the terminal still tells that it has hung up.
    if ((waited[1].revents != 0 && (hasInput || !takeInput())) || !showOutput()) {
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
      isAway_ = true;
      return 0;
    case SIGCONT:
      isAway_ = true;
      return 0;
    default:
      return signal;
  }
}

void ConsoleSession::comeBack() {
  isAway_ = false;
  if (terminal_.isInBackground()) {
    // Being continued is an event. In makeRaw() the system would stop the host again and again
    // before it sees that it has been asked to end.
    if (!hasEnded_) {
      wasStopped_ = true;
      UserTerminal::stopInBackground();
    }
    return;
  }
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
  const int error = errno;
  if (length < 0 && terminal_.isInBackground() && (isAway_ || !wasStopped_)) {
    // The library ignores the signal that would have stopped a reader in the background.
    isAway_ = true;
    return true;
  }
  return length < 0 && (error == EINTR || error == EAGAIN);
}

void ConsoleSession::giveInput() {
  const unsigned taken = static_cast<unsigned>(console_.write(typed_));
  typed_ = ByteString(typed_, taken + 1);
}

bool ConsoleSession::takeOutput() {
  char buffer[65536];
  const ssize_t length = read(master_, buffer, sizeof buffer);
  if (length <= 0) {
    return false;
  }
  relayed_ += static_cast<unsigned long>(length);
  printed_.assign(buffer, static_cast<std::size_t>(length));
  return true;
}

// False when nothing can be shown any more.
bool ConsoleSession::showOutput() {
  // Before the terminal is raw again it would translate what the console has translated.
  if (isAway_ || printed_.empty()) {
    return true;
  }
  const ssize_t shown = write(screen_.get(), printed_.data(), printed_.size());
  if (shown >= 0) {
    printed_.erase(0, static_cast<std::size_t>(shown));
    return true;
  }
  if (errno == EAGAIN || errno == EINTR) {
    return true;
  }
  CUL_TRACE(TraceType::error, "bool ConsoleSession::showOutput()", __LINE__,
            "write() failed with errno %d.", errno);
  return false;
}
