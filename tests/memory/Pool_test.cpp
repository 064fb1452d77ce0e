#include "Engine/utilities/Pool.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <malloc.h>
#include <memory>
#include <new>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/TracedChild.h"

namespace {

constexpr unsigned long tooMuch = 1UL << 63;

Pool* const noPool = nullptr;

std::vector<unsigned long> sizesOf(const Pool& pool) {
  std::vector<unsigned long> sizes;
  for (const PoolArea* area = pool.first; area != nullptr; area = area->next) {
    sizes.push_back(area->size);
  }
  return sizes;
}

unsigned int headerOf(const void* p) {
  unsigned int header;
  std::memcpy(&header, static_cast<const char*>(p) - 4, sizeof header);
  return header;
}

bool liesIn(const PoolArea& area, const void* p) {
  return static_cast<const char*>(p) >= area.buffer &&
         static_cast<const char*>(p) < area.buffer + area.size;
}

// A pool whose areas, each filled by one unit, have the sizes given: every later one is planned
// as 0 bytes and so takes exactly its unit.
void fillWithAreas(Pool& pool, const std::vector<unsigned long>& units) {
  for (const unsigned long unit : units) {
    ASSERT_NE(pool.get(unit - 4), nullptr);
  }
}

}  // namespace

using Sizes = std::vector<unsigned long>;

TEST(Pool, HasNoAreaUntilTheFirstRequest) {
  const Pool pool(1000, 50, "new");
  EXPECT_EQ(pool.first, nullptr);
  EXPECT_EQ(pool.allocated, 0U);
  EXPECT_EQ(pool.initialSize, 1000U);
  EXPECT_EQ(pool.increment, 50U);
  EXPECT_STREQ(pool.name, "new");
}

TEST(Pool, KeepsItsFieldsInTheirOrder) {
  Pool pool(1, 2, "order");
  const char* const start = reinterpret_cast<const char*>(&pool);
  const auto offset = [start](const void* field) {
    return static_cast<const char*>(field) - start;
  };
  EXPECT_EQ(offset(&pool.allocated), 0);
  EXPECT_EQ(offset(&pool.increment), 8);
  EXPECT_EQ(offset(&pool.initialSize), 16);
  EXPECT_EQ(offset(&pool.first), 24);
  EXPECT_EQ(offset(&pool.current), 32);
  EXPECT_EQ(offset(&pool.name), 40);
  EXPECT_EQ(offset(&pool.allocator()), 48);
  EXPECT_EQ(sizeof(Pool), 64U);
}

TEST(PoolArea, KeepsItsFieldsInTheirOrder) {
  const PoolArea area(nullptr, 8, "order");
  const char* const start = reinterpret_cast<const char*>(&area);
  const auto offset = [start](const void* field) {
    return static_cast<const char*>(field) - start;
  };
  EXPECT_EQ(offset(&area.previous), 0);
  EXPECT_EQ(offset(&area.next), 8);
  EXPECT_EQ(offset(&area.buffer), 16);
  EXPECT_EQ(offset(&area.name), 24);
  EXPECT_EQ(offset(&area.size), 32);
  EXPECT_EQ(offset(&area.used), 40);
  EXPECT_EQ(sizeof(PoolArea), 48U);
}

TEST(Pool, CountsFourMoreBytesForEachElementOfItsBaseSize) {
  const Pool pool(10, 24, 100, "elements");
  EXPECT_EQ(pool.initialSize, (24U + 4U) * 10U);
  EXPECT_EQ(pool.increment, 100U);
  EXPECT_STREQ(pool.name, "elements");
}

TEST(Pool, DoesNotWrapABaseSizeThatHasTooManyBits) {
  for (const auto& [elements, elementSize] :
       {std::pair(1UL << 62, 12UL), std::pair(1UL << 61, 4UL), std::pair(1UL, ULONG_MAX - 3),
        std::pair(2UL, ULONG_MAX)}) {
    Pool pool(elements, elementSize, 100, "wraps");
    EXPECT_THROW((void)pool.get(1), std::bad_alloc) << elements << " " << elementSize;
    EXPECT_EQ(pool.first, nullptr);
  }
}

