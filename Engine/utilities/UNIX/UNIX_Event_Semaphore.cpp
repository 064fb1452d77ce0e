#include "Engine/utilities/UNIX/UNIX_Event_Semaphore.h"

#include <atomic>
#include <cerrno>
#include <memory>
#include <sys/time.h>
#include <unistd.h>

#include "Engine/internal/AcrossFork.h"
#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/HeldLock.h"
#include "Engine/internal/HoldRequests.h"
#include "Engine/internal/LockGuard.h"
#include "Engine/internal/PlaceNumber.h"
#include "Engine/internal/ProcessLock.h"
#include "Engine/internal/WayOut.h"
#include "Engine/utilities/CUL_SemaphoreError.h"
#include "Engine/utilities/TraceFlags.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_FIELD(UNIX_Event_Semaphore, mutex_, 8);
CUL_FIXED_FIELD(UNIX_Event_Semaphore, condition_, 56);
CUL_FIXED_FIELD(UNIX_Event_Semaphore, posted_, 104);
CUL_FIXED_SIZE(UNIX_Event_Semaphore::MsecTime, 8);
CUL_FIXED_FIELD(UNIX_Event_Semaphore::MsecTime, milliseconds_, 0);
CUL_FIXED_SIZE(UNIX_Event_Semaphore::WaitInstance, 32);
CUL_FIXED_FIELD(UNIX_Event_Semaphore::WaitInstance, semaphore_, 0);
CUL_FIXED_FIELD(UNIX_Event_Semaphore::WaitInstance, deadline_, 8);
CUL_FIXED_FIELD(UNIX_Event_Semaphore::WaitInstance, timer_, 16);
CUL_FIXED_FIELD(UNIX_Event_Semaphore::WaitInstance, expired_, 24);
CUL_FIXED_SIZE(UNIX_Event_Semaphore::MillisecondTimer, 392);
CUL_FIXED_FIELD(UNIX_Event_Semaphore::MillisecondTimer, lock_, 296);
CUL_FIXED_FIELD(UNIX_Event_Semaphore::MillisecondTimer, pending_, 360);

namespace {

constexpr unsigned microsecondsPerMillisecond = 1000;
constexpr unsigned millisecondsPerSecond = 1000;

// How long the timer sleeps between two looks, in milliseconds.
constexpr unsigned shortestSleep = 10;
constexpr unsigned longestSleep = 50;

// Null until the first timed wait of the process: events that never needed the timer do not
// start it when they end.
constinit std::atomic<UNIX_Event_Semaphore::MillisecondTimer*> theTimer = nullptr;

// Held while the timer is made, or an event of the parent process is made anew.
constinit ProcessLock eventsLock;

void sleepFor(unsigned milliseconds) { usleep(milliseconds * microsecondsPerMillisecond); }

}  // namespace

UNIX_Event_Semaphore::UNIX_Event_Semaphore() : generation_(AcrossFork::generation()) {
  if (const int result = pthread_cond_init(&condition_, nullptr); result != 0) {
    throw CUL_SemaphoreError("UNIX_Event_Semaphore::UNIX_Event_Semaphore()", 28_place, this,
                             result);
  }
}

// A thread of the parent may have been in the middle of an operation. The child does not have
// it, and would wait for it: for the mutex, to wake it up, or to destroy the condition.
void UNIX_Event_Semaphore::makeOwn() {
  const unsigned int generation = AcrossFork::generation();
  if (__atomic_load_n(&generation_, __ATOMIC_ACQUIRE) != generation) [[unlikely]] {
    makeAnew(generation);
  }
}

void UNIX_Event_Semaphore::makeAnew(unsigned int generation) {
  const HoldAndLock guard(eventsLock.get(), "void UNIX_Event_Semaphore::makeAnew(unsigned int)",
                          __LINE__);
  if (generation_ != generation) {
    std::construct_at(&mutex_);
    pthread_cond_init(&condition_, nullptr);
    __atomic_store_n(&generation_, generation, __ATOMIC_RELEASE);
  }
}

UNIX_Event_Semaphore::~UNIX_Event_Semaphore() {
  const HoldRequests hold;
  makeOwn();
  if (MillisecondTimer* const timer = theTimer.load(std::memory_order_acquire); timer != nullptr) {
    timer->remove(*this);
  }
  {
    // A look without the lock may have seen the event open before post() was through.
    const LockGuard guard(mutex_, "virtual UNIX_Event_Semaphore::~UNIX_Event_Semaphore()",
                          __LINE__);
  }
  pthread_cond_destroy(&condition_);
}

