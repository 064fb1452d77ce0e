#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "Engine/utilities/Descriptor.h"

#include "programs/enginetrace/Line.h"

struct WriterPlace;

/// \file
/// A trace file, its order found.

/// A file in whose first `notATraceWithin` bytes no line begins as one of a trace. An empty file is
/// a trace that nothing was written to.
class NotATrace : public std::runtime_error {
 public:
  /// \param path is what().
  explicit NotATrace(const std::string& path) : std::runtime_error(path) {}
};

/// Room for a line of the greatest length, or the rest of one, and the next.
constexpr std::size_t notATraceWithin = 262'144;

/// Whether a file that begins with these bytes is a trace.
[[nodiscard]] bool looksLikeATrace(std::string_view bytes) noexcept;

/// A line that is longer than this, with all lines of its text, comes in pieces, each a line of its
/// own without a line's beginning, all of the same time. The trace writes 128,000 bytes at most.
constexpr std::size_t longestLine = 1'048'576;

/// What a file says of itself, and what the reader found out about it.
struct TraceFacts {
  Process process;
  std::optional<WallTime> started;  ///< "Trace start at", absent when the header is damaged.
  std::string program;              ///< "Debugger: %s".
  std::string version;
  std::string build;                  ///< "Build Date: %s".
  std::vector<std::string> included;  ///< Trace types.
  std::vector<std::string> excluded;
  std::uint64_t limit = 0;  ///< "Trace size" in bytes; 0 when the header does not say.
  WallTime first = 0;       ///< Of the oldest line that is there.
  WallTime last = 0;        ///< Of the newest one.
  std::uint64_t size = 0;   ///< Bytes of the file.
  bool hasLost = false;     ///< Whether the ring has written over lines.
  WallTime lostFrom = 0;    ///< When hasLost: between which times lines are lost.
  WallTime lostUntil = 0;
  unsigned cutLines = 0;          ///< Lines that the seam cut, and that are left out.
  std::uint64_t unreadBytes = 0;  ///< What went while it was read, and what is no line.
  bool isOrderUnknown = false;    ///< The seam was not to be found for sure.
  /// The file was changed after its last line, or days went by of which no line tells.
  bool isDateUnknown = false;
  std::error_code failure;  ///< Why the rest cannot be read, when it was opened and read so far.
};

/// Who wrote a trace, as its path tells: "root.1234.trc" and "1234.trc" in any folder.
[[nodiscard]] Process processOf(const std::string& path);

/// The part of a file that new lines are written to.
struct RingStart {
  std::uint64_t offset = 0;  ///< Behind the last separator.
  std::uint64_t first = 0;   ///< Where the first line begins.
  std::string mark;          ///< How it begins, which changes with each pass; empty: not there yet.
};

/// A file whose lines come oldest first. It is read as it stands when it is opened; lines that
/// are written meanwhile are the business of who follows it.
class TraceFile : public LineSource {
 public:
  /// Opens a file and finds its order, which reads it once, or little of a large one whose order is
  /// plain. Memory does not grow with the file.
  /// \param path "-" for standard input, which is kept in a file of its own.
  /// \throws NotATrace, std::system_error.
  explicit TraceFile(const std::string& path);
  ~TraceFile() override;

  [[nodiscard]] const TraceFacts& facts() const noexcept;

  /// A file that cannot be read further ends there: its facts tell why, and how much is left.
  bool next(Line& line) override;

  /// Where in the file the line begins that next() gave last, and where it ends, with its newline.
  [[nodiscard]] std::uint64_t place() const noexcept;
  [[nodiscard]] std::uint64_t end() const noexcept;

  /// Whether that line has its newline. The last one of a file may not: the rest of it may come.
  [[nodiscard]] bool isLineWhole() const noexcept;

  /// Begins with the oldest line again.
  void rewind();

  /// For an output that takes the lines as they are: gives the next bytes in order, whole lines
  /// each time but for those longer than longestLine, empty at the end. Not to be mixed with
  /// next().
  [[nodiscard]] std::string_view nextBytes();

  /// For who follows the file: its ring when the order was found, what was written since that
  /// behind a line's end, and another descriptor.
  [[nodiscard]] const RingStart& ring() const noexcept;
  [[nodiscard]] WriterPlace writtenBehind(std::uint64_t end) const;
  [[nodiscard]] Descriptor duplicate() const noexcept;

 private:
  struct State;
  std::unique_ptr<State> state_;
};
