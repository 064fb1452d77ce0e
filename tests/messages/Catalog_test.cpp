#include "programs/messagecompiler/Catalog.h"

#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "programs/messagecompiler/Directives.h"

/// What is made of the message sources of several languages.

namespace {

using Arguments = std::map<unsigned, std::string>;

Translation translation(const std::string& locale, const std::string& source) {
  return {locale, locale + ".msg", parseMessages(source, locale + ".msg")};
}

// "file:line: text"
std::string errorIn(const std::string& base, const std::string& other) {
  try {
    static_cast<void>(Catalog({translation("en", base), translation("de", other)}));
  } catch (const MessageError& e) {
    return e.file + ":" + std::to_string(e.line) + ": " + e.text;
  }
  return "none";
}

TEST(Catalog, FindsMessagesInTheChosenLanguageAndElseInTheBase) {
  Catalog catalog({translation("en", "1 one\n2 two\n$set 5\n1 five\n"),
                   translation("de", "$set 5\n1 f\u00fcnf\n$set 1\n2 \n"), translation("fr", "")});
  EXPECT_STREQ(catalog.find(1, 1), "one");
  EXPECT_TRUE(catalog.setLanguage("de"));
  EXPECT_STREQ(catalog.find(1, 1), "one");
  EXPECT_STREQ(catalog.find(1, 2), "");
  EXPECT_STREQ(catalog.find(5, 1), "f\u00fcnf");
  EXPECT_TRUE(catalog.setLanguage("fr"));
  EXPECT_STREQ(catalog.find(5, 1), "five");
  EXPECT_TRUE(catalog.setLanguage("en"));
  EXPECT_STREQ(catalog.find(1, 2), "two");
}

TEST(Catalog, HasTheBaseForLanguagesThatItDoesNotHave) {
  Catalog catalog({translation("en", "1 one\n"), translation("de", "1 eins\n")});
  for (const char* locale : {"", "d", "de_DE", "DE", "fr"}) {
    EXPECT_TRUE(catalog.setLanguage("de"));
    EXPECT_FALSE(catalog.setLanguage(locale)) << locale;
    EXPECT_STREQ(catalog.find(1, 1), "one");
  }
}

TEST(Catalog, FindsNothingElse) {
  const Catalog catalog({translation("en", "$set 2\n2 a\n4 b\n")});
  for (const auto& [set, number] :
       {std::pair{2, 1}, {2, 3}, {2, 5}, {1, 2}, {3, 2}, {0, 0}, {-2, -2}, {2, -2}, {4, 4}}) {
    EXPECT_EQ(catalog.find(set, number), nullptr) << set << '.' << number;
  }
}

TEST(Catalog, RefusesABaseWithoutMessages) {
  EXPECT_EQ(errorIn("$ nothing\n", ""), "en.msg:1: there is no message");
}

TEST(Catalog, RefusesATranslationOfWhatTheBaseDoesNotHave) {
  EXPECT_EQ(errorIn("1 a\n", "1 b\n$set 2\n1 c\n"),
            "de.msg:3: there is no message 1 of set 2 in en.msg");
}

TEST(Catalog, RefusesATranslationThatTakesOtherArguments) {
  const std::string error = "de.msg:2: message 3 of set 1 takes other arguments than in en.msg:1";
  for (const auto& [base, other] :
       std::vector<std::pair<std::string, std::string>>{{"%s", "%d"},
                                                        {"%d", "%ld"},
                                                        {"%d", "%u"},
                                                        {"%s", ""},
                                                        {"", "%s"},
                                                        {"%s %d", "%d %s"},
                                                        {"%s %d", "%s"},
                                                        {"%s", "%2$s"},
                                                        {"%s %s", "%1$s"},
                                                        {"%s", "%n"},
                                                        {"%d", "%*d"},
                                                        {"%d", "%%d"},
                                                        {"%.*f", "%f"},
                                                        {"%s", "%1$s %d"},
                                                        {"%s", "%"},
                                                        {"a", "100%"}}) {
    EXPECT_EQ(errorIn("3 " + base + "\n", "\n3 " + other + "\n"), error) << base << ", " << other;
  }
}

TEST(Catalog, TakesATranslationThatTakesTheSameArgumentsInAnotherWay) {
  for (const auto& [base, other] :
       std::vector<std::pair<std::string, std::string>>{{"%s %d", "%2$d %1$s"},
                                                        {"%s %d", "%1$s %2$d %1$s"},
                                                        {"%5d", "%-7d"},
                                                        {"%.2f", "%f"},
                                                        {"%%", "none"},
                                                        {"%m", "none"},
                                                        {"%*d %s", "%3$s %2$*1$d"},
                                                        {"%1$s %2$lu", "%s %lu"},
                                                        {"100%", "100 %"},
                                                        {"%hhd", "%hhd"}}) {
    EXPECT_EQ(errorIn("3 " + base + "\n", "3 " + other + "\n"), "none") << base << ", " << other;
  }
}

TEST(Directives, AreFoundByTheirArguments) {
  EXPECT_EQ(directivesOf("no %% at all %m").arguments, Arguments{});
  EXPECT_EQ(directivesOf("%s%d").arguments, (Arguments{{1, "s"}, {2, "d"}}));
  EXPECT_EQ(directivesOf("%-+ #0'8.3lld").arguments, (Arguments{{1, "lld"}}));
  EXPECT_EQ(directivesOf("%*.*Lf").arguments, (Arguments{{1, "*"}, {2, "*"}, {3, "Lf"}}));
  EXPECT_EQ(directivesOf("%3$*1$.*2$zu").arguments, (Arguments{{1, "*"}, {2, "*"}, {3, "zu"}}));
  EXPECT_EQ(directivesOf("%12$p").arguments, (Arguments{{12, "p"}}));
  for (const char* good : {"%%", "%s", "%1$s %1$s", "%m", "%.s", "%.0f", "%hhn"}) {
    EXPECT_EQ(directivesOf(good).malformed, 0U) << good;
  }
}

TEST(Directives, AreMalformedWhenPrintfWouldNotKnowThem) {
  for (const char* bad :
       {"%", "100%", "%y", "%-", "%l", "%1$", "%1$%", "%0$s", "%.", "%5", "%1$s %s", "%s %1$s",
        "%1$s %1$d", "%1$*d", "%99999999999$s", "%Llf", "%hhhd", "%lqd"}) {
    EXPECT_GT(directivesOf(bad).malformed, 0U) << bad;
  }
  EXPECT_EQ(directivesOf("% %%y%").malformed, 2U);
}

}  // namespace
