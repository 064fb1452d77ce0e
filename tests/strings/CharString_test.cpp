#include "Engine/utilities/CharString.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/StringPoolManager.h"

#include "tests/support/Child.h"
#include "tests/support/EnvironmentGuard.h"

namespace {

CharString wide(std::wstring_view text) {
  return {text.data(), static_cast<unsigned>(text.size())};
}

// Fails when the terminator is missing.
std::wstring text(const CharString& s) {
  const wchar_t* const p = s;
  EXPECT_EQ(p[s.length()], 0);
  return {p, s.length()};
}

const wchar_t* address(const CharString& s) { return s; }

// Texts of up to `longest` values out of `alphabet`, the same ones in every run.
std::vector<std::wstring> someTexts(std::wstring_view alphabet, unsigned longest,
                                    unsigned count = 3000) {
  std::mt19937 random(7);
  std::vector<std::wstring> result(count);
  for (std::wstring& text : result) {
    for (unsigned n = static_cast<unsigned>(random() % (longest + 1)); n > 0; --n) {
      text += alphabet[random() % alphabet.size()];
    }
  }
  return result;
}

}  // namespace

TEST(CharString, GivesAViewOfItsWholeText) {
  const CharString s(L"a\0\u20ac", 3U);
  EXPECT_EQ(s.view(), std::wstring_view(L"a\0\u20ac", 3));
  EXPECT_EQ(s.view().data(), static_cast<const wchar_t*>(s));
  EXPECT_TRUE(CharString().view().empty());
}

TEST(CharString, IsEmptyWhenMadeFromNothing) {
  EXPECT_EQ(text(CharString()), L"");
  EXPECT_EQ(text(CharString(static_cast<const wchar_t*>(nullptr))), L"");
  EXPECT_EQ(text(CharString(static_cast<const wchar_t*>(nullptr), 5U)), L"");
  EXPECT_EQ(text(CharString(L"")), L"");
}

TEST(CharString, CopiesATerminatedTextOrSoManyValues) {
  EXPECT_EQ(text(CharString(L"w\x20AC\x1F600")), L"w\x20AC\x1F600");
  EXPECT_EQ(text(CharString(L"abc", 2U)), L"ab");
  EXPECT_EQ(text(CharString(L"a\0b", 3U)), std::wstring(L"a\0b", 3));
}

TEST(CharString, TakesSlicesOfOtherBuffers) {
  const CharString s(L"abcdef");
  EXPECT_EQ(text(CharString(s, 3)), L"cdef");
  EXPECT_EQ(text(CharString(s, 7)), L"");
  EXPECT_EQ(text(CharString(s, 2, 3, L'.')), L"bcd");
  EXPECT_EQ(text(CharString(s, 5, 4, L'.')), L"ef..");
  EXPECT_EQ(text(CharString(s, 9, 2, L'.')), L"..");
}

TEST(CharString, RepeatsAValue) {
  EXPECT_EQ(text(CharString(L'x', 3)), L"xxx");
  EXPECT_EQ(text(CharString(L'x', 0)), L"");
  EXPECT_EQ(text(CharString(L'x', -1)), L"");
  EXPECT_EQ(text(CharString(L'x', INT_MIN)), L"");
}

TEST(CharString, IsAssignedFromATerminatedText) {
  CharString s(L"before");
  s = L"after";
  EXPECT_EQ(text(s), L"after");
  s = static_cast<const wchar_t*>(nullptr);
  EXPECT_EQ(text(s), L"");
}

TEST(CharString, IsAssignedFromAPartOfItself) {
  CharString s(L"abcdef");
  s = address(s) + 2;
  EXPECT_EQ(text(s), L"cdef");
  s = address(s);
  EXPECT_EQ(text(s), L"cdef");
}

TEST(CharString, MovingLeavesTheSourceEmpty) {
  CharString a(L"moved");
  CharString b(std::move(a));
  EXPECT_EQ(text(b), L"moved");
  EXPECT_EQ(text(a), L"");  // What is left is promised.
  a = std::move(b);
  EXPECT_EQ(text(a), L"moved");
  EXPECT_EQ(text(b), L"");
}

TEST(CharString, LoadsUTF8) {
  CharString s(L"before");
  s.loadFrom("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", 10, EncodedString::utf8);
  EXPECT_EQ(text(s), L"a\x00E9\x20AC\x1F600");
  s.loadFrom("abc", 2, EncodedString::utf8);
  EXPECT_EQ(text(s), L"ab");
}

TEST(CharString, LoadsZeroValuesFromUTF8) {
  CharString s;
  s.loadFrom("a\0b", 3, EncodedString::utf8);
  EXPECT_EQ(text(s), std::wstring(L"a\0b", 3));
}

TEST(CharString, LoadsNothingFromNullOrNoBytes) {
  for (const auto e : {EncodedString::native, EncodedString::slashU, EncodedString::utf8,
                       EncodedString::autodetect}) {
    CharString s(L"before");
    s.loadFrom(nullptr, 3, e);
    EXPECT_EQ(text(s), L"");
    s = L"before";
    s.loadFrom("abc", 0, e);
    EXPECT_EQ(text(s), L"");
  }
}

