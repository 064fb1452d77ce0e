#include <algorithm>
#include <array>
#include <csetjmp>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <iterator>
#include <pthread.h>
#include <string_view>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

/// \file
/// Watches the order in which a process takes its mutexes. Loaded before all other libraries, by
/// LD_PRELOAD; tests/CMakeLists.txt has it loaded for the tests of the plain build.
///
/// A mutex that is taken while another one is held comes behind that one. When the other way round
/// has been seen before, over any number of mutexes in between, two threads could wait for each
/// other for ever: the process tells of it, with the places, and aborts.
///
/// Mutexes that were made at the same place are of one kind, and the order is one of kinds, so that
/// two threads need not meet at the same objects. One that nobody has made, as it is initialized by
/// a constant, is a kind of its own when it is a module's; on a stack or on the heap it is left
/// alone, since nobody tells when it has gone. So is the order among mutexes of one kind.
///
/// What the library writes down of its order, in its handlers of forks, takes part: at a process's
/// end they are called as for a fork, and take all locks of the process in that order.
///
/// A process in which locks fail on purpose calls watchNoLocks(), and is watched no more. One with
/// more kinds, orders or mutexes than there is place for is told of and aborts, too: no process is
/// watched in part.
///
/// CUL_LOCK_ORDER_LOG names a file to which each process adds what it has to tell, and at its end a
/// line about what it has seen and whether it could take its locks in the order written down.

namespace {

// The function that the name stands for without this library.
template <typename Function>
class Behind {
 public:
  explicit constexpr Behind(const char* name) noexcept : name_(name) {}

  Function* get() noexcept {
    void* function = __atomic_load_n(&function_, __ATOMIC_RELAXED);
    if (function == nullptr) {
      function = dlsym(RTLD_NEXT, name_);
      __atomic_store_n(&function_, function, __ATOMIC_RELAXED);
    }
    return reinterpret_cast<Function*>(function);
  }

 private:
  const char* name_;
  void* function_ = nullptr;
};

using Handler = void (*)();
constinit Behind<int(pthread_mutex_t*, const pthread_mutexattr_t*)> mutexInit("pthread_mutex_init");
constinit Behind<int(pthread_mutex_t*)> mutexDestroy("pthread_mutex_destroy");
constinit Behind<int(pthread_mutex_t*)> mutexLock("pthread_mutex_lock");
constinit Behind<int(pthread_mutex_t*)> mutexTryLock("pthread_mutex_trylock");
constinit Behind<int(pthread_mutex_t*)> mutexUnlock("pthread_mutex_unlock");
constinit Behind<int(pthread_cond_t*, pthread_mutex_t*)> conditionWait("pthread_cond_wait");
constinit Behind<int(Handler, Handler, Handler, void*)> registerAtFork("__register_atfork");

// Places in code, the innermost call first.
constexpr std::size_t depthOfKinds = 3;
constexpr std::size_t depthOfOrders = 8;
template <std::size_t depth>
using Place = std::array<void*, depth>;

struct Kind {
  Place<depthOfKinds> made = {};
  const void* mutex = nullptr;  // of one that nobody has made
};

struct Order {
  unsigned first = 0;
  unsigned second = 0;
  Place<depthOfOrders> taken = {};
};

// Where a mutex of which kind lies.
struct Mutex {
  const void* address = nullptr;
  unsigned kind = 0;
};

constexpr unsigned mostKinds = 1024;
constexpr unsigned mostOrders = 4096;
constexpr unsigned mostMutexes = 1U << 16U;
constexpr unsigned noKind = mostKinds;  // of what is left alone

// All of these are used inside of an Inside.
constinit Kind kinds[mostKinds];
constinit unsigned kindsSeen = 0;
constinit Order orders[mostOrders];
constinit unsigned ordersSeen = 0;
constinit bool isBefore[mostKinds][mostKinds];
constinit Mutex mutexes[mostMutexes];  // by their addresses; a place once used stays that address's
constinit unsigned mutexesSeen = 0;
constinit bool isOver = false;  // nothing more is watched

constinit int guard = 0;
constinit thread_local bool isInside __attribute__((tls_model("initial-exec"))) = false;

void enter() noexcept {
  isInside = true;
  while (__atomic_exchange_n(&guard, 1, __ATOMIC_ACQUIRE) != 0) {
    syscall(SYS_sched_yield);
  }
}

void leave() noexcept {
  __atomic_store_n(&guard, 0, __ATOMIC_RELEASE);
  isInside = false;
}

// False for a signal handler that has interrupted its own thread inside.
class Inside {
 public:
  Inside() noexcept : hasEntered_(!isInside) {
    if (hasEntered_) {
      enter();
    }
  }
  Inside(const Inside&) = delete;
  Inside& operator=(const Inside&) = delete;
  ~Inside() {
    if (hasEntered_) {
      leave();
    }
  }
  explicit operator bool() const noexcept { return hasEntered_ && !isOver; }

