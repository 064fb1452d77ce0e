#pragma once

#include <algorithm>
#include <iterator>
#include <map>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/StringPoolManager.h"

/// \file
/// What the tests of the string pool share.

/// The sizes of its blocks.
inline constexpr unsigned classes[] = {8, 16, 24, 32, 48, 64};

/// A number for each of them.
using Counts = std::vector<unsigned>;

inline StringPoolManager& pool() { return StringPoolManager::instance(); }

/// Blocks taken from the pool until the end of the scope.
class Blocks {
 public:
  Blocks() = default;
  Blocks(const Blocks&) = delete;
  Blocks& operator=(const Blocks&) = delete;
  ~Blocks() {
    for (const auto& [block, size] : sizes_) {
      pool().freeBuffer(block, size);
    }
  }

  char* take(unsigned size) {
    char* const block = static_cast<char*>(pool().getBuffer(size));
    const auto [place, isNew] = sizes_.emplace(block, size);
    EXPECT_TRUE(isNew) << "given out twice";
    EXPECT_TRUE(place == sizes_.begin() ||
                std::prev(place)->first + std::prev(place)->second <= block)
        << "part of a block that was given out";
    EXPECT_TRUE(std::next(place) == sizes_.end() || block + size <= std::next(place)->first)
        << "overlaps a block that was given out";
    return block;
  }

  void give(char* block, unsigned size) {
    EXPECT_EQ(sizes_.erase(block), 1U);
    pool().freeBuffer(block, size);
  }

  /// Takes whatever earlier users of the pool have left on its lists.
  void drain();

 private:
  std::map<char*, unsigned> sizes_;
};

/// Free blocks of 8, 16, 24, 32, 48 and 64 bytes, as the calling thread sees them.
inline Counts counts() {
  Counts result;
  for (const unsigned size : classes) {
    result.push_back(pool().freeBlocks(size));
  }
  return result;
}

inline void Blocks::drain() {
  for (const unsigned size : classes) {
    while (pool().freeBlocks(size) != 0) {
      take(size);
    }
  }
  ASSERT_EQ(counts(), (Counts{0, 0, 0, 0, 0, 0}));
}
