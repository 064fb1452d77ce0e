#pragma once

#include <cstddef>
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
    std::size_t rank;
    Line line;  // The next one of the source.
  };

  static bool read(Input& input);
  static bool comesFirst(const Input& one, const Input& other) noexcept;
  void sink() noexcept;

  std::vector<Input> inputs_;  // A heap: the next line of all is that of the first.
  bool hasGiven_ = false;      // The line of the first.
};
