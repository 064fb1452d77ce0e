#include "StartSignals.h"

#include <csignal>

namespace {

struct sigaction startActions[NSIG];

void recordActions(int, char**, char**) {
  for (int signal = 1; signal < NSIG; ++signal) {
    sigaction(signal, nullptr, &startActions[signal]);
  }
}

// Before the constructors of the libraries, of which one sets signals.
__attribute__((section(".preinit_array"),
               used)) void (*const recordAtStart)(int, char**, char**) = recordActions;

}  // namespace

void setStartSignals() noexcept {
  for (int signal = 1; signal < NSIG; ++signal) {
    // Nothing else than SIG_IGN and SIG_DFL comes through execve(); where signals are the
    // system's alone, nothing is changed.
    sigaction(signal, &startActions[signal], nullptr);
  }
}
