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
  std::optional<LinePlace> before;  ///< The new line in front of it.
  std::uint64_t end;                ///< Behind the newest one.
  std::uint64_t separator = 0;      ///< The last one on the way, if there is one.
  std::optional<LinePlace> old;     ///< The first line that was not overwritten.
};

/// The same, but without what is being written: the new lines are whole.
/// \throws std::system_error
WriterPlace wholeLinesBehind(const FileBytes& file, std::uint64_t from, const Since& since);

/// Goes on to where the writer is now, which was at the newest line of the order when that was
/// found.
/// \param ring where the ring began then.
/// \return false when a rewind point was set meanwhile, so that it begins elsewhere.
bool catchUp(RingOrder& order, const FileBytes& file, std::uint64_t ring, const Since& since);
