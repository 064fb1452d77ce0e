#include "Engine/utilities/UNIX/UNIX_Critical_Section.h"

#include <cerrno>

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/HoldRequests.h"
#include "Engine/internal/MutexWait.h"
#include "Engine/internal/RequestToEnd.h"
#include "Engine/internal/ThisThread.h"
#include "Engine/utilities/CUL_SemaphoreError.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(UNIX_Critical_Section, 64);
CUL_FIXED_FIELD(UNIX_Critical_Section, owner_, 48);
CUL_FIXED_FIELD(UNIX_Critical_Section, count_, 56);

UNIX_Critical_Section::UNIX_Critical_Section() = default;

UNIX_Critical_Section::~UNIX_Critical_Section() = default;

void UNIX_Critical_Section::request(const char* file, unsigned int line) {
  const pthread_t self = thisThread();
  if (__atomic_load_n(&owner_, __ATOMIC_ACQUIRE) == self) {
    ++count_;
    return;
  }
  if (requestIsPending) [[unlikely]] {
    endIfAsked();
  }
  // A thread that is asked to end does so in this wait or not before the owner is noted.
  const bool isLocked = waitForMutex(nativeHandle()) == 0;
  LocksHeld::add();
  count_ = 1;
  __atomic_store_n(&owner_, self, __ATOMIC_RELEASE);
  if (!isLocked) {
    warn("pthread_mutex_lock", file, line);  // last: the trace may want this very lock
  }
}

void UNIX_Critical_Section::release(const char* file, unsigned int line) {
  if (__atomic_load_n(&owner_, __ATOMIC_ACQUIRE) != thisThread()) {
    refuse(file, line);
  }
  if (--count_ == 0) {
    __atomic_store_n(&owner_, pthread_t{0}, __ATOMIC_RELEASE);
    const bool isUnlocked = pthread_mutex_unlock(nativeHandle()) == 0;
    LocksHeld::remove();
    if (!isUnlocked) {
      warn("pthread_mutex_unlock", file, line);
    }
  }
}

// NOLINTNEXTLINE(bugprone-exception-escape): release() does not refuse the owner.
void UNIX_Critical_Section::abandon(const char* file, unsigned int line) noexcept {
  if (__atomic_load_n(&owner_, __ATOMIC_ACQUIRE) == thisThread()) {
    count_ = 1;
    release(file, line);
  }
}

void UNIX_Critical_Section::refuse(const char* file, unsigned int line) const {
  const int error = errno;
  // The text speaks of a creation although nothing is created: tools look for it.
  warn("MutexCreate", file, line);
  throw CUL_SemaphoreError(file, line, this, error);
}
