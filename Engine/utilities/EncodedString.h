#pragma once

#include <string_view>

#include "Engine/utilities/Export.h"
#include "Engine/utilities/StringBuffer.h"

/// \file
/// The library's main string type: text that is held as UTF-8 (but for what is converted to a
/// named code page, see convertToUTF8()).
///
/// Whatever encoding a text arrives in, an EncodedString::Encoding says how its bytes are
/// to be read, and convert() makes the bytes of another encoding on the way out. Positions
/// of the inherited operations are byte positions; where a character is meant, a UTF-8
/// character is. All positions are 1-based, and a result of 0 means not found.
///
/// What cannot be converted becomes "?", a position out of range gives an empty result;
/// nothing throws but the exhaustion of memory (std::bad_alloc), which includes a text too
/// long for a 32-bit length. An object is used by one thread at a time. Beware of comparing with a
/// plain `const char*`: an EncodedString converts to one, and pointers are compared.

class ByteString;
class CharString;

class CUL_EXPORT EncodedString : public StringBuffer<char> {
 public:
  /// How incoming bytes are read and what convert() makes. Any other value means `utf8`.
  enum Encoding : int {
    native,     ///< The native code page, see UTF8Converter.
    slashU,     ///< In: as `native`, then the escapes "\uhhhh" and "\Uhhhhhhhh" are replaced
                ///< by their characters, see convertFromSlashU(). Out: every character but
                ///< ASCII is such an escape. Backslashes of the text itself are written as
                ///< they are: what looks like an escape is read back as one.
    utf8,       ///< UTF-8, taken and given as it is.
    autodetect  ///< In: `utf8` when the bytes are valid UTF-8, else `native`. Out: `utf8`.
  };

  EncodedString() noexcept = default;
  EncodedString(const EncodedString&) = default;
  /// Leaves the source empty.
  EncodedString(EncodedString&&) noexcept = default;

  /// A zero-terminated text; null counts as empty.
  EncodedString(const char* text, Encoding encoding);
  EncodedString(const unsigned char* text, Encoding encoding);
  EncodedString(const signed char* text, Encoding encoding);

  /// `n` bytes; null counts as empty. What is converted (`native`, `slashU`, and `autodetect`
  /// when the bytes are not valid UTF-8) ends at its first zero byte, here and in convert() to
  /// `native`; in everything else zero bytes are ordinary ones.
  EncodedString(const char* text, unsigned n, Encoding encoding);
  EncodedString(const unsigned char* text, unsigned n, Encoding encoding);
  EncodedString(const signed char* text, unsigned n, Encoding encoding);

  /// The same for all of `bytes`.
  EncodedString(const ByteString& bytes, Encoding encoding);

  /// `bytes` converted as by convertToUTF8(codepage).
  EncodedString(const ByteString& bytes, const char* codepage);

  /// Wide text, each code value in its UTF-8 form; a zero-terminated one may be null.
  // NOLINTBEGIN(google-explicit-constructor): wide text passes where text is taken.
  EncodedString(const CharString& text);
  EncodedString(const wchar_t* text);
  // NOLINTEND(google-explicit-constructor)

  /// `count` times the character `c`.
  EncodedString(wchar_t c, unsigned count);

  ~EncodedString() override = default;

  EncodedString& operator=(const EncodedString&) = default;
  EncodedString& operator=(EncodedString&&) noexcept = default;
  EncodedString& operator=(const CharString& text);
  EncodedString& operator=(const wchar_t* text);

  /// The text, behind which a zero byte stands; valid until the next change of this object.
  [[nodiscard]] std::string_view view() const noexcept { return {buffer, len}; }

  EncodedString& operator+=(const EncodedString& s) {
    StringBuffer<char>::operator+=(s);
    return *this;
  }
  EncodedString& operator+=(const CharString& text);
  EncodedString& operator+=(const wchar_t* text);
  EncodedString operator+(const EncodedString& s) const;

  /// The number as text, formatted with "%d", "%u", "%lld", "%llu", "%g", "%g" and "%Lg".
  static EncodedString number(int value);
  static EncodedString number(unsigned int value);
  static EncodedString number(long value);
  static EncodedString number(unsigned long value);
  static EncodedString number(float value);
  static EncodedString number(double value);
  static EncodedString number(long double value);

