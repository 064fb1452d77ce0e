#pragma once

#include <atomic>

#include "Engine/utilities/Export.h"
#include "Engine/utilities/UNIX/UNIX_Critical_Section.h"

/// \file
/// The storage of all strings. Most strings are short, so requests of up to 64 bytes are
/// served from six free lists of blocks of fixed size, without a heap call and without a
/// header on the block: who frees a block knows its size. Larger requests go to the heap
/// and take no lock.
///
/// The one pool is made on first use, serves static objects before main and after exit,
/// and is never destroyed. Memory once taken for small blocks is kept for small blocks. First use
/// belongs on the main thread before a second thread exists; afterwards any thread may take and
/// free blocks, also one that another thread has taken. A new-handler may use strings on the
/// thread that it is called on; it must not wait for another thread that does.
///
/// As long as the process has one thread, that thread works on the lists themselves. From the
/// second thread on each keeps a stock of free blocks in front of the lists and needs their lock
/// only when a stock is empty or full: up to 32 blocks then go from the lists to the stock, or 32
/// back. To a thread it looks as if its stock were the beginning of each list: it gets the
/// blocks in the same order as without. A thread keeps at most 64 free blocks of each size, 12 KiB
/// in all, and 3 KiB of memory for their addresses. When it ends, in whatever way, all blocks go
/// back to the lists, and that memory is the next thread's. What it frees even later, when its own
/// objects are destroyed, goes to the lists at once. So does all that a thread frees for which
/// there was no memory for a stock or no key of the C library (pthread_key_create()). Only who
/// uses strings for the first time in the last round of the destructors of such keys keeps a stock
/// for ever.
///
/// A forked child goes on with the pool, whatever other threads of its parent did: there the stocks
/// of all threads go back to the lists. Blocks that only those threads knew of, in their strings
/// or on the way between a string and the pool, are lost there.

class StringStock;

class CUL_EXPORT StringPoolManager {
 public:
  /// Requests above this many bytes go to the heap.
  static constexpr unsigned maximumPooledSize = 64;

  /// The process's pool.
  static StringPoolManager& instance() {
    StringPoolManager* const pool = theInstance_.load(std::memory_order_acquire);
    return pool != nullptr ? *pool : makeInstance();
  }

  StringPoolManager(const StringPoolManager&) = delete;
  StringPoolManager& operator=(const StringPoolManager&) = delete;

  /// A block of at least `size` bytes (0 counts as 1), aligned to 8.
  /// \throws std::bad_alloc when the heap is exhausted.
  [[nodiscard]] void* getBuffer(unsigned size);

  /// Gives a block back.
  /// \param p    what getBuffer() gave; null is ignored.
  /// \param size what getBuffer() was asked for. After a text was shortened in place it may
  ///             be less, and the block then serves smaller requests; never more.
  void freeBuffer(void* p, unsigned size);

  /// For diagnosis: how many free blocks stand ready for requests of `size` bytes by the calling
  /// thread without splitting larger ones: those on the list and those in the thread's own stock,
  /// but not those in the stocks of other threads. 0 above maximumPooledSize. Walks the whole list
  /// while all other threads that need it wait: time and cache misses grow with the result.
  [[nodiscard]] unsigned freeBlocks(unsigned size);

 private:
  struct FreeBlock {
    FreeBlock* next;
  };
  enum SizeClass : unsigned { size8, size16, size24, size32, size48, size64, sizeClasses };
  struct ClassRule;
  static const ClassRule classRules[sizeClasses];

  friend class AcrossFork;
  friend void abandonLocksBehindTrace() noexcept;

  StringPoolManager() = default;
  ~StringPoolManager() = default;

  static StringPoolManager& makeInstance();
  static SizeClass classOf(unsigned size) noexcept;
  FreeBlock* pop(SizeClass wanted);
  void push(SizeClass given, void* p);
  FreeBlock* refill(SizeClass empty);
  FreeBlock* refillFromHeap(SizeClass empty);

  // Gives the pool's lock back when the calling thread has it, which will never return to where it
  // took it.
  [[gnu::visibility("hidden")]] static void abandon() noexcept;
  [[gnu::visibility("hidden"), gnu::noinline]] void* getFromHeap(unsigned size);
  [[gnu::visibility("hidden"), gnu::noinline]] void* getFromLists(SizeClass wanted);
  [[gnu::visibility("hidden"), gnu::noinline]] void giveToHeap(void* p);
  [[gnu::visibility("hidden"), gnu::noinline]] void giveToLists(SizeClass given, void* p);
  [[gnu::visibility("hidden")]] FreeBlock* popFromList(SizeClass wanted) noexcept;
  [[gnu::visibility("hidden")]] void pushToList(SizeClass given, void* p) noexcept;
  [[gnu::visibility("hidden")]] FreeBlock* popBatch(SizeClass wanted) noexcept;
  [[gnu::visibility("hidden")]] StringStock* stock();
  [[gnu::visibility("hidden")]] void shed(StringStock& stock, unsigned sizeClass,
                                          unsigned n) noexcept;
  [[gnu::visibility("hidden")]] void leave(StringStock& stock) noexcept;
  [[gnu::visibility("hidden")]] static void leaveOwnStock(void* stock) noexcept;

  static std::atomic<StringPoolManager*> theInstance_;

  // Under the lock, or by the process's only thread.
  FreeBlock* freeLists_[sizeClasses] = {};
  UNIX_Critical_Section lock_;
};
