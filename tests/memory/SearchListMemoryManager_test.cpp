#include "Engine/utilities/SearchListMemoryManager.h"

#include <cstdint>
#include <cstring>
#include <new>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/SearchListManagedMemory.h"

#include "tests/memory/ListHeapSupport.h"

namespace {

void* firstWordOf(const void* p) {
  void* word;
  std::memcpy(&word, p, sizeof word);
  return word;
}

void* behind(void* p, size_t bytes) { return static_cast<char*>(p) + bytes; }

}  // namespace

TEST(ListHeap, TakesNoNullBack) {
  RecordingHeap heap;
  void* const block = getFrom(&heap, 8);
  putBack(&heap, nullptr);
  EXPECT_EQ(heap.live, std::vector{block});
  putBack(&heap, block);
  EXPECT_TRUE(heap.live.empty());
}

TEST(SearchListMemoryManager, RoundsElementsToFourBytesAndLeavesRoomForALink) {
  const struct {
    unsigned short asked, rounded;
  } cases[] = {{0, 8},   {1, 8},   {4, 8},   {7, 8},   {8, 8},         {9, 12},
               {12, 12}, {13, 16}, {64, 64}, {65, 68}, {65531, 65532}, {65532, 65532}};
  for (const auto& [asked, rounded] : cases) {
    EXPECT_EQ(SearchListMemoryManager(nullptr, asked, 1).elementSize(), rounded) << asked;
  }
}

TEST(SearchListMemoryManager, RefusesElementsWhoseRoundedSizeDoesNotFitIn16Bits) {
  EXPECT_THROW(SearchListMemoryManager(nullptr, 65533, 1), std::bad_alloc);
  EXPECT_THROW(SearchListMemoryManager(nullptr, 65535, 1), std::bad_alloc);
}

TEST(SearchListMemoryManager, HoldsTwoChainsTwoShortNumbersAndAHeap) {
  EXPECT_EQ(sizeof(SearchListMemoryManager), 32U);
}

TEST(SearchListMemoryManager, TakesNoMemoryBeforeTheFirstElement) {
  RecordingHeap heap;
  const SearchListMemoryManager manager(&heap, 16, 4);
  EXPECT_TRUE(heap.sizes.empty());
}

TEST(SearchListMemoryManager, CarvesTheElementsOfABlockInTheOrderOfTheirAddresses) {
  RecordingHeap heap;
  SearchListMemoryManager manager(&heap, 21, 5);
  void* const first = manager.getElement();
  ASSERT_EQ(heap.sizes, std::vector<size_t>{24 * 5 + 8});
  EXPECT_EQ(first, behind(heap.live[0], 8));
  for (size_t i = 1; i < 5; ++i) {
    EXPECT_EQ(manager.getElement(), behind(first, 24 * i));
  }
  EXPECT_EQ(heap.sizes.size(), 1U);
}

TEST(SearchListMemoryManager, LinksBlocksAndGivesThemAllBack) {
  RecordingHeap heap;
  {
    SearchListMemoryManager manager(&heap, 8, 1);
    for (int i = 0; i < 3; ++i) {
      static_cast<void>(manager.getElement());
    }
    EXPECT_EQ(heap.sizes, (std::vector<size_t>{16, 16, 16}));
    EXPECT_EQ(firstWordOf(heap.live[0]), nullptr);
    EXPECT_EQ(firstWordOf(heap.live[1]), heap.live[0]);
    EXPECT_EQ(firstWordOf(heap.live[2]), heap.live[1]);
  }
  EXPECT_TRUE(heap.live.empty());
}

TEST(SearchListMemoryManager, HandsOutTheElementReleasedLastFirst) {
  SearchListMemoryManager manager(nullptr, 16, 3);
  void* const a = manager.getElement();
  void* const b = manager.getElement();
  void* const c = manager.getElement();
  manager.releaseElement(a);
  manager.releaseElement(c);
  manager.releaseElement(nullptr);
  EXPECT_EQ(firstWordOf(c), a);
  EXPECT_EQ(firstWordOf(a), nullptr);
  EXPECT_EQ(manager.getElement(), c);
  EXPECT_EQ(manager.getElement(), a);
  manager.releaseElement(b);
  EXPECT_EQ(manager.getElement(), b);
}

