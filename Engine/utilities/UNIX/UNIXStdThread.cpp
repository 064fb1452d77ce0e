#include "Engine/internal/UNIXStdThread.h"

#include <csignal>
#include <cstdlib>
#include <cxxabi.h>
#include <memory>
#include <sched.h>

#include "Engine/internal/AcrossFork.h"
#include "Engine/internal/AlternateStack.h"
#include "Engine/internal/HoldRequests.h"
#include "Engine/internal/LockGuard.h"
#include "Engine/internal/OwnThread.h"
#include "Engine/internal/PlaceNumber.h"
#include "Engine/internal/ProcessEnd.h"
#include "Engine/internal/ProcessLock.h"
#include "Engine/internal/RequestToEnd.h"
#include "Engine/internal/Texts.h"
#include "Engine/utilities/KeepErrno.h"
#include "Engine/utilities/StdException.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/TraceFlags.h"
#include "Engine/utilities/signals.h"

namespace {

constexpr const char* sourceFile = "Engine/utilities/UNIX/UNIXStdThread";

// Of a process that ends because an exception escaped from a thread.
constexpr int failureStatus = 99;

constinit ProcessLock theStartLock;

// Tells the SIGUSR2 handler of the thread it runs on, from the entry function's frame.
class RunningHere {
 public:
  RunningHere(StdThread* thread, const void* entryFrame) noexcept {
    RequestToEnd::own().begin(thread, entryFrame);
  }
  RunningHere(const RunningHere&) = delete;
  RunningHere& operator=(const RunningHere&) = delete;
  ~RunningHere() {
    RequestToEnd::own().comeTooLate();
    RequestToEnd::own().drop();
  }
};

// The object of the calling thread as far as a request to end goes. Looks nothing up: a signal
// handler asks, too.
StdThread* objectOf(const RequestToEnd& request) {
  return request.thread() != nullptr ? request.thread() : StdThread::thread1();
}

class Attributes {
 public:
  Attributes() : areThere_(pthread_attr_init(&attributes_) == 0) {}
  Attributes(const Attributes&) = delete;
  Attributes& operator=(const Attributes&) = delete;
  ~Attributes() {
    if (areThere_) {
      pthread_attr_destroy(&attributes_);
    }
  }
  [[nodiscard]] bool areThere() const { return areThere_; }
  pthread_attr_t* get() { return &attributes_; }

 private:
  pthread_attr_t attributes_;
  bool areThere_;
};

}  // namespace

UNIX_Critical_Section& StdThreadRun::startLock() { return theStartLock.get(); }

bool AcrossFork::holdStarts() noexcept {
  // Made now if it was not there, or another thread might make and take it before the fork.
  theStartLock.get().request("bool AcrossFork::holdStarts()", __LINE__);
  return true;
}

void AcrossFork::releaseStarts() noexcept {
  theStartLock.get().release("void AcrossFork::releaseStarts()", __LINE__);
}

// Requests are not inherited, nor are timers.
void AcrossFork::renewStarts() noexcept { RequestToEnd::own().dropInChild(); }

void StdThreadRun::beMain() noexcept { StdThread::thread1()->setThreadId(pthread_self()); }

void StdThreadRun::leaveBehind(StdThread& thread) noexcept {
  // A thread that had ended by a request has no id, and its token may be gone.
  if (thread.threadId() == 0) {
    return;
  }
  thread.setThreadId(0);
  if (thread.termination_ != nullptr) {
    __atomic_store_n(&thread.termination_->threadId_, pthread_t{0}, __ATOMIC_RELEASE);
  }
}

pthread_t StdThreadRun::start(StdThread* thread) {
  thread_ = thread;
  // From now on a request may arrive, perhaps before the new thread has got to installing
  // the handler itself.
  signal(SIGUSR2, ::sigUSR2handler);
  Attributes attributes;
  if (!attributes.areThere()) {
    throw StdException(sourceFile, 169_place, -1);
  }
  pthread_attr_setstacksize(attributes.get(), thread->stackSize_);
  pthread_attr_setscope(attributes.get(), PTHREAD_SCOPE_SYSTEM);
  // A request that is there before the entry function has said whose thread it runs on would
  // be taken for one to "main". The entry function unblocks all signals.
  sigset_t all;
  sigfillset(&all);
  const bool areBlocked = pthread_attr_setsigmask_np(attributes.get(), &all) == 0;
  const bool isAsWanted =
      areBlocked && (thread->termination_ != nullptr ||
                     pthread_attr_setdetachstate(attributes.get(), PTHREAD_CREATE_DETACHED) == 0);
  pthread_t id = 0;
  if (!isAsWanted || pthread_create(&id, attributes.get(), StdThreadRunFF, this) != 0) {
    throw StdException(sourceFile, 169_place, -1);
  }
  if (thread->termination_ != nullptr) {
    __atomic_store_n(&thread->termination_->threadId_, id, __ATOMIC_RELEASE);
  }
  return id;
}

