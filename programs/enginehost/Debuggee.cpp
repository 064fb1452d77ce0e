#include "Debuggee.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include "Engine/utilities/StdException.h"
#include "Engine/utilities/StdioPipes.h"
#include "Engine/utilities/TraceFlags.h"
#include "Engine/utilities/UNIX/SignalsBlocked.h"

#include "HostEvents.h"
#include "StartSignals.h"

namespace {

// How a child tells why there is no program: it is closed without a word when there is one.
class ReasonPipe {
 public:
  ReasonPipe() {
    if (pipe2(ends_, O_CLOEXEC) != 0) {
      StdException::throwException(__PRETTY_FUNCTION__, __LINE__, std::strerror(errno), errno);
    }
  }
  ReasonPipe(const ReasonPipe&) = delete;
  ReasonPipe& operator=(const ReasonPipe&) = delete;
  ~ReasonPipe() {
    close(ends_[0]);
    close(ends_[1]);
  }

  void tell(int error) const noexcept { static_cast<void>(!write(ends_[1], &error, sizeof error)); }

  /// \return an `errno` value, 0 when the program runs.
  int hear() noexcept {
    close(ends_[1]);
    ends_[1] = -1;
    int error = 0;
    while (read(ends_[0], &error, sizeof error) < 0 && errno == EINTR) {
    }
    return error;
  }

 private:
  int ends_[2] = {-1, -1};
};

// Everything from here to execv() runs in the child.

void echo(int terminal) {
  termios modes;
  if (tcgetattr(terminal, &modes) == 0) {
    modes.c_lflag |= ECHO;
    tcsetattr(terminal, TCSANOW, &modes);
  }
}

bool putOnConsole(const DebuggeeStreams& streams) {
  const int input = streams.console->childReadHandle();
  if (input == STDIN_FILENO) {
    // The console could not be set up.
    return false;
  }
  if (streams.consoleEchoes) {
    echo(input);
  }
  dup2(input, STDIN_FILENO);
  dup2(input, STDOUT_FILENO);
  // What the user has redirected is left as it is, with its position.
  if (isatty(STDERR_FILENO)) {
    dup2(input, STDERR_FILENO);
  }
  close(input);
  return true;
}

[[noreturn]] void becomeProgram(const char* path, char* const* arguments,
                                const DebuggeeStreams& streams, const ReasonPipe& reason,
                                const SignalsBlocked& signals) {
  errno = 0;
  if (streams.console == nullptr || putOnConsole(streams)) {
    // The program gets the signals it would have without a host.
    setStartSignals();
    signals.unblock();
    execv(path, arguments);
  }
  reason.tell(errno != 0 ? errno : EIO);
  _exit(1);
}

}  // namespace

Debuggee::Debuggee(const EncodedString& path, char* const* arguments,
                   const DebuggeeStreams& streams)
    : reaper_(*this) {
  const char* const file = path;
  ReasonPipe reason;
  // What reaches the child before it is the program waits for the program.
  const SignalsBlocked signals;
  // Before the first thread, so that the child may do more than system calls.
  id_ = fork();
  if (id_ == 0) {
    becomeProgram(file, arguments, streams, reason, signals);
  }
  signals.unblock();
  if (id_ < 0) {
    StdException::throwException(__PRETTY_FUNCTION__, __LINE__, std::strerror(errno), errno);
  }
  if (const int error = reason.hear(); error != 0) {
    waitpid(id_, &rawStatus_, 0);
    StdException::throwException(__PRETTY_FUNCTION__, __LINE__, std::strerror(error), error);
  }
  CUL_TRACE(TraceType::active, __PRETTY_FUNCTION__, __LINE__, "Process %d started: %s", id_, file);
  try {
    threads_.start(reaper_);
  } catch (const StdException&) {
    kill(id_, SIGKILL);
    waitpid(id_, &rawStatus_, 0);
    throw;
  }
}

Debuggee::~Debuggee() { wait(); }

int Debuggee::wait() {
  threads_.allEnded().wait();
  return WIFSIGNALED(rawStatus_) ? 128 + WTERMSIG(rawStatus_) : WEXITSTATUS(rawStatus_);
}

int Debuggee::killer() const noexcept { return WIFSIGNALED(rawStatus_) ? WTERMSIG(rawStatus_) : 0; }

int Debuggee::Reaper::work() {
  // The host's signals are for the thread that waits for its events.
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, nullptr);
  debuggee_.rawStatus_ = ProcessWaiter(debuggee_.id_).work();
  const int status = debuggee_.rawStatus_;
  if (WIFSIGNALED(status)) {
    CUL_TRACE(TraceType::active, "int Debuggee::Reaper::work()", __LINE__,
              "Process %d was killed by signal %d.", debuggee_.id_, WTERMSIG(status));
  } else {
    CUL_TRACE(TraceType::active, "int Debuggee::Reaper::work()", __LINE__,
              "Process %d ended with status %d.", debuggee_.id_, WEXITSTATUS(status));
  }
  HostEvents::post(HostEvents::debuggeeEnded);
  return status;
}
