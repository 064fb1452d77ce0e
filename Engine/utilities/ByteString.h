#pragma once

#include <string_view>

#include "Engine/utilities/Export.h"
#include "Engine/utilities/StringBuffer.h"

/// \file
/// Raw 8-bit bytes without an encoding: what came through a pipe, what a conversion made,
/// a formatted dump.
///
/// Zero bytes inside are ordinary bytes. Positions are 1-based. Nothing throws, but for a
/// failed allocation; what would be longer than a 32-bit length is empty. An object is used
/// by one thread at a time.

class CUL_EXPORT ByteString : public StringBuffer<unsigned char> {
 public:
  ByteString() noexcept = default;
  ByteString(const ByteString&) = default;
  /// Leaves the source empty.
  ByteString(ByteString&&) noexcept = default;

  /// The bytes of a zero-terminated text; null counts as empty.
  explicit ByteString(const char* text);

  /// A copy of `n` bytes; null counts as empty.
  ByteString(const void* bytes, unsigned n);

  /// The tail of `s` from position `start` on, see StringBuffer.
  ByteString(const StringBuffer<unsigned char>& s, unsigned start);

  /// Exactly `count` bytes of `s` from position `start` on, filled up with `pad`, see
  /// StringBuffer.
  ByteString(const StringBuffer<unsigned char>& s, unsigned start, unsigned count,
             unsigned char pad);

  /// `na + nb + nc` bytes: three pieces in a row. Copying stops at the first null piece, so
  /// an absent piece has length 0; were it longer, zero bytes stand for it and for all that
  /// follows.
  ByteString(const void* a, unsigned na, const void* b, unsigned nb, const void* c, unsigned nc);

  /// `count` times the 16 bits of `unit` in native byte order; a negative `count` counts
  /// as 0.
  ByteString(unsigned short unit, int count);

  ~ByteString() override = default;

  ByteString& operator=(const ByteString&) = default;
  ByteString& operator=(ByteString&&) noexcept = default;

  /// The bytes as characters, behind which a zero byte stands; valid until the next change of this
  /// object.
  [[nodiscard]] std::string_view view() const noexcept {
    return {reinterpret_cast<const char*>(buffer), len};
  }

  ByteString& operator+=(const StringBuffer<unsigned char>& s) {
    StringBuffer<unsigned char>::operator+=(s);
    return *this;
  }
  ByteString operator+(const ByteString& s) const;

  /// Each of `n` bytes as two upper-case hexadecimal digits, the high one first, without
  /// separators.
  [[nodiscard]] static ByteString hexFormat(const void* data, unsigned n);

  /// Removes the run of `c` at the start.
  void stripLeading(char c);
  /// Removes the run of `c` at the end.
  void stripTrailing(char c);

  /// Removes the blanks in front of every "*", so that "char *" becomes "char*".
  void stripPointerWhiteSpace();

  /// Skips leading delimiters, returns the bytes up to the next one, and keeps what follows
  /// the run of delimiters behind them. Without a further delimiter returns the rest and
  /// keeps nothing.
  /// \param delimiters zero-terminated bytes; null counts as none.
  ByteString firstToken(const char* delimiters);
};

/// A copy without the white space (see isWhiteSpace()) at both ends.
[[nodiscard]] CUL_EXPORT ByteString stripWhiteSpace(const ByteString& s);
