#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "programs/enginetrace/Line.h"

/// \file
/// The threads that lines are of.

/// A thread of a process, as far as its lines tell: threads of one name are one.
struct Lane {
  const Process* process;
  std::string thread;  ///< Empty for lines that name none.
  WallTime first;      ///< The earliest and the latest time of its lines: clocks can be set back.
  WallTime last;
};

/// Finds the lanes of lines and numbers them from 0 in the order in which they appear.
class Lanes {
 public:
  /// Threads beyond this number, which only damaged files have, share the last lane.
  static constexpr std::size_t most = 65'535;

  /// The number of a line's lane, whose times then include the line's.
  std::size_t add(const Line& line, std::string_view thread);

  [[nodiscard]] const std::vector<Lane>& all() const noexcept { return lanes_; }

 private:
  struct Key {
    const Process* process;
    std::uint64_t thread;  // Its bytes.
    bool operator==(const Key&) const = default;
  };
  struct Hash {
    std::size_t operator()(const Key& key) const noexcept;
  };

  std::size_t numberOf(const Line& line, std::string_view thread);

  std::vector<Lane> lanes_;
  std::unordered_map<Key, std::size_t, Hash> numbers_;
  struct Found {
    Key key;
    std::size_t number;
  };
  /// Lanes that were found, by their hash.
  std::array<Found, 256> recent_ = {};
};