 private:
  bool hasEntered_;
};

// The mutexes that the calling thread has, in the order in which it took them.
struct Held {
  static constexpr unsigned most = 64;
  const void* mutexes[most];
  unsigned count;
};
constinit thread_local Held held __attribute__((tls_model("initial-exec"))) = {};

// The module that code or data lies in.
class Module {
 public:
  explicit Module(const void* address) noexcept {
    _dl_find_object(const_cast<void*>(address), &found_);
  }
  bool has(const void* address) const noexcept {
    return address >= found_.dlfo_map_start && address < found_.dlfo_map_end;
  }

 private:
  dl_find_object found_ = {};
};

// The library's handlers of forks.
constinit Handler takeAll = nullptr;
constinit Handler giveAll = nullptr;

// Without the calls of this library and, where the library under test has called, of what tests
// have put in between.
template <std::size_t depth>
__attribute__((noinline)) Place<depth> placeOfCaller() noexcept {
  constexpr std::size_t own = 16;
  void* frames[depth + own] = {};
  void** const end = frames + backtrace(frames, static_cast<int>(std::size(frames)));
  const Module here(&mutexes);
  void** first = std::find_if(frames, end, [&here](void* frame) { return !here.has(frame); });
  const Module library(reinterpret_cast<const void*>(takeAll));
  void** const most = std::min(first + depthOfKinds, end);
  if (void** const called =
          std::find_if(first, most, [&library](void* frame) { return library.has(frame); });
      called != most) {
    first = called;
  }
  Place<depth> place = {};
  std::copy(first, std::min(first + depth, end), place.begin());
  return place;
}

// Adds to the log. A process that must not write files, and is told so by a signal, does not.
void log(std::string_view text) noexcept {
  const char* const name = std::getenv("CUL_LOCK_ORDER_LOG");
  const int file =
      name != nullptr ? open(name, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666) : -1;
  rlimit limit = {};
  if (file >= 0 && getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur == RLIM_INFINITY) {
    const ssize_t written = write(file, text.data(), text.size());
    static_cast<void>(written);
  }
  if (file >= 0) {
    close(file);
  }
}

// Says it on standard error and in the log.
void say(const char* format, ...) noexcept __attribute__((format(printf, 1, 2)));
void say(const char* format, ...) noexcept {
  char text[1024];
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  const std::size_t n = std::min(static_cast<std::size_t>(length), sizeof text - 1);
  const ssize_t written = write(STDERR_FILENO, text, n);
  static_cast<void>(written);
  log({text, n});
}

[[noreturn]] void abortNow() noexcept {
  std::signal(SIGABRT, SIG_DFL);
  std::abort();
}

// Ends a process that could be watched in part only.
[[noreturn]] void tellOfTooMany(unsigned most, const char* what) noexcept {
  say("lock order: process %d has more than %u %s, which cannot be watched\n", getpid(), most,
      what);
  abortNow();
}

unsigned addKind(const Kind& kind) noexcept {
  if (kindsSeen == mostKinds) {
    tellOfTooMany(mostKinds, "kinds of mutexes");
  }
  kinds[kindsSeen] = kind;
  return kindsSeen++;
}

unsigned kindMadeAt(const Place<depthOfKinds>& place) noexcept {
  for (unsigned i = 0; i < kindsSeen; ++i) {
    if (kinds[i].mutex == nullptr && kinds[i].made == place) {
      return i;
    }
  }
  return addKind({place, nullptr});
}

Mutex& entryOf(const void* address) noexcept {
  const auto number = reinterpret_cast<std::uintptr_t>(address) >> 3U;
  auto at = static_cast<unsigned>(number * 0x9E3779B97F4A7C15U >> 48U) % mostMutexes;
  while (mutexes[at].address != nullptr && mutexes[at].address != address) {
    at = (at + 1) % mostMutexes;
  }
  if (mutexes[at].address == nullptr) {
    if (mutexesSeen == mostMutexes / 2) {
      tellOfTooMany(mostMutexes / 2, "places of mutexes");
    }
    ++mutexesSeen;
    mutexes[at] = {address, noKind};
    dl_find_object module = {};
    if (_dl_find_object(const_cast<void*>(address), &module) == 0) {
      mutexes[at].kind = addKind({{}, address});
    }
  }
  return mutexes[at];
}

unsigned kindOf(const void* address) noexcept { return entryOf(address).kind; }

template <std::size_t depth>
void sayPlace(const Place<depth>& place) noexcept {
  for (void* const frame : place) {
    Dl_info info = {};
    if (frame != nullptr && dladdr(frame, &info) != 0) {
      say("    %s+%#tx %s\n", info.dli_fname,
          static_cast<char*>(frame) - static_cast<char*>(info.dli_fbase),
          info.dli_sname != nullptr ? info.dli_sname : "");
    }
  }
}

void sayKind(unsigned number) noexcept {
  const Kind& kind = kinds[number];
  Dl_info info = {};
  if (kind.mutex == nullptr) {
    say("  mutex %u, made at\n", number);
    sayPlace(kind.made);
  } else if (dladdr(kind.mutex, &info) != 0) {
    say("  mutex %u, which is %s+%#tx\n", number, info.dli_fname,
        static_cast<const char*>(kind.mutex) - static_cast<char*>(info.dli_fbase));
  }
}

// The way from one kind to another over the orders seen.
struct Way {
  bool isVisited[mostKinds] = {};
  unsigned kinds[mostKinds] = {};
  unsigned length = 0;

