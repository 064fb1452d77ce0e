#include "Engine/utilities/FixedMemoryPool.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>

#include "Engine/internal/FixedLayout.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(FixedMemoryPool, 16);
CUL_FIXED_FIELD(FixedMemoryPool, cellSize_, 0);
CUL_FIXED_FIELD(FixedMemoryPool, blockSize_, 4);
CUL_FIXED_FIELD(FixedMemoryPool, free_, 8);

namespace {

constexpr unsigned int wordSize = 8;
constexpr unsigned int usualBlockSize = 4080;
constexpr unsigned int leastCells = 16;
constexpr unsigned int largestCellSize = UINT_MAX / leastCells / wordSize * wordSize;

unsigned int roundedCellSize(unsigned int cellSize) {
  if (cellSize > largestCellSize) {
    throw std::bad_alloc();
  }
  return std::max(wordSize, (cellSize + wordSize - 1) / wordSize * wordSize);
}

}  // namespace

FixedMemoryPool::FixedMemoryPool(unsigned int cellSize)
    : cellSize_(roundedCellSize(cellSize)),
      blockSize_(std::max(usualBlockSize / cellSize_, leastCells) * cellSize_) {}

// Chains a new block's cells in the order of their addresses.
void FixedMemoryPool::addBlock() {
  char* const block = new char[blockSize_];
  std::memset(block, 0, blockSize_);
  char* cell = block + blockSize_;
  FreeCell* following = nullptr;
  while (cell != block) {
    cell -= cellSize_;
    following = ::new (cell) FreeCell{following};
  }
  free_ = following;
}
