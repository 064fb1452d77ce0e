#include "Engine/utilities/MemoryAllocator.h"

#include <gtest/gtest.h>

#include "tests/support/VirtualSlot.h"

TEST(MemoryAllocator, KeepsItsVirtualOperationsInTheirOrderBehindTheTwoDestructors) {
  using Get = void* (MemoryAllocator::*)(unsigned int);
  using GetAt = void* (MemoryAllocator::*)(unsigned int, const char*, unsigned int);
  using Put = void (MemoryAllocator::*)(void*);
  using PutAt = void (MemoryAllocator::*)(void*, const char*, unsigned int);
  EXPECT_EQ(virtualSlot(static_cast<Get>(&MemoryAllocator::get)), 2U);
  EXPECT_EQ(virtualSlot(static_cast<GetAt>(&MemoryAllocator::get)), 3U);
  EXPECT_EQ(virtualSlot(static_cast<Put>(&MemoryAllocator::put)), 4U);
  EXPECT_EQ(virtualSlot(static_cast<PutAt>(&MemoryAllocator::put)), 5U);
  EXPECT_EQ(virtualSlot(static_cast<Put>(&MemoryAllocator::conditionalPut)), 6U);
  EXPECT_EQ(virtualSlot(static_cast<PutAt>(&MemoryAllocator::conditionalPut)), 7U);
  EXPECT_EQ(virtualSlot(&MemoryAllocator::putPermitted), 8U);
}
