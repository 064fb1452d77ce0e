#include "Engine/internal/ProcessEnd.h"

#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Engine/internal/AbandonTraceLines.h"
#include "Engine/internal/HoldRequests.h"
#include "Engine/internal/LeafLock.h"
#include "Engine/internal/OwnThread.h"
#include "Engine/internal/RequestToEnd.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/StringPoolManager.h"

namespace {

enum class Claim { made, ownAlready, another };

// What claims the ending: the process in the upper half, the thread in the lower. The one of a
// parent process, copied by a fork, is no claim.
constinit std::atomic<std::uint64_t> claimant = 0;
constexpr unsigned processShift = 32;

// Of the failure that ends the process; `none` while it ends because the program said so.
constexpr int none = -1;
constinit std::atomic<int> failureStatus = none;

std::uint64_t callingThread() noexcept {
  return static_cast<std::uint64_t>(getpid()) << processShift | static_cast<unsigned>(gettid());
}

bool isOfOneProcess(std::uint64_t a, std::uint64_t b) noexcept {
  return a >> processShift == b >> processShift;
}

Claim claimEnding(int status) noexcept {
  const std::uint64_t self = callingThread();
  std::uint64_t present = claimant.load();
  while (!isOfOneProcess(present, self)) {
    if (claimant.compare_exchange_weak(present, self)) {
      failureStatus = status;
      // Neither a request to end nor a cancellation may end the thread from now on.
      HoldRequests::enter();
      RequestToEnd::own().comeTooLate();
      RequestToEnd::own().drop();
      pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
      return Claim::made;
    }
  }
  return present == self ? Claim::ownAlready : Claim::another;
}

// Another thread ends the process.
[[noreturn]] void stop(int status, bool mayHoldLocks) noexcept {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, nullptr);
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  abandonLocks();
  if (mayHoldLocks) {
    sleep(endingLimit);
    endProcessAtOnce(status);
  }
  // An exit handler may join this thread. Its stack cannot be unwound, so only the kernel hears
  // of the end. The first thread stays: without it /proc/self is a ruin.
  if (gettid() != getpid()) {
    syscall(SYS_exit, 0);
  }
  for (;;) {
    pause();
  }
}

// exit() runs on the calling thread.
void noticeExit() noexcept {
  switch (claimEnding(none)) {
    case Claim::made:
      // What armed the recovery point will never be returned to.
      if (StdThread* const self = OwnThread::registered();
          self != nullptr && self->isRecoveryArmed()) {
        self->clearjmp();
      }
      return;
    case Claim::ownAlready:
      return;
    case Claim::another:
      stop(EXIT_FAILURE, false);
  }
}

// exit() first of all destroys the objects of the calling thread.
struct ThreadObject {
  bool isWatched = false;
  ~ThreadObject() {
    if (isWatched) {
      noticeExit();
    }
  }
};
thread_local ThreadObject threadObject;

}  // namespace

void abandonLocks() noexcept {
  abandonTraceLines();
  abandonLocksBehindTrace();
}

void abandonLocksBehindTrace() noexcept {
  StringPoolManager::abandon();
  LeafLock::abandon();
}

void endProcess(int status, bool mayHoldLocks) noexcept {
  switch (claimEnding(status)) {
    case Claim::made:
      abandonLocks();
      if (mayHoldLocks) {
        limitEnding();
      }
      exit(status);
    case Claim::ownAlready:
      endProcessAtOnce(status);
    case Claim::another:
      stop(status, mayHoldLocks);
  }
  __builtin_unreachable();
}

void endProcessUnlessEnding(int status) noexcept {
  if (claimEnding(status) == Claim::made) {
    abandonLocks();
    exit(status);
  }
}

void endProcessAtOnce(int status) noexcept {
  const int first = isProcessEnding() ? failureStatus.load() : none;
  _exit(first != none ? first : status);
}

bool isProcessEnding() noexcept { return isOfOneProcess(claimant.load(), callingThread()); }

ExitWatch::ExitWatch() noexcept { threadObject.isWatched = true; }

ExitWatch::~ExitWatch() { threadObject.isWatched = false; }

void watchForExit() noexcept {
  if (gettid() == getpid()) {
    threadObject.isWatched = true;
  }
  std::atexit(noticeExit);
}
