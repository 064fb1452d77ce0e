#include "Engine/utilities/HeapMemoryAllocator.h"

#include <cstdio>
#include <cstring>
#include <new>

#include <gtest/gtest.h>

#include "tests/support/Child.h"

namespace {

// Made before main.
const HeapMemoryAllocator* const earlyInstance = HeapMemoryAllocator::instance();

}  // namespace

TEST(HeapMemoryAllocator, HasOneInstanceFromBeforeMainOn) {
  EXPECT_NE(earlyInstance, nullptr);
  EXPECT_EQ(HeapMemoryAllocator::instance(), earlyInstance);
}

TEST(HeapMemoryAllocator, HoldsNoData) { EXPECT_EQ(sizeof(HeapMemoryAllocator), sizeof(void*)); }

TEST(HeapMemoryAllocator, PermitsToGiveBack) {
  EXPECT_TRUE(HeapMemoryAllocator::instance()->putPermitted());
}

// The address sanitizer sees to it that scalar `new` meets scalar `delete` here.
TEST(HeapMemoryAllocator, GetsFromTheScalarNew) {
  MemoryAllocator& allocator = *HeapMemoryAllocator::instance();
  void* p = allocator.get(100);
  std::memset(p, 1, 100);
  ::operator delete(p);
  p = allocator.get(100, "file", 1);
  std::memset(p, 1, 100);
  ::operator delete(p);
  ::operator delete(allocator.get(0));
}

TEST(HeapMemoryAllocator, GivesBackToTheScalarDelete) {
  MemoryAllocator& allocator = *HeapMemoryAllocator::instance();
  allocator.put(::operator new(10));
  allocator.put(::operator new(10), "file", 1);
  allocator.conditionalPut(::operator new(10));
  allocator.conditionalPut(::operator new(10), "file", 1);
  allocator.put(nullptr);
  allocator.conditionalPut(nullptr);
}

TEST(HeapMemoryAllocator, MayBeMadeBesideTheOneInstanceAndDestroyedThroughItsBase) {
  MemoryAllocator* const other = new HeapMemoryAllocator;
  void* const p = other->get(10);
  EXPECT_NE(p, nullptr);
  delete other;
  HeapMemoryAllocator::instance()->put(p);
}

CUL_CHILD(HeapMemoryAfterExit) {
  static const struct Late {
    ~Late() {
      MemoryAllocator& allocator = *HeapMemoryAllocator::instance();
      allocator.put(allocator.get(10));
      std::puts("served");
    }
  } late;
}

TEST(HeapMemoryAllocator, ServesUntilTheEndOfTheProcess) {
  const ChildResult r = runChild("HeapMemoryAfterExit");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "served\n");
}