void UNIX_Event_Semaphore::post() {
  static constexpr const char* function = "virtual void UNIX_Event_Semaphore::post()";
  int result = 0;
  {
    makeOwn();
    const HoldAndLock guard(mutex_, function, 47_place);
    __atomic_store_n(&posted_, 1, __ATOMIC_RELEASE);
    result = pthread_cond_broadcast(&condition_);
  }
  if (result != 0) [[unlikely]] {
    throw CUL_SemaphoreError(function, 54_place, this, result);
  }
}

void UNIX_Event_Semaphore::reset() {
  makeOwn();
  const HoldAndLock guard(mutex_, "virtual void UNIX_Event_Semaphore::reset()", 40_place);
  __atomic_store_n(&posted_, 0, __ATOMIC_RELEASE);
}

void UNIX_Event_Semaphore::wait() {
  static constexpr const char* function = "virtual void UNIX_Event_Semaphore::wait()";
  makeOwn();
  const HoldAndLock guard(mutex_, function, 69_place);
  while (!isPosted()) {
    int result = 0;
    {
      const HoldRequests::Lift lift(guard.hold());
      result = pthread_cond_wait(&condition_, mutex_.nativeHandle());
    }
    if (result != 0) [[unlikely]] {
      throw CUL_SemaphoreError(function, 80_place, this, result);
    }
  }
}

bool UNIX_Event_Semaphore::wait(unsigned short amount, WaitTimeScale scale, bool throwOnTimeout) {
  static constexpr const char* function =
      "virtual bool UNIX_Event_Semaphore::wait("
      "short unsigned int, CUL_Event_Semaphore::WaitTimeScale, bool)";
  if (isPosted()) {
    return false;
  }
  const HoldRequests hold;
  // Listed before the mutex is taken and taken off the list after it is given back.
  const WaitInstance instance(*this, scale == Seconds ? amount * millisecondsPerSecond : amount);
  const LockGuard guard(mutex_, function, 126_place);
  while (!isPosted() && !instance.isExpired()) {
    int result = 0;
    {
      const HoldRequests::Lift lift(hold);
      result = pthread_cond_wait(&condition_, mutex_.nativeHandle());
    }
    if (result != 0) [[unlikely]] {
      throw CUL_SemaphoreError(function, 137_place, this, result);
    }
  }
  if (isPosted()) {
    return false;
  }
  if (throwOnTimeout) {
    throw CUL_SemaphoreError(function, 143_place, this, ETIMEDOUT);
  }
  return true;
}

UNIX_Event_Semaphore::MillisecondTimer* UNIX_Event_Semaphore::timerInstance() {
  MillisecondTimer* timer = theTimer.load(std::memory_order_acquire);
  if (timer == nullptr) {
    const HoldRequests hold;
    // What a thread leans on is made without the lock.
    static_cast<void>(StdThread::thread1());
    static_cast<void>(isTraced(TraceType::active));
    learnRuntime();
    const LockGuard guard(eventsLock.get(),
                          "static UNIX_Event_Semaphore::MillisecondTimer* "
                          "UNIX_Event_Semaphore::timerInstance()",
                          __LINE__);
    timer = theTimer.load(std::memory_order_acquire);
    if (timer == nullptr) {
      timer = new MillisecondTimer;
      theTimer.store(timer, std::memory_order_release);
    }
  }
  return timer;
}

bool AcrossFork::holdEvents() noexcept {
  // Made now if it was not there, or another thread might make and take it before the fork.
  eventsLock.get().request("bool AcrossFork::holdEvents()", __LINE__);
  if (auto* const timer = theTimer.load(std::memory_order_acquire); timer != nullptr) {
    timer->lock_.request("bool AcrossFork::holdEvents()", __LINE__);
  }
  return true;
}

void AcrossFork::releaseEvents() noexcept {
  if (auto* const timer = theTimer.load(std::memory_order_acquire); timer != nullptr) {
    timer->lock_.release("void AcrossFork::releaseEvents()", __LINE__);
  }
  eventsLock.get().release("void AcrossFork::releaseEvents()", __LINE__);
}

// The timer thread is the parent's. Waits that the child may still have to end know their timer,
// so it stays, and its lock is given back.
void AcrossFork::renewEvents() noexcept {
  if (auto* const timer = theTimer.exchange(nullptr); timer != nullptr) {
    timer->lock_.release("void AcrossFork::renewEvents()", __LINE__);
  }
}

UNIX_Event_Semaphore::MsecTime::MsecTime(unsigned int offset) noexcept {
  timeval now = {};
  gettimeofday(&now, nullptr);
  milliseconds_ = static_cast<std::uint64_t>(now.tv_sec) * millisecondsPerSecond +
                  static_cast<std::uint64_t>(now.tv_usec) / microsecondsPerMillisecond + offset;
}

