#include "Engine/utilities/Checksums.h"

#include <array>
#include <bit>
#include <climits>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

// Bytes taken at a time. Row k of a check's tables holds, for each byte value, the check of
// that byte followed by k bytes of value 0: the check of a stretch is the exclusive-or of
// the entries of its bytes, each in the row of what follows it.
constexpr unsigned stride = 16;

// Longer texts are read as this many interleaved rows of words with a check each: one check
// would be a chain in which every lookup waits for the one before.
constexpr std::size_t lanes = 4;
constexpr std::size_t block = lanes * sizeof(std::uint64_t);

template <class Check>
using Tables = std::array<std::array<Check, 256>, block>;

template <class Check>
constexpr unsigned checkBits = sizeof(Check) * CHAR_BIT;

template <class Check>
constexpr Check shiftByteOut(Check value) noexcept {
  if constexpr (sizeof(Check) == 1) {
    return 0;
  } else {
    return static_cast<Check>(value << CHAR_BIT);
  }
}

template <class Check>
constexpr unsigned topByte(Check value) noexcept {
  return value >> (checkBits<Check> - CHAR_BIT);
}

template <class Check>
constexpr Tables<Check> makeTables(Check polynomial) noexcept {
  constexpr auto topBit = static_cast<Check>(Check{1} << (checkBits<Check> - 1));
  Tables<Check> tables = {};
  for (unsigned byte = 0; byte < 256; ++byte) {
    auto value = static_cast<Check>(byte << (checkBits<Check> - CHAR_BIT));
    for (unsigned bit = 0; bit < CHAR_BIT; ++bit) {
      const bool isSet = (value & topBit) != 0;
      value = static_cast<Check>((value << 1) ^ (isSet ? polynomial : 0));
    }
    tables[0][byte] = value;
  }
  for (std::size_t row = 1; row < block; ++row) {
    for (unsigned byte = 0; byte < 256; ++byte) {
      const Check before = tables[row - 1][byte];
      tables[row][byte] = static_cast<Check>(tables[0][topByte(before)] ^ shiftByteOut(before));
    }
  }
  // Kept with the first byte in the lowest place, as the check lies over the next bytes of
  // the text.
  if constexpr (sizeof(Check) == 4) {
    for (auto& row : tables) {
      for (Check& value : row) {
        value = __builtin_bswap32(value);
      }
    }
  }
  return tables;
}

constexpr Tables<std::uint8_t> crc8Tables = makeTables<std::uint8_t>(0xB8);
constexpr Tables<std::uint32_t> crc32Tables = makeTables<std::uint32_t>(0xEB31D82E);

// The 8 bytes at `bytes`, the first one in the lowest place.
std::uint64_t loadWord(const unsigned char* bytes) noexcept {
  std::uint64_t word;
  std::memcpy(&word, bytes, sizeof word);
  return word;
}

// The check of the 8 bytes of `word` when `behind` bytes of value 0 follow.
template <class Check>
Check lookUpWord(const Tables<Check>& tables, std::uint64_t word, std::size_t behind) noexcept {
  Check check = 0;
  for (unsigned i = 0; i < sizeof word; ++i) {
    check ^= tables[behind + sizeof word - 1 - i][(word >> (CHAR_BIT * i)) & 0xFF];
  }
  return check;
}

template <class Check>
Check addPiece(const Tables<Check>& tables, Check check, const void* data,
               std::size_t length) noexcept {
  const auto* bytes = static_cast<const unsigned char*>(data);
  if (length >= 2 * block) {
    Check laneChecks[lanes] = {check};
    for (; length >= 2 * block; length -= block, bytes += block) {
      for (std::size_t lane = 0; lane < lanes; ++lane) {
        const std::uint64_t word = loadWord(bytes + lane * sizeof(std::uint64_t));
        laneChecks[lane] =
            lookUpWord(tables, word ^ laneChecks[lane], block - sizeof(std::uint64_t));
      }
    }
    check = 0;
    for (std::size_t lane = 0; lane < lanes; ++lane) {
      const std::uint64_t word = loadWord(bytes + lane * sizeof(std::uint64_t));
      check = lookUpWord(tables, word ^ static_cast<Check>(laneChecks[lane] ^ check), 0);
    }
    length -= block;
    bytes += block;
  }
  for (; length >= stride; length -= stride, bytes += stride) {
    const std::uint64_t first = loadWord(bytes) ^ check;
    const std::uint64_t second = loadWord(bytes + sizeof first);
    check = static_cast<Check>(lookUpWord(tables, first, sizeof second) ^
                               lookUpWord(tables, second, 0));
  }
  for (; length != 0; --length, ++bytes) {
    check = static_cast<Check>(tables[0][(check & 0xFF) ^ *bytes] ^ (check >> CHAR_BIT));
  }
  return check;
}

template <class Check>
Check checkOf(const Tables<Check>& tables, unsigned length, const void* data,
              va_list pieces) noexcept {
  if (data == nullptr) {
    return 0;
  }
  Check check = addPiece(tables, Check{0}, data, length);
  while ((length = va_arg(pieces, unsigned)) != 0 &&
         (data = va_arg(pieces, const void*)) != nullptr) {
    check = addPiece(tables, check, data, length);
  }
  return check;
}

}  // namespace

unsigned char crc8(unsigned length, const void* data, ...) noexcept {
  va_list pieces;
  va_start(pieces, data);
  const std::uint8_t check = checkOf(crc8Tables, length, data, pieces);
  va_end(pieces);
  return check;
}

unsigned crc32(unsigned length, const void* data, ...) noexcept {
  va_list pieces;
  va_start(pieces, data);
  const std::uint32_t check = __builtin_bswap32(checkOf(crc32Tables, length, data, pieces));
  va_end(pieces);
  return check;
}
