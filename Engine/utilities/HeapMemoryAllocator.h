#pragma once

#include "Engine/utilities/Export.h"
#include "Engine/utilities/MemoryAllocator.h"

/// \file
/// The ordinary free store as a MemoryAllocator: get() is the global scalar `new`, put() and
/// conditionalPut() are the global scalar `delete`. Any thread.

class CUL_EXPORT HeapMemoryAllocator final : public MemoryAllocator {
 public:
  HeapMemoryAllocator() = default;
  ~HeapMemoryAllocator() override;

  /// The process's one instance, never destroyed. Works from static constructors, after exit
  /// and when memory is out: it takes none itself.
  [[nodiscard]] static HeapMemoryAllocator* instance();

  void* get(unsigned int size) override;
  void* get(unsigned int size, const char* file, unsigned int line) override;
  void put(void* p) override;
  void put(void* p, const char* file, unsigned int line) override;
  void conditionalPut(void* p) override;
  void conditionalPut(void* p, const char* file, unsigned int line) override;
  [[nodiscard]] bool putPermitted() const override;
};
