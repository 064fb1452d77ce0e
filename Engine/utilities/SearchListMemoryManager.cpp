#include "Engine/utilities/SearchListMemoryManager.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <new>

#include "Engine/internal/FixedLayout.h"
#include "Engine/utilities/ListHeap.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(SearchListMemoryManager, 32);
CUL_FIXED_FIELD(SearchListMemoryManager, blocks_, 0);
CUL_FIXED_FIELD(SearchListMemoryManager, free_, 8);
CUL_FIXED_FIELD(SearchListMemoryManager, elementSize_, 16);
CUL_FIXED_FIELD(SearchListMemoryManager, elementsPerBlock_, 18);
CUL_FIXED_FIELD(SearchListMemoryManager, heap_, 24);

namespace {

constexpr unsigned linkSize = sizeof(void*);
constexpr unsigned roundedTo = 4;
constexpr unsigned largestElementSize = 65532;

unsigned short roundedElementSize(unsigned elementSize) {
  if (elementSize > largestElementSize) {
    throw std::bad_alloc();
  }
  const unsigned rounded = (elementSize + roundedTo - 1) / roundedTo * roundedTo;
  return static_cast<unsigned short>(std::max(linkSize, rounded));
}

// The first word of a block or of a free element, which may lie at 4 mod 8.
void* linkOf(const void* p) noexcept {
  void* link;
  std::memcpy(&link, p, linkSize);
  return link;
}

void setLink(void* p, void* link) noexcept { std::memcpy(p, &link, linkSize); }

}  // namespace

SearchListMemoryManager::SearchListMemoryManager(ListHeap* heap, unsigned short elementSize,
                                                 unsigned short elementsPerBlock)
    : elementSize_(roundedElementSize(elementSize)),
      elementsPerBlock_(std::max(elementsPerBlock, static_cast<unsigned short>(1))),
      heap_(heap) {}

SearchListMemoryManager::~SearchListMemoryManager() {
  while (blocks_ != nullptr) {
    void* const block = blocks_;
    blocks_ = linkOf(block);
    putBack(heap_, block);
  }
}

void* SearchListMemoryManager::getElement() {
  if (free_ == nullptr) [[unlikely]] {
    addBlock();
  }
  void* const element = free_;
  free_ = linkOf(element);
  return element;
}

void SearchListMemoryManager::releaseElement(void* p) noexcept {
  if (p != nullptr) {
    setLink(p, free_);
    free_ = p;
  }
}

// Chains a new block's elements in the order of their addresses.
void SearchListMemoryManager::addBlock() {
  const std::size_t elementBytes = std::size_t{elementSize_} * elementsPerBlock_;
  char* const block = static_cast<char*>(getFrom(heap_, elementBytes + linkSize));
  setLink(block, blocks_);
  blocks_ = block;
  char* const first = block + linkSize;
  char* element = first + elementBytes;
  do {
    element -= elementSize_;
    setLink(element, free_);
    free_ = element;
  } while (element != first);
}
