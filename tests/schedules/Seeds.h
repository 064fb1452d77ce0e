#pragma once

#include <cstdint>

/// \file
/// Numbers by chance from seeds, as splitmix64 makes them: mixed(seed), mixed(seed + stepOfSeeds)
/// and so on.

constexpr std::uint64_t stepOfSeeds = 0x9E3779B97F4A7C15U;

/// A seed that is spent on one number. Always part of its caller: Waits.cpp must not call what is
/// instrumented elsewhere.
[[gnu::always_inline]] constexpr std::uint64_t mixed(std::uint64_t seed) noexcept {
  std::uint64_t x = seed + stepOfSeeds;
  x = (x ^ (x >> 30U)) * 0xBF58476D1CE4E5B9U;
  x = (x ^ (x >> 27U)) * 0x94D049BB133111EBU;
  return x ^ (x >> 31U);
}
