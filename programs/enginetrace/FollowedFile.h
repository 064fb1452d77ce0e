#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <sys/types.h>

#include "Engine/utilities/Descriptor.h"

#include "programs/enginetrace/Line.h"
#include "programs/enginetrace/TraceFile.h"

/// \file
/// A trace that is still written.
///
/// What is new stands behind what was read. In a ring, old lines stand there, of which the bytes
/// are kept: up to the last one that has changed, all are new. When the bytes at the ring's
/// beginning have changed, the writer has gone back there, and the file ends behind the last line
/// that it has written before. When it is too fast for that, the file's order is found again, and
/// the lines behind the last one that was given come next.
///
/// A write that has begun may be seen in part. So what is new is looked at once more when all
/// writes have ended that had begun, and what is the same is taken.

class FollowedFile : public LineSource {
 public:
  /// \param trace whose lines come first, from where it stands.
  FollowedFile(std::unique_ptr<TraceFile> trace, Process process);

  [[nodiscard]] const Process& process() const noexcept { return process_; }

  /// The next line that is there now; false when there is none before the next look().
  bool next(Line& line) override;

  /// Whether nothing will come any more: the end of standard input is an end.
  [[nodiscard]] bool hasEnded() const noexcept { return process_.path == "-"; }

  /// Looks for new lines, also in a file that has taken the place of this one.
  void look();

  /// Whether lines were written over before they could be read; asked once.
  [[nodiscard]] bool takeHasMissed() noexcept;

 private:
  void begin(std::unique_ptr<TraceFile> trace);
  bool nextOfTrace(Line& line);
  bool nextOfFresh(Line& line);
  void remember(const Line& line, std::uint64_t place);
  [[nodiscard]] bool isLast(const Line& line) const;
  void endTrace();

  [[nodiscard]] bool isReplaced() const;
  [[nodiscard]] bool isBegunAnew() const;
  void openAnew();
  [[nodiscard]] std::unique_ptr<TraceFile> openTrace() const;
  void findOrder();
  bool readBehindTrace();
  bool readFresh();
  bool readRestOfPass();
  void take(std::string bytes);
  void keepFixed();
  [[nodiscard]] bool isRingAsItWas() const;

  Process process_;
  std::unique_ptr<TraceFile> trace_;  // while its lines are given
  bool isPassingOver_ = false;        // those of trace_ up to the last one given
  std::uint64_t shown_ = 0;           // in front of this, those of trace_ were given before
  std::uint64_t unread_ = 0;          // bytes of trace_, where new lines begin
  bool hasMissed_ = false;

  std::string last_;         // the line given last
  std::uint64_t place_ = 0;  // where it begins
  WallTime time_ = 0;

  Descriptor file_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
  std::string header_;         // as much of it as tells of a trace that was begun anew
  RingStart ring_;             // the mark is empty before the first line of a pass is there
  std::string front_;          // what stands at its beginning, when all of it is of this pass
  std::uint64_t end_ = 0;      // of what was taken
  std::string old_;            // what stood behind end_
  bool isOldToEnd_ = false;    // of the file
  bool isPlaceKnown_ = false;  // end_ is of the present pass, and old_ is old

  std::string fresh_;              // new lines, and a separator as the last of them
  std::uint64_t freshOffset_ = 0;  // in the file
  std::size_t freshPlace_ = 0;     // in fresh_, of the next one
  bool goesOn_ = false;            // behind fresh_, at once
};
