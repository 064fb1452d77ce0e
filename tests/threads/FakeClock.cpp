#include "tests/threads/FakeClock.h"

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <sys/time.h>
#include <unistd.h>
#include <utility>

#include "Engine/utilities/StdThread.h"

#include "tests/support/StandIn.h"

namespace {

constexpr std::uint64_t million = 1000000;

constinit thread_local std::uint64_t stillClock = 0;  // in microseconds; 0: goes on

constinit std::atomic<std::uint64_t> clockOfAll = 0;  // the same, for all threads
constinit std::atomic<unsigned> timersReadings = 0;

constinit std::atomic<bool> isTimerQuick = false;

// Found out at the first sleep, when there are no locks that a test counts.
constinit thread_local bool isTimerThread = false;

bool findOutThread() {
  if (!isTimerThread) {
    const unsigned char* name = StdThread::currentThread()->name();
    isTimerThread = std::strcmp(reinterpret_cast<const char*>(name), "msecTimer") == 0;
  }
  return isTimerThread;
}

// The conversation with the timer thread.
struct Steps {
  std::mutex mutex;
  std::condition_variable condition;
  bool isInHand = false;
  bool isAsleep = false;
  unsigned microseconds = 0;
  std::function<void()> first;
};

// Never destroyed: the timer thread outlives everything.
Steps& steps() {
  static Steps* const only = new Steps;
  return *only;
}

// Whether the sleep was one of the timer thread in hand; it is over then.
bool sleepInHand(unsigned microseconds) {
  std::function<void()> first;
  {
    std::unique_lock guard(steps().mutex);
    if (!steps().isInHand) {
      return false;
    }
    if (!findOutThread()) {
      return false;
    }
    steps().microseconds = microseconds;
    steps().isAsleep = true;
    steps().condition.notify_all();
    steps().condition.wait(guard, [] { return !steps().isAsleep; });
    first = std::exchange(steps().first, nullptr);
  }
  if (first) {
    first();
  }
  return true;
}

}  // namespace

StillClock::StillClock(std::uint64_t microseconds) { stillClock = microseconds; }

StillClock::~StillClock() { stillClock = 0; }

QuickTimer::QuickTimer() { isTimerQuick = true; }

QuickTimer::~QuickTimer() { isTimerQuick = false; }

TimerInHand::TimerInHand(std::uint64_t milliseconds) {
  setClock(milliseconds);
  const std::lock_guard guard(steps().mutex);
  steps().isInHand = true;
}

TimerInHand::~TimerInHand() {
  clockOfAll = 0;
  const std::lock_guard guard(steps().mutex);
  steps().isInHand = false;
  steps().isAsleep = false;
  steps().condition.notify_all();
}

void TimerInHand::setClock(std::uint64_t milliseconds) { clockOfAll = milliseconds * 1000; }

unsigned TimerInHand::sleep() {
  std::unique_lock guard(steps().mutex);
  steps().condition.wait(guard, [] { return steps().isAsleep; });
  return steps().microseconds;
}

void TimerInHand::wake(std::function<void()> first) {
  sleep();
  const std::lock_guard guard(steps().mutex);
  steps().first = std::move(first);
  steps().isAsleep = false;
  steps().condition.notify_all();
}

unsigned TimerInHand::clockReadings() { return timersReadings; }

CUL_DEFINE_STAND_IN(int, gettimeofday, (timeval*, void*))
extern "C" int gettimeofday(timeval* time, void* zone) noexcept {
  std::uint64_t now = stillClock;
  if (now == 0) {
    now = clockOfAll;
    if (now != 0 && isTimerThread) {
      ++timersReadings;
    }
  }
  if (now == 0) {
    return gettimeofdayStandIn.real(time, zone);
  }
  time->tv_sec = static_cast<time_t>(now / million);
  time->tv_usec = static_cast<suseconds_t>(now % million);
  return 0;
}

CUL_DEFINE_STAND_IN(int, usleep, (useconds_t))
extern "C" int usleep(useconds_t microseconds) {
  if (sleepInHand(microseconds)) {
    return 0;
  }
  if (isTimerQuick && findOutThread()) {
    microseconds /= 10;
  }
  return usleepStandIn.real(microseconds);
}
