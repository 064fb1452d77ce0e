#include "Engine/utilities/List.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <new>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/Pool.h"

namespace {

template <typename T>
std::vector<T> itemsOf(const List<T>& list) {
  return {list.begin(), list.end()};
}

int compareInts(const void* left, const void* right) {
  const int l = *static_cast<const int*>(left);
  const int r = *static_cast<const int*>(right);
  return l < r ? -1 : static_cast<int>(l > r);
}

using Ints = std::vector<int>;

}  // namespace

TEST(List, HoldsTheBufferPointerDirectlyBehindItsCore) {
  EXPECT_EQ(sizeof(List<int>), sizeof(ListImplementation) + sizeof(int*));
  EXPECT_EQ(sizeof(List<char>), sizeof(List<int>));
}

TEST(List, IsNotCopyable) {
  EXPECT_FALSE(std::is_copy_constructible_v<List<int>>);
  EXPECT_FALSE(std::is_copy_assignable_v<List<int>>);
}

TEST(List, IsReturnedByAFunctionWithoutCopyingItsElements) {
  List<int> source(4);
  source.add(7);
  source.add(8);
  const int* const elements = source.begin();
  const List<int> taken = [&source] { return std::move(source); }();
  EXPECT_EQ(taken.begin(), elements);
  EXPECT_EQ(Ints(taken.begin(), taken.end()), (Ints{7, 8}));
  EXPECT_EQ(taken.capacity(), 4U);
  EXPECT_TRUE(source.isEmpty());
  EXPECT_EQ(source.capacity(), 0U);
  source.add(9);
  EXPECT_EQ(Ints(source.begin(), source.end()), Ints{9});
}

TEST(List, StartsEmptyWithRoomForItsInitialCapacity) {
  const List<int> none;
  EXPECT_EQ(none.count(), 0U);
  EXPECT_TRUE(none.isEmpty());
  EXPECT_EQ(none.capacity(), 0U);
  EXPECT_EQ(none.begin(), nullptr);
  EXPECT_EQ(none.begin(), none.end());
  const List<int> some(16);
  EXPECT_TRUE(some.isEmpty());
  EXPECT_EQ(some.capacity(), 16U);
}

TEST(List, GrowsByEightElementsUnlessToldOtherwise) {
  List<int> list;
  std::vector<unsigned> capacities;
  for (int i = 0; i < 20; ++i) {
    list.add(i);
    if (capacities.empty() || capacities.back() != list.capacity()) {
      capacities.push_back(list.capacity());
    }
  }
  EXPECT_EQ(capacities, std::vector<unsigned>({8, 16, 24}));
  List<int> coarse(1, nullptr, 100);
  coarse.add(1);
  coarse.add(2);
  EXPECT_EQ(coarse.capacity(), 101U);
}

TEST(List, MakesRoomForManyAtOnce) {
  List<int> list;
  list.add(1);
  list.extend(100);
  EXPECT_EQ(list.capacity(), 101U);
  const int* const before = list.begin();
  for (int i = 0; i < 100; ++i) {
    list.add(i);
  }
  EXPECT_EQ(list.begin(), before);
  EXPECT_EQ(list[0], 1);
  EXPECT_EQ(list[100], 99);
}

TEST(List, AddsInsertsAndRemoves) {
  List<int> list;
  list.add(10);
  list.add(30);
  list.insertAt(1, 20);
  list.insertAt(3, 40);
  EXPECT_EQ(itemsOf(list), Ints({10, 20, 30, 40}));
  list.removeAt(0);
  list.removeAt(7);
  EXPECT_EQ(itemsOf(list), Ints({20, 30, 40}));
  EXPECT_FALSE(list.isEmpty());
}

TEST(List, InsertsBehindTheEndWithARunOfZeros) {
  List<int> list;
  list.add(1);
  list.insertAt(4, 5);
  EXPECT_EQ(itemsOf(list), Ints({1, 0, 0, 0, 5}));
}

TEST(List, AppendsARun) {
  List<int> list(2);
  const int run[] = {1, 2, 3, 4, 5};
  list.append(run, 5);
  list.append(nullptr, 0);
  EXPECT_EQ(itemsOf(list), Ints({1, 2, 3, 4, 5}));
  EXPECT_EQ(list.capacity(), 10U);
}

TEST(List, TakesItsOwnElementsForWhatItAdds) {
  List<int> list(2, nullptr, 1);
  list.add(1);
  list.add(2);
  list.add(list[0]);
  list.insertAt(0, list[1]);
  list.insertAt(0, list[3]);
  list.append(list.begin(), list.count());
  EXPECT_EQ(itemsOf(list), Ints({1, 2, 1, 2, 1, 1, 2, 1, 2, 1}));
}

TEST(List, IndexesFromZeroAndFindsFromOne) {
  List<int> list;
  const int run[] = {5, 6, 7, 6};
  list.append(run, 4);
  EXPECT_EQ(list[0], 5);
  list[3] = 8;
  EXPECT_EQ(list[3], 8);
  EXPECT_EQ(list.indexOf(5), 1U);
  EXPECT_EQ(list.indexOf(6), 2U);
  EXPECT_EQ(list.indexOf(8), 4U);
  EXPECT_EQ(list.indexOf(9), 0U);
}

