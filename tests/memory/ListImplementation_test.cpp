#include "Engine/utilities/ListImplementation.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <new>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/HeapMemoryAllocator.h"
#include "Engine/utilities/Pool.h"

namespace {

// An untyped list together with its buffer pointer, as List<T> holds them.
struct Untyped {
  explicit Untyped(unsigned int initialCapacity, unsigned short elementSize = 4,
                   unsigned short growth = 8, Pool* pool = nullptr)
      : list(&buffer, initialCapacity, pool, elementSize, growth) {}
  Untyped(const Untyped&) = delete;
  Untyped& operator=(const Untyped&) = delete;
  ~Untyped() { list.deleteItems(buffer); }

  void append(std::vector<unsigned int> items) {
    list.appendItems(&buffer, items.data(), static_cast<unsigned int>(items.size()));
  }
  void insert(unsigned int index, unsigned int item) { list.insert_at(index, &buffer, &item); }
  std::vector<unsigned int> items() const {
    const auto* const first = static_cast<const unsigned int*>(buffer);
    return {first, first + list.count};
  }

  void* buffer = this;  // Not null, to see that the list sets it.
  ListImplementation list;
};

// Notes the sizes asked for and has no memory.
class NoMemory final : public MemoryAllocator {
 public:
  void* get(unsigned int size) override {
    asked.push_back(size);
    throw std::bad_alloc();
  }
  void* get(unsigned int size, const char*, unsigned int) override { return get(size); }
  void put(void*) override { ++returned; }
  void put(void*, const char*, unsigned int) override { ++returned; }
  void conditionalPut(void*) override { ++returned; }
  void conditionalPut(void*, const char*, unsigned int) override { ++returned; }
  bool putPermitted() const override { return true; }

  std::vector<unsigned int> asked;
  int returned = 0;
};

// Pretends to have any number of bytes.
class EndlessMemory final : public MemoryAllocator {
 public:
  void* get(unsigned int) override { return &memory_; }
  void* get(unsigned int, const char*, unsigned int) override { return &memory_; }
  void put(void*) override {}
  void put(void*, const char*, unsigned int) override {}
  void conditionalPut(void*) override {}
  void conditionalPut(void*, const char*, unsigned int) override {}
  bool putPermitted() const override { return true; }

 private:
  char memory_ = 0;
};

std::vector<unsigned int> upTo(unsigned int n) {
  std::vector<unsigned int> numbers(n);
  for (unsigned int i = 0; i < n; ++i) {
    numbers[i] = i;
  }
  return numbers;
}

int comparisons = 0;

int compareNumbers(const void* left, const void* right) {
  ++comparisons;
  const auto l = *static_cast<const unsigned int*>(left);
  const auto r = *static_cast<const unsigned int*>(right);
  return l < r ? -1 : static_cast<int>(l > r);
}

// Compares the tens only, so that numbers of one ten are equal.
int compareTens(const void* left, const void* right) {
  const unsigned int l = *static_cast<const unsigned int*>(left) / 10;
  const unsigned int r = *static_cast<const unsigned int*>(right) / 10;
  return l < r ? -1 : static_cast<int>(l > r);
}

bool sort(Untyped& untyped, int (*compare)(const void*, const void*)) {
  unsigned int scratch;
  comparisons = 0;
  return untyped.list.bSort(compare, untyped.buffer, &scratch);
}

using Numbers = std::vector<unsigned int>;

}  // namespace

TEST(ListImplementation, KeepsItsFieldsInTheirOrder) {
  Untyped untyped(0);
  const ListImplementation& list = untyped.list;
  const char* const start = reinterpret_cast<const char*>(&list);
  const auto offset = [start](const void* field) {
    return static_cast<const char*>(field) - start;
  };
  EXPECT_EQ(offset(&list.allocator), 0);
  EXPECT_EQ(offset(&list.count), 8);
  EXPECT_EQ(offset(&list.capacity), 12);
  EXPECT_EQ(sizeof(ListImplementation), 24U);
}

