#pragma once

#include <mutex>

#include "Engine/internal/HoldRequests.h"

/// \file
/// Holds a mutex under which no other lock of the library is asked for. A thread has one at a
/// time.

/// The mutex that the calling thread has through a LeafLock; null: none.
extern constinit thread_local std::mutex* leafMutex
    __attribute__((tls_model("initial-exec"), visibility("hidden")));

class LeafLock {
 public:
  explicit LeafLock(std::mutex& mutex) noexcept : mutex_(mutex) {
    mutex.lock();
    leafMutex = &mutex;
  }
  LeafLock(const LeafLock&) = delete;
  LeafLock& operator=(const LeafLock&) = delete;
  ~LeafLock() {
    leafMutex = nullptr;
    mutex_.unlock();
  }

  /// Gives back what the calling thread has, which will never return to where it took it: it
  /// was interrupted there by a fatal signal.
  static void abandon() noexcept {
    if (std::mutex* const mutex = leafMutex; mutex != nullptr) {
      leafMutex = nullptr;
      mutex->unlock();
    }
  }

 private:
  const HoldRequests hold_;
  std::mutex& mutex_;
};
