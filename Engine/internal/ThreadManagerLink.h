#pragma once

#include <pthread.h>

#include "Engine/utilities/ReferenceCounted.h"
#include "Engine/utilities/UNIX/UNIX_Critical_Section.h"

class ThreadManager;

/// \file
/// The way from handles to their manager, which they may outlive.
///
/// A manager and all handles that know it share one link; the manager cuts it when it goes.
/// The link's lock is held while the manager is told of an end, so a manager does not go in
/// the middle of it. It is taken before the manager's lock.

class ThreadManagerLink final : public ReferenceCounted {
 public:
  explicit ThreadManagerLink(ThreadManager& manager) : manager_(&manager) {}
  ThreadManagerLink(const ThreadManagerLink&) = delete;
  ThreadManagerLink& operator=(const ThreadManagerLink&) = delete;
  ~ThreadManagerLink() override = default;

  /// Tells the manager of the end of a run, if it still is there.
  void notify(pthread_t id, int result);

  /// Waits for those who are telling the manager, and keeps all others from it.
  void cut();

  /// The manager, null when it is gone.
  [[nodiscard]] ThreadManager* manager() const noexcept {
    return __atomic_load_n(&manager_, __ATOMIC_ACQUIRE);
  }

 private:
  ThreadManager* manager_;  // written under the lock, atomically
  UNIX_Critical_Section lock_;
};
