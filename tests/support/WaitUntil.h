#pragma once

#include <chrono>
#include <thread>

#include <gtest/gtest.h>

/// \file
/// Waiting for something that happens elsewhere.

/// Looks at `condition` every millisecond until it holds. When it does not within a minute,
/// the test fails.
/// \return whether it holds.
template <class Condition>
bool waitUntil(Condition condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      ADD_FAILURE() << "what was waited for did not happen within a minute";
      return false;
    }
    // Not usleep(): tests of the timer put their own in its place.
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}
