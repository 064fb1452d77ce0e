#pragma once

#include <optional>
#include <string_view>

#include "programs/enginetrace/Line.h"
#include "programs/enginetrace/TraceFile.h"

/// \file
/// What the trace says of itself in its header and in its last line.

/// Takes what the lines of a header tell into the facts.
void readHeader(std::string_view header, TraceFacts& facts);

/// When the trace ended, by its last line.
[[nodiscard]] std::optional<WallTime> endOf(std::string_view line);
