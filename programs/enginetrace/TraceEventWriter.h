#pragma once

#include <map>
#include <set>
#include <string>

#include "programs/enginetrace/Lanes.h"
#include "programs/enginetrace/Line.h"
#include "programs/enginetrace/Output.h"

/// \file
/// Lines for viewers of timelines, such as Perfetto and chrome://tracing.

/// Writes the JSON object form of the Trace Event Format: a lane for each thread of each process,
/// its life (from its first to its last line) as a slice, its lines as instants.
///
/// An instant is named by its type, else by its function, and is of the category "error",
/// "warning" or "line"; errors and warnings have a colour. Its arguments are the detail, function,
/// line and text, as in JsonWriter.h. Times are microseconds since 1970 by the clock on the wall.
///
/// A viewer takes a number for one process. A process has its own; where that is not known, or
/// where another one of the same number came first, it has one that no process of the system
/// can have. The numbers of threads are all of this kind: a trace tells only names.
///
/// Memory grows with the threads, not with the lines. Gaps and rulers are not shown.
class TraceEventWriter : public LineWriter {
 public:
  explicit TraceEventWriter(Output& output) : output_(output) {}

  void write(const Line& line) override;
  void finish() override;

 private:
  unsigned processNumber(const Process& process);
  unsigned threadNumber(std::size_t lane) const;
  void appendPlace(const Process& process, std::size_t lane);
  void beginEvent();
  void nameLane(std::size_t lane);
  void writeLife(std::size_t lane);

  Output& output_;
  std::string event_;
  bool isFirst_ = true;
  Lanes lanes_;
  std::map<const Process*, unsigned> processes_;
  std::set<unsigned> taken_;
};
