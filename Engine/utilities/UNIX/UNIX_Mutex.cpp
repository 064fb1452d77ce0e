#include "Engine/utilities/UNIX/UNIX_Mutex.h"

#include <cerrno>

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/HoldRequests.h"
#include "Engine/internal/MutexWait.h"
#include "Engine/internal/PlaceNumber.h"
#include "Engine/internal/RequestToEnd.h"
#include "Engine/utilities/TraceFlags.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(UNIX_Mutex, 48);
CUL_FIXED_FIELD(UNIX_Mutex, mutex_, 8);

UNIX_Mutex::UNIX_Mutex() {
  if (pthread_mutex_init(&mutex_, nullptr) != 0) {
    warn("pthread_mutex_init", "UNIX_Mutex::UNIX_Mutex()", 29_place);
  }
}

UNIX_Mutex::~UNIX_Mutex() { pthread_mutex_destroy(&mutex_); }

void UNIX_Mutex::request(const char* file, unsigned int line) {
  if (requestIsPending) [[unlikely]] {
    endIfAsked();
  }
  const int result = waitForMutex(&mutex_);
  LocksHeld::add();
  if (result != 0) [[unlikely]] {
    warn("pthread_mutex_lock", file, line);
  }
}

void UNIX_Mutex::release(const char* file, unsigned int line) {
  const int result = pthread_mutex_unlock(&mutex_);
  LocksHeld::remove();
  if (result != 0) [[unlikely]] {
    warn("pthread_mutex_unlock", file, line);
  }
}

void UNIX_Mutex::warn(const char* call, const char* file, unsigned int line) noexcept {
  const int error = errno;
  CUL_TRACE(TraceType::warning, file, line, "%s failed - error = %d", call, error);
}
