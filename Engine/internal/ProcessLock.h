#pragma once

#include "Engine/internal/ProcessWide.h"
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
    return lock_.get([] { return new UNIX_Critical_Section; });
  }

 private:
  ProcessWide<UNIX_Critical_Section> lock_;
};