TEST(Pool, CarvesUnitsOfHeaderAndRequestRoundedUpToEight) {
  const struct {
    unsigned long request;
    unsigned int unit;
  } cases[] = {{0, 8}, {1, 8}, {4, 8}, {5, 16}, {12, 16}, {13, 24}, {20, 24}, {1000, 1008}};
  Pool pool(4096, 100, "units");
  const char* expected = nullptr;
  for (const auto& [request, unit] : cases) {
    char* const p = static_cast<char*>(pool.get(request));
    if (expected == nullptr) {
      expected = pool.first->buffer + 4;
    }
    EXPECT_EQ(p, expected) << request;
    EXPECT_EQ(headerOf(p), unit) << request;
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % 8, 4U) << request;
    std::memset(p, 0xEE, request);
    expected += unit;
  }
  EXPECT_EQ(pool.first->used, 8U + 8 + 8 + 16 + 16 + 24 + 24 + 1008);
}

TEST(Pool, MakesTheFirstAreaAsLargeAsTheBaseSize) {
  Pool pool(100, 100, "first");
  (void)pool.get(10);
  EXPECT_EQ(sizesOf(pool), Sizes({100}));
  EXPECT_EQ(pool.allocated, 100U);
  EXPECT_EQ(pool.current, pool.first);
  EXPECT_EQ(pool.first->previous, nullptr);
  EXPECT_STREQ(pool.first->name, "first");
}

TEST(Pool, LeavesAFirstAreaUnusedThatIsJustAsLargeAsTheRequest) {
  Pool pool(0, 100, "exact");
  char* const p = static_cast<char*>(pool.get(10));
  EXPECT_EQ(sizesOf(pool), Sizes({10, 16}));
  EXPECT_EQ(pool.first->used, 0U);
  EXPECT_EQ(p, pool.first->next->buffer + 4);
  EXPECT_EQ(pool.first->next->previous, pool.first);
  EXPECT_EQ(pool.current, pool.first->next);
  EXPECT_EQ(pool.initialSize, 16U);
  EXPECT_EQ(pool.allocated, 26U);
}

TEST(Pool, FillsAnAreaToItsLastByteBeforeItGrows) {
  Pool pool(32, 100, "full");
  (void)pool.get(12);
  (void)pool.get(12);
  EXPECT_EQ(pool.first->used, 32U);
  EXPECT_EQ(pool.first->next, nullptr);
  (void)pool.get(0);
  EXPECT_EQ(sizesOf(pool), Sizes({32, 32}));
  EXPECT_EQ(pool.current->used, 8U);
}

TEST(Pool, GrowsWhenAUnitIsOneByteTooLarge) {
  Pool pool(31, 100, "full");
  (void)pool.get(12);
  (void)pool.get(12);
  EXPECT_EQ(sizesOf(pool), Sizes({31, 31}));
  EXPECT_EQ(pool.first->used, 16U);
}

TEST(Pool, SizesFurtherAreasInPercentOfTheBaseSize) {
  for (const auto& [increment, size] :
       {std::pair(50UL, 50UL), std::pair(100UL, 100UL), std::pair(250UL, 250UL),
        std::pair(17UL, 17UL), std::pair(16UL, 16UL)}) {
    Pool pool(100, increment, "percent");
    (void)pool.get(92);
    (void)pool.get(12);
    EXPECT_EQ(sizesOf(pool), Sizes({100, size})) << increment;
    EXPECT_EQ(pool.initialSize, 100U) << increment;
    EXPECT_EQ(pool.allocated, 100 + size) << increment;
  }
}

TEST(Pool, GrowsTheBaseSizeForGoodWhenAUnitIsLargerThanThePlannedArea) {
  Pool pool(100, 15, "planned");
  (void)pool.get(92);
  (void)pool.get(12);  // 15 bytes were planned for a unit of 16.
  EXPECT_EQ(sizesOf(pool), Sizes({100, 31}));
  EXPECT_EQ(pool.initialSize, 116U);
  EXPECT_EQ(pool.allocated, 131U);
  (void)pool.get(12);
  EXPECT_EQ(sizesOf(pool), Sizes({100, 31, 17}));  // 15 x 116 / 100: enough this time.
  EXPECT_EQ(pool.initialSize, 116U);
  EXPECT_EQ(pool.allocated, 148U);
}

