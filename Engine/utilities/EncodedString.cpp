#include "Engine/utilities/EncodedString.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string>
#include <utility>

#include "Engine/utilities/ASCII.h"
#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/CharString.h"
#include "Engine/utilities/ElementSet.h"
#include "Engine/utilities/UTF8Converter.h"
#include "Engine/utilities/UnicodeUtilities.h"

namespace {

constexpr unsigned toTheEnd = UINT_MAX;

unsigned lengthOf(const char* text) noexcept {
  return text == nullptr ? 0 : static_cast<unsigned>(std::min<size_t>(strlen(text), UINT_MAX));
}

unsigned lengthOf(const wchar_t* text) noexcept {
  return text == nullptr ? 0 : static_cast<unsigned>(std::min<size_t>(wcslen(text), UINT_MAX));
}

const char* asChars(const unsigned char* bytes) noexcept {
  return reinterpret_cast<const char*>(bytes);
}

const char* asChars(const signed char* bytes) noexcept {
  return reinterpret_cast<const char*>(bytes);
}

const char* asChars(const ByteString& bytes) noexcept {
  return asChars(static_cast<const unsigned char*>(bytes));
}

// A length for makeBuffer(), which refuses the greatest one: no string is that long.
unsigned shortLength(size_t n) noexcept {
  return static_cast<unsigned>(std::min<size_t>(n, UINT_MAX));
}

__attribute__((format(printf, 1, 2))) EncodedString formatted(const char* format, ...) {
  char text[64];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  return {text, EncodedString::utf8};
}

// As "%d", "%u", "%lld" and "%llu" would do, without looking for the locale's rules.
template <typename Number>
EncodedString decimal(Number value) {
  char text[24];
  const char* end = std::to_chars(text, text + sizeof text, value).ptr;
  return {text, static_cast<unsigned>(end - text), EncodedString::utf8};
}

EncodedString piece(const char* first, const char* end) {
  return {first, static_cast<unsigned>(end - first), EncodedString::utf8};
}

ByteString bytesOf(const char* text, unsigned n) { return {text, n}; }

unsigned rest(const char* p, const char* end) noexcept { return static_cast<unsigned>(end - p); }

// The value of `digits` hexadecimal digits at `p`; false when one of them is none.
bool readHex(const char* p, unsigned digits, unsigned& value) noexcept {
  const auto [end, error] = std::from_chars(p, p + digits, value, 16);
  return error == std::errc() && end == p + digits;
}

// The length of the escape that starts with the backslash at `p`, `n` bytes before the end;
// 0 when it is none.
unsigned readEscape(const char* p, unsigned n, unsigned& value) noexcept {
  const unsigned digits = n < 2 ? 0 : p[1] == 'u' ? 4 : p[1] == 'U' ? 8 : 0;
  return digits != 0 && n - 2 >= digits && readHex(p + 2, digits, value) ? digits + 2 : 0;
}

// "\\u" and four lower-case hexadecimal digits, or "\\U" and eight; gives the length.
size_t writeEscape(unsigned value, char* escape) noexcept {
  const unsigned digits = value < 0x10000 ? 4 : 8;
  escape[0] = '\\';
  escape[1] = digits == 4 ? 'u' : 'U';
  for (unsigned i = digits; i != 0; --i) {
    escape[1 + i] = "0123456789abcdef"[value & 0xF];
    value >>= 4;
  }
  return digits + 2;
}

}  // namespace

EncodedString::EncodedString(const char* text, Encoding encoding)
    : EncodedString(text, lengthOf(text), encoding) {}

EncodedString::EncodedString(const unsigned char* text, Encoding encoding)
    : EncodedString(asChars(text), encoding) {}

EncodedString::EncodedString(const signed char* text, Encoding encoding)
    : EncodedString(asChars(text), encoding) {}

EncodedString::EncodedString(const char* text, unsigned n, Encoding encoding) {
  if (text == nullptr || n == 0) {
    return;
  }
  switch (encoding) {
    case native:
      *this = UTF8Converter::instance().convertToUTF8(text, n);
      return;
    case slashU:
      *this = UTF8Converter::instance().convertToUTF8(text, n);
      convertFromSlashU();
      return;
    case autodetect:
      if (!UnicodeUtilities::isValid(text, n)) {
        *this = UTF8Converter::instance().convertToUTF8(text, n);
        return;
      }
      break;
    case utf8:
    default:
      break;
  }
  makeBuffer(n);
  memcpy(buffer, text, n);
}

EncodedString::EncodedString(const unsigned char* text, unsigned n, Encoding encoding)
    : EncodedString(asChars(text), n, encoding) {}

EncodedString::EncodedString(const signed char* text, unsigned n, Encoding encoding)
    : EncodedString(asChars(text), n, encoding) {}