void StdThreadRun::run() {
  CUL_TRACE(TraceType::active, sourceFile, 132_place, "Starting thread %s",
            thread_->name_.view().data());
  signal(SIGUSR2, ::sigUSR2handler);
  registerErrorHandlers();
  thread_->run();
  RequestToEnd::own().comeTooLate();
  CUL_TRACE(TraceType::active, sourceFile, 136_place, "Terminating thread %s",
            thread_->name_.view().data());
  delete thread_;
  thread_ = nullptr;
}

void StdThreadRun::fail(const StdException& exception) const {
  RequestToEnd::own().comeTooLate();
  thread_->clearjmp();  // its place has been left
  CUL_TRACE(TraceType::error, exception.fileName.view().data(), exception.line,
            "Internal error on thread %s(%d).", thread_->name_.view().data(),
            static_cast<int>(pthread_self()));
  endProcess(failureStatus);
}

void StdThreadRun::fail() const {
  RequestToEnd::own().comeTooLate();
  thread_->clearjmp();  // its place has been left
  CUL_TRACE(TraceType::error, sourceFile, 79_place, "Unidentified internal error on thread %s(%d).",
            thread_->name_.view().data(), static_cast<int>(pthread_self()));
  endProcess(failureStatus);
}

void StdThreadRun::end() {
  sigset_t request;
  sigemptyset(&request);
  sigaddset(&request, SIGUSR2);
  pthread_sigmask(SIG_BLOCK, &request, nullptr);
  RequestToEnd::own().drop();
  pthread_exit(nullptr);
}

void StdThreadRun::abandon() noexcept {
  LockGuard guard(startLock(), "void StdThreadRun::abandon()", __LINE__);
  // The id may soon be another thread's.
  thread_->setThreadId(0);
}

// The unwinding of a thread that ends has no object, so the reference caught here is null.
__attribute__((no_sanitize("null"))) void* StdThreadRunFF(void* runRecord) {
  const HoldRequests hold;
  const std::unique_ptr<StdThreadRun> record(static_cast<StdThreadRun*>(runRecord));
  const ExitWatch exitWatch;
  const AlternateStack alternateStack;
  const RunningHere here(record->thread(), __builtin_frame_address(0));
  {
    // The starter has stored the thread's id and lets the object go when this lock is free.
    LockGuard guard(StdThreadRun::startLock(), "void* StdThreadRunFF(void*)", __LINE__);
  }
  OwnThread::forget();
#if defined(__SANITIZE_THREAD__)
  // The sanitizer makes its record of a thread's signals when it first needs one, as here, and
  // loses a signal that arrives meanwhile.
  pthread_kill(pthread_self(), 0);
#endif
  sigset_t none;
  sigemptyset(&none);
  pthread_sigmask(SIG_SETMASK, &none, nullptr);
  try {
    const HoldRequests::Lift lift(hold);
    record->run();
  } catch (const abi::__forced_unwind&) {
    record->abandon();
    throw;
  } catch (const StdException* exception) {
    record->fail(*exception);
  } catch (const StdException& exception) {
    record->fail(exception);
  } catch (...) {
    record->fail();
  }
  return nullptr;
}

void StdThreadRun::diversionReturned(void* result) {
  const KeepErrno keepErrno;
  RequestToEnd& request = RequestToEnd::own();
  const StdThread* const self = objectOf(request);
  if (request.canEndAtReturn() && __atomic_load_n(&self->blockCount_, __ATOMIC_RELAXED) == 0) {
    request.dispose(result);
    end();
  }
}

void divertedCallReturned(void* result) { StdThreadRun::diversionReturned(result); }

void StdThread::sigUSR2handler(int) {
  const KeepErrno keepErrno;
  RequestToEnd& request = RequestToEnd::own();
  if (request.isTooLate()) {
    return;
  }
  StdThread* const self = objectOf(request);
  if (__atomic_load_n(&self->blockCount_, __ATOMIC_RELAXED) != 0) {
    __atomic_store_n(&self->terminationPending_, 1, __ATOMIC_RELAXED);
    if (requestIsPending) {
      request.putOff();
    }
  } else if (request.canEndInHandler()) {
    StdThreadRun::end();
  } else {
    request.putOff();
  }
}

void StdThreadRun::endIfAsked() {
  const RequestToEnd& request = RequestToEnd::own();
  const StdThread* const self = objectOf(request);
  if (requestIsPending && __atomic_load_n(&self->blockCount_, __ATOMIC_RELAXED) == 0 &&
      request.canEndInCall()) {
    end();
  }
}

void endIfAsked() { StdThreadRun::endIfAsked(); }

void StdThread::thread_yield() {
  sched_yield();
  ::endIfAsked();
}

void sigUSR2handler(int signal) {
  RequestToEnd::own().interrupt(
      interruptedBy(__builtin_return_address(0), __builtin_frame_address(0)));
  StdThread::sigUSR2handler(signal);
  RequestToEnd::own().interrupt(nullptr);
}

int StdThread::Termination::systemWait(unsigned short) const {
  return pthread_join(threadId(), nullptr);
}
