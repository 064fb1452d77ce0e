#pragma once

#include <bit>
#include <iconv.h>
#include <stddef.h>
#include <string.h>

#include "Engine/utilities/Export.h"
#include "Engine/utilities/KeepErrno.h"

/// \file
/// The library's way to call iconv: every conversion passes through iconvDebug(), which
/// serialises them and never gives up on what cannot be converted. Any thread. Nothing
/// throws, but for a failed allocation.

/// Converts all of `input`, from the descriptor's initial shift state on. Where iconv stops, a
/// "?" is put out and one input byte, no more, is skipped; when the output area is full the
/// rest of the input is dropped. When the input is used up nothing more is written but the
/// final zero: no way back to the initial shift state ("ESC ( B", a shift-in), and no last
/// character that iconv holds back because what follows might have changed it (an "a" in
/// CP1258, which an accent could follow). Keeps `errno`.
/// \param descriptor  an open one, as IconvDescriptor holds it.
/// \param input       not changed, may be null when there are no bytes.
/// \param inputLength in bytes.
/// \param output      receives the result and a final zero.
/// \param outputSize size of `output` in bytes. The last byte is kept for a final zero; with
///                   a size of 0 nothing happens.
/// \return bytes written, without the final zero.
CUL_EXPORT size_t iconvDebug(iconv_t descriptor, const char* input, size_t inputLength,
                             char* output, size_t outputSize);

/// What iconv_open() gives when it fails.
inline const iconv_t invalidIconv = std::bit_cast<iconv_t>(~size_t{0});

/// A descriptor that is closed with its object. The C library opens and closes under a lock
/// that its fork does not look after: a child that is forked meanwhile by another thread cannot
/// open one. The library's own conversions see to it that this does not happen to them.
class IconvDescriptor {
 public:
  /// Longest name of a code page in bytes. No real one comes near it, and the C library
  /// takes seconds to find out that it does not know one of 100 kB.
  static constexpr size_t longestName = 256;

  /// Not open when the C library does not convert between the two code pages, or a name is
  /// too long. Keeps `errno`.
  IconvDescriptor(const char* to, const char* from) noexcept {
    if (isTooLong(to) || isTooLong(from)) {
      return;
    }
    const KeepErrno keepErrno;
    value_ = iconv_open(to, from);
  }
  IconvDescriptor(const IconvDescriptor&) = delete;
  IconvDescriptor& operator=(const IconvDescriptor&) = delete;
  ~IconvDescriptor() {
    if (isOpen()) {
      iconv_close(value_);
    }
  }

  /// Whether there is a descriptor to convert with.
  [[nodiscard]] bool isOpen() const noexcept { return value_ != invalidIconv; }
  /// The descriptor, which still belongs to this object; invalidIconv when it is not open.
  [[nodiscard]] iconv_t get() const noexcept { return value_; }

  /// Leaves the descriptor to the caller.
  [[nodiscard]] iconv_t release() noexcept {
    const iconv_t value = value_;
    value_ = invalidIconv;
    return value;
  }

 private:
  [[nodiscard]] static bool isTooLong(const char* name) noexcept {
    return strnlen(name, longestName + 1) > longestName;
  }

  iconv_t value_ = invalidIconv;
};