EncodedString::EncodedString(const ByteString& bytes, Encoding encoding)
    : EncodedString(asChars(bytes), bytes.length(), encoding) {}

EncodedString::EncodedString(const ByteString& bytes, const char* codepage) {
  *this = UTF8Converter::instance().convertToUTF8(asChars(bytes), bytes.length(), codepage);
}

EncodedString::EncodedString(const CharString& text) { setWide(text, text.length()); }

EncodedString::EncodedString(const wchar_t* text) { setWide(text, lengthOf(text)); }

EncodedString::EncodedString(wchar_t c, unsigned count) { setRepeated(nullptr, 0, c, count); }

EncodedString& EncodedString::operator=(const CharString& text) {
  setWide(text, text.length());
  return *this;
}

EncodedString& EncodedString::operator=(const wchar_t* text) {
  setWide(text, lengthOf(text));
  return *this;
}

EncodedString& EncodedString::operator+=(const CharString& text) {
  return *this += EncodedString(text);
}

EncodedString& EncodedString::operator+=(const wchar_t* text) {
  return *this += EncodedString(text);
}

EncodedString EncodedString::operator+(const EncodedString& s) const {
  EncodedString result;
  result.makeBuffer(shortLength(size_t{len} + s.len));
  memcpy(result.buffer, buffer, len);
  memcpy(result.buffer + len, s.buffer, s.len);
  return result;
}

EncodedString EncodedString::number(int value) { return decimal(value); }
EncodedString EncodedString::number(unsigned int value) { return decimal(value); }
EncodedString EncodedString::number(long value) { return decimal(value); }
EncodedString EncodedString::number(unsigned long value) { return decimal(value); }
EncodedString EncodedString::number(float value) { return number(static_cast<double>(value)); }
EncodedString EncodedString::number(double value) { return formatted("%g", value); }
EncodedString EncodedString::number(long double value) { return formatted("%Lg", value); }

ByteString EncodedString::convert(Encoding target, const char* codepage) const {
  switch (target) {
    case native:
      return convertToNative(codepage);
    case slashU:
      return convertToSlashU();
    case utf8:
    case autodetect:
    default:
      return bytesOf(buffer, len);
  }
}

const char* EncodedString::nativeCodepage() { return UTF8Converter::instance().nativeCodepage(); }

void EncodedString::convertToUTF8(const char* codepage) {
  if (len != 0) {
    *this = UTF8Converter::instance().convertToUTF8(buffer, len, codepage);
  }
}

ByteString EncodedString::convertToNative(const char* /*codepage*/) const {
  return len == 0 ? ByteString() : UTF8Converter::instance().convertFromUTF8(buffer, len);
}

void EncodedString::convertFromSlashU() {
  const char* const end = buffer + len;
  const char* from = buffer;
  char* to = buffer;
  while (from != end) {
    const auto* backslash = static_cast<const char*>(memchr(from, '\\', rest(from, end)));
    const char* const plainEnd = backslash == nullptr ? end : backslash;
    const unsigned plain = rest(from, plainEnd);
    memmove(to, from, plain);
    to += plain;
    from += plain;
    if (backslash != nullptr) {
      unsigned value = 0;
      if (const unsigned escape = readEscape(backslash, rest(backslash, end), value)) {
        to += UnicodeUtilities::unicodeToUTF8(value, to, UnicodeUtilities::longestSequence);
        from += escape;
      } else {
        *to++ = *from++;
      }
    }
  }
  if (to != end) {
    remove(static_cast<unsigned>(to - buffer) + 1, toTheEnd);
  }
}

ByteString EncodedString::convertToSlashU() const {
  std::string result;
  result.reserve(len);
  for (unsigned i = 0; i < len;) {
    const unsigned ascii = UnicodeUtilities::asciiLength(buffer + i, len - i);
    result.append(buffer + i, ascii);
    i += ascii;
    if (i < len) {
      wchar_t cp = 0;
      // A byte that cannot open a sequence is a character of its own.
      i += std::max(1U, UnicodeUtilities::utf8Encode(buffer + i, len - i, cp));
      char escape[sizeof "\\U00000000"];
      result.append(escape, writeEscape(static_cast<unsigned>(cp), escape));
    }
  }
  return bytesOf(result.data(), shortLength(result.size()));
}

bool EncodedString::isValid() const noexcept { return UnicodeUtilities::isValid(buffer, len); }

bool EncodedString::isNLS() const noexcept {
  return UnicodeUtilities::asciiLength(buffer, len) != len;
}

unsigned EncodedString::charCount() const noexcept {
  return UnicodeUtilities::charCount(buffer, len);
}