  /// The text in another encoding.
  /// \param target   the encoding of the result.
  /// \param codepage not used; `native` is always the native code page of the process.
  [[nodiscard]] ByteString convert(Encoding target, const char* codepage = nullptr) const;

  /// Name of the native code page. It lives as long as the process.
  [[nodiscard]] static const char* nativeCodepage();

  /// Replaces the text, read as bytes of the native code page, by its UTF-8 form, up to
  /// its first zero byte.
  /// \param codepage null or empty for that. Otherwise a code page that the text, read as
  ///                 UTF-8, is converted to: the reverse of the default direction, after which
  ///                 the text holds bytes of that code page and is no longer UTF-8. When iconv
  ///                 does not know the name, ASCII stays and each other byte becomes "?".
  void convertToUTF8(const char* codepage = nullptr);

  /// The text in the native code page, up to its first zero byte.
  /// \param codepage not used.
  [[nodiscard]] ByteString convertToNative(const char* codepage = nullptr) const;

  /// Replaces every "\u" followed by four hexadecimal digits and every "\U" followed by
  /// eight by the character of that value, whatever stands in front: a backslash protects
  /// nothing, "\\u0041" becomes "\A". Other backslashes stay, and what comes out is not read
  /// again. "\u0000" puts in a zero byte, and of a surrogate pair each half becomes a character
  /// of its own.
  void convertFromSlashU();

  /// Whether the bytes are well-shaped UTF-8, see UnicodeUtilities::isValid(); true for an
  /// empty text.
  [[nodiscard]] bool isValid() const noexcept;

  /// Whether any byte is 0x80 or above, which makes the text more than ASCII.
  [[nodiscard]] bool isNLS() const noexcept;

  /// Number of characters, see UnicodeUtilities::charCount().
  [[nodiscard]] unsigned charCount() const noexcept;

  /// Whether `c` is white space by the ASCII table: blank, tab, line feed, carriage return.
  [[nodiscard]] static bool isWhiteSpace(unsigned char c) noexcept;
  /// Whether the last byte is white space; false for an empty text.
  [[nodiscard]] bool hasTrailingWhiteSpace() const noexcept;
  /// Removes the white space at the start.
  void stripLeadingWhiteSpace();
  /// Removes the white space at the end.
  void stripTrailingWhiteSpace();
  /// Removes the white space at both ends.
  void stripWhiteSpace();

  /// Removes a leading "0x" or "0X" when hexadecimal digits, at least one, and nothing else
  /// follow.
  void stripHexPrefix();

  /// From character `start` (0 counts as 1) to the end; empty when there is none.
  [[nodiscard]] EncodedString subString(unsigned start) const;

  /// Exactly `count` characters: those from character `start` (0 counts as 1) on, as far as
  /// there are any, then as many `pad` as are missing.
  [[nodiscard]] EncodedString subString(unsigned start, unsigned count, wchar_t pad) const;

  /// The bytes before the first `c`; all when there is none.
  [[nodiscard]] EncodedString allBefore(unsigned char c) const;

  /// The bytes behind the first `c`; none when there is none.
  [[nodiscard]] EncodedString allAfter(unsigned char c) const;

  /// Returns the bytes before the first `c` and keeps those behind it. Without a `c` returns
  /// all and keeps nothing.
  EncodedString splitAt(unsigned char c);

  /// Skips leading bytes that occur in `delimiters`, returns those up to the next delimiter,
  /// and keeps what follows the run of delimiters behind them. Without a further delimiter
  /// returns the rest and keeps nothing.
  /// \param delimiters zero-terminated bytes; null counts as none.
  EncodedString firstToken(const char* delimiters);

 private:
  [[nodiscard]] ByteString convertToSlashU() const;
  void setWide(const wchar_t* text, unsigned count);
  void setRepeated(const char* bytes, unsigned n, wchar_t c, unsigned count);
};

/// Whether `text` (null counts as empty) and `other` are the same but for the case of ASCII
/// letters.
CUL_EXPORT bool compareCaseInsensitive(const char* text, const EncodedString& other);
