#pragma once

#include <chrono>
#include <unistd.h>

/// \file
/// Waiting for something that happens elsewhere.

/// Looks at `condition` every millisecond until it holds or a generous limit has passed.
/// \return whether it holds.
template <class Condition>
[[nodiscard]] bool waitUntil(Condition condition,
                             std::chrono::seconds limit = std::chrono::seconds(60)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    usleep(1000);
  }
  return true;
}