TEST(SearchListMemoryManager, LinksFreeElementsThatLieBetweenTwoWords) {
  SearchListMemoryManager manager(nullptr, 12, 3);
  void* const a = manager.getElement();
  void* const b = manager.getElement();
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(b) % 8, 4U);
  manager.releaseElement(a);
  manager.releaseElement(b);
  EXPECT_EQ(firstWordOf(b), a);
  EXPECT_EQ(manager.getElement(), b);
  EXPECT_EQ(manager.getElement(), a);
  EXPECT_EQ(manager.getElement(), behind(b, 12));
}

TEST(SearchListMemoryManager, PutsAtLeastOneElementIntoABlock) {
  RecordingHeap heap;
  SearchListMemoryManager manager(&heap, 20, 0);
  EXPECT_EQ(manager.elementsPerBlock(), 1U);
  std::memset(manager.getElement(), 1, 20);
  std::memset(manager.getElement(), 1, 20);
  EXPECT_EQ(heap.sizes, (std::vector<size_t>{28, 28}));
}

TEST(SearchListMemoryManager, TakesTheLargestBlocksThereCanBe) {
  RecordingHeap heap;
  SearchListMemoryManager manager(&heap, 65532, 65535);
  // Asked for, but for once not to be had: the block has nearly 4 GiB.
  heap.requestsLeft = 0;
  EXPECT_THROW(static_cast<void>(manager.getElement()), std::bad_alloc);
  EXPECT_EQ(manager.elementSize(), 65532U);
  EXPECT_EQ(manager.elementsPerBlock(), 65535U);
}

TEST(SearchListMemoryManager, IsAsBeforeWhenThereIsNoMemory) {
  RecordingHeap heap;
  SearchListMemoryManager manager(&heap, 8, 1);
  void* const a = manager.getElement();
  heap.requestsLeft = 0;
  EXPECT_THROW(static_cast<void>(manager.getElement()), std::bad_alloc);
  manager.releaseElement(a);
  EXPECT_EQ(manager.getElement(), a);
  heap.requestsLeft = 1;
  void* const b = manager.getElement();
  EXPECT_EQ(b, behind(heap.live[1], 8));
}

namespace {

struct Number : SearchListManagedMemory {
  explicit Number(unsigned n) : number(n) {
    if (n == 0) {
      throw std::invalid_argument("zero");
    }
  }

  unsigned number;
};

struct Numbers : Number {
  using Number::Number;

  unsigned more[4] = {};
};

}  // namespace

TEST(SearchListManagedMemory, PlacesAnObjectInTheStorage) {
  SearchListMemoryManager manager(nullptr, sizeof(Number), 2);
  Number* const one = new (manager) Number(1);
  Number* const two = new (manager) Number(2);
  EXPECT_EQ(two, behind(one, 8));
  EXPECT_EQ(one->number, 1U);
  EXPECT_EQ(two->number, 2U);
  manager.releaseElement(one);
  EXPECT_EQ(new (manager) Number(3), one);
}

TEST(SearchListManagedMemory, ComesBackWhenTheConstructorThrows) {
  SearchListMemoryManager manager(nullptr, sizeof(Number), 2);
  Number* const one = new (manager) Number(1);
  manager.releaseElement(one);
  EXPECT_THROW(new (manager) Number(0), std::invalid_argument);
  EXPECT_EQ(manager.getElement(), one);
}

TEST(SearchListManagedMemory, RefusesAnObjectThatIsLargerThanTheElements) {
  SearchListMemoryManager manager(nullptr, sizeof(Numbers) - 4, 2);
  EXPECT_THROW(new (manager) Numbers(1), std::bad_alloc);
  SearchListMemoryManager larger(nullptr, sizeof(Numbers), 2);
  EXPECT_EQ((new (larger) Numbers(1))->number, 1U);
}
