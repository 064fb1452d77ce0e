#include "Engine/utilities/StringBuffer.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <emmintrin.h>
#include <new>
#include <type_traits>

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/StringStock.h"
#include "Engine/utilities/Checksums.h"
#include "Engine/utilities/StringPoolManager.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(StringBuffer<char>, 24);
CUL_FIXED_FIELD(StringBuffer<char>, buffer, 8);
CUL_FIXED_FIELD(StringBuffer<char>, len, 16);

namespace {

constexpr unsigned allTheRest = 0xFFFFFFFF;

// How many elements stand in front of a position; 0 counts as 1.
constexpr unsigned skippedBefore(unsigned start) noexcept { return start == 0 ? 0 : start - 1; }

template <class T>
constexpr bool isWide = sizeof(T) == sizeof(wchar_t);

// Block sizes are 32-bit, lengths are too: what does not fit cannot be had.
template <class T>
unsigned blockSize(std::uint64_t elements) {
  const std::uint64_t bytes = (elements + 1) * sizeof(T);
  if (bytes > UINT_MAX) {
    throw std::bad_alloc();
  }
  return static_cast<unsigned>(bytes);
}

// Null pointers come with empty pieces only.
template <class T>
T* copyElements(T* to, const T* from, std::size_t n) noexcept {
  if (n != 0) {
    std::memcpy(to, from, n * sizeof(T));
  }
  return to + n;
}

template <class T>
void fillElements(T* to, T value, std::size_t n) noexcept {
  if constexpr (isWide<T>) {
    std::wmemset(to, value, n);
  } else {
    std::memset(to, static_cast<unsigned char>(value), n);
  }
}

// The scans below take `n` elements and give an index, or `n` when there is none.

template <class T>
unsigned firstOf(const T* text, unsigned n, T c) noexcept {
  const void* found;
  if constexpr (isWide<T>) {
    found = std::wmemchr(text, c, n);
  } else {
    found = std::memchr(text, static_cast<unsigned char>(c), n);
  }
  return found == nullptr ? n : static_cast<unsigned>(static_cast<const T*>(found) - text);
}

template <class T>
__m128i spread(T c) noexcept {
  if constexpr (isWide<T>) {
    return _mm_set1_epi32(c);
  } else {
    return _mm_set1_epi8(static_cast<char>(c));
  }
}

// One bit per byte of the 16 at `text`, set where the elements equal those of `pattern`.
template <class T>
unsigned equalBytes(const T* text, __m128i pattern) noexcept {
  const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text));
  if constexpr (isWide<T>) {
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi32(bytes, pattern)));
  } else {
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, pattern)));
  }
}

constexpr unsigned allBytes = 0xFFFF;

template <class T>
constexpr unsigned width = sizeof(T);

template <class T>
constexpr unsigned step = 16 / width<T>;

template <class T>
unsigned firstBut(const T* text, unsigned n, T c) noexcept {
  const __m128i pattern = spread(c);
  unsigned i = 0;
  for (; n - i >= step<T>; i += step<T>) {
    const unsigned different = equalBytes(text + i, pattern) ^ allBytes;
    if (different != 0) {
      return i + static_cast<unsigned>(std::countr_zero(different)) / width<T>;
    }
  }
  while (i < n && text[i] == c) {
    ++i;
  }
  return i;
}

// The last element that equals `c`, or that does not, as a 1-based position; 0 if none.
template <bool wantEqual, class T>
unsigned lastPosition(const T* text, unsigned n, T c) noexcept {
  const __m128i pattern = spread(c);
  for (; n >= step<T>; n -= step<T>) {
    const unsigned equal = equalBytes(text + n - step<T>, pattern);
    const unsigned wanted = wantEqual ? equal : equal ^ allBytes;
    if (wanted != 0) {
      const unsigned highest = static_cast<unsigned>(std::bit_width(wanted)) - 1;
      return n - step<T> + highest / width<T> + 1;
    }
  }
  while (n != 0 && (text[n - 1] == c) != wantEqual) {
    --n;
  }
  return n;
}

