#include "Engine/utilities/RunningThreads.h"

#include <memory>
#include <utility>

#include "Engine/internal/AcrossFork.h"
#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/HeldLock.h"
#include "Engine/internal/HoldRequests.h"
#include "Engine/internal/LockGuard.h"
#include "Engine/internal/OwnThread.h"
#include "Engine/internal/PlaceNumber.h"
#include "Engine/internal/ProcessWide.h"
#include "Engine/internal/ThisThread.h"
#include "Engine/internal/UNIXStdThread.h"
#include "Engine/utilities/StdThread.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(RunningThreads, 96);
CUL_FIXED_FIELD(RunningThreads, threads_, 0);
CUL_FIXED_FIELD(RunningThreads, lock_, 32);

namespace {

constinit ProcessWide<RunningThreads> registry;

// An object with this id was registered or unregistered.
void hasChanged(pthread_t id) noexcept {
  if (id == thisThread()) {
    OwnThread::forget();
  } else if (id != 0) {
    OwnThread::forgetAll();
  }
}

}  // namespace

constinit thread_local OwnThread::Found OwnThread::found_;
constinit OwnThread::Generation OwnThread::generation_;

StdThread* OwnThread::registered() noexcept {
  if (isKnown()) {
    return found();
  }
  RunningThreads* const made = registry.present();
  return made == nullptr ? nullptr : made->find(pthread_self());
}

RunningThreads& RunningThreads::instance() {
  return registry.get([] { return new RunningThreads; });
}

void RunningThreads::append(StdThread* thread) {
  static constexpr const char* function = "void RunningThreads::append(StdThread*)";
  HoldRequests hold;
  for (;;) {
    unsigned int needed = 0;
    {
      LockGuard guard(lock_, function, 24_place);
      if (threads_.count() < threads_.capacity()) {
        threads_.add(thread);
        hasChanged(thread->threadId());
        return;
      }
      needed = threads_.count() + 1;
    }
    makeRoom(needed);
  }
}

// Memory is asked for without the lock. When there is none, the new-handler traces, and who
// traces looks a thread up here while he holds the lock of the trace.
void RunningThreads::makeRoom(unsigned int needed) {
  List<StdThread*> larger(2 * needed);
  LockGuard guard(lock_, "void RunningThreads::makeRoom(unsigned int)", __LINE__);
  if (threads_.count() < larger.capacity()) {
    larger.append(threads_.begin(), threads_.count());
    std::destroy_at(&threads_);
    std::construct_at(&threads_, std::move(larger));
  }
}

void RunningThreads::remove(StdThread* thread) {
  const HoldAndLock guard(lock_, "void RunningThreads::remove(StdThread*)", 31_place);
  if (threads_.remove(thread)) {
    hasChanged(thread->threadId());
  }
}

StdThread* RunningThreads::find(pthread_t id) {
  const HoldAndLock guard(lock_, "StdThread* RunningThreads::find(pthread_t)", 38_place);
  StdThread* found = nullptr;
  for (unsigned i = threads_.count(); i > 0 && found == nullptr; --i) {
    if (threads_[i - 1]->threadId() == id) {
      found = threads_[i - 1];
    }
  }
  if (id == thisThread()) {
    OwnThread::note(found);
  }
  return found;
}

bool AcrossFork::holdThreads() noexcept {
  RunningThreads* const made = registry.present();
  if (made != nullptr) {
    made->lock_.request("bool AcrossFork::holdThreads()", __LINE__);
  }
  return made != nullptr;
}

void AcrossFork::releaseThreads() noexcept {
  RunningThreads::instance().lock_.release("void AcrossFork::releaseThreads()", __LINE__);
}

// The system uses the ids of threads that the child does not have again.
void AcrossFork::renewThreads() noexcept {
  const pthread_t self = pthread_self();
  bool isOwn = false;
  for (StdThread* thread : RunningThreads::instance().threads_) {
    if (thread->threadId() == self) {
      isOwn = true;
    } else {
      StdThreadRun::leaveBehind(*thread);
    }
  }
  if (!isOwn && !RunningThreads::instance().threads_.isEmpty()) {
    StdThreadRun::beMain();
  }
}
