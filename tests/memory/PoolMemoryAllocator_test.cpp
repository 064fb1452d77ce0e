#include "Engine/utilities/PoolMemoryAllocator.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "Engine/utilities/Pool.h"
#include "Engine/utilities/StdException.h"

#include "tests/support/TracedChild.h"

namespace {

constexpr const char* refusal = "Attempt to delete element in pooled allocation";

void expectRefusal(const StdException& e, const char* fileName, unsigned line) {
  EXPECT_STREQ(static_cast<const char*>(e.fileName), fileName);
  EXPECT_EQ(e.line, line);
  EXPECT_STREQ(static_cast<const char*>(e.text), refusal);
  EXPECT_EQ(e.status, -1);
}

}  // namespace

TEST(PoolMemoryAllocator, HoldsJustItsPool) {
  EXPECT_EQ(sizeof(PoolMemoryAllocator), 2 * sizeof(void*));
}

TEST(PoolMemoryAllocator, GetsFromItsPool) {
  Pool pool(100, 100, "got");
  const void* const p = pool.allocator().get(10);
  const void* const q = pool.allocator().get(10, "file", 1);
  ASSERT_NE(pool.first, nullptr);
  EXPECT_EQ(p, pool.first->buffer + 4);
  EXPECT_EQ(q, pool.first->buffer + 20);
  EXPECT_EQ(pool.first->used, 32U);
}

TEST(PoolMemoryAllocator, IgnoresWhatIsGivenBackConditionally) {
  Pool pool(100, 100, "ignored");
  void* const p = pool.allocator().get(10);
  std::memset(p, 'x', 10);
  pool.allocator().conditionalPut(p);
  pool.allocator().conditionalPut(p, "file", 1);
  pool.allocator().conditionalPut(nullptr);
  EXPECT_EQ(std::string(static_cast<char*>(p), 10), "xxxxxxxxxx");
  EXPECT_EQ(pool.first->used, 16U);
}

TEST(PoolMemoryAllocator, DoesNotPermitToGiveBack) {
  Pool pool(100, 100, "refused");
  EXPECT_FALSE(pool.allocator().putPermitted());
}

TEST(PoolMemoryAllocator, ThrowsWithThePoolsNameInPlaceOfTheSourceFile) {
  Pool pool(100, 100, "refused");
  try {
    pool.allocator().put(pool.allocator().get(4));
    FAIL() << "nothing was thrown";
  } catch (const StdException& e) {
    expectRefusal(e, "refused", 0);
  }
}

TEST(PoolMemoryAllocator, CallsAPoolWithoutANameUnknown) {
  Pool pool(100, 100, nullptr);
  try {
    pool.allocator().put(nullptr);
    FAIL() << "nothing was thrown";
  } catch (const StdException& e) {
    expectRefusal(e, "<unknown>", 0);
  }
}

TEST(PoolMemoryAllocator, ThrowsAtTheCallersPosition) {
  Pool pool(100, 100, "refused");
  try {
    pool.allocator().put(pool.allocator().get(4), "caller.cpp", 77);
    FAIL() << "nothing was thrown";
  } catch (const StdException& e) {
    expectRefusal(e, "caller.cpp", 77);
  }
}

CUL_CHILD(PoolRefusals) {
  Pool pool(100, 100, "refused");
  Pool nameless(100, 100, nullptr);
  EXPECT_THROW(pool.allocator().put(nullptr), StdException);
  EXPECT_THROW(nameless.allocator().put(nullptr), StdException);
  EXPECT_THROW(pool.allocator().put(nullptr, "void Caller::call(int)", 77), StdException);
}

TEST(PoolMemoryAllocator, TracesEachRefusal) {
  const TracedChildResult r = runTracedChild("PoolRefusals");
  EXPECT_EQ(r.child.status, 0) << r.child.out << r.child.err;
  for (const char* const line :
       {"**ERROR: Engine/utilities/PoolMemoryAllocator(46): Attempt to delete element in pool "
        "refused\n",
        "**ERROR: Engine/utilities/PoolMemoryAllocator(46): Attempt to delete element in pool "
        "<unknown>\n",
        "**ERROR: void Caller::call(77): Attempt to delete element in pool refused\n"}) {
    EXPECT_EQ(occurrences(r.trace, line), 1U) << line << r.trace;
  }
}
