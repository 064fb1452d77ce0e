#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/CharString.h"
#include "Engine/utilities/EncodedString.h"

/// \file
/// What the fuzzers share: the input taken apart, the library's strings as plain bytes, and
/// a check that ends the process where a promise is broken.
///
/// A fuzzer is one source that defines setUpFuzzing() and fuzz(). Its seeds lie in a folder
/// of the source's name and can be read: choices are single characters, texts end at a
/// separator.

/// Ends the process with a report when `condition` does not hold.
#define FUZZ_CHECK(condition) \
  ((condition) ? static_cast<void>(0) : fuzzCheckFailed(#condition, __FILE__, __LINE__))

[[noreturn]] void fuzzCheckFailed(const char* condition, const char* file, int line);

/// One input, taken from the front. What is missing at its end is 0 or empty.
class FuzzInput {
 public:
  explicit FuzzInput(std::string_view bytes) : rest_(bytes) {}

  [[nodiscard]] bool isEmpty() const { return rest_.empty(); }

  /// The next byte.
  unsigned char byte();
  /// A number below `count` from the next byte: '0' stands for 0, '1' for 1 and so on.
  unsigned choice(unsigned count);
  /// Four bytes.
  unsigned word();
  /// The bytes up to `separator`, which is dropped.
  std::string text(char separator = '\n');
  /// All that is left.
  std::string rest();

 private:
  std::string_view rest_;
};

/// A copy of some bytes with nothing behind it, so that a byte read too many is noticed.
class ExactBytes {
 public:
  explicit ExactBytes(std::string_view bytes);
  [[nodiscard]] const char* data() const { return data_.get(); }
  [[nodiscard]] unsigned size() const { return size_; }

 private:
  std::unique_ptr<char[]> data_;
  unsigned size_;
};

/// \name The library's strings as plain bytes, and back
/// @{
[[nodiscard]] std::string bytesOf(const EncodedString& text);
[[nodiscard]] std::string bytesOf(const ByteString& bytes);
/// In UTF-8.
[[nodiscard]] std::string bytesOf(const CharString& text);
[[nodiscard]] EncodedString utf8Text(std::string_view bytes);
/// What a function that takes a zero-terminated text sees of some bytes.
[[nodiscard]] std::string upToZero(std::string_view bytes);
/// The code values of UTF-8; where the bytes are none, each byte is a value.
[[nodiscard]] CharString wideText(std::string_view bytes);
/// @}

/// Sets an environment variable for the time of one input.
class FuzzVariable {
 public:
  FuzzVariable(const char* name, const std::string& value);
  FuzzVariable(const FuzzVariable&) = delete;
  FuzzVariable& operator=(const FuzzVariable&) = delete;
  ~FuzzVariable();

 private:
  const char* name_;
};

/// Keeps the conversions from and to a code page open, if there are any, up to the end of the
/// process: the C library would load and unload what it needs for them with each input.
void keepConversions(const char* codePage);

/// A file in memory, whose bytes each input writes anew: quicker than one in a folder.
class MemoryFile {
 public:
  MemoryFile();

  [[nodiscard]] int descriptor() const { return descriptor_; }
  /// A path that opens it.
  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] std::string bytes() const;
  /// Writes all bytes.
  void assign(std::string_view bytes) const;

 private:
  int descriptor_;
  std::string path_;
};

/// A new folder for the files of this process, removed when it ends.
[[nodiscard]] const std::string& fuzzFolder();

/// Called once, before any use of the library.
void setUpFuzzing();

/// Called for each input.
void fuzz(FuzzInput& input);
