#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "programs/enginetrace/Line.h"
#include "programs/enginetrace/RingOrder.h"
#include "programs/enginetrace/RingScan.h"

/// \file
/// The dates of lines that tell the time of day only.
///
/// Where the time runs backward, a day has begun, or the clock was set back: by how much tells
/// which. The number of days is known when the dates of the first and of the newest line are; days
/// that are left over went by where lines were lost, or else in the longest silence.

class Dates {
 public:
  /// Of no lines.
  Dates() = default;

  /// \param started of the trace, when its header tells it.
  /// \param ended   when the newest line was written; nothing when nobody knows.
  Dates(const RingScan& scan, const RingOrder& order, std::optional<WallTime> started,
        std::optional<WallTime> ended);

  /// The time of the next line in the order.
  [[nodiscard]] WallTime timeOf(const LinePlace& line) noexcept;

  /// Begins with the oldest line again.
  void rewind() noexcept;

  [[nodiscard]] WallTime first() const noexcept { return firstDay_ + firstTime_; }
  [[nodiscard]] WallTime last() const noexcept { return last_; }
  /// Whether days went by that no line tells of, and nobody knows where.
  [[nodiscard]] bool areSomeUnknown() const noexcept { return !areAllKnown_; }
  /// Of the lines before and behind those that the ring has lost.
  [[nodiscard]] WallTime lostFrom() const noexcept { return lostFrom_; }
  [[nodiscard]] WallTime lostUntil() const noexcept { return lostUntil_; }

 private:
  void fit(const std::vector<BackStep>& steps, const RingOrder& order, WallTime days);

  WallTime firstTime_ = 0;
  WallTime firstDay_ = 0;     // as the time of its midnight
  WallTime silence_ = 0;      // the smallest step backward that is one
  std::uint64_t leapAt_ = 0;  // the line in front of which days are left over
  WallTime leap_ = 0;         // these days
  bool areAllKnown_ = true;
  WallTime last_ = 0;
  WallTime lostFrom_ = 0;
  WallTime lostUntil_ = 0;
  WallTime time_ = 0;  // of the line told last
  WallTime day_ = 0;
};
