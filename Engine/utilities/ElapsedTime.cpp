#include "Engine/utilities/ElapsedTime.h"

#include <cinttypes>
#include <cstdio>
#include <sys/time.h>

#include "Engine/internal/FixedLayout.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(ElapsedTime, 16);
CUL_FIXED_FIELD(ElapsedTime, start, 0);
CUL_FIXED_FIELD(ElapsedTime, text, 8);

namespace {

constexpr unsigned textSize = 50;
constexpr std::uint64_t microsecondsPerSecond = 1000000;

}  // namespace

ElapsedTime::~ElapsedTime() = default;

std::uint64_t ElapsedTime::now() noexcept {
  timeval time = {};
  gettimeofday(&time, nullptr);
  return static_cast<std::uint64_t>(time.tv_sec) * microsecondsPerSecond +
         static_cast<std::uint64_t>(time.tv_usec);
}

const char* ElapsedTime::elapsedTime() const {
  if (text == nullptr) {
    text.reset(new char[textSize]);
  }
  const std::uint64_t end = now();
  const std::uint64_t elapsed = end > start ? end - start : 0;
  std::snprintf(text.get(), textSize, "%" PRIu64 ".%06" PRIu64, elapsed / microsecondsPerSecond,
                elapsed % microsecondsPerSecond);
  return text.get();
}
