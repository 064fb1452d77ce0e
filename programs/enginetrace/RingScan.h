#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string_view>
#include <vector>

#include "programs/enginetrace/FileBytes.h"
#include "programs/enginetrace/LastChange.h"
#include "programs/enginetrace/Line.h"

/// \file
/// The first look at a trace file, from its beginning to its end: where it is divided, and what
/// could be the seam of its ring, where the newest line stands in front of the oldest one.
///
/// Between separators a file has parts: the header, what rewind points have kept, and the body,
/// which is the ring. In the body the present pass of the writer stands in front of the rest of the
/// pass before, of which the seam has cut a line.

/// The beginning of a line.
struct LinePlace {
  std::uint64_t offset = 0;
  WallTime time = 0;  ///< Of day.
};

/// What stands between two separators.
struct Part {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;  ///< Where the next separator begins.
  bool hasLines = false;
  LinePlace first;
  LinePlace last;
};

/// Where a line stands in front of another one.
struct Junction {
  LinePlace before;
  LinePlace behind;
  /// If this is the seam, behind the line before: the rest of the line that it cut is between
  /// `cut` and the line behind. When the text of the line before has lines of its own, it is the
  /// last of them, as nothing tells such a rest from the end of a text.
  std::uint64_t cut = 0;
  bool hasRest = false;
  bool isTraceEnd = false;  ///< Whether the line before tells of the trace's end.
  LastChange::Fit fit = LastChange::Fit::none;

  /// How much later the line behind could be at least: below a day.
  [[nodiscard]] WallTime gap() const noexcept { return timeBetween(before.time, behind.time); }
};

/// A clock that was set back shows in the time of day as a long silence does. This is where the
/// time of day runs backward, or so far forward that it could have been set back over midnight.
struct BackStep {
  std::uint64_t offset = 0;  ///< Of the line behind.
  WallTime by = 0;           ///< If it was set back, and not a silence.
  bool overMidnight = false;

  static std::optional<BackStep> between(const LinePlace& before, const LinePlace& behind) noexcept;

  /// The days that have begun, when clocks are not set back by as much as `silence`.
  [[nodiscard]] WallTime days(WallTime silence) const noexcept {
    return (by >= silence ? 1 : 0) - (overMidnight ? 1 : 0);
  }
};

/// Keeps of all junctions of the body those that can be the seam: what speaks for a junction are
/// its kind and its gap, so that the widest gaps of each kind are enough. Two: the best and its
/// rival. Of the others it is counted how many there are of each kind and about what gap.
class Junctions {
 public:
  void add(const Junction& junction) noexcept;
  void clear() noexcept { *this = {}; }

  [[nodiscard]] std::vector<Junction> candidates() const;

  /// Junctions that are hardly different.
  struct Group {
    LastChange::Fit fit;
    bool hasRest;
    WallTime below;  ///< The gaps are shorter, but not by half.
    double count;
  };
  [[nodiscard]] std::vector<Group> groups() const;

  [[nodiscard]] double count() const noexcept;
  /// How many have what looks like the rest of a cut line.
  [[nodiscard]] double rests() const noexcept;
  /// Between two lines, in microseconds, whatever silences there were.
  [[nodiscard]] double usualGap() const noexcept;

 private:
  static constexpr std::size_t kinds = 2 * LastChange::fits;
  static constexpr std::size_t mostDigits = std::bit_width(std::uint64_t{microsecondsPerDay});

  [[nodiscard]] static std::size_t kindOf(const Junction& junction) noexcept;

  std::array<std::array<Junction, 2>, kinds> widest_ = {};
  std::array<unsigned, kinds> kept_ = {};
  // By the number of binary digits of the gap.
  std::array<std::array<std::uint64_t, mostDigits + 1>, kinds> counts_ = {};
  Junction traceEnd_;
};

struct RingScan {
  /// More would be no times of day; what follows is not kept.
  static constexpr std::size_t mostBackSteps = 65'536;

  /// Looks at all lines.
  /// \throws std::system_error
  RingScan(const FileBytes& file, const LastChange& change);

  /// Looks at few lines, and only where the time does not go by as it does elsewhere at all: enough
  /// to see a usual seam, but not for the separators behind the first.
  /// \return nothing when the file is small, or not as usual.
  /// \throws std::system_error
  static std::optional<RingScan> quick(const FileBytes& file, const LastChange& change);

  /// At least one; the body is the last. Between the first and the last one, all have lines.
  std::deque<Part> parts;
  std::uint64_t separators = 0;
  Junctions junctions;  ///< Of the body, and between the line in front of it and its first.
  std::vector<BackStep> backSteps;
  /// Where the time goes forward most, and what comes next to that.
  Junction widest;
  Junction secondWidest;
  WallTime usualStride = 0;   ///< What is not unusual between two lines that quick() looks at.
  bool endsInNewline = true;  ///< As what the writer has written whole does.

 private:
  RingScan() = default;
  void walk(const FileBytes& file, std::uint64_t begin, std::uint64_t end,
            const LastChange& change);
  void takeLine(const LinePlace& line, const LastChange& change);
  void join(const LinePlace& line, const LastChange& change);
  void takeSeparator(std::uint64_t offset);

  // The line taken last.
  bool hasLine_ = false;
  LinePlace line_;
  bool isTraceEnd_ = false;
  // What was behind it and is no line.
  bool hasRest_ = false;
  std::uint64_t rest_ = 0;
};
