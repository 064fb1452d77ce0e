#include "Engine/utilities/ByteString.h"

#include <array>
#include <cstring>
#include <limits>

#include "Engine/utilities/ASCII.h"
#include "Engine/utilities/ElementSet.h"

namespace {

constexpr unsigned longestText = std::numeric_limits<unsigned>::max() - 1;

// A length that is too long for a string becomes that of an empty one.
unsigned lengthOrNone(unsigned long n) { return n <= longestText ? static_cast<unsigned>(n) : 0; }

const unsigned char* bytesOf(const void* p) { return static_cast<const unsigned char*>(p); }

constexpr std::array<unsigned char, 512> makeHexPairs() {
  constexpr char digits[] = "0123456789ABCDEF";
  std::array<unsigned char, 512> pairs = {};
  for (size_t byte = 0; byte < 256; ++byte) {
    pairs[2 * byte] = static_cast<unsigned char>(digits[byte >> 4]);
    pairs[2 * byte + 1] = static_cast<unsigned char>(digits[byte & 0xF]);
  }
  return pairs;
}

constexpr std::array<unsigned char, 512> hexPairs = makeHexPairs();

}  // namespace

ByteString::ByteString(const char* text)
    : StringBuffer(bytesOf(text), text == nullptr ? 0 : lengthOrNone(std::strlen(text))) {}

ByteString::ByteString(const void* bytes, unsigned n)
    : StringBuffer(bytesOf(bytes), bytes == nullptr ? 0 : n) {}

ByteString::ByteString(const StringBuffer<unsigned char>& s, unsigned start)
    : StringBuffer(s, start) {}

ByteString::ByteString(const StringBuffer<unsigned char>& s, unsigned start, unsigned count,
                       unsigned char pad)
    : StringBuffer(s, start, count, pad) {}

ByteString::ByteString(const void* a, unsigned na, const void* b, unsigned nb, const void* c,
                       unsigned nc) {
  makeBuffer(lengthOrNone(0UL + na + nb + nc));
  if (len == 0) {
    return;
  }
  struct Piece {
    const void* bytes;
    unsigned length;
  };
  unsigned char* out = buffer;
  for (const Piece& piece : {Piece{a, na}, Piece{b, nb}, Piece{c, nc}}) {
    if (piece.bytes == nullptr) {
      break;
    }
    std::memcpy(out, piece.bytes, piece.length);
    out += piece.length;
  }
  std::memset(out, 0, static_cast<size_t>(buffer + len - out));
}

ByteString::ByteString(unsigned short unit, int count) {
  makeBuffer(count > 0 ? lengthOrNone(sizeof unit * static_cast<unsigned>(count)) : 0);
  for (unsigned i = 0; i < len; i += sizeof unit) {
    std::memcpy(buffer + i, &unit, sizeof unit);
  }
}

ByteString ByteString::operator+(const ByteString& s) const {
  return {buffer, len, s.buffer, s.len, nullptr, 0};
}

ByteString ByteString::hexFormat(const void* data, unsigned n) {
  ByteString result;
  result.makeBuffer(data == nullptr ? 0 : lengthOrNone(2UL * n));
  const unsigned char* in = bytesOf(data);
  for (unsigned i = 0; i < result.len; i += 2) {
    std::memcpy(result.buffer + i, &hexPairs[size_t{2} * *in++], 2);
  }
  return result;
}

void ByteString::stripLeading(char c) {
  const unsigned first = indexOfAnyBut(static_cast<unsigned char>(c), 1);
  remove(1, first == 0 ? len : first - 1);
}

void ByteString::stripTrailing(char c) {
  remove(lastIndexOfAnyBut(static_cast<unsigned char>(c), len) + 1, len);
}

void ByteString::stripPointerWhiteSpace() {
  // Backwards, so that a run of blanks is seen from its star.
  unsigned char* const end = buffer + len;
  unsigned char* kept = end;
  bool inFrontOfStar = false;
  for (const unsigned char* p = end; p != buffer;) {
    const unsigned char c = *--p;
    inFrontOfStar = c == '*' || (inFrontOfStar && c == ' ');
    if (!inFrontOfStar || c == '*') {
      *--kept = c;
    }
  }
  remove(1, static_cast<unsigned>(kept - buffer));
}

ByteString ByteString::firstToken(const char* delimiters) {
  const ElementSet<unsigned char> set(reinterpret_cast<const unsigned char*>(delimiters));
  const unsigned char* const end = buffer + len;
  const unsigned char* const start = set.skip(buffer, end);
  const unsigned char* const stop = set.seek(start, end);
  ByteString token(start, static_cast<unsigned>(stop - start));
  remove(1, static_cast<unsigned>(set.skip(stop, end) - buffer));
  return token;
}

ByteString stripWhiteSpace(const ByteString& s) {
  const unsigned char* const text = s;
  unsigned start = 0;
  unsigned end = s.length();
  while (end > start && isWhiteSpace(static_cast<char>(text[end - 1]))) {
    --end;
  }
  while (start < end && isWhiteSpace(static_cast<char>(text[start]))) {
    ++start;
  }
  return {text + start, end - start};
}
