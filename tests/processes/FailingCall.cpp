#include "tests/processes/FailingCall.h"

#include <cstdarg>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <utility>

#include <gtest/gtest.h>

#include "tests/support/StandIn.h"

namespace {

constexpr unsigned mostFailures = 8;
constexpr unsigned mostRecords = 1024;

// In static storage: the calls come before main, in signal handlers and in forked children.
constinit std::atomic<unsigned> recordedKinds = 0;  // A bit for each LibcCall; 0: no record.
constinit std::atomic<unsigned> recorded = 0;
constinit CallMade records[mostRecords] = {};
constinit std::atomic<bool> isWritten[mostRecords] = {};

unsigned bitOf(LibcCall call) { return 1U << static_cast<unsigned>(call); }

CallMade describe(LibcCall call, const char* path, int first, long argument, long more) {
  CallMade made = {.call = call, .path = {}, .first = first, .argument = argument, .more = more};
  if (path != nullptr) {
    strncpy(made.path, path, sizeof made.path - 1);
  }
  return made;
}

}  // namespace

/// Where each call is announced before it is made.
struct CallDesk {
  using Kept = FailingCall::Kept;

  static constinit std::atomic<Kept*> failures[mostFailures];

  /// The failure that answers the call; null: make it.
  static const CallFailure* announce(LibcCall call, const char* path, int first, long argument,
                                     long more = 0) {
    if ((recordedKinds.load(std::memory_order_acquire) & bitOf(call)) != 0) {
      const unsigned at = recorded.fetch_add(1);
      if (at < mostRecords) {
        records[at] = describe(call, path, first, argument, more);
        isWritten[at].store(true, std::memory_order_release);
      }
    }
    for (std::atomic<Kept*>& slot : failures) {
      Kept* const failing = slot.load(std::memory_order_acquire);
      if (failing != nullptr && matches(failing->failure, call, path, first, argument) &&
          takesItsTurn(*failing)) {
        return &failing->failure;
      }
    }
    return nullptr;
  }

 private:
  static bool matches(const CallFailure& failure, LibcCall call, const char* path, int first,
                      long argument) {
    return failure.call == call &&
           (failure.path.empty() ||
            (path != nullptr && strncmp(path, failure.path.c_str(), failure.path.size()) == 0)) &&
           failure.first.value_or(first) == first &&
           failure.argument.value_or(argument) == argument;
  }

  static bool takesItsTurn(Kept& failing) {
    const CallFailure& failure = failing.failure;
    const unsigned turn = failing.matched.fetch_add(1);
    if (turn < failure.after ||
        (failure.times != CallFailure::always && turn - failure.after >= failure.times)) {
      return false;
    }
    failing.answered.fetch_add(1);
    return true;
  }
};

constinit std::atomic<CallDesk::Kept*> CallDesk::failures[mostFailures] = {};

FailingCall::Kept& FailingCall::keep(CallFailure failure) {
  static std::mutex mutex;
  static auto& all = *new std::deque<Kept>;
  const std::lock_guard lock(mutex);
  Kept& kept = all.emplace_back();
  kept.failure = std::move(failure);
  return kept;
}

FailingCall::FailingCall(CallFailure failure) : kept_(keep(std::move(failure))) {
  for (std::atomic<Kept*>& slot : CallDesk::failures) {
    Kept* none = nullptr;
    if (slot.compare_exchange_strong(none, &kept_)) {
      return;
    }
  }
  ADD_FAILURE() << "too many failing calls at a time";
}

FailingCall::~FailingCall() {
  const unsigned times = kept_.failure.times;
  const unsigned expected = times == CallFailure::always ? 1 : times;
  EXPECT_GE(answered(), expected) << "the call that was to fail never came";
  dismiss();
}

unsigned FailingCall::answered() const { return kept_.answered; }

void FailingCall::dismiss() {
  for (std::atomic<Kept*>& slot : CallDesk::failures) {
    Kept* self = &kept_;
    slot.compare_exchange_strong(self, nullptr);
  }
  kept_.answered = UINT_MAX;
}

