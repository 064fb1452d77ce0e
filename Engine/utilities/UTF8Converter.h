#pragma once

#include <iconv.h>
#include <stddef.h>

#include "Engine/utilities/Export.h"

/// \file
/// Conversion between UTF-8 and the native code page of the process.
///
/// The native code page is the one that the environment variable "QVX_DBG_CODEPAGE" names
/// or, when that is unset, empty or unknown to iconv, the one of the locale that the
/// environment chooses. It is fixed by the first conversion. Without a usable converter
/// only ASCII survives. Nothing is reported: what cannot be converted becomes "?".
///
/// First use belongs on the main thread before a second thread exists; afterwards any
/// thread may convert: all conversions pass through one process-wide mutex.

class ByteString;
class EncodedString;

/// The process's converter; never destroyed.
class CUL_EXPORT UTF8Converter {
 public:
  /// The converter, made by the first call, which reads the environment and sets the
  /// process's locale from it for a moment.
  static UTF8Converter& instance();

  UTF8Converter(const UTF8Converter&) = delete;
  UTF8Converter& operator=(const UTF8Converter&) = delete;

  /// Converts `n` bytes to UTF-8.
  /// \param named null or empty: from the native code page. Otherwise the name of a code
  ///              page for this call, which is converted *to*, from UTF-8: the reverse of
  ///              the default.
  /// \return the converted text up to its first zero byte. Without a usable converter the
  ///         bytes below 0x80, and "?" for each other byte.
  [[nodiscard]] EncodedString convertToUTF8(const char* bytes, unsigned n,
                                            const char* named = nullptr) const;

  /// Converts `n` bytes of UTF-8 to the native code page.
  /// \return the converted text up to its first zero byte, at most `n` bytes. Without a
  ///         usable converter "?" stands for each character that is not ASCII.
  [[nodiscard]] ByteString convertFromUTF8(const char* bytes, unsigned n) const;

  /// Name of the native code page, as the environment or the locale gives it.
  [[nodiscard]] const char* nativeCodepage() const noexcept { return codepage; }

 private:
  UTF8Converter();

  [[nodiscard]] bool open(const char* name);

  iconv_t toNative;
  iconv_t toUTF8;
  const char* codepage;
};

/// The one way to call iconv: converts all of `input`, from the descriptor's initial shift
/// state on. Where iconv stops, a "?" is put out and one input byte is skipped; when the
/// output area is full the rest of the input is dropped. Calls are serialised through the
/// process-wide mutex.
/// \param outputSize size of `output` in bytes. The last byte is kept for a final zero; with
///                   a size of 0 nothing happens.
/// \return bytes written, without the final zero.
CUL_EXPORT size_t iconvDebug(iconv_t descriptor, const char* input, size_t inputLength,
                             char* output, size_t outputSize);
