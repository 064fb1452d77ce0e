#include "Engine/utilities/UNIX/UNIXStdThread.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <cxxabi.h>
#include <memory>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Engine/utilities/LockGuard.h"
#include "Engine/utilities/StdException.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/Texts.h"
#include "Engine/utilities/TraceFlags.h"
#include "Engine/utilities/UNIX/HoldRequests.h"
#include "Engine/utilities/UNIX/UnwindCheck.h"
#include "Engine/utilities/signals.h"

namespace {

constexpr const char* sourceFile = "Engine/utilities/UNIX/UNIXStdThread";

// What the SIGUSR2 handler needs to know of the thread it runs on. It must not search the
// registry: the signal may have arrived inside the registry's own lock.
struct RequestState {
  StdThread* thread = nullptr;       // null on threads not started by StdThread
  const void* entryFrame = nullptr;  // of StdThreadRunFF
  bool isEnding = false;             // past run(): requests come too late
  unsigned attempts = 0;             // of a request that could not be acted on at once
  bool hasTimer = false;
  int timer = 0;
};
constinit thread_local RequestState requestState __attribute__((tls_model("initial-exec")));

// Signals the calling thread again in a moment. The C library's timer_create() is not
// promised to be safe in a signal handler, the system calls are.
void postponeRequest() noexcept {
  RequestState& state = requestState;
  ++state.attempts;
  if (!state.hasTimer) {
    sigevent event = {};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = SIGUSR2;
    event._sigev_un._tid = gettid();
    state.hasTimer = syscall(SYS_timer_create, CLOCK_MONOTONIC, &event, &state.timer) == 0;
  }
  if (state.hasTimer) {
    // Soon at first, and never in step with what the thread does; a thread that stays inside
    // a noexcept function is not to be bothered that often.
    constexpr unsigned manyAttempts = 10000;
    const long soon = 20000 + state.attempts * 7919L % 60000;
    constexpr long later = 2000000;
    const itimerspec delay = {{0, 0}, {0, state.attempts < manyAttempts ? soon : later}};
    syscall(SYS_timer_settime, state.timer, 0, &delay, nullptr);
  }
}

void forgetRequests() noexcept {
  RequestState& state = requestState;
  if (state.hasTimer) {
    state.hasTimer = false;
    syscall(SYS_timer_delete, state.timer);
  }
}

// Tells the SIGUSR2 handler of the thread it runs on, from the entry function's frame.
class RunningHere {
 public:
  RunningHere(StdThread* thread, const void* entryFrame) noexcept {
    requestState.entryFrame = entryFrame;
    requestState.thread = thread;
  }
  RunningHere(const RunningHere&) = delete;
  RunningHere& operator=(const RunningHere&) = delete;
  ~RunningHere() {
    requestState.isEnding = true;
    forgetRequests();
  }
};

class Attributes {
 public:
  Attributes() { pthread_attr_init(&attributes_); }
  Attributes(const Attributes&) = delete;
  Attributes& operator=(const Attributes&) = delete;
  ~Attributes() { pthread_attr_destroy(&attributes_); }
  pthread_attr_t* get() { return &attributes_; }

 private:
  pthread_attr_t attributes_;
};

}  // namespace

UNIX_Critical_Section& StdThreadRun::startLock() {
  static std::atomic<UNIX_Critical_Section*> lock = nullptr;
  UNIX_Critical_Section* made = lock.load(std::memory_order_acquire);
  if (made == nullptr) {
    made = new UNIX_Critical_Section;
    lock.store(made, std::memory_order_release);
  }
  return *made;
}