  bool find(unsigned from, unsigned to) noexcept {
    kinds[length++] = from;
    isVisited[from] = true;
    if (from == to) {
      return true;
    }
    for (unsigned next = 0; next < kindsSeen; ++next) {
      if (isBefore[from][next] && !isVisited[next] && find(next, to)) {
        return true;
      }
    }
    --length;
    return false;
  }
};

[[noreturn]] void tellAndAbort(const Way& way, const Place<depthOfOrders>& taken) noexcept {
  const unsigned first = way.kinds[way.length - 1];
  const unsigned second = way.kinds[0];
  say("lock order: two threads could wait for each other; process %d takes\n", getpid());
  sayKind(second);
  say("  while it has\n");
  sayKind(first);
  say("  at\n");
  sayPlace(taken);
  for (unsigned i = 0; i + 1 < way.length; ++i) {
    say("  and has taken, while it had mutex %u,\n", way.kinds[i]);
    sayKind(way.kinds[i + 1]);
    say("  at\n");
    for (unsigned j = 0; j < ordersSeen; ++j) {
      if (orders[j].first == way.kinds[i] && orders[j].second == way.kinds[i + 1]) {
        sayPlace(orders[j].taken);
      }
    }
  }
  abortNow();
}

void addOrder(unsigned first, unsigned second) noexcept {
  if (first == noKind || second == noKind || first == second || isBefore[first][second]) {
    return;
  }
  const Place<depthOfOrders> taken = placeOfCaller<depthOfOrders>();
  static constinit Way way;
  way = {};
  if (way.find(second, first)) {
    tellAndAbort(way, taken);
  }
  if (ordersSeen == mostOrders) {
    tellOfTooMany(mostOrders, "orders of two kinds of mutexes");
  }
  isBefore[first][second] = true;
  orders[ordersSeen++] = {first, second, taken};
}

bool isHeld(const void* mutex) noexcept {
  const void** const end = held.mutexes + held.count;
  return std::find(held.mutexes, end, mutex) != end;
}

// A mutex comes behind all others that the calling thread has.
void noteBehindOthers(const void* mutex) noexcept {
  if (held.count == 0) {
    return;
  }
  const Inside inside;
  if (!inside) {
    return;
  }
  const unsigned kind = kindOf(mutex);
  for (unsigned i = 0; i < held.count; ++i) {
    if (held.mutexes[i] != mutex) {
      addOrder(kindOf(held.mutexes[i]), kind);
    }
  }
}

// The calling thread is about to wait for a mutex. Who only tries for one, or has it already, does
// not wait.
void noteWait(const void* mutex) noexcept {
  if (!isHeld(mutex)) {
    noteBehindOthers(mutex);
  }
}

void noteTaken(const void* mutex) noexcept {
  if (held.count == Held::most) {
    if (isOver) {
      return;
    }
    tellOfTooMany(Held::most, "mutexes that one thread has");
  }
  held.mutexes[held.count++] = mutex;
}

// A plain mutex may be given back by another thread than the one that took it.
void noteGiven(const void* mutex) noexcept {
  const void** const end = held.mutexes + held.count;
  const void** const last =
      std::find(std::make_reverse_iterator(end), std::make_reverse_iterator(held.mutexes), mutex)
          .base();
  if (last != held.mutexes) {
    std::copy(last, end, last - 1);
    --held.count;
  }
}

void noteMade(const void* mutex) noexcept {
  const Inside inside;
  if (inside) {
    entryOf(mutex).kind = kindMadeAt(placeOfCaller<depthOfKinds>());
  }
}

void noteGone(const void* mutex) noexcept {
  const Inside inside;
  if (inside) {
    entryOf(mutex).kind = noKind;
  }
}

// Whether the calling thread calls them at the end of the process, when nobody may give back what
// he has any more. Then it does not wait long.
constinit thread_local bool isEnding __attribute__((tls_model("initial-exec"))) = false;
sigjmp_buf wayOut;

int takeAtEnd(pthread_mutex_t* mutex) noexcept {
  constexpr unsigned attempts = 200;
  for (unsigned i = 0; i < attempts; ++i) {
    if (mutexTryLock.get()(mutex) == 0) {
      noteTaken(mutex);
      return 0;
    }
    const timespec millisecond = {0, 1000000};
    syscall(SYS_nanosleep, &millisecond, nullptr);
  }
  siglongjmp(wayOut, 1);
}

// Takes the locks of the process in the order that is written down, and says how that went. What
// has been taken when one cannot be had is given back.
const char* takeInTheOrderWrittenDown() {
  if (takeAll == nullptr) {
    return "no library";
  }
  if (held.count != 0) {
    return "ended with a lock";
  }
  isEnding = true;
  const bool hasAll = sigsetjmp(wayOut, 0) == 0;
  if (hasAll) {
    takeAll();
  }
  isEnding = false;
  giveAll();
  return hasAll ? "written order" : "ended beside a lock";
}

void endProcess() {
  const char* const end = takeInTheOrderWrittenDown();
  char text[128];
  const int n =
      std::snprintf(text, sizeof text, "process %d: %u kinds, %u orders, %s%s\n", getpid(),
                    kindsSeen, ordersSeen, end, isOver ? ", not all is watched" : "");
  log({text, static_cast<std::size_t>(n)});
}

// A process is forked between two steps of its threads in here; the child goes on from there.
constinit thread_local bool isForking __attribute__((tls_model("initial-exec"))) = false;

void beginFork() {
  if (!isInside) {
    enter();
    isForking = true;
  }
}

void endFork() {
  if (isForking) {
    isForking = false;
    leave();
  }
}

// Before any others, since all that they take is to be seen: what comes first is called last before
// a fork, and first behind it.
void addOwnForkHandlers() {
  static constinit bool isDone = false;
  if (!isDone) {
    isDone = true;
    registerAtFork.get()(beginFork, endFork, endFork, nullptr);
  }
}

__attribute__((constructor)) void beginProcess() {
  // Later on, a look for a function would disturb what the program hears of its own.
  mutexInit.get();
  mutexDestroy.get();
  mutexLock.get();
  mutexTryLock.get();
  mutexUnlock.get();
  conditionWait.get();
  void* frames[1];
  backtrace(frames, 1);  // loads what it needs
  addOwnForkHandlers();
  std::atexit(endProcess);
}

bool isOfLibrary(Handler handler) noexcept {
  Dl_info info = {};
  return dladdr(reinterpret_cast<void*>(handler), &info) != 0 &&
         std::strstr(info.dli_fname, "/libcul.so") != nullptr;
}

}  // namespace

