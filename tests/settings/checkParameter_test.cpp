#include "Engine/utilities/checkParameter.h"

#include <gtest/gtest.h>

#include "tests/settings/ParameterSupport.h"

namespace {

struct Outcome {
  bool matched;
  std::string arg;
  bool operator==(const Outcome&) const = default;
};

void PrintTo(const Outcome& o, std::ostream* out) {
  *out << o.matched << " with \"" << o.arg << '"';
}

// Both variants, which must agree.
Outcome check(std::string_view arg, const wchar_t* name, unsigned minimum, int caseMode,
              const wchar_t* separators) {
  CharString first = wide(arg);
  CharString second = wide(arg);
  Outcome result{checkParameter(first, CharString(name), minimum, caseMode, separators),
                 plain(first)};
  const Outcome other{checkParameter(second, name, minimum, caseMode, separators), plain(second)};
  EXPECT_EQ(result, other);
  return result;
}

}  // namespace

TEST(CheckParameter, TakesTheWholeNameAndEveryAbbreviationDownToTheMinimum) {
  EXPECT_EQ(check("-verbose", L"-verbose", 3, 1, nullptr), (Outcome{true, "-verbose"}));
  EXPECT_EQ(check("-verb", L"-verbose", 3, 1, nullptr), (Outcome{true, "-verb"}));
  EXPECT_EQ(check("-ve", L"-verbose", 3, 1, nullptr), (Outcome{true, "-ve"}));
  EXPECT_EQ(check("-v", L"-verbose", 3, 1, nullptr), (Outcome{false, "-v"}));
  EXPECT_EQ(check("", L"-verbose", 3, 1, nullptr), (Outcome{false, ""}));
}

TEST(CheckParameter, TakesTheEmptyTextOnlyWithAMinimumOfZero) {
  EXPECT_EQ(check("", L"-verbose", 0, 1, nullptr), (Outcome{true, ""}));
  EXPECT_EQ(check("", L"-verbose", 1, 1, nullptr), (Outcome{false, ""}));
  EXPECT_EQ(check("", L"", 0, 1, nullptr), (Outcome{true, ""}));
}

TEST(CheckParameter, CountsAgreeingCharactersNotTheLengthAgainstTheMinimum) {
  EXPECT_EQ(check("-vxxxx", L"-verbose", 3, 1, nullptr), (Outcome{false, "-vxxxx"}));
  EXPECT_EQ(check("-v=12", L"-verbose", 3, 1, L"="), (Outcome{false, "-v=12"}));
  EXPECT_EQ(check("-ve=12", L"-verbose", 3, 1, L"="), (Outcome{true, "12"}));
}

TEST(CheckParameter, RefusesWhatGoesOnBehindTheName) {
  EXPECT_EQ(check("-verboser", L"-verbose", 3, 1, nullptr), (Outcome{false, "-verboser"}));
  EXPECT_EQ(check("-verboser", L"-verbose", 3, 1, L"="), (Outcome{false, "-verboser"}));
  EXPECT_EQ(check("-verx", L"-verbose", 3, 1, L"="), (Outcome{false, "-verx"}));
}

TEST(CheckParameter, ReplacesTheWordByTheValueBehindASeparator) {
  EXPECT_EQ(check("-verbose=all", L"-verbose", 3, 1, L"="), (Outcome{true, "all"}));
  EXPECT_EQ(check("-verb=all", L"-verbose", 3, 1, L"="), (Outcome{true, "all"}));
  EXPECT_EQ(check("-verb=", L"-verbose", 3, 1, L"="), (Outcome{true, ""}));
  EXPECT_EQ(check("-verb==a=b", L"-verbose", 3, 1, L"="), (Outcome{true, "=a=b"}));
}

TEST(CheckParameter, KnowsAnyOfSeveralSeparatorsAndNoOther) {
  EXPECT_EQ(check("-verb:all", L"-verbose", 3, 1, L"=:"), (Outcome{true, "all"}));
  EXPECT_EQ(check("-verb=all", L"-verbose", 3, 1, L"=:"), (Outcome{true, "all"}));
  EXPECT_EQ(check("-verb all", L"-verbose", 3, 1, L"=:"), (Outcome{false, "-verb all"}));
  EXPECT_EQ(check("-verb=all", L"-verbose", 3, 1, nullptr), (Outcome{false, "-verb=all"}));
  EXPECT_EQ(check("-verb=all", L"-verbose", 3, 1, L""), (Outcome{false, "-verb=all"}));
}

TEST(CheckParameter, ComparesLettersWithOrWithoutTheirCase) {
  EXPECT_EQ(check("-VERB", L"-verbose", 3, 1, nullptr), (Outcome{false, "-VERB"}));
  EXPECT_EQ(check("-VERB", L"-verbose", 3, 0, nullptr), (Outcome{true, "-VERB"}));
  EXPECT_EQ(check("-Verb=All", L"-verbose", 3, 0, L"="), (Outcome{true, "All"}));
}

TEST(CheckParameter, PassesASeparatorThatBelongsToTheName) {
  EXPECT_EQ(check("a=b=c", L"a=b", 3, 1, L"="), (Outcome{true, "c"}));
  EXPECT_EQ(check("a=x", L"a=b", 1, 1, L"="), (Outcome{false, "a=x"}));
}

TEST(CheckParameter, DoesNotTakeAZeroForTheEndOfTheSeparators) {
  const wchar_t zero[] = L"ab\0c";
  CharString arg(zero, 4);
  EXPECT_FALSE(checkParameter(arg, L"ab", 2, 1, L"="));
  EXPECT_EQ(arg.length(), 4U);
}

TEST(CheckParameter, TakesANullNameAsEmpty) {
  const wchar_t* const name = nullptr;
  CharString arg = wide("=x");
  EXPECT_TRUE(checkParameter(arg, name, 0, 1, L"="));
  EXPECT_EQ(plain(arg), "x");
  EXPECT_FALSE(checkParameter(arg, name, 1, 1, L"="));
}
