#pragma once

#include <utility>

#include "Engine/utilities/Export.h"

/// \file
/// The untyped core of List<T>: a growable array of elements of one size that moves them
/// as raw bytes.
///
/// The buffer pointer is not kept here: the typed list holds it right behind its
/// ListImplementation and passes its address to what may reallocate, its value to what may
/// not. No constructor, destructor or assignment of an element ever runs.
///
/// Indices are 0-based; findItem() answers with a 1-based position. The capacity never
/// shrinks. On a pool the outgrown buffers stay in the pool until it is cleared. A list
/// that would need 2^32 bytes or more is refused with std::bad_alloc and keeps its
/// contents. Not thread-safe: one thread at a time, or under the owner's lock.

class MemoryAllocator;
class Pool;

class CUL_EXPORT ListImplementation {
 public:
  /// An empty list.
  /// \param buffer          receives a buffer of `initialCapacity` elements, or null for 0.
  /// \param initialCapacity in elements.
  /// \param pool            where buffers come from; null for the free store. Must outlive
  ///                        the list.
  /// \param elementSize     in bytes.
  /// \param growth          elements added at least when the list grows; 0 counts as 1.
  /// \throws std::bad_alloc when there is no memory or the size does not fit in 32 bits.
  ListImplementation(void** buffer, unsigned int initialCapacity, Pool* pool,
                     unsigned short elementSize, unsigned short growth);
  ListImplementation(const ListImplementation&) = delete;
  ListImplementation& operator=(const ListImplementation&) = delete;

  /// Takes the elements of another list over and leaves it empty. The buffer pointer, kept
  /// beside both, moves along and leaves null.
  ListImplementation(ListImplementation&& other) noexcept
      : allocator(other.allocator),
        count(std::exchange(other.count, 0)),
        capacity(std::exchange(other.capacity, 0)),
        elementSize_(other.elementSize_),
        growth_(other.growth_) {}

  /// Obtains a buffer for `capacity` elements, without storing it.
  /// \throws std::bad_alloc when there is no memory or the size does not fit in 32 bits.
  [[nodiscard]] void* allocateBuffer();

  /// Gives `buffer` back if the allocator can take it; the elements themselves are their
  /// owner's business.
  void deleteItems(void* buffer);

  /// Makes room for `n` more elements; grows by at least the growth step, or not at all
  /// when there is room. A list without a buffer gets one in any case, also for 0 elements.
  /// \throws std::bad_alloc with the list unchanged.
  void extend(unsigned int n, void** buffer);

  /// Appends `n` elements; they may lie in the list's own buffer.
  /// \throws std::bad_alloc with the list unchanged.
  void appendItems(void** buffer, const void* items, unsigned int n);

  /// Inserts one element before the element at `index`. An index behind the end places it
  /// there and fills the gap with zero bytes. `item` does not lie in the list's buffer.
  /// \throws std::bad_alloc with the list unchanged.
  void insert_at(unsigned int index, void** buffer, const void* item);

  /// Removes one element; ignores an index at or behind the end.
  void remove(unsigned int index, const void* buffer);

  /// The 1-based position of the first element whose bytes equal those of `item`; 0 if
  /// there is none.
  [[nodiscard]] unsigned int findItem(const void* buffer, const void* item) const;

  /// Sorts in place, in n log n time; linear for what is nearly in order. The result is that
  /// of passes over the adjacent pairs, each of which swaps those whose left element is greater,
  /// until one swaps nothing. That keeps the order of equal elements. It is sure where what is
  /// greater than the greater is greater, in lists of up to four thousand elements, and in longer
  /// ones where alike elements are alike to all others, as with any order. With a comparison that
  /// is none it ends all the same, but may take quadratic time and longer, and more than 16
  /// elements may come out otherwise than by passes.
  /// \param compare negative, zero or positive as in qsort(), always given two elements of the
  ///                list; what it throws passes through and leaves the elements permuted.
  /// \param buffer  the elements.
  /// \param scratch room for one element.
  /// \return whether the list was in order already.
  /// \throws std::bad_alloc only with a comparison that is no order, when there is no memory to
  ///         notice it. A sort that has no memory otherwise takes quadratic time.
  bool bSort(int (*compare)(const void*, const void*), void* buffer, void* scratch);

  // For reading; only the operations above change them.
  MemoryAllocator* allocator;  ///< Owner of the buffer.
  unsigned int count;          ///< Elements in use.
  unsigned int capacity;       ///< Elements the buffer can hold.

 private:
  void* enlarge(unsigned long newCapacity, void** buffer);

  unsigned short elementSize_;
  unsigned short growth_;
};
