#include "Debuggee.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Engine/utilities/StdException.h"
#include "Engine/utilities/TraceFlags.h"

namespace {

class Reaper : public StdThread {
 public:
  Reaper(pid_t process, int& rawStatus, Termination& end)
      : StdThread("Reaper", 0, &end), process_(process), rawStatus_(rawStatus) {}

  void run() override {
    while (waitpid(process_, &rawStatus_, 0) < 0 && errno == EINTR) {
    }
    if (WIFSIGNALED(rawStatus_)) {
      CUL_TRACE(TraceType::active, "void Reaper::run()", __LINE__,
                "Process %d was killed by signal %d.", process_, WTERMSIG(rawStatus_));
    } else {
      CUL_TRACE(TraceType::active, "void Reaper::run()", __LINE__,
                "Process %d ended with status %d.", process_, WEXITSTATUS(rawStatus_));
    }
  }

 private:
  pid_t process_;
  int& rawStatus_;
};

// What a child gets: the pipe as its output streams, and the signals that the library
// ignores in this process with their default action.
class SpawnPlan {
 public:
  explicit SpawnPlan(int output) {
    posix_spawn_file_actions_init(&actions_);
    posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions_, output, STDERR_FILENO);
    posix_spawn_file_actions_addclose(&actions_, output);
    posix_spawnattr_init(&attributes_);
    sigset_t ignored;
    sigemptyset(&ignored);
    sigaddset(&ignored, SIGPIPE);
    sigaddset(&ignored, SIGTTIN);
    posix_spawnattr_setsigdefault(&attributes_, &ignored);
    posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF);
  }
  SpawnPlan(const SpawnPlan&) = delete;
  SpawnPlan& operator=(const SpawnPlan&) = delete;
  ~SpawnPlan() {
    posix_spawn_file_actions_destroy(&actions_);
    posix_spawnattr_destroy(&attributes_);
  }

  [[nodiscard]] int start(pid_t& id, const char* path, char* const* arguments) const {
    return posix_spawn(&id, path, &actions_, &attributes_, arguments, environ);
  }

 private:
  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
};

}  // namespace

Debuggee::Debuggee(const EncodedString& path, char* const* arguments, StdPipe& output) {
  const SpawnPlan plan(output.childWriteHandle());
  if (const int error = plan.start(id_, path, arguments); error != 0) {
    StdException::throwException(__PRETTY_FUNCTION__, __LINE__, std::strerror(error), error);
  }
  output.closeWriteHandle();
  const char* const file = path;
  CUL_TRACE(TraceType::active, __PRETTY_FUNCTION__, __LINE__, "Process %d started: %s", id_, file);
  startReaper();
}

void Debuggee::startReaper() {
  try {
    auto reaper = std::make_unique<Reaper>(id_, rawStatus_, reaper_);
    reaper->start_thread(0);
    // A started thread object deletes itself.
    static_cast<void>(reaper.release());
  } catch (const StdException&) {
    kill(id_, SIGKILL);
    waitpid(id_, &rawStatus_, 0);
    throw;
  }
}

Debuggee::~Debuggee() { wait(); }

int Debuggee::wait() {
  // A thread can be joined only once.
  if (!isReaped_) {
    reaper_.wait(0);
    isReaped_ = true;
  }
  return WIFSIGNALED(rawStatus_) ? 128 + WTERMSIG(rawStatus_) : WEXITSTATUS(rawStatus_);
}
