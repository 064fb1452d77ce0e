#include "Engine/utilities/StringPoolManager.h"

#include <cstddef>
#include <cstdlib>
#include <new>
#include <pthread.h>
#include <sys/single_threaded.h>

#include "Engine/internal/AcrossFork.h"
#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/HeldLock.h"
#include "Engine/internal/HoldRequests.h"
#include "Engine/internal/LockGuard.h"
#include "Engine/internal/RequestToEnd.h"
#include "Engine/internal/StringStock.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(StringPoolManager, 112);
CUL_FIXED_FIELD(StringPoolManager, freeLists_, 0);
CUL_FIXED_FIELD(StringPoolManager, lock_, 48);

constinit thread_local StringStock* ownStock = nullptr;

namespace {

constexpr const char* getBufferName = "void* StringPoolManager::getBuffer(unsigned int)";
constexpr const char* freeBufferName = "void StringPoolManager::freeBuffer(void*, unsigned int)";

// The lock costs as much as the rest of the work. While the process has one thread, nobody
// else can be on the lists, and what goes without the lock is a few moves that call nothing
// and so cannot start a second thread. A request to the heap can, through a new-handler:
// it is always made under the lock.
bool isOnlyThread() noexcept { return __libc_single_threaded != 0; }

// Whether the calling thread works on the lists from now on: it is ending and has given its stock
// back, or there was nothing to make one of. Whoever destroys strings even later finds the lists.
constinit thread_local bool isWithoutStock __attribute__((tls_model("initial-exec"))) = false;

// All stocks and those that belong to no thread, under the pool's lock. None is ever
// destroyed, so that nobody needs the heap for it: not the thread that ends, nor a forked child.
constinit StringStock* allStocks = nullptr;
constinit StringStock* spareStocks = nullptr;

// Tells of the end of a thread, also of one that the library has not started. A thread_local
// object would do so too early, and for want of memory could not be registered.
constinit pthread_key_t key = 0;

// Stores so that whoever is interrupted right before or after it leaves nothing half done.
template <typename T>
void commit(T*& place, T* value) noexcept {
  std::atomic_signal_fence(std::memory_order_seq_cst);
  __atomic_store_n(&place, value, __ATOMIC_RELAXED);
  std::atomic_signal_fence(std::memory_order_seq_cst);
}

void addSpare(StringStock& stock) noexcept {
  stock.nextSpare = spareStocks;
  commit(spareStocks, &stock);
}

// Whether there is a key, which the first stock needs; `leave` is called at a thread's end. Under
// the pool's lock.
bool hasKey(void (*leave)(void*)) noexcept {
  static constinit enum { unknown, yes, no } answer = unknown;
  if (answer == unknown) {
    answer = pthread_key_create(&key, leave) == 0 ? yes : no;
  }
  return answer == yes;
}

// A stock for the calling thread; null when it can have none. Under the pool's lock.
StringStock* acquireStock(void (*leave)(void*)) noexcept {
  StringStock* stock = spareStocks;
  if (stock != nullptr) {
    commit(spareStocks, stock->nextSpare);
  } else if (void* const memory = hasKey(leave) ? std::malloc(sizeof(StringStock)) : nullptr;
             memory != nullptr) {
    stock = new (memory) StringStock;
    stock->next = allStocks;
    commit(allStocks, stock);
  }
  if (stock != nullptr && pthread_setspecific(key, stock) != 0) {
    addSpare(*stock);
    stock = nullptr;
  }
  isWithoutStock = stock == nullptr;
  ownStock = stock;
  return stock;
}

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
  auto* const made = new StringPoolManager;
  StringPoolManager* first = nullptr;
  if (theInstance_.compare_exchange_strong(first, made, std::memory_order_acq_rel)) {
    return *made;
  }
  delete made;
  return *first;
}

StringPoolManager::SizeClass StringPoolManager::classOf(unsigned size) noexcept {
  static_assert(sizeClasses == StringStock::classes && maximumPooledSize == StringStock::largest);
  return static_cast<SizeClass>(StringStock::classOf(size));
}

void* StringPoolManager::getBuffer(unsigned size) {
  if (void* const block = getFromStock(size); block != nullptr) [[likely]] {
    return block;
  }
  if (requestIsPending) [[unlikely]] {
    endIfAsked();
  }
  if (size > maximumPooledSize) [[unlikely]] {
    return getFromHeap(size);
  }
  const SizeClass wanted = classOf(size);
  if (ownStock == nullptr && isOnlyThread() && freeLists_[wanted] != nullptr) [[likely]] {
    return popFromList(wanted);
  }
  return getFromLists(wanted);
}

void StringPoolManager::freeBuffer(void* p, unsigned size) {
  if (p == nullptr || giveToStock(p, size)) {
    return;
  }
  if (size > maximumPooledSize) [[unlikely]] {
    return giveToHeap(p);
  }
  const SizeClass given = classOf(size);
  if (ownStock == nullptr && isOnlyThread()) [[likely]] {
    return pushToList(given, p);
  }
  giveToLists(given, p);
}

// A thread must not end while it has a lock, of the pool or inside the heap.
void* StringPoolManager::getFromHeap(unsigned size) {
  const HoldRequests hold;
  return new char[size];
}

void* StringPoolManager::getFromLists(SizeClass wanted) {
  const HoldRequests hold;
  static_cast<void>(stock());
  return pop(wanted);
}

void StringPoolManager::giveToHeap(void* p) {
  const HoldRequests hold;
  delete[] static_cast<char*>(p);
}

void StringPoolManager::giveToLists(SizeClass given, void* p) {
  const HoldRequests hold;
  static_cast<void>(stock());
  push(given, p);
}

