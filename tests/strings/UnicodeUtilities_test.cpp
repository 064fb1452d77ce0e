#include "Engine/utilities/UnicodeUtilities.h"

#include <array>
#include <cstdint>
#include <iconv.h>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>
#include <libxml/chvalid.h>

#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/Iconv.h"

#include "tests/strings/GuardedBytes.h"
#include "tests/support/Child.h"

namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;
using U = UnicodeUtilities;

unsigned length(std::string_view s) { return static_cast<unsigned>(s.size()); }

// The plain rules, byte by byte, to measure the fast functions by.

unsigned plainLength(unsigned char lead) {
  if (lead < 0x80) return 1;
  if (lead < 0xC0 || lead > 0xFD) return 0;
  if (lead < 0xE0) return 2;
  if (lead < 0xF0) return 3;
  if (lead < 0xF8) return 4;
  return lead < 0xFC ? 5 : 6;
}

bool isContinuation(char byte) { return (static_cast<unsigned char>(byte) >> 6) == 2; }

bool plainIsValid(std::string_view s) {
  for (size_t i = 0; i < s.size();) {
    const unsigned length = plainLength(static_cast<unsigned char>(s[i]));
    if (length == 0 || s.size() - i < length) {
      return false;
    }
    for (unsigned k = 1; k < length; ++k) {
      if (!isContinuation(s[i + k])) {
        return false;
      }
    }
    i += length;
  }
  return true;
}

// Where each character starts.
std::vector<size_t> plainStarts(std::string_view s) {
  std::vector<size_t> starts;
  for (size_t i = 0; i < s.size();) {
    starts.push_back(i);
    i += std::max(1U, plainLength(static_cast<unsigned char>(s[i])));
  }
  return starts;
}

std::optional<std::vector<uint32_t>> plainDecode(std::string_view s) {
  std::vector<uint32_t> values;
  for (size_t i = 0; i < s.size();) {
    const auto lead = static_cast<unsigned char>(s[i]);
    const unsigned length = plainLength(lead);
    if (length == 0) {
      return std::nullopt;
    }
    const uint32_t payload = length == 1 ? lead : lead & (0x7FU >> length);
    uint32_t value = payload;
    unsigned k = 1;
    while (k < length && i + k < s.size() && isContinuation(s[i + k])) {
      value = value << 6 | (static_cast<unsigned char>(s[i + k]) & 0x3F);
      ++k;
    }
    values.push_back(k == length ? value : payload);
    i += k == length ? length : 1;
  }
  return values;
}

std::string plainEncode(uint32_t cp) {
  if (cp < 0x80) {
    return {static_cast<char>(cp)};
  }
  std::string tail;
  unsigned bitsInLead = 6;
  do {
    tail.insert(tail.begin(), static_cast<char>(0x80 | (cp & 0x3F)));
    cp >>= 6;
    --bitsInLead;
  } while (tail.size() < 5 && cp >= 1U << bitsInLead);
  const unsigned lead = 0xFF00U >> (tail.size() + 1);
  return static_cast<char>(lead | cp) + tail;
}

unsigned below(std::mt19937& random, unsigned limit) {
  return static_cast<unsigned>(random() % limit);
}

// A text of sequences of all lengths, and of broken ones unless `wellFormed`.
std::string randomBytes(std::mt19937& random, size_t about, bool wellFormed) {
  static constexpr uint32_t limits[] = {0x80, 0x800, 0x10000, 0x200000, 0x4000000, 0x80000000};
  std::string s;
  const unsigned kinds = 1 + below(random, 6);
  while (s.size() < about) {
    switch (below(random, 8)) {
      case 0:
      case 1:
        s.append(below(random, 40), 'a');
        break;
      case 2:
        if (!wellFormed) {
          s += static_cast<char>(random());
          break;
        }
        [[fallthrough]];
      case 3:
        if (!wellFormed && !s.empty()) {
          s.pop_back();
          break;
        }
        [[fallthrough]];
      default:
        s += plainEncode(static_cast<uint32_t>(random()) % limits[random() % kinds]);
    }
  }
  return s;
}

