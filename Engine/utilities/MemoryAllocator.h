#pragma once

#include "Engine/utilities/Export.h"

/// \file
/// The interface through which containers obtain and give back their buffers.
///
/// A container that outgrows a buffer calls conditionalPut() without asking: an allocator
/// that cannot take memory back one by one (a pool) ignores it. put() is for callers that
/// insist; a pool refuses it loudly. The forms with `file` and `line` carry the caller's
/// source position into error reports and otherwise do what the simple forms do.
///
/// Memory goes back to the allocator it came from. No allocator locks for its caller: see
/// each implementation.

class CUL_EXPORT MemoryAllocator {
 public:
  MemoryAllocator() = default;
  MemoryAllocator(const MemoryAllocator&) = delete;
  MemoryAllocator& operator=(const MemoryAllocator&) = delete;
  virtual ~MemoryAllocator();

  /// Obtains `size` bytes, not initialised.
  /// \throws std::bad_alloc when there is no memory.
  virtual void* get(unsigned int size) = 0;
  virtual void* get(unsigned int size, const char* file, unsigned int line) = 0;

  /// Gives memory back.
  /// \throws StdException from an allocator whose putPermitted() is false.
  virtual void put(void* p) = 0;
  virtual void put(void* p, const char* file, unsigned int line) = 0;

  /// Gives memory back if this allocator can take it. Null is ignored.
  virtual void conditionalPut(void* p) = 0;
  virtual void conditionalPut(void* p, const char* file, unsigned int line) = 0;

  /// Whether put() may be called.
  [[nodiscard]] virtual bool putPermitted() const = 0;
};
