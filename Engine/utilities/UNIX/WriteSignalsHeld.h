#pragma once

#include <cerrno>
#include <csignal>
#include <ctime>
#include <initializer_list>

#include "Engine/utilities/KeepErrno.h"

/// \file
/// A guard for writes whose failure must not end the process: until the end of its scope,
/// SIGPIPE (nobody reads the pipe) and SIGXFSZ (the file has reached the limit) that the calling
/// thread's own writes raise are lost, and the writes fail with their error number alone.
///
/// Dispositions stay as they are, so that threads do not disturb each other. Keeps `errno`.
/// Internal to the library.

class WriteSignalsHeld {
 public:
  WriteSignalsHeld() noexcept {
    const KeepErrno keepErrno;
    sigset_t pending;
    sigpending(&pending);
    sigemptyset(&held_);
    for (const int signal : {SIGPIPE, SIGXFSZ}) {
      // One that waits already is the caller's and stays.
      if (sigismember(&pending, signal) == 0) {
        sigaddset(&held_, signal);
      }
    }
    pthread_sigmask(SIG_BLOCK, &held_, &former_);
  }
  WriteSignalsHeld(const WriteSignalsHeld&) = delete;
  WriteSignalsHeld& operator=(const WriteSignalsHeld&) = delete;
  ~WriteSignalsHeld() {
    const KeepErrno keepErrno;
    constexpr timespec noTime = {};
    while (sigtimedwait(&held_, nullptr, &noTime) > 0 || errno == EINTR) {
    }
    pthread_sigmask(SIG_SETMASK, &former_, nullptr);
  }

 private:
  sigset_t held_ = {};
  sigset_t former_ = {};
};