CallRecord::CallRecord(std::initializer_list<LibcCall> kinds) {
  EXPECT_EQ(recordedKinds.load(), 0U) << "there is a record already";
  recorded = 0;
  for (std::atomic<bool>& written : isWritten) {
    written = false;
  }
  unsigned bits = 0;
  for (const LibcCall kind : kinds) {
    bits |= bitOf(kind);
  }
  recordedKinds.store(bits, std::memory_order_release);
}

CallRecord::~CallRecord() { recordedKinds = 0; }

std::vector<CallMade> CallRecord::calls() const {
  const unsigned n = recorded.load();
  EXPECT_LE(n, mostRecords);
  std::vector<CallMade> result;
  for (unsigned i = 0; i < n && i < mostRecords; ++i) {
    // Another thread may be about to write its call down.
    if (isWritten[i].load(std::memory_order_acquire)) {
      result.push_back(records[i]);
    }
  }
  return result;
}

unsigned CallRecord::count(LibcCall kind) const {
  unsigned n = 0;
  for (const CallMade& made : calls()) {
    n += made.call == kind ? 1 : 0;
  }
  return n;
}

namespace {

template <typename Result>
Result answer(const CallFailure& failure) {
  if (failure.result < 0) {
    errno = failure.error;
  }
  return static_cast<Result>(failure.result);
}

}  // namespace

// `Result name(parameters)` in place of the C library's; `announced` is what announce() is told
// about it, `passed` what the next function gets.
#define CUL_STAND_BEFORE(Result, name, parameters, exceptions, announced, ...)                 \
  CUL_DEFINE_STAND_IN(Result, name, parameters)                                                \
  extern "C" Result name parameters exceptions {                                               \
    if (const CallFailure* const failure = CallDesk::announce announced; failure != nullptr) { \
      return answer<Result>(*failure);                                                         \
    }                                                                                          \
    return name##StandIn.real(__VA_ARGS__);                                                    \
  }

CUL_STAND_BEFORE(int, close, (int fd), CUL_NOTHING, (LibcCall::close, nullptr, fd, 0), fd)
CUL_STAND_BEFORE(ssize_t, read, (int fd, void* buffer, size_t size), CUL_NOTHING,
                 (LibcCall::read, nullptr, fd, static_cast<long>(size)), fd, buffer, size)
CUL_STAND_BEFORE(ssize_t, write, (int fd, const void* data, size_t size), CUL_NOTHING,
                 (LibcCall::write, nullptr, fd, static_cast<long>(size)), fd, data, size)
CUL_STAND_BEFORE(off_t, lseek, (int fd, off_t offset, int whence), noexcept,
                 (LibcCall::lseek, nullptr, fd, offset, whence), fd, offset, whence)
CUL_STAND_BEFORE(int, ftruncate, (int fd, off_t length), noexcept,
                 (LibcCall::ftruncate, nullptr, fd, length), fd, length)
CUL_STAND_BEFORE(int, dup, (int fd), noexcept, (LibcCall::dup, nullptr, fd, 0), fd)
CUL_STAND_BEFORE(int, grantpt, (int fd), noexcept, (LibcCall::grantpt, nullptr, fd, 0), fd)
CUL_STAND_BEFORE(int, unlockpt, (int fd), noexcept, (LibcCall::unlockpt, nullptr, fd, 0), fd)
CUL_STAND_BEFORE(pid_t, setsid, (), noexcept, (LibcCall::setsid, nullptr, 0, 0))
CUL_STAND_BEFORE(int, tcgetattr, (int fd, termios* modes), noexcept,
                 (LibcCall::tcgetattr, nullptr, fd, 0), fd, modes)
CUL_STAND_BEFORE(int, tcsetattr, (int fd, int when, const termios* modes), noexcept,
                 (LibcCall::tcsetattr, nullptr, fd, when), fd, when, modes)
CUL_STAND_BEFORE(int, tcflush, (int fd, int queue), noexcept,
                 (LibcCall::tcflush, nullptr, fd, queue), fd, queue)
