#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "programs/enginetrace/LastChange.h"
#include "programs/enginetrace/RingScan.h"

/// \file
/// The order in which the lines of a trace file were written.
///
/// What is behind the seam is the end of one pass of the writer, and the next pass begins directly
/// behind it in time. That is mostly where the body begins, but when rewind points were set in the
/// present pass, the parts that they keep belong to it, too: the old lines come in front of those.

/// Bytes of a file that begin where a line begins and end where one ends.
struct Stretch {
  LinePlace first;
  std::uint64_t end = 0;
};

/// Two lines that follow each other in the order, though not in the file.
struct Jump {
  LinePlace before;
  LinePlace behind;
};

struct RingOrder {
  /// Of no lines.
  RingOrder() = default;

  /// \param limit what the header says that the ring may take; 0 when nobody knows.
  RingOrder(const RingScan& scan, const LastChange& change, std::uint64_t limit);

  /// Whether this would be the order also if there were more separators than were looked at.
  [[nodiscard]] bool isPlain(const RingScan& scan) const;

  std::vector<Stretch> stretches;  ///< Of all lines, oldest first.
  LinePlace newest;
  bool hasSeam = false;         ///< Otherwise the ring was not wrapped, or nothing old is left.
  std::uint64_t cutBytes = 0;   ///< Rest of the line that the seam cuts; 0: it cuts none.
  std::optional<Jump> lost;     ///< Where lines are missing, or may be.
  std::optional<Jump> resumed;  ///< Behind the old lines, where the next pass has begun.
  bool isUnknown = false;       ///< Something else is as likely.

 private:
  void arrange(const std::deque<Part>& parts, const Junction* seam, std::size_t resumes);
};
