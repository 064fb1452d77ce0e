#pragma once

#include <pthread.h>

#include "Engine/utilities/CUL_Critical_Section.h"

/// \file
/// A plain mutex with default attributes: not recursive, it does not know its owner.
///
/// No operation ever throws. A POSIX call that fails is written to the trace as a warning
/// and the caller goes on as if it had worked. The number in the warning is `errno`, not
/// the result of the call.

class CUL_EXPORT UNIX_Mutex : public CUL_Critical_Section {
 public:
  UNIX_Mutex();
  ~UNIX_Mutex() override;

  /// Waits for the mutex and takes it. A thread that holds it already waits for ever. A thread
  /// that is asked to end meanwhile ends in the wait.
  void request(const char* file, unsigned int line) CUL_TAKES() override;
  void release(const char* file, unsigned int line) CUL_GIVES() override;

  /// The POSIX object, for waiting on a condition while holding the mutex.
  [[nodiscard]] pthread_mutex_t* nativeHandle() noexcept { return &mutex_; }

 protected:
  /// Writes the warning that `call` has failed, with the current `errno`.
  static void warn(const char* call, const char* file, unsigned int line) noexcept;

 private:
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;  // usable should the constructor fail
};
