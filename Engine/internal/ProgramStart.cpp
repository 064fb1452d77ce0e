#include "Engine/internal/ProgramStart.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// A pointer or a number.
template <typename Argument>
long word(Argument argument) noexcept {
  return (long)argument;  // The kernel's view of either.
}

// \return the result; an error number made negative when the call fails.
template <typename First = long, typename Second = long, typename Third = long,
          typename Fourth = long>
long systemCall(long number, First first = 0, Second second = 0, Third third = 0,
                Fourth fourth = 0) noexcept {
  // Before the register is set: a call, even of an empty function, may change it.
  const long words[] = {word(first), word(second), word(third), word(fourth)};
  register long inR10 asm("r10") = words[3];
  long result;
  asm volatile("syscall"
               : "=a"(result)
               : "a"(number), "D"(words[0]), "S"(words[1]), "d"(words[2]), "r"(inR10)
               : "rcx", "r11", "memory", "cc");
  return result;
}

// As the kernel has them; a bit for each signal.
using SignalMask = unsigned long;
constexpr int mostSignals = 8 * sizeof(SignalMask);

struct SignalAction {
  void (*handler)(int);
  unsigned long flags;
  void (*restorer)();
  SignalMask mask;
};

// Blocks also the signals that the C library keeps for itself: one cancels threads.
class AllSignalsBlocked {
 public:
  AllSignalsBlocked() noexcept { set(~SignalMask{0}, &former_); }
  AllSignalsBlocked(const AllSignalsBlocked&) = delete;
  AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;
  ~AllSignalsBlocked() { unblock(); }

  void unblock() const noexcept { set(former_, nullptr); }

 private:
  static void set(SignalMask mask, SignalMask* former) noexcept {
    systemCall(SYS_rt_sigprocmask, SIG_SETMASK, &mask, former, sizeof mask);
  }

  SignalMask former_ = 0;
};

// From here to becomeProgram() everything runs in the child.

// Starting the program resets handlers anyway. They must not run before that, either: not in the
// memory of the parent. What the library ignores goes back to what a shell would pass on.
void resetSignals() noexcept {
  for (int signal = 1; signal <= mostSignals; ++signal) {
    SignalAction current = {};
    const bool isIgnoredByLibrary = signal == SIGPIPE || signal == SIGTTIN;
    if (systemCall(SYS_rt_sigaction, signal, nullptr, &current, sizeof current.mask) == 0 &&
        current.handler != SIG_DFL && (current.handler != SIG_IGN || isIgnoredByLibrary)) {
      const SignalAction standard = {};
      systemCall(SYS_rt_sigaction, signal, &standard, nullptr, sizeof standard.mask);
    }
  }
}

int openNull() noexcept {
  return static_cast<int>(systemCall(SYS_openat, AT_FDCWD, "/dev/null", O_WRONLY));
}

// Standard input becomes write-only, too: a program that reads from it fails at once, as it is
// known to. A stream that is closed stays closed,
// though the descriptor to duplicate may have got its number meanwhile.
void silenceStreams() noexcept {
  int null = openNull();
  int surplus = null;
  for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
    if (stream == surplus || systemCall(SYS_close, stream) != 0) {
      continue;
    }
    if (null < 0) {
      // There was no room for one more descriptor; now there is.
      null = openNull();
      if (null == stream) {
        continue;
      }
      surplus = null;
    }
    systemCall(SYS_fcntl, null, F_DUPFD, stream);
  }
  if (surplus >= 0) {
    systemCall(SYS_close, surplus);
  }
}

void closeDescriptors() noexcept {
  constexpr int first = STDERR_FILENO + 1;
  if (systemCall(SYS_close_range, first, ~0U) == 0) {
    return;
  }
  // As getdtablesize() has it, also where there is no answer.
  rlimit limit = {.rlim_cur = 256, .rlim_max = 0};
  systemCall(SYS_prlimit64, 0, RLIMIT_NOFILE, nullptr, &limit);
  for (int fd = static_cast<int>(limit.rlim_cur) - 1; fd >= first; --fd) {
    systemCall(SYS_close, fd);
  }
}

[[noreturn]] void becomeProgram(const ProgramStart& start,
                                const AllSignalsBlocked& signals) noexcept {
  resetSignals();
  if (start.silencesStreams) {
    silenceStreams();
  }
  if (start.closesDescriptors) {
    closeDescriptors();
  }
  signals.unblock();
  systemCall(SYS_execve, start.file, start.arguments, start.environment);
  for (;;) {
    systemCall(SYS_exit_group, 1);
  }
}

// \return the child's id, or an error number made negative.
//
// No function can do this in the place of clone(): its return in the child would undo a frame
// that the parent still needs. Ours goes on below the frame here and below what lies under the
// stack pointer of a function without calls. The C library's own function wants a second stack,
// and the thread sanitizer stands in front of it.
long makeChild(const ProgramStart& start, const AllSignalsBlocked& signals) noexcept {
  constexpr long flags = CLONE_VM | CLONE_VFORK | SIGCHLD;
  register long noChildId asm("r10") = 0;
  register long noStorage asm("r8") = 0;
  register const ProgramStart* inR12 asm("r12") = &start;
  register const AllSignalsBlocked* inR13 asm("r13") = &signals;
  register void (*inR14)(const ProgramStart&, const AllSignalsBlocked&) asm("r14") = becomeProgram;
  long result;
  asm volatile(
      "syscall\n\t"
      "test %%rax, %%rax\n\t"
      "jnz 1f\n\t"
      "sub $128, %%rsp\n\t"
      "and $-16, %%rsp\n\t"
      "mov %%r12, %%rdi\n\t"
      "mov %%r13, %%rsi\n\t"
      "call *%%r14\n\t"
      "ud2\n"
      "1:"
      : "=a"(result)
      : "a"(SYS_clone), "D"(flags), "S"(0), "d"(0), "r"(noChildId), "r"(noStorage), "r"(inR12),
        "r"(inR13), "r"(inR14)
      : "rcx", "r11", "memory", "cc");
  return result;
}

}  // namespace

pid_t startProgram(const ProgramStart& start) noexcept {
  long result;
  {
    const AllSignalsBlocked signals;
    result = makeChild(start, signals);
  }
  // The handlers of signals that came meanwhile have run.
  if (result < 0) {
    errno = static_cast<int>(-result);
    return -1;
  }
  return static_cast<pid_t>(result);
}
