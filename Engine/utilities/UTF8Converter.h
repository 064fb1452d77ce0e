#pragma once

#include <iconv.h>

#include "Engine/utilities/Export.h"

/// \file
/// Conversion between UTF-8 and the native code page of the process.
///
/// The native code page is the one that the environment variable "QVX_DBG_CODEPAGE" names
/// or, when that is unset, empty, unknown to iconv or longer than 256 bytes, the one of the
/// locale that the environment chooses. It is fixed by the first conversion. Without a usable
/// converter only ASCII survives. Nothing is reported: what cannot be converted becomes "?",
/// and what iconvDebug() does not write at the end of a text is missing there.
///
/// First use belongs on the main thread before a second thread exists; afterwards any
/// thread may convert. Nothing throws, but for a failed allocation.

class ByteString;
class EncodedString;
template <class T>
class ProcessWide;

/// The process's converter; never destroyed.
class CUL_EXPORT UTF8Converter {
 public:
  /// The converter, made by the first call, which reads the environment and may set the
  /// process's locale from it for a moment.
  static UTF8Converter& instance();

  UTF8Converter(const UTF8Converter&) = delete;
  UTF8Converter& operator=(const UTF8Converter&) = delete;

  /// Converts bytes to UTF-8.
  /// \param bytes may be null when `n` is 0.
  /// \param n     number of bytes.
  /// \param named null or empty: from the native code page. Otherwise the name of a code
  ///              page for this call, which is converted *to*, from UTF-8: the reverse of
  ///              the default.
  /// \return the converted text up to its first zero byte. Without a usable converter the
  ///         bytes below 0x80, and "?" for each other byte.
  [[nodiscard]] EncodedString convertToUTF8(const char* bytes, unsigned n,
                                            const char* named = nullptr) const;

  /// Converts `n` bytes of UTF-8 to the native code page.
  /// \return the converted text up to its first zero byte, at most `n` bytes: what does not
  ///         fit is dropped. Without a usable converter "?" stands for each character that
  ///         is not ASCII.
  [[nodiscard]] ByteString convertFromUTF8(const char* bytes, unsigned n) const;

  /// Name of the native code page, as the environment or the locale gives it; it lives as
  /// long as the process.
  [[nodiscard]] const char* nativeCodepage() const noexcept { return codepage; }

 private:
  UTF8Converter();
  [[gnu::visibility("hidden")]] ~UTF8Converter();
  template <class T>
  friend class ProcessWide;

  bool open(const char* name, bool both);

  iconv_t toNative;
  iconv_t toUTF8;
  const char* codepage;
};
