#include "Engine/utilities/UNIX/UNIX_Mutex.h"

#include <cerrno>

#include "Engine/utilities/TraceFlags.h"

UNIX_Mutex::UNIX_Mutex() {
  if (pthread_mutex_init(&mutex_, nullptr) != 0) {
    warn("pthread_mutex_init", "UNIX_Mutex::UNIX_Mutex()", 29);
  }
}

UNIX_Mutex::~UNIX_Mutex() { pthread_mutex_destroy(&mutex_); }

void UNIX_Mutex::warn(const char* call, const char* file, unsigned int line) noexcept {
  const int error = errno;
  CUL_TRACE(TraceType::warning, file, line, "%s failed - error = %d", call, error);
}
