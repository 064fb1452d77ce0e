#include "Engine/utilities/DebuggerArgList.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/settings/ParameterSupport.h"

namespace {

using testing::ElementsAre;

DebuggerArgList listOf(const std::vector<std::pair<const char*, const char*>>& pairs) {
  DebuggerArgList list;
  for (const auto& [name, value] : pairs) {
    list.addArg(encoded(name), encoded(value));
  }
  return list;
}

}  // namespace

TEST(DebuggerArgList, IsEmptyAtFirst) {
  const DebuggerArgList list;
  EXPECT_TRUE(list.isEmpty());
  EXPECT_EQ(list.count(), 0U);
  EXPECT_EQ(list.indexByName(encoded("-x")), 0U);
  EXPECT_EQ(plain(list.valueByName(encoded("-x"))), "");
}

TEST(DebuggerArgList, KeepsPairsInTheirOrder) {
  const DebuggerArgList list = listOf({{"-b", "1"}, {"-a", ""}, {"-c", "3"}});
  EXPECT_FALSE(list.isEmpty());
  EXPECT_EQ(list.count(), 3U);
  EXPECT_THAT(pairsOf(list), ElementsAre("-b=1", "-a=", "-c=3"));
}

TEST(DebuggerArgList, FindsPositionsFromOneOn) {
  const DebuggerArgList list = listOf({{"-b", "1"}, {"-a", ""}, {"-c", "3"}});
  EXPECT_EQ(list.indexByName(encoded("-b")), 1U);
  EXPECT_EQ(list.indexByName(encoded("-a")), 2U);
  EXPECT_EQ(list.indexByName(encoded("-c")), 3U);
  EXPECT_EQ(plain(list.valueByName(encoded("-c"))), "3");
}

TEST(DebuggerArgList, ComparesNamesWholeAndWithTheirCase) {
  const DebuggerArgList list = listOf({{"-host", "1"}});
  EXPECT_EQ(list.indexByName(encoded("-hos")), 0U);
  EXPECT_EQ(list.indexByName(encoded("-hosts")), 0U);
  EXPECT_EQ(list.indexByName(encoded("-Host")), 0U);
  EXPECT_EQ(list.indexByName(encoded("")), 0U);
}

TEST(DebuggerArgList, FindsTheLastOfSeveralPairsOfOneName) {
  const DebuggerArgList list = listOf({{"-a", "1"}, {"-b", "2"}, {"-a", "3"}, {"-b", ""}});
  EXPECT_EQ(list.indexByName(encoded("-a")), 3U);
  EXPECT_EQ(plain(list.valueByName(encoded("-a"))), "3");
  EXPECT_EQ(plain(list.valueByName(encoded("-b"))), "");
}

TEST(DebuggerArgList, RemovesEveryPairOfAName) {
  DebuggerArgList list = listOf({{"-a", "1"}, {"-b", "2"}, {"-a", "3"}, {"-c", "4"}, {"-a", "5"}});
  EXPECT_TRUE(list.removeArg(encoded("-a")));
  EXPECT_THAT(pairsOf(list), ElementsAre("-b=2", "-c=4"));
  EXPECT_FALSE(list.removeArg(encoded("-a")));
  EXPECT_TRUE(list.removeArg(list.name(2)));
  EXPECT_THAT(pairsOf(list), ElementsAre("-b=2"));
}

TEST(DebuggerArgList, ForgetsAllAndStartsAgain) {
  DebuggerArgList list = listOf({{"-a", "1"}, {"-b", "2"}});
  list.deleteAll();
  EXPECT_TRUE(list.isEmpty());
  list.deleteAll();
  list.addArg(encoded("-c"), encoded("3"));
  EXPECT_THAT(pairsOf(list), ElementsAre("-c=3"));
}

TEST(DebuggerArgList, CopiesItsTexts) {
  DebuggerArgList original = listOf({{"-a", "1"}, {"-b", "2"}});
  const DebuggerArgList copy = original;
  original.deleteAll();
  EXPECT_THAT(pairsOf(copy), ElementsAre("-a=1", "-b=2"));
}

TEST(DebuggerArgList, IsReplacedByAssignment) {
  DebuggerArgList list = listOf({{"-x", "9"}});
  const DebuggerArgList other = listOf({{"-a", "1"}, {"-b", "2"}});
  list = other;
  EXPECT_THAT(pairsOf(list), ElementsAre("-a=1", "-b=2"));
  const DebuggerArgList& self = list;
  list = self;
  EXPECT_THAT(pairsOf(list), ElementsAre("-a=1", "-b=2"));
  list = DebuggerArgList();
  EXPECT_TRUE(list.isEmpty());
}

TEST(DebuggerArgList, AddsPairsOfItsOwn) {
  DebuggerArgList list = listOf({{"-a", "1"}});
  for (unsigned i = 1; i <= 100; ++i) {
    list.addArg(list.name(i), list.value(i));
  }
  EXPECT_EQ(list.count(), 101U);
  EXPECT_EQ(plain(list.name(101)), "-a");
  EXPECT_EQ(plain(list.value(101)), "1");
}