TEST(Pool, ComputesThePlannedSizeIn64Bits) {
  Pool pool(100, 1UL << 62, "wraps");
  (void)pool.get(92);
  (void)pool.get(12);  // 2^62 x 100 wraps to 0.
  EXPECT_EQ(sizesOf(pool), Sizes({100, 16}));
}

TEST(Pool, UsesItsAreasAgainInOrderAfterClear) {
  Pool pool(64, 100, "clear");
  for (int i = 0; i < 4; ++i) {
    (void)pool.get(60);
  }
  EXPECT_EQ(sizesOf(pool), Sizes({64, 64, 64, 64}));
  PoolArea* const first = pool.first;
  pool.clear();
  EXPECT_EQ(pool.first, first);
  EXPECT_EQ(pool.current, first);
  EXPECT_EQ(first->used, 0U);
  EXPECT_EQ(pool.allocated, 256U);
  for (PoolArea* area = first; area != nullptr; area = area->next) {
    EXPECT_EQ(pool.get(60), area->buffer + 4);
    EXPECT_EQ(pool.current, area);
    EXPECT_EQ(area->used, 64U);
  }
  EXPECT_EQ(pool.allocated, 256U);
}

TEST(Pool, ResetsOnlyTheFirstAreaAtClearAndTheOthersWhenTheyAreReached) {
  Pool pool(64, 100, "clear");
  (void)pool.get(60);
  (void)pool.get(60);
  pool.clear();
  EXPECT_EQ(pool.first->next->used, 64U);
  (void)pool.get(60);
  (void)pool.get(4);
  EXPECT_EQ(pool.first->next->used, 8U);
}

TEST(Pool, ClearDoesNothingToAnEmptyPool) {
  Pool pool(64, 100, "empty");
  pool.clear();
  EXPECT_EQ(pool.first, nullptr);
  EXPECT_NE(pool.get(1), nullptr);
}

TEST(Pool, WalksOverReusedAreasThatAreTooSmallToOneThatIsLargeEnough) {
  Pool pool(16, 0, "walk");
  fillWithAreas(pool, {16, 24, 32, 64, 16});
  EXPECT_EQ(sizesOf(pool), Sizes({16, 24, 32, 64, 16}));
  PoolArea* const fourth = pool.first->next->next->next;
  const unsigned long baseSize = pool.initialSize;
  pool.clear();
  (void)pool.get(12);
  EXPECT_EQ(pool.get(60), fourth->buffer + 4);
  EXPECT_EQ(pool.current, fourth);
  EXPECT_EQ(fourth->used, 64U);
  EXPECT_EQ(pool.first->next->used, 24U) << "areas passed over keep what was used";
  EXPECT_EQ(pool.first->next->next->used, 32U);
  EXPECT_EQ(pool.initialSize, baseSize);
  EXPECT_EQ(sizesOf(pool), Sizes({16, 24, 32, 64, 16}));
}

TEST(Pool, NeverUsesTheLastAreaAtTheEndOfAWalk) {
  Pool pool(16, 0, "last");
  fillWithAreas(pool, {16, 24, 32, 64});
  PoolArea* const last = pool.current;
  const unsigned long baseSize = pool.initialSize;
  const unsigned long allocated = pool.allocated;
  pool.clear();
  (void)pool.get(12);
  void* const p = pool.get(60);
  EXPECT_EQ(sizesOf(pool), Sizes({16, 24, 32, 64, 64}));
  EXPECT_EQ(pool.current, last->next);
  EXPECT_EQ(pool.current->previous, last);
  EXPECT_TRUE(liesIn(*last->next, p));
  EXPECT_EQ(last->used, 64U);
  EXPECT_EQ(pool.initialSize, baseSize + 64);
  EXPECT_EQ(pool.allocated, allocated + 64);
}

TEST(Pool, AppendsWhenTheOnlyAreaToReuseIsTooSmall) {
  Pool pool(16, 0, "only");
  fillWithAreas(pool, {16, 24});
  pool.clear();
  (void)pool.get(12);
  (void)pool.get(60);
  EXPECT_EQ(sizesOf(pool), Sizes({16, 24, 64}));
}

