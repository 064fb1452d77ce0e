#include <algorithm>
#include <atomic>
#include <bit>
#include <compare>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/List.h"
#include "Engine/utilities/Pool.h"
#include "Engine/utilities/StdThread.h"

#include "tests/support/Child.h"
#include "tests/support/Famine.h"

// What sorting makes of a list, for the comparisons of the engine and for worse ones. Lists of up
// to 16 elements are sorted by passes, longer ones are merged.

namespace {

using Compare = int (*)(const void*, const void*);

// Ends passes that do not end.
class NoEnd : public std::runtime_error {
 public:
  NoEnd() : std::runtime_error("no end") {}
};

template <typename T>
struct Sorted {
  std::vector<T> elements;
  bool wasInOrder;

  bool operator==(const Sorted&) const = default;
};

// The rule: passes over the adjacent pairs until one swaps nothing.
template <typename T>
Sorted<T> sortedByPasses(std::vector<T> elements, Compare compare) {
  for (unsigned pass = 0;; ++pass) {
    bool swapped = false;
    for (size_t i = 1; i < elements.size(); ++i) {
      if (compare(&elements[i - 1], &elements[i]) > 0) {
        std::swap(elements[i - 1], elements[i]);
        swapped = true;
      }
    }
    if (!swapped) {
      return {elements, pass == 0};
    }
    if (pass > 2 * elements.size()) {
      throw NoEnd();
    }
  }
}

template <typename T>
std::vector<T> itemsOf(const List<T>& list) {
  return {list.begin(), list.end()};
}

template <typename T>
Sorted<T> sorted(const std::vector<T>& elements, Compare compare, Pool* pool = nullptr) {
  List<T> list(0, pool);
  list.append(elements.data(), static_cast<unsigned>(elements.size()));
  const bool wasInOrder = list.sort(compare);
  return {itemsOf(list), wasInOrder};
}

int signOf(std::strong_ordering order) { return order < 0 ? -1 : static_cast<int>(order > 0); }

template <typename T>
int compareValues(const void* left, const void* right) {
  T l;
  T r;
  std::memcpy(&l, left, sizeof l);
  std::memcpy(&r, right, sizeof r);
  return signOf(l <=> r);
}

unsigned long comparisons = 0;

int countedComparison(const void* left, const void* right) {
  ++comparisons;
  return compareValues<int>(left, right);
}

// An element that says where it stood.
struct Numbered {
  int key;
  int number;

  bool operator==(const Numbered&) const = default;
};

void PrintTo(const Numbered& n, std::ostream* out) { *out << n.key << '#' << n.number; }

int keyOf(const void* element) { return static_cast<const Numbered*>(element)->key; }

int compareKeys(const void* left, const void* right) {
  return signOf(keyOf(left) <=> keyOf(right));
}

std::vector<Numbered> numbered(const std::vector<int>& keys) {
  std::vector<Numbered> result;
  for (const int key : keys) {
    result.push_back({key, static_cast<int>(result.size())});
  }
  return result;
}

std::mt19937 randomly;

// Each test has the same numbers, whatever tests come before.
class ListSort : public testing::Test {
 protected:
  ListSort() { randomly.seed(7); }
};

int randomBelow(int n) { return static_cast<int>(randomly() % static_cast<unsigned>(n)); }

std::vector<int> randomKeys(int count, int below) {
  std::vector<int> keys(static_cast<size_t>(count));
  std::generate(keys.begin(), keys.end(), [below] { return randomBelow(below); });
  return keys;
}

std::vector<int> upTo(int count) {
  std::vector<int> keys(static_cast<size_t>(count));
  std::iota(keys.begin(), keys.end(), 0);
  return keys;
}

template <typename T>
bool isPermutation(std::vector<T> left, std::vector<T> right) {
  const auto isLess = [](const T& l, const T& r) { return std::memcmp(&l, &r, sizeof l) < 0; };
  std::sort(left.begin(), left.end(), isLess);
  std::sort(right.begin(), right.end(), isLess);
  return left == right;
}

template <typename T>
void expectWhatPassesMake(const std::vector<T>& elements, Compare compare) {
  const Sorted<T> expected = sortedByPasses(elements, compare);
  EXPECT_EQ(sorted(elements, compare).elements, expected.elements);
  EXPECT_EQ(sorted(elements, compare).wasInOrder, expected.wasInOrder);
}

// Elements of a size are compared by their first byte, or the first two.
template <size_t size>
struct Bytes {
  unsigned char bytes[size];

