#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <pthread.h>
#include <string>
#include <vector>

#include "Engine/utilities/RWlock.h"
#include "Engine/utilities/UNIX/UNIX_Critical_Section.h"
#include "Engine/utilities/UNIX/UNIX_Event_Semaphore.h"
#include "Engine/utilities/UNIX/UNIX_Mutex.h"

/// \file
/// What threads do that are asked to end: one entry for each kind of work. Compiled twice, as it
/// stands and optimised, since a thread can be left at other places then.

/// What the threads of one row share.
struct SharedWork {
  UNIX_Critical_Section section;
  UNIX_Mutex mutex;
  pthread_mutex_t nativeMutex = PTHREAD_MUTEX_INITIALIZER;
  std::mutex standardMutex;
  RWlock readWrite{RWlockBase::NoPriority};
  UNIX_Event_Semaphore event;
  std::atomic<long> rounds = 0;  // of all threads; each counts when it is at work
  long plainCount = 0;           // guarded by the lock of the row
  std::string folder;
};

/// A kind of work: runs for ever, until the thread ends.
struct RequestWork {
  const char* name;
  void (*run)(SharedWork& shared);
  /// Whether the work waits for a lock that the asker holds. Null: for nothing.
  void (*hold)(SharedWork& shared) = nullptr;
  void (*release)(SharedWork& shared) = nullptr;
};

std::vector<RequestWork> plainRequestWork();
std::vector<RequestWork> optimizedRequestWork();
