#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "programs/enginetrace/Line.h"

/// \file
/// How numbers and texts stand in the columns of a summary.

/// "1,234,567", blanks before it up to `columns`.
[[nodiscard]] std::string grouped(std::uint64_t number, std::size_t columns = 0);

/// "1 line", "1,234 lines".
[[nodiscard]] std::string counted(std::uint64_t number, std::string_view one);

/// Bytes as appendPrintable() shows them, on one line, cut to a number of columns: what is cut ends
/// in "...".
[[nodiscard]] std::string fitted(std::string_view bytes, std::size_t columns);

/// fitted() with blanks behind it up to `columns`.
[[nodiscard]] std::string padded(std::string_view bytes, std::size_t columns);

/// "2026-11-22 12:23:41.000098".
[[nodiscard]] std::string timeText(WallTime time);

/// "3.250 s", blanks before it up to `columns`.
[[nodiscard]] std::string durationText(WallTime duration, std::size_t columns = 0);