  bool operator==(const Bytes&) const = default;
};

template <size_t size>
int compareBytes(const void* left, const void* right) {
  return std::memcmp(left, right, std::min<size_t>(size, 2));
}

template <size_t size>
void sortBytes() {
  for (const int count : {2, 15, 16, 17, 18, 40, 333}) {
    std::vector<Bytes<size>> elements(static_cast<size_t>(count));
    for (Bytes<size>& element : elements) {
      for (unsigned char& byte : element.bytes) {
        byte = static_cast<unsigned char>(randomBelow(5));
      }
    }
    expectWhatPassesMake(elements, compareBytes<size>);
  }
}

}  // namespace

TEST_F(ListSort, ReturnsAtOnceForFewerThanTwoElements) {
  const Compare never = [](const void*, const void*) -> int { throw NoEnd(); };
  EXPECT_EQ(sorted(std::vector<int>(), never), (Sorted<int>{{}, true}));
  EXPECT_EQ(sorted(std::vector<int>{1}, never), (Sorted<int>{{1}, true}));
}

TEST_F(ListSort, SaysWhetherTheListWasInOrderAndComparesEachPairOnceThen) {
  for (const int count : {2, 3, 16, 17, 100, 1000}) {
    std::vector<int> keys = upTo(count);
    comparisons = 0;
    EXPECT_EQ(sorted(keys, countedComparison), (Sorted<int>{keys, true}));
    EXPECT_EQ(comparisons, static_cast<unsigned long>(count) - 1);
    const std::vector<int> equals(keys.size(), 5);
    EXPECT_EQ(sorted(equals, countedComparison), (Sorted<int>{equals, true}));
    EXPECT_EQ(comparisons, 2 * (static_cast<unsigned long>(count) - 1));
    std::swap(keys[keys.size() - 2], keys.back());
    EXPECT_EQ(sorted(keys, countedComparison), (Sorted<int>{upTo(count), false}));
    keys = upTo(count);
    std::swap(keys[0], keys[1]);
    EXPECT_EQ(sorted(keys, countedComparison), (Sorted<int>{upTo(count), false}));
    keys = upTo(count);
    std::reverse(keys.begin(), keys.end());
    EXPECT_EQ(sorted(keys, countedComparison), (Sorted<int>{upTo(count), false}));
  }
}

TEST_F(ListSort, KeepsTheOrderOfEqualElementsInListsOfAnyLength) {
  for (int count = 0; count < 200; ++count) {
    for (const int keys : {1, 2, 3, 10, 1000}) {
      expectWhatPassesMake(numbered(randomKeys(count, keys)), compareKeys);
    }
  }
  std::vector<Numbered> many = numbered(randomKeys(50000, 7));
  const std::vector<Numbered> result = sorted(many, compareKeys).elements;
  std::stable_sort(many.begin(), many.end(),
                   [](const Numbered& l, const Numbered& r) { return l.key < r.key; });
  EXPECT_EQ(result, many);
}

TEST_F(ListSort, SortsWhatIsNearlyInOrder) {
  for (const int count : {16, 17, 64, 250}) {
    for (int round = 0; round < 50; ++round) {
      std::vector<int> keys = upTo(count);
      for (int change = randomBelow(4); change >= 0; --change) {
        const int from = randomBelow(count);
        const int to = randomBelow(count);
        const int key = keys[static_cast<size_t>(from)];
        keys.erase(keys.begin() + from);
        keys.insert(keys.begin() + to, key);
      }
      expectWhatPassesMake(numbered(keys), compareKeys);
    }
  }
}

TEST_F(ListSort, SortsElementsOfEverySize) {
  sortBytes<1>();
  sortBytes<2>();
  sortBytes<3>();
  sortBytes<4>();
  sortBytes<7>();
  sortBytes<8>();
  sortBytes<12>();
  sortBytes<16>();
  sortBytes<40>();
  sortBytes<1000>();
}

