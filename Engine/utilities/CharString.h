#pragma once

#include <string_view>

#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/Export.h"
#include "Engine/utilities/StringBuffer.h"

/// \file
/// Wide text, one 32-bit code value per element: the form in which command lines, settings
/// and paths are scanned and cut into tokens.
///
/// Positions are 1-based; a set of characters or delimiters is a zero-terminated wide text,
/// and null counts as the empty set. Values of 0 inside a text are ordinary values that
/// belong to no set. Nothing throws, but for a failed allocation: scans give 0, conversions
/// false, positions out of range an empty result. An object is used by one thread at a time.
///
/// stripLeading(), stripTrailing() and change() shorten a text within its block, which then
/// stays larger than it need be until the next change of length.

class CUL_EXPORT CharString : public StringBuffer<wchar_t> {
 public:
  CharString() noexcept = default;
  CharString(const CharString&) = default;
  /// Leaves the source empty.
  CharString(CharString&&) noexcept = default;

  /// The tail of `s` from position `start` on, see StringBuffer.
  CharString(const StringBuffer<wchar_t>& s, unsigned start);

  /// Exactly `count` values of `s` from position `start` on, filled up with `pad`, see
  /// StringBuffer.
  CharString(const StringBuffer<wchar_t>& s, unsigned start, unsigned count, wchar_t pad);

  /// A zero-terminated text; null counts as empty.
  explicit CharString(const wchar_t* text);

  /// `n` values; null counts as empty.
  CharString(const wchar_t* text, unsigned n);

  /// `count` times `c`. A negative `count` is not allowed; it counts as 0.
  CharString(wchar_t c, int count);

  ~CharString() override = default;

  CharString& operator=(const CharString&) = default;
  CharString& operator=(CharString&&) noexcept = default;
  /// A zero-terminated text, also a part of this one; null gives the empty text.
  CharString& operator=(const wchar_t* text);

  /// The text, behind which a zero value stands; valid until the next change of this object.
  [[nodiscard]] std::wstring_view view() const noexcept { return {buffer, len}; }

  /// Replaces the contents by the code values of some bytes.
  /// \param bytes    null counts as empty.
  /// \param n        number of bytes.
  /// \param encoding how they are to be read. With `utf8`, bytes that cannot open a sequence
  ///                 where one should start make the whole result empty.
  void loadFrom(const char* bytes, unsigned n, EncodedString::Encoding encoding);

  /// The text as UTF-8.
  [[nodiscard]] EncodedString encoded() const;

  /// The value of an environment variable, read as `native`; empty when it is not set. A
  /// wide name is converted to `native` first.
  [[nodiscard]] static CharString getEnvVar(const char* name);
  [[nodiscard]] static CharString getEnvVar(const wchar_t* name);
  [[nodiscard]] static CharString getEnvVar(const CharString& name);

  /// \name Case
  /// Changes the case of ASCII letters, in place.
  /// @{
  void lower() noexcept;
  void upper() noexcept;
  /// @}

  /// Removes the run of `c` at the start, within the block.
  void stripLeading(wchar_t c) noexcept;
  /// Removes the run of `c` at the end, within the block.
  void stripTrailing(wchar_t c) noexcept;

  [[nodiscard]] bool operator==(const CharString& s) const noexcept {
    return StringBuffer<wchar_t>::operator==(s);
  }
  /// Compares with a zero-terminated text; null counts as empty.
  [[nodiscard]] bool operator==(const wchar_t* text) const noexcept;

  /// Whether `part` stands at position `pos`. False for an empty `part` and a `pos` out of range.
  [[nodiscard]] bool startsWith(const CharString& part, unsigned pos = 1) const noexcept;
  /// Whether the text ends with `s`; false for an empty `s`.
  [[nodiscard]] bool endsWith(const CharString& s) const noexcept;

  /// Number of leading positions at which two texts agree.
  /// \param other the text to compare with.
  /// \param exact 0: ASCII letters that differ only in case agree too.
  [[nodiscard]] unsigned matchLength(const CharString& other, int exact) const noexcept;

