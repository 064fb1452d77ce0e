#pragma once

#include <string_view>

#include "programs/enginetrace/LineStart.h"

/// \file
/// What people want to see of a line.

/// What stands behind the time and the thread; all of what does not begin as a line.
[[nodiscard]] inline std::string_view bodyOf(std::string_view whole) noexcept {
  return beginsLine(whole) ? whole.substr(lineStartLength) : whole;
}

/// Whether a line is the ruler that the trace draws behind its header and at each rewind point. It
/// is of no thread, and no line to people.
[[nodiscard]] inline bool isRuler(std::string_view whole) noexcept {
  return whole == separatorLine.substr(0, separatorLine.size() - 1);
}
