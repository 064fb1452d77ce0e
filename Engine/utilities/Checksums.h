#pragma once

#include "Engine/utilities/Export.h"

/// \file
/// Cyclic redundancy checks over one or more pieces of memory. Both are plain: most
/// significant bit first, initial value 0, nothing reflected, no final exclusive-or. Check
/// values are stored, so the unusual polynomials stay. Any thread; nothing throws.
///
/// More pieces follow the first as pairs of an `unsigned` length and a pointer; a length of
/// 0 or a null pointer ends the list and must be given:
/// \code
///   crc32(4u, header, bodyLength, body, 0u)
/// \endcode
/// Several pieces give the same value as one call over their concatenation. A first length
/// of 0 skips the first piece; with a null first pointer the result is 0.

/// The 8-bit check with polynomial x^8 + 0xB8.
[[nodiscard]] CUL_EXPORT unsigned char crc8(unsigned length, const void* data, ...) noexcept;

/// The 32-bit check with polynomial x^32 + 0xEB31D82E.
[[nodiscard]] CUL_EXPORT unsigned crc32(unsigned length, const void* data, ...) noexcept;
