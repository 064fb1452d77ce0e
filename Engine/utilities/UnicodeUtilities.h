#pragma once

#include "Engine/utilities/Export.h"

/// \file
/// Walking, decoding and encoding UTF-8, and classifying code values.
///
/// Everything works on byte pointers and lengths and allocates nothing, but for
/// convertFromCP(). UTF-8 is taken in its original form: sequences of up to six bytes,
/// 31-bit code values, overlong forms and surrogates included; a value is held in a
/// `wchar_t`. Nothing reads past the `n` bytes it is given, nothing loops for ever whatever
/// the bytes, and nothing throws, but for a failed allocation in convertFromCP(). Any
/// thread.

class EncodedString;

/// A set of static functions; there are no objects of this class.
class CUL_EXPORT UnicodeUtilities {
 public:
  UnicodeUtilities() = delete;

  /// The longest sequence of bytes that stands for one character.
  static constexpr unsigned longestSequence = 6;

  /// The number of bytes of the sequence that `lead` opens: 1 to 6, or 0 for a byte that
  /// cannot open one (0x80 to 0xBF, 0xFE and 0xFF).
  [[nodiscard]] static unsigned mblen(unsigned char lead) noexcept {
    return leadTables.length[lead];
  }

  /// Decodes (the name notwithstanding) the sequence at `p`. Reads no byte behind the first
  /// one that breaks the sequence, so a zero-terminated text is never read past its zero.
  /// \param      p  at least one byte.
  /// \param[out] cp the code value. A byte that cannot open a sequence gives itself, a
  ///                broken sequence the payload bits of its lead byte.
  /// \return the bytes taken: mblen() of the lead byte, or 1 for a broken sequence.
  static unsigned utf8Encode(const char* p, wchar_t& cp) noexcept;

  /// As above for a sequence that ends `n` bytes (at least 1) behind `p` at the latest; one
  /// that would go on behind them is broken.
  static unsigned utf8Encode(const char* p, unsigned n, wchar_t& cp) noexcept;

  /// Decodes `n` bytes and puts a 0 behind the last value.
  /// \param p        null counts as the empty text.
  /// \param n        number of bytes; 0 is the empty text.
  /// \param out      receives the values.
  /// \param capacity number of values `out` has room for, the 0 included.
  /// \return values written, the 0 included; 0 when they do not fit, when a byte that
  ///         cannot open a sequence stands where one should start, when `out` is null or
  ///         when `capacity` is below 2.
  static unsigned utf8toUnicode(const char* p, unsigned n, wchar_t* out,
                                unsigned capacity) noexcept;

  /// Encodes one value, any value of 32 bits, without a terminator.
  /// \return bytes written, 1 to 6; 0, with nothing written, when `room` is too small.
  static unsigned unicodeToUTF8(unsigned cp, char* out, unsigned room) noexcept;

  /// Encodes `count` values and puts a zero byte behind them. A null `text` is the empty text.
  /// \return bytes written, the zero included; 0 when they do not fit into `room`.
  static unsigned unicodeToUTF8(const wchar_t* text, unsigned count, char* out,
                                unsigned room) noexcept;

  /// The number of bytes that unicodeToUTF8() makes of `count` values, without a
  /// terminator.
  [[nodiscard]] static unsigned long utf8Length(const wchar_t* text, unsigned count) noexcept;

  /// The number of characters in `n` bytes of well-formed UTF-8; 0 for a null `p`. In other
  /// bytes each one that cannot open a sequence counts as one character.
  [[nodiscard]] static unsigned charCount(const char* p, unsigned n) noexcept;

  /// Where character `position` starts in `n` bytes of well-formed UTF-8, counted as by
  /// charCount().
  /// \param p        the bytes; null counts as none.
  /// \param n        number of bytes.
  /// \param position 1-based; 0 counts as 1.
  /// \return null when there is no such character.
  [[nodiscard]] static const char* findCharacter(const char* p, unsigned n,
                                                 unsigned position) noexcept;

  /// Whether `n` bytes are well-shaped UTF-8: each lead byte is followed, within the `n`
  /// bytes, by as many continuation bytes as it announces (up to five), and no other byte
  /// of 0x80 or above occurs. Overlong forms and surrogates pass.
  [[nodiscard]] static bool isValid(const char* p, unsigned n) noexcept;

  /// The length of the run of bytes below 0x80 at the start of `n` bytes.
  [[nodiscard]] static unsigned asciiLength(const char* p, unsigned n) noexcept;

  /// A text converted from a code page.
  /// \param text     zero-terminated; null counts as empty.
  /// \param codepage a name known to iconv. Null, empty or unknown: the native code page.
  ///                 Exactly "UTF-8": the text is copied as it is; under any other spelling
  ///                 of that name what is not UTF-8 becomes "?".
  [[nodiscard]] static EncodedString convertFromCP(const char* text, const char* codepage);

  /// \name Character classes
  /// The classes of XML 1.0 (Second Edition), Appendix B: BaseChar, CombiningChar, Digit,
  /// Extender, Ideographic and Letter, which is the first and the fifth together.
  /// @{
  [[nodiscard]] static bool isBaseChar(wchar_t c) noexcept;
  [[nodiscard]] static bool isCombiningChar(wchar_t c) noexcept;
  [[nodiscard]] static bool isDigit(wchar_t c) noexcept;
  [[nodiscard]] static bool isExtender(wchar_t c) noexcept;
  [[nodiscard]] static bool isIdeographic(wchar_t c) noexcept;
  [[nodiscard]] static bool isLetter(wchar_t c) noexcept;
  /// @}

 private:
  // Indexed by a lead byte.
  struct LeadTables {
    unsigned char length[256];   // mblen()
    unsigned char payload[256];  // the bits that belong to the code value
  };
  static const LeadTables leadTables;
};
