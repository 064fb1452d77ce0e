#include "Engine/utilities/FixedMemoryPool.h"

#include <climits>
#include <cstring>
#include <deque>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/Child.h"

namespace {

// Blocks are never given back, so the pools stay reachable until the process ends.
FixedMemoryPool& lastingPool(unsigned int cellSize) {
  static auto* const pools = new std::deque<FixedMemoryPool>;
  return pools->emplace_back(cellSize);
}

const char* firstWordOf(const void* cell) {
  const char* word;
  std::memcpy(&word, cell, sizeof word);
  return word;
}

}  // namespace

TEST(FixedMemoryPool, RoundsCellsToWordsAndBlocksToCells) {
  const struct {
    unsigned int asked, cell, block;
  } cases[] = {
      {0, 8, 4080},     {1, 8, 4080},     {8, 8, 4080},        {9, 16, 4080},    {16, 16, 4080},
      {17, 24, 4080},   {32, 32, 4064},   {100, 104, 4056},    {248, 248, 3968}, {249, 256, 4096},
      {256, 256, 4096}, {300, 304, 4864}, {4081, 4088, 65408},
  };
  for (const auto& [asked, cell, block] : cases) {
    const FixedMemoryPool pool(asked);
    EXPECT_EQ(pool.cellSize(), cell) << asked;
    EXPECT_EQ(pool.blockSize(), block) << asked;
  }
}

TEST(FixedMemoryPool, RefusesCellsOfWhichSixteenDoNotFitIn32Bits) {
  const FixedMemoryPool largest((1U << 28) - 8);
  EXPECT_EQ(largest.cellSize(), (1U << 28) - 8);
  EXPECT_EQ(largest.blockSize(), UINT_MAX - 127);
  EXPECT_THROW(FixedMemoryPool((1U << 28) - 7), std::bad_alloc);
  EXPECT_THROW(FixedMemoryPool(1U << 28), std::bad_alloc);
  EXPECT_THROW(FixedMemoryPool(UINT_MAX - 7), std::bad_alloc);
  EXPECT_THROW(FixedMemoryPool(UINT_MAX), std::bad_alloc);
}

TEST(FixedMemoryPool, HoldsTwoSizesAndTheHeadOfTheFreeList) {
  EXPECT_EQ(sizeof(FixedMemoryPool), 16U);
}

TEST(FixedMemoryPool, HandsOutTheCellsOfABlockInTheOrderOfTheirAddresses) {
  FixedMemoryPool& pool = lastingPool(100);
  std::vector<char*> cells;
  for (size_t i = 0; i < 39; ++i) {
    cells.push_back(static_cast<char*>(pool.get()));
    EXPECT_EQ(cells[i], cells[0] + i * 104);
  }
  for (size_t i = 0; i + 1 < cells.size(); ++i) {
    EXPECT_EQ(firstWordOf(cells[i]), cells[i + 1]);
    EXPECT_EQ(std::string(cells[i] + 8, 96), std::string(96, '\0'));
  }
  EXPECT_EQ(firstWordOf(cells[38]), nullptr);
  for (char* const cell : cells) {
    pool.release(cell);
  }
}

CUL_CHILD(FixedMemoryPoolZeroes) {
  FixedMemoryPool& pool = lastingPool(100);
  std::vector<char*> cells(39);
  for (char*& cell : cells) {
    cell = static_cast<char*>(pool.get());
    EXPECT_EQ(std::string(cell + 8, 96), std::string(96, '\0'));
  }
  for (char* const cell : cells) {
    pool.release(cell);
  }
}

TEST(FixedMemoryPool, ZeroesABlockThatTheFreeStoreHandsOutWithOtherBytes) {
  const ChildResult r =
      runChild("FixedMemoryPoolZeroes", {.environment = {{"MALLOC_PERTURB_", "165"}}});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

TEST(FixedMemoryPool, TakesAnotherBlockWhenTheCellsAreUsedUp) {
  FixedMemoryPool& pool = lastingPool(1);
  std::vector<void*> cells(510);
  for (void*& cell : cells) {
    cell = pool.get();
  }
  EXPECT_EQ(static_cast<char*>(cells[509]), static_cast<char*>(cells[0]) + 4072);
  char* const further = static_cast<char*>(pool.get());
  EXPECT_TRUE(further < cells[0] || further > cells[509]);
  std::memset(further, 1, 8);
  pool.release(further);
  for (void* const cell : cells) {
    std::memset(cell, 1, 8);
    pool.release(cell);
  }
  // The cells of the first block come back in the opposite order.
  for (size_t i = 510; i > 0; --i) {
    EXPECT_EQ(pool.get(), cells[i - 1]);
  }
  EXPECT_EQ(pool.get(), further);
  pool.release(further);
  for (void* const cell : cells) {
    pool.release(cell);
  }
}

TEST(FixedMemoryPool, HandsOutTheCellReleasedLastFirst) {
  FixedMemoryPool& pool = lastingPool(24);
  void* const a = pool.get();
  void* const b = pool.get();
  pool.release(a);
  pool.release(b);
  EXPECT_EQ(pool.get(), b);
  EXPECT_EQ(pool.get(), a);
  pool.release(a);
  pool.release(b);
}

TEST(FixedMemoryPool, IgnoresTheReleaseOfNull) {
  FixedMemoryPool& pool = lastingPool(24);
  void* const a = pool.get();
  pool.release(a);
  pool.release(nullptr);
  EXPECT_EQ(pool.get(), a);
  pool.release(a);
}
