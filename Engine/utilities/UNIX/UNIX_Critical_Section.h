#pragma once

#include "Engine/utilities/UNIX/UNIX_Mutex.h"

/// \file
/// The recursive lock used across the library: a mutex that knows the thread that owns it.
///
/// A thread that has requested it n times must release it n times before another thread
/// gets it. An object may be made before main and used after exit.

class CUL_EXPORT UNIX_Critical_Section final : public UNIX_Mutex {
 public:
  UNIX_Critical_Section();
  ~UNIX_Critical_Section() override;

  /// Takes the lock, or one more level of it when the calling thread owns it.
  void request(const char* file, unsigned int line) CUL_TAKES() override;

  /// Gives one level back.
  /// \throws CUL_SemaphoreError with the caller's file and line and the current `errno` as
  ///   status, when the calling thread is not the owner; the lock is not touched then.
  void release(const char* file, unsigned int line) CUL_GIVES() override;

 private:
  friend class StringPoolManager;

  // Gives all levels back that the calling thread has; nothing when it has none. For a thread
  // that will never return to where it took them.
  // NOLINTNEXTLINE(bugprone-exception-escape): release() does not refuse the owner.
  [[gnu::visibility("hidden")]] void abandon(const char* file, unsigned int line) noexcept
      CUL_UNCHECKED_LOCKS;  // only when it has it
  [[noreturn]] void refuse(const char* file, unsigned int line) const;

  // Read without the lock: only the owner ever stores its own id here, and it clears the
  // field before it unlocks. Loads and stores are atomic.
  pthread_t owner_ = 0;
  unsigned int count_ = 0;  // depth of recursion, touched by the owner only
};
