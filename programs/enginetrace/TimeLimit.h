#pragma once

#include <optional>
#include <string_view>

#include "programs/enginetrace/Line.h"

/// \file
/// A time as a user gives it, which may depend on the times of the traces.

/// The time from the oldest to the newest line of all traces.
struct TimeSpan {
  WallTime first = 0;
  WallTime last = 0;
};

/// One of: a time of day, such as "12:23" or "12:23:41.000098"; a date, such as "2026-11-22",
/// which is its midnight; both, with a blank or "T" in between; or a time before the newest line,
/// such as "30s", "5m", "2h", "1d" or "1h30m".
class TimeLimit {
 public:
  /// \return nothing for a text of any other form.
  [[nodiscard]] static std::optional<TimeLimit> parse(std::string_view text);

  /// The moment that is meant. A time of day is the last such within the span; where none is, that
  /// of the day on which the span ends.
  [[nodiscard]] WallTime within(const TimeSpan& span) const noexcept;

 private:
  enum class Kind { ofDay, moment, beforeTheEnd };

  TimeLimit(Kind kind, WallTime value) : kind_(kind), value_(value) {}

  Kind kind_;
  WallTime value_;
};
