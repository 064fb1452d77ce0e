#pragma once

#include "Engine/utilities/Export.h"
#include "Engine/utilities/LockChecks.h"

/// \file
/// The lock interface that the whole library locks through.
///
/// The caller of request() and release() names itself, by its function's signature text
/// and a line number. The two are only the source location of trace lines and exceptions;
/// they never influence the lock. Locks are shared between threads and are not copyable.
/// LockGuard (Engine/internal/LockGuard.h) releases on every way out of a scope.

class CUL_EXPORT CUL_IS_LOCK CUL_Critical_Section {
 public:
  CUL_Critical_Section() = default;
  CUL_Critical_Section(const CUL_Critical_Section&) = delete;
  CUL_Critical_Section& operator=(const CUL_Critical_Section&) = delete;
  virtual ~CUL_Critical_Section();

  /// Waits until the lock is free and takes it.
  /// \param file signature text of the caller; kept only for the duration of the call.
  /// \param line source line of the caller.
  virtual void request(const char* file, unsigned int line) CUL_TAKES() = 0;

  /// Gives the lock back; the arguments are those of request().
  virtual void release(const char* file, unsigned int line) CUL_GIVES() = 0;
};
