#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "programs/enginetrace/Filter.h"
#include "programs/enginetrace/Line.h"
#include "programs/enginetrace/Options.h"

/// \file
/// The lines that are found, with their neighbours.

/// Which of the lines that a filter finds are taken, and how many around each.
struct SelectionLimits {
  std::uint64_t before = 0;  ///< Lines in front of each one.
  std::uint64_t after = 0;   ///< Lines behind each one.
  std::uint64_t skip = 0;    ///< How many of those that are found are passed over at first.
  std::optional<std::uint64_t> head;  ///< How many are taken.
};

/// Hands on what is selected of the lines that are written to it. It tells of a gap where lines
/// were left out between two that are handed on, when neighbours are asked for.
class Selection : public LineWriter {
 public:
  /// \param filter,to live as long as the selection.
  Selection(const Filter& filter, const SelectionLimits& limits, LineWriter& to);

  void write(const Line& line) override;
  void finish() override { to_.finish(); }

  /// Whether nothing that is still to come can be selected.
  [[nodiscard]] bool isComplete() const noexcept { return isFull() && after_ == 0; }

  /// How many lines the filter found.
  [[nodiscard]] std::uint64_t found() const noexcept { return found_; }

 private:
  struct Kept {
    std::string whole;
    WallTime time = 0;
    const Process* process = nullptr;
  };

  [[nodiscard]] bool isFull() const noexcept {
    return limits_.head && found_ >= limits_.skip + *limits_.head;
  }
  void take(const Line& line);
  void pass(const Line& line);
  void keep(const Line& line);

  const Filter& filter_;
  const SelectionLimits limits_;
  LineWriter& to_;
  std::deque<Kept> kept_;  // the last lines that were passed over, `before` at most
  std::uint64_t found_ = 0;
  std::uint64_t after_ = 0;  // lines that are still handed on behind the last one taken
  bool hasTaken_ = false;
  bool hasDropped_ = false;  // lines behind the last one that was handed on
};