TEST(CharString, LoadsNothingFromUTF8ThatCannotBeWalked) {
  CharString s(L"before");
  s.loadFrom("ab\x80", 3, EncodedString::utf8);
  EXPECT_EQ(text(s), L"");
}

TEST(CharString, LoadsABrokenSequenceAsItsPayload) {
  CharString s;
  s.loadFrom(
      "\xC3"
      "A",
      2, EncodedString::utf8);
  EXPECT_EQ(text(s),
            L"\x03"
            L"A");
}

TEST(CharString, LoadsEscapes) {
  CharString s;
  s.loadFrom("x\\u00e9\\U0001f600", 17, EncodedString::slashU);
  EXPECT_EQ(text(s), L"x\x00E9\x1F600");
}

TEST(CharString, LoadsWithAutodetection) {
  CharString s;
  s.loadFrom("\xC3\xA9", 2, EncodedString::autodetect);
  EXPECT_EQ(text(s), L"\x00E9");
}

CUL_CHILD(CharStringLoadsNative) {
  CharString s;
  s.loadFrom("\xE9", 1, EncodedString::native);
  EXPECT_EQ(text(s), L"\x00E9");
  s.loadFrom("\xE9", 1, EncodedString::autodetect);
  EXPECT_EQ(text(s), L"\x00E9");
}

