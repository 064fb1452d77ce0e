#pragma once

#include <cstddef>
#include <cstdint>

/// \file
/// What C++ code sees of DivertedReturn.S, which tells what it is for.

/// How many calls can be diverted at a time.
constexpr std::size_t diversionCount = 256;

extern "C" {
extern const unsigned char divertedReturns[] __attribute__((visibility("hidden")));
extern const unsigned char divertedReturnsEnd[] __attribute__((visibility("hidden")));

/// The addresses that the diverted calls would have returned to; 0: not in use.
extern std::uintptr_t divertedFrom[diversionCount] __attribute__((visibility("hidden")));
}

/// Where a diverted call returns to.
inline std::uintptr_t diversionPlace(std::size_t diversion) noexcept {
  constexpr std::size_t size = 16;
  constexpr std::size_t entry = 4;  // behind what the unwinder needs
  return reinterpret_cast<std::uintptr_t>(divertedReturns) + diversion * size + entry;
}

/// Whether an instruction is one of those by which a diverted call returns.
inline bool isDivertedReturn(std::uintptr_t instruction) noexcept {
  return instruction - reinterpret_cast<std::uintptr_t>(divertedReturns) <
         static_cast<std::uintptr_t>(divertedReturnsEnd - divertedReturns);
}