UNIX_Event_Semaphore::WaitInstance::WaitInstance(UNIX_Event_Semaphore& semaphore,
                                                 unsigned int milliseconds)
    : semaphore_(&semaphore), deadline_(milliseconds), timer_(timerInstance()) {
  semaphore.makeOwn();
  timer_->add(*this);
}

UNIX_Event_Semaphore::WaitInstance::~WaitInstance() { timer_->remove(*this); }

void UNIX_Event_Semaphore::WaitInstance::expire() {
  static constexpr const char* function = "void UNIX_Event_Semaphore::WaitInstance::expire()";
  int result = 0;
  {
    const HeldLock held(semaphore_->mutex_, function, 282_place);
    __atomic_store_n(&expired_, 1, __ATOMIC_RELEASE);
    result = pthread_cond_broadcast(&semaphore_->condition_);
  }
  if (result != 0) [[unlikely]] {
    throw CUL_SemaphoreError(function, 286_place, this, result);
  }
}

UNIX_Event_Semaphore::MillisecondTimer::MillisecondTimer() : StdThread("msecTimer", 0, nullptr) {
  start_thread(0);
}

void UNIX_Event_Semaphore::MillisecondTimer::add(WaitInstance& wait) {
  const HeldLock held(lock_,
                      "void UNIX_Event_Semaphore::MillisecondTimer::add("
                      "UNIX_Event_Semaphore::WaitInstance&)",
                      167_place);
  remove(wait);
  const unsigned count = pending_.count();
  if (count == 0 || wait.deadline() < pending_[0]->deadline()) {
    pending_.insertAt(0, &wait);
  } else if (pending_[count - 1]->deadline() <= wait.deadline()) {
    pending_.add(&wait);
  } else {
    unsigned place = 1;
    while (pending_[place]->deadline() < wait.deadline()) {
      ++place;
    }
    pending_.insertAt(place, &wait);
  }
}

void UNIX_Event_Semaphore::MillisecondTimer::remove(WaitInstance& wait) {
  const HeldLock held(lock_,
                      "void UNIX_Event_Semaphore::MillisecondTimer::remove("
                      "UNIX_Event_Semaphore::WaitInstance&)",
                      196_place);
  for (unsigned i = pending_.count(); i > 0; --i) {
    if (pending_[i - 1] == &wait) {
      pending_.removeAt(i - 1);
      return;
    }
  }
}

void UNIX_Event_Semaphore::MillisecondTimer::remove(UNIX_Event_Semaphore& semaphore) {
  const HeldLock held(lock_,
                      "void UNIX_Event_Semaphore::MillisecondTimer::remove(UNIX_Event_Semaphore&)",
                      210_place);
  for (unsigned i = pending_.count(); i > 0; --i) {
    if (pending_[i - 1]->semaphore() == &semaphore) {
      pending_.removeAt(i - 1);
    }
  }
}

void UNIX_Event_Semaphore::MillisecondTimer::copyPending(List<const WaitInstance*>& copy) {
  const HeldLock held(lock_,
                      "void UNIX_Event_Semaphore::MillisecondTimer::copyPending("
                      "List<const UNIX_Event_Semaphore::WaitInstance*>&)",
                      __LINE__);
  for (const WaitInstance* wait : pending_) {
    copy.add(wait);
  }
}

// Returns the milliseconds until the next look.
unsigned int UNIX_Event_Semaphore::MillisecondTimer::expireDue() {
  const HeldLock held(lock_, "virtual void UNIX_Event_Semaphore::MillisecondTimer::run()",
                      230_place);
  const MsecTime now(0);
  // A waiter that wakes up cannot end its wait, or the event, before the lock is free.
  while (!pending_.isEmpty() && pending_[0]->deadline() <= now) {
    pending_[0]->expire();
    pending_.removeAt(0);
  }
  if (pending_.isEmpty()) {
    return longestSleep;
  }
  const auto untilNext =
      static_cast<unsigned int>(pending_[0]->deadline().milliseconds() - now.milliseconds());
  return untilNext < shortestSleep ? shortestSleep : untilNext;
}

void UNIX_Event_Semaphore::MillisecondTimer::run() {
  // A SIGUSR2 that somebody sends to the process may come to any thread of it. Without this one
  // no timed wait would ever end.
  const BlockTermination block;
  sleepFor(shortestSleep);
  for (;;) {
    const unsigned int untilNext = expireDue();
    sleepFor(untilNext < longestSleep ? untilNext : longestSleep);
  }
}
