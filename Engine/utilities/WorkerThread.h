#pragma once

#include <pthread.h>

#include "Engine/utilities/Export.h"
#include "Engine/utilities/Reference.h"
#include "Engine/utilities/Runnable.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/UNIX/UNIX_Critical_Section.h"

class ThreadListener;

/// \file
/// The thread "ThrdListener" that does the work of a Runnable and tells a ThreadListener.
///
/// A listener makes its own worker and starts it; nobody else has to. The thread is
/// detached. Like every started thread it deletes itself at its end, which takes its
/// reference off the listener.

class CUL_EXPORT WorkerThread : public StdThread {
 public:
  /// How far the run has come.
  enum State : unsigned int { created = 1, running = 2, finished = 3 };

  /// A thread that is not started yet.
  /// \param listener told when the run has ended; held until the thread object goes.
  /// \param runnable not owned; must live until the run has ended.
  WorkerThread(ThreadListener& listener, Runnable& runnable);
  ~WorkerThread() override;

  /// Starts the thread when its state is `created`, and notes its id. Called under the
  /// listener's lock: until that is free the new thread waits, and the object lives.
  /// \return the id of the thread, 0 when there is none.
  /// \throws StdException status -1 when there can be no thread; the object stays unstarted.
  pthread_t start();

  /// Waits until the listener's lock is free, does the work and calls the listener's notify()
  /// with the id noted by start(). What the work throws passes through. A request to end the
  /// thread takes effect in the work or not at all.
  void run() override;

  /// Who is told.
  [[nodiscard]] const Reference<ThreadListener>& listener() const noexcept { return listener_; }

  /// How far the run has come. Any thread.
  [[nodiscard]] State state() const;

  /// The result of the run, 0 until it has ended.
  [[nodiscard]] unsigned int result() const;

 private:
  void enter();
  pthread_t leave(int result);

  Reference<ThreadListener> listener_;
  Runnable& runnable_;
  unsigned int result_ CUL_GUARDED_BY(lock_) = 0;
  pthread_t workerId_ CUL_GUARDED_BY(lock_) = 0;
  State state_ CUL_GUARDED_BY(lock_) = created;
  mutable UNIX_Critical_Section lock_;
};
