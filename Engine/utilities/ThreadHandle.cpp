#include "Engine/utilities/ThreadHandle.h"

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/HeldLock.h"
#include "Engine/internal/HoldRequests.h"
#include "Engine/internal/PlaceNumber.h"
#include "Engine/internal/ThreadManagerLink.h"
#include "Engine/utilities/ThreadManager.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(ThreadHandle, 232);
CUL_FIXED_FIELD(ThreadHandle, manager_, 224);

namespace {

Reference<ThreadManagerLink> none() { return {}; }

}  // namespace

// Holds the handle's lock while a run is marked as ended. Where it is released tells in a
// trace whether a manager is told.
class ThreadHandle::NotifyGuard {
 public:
  explicit NotifyGuard(const ThreadHandle& handle) : lock_(handle.lock()) {
    lock_.request(function, 169_place);
  }
  NotifyGuard(const NotifyGuard&) = delete;
  NotifyGuard& operator=(const NotifyGuard&) = delete;
  ~NotifyGuard() noexcept(false) { lock_.release(function, line_); }

  void hasNoManager() noexcept { line_ = 182_place; }

 private:
  static constexpr const char* function = "virtual void ThreadHandle::notify(pthread_t, int)";

  UNIX_Critical_Section& lock_;
  unsigned int line_ = 176_place;
};

ThreadHandle::ThreadHandle(ThreadManager* manager, Runnable& runnable)
    : ThreadListener(runnable), manager_(manager != nullptr ? manager->link_ : none()) {}

ThreadHandle::~ThreadHandle() = default;

Reference<ThreadHandle> ThreadHandle::instance(ThreadManager& manager, Runnable& runnable) {
  const HoldRequests hold;
  return Reference<ThreadHandle>(new ThreadHandle(&manager, runnable));
}

void ThreadHandle::notify(pthread_t id, int result) {
  const HoldRequests hold;
  Reference<ThreadManagerLink> link;
  {
    NotifyGuard guard(*this);
    end(result);
    if (manager_ && manager_->manager() != nullptr) {
      link = manager_;
    } else {
      guard.hasNoManager();
    }
  }
  if (link) {
    link->notify(id, result);
  }
}

void ThreadHandle::setManager(ThreadManager* manager) {
  const HoldAndLock guard(lock(), "void ThreadHandle::setManager(ThreadManager*)", __LINE__);
  manager_ = manager != nullptr ? manager->link_ : none();
}

ThreadManager* ThreadHandle::manager() const {
  const HeldLock held(lock(), "ThreadManager* ThreadHandle::manager() const", __LINE__);
  return manager_ ? manager_->manager() : nullptr;
}
