#include "Engine/utilities/StringPoolManager.h"

#include <cstddef>
#include <new>
#include <sys/single_threaded.h>

#include "Engine/utilities/UNIX/HoldRequests.h"

namespace {

// The lock costs as much as the rest of the work. A process that has not started a second
// thread yet has nobody to guard the lists against.
class PoolGuard {
 public:
  PoolGuard(UNIX_Critical_Section& lock, const char* file, unsigned line)
      : lock_(__libc_single_threaded == 0 ? &lock : nullptr), file_(file), line_(line) {
    if (lock_ != nullptr) {
      lock_->request(file_, line_);
    }
  }
  PoolGuard(const PoolGuard&) = delete;
  PoolGuard& operator=(const PoolGuard&) = delete;
  ~PoolGuard() noexcept(false) {
    if (lock_ != nullptr) {
      lock_->release(file_, line_);
    }
  }

 private:
  UNIX_Critical_Section* lock_;
  const char* file_;
  unsigned line_;
};

}  // namespace

// Two families: 8 from 16 from 32 from 64, and 24 from 48.
struct StringPoolManager::ClassRule {
  std::size_t blockSize;
  SizeClass larger;        ///< Whose blocks are split in two to refill this class.
  unsigned blocksInChunk;  ///< Not 0: this class is refilled from the heap.
};

constexpr StringPoolManager::ClassRule StringPoolManager::classRules[sizeClasses] = {
    {8, size16, 0},  {16, size32, 0},   {24, size48, 0},
    {32, size64, 0}, {48, size48, 170}, {64, size64, 127}};

constinit std::atomic<StringPoolManager*> StringPoolManager::theInstance_ = nullptr;

StringPoolManager& StringPoolManager::makeInstance() {
  StringPoolManager* const made = new StringPoolManager;
  StringPoolManager* present = nullptr;
  if (theInstance_.compare_exchange_strong(present, made, std::memory_order_acq_rel)) {
    return *made;
  }
  delete made;
  return *present;
}

StringPoolManager::SizeClass StringPoolManager::classOf(unsigned size) noexcept {
  constexpr unsigned granule = 8;
  static constexpr SizeClass classes[] = {size8,  size8,  size16, size24, size32,
                                          size48, size48, size64, size64};
  return classes[(size + granule - 1) / granule];
}

void* StringPoolManager::getBuffer(unsigned size) {
  // A thread must not end while it has a lock, this one or one inside the heap.
  const HoldRequests hold;
  if (size > maximumPooledSize) {
    return new char[size];
  }
  const PoolGuard guard(lock_, "void* StringPoolManager::getBuffer(unsigned int)", __LINE__);
  return pop(classOf(size));
}

void StringPoolManager::freeBuffer(void* p, unsigned size) {
  if (p == nullptr) {
    return;
  }
  const HoldRequests hold;
  if (size > maximumPooledSize) {
    delete[] static_cast<char*>(p);
    return;
  }
  const PoolGuard guard(lock_, "void StringPoolManager::freeBuffer(void*, unsigned int)", __LINE__);
  FreeBlock*& head = freeLists_[classOf(size)];
  head = new (p) FreeBlock{head};
}

unsigned StringPoolManager::freeBlocks(unsigned size) {
  if (size > maximumPooledSize) {
    return 0;
  }
  const HoldRequests hold;
  const PoolGuard guard(lock_, "unsigned int StringPoolManager::freeBlocks(unsigned int)",
                        __LINE__);
  unsigned count = 0;
  for (const FreeBlock* block = freeLists_[classOf(size)]; block != nullptr; block = block->next) {
    ++count;
  }
  return count;
}

StringPoolManager::FreeBlock* StringPoolManager::pop(SizeClass wanted) {
  FreeBlock*& head = freeLists_[wanted];
  FreeBlock* const block = head;
  if (block == nullptr) {
    return refill(wanted);
  }
  head = block->next;
  return block;
}

// Takes a block of a class whose list is empty.
StringPoolManager::FreeBlock* StringPoolManager::refill(SizeClass empty) {
  const ClassRule& rule = classRules[empty];
  if (rule.blocksInChunk != 0) {
    return refillFromHeap(empty);
  }
  char* const whole = reinterpret_cast<char*>(pop(rule.larger));
  freeLists_[empty] = new (whole + rule.blockSize) FreeBlock{nullptr};
  return new (whole) FreeBlock{nullptr};
}

StringPoolManager::FreeBlock* StringPoolManager::refillFromHeap(SizeClass empty) {
  const ClassRule& rule = classRules[empty];
  char* const chunk = new char[rule.blockSize * rule.blocksInChunk];
  FreeBlock* first = nullptr;
  for (unsigned i = rule.blocksInChunk; i != 0; --i) {
    first = new (chunk + (i - 1) * rule.blockSize) FreeBlock{first};
  }
  freeLists_[empty] = first->next;
  return first;
}