TEST(CharString, LoadsTheNativeCodePage) {
  ChildOptions options;
  options.environment["QVX_DBG_CODEPAGE"] = "ISO-8859-1";
  const ChildResult r = runChild("CharStringLoadsNative", options);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

TEST(CharString, EncodedGivesUTF8) {
  EXPECT_EQ(CharString(L"a\x00E9\x20AC\x1F600").encoded().view(),
            "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
  EXPECT_EQ(CharString().encoded().view(), "");
  EXPECT_EQ(CharString(L"a\0b", 3U).encoded().view(), std::string("a\0b", 3));
}

TEST(CharString, LoadingWhatEncodedGivesGivesTheTextBack) {
  for (const std::wstring& t : someTexts(L"a\x7F\x80\x7FF\x800\xFFFD\xFFFF\x10000\x10FFFF", 20)) {
    const EncodedString encoded = wide(t).encoded();
    CharString s;
    s.loadFrom(encoded, encoded.length(), EncodedString::utf8);
    EXPECT_EQ(text(s), t);
  }
}

TEST(CharString, GetEnvVarGivesTheValue) {
  const EnvironmentGuard set("CUL_TEST_VARIABLE", "a value");
  EXPECT_EQ(text(CharString::getEnvVar("CUL_TEST_VARIABLE")), L"a value");
  EXPECT_EQ(text(CharString::getEnvVar(L"CUL_TEST_VARIABLE")), L"a value");
  EXPECT_EQ(text(CharString::getEnvVar(CharString(L"CUL_TEST_VARIABLE"))), L"a value");
}

TEST(CharString, GetEnvVarOfAnUnsetVariableIsEmpty) {
  const EnvironmentGuard unset("CUL_TEST_VARIABLE", std::nullopt);
  EXPECT_EQ(text(CharString::getEnvVar("CUL_TEST_VARIABLE")), L"");
  EXPECT_EQ(text(CharString::getEnvVar(L"CUL_TEST_VARIABLE")), L"");
  EXPECT_EQ(text(CharString::getEnvVar(CharString())), L"");
  EXPECT_EQ(text(CharString::getEnvVar(static_cast<const char*>(nullptr))), L"");
}

CUL_CHILD(CharStringReadsNativeVariables) {
  EXPECT_EQ(text(CharString::getEnvVar("PLAIN")), L"\x00E9");
  EXPECT_EQ(text(CharString::getEnvVar(L"N\x00E9")), L"found");
}

TEST(CharString, GetEnvVarTakesNamesAndValuesInTheNativeCodePage) {
  ChildOptions options;
  options.environment["QVX_DBG_CODEPAGE"] = "ISO-8859-1";
  options.environment["PLAIN"] = "\xE9";
  options.environment["N\xE9"] = "found";
  const ChildResult r = runChild("CharStringReadsNativeVariables", options);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

TEST(CharString, LowerAndUpperChangeASCIILettersOnly) {
  const wchar_t extremes[] = {L'a', L'Z', L'1', 0x7F, 0xC9, 0xE9, 0x161, 0x141, -1, INT_MIN};
  CharString s(extremes, 10U);
  s.lower();
  EXPECT_EQ(s[1], L'a');
  EXPECT_EQ(s[2], L'z');
  for (int i = 3; i <= 10; ++i) {
    EXPECT_EQ(s[i], extremes[i - 1]) << i;
  }
  s.upper();
  EXPECT_EQ(s[1], L'A');
  EXPECT_EQ(s[2], L'Z');
  for (int i = 3; i <= 10; ++i) {
    EXPECT_EQ(s[i], extremes[i - 1]) << i;
  }
  CharString empty;
  empty.lower();
  empty.upper();
  EXPECT_EQ(text(empty), L"");
}

TEST(CharString, StripLeadingRemovesTheRunAtTheStart) {
  const auto result = [](std::wstring_view before, wchar_t c) {
    CharString s = wide(before);
    s.stripLeading(c);
    return text(s);
  };
  EXPECT_EQ(result(L"  a b ", L' '), L"a b ");
  EXPECT_EQ(result(L"a", L' '), L"a");
  EXPECT_EQ(result(L"   ", L' '), L"");
  EXPECT_EQ(result(L"", L' '), L"");
  EXPECT_EQ(result(L"\x20AC\x20ACx", L'\x20AC'), L"x");
}

TEST(CharString, StripTrailingRemovesTheRunAtTheEnd) {
  const auto result = [](std::wstring_view before, wchar_t c) {
    CharString s = wide(before);
    s.stripTrailing(c);
    return text(s);
  };
  EXPECT_EQ(result(L" a b  ", L' '), L" a b");
  EXPECT_EQ(result(L"a", L' '), L"a");
  EXPECT_EQ(result(L"   ", L' '), L"");
  EXPECT_EQ(result(L"", L' '), L"");
  EXPECT_EQ(result(L"x\x20AC\x20AC", L'\x20AC'), L"x");
}

TEST(CharString, StrippingKeepsTheBlock) {
  CharString s(L"  a b  ");
  const wchar_t* const block = s;
  s.stripLeading(L' ');
  EXPECT_EQ(address(s), block);
  s.stripTrailing(L' ');
  EXPECT_EQ(address(s), block);
  EXPECT_EQ(text(s), L"a b");
}

TEST(CharString, ChangeToNothingAtTheEndKeepsTheBlock) {
  CharString s(L"name.ext");
  const wchar_t* const block = s;
  s.change(CharString(L".ext"), CharString(), 1);
  EXPECT_EQ(address(s), block);
  EXPECT_EQ(text(s), L"name");
}

// Counts blocks, so it needs a pool that nobody else uses meanwhile.
CUL_CHILD(CharStringGivesShortenedBlocksBack) {
  StringPoolManager& pool = StringPoolManager::instance();
  const auto freeBlocks = [&pool] {
    std::vector<unsigned> result;
    for (const unsigned size : {8U, 16U, 24U, 32U, 48U, 64U}) {
      result.push_back(pool.freeBlocks(size));
    }
    return result;
  };
  { const CharString warmUp(L"x"); }
  {
    // A block of 64 bytes, given back as one of 16: (3 + 1) * 4.
    CharString s(L' ', 15);
    s[1] = s[2] = s[3] = L'x';
    const std::vector<unsigned> before = freeBlocks();
    s.stripTrailing(L' ');
    EXPECT_EQ(freeBlocks(), before);
    s.clear();
    std::vector<unsigned> after = before;
    ++after[1];
    EXPECT_EQ(freeBlocks(), after);
  }
  for (const auto strip : {&CharString::stripLeading, &CharString::stripTrailing}) {
    // What becomes empty is given back at once, as large as it was.
    CharString s(L' ', 15);
    const std::vector<unsigned> before = freeBlocks();
    (s.*strip)(L' ');
    std::vector<unsigned> after = before;
    ++after[5];
    EXPECT_EQ(freeBlocks(), after);
    s = CharString();
    EXPECT_EQ(freeBlocks(), after);
  }
  {
    CharString s(L"gone");
    const std::vector<unsigned> before = freeBlocks();
    s.change(CharString(s), CharString());
    std::vector<unsigned> after = before;
    ++after[2];
    EXPECT_EQ(text(s), L"");
    EXPECT_EQ(freeBlocks()[2], after[2]);
  }
}

TEST(CharString, ShortenedTextsGiveTheirBlocksBackOnce) {
  const ChildResult r = runChild("CharStringGivesShortenedBlocksBack");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

TEST(CharString, ShorteningLongTextsInPlaceIsSafe) {
  for (const int kept : {0, 1, 2, 15, 16, 17, 100}) {
    CharString s = CharString(L'x', kept) + CharString(L' ', 1000);
    s.stripTrailing(L' ');
    EXPECT_EQ(text(s), std::wstring(static_cast<size_t>(kept), L'x'));
    s += CharString(L"tail");
    EXPECT_EQ(text(s), std::wstring(static_cast<size_t>(kept), L'x') + L"tail");
  }
}

TEST(CharString, EqualityNeedsEqualLengthsAndValues) {
  EXPECT_TRUE(CharString(L"abc") == CharString(L"abc"));
  EXPECT_TRUE(CharString(L"abc") != CharString(L"abd"));
  EXPECT_TRUE(CharString(L"abc") != CharString(L"ab"));
  EXPECT_TRUE(CharString() == CharString(L""));
  EXPECT_TRUE(CharString(L"\x141") != CharString(L"A"));
}

TEST(CharString, IsComparedWithPlainTextByValue) {
  const CharString s(L"abc");
  EXPECT_TRUE(s == L"abc");
  EXPECT_TRUE(s != L"ab");
  EXPECT_TRUE(s != L"abd");
  EXPECT_TRUE(CharString() == L"");
  EXPECT_TRUE(CharString() == static_cast<const wchar_t*>(nullptr));
  EXPECT_TRUE(s != static_cast<const wchar_t*>(nullptr));
  EXPECT_TRUE(CharString(L"ab\0c", 4U) != L"ab");
}

TEST(CharString, StartsWithLooksAtOnePosition) {
  const CharString s(L"-qhost=x");
  EXPECT_TRUE(s.startsWith(CharString(L"-q"), 1));
  EXPECT_TRUE(s.startsWith(CharString(L"-q")));
  EXPECT_TRUE(s.startsWith(CharString(L"host"), 3));
  EXPECT_FALSE(s.startsWith(CharString(L"host"), 2));
  EXPECT_TRUE(s.startsWith(CharString(L"x"), 8));
  EXPECT_TRUE(s.startsWith(s, 1));
}

TEST(CharString, StartsWithIsFalseOutOfRange) {
  const CharString s(L"abc");
  EXPECT_FALSE(s.startsWith(CharString(), 1));
  EXPECT_FALSE(s.startsWith(CharString(L"a"), 0));
  EXPECT_FALSE(s.startsWith(CharString(L"c"), 4));
  EXPECT_FALSE(s.startsWith(CharString(L"c"), UINT_MAX));
  EXPECT_FALSE(s.startsWith(CharString(L"cd"), 3));
  EXPECT_FALSE(s.startsWith(CharString(L"abcd"), 1));
  EXPECT_FALSE(CharString().startsWith(CharString(), 1));
}

TEST(CharString, EndsWithLooksAtTheEnd) {
  const CharString s(L"name.so");
  EXPECT_TRUE(s.endsWith(CharString(L".so")));
  EXPECT_TRUE(s.endsWith(s));
  EXPECT_FALSE(s.endsWith(CharString(L".s")));
  EXPECT_FALSE(s.endsWith(CharString(L"xname.so")));
  EXPECT_FALSE(s.endsWith(CharString()));
  EXPECT_FALSE(CharString().endsWith(CharString()));
}

TEST(CharString, MatchLengthCountsLeadingAgreement) {
  const CharString a(L"ABC");
  EXPECT_EQ(a.matchLength(CharString(L"abd"), 0), 2U);
  EXPECT_EQ(a.matchLength(CharString(L"abd"), 1), 0U);
  EXPECT_EQ(a.matchLength(CharString(L"ABD"), 1), 2U);
  EXPECT_EQ(a.matchLength(CharString(L"ABCDE"), 1), 3U);
  EXPECT_EQ(CharString(L"ABCDE").matchLength(a, 1), 3U);
  EXPECT_EQ(a.matchLength(CharString(), 0), 0U);
  EXPECT_EQ(CharString().matchLength(a, 0), 0U);
}

TEST(CharString, MatchLengthIgnoresTheCaseOfASCIIOnly) {
  EXPECT_EQ(CharString(L"\x00C9").matchLength(CharString(L"\x00E9"), 0), 0U);
  EXPECT_EQ(CharString(L"\x0141").matchLength(CharString(L"A"), 0), 0U);
  EXPECT_EQ(CharString(L"A").matchLength(CharString(L"\x0141"), 0), 0U);
  EXPECT_EQ(CharString(L"\x00E9").matchLength(CharString(L"\x00E9"), 0), 1U);
  EXPECT_EQ(CharString(L"@").matchLength(CharString(L"`"), 0), 0U);
  EXPECT_EQ(CharString(L"[").matchLength(CharString(L"{"), 0), 0U);
}

TEST(CharString, ChangeReplacesTheFirstOccurrenceOnly) {
  const auto result = [](const wchar_t* before, const wchar_t* from, const wchar_t* to,
                         unsigned start) {
    CharString s(before);
    s.change(CharString(from), CharString(to), start);
    return text(s);
  };
  EXPECT_EQ(result(L"banana", L"a", L"XY", 1), L"bXYnana");
  EXPECT_EQ(result(L"banana", L"a", L"XY", 0), L"bXYnana");
  EXPECT_EQ(result(L"banana", L"a", L"XY", 3), L"banXYna");
  EXPECT_EQ(result(L"banana", L"a", L"XY", 6), L"bananXY");
  EXPECT_EQ(result(L"banana", L"a", L"XY", 7), L"banana");
  EXPECT_EQ(result(L"banana", L"x", L"XY", 1), L"banana");
  EXPECT_EQ(result(L"banana", L"ban", L"", 1), L"ana");
  EXPECT_EQ(result(L"banana", L"banana", L"", 1), L"");
  EXPECT_EQ(result(L"banana", L"banana", L"x", 1), L"x");
  EXPECT_EQ(result(L"banana", L"", L"x", 3), L"baxnana");
  EXPECT_EQ(result(L"banana", L"", L"x", 7), L"banana");
  EXPECT_EQ(result(L"", L"a", L"x", 1), L"");
  EXPECT_EQ(result(L"", L"a", L"x", 0), L"");
  EXPECT_EQ(result(L"", L"", L"x", 1), L"");
  EXPECT_EQ(result(L"", L"", L"x", 0), L"x") << "an empty text ends before position 1";
  EXPECT_EQ(result(L"banana", L"", L"x", 0), L"xbanana");
}

TEST(CharString, ChangeTakesItselfForEitherArgument) {
  CharString s(L"ab");
  s.change(CharString(L"b"), s);
  EXPECT_EQ(text(s), L"aab");
  s.change(s, CharString(L"x"));
  EXPECT_EQ(text(s), L"x");
  s.change(s, s);
  EXPECT_EQ(text(s), L"x");
}

TEST(CharString, ChangeAgreesWithAPlainReplacement) {
  for (const std::wstring& t : someTexts(L"ab", 8)) {
    const std::wstring from = t.substr(0, t.size() % 3 + 1);
    const std::wstring to(t.size() % 4, L'z');
    const unsigned start = static_cast<unsigned>(t.size() % 5) + 1;
    std::wstring expected = t;
    if (const size_t at = t.find(from, start - 1); start <= t.size() && at != std::wstring::npos) {
      expected.replace(at, from.size(), to);
    }
    CharString s = wide(t);
    s.change(wide(from), wide(to), start);
    EXPECT_EQ(text(s), expected);
  }
}

TEST(CharString, SkipCharsFindsTheFirstValueOutsideTheSet) {
  const CharString s(L"  \tab ");
  EXPECT_EQ(s.skipChars(1, L" \t"), 4U);
  EXPECT_EQ(s.skipChars(0, L" \t"), 4U);
  EXPECT_EQ(s.skipChars(4, L" \t"), 4U);
  EXPECT_EQ(s.skipChars(6, L" \t"), 7U);
  EXPECT_EQ(s.skipChars(7, L" \t"), 7U);
  EXPECT_EQ(s.skipChars(100, L" \t"), 7U);
  EXPECT_EQ(CharString().skipChars(1, L" "), 1U);
}

TEST(CharString, SkipCharsStaysWhenTheSetIsEmpty) {
  const CharString s(L"abc");
  for (const wchar_t* none : {L"", static_cast<const wchar_t*>(nullptr)}) {
    EXPECT_EQ(s.skipChars(2, none), 2U);
    EXPECT_EQ(s.skipChars(0, none), 1U);
    EXPECT_EQ(s.skipChars(9, none), 9U);
  }
}

TEST(CharString, SetsHoldAnyValueButZero) {
  const CharString s(L"\x20AC\x00FF\x1F600\0x", 5U);
  EXPECT_EQ(s.skipChars(1, L"\x1F600\x20AC\x00FF"), 4U);
  EXPECT_EQ(s.skipChars(1, L"\x1F600\x20AC"), 2U);
  EXPECT_EQ(s.skipChars(1, L"\x1F600"), 1U);
}

TEST(CharString, ConcatenatesAndAppends) {
  const CharString a(L"ab");
  EXPECT_EQ(text(a + CharString(L"c")), L"abc");
  EXPECT_EQ(text(a + CharString()), L"ab");
  EXPECT_EQ(text(CharString() + a), L"ab");
  CharString b = a;
  b += a;
  b += b;
  EXPECT_EQ(text(b), L"abababab");
}

TEST(CharString, ScanUnsignedReadsDigitsBehindBlanksAndTabs) {
  const CharString s(L"  42x");
  unsigned pos = 1;
  EXPECT_EQ(s.scanUnsigned(pos), 42U);
  EXPECT_EQ(pos, 5U);
  EXPECT_EQ(s.scanUnsigned(pos), 0U);
  EXPECT_EQ(pos, 5U);
  const CharString tabs(L"\t \t7");
  pos = 0;
  EXPECT_EQ(tabs.scanUnsigned(pos), 7U);
  EXPECT_EQ(pos, 5U);
}

TEST(CharString, ScanUnsignedWithoutADigitGivesZeroBehindTheBlanks) {
  const auto scan = [](std::wstring_view t, unsigned from) {
    unsigned pos = from;
    const unsigned value = wide(t).scanUnsigned(pos);
    return std::pair(value, pos);
  };
  EXPECT_EQ(scan(L"  x", 1), std::pair(0U, 3U));
  EXPECT_EQ(scan(L"   ", 1), std::pair(0U, 4U));
  EXPECT_EQ(scan(L"-5", 1), std::pair(0U, 1U));
  EXPECT_EQ(scan(L"\n5", 1), std::pair(0U, 1U));
  EXPECT_EQ(scan(L"", 1), std::pair(0U, 1U));
  EXPECT_EQ(scan(L"12", 3), std::pair(0U, 3U));
  EXPECT_EQ(scan(L"12", UINT_MAX), std::pair(0U, 3U));
  EXPECT_EQ(scan(L"\x0661", 1), std::pair(0U, 1U));
}

TEST(CharString, ScanUnsignedWrapsAround) {
  const auto scan = [](const wchar_t* t) {
    unsigned pos = 1;
    return CharString(t).scanUnsigned(pos);
  };
  EXPECT_EQ(scan(L"4294967295"), 4294967295U);
  EXPECT_EQ(scan(L"4294967296"), 0U);
  EXPECT_EQ(scan(L"4294967300"), 4U);
}

TEST(CharString, ScanHexReadsDigitsOfEitherCase) {
  const CharString s(L" \t1aFg");
  unsigned pos = 1;
  EXPECT_EQ(s.scanHex(pos), 0x1AFU);
  EXPECT_EQ(pos, 6U);
  EXPECT_EQ(s.scanHex(pos), 0U);
  EXPECT_EQ(pos, 6U);
  pos = 1;
  EXPECT_EQ(CharString(L"0123456789ABCDEFabcdef").scanHex(pos), 0xEFABCDEFU);
  EXPECT_EQ(pos, 23U);
  pos = 1;
  EXPECT_EQ(CharString(L"0x1").scanHex(pos), 0U);
  EXPECT_EQ(pos, 2U);
}

TEST(CharString, ScanStringStopsOnTheDelimiter) {
  const CharString s(L", ab,cd");
  unsigned pos = 1;
  EXPECT_EQ(text(s.scanString(pos, L", ")), L"ab");
  EXPECT_EQ(pos, 5U);
}

TEST(CharString, ScanStringLeavesThePositionOnTheLastValueOfTheLastRun) {
  const CharString s(L"ab,cd");
  unsigned pos = 3;
  EXPECT_EQ(text(s.scanString(pos, L",")), L"cd");
  EXPECT_EQ(pos, 5U);
  const CharString one(L"a");
  pos = 1;
  EXPECT_EQ(text(one.scanString(pos, L",")), L"a");
  EXPECT_EQ(pos, 1U);
}

TEST(CharString, ScanStringGivesTheLastValueAgainFromWhereTheLastRunLeftIt) {
  const CharString s(L"ab,cd");
  unsigned pos = 4;
  EXPECT_EQ(text(s.scanString(pos, L",")), L"cd");
  for (int again = 0; again < 3; ++again) {
    EXPECT_EQ(text(s.scanString(pos, L",")), L"d");
    EXPECT_EQ(pos, 5U);
  }
}

TEST(CharString, ScanStringWithNothingLeftStandsBehindTheEnd) {
  const auto scan = [](const wchar_t* t, unsigned from) {
    unsigned pos = from;
    EXPECT_EQ(text(CharString(t).scanString(pos, L",")), L"");
    return pos;
  };
  EXPECT_EQ(scan(L"ab,,", 3), 5U);
  EXPECT_EQ(scan(L"ab", 3), 3U);
  EXPECT_EQ(scan(L"ab", UINT_MAX), 3U);
  EXPECT_EQ(scan(L"", 1), 1U);
  EXPECT_EQ(scan(L"", 0), 1U);
}

TEST(CharString, ScanStringWithoutDelimitersTakesTheRest) {
  unsigned pos = 2;
  EXPECT_EQ(text(CharString(L"a b").scanString(pos, nullptr)), L" b");
  EXPECT_EQ(pos, 3U);
}

TEST(CharString, FirstTokenKeepsTheDelimiterBehindTheToken) {
  CharString s(L"::/a::b:");
  EXPECT_EQ(text(s.firstToken(L":")), L"/a");
  EXPECT_EQ(text(s), L"::b:");
  EXPECT_EQ(text(s.firstToken(L":")), L"b");
  EXPECT_EQ(text(s), L":");
  EXPECT_EQ(text(s.firstToken(L":")), L"");
  EXPECT_EQ(text(s), L"");
  EXPECT_EQ(text(s.firstToken(L":")), L"");
  EXPECT_EQ(text(s), L"");
}

TEST(CharString, FirstTokenWithoutADelimiterBehindItIsTheRest) {
  CharString s(L" rest");
  EXPECT_EQ(text(s.firstToken(L" ")), L"rest");
  EXPECT_EQ(text(s), L"");
  s = L"a b";
  EXPECT_EQ(text(s.firstToken(L"")), L"a b");
  EXPECT_EQ(text(s), L"");
}

TEST(CharString, FirstTokenTakesEveryTextApartLikeAPlainLoop) {
  for (const std::wstring& t : someTexts(L"ab,;", 10)) {
    const size_t start = std::min(t.find_first_not_of(L",;"), t.size());
    const size_t end = std::min(t.find_first_of(L",;", start), t.size());
    CharString s = wide(t);
    EXPECT_EQ(text(s.firstToken(L";,")), t.substr(start, end - start));
    EXPECT_EQ(text(s), t.substr(end));
  }
}

TEST(CharString, FirstQuotedTokenKeepsDelimitersBetweenQuotes) {
  CharString s(L"\"a b\" c");
  EXPECT_EQ(text(s.firstQuotedToken(L" ")), L"\"a b\"");
  EXPECT_EQ(text(s), L" c");
  s = L"  x\"a b\"y\"c d\" rest";
  EXPECT_EQ(text(s.firstQuotedToken(L" ")), L"x\"a b\"y\"c d\"");
  EXPECT_EQ(text(s), L" rest");
}

TEST(CharString, FirstQuotedTokenWithAnOpenQuoteIsTheRest) {
  CharString s(L"\"a b c");
  EXPECT_EQ(text(s.firstQuotedToken(L" ")), L"\"a b c");
  EXPECT_EQ(text(s), L"");
}

TEST(CharString, FirstQuotedTokenReadsBackslashPairs) {
  const auto result = [](const wchar_t* before) {
    CharString s(before);
    const std::wstring token = text(s.firstQuotedToken(L" "));
    return token + L"|" + text(s);
  };
  EXPECT_EQ(result(LR"(a\"b c)"), LR"(a"b| c)");
  EXPECT_EQ(result(LR"("a\" b" c)"), LR"("a" b"| c)");
  EXPECT_EQ(result(LR"("a\\" b)"), LR"("a\"| b)");
  EXPECT_EQ(result(LR"(a\nb c)"), LR"(a\nb| c)");
  EXPECT_EQ(result(LR"(a\ b)"), LR"(a\| b)");
  EXPECT_EQ(result(LR"(a\)"), LR"(a\|)");
  EXPECT_EQ(result(LR"(\\\")"), LR"(\"|)");
}

TEST(CharString, FirstQuotedTokenOfDelimitersOnlyLeavesNothing) {
  CharString s(L"   ");
  EXPECT_EQ(text(s.firstQuotedToken(L" ")), L"");
  EXPECT_EQ(text(s), L"");
  EXPECT_EQ(text(s.firstQuotedToken(L" ")), L"");
}

TEST(CharString, FirstQuotedTokenEqualsFirstTokenWithoutQuotesAndBackslashes) {
  for (const std::wstring& t : someTexts(L"ab ;", 10)) {
    CharString quoted = wide(t);
    CharString plain = wide(t);
    EXPECT_EQ(text(quoted.firstQuotedToken(L" ")), text(plain.firstToken(L" ")));
    EXPECT_EQ(text(quoted), text(plain));
  }
}

TEST(CharString, MakeQuotedTokenProtectsQuotesAndBackslashes) {
  EXPECT_EQ(text(CharString(L"a b").makeQuotedToken()), L"\"a b\"");
  EXPECT_EQ(text(CharString(LR"(a"b\c)").makeQuotedToken()), LR"("a\"b\\c")");
  EXPECT_EQ(text(CharString().makeQuotedToken()), L"\"\"");
}

TEST(CharString, AQuotedTokenIsReadBackWhateverItHolds) {
  for (const std::wstring& t : someTexts(std::wstring_view(L"ab \t\"\\'\x20AC\0", 9), 12)) {
    CharString line = wide(t).makeQuotedToken() + CharString(L" rest");
    EXPECT_EQ(text(line.firstQuotedToken(L" \t")), L"\"" + t + L"\"");
    EXPECT_EQ(text(line), L" rest");
  }
}

TEST(CharString, MakeTokenQuotesOnlyWhatNeedsIt) {
  EXPECT_EQ(text(CharString(L"abc").makeToken()), L"abc");
  EXPECT_EQ(text(CharString(L"a b").makeToken()), L"\"a b\"");
  EXPECT_EQ(text(CharString().makeToken()), L"");
  for (const wchar_t special : std::wstring_view(L" \"'\\*?<>|")) {
    const CharString s = CharString(L"x") + CharString(special, 1);
    EXPECT_EQ(text(s.makeToken()), text(s.makeQuotedToken())) << static_cast<int>(special);
  }
  EXPECT_EQ(text(CharString(L"a\tb&c;d$e").makeToken()), L"a\tb&c;d$e");
}

TEST(CharString, MakeTokenTakesAnySetOfSpecials) {
  EXPECT_EQ(text(CharString(L"a=b").makeToken(L"=")), L"\"a=b\"");
  EXPECT_EQ(text(CharString(L"a b").makeToken(L"=")), L"a b");
  EXPECT_EQ(text(CharString(L"a b").makeToken(L"")), L"a b");
  EXPECT_EQ(text(CharString(L"a b").makeToken(nullptr)), L"a b");
}

TEST(CharString, AsValueReadsWholeNumbersOnly) {
  int i = 0;
  EXPECT_TRUE(CharString(L"12").asValue(i));
  EXPECT_EQ(i, 12);
  EXPECT_TRUE(CharString(L" -7").asValue(i));
  EXPECT_EQ(i, -7);
  EXPECT_TRUE(CharString(L"+3").asValue(i));
  EXPECT_EQ(i, 3);
  i = 5;
  EXPECT_FALSE(CharString().asValue(i));
  EXPECT_FALSE(CharString(L"x").asValue(i));
  EXPECT_FALSE(CharString(L"-").asValue(i));
  EXPECT_EQ(i, 5);
  EXPECT_FALSE(CharString(L"12a").asValue(i));
  EXPECT_FALSE(CharString(L"12 ").asValue(i));
  EXPECT_FALSE(CharString(L"0x12").asValue(i));
  EXPECT_FALSE(CharString(L"12\x00E9").asValue(i));
}

TEST(CharString, AsValueReadsTheWholeRangeOfEachType) {
  int i = 0;
  unsigned u = 0;
  long l = 0;
  unsigned long ul = 0;
  EXPECT_TRUE(CharString(L"2147483647").asValue(i));
  EXPECT_EQ(i, INT_MAX);
  EXPECT_TRUE(CharString(L"-2147483648").asValue(i));
  EXPECT_EQ(i, INT_MIN);
  EXPECT_TRUE(CharString(L"4294967295").asValue(u));
  EXPECT_EQ(u, UINT_MAX);
  EXPECT_TRUE(CharString(L"9223372036854775807").asValue(l));
  EXPECT_EQ(l, LONG_MAX);
  EXPECT_TRUE(CharString(L"-9223372036854775808").asValue(l));
  EXPECT_EQ(l, LONG_MIN);
  EXPECT_TRUE(CharString(L"18446744073709551615").asValue(ul));
  EXPECT_EQ(ul, ULONG_MAX);
}

TEST(CharString, AsValueReadsUpToTheFirstValueOfZero) {
  int value = 99;
  EXPECT_TRUE(CharString(L"12\0a", 4U).asValue(value));
  EXPECT_EQ(value, 12);
  EXPECT_FALSE(CharString(L"34a\0", 4U).asValue(value));
  EXPECT_EQ(value, 34);
  EXPECT_FALSE(CharString(L"\0"
                          L"56",
                          3U)
                   .asValue(value));
  EXPECT_EQ(value, 34);
}

TEST(CharString, AsValueAgreesWithSscanf) {
  std::vector<std::wstring> texts = someTexts(L"0123456789 +-\tax", 6, 20000);
  // What is too great for a type is up to the C library, too.
  for (const std::wstring& t : someTexts(L"0123456789", 24, 2000)) {
    texts.push_back(t);
    texts.push_back(L"-" + t);
  }
  for (const std::wstring& t : texts) {
    const std::string narrow(t.begin(), t.end());
    char behind = 0;
    int i = 99;
    int expectedInt = 99;
    EXPECT_EQ(wide(t).asValue(i), std::sscanf(narrow.c_str(), "%d%c", &expectedInt, &behind) == 1);
    EXPECT_EQ(i, expectedInt) << narrow;
    unsigned u = 99;
    unsigned expectedUnsigned = 99;
    EXPECT_EQ(wide(t).asValue(u),
              std::sscanf(narrow.c_str(), "%u%c", &expectedUnsigned, &behind) == 1);
    EXPECT_EQ(u, expectedUnsigned) << narrow;
    long l = 99;
    long long expectedLong = 99;
    EXPECT_EQ(wide(t).asValue(l),
              std::sscanf(narrow.c_str(), "%lld%c", &expectedLong, &behind) == 1);
    EXPECT_EQ(l, expectedLong) << narrow;
    unsigned long ul = 99;
    unsigned long long expectedUnsignedLong = 99;
    EXPECT_EQ(wide(t).asValue(ul),
              std::sscanf(narrow.c_str(), "%llu%c", &expectedUnsignedLong, &behind) == 1);
    EXPECT_EQ(ul, expectedUnsignedLong) << narrow;
  }
}

TEST(CharString, MakeFromNumericWritesDecimals) {
  EXPECT_EQ(text(CharString::makeFromNumeric(0L)), L"0");
  EXPECT_EQ(text(CharString::makeFromNumeric(-42L)), L"-42");
  EXPECT_EQ(text(CharString::makeFromNumeric(LONG_MAX)), L"9223372036854775807");
  EXPECT_EQ(text(CharString::makeFromNumeric(LONG_MIN)), L"-9223372036854775808");
  EXPECT_EQ(text(CharString::makeFromNumeric(0UL)), L"0");
  EXPECT_EQ(text(CharString::makeFromNumeric(ULONG_MAX)), L"18446744073709551615");
}

TEST(CharString, D2xGivesACopyOfAnyText) {
  for (const wchar_t* t : {L"255", L"", L"ff", L" 12", L"-1", L"9999999999999", L"x y", L"%X"}) {
    EXPECT_EQ(text(CharString(t).d2x()), t);
  }
}

TEST(CharString, IsDestroyedThroughItsBase) {
  const std::unique_ptr<StringBuffer<wchar_t>> s = std::make_unique<CharString>(L"abc");
  EXPECT_EQ(s->length(), 3U);
}
