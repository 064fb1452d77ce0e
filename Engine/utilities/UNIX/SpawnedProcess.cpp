#include "Engine/utilities/SpawnedProcess.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <fcntl.h>
#include <memory>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/PathSearch.h"
#include "Engine/utilities/ProcessWaiter.h"
#include "Engine/utilities/StdException.h"
#include "Engine/utilities/ThreadListener.h"
#include "Engine/utilities/UNIX/HoldRequests.h"
#include "Engine/utilities/UNIX/SignalsBlocked.h"
#include "Engine/utilities/UNIX/SystemCallFailure.h"

namespace {

constexpr const char* constructorText =
    "SpawnedProcess::SpawnedProcess(const EncodedString&, const EncodedString&, "
    "const List<EncodedString*>&, int, int)";

// All that the child needs, made before it exists: other threads may hold the locks of the
// allocator or the trace when it is forked off, and nobody would ever release them there.
class Program {
 public:
  Program(const EncodedString& path, const List<EncodedString*>& arguments)
      : file_(systemPath(path)) {
    arguments_.reserve(std::size_t{arguments.count()} + 2);
    add(path);
    for (const EncodedString* const argument : arguments) {
      add(*argument);
    }
    arguments_.push_back(nullptr);
  }

  /// Returns when it fails.
  void execute() const noexcept { execv(file_.c_str(), arguments_.data()); }

 private:
  // A program may write to its arguments, but to its own copies.
  void add(const char* text) { arguments_.push_back(const_cast<char*>(text)); }

  std::string file_;
  std::vector<char*> arguments_;
};

// From here to becomeProgram() everything runs in the child, and calls only what is safe in a
// signal handler.

// Starting the program resets handlers anyway. They must not run before that, either: they
// trace, and take locks. What the library ignores goes back to what a shell would pass on.
void resetSignals() noexcept {
  for (int signal = 1; signal < NSIG; ++signal) {
    struct sigaction current = {};
    const bool isIgnoredByLibrary = signal == SIGPIPE || signal == SIGTTIN;
    if (sigaction(signal, nullptr, &current) == 0 && current.sa_handler != SIG_DFL &&
        (current.sa_handler != SIG_IGN || isIgnoredByLibrary)) {
      struct sigaction standard = {};
      standard.sa_handler = SIG_DFL;
      sigaction(signal, &standard, nullptr);
    }
  }
}

int openNull() noexcept { return open("/dev/null", O_WRONLY); }

// Standard input becomes write-only, too: deliberate. A stream that is closed stays closed,
// though the descriptor to duplicate may have got its number meanwhile.
void silenceStreams() noexcept {
  int null = openNull();
  int surplus = null;
  for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
    if (stream == surplus || close(stream) != 0) {
      continue;
    }
    if (null == -1) {
      // There was no room for one more descriptor; now there is.
      null = openNull();
      if (null == stream) {
        continue;
      }
      surplus = null;
    }
    fcntl(null, F_DUPFD, stream);
  }
  if (surplus != -1) {
    close(surplus);
  }
}

void closeDescriptors() noexcept {
  constexpr int first = STDERR_FILENO + 1;
  if (close_range(first, ~0U, 0) == 0) {
    return;
  }
  for (int fd = getdtablesize() - 1; fd >= first; --fd) {
    close(fd);
  }
}

[[noreturn]] void becomeProgram(const Program& program, const SpawnedProcess& process,
                                const SignalsBlocked& signals) noexcept {
  resetSignals();
  signals.unblock();
  if (!process.sharesParentConsoleIO()) {
    silenceStreams();
  }
  if (!process.inheritsFileDescriptors()) {
    closeDescriptors();
  }
  program.execute();
  _exit(1);
}

/// \return the child's id, or -1 with `errno` set.
pid_t forkProgram(const Program& program, const SpawnedProcess& process) noexcept {
  const SignalsBlocked signals;
  const pid_t id = fork();
  if (id == 0) {
    becomeProgram(program, process, signals);
  }
  return id;
}

// Ends a child that nobody would wait for.
class UnwatchedChild {
 public:
  explicit UnwatchedChild(pid_t process) noexcept : process_(process) {}
  UnwatchedChild(const UnwatchedChild&) = delete;
  UnwatchedChild& operator=(const UnwatchedChild&) = delete;
  ~UnwatchedChild() {
    if (process_ != -1) {
      kill(process_, SIGKILL);
      ProcessWaiter(process_).work();
    }
  }
  void release() noexcept { process_ = -1; }

 private:
  pid_t process_;
};

// A listener that keeps its waiter, which nobody else deletes.
class ProcessListener final : public ThreadListener {
 public:
  explicit ProcessListener(std::unique_ptr<ProcessWaiter> waiter)
      : ThreadListener(*waiter), waiter_(std::move(waiter)) {}

 private:
  std::unique_ptr<ProcessWaiter> waiter_;
};

}  // namespace

SpawnedProcess::SpawnedProcess(const EncodedString& program, const EncodedString& path,
                               const List<EncodedString*>& arguments, int sharesParentConsoleIO,
                               int inheritsFileDescriptors)
    : sharesParentConsoleIO_(sharesParentConsoleIO),
      inheritsFileDescriptors_(inheritsFileDescriptors) {
  const EncodedString resolved = searchPath(program, path);
  if (resolved.length() == 0) {
    StdException::throwException(constructorText, 92, "File not found.", -1);
  }
  const Program file(resolved, arguments);
  // A thread that is asked to end meanwhile does so when its child is watched.
  const HoldRequests hold;
  const pid_t process = forkProgram(file, *this);
  if (process == -1) {
    failSystemCall(constructorText, 189, 189, "Fork failed.", "::fork() failed with errno %d.",
                   errno);
  }
  UnwatchedChild child(process);
  auto waiter = std::make_unique<Reference<ThreadListener>>(
      new ProcessListener(std::make_unique<ProcessWaiter>(process)));
  (*waiter)->start();
  child.release();
  waiter_ = waiter.release();
}

SpawnedProcess::SpawnedProcess(const SpawnedProcess& other)
    : waiter_(new Reference<ThreadListener>(*other.waiter_)),
      sharesParentConsoleIO_(other.sharesParentConsoleIO_),
      inheritsFileDescriptors_(other.inheritsFileDescriptors_) {}

SpawnedProcess::~SpawnedProcess() { delete waiter_; }

Reference<ThreadListener> SpawnedProcess::getWaiter() const { return *waiter_; }

int SpawnedProcess::returnCode() const { return (*waiter_)->result(); }

bool SpawnedProcess::done() const { return !wait(0); }

bool SpawnedProcess::wait(int seconds) const {
  return (*waiter_)->semaphore().wait(static_cast<unsigned short>(seconds),
                                      CUL_Event_Semaphore::Seconds, false);
}
