// UTF-8 and escapes: every walk over bytes against a plain one, text through code values
// and escapes and back, and the operations that cut a text by characters.

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <vector>

#include "Engine/utilities/UnicodeUtilities.h"

#include "fuzz/Fuzz.h"

namespace {

using Values = std::vector<unsigned>;

// The length that a lead byte announces, 0 for a byte that is none.
unsigned announced(unsigned char lead) {
  if (lead < 0x80) {
    return 1;
  }
  unsigned ones = 0;
  while (ones < 8 && (lead & (0x80U >> ones)) != 0) {
    ++ones;
  }
  return ones >= 2 && ones <= 6 ? ones : 0;
}

// The length of the whole sequence at `at`, 0 when it is broken.
unsigned wholeSequence(std::string_view text, size_t at) {
  const unsigned length = announced(static_cast<unsigned char>(text[at]));
  if (length > text.size() - at) {
    return 0;
  }
  for (unsigned i = 1; i < length; ++i) {
    if ((static_cast<unsigned char>(text[at + i]) & 0xC0) != 0x80) {
      return 0;
    }
  }
  return length;
}

bool isWellShaped(std::string_view text) {
  for (size_t at = 0; at < text.size();) {
    const unsigned length = wholeSequence(text, at);
    if (length == 0) {
      return false;
    }
    at += length;
  }
  return true;
}

// Where characters start, told by lead bytes alone.
std::vector<size_t> starts(std::string_view text) {
  std::vector<size_t> result;
  for (size_t at = 0; at < text.size();
       at += std::max(1U, announced(static_cast<unsigned char>(text[at])))) {
    result.push_back(at);
  }
  return result;
}

// The code values; `stopped` when a byte that is no lead byte stands where one should.
Values decode(std::string_view text, bool& stopped) {
  Values values;
  stopped = false;
  for (size_t at = 0; at < text.size();) {
    const auto lead = static_cast<unsigned char>(text[at]);
    const unsigned length = announced(lead);
    if (length == 0) {
      stopped = true;
      break;
    }
    unsigned value = length == 1 ? lead : lead & (0x7FU >> length);
    const unsigned whole = wholeSequence(text, at);
    for (unsigned i = 1; i < whole; ++i) {
      value = value << 6 | (static_cast<unsigned char>(text[at + i]) & 0x3F);
    }
    values.push_back(value);
    at += std::max(1U, whole);
  }
  return values;
}

std::string encode(unsigned value) {
  if (value < 0x80) {
    return {static_cast<char>(value)};
  }
  std::string tail;
  unsigned length = 1;
  for (unsigned limit = 0x40; length < 6; limit >>= 1) {
    tail.insert(tail.begin(), static_cast<char>(0x80 | (value & 0x3F)));
    value >>= 6;
    ++length;
    if (value < (limit >> 1)) {
      break;
    }
  }
  return static_cast<char>((0xFF00U >> length) | value) + tail;
}

std::string encode(const Values& values) {
  std::string result;
  for (const unsigned value : values) {
    result += encode(value);
  }
  return result;
}

void checkWalks(std::string_view text, unsigned position) {
  const ExactBytes bytes(text);
  const char* const p = bytes.data();
  const unsigned n = bytes.size();
  FUZZ_CHECK(UnicodeUtilities::isValid(p, n) == isWellShaped(text));
  const auto firstHigh = std::find_if(text.begin(), text.end(), [](char c) { return c < 0; });
  FUZZ_CHECK(UnicodeUtilities::asciiLength(p, n) == firstHigh - text.begin());
  const std::vector<size_t> characters = starts(text);
  FUZZ_CHECK(UnicodeUtilities::charCount(p, n) == characters.size());
  for (const unsigned k : {1U, position, static_cast<unsigned>(characters.size())}) {
    const char* const found = UnicodeUtilities::findCharacter(p, n, k);
    const size_t index = k == 0 ? 0 : k - 1;
    FUZZ_CHECK(found == (index < characters.size() ? p + characters[index] : nullptr));
  }
}

// `values` is what `text` stands for.
void checkDecoding(std::string_view text, const Values& values, bool stopped, unsigned capacity) {
  const ExactBytes bytes(text);
  for (const unsigned room : {bytes.size() + 1, capacity}) {
    std::vector<wchar_t> out(room);
    const unsigned written =
        UnicodeUtilities::utf8toUnicode(bytes.data(), bytes.size(), out.data(), room);
    const bool fits = room >= 2 && !stopped && values.size() < room;
    FUZZ_CHECK(written == (fits ? values.size() + 1 : 0));
    if (fits) {
      FUZZ_CHECK(out[values.size()] == 0);
      FUZZ_CHECK(std::equal(values.begin(), values.end(), out.begin(),
                            [](unsigned a, wchar_t b) { return a == static_cast<unsigned>(b); }));
    }
  }
  if (!text.empty()) {
    wchar_t value = 0;
    const unsigned taken = UnicodeUtilities::utf8Encode(bytes.data(), bytes.size(), value);
    const unsigned length = announced(static_cast<unsigned char>(text[0]));
    FUZZ_CHECK(taken == (length == 0 ? 0 : std::max(1U, wholeSequence(text, 0))));
    FUZZ_CHECK(length == 0 || static_cast<unsigned>(value) == values[0]);
    const ExactBytes terminated(std::string(text) + '\0');
    wchar_t again = 0;
    FUZZ_CHECK(UnicodeUtilities::utf8Encode(terminated.data(), again) == taken && again == value);
  }
}

void checkEncoding(const Values& values, unsigned room) {
  std::vector<wchar_t> wide;
  for (const unsigned value : values) {
    wide.push_back(static_cast<wchar_t>(value));
  }
  const auto count = static_cast<unsigned>(wide.size());
  const std::string expected = encode(values);
  FUZZ_CHECK(UnicodeUtilities::utf8Length(wide.data(), count) == expected.size());
  for (const unsigned size : {static_cast<unsigned>(expected.size()) + 1, room}) {
    std::vector<char> out(size);
    const unsigned written = UnicodeUtilities::unicodeToUTF8(wide.data(), count, out.data(), size);
    FUZZ_CHECK(written == (size > expected.size() ? expected.size() + 1 : 0));
    FUZZ_CHECK(written == 0 ||
               (std::string_view(out.data(), written - 1) == expected && out[written - 1] == 0));
  }
  const CharString text(wide.data(), count);
  FUZZ_CHECK(text.length() == count);
  FUZZ_CHECK(bytesOf(text) == expected);
}

// Only bytes below 0x80 stay; a character that could be one of them does not.
std::string escaped(const std::string& text, const Values& values) {
  const std::vector<size_t> characters = starts(text);
  std::string result;
  for (size_t i = 0; i < characters.size(); ++i) {
    std::array<char, 16> escape = {};
    std::snprintf(escape.data(), escape.size(), values[i] < 0x10000 ? "\\u%4.4x" : "\\U%8.8x",
                  values[i]);
    const char first = text[characters[i]];
    result += first >= 0 ? std::string(1, first) : escape.data();
  }
  return result;
}

std::string unescaped(const std::string& text) {
  std::string result;
  for (size_t at = 0; at < text.size();) {
    const size_t digits = text.compare(at, 2, "\\u") == 0   ? 4
                          : text.compare(at, 2, "\\U") == 0 ? 8
                                                            : 0;
    const std::string hex = digits == 0 ? "" : text.substr(at + 2, digits);
    if (digits != 0 && hex.size() == digits &&
        hex.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos) {
      result += encode(static_cast<unsigned>(std::stoul(hex, nullptr, 16)));
      at += digits + 2;
    } else {
      result += text[at++];
    }
  }
  return result;
}

void checkEscapes(const std::string& text, const Values& values) {
  EncodedString read = utf8Text(text);
  read.convertFromSlashU();
  FUZZ_CHECK(bytesOf(read) == unescaped(text));
  if (!isWellShaped(text)) {
    return;
  }
  const std::string written = bytesOf(utf8Text(text).convert(EncodedString::slashU));
  FUZZ_CHECK(written == escaped(text, values));
  // A backslash of the text itself could be taken for the start of an escape.
  if (text.find_first_of(std::string("\\\0", 2)) == std::string::npos) {
    const ExactBytes bytes(written);
    const EncodedString back(bytes.data(), bytes.size(), EncodedString::slashU);
    FUZZ_CHECK(bytesOf(back) == encode(values));
  }
}

void checkPieces(const std::string& bytes, unsigned start, unsigned count, unsigned char c) {
  const EncodedString text = utf8Text(bytes);
  FUZZ_CHECK(text.length() == bytes.size());
  FUZZ_CHECK(text.isValid() == isWellShaped(bytes));
  const std::vector<size_t> characters = starts(bytes);
  const size_t index = start == 0 ? 0 : start - 1;
  const std::string tail =
      index < characters.size() ? bytes.substr(characters[index]) : std::string();
  FUZZ_CHECK(bytesOf(text.subString(start)) == tail);
  if (text.isValid()) {
    const EncodedString part = text.subString(start, count, L'\x20AC');
    FUZZ_CHECK(part.isValid());
    FUZZ_CHECK(part.charCount() == count);
    const std::string got = bytesOf(part);
    FUZZ_CHECK(tail.starts_with(got) || got.starts_with(tail));
  }
  const size_t at = bytes.find(static_cast<char>(c));
  FUZZ_CHECK(bytesOf(text.allBefore(c)) == bytes.substr(0, at));
  const std::string after = at == std::string::npos ? std::string() : bytes.substr(at + 1);
  FUZZ_CHECK(bytesOf(text.allAfter(c)) == after);
  EncodedString rest = text;
  FUZZ_CHECK(bytesOf(rest.splitAt(c)) == bytes.substr(0, at));
  FUZZ_CHECK(bytesOf(rest) == after);

  EncodedString left = text;
  const char delimiters[] = {' ', static_cast<char>(c), 0};
  while (left.length() != 0) {
    const unsigned before = left.length();
    const std::string token = bytesOf(left.firstToken(delimiters));
    FUZZ_CHECK(left.length() < before);
    FUZZ_CHECK(token.find_first_of(delimiters) == std::string::npos);
    FUZZ_CHECK(bytes.find(token) != std::string::npos);
    FUZZ_CHECK(bytes.ends_with(bytesOf(left)));
  }
  EncodedString stripped = text;
  stripped.stripWhiteSpace();
  FUZZ_CHECK(!stripped.hasTrailingWhiteSpace());
  FUZZ_CHECK(bytes.find(bytesOf(stripped)) != std::string::npos);
  EncodedString number = text;
  number.stripHexPrefix();
  FUZZ_CHECK(number == text ||
             ("0x" + bytesOf(number) == bytes || "0X" + bytesOf(number) == bytes));
  FUZZ_CHECK(number == text || number.isHexDigits());
}

void checkConstructions(const std::string& text) {
  const ExactBytes bytes(text);
  const EncodedString native(bytes.data(), bytes.size(), EncodedString::native);
  FUZZ_CHECK(native.isValid());
  FUZZ_CHECK(bytesOf(native).find('\0') == std::string::npos);
  const EncodedString detected(bytes.data(), bytes.size(), EncodedString::autodetect);
  FUZZ_CHECK(bytesOf(detected) == (isWellShaped(text) ? text : bytesOf(native)));
  const EncodedString escapes(bytes.data(), bytes.size(), EncodedString::slashU);
  FUZZ_CHECK(bytesOf(escapes) == unescaped(bytesOf(native)));
  const std::string whole = upToZero(text);
  const ExactBytes terminated(std::string_view(whole.c_str(), whole.size() + 1));
  FUZZ_CHECK(bytesOf(EncodedString(terminated.data(), EncodedString::utf8)) == whole);
  FUZZ_CHECK(bytesOf(native.convert(EncodedString::native)) == bytesOf(native));
}

}  // namespace

void setUpFuzzing() {}

void fuzz(FuzzInput& input) {
  const unsigned position = input.choice(64);
  const unsigned count = input.choice(64);
  const unsigned char c = input.byte();
  if (input.choice(4) == 1) {
    // Any code values.
    Values values;
    while (!input.isEmpty()) {
      values.push_back(input.choice(2) == 0 ? input.byte() : input.word() >> input.choice(32));
    }
    checkEncoding(values, count);
    return;
  }
  const std::string text = input.rest();
  bool stopped = false;
  const Values values = decode(text, stopped);
  checkWalks(text, position);
  checkDecoding(text, values, stopped, count);
  checkEncoding(values, position);
  checkEscapes(text, values);
  checkPieces(text, position, count, c);
  checkConstructions(text);
}