pthread_t StdThreadRun::start(StdThread* thread) {
  thread_ = thread;
  // From now on a request may arrive, perhaps before the new thread has got to installing
  // the handler itself.
  signal(SIGUSR2, ::sigUSR2handler);
  Attributes attributes;
  if (thread->stackSize_ != 0) {
    pthread_attr_setstacksize(attributes.get(), thread->stackSize_);
  }
  pthread_attr_setscope(attributes.get(), PTHREAD_SCOPE_SYSTEM);
  // A request that is there before the entry function has said whose thread it runs on would
  // be taken for one to "main". The entry function unblocks all signals.
  sigset_t all;
  sigfillset(&all);
  pthread_attr_setsigmask_np(attributes.get(), &all);
  if (thread->termination_ == nullptr) {
    pthread_attr_setdetachstate(attributes.get(), PTHREAD_CREATE_DETACHED);
  }
  pthread_t id = 0;
  if (pthread_create(&id, attributes.get(), StdThreadRunFF, this) != 0) {
    throw StdException(sourceFile, 169, -1);
  }
  if (thread->termination_ != nullptr) {
    __atomic_store_n(&thread->termination_->threadId_, id, __ATOMIC_RELEASE);
  }
  return id;
}

void StdThreadRun::run() {
  CUL_TRACE(TraceType::active, sourceFile, 132, "Starting thread %s", charsOf(thread_->name_));
  signal(SIGUSR2, ::sigUSR2handler);
  registerErrorHandlers();
  thread_->run();
  requestState.isEnding = true;
  CUL_TRACE(TraceType::active, sourceFile, 136, "Terminating thread %s", charsOf(thread_->name_));
  delete thread_;
  thread_ = nullptr;
}

void StdThreadRun::fail(const StdException& exception) const {
  requestState.isEnding = true;
  CUL_TRACE(TraceType::error, charsOf(exception.fileName), exception.line,
            "Internal error on thread %s(%d).", charsOf(thread_->name_),
            static_cast<int>(pthread_self()));
  exit(99);
}

void StdThreadRun::fail() const {
  requestState.isEnding = true;
  CUL_TRACE(TraceType::error, sourceFile, 79, "Unidentified internal error on thread %s(%d).",
            charsOf(thread_->name_), static_cast<int>(pthread_self()));
  exit(99);
}

void StdThreadRun::end() {
  sigset_t request;
  sigemptyset(&request);
  sigaddset(&request, SIGUSR2);
  pthread_sigmask(SIG_BLOCK, &request, nullptr);
  forgetRequests();
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
  const RunningHere here(record->thread(), __builtin_frame_address(0));
  {
    // The starter has stored the thread's id and lets the object go when this lock is free.
    LockGuard guard(StdThreadRun::startLock(), "void* StdThreadRunFF(void*)", __LINE__);
  }
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

void StdThread::sigUSR2handler(int) {
  const int error = errno;
  const RequestState& state = requestState;
  StdThread* self = state.thread != nullptr ? state.thread : thread1();
  if (state.isEnding) {
    return;
  }
  if (__atomic_load_n(&self->blockCount_, __ATOMIC_RELAXED) != 0) {
    __atomic_store_n(&self->terminationPending_, 1, __ATOMIC_RELAXED);
    if (state.attempts != 0) {
      postponeRequest();
    }
  } else if (HoldRequests::level() != 0 || !canUnwind(state.entryFrame)) {
    postponeRequest();
  } else {
    StdThreadRun::end();
  }
  errno = error;
}

void StdThread::thread_yield() {
  sched_yield();
  const RequestState& state = requestState;
  if (state.attempts == 0 || state.isEnding) {
    return;
  }
  StdThread* self = state.thread != nullptr ? state.thread : thread1();
  if (__atomic_load_n(&self->blockCount_, __ATOMIC_RELAXED) == 0 && HoldRequests::level() == 0 &&
      canUnwind(state.entryFrame)) {
    StdThreadRun::end();
  }
}

void sigUSR2handler(int signal) { StdThread::sigUSR2handler(signal); }

int StdThread::Termination::systemWait(unsigned short) const {
  return pthread_join(threadId(), nullptr);
}
