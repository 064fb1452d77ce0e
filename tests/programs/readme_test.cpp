#include <gtest/gtest.h>

#include "tests/support/Child.h"

namespace {

TEST(Readme, TheExamplePrintsWhatItSays) {
  const ChildResult r = runProgram({CUL_README_EXAMPLE});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "Καλημέρα: 8 characters in 16 bytes\n");
}

}  // namespace
