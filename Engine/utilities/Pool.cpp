#include "Engine/utilities/Pool.h"

#include <algorithm>
#include <climits>
#include <new>

#include "Engine/internal/FixedLayout.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(Pool, 64);
CUL_FIXED_FIELD(Pool, allocated, 0);
CUL_FIXED_FIELD(Pool, increment, 8);
CUL_FIXED_FIELD(Pool, initialSize, 16);
CUL_FIXED_FIELD(Pool, first, 24);
CUL_FIXED_FIELD(Pool, current, 32);
CUL_FIXED_FIELD(Pool, name, 40);
CUL_FIXED_FIELD(Pool, allocator_, 48);

namespace {

// A base size beyond 64 bits becomes one that no free store can serve.
unsigned long baseSizeFor(unsigned long elements, unsigned long elementSize) {
  unsigned long size;
  return __builtin_add_overflow(elementSize, PoolArea::headerSize, &size) ||
                 __builtin_mul_overflow(size, elements, &size)
             ? ULONG_MAX
             : size;
}

}  // namespace

Pool::Pool(unsigned long baseSize, unsigned long growth, const char* poolName)
    : allocated(0),
      increment(growth),
      initialSize(baseSize),
      first(nullptr),
      current(nullptr),
      name(poolName),
      allocator_(*this) {}

Pool::Pool(unsigned long elements, unsigned long elementSize, unsigned long growth,
           const char* poolName)
    : Pool(baseSizeFor(elements, elementSize), growth, poolName) {}

Pool::~Pool() { destroy(); }

// The first get(), and each one that the current area has no room for.
void* Pool::getFromNewArea(unsigned long size) {
  if (first == nullptr) {
    // Where units come to lie is kept (docs/contract.md): the raw request counts here, not its
    // unit. An area made as large as a request above the base size stays unused.
    const unsigned long firstSize = std::max(size, initialSize);
    first = new PoolArea(nullptr, firstSize, name);
    current = first;
    allocated = firstSize;
    return get(size);
  }
  return current->growAndGet(size, current, allocated, initialSize, increment);
}

void Pool::clear() noexcept {
  current = first;
  if (first != nullptr) {
    first->used = 0;
  }
}

void Pool::destroy() noexcept {
  delete first;
  first = nullptr;
}

void* operator new(std::size_t size, Pool* pool) {
  return pool != nullptr ? pool->get(size) : ::operator new[](size);
}

void* operator new[](std::size_t size, Pool* pool) { return operator new(size, pool); }

void operator delete(void* p, Pool* pool) noexcept {
  if (pool == nullptr) {
    ::operator delete[](p);
  }
}

void operator delete[](void* p, Pool* pool) noexcept { operator delete(p, pool); }
