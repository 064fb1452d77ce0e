#pragma once

#include <array>

#include "Engine/utilities/Export.h"

/// \file
/// Fixed tables between 7-bit ASCII and EBCDIC code page 1047, for buffers that are
/// translated byte for byte, in place or while they are copied. For wide text and other
/// code pages see EBCDICtable.
///
/// Lengths are in bytes. The terminated forms end at the first zero byte, which stays a zero
/// byte; no other byte becomes one. A null source counts as empty, with a null target nothing
/// happens. A length is written 0U, not 0: for the compiler a literal 0 is as much a null source.
/// Everything here is a constant table: any thread, any time, nothing throws.

/// A set of static functions; there are no objects of this class.
class CUL_EXPORT EBCDIC {
 public:
  EBCDIC() = delete;

  /// The Unicode value of each byte of code page 1047, as in IBM's "CP01047" of the Character
  /// Data Representation Architecture, but with the line feeds of Unix-style hosts: byte 0x15
  /// is U+000A and byte 0x25 is U+0085. All values differ.
  static const std::array<unsigned short, 256> codePage1047;

  /// \name ASCII to EBCDIC
  /// Every byte of 0x80 and above becomes 0xFF.
  /// @{

  /// In place. \return `buffer`.
  static unsigned char* fromUCS7bit(unsigned char* buffer, unsigned n) noexcept;
  static unsigned char* fromUCS7bit(unsigned char* buffer) noexcept;

  /// While copying; the terminated form copies the terminator too. The two areas may be the
  /// same, but must not overlap otherwise. \return `target`.
  static unsigned char* fromUCS7bit(unsigned char* target, const unsigned char* source,
                                    unsigned n) noexcept;
  static unsigned char* fromUCS7bit(unsigned char* target, const unsigned char* source) noexcept;
  /// @}

  /// \name EBCDIC to ASCII
  /// Bytes that are no ASCII become 0x7F. Two are special: 0x26 becomes 0x7F and 0x22 becomes
  /// 0x17.
  /// @{

  /// In place. \return `buffer`.
  static unsigned char* toUCS7bit(unsigned char* buffer, unsigned n) noexcept;
  static unsigned char* toUCS7bit(unsigned char* buffer) noexcept;

  /// While copying, as above. \return `target`.
  static unsigned char* toUCS7bit(unsigned char* target, const unsigned char* source,
                                  unsigned n) noexcept;
  static unsigned char* toUCS7bit(unsigned char* target, const unsigned char* source) noexcept;
  /// @}
};
