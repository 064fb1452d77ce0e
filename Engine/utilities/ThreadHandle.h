#pragma once

#include <pthread.h>

#include "Engine/utilities/Export.h"
#include "Engine/utilities/Reference.h"
#include "Engine/utilities/Runnable.h"
#include "Engine/utilities/ThreadListener.h"

class ThreadManager;
class ThreadManagerLink;

/// \file
/// A ThreadListener that also tells a ThreadManager when its run has ended.
///
/// A handle does not keep its manager alive and may outlive it; it has no manager then. It
/// never holds its own lock while it takes its manager's.

class CUL_EXPORT ThreadHandle : public ThreadListener {
 public:
  /// A handle of a run that is not started, and not listed with the manager.
  /// \param manager  told when the run has ended; may be null.
  /// \param runnable not owned; must live until the run has ended.
  ThreadHandle(ThreadManager* manager, Runnable& runnable);
  ThreadHandle(const ThreadHandle&) = delete;
  ThreadHandle& operator=(const ThreadHandle&) = delete;
  ~ThreadHandle() override;

  /// A new handle.
  [[nodiscard]] static Reference<ThreadHandle> instance(ThreadManager& manager, Runnable& runnable);

  /// As ThreadListener::notify(), then has the manager take the handle off its list.
  void notify(pthread_t id, int result) override;

  /// Has another manager told, or none when it is null. Does not change any list.
  void setManager(ThreadManager* manager);

  /// Who is told; null when nobody is, or when the manager is gone.
  [[nodiscard]] ThreadManager* manager() const;

 private:
  class NotifyGuard;

  // The manager, or what is left of it; null when the handle is orphaned.
  Reference<ThreadManagerLink> manager_;
};
