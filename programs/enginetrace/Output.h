#pragma once

#include <cstddef>
#include <memory>
#include <string_view>
#include <system_error>

/// \file
/// Where an output goes: a descriptor with a buffer in front of it.

/// An output that cannot be written; the code tells why, EPIPE that its reader has gone away.
class OutputFailed : public std::system_error {
 public:
  using system_error::system_error;
};

class Output {
 public:
  /// \param descriptor stays the caller's.
  explicit Output(int descriptor);
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;
  /// Does not write what put() has left in the buffer.
  ~Output() = default;

  /// \throws OutputFailed
  void put(std::string_view bytes) {
    if (bytes.size() > size - filled_) {
      putBehindOthers(bytes);
      return;
    }
    filled_ += bytes.copy(buffer_.get() + filled_, bytes.size());
  }

  /// Writes what is in the buffer.
  /// \throws OutputFailed
  void flush();

 private:
  static constexpr std::size_t size = std::size_t{256} * 1024;

  void putBehindOthers(std::string_view bytes);

  int descriptor_;
  std::unique_ptr<char[]> buffer_;
  std::size_t filled_ = 0;
};
