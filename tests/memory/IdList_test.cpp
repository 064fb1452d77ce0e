#include "Engine/utilities/IdList.h"

#include <climits>
#include <cstring>
#include <new>
#include <random>
#include <set>
#include <sys/resource.h>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/HeapMemoryAllocator.h"

#include "tests/support/Child.h"

TEST(IdList, HoldsTheDirectCountAndAList) {
  EXPECT_EQ(sizeof(IdList), 8 + sizeof(List<unsigned int>));
}

TEST(IdList, StartsWithTheIdentifiersUpToTenBehindTheDirectRange) {
  const IdList ids(4);
  struct {
    unsigned int directCount;
    const void* allocator;
    unsigned int count, capacity;
    unsigned short elementSize, growth;
    const unsigned int* elements;
  } fields;
  static_assert(sizeof fields == sizeof ids);
  std::memcpy(&fields, static_cast<const void*>(&ids), sizeof fields);
  EXPECT_EQ(fields.directCount, 4U);
  EXPECT_EQ(fields.allocator, HeapMemoryAllocator::instance());
  EXPECT_EQ(fields.capacity, 14U);
  EXPECT_EQ(fields.elementSize, 4U);
  EXPECT_EQ(fields.growth, 8U);
  const std::vector<unsigned int> elements(fields.elements, fields.elements + fields.count);
  EXPECT_EQ(elements,
            (std::vector<unsigned int>{0x80000000U, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13}));
}

TEST(IdList, StartsWithOnlyIdentifierZeroTaken) {
  const IdList ids(4);
  EXPECT_TRUE(ids.isReservedId(0));
  for (unsigned int id = 1; id < 20; ++id) {
    EXPECT_FALSE(ids.isReservedId(id)) << id;
  }
}

TEST(IdList, HandsOutIdentifiersFromTheDirectCountOn) {
  IdList ids(4);
  for (unsigned int id = 4; id < 14; ++id) {
    EXPECT_EQ(ids.getNextId(), id);
    EXPECT_TRUE(ids.isReservedId(id));
  }
  EXPECT_EQ(ids.getNextId(), 14U) << "one more than the list held at first";
  EXPECT_EQ(ids.getNextId(), 15U);
}

TEST(IdList, HandsOutFromOneOnWithoutADirectRange) {
  IdList ids(0);
  EXPECT_EQ(ids.getNextId(), 1U);
  EXPECT_EQ(ids.getNextId(), 2U);
}

TEST(IdList, HandsOutReleasedIdentifiersAgainLowestFirst) {
  IdList ids(4);
  for (int i = 0; i < 12; ++i) {
    (void)ids.getNextId();
  }
  ids.releaseId(15);
  ids.releaseId(7);
  ids.releaseId(4);
  EXPECT_FALSE(ids.isReservedId(7));
  EXPECT_EQ(ids.getNextId(), 4U);
  EXPECT_EQ(ids.getNextId(), 7U);
  EXPECT_EQ(ids.getNextId(), 15U);
  EXPECT_EQ(ids.getNextId(), 16U);
}

TEST(IdList, ReservesIdentifiersOfTheDirectRange) {
  IdList ids(4);
  EXPECT_TRUE(ids.isAssignable(1));
  EXPECT_EQ(ids.reserveId(1), 1U);
  EXPECT_FALSE(ids.isAssignable(1));
  EXPECT_TRUE(ids.isReservedId(1));
  EXPECT_EQ(ids.reserveId(1), 1U);
  ids.releaseId(1);
  EXPECT_TRUE(ids.isAssignable(1));
  EXPECT_FALSE(ids.isReservedId(1));
  EXPECT_EQ(ids.getNextId(), 4U) << "a released direct identifier is not handed out";
}

TEST(IdList, AssignsOnlyFreeIdentifiersOfTheDirectRange) {
  const IdList ids(4);
  EXPECT_FALSE(ids.isAssignable(0));
  EXPECT_TRUE(ids.isAssignable(3));
  EXPECT_FALSE(ids.isAssignable(4));
  EXPECT_FALSE(ids.isAssignable(UINT_MAX));
  EXPECT_FALSE(IdList(0).isAssignable(0));
  EXPECT_FALSE(IdList(1).isAssignable(0));
}