TEST_F(ListSort, SortsTheElementsThatTheLibraryKeepsInLists) {
  const auto shuffled = [](auto elements) {
    std::shuffle(elements.begin(), elements.end(), randomly);
    return elements;
  };
  std::vector<short> targets(100);
  std::vector<short*> pointers;
  for (short& target : targets) {
    pointers.push_back(&target);
  }
  expectWhatPassesMake(shuffled(pointers), compareValues<std::uintptr_t>);
  std::vector<unsigned char> flags(50, 1);
  flags.resize(100);
  expectWhatPassesMake(shuffled(flags), compareValues<unsigned char>);
  std::vector<std::uint64_t> numbers(100);
  std::iota(numbers.begin(), numbers.end(), ~std::uint64_t{0} - 50);
  expectWhatPassesMake(shuffled(numbers), compareValues<std::uint64_t>);
}

TEST_F(ListSort, SortsInPoolMemory) {
  Pool pool(10000, 100, nullptr);
  const std::vector<Numbered> elements = numbered(randomKeys(300, 20));
  EXPECT_EQ(sorted(elements, compareKeys, &pool), sortedByPasses(elements, compareKeys));
}

TEST_F(ListSort, TakesAComparisonThatOnlySaysWhatIsGreater) {
  const Compare comparisonsOfGreater[] = {
      [](const void* l, const void* r) { return static_cast<int>(keyOf(l) > keyOf(r)); },
      [](const void* l, const void* r) { return keyOf(l) > keyOf(r) ? 1 : -1; },
      [](const void* l, const void* r) { return keyOf(l) > keyOf(r) ? 4711 : -4711; }};
  for (const Compare compare : comparisonsOfGreater) {
    for (const int count : {16, 17, 60, 300}) {
      expectWhatPassesMake(numbered(randomKeys(count, 10)), compare);
      expectWhatPassesMake(numbered(randomKeys(count, 10000)), compare);
    }
  }
}

// Neither of a name and its beginning is greater. So one and the same name may stand beside
// several that are in order among themselves.
TEST_F(ListSort, SortsNamesOfWhichSomeAreTheBeginningsOfOthersAsPassesDo) {
  const Compare compareNames = [](const void* left, const void* right) {
    const EncodedString& l = **static_cast<const EncodedString* const*>(left);
    const EncodedString& r = **static_cast<const EncodedString* const*>(right);
    return l < r ? -1 : static_cast<int>(l > r);
  };
  unsigned long otherwise = 0;
  for (int round = 0; round < 1500; ++round) {
    const int count = 2 + randomBelow(62);
    const int letters = 2 + randomBelow(3);
    const int longest = 1 + randomBelow(12);
    std::vector<EncodedString> names(static_cast<size_t>(count));
    std::vector<const EncodedString*> list;
    for (EncodedString& name : names) {
      std::string text;
      for (int n = randomBelow(longest + 1); n > 0; --n) {
        text += static_cast<char>('a' + randomBelow(letters));
      }
      name = EncodedString(text.c_str(), EncodedString::utf8);
      list.push_back(&name);
    }
    const auto expected = sortedByPasses(list, compareNames);
    const auto result = sorted(list, compareNames);
    EXPECT_EQ(result.elements, expected.elements) << count;
    EXPECT_EQ(result.wasInOrder, expected.wasInOrder);
    std::stable_sort(list.begin(), list.end(),
                     [](const EncodedString* l, const EncodedString* r) { return *l < *r; });
    otherwise += static_cast<unsigned long>(list != expected.elements);
  }
  // A stable sort alone is not enough.
  EXPECT_GT(otherwise, 100U);
}

TEST_F(ListSort, SortsManyNamesOfWhichMostAreAlikeAsPassesDo) {
  for (const int count : {100, 300, 1000}) {
    for (const int different : {3, 10, 50}) {
      std::vector<std::string> texts = {"zz", "zzc", "zzd"};
      for (int i = 0; i < different; ++i) {
        texts.push_back("n" + std::to_string(100 + i));
      }
      // Each of them often, and all but the last three beginning no other.
      std::vector<const std::string*> list;
      for (int i = 0; i < count; ++i) {
        list.push_back(&texts[static_cast<size_t>(randomBelow(different + 3))]);
      }
      expectWhatPassesMake(list, [](const void* left, const void* right) {
        const std::string& l = **static_cast<const std::string* const*>(left);
        const std::string& r = **static_cast<const std::string* const*>(right);
        return std::memcmp(l.data(), r.data(), std::min(l.size(), r.size()));
      });
    }
  }
}

