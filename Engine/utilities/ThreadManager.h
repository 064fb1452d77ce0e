#pragma once

#include <pthread.h>

#include "Engine/utilities/Export.h"
#include "Engine/utilities/List.h"
#include "Engine/utilities/OwningList.h"
#include "Engine/utilities/Reference.h"
#include "Engine/utilities/Runnable.h"
#include "Engine/utilities/ThreadHandle.h"
#include "Engine/utilities/ThreadListener.h"
#include "Engine/utilities/UNIX/UNIX_Critical_Section.h"
#include "Engine/utilities/UNIX/UNIX_Event_Semaphore.h"

class ThreadManagerLink;

/// \file
/// Runs Runnables on threads of their own, keeps the handles of all live runs and lets a
/// caller wait until none is left.
///
/// \code
///   ThreadManager manager;
///   manager.start(first);
///   manager.start(second);
///   manager.allEnded().wait();
/// \endcode
/// The event allEnded() is closed when the manager is made and by each start(); it opens when
/// the last handle leaves the list because its run has ended or there could be no thread for
/// it, and with orphanThreads(). Whoever waits for a manager that never started anything waits for
/// ever. Taking handles off by hand does not open it. A run whose thread is asked to end inside
/// Runnable::work() never ends here: its handle stays listed.
///
/// **Ids.** The threads are detached, so the system gives the id of a thread that has ended
/// to a later one. An id is good for the operations here while its handle is listed, and not
/// for pthread_join() or pthread_kill().
///
/// **Threads.** Every operation may be called on any thread. The manager has one recursive
/// lock that each operation holds throughout; start() holds it also while it looks at the
/// timer, 10 to 50 ms. It is never asked for by a thread that holds a handle's lock.
///
/// **Forked children.** A child makes managers and runs of its own. In one of its parent's the
/// runs never end, and it is locked for ever when another thread was just inside of an operation.
///
/// **End.** Destroying a manager does not wait for its runs: they go on without it. It waits
/// for those that are just telling it of their end. No other operation may be under way.

class CUL_EXPORT ThreadManager {
 public:
  /// How an operation on the list went.
  enum THREADMANAGER_RC : unsigned int {
    THREADMANAGER_OK = 0,     ///< Done.
    THREADMANAGER_FAILED = 1  ///< Not found, already present, or index out of range.
  };

  ThreadManager();
  ThreadManager(const ThreadManager&) = delete;
  ThreadManager& operator=(const ThreadManager&) = delete;

  /// Drops all handles. Handles that know this manager, listed or not, have none from now on.
  ~ThreadManager();

  /// Lists a new handle and starts its run, see ThreadListener::start().
  /// \param runnable not owned; must live until the run has ended.
  /// \return the id of the new thread; 0 when the run counted as ended before it could be
  ///   started. Its handle stays listed then, and allEnded() closed, until somebody takes it
  ///   off.
  /// \throws StdException status -1 when there can be no thread; nothing stays listed then.
  pthread_t start(Runnable& runnable);

  /// Lists a handle at the end.
  /// \param handle not an empty reference.
  /// \return THREADMANAGER_FAILED when it is listed already.
  THREADMANAGER_RC append(Reference<ThreadHandle>& handle);

  /// Takes a handle off the list. It keeps its manager.
  /// \return THREADMANAGER_FAILED when it is not listed.
  THREADMANAGER_RC remove(Reference<ThreadHandle>& handle);

  /// Takes the first handle with this thread id off the list. When its run has not ended,
  /// which takes the timer 10 to 50 ms to find out, the handle loses its manager.
  /// \return THREADMANAGER_FAILED when there is none.
  THREADMANAGER_RC remove(pthread_t id);

  /// Takes the handle at a place of the list off it. It keeps its manager.
  /// \param index from 0.
  /// \return THREADMANAGER_FAILED when `index` is not below the number of handles.
  THREADMANAGER_RC destroy(unsigned int index);

  /// Takes note that a run has ended: as remove(id), and opens allEnded() when the list is
  /// empty then, whether or not there was such a handle.
  /// \param id     the thread id of the run.
  /// \param result of no consequence.
  void notify(pthread_t id, int result);

  /// The place of a handle in the list, from 0; -1 when it is not listed.
  [[nodiscard]] int findThread(Reference<ThreadHandle>& handle);

  /// The place of the first handle with this thread id, from 0; -1 when there is none.
  /// Handles that are not started have the id 0.
  [[nodiscard]] int findThread(pthread_t id) const;

  /// The first handle with this thread id.
  /// \throws StdException "Thread not found.", status -1.
  [[nodiscard]] const Reference<ThreadListener> getThread(pthread_t id) const;

  /// The thread ids of all listed handles, in the order of the list.
  [[nodiscard]] List<unsigned long> getThreadIds();

  /// Drops all handles and opens allEnded(), although the runs may go on. The handles keep
  /// their manager.
  void orphanThreads();

  /// The event that opens when no run is left.
  [[nodiscard]] UNIX_Event_Semaphore& allEnded() noexcept { return allEnded_; }

 private:
  friend class ThreadHandle;
  class Unlisting;

  void postIfEmpty() CUL_NEEDS(lock_);

  OwningList<Reference<ThreadHandle>> handles_ CUL_GUARDED_BY(lock_);
  UNIX_Event_Semaphore allEnded_;
  mutable UNIX_Critical_Section lock_;
  Reference<ThreadManagerLink> link_;  // how handles find the manager
};
