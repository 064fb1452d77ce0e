#pragma once

#include <array>
#include <ctime>
#include <sys/types.h>

/// \file
/// Local time as localtime_r() tells it, also in a child of a fork.
///
/// localtime_r() takes the C library's lock of the time zone, which the C library does not
/// look after when it forks: in a child the lock can be taken for ever, by a thread that the
/// child does not have. A LocalTime therefore learns, in the process that first uses it,
/// which offsets from UTC hold up to a year ahead. A child goes by what was learnt and calls
/// nothing that takes the lock, until the variables of the time zone (`timezone`, `daylight`,
/// `tzname`) move there: then the child itself has had the lock, and the lock is sound.
///
/// What a child cannot know: a zone that was set after the last call of its parent, and what
/// is further ahead than a year; the last offset learnt goes on. A change of the offset that
/// is taken back within a day may pass unseen.
///
/// Not thread-safe. Allocates nothing. May change `errno`.
class LocalTime {
 public:
  constexpr LocalTime() noexcept = default;

  /// Breaks `second` down. In a child of a fork, `tm_isdst`, `tm_gmtoff` and `tm_zone` stay 0.
  /// \return false, and all of `parts` 0, when the year does not fit.
  bool breakDown(std::time_t second, std::tm& parts) noexcept;

  /// Learns anew when the zone has been set since or the year ahead has become short. To be
  /// called before a fork, so that the child knows what its parent knows; costs nothing else.
  void prepareFork(std::time_t now) noexcept;

 private:
  // The variables by which the C library shows which zone is set.
  struct Zone {
    long west = 0;
    int hasSummer = 0;
    std::array<const char*, 2> names = {};

    static Zone current() noexcept;
    bool operator==(const Zone&) const = default;
  };

  // `offset`, in seconds east of UTC, holds from `start` to the start of the next span.
  struct Span {
    std::time_t start = 0;
    std::time_t offset = 0;
  };

  bool goesByHeart() noexcept;
  void keepUp(std::time_t second) noexcept;
  void learn(std::time_t first, std::time_t last) noexcept;
  std::time_t offsetAt(std::time_t second) const noexcept;

  pid_t owner_ = 0;  // the process that may call localtime_r()
  pid_t child_ = 0;  // the child that goes by heart
  Zone zone_;        // after the last call; in a child as the fork left it
  std::time_t first_ = 0;
  std::time_t end_ = 0;
  std::array<Span, 64> spans_ = {};  // from first_ to end_, in their order
  unsigned count_ = 0;
};
