#pragma once

#include <atomic>

#include "Engine/utilities/UNIX/UNIX_Critical_Section.h"

/// \file
/// A recursive lock of the whole process: made by its first use, on whatever thread and also
/// before main, and never destroyed.
class ProcessLock {
 public:
  constexpr ProcessLock() noexcept = default;
  ProcessLock(const ProcessLock&) = delete;
  ProcessLock& operator=(const ProcessLock&) = delete;

  /// The lock.
  [[nodiscard]] UNIX_Critical_Section& get() {
    UNIX_Critical_Section* made = lock_.load(std::memory_order_acquire);
    if (made == nullptr) {
      auto* const mine = new UNIX_Critical_Section;
      if (lock_.compare_exchange_strong(made, mine, std::memory_order_acq_rel)) {
        return *mine;
      }
      delete mine;
    }
    return *made;
  }

 private:
  std::atomic<UNIX_Critical_Section*> lock_ = nullptr;
};
