#include "Engine/utilities/EncodedString.h"

#include <cerrno>
#include <cfloat>
#include <climits>
#include <cstdio>
#include <map>
#include <new>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include <gtest/gtest.h>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/CharString.h"

#include "tests/support/Child.h"

namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;
using E = EncodedString;

constexpr auto anotherEncoding = static_cast<E::Encoding>(77);

E utf8(std::string_view s) { return {s.data(), static_cast<unsigned>(s.size()), E::utf8}; }

E slashU(std::string_view s) {
  E result = utf8(s);
  result.convertFromSlashU();
  return result;
}

template <class Change>
std::string after(std::string_view s, Change change) {
  E result = utf8(s);
  change(result);
  return std::string(result.view());
}

void expectSuccess(const char* child, std::map<std::string, std::string> environment) {
  ChildOptions options;
  options.environment = std::move(environment);
  const ChildResult r = runChild(child, options);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

}  // namespace

// Construction.

TEST(EncodedString, GivesAViewOfItsWholeText) {
  const E s("a\0\xC3\xA9", 4, E::utf8);
  EXPECT_EQ(s.view(), "a\0\xC3\xA9"sv);
  EXPECT_EQ(s.view().data(), static_cast<const char*>(s));
  EXPECT_EQ(E().view(), "");
}

TEST(EncodedString, IsEmptyAtFirst) {
  const E s;
  EXPECT_EQ(s.length(), 0U);
  EXPECT_STREQ(static_cast<const char*>(s), "");
}

TEST(EncodedString, NamesItsEncodingsByFixedNumbers) {
  EXPECT_EQ(static_cast<int>(E::native), 0);
  EXPECT_EQ(static_cast<int>(E::slashU), 1);
  EXPECT_EQ(static_cast<int>(E::utf8), 2);
  EXPECT_EQ(static_cast<int>(E::autodetect), 3);
}

TEST(EncodedString, TakesTerminatedAndCountedBytesOfEachKind) {
  const std::string bytes = "caf\xC3\xA9";
  const char* c = bytes.c_str();
  const auto* u = reinterpret_cast<const unsigned char*>(c);
  const auto* s = reinterpret_cast<const signed char*>(c);
  EXPECT_EQ(E(c, E::utf8).view(), bytes);
  EXPECT_EQ(E(u, E::utf8).view(), bytes);
  EXPECT_EQ(E(s, E::utf8).view(), bytes);
  EXPECT_EQ(E(c, 3, E::utf8).view(), "caf");
  EXPECT_EQ(E(u, 3, E::utf8).view(), "caf");
  EXPECT_EQ(E(s, 3, E::utf8).view(), "caf");
  EXPECT_EQ(E("a\0b", 3, E::utf8).view(), "a\0b"s);
  EXPECT_EQ(E("a\0b", E::utf8).view(), "a");
  EXPECT_EQ(static_cast<const char*>(E(c, 3, E::utf8))[3], '\0');
}

TEST(EncodedString, IsEmptyWhenMadeFromNothing) {
  for (const E::Encoding e : {E::native, E::slashU, E::utf8, E::autodetect, anotherEncoding}) {
    EXPECT_EQ(E(static_cast<const char*>(nullptr), e).length(), 0U);
    EXPECT_EQ(E(static_cast<const unsigned char*>(nullptr), e).length(), 0U);
    EXPECT_EQ(E(static_cast<const signed char*>(nullptr), e).length(), 0U);
    EXPECT_EQ(E(static_cast<const char*>(nullptr), 3, e).length(), 0U);
    EXPECT_EQ(E("", e).length(), 0U);
    EXPECT_EQ(E("abc", 0, e).length(), 0U);
    EXPECT_EQ(E(ByteString(), e).length(), 0U);
  }
  EXPECT_EQ(E(ByteString(), "ISO-8859-1").length(), 0U);
  EXPECT_EQ(E(static_cast<const wchar_t*>(nullptr)).length(), 0U);
  EXPECT_EQ(E(CharString()).length(), 0U);
}

TEST(EncodedString, CopiesItsText) {
  E s = utf8("some text");
  E copy(s);
  s[1] = 'S';
  EXPECT_EQ(copy.view(), "some text");
  copy = s;
  EXPECT_EQ(copy.view(), "Some text");
  EXPECT_NE(static_cast<const char*>(copy), static_cast<const char*>(s));
  const E& same = copy;
  copy = same;
  EXPECT_EQ(copy.view(), "Some text");
}

