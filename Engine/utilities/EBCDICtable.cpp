#include "Engine/utilities/EBCDICtable.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <iterator>
#include <memory>

#include "Engine/internal/FixedLayout.h"
#include "Engine/utilities/EBCDIC.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(EBCDICtable::ValuePair, 4);
CUL_FIXED_FIELD(EBCDICtable::ValuePair, ucs, 0);
CUL_FIXED_FIELD(EBCDICtable::ValuePair, ebcdic, 2);
CUL_FIXED_SIZE(EBCDICtable, 1624);
CUL_FIXED_FIELD(EBCDICtable, dbcsPairs, 0);
CUL_FIXED_FIELD(EBCDICtable, upperPairs, 32);
CUL_FIXED_FIELD(EBCDICtable, name, 64);
CUL_FIXED_FIELD(EBCDICtable, toUCSTable, 88);
CUL_FIXED_FIELD(EBCDICtable, fromUCS7Table, 1112);

namespace {

using Pair = EBCDICtable::ValuePair;

constexpr const char* builtInName = "VKT-1047";

constexpr unsigned char shiftOut = 0x0E;
constexpr unsigned char shiftIn = 0x0F;

// Stand for what has no pair.
constexpr unsigned short noEBCDIC = 0x3F;
constexpr unsigned short noUCS = 0xFF;

// A double-byte value between single-byte ones: shift-out, two bytes, shift-in.
constexpr std::size_t longestForOneValue = 4;

List<Pair> builtInPairs() {
  List<Pair> pairs(EBCDIC::codePage1047.size());
  for (const unsigned short value : EBCDIC::codePage1047) {
    pairs.add({value, static_cast<unsigned short>(pairs.count())});
  }
  return pairs;
}

// Equal keys stay in the order of the pairs.
void sortBy(unsigned short Pair::*key, List<Pair>& pairs) {
  std::stable_sort(pairs.begin(), pairs.end(),
                   [key](const Pair& a, const Pair& b) { return a.*key < b.*key; });
}

// The first pair whose key is `value`; null when there is none.
template <unsigned short Pair::*key>
const Pair* find(const List<Pair>& pairs, unsigned value) noexcept {
  const Pair* const first = pairs.begin();
  // Code pages of one byte have all of U+0080 to U+00FF: a run without gaps at the start.
  const unsigned place = pairs.isEmpty() ? 0 : value - first->*key;
  if (place < pairs.count() && first[place].*key == value &&
      (place == 0 || first[place - 1].*key != value)) {
    return first + place;
  }
  const Pair* const found =
      std::lower_bound(first, pairs.end(), value,
                       [](const Pair& pair, unsigned wanted) { return pair.*key < wanted; });
  return found != pairs.end() && found->*key == value ? found : nullptr;
}

}  // namespace

EBCDICtable::EBCDICtable() : EBCDICtable(builtInPairs(), builtInName) {}

EBCDICtable::EBCDICtable(const List<ValuePair>& pairs, const char* tableName) : name(tableName) {
  createTables(pairs);
}

void EBCDICtable::createTables(const List<ValuePair>& pairs) {
  unsigned short byte = 0;
  for (ValuePair& pair : toUCSTable) {
    pair = {noUCS, byte++};
  }
  unsigned short value = 0;
  for (ValuePair& pair : fromUCS7Table) {
    pair = {value++, noEBCDIC};
  }
  // Backwards: of two pairs for the same slot the earlier one stays.
  for (unsigned i = pairs.count(); i != 0; --i) {
    const ValuePair& pair = pairs[i - 1];
    if (pair.ucs < std::size(fromUCS7Table)) {
      fromUCS7Table[pair.ucs] = pair;
    }
    if (pair.ebcdic < std::size(toUCSTable)) {
      toUCSTable[pair.ebcdic] = pair;
    }
  }
  dbcsPairs.extend(pairs.count());
  upperPairs.extend(pairs.count());
  for (const ValuePair& pair : pairs) {
    if (pair.ucs >= std::size(fromUCS7Table)) {
      upperPairs.add(pair);
    }
    if (pair.ebcdic >= std::size(toUCSTable)) {
      dbcsPairs.add(pair);
    }
  }
  sortBy(&ValuePair::ucs, upperPairs);
  sortBy(&ValuePair::ebcdic, dbcsPairs);
}

