#include <algorithm>
#include <cstddef>
#include <memory>
#include <memory_resource>
#include <numeric>
#include <random>
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
  // How far a list grows shows in its capacity.
  addBound(what, [count] {
    std::vector<int> vector;
    for (int i = 0; i < count; ++i) {
      if (vector.size() == vector.capacity()) {
        vector.reserve(vector.size() + 8);
      }
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

int compareInts(const void* a, const void* b) {
  const int first = *static_cast<const int*>(a);
  const int second = *static_cast<const int*>(b);
  return (first > second) - (first < second);
}

// Both sides begin with a copy of the same elements, and call the same function.
void compareSorting(const std::string& what, const std::vector<int>& elements) {
  const auto list = std::make_shared<List<int>>(static_cast<unsigned>(elements.size()));
  const auto vector = std::make_shared<std::vector<int>>();
  const auto sortOurs = [elements, list] {
    list->removeAll();
    list->append(elements.data(), static_cast<unsigned>(elements.size()));
    list->sort(compareInts);
    benchmark::DoNotOptimize(list->begin());
  };
  const auto sortPeers = [elements, vector] {
    vector->assign(elements.begin(), elements.end());
    std::stable_sort(vector->begin(), vector->end(),
                     [](int a, int b) { return compareInts(&a, &b) < 0; });
    benchmark::DoNotOptimize(vector->data());
  };
  sortOurs();
  sortPeers();
  require(std::equal(list->begin(), list->end(), vector->begin(), vector->end()), "sorted lists");
  compare("List<int>: sort " + std::to_string(elements.size()) + what, sortOurs, "std::stable_sort",
          sortPeers);
}

void compareSorts(unsigned count) {
  std::vector<int> elements(count);
  std::iota(elements.begin(), elements.end(), 1);
  compareSorting(", in order already", elements);
  std::swap(elements.front(), elements.back());
  compareSorting(", the first and the last exchanged", elements);
  // NOLINTNEXTLINE(cert-msc32-c,cert-msc51-cpp): the same order in every run.
  std::shuffle(elements.begin(), elements.end(), std::mt19937());
  compareSorting(", shuffled", elements);
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
  for (const unsigned count : {100U, 10000U}) {
    compareSorts(count);
  }
}
