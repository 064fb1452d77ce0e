#include "UserTerminal.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Engine/utilities/Descriptor.h"
#include "Engine/utilities/KeepErrno.h"

#include "SignalsBlocked.h"

namespace {

// Any thread may take the signal that ends the process.
std::atomic<UserTerminal*> restoredAtExit = nullptr;

void restoreAtExit() {
  if (UserTerminal* const terminal = restoredAtExit; terminal != nullptr) {
    terminal->restoreForGood();
  }
}

// Makes changes of the terminal one after another. A signal may want one on any thread, but not
// on the thread that is at it.
class Change {
 public:
  Change() noexcept {
    while (isUnderWay.test_and_set(std::memory_order_acquire)) {
      sched_yield();
    }
  }
  Change(const Change&) = delete;
  Change& operator=(const Change&) = delete;
  ~Change() { isUnderWay.clear(std::memory_order_release); }

 private:
  static inline std::atomic_flag isUnderWay;

  const SignalsBlocked signals_;
};

// The signals that the C library keeps to itself, for pthread_cancel() and setuid(), and handles
// when they are first needed. Until then anybody's end the process.
constexpr int firstInternal = 32;
constexpr int lastInternal = 33;

bool isInternal(int signal) { return signal >= firstInternal && signal <= lastInternal; }

// An action as the system has it. The C library's own sigaction() refuses the internal signals.
struct SystemAction {
  void (*handler)(int);
  unsigned long flags;
  void (*restorer)();  // where the handler returns to; it has to be there
  std::uint64_t mask;
};
constexpr unsigned long hasRestorer = 0x04000000;

long setSystemAction(int signal, const SystemAction* action, SystemAction* former) {
  return syscall(SYS_rt_sigaction, signal, action, former, sizeof action->mask);
}

// The signal has its default action again when this runs.
extern "C" void restoreAndEnd(int signal) {
  restoreAtExit();
  // Not raise(), which refuses the internal signals.
  syscall(SYS_tgkill, getpid(), gettid(), signal);
  // Still here: the signal is put off, as it may be under an emulator.
  _exit(128 + signal);
}

// Does what the system does by default at a signal that stops a process. Returns when the process
// is continued, and at once when nobody could do so.
void stopBy(int signal) {
  struct sigaction former;
  struct sigaction byDefault = {};
  byDefault.sa_handler = SIG_DFL;
  sigaction(signal, &byDefault, &former);
  sigset_t one;
  sigset_t mask;
  sigemptyset(&one);
  sigaddset(&one, signal);
  pthread_sigmask(SIG_UNBLOCK, &one, &mask);
  std::raise(signal);
  pthread_sigmask(SIG_SETMASK, &mask, nullptr);
  sigaction(signal, &former, nullptr);
}

extern "C" void restoreAndStop(int signal) {
  const KeepErrno keep;
  if (UserTerminal* const terminal = restoredAtExit; terminal != nullptr) {
    terminal->restore();
  }
  stopBy(signal);
  // Whoever made the terminal raw is to do so again, also when nothing was stopped.
  std::raise(SIGCONT);
}

bool hasDefaultAction(int signal) {
  struct sigaction action;
  return sigaction(signal, nullptr, &action) == 0 && (action.sa_flags & SA_SIGINFO) == 0 &&
         action.sa_handler == SIG_DFL;
}

// What a signal does to a process that does not handle it.
enum class Default { nothing, stop, end };

Default defaultOf(int signal) {
  switch (signal) {
    case SIGKILL:
    case SIGSTOP:
      // Nobody can handle these.
    case SIGCHLD:
    case SIGCONT:
    case SIGURG:
    case SIGWINCH:
      return Default::nothing;
    case SIGTSTP:
    case SIGTTIN:
    case SIGTTOU:
      return Default::stop;
    default:
      return Default::end;
  }
}

// A signal that ends or stops the process does so with the terminal restored. Those that are
// handled or ignored are left alone.
void restoreAtSignals() {
  for (int signal = 1; signal < NSIG; ++signal) {
    const Default byDefault = defaultOf(signal);
    if (isInternal(signal)) {
      SystemAction former = {};
      const SystemAction action = {restoreAndEnd, SA_RESETHAND | SA_NODEFER | hasRestorer,
                                   std::abort, 0};
      if (setSystemAction(signal, nullptr, &former) == 0 && former.handler == SIG_DFL) {
        setSystemAction(signal, &action, nullptr);
      }
    } else if (byDefault != Default::nothing && hasDefaultAction(signal)) {
      struct sigaction action = {};
      const bool ends = byDefault == Default::end;
      action.sa_handler = ends ? restoreAndEnd : restoreAndStop;
      action.sa_flags = ends ? static_cast<int>(SA_RESETHAND | SA_NODEFER) : 0;
      sigaction(signal, &action, nullptr);
    }
  }
}

// Interrupted by the signals of a stop and its end.
void setModes(int handle, const termios& modes) {
  uninterrupted([&] { return tcsetattr(handle, TCSANOW, &modes); });
}

}  // namespace

UserTerminal::UserTerminal(int handle) : handle_(handle) {
  // The system stops a process in the background that does this, also one that is continued
  // there.
  while (isInBackground() && tcdrain(handle_) != 0 && errno == EINTR) {
  }
  tcgetattr(handle_, &original_);
  static const int registered = std::atexit(restoreAtExit);
  static_cast<void>(registered);
  restoredAtExit = this;
  restoreAtSignals();
}

UserTerminal::~UserTerminal() {
  restore();
  restoredAtExit = nullptr;
}

void UserTerminal::makeRaw() {
  const Change change;
  if (!isForGood_ && !isInBackground()) {
    termios raw = original_;
    cfmakeraw(&raw);
    setModes(handle_, raw);
    isRaw_ = true;
  }
}

void UserTerminal::restore() noexcept {
  const Change change;
  if (isRaw_ && !isInBackground()) {
    setModes(handle_, original_);
    isRaw_ = false;
  }
}

void UserTerminal::restoreForGood() noexcept {
  const Change change;
  isForGood_ = true;
  if (isRaw_ && !isInBackground()) {
    setModes(handle_, original_);
    isRaw_ = false;
  }
}

void UserTerminal::stopInBackground() noexcept { stopBy(SIGTTOU); }

bool UserTerminal::isInBackground() const noexcept {
  // No group: it is not the terminal that controls this process, and no job control applies.
  const pid_t foreground = tcgetpgrp(handle_);
  return foreground > 0 && foreground != getpgrp();
}