TEST(EncodedString, LeavesTheSourceOfAMoveEmpty) {
  E s = utf8("some text");
  const char* storage = s;
  E moved(std::move(s));
  EXPECT_EQ(static_cast<const char*>(moved), storage);
  EXPECT_EQ(moved.view(), "some text");
  EXPECT_EQ(s.length(), 0U);
  s = utf8("other");
  s = std::move(moved);
  EXPECT_EQ(static_cast<const char*>(s), storage);
  EXPECT_EQ(moved.length(), 0U);
  static_assert(std::is_nothrow_move_constructible_v<E>);
  static_assert(std::is_nothrow_move_assignable_v<E>);
}

TEST(EncodedString, TakesWideTextValueByValue) {
  EXPECT_EQ(E(L"a\u00e9\u20ac\U0001f600").view(), "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
  EXPECT_EQ(E(CharString(L"a\u00e9")).view(), "a\xC3\xA9");
  EXPECT_EQ(E(CharString(L"a\0z", 3)).view(), "a\0z"s);
  const wchar_t odd[] = {0xD800, 0x110000, 0x7FFFFFFF, 0};
  EXPECT_EQ(E(odd).view(), "\xED\xA0\x80\xF4\x90\x80\x80\xFD\xBF\xBF\xBF\xBF\xBF");
  E s = utf8("old");
  s = L"n\u00e9w";
  EXPECT_EQ(s.view(), "n\xC3\xA9w");
  s = CharString(L"\u00fc");
  EXPECT_EQ(s.view(), "\xC3\xBC");
  s = static_cast<const wchar_t*>(nullptr);
  EXPECT_EQ(s.view(), "");
}

TEST(EncodedString, AppendsWideText) {
  E s = utf8("a");
  s += CharString(L"\u00e9");
  EXPECT_EQ(s.view(), "a\xC3\xA9");
  s += L"\u20ac";
  EXPECT_EQ(s.view(), "a\xC3\xA9\xE2\x82\xAC");
  s += CharString();
  s += static_cast<const wchar_t*>(nullptr);
  EXPECT_EQ(s.view(), "a\xC3\xA9\xE2\x82\xAC");
}

TEST(EncodedString, RepeatsACharacter) {
  EXPECT_EQ(E(L'x', 3U).view(), "xxx");
  EXPECT_EQ(E(L'\u20ac', 2U).view(), "\xE2\x82\xAC\xE2\x82\xAC");
  EXPECT_EQ(E(L'x', 0U).view(), "");
  EXPECT_EQ(E(L'\0', 2U).view(), "\0\0"s);
  EXPECT_EQ(E(static_cast<wchar_t>(0x7FFFFFFF), 1U).view(), "\xFD\xBF\xBF\xBF\xBF\xBF");
}

TEST(EncodedString, RefusesATextTooLongForItsLength) {
  EXPECT_THROW(E(L'\u20ac', 0x60000000U), std::bad_alloc);
  EXPECT_THROW(E(L'\u20ac', 0xFFFFFFFFU), std::bad_alloc);
  EXPECT_THROW((void)utf8("abc").subString(2, 0xFFFFFFFF, L'\u20ac'), std::bad_alloc);
}

TEST(EncodedString, FormatsNumbers) {
  EXPECT_EQ(E::number(0).view(), "0");
  EXPECT_EQ(E::number(INT_MIN).view(), "-2147483648");
  EXPECT_EQ(E::number(INT_MAX).view(), "2147483647");
  EXPECT_EQ(E::number(UINT_MAX).view(), "4294967295");
  EXPECT_EQ(E::number(LONG_MIN).view(), "-9223372036854775808");
  EXPECT_EQ(E::number(LONG_MAX).view(), "9223372036854775807");
  EXPECT_EQ(E::number(ULONG_MAX).view(), "18446744073709551615");
  EXPECT_EQ(E::number(0.1F).view(), "0.1");
  EXPECT_EQ(E::number(1e20F).view(), "1e+20");
  EXPECT_EQ(E::number(1.0F / 3).view(), "0.333333");
  EXPECT_EQ(E::number(-FLT_MAX).view(), "-3.40282e+38");
  EXPECT_EQ(E::number(0.1).view(), "0.1");
  EXPECT_EQ(E::number(100000.0).view(), "100000");
  EXPECT_EQ(E::number(1234567.0).view(), "1.23457e+06");
  EXPECT_EQ(E::number(-DBL_MAX).view(), "-1.79769e+308");
  EXPECT_EQ(E::number(LDBL_MAX).view(), "1.18973e+4932");
  EXPECT_EQ(E::number(-0.0L).view(), "-0");
  EXPECT_EQ(E::number(__builtin_inf()).view(), "inf");
}

// Reading bytes; the native code page of these processes is ISO-8859-1.

CUL_CHILD(ReadEncodings) {
  EXPECT_STREQ(E::nativeCodepage(), "ISO-8859-1");
  const char* const latin1 = "caf\xE9\\u20ac";
  const char* const asUtf8 = "caf\xC3\xA9\\u20ac";
  EXPECT_EQ(E(latin1, E::native).view(), asUtf8);
  EXPECT_EQ(E(latin1, E::slashU).view(), "caf\xC3\xA9\xE2\x82\xAC");
  EXPECT_EQ(E(latin1, E::utf8).view(), latin1);
  EXPECT_EQ(E(latin1, E::autodetect).view(), asUtf8);
  EXPECT_EQ(E(latin1, anotherEncoding).view(), latin1);
  EXPECT_EQ(E(asUtf8, E::autodetect).view(), asUtf8);
  EXPECT_EQ(E(asUtf8, E::native).view(), "caf\xC3\x83\xC2\xA9\\u20ac");
  EXPECT_EQ(E("\xE9t\xE9", 2, E::native).view(), "\xC3\xA9t");
  // All forms apply their encoding.
  EXPECT_EQ(E(reinterpret_cast<const unsigned char*>(latin1), E::native).view(), asUtf8);
  EXPECT_EQ(E(reinterpret_cast<const signed char*>(latin1), E::native).view(), asUtf8);
  EXPECT_EQ(E(reinterpret_cast<const unsigned char*>(latin1), 4, E::native).view(), "caf\xC3\xA9");
  EXPECT_EQ(E(reinterpret_cast<const signed char*>(latin1), 4, E::native).view(), "caf\xC3\xA9");
  EXPECT_EQ(E(ByteString(latin1, 4), E::native).view(), "caf\xC3\xA9");
  EXPECT_EQ(E(ByteString(latin1, 4), E::utf8).view(), "caf\xE9");
  // Converted text ends at a zero byte, text taken as it is does not.
  EXPECT_EQ(E("a\0b", 3, E::native).view(), "a");
  EXPECT_EQ(E("a\0b", 3, E::slashU).view(), "a");
  EXPECT_EQ(E("a\0b", 3, E::autodetect).view(), "a\0b"s);
  EXPECT_EQ(E("a\0\xE9", 3, E::autodetect).view(), "a");
}

TEST(EncodedString, ReadsBytesByTheirEncoding) {
  expectSuccess("ReadEncodings", {{"QVX_DBG_CODEPAGE", "ISO-8859-1"}});
}

CUL_CHILD(WriteEncodings) {
  const E s = utf8("caf\xC3\xA9 \xE2\x82\xAC");
  EXPECT_EQ(s.convert(E::native).view(), "caf\xE9 ???");
  EXPECT_EQ(s.convert(E::native, "UTF-8").view(), "caf\xE9 ???");
  EXPECT_EQ(s.convertToNative().view(), "caf\xE9 ???");
  EXPECT_EQ(s.convertToNative("UTF-8").view(), "caf\xE9 ???");
  EXPECT_EQ(s.convert(E::slashU).view(), "caf\\u00e9 \\u20ac");
  for (const E::Encoding e : {E::utf8, E::autodetect, anotherEncoding}) {
    EXPECT_EQ(s.convert(e).view(), s.view());
    EXPECT_EQ(utf8("a\0b"sv).convert(e).view(), "a\0b"s);
  }
  EXPECT_EQ(utf8("a\0b"sv).convert(E::native).view(), "a");
  for (const E::Encoding e : {E::native, E::slashU, E::utf8, E::autodetect}) {
    EXPECT_EQ(E().convert(e).view(), "");
  }
}

TEST(EncodedString, WritesBytesInTheGivenEncoding) {
  expectSuccess("WriteEncodings", {{"QVX_DBG_CODEPAGE", "ISO-8859-1"}});
}

CUL_CHILD(ConvertInPlace) {
  EXPECT_EQ(after("caf\xE9", [](E& s) { s.convertToUTF8(); }), "caf\xC3\xA9");
  EXPECT_EQ(after("caf\xE9", [](E& s) { s.convertToUTF8(""); }), "caf\xC3\xA9");
  // With a name the other way round, deliberately.
  EXPECT_EQ(after("caf\xC3\xA9", [](E& s) { s.convertToUTF8("ISO-8859-1"); }), "caf\xE9");
  EXPECT_EQ(after("", [](E& s) { s.convertToUTF8(); }), "");
  const ByteString bytes("\u65e5", 3);
  EXPECT_EQ(E(bytes, "SHIFT_JIS").view(), "\x93\xFA");
  EXPECT_EQ(E(bytes, "NO-SUCH-CODE-PAGE").view(), "???");
  EXPECT_EQ(E(ByteString("\xE9", 1), static_cast<const char*>(nullptr)).view(), "\xC3\xA9");
}

TEST(EncodedString, ConvertsFromTheNativeCodePageButToANamedOne) {
  expectSuccess("ConvertInPlace", {{"QVX_DBG_CODEPAGE", "ISO-8859-1"}});
}

// Escapes.

TEST(EncodedString, ReplacesEscapesByTheirCharacters) {
  EXPECT_EQ(slashU("\\u00e9").view(), "\xC3\xA9");
  EXPECT_EQ(slashU("\\u00E9").view(), "\xC3\xA9");
  EXPECT_EQ(slashU("<\\u20aC|\\U0001f600>").view(), "<\xE2\x82\xAC|\xF0\x9F\x98\x80>");
  EXPECT_EQ(slashU("\\u0041\\u0042C\\u00444").view(), "ABCD4");
  EXPECT_EQ(slashU("\\u0000z").view(), "\0z"s);
  EXPECT_EQ(slashU("\\ud83d").view(), "\xED\xA0\xBD");
  EXPECT_EQ(slashU("\\U7fffffff").view(), "\xFD\xBF\xBF\xBF\xBF\xBF");
  EXPECT_EQ(slashU("\\Uffffffff").view(), "\xFF\xBF\xBF\xBF\xBF\xBF");
}

TEST(EncodedString, KeepsWhatIsNoEscape) {
  for (const char* s : {"", "\\", "abc\\", "\\n", "\\u", "\\U", "\\u00e", "\\U0001f60", "\\u00g9",
                        "\\ug0e9", "\\u00e\\", "\\U0001f60g", "\\u-123", "\\u 123", "\\u0x12",
                        "\\u+123", "u00e9", "\\x00e9", "\\\\"}) {
    EXPECT_EQ(slashU(s).view(), s);
  }
}

TEST(EncodedString, LooksForAnEscapeBehindEveryBackslash) {
  EXPECT_EQ(slashU("\\\\u00e9").view(), "\\\xC3\xA9");
  EXPECT_EQ(slashU("\\u\\u00e9").view(), "\\u\xC3\xA9");
  EXPECT_EQ(slashU("\\u00\\u00e9z\\").view(), "\\u00\xC3\xA9z\\");
  EXPECT_EQ(slashU("\\u005cu0041").view(), "\\u0041");
}

TEST(EncodedString, WritesEscapesForAllButAscii) {
  const auto escaped = [](std::string_view s) {
    return std::string(utf8(s).convert(E::slashU).view());
  };
  EXPECT_EQ(escaped("\xF0\x9F\x98\x80"), "\\U0001f600");
  EXPECT_EQ(escaped("a\\u\x7F\xC2\x80z"), "a\\u\x7F\\u0080z");
  EXPECT_EQ(escaped("\xEF\xBF\xBF\xF0\x90\x80\x80"), "\\uffff\\U00010000");
  EXPECT_EQ(escaped("\xFD\xBF\xBF\xBF\xBF\xBF"), "\\U7fffffff");
  EXPECT_EQ(escaped("a\0b"sv), "a\0b"s);
  EXPECT_EQ(escaped("a run of ASCII, longer than one block\xC3\xA9 and another one like it"),
            "a run of ASCII, longer than one block\\u00e9 and another one like it");
}

TEST(EncodedString, WritesEscapesForMalformedTextToo) {
  const auto escaped = [](std::string_view s) {
    return std::string(utf8(s).convert(E::slashU).view());
  };
  EXPECT_EQ(escaped("\x80\xFF"), "\\u0080\\u00ff");
  EXPECT_EQ(escaped("\xC3z"), "\\u0003z");
  EXPECT_EQ(escaped("\xE2\x82"), "\\u0002\\u0082");
}

TEST(EncodedString, ReadsBackTheEscapesItWrites) {
  std::wstring all;
  for (wchar_t c = 1; c <= 0x10FFFF; c += 7) {
    if (c != L'\\') {
      all += c;
    }
  }
  const E s(all.c_str());
  EXPECT_TRUE(slashU(s.convert(E::slashU).view()).view() == s.view());
}

// Inspection.

TEST(EncodedString, KnowsWhetherItIsValidUtf8) {
  EXPECT_TRUE(E().isValid());
  EXPECT_TRUE(utf8("caf\xC3\xA9").isValid());
  EXPECT_TRUE(utf8("\xC0\x80\xED\xA0\x80").isValid());
  EXPECT_FALSE(utf8("\x80").isValid());
  EXPECT_FALSE(utf8("caf\xC3").isValid());
  EXPECT_FALSE(utf8("\xFE").isValid());
  // A zero byte ends nothing.
  EXPECT_TRUE(utf8("a\0\xC3\xA9"sv).isValid());
  EXPECT_FALSE(utf8("a\0\x80"sv).isValid());
  EXPECT_FALSE(utf8("\xC3\0"sv).isValid());
}

TEST(EncodedString, KnowsWhetherItIsMoreThanAscii) {
  EXPECT_FALSE(E().isNLS());
  EXPECT_FALSE(utf8("abc\x7F\0"sv).isNLS());
  EXPECT_TRUE(utf8("\x80").isNLS());
  EXPECT_TRUE(utf8("a\0\x80"sv).isNLS());
  EXPECT_TRUE(utf8("a long text that ends in caf\xC3\xA9").isNLS());
}

TEST(EncodedString, CountsItsCharacters) {
  EXPECT_EQ(E().charCount(), 0U);
  EXPECT_EQ(utf8("a\xC3\xA9\xE2\x82\xAC").charCount(), 3U);
}

TEST(EncodedString, KnowsWhiteSpaceByTheAsciiTable) {
  for (unsigned c = 0; c <= UCHAR_MAX; ++c) {
    EXPECT_EQ(E::isWhiteSpace(static_cast<unsigned char>(c)),
              c == ' ' || c == '\t' || c == '\n' || c == '\r')
        << c;
  }
}

TEST(EncodedString, StripsWhiteSpace) {
  EXPECT_TRUE(utf8("a ").hasTrailingWhiteSpace());
  EXPECT_TRUE(utf8("\r").hasTrailingWhiteSpace());
  EXPECT_FALSE(utf8(" a").hasTrailingWhiteSpace());
  EXPECT_FALSE(utf8("a\v").hasTrailingWhiteSpace());
  EXPECT_FALSE(E().hasTrailingWhiteSpace());
  const char* const s = " \t\r\n a b \n\t";
  EXPECT_EQ(after(s, [](E& e) { e.stripLeadingWhiteSpace(); }), "a b \n\t");
  EXPECT_EQ(after(s, [](E& e) { e.stripTrailingWhiteSpace(); }), " \t\r\n a b");
  EXPECT_EQ(after(s, [](E& e) { e.stripWhiteSpace(); }), "a b");
  for (const char* same : {"", "a", "\va b\f", "\xC2\xA0"}) {
    EXPECT_EQ(after(same, [](E& e) { e.stripWhiteSpace(); }), same);
  }
  EXPECT_EQ(after(" \t ", [](E& e) { e.stripLeadingWhiteSpace(); }), "");
  EXPECT_EQ(after(" \t ", [](E& e) { e.stripTrailingWhiteSpace(); }), "");
  EXPECT_EQ(after(" \t ", [](E& e) { e.stripWhiteSpace(); }), "");
}

TEST(EncodedString, StripsTheHexPrefixOfAHexNumberOnly) {
  const auto stripped = [](std::string_view s) {
    return after(s, [](E& e) { e.stripHexPrefix(); });
  };
  EXPECT_EQ(stripped("0x1F"), "1F");
  EXPECT_EQ(stripped("0XabCD09"), "abCD09");
  EXPECT_EQ(stripped("0x0"), "0");
  EXPECT_EQ(stripped("0x0x1"), "0x0x1");
  for (const char* same : {"", "0", "0x", "0X", "0x1G", "1x12", "00x1", "x12", "0x12 ", "12"}) {
    EXPECT_EQ(stripped(same), same);
  }
}

TEST(EncodedString, ComparesBytes) {
  EXPECT_TRUE(utf8("caf\xC3\xA9") == utf8("caf\xC3\xA9"));
  EXPECT_FALSE(utf8("abc") == utf8("abd"));
  EXPECT_FALSE(utf8("abc") == utf8("ab"));
  EXPECT_TRUE(utf8("abc") != utf8("ABC"));
  EXPECT_FALSE(utf8("a\0b"sv) != utf8("a\0b"sv));
  EXPECT_TRUE(E() == utf8(""));
}

TEST(EncodedString, Concatenates) {
  const E a = utf8("ab");
  const E b = utf8("cde");
  EXPECT_EQ((a + b).view(), "abcde");
  EXPECT_EQ((a + E()).view(), "ab");
  EXPECT_EQ((E() + b).view(), "cde");
  EXPECT_EQ((E() + E()).view(), "");
  E s = a;
  s += b;
  s += E();
  EXPECT_EQ(s.view(), "abcde");
  s += s;
  EXPECT_EQ(s.view(), "abcdeabcde");
  E empty;
  empty += a;
  EXPECT_EQ(empty.view(), "ab");
}

TEST(compareCaseInsensitive, IgnoresTheCaseOfAsciiLettersOnly) {
  EXPECT_TRUE(compareCaseInsensitive("AbC1", utf8("aBc1")));
  EXPECT_TRUE(compareCaseInsensitive("", E()));
  EXPECT_TRUE(compareCaseInsensitive(nullptr, E()));
  EXPECT_FALSE(compareCaseInsensitive(nullptr, utf8("a")));
  EXPECT_FALSE(compareCaseInsensitive("ab", utf8("abc")));
  EXPECT_FALSE(compareCaseInsensitive("abc", utf8("ab")));
  EXPECT_FALSE(compareCaseInsensitive("ab", utf8("ab\0"sv)));
  EXPECT_FALSE(compareCaseInsensitive("a", utf8("\0"sv)));
  EXPECT_TRUE(compareCaseInsensitive("\xC3\xA9", utf8("\xC3\xA9")));
  EXPECT_FALSE(compareCaseInsensitive("\xC3\x89", utf8("\xC3\xA9")));
  EXPECT_FALSE(compareCaseInsensitive("[", utf8("{")));
  EXPECT_FALSE(compareCaseInsensitive("@", utf8("`")));
}

// Substrings.

TEST(EncodedString, CutsAtACharacter) {
  const E s = utf8("a\xC3\xA9\xE2\x82\xAC!");
  EXPECT_EQ(s.subString(0).view(), s.view());
  EXPECT_EQ(s.subString(1).view(), s.view());
  EXPECT_EQ(s.subString(2).view(), "\xC3\xA9\xE2\x82\xAC!");
  EXPECT_EQ(s.subString(4).view(), "!");
  EXPECT_EQ(s.subString(5).view(), "");
  EXPECT_EQ(s.subString(0xFFFFFFFF).view(), "");
  EXPECT_EQ(E().subString(1).view(), "");
}

TEST(EncodedString, CutsACountOfCharactersAndPadsWhatIsMissing) {
  const E s = utf8("a\xC3\xA9\xE2\x82\xAC");
  EXPECT_EQ(s.subString(2, 5, L'*').view(), "\xC3\xA9\xE2\x82\xAC***");
  EXPECT_EQ(s.subString(2, 1, L'*').view(), "\xC3\xA9");
  EXPECT_EQ(s.subString(2, 2, L'*').view(), "\xC3\xA9\xE2\x82\xAC");
  EXPECT_EQ(s.subString(2, 3, L'*').view(), "\xC3\xA9\xE2\x82\xAC*");
  EXPECT_EQ(s.subString(0, 2, L'*').view(), "a\xC3\xA9");
  EXPECT_EQ(s.subString(1, 3, L'*').view(), s.view());
  EXPECT_EQ(s.subString(1, 4, L'\u00fc').view(), std::string(s.view()) + "\xC3\xBC");
  EXPECT_EQ(s.subString(1, 6, L'\0').view(), std::string(s.view()) + "\0\0\0"s);
  EXPECT_EQ(s.subString(1, 0, L'*').view(), "");
  EXPECT_EQ(s.subString(4, 2, L'*').view(), "**");
  EXPECT_EQ(s.subString(4, 0, L'*').view(), "");
  EXPECT_EQ(s.subString(0xFFFFFFFF, 2, L'\u20ac').view(), "\xE2\x82\xAC\xE2\x82\xAC");
  EXPECT_EQ(E().subString(1, 3, L' ').view(), "   ");
  EXPECT_EQ(utf8("abcdefgh").subString(3, 4, L'*').view(), "cdef");
}

TEST(EncodedString, CutsBeforeAndBehindAByte) {
  const E s = utf8("ab=cd=ef");
  EXPECT_EQ(s.allBefore('=').view(), "ab");
  EXPECT_EQ(s.allAfter('=').view(), "cd=ef");
  EXPECT_EQ(s.allBefore('#').view(), "ab=cd=ef");
  EXPECT_EQ(s.allAfter('#').view(), "");
  EXPECT_EQ(utf8("=a").allBefore('=').view(), "");
  EXPECT_EQ(utf8("a=").allAfter('=').view(), "");
  EXPECT_EQ(E().allBefore('=').view(), "");
  EXPECT_EQ(E().allAfter('=').view(), "");
  EXPECT_EQ(utf8("a\xC3\xA9z").allBefore(0xC3).view(), "a");
  EXPECT_EQ(utf8("a\xC3\xA9z").allAfter(0xC3).view(), "\xA9z");
}

TEST(EncodedString, SplitsAtAByte) {
  E s = utf8("ab=cd=ef");
  EXPECT_EQ(s.splitAt('=').view(), "ab");
  EXPECT_EQ(s.view(), "cd=ef");
  EXPECT_EQ(s.splitAt('=').view(), "cd");
  EXPECT_EQ(s.splitAt('=').view(), "ef");
  EXPECT_EQ(s.view(), "");
  EXPECT_EQ(s.splitAt('=').view(), "");
  s = utf8("ab=");
  EXPECT_EQ(s.splitAt('=').view(), "ab");
  EXPECT_EQ(s.view(), "");
  s = utf8("=ab");
  EXPECT_EQ(s.splitAt('=').view(), "");
  EXPECT_EQ(s.view(), "ab");
  s = utf8("a\xFFz");
  EXPECT_EQ(s.splitAt(0xFF).view(), "a");
  EXPECT_EQ(s.view(), "z");
}

TEST(EncodedString, TakesTokensOffItsFront) {
  E s = utf8(",, ab ,cd; ef  ");
  EXPECT_EQ(s.firstToken(", ").view(), "ab");
  EXPECT_EQ(s.view(), "cd; ef  ");
  EXPECT_EQ(s.firstToken(", ").view(), "cd;");
  EXPECT_EQ(s.view(), "ef  ");
  EXPECT_EQ(s.firstToken(", ").view(), "ef");
  EXPECT_EQ(s.view(), "");
  EXPECT_EQ(s.firstToken(", ").view(), "");
}

TEST(EncodedString, TakesTheRestWhenNoDelimiterFollows) {
  E s = utf8("  rest");
  EXPECT_EQ(s.firstToken(" ").view(), "rest");
  EXPECT_EQ(s.view(), "");
  s = utf8("a b");
  EXPECT_EQ(s.firstToken("").view(), "a b");
  EXPECT_EQ(s.view(), "");
  s = utf8("a b");
  EXPECT_EQ(s.firstToken(nullptr).view(), "a b");
  EXPECT_EQ(s.view(), "");
  s = utf8(" ,, ");
  EXPECT_EQ(s.firstToken(" ,").view(), "");
  EXPECT_EQ(s.view(), "");
}

TEST(EncodedString, TakesHighBytesAsDelimiters) {
  E s = utf8("\xFFone\x80\xFFtwo\0three"sv);
  EXPECT_EQ(s.firstToken("\xFF\x80").view(), "one");
  EXPECT_EQ(s.firstToken("\xFF\x80").view(), "two\0three"s);
}
