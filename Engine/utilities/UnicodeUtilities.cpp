#include "Engine/utilities/UnicodeUtilities.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <emmintrin.h>

#include "Engine/internal/ConvertedText.h"
#include "Engine/internal/LoaderGuard.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/Iconv.h"

namespace {

constexpr int blockSize = 16;  // bytes
constexpr unsigned blockBits = 0xFFFF;

// What the lead bytes from `first` to `last` say.
struct Leads {
  unsigned first;
  unsigned last;
  unsigned char length;       // of the sequence
  unsigned char payloadMask;  // bits of the lead byte that belong to the code value
};

constexpr Leads leads[] = {
    {0x00, 0x7F, 1, 0xFF}, {0x80, 0xBF, 0, 0xFF}, {0xC0, 0xDF, 2, 0x1F}, {0xE0, 0xEF, 3, 0x0F},
    {0xF0, 0xF7, 4, 0x07}, {0xF8, 0xFB, 5, 0x03}, {0xFC, 0xFD, 6, 0x01}, {0xFE, 0xFF, 0, 0xFF},
};

constexpr unsigned continuationMask = 0x3F;  // bits that belong to the code value

constexpr bool isContinuation(char byte) { return (byte & 0xC0) == 0x80; }

__m128i load(const char* p) noexcept {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

template <typename Word>
uint64_t loadWord(const char* p) noexcept {
  Word word;
  memcpy(&word, p, sizeof word);
  return word;
}

// The first n (below 16) bytes at p, then zeros; reads nothing else.
__m128i loadPartial(const char* p, unsigned n) noexcept {
  uint64_t low = 0;
  uint64_t high = 0;
  if (n > 8) {
    low = loadWord<uint64_t>(p);
    high = loadWord<uint64_t>(p + n - 8) >> (8 * (16 - n));
  } else if (n >= 4) {
    low = loadWord<uint32_t>(p) | loadWord<uint32_t>(p + n - 4) << (8 * (n - 4));
  } else if (n > 0) {
    low = loadWord<uint8_t>(p) | loadWord<uint8_t>(p + n / 2) << (8 * (n / 2)) |
          loadWord<uint8_t>(p + n - 1) << (8 * (n - 1));
  }
  return _mm_set_epi64x(static_cast<long long>(high), static_cast<long long>(low));
}

// Bit i: the highest bit of byte i.
unsigned highBits(__m128i block) noexcept {
  return static_cast<unsigned>(_mm_movemask_epi8(block));
}

__m128i continuations(__m128i block) noexcept {
  return _mm_cmplt_epi8(block, _mm_set1_epi8(static_cast<char>(0xC0)));
}

// Bit i is set when byte i of the block has to be a continuation byte for the sequences
// opened within the block to be whole; bits 16 and up speak of the bytes behind it. A byte
// that no sequence may hold asks itself to be one, which it never is.
unsigned expectedContinuations(__m128i block) noexcept {
  const unsigned high = highBits(block);
  // Signed comparisons: bytes below 0x80 compare above all others and are masked out.
  const auto from = [block, high](int first) noexcept {
    return highBits(_mm_cmpgt_epi8(block, _mm_set1_epi8(static_cast<char>(first - 1)))) & high;
  };
  unsigned expected = from(0xC0) << 1 | from(0xE0) << 2 | from(0xF0) << 3;
  if (const unsigned rare = from(0xF8); rare != 0) {
    expected |= rare << 4 | from(0xFC) << 5 | from(0xFE);
  }
  return expected;
}

unsigned countSet(__m128i flags) noexcept {
  const __m128i sums = _mm_sad_epu8(_mm_and_si128(flags, _mm_set1_epi8(1)), _mm_setzero_si128());
  return static_cast<unsigned>(_mm_cvtsi128_si32(sums) + _mm_extract_epi16(sums, 4));
}

struct Walk {
  size_t position;      // where the next character starts; at or behind the end: nowhere
  unsigned characters;  // characters passed
};

// Steps from lead byte to lead byte until `end` is reached or `limit` characters are passed.
Walk step(const char* p, size_t end, Walk from, unsigned limit) noexcept {
  while (from.position < end && from.characters < limit) {
    const unsigned length = UnicodeUtilities::mblen(static_cast<unsigned char>(p[from.position]));
    from.position += length == 0 ? 1 : length;
    ++from.characters;
  }
  return from;
}

// As step() over all n bytes, and with the same result whatever the bytes; a block that is
// not proved well-formed is stepped through.
Walk walk(const char* p, size_t n, unsigned limit) noexcept {
  Walk at = {0, 0};
  size_t start = 0;
  unsigned pending = 0;  // continuation bytes due at the start of the block, one bit each
  while (start < n) {
    const auto size = static_cast<unsigned>(std::min<size_t>(n - start, blockSize));
    const __m128i block = size == blockSize ? load(p + start) : loadPartial(p + start, size);
    if (pending == 0 && highBits(block) == 0 && size <= limit - at.characters) {
      start += size;
      at = {start, at.characters + size};
      continue;
    }
    const __m128i continued = continuations(block);
    const unsigned expected = expectedContinuations(block) | pending;
    const unsigned characters = size - countSet(continued);
    if ((expected & (blockBits >> (blockSize - size))) == highBits(continued) &&
        characters <= limit - at.characters) {
      at.characters += characters;
      start += size;
      pending = expected >> size;
      at.position = start + static_cast<size_t>(std::countr_one(pending));
      continue;
    }
    at = step(p, start + size, at, limit);
    if (at.characters == limit) {
      break;
    }
    start = at.position;
    pending = 0;
  }
  return at;
}

void widen(__m128i block, wchar_t* out) noexcept {
  const __m128i zero = _mm_setzero_si128();
  const __m128i halves[] = {_mm_unpacklo_epi8(block, zero), _mm_unpackhi_epi8(block, zero)};
  auto* to = reinterpret_cast<__m128i*>(out);
  for (const __m128i half : halves) {
    _mm_storeu_si128(to++, _mm_unpacklo_epi16(half, zero));
    _mm_storeu_si128(to++, _mm_unpackhi_epi16(half, zero));
  }
}

// Whether a block of bytes is left and more than one of them is ASCII.
bool startsAsciiRun(const char* p, const char* end) noexcept {
  return end - p >= blockSize && (p[0] | p[1]) >= 0;
}

// Where decoding stands.
struct Decoding {
  const char* p;
  wchar_t* to;
};

// Decodes as long as neither the bytes up to `end` nor the room up to `last` have to be
// watched and no sequence is longer than three bytes or broken.
Decoding decodeFast(Decoding at, const char* end, const wchar_t* last) noexcept {
  constexpr ptrdiff_t longest = 3;
  ptrdiff_t safe = std::min((end - at.p) / longest, last - at.to);
  for (; safe > 0; --safe) {
    const auto byte = [&at](unsigned i) noexcept { return static_cast<unsigned char>(at.p[i]); };
    const unsigned lead = byte(0);
    if (lead < 0x80) {
      if (startsAsciiRun(at.p, end) && last - at.to >= blockSize) {
        const __m128i block = load(at.p);
        const int ascii = std::countr_zero(highBits(block) | 1U << blockSize);
        // What is stored behind the ASCII bytes is overwritten by what follows.
        widen(block, at.to);
        at.p += ascii;
        at.to += ascii;
        safe = std::min((end - at.p) / longest, last - at.to) + 1;
        continue;
      }
      *at.to++ = static_cast<wchar_t>(lead);
      at.p += 1;
    } else if ((lead & 0xE0) == 0xC0 && isContinuation(at.p[1])) {
      *at.to++ = static_cast<wchar_t>((lead & 0x1F) << 6 | (byte(1) & continuationMask));
      at.p += 2;
    } else if ((lead & 0xF0) == 0xE0 && isContinuation(at.p[1]) && isContinuation(at.p[2])) {
      *at.to++ = static_cast<wchar_t>((lead & 0x0F) << 12 | (byte(1) & continuationMask) << 6 |
                                      (byte(2) & continuationMask));
      at.p += 3;
    } else {
      break;
    }
  }
  return at;
}

// Narrows 16 values; false when one of them is not ASCII.
bool narrow(const wchar_t* text, char* out) noexcept {
  const auto* from = reinterpret_cast<const __m128i*>(text);
  const __m128i a = _mm_loadu_si128(from);
  const __m128i b = _mm_loadu_si128(from + 1);
  const __m128i c = _mm_loadu_si128(from + 2);
  const __m128i d = _mm_loadu_si128(from + 3);
  const __m128i high =
      _mm_andnot_si128(_mm_set1_epi32(0x7F), _mm_or_si128(_mm_or_si128(a, b), _mm_or_si128(c, d)));
  if (highBits(_mm_cmpeq_epi32(high, _mm_setzero_si128())) != blockBits) {
    return false;
  }
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out),
                   _mm_packus_epi16(_mm_packs_epi32(a, b), _mm_packs_epi32(c, d)));
  return true;
}

