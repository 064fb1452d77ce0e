#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/ListHeap.h"

/// A heap that keeps a record and can be made to run out of memory.
class RecordingHeap : public ListHeap {
 public:
  RecordingHeap() = default;
  ~RecordingHeap() override { EXPECT_TRUE(live.empty()) << live.size() << " never given back"; }

  void* get(std::size_t size) override {
    if (requestsLeft == 0) {
      throw std::bad_alloc();
    }
    --requestsLeft;
    // Not from operator new: whoever gives it back to the free store is found out.
    live.push_back(std::malloc(size));
    sizes.push_back(size);
    return live.back();
  }

  void put(void* p) noexcept override {
    const auto found = std::find(live.begin(), live.end(), p);
    ASSERT_NE(found, live.end()) << "not of this heap";
    live.erase(found);
    std::free(p);
  }

  std::vector<void*> live;         ///< Handed out and not given back, in order.
  std::vector<std::size_t> sizes;  ///< Of all requests that were met, in order.
  unsigned requestsLeft = 1000000;
};