// Where `pattern` stands first in `text`, null if nowhere; 0 < m <= n. Compares the first
// and the last element of the pattern at several places at once and the rest only where
// both agree. A text that agrees too often without a match is left to memmem(), whose time
// is linear whatever the text.
template <class T>
const T* findText(const T* text, std::size_t n, const T* pattern, std::size_t m) noexcept {
  constexpr unsigned maximumMisses = 1000;
  constexpr unsigned elementBytes = (1U << width<T>)-1;
  const std::size_t places = n - m + 1;
  const T* const lasts = text + m - 1;
  const __m128i first = spread(pattern[0]);
  const __m128i last = spread(pattern[m - 1]);
  unsigned misses = 0;
  std::size_t i = 0;
  for (; places - i >= step<T>; i += step<T>) {
    unsigned agreeing = equalBytes(text + i, first) & equalBytes(lasts + i, last);
    while (agreeing != 0) {
      const auto lowest = static_cast<unsigned>(std::countr_zero(agreeing));
      const T* const candidate = text + i + lowest / width<T>;
      if (std::memcmp(candidate, pattern, m * sizeof(T)) == 0) {
        return candidate;
      }
      agreeing &= ~(elementBytes << lowest);
      ++misses;
    }
    if (!isWide<T> && misses > maximumMisses) {
      return static_cast<const T*>(memmem(text + i, n - i, pattern, m));
    }
  }
  for (; i != places; ++i) {
    if (text[i] == pattern[0] && std::memcmp(text + i, pattern, m * sizeof(T)) == 0) {
      return text + i;
    }
  }
  return nullptr;
}

template <class T, class Predicate>
bool isAll(const T* text, unsigned n, Predicate predicate) noexcept {
  return n != 0 && std::all_of(text, text + n, predicate);
}

template <class T>
constexpr bool isDecimalDigit(T c) noexcept {
  return c >= '0' && c <= '9';
}

}  // namespace

template <class T>
T* StringBuffer<T>::getBlock(unsigned n) {
  const unsigned size = blockSize<T>(n);
  void* block = getFromStock(size);
  if (block == nullptr) [[unlikely]] {
    block = StringPoolManager::instance().getBuffer(size);
  }
  static_cast<T*>(block)[n] = 0;
  return static_cast<T*>(block);
}

template <class T>
void StringBuffer<T>::freeBlock(T* block, unsigned n) noexcept {
  const auto size = static_cast<unsigned>((n + std::size_t{1}) * sizeof(T));
  if (!giveToStock(block, size)) [[unlikely]] {
    StringPoolManager::instance().freeBuffer(block, size);
  }
}

template <class T>
StringBuffer<T>::StringBuffer(const T* text, unsigned n) : StringBuffer() {
  makeBuffer(n);
  copyElements(buffer, text, n);
}

template <class T>
StringBuffer<T>::StringBuffer(const StringBuffer& s, unsigned start) : StringBuffer() {
  const unsigned skipped = skippedBefore(start);
  if (skipped < s.len) {
    makeBuffer(s.len - skipped);
    copyElements(buffer, s.buffer + skipped, len);
  }
}

template <class T>
StringBuffer<T>::StringBuffer(const StringBuffer& s, unsigned start, unsigned count, T pad)
    : StringBuffer() {
  makeBuffer(count);
  const unsigned skipped = skippedBefore(start);
  const unsigned present = skipped < s.len ? std::min(count, s.len - skipped) : 0;
  T* end = copyElements(buffer, s.buffer + (present == 0 ? 0 : skipped), present);
  fillElements(end, pad, count - present);
}

template <class T>
StringBuffer<T>::StringBuffer(const StringBuffer& s) : StringBuffer(s.buffer, s.len) {}

template <class T>
StringBuffer<T>& StringBuffer<T>::operator=(const StringBuffer& s) {
  if (this != &s) {
    makeBuffer(s.len);
    copyElements(buffer, s.buffer, s.len);
  }
  return *this;
}

template <class T>
StringBuffer<T>& StringBuffer<T>::operator+=(const StringBuffer& s) {
  if (s.len != 0) {
    splice(len, 0, s.buffer, s.len);
  }
  return *this;
}

template <class T>
void StringBuffer<T>::splice(unsigned kept, unsigned removed, const T* inserted, unsigned count) {
  const unsigned behind = kept + removed;
  const std::uint64_t total = std::uint64_t{len} - removed + count;
  if (total == 0) {
    clear();
    return;
  }
  static_cast<void>(blockSize<T>(total));
  const unsigned n = static_cast<unsigned>(total);
  T* const block = getBlock(n);
  T* end = copyElements(block, buffer, kept);
  end = copyElements(end, inserted, count);
  copyElements(end, buffer + behind, len - behind);
  deleteBuffer();
  buffer = block;
  len = n;
}

