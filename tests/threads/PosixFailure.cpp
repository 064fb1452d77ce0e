#include "tests/threads/PosixFailure.h"

#include <cerrno>
#include <pthread.h>
#include <utility>

#include <gtest/gtest.h>

#include "tests/support/StandIn.h"

namespace {

constinit thread_local PosixInterference* innermost = nullptr;

}  // namespace

PosixInterference::PosixInterference(PosixCall call, unsigned passing,
                                     std::function<bool(int&)> action)
    : call_(call), passing_(passing), action_(std::move(action)), outer_(innermost) {
  innermost = this;
}

PosixInterference::~PosixInterference() {
  EXPECT_FALSE(action_) << "the call that was waited for never came";
  innermost = outer_;
}

void PosixInterference::setAction(std::function<bool(int&)> action) { action_ = std::move(action); }

bool PosixInterference::intercepts(PosixCall call, int& result) {
  for (PosixInterference* each = innermost; each != nullptr; each = each->outer_) {
    if (each->call_ == call && each->action_) {
      if (each->passing_ != 0) {
        --each->passing_;
        return false;
      }
      return std::exchange(each->action_, nullptr)(result);
    }
  }
  return false;
}

PosixFailure::PosixFailure(PosixCall call, int result, int error, unsigned passing)
    : PosixInterference(call, passing, [result, error](int& callResult) {
        callResult = result;
        errno = error;
        return true;
      }) {}

PosixCount::PosixCount(PosixCall call)
    : PosixInterference(call, 0, [this](int&) { return note(); }) {}

bool PosixCount::note() {
  ++count_;
  setAction([this](int&) { return note(); });
  return false;
}

PosixMoment::PosixMoment(PosixCall call, std::function<void()> action)
    : PosixInterference(call, 0, [action = std::move(action)](int&) {
        action();
        return false;
      }) {}

// One definition each of what PosixCall names.
#define CUL_STAND_BEFORE(call, name, parameters, exceptions, ...) \
  CUL_DEFINE_STAND_IN(int, name, parameters)                      \
  extern "C" int name parameters exceptions {                     \
    int result = 0;                                               \
    return PosixInterference::intercepts(PosixCall::call, result) \
               ? result                                           \
               : name##StandIn.real(__VA_ARGS__);                 \
  }

CUL_STAND_BEFORE(mutexInit, pthread_mutex_init,
                 (pthread_mutex_t * mutex, const pthread_mutexattr_t* attributes), noexcept, mutex,
                 attributes)
CUL_STAND_BEFORE(mutexDestroy, pthread_mutex_destroy, (pthread_mutex_t * mutex), noexcept, mutex)
CUL_STAND_BEFORE(mutexLock, pthread_mutex_lock, (pthread_mutex_t * mutex), noexcept, mutex)
CUL_STAND_BEFORE(mutexUnlock, pthread_mutex_unlock, (pthread_mutex_t * mutex), noexcept, mutex)
CUL_STAND_BEFORE(condInit, pthread_cond_init,
                 (pthread_cond_t * condition, const pthread_condattr_t* attributes), noexcept,
                 condition, attributes)
CUL_STAND_BEFORE(condDestroy, pthread_cond_destroy, (pthread_cond_t * condition), noexcept,
                 condition)
CUL_STAND_BEFORE(condWait, pthread_cond_wait, (pthread_cond_t * condition, pthread_mutex_t* mutex),
                 CUL_NOTHING, condition, mutex)
CUL_STAND_BEFORE(condBroadcast, pthread_cond_broadcast, (pthread_cond_t * condition), noexcept,
                 condition)
CUL_STAND_BEFORE(create, pthread_create,
                 (pthread_t * id, const pthread_attr_t* attributes, void* (*entry)(void*),
                  void* argument),
                 noexcept, id, attributes, entry, argument)
CUL_STAND_BEFORE(join, pthread_join, (pthread_t id, void** value), CUL_NOTHING, id, value)

#if defined(__SANITIZE_THREAD__)
// A request to end a thread unwinds it from inside the signal handler, at a place where that
// was found to be sound; the sanitizer only sees that destructors run in a handler.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_options() {
  return "report_signal_unsafe=0";
}
#endif
