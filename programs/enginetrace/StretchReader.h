#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>
#include <vector>

#include "programs/enginetrace/FileBytes.h"
#include "programs/enginetrace/RingOrder.h"

/// \file
/// Reads a file's stretches one after the other, without the separators in them, while the file's
/// writer may go on.
///
/// A writer overwrites a ring from one place on, byte after byte. So what was read is old as long
/// as the beginning of a line before it is still there afterwards.

class StretchReader {
 public:
  /// Where the next line begins that was not overwritten, from a place on; nothing when there is
  /// none.
  using Resume = std::function<std::optional<LinePlace>(std::uint64_t)>;

  /// \param file stays the caller's, as do the stretches, in the order in which they are read.
  StretchReader(const FileBytes& file, const std::vector<Stretch>& stretches, Resume resume);

  /// Begins with the first stretch again.
  void rewind() noexcept;

  /// The next line without its newline; longer ones than longestLine come in pieces.
  /// \param offset where in the file it begins.
  /// \return whether there is one; the text is good until the next call.
  bool nextLine(std::string_view& line, std::uint64_t& offset);

  /// Where in the file the line ends that nextLine() gave last, with its newline, also when that is
  /// not there.
  [[nodiscard]] std::uint64_t endOfLine() const noexcept { return bufferPlace_ + first_; }

  /// Whether that newline is there.
  [[nodiscard]] bool isLineWhole() const noexcept { return endOfLine() <= end_; }

  /// The next lines, each with its newline, as many as are in the buffer. Empty at the end.
  std::string_view nextLines();

  /// Bytes that have gone since rewind(): cut off or overwritten.
  [[nodiscard]] std::uint64_t lost() const noexcept { return lost_; }

 private:
  bool nextStretch() noexcept;
  void fill();
  void read();
  void mark(std::size_t from);
  void goOnBehindWriter();
  [[nodiscard]] bool isMarkThere() const;
  [[nodiscard]] bool isAllThere() const noexcept { return place_ == end_; }
  [[nodiscard]] bool beginsAt(std::size_t place) const noexcept;
  bool findLineEnd();
  [[nodiscard]] std::size_t wholeLines() const noexcept;
  void skipSeparators() noexcept;
  std::string_view take(std::size_t size) noexcept;

  const FileBytes& file_;
  const std::vector<Stretch>& stretches_;
  Resume resume_;
  std::size_t next_ = 0;     // stretch
  std::uint64_t place_ = 0;  // in the file, behind what is in the buffer
  std::uint64_t end_ = 0;    // of the stretch
  LinePlace mark_;           // the last line that begins in front of place_
  std::uint64_t lost_ = 0;
  std::vector<char> buffer_;
  std::uint64_t bufferPlace_ = 0;  // of the buffer in the file
  std::size_t first_ = 0;          // of the bytes in the buffer that were not given yet
  std::size_t last_ = 0;           // behind them
  std::size_t found_ = 0;  // behind the first line among them, or behind what was searched for it
};
