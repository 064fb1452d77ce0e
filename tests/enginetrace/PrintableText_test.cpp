#include "programs/enginetrace/PrintableText.h"

#include <cstddef>
#include <string>
#include <string_view>

#include <gmock/gmock.h>

namespace {

std::string shown(std::string_view text) {
  std::string result;
  appendPrintable(result, text);
  return result;
}

void expectAsItIs(std::string_view text) {
  EXPECT_EQ(shown(text), text);
  EXPECT_TRUE(isPrintable(text)) << text;
}

void expectShownAs(std::string_view text, std::string_view expected) {
  EXPECT_EQ(shown(text), expected);
  EXPECT_FALSE(isPrintable(text)) << expected;
}

TEST(PrintableText, IsAsItIsWhereATerminalShowsIt) {
  expectAsItIs("");
  expectAsItIs("a\tb\nc ~");
  expectAsItIs("Wörter, слова, 言葉, 🙂 and \u00A0");
  expectAsItIs("\xF4\x8F\xBF\xBD");  // U+10FFFD
}

TEST(PrintableText, HasEachByteInHexadecimalThatATerminalObeys) {
  expectShownAs("a\33[7mb", "a\\x1B[7mb");
  expectShownAs("\r\x7F\b", "\\x0D\\x7F\\x08");
  expectShownAs({"\0", 1}, "\\x00");
  expectShownAs("\xC2\x9B", "\\xC2\\x9B");         // a control character of Unicode
  expectShownAs("x\u202Ey", "x\\xE2\\x80\\xAEy");  // writes from right to left
  expectShownAs("\u2028\u2066\u061C\uFEFF",
                "\\xE2\\x80\\xA8\\xE2\\x81\\xA6\\xD8\\x9C\\xEF\\xBB\\xBF");
}

TEST(PrintableText, HasEachByteInHexadecimalThatIsNoUtf8) {
  expectShownAs("\xE9t\xE9", "\\xE9t\\xE9");
  expectShownAs("\x80", "\\x80");
  expectShownAs("\xC0\xAF", "\\xC0\\xAF");                    // longer than need be
  expectShownAs("\xE0\x9F\xBF", "\\xE0\\x9F\\xBF");           // the same
  expectShownAs("\xED\xA0\x80", "\\xED\\xA0\\x80");           // half of a pair
  expectShownAs("\xF4\x90\x80\x80", "\\xF4\\x90\\x80\\x80");  // above U+10FFFF
  expectShownAs("\xE2\x82", "\\xE2\\x82");                    // cut
  expectShownAs(
      "\xE2\x82"
      "a",
      "\\xE2\\x82"
      "a");
}

// Texts are looked at in blocks.
TEST(PrintableText, SeesTheOneByteWhereverItStands) {
  for (std::size_t length = 1; length < 70; ++length) {
    for (std::size_t at = 0; at < length; ++at) {
      for (const char byte : {'\0', '\x1F', '\x7F', '\x80', '\xFF'}) {
        std::string text(length, 'x');
        text[at] = byte;
        ASSERT_FALSE(isPrintable(text)) << length << ' ' << at;
        ASSERT_FALSE(isPlainLine(text)) << length << ' ' << at;
        ASSERT_EQ(shown(text).size(), length + 3);
      }
    }
  }
}

TEST(PrintableText, IsForEachSingleByteWhatTheAsciiTableSays) {
  for (int c = 0; c < 256; ++c) {
    const char byte = static_cast<char>(c);
    const bool isShown = (c >= ' ' && c <= '~') || c == '\t' || c == '\n';
    EXPECT_EQ(isPrintable({&byte, 1}), isShown) << c;
    EXPECT_EQ(isPrintable(std::string(32, byte)), isShown) << c;
    EXPECT_EQ(isPlainLine({&byte, 1}), isShown && c != '\n') << c;
    EXPECT_EQ(isPlainLine(std::string(32, byte)), isShown && c != '\n') << c;
  }
}

TEST(PrintableText, IsNoPlainLineWithACharacterThatIsNotAscii) {
  EXPECT_TRUE(isPlainLine("one\tline"));
  EXPECT_TRUE(isPlainLine(""));
  EXPECT_TRUE(isPrintable("caf\xC3\xA9"));
  EXPECT_FALSE(isPlainLine("caf\xC3\xA9"));
}

}  // namespace
