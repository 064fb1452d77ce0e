#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Engine/utilities/Descriptor.h"

/// \file
/// The bytes of a file that others may write, cut, replace or remove meanwhile. They are read, not
/// mapped: bytes that have gone are missing, and that is all.

class FileBytes {
 public:
  /// A pipe, a FIFO with a writer, or standard input, is read to its end into a file that has no
  /// name.
  /// \param path "-" for standard input.
  /// \throws NotATrace when what is read from a pipe does not look like a trace, or for a device;
  ///         std::system_error.
  explicit FileBytes(const std::string& path);

  /// Bytes of the file when it was opened.
  [[nodiscard]] std::uint64_t size() const noexcept { return size_; }

  /// When it was written last, in microseconds since 1970 UTC; below 0 when nobody knows, as for
  /// what came through a pipe.
  [[nodiscard]] std::int64_t lastChange() const noexcept { return lastChange_; }

  /// Whether it was written since it was opened, or is by now.
  [[nodiscard]] bool isWrittenTo() const noexcept;

  /// Reads up to `size` bytes from `offset` on.
  /// \return how many there were; fewer only at the end of the file.
  /// \throws std::system_error
  std::size_t read(std::uint64_t offset, char* to, std::size_t size) const;

 private:
  void spool();

  std::string path_;
  Descriptor file_;
  std::uint64_t size_ = 0;
  std::int64_t lastChange_ = -1;
};
