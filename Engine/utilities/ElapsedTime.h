#pragma once

#include <cstdint>
#include <memory>

#include "Engine/utilities/Export.h"

/// \file
/// A stopwatch in microseconds of wall time. One object is used by one thread at a time.
/// \code
///   ElapsedTime timer;
///   timer.start = ElapsedTime::now();
///   ...
///   printf("%s s\n", timer.elapsedTime());
/// \endcode

class CUL_EXPORT ElapsedTime {
 public:
  ElapsedTime() noexcept = default;
  ElapsedTime(const ElapsedTime&) = delete;
  ElapsedTime& operator=(const ElapsedTime&) = delete;
  ~ElapsedTime();

  /// Microseconds since the epoch. Any thread.
  [[nodiscard]] static std::uint64_t now() noexcept;

  /// The time since `start` in seconds, with six decimals, as "12.000345"; "0.000000" when
  /// the clock was set back behind `start`. The text belongs to this object and lasts until
  /// the next call.
  [[nodiscard]] const char* elapsedTime() const;

  /// When the timing began, as now() gives it; set by the caller.
  std::uint64_t start = 0;

 private:
  mutable std::unique_ptr<char[]> text;
};
