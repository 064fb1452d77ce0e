#include "Engine/utilities/CharString.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <limits>
#include <utility>

#include "Engine/internal/ReadNumber.h"
#include "Engine/utilities/ASCII.h"
#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/ElementSet.h"
#include "Engine/utilities/UnicodeUtilities.h"

namespace {

using WideSet = ElementSet<wchar_t>;

unsigned lengthOf(const wchar_t* text) {
  return text == nullptr ? 0
                         : static_cast<unsigned>(std::min<unsigned long>(
                               std::wcslen(text), std::numeric_limits<unsigned>::max()));
}

constexpr bool isASCII(wchar_t c) { return static_cast<unsigned>(c) < 128; }

constexpr bool isASCII(wchar_t c, ASCII::Class wanted) {
  return isASCII(c) && (ASCII::type(static_cast<unsigned char>(c)) & wanted) != 0;
}

wchar_t toLower(wchar_t c) {
  return isASCII(c) ? static_cast<wchar_t>(ASCII::toLower(static_cast<unsigned char>(c))) : c;
}

wchar_t toUpper(wchar_t c) {
  return isASCII(c) ? static_cast<wchar_t>(ASCII::toUpper(static_cast<unsigned char>(c))) : c;
}

// The value of a digit of either base.
unsigned digitValue(wchar_t c) {
  return static_cast<unsigned>(c <= L'9' ? c - L'0' : toLower(c) - L'a' + 10);
}

constexpr bool needsBackslash(wchar_t c) { return c == L'"' || c == L'\\'; }

// Whether the two values at `p` are a backslash and what it protects.
bool isEscape(const wchar_t* p, const wchar_t* end) {
  return *p == L'\\' && end - p > 1 && needsBackslash(p[1]);
}

// Reads digits of class `digits` behind blanks and tabs from position `pos` on.
unsigned scanNumber(const wchar_t* text, unsigned length, unsigned& pos, ASCII::Class digits,
                    unsigned base) {
  const wchar_t* const end = text + length;
  const wchar_t* p = text + std::min(std::max(pos, 1U) - 1, length);
  while (p != end && (*p == L' ' || *p == L'\t')) {
    ++p;
  }
  unsigned value = 0;
  for (; p != end && isASCII(*p, digits); ++p) {
    value = value * base + digitValue(*p);
  }
  pos = static_cast<unsigned>(p - text) + 1;
  return value;
}

}  // namespace

CharString::CharString(const StringBuffer<wchar_t>& s, unsigned start) : StringBuffer(s, start) {}

CharString::CharString(const StringBuffer<wchar_t>& s, unsigned start, unsigned count, wchar_t pad)
    : StringBuffer(s, start, count, pad) {}

CharString::CharString(const wchar_t* text) : StringBuffer(text, lengthOf(text)) {}

CharString::CharString(const wchar_t* text, unsigned n)
    : StringBuffer(text, text == nullptr ? 0 : n) {}

CharString::CharString(wchar_t c, int count) {
  makeBuffer(static_cast<unsigned>(std::max(count, 0)));
  std::fill_n(buffer, len, c);
}

CharString& CharString::operator=(const wchar_t* text) { return *this = CharString(text); }

void CharString::loadFrom(const char* bytes, unsigned n, EncodedString::Encoding encoding) {
  if (bytes == nullptr || n == 0) {
    clear();
    return;
  }
  if (encoding != EncodedString::utf8) {
    const EncodedString text(bytes, n, encoding);
    loadFrom(text, text.length(), EncodedString::utf8);
    return;
  }
  CharString decoded;
  decoded.makeBuffer(n);
  const unsigned written = UnicodeUtilities::utf8toUnicode(bytes, n, decoded.buffer, n + 1);
  if (written == n + 1) {
    *this = std::move(decoded);
  } else {
    *this = CharString(decoded.buffer, written == 0 ? 0 : written - 1);
  }
}

EncodedString CharString::encoded() const { return EncodedString(*this); }

CharString CharString::getEnvVar(const char* name) {
  CharString result;
  if (const char* value = name == nullptr ? nullptr : std::getenv(name); value != nullptr) {
    result.loadFrom(value, static_cast<unsigned>(std::strlen(value)), EncodedString::native);
  }
  return result;
}

CharString CharString::getEnvVar(const wchar_t* name) { return getEnvVar(CharString(name)); }

CharString CharString::getEnvVar(const CharString& name) {
  const ByteString bytes = name.encoded().convert(EncodedString::native);
  const unsigned char* const text = bytes;
  return getEnvVar(reinterpret_cast<const char*>(text));
}

void CharString::lower() noexcept { std::transform(buffer, buffer + len, buffer, toLower); }

void CharString::upper() noexcept { std::transform(buffer, buffer + len, buffer, toUpper); }

// Keeps the block, which is later given back with the size of the shorter text. The block
// of a text that becomes empty is given back at once: nobody would do it later.
void CharString::shortenTo(unsigned n) noexcept {
  if (n == 0) {
    clear();
  } else {
    len = n;
    buffer[n] = 0;
  }
}

void CharString::stripLeading(wchar_t c) noexcept {
  const unsigned first = indexOfAnyBut(c, 1);
  if (first > 1) {
    std::wmemmove(buffer, buffer + first - 1, len - first + 1);
  }
  shortenTo(first == 0 ? 0 : len - first + 1);
}

void CharString::stripTrailing(wchar_t c) noexcept { shortenTo(lastIndexOfAnyBut(c, len)); }

bool CharString::operator==(const wchar_t* text) const noexcept {
  return len == lengthOf(text) && (len == 0 || std::wmemcmp(buffer, text, len) == 0);
}