TEST(ListImplementation, StartsWithoutABufferForAnInitialCapacityOfZero) {
  const Untyped untyped(0);
  EXPECT_EQ(untyped.buffer, nullptr);
  EXPECT_EQ(untyped.list.count, 0U);
  EXPECT_EQ(untyped.list.capacity, 0U);
  EXPECT_EQ(untyped.list.allocator, HeapMemoryAllocator::instance());
}

TEST(ListImplementation, ObtainsABufferOfTheInitialCapacityAtOnce) {
  const Untyped untyped(10);
  ASSERT_NE(untyped.buffer, nullptr);
  EXPECT_EQ(untyped.list.count, 0U);
  EXPECT_EQ(untyped.list.capacity, 10U);
  std::memset(untyped.buffer, 1, 40);
}

TEST(ListImplementation, TakesItsBuffersFromThePoolItIsGiven) {
  Pool pool(1000, 100, "lists");
  Untyped untyped(10, 4, 8, &pool);
  EXPECT_EQ(untyped.list.allocator, &pool.allocator());
  EXPECT_EQ(untyped.buffer, pool.first->buffer + 4);
  EXPECT_EQ(pool.first->used, 48U);
  untyped.append(upTo(11));
  EXPECT_EQ(untyped.buffer, pool.first->buffer + 48 + 4);
  EXPECT_EQ(pool.first->used, 48U + 80U) << "18 elements; the outgrown buffer stays";
  EXPECT_EQ(untyped.items(), upTo(11));
  untyped.list.deleteItems(untyped.buffer);
  EXPECT_EQ(untyped.items(), upTo(11)) << "a pool takes nothing back";
}

TEST(ListImplementation, ExtendsAnEmptyListByWhatIsNeededOrTheGrowthStep) {
  for (const auto& [n, capacity] :
       {std::pair(0U, 8U), std::pair(1U, 8U), std::pair(8U, 8U), std::pair(9U, 9U)}) {
    Untyped untyped(0);
    untyped.list.extend(n, &untyped.buffer);
    EXPECT_EQ(untyped.list.capacity, capacity) << n;
    EXPECT_EQ(untyped.list.count, 0U);
    EXPECT_NE(untyped.buffer, nullptr);
  }
}

TEST(ListImplementation, ExtendsByWhatIsMissingOrTheGrowthStep) {
  // Seven of ten places are taken.
  for (const auto& [n, capacity] : {std::pair(0U, 10U), std::pair(3U, 10U), std::pair(4U, 18U),
                                    std::pair(11U, 18U), std::pair(12U, 19U)}) {
    Untyped untyped(10);
    untyped.append(upTo(7));
    const void* const before = untyped.buffer;
    untyped.list.extend(n, &untyped.buffer);
    EXPECT_EQ(untyped.list.capacity, capacity) << n;
    EXPECT_EQ(untyped.buffer == before, n <= 3) << n;
    EXPECT_EQ(untyped.items(), upTo(7));
  }
}

TEST(ListImplementation, CountsAGrowthStepOfZeroAsOne) {
  Untyped untyped(0, 4, 0);
  for (unsigned int i = 0; i < 5; ++i) {
    untyped.insert(i, i);
    EXPECT_EQ(untyped.list.capacity, i + 1);
  }
  untyped.insert(7, 9);
  EXPECT_EQ(untyped.items(), Numbers({0, 1, 2, 3, 4, 0, 0, 9}));
}

TEST(ListImplementation, AppendsNothingForZeroElements) {
  Untyped untyped(0);
  untyped.list.appendItems(&untyped.buffer, nullptr, 0);
  EXPECT_EQ(untyped.buffer, nullptr);
  EXPECT_EQ(untyped.list.capacity, 0U);
}

TEST(ListImplementation, AppendsBehindTheLastElement) {
  Untyped untyped(4);
  untyped.append({1, 2});
  untyped.append({3, 4});
  EXPECT_EQ(untyped.list.capacity, 4U);
  untyped.append({5});
  EXPECT_EQ(untyped.list.capacity, 12U);
  EXPECT_EQ(untyped.items(), Numbers({1, 2, 3, 4, 5}));
}

