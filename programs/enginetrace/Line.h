#pragma once

#include <cstdint>
#include <string>
#include <string_view>

/// \file
/// What all parts of the reader speak of: a process that wrote a trace, a line of it, and what
/// gives such lines one after the other.
///
/// Times are microseconds since 1970-01-01 00:00 by the clock on the wall of the process that
/// wrote the trace: a trace knows no time zone, and none is applied.

using WallTime = std::int64_t;

constexpr WallTime microsecondsPerSecond = 1'000'000;
constexpr WallTime microsecondsPerHour = 3'600 * microsecondsPerSecond;
constexpr WallTime microsecondsPerDay = 24 * microsecondsPerHour;

/// Who wrote a trace, as the file's name tells it: "root.1234.trc", "1234.trc" or any other.
struct Process {
  std::string path;  ///< Of the file, as the user named it; "-" for standard input.
  std::string role;  ///< "root"; empty when the name tells none.
  unsigned id = 0;   ///< 0 when the name tells none.
  std::string mark;  ///< What tells its lines from others': "root.1234", or the file's name.
};

/// A line with the lines that its text goes on in. The text belongs to who gave the line, until
/// that gives the next one.
struct Line {
  std::string_view whole;            ///< All bytes but the last newline; may be any bytes.
  WallTime time = 0;                 ///< With the date that the reader has found.
  const Process* process = nullptr;  ///< Never null; lives as long as the reader.
};

/// The parts of a line. A part that a line does not have is empty.
struct Parts {
  std::string_view thread;  ///< At most eight bytes, without the blanks behind.
  std::string_view type;  ///< "ERROR", "GMH"; of "**GMH/step: " and "**TLS 0x12: " the first word.
  std::string_view detail;    ///< "step", "0x12".
  std::string_view function;  ///< "void TraceImplementation::traceInternal".
  unsigned line = 0;          ///< 0: none.
  std::string_view text;
};

/// Takes a line apart; what does not begin as one is all text.
[[nodiscard]] Parts partsOf(std::string_view whole) noexcept;

/// The type of a line alone, for who looks at all of them.
[[nodiscard]] std::string_view typeOf(std::string_view whole) noexcept;

/// Gives lines, in their order.
class LineSource {
 public:
  LineSource() = default;
  LineSource(const LineSource&) = delete;
  LineSource& operator=(const LineSource&) = delete;
  virtual ~LineSource() = default;

  /// The next line; false at the end.
  virtual bool next(Line& line) = 0;
};

/// Takes lines, in their order, and makes an output of them.
class LineWriter {
 public:
  LineWriter() = default;
  LineWriter(const LineWriter&) = delete;
  LineWriter& operator=(const LineWriter&) = delete;
  virtual ~LineWriter() = default;

  virtual void write(const Line& line) = 0;

  /// Where lines were left out between two hits of a filter.
  virtual void gap() {}

  /// Behind the last line.
  virtual void finish() {}
};