bool EncodedString::isWhiteSpace(unsigned char c) noexcept {
  return (ASCII::type(c) & ASCII::whiteSpace) != 0;
}

bool EncodedString::hasTrailingWhiteSpace() const noexcept {
  return len != 0 && isWhiteSpace(static_cast<unsigned char>(buffer[len - 1]));
}

void EncodedString::stripLeadingWhiteSpace() {
  unsigned n = 0;
  while (n < len && isWhiteSpace(static_cast<unsigned char>(buffer[n]))) {
    ++n;
  }
  if (n != 0) {
    remove(1, n);
  }
}

void EncodedString::stripTrailingWhiteSpace() {
  unsigned n = len;
  while (n != 0 && isWhiteSpace(static_cast<unsigned char>(buffer[n - 1]))) {
    --n;
  }
  if (n != len) {
    remove(n + 1, toTheEnd);
  }
}

void EncodedString::stripWhiteSpace() {
  stripTrailingWhiteSpace();
  stripLeadingWhiteSpace();
}

void EncodedString::stripHexPrefix() {
  if (len >= 3 && buffer[0] == '0' && (buffer[1] == 'x' || buffer[1] == 'X') &&
      std::all_of(buffer + 2, buffer + len, [](char c) {
        return (ASCII::type(static_cast<unsigned char>(c)) & ASCII::hexDigit) != 0;
      })) {
    remove(1, 2);
  }
}

EncodedString EncodedString::subString(unsigned start) const {
  const char* first = UnicodeUtilities::findCharacter(buffer, len, start);
  return first == nullptr ? EncodedString() : piece(first, buffer + len);
}

EncodedString EncodedString::subString(unsigned start, unsigned count, wchar_t pad) const {
  const char* const end = buffer + len;
  const char* first = UnicodeUtilities::findCharacter(buffer, len, start);
  if (first == nullptr) {
    return {pad, count};
  }
  const unsigned present = rest(first, end);
  if (count < present) {
    const char* behind = UnicodeUtilities::findCharacter(first, present, count + 1);
    if (behind != nullptr) {
      return piece(first, behind);
    }
  }
  const unsigned missing = count - UnicodeUtilities::charCount(first, present);
  EncodedString result;
  result.setRepeated(first, present, pad, missing);
  return result;
}

EncodedString EncodedString::allBefore(unsigned char c) const {
  const unsigned position = indexOf(static_cast<char>(c), 1);
  return position == 0 ? *this : piece(buffer, buffer + position - 1);
}

EncodedString EncodedString::allAfter(unsigned char c) const {
  const unsigned position = indexOf(static_cast<char>(c), 1);
  return position == 0 ? EncodedString() : piece(buffer + position, buffer + len);
}

EncodedString EncodedString::splitAt(unsigned char c) {
  const unsigned position = indexOf(static_cast<char>(c), 1);
  if (position == 0) {
    return std::exchange(*this, EncodedString());
  }
  EncodedString result = piece(buffer, buffer + position - 1);
  remove(1, position);
  return result;
}

EncodedString EncodedString::firstToken(const char* delimiters) {
  const ElementSet<char> set(delimiters);
  const char* const end = buffer + len;
  const char* const start = set.skip(buffer, end);
  const char* const stop = set.seek(start, end);
  EncodedString token = piece(start, stop);
  remove(1, rest(buffer, set.skip(stop, end)));
  return token;
}

void EncodedString::setWide(const wchar_t* text, unsigned count) {
  const unsigned length = shortLength(UnicodeUtilities::utf8Length(text, count));
  makeBuffer(length);
  if (length != 0) {
    UnicodeUtilities::unicodeToUTF8(text, count, buffer, length + 1);
  }
}

// `n` bytes and behind them `count` times the character `c`.
void EncodedString::setRepeated(const char* bytes, unsigned n, wchar_t c, unsigned count) {
  char unit[UnicodeUtilities::longestSequence];
  const unsigned size =
      UnicodeUtilities::unicodeToUTF8(static_cast<unsigned>(c), unit, sizeof unit);
  makeBuffer(shortLength(n + size_t{size} * count));
  if (n != 0) {
    memcpy(buffer, bytes, n);
  }
  char* to = buffer + n;
  if (size == 1) {
    memset(to, unit[0], count);
  } else {
    for (unsigned i = 0; i < count; ++i) {
      to = std::copy_n(unit, size, to);
    }
  }
}

bool compareCaseInsensitive(const char* text, const EncodedString& other) {
  const unsigned length = other.length();
  if (lengthOf(text) != length) {
    return false;
  }
  const char* const begin = other;
  return std::equal(begin, begin + length, text, [](char a, char b) {
    return ASCII::toLower(static_cast<unsigned char>(a)) ==
           ASCII::toLower(static_cast<unsigned char>(b));
  });
}