TEST(ListImplementation, GrowsAFullListOfEightByTwentyToTwentyEight) {
  Untyped untyped(8);
  untyped.append(upTo(8));
  untyped.append(upTo(20));
  EXPECT_EQ(untyped.list.capacity, 28U);
  EXPECT_EQ(untyped.list.count, 28U);
}

TEST(ListImplementation, AppendsItsOwnElementsWhileItGrows) {
  Untyped untyped(3);
  untyped.append({1, 2, 3});
  untyped.list.appendItems(&untyped.buffer, untyped.buffer, 3);
  EXPECT_EQ(untyped.items(), Numbers({1, 2, 3, 1, 2, 3}));
}

TEST(ListImplementation, InsertsBeforeTheElementAtTheIndex) {
  Untyped untyped(0);
  untyped.insert(0, 10);
  EXPECT_EQ(untyped.list.capacity, 8U);
  untyped.insert(0, 20);
  untyped.insert(1, 30);
  untyped.insert(3, 40);
  EXPECT_EQ(untyped.items(), Numbers({20, 30, 10, 40}));
}

TEST(ListImplementation, GrowsAFullListByTheGrowthStepToInsert) {
  Untyped untyped(3);
  untyped.append({1, 2, 3});
  untyped.insert(1, 9);
  EXPECT_EQ(untyped.list.capacity, 11U);
  EXPECT_EQ(untyped.items(), Numbers({1, 9, 2, 3}));
}

TEST(ListImplementation, FillsTheGapWithZerosWhenItInsertsBehindTheEnd) {
  Untyped untyped(0);
  untyped.insert(5, 77);
  EXPECT_EQ(untyped.list.count, 6U);
  EXPECT_EQ(untyped.list.capacity, 13U);
  EXPECT_EQ(untyped.items(), Numbers({0, 0, 0, 0, 0, 77}));
}

TEST(ListImplementation, ZeroesTheGapAlsoInABufferThatIsLargeEnough) {
  Untyped untyped(10);
  std::memset(untyped.buffer, 0xEE, 40);
  untyped.append({1, 2});
  untyped.insert(9, 77);
  EXPECT_EQ(untyped.list.capacity, 10U);
  EXPECT_EQ(untyped.items(), Numbers({1, 2, 0, 0, 0, 0, 0, 0, 0, 77}));
}

TEST(ListImplementation, ExtendsForAnIndexJustBehindTheCapacity) {
  Untyped untyped(10);
  untyped.append({1, 2});
  untyped.insert(10, 77);
  EXPECT_EQ(untyped.list.capacity, 18U);  // 10 + the missing 16 - 8 of room.
  EXPECT_EQ(untyped.items(), Numbers({1, 2, 0, 0, 0, 0, 0, 0, 0, 0, 77}));
}

TEST(ListImplementation, RemovesOneElementAndKeepsTheCapacity) {
  Untyped untyped(4);
  untyped.append({1, 2, 3, 4});
  untyped.list.remove(1, untyped.buffer);
  EXPECT_EQ(untyped.items(), Numbers({1, 3, 4}));
  untyped.list.remove(2, untyped.buffer);
  EXPECT_EQ(untyped.items(), Numbers({1, 3}));
  untyped.list.remove(0, untyped.buffer);
  untyped.list.remove(0, untyped.buffer);
  EXPECT_EQ(untyped.items(), Numbers({}));
  EXPECT_EQ(untyped.list.capacity, 4U);
}

TEST(ListImplementation, IgnoresTheRemovalOfAnElementThatIsNotThere) {
  Untyped untyped(4);
  untyped.append({1, 2, 3});
  untyped.list.remove(3, untyped.buffer);
  untyped.list.remove(UINT_MAX, untyped.buffer);
  EXPECT_EQ(untyped.items(), Numbers({1, 2, 3}));
  Untyped empty(0);
  empty.list.remove(0, empty.buffer);
  EXPECT_EQ(empty.list.count, 0U);
}

TEST(ListImplementation, FindsNothingInAnEmptyList) {
  const Untyped untyped(0);
  const unsigned int item = 0;
  EXPECT_EQ(untyped.list.findItem(untyped.buffer, &item), 0U);
}

