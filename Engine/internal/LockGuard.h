#pragma once

#include "Engine/utilities/CUL_Critical_Section.h"

/// Holds a lock until the end of a scope, also when an exception or the end of the thread
/// leaves it.
/// \code
///   LockGuard guard(lock_, "void RunningThreads::append(StdThread*)", 24_place);
/// \endcode
class CUL_HOLDS_LOCK LockGuard {
 public:
  /// \param file signature text of the caller; must outlive the guard.
  /// \param line used for the request and for the release.
  LockGuard(CUL_Critical_Section& lock, const char* file, unsigned int line) CUL_TAKES(lock)
      : lock_(lock), file_(file), line_(line) {
    lock_.request(file_, line_);
  }
  LockGuard(const LockGuard&) = delete;
  LockGuard& operator=(const LockGuard&) = delete;
  /// May throw what release() throws.
  ~LockGuard() noexcept(false) CUL_GIVES() { lock_.release(file_, line_); }

 private:
  CUL_Critical_Section& lock_;
  const char* file_;
  unsigned int line_;
};
