#include "Engine/internal/LockGuard.h"

#include <gtest/gtest.h>

#include "Engine/utilities/UNIX/UNIX_Critical_Section.h"

#include "tests/threads/ThreadSupport.h"

TEST(LockGuard, ReleasesWhenAnExceptionLeavesTheScope) {
  UNIX_Critical_Section lock;
  try {
    LockGuard guard(lock, "test", 1);
    EXPECT_FALSE(isFree(lock));
    throw 1;
  } catch (int) {
    EXPECT_TRUE(isFree(lock));
  }
}
