#pragma once

#include <csignal>

/// \file
/// A guard that ignores one signal until the end of its scope and then puts the caller's
/// disposition back whole, unless that was "ignore" already. Keeps `errno`.
///
/// Dispositions belong to the process: scopes on two threads that overlap for one signal
/// may restore it under each other. Internal to the library.

class SignalIgnored {
 public:
  explicit SignalIgnored(int signal) noexcept : signal_(signal) {
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(signal_, &ignore, &previous_);
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