unsigned StringPoolManager::freeBlocks(unsigned size) {
  if (size > maximumPooledSize) {
    return 0;
  }
  const HeldLock held(lock_, "unsigned int StringPoolManager::freeBlocks(unsigned int)", __LINE__);
  const SizeClass sizeClass = classOf(size);
  unsigned count = ownStock != nullptr ? ownStock->count(sizeClass) : 0;
  for (const FreeBlock* block = freeLists_[sizeClass]; block != nullptr; block = block->next) {
    ++count;
  }
  return count;
}

// The calling thread's stock; null: it works on the lists themselves.
StringStock* StringPoolManager::stock() {
  if (ownStock != nullptr || isWithoutStock || isOnlyThread()) {
    return ownStock;
  }
  const LockGuard guard(lock_, "StringStock* StringPoolManager::stock()", __LINE__);
  return acquireStock(leaveOwnStock);
}

// Takes a block from the list as the calling thread sees it, with its stock on top.
StringPoolManager::FreeBlock* StringPoolManager::pop(SizeClass wanted) {
  if (ownStock != nullptr) {
    if (ownStock->count(wanted) != 0) {
      return static_cast<FreeBlock*>(ownStock->take(wanted));
    }
    // That there is nothing on a list can be seen without the lock.
    if (classRules[wanted].blocksInChunk == 0 &&
        __atomic_load_n(&freeLists_[wanted], __ATOMIC_RELAXED) == nullptr) {
      return refill(wanted);
    }
  }
  const LockGuard guard(lock_, getBufferName, __LINE__);
  if (freeLists_[wanted] == nullptr) {
    return refill(wanted);
  }
  return ownStock != nullptr ? popBatch(wanted) : popFromList(wanted);
}

// Frees a block onto the list as the calling thread sees it.
void StringPoolManager::push(SizeClass given, void* p) {
  if (ownStock != nullptr && ownStock->count(given) != StringStock::bound) {
    return ownStock->put(given, p);
  }
  const LockGuard guard(lock_, freeBufferName, __LINE__);
  if (ownStock == nullptr) {
    pushToList(given, p);
    return;
  }
  shed(*ownStock, given, StringStock::batch);
  ownStock->put(given, p);
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
  return reinterpret_cast<FreeBlock*>(whole);
}

// Under the lock.
StringPoolManager::FreeBlock* StringPoolManager::refillFromHeap(SizeClass empty) {
  const ClassRule& rule = classRules[empty];
  char* const chunk = new char[rule.blockSize * rule.blocksInChunk];
  // Backwards, so that the list is in the order of addresses.
  for (unsigned i = rule.blocksInChunk; i != 0; --i) {
    pushToList(empty, chunk + (i - 1) * rule.blockSize);
  }
  return pop(empty);
}

StringPoolManager::FreeBlock* StringPoolManager::popFromList(SizeClass wanted) noexcept {
  FreeBlock* const block = freeLists_[wanted];
  commit(freeLists_[wanted], block->next);
  return block;
}

void StringPoolManager::pushToList(SizeClass given, void* p) noexcept {
  commit(freeLists_[given], new (p) FreeBlock{freeLists_[given]});
}

// Takes a block from a list that is not empty, and fills the stock, which is empty, with those
// behind it. They stay in the order of the list.
StringPoolManager::FreeBlock* StringPoolManager::popBatch(SizeClass wanted) noexcept {
  FreeBlock* const block = popFromList(wanted);
  void* behind[StringStock::batch];
  unsigned n = 0;
  FreeBlock* rest = freeLists_[wanted];
  for (; n < StringStock::batch - 1 && rest != nullptr; rest = rest->next) {
    behind[n++] = rest;
  }
  commit(freeLists_[wanted], rest);
  while (n != 0) {
    ownStock->put(wanted, behind[--n]);
  }
  return block;
}

// Gives the lowest `n` blocks of a stock back, under the lock. They lie on the list in the order
// in which they would have come out of the stock.
void StringPoolManager::shed(StringStock& stock, unsigned sizeClass, unsigned n) noexcept {
  stock.shed(sizeClass, n, [this, sizeClass](void* block) {
    pushToList(static_cast<SizeClass>(sizeClass), block);
  });
}

// Gives all of a stock back, and leaves it to whoever needs one.
void StringPoolManager::leave(StringStock& stock) noexcept {
  for (unsigned i = 0; i < sizeClasses; ++i) {
    shed(stock, i, stock.count(i));
  }
  addSpare(stock);
}

void StringPoolManager::leaveOwnStock(void* /*stock*/) noexcept {
  const HoldRequests hold;
  if (ownStock == nullptr) {
    return;
  }
  StringPoolManager& pool = instance();
  const LockGuard guard(pool.lock_, "static void StringPoolManager::leaveOwnStock(void*)",
                        __LINE__);
  StringStock& stock = *ownStock;
  isWithoutStock = true;
  ownStock = nullptr;
  pool.leave(stock);
}

void StringPoolManager::abandon() noexcept {
  if (StringPoolManager* const pool = theInstance_.load(std::memory_order_acquire);
      pool != nullptr) {
    pool->lock_.abandon("static void StringPoolManager::abandon()", __LINE__);
  }
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

// The stocks are those of threads that the child does not have. The forking thread leaves its own,
// too: where a child counts as having one thread again, that works on the lists. Otherwise it
// takes a new one when it needs one.
void AcrossFork::renewStrings() noexcept {
  ownStock = nullptr;
  spareStocks = nullptr;
  for (StringStock* stock = allStocks; stock != nullptr; stock = stock->next) {
    StringPoolManager::instance().leave(*stock);
  }
}
