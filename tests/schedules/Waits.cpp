#include "tests/schedules/Waits.h"

#include <atomic>
#include <cerrno>
#include <ctime>
#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "tests/schedules/Seeds.h"

// Compiled without instrumentation, so that nothing in here is a call of its own.

namespace {

// How threads wait under a seed.
struct Plan {
  unsigned oneOf = 0;         // calls, of which one is a wait; 0: none ever
  unsigned oneOfSlow = 0;     // the same for the threads that are slow
  unsigned slowThreads = 0;   // a thread is slow when its bit, by its number, is set
  unsigned longestSleep = 0;  // microseconds
};

Plan planOf(std::uint64_t seed) noexcept {
  static constexpr unsigned frequencies[] = {2, 8, 32, 128};
  static constexpr unsigned sleeps[] = {1, 20, 100, 300};
  const std::uint64_t bits = mixed(seed);
  Plan plan;
  plan.oneOf = frequencies[bits % 4];
  plan.longestSleep = sleeps[bits / 4 % 4];
  // Every second seed has threads that are much slower than the others.
  plan.slowThreads = bits / 16 % 2 != 0 ? static_cast<unsigned>(bits >> 32U) : 0;
  plan.oneOfSlow = plan.oneOf / 4 + 1;
  return plan;
}

constexpr unsigned firstUnnumbered = 1000;

// Of a thread under one seed; enough to come to its end in any case.
constexpr unsigned mostWaits = 3000;

std::atomic<std::uint64_t> period = 0;  // odd: threads wait
std::uint64_t seedOfPeriod = 0;
Plan plan;
std::atomic<unsigned> nextNumber = firstUnnumbered;
std::atomic<std::uint64_t> calls = 0;
std::atomic<std::uint64_t> waits = 0;
std::atomic<MutexSteps*> steps = nullptr;

struct Thread {
  std::uint64_t period = 0;
  std::uint64_t numberedPeriod = 0;
  std::uint64_t state = 0;
  std::uint64_t calls = 0;
  unsigned number = 0;
  unsigned oneOf = 0;
  unsigned waitsLeft = 0;
};
constinit thread_local Thread own __attribute__((tls_model("initial-exec")));

std::uint64_t draw() noexcept {
  own.state += stepOfSeeds;
  return mixed(own.state);
}

void begin(std::uint64_t present) noexcept {
  if (own.numberedPeriod != present) {
    own.number = nextNumber.fetch_add(1, std::memory_order_relaxed);
  }
  own.period = present;
  own.waitsLeft = mostWaits;
  own.state = mixed(seedOfPeriod ^ mixed(own.number));
  own.oneOf = (plan.slowThreads >> (own.number % 32) & 1U) != 0 ? plan.oneOfSlow : plan.oneOf;
}

void spin(std::uint64_t rounds) noexcept {
  for (; rounds != 0; --rounds) {
    __builtin_ia32_pause();
  }
}

// Not by functions of the C library: no sanitizer knows of these, and no thread ends in them.
__attribute__((noinline)) void wait(std::uint64_t bits) noexcept {
  const int error = errno;
  switch (bits % 4) {
    case 0:
      syscall(SYS_sched_yield);
      break;
    case 1:
    case 2:
      spin(bits / 4 % 256);
      break;
    default: {
      const timespec time = {0, static_cast<long>(1000 * (bits / 4 % plan.longestSleep + 1))};
      syscall(SYS_nanosleep, &time, nullptr);
    }
  }
  errno = error;
  waits.fetch_add(1, std::memory_order_relaxed);
  calls.fetch_add(own.calls, std::memory_order_relaxed);
  own.calls = 0;
}

// A call at which the thread may wait.
inline void waitByChance() noexcept {
  const std::uint64_t present = period.load(std::memory_order_acquire);
  if (present % 2 == 0) {
    return;
  }
  if (own.period != present) {
    begin(present);
  }
  ++own.calls;
  const std::uint64_t bits = draw();
  if (bits % own.oneOf == 0 && own.waitsLeft != 0) {
    --own.waitsLeft;
    wait(bits >> 32U);
  }
}

// Whether a wait for a condition is to end without cause.
bool wakesForNothing() noexcept {
  return period.load(std::memory_order_acquire) % 2 != 0 && own.period != 0 && draw() % 16 == 0;
}

// The function that the name would stand for without this program: a sanitizer's, that of the
// library which watches the order of locks, or the C library's. Without a version, which only the
// last one's have.
template <typename Function>
class Behind {
 public:
  explicit constexpr Behind(const char* name) noexcept : name_(name) {}

  Function* get() noexcept {
    void* function = function_.load(std::memory_order_relaxed);
    if (function == nullptr) [[unlikely]] {
      function = dlsym(RTLD_NEXT, name_);
      function_.store(function, std::memory_order_relaxed);
    }
    return reinterpret_cast<Function*>(function);
  }

