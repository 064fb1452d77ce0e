#include "Engine/utilities/MemoryAllocator.h"

#include <cstdint>
#include <cstring>

#include <gtest/gtest.h>

namespace {

// A pointer to a virtual member function holds, by the C++ ABI of this platform, one more
// than the offset of its entry in the table of virtual operations.
template <typename Operation>
std::uintptr_t slotOf(Operation operation) {
  std::uintptr_t offset;
  static_assert(sizeof operation >= sizeof offset);
  std::memcpy(&offset, &operation, sizeof offset);
  return (offset - 1) / sizeof(void*);
}

}  // namespace

TEST(MemoryAllocator, KeepsItsVirtualOperationsInTheirOrderBehindTheTwoDestructors) {
  using Get = void* (MemoryAllocator::*)(unsigned int);
  using GetAt = void* (MemoryAllocator::*)(unsigned int, const char*, unsigned int);
  using Put = void (MemoryAllocator::*)(void*);
  using PutAt = void (MemoryAllocator::*)(void*, const char*, unsigned int);
  EXPECT_EQ(slotOf(static_cast<Get>(&MemoryAllocator::get)), 2U);
  EXPECT_EQ(slotOf(static_cast<GetAt>(&MemoryAllocator::get)), 3U);
  EXPECT_EQ(slotOf(static_cast<Put>(&MemoryAllocator::put)), 4U);
  EXPECT_EQ(slotOf(static_cast<PutAt>(&MemoryAllocator::put)), 5U);
  EXPECT_EQ(slotOf(static_cast<Put>(&MemoryAllocator::conditionalPut)), 6U);
  EXPECT_EQ(slotOf(static_cast<PutAt>(&MemoryAllocator::conditionalPut)), 7U);
  EXPECT_EQ(slotOf(&MemoryAllocator::putPermitted), 8U);
}
