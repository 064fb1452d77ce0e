#include "Engine/utilities/PoolMemoryAllocator.h"

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/PlaceNumber.h"
#include "Engine/utilities/Pool.h"
#include "Engine/utilities/StdException.h"
#include "Engine/utilities/TraceFlags.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(PoolMemoryAllocator, 16);
CUL_FIXED_FIELD(PoolMemoryAllocator, pool_, 8);

namespace {

[[noreturn]] void refuse(const char* poolName, const char* traceFile, unsigned int traceLine,
                         const char* file, unsigned int line) {
  CUL_TRACE(TraceType::error, traceFile, traceLine, "Attempt to delete element in pool %s",
            poolName);
  StdException::throwException(file, line, "Attempt to delete element in pooled allocation", -1);
}

}  // namespace

PoolMemoryAllocator::~PoolMemoryAllocator() = default;

void* PoolMemoryAllocator::get(unsigned int size) { return pool_->get(size); }

void* PoolMemoryAllocator::get(unsigned int size, const char*, unsigned int) {
  return pool_->get(size);
}

void PoolMemoryAllocator::put(void*) {
  const char* const poolName = PoolArea::shownName(pool_->name);
  refuse(poolName, "Engine/utilities/PoolMemoryAllocator", 46_place, poolName, 0);
}

void PoolMemoryAllocator::put(void*, const char* file, unsigned int line) {
  refuse(PoolArea::shownName(pool_->name), file, line, file, line);
}

void PoolMemoryAllocator::conditionalPut(void*) {}

void PoolMemoryAllocator::conditionalPut(void*, const char*, unsigned int) {}

bool PoolMemoryAllocator::putPermitted() const { return false; }
