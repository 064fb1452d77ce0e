#include "programs/messagecompiler/MessageSource.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "tests/messages/SystemCatalog.h"

/// The reading of message sources.

namespace {

using testing::IsEmpty;

// Set, number and text.
struct Entry {
  int set;
  int number;
  std::string text;

  bool operator==(const Entry&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const Entry& entry) {
  return stream << entry.set << '.' << entry.number << " <" << entry.text << '>';
}

std::vector<Entry> entriesIn(const std::string& source) {
  std::vector<Entry> entries;
  try {
    for (const auto& [id, message] : parseMessages(source, "file")) {
      entries.push_back({id.set, id.number, message.text});
    }
  } catch (const MessageError& e) {
    ADD_FAILURE() << e.line << ": " << e.text;
  }
  return entries;
}

using Entries = std::vector<Entry>;

// "line: text"
std::string errorIn(const std::string& source) {
  try {
    static_cast<void>(parseMessages(source, "some file"));
  } catch (const MessageError& e) {
    EXPECT_EQ(e.file, "some file");
    return std::to_string(e.line) + ": " + e.text;
  }
  return "none";
}

std::string textOf(const std::string& source) {
  const Entries entries = entriesIn("1 " + source + "\n");
  EXPECT_EQ(entries.size(), 1U);
  return entries.empty() ? "" : entries[0].text;
}

// Neither sees a message that the other does not.
void expectSameAsSystem(const std::string& source) {
  SCOPED_TRACE(source);
  const SystemCatalog system(source);
  const Entries entries = entriesIn(source);
  for (const Entry& entry : entries) {
    EXPECT_EQ(system.find(entry.set, entry.number), entry.text) << entry;
  }
  for (int set = 1; set <= 20; ++set) {
    for (int number = 1; number <= 40; ++number) {
      const std::optional<std::string> text = system.find(set, number);
      if (text) {
        EXPECT_THAT(entries, testing::Contains(Entry{set, number, *text}));
      }
    }
  }
}

TEST(MessageSource, HasItsFirstMessagesInSetOne) {
  EXPECT_EQ(entriesIn("3 three\n1 one\n"), (Entries{{1, 1, "one"}, {1, 3, "three"}}));
}

TEST(MessageSource, HasTheMessagesBehindASetInThatSet) {
  EXPECT_EQ(entriesIn("$set 2\n1 a\n$set 7 comment\n1 b\n$set\t 2\tcomment\n9 c\n"),
            (Entries{{2, 1, "a"}, {2, 9, "c"}, {7, 1, "b"}}));
}

TEST(MessageSource, MayBeEmpty) {
  EXPECT_THAT(entriesIn(""), IsEmpty());
  EXPECT_THAT(entriesIn("\n\n  \n\t\n$ comment\n$\n$\tcomment\n$set 4\n"), IsEmpty());
}

TEST(MessageSource, NeedsNoEndOfItsLastLine) {
  EXPECT_EQ(entriesIn("1 one"), (Entries{{1, 1, "one"}}));
  EXPECT_EQ(entriesIn("1 "), (Entries{{1, 1, ""}}));
}

TEST(MessageSource, TakesAllBehindOneBlankOrTabForTheText) {
  EXPECT_EQ(textOf("text"), "text");
  EXPECT_EQ(textOf("  text \t"), "  text \t");
  EXPECT_EQ(textOf(""), "");
  EXPECT_EQ(entriesIn("1\ttext"), (Entries{{1, 1, "text"}}));
}

TEST(MessageSource, KnowsTheEscapesOfTheForm) {
  EXPECT_EQ(textOf(R"(\n\t\v\b\r\f\\)"), "\n\t\v\b\r\f\\");
  EXPECT_EQ(textOf(R"(\101\60\1018\7x\1)"), "A0A8\ax\x01");
  EXPECT_EQ(textOf(R"(\303\274)"), "\u00fc");
  EXPECT_EQ(textOf(R"(\a\x\"\8\ü)"), "ax\"8\u00fc");
}

TEST(MessageSource, ContinuesLinesBehindASingleBackslash) {
  EXPECT_EQ(textOf("a\\\nb\\\n\\\n  c"), "ab  c");
  EXPECT_EQ(entriesIn("1 a\\\\\n2 b\\\\\\\nc\n"), (Entries{{1, 1, "a\\"}, {1, 2, "b\\c"}}));
  EXPECT_EQ(entriesIn("1\\\n2 a\n$s\\\net 4\n1 b\n"), (Entries{{1, 12, "a"}, {4, 1, "b"}}));
  EXPECT_EQ(entriesIn("$ comment \\\n1 still\n2 b\n"), (Entries{{1, 2, "b"}}));
  EXPECT_EQ(entriesIn("1 a\\\n"), (Entries{{1, 1, "a"}}));
}

TEST(MessageSource, QuotesTextsWithTheGivenCharacter) {
  EXPECT_EQ(
      entriesIn("$quote \"\n1 \" a \"\n2 \"\"\n3 \"\\\"\" \t\n4 b\n5 b\"c\n6  \"d\"\n"),
      (Entries{
          {1, 1, " a "}, {1, 2, ""}, {1, 3, "\""}, {1, 4, "b"}, {1, 5, "b\"c"}, {1, 6, " \"d\""}}));
  EXPECT_EQ(entriesIn("$quote ' comment\n1 'a'\n$quote \u00fc\n2 \u00fca\\\u00fc\u00fc\n3 'c'\n"),
            (Entries{{1, 1, "a"}, {1, 2, "a\u00fc"}, {1, 3, "'c'"}}));
}

TEST(MessageSource, QuotesNoMoreAfterAnEmptyQuote) {
  EXPECT_EQ(entriesIn("$quote \"\n$quote\n1 \"a\n"), (Entries{{1, 1, "\"a"}}));
  EXPECT_EQ(entriesIn("$quote \"\n$quote  \n1 \"a\"\n"), (Entries{{1, 1, "\"a\""}}));
}

TEST(MessageSource, TakesAMessageAwayByItsNumberAlone) {
  EXPECT_EQ(entriesIn("1 a\n2 b\n1\n3\n$set 2\n2\n2 c\n"), (Entries{{1, 2, "b"}, {2, 2, "c"}}));
  EXPECT_EQ(entriesIn("1 a\n1\n1 b\n"), (Entries{{1, 1, "b"}}));
}

TEST(MessageSource, TakesASetAwayUpToTheDirective) {
  EXPECT_EQ(entriesIn("$set 2\n1 a\n2 b\n$set 3\n1 c\n$delset 2 comment\n2 d\n$delset 9\n"),
            (Entries{{3, 1, "c"}, {3, 2, "d"}}));
  EXPECT_EQ(entriesIn("1 a\n$delset 1\n2 b\n"), (Entries{{1, 2, "b"}}));
}

TEST(MessageSource, HasNumbersUpToTheGreatestInteger) {
  EXPECT_EQ(entriesIn("$set 2147483647\n2147483647 a\n007 b\n"),
            (Entries{{2147483647, 7, "b"}, {2147483647, 2147483647, "a"}}));
}

TEST(MessageSource, RemembersTheLinesOfMessages) {
  const Messages messages = parseMessages("\n1 a\\\nb\n2 c\n", "file");
  EXPECT_EQ(messages.at({1, 1}).line, 2U);
  EXPECT_EQ(messages.at({1, 2}).line, 4U);
}

TEST(MessageSource, IsReadAsTheSystemReadsIt) {
  expectSameAsSystem(contentsOf(CUL_TEST_CATALOGS "/en_US.msg"));
  expectSameAsSystem("1 a\n$set 2\n1 b\n$delset 9\n2 c\n$set 1\n2 d\n");
  expectSameAsSystem("$quote '\n1 'it\\'s'\n2 ''\n3 ' a '\n$quote\n4 'b'\n");
  expectSameAsSystem("1 \\1a\\12b\\123c\\0601\n2 \\q\\-\\8\n3\t\ttabs\t\n4  \n5 \\\\\\\n\\n\n");
  expectSameAsSystem("$ comment \\\n1 no message\n2 a\\\n\\\nb\n\n  \n$set 3 comment\n1 c");
  expectSameAsSystem("1 \u00e4\u00f6\u00fc \u4e16\u754c \U0001F41E\n");
}

TEST(MessageSource, TellsLinesThatAreNoneOfTheForm) {
  EXPECT_EQ(errorIn("1 a\ntext\n"), "2: neither a directive nor a message");
  EXPECT_EQ(errorIn(" 1 a\n"), "1: neither a directive nor a message");
  EXPECT_EQ(errorIn("-1 a\n"), "1: neither a directive nor a message");
  EXPECT_EQ(errorIn("\xEF\xBB\xBF"
                    "1 a\n"),
            "1: neither a directive nor a message");
  EXPECT_EQ(errorIn("\r\n"), "1: neither a directive nor a message");
  EXPECT_EQ(errorIn("1 a\\\nb\nx"), "3: neither a directive nor a message");
}

TEST(MessageSource, TellsDirectivesThatThereAreNot) {
  EXPECT_EQ(errorIn("$unset 1\n"), "1: there is no directive $unset");
  EXPECT_EQ(errorIn("\n\n$sets 1\n"), "3: there is no directive $sets");
  EXPECT_EQ(errorIn("$Set 1\n"), "1: there is no directive $Set");
}

TEST(MessageSource, TellsNumbersThatAreNone) {
  const std::string set = ": the set is no number from 1 to 2147483647";
  EXPECT_EQ(errorIn("$set\n"), "1" + set);
  for (const char* number :
       {"", "x", "0", "-1", "+1", "2147483648", "99999999999999999999", "1x", "1,", "\xff"}) {
    EXPECT_EQ(errorIn(std::string("\n$set ") + number + "\n"), "2" + set) << number;
    EXPECT_EQ(errorIn(std::string("$delset ") + number), "1" + set) << number;
  }
  const std::string message = ": the message is no number from 1 to 2147483647";
  for (const char* number : {"0", "2147483648", "99999999999999999999", "1x", "1.", "0x1"}) {
    EXPECT_EQ(errorIn(std::string("\n") + number + " text\n"), "2" + message) << number;
  }
}

TEST(MessageSource, TellsASecondTextOfAMessage) {
  EXPECT_EQ(errorIn("$set 4\n7 a\n8 b\n$set 4\n7 c\n"),
            "5: message 7 of set 4 has a text in line 2");
}

TEST(MessageSource, TellsWhatIsWrongAboutQuotations) {
  EXPECT_EQ(errorIn("$quote \"\n1 \"a\n"), "2: the quotation has no end");
  EXPECT_EQ(errorIn("$quote \"\n1 \"\n"), "2: the quotation has no end");
  EXPECT_EQ(errorIn("$quote \"\n1 \"a\\\"\n"), "2: the quotation has no end");
  EXPECT_EQ(errorIn("$quote \"\n1 \"a\" b\n"), "2: there is more behind the quotation");
  EXPECT_EQ(errorIn("$quote ab\n"), "1: the quotation mark is not a single character");
  EXPECT_EQ(errorIn("$quote \xc3\n"), "1: the quotation mark is not a single character");
  EXPECT_EQ(errorIn("$quote \\\\\n"), "1: the quotation mark is not a single character");
}

TEST(MessageSource, TellsABackslashThatNothingFollows) {
  EXPECT_EQ(errorIn("1 a\n2 b\\"), "2: nothing follows the backslash at the end");
  EXPECT_EQ(errorIn("\\"), "1: nothing follows the backslash at the end");
}

TEST(MessageSource, TellsOctalDigitsThatAreNoByte) {
  EXPECT_EQ(errorIn("1 \\400\n"), "1: the octal digits stand for no byte");
  EXPECT_EQ(errorIn("1 \\777\n"), "1: the octal digits stand for no byte");
}

TEST(MessageSource, TellsZeroBytes) {
  EXPECT_EQ(errorIn("1 \\0\n"), "1: the text has a zero byte");
  EXPECT_EQ(errorIn("1 \\0001\n"), "1: the text has a zero byte");
  EXPECT_EQ(errorIn(std::string("1 a\0b\n", 6)), "1: the text has a zero byte");
}

TEST(MessageSource, TellsTextsThatAreNotUtf8) {
  // A continuation alone, one too few, overlong forms, a surrogate, a value too great.
  for (const char* text :
       {"\x80", "\xc3", "\xe4\xb8", "\xf0\x9f\x90", "\xc0\xaf", "\xe0\x80\xaf", "\xf0\x80\x80\xaf",
        "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xff", "\\303", "\\303\\101", "a\xc3\\\n"}) {
    EXPECT_EQ(errorIn(std::string("\n1 ") + text + "\n"), "2: the text is not UTF-8") << text;
  }
  // The edges of what is.
  for (const char* text :
       {"\x7f", "\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80",
        "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"}) {
    EXPECT_EQ(textOf(text), text);
  }
}

TEST(MessageSource, MayHaveAnyBytesInComments) {
  EXPECT_EQ(entriesIn("$ \xff\x80\n$set 2 \xff\n1 a\n"), (Entries{{2, 1, "a"}}));
}

TEST(MessageSource, MayHaveTextsOfAnyLength) {
  const std::string text = std::string().append(1000000, 'x');
  EXPECT_EQ(textOf(text), text);
}

}  // namespace