CUL_STAND_BEFORE(pid_t, waitpid, (pid_t process, int* status, int options), CUL_NOTHING,
                 (LibcCall::waitpid, nullptr, process, options), process, status, options)

CUL_STAND_BEFORE(int, pthread_create,
                 (pthread_t * id, const pthread_attr_t* attributes, void* (*entry)(void*),
                  void* argument),
                 noexcept, (LibcCall::createThread, nullptr, 0, 0), id, attributes, entry, argument)
CUL_STAND_BEFORE(int, pthread_cond_init,
                 (pthread_cond_t * condition, const pthread_condattr_t* attributes), noexcept,
                 (LibcCall::initCondition, nullptr, 0, 0), condition, attributes)

static constinit bool hasStarted = false;
__attribute__((constructor)) static void noteStart() { hasStarted = true; }

// The thread sanitizer asks for sizes before it can take any instrumented code.
extern "C" __attribute__((no_sanitize("thread"))) long sysconf(int name) noexcept {
  if (hasStarted) {
    if (const CallFailure* const failure = CallDesk::announce(LibcCall::sysconf, nullptr, name, 0);
        failure != nullptr) {
      return answer<long>(*failure);
    }
  }
  return __sysconf(name);  // The C library's other name for it.
}

CUL_DEFINE_STAND_IN(int, poll, (pollfd*, nfds_t, int))
extern "C" int poll(pollfd* fds, nfds_t count, int timeout) {
  const pollfd* waits = fds;
  asm("" : "+r"(waits));  // The C library declares that it only writes there.
  const int first = count > 0 ? waits->fd : -1;
  const int events = count > 0 ? waits->events : 0;
  if (const CallFailure* const failure =
          CallDesk::announce(LibcCall::poll, nullptr, first, timeout, events);
      failure != nullptr) {
    return answer<int>(*failure);
  }
  return pollStandIn.real(fds, count, timeout);
}

CUL_DEFINE_STAND_IN(char*, ptsname, (int))
extern "C" char* ptsname(int fd) noexcept {
  static char name[64];
  const CallFailure* const failure = CallDesk::announce(LibcCall::ptsname, nullptr, fd, 0);
  if (failure == nullptr) {
    return ptsnameStandIn.real(fd);
  }
  if (!failure->text) {
    errno = failure->error;
    return nullptr;
  }
  strncpy(name, failure->text->c_str(), sizeof name - 1);
  return name;
}

// The functions with a variable argument take at most one more, of at most a pointer's size,
// and the real ones read it as they need it.
#define CUL_STAND_BEFORE_VARIABLE(name, parameters, exceptions, last, announced, ...)          \
  CUL_DEFINE_STAND_IN(int, name, parameters)                                                   \
  extern "C" int name parameters exceptions {                                                  \
    va_list rest;                                                                              \
    va_start(rest, last);                                                                      \
    void* const more = va_arg(rest, void*);                                                    \
    va_end(rest);                                                                              \
    if (const CallFailure* const failure = CallDesk::announce announced; failure != nullptr) { \
      return answer<int>(*failure);                                                            \
    }                                                                                          \
    return name##StandIn.real(__VA_ARGS__, more);                                              \
  }

CUL_STAND_BEFORE_VARIABLE(open, (const char* path, int flags, ...), CUL_NOTHING, flags,
                          (LibcCall::open, path, 0, flags), path, flags)
CUL_STAND_BEFORE_VARIABLE(open64, (const char* path, int flags, ...), CUL_NOTHING, flags,
                          (LibcCall::open, path, 0, flags), path, flags)
CUL_STAND_BEFORE_VARIABLE(fcntl, (int fd, int command, ...), CUL_NOTHING, command,
                          (LibcCall::fcntl, nullptr, fd, command, reinterpret_cast<long>(more)), fd,
                          command)
CUL_STAND_BEFORE_VARIABLE(ioctl, (int fd, unsigned long request, ...), noexcept, request,
                          (LibcCall::ioctl, nullptr, fd, static_cast<long>(request)), fd, request)