template <class T>
unsigned StringBuffer<T>::indexOf(T c, unsigned start) const noexcept {
  const unsigned skipped = skippedBefore(start);
  if (skipped >= len) {
    return 0;
  }
  const unsigned index = skipped + firstOf(buffer + skipped, len - skipped, c);
  return index == len ? 0 : index + 1;
}

template <class T>
unsigned StringBuffer<T>::indexOfAnyBut(T c, unsigned start) const noexcept {
  const unsigned skipped = skippedBefore(start);
  if (skipped >= len) {
    return 0;
  }
  const unsigned index = skipped + firstBut(buffer + skipped, len - skipped, c);
  return index == len ? 0 : index + 1;
}

template <class T>
unsigned StringBuffer<T>::lastIndexOf(T c, unsigned start) const noexcept {
  return lastPosition<true>(buffer, std::min(start, len), c);
}

template <class T>
unsigned StringBuffer<T>::lastIndexOfAnyBut(T c, unsigned start) const noexcept {
  return lastPosition<false>(buffer, std::min(start, len), c);
}

template <class T>
unsigned StringBuffer<T>::indexOf(const StringBuffer& pattern, unsigned start) const noexcept {
  const unsigned skipped = skippedBefore(start);
  if (std::int64_t{skipped} > std::int64_t{len} - std::int64_t{pattern.len}) {
    return 0;
  }
  if (pattern.len == 0) {
    return skipped + 1;
  }
  const T* found = findText(buffer + skipped, len - skipped, pattern.buffer, pattern.len);
  return found == nullptr ? 0 : static_cast<unsigned>(found - buffer) + 1;
}

template <class T>
unsigned StringBuffer<T>::occurrencesOf(const StringBuffer& pattern,
                                        unsigned start) const noexcept {
  if (pattern.len == 0) {
    return 0;
  }
  unsigned occurrences = 0;
  for (unsigned found = indexOf(pattern, start); found != 0;
       found = indexOf(pattern, found + pattern.len)) {
    ++occurrences;
  }
  return occurrences;
}

template <class T>
bool StringBuffer<T>::isDigits() const noexcept {
  return isAll(buffer, len, isDecimalDigit<T>);
}

template <class T>
bool StringBuffer<T>::isHexDigits() const noexcept {
  return isAll(buffer, len, [](T c) {
    return isDecimalDigit(c) || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
  });
}

template <class T>
bool StringBuffer<T>::isBinaryDigits() const noexcept {
  return isAll(buffer, len, [](T c) { return c == '0' || c == '1'; });
}

template <class T>
unsigned StringBuffer<T>::hashValue() const noexcept {
  // The low half of a product depends on the low halves of its factors only.
  constexpr std::uint64_t offsetBasis = 0xCBF29CE484222325;
  constexpr std::uint64_t prime = 0x100000001B3;
  auto hash = static_cast<std::uint32_t>(offsetBasis);
  const auto* bytes = reinterpret_cast<const unsigned char*>(buffer);
  for (const auto* end = bytes + std::size_t{len} * sizeof(T); bytes != end; ++bytes) {
    hash = (hash ^ *bytes) * static_cast<std::uint32_t>(prime);
  }
  return hash;
}

template <class T>
unsigned char StringBuffer<T>::hashValue8() const noexcept {
  return crc8(static_cast<unsigned>(len * sizeof(T)), buffer, 0U);
}

template <class T>
void StringBuffer<T>::remove(unsigned pos, unsigned count) {
  if (pos == 0 || pos > len || count == 0) {
    return;
  }
  const unsigned kept = pos - 1;
  const unsigned rest = len - kept;
  splice(kept, count == allTheRest ? rest : std::min(count, rest), nullptr, 0);
}

template <class T>
void StringBuffer<T>::change(const StringBuffer& from, const StringBuffer& to, unsigned start) {
  if (len < start) {
    return;
  }
  const unsigned found = indexOf(from, start);
  if (found != 0) {
    splice(found - 1, from.len, to.buffer, to.len);
  }
}

template <class T>
void StringBuffer<T>::rightJustify(unsigned width, T pad) {
  if (len >= width) {
    return;
  }
  T* const block = getBlock(width);
  fillElements(block, pad, width - len);
  copyElements(block + (width - len), buffer, len);
  deleteBuffer();
  buffer = block;
  len = width;
}

template class StringBuffer<char>;
template class StringBuffer<unsigned char>;
template class StringBuffer<wchar_t>;
