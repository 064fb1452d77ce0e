#pragma once

#include "Engine/utilities/Export.h"

/// \file
/// One link in the chain of memory areas that a Pool carves its units from.
///
/// An area owns its buffer and all areas behind it. The chain grows on the pool's behalf:
/// grow() and growAndGet() are called on the pool's current area and receive the pool's
/// fields by reference. The fields are for reading; the areas and their pool change them.

class CUL_EXPORT PoolArea {
 public:
  /// An unused area, not yet linked to the one before it.
  /// \param before   null for the first area.
  /// \param bytes    size of the buffer.
  /// \param poolName not copied; may be null.
  /// \throws std::bad_alloc when there is no memory.
  PoolArea(PoolArea* before, unsigned long bytes, const char* poolName);
  PoolArea(const PoolArea&) = delete;
  PoolArea& operator=(const PoolArea&) = delete;
  /// Frees the buffer and all areas behind this one.
  ~PoolArea();

  /// Fills the unused tail with the byte 0x44 ("D"), so that reads of unwritten pool memory
  /// stand out.
  void dirtymemory();

  /// Makes an area with room for `request` bytes current: the next area of the chain if it is
  /// large enough, else a later one but never the last, else a new one at the end.
  /// The pool is unchanged when this fails.
  /// \param request      in bytes, taken as it is: not rounded up to a unit.
  /// \param current      the pool's current area.
  /// \param allocated    the pool's total, grows by the size of a new area.
  /// \param initialSize  the pool's base size, grows by `request` for a new area that is
  ///                     planned too small.
  /// \param increment    size of a new area in percent of the base size.
  /// \throws std::bad_alloc when there is no memory.
  void grow(unsigned long request, PoolArea*& current, unsigned long& allocated,
            unsigned long& initialSize, unsigned long increment);

  /// Makes room like grow() for the unit of a request of `request` bytes, and carves it.
  /// \return the request's memory.
  [[nodiscard]] void* growAndGet(unsigned long request, PoolArea*& current,
                                 unsigned long& allocated, unsigned long& initialSize,
                                 unsigned long increment);

  /// Carves a unit, which must fit.
  /// \param unit its whole length in bytes, a multiple of 8.
  /// \return the address behind the unit's header.
  [[nodiscard]] void* carve(unsigned long unit) noexcept {
    char* const header = buffer + used;
    // A unit of 2^32 bytes or more leaves the low bits of its length: nothing walks units.
    const unsigned int length = static_cast<unsigned int>(unit);
    __builtin_memcpy(header, &length, headerSize);
    used += unit;
    return header + headerSize;
  }

  /// Bytes in front of each unit's memory, which hold the unit's length.
  static constexpr unsigned long headerSize = 4;

  /// The length of the unit for a request: header and request, rounded up to 8 bytes.
  /// \return false when the length cannot be represented.
  [[nodiscard]] static bool unitLength(unsigned long request, unsigned long& unit) noexcept {
    if (__builtin_add_overflow(request, headerSize + 7, &unit)) {
      return false;
    }
    unit &= ~7UL;
    return true;
  }

  /// What warnings and errors call a pool: its name, or "<unknown>" for null.
  [[nodiscard]] static const char* shownName(const char* poolName) noexcept {
    return poolName != nullptr ? poolName : "<unknown>";
  }

  // The owning fields are raw because the engine knows their types (docs/contract.md).
  PoolArea* previous;  ///< Null in the first area.
  PoolArea* next;      ///< Owned; null in the last area.
  char* buffer;        ///< Owned.
  const char* name;    ///< The pool's name, may be null.
  unsigned long size;  ///< Bytes in the buffer.
  unsigned long used;  ///< Bytes carved from its start.

 private:
  [[nodiscard]] PoolArea* append(unsigned long request, bool warns, unsigned long& allocated,
                                 unsigned long& initialSize, unsigned long increment);
};