TEST(Pool, UsesTheLastAreaWhenItIsTheNextOne) {
  Pool pool(16, 0, "next");
  fillWithAreas(pool, {16, 64});
  PoolArea* const last = pool.current;
  pool.clear();
  (void)pool.get(12);
  EXPECT_TRUE(liesIn(*last, pool.get(60)));
  EXPECT_EQ(sizesOf(pool), Sizes({16, 64}));
}

TEST(Pool, PlansTheAreaAppendedByAWalkFromTheIncrement) {
  Pool pool(100, 100, "walk");
  (void)pool.get(92);
  (void)pool.get(92);
  pool.increment = 300;
  pool.clear();
  (void)pool.get(92);
  (void)pool.get(196);  // 300 bytes are planned: large enough for the unit of 200.
  EXPECT_EQ(sizesOf(pool), Sizes({100, 100, 300}));
  EXPECT_EQ(pool.initialSize, 100U);
}

TEST(Pool, StartsAfreshAfterDestroy) {
  Pool pool(64, 100, "destroy");
  (void)pool.get(60);
  (void)pool.get(60);
  pool.destroy();
  EXPECT_EQ(pool.first, nullptr);
  EXPECT_EQ(pool.allocated, 128U);
  (void)pool.get(60);
  EXPECT_EQ(sizesOf(pool), Sizes({64}));
  EXPECT_EQ(pool.allocated, 64U);
  EXPECT_EQ(pool.current, pool.first);
}

TEST(Pool, MayBeDestroyedTwiceAndWithoutAnyArea) {
  Pool pool(64, 100, "destroy");
  pool.destroy();
  (void)pool.get(1);
  pool.destroy();
  pool.destroy();
  EXPECT_EQ(pool.first, nullptr);
}

TEST(Pool, FreesAChainOfAnyLengthOnASmallStack) {
  Pool pool(0, 0, "long");
  for (int i = 0; i < 50000; ++i) {
    (void)pool.get(4);
    pool.initialSize = 0;
  }
  ASSERT_EQ(sizesOf(pool).size(), 50001U);
  pthread_attr_t attributes;
  ASSERT_EQ(pthread_attr_init(&attributes), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, 262144), 0);
  pthread_t thread;
  const auto destroy = [](void* p) -> void* {
    static_cast<Pool*>(p)->destroy();
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, &attributes, destroy, &pool), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
  EXPECT_EQ(pool.first, nullptr);
}

TEST(Pool, RefusesARequestThatNoMemoryCanHoldAndStaysAsItWas) {
  for (const unsigned long request :
       {tooMuch, ULONG_MAX, ULONG_MAX - 1, ULONG_MAX - 2, ULONG_MAX - 3, ULONG_MAX - 4,
        ULONG_MAX - 7, ULONG_MAX - 10, ULONG_MAX - 11, ULONG_MAX - 12, ULONG_MAX - 100}) {
    Pool pool(64, 100, "huge");
    EXPECT_THROW((void)pool.get(request), std::bad_alloc) << request;
    EXPECT_EQ(pool.first, nullptr);
    EXPECT_EQ(pool.allocated, 0U);
    (void)pool.get(4);
    EXPECT_THROW((void)pool.get(request), std::bad_alloc) << request;
    EXPECT_EQ(sizesOf(pool), Sizes({64}));
    EXPECT_EQ(pool.allocated, 64U);
    EXPECT_EQ(pool.initialSize, 64U);
    EXPECT_EQ(pool.first->used, 8U);
    EXPECT_EQ(pool.get(4), pool.first->buffer + 12);
  }
}

