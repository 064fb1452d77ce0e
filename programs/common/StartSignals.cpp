#include "programs/common/StartSignals.h"

#include <csignal>

namespace {

struct sigaction startActions[NSIG];

extern "C" void actAsAtStart(int signal) {
  if (startActions[signal].sa_handler != SIG_IGN) {
    std::signal(signal, SIG_DFL);
    std::raise(signal);
  }
}

void recordActions(int, char**, char**) {
#if defined(__SANITIZE_THREAD__)
  // The sanitizer makes its record of a thread's signals when it first needs one, as here, and
  // loses a signal that arrives meanwhile.
  std::raise(0);
#endif
  for (int signal = 1; signal < NSIG; ++signal) {
    sigaction(signal, nullptr, &startActions[signal]);
  }
  // The library takes signals for failures, of which it makes a report, but those that are
  // handled. These are none, and may come while there is nothing yet to make a report with.
  std::signal(SIGHUP, actAsAtStart);
  std::signal(SIGTERM, actAsAtStart);
}

// Before the constructors of the libraries, of which one sets signals.
__attribute__((section(".preinit_array"),
               used)) void (*const recordAtStart)(int, char**, char**) = recordActions;

}  // namespace

void setStartSignal(int signal) noexcept {
  // Nothing else than SIG_IGN and SIG_DFL comes through execve(); where signals are the
  // system's alone, nothing is changed.
  sigaction(signal, &startActions[signal], nullptr);
}

void setStartSignals() noexcept {
  for (int signal = 1; signal < NSIG; ++signal) {
    setStartSignal(signal);
  }
}
