#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "programs/enginetrace/Line.h"

/// \file
/// The time of a file's last change and what it tells of the newest line: the writer writes each
/// line at once.

/// From one time of day to the next time that it is another one: below a day, also when a damaged
/// line has a time that no day has, as "29:59:69".
constexpr WallTime timeBetween(WallTime before, WallTime behind) noexcept {
  return (behind - before + 2 * microsecondsPerDay) % microsecondsPerDay;
}

/// Microseconds since 1970 UTC.
[[nodiscard]] std::int64_t now() noexcept;

class LastChange {
 public:
  /// How a line's time of day goes with the change: not, if the clocks of writer and reader are in
  /// different time zones, or as they are.
  enum class Fit : unsigned char { none, inOtherZone, inThisZone };
  static constexpr std::size_t fits = 3;

  /// \param change microseconds since 1970 UTC; below 0: unknown.
  /// \param now    the same; a file that was just changed may be once more while it is looked at.
  LastChange(std::int64_t change, std::int64_t now) noexcept;

  [[nodiscard]] Fit fit(WallTime timeOfDay) const noexcept;

  /// When a line that fits was written, by the clock on its writer's wall.
  [[nodiscard]] std::optional<WallTime> dateOf(WallTime timeOfDay) const noexcept;

 private:
  [[nodiscard]] WallTime lagOf(WallTime timeOfDay) const noexcept;

  bool isKnown_ = false;
  WallTime change_ = 0;  // by this process's clock on the wall
  WallTime offset_ = 0;  // that is how much later than UTC
  // Lines can be this much later than the change, and earlier.
  WallTime lead_ = 0;
  WallTime lag_ = 0;
};
