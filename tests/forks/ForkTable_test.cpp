#include "tests/forks/ForkTable.h"

#include <cctype>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/Child.h"
#include "tests/support/TemporaryFolder.h"

namespace {

constexpr unsigned forks = 50;

std::vector<std::string> namesOfParentDeeds() {
  std::vector<std::string> names;
  for (const Deed& deed : parentDeeds()) {
    names.emplace_back(deed.name);
  }
  return names;
}

const Deed& parentDeedNamed(const std::string& name) {
  for (const Deed& deed : parentDeeds()) {
    if (deed.name == name) {
      return deed;
    }
  }
  ADD_FAILURE() << "there is no deed " << name;
  return parentDeeds().front();
}

}  // namespace

CUL_CHILD(RowOfTheTable) {
  prepareForTable(childArguments()[1]);
  const Deed& parent = parentDeedNamed(childArguments()[0]);
  for (const Deed& child : childDeeds()) {
    if (isPromised(parent, child)) {
      const Outcome outcome = runPairing(parent, child, forks);
      EXPECT_EQ(outcome.forks, forks);
      EXPECT_EQ(outcome.hung, 0U) << child.name;
      EXPECT_EQ(outcome.failed, 0U) << child.name;
    }
  }
}

class ForkTable : public testing::TestWithParam<std::string> {};

TEST_P(ForkTable, ChildrenCanDoEverythingWhileThreadsOfTheParent) {
  const TemporaryFolder folder;
  const ChildResult r =
      runChild("RowOfTheTable", {.arguments = {GetParam(), folder.path()}, .limitInSeconds = 280});
  EXPECT_EQ(r.status, 0) << r.out;
}

INSTANTIATE_TEST_SUITE_P(Do, ForkTable, testing::ValuesIn(namesOfParentDeeds()),
                         [](const auto& row) {
                           std::string name;
                           for (const char c : row.param) {
                             if (std::isalnum(static_cast<unsigned char>(c)) != 0) {
                               name += c;
                             }
                           }
                           return name;
                         });