// Elements of every size differ from the wanted one in one byte only, wherever that is, and
// the wanted one stands at every place in turn, once with a second behind it.
TEST(ListImplementation, FindsTheFirstElementWithEqualBytesForAnyElementSize) {
  for (const unsigned short size : std::vector<unsigned short>{1, 2, 3, 4, 5, 7, 8, 9, 12, 16}) {
    const std::string wanted(size, 'w');
    for (const unsigned int count : {1U, 2U, 3U, 7U, 15U, 16U, 17U, 33U, 64U}) {
      for (unsigned int place = 0; place <= count; ++place) {
        Untyped untyped(0, size);
        for (unsigned int i = 0; i < count; ++i) {
          std::string element = wanted;
          if (i != place && i != place + 2) {
            element[i % size] = '.';
          }
          untyped.list.appendItems(&untyped.buffer, element.data(), 1);
        }
        const unsigned int expected = place < count ? place + 1 : 0;
        ASSERT_EQ(untyped.list.findItem(untyped.buffer, wanted.data()), expected)
            << size << " " << count << " " << place;
      }
    }
  }
}

TEST(ListImplementation, FindsElementsInPoolMemory) {
  Pool pool(1000, 100, "unaligned");
  Untyped untyped(0, 8, 8, &pool);
  for (std::uint64_t i = 0; i < 20; ++i) {
    const std::uint64_t element = i << 32 | 1;
    untyped.list.appendItems(&untyped.buffer, &element, 1);
  }
  const std::uint64_t wanted = 19UL << 32 | 1;
  const std::uint64_t absent = 19UL << 32 | 2;
  EXPECT_EQ(untyped.list.findItem(untyped.buffer, &wanted), 20U);
  EXPECT_EQ(untyped.list.findItem(untyped.buffer, &absent), 0U);
}

TEST(ListImplementation, TakesFewerThanTwoElementsForSortedWithoutComparing) {
  Untyped untyped(4);
  EXPECT_TRUE(sort(untyped, compareNumbers));
  untyped.append({5});
  EXPECT_TRUE(sort(untyped, compareNumbers));
  EXPECT_EQ(comparisons, 0);
}

TEST(ListImplementation, SaysThatASortedListWasInOrder) {
  Untyped untyped(4);
  untyped.append({1, 2, 2, 3});
  EXPECT_TRUE(sort(untyped, compareNumbers));
  EXPECT_EQ(untyped.items(), Numbers({1, 2, 2, 3}));
  EXPECT_EQ(comparisons, 3);
}

TEST(ListImplementation, SortsInPassesOverTheWholeListUntilOneSwapsNothing) {
  Untyped untyped(4);
  untyped.append({4, 3, 2, 1});
  EXPECT_FALSE(sort(untyped, compareNumbers));
  EXPECT_EQ(untyped.items(), Numbers({1, 2, 3, 4}));
  EXPECT_EQ(comparisons, 4 * 3);
  Untyped almost(4);
  almost.append({2, 1, 3, 4});
  EXPECT_FALSE(sort(almost, compareNumbers));
  EXPECT_EQ(comparisons, 2 * 3);
}

TEST(ListImplementation, KeepsTheOrderOfEqualElements) {
  std::mt19937 random(1);
  for (int round = 0; round < 50; ++round) {
    Numbers numbers(static_cast<size_t>(round));
    for (unsigned int& number : numbers) {
      number = static_cast<unsigned int>(random() % 60);
    }
    Untyped untyped(0);
    untyped.append(numbers);
    const bool wasSorted = std::is_sorted(numbers.begin(), numbers.end(),
                                          [](auto l, auto r) { return l / 10 < r / 10; });
    EXPECT_EQ(sort(untyped, compareTens), wasSorted);
    std::stable_sort(numbers.begin(), numbers.end(),
                     [](auto l, auto r) { return l / 10 < r / 10; });
    EXPECT_EQ(untyped.items(), numbers);
  }
}