TEST(List, RemovesTheFirstEqualElement) {
  List<int> list;
  const int run[] = {5, 6, 7, 6};
  list.append(run, 4);
  EXPECT_TRUE(list.remove(6));
  EXPECT_EQ(itemsOf(list), Ints({5, 7, 6}));
  EXPECT_FALSE(list.remove(9));
  EXPECT_TRUE(list.remove(list[2]));
  EXPECT_EQ(itemsOf(list), Ints({5, 7}));
}

TEST(List, KeepsItsCapacityWhenAllElementsAreRemoved) {
  List<int> list;
  list.add(1);
  list.removeAll();
  EXPECT_TRUE(list.isEmpty());
  EXPECT_EQ(list.capacity(), 8U);
  EXPECT_EQ(list.indexOf(1), 0U);
  list.add(2);
  EXPECT_EQ(itemsOf(list), Ints({2}));
}

TEST(List, SortsAndSaysWhetherItWasInOrder) {
  List<int> list;
  const int run[] = {3, -1, 2};
  list.append(run, 3);
  EXPECT_FALSE(list.sort(compareInts));
  EXPECT_EQ(itemsOf(list), Ints({-1, 2, 3}));
  EXPECT_TRUE(list.sort(compareInts));
}

TEST(List, HoldsPointersAndOwnsNothingBehindThem) {
  std::string a = "a";
  std::string b = "b";
  {
    List<std::string*> list;
    list.add(&a);
    list.add(&b);
    EXPECT_EQ(list.indexOf(&b), 2U);
    EXPECT_EQ(*list[0], "a");
  }
  EXPECT_EQ(a + b, "ab");
}

TEST(List, HoldsSmallStructures) {
  struct Pair {
    std::uint32_t key, value, spare;
  };
  List<Pair> list;
  list.add({1, 2, 3});
  list.add({1, 2, 4});
  EXPECT_EQ(list.indexOf({1, 2, 4}), 2U);
  EXPECT_EQ(list.indexOf({1, 2, 5}), 0U);
}

TEST(List, LeavesItsMemoryInThePoolItIsGiven) {
  Pool pool(10000, 100, "lists");
  {
    List<int> list(0, &pool);
    for (int i = 0; i < 20; ++i) {
      list.add(i);
    }
    EXPECT_EQ(list.indexOf(19), 20U);
    EXPECT_EQ(pool.first->used, 40U + 72U + 104U);
  }
  EXPECT_EQ(pool.first->used, 40U + 72U + 104U);
}

TEST(List, ReturnedByAFunctionGrowsInItsPoolAsBefore) {
  Pool pool(10000, 100, "lists");
  List<short> source(2, &pool, 3);
  source.add(7);
  source.add(8);
  List<short> taken = [&source] { return std::move(source); }();
  const auto used = pool.first->used;
  taken.add(9);
  EXPECT_EQ(itemsOf(taken), (std::vector<short>{7, 8, 9}));
  EXPECT_EQ(taken.capacity(), 5U);
  EXPECT_GT(pool.first->used, used);
  source.add(1);
  EXPECT_EQ(source.capacity(), 3U);
}

TEST(List, HoldsPointersInAPool) {
  Pool pool(10000, 100, "pointers");
  const int numbers[20] = {};
  List<const int*> list(0, &pool);
  for (const int& number : numbers) {
    list.add(&number);
  }
  for (unsigned i = 0; i < 20; ++i) {
    EXPECT_EQ(list.indexOf(&numbers[i]), i + 1);
  }
  EXPECT_TRUE(list.remove(&numbers[0]));
  EXPECT_EQ(list.indexOf(&numbers[19]), 19U);
}

TEST(List, RefusesASizeBeyond32BitsAndStaysAsItWas) {
  EXPECT_THROW(List<int>(1U << 30), std::bad_alloc);
  List<int> list;
  list.add(1);
  EXPECT_THROW(list.insertAt(UINT_MAX, 2), std::bad_alloc);
  EXPECT_THROW(list.insertAt(1U << 30, 2), std::bad_alloc);
  EXPECT_EQ(itemsOf(list), Ints({1}));
  EXPECT_EQ(list.capacity(), 8U);
}

TEST(List, BehavesLikeAVectorUnderAnyOperations) {
  std::mt19937 random(7);
  const auto below = [&random](unsigned n) { return static_cast<unsigned>(random() % n); };
  List<int> list(3, nullptr, 5);
  Ints model;
  for (int step = 0; step < 20000; ++step) {
    const int value = static_cast<int>(below(50));
    const unsigned index = below(list.count() + 2);
    switch (below(6)) {
      case 0:
      case 1:
        list.add(value);
        model.push_back(value);
        break;
      case 2:
        list.insertAt(index, value);
        if (index > model.size()) {
          model.resize(index);
        }
        model.insert(model.begin() + index, value);
        break;
      case 3:
        list.removeAt(index);
        if (index < model.size()) {
          model.erase(model.begin() + index);
        }
        break;
      case 4: {
        const auto found = std::find(model.begin(), model.end(), value);
        ASSERT_EQ(list.remove(value), found != model.end());
        if (found != model.end()) {
          model.erase(found);
        }
        break;
      }
      default: {
        const auto found = std::find(model.begin(), model.end(), value);
        ASSERT_EQ(list.indexOf(value), found == model.end() ? 0 : found - model.begin() + 1);
        if (model.size() > 200) {
          list.removeAll();
          model.clear();
        }
      }
    }
    ASSERT_EQ(list.count(), model.size());
    ASSERT_TRUE(std::equal(model.begin(), model.end(), list.begin(), list.end()));
    ASSERT_GE(list.capacity(), list.count());
  }
}