// What iconv makes of `bytes`; nothing when it refuses.
std::optional<std::string> viaIconv(const char* to, const char* from, std::string bytes) {
  const iconv_t descriptor = iconv_open(to, from);
  EXPECT_NE(descriptor, invalidIconv) << to << " " << from;
  std::string result(bytes.size() * 6 + 16, '\0');
  char* in = bytes.data();
  char* out = result.data();
  size_t left = bytes.size();
  size_t room = result.size();
  const size_t status = iconv(descriptor, &in, &left, &out, &room);
  iconv_close(descriptor);
  if (status == static_cast<size_t>(-1)) {
    return std::nullopt;
  }
  result.resize(result.size() - room);
  return result;
}

// All code values that other implementations convert: no surrogates.
std::wstring allScalarValues() {
  std::wstring all;
  for (wchar_t c = 1; c < 0x110000; ++c) {
    if (c < 0xD800 || c > 0xDFFF) {
      all += c;
    }
  }
  return all;
}

std::string bytesOf(const std::wstring& wide) {
  return {reinterpret_cast<const char*>(wide.data()), wide.size() * sizeof(wchar_t)};
}

struct Decoded {
  unsigned taken;
  wchar_t value;
  bool operator==(const Decoded&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Decoded& d) {
  return out << d.taken << " byte(s), value " << static_cast<unsigned>(d.value);
}

Decoded decode(const char* s) {
  Decoded d = {0, 0};
  d.taken = U::utf8Encode(s, d.value);
  return d;
}

}  // namespace

TEST(UnicodeUtilities, TellsTheLengthOfASequenceByItsLeadByte) {
  const auto expect = [](unsigned first, unsigned last, unsigned length) {
    for (unsigned lead = first; lead <= last; ++lead) {
      EXPECT_EQ(U::mblen(static_cast<unsigned char>(lead)), length) << lead;
    }
  };
  expect(0x00, 0x7F, 1);
  expect(0x80, 0xBF, 0);
  expect(0xC0, 0xDF, 2);
  expect(0xE0, 0xEF, 3);
  expect(0xF0, 0xF7, 4);
  expect(0xF8, 0xFB, 5);
  expect(0xFC, 0xFD, 6);
  expect(0xFE, 0xFF, 0);
}

TEST(UnicodeUtilities, DecodesSequencesOfOneToSixBytes) {
  EXPECT_EQ(decode("A"), (Decoded{1, 'A'}));
  EXPECT_EQ(decode(""), (Decoded{1, 0}));
  EXPECT_EQ(decode("\x7F"), (Decoded{1, 0x7F}));
  EXPECT_EQ(decode("\xC2\x80"), (Decoded{2, 0x80}));
  EXPECT_EQ(decode("\xC3\xA9"), (Decoded{2, 0xE9}));
  EXPECT_EQ(decode("\xDF\xBF"), (Decoded{2, 0x7FF}));
  EXPECT_EQ(decode("\xE0\xA0\x80"), (Decoded{3, 0x800}));
  EXPECT_EQ(decode("\xE2\x82\xAC"), (Decoded{3, 0x20AC}));
  EXPECT_EQ(decode("\xEF\xBF\xBF"), (Decoded{3, 0xFFFF}));
  EXPECT_EQ(decode("\xF0\x9F\x98\x80"), (Decoded{4, 0x1F600}));
  EXPECT_EQ(decode("\xF7\xBF\xBF\xBF"), (Decoded{4, 0x1FFFFF}));
  EXPECT_EQ(decode("\xF8\x88\x80\x80\x80"), (Decoded{5, 0x200000}));
  EXPECT_EQ(decode("\xFB\xBF\xBF\xBF\xBF"), (Decoded{5, 0x3FFFFFF}));
  EXPECT_EQ(decode("\xFC\x84\x80\x80\x80\x80"), (Decoded{6, 0x4000000}));
  EXPECT_EQ(decode("\xFD\xBF\xBF\xBF\xBF\xBF"), (Decoded{6, 0x7FFFFFFF}));
}

TEST(UnicodeUtilities, DecodesOverlongFormsAndSurrogatesAsTheyStand) {
  EXPECT_EQ(decode("\xC0\x80"), (Decoded{2, 0}));
  EXPECT_EQ(decode("\xC1\x81"), (Decoded{2, 'A'}));
  EXPECT_EQ(decode("\xE0\x80\xAF"), (Decoded{3, '/'}));
  EXPECT_EQ(decode("\xED\xA0\x80"), (Decoded{3, 0xD800}));
  EXPECT_EQ(decode("\xED\xBF\xBF"), (Decoded{3, 0xDFFF}));
}

