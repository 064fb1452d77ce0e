#include <algorithm>
#include <memory>
#include <memory_resource>
#include <numeric>
#include <string>
#include <vector>

#include "Engine/utilities/List.h"
#include "Engine/utilities/Pool.h"

#include "benchmarks/Comparison.h"

namespace {

constexpr unsigned objects = 1000;
constexpr unsigned long areaSize = 65536;

void compareWarmPool(unsigned size) {
  const auto pool = std::make_shared<Pool>(areaSize, 100, "benchmark");
  const auto area = std::make_shared<std::vector<char>>(areaSize);
  const auto peer = std::shared_ptr<std::pmr::monotonic_buffer_resource>(
      new std::pmr::monotonic_buffer_resource(area->data(), area->size()),
      [area](std::pmr::monotonic_buffer_resource* resource) { delete resource; });
  compare(
      "Pool: " + std::to_string(objects) + " x " + std::to_string(size) + " bytes, then clear",
      [pool, size] {
        for (unsigned i = 0; i < objects; ++i) {
          benchmark::DoNotOptimize(pool->get(size));
        }
        pool->clear();
      },
      "pmr monotonic",
      [peer, size] {
        for (unsigned i = 0; i < objects; ++i) {
          benchmark::DoNotOptimize(peer->allocate(size, alignof(void*)));
        }
        peer->release();
      });
}

void compareFreshPool(unsigned size, unsigned count) {
  compare(
      "Pool: make, " + std::to_string(count) + " x " + std::to_string(size) + " bytes, destroy",
      [size, count] {
        Pool pool(4096, 100, "benchmark");
        for (unsigned i = 0; i < count; ++i) {
          benchmark::DoNotOptimize(pool.get(size));
        }
      },
      "pmr monotonic",
      [size, count] {
        std::pmr::monotonic_buffer_resource pool(4096);
        for (unsigned i = 0; i < count; ++i) {
          benchmark::DoNotOptimize(pool.allocate(size, alignof(void*)));
        }
      });
}

void compareAppending(int count) {
  const std::string what = "List<int>: append " + std::to_string(count);
  compare(
      what,
      [count] {
        List<int> list;
        for (int i = 0; i < count; ++i) {
          list.add(i);
        }
        benchmark::DoNotOptimize(list.begin());
      },
      "std::vector",
      [count] {
        std::vector<int> vector;
        for (int i = 0; i < count; ++i) {
          vector.push_back(i);
        }
        benchmark::DoNotOptimize(vector.data());
      });
  compare(
      what + " with room",
      [count] {
        List<int> list(static_cast<unsigned>(count));
        for (int i = 0; i < count; ++i) {
          list.add(i);
        }
        benchmark::DoNotOptimize(list.begin());
      },
      "std::vector",
      [count] {
        std::vector<int> vector;
        vector.reserve(static_cast<std::size_t>(count));
        for (int i = 0; i < count; ++i) {
          vector.push_back(i);
        }
        benchmark::DoNotOptimize(vector.data());
      });
}

void compareFinding(int count) {
  std::vector<int> vector(static_cast<std::size_t>(count));
  std::iota(vector.begin(), vector.end(), 1);
  const auto list = std::make_shared<List<int>>();
  list->append(vector.data(), static_cast<unsigned>(count));
  require(list->indexOf(count) == static_cast<unsigned>(count), "find in a list");
  compare(
      "List<int>: find the last of " + std::to_string(count),
      [list, count] { benchmark::DoNotOptimize(list->indexOf(count)); }, "std::find",
      [vector, count] {
        benchmark::DoNotOptimize(std::find(vector.begin(), vector.end(), count));
      });
}

}  // namespace

void compareMemory() {
  compareWarmPool(8);
  compareWarmPool(24);
  compareFreshPool(24, 100);
  compareFreshPool(24, 1000);
  for (const int count : {8, 100, 1000, 10000}) {
    compareAppending(count);
  }
  for (const int count : {8, 100, 10000}) {
    compareFinding(count);
  }
}
