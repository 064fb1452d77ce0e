#pragma once

#include <memory>
#include <vector>

#include "programs/enginetrace/FolderWatch.h"
#include "programs/enginetrace/FollowedFile.h"
#include "programs/enginetrace/Output.h"
#include "programs/enginetrace/Selection.h"
#include "programs/enginetrace/Traces.h"

/// \file
/// Shows traces while they are written.

class Follow {
 public:
  /// \param traces whose lines come first, and which are followed. They live as long as this.
  explicit Follow(Traces& traces);

  /// Hands on what is there, and then each line that is written, until the selection is complete.
  /// \param output what the selection writes to: it is written out before each wait.
  void run(Selection& selection, Output& output);

 private:
  [[nodiscard]] bool canGetMore() const;
  void takeNew();
  void handOn(Selection& selection);
  void tellMissed();

  Traces& traces_;
  FolderWatch watch_;
  std::vector<std::unique_ptr<FollowedFile>> files_;
};
