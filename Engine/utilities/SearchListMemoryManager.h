#pragma once

#include "Engine/utilities/Export.h"

/// \file
/// The storage of a search list: elements of one size, carved from blocks.
///
/// A block is one link word followed by its elements. Elements come back one by one and are
/// handed out again, the last one first; blocks are given back when the manager ends, whatever
/// has become of their elements. Nothing is constructed or destroyed here. Not thread-safe.
///
/// An element lies at a multiple of 8 when the element size is a multiple of 8, otherwise only
/// at a multiple of 4.

class ListHeap;

class CUL_EXPORT SearchListMemoryManager {
 public:
  /// A manager without any memory.
  /// \param heap             where blocks come from, null for the free store; must outlive
  ///                         the manager.
  /// \param elementSize      in bytes; rounded up to a multiple of 4, at least 8, the room
  ///                         for the link of a free element.
  /// \param elementsPerBlock 0 counts as 1.
  /// \throws std::bad_alloc for an element size above 65532, of which the rounded value does
  ///         not fit in 16 bits.
  SearchListMemoryManager(ListHeap* heap, unsigned short elementSize,
                          unsigned short elementsPerBlock);
  SearchListMemoryManager(const SearchListMemoryManager&) = delete;
  SearchListMemoryManager& operator=(const SearchListMemoryManager&) = delete;
  /// Gives all blocks back.
  ~SearchListMemoryManager();

  /// Room for one element, not initialised. The elements of a new block are handed out in the
  /// order of their addresses.
  /// \throws std::bad_alloc when there is no memory for another block.
  [[nodiscard]] void* getElement();

  /// Takes an element of this manager back; null is ignored.
  void releaseElement(void* p) noexcept;

  /// Bytes in an element, after rounding.
  [[nodiscard]] unsigned short elementSize() const noexcept { return elementSize_; }

  /// Elements in a block, at least 1.
  [[nodiscard]] unsigned short elementsPerBlock() const noexcept { return elementsPerBlock_; }

  /// Where blocks come from, null for the free store.
  [[nodiscard]] ListHeap* heap() const noexcept { return heap_; }

 private:
  void addBlock();

  // Owned, a chain; raw because the engine knows the field (docs/contract.md).
  void* blocks_ = nullptr;
  void* free_ = nullptr;  // the chain of free elements, in the blocks
  unsigned short elementSize_;
  unsigned short elementsPerBlock_;
  ListHeap* heap_;
};
