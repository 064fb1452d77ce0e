#include "Engine/utilities/MD5.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>

#include "Engine/internal/FixedLayout.h"
#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/EncodedString.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(MD5, 16);
CUL_FIXED_FIELD(MD5, digest, 0);

namespace {

using Word = std::uint32_t;

constexpr unsigned blockSize = 64;
constexpr unsigned lengthSize = 8;
constexpr std::size_t hexSize = 2 * std::size_t{MD5::size};

struct State {
  Word a = 0x67452301;
  Word b = 0xEFCDAB89;
  Word c = 0x98BADCFE;
  Word d = 0x10325476;
};

// The four round functions of RFC 1321. The first is written with one operation less; in
// the second the halves share no bit, so that adding them serves and lets the half without
// the word that comes last be added early.
struct F {
  static Word add(Word a, Word b, Word c, Word d) noexcept { return a + (((c ^ d) & b) ^ d); }
};
struct G {
  static Word add(Word a, Word b, Word c, Word d) noexcept { return a + (~d & c) + (d & b); }
};
struct H {
  static Word add(Word a, Word b, Word c, Word d) noexcept { return a + (b ^ (c ^ d)); }
};
struct I {
  static Word add(Word a, Word b, Word c, Word d) noexcept { return a + (c ^ (b | ~d)); }
};

template <class Round, int rotation>
[[gnu::always_inline]] inline void turn(Word& a, Word b, Word c, Word d, Word x, Word t) noexcept {
  a = std::rotl(Round::add(a + x + t, b, c, d), rotation) + b;
}

// Four steps, after which each word of the state is back in its place.
template <class Round, int r0, int r1, int r2, int r3>
[[gnu::always_inline]] inline void turns(State& s, Word x0, Word t0, Word x1, Word t1, Word x2,
                                         Word t2, Word x3, Word t3) noexcept {
  turn<Round, r0>(s.a, s.b, s.c, s.d, x0, t0);
  turn<Round, r1>(s.d, s.a, s.b, s.c, x1, t1);
  turn<Round, r2>(s.c, s.d, s.a, s.b, x2, t2);
  turn<Round, r3>(s.b, s.c, s.d, s.a, x3, t3);
}

void addBlocks(State& state, const unsigned char* bytes, std::size_t blocks) noexcept {
  State s = state;
  for (; blocks != 0; --blocks, bytes += blockSize) {
    Word x[blockSize / sizeof(Word)];
    std::memcpy(x, bytes, sizeof x);
    const State before = s;

    constexpr auto round1 = turns<F, 7, 12, 17, 22>;
    round1(s, x[0], 0xD76AA478, x[1], 0xE8C7B756, x[2], 0x242070DB, x[3], 0xC1BDCEEE);
    round1(s, x[4], 0xF57C0FAF, x[5], 0x4787C62A, x[6], 0xA8304613, x[7], 0xFD469501);
    round1(s, x[8], 0x698098D8, x[9], 0x8B44F7AF, x[10], 0xFFFF5BB1, x[11], 0x895CD7BE);
    round1(s, x[12], 0x6B901122, x[13], 0xFD987193, x[14], 0xA679438E, x[15], 0x49B40821);

    constexpr auto round2 = turns<G, 5, 9, 14, 20>;
    round2(s, x[1], 0xF61E2562, x[6], 0xC040B340, x[11], 0x265E5A51, x[0], 0xE9B6C7AA);
    round2(s, x[5], 0xD62F105D, x[10], 0x02441453, x[15], 0xD8A1E681, x[4], 0xE7D3FBC8);
    round2(s, x[9], 0x21E1CDE6, x[14], 0xC33707D6, x[3], 0xF4D50D87, x[8], 0x455A14ED);
    round2(s, x[13], 0xA9E3E905, x[2], 0xFCEFA3F8, x[7], 0x676F02D9, x[12], 0x8D2A4C8A);

    constexpr auto round3 = turns<H, 4, 11, 16, 23>;
    round3(s, x[5], 0xFFFA3942, x[8], 0x8771F681, x[11], 0x6D9D6122, x[14], 0xFDE5380C);
    round3(s, x[1], 0xA4BEEA44, x[4], 0x4BDECFA9, x[7], 0xF6BB4B60, x[10], 0xBEBFBC70);
    round3(s, x[13], 0x289B7EC6, x[0], 0xEAA127FA, x[3], 0xD4EF3085, x[6], 0x04881D05);
    round3(s, x[9], 0xD9D4D039, x[12], 0xE6DB99E5, x[15], 0x1FA27CF8, x[2], 0xC4AC5665);

    constexpr auto round4 = turns<I, 6, 10, 15, 21>;
    round4(s, x[0], 0xF4292244, x[7], 0x432AFF97, x[14], 0xAB9423A7, x[5], 0xFC93A039);
    round4(s, x[12], 0x655B59C3, x[3], 0x8F0CCC92, x[10], 0xFFEFF47D, x[1], 0x85845DD1);
    round4(s, x[8], 0x6FA87E4F, x[15], 0xFE2CE6E0, x[6], 0xA3014314, x[13], 0x4E0811A1);
    round4(s, x[4], 0xF7537E82, x[11], 0xBD3AF235, x[2], 0x2AD7D2BB, x[9], 0xEB86D391);

    s.a += before.a;
    s.b += before.b;
    s.c += before.c;
    s.d += before.d;
  }
  state = s;
}

void computeDigest(const void* data, unsigned n, unsigned char* digest) noexcept {
  const auto* bytes = static_cast<const unsigned char*>(data);
  State state;
  addBlocks(state, bytes, n / blockSize);

  // What is left, a bit of value 1, zeros, and the length in bits fill one block or two.
  const unsigned rest = n % blockSize;
  const unsigned tailSize = rest + 1 + lengthSize <= blockSize ? blockSize : 2 * blockSize;
  unsigned char tail[2 * blockSize] = {};
  if (rest != 0) {
    std::memcpy(tail, bytes + (n - rest), rest);
  }
  tail[rest] = 0x80;
  const std::uint64_t bits = std::uint64_t{n} * 8;
  static_assert(sizeof bits == lengthSize);
  std::memcpy(tail + tailSize - lengthSize, &bits, lengthSize);
  addBlocks(state, tail, tailSize / blockSize);

  static_assert(sizeof state == MD5::size);
  std::memcpy(digest, &state, sizeof state);
}

unsigned digitValue(char digit) noexcept {
  if (digit >= '0' && digit <= '9') {
    return static_cast<unsigned>(digit - '0');
  }
  if (digit >= 'A' && digit <= 'F') {
    return static_cast<unsigned>(digit - 'A') + 10;
  }
  if (digit >= 'a' && digit <= 'f') {
    return static_cast<unsigned>(digit - 'a') + 10;
  }
  return 0;
}

bool isAlphanumeric(unsigned char byte) noexcept {
  return (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') ||
         (byte >= 'a' && byte <= 'z');
}

}  // namespace

MD5::MD5(const void* data, unsigned n) noexcept { computeDigest(data, n, digest); }

MD5::MD5(const ByteString& bytes) noexcept
    : MD5(static_cast<const unsigned char*>(bytes), bytes.length()) {}

MD5 MD5::fromText(const char* hex) noexcept {
  MD5 result;
  const unsigned n = hex == nullptr ? 0 : static_cast<unsigned>(strnlen(hex, hexSize));
  for (unsigned i = 0; i < n; ++i) {
    const unsigned shift = i % 2 == 0 ? 4 : 0;
    result.digest[i / 2] |= static_cast<unsigned char>(digitValue(hex[i]) << shift);
  }
  return result;
}

EncodedString MD5::asString(OutputString form) const {
  char text[hexSize];
  if (form == textIfAlphanumeric && std::all_of(digest, digest + size, isAlphanumeric)) {
    std::memcpy(text, digest, size);
    return {text, size, EncodedString::utf8};
  }
  char* next = text;
  for (const unsigned char byte : digest) {
    *next++ = "0123456789ABCDEF"[byte >> 4];
    *next++ = "0123456789ABCDEF"[byte & 0xF];
  }
  return {text, hexSize, EncodedString::utf8};
}
