#include "Engine/utilities/WorkerThread.h"

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/HeldLock.h"
#include "Engine/internal/HoldRequests.h"
#include "Engine/internal/LockGuard.h"
#include "Engine/utilities/ThreadListener.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(WorkerThread, 400);
CUL_FIXED_FIELD(WorkerThread, listener_, 296);
CUL_FIXED_FIELD(WorkerThread, result_, 312);
CUL_FIXED_FIELD(WorkerThread, workerId_, 320);
CUL_FIXED_FIELD(WorkerThread, state_, 328);
CUL_FIXED_FIELD(WorkerThread, lock_, 336);

WorkerThread::WorkerThread(ThreadListener& listener, Runnable& runnable)
    : StdThread("ThrdListener", defaultStackSize(), nullptr),
      listener_(&listener),
      runnable_(runnable) {}

WorkerThread::~WorkerThread() = default;

WorkerThread::State WorkerThread::state() const {
  const HeldLock held(lock_, "WorkerThread::State WorkerThread::state() const", __LINE__);
  return state_;
}

unsigned int WorkerThread::result() const {
  const HeldLock held(lock_, "unsigned int WorkerThread::result() const", __LINE__);
  return result_;
}

pthread_t WorkerThread::start() {
  const HeldLock held(lock_, "pthread_t WorkerThread::start()", __LINE__);
  if (state_ == created) {
    start_thread(0);
  }
  workerId_ = threadId();
  return workerId_;
}

void WorkerThread::enter() {
  const HoldRequests hold;
  {
    // Until this lock is free the starter may still be writing the thread's id down.
    const LockGuard started(listener_->lock(), "void WorkerThread::enter()", __LINE__);
  }
  const LockGuard guard(lock_, "void WorkerThread::enter()", __LINE__);
  if (state_ == created) {
    state_ = running;
  }
}

pthread_t WorkerThread::leave(int result) {
  const LockGuard guard(lock_, "pthread_t WorkerThread::leave(int)", __LINE__);
  result_ = static_cast<unsigned int>(result);
  if (state_ == running) {
    state_ = finished;
  }
  return workerId_;
}

void WorkerThread::run() {
  enter();
  const int result = runnable_.work();
  const HoldRequests hold;  // a run whose work is done is told of
  listener_->notify(leave(result), result);
}
