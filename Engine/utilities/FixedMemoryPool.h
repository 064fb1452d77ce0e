#pragma once

#include <new>

#include "Engine/utilities/Export.h"

/// \file
/// A free list of equal-sized cells carved from blocks.
///
/// Cells come back one by one with release(); blocks are never given back, not even when the
/// pool ends: a pool serves as long as its process. Cells are 8-byte aligned. The first word
/// of a free cell points to the next free one. Not thread-safe.

class CUL_EXPORT FixedMemoryPool {
 public:
  /// An empty pool, without any memory.
  /// \param cellSize in bytes; rounded up to a multiple of 8, at least 8.
  /// \throws std::bad_alloc for a cell size above 2^28 - 8, of which the 16 cells of a
  ///         block do not fit in 32 bits.
  explicit FixedMemoryPool(unsigned int cellSize);
  FixedMemoryPool(const FixedMemoryPool&) = delete;
  FixedMemoryPool& operator=(const FixedMemoryPool&) = delete;
  ~FixedMemoryPool() = default;

  /// A cell, not initialised.
  /// \throws std::bad_alloc when there is no memory for another block.
  [[nodiscard]] void* get() {
    if (free_ == nullptr) [[unlikely]] {
      addBlock();
    }
    FreeCell* const cell = free_;
    free_ = cell->next;
    return cell;
  }

  /// Takes a cell of this pool back; null is ignored.
  void release(void* p) noexcept {
    if (p != nullptr) {
      free_ = ::new (p) FreeCell{free_};
    }
  }

  /// Bytes in a cell, after rounding.
  [[nodiscard]] unsigned int cellSize() const noexcept { return cellSize_; }

  /// Bytes in a block: a whole number of cells, at least 16.
  [[nodiscard]] unsigned int blockSize() const noexcept { return blockSize_; }

 private:
  struct FreeCell {
    FreeCell* next;
  };

  void addBlock();

  unsigned int cellSize_;
  unsigned int blockSize_;
  FreeCell* free_ = nullptr;
};
