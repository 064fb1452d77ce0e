#pragma once

#include <pthread.h>

#include "Engine/utilities/Export.h"
#include "Engine/utilities/List.h"
#include "Engine/utilities/UNIX/UNIX_Critical_Section.h"

class StdThread;
template <class T>
class ProcessWide;

/// \file
/// The registry of live thread objects, through which any code finds the object of the
/// thread it runs on.
///
/// A StdThread is registered from its construction to its destruction, whether started or
/// not. The registry owns nothing. Any thread may call it; the first call of instance()
/// belongs on the main thread before a second thread exists. It works before main and is
/// never destroyed. In a forked child the objects of threads that are not there stay, with
/// the id 0.

class CUL_EXPORT RunningThreads {
 public:
  /// The registry of this process, made by the first call.
  static RunningThreads& instance();

  RunningThreads(const RunningThreads&) = delete;
  RunningThreads& operator=(const RunningThreads&) = delete;

  /// Registers a thread object.
  void append(StdThread* thread);

  /// Unregisters a thread object; absent is no error.
  void remove(StdThread* thread);

  /// The thread object with a thread id, null if there is none. Of several the one
  /// registered last is found.
  [[nodiscard]] StdThread* find(pthread_t id);

 private:
  RunningThreads() = default;
  ~RunningThreads() = default;
  friend class AcrossFork;
  template <class T>
  friend class ProcessWide;

  __attribute__((visibility("hidden"))) void makeRoom(unsigned int needed);

  List<StdThread*> threads_ CUL_GUARDED_BY(lock_){64};
  UNIX_Critical_Section lock_;
};