TEST(IdList, ReservesAnIdentifierBehindItsListAndFillsTheGapBeforeIt) {
  IdList ids(4);
  EXPECT_EQ(ids.reserveId(16), 16U);
  EXPECT_TRUE(ids.isReservedId(16));
  EXPECT_FALSE(ids.isReservedId(14));
  EXPECT_FALSE(ids.isReservedId(15));
  EXPECT_FALSE(ids.isReservedId(17));
  for (unsigned int id = 4; id < 16; ++id) {
    EXPECT_EQ(ids.getNextId(), id);
  }
  EXPECT_EQ(ids.getNextId(), 17U);
  EXPECT_TRUE(ids.isReservedId(16));
}

TEST(IdList, ReservesFarAwayIdentifiersInAnyOrder) {
  IdList ids(4);
  EXPECT_EQ(ids.reserveId(100), 100U);
  EXPECT_EQ(ids.reserveId(50), 50U);
  EXPECT_EQ(ids.reserveId(75), 75U);
  EXPECT_EQ(ids.reserveId(75), 75U);
  EXPECT_EQ(ids.reserveId(0x7FFFFFFF), 0x7FFFFFFFU);
  for (const unsigned int id : {50U, 75U, 100U, 0x7FFFFFFFU}) {
    EXPECT_TRUE(ids.isReservedId(id)) << id;
    EXPECT_FALSE(ids.isReservedId(id - 1)) << id;
  }
  ids.releaseId(75);
  EXPECT_FALSE(ids.isReservedId(75));
  EXPECT_TRUE(ids.isReservedId(100));
  EXPECT_EQ(ids.getNextId(), 4U);
}

TEST(IdList, NeverReleasesIdentifierZero) {
  for (const unsigned int directCount : {0U, 1U, 4U}) {
    IdList ids(directCount);
    ids.releaseId(0);
    EXPECT_TRUE(ids.isReservedId(0)) << directCount;
  }
}

TEST(IdList, ReservesIdentifierZeroWithoutEffect) {
  IdList ids(0);
  EXPECT_EQ(ids.reserveId(0), 0U);
  EXPECT_EQ(ids.getNextId(), 1U);
  EXPECT_EQ(ids.getNextId(), 2U);
  EXPECT_TRUE(ids.isReservedId(1));
}

TEST(IdList, IgnoresTheReleaseOfAnIdentifierItDoesNotHold) {
  IdList ids(4);
  ids.reserveId(100);
  ids.releaseId(50);
  ids.releaseId(101);
  ids.releaseId(UINT_MAX);
  EXPECT_TRUE(ids.isReservedId(100));
  EXPECT_EQ(ids.getNextId(), 4U);
}

TEST(IdList, HoldsNoIdentifierOfMoreThan31Bits) {
  IdList ids(4);
  for (const unsigned int id : {0x80000000U, 0x80000005U, UINT_MAX}) {
    EXPECT_EQ(ids.reserveId(id), id);
    EXPECT_FALSE(ids.isReservedId(id));
    ids.releaseId(id);
    EXPECT_FALSE(ids.isAssignable(id));
  }
  EXPECT_TRUE(ids.isReservedId(0));
  EXPECT_FALSE(ids.isReservedId(5));
  EXPECT_FALSE(ids.isReservedId(0x7FFFFFFF));
  EXPECT_EQ(ids.getNextId(), 4U);
}

TEST(IdList, ReleasesAll) {
  IdList ids(4);
  ids.reserveId(1);
  ids.reserveId(100);
  (void)ids.getNextId();
  ids.releaseAll();
  EXPECT_TRUE(ids.isReservedId(0));
  EXPECT_FALSE(ids.isReservedId(1));
  EXPECT_FALSE(ids.isReservedId(100));
  EXPECT_EQ(ids.getNextId(), 4U);
}

