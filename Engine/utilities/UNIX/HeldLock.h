#pragma once

#include "Engine/utilities/LockGuard.h"
#include "Engine/utilities/UNIX/HoldRequests.h"

/// Takes a lock and holds requests until it has been given back. A thread that is asked to end
/// can leave the wait for the lock, but nothing behind that. Internal to the library.
/// \code
///   const HeldLock held(lock_, "void RunningThreads::append(StdThread*)", 24);
/// \endcode
class HeldLock {
 public:
  /// \param file signature text of the caller; must outlive the guard.
  /// \param line used for the request and for the release.
  HeldLock(CUL_Critical_Section& lock, const char* file, unsigned int line)
      : guard_(lock, file, line) {}

 private:
  // In this order: the hold begins when the lock is there, and ends before it is given back.
  const LockGuard guard_;
  const HoldRequests hold_;
};