TEST(UnicodeUtilities, DecodesAByteThatOpensNothingAsItselfAndTakesNone) {
  EXPECT_EQ(decode("\x80\x80"), (Decoded{0, 0x80}));
  EXPECT_EQ(decode("\xBF"), (Decoded{0, 0xBF}));
  EXPECT_EQ(decode("\xFE\x80\x80\x80\x80\x80\x80"), (Decoded{0, 0xFE}));
  EXPECT_EQ(decode("\xFF"), (Decoded{0, 0xFF}));
}

TEST(UnicodeUtilities, DecodesABrokenSequenceAsThePayloadOfItsLeadByte) {
  EXPECT_EQ(decode("\xC3\x41"), (Decoded{1, 3}));
  EXPECT_EQ(decode("\xC3\xC3"), (Decoded{1, 3}));
  const struct {
    std::string sequence;
    wchar_t payload;
  } sequences[] = {{"\xDA\x80", 0x1A},
                   {"\xED\x80\x80", 0x0D},
                   {"\xF5\x80\x80\x80", 0x05},
                   {"\xFA\x80\x80\x80\x80", 0x02},
                   {"\xFD\x80\x80\x80\x80\x80", 0x01}};
  for (const auto& [sequence, payload] : sequences) {
    for (size_t i = 1; i < sequence.size(); ++i) {
      for (const char wrong : {'\0', 'A', '\x7F', '\xC0', '\xFF'}) {
        std::string broken = sequence;
        broken[i] = wrong;
        EXPECT_EQ(decode(broken.c_str()), (Decoded{1, payload})) << i << " in " << sequence;
      }
    }
  }
}

TEST(UnicodeUtilities, DecodesNoFurtherThanTheByteThatBreaksASequence) {
  const GuardedBytes bytes("\xFD\x80\x80\x80\x80\0"sv);
  EXPECT_EQ(decode(bytes.data()), (Decoded{1, 1}));
}

TEST(UnicodeUtilities, TakesASequenceThatRunsPastTheGivenLengthAsBroken) {
  for (unsigned n = 1; n < 6; ++n) {
    const std::string whole = "\xFD\xBF\xBF\xBF\xBF\xBF";
    wchar_t cp = 0;
    EXPECT_EQ(U::utf8Encode(whole.c_str(), n, cp), 1U);
    EXPECT_TRUE(cp == 1);
    const GuardedBytes cut(whole.substr(0, n));
    EXPECT_EQ(U::utf8Encode(cut.data(), n, cp), 1U);
    EXPECT_TRUE(cp == 1);
  }
  wchar_t cp = 0;
  EXPECT_EQ(U::utf8Encode("\xE2\x82\xAC", 3, cp), 3U);
  EXPECT_TRUE(cp == 0x20AC);
}

TEST(UnicodeUtilities, DecodesATextAndTerminatesIt) {
  wchar_t out[8];
  EXPECT_EQ(U::utf8toUnicode("a\xC3\xA9\xE2\x82\xAC", 6, out, 8), 4U);
  EXPECT_EQ(std::wstring(out, 4), L"a\u00e9\u20ac\0"s);
}

TEST(UnicodeUtilities, NeedsRoomForTheValuesAndTheTerminatorToDecodeAText) {
  wchar_t out[4] = {9, 9, 9, 9};
  EXPECT_EQ(U::utf8toUnicode("abc", 3, out, 3), 0U);
  EXPECT_EQ(U::utf8toUnicode("abc", 3, out, 4), 4U);
  EXPECT_EQ(std::wstring(out, 4), L"abc\0"s);
}

TEST(UnicodeUtilities, DecodesNothingIntoNoRoom) {
  wchar_t out[2] = {7, 7};
  EXPECT_EQ(U::utf8toUnicode("a", 1, nullptr, 8), 0U);
  EXPECT_EQ(U::utf8toUnicode("a", 1, out, 1), 0U);
  EXPECT_EQ(U::utf8toUnicode("", 0, out, 1), 0U);
  EXPECT_EQ(U::utf8toUnicode(nullptr, 0, out, 1), 0U);
  EXPECT_EQ(U::utf8toUnicode("", 0, out, 0), 0U);
  EXPECT_EQ(U::utf8toUnicode("a", 1, out, 0), 0U);
  EXPECT_EQ(out[0], 7);
  EXPECT_EQ(out[1], 7);
}

