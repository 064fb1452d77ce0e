#include "Engine/internal/ThreadManagerLink.h"

#include "Engine/internal/HeldLock.h"
#include "Engine/internal/LockGuard.h"
#include "Engine/utilities/ThreadManager.h"

void ThreadManagerLink::notify(pthread_t id, int result) {
  const LockGuard guard(lock_, "void ThreadManagerLink::notify(pthread_t, int)", __LINE__);
  if (manager_ != nullptr) {
    manager_->notify(id, result);
  }
}

void ThreadManagerLink::cut() {
  const HoldAndLock guard(lock_, "void ThreadManagerLink::cut()", __LINE__);
  __atomic_store_n(&manager_, nullptr, __ATOMIC_RELEASE);
}
