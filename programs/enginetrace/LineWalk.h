#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "programs/enginetrace/FileBytes.h"
#include "programs/enginetrace/LineStart.h"

/// \file
/// Goes over a file from newline to newline, however far apart these are.

class LineWalk {
 public:
  /// The line that the trace writes at its end begins like this, behind lineStartLength bytes.
  static constexpr std::string_view traceEnd =
      "void TraceImplementation::traceInternal(718): Trace end at ";

  /// \param file stays the caller's.
  /// \param place where to begin.
  /// \param usual about how many bytes will be gone over; it may be more.
  LineWalk(const FileBytes& file, std::uint64_t place, std::uint64_t usual = blockSize);

  /// Goes behind the next newline, at first to the place where to begin.
  /// \return whether there is a byte.
  /// \throws std::system_error
  bool next();

  /// The first bytes of the line, or more: as many as tell what kind of line it is.
  [[nodiscard]] std::string_view bytes() const noexcept { return {data() + at_, last_ - at_}; }

  /// Where in the file the line begins; when next() has given false, the end.
  [[nodiscard]] std::uint64_t offset() const noexcept { return place_ - (last_ - at_); }

  /// Whether there was a newline behind the last line, when next() has given false.
  [[nodiscard]] bool endsInNewline() const noexcept { return endsInNewline_; }

 private:
  [[nodiscard]] const char* data() const noexcept { return buffer_.data(); }
  void fill();
  void skip();

  // Fits into the caches of a processor.
  static constexpr std::uint64_t blockSize = 262'144;
  static constexpr std::uint64_t smallBlockSize = 65'536;
  static constexpr std::size_t enough = lineStartLength + traceEnd.size();
  static_assert(enough >= separatorLine.size());

  const FileBytes& file_;
  std::vector<char> buffer_;
  std::size_t at_ = 0;
  std::size_t last_ = 0;
  std::uint64_t place_;  // in the file, behind what is in the buffer
  bool isFirst_ = true;
  bool isAtEnd_ = false;
  bool endsInNewline_ = true;
};
