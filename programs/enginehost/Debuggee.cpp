#include "Debuggee.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <system_error>
#include <termios.h>
#include <unistd.h>

#include "Engine/utilities/Descriptor.h"
#include "Engine/utilities/ProcessWaiter.h"
#include "Engine/utilities/StdException.h"
#include "Engine/utilities/StdioPipes.h"
#include "Engine/utilities/TraceFlags.h"

#include "HostEvents.h"
#include "SignalsBlocked.h"
#include "programs/common/StartSignals.h"

namespace {

// Between the host and the child that becomes the program. The child waits for its word; it then
// tells why there is no program, and closes its end without one when there is.
class StartLine {
 public:
  StartLine() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
      StdException::throwException(__PRETTY_FUNCTION__, __LINE__, std::strerror(errno), errno);
    }
    host_.reset(ends[0]);
    child_.reset(ends[1]);
  }

  // In the host.

  void giveWord() const noexcept {
    // To a child that was killed meanwhile it is no matter.
    send(host_.get(), "", 1, MSG_NOSIGNAL);
  }

  /// \return an `errno` value, 0 when the program runs.
  int hear() noexcept {
    child_.reset();
    int error = 0;
    uninterrupted([&] { return read(host_.get(), &error, sizeof error); });
    return error;
  }

  // In the child.

  /// \return false when the host has ended without a word.
  bool awaitWord() noexcept {
    host_.reset();
    char word;
    return uninterrupted([&] { return read(child_.get(), &word, 1); }) == 1;
  }

  void tell(int error) const noexcept { send(child_.get(), &error, sizeof error, MSG_NOSIGNAL); }

 private:
  Descriptor host_;
  Descriptor child_;
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
                                const DebuggeeStreams& streams, StartLine& line,
                                const SignalsBlocked& signals) {
  if (!line.awaitWord()) {
    _exit(1);
  }
  errno = 0;
  if (streams.console == nullptr || putOnConsole(streams)) {
    // The program gets the signals it would have without a host.
    setStartSignals();
    signals.unblock();
    execv(path, arguments);
  }
  line.tell(errno != 0 ? errno : EIO);
  _exit(1);
}

}  // namespace

Debuggee::Debuggee(const EncodedString& path, char* const* arguments,
                   const DebuggeeStreams& streams) {
  const char* const file = path;
  StartLine line;
  // What reaches the child before it is the program waits for the program.
  const SignalsBlocked signals;
  // Before the first thread, so that the child may do more than system calls: it sets its side of
  // the console up, which changes that object and may trace. So it has a memory of its own, of
  // which the host has little to copy, and the host is free to give its word.
  id_ = fork();
  if (id_ == 0) {
    becomeProgram(file, arguments, streams, line, signals);
  }
  signals.unblock();
  if (id_ < 0) {
    StdException::throwException(__PRETTY_FUNCTION__, __LINE__, std::strerror(errno), errno);
  }
  // All that the host needs comes before the program.
  try {
    startReaper();
  } catch (const std::system_error& e) {
    kill(id_, SIGKILL);
    waitpid(id_, &rawStatus_, 0);
    StdException::throwException(__PRETTY_FUNCTION__, __LINE__, std::strerror(e.code().value()),
                                 -1);
  }
  line.giveWord();
  const int error = line.hear();
  isProgram_ = error == 0;
  if (isProgram_) {
    CUL_TRACE(TraceType::active, __PRETTY_FUNCTION__, __LINE__, "Process %d started: %s", id_,
              file);
  }
  isSettled_.post();
  if (!isProgram_) {
    wait();
    StdException::throwException(__PRETTY_FUNCTION__, __LINE__, std::strerror(error), error);
  }
}

// No thread of the library's: its threads take every signal, also when they are not asked to end
// but the host is. This one takes none from its beginning on.
void Debuggee::startReaper() {
  const SignalsBlocked signals;
  reaper_ = std::thread([this] { reap(); });
}

Debuggee::~Debuggee() { wait(); }

int Debuggee::wait() {
  if (reaper_.joinable()) {
    reaper_.join();
  }
  return WIFSIGNALED(rawStatus_) ? 128 + WTERMSIG(rawStatus_) : WEXITSTATUS(rawStatus_);
}

int Debuggee::killer() const noexcept { return WIFSIGNALED(rawStatus_) ? WTERMSIG(rawStatus_) : 0; }

void Debuggee::reap() {
  isSettled_.wait();
  rawStatus_ = ProcessWaiter(id_).work();
  if (!isProgram_) {
    return;
  }
  if (WIFSIGNALED(rawStatus_)) {
    CUL_TRACE(TraceType::active, "void Debuggee::reap()", __LINE__,
              "Process %d was killed by signal %d.", id_, WTERMSIG(rawStatus_));
  } else {
    CUL_TRACE(TraceType::active, "void Debuggee::reap()", __LINE__,
              "Process %d ended with status %d.", id_, WEXITSTATUS(rawStatus_));
  }
  HostEvents::post(HostEvents::debuggeeEnded);
}