 private:
  const char* name_;
  std::atomic<void*> function_ = nullptr;
};

constinit Behind<int(pthread_mutex_t*)> mutexLock("pthread_mutex_lock");
constinit Behind<int(pthread_mutex_t*)> mutexTryLock("pthread_mutex_trylock");
constinit Behind<int(pthread_mutex_t*)> mutexUnlock("pthread_mutex_unlock");
constinit Behind<int(pthread_cond_t*, pthread_mutex_t*)> conditionWait("pthread_cond_wait");
constinit Behind<int(pthread_cond_t*)> conditionSignal("pthread_cond_signal");
constinit Behind<int(pthread_cond_t*)> conditionBroadcast("pthread_cond_broadcast");
constinit Behind<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)> create(
    "pthread_create");

// Before other threads, and children of forks, need them.
__attribute__((constructor)) void findAll() {
  mutexLock.get();
  mutexTryLock.get();
  mutexUnlock.get();
  conditionWait.get();
  conditionSignal.get();
  conditionBroadcast.get();
  create.get();
}

}  // namespace

Waits::Waits(std::uint64_t seed) {
  seedOfPeriod = seed;
  plan = planOf(seed);
  nextNumber = firstUnnumbered;
  period.fetch_add(1, std::memory_order_release);
}

Waits::~Waits() { period.fetch_add(1, std::memory_order_release); }

void Waits::numberThread(unsigned number) noexcept {
  own.number = number;
  own.numberedPeriod = period.load(std::memory_order_acquire);
  own.period = 0;
}

Waits::Counts Waits::counts() noexcept { return {calls.load(), waits.load()}; }

MutexSteps::MutexSteps(const void* mutex, const void* condition) noexcept
    : mutex_(mutex), condition_(condition) {
  steps.store(this, std::memory_order_release);
}

MutexSteps::~MutexSteps() { steps.store(nullptr, std::memory_order_release); }

void MutexSteps::tell(const void* mutex, const void* condition, Step step) noexcept {
  MutexSteps* const present = steps.load(std::memory_order_acquire);
  if (present != nullptr && (mutex == present->mutex_ || condition == present->condition_)) {
    present->take(step);
  }
}

// Under other names than the C library's, whose headers promise that these functions throw
// nothing: a thread that is asked to end leaves its wait by unwinding.
extern "C" {
int lockWithWaits(pthread_mutex_t* mutex) __asm__("pthread_mutex_lock");
int tryLockWithWaits(pthread_mutex_t* mutex) __asm__("pthread_mutex_trylock");
int unlockWithWaits(pthread_mutex_t* mutex) __asm__("pthread_mutex_unlock");
int conditionWaitWithWaits(pthread_cond_t* condition,
                           pthread_mutex_t* mutex) __asm__("pthread_cond_wait");
int signalWithWaits(pthread_cond_t* condition) __asm__("pthread_cond_signal");
int broadcastWithWaits(pthread_cond_t* condition) __asm__("pthread_cond_broadcast");
int createWithWaits(pthread_t* id, const pthread_attr_t* attributes, void* (*entry)(void*),
                    void* argument) __asm__("pthread_create");

int lockWithWaits(pthread_mutex_t* mutex) {
  waitByChance();
  return mutexLock.get()(mutex);
}

int tryLockWithWaits(pthread_mutex_t* mutex) {
  waitByChance();
  return mutexTryLock.get()(mutex);
}

int unlockWithWaits(pthread_mutex_t* mutex) {
  MutexSteps::tell(mutex, nullptr, MutexSteps::Step::unlocks);
  waitByChance();
  return mutexUnlock.get()(mutex);
}

int conditionWaitWithWaits(pthread_cond_t* condition, pthread_mutex_t* mutex) {
  MutexSteps::tell(mutex, nullptr, MutexSteps::Step::waits);
  waitByChance();
  if (wakesForNothing()) {
    mutexUnlock.get()(mutex);
    waitByChance();
    return mutexLock.get()(mutex);
  }
  return conditionWait.get()(condition, mutex);
}

int signalWithWaits(pthread_cond_t* condition) {
  waitByChance();
  return conditionSignal.get()(condition);
}

int broadcastWithWaits(pthread_cond_t* condition) {
  MutexSteps::tell(nullptr, condition, MutexSteps::Step::broadcasts);
  waitByChance();
  return conditionBroadcast.get()(condition);
}

int createWithWaits(pthread_t* id, const pthread_attr_t* attributes, void* (*entry)(void*),
                    void* argument) {
  waitByChance();
  const int result = create.get()(id, attributes, entry, argument);
  waitByChance();
  return result;
}
}

#if defined(CUL_ATOMICS_OF_SANITIZER) || defined(CUL_ATOMICS_OF_OUR_OWN)

using Byte = unsigned char;
using Two = unsigned short;
using Four = unsigned int;
using Eight = unsigned long;

#if defined(CUL_ATOMICS_OF_SANITIZER)

// The sanitizer takes the place of an operation from the return address: its function is called
// last, as a jump.
#define CUL_ATOMIC(Result, name, parameters, operation, ...)                \
  static constinit Behind<Result parameters> name##_(#name);                \
  __attribute__((constructor)) static void find_##name() { name##_.get(); } \
  extern "C" Result name parameters {                                       \
    waitByChance();                                                         \
    return name##_.get()(__VA_ARGS__);                                      \
  }

