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
/// As long as its file grows, what is new stands behind what was read. A ring that has come to its
/// end goes on in front: then new lines take the place of old ones. Where the writer was, the bytes
/// that stood behind it are kept; those that have changed are new. When the writer begins the ring
/// anew, or is faster than the reader, the file's order is found again, and the lines behind the
/// last one that was given come next.

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
  void remember(const Line& line);
  void endTrace();

  [[nodiscard]] bool isReplaced() const;
  [[nodiscard]] bool isBegunAnew() const;
  void openAnew();
  [[nodiscard]] std::unique_ptr<TraceFile> openTrace() const;
  void findOrder();
  bool findPlace();
  void mark();
  bool readFresh();
  [[nodiscard]] bool isAllNew(const std::string& now) const;
  [[nodiscard]] std::size_t freshLength(const std::string& now) const;

  Process process_;
  std::unique_ptr<TraceFile> trace_;  // while its lines are given
  bool isPassingOver_ = false;        // those of trace_ up to the last one given
  bool hasNewLines_ = false;          // in trace_
  bool hasMissed_ = false;

  std::string last_;  // the line given last
  WallTime time_ = 0;

  Descriptor file_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
  std::string beginning_;   // of the file
  std::uint64_t end_ = 0;   // of the line given last
  std::uint64_t ring_ = 0;  // where it begins
  std::string ringMark_;    // what stands there
  std::string old_;         // what stood behind end_
  bool isPlaceKnown_ = false;

  std::string fresh_;           // new lines
  std::size_t freshPlace_ = 0;  // in fresh_, of the next one
};
