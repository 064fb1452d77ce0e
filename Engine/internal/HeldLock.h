#pragma once

#include "Engine/internal/HoldRequests.h"
#include "Engine/utilities/CUL_Critical_Section.h"

/// Takes a lock and holds requests until it has been given back. A thread that is asked to end
/// can leave the wait for the lock, but nothing behind that.
/// \code
///   const HeldLock held(lock_, "void ThreadManager::notify(pthread_t, int)", 105_place);
/// \endcode
class CUL_HOLDS_LOCK HeldLock {
 public:
  /// \param file signature text of the caller; must outlive the guard.
  /// \param line used for the request and for the release.
  HeldLock(CUL_Critical_Section& lock, const char* file, unsigned int line) CUL_TAKES(lock)
      : lock_(requested(lock, file, line)), file_(file), line_(line) {}
  HeldLock(const HeldLock&) = delete;
  HeldLock& operator=(const HeldLock&) = delete;
  /// May throw what release() throws.
  ~HeldLock() noexcept(false) CUL_GIVES() { lock_.release(file_, line_); }

 private:
  static CUL_Critical_Section& requested(CUL_Critical_Section& lock, const char* file,
                                         unsigned int line) CUL_TAKES(lock) {
    lock.request(file, line);
    return lock;
  }

  CUL_Critical_Section& lock_;
  const HoldRequests hold_;  // begins when the lock is there, ends when it has been given back
  const char* file_;
  unsigned int line_;
};