TEST(UnicodeUtilities, DecodesNoTextToTheTerminator) {
  wchar_t out[2] = {7, 7};
  EXPECT_EQ(U::utf8toUnicode(nullptr, 5, out, 2), 1U);
  EXPECT_EQ(out[0], 0);
  out[0] = 7;
  EXPECT_EQ(U::utf8toUnicode("abc", 0, out, 2), 1U);
  EXPECT_EQ(out[0], 0);
  EXPECT_EQ(out[1], 7);
}

TEST(UnicodeUtilities, FailsToDecodeATextWithAByteThatOpensNothing) {
  wchar_t out[64];
  for (const char* s : {"\x80", "abc\xBF", "\xFE", "a\xFF", "\xC3\xA9\xA9", "\xE2\x82\x41"}) {
    EXPECT_EQ(U::utf8toUnicode(s, length(s), out, 64), 0U) << s;
  }
  EXPECT_EQ(U::utf8toUnicode("0123456789abcdef0123456789\x80"
                             "0123456789abcdef",
                             43, out, 64),
            0U);
}

TEST(UnicodeUtilities, DecodesABrokenSequenceInATextAsOneValue) {
  wchar_t out[8];
  EXPECT_EQ(U::utf8toUnicode("\xC3\x41\xE9z", 4, out, 8), 5U);
  EXPECT_EQ(std::wstring(out, 5), L"\x3\x41\x9z\0"s);
  // The byte behind the text would complete the sequence, and must not.
  EXPECT_EQ(U::utf8toUnicode("\xC3\xA9", 1, out, 8), 2U);
  EXPECT_EQ(out[0], 3);
  EXPECT_EQ(out[1], 0);
}

TEST(UnicodeUtilities, DecodesEveryCodeValueAsIconvDoes) {
  const std::wstring all = allScalarValues();
  const std::optional<std::string> utf8 = viaIconv("UTF-8", "WCHAR_T", bytesOf(all));
  ASSERT_TRUE(utf8.has_value());
  std::wstring out(all.size() + 1, L'\0');
  const auto capacity = static_cast<unsigned>(out.size());
  EXPECT_EQ(U::utf8toUnicode(utf8->data(), length(*utf8), out.data(), capacity), capacity);
  out.pop_back();
  EXPECT_TRUE(out == all);
}

TEST(UnicodeUtilities, DecodesWhateverBytesByTheRulesAndStaysInItsBounds) {
  std::mt19937 random(20240229);
  for (int round = 0; round < 4000; ++round) {
    const std::string s = randomBytes(random, below(random, 100), round % 3 == 0);
    const GuardedBytes in(s);
    const auto expected = plainDecode(s);
    for (const unsigned spare : {0U, 1U, 30U}) {
      const auto count = static_cast<unsigned>(expected ? expected->size() : s.size());
      const GuardedBytes out((count + 1 + spare) * sizeof(wchar_t));
      auto* values = reinterpret_cast<wchar_t*>(out.data());
      const unsigned result = U::utf8toUnicode(in.data(), length(s), values, count + 1 + spare);
      if (!expected || count + spare == 0) {
        ASSERT_EQ(result, 0U);
        continue;
      }
      ASSERT_EQ(result, count + 1);
      ASSERT_TRUE(std::equal(expected->begin(), expected->end(), values,
                             [](uint32_t a, wchar_t b) { return a == static_cast<uint32_t>(b); }));
      ASSERT_EQ(values[count], 0);
    }
    if (expected && !expected->empty()) {
      const auto tooFew = static_cast<unsigned>(expected->size());
      const GuardedBytes out(tooFew * sizeof(wchar_t));
      ASSERT_EQ(
          U::utf8toUnicode(in.data(), length(s), reinterpret_cast<wchar_t*>(out.data()), tooFew),
          0U);
    }
  }
}

