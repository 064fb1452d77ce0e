#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "programs/enginetrace/Line.h"

/// \file
/// The lines of several sources as one run.

/// Gives the lines of its sources by time; of lines of one time those of the source named first
/// come first. Lines of one source stay in their order, also where their times run backward.
class Merge : public LineSource {
 public:
  struct Source {
    LineSource* lines;
    const Process* process;  ///< What its lines are said to be of.
  };

  /// \param sources live as long as the merge.
  explicit Merge(const std::vector<Source>& sources);

  /// The line belongs to its source until the next call.
  bool next(Line& line) override;

 private:
  struct Input {
    Source source;
    Line line;  // The next one of the source.
  };

  void read(std::size_t rank);
  void play(std::size_t rank) noexcept;

  std::vector<Input> inputs_;    // By rank.
  std::vector<WallTime> times_;  // Of their next lines; as many as a whole tree has leaves.
  // A tournament: the ranks of those that come first of two neighbours, of four and so on. The
  // winner of all is at 1, the leaves are not kept.
  std::vector<std::uint32_t> winners_;
  bool hasGiven_ = false;  // The winner's line.
};
