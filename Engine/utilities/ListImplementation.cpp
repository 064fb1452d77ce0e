#include "Engine/utilities/ListImplementation.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <emmintrin.h>
#include <new>

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/ListSort.h"
#include "Engine/utilities/HeapMemoryAllocator.h"
#include "Engine/utilities/List.h"
#include "Engine/utilities/Pool.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(ListImplementation, 24);
CUL_FIXED_FIELD(ListImplementation, allocator, 0);
CUL_FIXED_FIELD(ListImplementation, count, 8);
CUL_FIXED_FIELD(ListImplementation, capacity, 12);
CUL_FIXED_FIELD(ListImplementation, elementSize_, 16);
CUL_FIXED_FIELD(ListImplementation, growth_, 18);
CUL_FIXED_SIZE(List<void*>, 32);
CUL_FIXED_FIELD(List<void*>, implementation_, 0);
CUL_FIXED_FIELD(List<void*>, elements_, 24);

namespace {

template <typename Word>
__m128i spread(Word word) {
  if constexpr (sizeof(Word) == 2) {
    return _mm_set1_epi16(static_cast<short>(word));
  } else if constexpr (sizeof(Word) == 4) {
    return _mm_set1_epi32(static_cast<int>(word));
  } else {
    return _mm_set1_epi64x(static_cast<long long>(word));
  }
}

template <typename Word>
__m128i equalWords(__m128i left, __m128i right) {
  if constexpr (sizeof(Word) == 2) {
    return _mm_cmpeq_epi16(left, right);
  } else {
    const __m128i halves = _mm_cmpeq_epi32(left, right);
    if constexpr (sizeof(Word) == 4) {
      return halves;
    } else {
      // SSE2 has no comparison of 64-bit lanes: both halves must be equal.
      return _mm_and_si128(halves, _mm_shuffle_epi32(halves, _MM_SHUFFLE(2, 3, 0, 1)));
    }
  }
}

__m128i vectorAt(const unsigned char* bytes) {
  // Unaligned: pool memory is only 4-byte aligned.
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
}

// Elements of a machine word's size are compared as that word: a block of four vectors at a
// time, then one vector, then one word.
template <typename Word>
unsigned int findWord(const unsigned char* elements, std::size_t count, const void* item) {
  constexpr std::size_t vectorSize = sizeof(__m128i);
  constexpr std::size_t blockSize = 4 * vectorSize;
  Word wanted;
  std::memcpy(&wanted, item, sizeof wanted);
  const __m128i wantedVector = spread(wanted);
  const unsigned char* const end = elements + count * sizeof(Word);
  const unsigned char* place = elements;
  for (; static_cast<std::size_t>(end - place) >= blockSize; place += blockSize) {
    const __m128i first = equalWords<Word>(vectorAt(place), wantedVector);
    const __m128i second = equalWords<Word>(vectorAt(place + vectorSize), wantedVector);
    const __m128i third = equalWords<Word>(vectorAt(place + 2 * vectorSize), wantedVector);
    const __m128i fourth = equalWords<Word>(vectorAt(place + 3 * vectorSize), wantedVector);
    const __m128i any = _mm_or_si128(_mm_or_si128(first, second), _mm_or_si128(third, fourth));
    if (_mm_movemask_epi8(any) != 0) {
      break;  // The loop below finds which.
    }
  }
  for (; static_cast<std::size_t>(end - place) >= vectorSize; place += vectorSize) {
    const int equalBytes = _mm_movemask_epi8(equalWords<Word>(vectorAt(place), wantedVector));
    if (equalBytes != 0) {
      place += __builtin_ctz(static_cast<unsigned int>(equalBytes));
      return static_cast<unsigned int>(static_cast<std::size_t>(place - elements) / sizeof(Word) +
                                       1);
    }
  }
  for (; place != end; place += sizeof(Word)) {
    Word word;
    std::memcpy(&word, place, sizeof word);
    if (word == wanted) {
      return static_cast<unsigned int>(static_cast<std::size_t>(place - elements) / sizeof(Word) +
                                       1);
    }
  }
  return 0;
}

unsigned int findByte(const unsigned char* elements, std::size_t count, const void* item) {
  const void* const found = std::memchr(elements, *static_cast<const unsigned char*>(item), count);
  return found == nullptr
             ? 0
             : static_cast<unsigned int>(static_cast<const unsigned char*>(found) - elements + 1);
}

unsigned int findBytes(const unsigned char* elements, std::size_t count, std::size_t size,
                       const void* item) {
  for (std::size_t i = 0; i < count; ++i) {
    if (std::memcmp(elements + i * size, item, size) == 0) {
      return static_cast<unsigned int>(i + 1);
    }
  }
  return 0;
}

}  // namespace

