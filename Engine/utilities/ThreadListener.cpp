#include "Engine/utilities/ThreadListener.h"

#include <utility>

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/HeldLock.h"
#include "Engine/internal/HoldRequests.h"
#include "Engine/utilities/WorkerThread.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(ThreadListener, 224);
CUL_FIXED_FIELD(ThreadListener, semaphore_, 16);
CUL_FIXED_FIELD(ThreadListener, worker_, 136);
CUL_FIXED_FIELD(ThreadListener, threadId_, 144);
CUL_FIXED_FIELD(ThreadListener, result_, 152);
CUL_FIXED_FIELD(ThreadListener, lock_, 160);

ThreadListener::ThreadListener(Runnable& runnable) : runnable_(runnable) {
  worker_ = new WorkerThread(*this, runnable_);
  semaphore_.reset();
}

ThreadListener::~ThreadListener() {
  if (worker_ != nullptr) {
    // Nobody shares it: the constructor of a derived class has failed, say. What the worker
    // gives back must not be the last reference of an object that is going already.
    ReferenceCounted::addReference();
    delete std::exchange(worker_, nullptr);
  }
}

Reference<ThreadListener> ThreadListener::instance(Runnable& runnable) {
  const HoldRequests hold;
  return Reference<ThreadListener>(new ThreadListener(runnable));
}

void ThreadListener::removeReference() const {
  const HoldRequests hold;
  for (;;) {
    const unsigned int count = referenceCount();
    // A worker that was not started holds the other of two references, so no other thread
    // can start it, or even know of it, now.
    if (count == 2 && __atomic_load_n(&worker_, __ATOMIC_ACQUIRE) != nullptr) {
      delete std::exchange(worker_, nullptr);
    } else if (removeReferenceOf(count)) {
      if (count == 1) {
        delete this;
      }
      return;
    }
  }
}

void ThreadListener::end(int result) {
  __atomic_store_n(&result_, result, __ATOMIC_RELEASE);
  semaphore_.post();
}

void ThreadListener::notify(pthread_t, int result) {
  const HeldLock held(lock_, "virtual void ThreadListener::notify(pthread_t, int)", __LINE__);
  end(result);
}

pthread_t ThreadListener::start() {
  // Not under the lock: the run may be marked as ended meanwhile.
  if (!semaphore_.wait(0, CUL_Event_Semaphore::Seconds, false)) {
    return 0;
  }
  const HeldLock held(lock_, "pthread_t ThreadListener::start()", __LINE__);
  WorkerThread* const worker = __atomic_load_n(&worker_, __ATOMIC_ACQUIRE);
  if (worker == nullptr) {
    return 0;  // started before
  }
  const pthread_t id = worker->start();
  __atomic_store_n(&threadId_, id, __ATOMIC_RELEASE);
  if (id != 0) {
    __atomic_store_n(&worker_, nullptr, __ATOMIC_RELEASE);
  }
  return id;
}
