#include "Engine/internal/RequestToEnd.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <sys/syscall.h>
#include <unistd.h>

#include "Engine/internal/DivertedReturn.h"
#include "Engine/internal/HoldRequests.h"

namespace {

constinit thread_local RequestToEnd request __attribute__((tls_model("initial-exec")));

constexpr std::uint64_t nanosecondsPerSecond = 1000000000;

// How long, and how many looks, only certain places will do.
constexpr std::uint64_t patience = nanosecondsPerSecond / 20;
constexpr unsigned enoughLooks = 64;

std::uint64_t now() noexcept {
  timespec time = {};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<std::uint64_t>(time.tv_sec) * nanosecondsPerSecond +
         static_cast<std::uint64_t>(time.tv_nsec);
}

std::uintptr_t registerOf(const ucontext_t& context, int number) noexcept {
  return static_cast<std::uintptr_t>(context.uc_mcontext.gregs[number]);
}

}  // namespace

constinit thread_local bool requestIsPending = false;

RequestToEnd& RequestToEnd::own() noexcept { return request; }

bool RequestToEnd::canEndInHandler() {
  const ucontext_t* const context = context_;
  context_ = nullptr;
  if (context != nullptr) {
    const std::uintptr_t instruction = registerOf(*context, REG_RIP);
    if (isDivertedReturn(instruction)) {
      return false;  // about to end
    }
    const std::uintptr_t stackPointer = registerOf(*context, REG_RSP);
    restingAttempts_ = stackPointer == restsAt_ ? restingAttempts_ + 1 : 0;
    restsAt_ = stackPointer;
    // NOLINTNEXTLINE(performance-no-int-to-ptr): registers are numbers.
    if (!canLookFrom(reinterpret_cast<const void*>(instruction))) {
      return false;
    }
  }
  const WayOut way = findWayOut(entryFrame_);
  // An unwinder that the signal has interrupted may have read the diverted address already, so
  // the address is put back only when its call is not there any more.
  if (divertedPlace_ != nullptr &&
      (*divertedPlace_ != diversionPlace(diversion_) || (way.sawAll && !way.sawDiversion))) {
    undivert();
  }
  // A look that ends at code without unwind information tells nothing: what dlopen() starts a
  // library with has none.
  if (!requestIsPending || (way.sawAll && way.anchor != anchor_)) {
    anchor_ = way.anchor;
    since_ = now();
    looks_ = 0;
  }
  looks_ += way.sawAll ? 1 : 0;
  usesRuntimeLocks_ = usesRuntimeLocks_ || way.usesRuntimeLocks;
  const bool isPossible =
      way.isCertain || (looks_ >= enoughLooks && now() - since_ >= patience &&
                        LocksHeld::count() == 0 && (!usesRuntimeLocks_ || way.unlocks));
  if (way.kind == WayOut::Kind::atReturn && isPossible && divertedPlace_ == nullptr) {
    divert(way);
  }
  return way.kind == WayOut::Kind::here && isPossible && HoldRequests::level() == 0;
}

bool RequestToEnd::canEndInCall() const {
  return !isTooLate_ && task_ == gettid() && HoldRequests::level() == 0 &&
         canLeaveCall(entryFrame_);
}

bool RequestToEnd::canEndAtReturn() noexcept {
  undivert();
  // The call may have taken a lock; and a child of a fork without handlers was not asked.
  return requestIsPending && !isTooLate_ && task_ == gettid() && HoldRequests::level() == 0 &&
         (divertedIsCertain_ || LocksHeld::count() == 0);
}

void RequestToEnd::dispose(void* result) const noexcept {
  switch (divertedResult_) {
    case WayOut::Result::memory:
      return std::free(result);
    case WayOut::Result::object:
      return ::operator delete(result);
    case WayOut::Result::array:
      return ::operator delete[](result);
    case WayOut::Result::unknown:
      return;
  }
}

void RequestToEnd::undivert() noexcept {
  if (divertedPlace_ == nullptr) {
    return;
  }
  // Overwritten: the call has returned or was left by an exception.
  if (*divertedPlace_ == diversionPlace(diversion_)) {
    *divertedPlace_ = __atomic_load_n(&divertedFrom[diversion_], __ATOMIC_RELAXED);
  }
  divertedPlace_ = nullptr;
  __atomic_store_n(&divertedFrom[diversion_], 0, __ATOMIC_RELEASE);
}

// Does nothing when all places are in use: the next look may find one.
void RequestToEnd::divert(const WayOut& way) noexcept {
  static constinit std::atomic<std::size_t> next = 0;
  for (std::size_t i = 0; i < diversionCount; ++i) {
    diversion_ = next.fetch_add(1, std::memory_order_relaxed) % diversionCount;
    std::uintptr_t unused = 0;
    if (__atomic_compare_exchange_n(&divertedFrom[diversion_], &unused, *way.returnAddress, false,
                                    __ATOMIC_ACQ_REL, __ATOMIC_RELAXED)) {
      divertedPlace_ = way.returnAddress;
      divertedResult_ = way.result;
      divertedIsCertain_ = way.isCertain;
      *way.returnAddress = diversionPlace(diversion_);
      return;
    }
  }
}

// The C library's timer_create() is not promised to be safe in a signal handler, the system
// calls are.
void RequestToEnd::putOff() noexcept {
  ++attempts_;
  requestIsPending = true;
  task_ = gettid();
  if (!hasTimer_) {
    sigevent event = {};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = SIGUSR2;
    event._sigev_un._tid = task_;
    hasTimer_ = syscall(SYS_timer_create, CLOCK_MONOTONIC, &event, &timer_) == 0;
  }
  if (hasTimer_) {
    constexpr unsigned hastyAttempts = 64;
    constexpr long soon = 60000;  // nanoseconds
    constexpr long later = 1000000;
    constexpr unsigned longestRest = 4;
    // Never in step with what the thread does.
    const long jitter = attempts_ * 7919L % soon;
    const long pause =
        attempts_ < hastyAttempts ? soon : later << std::min(restingAttempts_, longestRest);
    const itimerspec delay = {{0, 0}, {0, pause + jitter}};
    syscall(SYS_timer_settime, timer_, 0, &delay, nullptr);
  }
}

void RequestToEnd::drop() noexcept {
  undivert();
  requestIsPending = false;
  attempts_ = 0;
  usesRuntimeLocks_ = false;
  if (hasTimer_) {
    hasTimer_ = false;
    syscall(SYS_timer_delete, timer_);
  }
}

void RequestToEnd::dropInChild() noexcept {
  hasTimer_ = false;  // a child has none of its parent's timers
  drop();
  // Nor its threads.
  for (std::uintptr_t& address : divertedFrom) {
    __atomic_store_n(&address, 0, __ATOMIC_RELEASE);
  }
}

const ucontext_t* interruptedBy(const void* returnAddress, const void* frame) noexcept {
  // mov $15, %rax; syscall: back from a signal. The record lies above the return address.
  constexpr unsigned char backFromSignal[] = {0x48, 0xc7, 0xc0, 0x0f, 0, 0, 0, 0x0f, 0x05};
  constexpr std::size_t frameSize = 16;
  return std::memcmp(returnAddress, backFromSignal, sizeof backFromSignal) == 0
             ? reinterpret_cast<const ucontext_t*>(static_cast<const char*>(frame) + frameSize)
             : nullptr;
}
