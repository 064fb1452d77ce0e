#pragma once

#include <pthread.h>

/// \file
/// The calling thread's id without a call, for locks that ask for it all the time.

/// What pthread_self() returns: on x86-64 Linux the thread's control block, which the thread
/// pointer addresses.
inline pthread_t thisThread() noexcept {
  return reinterpret_cast<pthread_t>(__builtin_thread_pointer());
}
