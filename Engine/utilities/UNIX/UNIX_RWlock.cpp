#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/HoldRequests.h"
#include "Engine/internal/PlaceNumber.h"
#include "Engine/internal/RequestToEnd.h"
#include "Engine/internal/ThisThread.h"
#include "Engine/utilities/AssertionFail.h"
#include "Engine/utilities/RWlock.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(RWlock, 136);
CUL_FIXED_FIELD(RWlock, priority_, 0);
CUL_FIXED_FIELD(RWlock, holders_, 8);
CUL_FIXED_FIELD(RWlock, _mutex, 40);
CUL_FIXED_FIELD(RWlock, _cond, 80);
CUL_FIXED_FIELD(RWlock, writersWaiting_, 128);
CUL_FIXED_FIELD(RWlock, readersWaiting_, 130);
CUL_FIXED_SIZE(RWlock::Holder, 16);
CUL_FIXED_FIELD(RWlock::Holder, thread, 0);
CUL_FIXED_FIELD(RWlock::Holder, readCount, 8);
CUL_FIXED_FIELD(RWlock::Holder, writeCount, 10);

// The expression's text is part of the message.
#define ASSERT_CALL(function, line, expression)                                               \
  do {                                                                                        \
    if (!(expression)) [[unlikely]] {                                                         \
      AssertionFail(0, "Engine/utilities/UNIX/UNIX_RWlock", (function), (line), #expression); \
    }                                                                                         \
  } while (false)

namespace {

// Gives the mutex back when an exception or the end of the thread leaves the scope before
// the regular unlock, whose result is checked.
class MutexRescue {
 public:
  explicit MutexRescue(pthread_mutex_t& mutex) noexcept : mutex_(&mutex) {}
  MutexRescue(const MutexRescue&) = delete;
  MutexRescue& operator=(const MutexRescue&) = delete;
  ~MutexRescue() {
    if (mutex_ != nullptr) {
      pthread_mutex_unlock(mutex_);
    }
  }
  void dismiss() noexcept { mutex_ = nullptr; }

 private:
  pthread_mutex_t* mutex_;
};

}  // namespace

// Counts a thread as waiting while it is inside requestRead() or requestWrite(). Who gives
// up early (by an exception or the end of the thread) lets those look again that waited for
// him.
class RWlock::Waiting {
 public:
  Waiting(unsigned short& counter, pthread_cond_t& condition) noexcept
      : counter_(counter), condition_(&condition) {
    __atomic_add_fetch(&counter_, 1, __ATOMIC_RELEASE);
  }
  Waiting(const Waiting&) = delete;
  Waiting& operator=(const Waiting&) = delete;
  ~Waiting() {
    __atomic_sub_fetch(&counter_, 1, __ATOMIC_RELEASE);
    if (condition_ != nullptr) {
      pthread_cond_broadcast(condition_);
    }
  }
  void enter() noexcept { condition_ = nullptr; }

 private:
  unsigned short& counter_;
  pthread_cond_t* condition_;
};

RWlock::RWlock(RWlockBase::Priority priority) : priority_(priority), holders_(10) {
  static constexpr const char* function = "RWlock::RWlock(RWlockBase::Priority)";
  // NOLINTBEGIN(modernize-use-nullptr): the expressions' texts are part of the messages.
  ASSERT_CALL(function, 18_place, !pthread_mutex_init(&_mutex, 0));
  ASSERT_CALL(function, 19_place, !pthread_cond_init(&_cond, 0));
  // NOLINTEND(modernize-use-nullptr)
}

RWlock::~RWlock() noexcept(false) {
  static constexpr const char* function = "RWlock::~RWlock()";
  ASSERT_CALL(function, 24_place, !pthread_mutex_destroy(&_mutex));
  ASSERT_CALL(function, 25_place, !pthread_cond_destroy(&_cond));
}

RWlock::Holder* RWlock::findOwn() {
  const pthread_t self = thisThread();
  for (unsigned i = holders_.count(); i > 0; --i) {
    if (holders_[i - 1].thread == self) {
      return &holders_[i - 1];
    }
  }
  return nullptr;
}

RWlock::Holder* RWlock::appendOwn() {
  // Zeros first: an entry put together on the stack from parts of different widths and
  // then copied as a whole costs a stalled load.
  holders_.add(Holder{});
  Holder* const own = &holders_[holders_.count() - 1];
  own->thread = thisThread();
  return own;
}

// The caller's entry, made if he may read now; null when he has to wait.
RWlock::Holder* RWlock::enterAsReader() {
  const pthread_t self = thisThread();
  for (unsigned i = holders_.count(); i > 0; --i) {
    Holder& holder = holders_[i - 1];
    if (holder.thread == self) {
      return &holder;
    }
    if (holder.writeCount != 0) {
      return nullptr;
    }
  }
  if (priority_ == WriterPriority && writersWaiting_ != 0) {
    return nullptr;
  }
  return appendOwn();
}

// The caller's entry, made if he may write now; null when he has to wait.
RWlock::Holder* RWlock::enterAsWriter() {
  const bool readersWait = priority_ == ReaderPriority && readersWaiting_ > 0;
  if (holders_.count() == 1 && holders_[0].thread == thisThread() &&
      (holders_[0].writeCount != 0 || !readersWait)) {
    return &holders_[0];
  }
  if (holders_.isEmpty() && !readersWait) {
    return appendOwn();
  }
  return nullptr;
}

void RWlock::requestRead() {
  static constexpr const char* function = "void RWlock::requestRead()";
  if (requestIsPending) [[unlikely]] {
    endIfAsked();
  }
  const HoldRequests hold;
  ASSERT_CALL(function, 32_place, !pthread_mutex_lock(&_mutex));
  MutexRescue rescue(_mutex);
  Holder* own = enterAsReader();
  if (own == nullptr) {
    Waiting waiting(readersWaiting_, _cond);
    while (own == nullptr) {
      {
        const HoldRequests::Lift lift(hold);
        ASSERT_CALL(function, 66_place, !pthread_cond_wait(&_cond, &_mutex));
      }
      own = enterAsReader();
    }
    waiting.enter();
  }
  own->writeCount == 0 ? ++own->readCount : ++own->writeCount;
  LocksHeld::add();
  rescue.dismiss();
  ASSERT_CALL(function, 70_place, !pthread_mutex_unlock(&_mutex));
}

void RWlock::requestWrite() {
  static constexpr const char* function = "void RWlock::requestWrite()";
  if (requestIsPending) [[unlikely]] {
    endIfAsked();
  }
  const HoldRequests hold;
  ASSERT_CALL(function, 77_place, !pthread_mutex_lock(&_mutex));
  MutexRescue rescue(_mutex);
  Holder* own = enterAsWriter();
  if (own == nullptr) {
    Waiting waiting(writersWaiting_, _cond);
    while (own == nullptr) {
      {
        const HoldRequests::Lift lift(hold);
        ASSERT_CALL(function, 109_place, !pthread_cond_wait(&_cond, &_mutex));
      }
      own = enterAsWriter();
    }
    waiting.enter();
  }
  ++own->writeCount;
  LocksHeld::add();
  rescue.dismiss();
  ASSERT_CALL(function, 113_place, !pthread_mutex_unlock(&_mutex));
}

void RWlock::release() {
  static constexpr const char* function = "void RWlock::release()";
  const HoldRequests hold;
  ASSERT_CALL(function, 120_place, !pthread_mutex_lock(&_mutex));
  MutexRescue rescue(_mutex);
  if (Holder* own = findOwn(); own != nullptr) {
    const bool isWriting = own->writeCount != 0;
    const unsigned short readCount = isWriting ? own->readCount : 0;
    unsigned short& count = isWriting ? own->writeCount : own->readCount;
    const bool hasEnded = --count == 0;
    LocksHeld::remove();
    if (hasEnded && readCount == 0) {
      holders_.removeAt(static_cast<unsigned>(own - holders_.begin()));
    }
    if (hasEnded) {
      ASSERT_CALL(function, 135_place, !pthread_cond_broadcast(&_cond));
    }
  }
  rescue.dismiss();
  ASSERT_CALL(function, 137_place, !pthread_mutex_unlock(&_mutex));
}

bool RWlock::holdsAnyLock() {
  static constexpr const char* function = "bool RWlock::holdsAnyLock()";
  const HoldRequests hold;
  ASSERT_CALL(function, 144_place, !pthread_mutex_lock(&_mutex));
  const Holder* own = findOwn();
  const bool holds = own != nullptr && (own->readCount != 0 || own->writeCount != 0);
  ASSERT_CALL(function, 154_place, !pthread_mutex_unlock(&_mutex));
  return holds;
}

bool RWlock::holdsReadLock() {
  static constexpr const char* function = "bool RWlock::holdsReadLock()";
  const HoldRequests hold;
  ASSERT_CALL(function, 162_place, !pthread_mutex_lock(&_mutex));
  const Holder* own = findOwn();
  const bool holds = own != nullptr && own->readCount != 0 && own->writeCount == 0;
  ASSERT_CALL(function, 172_place, !pthread_mutex_unlock(&_mutex));
  return holds;
}

bool RWlock::holdsWriteLock() {
  static constexpr const char* function = "bool RWlock::holdsWriteLock()";
  const HoldRequests hold;
  ASSERT_CALL(function, 179_place, !pthread_mutex_lock(&_mutex));
  // The only reader counts, too: he could write at once.
  const bool holds = holders_.count() == 1 && holders_[0].thread == thisThread();
  ASSERT_CALL(function, 181_place, !pthread_mutex_unlock(&_mutex));
  return holds;
}
