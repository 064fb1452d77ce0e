#pragma once

#include <csignal>

/// \file
/// A guard that ignores one signal until the end of its scope and then puts the caller's
/// disposition back whole, unless that was "ignore" already. Keeps `errno`.
///
/// Dispositions belong to the process: scopes on two threads that overlap for one signal
/// may restore it under each other. What is ignored already is left alone, as the system would
/// go through all threads to take away what they have pending.

class SignalIgnored {
 public:
  explicit SignalIgnored(int signal) noexcept : signal_(signal) {
    sigaction(signal_, nullptr, &previous_);
    if (previous_.sa_handler != SIG_IGN) {
      struct sigaction ignore = {};
      ignore.sa_handler = SIG_IGN;
      sigaction(signal_, &ignore, nullptr);
    }
  }
  SignalIgnored(const SignalIgnored&) = delete;
  SignalIgnored& operator=(const SignalIgnored&) = delete;
  ~SignalIgnored() {
    if (previous_.sa_handler != SIG_IGN) {
      sigaction(signal_, &previous_, nullptr);
    }
  }

 private:
  int signal_;
  struct sigaction previous_ = {};
};
