#pragma once

#include <pthread.h>

#include "Engine/utilities/Export.h"
#include "Engine/utilities/Reference.h"
#include "Engine/utilities/ReferenceCounted.h"
#include "Engine/utilities/Runnable.h"
#include "Engine/utilities/UNIX/UNIX_Critical_Section.h"
#include "Engine/utilities/UNIX/UNIX_Event_Semaphore.h"

class WorkerThread;

/// \file
/// The bookkeeping of one run of a Runnable on a thread of its own: when it has ended and
/// with what result.
///
/// \code
///   const Reference<ThreadListener> listener = ThreadListener::instance(runnable);
///   listener->start();
///   listener->semaphore().wait();
///   use(listener->result());
/// \endcode
/// **Owners.** A listener is held by References. Its worker thread holds one from the making
/// of both until the run has ended, so a listener whose users have all left stays until
/// then. Until it is started the worker belongs to the listener: when the last user of a
/// listener that was never started leaves, listener and worker both go. From the start on
/// the worker belongs to itself, as every thread object does.
///
/// **Threads.** Everything may be called on any thread that has a Reference. A worker begins
/// with its work only after start() has written down its thread id, so the id is known to the
/// work itself and to all that comes after it. The work is started by start() alone, not by
/// the worker's own start_thread().
///
/// **Requests to end.** A worker that is asked to end inside Runnable::work() never tells:
/// the event stays closed, and the listener stays with the thread object, which is not
/// deleted either. No lock is left held. Whoever ends workers must not wait for them
/// without a limit.

class CUL_EXPORT ThreadListener : public ReferenceCounted {
 public:
  /// The bookkeeping of a run that is not started. Make it with `new` and hold it by a
  /// Reference.
  /// \param runnable not owned; must live until the run has ended.
  explicit ThreadListener(Runnable& runnable);
  ThreadListener(const ThreadListener&) = delete;
  ThreadListener& operator=(const ThreadListener&) = delete;
  ~ThreadListener() override;

  /// A new listener.
  [[nodiscard]] static Reference<ThreadListener> instance(Runnable& runnable);

  void removeReference() const override;

  /// Takes note that the run has ended: stores the result and opens the event. Called by the
  /// worker; on another thread it makes the run count as ended.
  /// \param id     the worker's thread id, 0 when it was not started.
  /// \param result the result of the run.
  virtual void notify(pthread_t id, int result);

  /// Starts the run, unless it was started before or counts as ended already. Always looks
  /// at the event with a zero-length timed wait first, which takes the timer 10 to 50 ms.
  /// Kept so: who watches threads and traces knows this pace.
  /// \return the id of the new thread; 0 when none was started.
  /// \throws StdException status -1 when there can be no thread; the run stays unstarted.
  pthread_t start();

  /// The event that opens when the run has ended.
  [[nodiscard]] UNIX_Event_Semaphore& semaphore() noexcept { return semaphore_; }

  /// The result of the run; 0 until it has ended.
  [[nodiscard]] int result() const noexcept { return __atomic_load_n(&result_, __ATOMIC_ACQUIRE); }

  /// The id of the thread of the run, 0 until it is started; kept when it has ended.
  [[nodiscard]] pthread_t threadId() const noexcept {
    return __atomic_load_n(&threadId_, __ATOMIC_ACQUIRE);
  }

 protected:
  /// What notify() does under the lock.
  void end(int result);

  /// Guards the result and the start.
  [[nodiscard]] UNIX_Critical_Section& lock() const noexcept { return lock_; }

 private:
  friend class WorkerThread;

  UNIX_Event_Semaphore semaphore_;
  Runnable& runnable_;
  // Owned until it is started, then null. Loads and stores are atomic, and the engine knows the
  // field (docs/contract.md): so it is raw.
  mutable WorkerThread* worker_ = nullptr;
  pthread_t threadId_ = 0;  // atomically
  int result_ = 0;          // atomically
  mutable UNIX_Critical_Section lock_;
};