TEST(UnicodeUtilities, EncodesAValueInOneToSixBytes) {
  const struct {
    unsigned cp;
    std::string bytes;
  } rows[] = {
      {0x00, "\0"s},
      {0x7F, "\x7F"},
      {0x80, "\xC2\x80"},
      {0x7FF, "\xDF\xBF"},
      {0x800, "\xE0\xA0\x80"},
      {0x20AC, "\xE2\x82\xAC"},
      {0xD800, "\xED\xA0\x80"},
      {0xFFFF, "\xEF\xBF\xBF"},
      {0x10000, "\xF0\x90\x80\x80"},
      {0x10FFFF, "\xF4\x8F\xBF\xBF"},
      {0x110000, "\xF4\x90\x80\x80"},
      {0x1FFFFF, "\xF7\xBF\xBF\xBF"},
      {0x200000, "\xF8\x88\x80\x80\x80"},
      {0x3FFFFFF, "\xFB\xBF\xBF\xBF\xBF"},
      {0x4000000, "\xFC\x84\x80\x80\x80\x80"},
      {0x7FFFFFFF, "\xFD\xBF\xBF\xBF\xBF\xBF"},
      {0x80000000, "\xFE\x80\x80\x80\x80\x80"},
      {0xFFFFFFFF, "\xFF\xBF\xBF\xBF\xBF\xBF"},
  };
  for (const auto& [cp, bytes] : rows) {
    const unsigned size = length(bytes);
    for (unsigned room = 0; room <= 8; ++room) {
      std::string out(8, '#');
      EXPECT_EQ(U::unicodeToUTF8(cp, out.data(), room), room < size ? 0 : size) << cp;
      const std::string written = room < size ? "" : bytes;
      EXPECT_EQ(out, written + std::string(8 - written.size(), '#')) << cp << " room " << room;
    }
  }
}

TEST(UnicodeUtilities, EncodesATextAndTerminatesIt) {
  const wchar_t wide[] = {'a', 0xE9, 0x20AC};
  for (unsigned room = 0; room <= 9; ++room) {
    const GuardedBytes out(room);
    if (room < 7) {
      EXPECT_EQ(U::unicodeToUTF8(wide, 3, out.data(), room), 0U) << room;
    } else {
      EXPECT_EQ(U::unicodeToUTF8(wide, 3, out.data(), room), 7U) << room;
      EXPECT_EQ(std::string(out.data(), 7), "a\xC3\xA9\xE2\x82\xAC\0"s);
    }
  }
}

TEST(UnicodeUtilities, EncodesAnEmptyTextAsTheTerminator) {
  char out = '#';
  EXPECT_EQ(U::unicodeToUTF8(L"", 0U, &out, 0), 0U);
  EXPECT_EQ(out, '#');
  EXPECT_EQ(U::unicodeToUTF8(L"", 0U, &out, 1), 1U);
  EXPECT_EQ(out, '\0');
  out = '#';
  EXPECT_EQ(U::unicodeToUTF8(nullptr, 5U, &out, 1), 1U);
  EXPECT_EQ(out, '\0');
}

TEST(UnicodeUtilities, EncodesEveryCodeValueAsIconvDoes) {
  const std::wstring all = allScalarValues();
  const std::optional<std::string> expected = viaIconv("UTF-8", "WCHAR_T", bytesOf(all));
  ASSERT_TRUE(expected.has_value());
  const auto count = static_cast<unsigned>(all.size());
  EXPECT_EQ(U::utf8Length(all.data(), count), expected->size());
  std::string out(expected->size() + 1, '#');
  EXPECT_EQ(U::unicodeToUTF8(all.data(), count, out.data(), length(out)), out.size());
  EXPECT_EQ(out.back(), '\0');
  out.pop_back();
  EXPECT_TRUE(out == *expected);
}

