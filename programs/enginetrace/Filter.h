#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "programs/enginetrace/Line.h"
#include "programs/enginetrace/Options.h"
#include "programs/enginetrace/Pattern.h"

/// \file
/// Which lines the user asks for.

class Filter {
 public:
  /// \param span of all traces that are read.
  Filter(const Options& options, const TimeSpan& span);

  /// Whether every line is asked for.
  [[nodiscard]] bool takesAll() const noexcept { return takesAllTimes_ && takesAllTexts_; }

  /// Whether a line lies between the times that were given; others are not looked at, also not as
  /// neighbours of lines that are found.
  [[nodiscard]] bool isInTime(const Line& line) const noexcept {
    return line.time >= since_ && line.time <= until_;
  }

  [[nodiscard]] bool takesAllTimes() const noexcept { return takesAllTimes_; }

  /// Whether a line is one of those that are asked for, whatever its time.
  [[nodiscard]] bool finds(std::string_view whole) const {
    return takesAllTexts_ || findsText(whole);
  }

 private:
  [[nodiscard]] bool findsText(std::string_view whole) const;
  [[nodiscard]] bool hasFunction(std::string_view function) const;

  std::vector<std::string> types_;
  std::vector<std::string> notTypes_;
  std::vector<std::string> threads_;
  std::vector<Pattern> functions_;
  std::optional<Pattern> pattern_;
  WallTime since_;
  WallTime until_;
  bool takesAllTimes_;
  bool takesAllTexts_;
};

/// Whether a process is asked for: by its role, its id or both, as its lines are marked.
[[nodiscard]] bool isAskedFor(const Process& process, const Options& options);
