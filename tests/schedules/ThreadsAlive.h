#pragma once

#include <algorithm>
#include <filesystem>
#include <iterator>

#include "Engine/utilities/UNIX/UNIX_Event_Semaphore.h"

#include "tests/support/WaitUntil.h"

/// \file
/// How many threads the process has.

inline long threadsAlive() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

/// The same before a schedule. Those that stay are started first: the timer, and with the first
/// thread of a process what a sanitizer has beside.
inline long threadsBefore() {
  static_cast<void>(UNIX_Event_Semaphore::timerInstance());
  return threadsAlive();
}

/// Expects that no more than `count` threads are left, soon: a thread that has been waited for may
/// be listed a moment longer.
inline void expectThreadsLeft(long count) {
  EXPECT_TRUE(waitUntil([count] { return threadsAlive() <= count; }));
}