TEST(ListImplementation, SortsElementsOfAnySize) {
  for (const unsigned short size : std::vector<unsigned short>{1, 3, 8, 40}) {
    void* buffer;
    ListImplementation list(&buffer, 0, nullptr, size, 8);
    for (const char c : {'d', 'a', 'c', 'b'}) {
      const std::string element(size, c);
      list.appendItems(&buffer, element.data(), 1);
    }
    std::vector<char> scratch(size);
    EXPECT_FALSE(list.bSort(
        [](const void* l, const void* r) {
          return *static_cast<const char*>(l) - *static_cast<const char*>(r);
        },
        buffer, scratch.data()));
    std::string expected;
    for (const char c : {'a', 'b', 'c', 'd'}) {
      expected += std::string(size, c);
    }
    EXPECT_EQ(std::string(static_cast<char*>(buffer), size_t{4} * size), expected);
    list.deleteItems(buffer);
  }
}

TEST(ListImplementation, EndsASortWhoseComparisonIsNoOrder) {
  Untyped untyped(4);
  untyped.append({1, 2, 3, 4, 5});
  EXPECT_FALSE(sort(untyped, [](const void*, const void*) {
    ++comparisons;
    return 1;
  }));
  // Each pass carries the first element to the end: after five all stand where they stood.
  EXPECT_LE(comparisons, 4 * 5 * 4);
  Numbers left = untyped.items();
  std::sort(left.begin(), left.end());
  EXPECT_EQ(left, Numbers({1, 2, 3, 4, 5}));
}

TEST(ListImplementation, EndsASortThatComesRoundOnlyAfterMorePassesThanThereAreElements) {
  Untyped untyped(5);
  untyped.append({0, 1, 2, 3, 4});
  // From the twelfth pass on every second one leaves the same order.
  EXPECT_FALSE(sort(untyped, [](const void* l, const void* r) {
    if (++comparisons > 1000) {
      throw std::runtime_error("no end");
    }
    const unsigned int pair =
        *static_cast<const unsigned int*>(l) * 10 + *static_cast<const unsigned int*>(r);
    for (const unsigned int smaller : {2U, 13U, 21U, 42U, 43U}) {
      if (pair == smaller) {
        return -1;
      }
    }
    return 1;
  }));
  EXPECT_GT(comparisons, 13 * 4);
  Numbers left = untyped.items();
  std::sort(left.begin(), left.end());
  EXPECT_EQ(left, Numbers({0, 1, 2, 3, 4}));
}

TEST(ListImplementation, SortsOnUntilAPassSwapsNothingThoughTheComparisonIsNoOrder) {
  Untyped untyped(5);
  untyped.append({0, 1, 2, 3, 4});
  EXPECT_FALSE(sort(untyped, [](const void* l, const void* r) {
    ++comparisons;
    const unsigned int pair =
        *static_cast<const unsigned int*>(l) * 10 + *static_cast<const unsigned int*>(r);
    for (const unsigned int greater : {1U, 10U, 12U, 13U, 21U, 34U, 43U}) {
      if (pair == greater) {
        return 1;
      }
    }
    return 0;
  }));
  // 10243, 02134, 01243, 10234, 02314, and the sixth pass finds nothing to swap.
  EXPECT_EQ(untyped.items(), Numbers({0, 2, 3, 1, 4}));
  EXPECT_EQ(comparisons, 6 * 4);
}

TEST(ListImplementation, KeepsItsElementsWhenAComparisonThrows) {
  Untyped untyped(4);
  untyped.append({3, 2, 1});
  EXPECT_THROW(sort(untyped,
                    [](const void* l, const void* r) {
                      if (comparisons == 1) {
                        throw std::runtime_error("comparison");
                      }
                      return compareNumbers(l, r);
                    }),
               std::runtime_error);
  EXPECT_EQ(untyped.items(), Numbers({2, 3, 1}));
}

