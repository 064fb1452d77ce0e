#include "Engine/utilities/SpawnedProcess.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <memory>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/HoldRequests.h"
#include "Engine/internal/PlaceNumber.h"
#include "Engine/internal/ProgramStart.h"
#include "Engine/internal/RequestToEnd.h"
#include "Engine/internal/SystemCallFailure.h"
#include "Engine/internal/SystemPath.h"
#include "Engine/utilities/Descriptor.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/PathSearch.h"
#include "Engine/utilities/ProcessWaiter.h"
#include "Engine/utilities/StdException.h"
#include "Engine/utilities/ThreadListener.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(SpawnedProcess, 16);
CUL_FIXED_FIELD(SpawnedProcess, waiter_, 0);
CUL_FIXED_FIELD(SpawnedProcess, sharesParentConsoleIO_, 8);
CUL_FIXED_FIELD(SpawnedProcess, inheritsFileDescriptors_, 12);

namespace {

constexpr const char* constructorText =
    "SpawnedProcess::SpawnedProcess(const EncodedString&, const EncodedString&, "
    "const List<EncodedString*>&, int, int)";

// All that the child needs, made before it exists.
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
    // The C library frees the array that the environment was in before a variable was added, and
    // another thread may add one while the child reads. It never frees its texts.
    for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
      environment_.push_back(*variable);
    }
    environment_.push_back(nullptr);
  }

  /// \return the child's id, or -1 with `errno` set.
  [[nodiscard]] pid_t start(bool silencesStreams, bool closesDescriptors) const noexcept {
    return startProgram({.file = file_.c_str(),
                         .arguments = arguments_.data(),
                         .environment = environment_.data(),
                         .silencesStreams = silencesStreams,
                         .closesDescriptors = closesDescriptors});
  }

 private:
  // A program may write to its arguments, but to its own copies.
  void add(const char* text) { arguments_.push_back(const_cast<char*>(text)); }

  std::string file_;
  std::vector<char*> arguments_;
  std::vector<char*> environment_;
};

// Ends a child that nobody would wait for.
class UnwatchedChild {
 public:
  explicit UnwatchedChild(pid_t process) noexcept : process_(process) {}
  UnwatchedChild(const UnwatchedChild&) = delete;
  UnwatchedChild& operator=(const UnwatchedChild&) = delete;
  ~UnwatchedChild() {
    if (process_ != -1) {
      kill(process_, SIGKILL);
      // By hand: a waiter may be the first to need a thread's object, and memory may be out.
      int status = 0;
      uninterrupted([&] { return waitpid(process_, &status, 0); });
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
    StdException::throwException(constructorText, 92_place, "File not found.", -1);
  }
  const Program file(resolved, arguments);
  std::unique_ptr<Reference<ThreadListener>> waiter;
  {
    // A thread that is asked to end meanwhile does so when its child is watched.
    const HoldRequests hold;
    const pid_t process =
        file.start(!this->sharesParentConsoleIO(), !this->inheritsFileDescriptors());
    if (process == -1) {
      failSystemCall(constructorText, 189_place, 189_place, "Fork failed.",
                     "::fork() failed with errno %d.", errno);
    }
    UnwatchedChild child(process);
    const Reference<ThreadListener> listener(
        new ProcessListener(std::make_unique<ProcessWaiter>(process)));
    waiter = std::make_unique<Reference<ThreadListener>>(listener);
    listener->start();
    child.release();
  }
  // Here it leaves nothing behind. Later it would end as if this constructor had thrown.
  endIfAsked();
  waiter_ = std::move(waiter);
}

SpawnedProcess::SpawnedProcess(const SpawnedProcess& other)
    : waiter_(new Reference<ThreadListener>(*other.waiter_)),
      sharesParentConsoleIO_(other.sharesParentConsoleIO_),
      inheritsFileDescriptors_(other.inheritsFileDescriptors_) {}

SpawnedProcess::~SpawnedProcess() = default;

Reference<ThreadListener> SpawnedProcess::getWaiter() const { return *waiter_; }

int SpawnedProcess::returnCode() const { return (*waiter_)->result(); }

bool SpawnedProcess::done() const { return !wait(0); }

bool SpawnedProcess::wait(int seconds) const {
  return (*waiter_)->semaphore().wait(static_cast<unsigned short>(seconds),
                                      CUL_Event_Semaphore::Seconds, false);
}
