#pragma once

#include <cstddef>

#include "Engine/utilities/Export.h"
#include "Engine/utilities/PoolArea.h"
#include "Engine/utilities/PoolMemoryAllocator.h"

/// \file
/// A region allocator: objects are carved one after the other from a chain of large areas
/// and are never freed one by one; clear() forgets and destroy() frees them all at once.
///
/// Each allocation is a unit: a 32-bit header with the unit's length, then the caller's
/// bytes, together rounded up to 8. The memory handed out lies 4 bytes behind a multiple of
/// 8 and so is only 4-byte aligned; this layout is
/// kept (docs/contract.md).
///
/// The memory belongs to the pool. It does not run destructors: an object made in a pool is
/// never deleted, it ends with the pool. Not thread-safe: one thread at a time.
///
/// \code
///   Pool names(4096, 100, "names");
///   Node* node = new (&names) Node(key);
/// \endcode

class CUL_EXPORT Pool {
 public:
  /// An empty pool, without any memory.
  /// \param baseSize  base size in bytes: of the first area, and what `growth` refers to.
  /// \param growth    size of each further area in percent of the base size.
  /// \param poolName  shown in warnings and errors; not copied, may be null.
  Pool(unsigned long baseSize, unsigned long growth, const char* poolName);

  /// The same with a base size for `elements` objects of `elementSize` bytes: 4 more bytes
  /// each for the header, without the rounding. A product beyond 64 bits makes a pool whose
  /// first get() fails.
  Pool(unsigned long elements, unsigned long elementSize, unsigned long growth,
       const char* poolName);

  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;
  /// Frees all areas.
  ~Pool();

  /// Carves a unit for `size` bytes, not initialised.
  /// \throws std::bad_alloc when there is no memory; the pool stays as usable as before.
  [[nodiscard]] void* get(unsigned long size) {
    unsigned long unit;
    if (first != nullptr && PoolArea::unitLength(size, unit) &&
        unit <= current->size - current->used) [[likely]] {
      return current->carve(unit);
    }
    return getFromNewArea(size);
  }

  /// Forgets all units and keeps all areas, to be used again in their order.
  void clear() noexcept;

  /// Frees all areas. The pool starts afresh with the next get(); until then `allocated`
  /// keeps its value.
  void destroy() noexcept;

  /// The face of this pool for containers; lives as long as the pool.
  [[nodiscard]] MemoryAllocator& allocator() noexcept { return allocator_; }

  // For reading; the pool and its areas change them. `first` owns its area, and is raw because the
  // engine knows its type (docs/contract.md).
  unsigned long allocated;    ///< Bytes of all areas obtained since the first one.
  unsigned long increment;    ///< Size of further areas in percent of the base size.
  unsigned long initialSize;  ///< Base size; grows with each request that is planned too small.
  PoolArea* first;            ///< Null while there is no area.
  PoolArea* current;          ///< Where the next unit is carved; means nothing without `first`.
  const char* name;           ///< The caller's, may be null.

 private:
  [[nodiscard]] void* getFromNewArea(unsigned long size);

  PoolMemoryAllocator allocator_;
};

/// Memory for an object or an array in `pool`, or from the global array `new` when `pool` is
/// null.
CUL_EXPORT void* operator new(std::size_t size, Pool* pool);
CUL_EXPORT void* operator new[](std::size_t size, Pool* pool);

/// Called when a constructor throws: nothing for a pool, the global array `delete` for a
/// null pool.
CUL_EXPORT void operator delete(void* p, Pool* pool) noexcept;
CUL_EXPORT void operator delete[](void* p, Pool* pool) noexcept;
