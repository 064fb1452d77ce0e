#pragma once

#include "Engine/utilities/Export.h"

class ByteString;
class EncodedString;

/// \file
/// The MD5 message digest (RFC 1321) of a piece of memory. It tells versions of source
/// files and modules apart; it protects nothing.

/// A digest: a plain value of 16 bytes.
class CUL_EXPORT MD5 {
 public:
  /// Bytes of a digest.
  static constexpr unsigned size = 16;

  /// How asString() writes a digest.
  enum OutputString : int {
    textIfAlphanumeric,  ///< The 16 bytes as they are when all are ASCII letters or digits.
    hexadecimal          ///< Always 32 hexadecimal digits. So does every other value but 0.
  };

  /// The digest of the `n` bytes at `data`.
  MD5(const void* data, unsigned n) noexcept;
  /// The digest of all bytes, zero bytes included.
  explicit MD5(const ByteString& bytes) noexcept;

  /// Reads a digest from 32 hexadecimal digits of either case, the high half of each byte
  /// first. Any other character counts as 0, and so does what is missing behind the end of
  /// a short text; null gives a digest of zeros.
  [[nodiscard]] static MD5 fromText(const char* hex) noexcept;

  /// The digest as 32 upper-case hexadecimal digits, or as the text that its bytes spell
  /// (a digest read back with fromText() may be such a text).
  [[nodiscard]] EncodedString asString(OutputString form) const;

  [[nodiscard]] bool operator==(const MD5&) const noexcept = default;

  /// The digest in the order in which it is written.
  unsigned char digest[size] = {};

 private:
  MD5() noexcept = default;
};