TEST(Pool, RefusesAHugeRequestAlsoAtTheEndOfAWalk) {
  Pool pool(16, 0, "huge");
  fillWithAreas(pool, {16, 24, 32});
  pool.clear();
  (void)pool.get(12);
  EXPECT_THROW((void)pool.get(tooMuch), std::bad_alloc);
  EXPECT_EQ(sizesOf(pool), Sizes({16, 24, 32}));
  EXPECT_EQ(pool.current, pool.first);
  EXPECT_EQ(pool.get(20), pool.first->next->buffer + 4);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// The sanitizers' free stores end the process instead of throwing.
TEST(Pool, PassesTheFailureOfTheFreeStoreOnAndKeepsNothingOfTheNewArea) {
  // The library's own handler ends the process when the free store is exhausted.
  const struct WithoutHandler {
    std::new_handler libraryHandler = std::set_new_handler(nullptr);
    ~WithoutHandler() { std::set_new_handler(libraryHandler); }
  } withoutHandler;
  constexpr unsigned long unavailable = 1UL << 62;
  Pool pool(64, 100, "exhausted");
  EXPECT_THROW((void)pool.get(unavailable), std::bad_alloc);
  EXPECT_EQ(pool.first, nullptr);
  (void)pool.get(4);
  // Once before the count begins, because the first warning makes the trace.
  EXPECT_THROW((void)pool.get(unavailable), std::bad_alloc);
  const size_t before = mallinfo2().uordblks;
  for (int i = 0; i < 100; ++i) {
    EXPECT_THROW((void)pool.get(unavailable), std::bad_alloc);
  }
  EXPECT_LT(mallinfo2().uordblks, before + 100 * sizeof(PoolArea));
  EXPECT_EQ(sizesOf(pool), Sizes({64}));
  EXPECT_EQ(pool.initialSize, 64U);
}
#endif

TEST(Pool, HoldsARequestLargerThanItsBaseSizeManyTimesOver) {
  Pool pool(64, 100, "large");
  constexpr unsigned long size = 10'000'000;
  char* const p = static_cast<char*>(pool.get(size));
  std::memset(p, 1, size);
  EXPECT_EQ(headerOf(p), size + 8);
}

TEST(PoolArea, GrowTakesTheSizeAsItIsAndCarvesNothing) {
  Pool pool(100, 10, "grow");
  (void)pool.get(4);
  pool.current->grow(13, pool.current, pool.allocated, pool.initialSize, pool.increment);
  EXPECT_EQ(sizesOf(pool), Sizes({100, 23}));
  EXPECT_EQ(pool.initialSize, 113U);
  EXPECT_EQ(pool.allocated, 123U);
  EXPECT_EQ(pool.current, pool.first->next);
  EXPECT_EQ(pool.current->used, 0U);
  pool.current->grow(11, pool.current, pool.allocated, pool.initialSize, pool.increment);
  EXPECT_EQ(sizesOf(pool), Sizes({100, 23, 11}));
  EXPECT_EQ(pool.initialSize, 113U);
}

TEST(PoolArea, GrowReusesTheAreasBehind) {
  Pool pool(16, 0, "grow");
  fillWithAreas(pool, {16, 24, 64, 16});
  pool.clear();
  PoolArea* const third = pool.first->next->next;
  pool.current->grow(64, pool.current, pool.allocated, pool.initialSize, pool.increment);
  EXPECT_EQ(pool.current, third);
  EXPECT_EQ(third->used, 0U);
}

TEST(PoolArea, GrowAndGetCarvesOneUnit) {
  Pool pool(64, 100, "grow");
  (void)pool.get(4);
  char* const p = static_cast<char*>(
      pool.current->growAndGet(5, pool.current, pool.allocated, pool.initialSize, pool.increment));
  EXPECT_EQ(p, pool.first->next->buffer + 4);
  EXPECT_EQ(headerOf(p), 16U);
  EXPECT_EQ(pool.current->used, 16U);
}

TEST(PoolArea, DirtymemoryFillsTheUnusedTailWithD) {
  Pool pool(64, 100, "dirty");
  char* const p = static_cast<char*>(pool.get(12));
  std::memset(p, 'x', 12);
  pool.current->dirtymemory();
  EXPECT_EQ(std::string(p, 12), std::string(12, 'x'));
  EXPECT_EQ(headerOf(p), 16U);
  EXPECT_EQ(std::string(pool.current->buffer + 16, 48), std::string(48, 'D'));
  (void)pool.get(44);
  pool.current->dirtymemory();
  EXPECT_EQ(headerOf(pool.current->buffer + 20), 48U) << "nothing is left to fill";
}

namespace {

struct Sample {
  int number = 7;
};

struct Thrower {
  Thrower() { throw std::runtime_error("constructor"); }
  int numbers[10] = {};
};

}  // namespace

TEST(PoolNew, MakesAnObjectInThePool) {
  Pool pool(1000, 100, "objects");
  const Sample* const sample = new (&pool) Sample;
  EXPECT_EQ(sample->number, 7);
  EXPECT_TRUE(liesIn(*pool.first, sample));
  EXPECT_EQ(pool.first->used, 8U);
}

TEST(PoolNew, MakesAnArrayInThePool) {
  Pool pool(1000, 100, "arrays");
  const Sample* const samples = new (&pool) Sample[10];
  EXPECT_EQ(samples[9].number, 7);
  EXPECT_TRUE(liesIn(*pool.first, samples));
  EXPECT_EQ(pool.first->used, 48U);
}

TEST(PoolNew, TakesTheGlobalArrayNewWithoutAPool) {
  // Read back, because a compiler that sees the pair takes the two for a mismatch.
  void* volatile scalar = operator new(24, noPool);
  std::memset(scalar, 1, 24);
  ::operator delete[](scalar);
  void* const array = operator new[](24, noPool);
  std::memset(array, 1, 24);
  ::operator delete[](array);
  const std::unique_ptr<Sample[]> samples(new (noPool) Sample[3]);
  EXPECT_EQ(samples[2].number, 7);
}

// The address sanitizer has no such count of bytes, but looks for what is lost.
TEST(PoolNew, GivesTheMemoryBackWhenAConstructorThrowsWithoutAPool) {
  const auto throwMany = [] {
    for (int i = 0; i < 100; ++i) {
      EXPECT_THROW((void)new (noPool) Thrower, std::runtime_error);
      EXPECT_THROW((void)new (noPool) Thrower[2], std::runtime_error);
    }
  };
  throwMany();
  const std::size_t before = mallinfo2().uordblks;
  throwMany();
  EXPECT_EQ(mallinfo2().uordblks, before);
}

TEST(PoolNew, LeavesTheMemoryInThePoolWhenAConstructorThrows) {
  Pool pool(1000, 100, "thrower");
  EXPECT_THROW((void)new (&pool) Thrower, std::runtime_error);
  EXPECT_EQ(pool.first->used, 48U);
  EXPECT_THROW((void)new (&pool) Thrower[2], std::runtime_error);
  EXPECT_EQ(pool.first->used, 48U + 88U);
}

CUL_CHILD(PoolWarnings) {
  Pool extended(16, 0, "extended");
  fillWithAreas(extended, {16, 24});  // One warning from line 140.
  Pool fitting(64, 100, "fitting");
  (void)fitting.get(60);
  (void)fitting.get(60);
  Pool reused(16, 0, "reused");
  fillWithAreas(reused, {16});
  reused.increment = 150;
  (void)reused.get(20);  // 24 bytes, as planned.
  reused.clear();
  (void)reused.get(12);
  (void)reused.get(60);  // One warning from line 160 and none from line 140.
  Pool nameless(0, 100, nullptr);
  (void)nameless.get(10);
}

TEST(Pool, WarnsInTheTraceWhenItsBaseSizeIsTooSmall) {
  const TracedChildResult r = runTracedChild("PoolWarnings");
  EXPECT_EQ(r.child.status, 0) << r.child.out << r.child.err;
  const auto warning = [](const char* line, const char* name) {
    return std::string("**WARNING: void PoolArea::grow(") + line +
           "): Initial allocation of pool " + name + " should be increased!\n";
  };
  EXPECT_EQ(occurrences(r.trace, warning("140", "extended")), 1U) << r.trace;
  EXPECT_EQ(occurrences(r.trace, warning("160", "reused")), 1U) << r.trace;
  EXPECT_EQ(occurrences(r.trace, warning("140", "<unknown>")), 1U) << r.trace;
  EXPECT_EQ(occurrences(r.trace, "should be increased!"), 3U) << r.trace;
}

TEST(Pool, GrowsWithoutATrace) {
  const ChildResult r = runChild("PoolWarnings");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "");
}
