#include "Engine/utilities/HeapMemoryAllocator.h"

#include <new>

#include "Engine/internal/FixedLayout.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(HeapMemoryAllocator, 8);

namespace {

// Constant-initialised, so that it takes no memory to have it, and never destroyed.
constinit union Instance {
  constexpr Instance() noexcept : allocator() {}
  Instance(const Instance&) = delete;
  Instance& operator=(const Instance&) = delete;
  ~Instance() {}

  HeapMemoryAllocator allocator;
} theInstance;

}  // namespace

HeapMemoryAllocator::~HeapMemoryAllocator() = default;

HeapMemoryAllocator* HeapMemoryAllocator::instance() { return &theInstance.allocator; }

void* HeapMemoryAllocator::get(unsigned int size) { return ::operator new(size); }

void* HeapMemoryAllocator::get(unsigned int size, const char*, unsigned int) {
  return ::operator new(size);
}

void HeapMemoryAllocator::put(void* p) { ::operator delete(p); }

void HeapMemoryAllocator::put(void* p, const char*, unsigned int) { ::operator delete(p); }

void HeapMemoryAllocator::conditionalPut(void* p) { ::operator delete(p); }

void HeapMemoryAllocator::conditionalPut(void* p, const char*, unsigned int) {
  ::operator delete(p);
}

bool HeapMemoryAllocator::putPermitted() const { return true; }
