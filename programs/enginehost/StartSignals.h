#pragma once

#include <csignal>

/// \file
/// The signals as this process was started with them: what its starter had ignored, as
/// `nohup` and a shell do for some, is ignored by the program too that it starts. The library
/// handles and ignores signals of its own from its loading on.

/// Blocks every signal of the calling thread until the end of the scope.
class SignalsBlocked {
 public:
  SignalsBlocked() noexcept {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &former_);
  }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &former_, nullptr); }

 private:
  sigset_t former_;
};

/// Ignores the signals that were ignored at the start of the process and gives all others
/// their default action. For a forked child, in which no other thread runs.
void setStartSignals() noexcept;
