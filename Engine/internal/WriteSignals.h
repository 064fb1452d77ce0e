#pragma once

#include <cerrno>
#include <csignal>
#include <ctime>

#include "Engine/utilities/Descriptor.h"

/// \file
/// A guard that keeps from the program what the calling thread's own writes raise: SIGPIPE,
/// when nobody reads what is written to, and SIGXFSZ, when a file would grow beyond the
/// process's limit.
///
/// Both are blocked in the thread from block() to the end of the scope. When a write fails,
/// failed() takes its signal away again. Dispositions, the thread's mask and signals that the
/// program had pending already stay as they were. Keeps `errno`.
class WriteSignals {
 public:
  WriteSignals() noexcept = default;
  WriteSignals(const WriteSignals&) = delete;
  WriteSignals& operator=(const WriteSignals&) = delete;
  ~WriteSignals() {
    if (isBlocked_) {
      pthread_sigmask(SIG_SETMASK, &former_, nullptr);
    }
  }

  /// Before a write that may raise one. Does nothing a second time.
  void block() noexcept {
    if (isBlocked_) {
      return;
    }
    sigset_t both;
    sigemptyset(&both);
    sigaddset(&both, SIGPIPE);
    sigaddset(&both, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &both, &former_);
    sigemptyset(&pending_);
    // Only what the thread had blocked before can have been pending before.
    if (sigismember(&former_, SIGPIPE) == 1 || sigismember(&former_, SIGXFSZ) == 1) {
      sigpending(&pending_);
    }
    isBlocked_ = true;
  }

  [[nodiscard]] bool areBlocked() const noexcept { return isBlocked_; }

  /// After a write that failed with `errno`.
  void failed() const noexcept {
    const int error = errno;
    const int signal = error == EPIPE ? SIGPIPE : error == EFBIG ? SIGXFSZ : 0;
    if (isBlocked_ && signal != 0 && sigismember(&pending_, signal) == 0) {
      sigset_t one;
      sigemptyset(&one);
      sigaddset(&one, signal);
      constexpr timespec atOnce = {};
      uninterrupted([&] { return sigtimedwait(&one, nullptr, &atOnce); });
    }
    errno = error;
  }

 private:
  bool isBlocked_ = false;
  sigset_t former_ = {};
  sigset_t pending_ = {};
};
