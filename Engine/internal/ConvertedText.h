#pragma once

#include <iconv.h>
#include <memory>
#include <stddef.h>

/// The result of a conversion: the output up to its first zero byte.
class ConvertedText {
 public:
  /// Room for `size` bytes, at least 1, the final zero included.
  explicit ConvertedText(size_t size);
  ConvertedText(const ConvertedText&) = delete;
  ConvertedText& operator=(const ConvertedText&) = delete;

  /// Converts through iconvDebug().
  void convert(iconv_t descriptor, const char* input, size_t inputLength);

  /// Puts one byte behind the text; there must be room.
  void add(char byte) noexcept { area_[length_++] = byte; }

  /// The output with its final zero, valid until the next change.
  [[nodiscard]] const char* text() const noexcept { return area_; }
  /// As a string takes it; a text of 4 GiB or more has a length that no string can have.
  [[nodiscard]] unsigned length() const noexcept;

 private:
  char small_[512];
  std::unique_ptr<char[]> large_;
  char* area_;
  size_t size_;
  size_t length_ = 0;
};