ListImplementation::ListImplementation(void** buffer, unsigned int initialCapacity, Pool* pool,
                                       unsigned short elementSize, unsigned short growth)
    : allocator(pool != nullptr ? &pool->allocator() : HeapMemoryAllocator::instance()),
      count(0),
      capacity(initialCapacity),
      elementSize_(elementSize),
      growth_(std::max<unsigned short>(growth, 1)) {
  *buffer = initialCapacity != 0 ? allocateBuffer() : nullptr;
}

void* ListImplementation::allocateBuffer() {
  unsigned int size;
  if (__builtin_mul_overflow(capacity, static_cast<unsigned int>(elementSize_), &size)) {
    throw std::bad_alloc();
  }
  return allocator->get(size);
}

void ListImplementation::deleteItems(void* buffer) { allocator->conditionalPut(buffer); }

// Replaces the buffer by one of `newCapacity` elements and returns the outgrown one, null if
// there was none, for the caller to give back.
void* ListImplementation::enlarge(unsigned long newCapacity, void** buffer) {
  if (newCapacity > UINT_MAX) {
    throw std::bad_alloc();
  }
  const unsigned int oldCapacity = capacity;
  void* newBuffer;
  capacity = static_cast<unsigned int>(newCapacity);
  try {
    newBuffer = allocateBuffer();
  } catch (...) {
    capacity = oldCapacity;
    throw;
  }
  void* const oldBuffer = oldCapacity != 0 ? *buffer : nullptr;
  if (oldBuffer != nullptr) {
    std::memcpy(newBuffer, oldBuffer, std::size_t{count} * elementSize_);
  }
  *buffer = newBuffer;
  return oldBuffer;
}

void ListImplementation::extend(unsigned int n, void** buffer) {
  const unsigned int room = capacity - count;
  if (capacity != 0 && n <= room) {
    return;
  }
  const unsigned int missing = n - room;
  deleteItems(enlarge(
      static_cast<unsigned long>(capacity) + std::max<unsigned int>(missing, growth_), buffer));
}

void ListImplementation::appendItems(void** buffer, const void* items, unsigned int n) {
  if (n == 0) {
    return;
  }
  void* outgrown = nullptr;
  const unsigned int room = capacity - count;
  if (n > room) {
    outgrown = enlarge(
        static_cast<unsigned long>(capacity) + std::max<unsigned int>(n - room, growth_), buffer);
  }
  std::memcpy(static_cast<unsigned char*>(*buffer) + std::size_t{count} * elementSize_, items,
              std::size_t{n} * elementSize_);
  count += n;
  // Only now, because the items may have been the list's own.
  if (outgrown != nullptr) {
    deleteItems(outgrown);
  }
}

void ListImplementation::insert_at(unsigned int index, void** buffer, const void* item) {
  const std::size_t size = elementSize_;
  if (index > count) {
    if (capacity <= index) {
      const unsigned long missing = static_cast<unsigned long>(index) + growth_ - count;
      if (missing > UINT_MAX) {
        throw std::bad_alloc();
      }
      extend(static_cast<unsigned int>(missing), buffer);
    }
    unsigned char* const elements = static_cast<unsigned char*>(*buffer);
    std::memset(elements + count * size, 0, (index - count) * size);
    count = index + 1;
  } else {
    if (count == capacity) {
      extend(growth_, buffer);
    }
    unsigned char* const place = static_cast<unsigned char*>(*buffer) + index * size;
    std::memmove(place + size, place, (count - index) * size);
    ++count;
  }
  std::memcpy(static_cast<unsigned char*>(*buffer) + index * size, item, size);
}

void ListImplementation::remove(unsigned int index, const void* buffer) {
  if (index >= count) {
    return;
  }
  --count;
  const std::size_t size = elementSize_;
  // The elements move although the buffer is handed in as constant, like to all that do not
  // replace it.
  auto* const place = static_cast<unsigned char*>(const_cast<void*>(buffer)) + index * size;
  std::memmove(place, place + size, (count - index) * size);
}

unsigned int ListImplementation::findItem(const void* buffer, const void* item) const {
  if (count == 0) {
    return 0;
  }
  const auto* const elements = static_cast<const unsigned char*>(buffer);
  switch (elementSize_) {
    case 1:
      return findByte(elements, count, item);
    case 2:
      return findWord<std::uint16_t>(elements, count, item);
    case 4:
      return findWord<std::uint32_t>(elements, count, item);
    case 8:
      return findWord<std::uint64_t>(elements, count, item);
    default:
      return findBytes(elements, count, elementSize_, item);
  }
}

bool ListImplementation::bSort(int (*compare)(const void*, const void*), void* buffer,
                               void* scratch) {
  return sortElements(compare, buffer, count, elementSize_, scratch);
}
