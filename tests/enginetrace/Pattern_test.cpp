#include "programs/enginetrace/Pattern.h"

#include <chrono>
#include <fnmatch.h>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace {

using testing::HasSubstr;
using testing::IsEmpty;

TEST(Pattern, IsFoundAnywhereInAText) {
  EXPECT_TRUE(Pattern("b+").matches("abbc"));
  EXPECT_FALSE(Pattern("b+").matches("ac"));
  EXPECT_TRUE(Pattern("").matches(""));
  EXPECT_FALSE(Pattern("a.c").matches("a\nc"));
  EXPECT_FALSE(Pattern("ABC").matches("abc"));
  EXPECT_TRUE(Pattern("ABC", true).matches("abc"));
  EXPECT_TRUE(Pattern("ÄRGER", true).matches("viel ärger"));
}

TEST(Pattern, KnowsTheEndsOfEachLine) {
  EXPECT_TRUE(Pattern("^b$").matches("a\nb\nc"));
  EXPECT_FALSE(Pattern("^b$").matches("a\nbb\nc"));
}

TEST(Pattern, FindsAlsoInWhatIsNoText) {
  EXPECT_TRUE(
      Pattern("b").matches("\xFF\xFE"
                           "b\x80"));
  EXPECT_TRUE(Pattern("b").matches(std::string("\0b", 2)));
}

TEST(Pattern, TellsWhatIsWrongWithIt) {
  EXPECT_EQ(Pattern("(").error(), "missing ): (");
  EXPECT_THAT(Pattern("[b-a]").error(), HasSubstr("b-a"));
  EXPECT_THAT(Pattern("a**").error(), HasSubstr("**"));
  EXPECT_FALSE(Pattern("(").matches("("));
  EXPECT_THAT(Pattern("(a)").error(), IsEmpty());
}

TEST(Pattern, TakesNoTimeThatIsNotThatOfTheText) {
  const auto start = std::chrono::steady_clock::now();
  const std::string text(100'000, 'a');
  for (const char* evil :
       {"(a+)+$b", "(a|aa)+$b", "(a|a?)+b", "(.*)*(.*)*(.*)*b", "(a?){50}a{50}b"}) {
    EXPECT_FALSE(Pattern(evil).matches(text)) << evil;
  }
  EXPECT_FALSE(Pattern("((((a{100}){100}){100}){100}").error().empty());
  EXPECT_FALSE(Pattern(std::string(100'000, '(')).error().empty());
  EXPECT_FALSE(Pattern::glob(std::string(50, '*') + "b").matches(text));
  std::string stars;
  for (int i = 0; i < 50; ++i) {
    stars += "*a";
  }
  EXPECT_FALSE(Pattern::glob(stars + "b").matches(text));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
}

// The C library knows what a pattern of this kind matches.
TEST(Pattern, OfNamesIsThatOfFnmatch) {
  const std::vector<std::string> globs = {
      "",       "*",    "?",     "??",  "a",    "a*",   "*b",    "a*b",   "*a*b*",  "[ab]",
      "[a-c]*", "[!a]", "[^a]*", "[]]", "[!]]", "[",    "[a",    "a[",    "\\*",    "\\?b",
      "\\\\",   "a.b",  "(a)",   "a+b", "A::*", "A::?", "*::~*", "x[*]y", "[a-]",   "[\\]",
      "$",      "^",    "{a,b}", "|",   "?b",   "a\\b", "[.]",   "[^^]",  "[a\\]b]"};
  const std::vector<std::string> texts = {
      "",   "a",  "b",   "ab",    "aab", "abc", "]",    "[",    "[a",    "a[",  "*",
      "?b", "\\", "a.b", "axb",   "(a)", "a+b", "A::",  "A::f", "A::~A", "x*y", "xzy",
      "-",  "$",  "^",   "{a,b}", "|",   "c",   "a\nb", "\\*",  "."};
  for (const std::string& glob : globs) {
    const Pattern pattern = Pattern::glob(glob);
    for (const std::string& text : texts) {
      EXPECT_EQ(pattern.matches(text), fnmatch(glob.c_str(), text.c_str(), 0) == 0)
          << '"' << glob << "\" and \"" << text << "\": " << pattern.error();
    }
  }
}

TEST(Pattern, OfNamesHasCharactersNotBytes) {
  EXPECT_TRUE(Pattern::glob("?a").matches("éa"));
  EXPECT_TRUE(Pattern::glob("[é-ü]a").matches("éa"));
  EXPECT_TRUE(
      Pattern::glob("*a").matches("\xFF\xFE"
                                  "a"));
}

}  // namespace
