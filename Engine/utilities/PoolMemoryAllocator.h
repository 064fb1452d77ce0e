#pragma once

#include "Engine/utilities/Export.h"
#include "Engine/utilities/MemoryAllocator.h"

/// \file
/// The face that a Pool shows to containers; each pool has one embedded.
///
/// Memory lives until the pool is cleared: conditionalPut() does nothing, put() is a
/// caller's error. As thread-safe as the pool: one thread at a time.

class Pool;

class CUL_EXPORT PoolMemoryAllocator final : public MemoryAllocator {
 public:
  /// \param pool the owner, which outlives this object.
  explicit PoolMemoryAllocator(Pool& pool) noexcept : pool_(&pool) {}
  ~PoolMemoryAllocator() override;

  void* get(unsigned int size) override;
  void* get(unsigned int size, const char* file, unsigned int line) override;

  /// Always an error, traced under "ERROR".
  /// \throws StdException "Attempt to delete element in pooled allocation", status -1, with
  ///         the pool's name in place of the source file and line 0.
  [[noreturn]] void put(void* p) override;
  /// The same error at the caller's position.
  [[noreturn]] void put(void* p, const char* file, unsigned int line) override;

  void conditionalPut(void* p) override;
  void conditionalPut(void* p, const char* file, unsigned int line) override;

  [[nodiscard]] bool putPermitted() const override;

 private:
  Pool* pool_;
};
