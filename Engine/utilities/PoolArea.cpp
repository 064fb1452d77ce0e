#include "Engine/utilities/PoolArea.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/PlaceNumber.h"
#include "Engine/utilities/TraceFlags.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(PoolArea, 48);
CUL_FIXED_FIELD(PoolArea, previous, 0);
CUL_FIXED_FIELD(PoolArea, next, 8);
CUL_FIXED_FIELD(PoolArea, buffer, 16);
CUL_FIXED_FIELD(PoolArea, name, 24);
CUL_FIXED_FIELD(PoolArea, size, 32);
CUL_FIXED_FIELD(PoolArea, used, 40);

namespace {

constexpr const char* growLocation =
    "void PoolArea::grow(size_t, PoolArea*&, size_t&, size_t&, size_t)";
constexpr unsigned int chainExtendedLine = 140_place;
constexpr unsigned int areaTooSmallLine = 160_place;
constexpr int dirt = 0x44;

void warn(unsigned int line, const char* poolName) {
  CUL_TRACE(TraceType::warning, growLocation, line,
            "Initial allocation of pool %s should be increased!", PoolArea::shownName(poolName));
}

// What no memory can hold is refused here: the free store would call its handler first,
// which may end the process.
char* newBuffer(unsigned long bytes) {
  if (bytes > PTRDIFF_MAX) {
    throw std::bad_array_new_length();
  }
  return new char[bytes];
}

}  // namespace

PoolArea::PoolArea(PoolArea* before, unsigned long bytes, const char* poolName)
    : previous(before),
      next(nullptr),
      buffer(newBuffer(bytes)),
      name(poolName),
      size(bytes),
      used(0) {}

PoolArea::~PoolArea() {
  delete[] buffer;
  // One after the other: a chain can be too long for one destructor inside the other.
  PoolArea* area = next;
  while (area != nullptr) {
    PoolArea* const behind = area->next;
    area->next = nullptr;
    delete area;
    area = behind;
  }
}

void PoolArea::dirtymemory() { std::memset(buffer + used, dirt, size - used); }

void PoolArea::grow(unsigned long request, PoolArea*& current, unsigned long& allocated,
                    unsigned long& initialSize, unsigned long increment) {
  PoolArea* area = current->next;
  if (area == nullptr) {
    current = current->append(request, true, allocated, initialSize, increment);
    return;
  }
  if (request > area->size) {
    warn(areaTooSmallLine, name);
    // Where units come to lie is kept (docs/contract.md): the walk does not look at the last area
    // of the chain, it appends to it.
    do {
      if (area->next == nullptr) {
        current = area->append(request, false, allocated, initialSize, increment);
        return;
      }
      area = area->next;
    } while (area->next == nullptr || request > area->size);
  }
  area->used = 0;
  current = area;
}

void* PoolArea::growAndGet(unsigned long request, PoolArea*& current, unsigned long& allocated,
                           unsigned long& initialSize, unsigned long increment) {
  unsigned long unit;
  if (!unitLength(request, unit)) {
    throw std::bad_alloc();
  }
  grow(unit, current, allocated, initialSize, increment);
  return current->carve(unit);
}

// Makes an area behind this one, the last. The pool's figures change only once it exists.
PoolArea* PoolArea::append(unsigned long request, bool warns, unsigned long& allocated,
                           unsigned long& initialSize, unsigned long increment) {
  unsigned long newSize = increment * initialSize / 100;
  unsigned long newInitialSize = initialSize;
  if (request > newSize) {
    if (__builtin_add_overflow(newSize, request, &newSize)) {
      throw std::bad_alloc();
    }
    newInitialSize += request;
    if (warns) {
      warn(chainExtendedLine, name);
    }
  }
  next = new PoolArea(this, newSize, name);
  initialSize = newInitialSize;
  allocated += newSize;
  return next;
}
