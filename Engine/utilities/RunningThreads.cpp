#include "Engine/utilities/RunningThreads.h"

#include <atomic>

#include "Engine/utilities/LockGuard.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/UNIX/HoldRequests.h"

RunningThreads& RunningThreads::instance() {
  static std::atomic<RunningThreads*> registry = nullptr;
  RunningThreads* made = registry.load(std::memory_order_acquire);
  if (made == nullptr) {
    made = new RunningThreads;
    registry.store(made, std::memory_order_release);
    pthread_atfork(holdAcrossFork, releaseAfterFork, releaseAfterFork);
  }
  return *made;
}

// A child must not find the lock held by a thread that it does not have.
void RunningThreads::holdAcrossFork() {
  HoldRequests::enter();
  instance().lock_.request("void RunningThreads::holdAcrossFork()", __LINE__);
}

void RunningThreads::releaseAfterFork() {
  instance().lock_.release("void RunningThreads::releaseAfterFork()", __LINE__);
  HoldRequests::leave();
}

void RunningThreads::append(StdThread* thread) {
  HoldRequests hold;
  LockGuard guard(lock_, "void RunningThreads::append(StdThread*)", 24);
  threads_.add(thread);
}

void RunningThreads::remove(StdThread* thread) {
  HoldRequests hold;
  LockGuard guard(lock_, "void RunningThreads::remove(StdThread*)", 31);
  threads_.remove(thread);
}

StdThread* RunningThreads::find(pthread_t id) {
  HoldRequests hold;
  LockGuard guard(lock_, "StdThread* RunningThreads::find(pthread_t)", 38);
  for (unsigned i = threads_.count(); i > 0; --i) {
    if (threads_[i - 1]->threadId() == id) {
      return threads_[i - 1];
    }
  }
  return nullptr;
}