// Without a pair it is the byte that stands for that.
unsigned EBCDICtable::ebcdicOf(unsigned value) const noexcept {
  if (value < std::size(fromUCS7Table)) {
    return fromUCS7Table[value].ebcdic;
  }
  const ValuePair* const pair = find<&ValuePair::ucs>(upperPairs, value);
  return pair != nullptr ? pair->ebcdic : noEBCDIC;
}

wchar_t EBCDICtable::doubleByteUCS(unsigned value) const noexcept {
  const ValuePair* const pair = find<&ValuePair::ebcdic>(dbcsPairs, value);
  return pair != nullptr ? pair->ucs : noUCS;
}

ByteString EBCDICtable::fromUCS(const wchar_t* text, unsigned n) const {
  ByteString result;
  if (text == nullptr || n == 0) {
    return result;
  }
  if (dbcsPairs.isEmpty()) {
    result.makeBuffer(n);
    convert(text, n, result);
    return result;
  }
  const auto area = std::make_unique_for_overwrite<unsigned char[]>(n * longestForOneValue);
  const unsigned char* const end = convert(text, n, area.get());
  // No string has the greatest length: that is refused.
  return {area.get(), static_cast<unsigned>(std::min<std::ptrdiff_t>(end - area.get(), UINT_MAX))};
}

// The end of what was written.
unsigned char* EBCDICtable::convert(const wchar_t* text, unsigned n,
                                    unsigned char* to) const noexcept {
  bool isDouble = false;
  for (unsigned i = 0; i < n; ++i) {
    const unsigned value = ebcdicOf(static_cast<unsigned>(text[i]));
    const bool needsDouble = value >= std::size(toUCSTable);
    if (needsDouble != isDouble) {
      *to++ = needsDouble ? shiftOut : shiftIn;
      isDouble = needsDouble;
    }
    if (needsDouble) {
      *to++ = static_cast<unsigned char>(value >> CHAR_BIT);
    }
    *to++ = static_cast<unsigned char>(value);
  }
  if (isDouble) {
    *to++ = shiftIn;
  }
  return to;
}

CharString EBCDICtable::toUCS(const unsigned char* bytes, unsigned n) const {
  CharString result;
  if (bytes == nullptr || n == 0) {
    return result;
  }
  if (dbcsPairs.isEmpty()) {
    result.makeBuffer(n);
    wchar_t* const to = result;
    std::transform(bytes, bytes + n, to,
                   [this](unsigned char byte) { return toUCSTable[byte].ucs; });
    return result;
  }
  const auto area = std::make_unique_for_overwrite<wchar_t[]>(n);
  const wchar_t* const end = convert(bytes, n, area.get());
  return {area.get(), static_cast<unsigned>(end - area.get())};
}

// The end of what was written, for a table with double-byte values.
wchar_t* EBCDICtable::convert(const unsigned char* bytes, unsigned n, wchar_t* to) const noexcept {
  bool isDouble = false;
  for (unsigned i = 0; i < n; ++i) {
    const unsigned char byte = bytes[i];
    if (byte == (isDouble ? shiftIn : shiftOut)) {
      isDouble = !isDouble;
    } else if (!isDouble) {
      *to++ = toUCSTable[byte].ucs;
    } else if (++i < n) {
      *to++ = doubleByteUCS(unsigned{byte} << CHAR_BIT | bytes[i]);
    } else {
      *to++ = noUCS;
    }
  }
  return to;
}
