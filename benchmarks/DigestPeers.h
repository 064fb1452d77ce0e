#pragma once

#include <cstddef>

/// \file
/// Functions of other libraries whose headers take the names of ours.

/// zlib's crc32(), over its own polynomial.
unsigned long zlibCrc32(const void* data, std::size_t n);

/// libcrypto's MD5, without the lookup of the algorithm by name.
void libcryptoMD5(const void* data, std::size_t n, unsigned char (&digest)[16]);
