#include "Engine/utilities/ThreadManager.h"

#include <memory>

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/HeldLock.h"
#include "Engine/internal/PlaceNumber.h"
#include "Engine/internal/ThreadManagerLink.h"
#include "Engine/utilities/StdException.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_FIELD(ThreadManager, handles_, 0);
CUL_FIXED_FIELD(ThreadManager, allEnded_, 32);
CUL_FIXED_FIELD(ThreadManager, lock_, 144);

// Takes a handle off the list again when its run could not be started.
class ThreadManager::Unlisting {
 public:
  Unlisting(ThreadManager& manager, Reference<ThreadHandle>& handle)
      : manager_(manager), handle_(handle) {}
  Unlisting(const Unlisting&) = delete;
  Unlisting& operator=(const Unlisting&) = delete;
  ~Unlisting() noexcept(false) {
    if (!isCancelled_) {
      manager_.remove(handle_);
      manager_.postIfEmpty();
    }
  }

  void cancel() noexcept { isCancelled_ = true; }

 private:
  ThreadManager& manager_;
  Reference<ThreadHandle>& handle_;
  bool isCancelled_ = false;
};

ThreadManager::ThreadManager() : link_(new ThreadManagerLink(*this)) {}

ThreadManager::~ThreadManager() {
  link_->cut();
  const HoldAndLock guard(lock_, "ThreadManager::~ThreadManager()", 25_place);
  try {
    orphanThreads();
  } catch (const StdException&) {
    // Of the event, which goes with the manager: nobody waits for it any more.
  }
}

pthread_t ThreadManager::start(Runnable& runnable) {
  const HeldLock held(lock_, "pthread_t ThreadManager::start(Runnable&)", 33_place);
  Reference<ThreadHandle> handle = ThreadHandle::instance(*this, runnable);
  append(handle);
  Unlisting unlisting(*this, handle);
  allEnded_.reset();
  const pthread_t id = handle->start();
  unlisting.cancel();
  return id;
}

ThreadManager::THREADMANAGER_RC ThreadManager::append(Reference<ThreadHandle>& handle) {
  const HeldLock held(
      lock_, "ThreadManager::THREADMANAGER_RC ThreadManager::append(Reference<ThreadHandle>&)",
      25_place);
  if (findThread(handle) >= 0) {
    return THREADMANAGER_FAILED;
  }
  handles_.add(std::make_unique<Reference<ThreadHandle>>(handle));
  return THREADMANAGER_OK;
}

ThreadManager::THREADMANAGER_RC ThreadManager::remove(Reference<ThreadHandle>& handle) {
  const HeldLock held(
      lock_, "ThreadManager::THREADMANAGER_RC ThreadManager::remove(Reference<ThreadHandle>&)",
      59_place);
  const int index = findThread(handle);
  return index < 0 ? THREADMANAGER_FAILED : destroy(static_cast<unsigned int>(index));
}

ThreadManager::THREADMANAGER_RC ThreadManager::remove(pthread_t id) {
  const HeldLock held(lock_, "ThreadManager::THREADMANAGER_RC ThreadManager::remove(pthread_t)",
                      71_place);
  const int index = findThread(id);
  if (index < 0) {
    return THREADMANAGER_FAILED;
  }
  ThreadHandle& handle = *handles_[static_cast<unsigned int>(index)];
  if (handle.semaphore().wait(0, CUL_Event_Semaphore::Seconds, false)) {
    handle.setManager(nullptr);
  }
  return destroy(static_cast<unsigned int>(index));
}

ThreadManager::THREADMANAGER_RC ThreadManager::destroy(unsigned int index) {
  const HeldLock held(lock_, "ThreadManager::THREADMANAGER_RC ThreadManager::destroy(unsigned int)",
                      40_place);
  if (index >= handles_.count()) {
    return THREADMANAGER_FAILED;
  }
  handles_.removeAt(index);
  return THREADMANAGER_OK;
}

void ThreadManager::notify(pthread_t id, int) {
  const HeldLock held(lock_, "void ThreadManager::notify(pthread_t, int)", 105_place);
  remove(id);
  postIfEmpty();
}

int ThreadManager::findThread(Reference<ThreadHandle>& handle) {
  const HeldLock held(lock_, "int ThreadManager::findThread(Reference<ThreadHandle>&)", 124_place);
  for (unsigned int i = 0; i < handles_.count(); ++i) {
    if (handles_[i] == handle) {
      return static_cast<int>(i);
    }
  }
  return -1;
}

int ThreadManager::findThread(pthread_t id) const {
  const HeldLock held(lock_, "int ThreadManager::findThread(pthread_t) const", 104_place);
  for (unsigned int i = 0; i < handles_.count(); ++i) {
    if (handles_[i]->threadId() == id) {
      return static_cast<int>(i);
    }
  }
  return -1;
}

// NOLINTNEXTLINE(readability-const-return-type): callers know it so.
const Reference<ThreadListener> ThreadManager::getThread(pthread_t id) const {
  static constexpr const char* function =
      "const Reference<ThreadListener> ThreadManager::getThread(pthread_t) const";
  const HeldLock held(lock_, function, 66_place);
  const int index = findThread(id);
  if (index < 0) {
    throw StdException(function, 80_place, "Thread not found.", -1);
  }
  return handles_[static_cast<unsigned int>(index)];
}

List<unsigned long> ThreadManager::getThreadIds() {
  const HeldLock held(lock_, "List<long unsigned int> ThreadManager::getThreadIds()", 46_place);
  List<unsigned long> ids;
  for (const Reference<ThreadHandle>* holder : handles_.list()) {
    ids.add((*holder)->threadId());
  }
  return ids;
}

void ThreadManager::orphanThreads() {
  const HeldLock held(lock_, "void ThreadManager::orphanThreads()", 86_place);
  while (handles_.count() != 0) {
    Reference<ThreadHandle> handle = handles_[0];
    remove(handle);
  }
  allEnded_.post();
}

void ThreadManager::postIfEmpty() {
  if (handles_.count() == 0) {
    allEnded_.post();
  }
}