namespace {

// Pairs of numbers, greater when both are.
int xOf(const void* element) { return keyOf(element) / 1000; }
int yOf(const void* element) { return keyOf(element) % 1000; }

int compareBoth(const void* l, const void* r) {
  return static_cast<int>(xOf(l) > xOf(r) && yOf(l) > yOf(r)) -
         static_cast<int>(xOf(l) < xOf(r) && yOf(l) < yOf(r));
}

}  // namespace

TEST_F(ListSort, SortsWhatIsOnlyPartlyOrderedAsPassesDo) {
  for (int round = 0; round < 1500; ++round) {
    const int count = 2 + randomBelow(62);
    const int spread = 1 + randomBelow(20);
    std::vector<int> keys;
    for (int i = 0; i < count; ++i) {
      const int x = randomBelow(100);
      keys.push_back(1000 * x + x + randomBelow(spread));
    }
    expectWhatPassesMake(numbered(keys), compareBoth);
  }
}

TEST_F(ListSort, SortsWhatIsOnlyPartlyOrderedThoughTwoElementsFarApartGoUncompared) {
  expectWhatPassesMake(numbered({15015, 14015, 10010, 14015, 20019, 7005, 16016, 2004, 22023, 8005,
                                 3000, 14010, 12013, 4005, 2004, 2003, 13014}),
                       compareBoth);
}

TEST_F(ListSort, SortsWhatIsOnlyPartlyOrderedThoughSomeThatHaveChangedPlacesAreNotGreater) {
  expectWhatPassesMake(numbered({10010, 5050, 5050, 20060, 30040, 15070, 20060, 20060, 5050, 5050,
                                 5050, 5050, 5050, 5050, 5050, 15070, 10010}),
                       compareBoth);
}

TEST_F(ListSort, SortsManyElementsThatAreNearlyAllInAnOrder) {
  for (int round = 0; round < 20; ++round) {
    std::vector<int> keys;
    for (int i = 0; i < 700; ++i) {
      const int x = randomBelow(900);
      keys.push_back(1000 * x + x + randomBelow(3));
    }
    expectWhatPassesMake(numbered(keys), compareBoth);
  }
}

TEST_F(ListSort, TakesAnyComparisonForAShortList) {
  unsigned ended = 0;
  for (int round = 0; round < 2000; ++round) {
    const std::vector<Numbered> elements = numbered(randomKeys(2 + randomBelow(15), 3));
    // The paper beats the stone, the scissors the paper, the stone the scissors.
    const Compare compare = [](const void* l, const void* r) {
      return keyOf(l) == keyOf(r) ? 0 : (keyOf(l) + 1) % 3 == keyOf(r) ? -1 : 1;
    };
    Sorted<Numbered> expected;
    try {
      expected = sortedByPasses(elements, compare);
    } catch (const NoEnd&) {
      EXPECT_TRUE(isPermutation(sorted(elements, compare).elements, elements));
      continue;
    }
    EXPECT_EQ(sorted(elements, compare), expected);
    ++ended;
  }
  EXPECT_GT(ended, 100U);
}

TEST_F(ListSort, EndsWithAllElementsWhateverAComparisonSays) {
  const Compare comparisonsWithoutSense[] = {
      [](const void*, const void*) { return 1; },
      [](const void* l, const void* r) { return keyOf(l) >= keyOf(r) ? 1 : -1; },
      [](const void* l, const void* r) { return (keyOf(l) * 31 + keyOf(r) * 17) % 7 - 3; },
      [](const void* l, const void* r) { return keyOf(l) - 2 * keyOf(r); }};
  for (const Compare compare : comparisonsWithoutSense) {
    for (const int count : {2, 5, 16, 17, 18, 40, 100}) {
      const std::vector<Numbered> elements = numbered(randomKeys(count, 4));
      EXPECT_TRUE(isPermutation(sorted(elements, compare).elements, elements));
    }
  }
}

