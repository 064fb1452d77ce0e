#include "benchmarks/DigestPeers.h"

// The interface with run-time lookup costs more than a short digest does.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/md5.h>
#include <zlib.h>

unsigned long zlibCrc32(const void* data, std::size_t n) {
  return crc32(0, static_cast<const Bytef*>(data), static_cast<uInt>(n));
}

void libcryptoMD5(const void* data, std::size_t n, unsigned char (&digest)[16]) {
  MD5_CTX context;
  MD5_Init(&context);
  MD5_Update(&context, data, n);
  MD5_Final(digest, &context);
}