// Whether a block of values is left that starts with ASCII.
bool startsAsciiRun(const wchar_t* text, const wchar_t* end) noexcept {
  return end - text >= blockSize && (static_cast<unsigned>(text[0] | text[1]) < 0x80);
}

// A value of more bits than these needs one byte more.
constexpr int bitsOfLength[] = {7, 11, 16, 21, 26};

constexpr unsigned encodedLength(unsigned cp) noexcept {
  unsigned length = 1;
  for (const int bits : bitsOfLength) {
    length += cp >> bits != 0;
  }
  return length;
}

constexpr unsigned valuesPerBlock = 4;
constexpr unsigned valuesPerSum = 1U << 20;  // keeps the 32-bit sums from overflowing

// The sum of encodedLength() of `count` values, a multiple of valuesPerBlock.
unsigned long sumOfLengths(const wchar_t* text, unsigned count) noexcept {
  const __m128i zero = _mm_setzero_si128();
  __m128i shorter = zero;  // minus the bytes that the values need less than the longest
  for (unsigned i = 0; i < count; i += valuesPerBlock) {
    const __m128i values = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + i));
    for (const int bits : bitsOfLength) {
      shorter = _mm_add_epi32(shorter, _mm_cmpeq_epi32(_mm_srli_epi32(values, bits), zero));
    }
  }
  int sums[valuesPerBlock];
  _mm_storeu_si128(reinterpret_cast<__m128i*>(sums), shorter);
  const long total = long{sums[0]} + sums[1] + sums[2] + sums[3];
  return static_cast<unsigned long>(long{count} * UnicodeUtilities::longestSequence + total);
}

