#include "tests/forks/ForkTable.h"

#include <iostream>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/Child.h"
#include "tests/support/TemporaryFolder.h"

namespace {

constexpr unsigned forks = 50;

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
    if (!isPromised(parent, child)) {
      continue;
    }
    const Outcome outcome = runPairing(parent, child, forks);
    EXPECT_EQ(outcome.forks, forks);
    EXPECT_EQ(outcome.hung, 0U) << child.name;
    EXPECT_EQ(outcome.failed, 0U) << child.name;
  }
}

class ForkTable : public testing::TestWithParam<Deed> {};

TEST_P(ForkTable, ChildrenCanDoEverythingWhileThreadsOfTheParent) {
  const TemporaryFolder folder;
  const ChildResult r = runChild(
      "RowOfTheTable", {.arguments = {GetParam().name, folder.path()}, .limitInSeconds = 280});
  EXPECT_EQ(r.status, 0) << r.out;
}

INSTANTIATE_TEST_SUITE_P(Do, ForkTable,
                         testing::ValuesIn(parentDeeds().begin(), parentDeeds().end()),
                         [](const auto& row) {
                           std::string name;
                           for (const char c : std::string(row.param.name)) {
                             if (isalnum(static_cast<unsigned char>(c)) != 0) {
                               name += c;
                             }
                           }
                           return name;
                         });