TEST(ListImplementation, AsksForCapacityTimesElementSizeUpToTheLastByteOf32Bits) {
  Untyped untyped(0, 65535);
  NoMemory allocator;
  untyped.list.allocator = &allocator;
  EXPECT_THROW(untyped.list.extend(65537, &untyped.buffer), std::bad_alloc);
  EXPECT_EQ(allocator.asked, Numbers({UINT_MAX}));
  EXPECT_EQ(untyped.list.capacity, 0U);
  EXPECT_THROW(untyped.list.extend(1, &untyped.buffer), std::bad_alloc);
  EXPECT_EQ(allocator.asked, Numbers({UINT_MAX, 8 * 65535}));
  EXPECT_EQ(untyped.buffer, nullptr);
  untyped.list.allocator = HeapMemoryAllocator::instance();
}

TEST(ListImplementation, RefusesABufferWhoseSizeDoesNotFitIn32BitsWithoutAsking) {
  void* buffer;
  EXPECT_THROW(ListImplementation(&buffer, 65538, nullptr, 65535, 8), std::bad_alloc);
  EXPECT_THROW(ListImplementation(&buffer, 1U << 30, nullptr, 4, 8), std::bad_alloc);
  EXPECT_THROW(ListImplementation(&buffer, UINT_MAX, nullptr, 2, 8), std::bad_alloc);
  Untyped untyped(0, 65535);
  NoMemory allocator;
  untyped.list.allocator = &allocator;
  const std::vector<char> item(65535);
  EXPECT_THROW(untyped.list.extend(65538, &untyped.buffer), std::bad_alloc);
  EXPECT_THROW(untyped.list.extend(UINT_MAX, &untyped.buffer), std::bad_alloc);
  EXPECT_THROW(untyped.list.insert_at(65538, &untyped.buffer, item.data()), std::bad_alloc);
  EXPECT_THROW(untyped.list.insert_at(UINT_MAX, &untyped.buffer, item.data()), std::bad_alloc);
  EXPECT_THROW(untyped.list.appendItems(&untyped.buffer, item.data(), 65538), std::bad_alloc);
  EXPECT_EQ(allocator.asked, Numbers());
  EXPECT_EQ(untyped.list.capacity, 0U);
  EXPECT_EQ(untyped.list.count, 0U);
  EXPECT_EQ(untyped.buffer, nullptr);
  untyped.list.allocator = HeapMemoryAllocator::instance();
}

TEST(ListImplementation, RefusesACapacityThatDoesNotFitIn32Bits) {
  EndlessMemory allocator;
  Untyped untyped(0, 1);
  untyped.list.allocator = &allocator;
  untyped.list.extend(UINT_MAX - 7, &untyped.buffer);
  EXPECT_EQ(untyped.list.capacity, UINT_MAX - 7);
  EXPECT_THROW(untyped.list.extend(UINT_MAX, &untyped.buffer), std::bad_alloc);
  EXPECT_THROW(untyped.list.appendItems(&untyped.buffer, "", UINT_MAX), std::bad_alloc);
  EXPECT_EQ(untyped.list.capacity, UINT_MAX - 7);
  EXPECT_EQ(untyped.list.count, 0U);
  untyped.list.extend(UINT_MAX - 7, &untyped.buffer);
  EXPECT_EQ(untyped.list.capacity, UINT_MAX - 7);
}

TEST(ListImplementation, StaysAsItWasWhenThereIsNoMemoryToGrow) {
  Untyped untyped(3);
  untyped.append({1, 2, 3});
  NoMemory allocator;
  untyped.list.allocator = &allocator;
  const void* const before = untyped.buffer;
  EXPECT_THROW(untyped.append({4}), std::bad_alloc);
  EXPECT_THROW(untyped.insert(0, 4), std::bad_alloc);
  EXPECT_THROW(untyped.insert(30, 4), std::bad_alloc);
  EXPECT_EQ(allocator.asked, Numbers({11 * 4, 11 * 4, 38 * 4}));
  EXPECT_EQ(allocator.returned, 0);
  EXPECT_EQ(untyped.buffer, before);
  EXPECT_EQ(untyped.list.capacity, 3U);
  EXPECT_EQ(untyped.items(), Numbers({1, 2, 3}));
  untyped.list.allocator = HeapMemoryAllocator::instance();
}
