#include "Engine/utilities/StringPoolManager.h"

#include <cstddef>
#include <new>
#include <sys/single_threaded.h>

#include "Engine/utilities/AcrossFork.h"
#include "Engine/utilities/LockGuard.h"
#include "Engine/utilities/UNIX/HeldLock.h"
#include "Engine/utilities/UNIX/HoldRequests.h"
#include "Engine/utilities/UNIX/RequestToEnd.h"

namespace {

// The lock costs as much as the rest of the work. While the process has one thread, nobody
// else can be on the lists, and what goes without the lock is a few moves that call nothing
// and so cannot start a second thread. A request to the heap can, through a new-handler:
// it is always made under the lock.
bool isOnlyThread() noexcept { return __libc_single_threaded != 0; }

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
  theInstance_.store(made, std::memory_order_release);
  return *made;
}

StringPoolManager::SizeClass StringPoolManager::classOf(unsigned size) noexcept {
  constexpr unsigned granule = 8;
  static constexpr SizeClass classes[] = {size8,  size8,  size16, size24, size32,
                                          size48, size48, size64, size64};
  return classes[(size + granule - 1) / granule];
}

void* StringPoolManager::getBuffer(unsigned size) {
  if (requestIsPending) [[unlikely]] {
    endIfAsked();
  }
  // A thread must not end while it has a lock, this one or one inside the heap.
  const HoldRequests hold;
  if (size > maximumPooledSize) {
    return new char[size];
  }
  const SizeClass wanted = classOf(size);
  if (isOnlyThread() && freeLists_[wanted] != nullptr) {
    return pop(wanted);
  }
  const LockGuard guard(lock_, "void* StringPoolManager::getBuffer(unsigned int)", __LINE__);
  return pop(wanted);
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
  const SizeClass given = classOf(size);
  if (isOnlyThread()) {
    push(given, p);
    return;
  }
  const LockGuard guard(lock_, "void StringPoolManager::freeBuffer(void*, unsigned int)", __LINE__);
  push(given, p);
}

unsigned StringPoolManager::freeBlocks(unsigned size) {
  if (size > maximumPooledSize) {
    return 0;
  }
  const HeldLock held(lock_, "unsigned int StringPoolManager::freeBlocks(unsigned int)", __LINE__);
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

void StringPoolManager::push(SizeClass given, void* p) noexcept {
  FreeBlock*& head = freeLists_[given];
  head = new (p) FreeBlock{head};
}

// Takes a block of a class whose list is empty. A new-handler may have freed blocks of that
// class when the heap has answered: they are kept.
StringPoolManager::FreeBlock* StringPoolManager::refill(SizeClass empty) {
  const ClassRule& rule = classRules[empty];
  if (rule.blocksInChunk != 0) {
    return refillFromHeap(empty);
  }
  char* const whole = reinterpret_cast<char*>(pop(rule.larger));
  push(empty, whole + rule.blockSize);
  return new (whole) FreeBlock{nullptr};
}

StringPoolManager::FreeBlock* StringPoolManager::refillFromHeap(SizeClass empty) {
  const ClassRule& rule = classRules[empty];
  char* const chunk = new char[rule.blockSize * rule.blocksInChunk];
  // Backwards, so that the list is in the order of addresses.
  for (unsigned i = rule.blocksInChunk; i != 0; --i) {
    push(empty, chunk + (i - 1) * rule.blockSize);
  }
  return pop(empty);
}

bool AcrossFork::holdStrings() noexcept {
  StringPoolManager* const pool = StringPoolManager::theInstance_.load(std::memory_order_acquire);
  if (pool != nullptr) {
    pool->lock_.request("bool AcrossFork::holdStrings()", __LINE__);
  }
  return pool != nullptr;
}

void AcrossFork::releaseStrings() noexcept {
  StringPoolManager::instance().lock_.release("void AcrossFork::releaseStrings()", __LINE__);
}