// With such a comparison equal elements change places in each pass.
TEST_F(ListSort, SortsWithAComparisonThatTakesEqualElementsForGreater) {
  const Compare compare = [](const void* l, const void* r) {
    ++comparisons;
    return keyOf(l) >= keyOf(r) ? 1 : -1;
  };
  const auto isLess = [](const Numbered& l, const Numbered& r) { return l.key < r.key; };
  for (const int count : {2, 16, 17, 40, 200, 5000}) {
    for (const int below : {1, 4, 50}) {
      std::vector<int> keys = randomKeys(count, below);
      keys[0] = keys[1];
      const std::vector<Numbered> elements = numbered(keys);
      comparisons = 0;
      const Sorted<Numbered> result = sorted(elements, compare);
      EXPECT_FALSE(result.wasInOrder);
      EXPECT_TRUE(isPermutation(result.elements, elements));
      EXPECT_TRUE(std::is_sorted(result.elements.begin(), result.elements.end(), isLess));
      if (count > 16) {
        EXPECT_LE(comparisons, 16UL * static_cast<unsigned long>(count));
      }
    }
    std::vector<int> different = upTo(std::min(count, 200));
    std::shuffle(different.begin(), different.end(), randomly);
    expectWhatPassesMake(numbered(different), compare);
  }
}

// The passes of a comparison that is no order end where they always did.
TEST_F(ListSort, TurnsTheElementsOfAShortListAsOftenAsThereArePasses) {
  const Compare compare = [](const void*, const void*) { return 1; };
  // Each pass carries the first element to the end. One is made for each element until the first
  // look; as many bring the same order back.
  for (const int count : {3, 10, 16}) {
    const std::vector<Numbered> elements = numbered(upTo(count));
    EXPECT_EQ(sorted(elements, compare), (Sorted<Numbered>{elements, false}));
  }
}

namespace {

unsigned long throwAt = 0;

int throwingComparison(const void* left, const void* right) {
  if (++comparisons == throwAt) {
    throw std::out_of_range("comparison");
  }
  return compareKeys(left, right);
}

}  // namespace

TEST_F(ListSort, KeepsEachElementOnceWhicheverComparisonThrows) {
  for (const int count : {2, 10, 16, 17, 33, 70}) {
    const std::vector<Numbered> elements = numbered(randomKeys(count, count / 2));
    unsigned long thrown = 0;
    for (bool isDone = false; !isDone;) {
      List<Numbered> list;
      list.append(elements.data(), static_cast<unsigned>(count));
      comparisons = 0;
      throwAt = thrown + 1;
      try {
        list.sort(throwingComparison);
        isDone = true;
      } catch (const std::out_of_range&) {
        ++thrown;
        EXPECT_TRUE(isPermutation(itemsOf(list), elements)) << "comparison " << throwAt;
        if (count > 16) {
          EXPECT_EQ(itemsOf(list), elements) << "comparison " << throwAt;
        }
        throwAt = 0;
        list.sort(throwingComparison);
        EXPECT_EQ(itemsOf(list), sortedByPasses(elements, compareKeys).elements);
      }
    }
    EXPECT_GE(thrown, static_cast<unsigned long>(count) - 1);
  }
}

namespace {

const List<Numbered>* sortedList = nullptr;
std::vector<Numbered> itsElements;

}  // namespace

TEST_F(ListSort, ComparesTwoDifferentElementsOfTheListWhichStaysAsItIsMeanwhile) {
  const Compare compare = [](const void* left, const void* right) {
    for (const void* const element : {left, right}) {
      EXPECT_GE(static_cast<const Numbered*>(element), sortedList->begin());
      EXPECT_LT(static_cast<const Numbered*>(element), sortedList->end());
    }
    EXPECT_NE(left, right);
    EXPECT_EQ(itemsOf(*sortedList), itsElements);
    return compareKeys(left, right);
  };
  List<Numbered> list;
  itsElements = numbered(randomKeys(100, 20));
  list.append(itsElements.data(), list.count() + 100);
  sortedList = &list;
  list.sort(compare);
  EXPECT_EQ(itemsOf(list), sortedByPasses(itsElements, compareKeys).elements);
}

