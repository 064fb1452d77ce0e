#include <memory>
#include <new>
#include <string>
#include <utility>

#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/FileName.h"
#include "Engine/utilities/FixedMemoryPool.h"
#include "Engine/utilities/HeapMemoryAllocator.h"
#include "Engine/utilities/IdList.h"
#include "Engine/utilities/List.h"
#include "Engine/utilities/Pool.h"
#include "Engine/utilities/PoolArea.h"
#include "Engine/utilities/PoolMemoryAllocator.h"
#include "Engine/utilities/Properties.h"
#include "Engine/utilities/SearchListMemoryManager.h"
#include "Engine/utilities/SearchList_HashPrime.h"
#include "Engine/utilities/StdException.h"

#include "tests/torture/Workload.h"

namespace {

EncodedString utf8(const char* text) { return {text, EncodedString::utf8}; }
EncodedString numbered(const char* text, int n) { return utf8(text) + EncodedString::number(n); }

void usePools() {
  Pool pool(256, 256, "torture");
  Pool counted(10, 16, 64, nullptr);
  for (unsigned i = 0; i < 30; ++i) {
    CUL_EXPECT_THAT(pool.get(40) != nullptr && counted.get(16) != nullptr);
  }
  CUL_EXPECT_THAT(pool.get(1000) != nullptr);
  pool.clear();
  CUL_EXPECT_THAT(pool.get(40) != nullptr);
  pool.destroy();
  CUL_EXPECT_THAT(pool.get(40) != nullptr);
  int* const one = new (&pool) int(1);
  int* const some = new (&pool) int[3];
  CUL_EXPECT_THAT(*one == 1 && some != nullptr);
  operator delete(one, &pool);
  operator delete[](some, &pool);
  void* const unpooled = operator new(5, static_cast<Pool*>(nullptr));
  operator delete(unpooled, static_cast<Pool*>(nullptr));
  void* const array = operator new[](5, static_cast<Pool*>(nullptr));
  operator delete[](array, static_cast<Pool*>(nullptr));
}

void usePoolAreas() {
  PoolArea first(nullptr, 64, "torture");
  first.dirtymemory();
  PoolArea* current = &first;
  unsigned long allocated = 64;
  unsigned long initialSize = 64;
  CUL_EXPECT_THAT(first.growAndGet(40, current, allocated, initialSize, 64) != nullptr);
  first.grow(100, current, allocated, initialSize, 64);
  CUL_EXPECT_THAT(current->growAndGet(200, current, allocated, initialSize, 64) != nullptr);
  CUL_EXPECT_THAT(allocated > 64);
}

void useAllocators() {
  Pool pool(256, 256, "torture");
  MemoryAllocator& pooled = pool.allocator();
  HeapMemoryAllocator& heap = *HeapMemoryAllocator::instance();
  CUL_EXPECT_THAT(!pooled.putPermitted() && heap.putPermitted());
  void* const fromPool = pooled.get(10);
  CUL_EXPECT_THAT(pooled.get(10, "torture", 1) != nullptr);
  pooled.conditionalPut(fromPool);
  pooled.conditionalPut(fromPool, "torture", 1);
  int refused = 0;
  try {
    pooled.put(fromPool);
  } catch (const StdException&) {
    ++refused;
  }
  try {
    pooled.put(fromPool, "torture", 1);
  } catch (const StdException&) {
    ++refused;
  }
  CUL_EXPECT_THAT(refused == 2);
  heap.put(heap.get(10));
  heap.put(heap.get(10, "torture", 1), "torture", 2);
  heap.conditionalPut(heap.get(10));
  heap.conditionalPut(heap.get(10), "torture", 3);
  const std::unique_ptr<MemoryAllocator> owned = std::make_unique<HeapMemoryAllocator>();
  const std::unique_ptr<MemoryAllocator> other = std::make_unique<PoolMemoryAllocator>(pool);
  const PoolMemoryAllocator here(pool);
  const HeapMemoryAllocator there;
  CUL_EXPECT_THAT(!other->putPermitted() && owned->putPermitted());
}

// Its blocks are never given back: one pool for the life of the process.
void useFixedPools() {
  static constinit FixedMemoryPool* pool = nullptr;
  if (pool == nullptr) {
    pool = new FixedMemoryPool(40);
  }
  void* const one = pool->get();
  void* other = nullptr;
  try {
    other = pool->get();
  } catch (...) {
    pool->release(one);
    throw;
  }
  pool->release(one);
  pool->release(other);
  CUL_EXPECT_THAT(pool->blockSize() >= pool->cellSize());
}

int byValue(const void* left, const void* right) {
  const int a = *static_cast<const int*>(left);
  const int b = *static_cast<const int*>(right);
  return a < b ? -1 : a > b ? 1 : 0;
}

template <class Numbers>
void fill(Numbers& numbers) {
  for (int i = 0; i < 100; ++i) {
    numbers.add(i * 7 % 100);
    CUL_EXPECT_THAT(numbers.count() == static_cast<unsigned>(i) + 1);
  }
}

void useLists() {
  List<int> numbers;
  fill(numbers);
  CUL_EXPECT_THAT(numbers.indexOf(7) == 2 && !numbers.sort(byValue));
  CUL_EXPECT_THAT(numbers[99] == 99 && numbers.sort(byValue));
  numbers.insertAt(0, -1);
  numbers.insertAt(110, 110);
  numbers.removeAt(0);
  CUL_EXPECT_THAT(numbers.remove(110) && numbers.count() == 109);
  numbers.append(numbers.begin(), 20);
  numbers.extend(500);
  CUL_EXPECT_THAT(numbers.count() == 129 && numbers.capacity() >= 500);
  List<int> moved(std::move(numbers));
  CUL_EXPECT_THAT(moved.count() == 129 && numbers.isEmpty());
}

void usePooledLists() {
  Pool pool(256, 256, "torture");
  List<int> numbers(3, &pool, 4);
  fill(numbers);
  CUL_EXPECT_THAT(numbers.count() == 100);
}

// A sort that needs room goes without when there is none.
void sortLongLists() {
  List<int> numbers(2000);
  for (int i = 0; i < 2000; ++i) {
    numbers.add(i * 77 % 2000);
  }
  CUL_EXPECT_THAT(!numbers.sort(byValue));
  for (int i = 0; i < 2000; ++i) {
    CUL_EXPECT_THAT(numbers[static_cast<unsigned>(i)] == i);
  }
}

void useRawLists() {
  void* buffer = nullptr;
  ListImplementation list(&buffer, 2, nullptr, sizeof(int), 2);
  struct Deletion {
    ListImplementation& list;
    void*& buffer;
    ~Deletion() { list.deleteItems(buffer); }
  } const deletion{list, buffer};
  const int item = 5;
  list.appendItems(&buffer, &item, 1);
  list.insert_at(0, &buffer, &item);
  list.insert_at(7, &buffer, &item);
  CUL_EXPECT_THAT(list.findItem(buffer, &item) == 1 && list.count == 8);
  list.remove(0, buffer);
  int scratch = 0;
  list.bSort(byValue, buffer, &scratch);
  list.extend(100, &buffer);
  CUL_EXPECT_THAT(list.count == 7);
}

void useIdLists() {
  IdList ids(3);
  CUL_EXPECT_THAT(ids.getNextId() == 3 && ids.reserveId(100) == 100 && ids.getNextId() == 4);
  CUL_EXPECT_THAT(ids.isAssignable(2) && ids.reserveId(2) == 2 && ids.isReservedId(100));
  IdList copy(ids);
  ids.releaseId(2);
  CUL_EXPECT_THAT(ids.isAssignable(2));
  ids = copy;
  CUL_EXPECT_THAT(!ids.isAssignable(2));
  ids.releaseAll();
  copy = ids;
  CUL_EXPECT_THAT(copy.getNextId() == 3);
}

void manageElements() {
  SearchListMemoryManager manager(nullptr, 20, 4);
  void* elements[10] = {};
  for (void*& element : elements) {
    element = manager.getElement();
  }
  for (void* const element : elements) {
    manager.releaseElement(element);
  }
  CUL_EXPECT_THAT(SearchList_HashPrime::getPrime(300) == 251);
}

void useHashTables() {
  Properties::Table table(257, 50, 0, nullptr);
  SearchList<Properties::HashElement, EncodedString>& list = table;
  for (int i = 0; i < 60; ++i) {
    CUL_EXPECT_THAT(list.add({numbered("key", i), numbered("value", i)}));
  }
  CUL_EXPECT_THAT(!list.add({utf8("key7"), utf8("other")}) && list.count() == 60);
  CUL_EXPECT_THAT(list.find(utf8("key7"))->value.view() == "value7" && !list.isEmpty());
  Properties::TableCursor position(table);
  unsigned n = 0;
  for (bool on = position.first(); on; on = position.next()) {
    ++n;
  }
  for (bool on = position.last(); on; on = position.previous()) {
    ++n;
  }
  CUL_EXPECT_THAT(n == 120);
  position.first();
  const auto copy = position.clone();
  const Properties::TableCursor same(position);
  CUL_EXPECT_THAT(copy->element() == position.element() && same == position && !(same != position));
  CUL_EXPECT_THAT(list.remove(position) && list.remove(utf8("key8")) && list.count() == 58);
  list.cursor().leave();
  list.removeAll();
  CUL_EXPECT_THAT(list.isEmpty());
}

// Elements of another kind have code of their own in the program; these keep the library's.
void keepOwnElements() {
  const std::unique_ptr<SearchList<Properties::HashElement, EncodedString>> list =
      std::make_unique<Properties::Table>(3, 2, 1, nullptr);
  const std::unique_ptr<Properties::HashElement> element =
      std::make_unique<Properties::HashElement>(utf8("key"), utf8("value"));
  list->add(*element);
  list->add(*element);
  CUL_EXPECT_THAT(list->count() == 2);
}

void useProperties() {
  const FileName file((workFolder() + "/properties").c_str(), EncodedString::utf8);
  Properties properties(nullptr);
  CUL_EXPECT_THAT(!properties.set(file) && properties.numItems() == 3);
  CUL_EXPECT_THAT(properties.getString(utf8("name")).view() == "torture");
  CUL_EXPECT_THAT(properties.getInteger(utf8("number")) == 42 && !properties.isEmpty());
  properties.setProperty(utf8("added"), utf8("value"));
  CUL_EXPECT_THAT(properties.doesContain(utf8("added")));
  bool isRefused = false;
  try {
    static_cast<void>(properties.getInteger(utf8("name")));
  } catch (const StdException&) {
    isRefused = true;
  }
  CUL_EXPECT_THAT(isRefused && properties.cursor().first());
  const Properties read(&file);
  CUL_EXPECT_THAT(read.numItems() == 3);
}

const Workload workloads[] = {
    {"pools", usePools},
    {"pool areas", usePoolAreas},
    {"allocators", useAllocators},
    {"fixed pools", useFixedPools},
    {"lists", useLists},
    {"pooled lists", usePooledLists},
    {"long lists", sortLongLists},
    {"raw lists", useRawLists},
    {"identifiers", useIdLists},
    {"elements", manageElements},
    {"hash tables", useHashTables},
    {"own elements", keepOwnElements},
    {"properties",
     useProperties,
     -1,
     {{"other: !properties.set(file)...", "malloc fopen __getdelim"},
      {"other: read.numItems() == 3", "malloc fopen __getdelim"},
      {"threw std::bad_alloc", "__getdelim"}}},
};

}  // namespace

std::span<const Workload> memoryWorkloads() { return workloads; }