#else

// The compiler's operations take an order that is known when it compiles. Those that are
// stronger than what was asked for cost nothing here, but for stores.
#define CUL_ATOMIC(Result, name, parameters, operation, ...) \
  extern "C" Result name parameters {                        \
    waitByChance();                                          \
    operation;                                               \
  }

// Reads, writes and calls, which the sanitizer would look at.
#define CUL_LOOKED_AT(name, parameters) \
  extern "C" void name parameters {}
#define CUL_SIZES(name)           \
  CUL_LOOKED_AT(name##1, (void*)) \
  CUL_LOOKED_AT(name##2, (void*)) \
  CUL_LOOKED_AT(name##4, (void*)) \
  CUL_LOOKED_AT(name##8, (void*)) \
  CUL_LOOKED_AT(name##16, (void*))
CUL_SIZES(__tsan_read)
CUL_SIZES(__tsan_write)
CUL_SIZES(__tsan_unaligned_read)
CUL_SIZES(__tsan_unaligned_write)
CUL_LOOKED_AT(__tsan_read_range, (void*, unsigned long))
CUL_LOOKED_AT(__tsan_write_range, (void*, unsigned long))
CUL_LOOKED_AT(__tsan_vptr_update, (void**, void*))
CUL_LOOKED_AT(__tsan_vptr_read, (void**))
CUL_LOOKED_AT(__tsan_func_entry, (void*))
CUL_LOOKED_AT(__tsan_func_exit, ())
CUL_LOOKED_AT(__tsan_init, ())

#endif

#define CUL_ATOMICS(bits, T)                                                                  \
  CUL_ATOMIC(T, __tsan_atomic##bits##_load, (const volatile T* place, int order),             \
             static_cast<void>(order);                                                        \
             return __atomic_load_n(place, __ATOMIC_SEQ_CST), place, order)                   \
  CUL_ATOMIC(void, __tsan_atomic##bits##_store, (volatile T * place, T value, int order),     \
             if (order == __ATOMIC_SEQ_CST) __atomic_store_n(place, value, __ATOMIC_SEQ_CST); \
             else __atomic_store_n(place, value, __ATOMIC_RELEASE), place, value, order)      \
  CUL_ATOMIC(T, __tsan_atomic##bits##_exchange, (volatile T * place, T value, int order),     \
             static_cast<void>(order);                                                        \
             return __atomic_exchange_n(place, value, __ATOMIC_SEQ_CST), place, value, order) \
  CUL_ATOMIC_FETCH(bits, T, add)                                                              \
  CUL_ATOMIC_FETCH(bits, T, sub)                                                              \
  CUL_ATOMIC_FETCH(bits, T, and)                                                              \
  CUL_ATOMIC_FETCH(bits, T, or)                                                               \
  CUL_ATOMIC_FETCH(bits, T, xor)                                                              \
  CUL_ATOMIC_FETCH(bits, T, nand)                                                             \
  CUL_ATOMIC_COMPARE(bits, T, strong)                                                         \
  CUL_ATOMIC_COMPARE(bits, T, weak)                                                           \
  CUL_ATOMIC(T, __tsan_atomic##bits##_compare_exchange_val,                                   \
             (volatile T * place, T expected, T desired, int order, int failed),              \
             static_cast<void>(order + failed);                                               \
             __atomic_compare_exchange_n(place, &expected, desired, false, __ATOMIC_SEQ_CST,  \
                                         __ATOMIC_SEQ_CST);                                   \
             return expected, place, expected, desired, order, failed)
#define CUL_ATOMIC_FETCH(bits, T, what)                                                       \
  CUL_ATOMIC(T, __tsan_atomic##bits##_fetch_##what, (volatile T * place, T value, int order), \
             static_cast<void>(order);                                                        \
             return __atomic_fetch_##what(place, value, __ATOMIC_SEQ_CST), place, value, order)
#define CUL_ATOMIC_COMPARE(bits, T, kind)                                                          \
  CUL_ATOMIC(int, __tsan_atomic##bits##_compare_exchange_##kind,                                   \
             (volatile T * place, T * expected, T desired, int order, int failed),                 \
             static_cast<void>(order + failed);                                                    \
             return __atomic_compare_exchange_n(place, expected, desired, false, __ATOMIC_SEQ_CST, \
                                                __ATOMIC_SEQ_CST),                                 \
                    place, expected, desired, order, failed)

CUL_ATOMICS(8, Byte)
CUL_ATOMICS(16, Two)
CUL_ATOMICS(32, Four)
CUL_ATOMICS(64, Eight)
CUL_ATOMIC(void, __tsan_atomic_thread_fence, (int order), static_cast<void>(order);
           __atomic_thread_fence(__ATOMIC_SEQ_CST), order)
CUL_ATOMIC(void, __tsan_atomic_signal_fence, (int order), static_cast<void>(order);
           __atomic_signal_fence(__ATOMIC_SEQ_CST), order)

#endif