// As UnicodeUtilities::unicodeToUTF8(), with the most frequent lengths laid out.
unsigned encodeNext(unsigned cp, char* out, unsigned room) noexcept {
  const auto continuation = [](unsigned bits) noexcept {
    return static_cast<char>(0x80 | (bits & continuationMask));
  };
  if (room >= 3 && cp < 0x10000) {
    if (cp < 0x80) {
      out[0] = static_cast<char>(cp);
      return 1;
    }
    if (cp < 0x800) {
      out[0] = static_cast<char>(0xC0 | cp >> 6);
      out[1] = continuation(cp);
      return 2;
    }
    out[0] = static_cast<char>(0xE0 | cp >> 12);
    out[1] = continuation(cp >> 6);
    out[2] = continuation(cp);
    return 3;
  }
  return UnicodeUtilities::unicodeToUTF8(cp, out, room);
}

}  // namespace

constinit const UnicodeUtilities::LeadTables UnicodeUtilities::leadTables = [] {
  LeadTables tables{};
  for (const Leads& rows : leads) {
    for (unsigned lead = rows.first; lead <= rows.last; ++lead) {
      tables.length[lead] = rows.length;
      tables.payload[lead] = static_cast<unsigned char>(lead & rows.payloadMask);
    }
  }
  return tables;
}();

unsigned UnicodeUtilities::utf8Encode(const char* p, wchar_t& cp) noexcept {
  return utf8Encode(p, longestSequence, cp);
}

unsigned UnicodeUtilities::utf8Encode(const char* p, unsigned n, wchar_t& cp) noexcept {
  const auto lead = static_cast<unsigned char>(*p);
  const unsigned length = mblen(lead);
  const unsigned payload = leadTables.payload[lead];
  unsigned value = payload;
  for (unsigned i = 1; i < length; ++i) {
    if (i >= n || !isContinuation(p[i])) {
      cp = static_cast<wchar_t>(payload);
      return 1;
    }
    value = value << 6 | (static_cast<unsigned char>(p[i]) & continuationMask);
  }
  cp = static_cast<wchar_t>(value);
  return length;
}

unsigned UnicodeUtilities::utf8toUnicode(const char* p, unsigned n, wchar_t* out,
                                         unsigned capacity) noexcept {
  if (out == nullptr || capacity < 2) {
    return 0;
  }
  const wchar_t* const last = out + capacity - 1;  // for the 0
  const char* const end = p == nullptr ? p : p + n;
  Decoding at = {p, out};
  while (true) {
    at = decodeFast(at, end, last);
    if (at.p == end) {
      break;
    }
    if (at.to == last) {
      return 0;
    }
    const unsigned taken = utf8Encode(at.p, static_cast<unsigned>(end - at.p), *at.to);
    if (taken == 0) {
      return 0;  // Such a byte stands in the way for ever: the values can only run out.
    }
    at.p += taken;
    ++at.to;
  }
  *at.to = 0;
  return static_cast<unsigned>(at.to - out) + 1;
}