// Under other names than the C library's, whose headers promise that these functions throw nothing:
// a thread that is asked to end leaves its wait by unwinding.
#define CUL_INSTEAD_OF(name) __asm__(#name) __attribute__((visibility("default")))
extern "C" {
void watchNoLocks();

int makeMutex(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes)
    CUL_INSTEAD_OF(pthread_mutex_init);
int destroyMutex(pthread_mutex_t* mutex) CUL_INSTEAD_OF(pthread_mutex_destroy);
int lockMutex(pthread_mutex_t* mutex) CUL_INSTEAD_OF(pthread_mutex_lock);
int tryToLockMutex(pthread_mutex_t* mutex) CUL_INSTEAD_OF(pthread_mutex_trylock);
int unlockMutex(pthread_mutex_t* mutex) CUL_INSTEAD_OF(pthread_mutex_unlock);
int waitForCondition(pthread_cond_t* condition, pthread_mutex_t* mutex)
    CUL_INSTEAD_OF(pthread_cond_wait);
int addForkHandlers(Handler prepare, Handler parent, Handler child, void* module)
    CUL_INSTEAD_OF(__register_atfork);

void watchNoLocks() { isOver = true; }

int makeMutex(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
  noteMade(mutex);
  return mutexInit.get()(mutex, attributes);
}

int destroyMutex(pthread_mutex_t* mutex) {
  noteGone(mutex);
  return mutexDestroy.get()(mutex);
}

int lockMutex(pthread_mutex_t* mutex) {
  noteWait(mutex);
  if (isEnding) {
    return takeAtEnd(mutex);
  }
  const int result = mutexLock.get()(mutex);
  if (result == 0) {
    noteTaken(mutex);
  }
  return result;
}

int tryToLockMutex(pthread_mutex_t* mutex) {
  const int result = mutexTryLock.get()(mutex);
  if (result == 0) {
    noteTaken(mutex);
  }
  return result;
}

int unlockMutex(pthread_mutex_t* mutex) {
  noteGiven(mutex);
  return mutexUnlock.get()(mutex);
}

// The mutex is taken again behind all others that the thread has.
int waitForCondition(pthread_cond_t* condition, pthread_mutex_t* mutex) {
  noteBehindOthers(mutex);
  return conditionWait.get()(condition, mutex);
}

int addForkHandlers(Handler prepare, Handler parent, Handler child, void* module) {
  if (prepare != nullptr && parent != nullptr && isOfLibrary(prepare)) {
    takeAll = prepare;
    giveAll = parent;
  }
  addOwnForkHandlers();
  return registerAtFork.get()(prepare, parent, child, module);
}
}
