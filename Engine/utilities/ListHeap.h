#pragma once

#include <cstddef>
#include <new>

#include "Engine/utilities/Export.h"

/// \file
/// Where search lists take their memory from: whole blocks of elements and bucket arrays,
/// never single elements. A search list that is given no heap uses the free store.
///
/// A heap outlives every list that uses it. Lists do not lock for it: a heap that serves
/// lists of several threads locks for itself.

class CUL_EXPORT ListHeap {
 public:
  ListHeap() = default;
  ListHeap(const ListHeap&) = delete;
  ListHeap& operator=(const ListHeap&) = delete;
  virtual ~ListHeap() = default;

  /// Obtains `size` bytes, not initialised, at an address that is a multiple of 8. Never
  /// null.
  /// \throws std::bad_alloc when there is no memory.
  virtual void* get(std::size_t size) = 0;

  /// Gives memory of get() back.
  virtual void put(void* p) noexcept = 0;
};

/// Memory from `heap`, or from the free store when that is null.
[[nodiscard]] inline void* getFrom(ListHeap* heap, std::size_t size) {
  return heap != nullptr ? heap->get(size) : ::operator new(size);
}

/// Gives memory of getFrom() back to the same heap; null is ignored.
inline void putBack(ListHeap* heap, void* p) noexcept {
  if (heap == nullptr) {
    ::operator delete(p);
  } else if (p != nullptr) {
    heap->put(p);
  }
}
