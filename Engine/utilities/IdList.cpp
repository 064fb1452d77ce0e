#include "Engine/utilities/IdList.h"

#include <climits>
#include <new>

#include "Engine/internal/FixedLayout.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(IdList, 40);
CUL_FIXED_FIELD(IdList, directCount, 0);
CUL_FIXED_FIELD(IdList, elements_, 8);

namespace {

// An element is an identifier in the low 31 bits and the mark of a taken one above.
constexpr unsigned int takenBit = 0x80000000U;
constexpr unsigned int spareIdentifiers = 10;

constexpr unsigned int identifierOf(unsigned int element) { return element & ~takenBit; }
constexpr bool isTaken(unsigned int element) { return (element & takenBit) != 0; }
constexpr bool isIdentifier(unsigned int id) { return !isTaken(id); }

unsigned int initialCapacity(unsigned int directIdentifiers) {
  if (directIdentifiers > UINT_MAX - spareIdentifiers) {
    throw std::bad_alloc();
  }
  return directIdentifiers + spareIdentifiers;
}

}  // namespace

IdList::IdList(unsigned int directIdentifiers)
    : directCount(directIdentifiers), elements_(initialCapacity(directIdentifiers)) {
  releaseAll();
}

IdList::IdList(const IdList& other)
    : directCount(other.directCount), elements_(initialCapacity(other.directCount)) {
  elements_.append(other.elements_.begin(), other.elements_.count());
}

IdList& IdList::operator=(const IdList& other) {
  if (this != &other) {
    // Room first: without memory for it this list stays as it was.
    if (other.elements_.count() > elements_.count()) {
      elements_.extend(other.elements_.count() - elements_.count());
    }
    directCount = other.directCount;
    elements_.removeAll();
    elements_.append(other.elements_.begin(), other.elements_.count());
  }
  return *this;
}

void IdList::releaseAll() {
  elements_.removeAll();
  for (unsigned int id = 0; id < directCount + spareIdentifiers; ++id) {
    elements_.add(id);
  }
  elements_[0] |= takenBit;
}

unsigned int IdList::getNextId() {
  unsigned int id = directCount;
  for (; id < elements_.count() && identifierOf(elements_[id]) == id; ++id) {
    if (!isTaken(elements_[id])) {
      elements_[id] |= takenBit;
      return id;
    }
  }
  elements_.insertAt(id, id | takenBit);
  return id;
}

unsigned int IdList::reserveId(unsigned int id) {
  // Identifier 0 is taken already, also when it lies outside an empty direct range.
  if (id == 0 || !isIdentifier(id)) {
    return id;
  }
  const unsigned int index = id < directCount ? id : firstNotBelow(id, 1);
  if (index < elements_.count() && identifierOf(elements_[index]) == id) {
    elements_[index] |= takenBit;
  } else {
    elements_.insertAt(index, id | takenBit);
  }
  return id;
}

void IdList::releaseId(unsigned int id) {
  // The search leaves out identifier 0 in front, which so stays taken.
  const unsigned int index = firstNotBelow(id, 1);
  if (index < elements_.count() && identifierOf(elements_[index]) == id) {
    elements_[index] &= ~takenBit;
  }
}

bool IdList::isAssignable(unsigned int id) const {
  return id > 0 && id < directCount && !isTaken(elements_[id]);
}

bool IdList::isReservedId(unsigned int id) const {
  if (!isIdentifier(id)) {
    return false;
  }
  const unsigned int index = id < directCount ? id : firstNotBelow(id, directCount);
  return index < elements_.count() && identifierOf(elements_[index]) == id &&
         isTaken(elements_[index]);
}

// The index of the first element from `start` on whose identifier is `id` or larger; the
// number of elements if there is none.
unsigned int IdList::firstNotBelow(unsigned int id, unsigned int start) const {
  unsigned int end = elements_.count();
  while (start < end) {
    const unsigned int middle = start + (end - start) / 2;
    if (identifierOf(elements_[middle]) < id) {
      start = middle + 1;
    } else {
      end = middle;
    }
  }
  return start;
}
