#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Engine/utilities/Descriptor.h"

/// \file
/// The bytes of a file that others may write, cut, replace or remove meanwhile. They are read, not
/// mapped: bytes that have gone are missing, and that is all.

/// Returns when the write to a file that has begun has ended. Until then, a part of its bytes may
/// be seen. \param file its position is not kept.
void awaitWrite(int file) noexcept;

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

  /// Whether it was written since it was looked at, or may be by now.
  [[nodiscard]] bool isWrittenTo() const noexcept;

  /// Looks at the size and the last change again, which are those of the file when it was opened.
  /// Not of what came through a pipe.
  void lookAgain() noexcept;

  /// Returns when what is being written is all there, if that is a file that was opened by its
  /// name.
  void awaitWrite() const noexcept;

  /// Another descriptor of the same file.
  [[nodiscard]] Descriptor duplicate() const noexcept;

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
  bool isFresh_ = false;  // so that a later change may have the same date
};