bool CharString::startsWith(const CharString& part, unsigned pos) const noexcept {
  if (part.len == 0 || pos == 0 || pos > len || len - pos + 1 < part.len) {
    return false;
  }
  return std::wmemcmp(buffer + pos - 1, part.buffer, part.len) == 0;
}

bool CharString::endsWith(const CharString& s) const noexcept {
  return s.len <= len && startsWith(s, len - s.len + 1);
}

unsigned CharString::matchLength(const CharString& other, int exact) const noexcept {
  const auto agree = [exact](wchar_t a, wchar_t b) {
    return a == b || (exact == 0 && isASCII(a) && isASCII(b) && toUpper(a) == toUpper(b));
  };
  const wchar_t* const end = buffer + std::min(len, other.len);
  return static_cast<unsigned>(
      std::mismatch(buffer, const_cast<wchar_t*>(end), other.buffer, agree).first - buffer);
}

void CharString::change(const CharString& from, const CharString& to, unsigned start) {
  if (&to == this) {
    change(from, CharString(to), start);
    return;
  }
  const unsigned at = len >= start ? indexOf(from, start) : 0;
  if (at == 0) {
    return;
  }
  const CharString tail(*this, at + from.len);
  shortenTo(at - 1);
  *this += to;
  *this += tail;
}

unsigned CharString::skipChars(unsigned pos, const wchar_t* set) const noexcept {
  const WideSet skipped(set);
  pos = std::max(pos, 1U);
  if (skipped.isEmpty()) {
    return pos;
  }
  const wchar_t* const end = buffer + len;
  return static_cast<unsigned>(skipped.skip(buffer + std::min(pos - 1, len), end) - buffer) + 1;
}

CharString CharString::operator+(const CharString& s) const {
  CharString result(*this);
  result += s;
  return result;
}

unsigned CharString::scanUnsigned(unsigned& pos) const noexcept {
  return scanNumber(buffer, len, pos, ASCII::decimalDigit, 10);
}

unsigned CharString::scanHex(unsigned& pos) const noexcept {
  return scanNumber(buffer, len, pos, ASCII::hexDigit, 16);
}

CharString CharString::scanString(unsigned& pos, const wchar_t* delimiters) const {
  const WideSet set(delimiters);
  const wchar_t* const end = buffer + len;
  const wchar_t* const start = set.skip(buffer + std::min(std::max(pos, 1U) - 1, len), end);
  const wchar_t* const stop = set.seek(start, end);
  // A run that reaches the end leaves the position on its last value: kept, as callers only ask
  // whether it is behind the end.
  const bool runReachesEnd = stop == end && start != end;
  pos = runReachesEnd ? len : static_cast<unsigned>(stop - buffer) + 1;
  return {start, static_cast<unsigned>(stop - start)};
}

CharString CharString::firstToken(const wchar_t* delimiters) {
  const WideSet set(delimiters);
  const wchar_t* const end = buffer + len;
  const wchar_t* const start = set.skip(buffer, end);
  const wchar_t* const stop = set.seek(start, end);
  CharString token(start, static_cast<unsigned>(stop - start));
  remove(1, static_cast<unsigned>(stop - buffer));
  return token;
}

CharString CharString::firstQuotedToken(const wchar_t* delimiters) {
  const WideSet set(delimiters);
  const wchar_t* const end = buffer + len;
  const wchar_t* const start = set.skip(buffer, end);
  const wchar_t* stop = start;
  unsigned dropped = 0;
  for (bool quoted = false; stop != end && (quoted || !set.contains(*stop)); ++stop) {
    if (isEscape(stop, end)) {
      ++stop;
      ++dropped;
    } else if (*stop == L'"') {
      quoted = !quoted;
    }
  }
  CharString token;
  token.makeBuffer(static_cast<unsigned>(stop - start) - dropped);
  wchar_t* out = token.buffer;
  for (const wchar_t* p = start; p != stop; ++p) {
    p += isEscape(p, end) ? 1 : 0;
    *out++ = *p;
  }
  remove(1, static_cast<unsigned>(stop - buffer));
  return token;
}

CharString CharString::makeQuotedToken() const {
  const auto backslashes = std::count_if(buffer, buffer + len, needsBackslash);
  CharString token;
  token.makeBuffer(len + static_cast<unsigned>(backslashes) + 2);
  wchar_t* out = token.buffer;
  *out++ = L'"';
  for (const wchar_t* p = buffer; p != buffer + len; ++p) {
    if (needsBackslash(*p)) {
      *out++ = L'\\';
    }
    *out++ = *p;
  }
  *out = L'"';
  return token;
}

CharString CharString::makeToken(const wchar_t* specials) const {
  const wchar_t* const end = buffer + len;
  return WideSet(specials).seek(buffer, end) == end ? *this : makeQuotedToken();
}

CharString CharString::makeToken() const { return makeToken(L" \"'\\*?<>|"); }

bool CharString::asValue(int& value) const { return readNumber(encoded(), value); }
bool CharString::asValue(unsigned int& value) const { return readNumber(encoded(), value); }
bool CharString::asValue(long& value) const { return readNumber(encoded(), value); }
bool CharString::asValue(unsigned long& value) const { return readNumber(encoded(), value); }

namespace {

template <class Integer>
CharString decimal(Integer value) {
  char digits[std::numeric_limits<Integer>::digits10 + 2];
  const char* const end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  wchar_t wide[sizeof digits];
  std::copy(digits, const_cast<char*>(end), wide);
  return {wide, static_cast<unsigned>(end - digits)};
}

}  // namespace

CharString CharString::makeFromNumeric(long value) { return decimal(value); }
CharString CharString::makeFromNumeric(unsigned long value) { return decimal(value); }

CharString CharString::d2x() const { return *this; }
