#include "Engine/utilities/StdThread.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/HeldLock.h"
#include "Engine/internal/HoldRequests.h"
#include "Engine/internal/OwnThread.h"
#include "Engine/internal/PlaceNumber.h"
#include "Engine/internal/ProcessEnd.h"
#include "Engine/internal/ProcessWide.h"
#include "Engine/internal/RequestToEnd.h"
#include "Engine/internal/UNIXStdThread.h"
#include "Engine/internal/WayOut.h"
#include "Engine/utilities/OwningList.h"
#include "Engine/utilities/RunningThreads.h"
#include "Engine/utilities/StdException.h"
#include "Engine/utilities/TraceFlags.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(StdThread, 296);
CUL_FIXED_FIELD(StdThread, recoveryPoint_, 8);
CUL_FIXED_FIELD(StdThread, name_, 208);
CUL_FIXED_FIELD(StdThread, slots_, 232);
CUL_FIXED_FIELD(StdThread, threadId_, 264);
CUL_FIXED_FIELD(StdThread, termination_, 272);
CUL_FIXED_FIELD(StdThread, stackSize_, 280);
CUL_FIXED_FIELD(StdThread, blockCount_, 284);
CUL_FIXED_FIELD(StdThread, started_, 286);
CUL_FIXED_FIELD(StdThread, recoveryArmed_, 287);
CUL_FIXED_FIELD(StdThread, terminationPending_, 288);
CUL_FIXED_SIZE(StdThread::NamedSlot, 24);
CUL_FIXED_FIELD(StdThread::NamedSlot, key, 0);
CUL_FIXED_FIELD(StdThread::NamedSlot, value, 8);
CUL_FIXED_FIELD(StdThread::NamedSlot, keyLength, 16);
CUL_FIXED_SIZE(StdThread::Termination, 16);
CUL_FIXED_FIELD(StdThread::Termination, threadId_, 0);
CUL_FIXED_FIELD(StdThread::Termination, thread_, 8);

#pragma GCC diagnostic push
// Both compilers lay StdThread out like any class with one vtable pointer.
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
const std::size_t StdThread::recoveryPointOffset_ = offsetof(StdThread, recoveryPoint_);
const std::size_t StdThread::recoveryArmedOffset_ = offsetof(StdThread, recoveryArmed_);
#pragma GCC diagnostic pop

StdThread::StdThread(const char* name, unsigned int stackSize, Termination* termination)
    : name_(name == nullptr ? "" : name),
      termination_(termination),
      stackSize_(stackSize > defaultStackSize() ? stackSize : defaultStackSize()) {
  if (termination != nullptr) {
    StdThread* none = nullptr;
    if (!__atomic_compare_exchange_n(&termination->thread_, &none, this, false, __ATOMIC_ACQ_REL,
                                     __ATOMIC_ACQUIRE)) {
      throw StdException("Engine/utilities/StdThread", 81_place,
                         "Termination object used for 2 threads", -1);
    }
  }
  try {
    RunningThreads::instance().append(this);
  } catch (...) {
    leaveToken();
    throw;
  }
}

StdThread::~StdThread() {
  RunningThreads::instance().remove(this);
  leaveToken();
  for (const NamedSlot& slot : slots_) {
    delete[] slot.key;
  }
}

void StdThread::leaveToken() noexcept {
  if (termination_ != nullptr) {
    __atomic_store_n(&termination_->thread_, nullptr, __ATOMIC_RELEASE);
  }
}

void StdThread::start_thread(unsigned int stackSize) {
  if (started_ != 0) {
    return;
  }
  // What every thread leans on must exist before the second one does.
  static_cast<void>(thread1());
  static_cast<void>(isTraced(TraceType::active));
  learnRuntime();
  if (stackSize > stackSize_) {
    stackSize_ = stackSize;
  }
  // The new thread passes this lock first: until then the object cannot be gone.
  const HoldAndLock guard(StdThreadRun::startLock(), "void StdThread::start_thread(unsigned int)",
                          __LINE__);
  auto record = std::make_unique<StdThreadRun>();
  const pthread_t id = record->start(this);
  static_cast<void>(record.release());  // now the new thread's
  started_ = 1;
  setThreadId(id);
}

int StdThread::requestTerminate() const {
  // A thread that ends clears the id under this lock, before its id becomes invalid.
  const HeldLock held(StdThreadRun::startLock(), "int StdThread::requestTerminate() const",
                      __LINE__);
  const pthread_t id = threadId();
  return id == 0 ? ESRCH : pthread_kill(id, SIGUSR2);
}

StdThread* StdThread::currentThread() {
  StdThread* own =
      OwnThread::isKnown() ? OwnThread::found() : RunningThreads::instance().find(pthread_self());
  return own != nullptr ? own : thread1();
}

StdThread* StdThread::thread1() {
  class DummyThread : public StdThread {
   public:
    DummyThread() : StdThread("main", 0, nullptr) {
      started_ = 1;
      setThreadId(pthread_self());
    }
    void run() override {}
  };
  static constinit ProcessWide<StdThread> mainThread;
  return &mainThread.get([] { return new DummyThread; });
}

// Of ids of other threads, only that of a new one is given to an object; see OwnThread.h.
void StdThread::setThreadId(pthread_t id) noexcept {
  const pthread_t former = threadId();
  __atomic_store_n(&threadId_, id, __ATOMIC_RELEASE);
  if (former == pthread_self() || id == pthread_self()) {
    OwnThread::forget();
  }
}

void** StdThread::_getKeyValue(const char* key) {
  const auto length = static_cast<unsigned int>(std::strlen(key) + 1);
  for (NamedSlot& slot : slots_) {
    if (slot.keyLength == length && std::memcmp(slot.key, key, length) == 0) {
      return &slot.value;
    }
  }
  std::unique_ptr<char[]> copy(new char[length]);
  std::memcpy(copy.get(), key, length);
  addOwned(slots_, {copy.get(), nullptr, length}, copy);
  return &slots_[slots_.count() - 1].value;
}

void StdThread::longjmp(int value, int keepArmed) {
  if (recoveryArmed_ == 0) {
    return;
  }
  recoveryArmed_ = keepArmed != 0;
  abandonLocks();
  HoldRequests::leaveAll();
  ::longjmp(recoveryPoint_, value);
}

int StdThread::Termination::wait(unsigned short timeout) const {
  if (threadId() != 0) {
    return systemWait(timeout);
  }
  return __atomic_load_n(&thread_, __ATOMIC_ACQUIRE) == nullptr ? 0 : -1;
}

// A request looks at the object that the thread runs, though the registry may find another one
// with the thread's id.
StdThread* StdThread::askedThread() {
  StdThread* const own = RequestToEnd::own().thread();
  return own != nullptr ? own : currentThread();
}

StdThread::BlockTermination::BlockTermination() {
  __atomic_add_fetch(&askedThread()->blockCount_, 1, __ATOMIC_RELAXED);
}

// NOLINTNEXTLINE(bugprone-exception-escape): the end of the thread passes here.
StdThread::BlockTermination::~BlockTermination() noexcept(false) {
  StdThread* self = askedThread();
  constexpr unsigned short belowZero = 65535;
  // A balanced guard leaves the mark of a pending request alone, see BlockTermination.
  if (__atomic_sub_fetch(&self->blockCount_, 1, __ATOMIC_RELAXED) == belowZero) {
    __atomic_store_n(&self->blockCount_, 0, __ATOMIC_RELAXED);
    if (__atomic_load_n(&self->terminationPending_, __ATOMIC_RELAXED) != 0) {
      StdThreadRun::end();
    }
  }
}
