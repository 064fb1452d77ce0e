#include "Engine/utilities/HeapMemoryAllocator.h"

#include <atomic>
#include <new>

namespace {

constinit std::atomic<HeapMemoryAllocator*> theInstance = nullptr;

}  // namespace

HeapMemoryAllocator::~HeapMemoryAllocator() = default;

HeapMemoryAllocator* HeapMemoryAllocator::instance() {
  HeapMemoryAllocator* allocator = theInstance.load(std::memory_order_acquire);
  if (allocator == nullptr) [[unlikely]] {
    allocator = new HeapMemoryAllocator;
    theInstance.store(allocator, std::memory_order_release);
  }
  return allocator;
}

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
