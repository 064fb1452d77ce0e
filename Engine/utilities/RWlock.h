#pragma once

#include <pthread.h>

#include "Engine/utilities/Export.h"
#include "Engine/utilities/List.h"

/// \file
/// A lock that many readers or one writer hold, with a choice of who goes first.
///
/// The lock knows its holders by their POSIX thread ids and nests: what a thread has
/// requested n times it releases n times. A read request by the writing thread counts as
/// one more write hold. The only reader may upgrade by requesting to write; two readers
/// that both upgrade wait for each other for ever.
///
/// A POSIX call that fails is a failed assertion (see AssertionFail()), thrown only when
/// the assertion mode says so. A thread that is asked to end while it waits leaves the lock
/// as if it had never asked for it.

/// What RWlock's users name without the lock itself.
class CUL_EXPORT RWlockBase {
 public:
  /// Who is preferred. Any value but the named ones counts as NoPriority.
  enum Priority : unsigned int {
    NoPriority = 0,
    ReaderPriority = 1,  ///< A free lock goes to waiting readers first.
    WriterPriority = 2   ///< New readers wait while any writer waits.
  };
};

/// The lock itself. Not copyable; shared between threads.
class CUL_EXPORT RWlock : public RWlockBase {
 public:
  /// A free lock.
  explicit RWlock(RWlockBase::Priority priority);
  RWlock(const RWlock&) = delete;
  RWlock& operator=(const RWlock&) = delete;
  ~RWlock() noexcept(false);

  /// Waits until no other thread writes (and, under WriterPriority, no writer waits) and
  /// takes the lock for reading. A thread that holds it already does not wait.
  void requestRead();

  /// Waits until no other thread holds the lock in any way (and, under ReaderPriority, no
  /// reader waits to enter) and takes it for writing.
  void requestWrite();

  /// Gives back one hold of the calling thread, write holds first; nothing when it has
  /// none.
  void release();

  /// Whether the calling thread reads and does not write.
  [[nodiscard]] bool holdsReadLock();

  /// Whether the calling thread is the only holder. The only reader, who could write at
  /// once, is reported as holding the write lock: callers ask whether they may change something.
  [[nodiscard]] bool holdsWriteLock();

  /// Whether the calling thread holds the lock in any way.
  [[nodiscard]] bool holdsAnyLock();

  /// For diagnosis: threads that are inside requestWrite() now.
  [[nodiscard]] unsigned short writersWaiting() const noexcept {
    return __atomic_load_n(&writersWaiting_, __ATOMIC_ACQUIRE);
  }

  /// For diagnosis: threads that are inside requestRead() now.
  [[nodiscard]] unsigned short readersWaiting() const noexcept {
    return __atomic_load_n(&readersWaiting_, __ATOMIC_ACQUIRE);
  }

 private:
  struct Holder {
    pthread_t thread;
    unsigned short readCount;
    unsigned short writeCount;
  };
  class Waiting;

  Holder* findOwn();
  Holder* enterAsReader();
  Holder* enterAsWriter();
  Holder* appendOwn();

  Priority priority_;
  List<Holder> holders_;
  // Named in the texts of failed assertions.
  pthread_mutex_t _mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t _cond = PTHREAD_COND_INITIALIZER;  // broadcast whenever a hold ends
  unsigned short writersWaiting_ = 0;
  unsigned short readersWaiting_ = 0;
};