TEST_F(ListSort, SortsALongListInNLogNComparisonsAndOneNearlyInOrderInAFewForEachElement) {
  constexpr int count = 10000;
  constexpr unsigned long levels = 14;
  comparisons = 0;
  static_cast<void>(sorted(randomKeys(count, 1 << 30), countedComparison));
  EXPECT_LE(comparisons, (levels + 3) * count);
  std::vector<int> reversed = upTo(count);
  std::reverse(reversed.begin(), reversed.end());
  comparisons = 0;
  static_cast<void>(sorted(reversed, countedComparison));
  EXPECT_LE(comparisons, (levels + 3) * count);
  // Elements that are all alike in groups are looked at more often, but no more than that.
  constexpr unsigned long most = 1UL << 22;
  for (const int below : {2, 10, 100}) {
    comparisons = 0;
    static_cast<void>(sorted(randomKeys(count, below), countedComparison));
    EXPECT_LE(comparisons, (levels + 5) * count + most) << below;
  }
  std::vector<int> nearly = upTo(count);
  std::swap(nearly[count / 2], nearly[count / 2 + 1]);
  comparisons = 0;
  static_cast<void>(sorted(nearly, countedComparison));
  EXPECT_LE(comparisons, 5UL * count);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

CUL_CHILD(SortWithoutMemory) {
  std::set_new_handler([] { _exit(3); });
  constexpr int count = 200;
  std::vector<Numbered> reversed = numbered(upTo(count));
  std::reverse(reversed.begin(), reversed.end());
  List<Numbered> list;
  list.append(reversed.data(), count);
  bool wasInOrder = true;
  throwAt = 0;
  comparisons = 0;
  {
    const Famine famine;
    wasInOrder = list.sort(throwingComparison);
  }
  EXPECT_FALSE(wasInOrder);
  EXPECT_EQ(itemsOf(list), numbered(upTo(count)));
  // One finds out that the list is not in order, the others are those of the passes.
  EXPECT_EQ(comparisons, 1UL + count * (count - 1));
}

TEST_F(ListSort, MakesPassesAndCallsNoHandlerWhenThereIsNoMemory) {
  const ChildResult r = runChild("SortWithoutMemory");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

#endif

namespace {

std::atomic<unsigned long> comparisonsOfThread = 0;

// Waits for a request to end in one comparison.
class SortUntilAsked : public StdThread {
 public:
  SortUntilAsked(List<Numbered>& list, unsigned long waitAt, Termination* termination)
      : StdThread("sort", 0, termination), list_(list) {
    throwAt = waitAt;
  }

  void run() override {
    list_.sort([](const void* left, const void* right) {
      if (++comparisonsOfThread == throwAt) {
        for (;;) {
          pause();
        }
      }
      return compareKeys(left, right);
    });
  }

 private:
  List<Numbered>& list_;
};

}  // namespace

CUL_CHILD(SortEnded) {
  const std::vector<Numbered> elements = numbered(randomKeys(60, 20));
  // The look whether the list is in order, short runs, merging, and the look at the result.
  for (const unsigned long waitAt : {1UL, 20UL, 100UL, 250UL, 400UL}) {
    List<Numbered> list;
    list.append(elements.data(), static_cast<unsigned>(elements.size()));
    comparisonsOfThread = 0;
    StdThread::Termination termination;
    auto* const thread = new SortUntilAsked(list, waitAt, &termination);
    thread->start_thread(0);
    while (comparisonsOfThread < waitAt) {
      std::this_thread::yield();
    }
    EXPECT_EQ(thread->requestTerminate(), 0);
    EXPECT_EQ(termination.wait(0), 0);
    EXPECT_EQ(comparisonsOfThread, waitAt);
    EXPECT_EQ(itemsOf(list), elements);
  }
}

TEST_F(ListSort, KeepsTheListAsItWasWhenTheThreadIsEndedInAComparison) {
  // A thread that ends does so in its signal handler, which the thread sanitizer dislikes.
  const char* const options = std::getenv("TSAN_OPTIONS");
  const std::string given = options == nullptr ? "" : std::string(options) + ":";
  const ChildResult r =
      runChild("SortEnded", {.environment = {{"TSAN_OPTIONS", given + "report_signal_unsafe=0"}}});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}
