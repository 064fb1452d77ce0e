#pragma once

#include <csignal>

/// \file
/// A guard that blocks every signal of the calling thread until the end of its scope, or until
/// unblock(), and then puts the thread's former mask back.

class SignalsBlocked {
 public:
  SignalsBlocked() noexcept {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &former_);
  }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;
  ~SignalsBlocked() { unblock(); }

  void unblock() const noexcept { pthread_sigmask(SIG_SETMASK, &former_, nullptr); }

 private:
  sigset_t former_ = {};
};
