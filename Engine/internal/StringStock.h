#pragma once

#include <atomic>
#include <cstring>

#include "Engine/internal/RequestToEnd.h"

/// \file
/// What a thread keeps of the string pool's free blocks, so that it needs no lock to take and to
/// free one. For each of the pool's classes it lies on top of the list that all threads share:
/// the block that the thread has freed last comes first.
///
/// Only the thread that it belongs to uses a stock, and neither waits nor asks for memory
/// there. So it may be left at any instruction, by a fatal signal, and looked at between any two
/// by a forked child: a count is the last thing that changes. What was just on its way into or
/// out of the stock then is in neither place, and never in both.
///
/// Stocks are made and owned by StringPoolManager. Who has ended leaves his to the next thread.

class StringStock {
 public:
  /// The pool's classes: blocks of 8, 16, 24, 32, 48 and 64 bytes.
  static constexpr unsigned classes = 6;
  /// What the largest of them serves, in bytes.
  static constexpr unsigned largest = 64;
  /// Which of them serves requests of `size` bytes, up to `largest`.
  static unsigned classOf(unsigned size) noexcept {
    constexpr unsigned granule = 8;
    static constexpr unsigned char serving[] = {0, 0, 1, 2, 3, 4, 4, 5, 5};
    return serving[(size + granule - 1) / granule];
  }
  /// Blocks of one class in a stock at most; those of all classes come to 12 KiB.
  static constexpr unsigned bound = 64;
  /// How many go from and to the lists at once.
  static constexpr unsigned batch = bound / 2;

  StringStock() = default;
  StringStock(const StringStock&) = delete;
  StringStock& operator=(const StringStock&) = delete;
  ~StringStock() = default;

  /// How many blocks there are.
  [[nodiscard]] unsigned count(unsigned sizeClass) const noexcept {
    return shelves_[sizeClass].count;
  }

  /// The block that was put in last; there is one.
  [[nodiscard]] void* take(unsigned sizeClass) noexcept {
    Shelf& shelf = shelves_[sizeClass];
    const unsigned left = shelf.count - 1;
    void* const block = shelf.blocks[left];
    shelf.setCount(left);
    return block;
  }

  /// Puts one in; there are less than `bound`.
  void put(unsigned sizeClass, void* block) noexcept {
    Shelf& shelf = shelves_[sizeClass];
    const unsigned present = shelf.count;
    shelf.blocks[present] = block;
    shelf.setCount(present + 1);
  }

  /// Takes the `n` lowest out, those that were put in first, and hands them to `receive`, the
  /// first one first.
  template <typename Receive>
  void shed(unsigned sizeClass, unsigned n, Receive receive) noexcept {
    Shelf& shelf = shelves_[sizeClass];
    const unsigned left = count(sizeClass) - n;
    shelf.setCount(0);
    for (unsigned i = 0; i < n; ++i) {
      receive(shelf.blocks[i]);
    }
    std::memmove(shelf.blocks, shelf.blocks + n, left * sizeof shelf.blocks[0]);
    shelf.setCount(left);
  }

  StringStock* next = nullptr;       ///< Of all that were ever made.
  StringStock* nextSpare = nullptr;  ///< Of those that belong to no thread.

 private:
  struct Shelf {
    unsigned count = 0;
    void* blocks[bound];

    // What was done before stays before it, for whoever looks from the same thread.
    void setCount(unsigned n) noexcept {
      std::atomic_signal_fence(std::memory_order_seq_cst);
      __atomic_store_n(&count, n, __ATOMIC_RELAXED);
      std::atomic_signal_fence(std::memory_order_seq_cst);
    }
  };

  Shelf shelves_[classes];
};

/// The calling thread's; null: none.
extern constinit thread_local StringStock* ownStock
    __attribute__((tls_model("initial-exec"), visibility("hidden")));

/// Takes a block for `size` bytes from the calling thread's stock. Inline, as all strings begin
/// here.
/// \return null when the pool must do it: there is no stock or no block in it, the size is one for
///   the heap, or the thread was asked to end.
[[gnu::always_inline]] inline void* getFromStock(unsigned size) noexcept {
  StringStock* const stock = ownStock;
  if (stock == nullptr || size > StringStock::largest || requestIsPending) {
    return nullptr;
  }
  const unsigned sizeClass = StringStock::classOf(size);
  return stock->count(sizeClass) != 0 ? stock->take(sizeClass) : nullptr;
}

/// Puts a block for `size` bytes into the calling thread's stock.
/// \return false when the pool must take it: there is no stock or no room in it, or the size is one
///   for the heap.
[[gnu::always_inline]] inline bool giveToStock(void* block, unsigned size) noexcept {
  StringStock* const stock = ownStock;
  if (stock == nullptr || size > StringStock::largest) {
    return false;
  }
  const unsigned sizeClass = StringStock::classOf(size);
  if (stock->count(sizeClass) == StringStock::bound) {
    return false;
  }
  stock->put(sizeClass, block);
  return true;
}