TEST(UnicodeUtilities, EncodesRunsOfAsciiBetweenOtherValuesWithinItsBounds) {
  std::mt19937 random(7);
  for (int round = 0; round < 4000; ++round) {
    std::wstring wide;
    std::string expected;
    for (unsigned i = below(random, 80); i > 0; --i) {
      const auto cp =
          static_cast<uint32_t>(random()) >> (below(random, 4) == 0 ? below(random, 32) : 25);
      wide += static_cast<wchar_t>(cp);
      expected += plainEncode(cp);
    }
    const auto count = static_cast<unsigned>(wide.size());
    const GuardedBytes in(bytesOf(wide));
    const auto* values = reinterpret_cast<const wchar_t*>(in.data());
    ASSERT_EQ(U::utf8Length(values, count), expected.size());
    const GuardedBytes out(expected.size() + 1);
    ASSERT_EQ(U::unicodeToUTF8(values, count, out.data(), length(expected) + 1),
              length(expected) + 1);
    ASSERT_EQ(std::string(out.data(), expected.size() + 1), expected + '\0');
    const GuardedBytes tooSmall(expected.size());
    ASSERT_EQ(U::unicodeToUTF8(values, count, tooSmall.data(), length(expected)), 0U);
    const unsigned less = below(random, length(expected) + 1);
    const GuardedBytes muchTooSmall(less);
    ASSERT_EQ(U::unicodeToUTF8(values, count, muchTooSmall.data(), less), 0U);
  }
}

TEST(UnicodeUtilities, CountsCharacters) {
  EXPECT_EQ(U::charCount(nullptr, 4), 0U);
  EXPECT_EQ(U::charCount("abc", 0), 0U);
  EXPECT_EQ(U::charCount("abc", 3), 3U);
  EXPECT_EQ(U::charCount("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", 10), 4U);
  EXPECT_EQ(U::charCount("\xF8\x88\x80\x80\x80\xFC\x84\x80\x80\x80\x80z", 12), 3U);
  EXPECT_EQ(U::charCount("a\0b", 3), 3U);
}

TEST(UnicodeUtilities, CountsAByteThatOpensNothingAsOneCharacter) {
  EXPECT_EQ(U::charCount("\x80", 1), 1U);
  EXPECT_EQ(U::charCount("a\x80\xFF\xFE", 4), 4U);
  const std::string many(100000, '\xBF');
  EXPECT_EQ(U::charCount(many.data(), length(many)), many.size());
}

TEST(UnicodeUtilities, CountsACharacterThatIsCutAtTheEnd) {
  EXPECT_EQ(U::charCount("a\xE2\x82", 3), 2U);
  EXPECT_EQ(U::charCount("\xFD", 1), 1U);
}

TEST(UnicodeUtilities, FindsCharacters) {
  const char* const s = "a\xC3\xA9\xE2\x82\xAC!";
  EXPECT_EQ(U::findCharacter(s, 7, 0), s);
  EXPECT_EQ(U::findCharacter(s, 7, 1), s);
  EXPECT_EQ(U::findCharacter(s, 7, 2), s + 1);
  EXPECT_EQ(U::findCharacter(s, 7, 3), s + 3);
  EXPECT_EQ(U::findCharacter(s, 7, 4), s + 6);
  EXPECT_EQ(U::findCharacter(s, 7, 5), nullptr);
  EXPECT_EQ(U::findCharacter(s, 7, 8), nullptr);
  EXPECT_EQ(U::findCharacter(s, 7, 0xFFFFFFFF), nullptr);
}

TEST(UnicodeUtilities, FindsNoCharacterBehindTheEnd) {
  EXPECT_EQ(U::findCharacter("ab", 2, 3), nullptr);
  EXPECT_EQ(U::findCharacter("\xC3\xA9", 2, 2), nullptr);
  EXPECT_EQ(U::findCharacter("ab", 0, 1), nullptr);
  EXPECT_EQ(U::findCharacter("ab", 0, 0), nullptr);
  EXPECT_EQ(U::findCharacter(nullptr, 2, 1), nullptr);
}

TEST(UnicodeUtilities, WalksWhateverBytesByTheirLeadBytesAndStaysInItsBounds) {
  std::mt19937 random(99);
  for (int round = 0; round < 3000; ++round) {
    const std::string s = randomBytes(random, below(random, 90), round % 2 == 0);
    const GuardedBytes bytes(s);
    const std::vector<size_t> starts = plainStarts(s);
    ASSERT_EQ(U::charCount(bytes.data(), length(s)), starts.size()) << testing::PrintToString(s);
    for (unsigned k = 1; k <= starts.size(); ++k) {
      ASSERT_EQ(U::findCharacter(bytes.data(), length(s), k), bytes.data() + starts[k - 1])
          << k << " in " << testing::PrintToString(s);
    }
    ASSERT_EQ(U::findCharacter(bytes.data(), length(s), static_cast<unsigned>(starts.size()) + 1),
              nullptr);
  }
}

