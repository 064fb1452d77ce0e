#pragma once

#include <algorithm>
#include <filesystem>
#include <iterator>

#include "tests/support/WaitUntil.h"

/// \file
/// How many threads the process has.

inline long threadsAlive() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

/// Expects that no more than `count` threads are left, soon: a thread that has been waited for may
/// be listed a moment longer.
inline void expectThreadsLeft(long count) {
  EXPECT_TRUE(waitUntil([count] { return threadsAlive() <= count; }));
}
