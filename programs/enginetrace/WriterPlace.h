#pragma once

#include <cstdint>
#include <optional>

#include "programs/enginetrace/FileBytes.h"
#include "programs/enginetrace/RingOrder.h"

/// \file
/// Finds the writer of a ring that goes on writing while the ring is read.

/// Times of day that lines have which were written since a file was opened.
struct Since {
  WallTime newest = 0;  ///< What was the newest line's then.
  WallTime opened = 0;  ///< How much later the file was opened.
  WallTime now = 0;     ///< How much later it is now.

  [[nodiscard]] bool holds(WallTime timeOfDay) const noexcept;
};

/// What is found from a place on where new lines may be.
struct WriterPlace {
  /// \throws std::system_error
  WriterPlace(const FileBytes& file, std::uint64_t from, const Since& since);

  std::optional<LinePlace> newest;  ///< Of the new lines that follow each other.
  std::uint64_t end;                ///< Behind it.
  std::optional<LinePlace> old;     ///< The first line that was not overwritten.
};

/// Goes on to where the writer is now, which was at the newest line of the order when that was
/// found.
void catchUp(RingOrder& order, const FileBytes& file, const Since& since);