unsigned UnicodeUtilities::unicodeToUTF8(unsigned cp, char* out, unsigned room) noexcept {
  const unsigned length = encodedLength(cp);
  if (room < length) {
    return 0;
  }
  if (length == 1) {
    *out = static_cast<char>(cp);
    return 1;
  }
  for (unsigned i = length - 1; i > 0; --i) {
    out[i] = static_cast<char>(0x80 | (cp & continuationMask));
    cp >>= 6;
  }
  // The lead byte opens with as many ones as the sequence has bytes.
  out[0] = static_cast<char>((0xFF00U >> length) | cp);
  return length;
}

unsigned UnicodeUtilities::unicodeToUTF8(const wchar_t* text, unsigned count, char* out,
                                         unsigned room) noexcept {
  char* to = out;
  char* const last = out + room;
  for (const wchar_t* const end = text + (text == nullptr ? 0 : count); text != end;) {
    if (startsAsciiRun(text, end) && last - to >= blockSize && narrow(text, to)) {
      text += blockSize;
      to += blockSize;
      continue;
    }
    const unsigned length =
        encodeNext(static_cast<unsigned>(*text), to, static_cast<unsigned>(last - to));
    if (length == 0) {
      return 0;
    }
    to += length;
    ++text;
  }
  if (to == last) {
    return 0;
  }
  *to = 0;
  return static_cast<unsigned>(to - out) + 1;
}

unsigned long UnicodeUtilities::utf8Length(const wchar_t* text, unsigned count) noexcept {
  unsigned long length = 0;
  while (count >= valuesPerBlock) {
    const unsigned part = std::min(count, valuesPerSum) / valuesPerBlock * valuesPerBlock;
    length += sumOfLengths(text, part);
    text += part;
    count -= part;
  }
  for (unsigned i = 0; i < count; ++i) {
    length += encodedLength(static_cast<unsigned>(text[i]));
  }
  return length;
}

unsigned UnicodeUtilities::charCount(const char* p, unsigned n) noexcept {
  return p == nullptr ? 0 : walk(p, n, n).characters;
}

const char* UnicodeUtilities::findCharacter(const char* p, unsigned n, unsigned position) noexcept {
  const unsigned before = position == 0 ? 0 : position - 1;
  if (p == nullptr || before >= n) {
    return nullptr;
  }
  const Walk at = walk(p, n, before);
  return at.position < n ? p + at.position : nullptr;
}

bool UnicodeUtilities::isValid(const char* p, unsigned n) noexcept {
  unsigned pending = 0;
  unsigned i = 0;
  for (; n - i >= blockSize; i += blockSize) {
    const __m128i block = load(p + i);
    if (highBits(block) == 0 && pending == 0) {
      continue;
    }
    const unsigned expected = expectedContinuations(block) | pending;
    if ((expected & blockBits) != highBits(continuations(block))) {
      return false;
    }
    pending = expected >> blockSize;
  }
  const __m128i rest = loadPartial(p + i, n - i);
  return (expectedContinuations(rest) | pending) == highBits(continuations(rest));
}

unsigned UnicodeUtilities::asciiLength(const char* p, unsigned n) noexcept {
  unsigned i = 0;
  for (; n - i >= blockSize; i += blockSize) {
    if (const unsigned high = highBits(load(p + i)); high != 0) {
      return i + static_cast<unsigned>(std::countr_zero(high));
    }
  }
  const unsigned high = highBits(loadPartial(p + i, n - i));
  return high == 0 ? n : i + static_cast<unsigned>(std::countr_zero(high));
}

EncodedString UnicodeUtilities::convertFromCP(const char* text, const char* codepage) {
  if (codepage == nullptr || *codepage == 0 || text == nullptr || *text == 0) {
    return {text, EncodedString::native};
  }
  if (strcmp(codepage, "UTF-8") == 0) {
    return {text, EncodedString::utf8};
  }
  const LoaderGuard guard(
      "static EncodedString UnicodeUtilities::convertFromCP(const char*, const char*)", __LINE__);
  const IconvDescriptor descriptor("UTF-8", codepage);
  if (!descriptor.isOpen()) {
    return {text, EncodedString::native};
  }
  const size_t length = strlen(text);
  ConvertedText result(longestSequence * length + 1);
  result.convert(descriptor.get(), text, length);
  return {result.text(), result.length(), EncodedString::utf8};
}
