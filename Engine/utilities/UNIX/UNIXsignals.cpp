#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <execinfo.h>
#include <memory>
#include <new>
#include <sys/single_threaded.h>
#include <ucontext.h>
#include <unistd.h>
#include <unwind.h>

#include "Engine/internal/AlternateStack.h"
#include "Engine/internal/HoldRequests.h"
#include "Engine/internal/LeafLock.h"
#include "Engine/internal/PlaceNumber.h"
#include "Engine/internal/ProcessEnd.h"
#include "Engine/utilities/KeepErrno.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/TraceFlags.h"
#include "Engine/utilities/signals.h"

namespace {

constexpr const char* sourceFile = "Engine/utilities/UNIX/UNIXsignals";

constexpr int maximumCalls = 50;
constexpr int signalStatus = 99;

// What a thread brings upon itself. The other signals are sent.
constexpr int faults[] = {SIGTRAP, SIGABRT, SIGFPE, SIGILL, SIGBUS, SIGSEGV};

constexpr bool isFault(int signal) noexcept {
  for (const int fault : faults) {
    if (fault == signal) {
      return true;
    }
  }
  return false;
}

enum class Serves { once, eachThread };

// Handlers of faults run on the alternate stack. Those of other signals stay on the thread's
// own, where the exit handlers that they run have all the room they are used to.
struct sigaction handlerAction(int signal, Serves serves) {
  struct sigaction action = {};
  action.sa_sigaction = CUL_SignalHandler;
  action.sa_flags = static_cast<int>(SA_SIGINFO | (serves == Serves::once ? SA_RESETHAND : 0U) |
                                     (isFault(signal) ? static_cast<unsigned>(SA_ONSTACK) : 0U));
  sigemptyset(&action.sa_mask);
  return action;
}

// Faults may come from several threads at once as soon as there are several.
Serves servesNow(int signal) noexcept {
  return isFault(signal) && __libc_single_threaded == 0 ? Serves::eachThread : Serves::once;
}

void setDefaultAction(int signal) {
  struct sigaction action = {};
  action.sa_handler = SIG_DFL;
  action.sa_flags = static_cast<int>(SA_SIGINFO | SA_RESETHAND);
  sigemptyset(&action.sa_mask);
  sigaction(signal, &action, nullptr);
}

// Whether the thread that the handler runs on cannot go on: it has faulted or aborted, or has
// called the handler as a function.
bool hasFailed(int signal, const siginfo_t* info, const void* context) noexcept {
  if (context == nullptr) {
    return true;
  }
  return isFault(signal) &&
         (info->si_code > 0 || (info->si_code == SI_TKILL && info->si_pid == getpid()));
}

// Signals are blocked while a handler runs, and a jump out of it does not undo that.
void unblock(int signal, const void* context) {
  if (context != nullptr) {
    pthread_sigmask(SIG_SETMASK, &static_cast<const ucontext_t*>(context)->uc_sigmask, nullptr);
    return;
  }
  sigset_t one;
  sigemptyset(&one);
  sigaddset(&one, signal);
  pthread_sigmask(SIG_UNBLOCK, &one, nullptr);
}

// A fault of the handler itself, or of an exit handler, must find the handler again.
void unblockFaults() {
  sigset_t set;
  sigemptyset(&set);
  for (const int fault : faults) {
    sigaddset(&set, fault);
  }
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

constexpr std::array<const char*, 7> allocationNames = {
    "malloc", "calloc", "realloc", "free", "memalign", "posix_memalign", "aligned_alloc"};
constinit std::array<const void*, allocationNames.size()> allocations = {};

void findAllocations() {
  std::transform(allocationNames.begin(), allocationNames.end(), allocations.begin(),
                 [](const char* name) { return dlsym(RTLD_DEFAULT, name); });
}

// Whether the signal has interrupted an allocation, whose lock then stays taken while the
// handler runs. The C library takes none in a process with one thread.
bool hasInterruptedAllocation() {
  if (__libc_single_threaded != 0) {
    return false;
  }
  void* addresses[maximumCalls];
  const int count = backtrace(addresses, maximumCalls);
  return std::any_of(addresses, addresses + count, [](void* address) {
    // The address is behind the call, which may be the last instruction of its function.
    const void* function = _Unwind_FindEnclosingFunction(static_cast<char*>(address) - 1);
    return function != nullptr &&
           std::find(allocations.begin(), allocations.end(), function) != allocations.end();
  });
}

// Ends the process when its ending takes too long. One thread at a time has it.
class Deadline {
 public:
  static void set() {
    pid_t nobody = 0;
    if (!owner_.compare_exchange_strong(nobody, gettid())) {
      return;
    }
    struct sigaction action = {};
    action.sa_handler = [](int) { endProcessAtOnce(signalStatus); };
    sigaction(SIGALRM, &action, &former_);
    unblock(SIGALRM, nullptr);
    sigevent event = {};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGALRM;
    const itimerspec limit = {{0, 0}, {endingLimit, 0}};
    if (timer_create(CLOCK_MONOTONIC, &event, &timer_) == 0) {
      timer_settime(timer_, 0, &limit, nullptr);
    }
  }

  static void lift() {
    if (owner_ == gettid()) {
      timer_delete(timer_);
      sigaction(SIGALRM, &former_, nullptr);
      owner_ = 0;
    }
  }

 private:
  inline static constinit std::atomic<pid_t> owner_ = 0;
  inline static struct sigaction former_ = {};
  inline static timer_t timer_ = nullptr;
};

// A signal that was sent and can wait until its thread is out of an allocation, or out of the
// library's own critical code. One at a time.
class Postponed {
 public:
  // Has the signal come again in a moment.
  // \return false when it has waited long enough, or another one waits.
  static bool put(int signal, const siginfo_t* info) {
    bool isTaken = false;
    if (info != &info_) {
      if (!isTaken_.compare_exchange_strong(isTaken, true)) {
        return false;
      }
      info_ = *info;
      attempts_ = 0;
      sigevent event = {};
      // A thread may end before it gets a signal that was meant for all.
      event.sigev_notify = info->si_code == SI_TKILL ? SIGEV_THREAD_ID : SIGEV_SIGNAL;
      event._sigev_un._tid = gettid();
      event.sigev_signo = signal;
      event.sigev_value.sival_ptr = &info_;
      if (timer_create(CLOCK_MONOTONIC, &event, &timer_) != 0) {
        isTaken_ = false;
        return false;
      }
    }
    constexpr unsigned mostAttempts = 500;
    constexpr itimerspec delay = {{0, 0}, {0, 200000}};
    const struct sigaction again = handlerAction(signal, servesNow(signal));
    return ++attempts_ < mostAttempts && sigaction(signal, &again, nullptr) == 0 &&
           timer_settime(timer_, 0, &delay, nullptr) == 0;
  }

  // What a signal tells, or told when it came first.
  static const siginfo_t* original(const siginfo_t* info) {
    return info->si_code == SI_TIMER && info->si_value.sival_ptr == &info_ && attempts_ != 0
               ? &info_
               : info;
  }

  // The signal is handled now.
  static siginfo_t take(const siginfo_t* info) {
    const siginfo_t taken = *info;
    if (info == &info_) {
      timer_delete(timer_);
      isTaken_ = false;
    }
    return taken;
  }

 private:
  inline static constinit std::atomic<bool> isTaken_ = false;
  inline static siginfo_t info_ = {};
  inline static constinit std::atomic<unsigned> attempts_ = 0;
  inline static timer_t timer_ = nullptr;
};

// How many handlers the calling thread is in that have not come to recovery or end. A report
// that fails must not be begun again, and what fails then as well is not tried again.
constinit thread_local unsigned handlersEntered __attribute__((tls_model("initial-exec"))) = 0;

void report(int signal, const siginfo_t& info) {
  if (isTraced(TraceType::active)) {
    CUL_TRACE(TraceType::error, sourceFile, 56_place, "Signal %d (%s) at location %p; code = %d.",
              signal, SignalOccurred(signal).signalName(), info.si_addr, info.si_code);
    dumpModulesAndChain(false);
  }
}

// Null when there is no memory for the object of a thread that has none yet: an exception from a
// handler would end the process as one that nobody catches does.
StdThread* currentThreadIfPossible() noexcept {
  try {
    return StdThread::currentThread();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

// What would have to be allocated, found or loaded in a handler otherwise.
__attribute__((constructor)) void prepareForFaults() {
  void* address = nullptr;
  backtrace(&address, 1);
  findAllocations();
  if (gettid() == getpid()) {
    // Stays for the life of the process.
    alignas(AlternateStack) static unsigned char stack[sizeof(AlternateStack)];
    ::new (stack) AlternateStack;
  }
}

}  // namespace

void limitEnding() noexcept { Deadline::set(); }

int registerHandlerForSignal(int signal) {
  struct sigaction current = {};
  const int result = sigaction(signal, nullptr, &current);
  const Serves serves = servesNow(signal);
  const bool hasHandler = current.sa_handler != SIG_DFL && current.sa_handler != SIG_IGN;
  // One that was installed before there was a second thread.
  const bool isOutdated = current.sa_sigaction == CUL_SignalHandler &&
                          serves == Serves::eachThread &&
                          (static_cast<unsigned>(current.sa_flags) & SA_RESETHAND) != 0;
  if (result != 0 || (hasHandler && !isOutdated)) {
    return result;
  }
  const struct sigaction handled = handlerAction(signal, serves);
  return sigaction(signal, &handled, nullptr);
}

void CUL_SignalHandler(int signal, siginfo_t* info, void* context) {
  const KeepErrno keepErrno;
  const bool isInsideLibrary = HoldRequests::level() != 0;
  const HoldRequests hold;
  const bool mustEnd = hasFailed(signal, info, context);
  if (signal == SIGPIPE) {
    setDefaultAction(signal);
    return;
  }
  if (!mustEnd && isProcessEnding()) {
    return;
  }
  const siginfo_t* told = mustEnd ? info : Postponed::original(info);
  if (!mustEnd && (isInsideLibrary || hasInterruptedAllocation()) && Postponed::put(signal, told)) {
    return;
  }
  const siginfo_t information = Postponed::take(told);
  // Other threads may fault as well: the default action would end the process under this
  // one's hands. It is put back when this thread goes on.
  if (isFault(signal)) {
    const struct sigaction handled = handlerAction(signal, Serves::eachThread);
    sigaction(signal, &handled, nullptr);
  } else {
    setDefaultAction(signal);
  }
  // The report asks for locks, which a thread with this one must not do. Nobody returns to where
  // it was taken.
  if (mustEnd) {
    LeafLock::abandon();
  }
  ++handlersEntered;
  if (mustEnd && handlersEntered > 2) {
    endProcessAtOnce(signalStatus);
  }
  if (mustEnd && context != nullptr) {
    unblockFaults();
  }
  bool mayHoldLocks = isInsideLibrary;
  if (handlersEntered == 1) {
    if (hasInterruptedAllocation()) {
      mayHoldLocks = true;
    }
    if (mayHoldLocks) {
      Deadline::set();
    }
    report(signal, information);
  }
  StdThread* thread = currentThreadIfPossible();
  if (thread != nullptr) {
    CUL_TRACE(TraceType::error, sourceFile, 71_place, "Attempting longjmp recovery");
    // Without a recovery a second signal must not disturb the end of the process.
    if (thread->isRecoveryArmed()) {
      handlersEntered = 0;
      Deadline::lift();
      if (isFault(signal) && !isProcessEnding()) {
        setDefaultAction(signal);
      }
      unblock(signal, context);
    }
    thread->longjmp(signal, 0);
    CUL_TRACE(TraceType::error, sourceFile, 73_place, "No recovery possible");
  } else {
    // A process that could begin its trace mostly has the object.
    CUL_TRACE(TraceType::error, sourceFile, 68_place, "Not on recoverable thread");
  }
  --handlersEntered;
  if (mustEnd) {
    endProcess(signalStatus, mayHoldLocks);
  }
  endProcessUnlessEnding(signalStatus);
}

void dumpModulesAndChain(bool toStandardError) {
  if (!toStandardError && !isTraced(TraceType::error)) {
    return;
  }
  void* addresses[maximumCalls];
  const int count = backtrace(addresses, maximumCalls);
  const auto release = [](char** texts) { std::free(static_cast<void*>(texts)); };
  const std::unique_ptr<char*[], decltype(release)> texts(backtrace_symbols(addresses, count));
  const int textCount = texts == nullptr ? 0 : count;
  if (toStandardError) {
    std::fputs("---- Callback trace ----\n", stderr);
    for (int i = 0; i < textCount; ++i) {
      std::fprintf(stderr, "%s\n", texts[static_cast<std::size_t>(i)]);
    }
    std::fputs("---- End callback trace ----\n", stderr);
    return;
  }
  CUL_TRACE(TraceType::error, sourceFile, 122_place, "---- Callback trace ----");
  for (int i = 0; i < textCount; ++i) {
    CUL_TRACE(TraceType::error, sourceFile, 124_place, "%s", texts[static_cast<std::size_t>(i)]);
  }
  CUL_TRACE(TraceType::error, sourceFile, 125_place, "---- End callback trace ----");
}