  /// Replaces the first occurrence of `from` at or behind `start` (0 counts as 1), and no
  /// other, by `to`. Both may be this object. An empty `from` stands at `start` itself, where
  /// `to` is put in. Nothing happens when `start` is greater than length(): in an empty text
  /// only an empty `from` at 0 is replaced. When memory is out the text may be left cut in front
  /// of the occurrence.
  void change(const CharString& from, const CharString& to, unsigned start = 1);

  /// The position of the first value at or behind `pos` (0 counts as 1) that is not in
  /// `set`, length() + 1 when there is none; `pos` when the set is empty.
  [[nodiscard]] unsigned skipChars(unsigned pos, const wchar_t* set) const noexcept;

  CharString& operator+=(const StringBuffer<wchar_t>& s) {
    StringBuffer<wchar_t>::operator+=(s);
    return *this;
  }
  CharString operator+(const CharString& s) const;

  /// \name Scanning
  /// A scan starts at `pos` (0 counts as 1) and leaves it at the first value that it has
  /// not consumed, which is never behind length() + 1; for one exception see scanString().
  /// @{

  /// Skips blanks and tabs and reads decimal digits, modulo 2^32; 0 when there is none.
  unsigned scanUnsigned(unsigned& pos) const noexcept;
  /// The same with hexadecimal digits of either case.
  unsigned scanHex(unsigned& pos) const noexcept;
  /// Skips delimiters and returns the values up to the next one, with `pos` on it. A run
  /// that reaches the end is returned whole with `pos` at length(), that is on its last
  /// value: a scan from there gives that value once more, again and again, so that a loop ends
  /// when `pos` has reached length(). With nothing left the result is empty and `pos`
  /// length() + 1.
  CharString scanString(unsigned& pos, const wchar_t* delimiters) const;
  /// @}

  /// \name Tokens
  /// @{

  /// Skips leading delimiters, returns the values up to the next one, and keeps the rest
  /// with that delimiter in front. Without a further delimiter returns the rest and keeps
  /// nothing.
  CharString firstToken(const wchar_t* delimiters);

  /// The same, but delimiters between double quotes do not end the token. The quotes stay
  /// in the token. A backslash in front of a double quote or a backslash is dropped, and
  /// that character opens or closes nothing; other backslashes stay.
  CharString firstQuotedToken(const wchar_t* delimiters);

  /// The text between double quotes, with a backslash in front of every double quote and
  /// every backslash inside: firstQuotedToken() of it is the text between double quotes.
  [[nodiscard]] CharString makeQuotedToken() const;

  /// makeQuotedToken() when the text contains any value of `specials`, else a copy.
  [[nodiscard]] CharString makeToken(const wchar_t* specials) const;
  /// The same with the characters that a command line treats specially: blank, quotes,
  /// backslash, "*", "?", "<", ">" and "|".
  [[nodiscard]] CharString makeToken() const;
  /// @}

  /// \name Numbers
  /// The text up to its first value of 0 read as `sscanf` reads "%d%c", "%u%c", "%lld%c" and
  /// "%llu%c": white space and a sign may stand in front, and the result is true only when a
  /// number was read and nothing follows it. When something does, `value` has changed all
  /// the same; otherwise it keeps its value on false. A number beyond 64 bits becomes the
  /// nearest one, one beyond the bits of `value` loses the others, and an unsigned one may be
  /// negative: for `int` "4294967297" is 1, for `unsigned int` "-1" is 4294967295.
  /// @{
  [[nodiscard]] bool asValue(int& value) const;
  [[nodiscard]] bool asValue(unsigned int& value) const;
  [[nodiscard]] bool asValue(long& value) const;
  [[nodiscard]] bool asValue(unsigned long& value) const;
  /// @}

  /// The number as decimal text.
  [[nodiscard]] static CharString makeFromNumeric(long value);
  [[nodiscard]] static CharString makeFromNumeric(unsigned long value);

  /// Decimal to hexadecimal by name only: the result is always a copy of the text. The
  /// format that should read the number, "%l%c", has no conversion behind its "l" and so
  /// never reads one, and callers have come to depend on it.
  [[nodiscard]] CharString d2x() const;

 private:
  void shortenTo(unsigned n) noexcept;
};
