#pragma once

#include "programs/enginetrace/Line.h"
#include "programs/enginetrace/Output.h"

/// \file
/// Lines for programs.

/// Writes each line as one object of JSON on a line of its own, with the keys
///
///     time      "2026-11-22T12:23:41.000098", by the clock of the process that wrote the line
///     process   its mark
///     thread, type, detail, function
///     line      a number
///     text
///
/// in this order. A part that a line does not have is left out, but for the time, the process and
/// the text. Texts are as appendJsonText() writes them. Gaps are not shown.
class JsonWriter : public LineWriter {
 public:
  explicit JsonWriter(Output& output) : output_(output) {}

  void write(const Line& line) override;

 private:
  Output& output_;
  std::string object_;
};
