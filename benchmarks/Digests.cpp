#include <cstring>
#include <string>

#include "Engine/utilities/Checksums.h"
#include "Engine/utilities/MD5.h"

#include "benchmarks/Comparison.h"
#include "benchmarks/DigestPeers.h"

namespace {

/// Bytes without a pattern.
std::string noise(unsigned n) {
  std::string bytes(n, '\0');
  unsigned state = 1;
  for (char& byte : bytes) {
    state = state * 1664525U + 1013904223U;
    byte = static_cast<char>(state >> 24);
  }
  return bytes;
}

void compareSize(const std::string& size, unsigned n) {
  const std::string data = noise(n);
  unsigned char digest[16];
  libcryptoMD5(data.data(), n, digest);
  require(std::memcmp(MD5(data.data(), n).digest, digest, sizeof digest) == 0, "MD5");
  compare(
      "CRC-32: " + size,
      [data] {
        benchmark::DoNotOptimize(crc32(static_cast<unsigned>(data.size()), data.data(), 0U));
      },
      "zlib", [data] { benchmark::DoNotOptimize(zlibCrc32(data.data(), data.size())); });
  compare(
      "MD5: " + size,
      [data] { benchmark::DoNotOptimize(MD5(data.data(), static_cast<unsigned>(data.size()))); },
      "libcrypto",
      [data] {
        unsigned char result[16];
        libcryptoMD5(data.data(), data.size(), result);
        benchmark::DoNotOptimize(result);
      });
}

}  // namespace

void compareChecksums() {
  compareSize("64 B", 64);
  compareSize("4 KB", 4096);
  compareSize("1 MB", 1U << 20);
}