TEST(IdList, CopiesTheDirectCountAndAllElements) {
  IdList ids(4);
  ids.reserveId(2);
  ids.reserveId(100);
  (void)ids.getNextId();
  IdList copy(ids);
  EXPECT_TRUE(copy.isReservedId(2));
  EXPECT_TRUE(copy.isReservedId(100));
  EXPECT_EQ(copy.getNextId(), 5U);
  EXPECT_FALSE(ids.isReservedId(5));
  EXPECT_EQ(ids.getNextId(), 5U);
}

TEST(IdList, AssignsTheDirectCountAndAllElements) {
  IdList ids(4);
  ids.reserveId(100);
  (void)ids.getNextId();
  IdList target(30);
  target.reserveId(200);
  target = ids;
  EXPECT_EQ(target.getNextId(), 5U);
  EXPECT_TRUE(target.isReservedId(100));
  EXPECT_FALSE(target.isReservedId(200));
  target.releaseAll();
  EXPECT_EQ(target.getNextId(), 4U);
  EXPECT_TRUE(ids.isReservedId(4));
}

TEST(IdList, MayBeAssignedToItself) {
  IdList ids(4);
  ids.reserveId(100);
  IdList& same = ids;
  ids = same;
  EXPECT_TRUE(ids.isReservedId(100));
  EXPECT_EQ(ids.getNextId(), 4U);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// The sanitizers' free stores end the process instead of throwing.
CUL_CHILD(IdListWithoutMemory) {
  // The library's own handler ends the process when the free store is exhausted.
  std::set_new_handler(nullptr);
  constexpr unsigned int many = 20'000'000;
  const IdList large(many);
  IdList ids(4);
  ids.reserveId(100);
  // What the expectations and an exception take.
  ::operator delete(::operator new(100'000));
  const rlimit none = {1, 1};
  ASSERT_EQ(setrlimit(RLIMIT_AS, &none), 0);
  EXPECT_THROW(ids = large, std::bad_alloc);
  EXPECT_FALSE(ids.isAssignable(many - 1));
  EXPECT_TRUE(ids.isAssignable(3));
  EXPECT_TRUE(ids.isReservedId(100));
  EXPECT_EQ(ids.getNextId(), 4U);
}

TEST(IdList, StaysAsItWasWhenThereIsNoMemoryToAssign) {
  const ChildResult r = runChild("IdListWithoutMemory");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}
#endif

TEST(IdList, RefusesADirectCountWhoseIdentifiersDoNotFit) {
  EXPECT_THROW(IdList((1U << 30) - 10), std::bad_alloc);
  EXPECT_THROW(IdList(UINT_MAX - 10), std::bad_alloc);
  EXPECT_THROW(IdList(UINT_MAX - 9), std::bad_alloc);
  EXPECT_THROW(IdList{UINT_MAX}, std::bad_alloc);
}

TEST(IdList, BehavesLikeASetOfTakenIdentifiersUnderAnyOperations) {
  for (unsigned int directCount = 0; directCount < 8; ++directCount) {
    std::mt19937 random(directCount);
    IdList ids(directCount);
    std::set<unsigned int> taken = {0};
    for (int step = 0; step < 4000; ++step) {
      const auto id = static_cast<unsigned int>(random() % 60);
      switch (random() % 4) {
        case 0: {
          unsigned int next = directCount;
          while (taken.count(next) != 0) {
            ++next;
          }
          ASSERT_EQ(ids.getNextId(), next);
          taken.insert(next);
          break;
        }
        case 1:
          ASSERT_EQ(ids.reserveId(id), id);
          taken.insert(id);
          break;
        default:
          ids.releaseId(id);
          if (id != 0) {
            taken.erase(id);
          }
      }
      for (unsigned int any = 0; any < 90; ++any) {
        ASSERT_EQ(ids.isReservedId(any), taken.count(any) != 0) << any;
        ASSERT_EQ(ids.isAssignable(any), any != 0 && any < directCount && taken.count(any) == 0);
      }
    }
  }
}
