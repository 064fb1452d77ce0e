#pragma once

#include "Engine/internal/HoldRequests.h"
#include "Engine/internal/LockGuard.h"
#include "Engine/utilities/CUL_Critical_Section.h"

/// \file
/// Two guards that hold a lock and hold requests until it has been given back. HeldLock is the
/// one to take: the wait for its lock can be left. Where nobody expects to end, as in what cleans
/// up, it is HoldAndLock. What must be held back longer than the lock has a HoldRequests in front
/// of a LockGuard.

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

/// Holds requests, then takes a lock: a thread that is asked to end goes on until the lock has
/// been given back, also while it waits for it.
/// \code
///   const HoldAndLock guard(lock_, "void RunningThreads::remove(StdThread*)", 31_place);
/// \endcode
class CUL_HOLDS_LOCK HoldAndLock {
 public:
  /// \param file signature text of the caller; must outlive the guard.
  /// \param line used for the request and for the release.
  HoldAndLock(CUL_Critical_Section& lock, const char* file, unsigned int line) CUL_TAKES(lock)
      : guard_(lock, file, line) {}
  HoldAndLock(const HoldAndLock&) = delete;
  HoldAndLock& operator=(const HoldAndLock&) = delete;
  /// May throw what release() throws.
  ~HoldAndLock() noexcept(false) CUL_GIVES() = default;

  /// The hold, to be lifted around a wait on a condition of the lock.
  [[nodiscard]] const HoldRequests& hold() const noexcept { return hold_; }

 private:
  const HoldRequests hold_;  // begins before the wait for the lock, ends behind its release
  const LockGuard guard_;
};