TEST(UnicodeUtilities, KnowsValidUtf8) {
  for (const std::string& s :
       {""s, "a"s, "\0"s, "\x7F"s, "\xC3\xA9"s, "\xE2\x82\xAC"s, "\xF0\x9F\x98\x80"s,
        "\xF8\x88\x80\x80\x80"s, "\xFC\x84\x80\x80\x80\x80"s, "\xC0\x80"s, "\xED\xA0\x80"s}) {
    EXPECT_TRUE(U::isValid(s.data(), length(s))) << testing::PrintToString(s);
  }
  for (const std::string& s :
       {"\x80"s, "\xBF"s, "\xFE"s, "\xFF"s, "\xC3"s, "\xC3\x41"s, "\xE2\x82"s, "\xE2\x82\x41"s,
        "\xF0\x9F\x98"s, "\xF8\x88\x80\x80"s, "\xFC\x84\x80\x80\x80"s, "\xC3\xA9\xA9"s,
        "\xFE\x80\x80\x80\x80\x80\x80"s}) {
    EXPECT_FALSE(U::isValid(s.data(), length(s))) << testing::PrintToString(s);
  }
}

TEST(UnicodeUtilities, JudgesValidityByTheShapeOfEachSequenceWhereverItStands) {
  const std::array<char, 8> bytes = {'a', '\x80', '\xBF', '\xC3', '\xE2', '\xF0', '\xF8', '\xFC'};
  for (unsigned pattern = 0; pattern < 8 * 8 * 8 * 8 * 8; ++pattern) {
    std::string s;
    for (unsigned rest = pattern, i = 0; i < 5; ++i, rest /= 8) {
      s += bytes[rest % 8];
    }
    for (const unsigned before : {0U, 12U, 14U}) {
      const std::string whole = std::string(before, 'x') + s + "\x80";
      ASSERT_EQ(U::isValid(whole.data(), length(whole)), plainIsValid(whole))
          << testing::PrintToString(whole);
    }
  }
}

TEST(UnicodeUtilities, JudgesWhateverBytesByTheRulesAndStaysInItsBounds) {
  std::mt19937 random(5);
  unsigned valid = 0;
  for (int round = 0; round < 20000; ++round) {
    const std::string s = randomBytes(random, below(random, 80), round % 2 == 0);
    const GuardedBytes bytes(s);
    const bool expected = plainIsValid(s);
    ASSERT_EQ(U::isValid(bytes.data(), length(s)), expected) << testing::PrintToString(s);
    valid += expected;
  }
  EXPECT_GE(valid, 10000U);
  EXPECT_LE(valid, 19000U);
}

TEST(UnicodeUtilities, MeasuresTheRunOfAsciiAtTheStart) {
  EXPECT_EQ(U::asciiLength("", 0), 0U);
  for (unsigned n = 0; n < 70; ++n) {
    std::string s(n, '\x7F');
    const GuardedBytes plain(s);
    EXPECT_EQ(U::asciiLength(plain.data(), n), n);
    for (unsigned i = 0; i < n; ++i) {
      s.assign(n, 'a');
      s[i] = '\x80';
      s[n - 1] = '\x80';
      const GuardedBytes bytes(s);
      EXPECT_EQ(U::asciiLength(bytes.data(), n), i);
    }
  }
}

// The classes beside libxml2's.

TEST(UnicodeUtilities, ClassifiesEveryCodeValueAsLibxml2Does) {
  for (unsigned c = 0; c <= 0x10FFFF; ++c) {
    const auto w = static_cast<wchar_t>(c);
    const bool isBaseChar = xmlIsBaseCharQ(c) != 0;
    const bool isIdeographic = xmlIsIdeographicQ(c) != 0;
    ASSERT_EQ(U::isBaseChar(w), isBaseChar) << std::hex << c;
    ASSERT_EQ(U::isIdeographic(w), isIdeographic) << std::hex << c;
    ASSERT_EQ(U::isLetter(w), isBaseChar || isIdeographic) << std::hex << c;
    ASSERT_EQ(U::isCombiningChar(w), xmlIsCombiningQ(c) != 0) << std::hex << c;
    ASSERT_EQ(U::isDigit(w), xmlIsDigitQ(c) != 0) << std::hex << c;
    ASSERT_EQ(U::isExtender(w), xmlIsExtenderQ(c) != 0) << std::hex << c;
  }
}

TEST(UnicodeUtilities, ClassifiesTheEdgesOfTheClasses) {
  EXPECT_TRUE(U::isLetter(0x3007));
  EXPECT_TRUE(U::isIdeographic(0x3007));
  EXPECT_FALSE(U::isBaseChar(0x3007));
  EXPECT_FALSE(U::isDigit(0x0BE6));
  EXPECT_TRUE(U::isDigit(0x0BE7));
  EXPECT_TRUE(U::isBaseChar(0xD7A3));
  EXPECT_FALSE(U::isBaseChar(0xD7A4));
  EXPECT_TRUE(U::isIdeographic(0x9FA5));
  EXPECT_FALSE(U::isIdeographic(0x9FA6));
  EXPECT_TRUE(U::isCombiningChar(0x309A));
  EXPECT_FALSE(U::isCombiningChar(0x309B));
  EXPECT_TRUE(U::isExtender(0xB7));
  EXPECT_TRUE(U::isExtender(0x30FE));
}

TEST(UnicodeUtilities, PutsValuesOutsideUnicodeIntoNoClass) {
  for (const int value : {-1, -0x7FFFFFFF - 1, 0x7FFFFFFF, 0x110000, 0x10041, 0x10030}) {
    const auto c = static_cast<wchar_t>(value);
    EXPECT_FALSE(U::isBaseChar(c)) << value;
    EXPECT_FALSE(U::isIdeographic(c)) << value;
    EXPECT_FALSE(U::isLetter(c)) << value;
    EXPECT_FALSE(U::isCombiningChar(c)) << value;
    EXPECT_FALSE(U::isDigit(c)) << value;
    EXPECT_FALSE(U::isExtender(c)) << value;
  }
}

// Code pages: the native one of these processes is ISO-8859-1.

CUL_CHILD(ConvertFromCodePages) {
  const char* const e9 = "caf\xE9";
  EXPECT_EQ(U::convertFromCP(e9, nullptr).view(), "caf\xC3\xA9");
  EXPECT_EQ(U::convertFromCP(e9, "").view(), "caf\xC3\xA9");
  EXPECT_EQ(U::convertFromCP(e9, "NO-SUCH-CODE-PAGE").view(), "caf\xC3\xA9");
  EXPECT_EQ(U::convertFromCP("", "ISO-8859-5").view(), "");
  EXPECT_EQ(U::convertFromCP(nullptr, "ISO-8859-5").view(), "");
  // 0xE9 is a Cyrillic letter there.
  EXPECT_EQ(U::convertFromCP(e9, "ISO-8859-5").view(), "caf\xD1\x89");
  EXPECT_EQ(U::convertFromCP("\x93\xFA\x96\x7B", "SHIFT_JIS").view(), "\u65e5\u672c");
  EXPECT_EQ(U::convertFromCP(std::string(5000, '\xE9').c_str(), "ISO-8859-1").view().size(),
            10000U);
  // Six bytes at most for each byte: this one stands for four characters of three each.
  EXPECT_EQ(U::convertFromCP("\x82", "TSCII").view(), "\u0bb8\u0bcd");
  EXPECT_EQ(U::convertFromCP("\x82zz", "TSCII").view(), "\u0bb8\u0bcd\u0bb0\u0bc0zz");
  // The one spelling copies, any other converts.
  EXPECT_EQ(U::convertFromCP(e9, "UTF-8").view(), e9);
  EXPECT_EQ(U::convertFromCP(e9, "utf-8").view(), "caf?");
  EXPECT_EQ(U::convertFromCP("caf\xC3\xA9", "utf-8").view(), "caf\xC3\xA9");
}

TEST(UnicodeUtilities, ConvertsFromCodePages) {
  ChildOptions options;
  options.environment = {{"QVX_DBG_CODEPAGE", "ISO-8859-1"}};
  const ChildResult r = runChild("ConvertFromCodePages", options);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}
