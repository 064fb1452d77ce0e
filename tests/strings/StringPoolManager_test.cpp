#include "Engine/utilities/StringPoolManager.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <malloc.h>
#include <map>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Engine/utilities/StringBuffer.h"

#include "tests/strings/PoolBlocks.h"
#include "tests/support/Child.h"
#include "tests/support/Famine.h"

namespace {

CUL_CHILD(PoolFirstEightBytes) {
  Blocks blocks;
  blocks.drain();
  char* const block = blocks.take(8);
  EXPECT_EQ(counts(), (Counts{1, 1, 0, 1, 0, 126}));
  // The first halves were split on and the second halves kept.
  EXPECT_EQ(blocks.take(8), block + 8);
  EXPECT_EQ(blocks.take(16), block + 16);
  EXPECT_EQ(blocks.take(32), block + 32);
  EXPECT_EQ(blocks.take(64), block + 64);
  EXPECT_EQ(counts(), (Counts{0, 0, 0, 0, 0, 125}));
  // The chunk holds 127 blocks and no more.
  EXPECT_GE(malloc_usable_size(block), 8128U);
  EXPECT_LT(malloc_usable_size(block), 8128U + 64);
}

CUL_CHILD(PoolSplitsLargerBlocks) {
  Blocks blocks;
  blocks.drain();
  char* const first = blocks.take(32);
  EXPECT_EQ(counts(), (Counts{0, 0, 0, 1, 0, 126}));
  EXPECT_EQ(blocks.take(32), first + 32);
  EXPECT_EQ(blocks.take(16), first + 64);
  EXPECT_EQ(counts(), (Counts{0, 1, 0, 1, 0, 125}));
  EXPECT_EQ(blocks.take(8), first + 80) << "from the free half of 16";
  EXPECT_EQ(counts(), (Counts{1, 0, 0, 1, 0, 125}));
  EXPECT_EQ(blocks.take(16), first + 96) << "from the free half of 32";
  EXPECT_EQ(counts(), (Counts{1, 1, 0, 0, 0, 125}));
}

CUL_CHILD(PoolSplits48) {
  Blocks blocks;
  blocks.drain();
  char* const block = blocks.take(24);
  EXPECT_EQ(counts(), (Counts{0, 0, 1, 0, 169, 0}));
  EXPECT_EQ(blocks.take(24), block + 24);
  EXPECT_EQ(blocks.take(48), block + 48);
  EXPECT_EQ(counts(), (Counts{0, 0, 0, 0, 168, 0}));
  EXPECT_GE(malloc_usable_size(block), 8160U);
  EXPECT_LT(malloc_usable_size(block), 8160U + 48);
}

void takeAChunk(unsigned size, unsigned blocksInChunk) {
  Blocks blocks;
  blocks.drain();
  char* const chunk = blocks.take(size);
  for (unsigned i = 1; i < blocksInChunk; ++i) {
    EXPECT_EQ(pool().freeBlocks(size), blocksInChunk - i);
    EXPECT_EQ(blocks.take(size), chunk + std::size_t{i} * size) << "in the order of addresses";
  }
  EXPECT_EQ(counts(), (Counts{0, 0, 0, 0, 0, 0}));
  blocks.take(size);
  EXPECT_EQ(pool().freeBlocks(size), blocksInChunk - 1) << "the next chunk";
}

CUL_CHILD(PoolChunkOf64) { takeAChunk(64, 127); }
CUL_CHILD(PoolChunkOf48) { takeAChunk(48, 170); }

CUL_CHILD(PoolFreedBlocks) {
  Blocks blocks;
  blocks.drain();
  char* const a = blocks.take(8);
  char* const b = blocks.take(8);
  const Counts before = counts();
  EXPECT_EQ(before, (Counts{0, 1, 0, 1, 0, 126}));
  blocks.give(a, 8);
  blocks.give(b, 8);
  EXPECT_EQ(counts(), (Counts{2, 1, 0, 1, 0, 126})) << "two halves are not merged";
  EXPECT_EQ(blocks.take(8), b) << "the last one freed comes first";
  EXPECT_EQ(blocks.take(8), a);
  EXPECT_EQ(counts(), before);
}

CUL_CHILD(PoolSizeClasses) {
  Blocks blocks;
  for (unsigned size = 1; size <= 64; ++size) {
    const unsigned wanted = *std::lower_bound(std::begin(classes), std::end(classes), size);
    pool().freeBuffer(pool().getBuffer(wanted), wanted);
    const Counts before = counts();
    Counts taken = before;
    --taken[static_cast<std::size_t>(std::find(std::begin(classes), std::end(classes), wanted) -
                                     std::begin(classes))];
    char* const block = blocks.take(size);
    std::memset(block, 0xAB, wanted);
    EXPECT_EQ(counts(), taken) << size;
    EXPECT_EQ(pool().freeBlocks(size), pool().freeBlocks(wanted)) << size;
    blocks.give(block, size);
    EXPECT_EQ(counts(), before) << size;
  }
}

CUL_CHILD(PoolLargeBlocks) {
  Blocks blocks;
  blocks.drain();
  for (const unsigned size : {65U, 66U, 4096U, 1U << 20}) {
    char* const block = blocks.take(size);
    std::memset(block, 0xAB, size);
    EXPECT_GE(malloc_usable_size(block), size);
    EXPECT_EQ(pool().freeBlocks(size), 0U);
    blocks.give(block, size);
    EXPECT_EQ(counts(), (Counts{0, 0, 0, 0, 0, 0})) << size;
  }
}

CUL_CHILD(PoolShortenedBlocks) {
  Blocks blocks;
  blocks.drain();
  char* const block = blocks.take(64);
  blocks.give(block, 17);
  EXPECT_EQ(counts(), (Counts{0, 0, 1, 0, 0, 126}));
  EXPECT_EQ(blocks.take(24), block);
  char* const fromTheHeap = blocks.take(100);
  blocks.give(fromTheHeap, 64);
  EXPECT_EQ(pool().freeBlocks(64), 127U);
  EXPECT_EQ(blocks.take(64), fromTheHeap);
}

CUL_CHILD(PoolNull) {
  Blocks blocks;
  blocks.drain();
  for (const unsigned size : {0U, 8U, 64U, 65U}) {
    pool().freeBuffer(nullptr, size);
  }
  EXPECT_EQ(counts(), (Counts{0, 0, 0, 0, 0, 0}));
}

CUL_CHILD(PoolAlignment) {
  Blocks blocks;
  for (unsigned size = 0; size <= 200; ++size) {
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(blocks.take(size)) % 8, 0U) << size;
  }
}

void expectChildSucceeds(const char* name) {
  const ChildResult r = runChild(name);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

TEST(StringPoolManager, FirstRequestForEightBytesCutsAChunkAndLeavesOneHalfOnEachList) {
  expectChildSucceeds("PoolFirstEightBytes");
}

TEST(StringPoolManager, EmptyClassSplitsABlockOfTheNextLarger) {
  expectChildSucceeds("PoolSplitsLargerBlocks");
}

TEST(StringPoolManager, BlocksOf24AreHalvesOf48) { expectChildSucceeds("PoolSplits48"); }

TEST(StringPoolManager, ChunkGives127BlocksOf64) { expectChildSucceeds("PoolChunkOf64"); }

TEST(StringPoolManager, ChunkGives170BlocksOf48) { expectChildSucceeds("PoolChunkOf48"); }

TEST(StringPoolManager, FreedBlocksStayInTheirClassAndComeBackLastFirst) {
  expectChildSucceeds("PoolFreedBlocks");
}

TEST(StringPoolManager, SizesShareTheSmallestClassThatHoldsThem) {
  expectChildSucceeds("PoolSizeClasses");
}

TEST(StringPoolManager, RequestsAbove64BytesNeverTouchTheLists) {
  expectChildSucceeds("PoolLargeBlocks");
}

TEST(StringPoolManager, BlockFreedWithASmallerSizeServesThatSize) {
  expectChildSucceeds("PoolShortenedBlocks");
}

TEST(StringPoolManager, FreeingNullDoesNothing) { expectChildSucceeds("PoolNull"); }

TEST(StringPoolManager, BlocksAreAlignedToEight) { expectChildSucceeds("PoolAlignment"); }

TEST(StringPoolManager, IsOneObject) {
  EXPECT_EQ(&StringPoolManager::instance(), &StringPoolManager::instance());
}

// The sanitizers end the process when memory is out instead of throwing.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
CUL_CHILD(PoolOutOfMemory) {
  // The library's own handler would end the process.
  std::set_new_handler(nullptr);
  Blocks blocks;
  blocks.drain();
  // From the second thread on the lock is in use.
  std::thread([] {}).join();
  int thrown = 0;
  unsigned left = 0;
  {
    const Famine famine;
    for (const unsigned size : {8U, 24U, 48U, 64U, 100000U}) {
      try {
        static_cast<void>(pool().getBuffer(size));
      } catch (const std::bad_alloc&) {
        ++thrown;
      }
      left += pool().freeBlocks(size);
    }
  }
  EXPECT_EQ(thrown, 5);
  EXPECT_EQ(left, 0U);
  // Another thread gets in.
  std::thread([] { pool().freeBuffer(pool().getBuffer(8), 8); }).join();
  EXPECT_EQ(counts(), (Counts{2, 1, 0, 1, 0, 126}));
}

TEST(StringPoolManager, ExhaustedHeapThrowsAndLeavesThePoolUnlockedAndUsable) {
  expectChildSucceeds("PoolOutOfMemory");
}

// Runs `relief` when a request finds no memory, with memory there again.
std::optional<Famine> famine;
void (*relief)() = nullptr;

void* getBufferInAFamine(unsigned size, void (*reliefToRun)()) {
  relief = reliefToRun;
  std::set_new_handler([] {
    famine.reset();
    relief();
  });
  famine.emplace();
  return pool().getBuffer(size);
}

bool isAsleep(pid_t thread) {
  std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/stat");
  const std::string line{std::istreambuf_iterator<char>(stat), {}};
  return line.find(") S ") != std::string::npos;
}

// Whether another thread waits for the pool with `use`, as long as the caller does nothing.
// The thread goes on behind the caller's back and is joined by whoever gets `thread`.
bool isKeptWaiting(void (*use)(), std::thread& thread) {
  std::atomic<pid_t> id = 0;
  static std::atomic<bool> isThrough;
  isThrough = false;
  thread = std::thread([&id, use] {
    id = gettid();
    use();
    isThrough = true;
  });
  while (id == 0) {
    std::this_thread::yield();
  }
  // Asleep twice in a row: it may have waited for something else for a moment.
  for (int asleep = 0; asleep < 20 && !isThrough;) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    asleep = isAsleep(id) ? asleep + 1 : 0;
  }
  return !isThrough;
}

std::vector<std::thread> waiting;

CUL_CHILD(PoolNewHandlerStartsThreads) {
  Blocks blocks;
  blocks.drain();
  static char* given;
  given = static_cast<char*>(pool().getBuffer(8));
  blocks.drain();
  void* const block = getBufferInAFamine(8, [] {
    waiting.resize(3);
    EXPECT_TRUE(isKeptWaiting([] { static_cast<void>(!pool().getBuffer(64)); }, waiting[0]));
    EXPECT_TRUE(isKeptWaiting([] { pool().freeBuffer(given, 8); }, waiting[1]));
    // The heap's share needs no lock; a thread that waited for it would never end.
    waiting[2] = std::thread([] { pool().freeBuffer(pool().getBuffer(65), 65); });
    waiting[2].join();
  });
  waiting[0].join();
  waiting[1].join();
  EXPECT_EQ(counts(), (Counts{2, 1, 0, 1, 0, 125}));
  pool().freeBuffer(block, 8);
}

TEST(StringPoolManager, ThreadsThatTheNewHandlerStartsWaitForTheListsButNotForTheHeap) {
  expectChildSucceeds("PoolNewHandlerStartsThreads");
}

// One block of each class comes back while the pool asks the heap on behalf of `size`.
void freeInTheNewHandler(unsigned size, const Counts& expected) {
  Blocks blocks;
  blocks.drain();
  static std::map<unsigned, void*> spare;
  for (const unsigned spareSize : classes) {
    spare[spareSize] = pool().getBuffer(spareSize);
  }
  blocks.drain();
  void* const block = getBufferInAFamine(size, [] {
    for (const auto& [spareSize, spareBlock] : spare) {
      pool().freeBuffer(spareBlock, spareSize);
    }
  });
  EXPECT_EQ(counts(), expected);
  pool().freeBuffer(block, size);
}

CUL_CHILD(PoolNewHandlerFreesFor8) { freeInTheNewHandler(8, {2, 2, 1, 2, 1, 127}); }
CUL_CHILD(PoolNewHandlerFreesFor24) { freeInTheNewHandler(24, {1, 1, 2, 1, 170, 1}); }

TEST(StringPoolManager, BlocksThatTheNewHandlerFreesAreKept) {
  expectChildSucceeds("PoolNewHandlerFreesFor8");
  expectChildSucceeds("PoolNewHandlerFreesFor24");
}
#endif

// Strings made and used while static objects are built, in no known order.
struct Early {
  StringBuffer<char> small = StringBuffer<char>("made before main", 16);
  StringBuffer<wchar_t> large = StringBuffer<wchar_t>(StringBuffer<wchar_t>(), 1, 1000, L'x');
  Early() { small += small; }
};
const Early early;

TEST(StringPoolManager, ServesStaticObjectsBeforeMain) {
  EXPECT_STREQ(early.small, "made before mainmade before main");
  EXPECT_EQ(early.large.length(), 1000U);
  EXPECT_EQ(early.large[1000], L'x');
}

void sayThroughTheStringPool(const char* text) {
  StringBuffer<char> line(text, static_cast<unsigned>(strlen(text)));
  line += StringBuffer<char>("\n", 1);
  static_cast<void>(!write(STDOUT_FILENO, line, line.length()));
}

struct Late {
  StringBuffer<char> kept = StringBuffer<char>("static object", 13);
  ~Late() { sayThroughTheStringPool(kept); }
};

CUL_CHILD(PoolAfterExit) {
  atexit([] { sayThroughTheStringPool("first registered"); });
  static const Late late;
  atexit([] { sayThroughTheStringPool("last registered"); });
}

TEST(StringPoolManager, ServesExitHandlersAndTheDestructorsOfStaticObjects) {
  const ChildResult r = runChild("PoolAfterExit");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_THAT(r.out, testing::EndsWith("last registered\nstatic object\nfirst registered\n"));
}

TEST(StringPoolManager, ThreadsShareThePoolAndFreeEachOthersBlocks) {
  constexpr unsigned threadCount = 4;
  constexpr unsigned rounds = 2000;
  const auto contentsOf = [](unsigned thread, unsigned round) {
    return std::string(round % 90, static_cast<char>('a' + (thread + round) % 26));
  };
  std::vector<std::vector<StringBuffer<char>>> made(threadCount);
  const auto make = [&](unsigned thread) {
    for (unsigned round = 0; round < rounds; ++round) {
      const std::string text = contentsOf(thread, round);
      made[thread].emplace_back(text.data(), static_cast<unsigned>(text.size()));
      if (round % 3 == 0) {
        made[thread].back() += StringBuffer<char>("x", 1);
        made[thread].back().remove(made[thread].back().length(), 1);
      }
    }
  };
  const auto checkAndFree = [&](unsigned thread) {
    for (unsigned round = 0; round < rounds; ++round) {
      ASSERT_STREQ(made[thread][round], contentsOf(thread, round).c_str());
    }
    made[thread].clear();
  };
  std::vector<std::thread> makers;
  for (unsigned i = 0; i < threadCount; ++i) {
    makers.emplace_back(make, i);
  }
  for (std::thread& thread : makers) {
    thread.join();
  }
  std::vector<std::thread> readers;
  for (unsigned i = 0; i < threadCount; ++i) {
    readers.emplace_back(checkAndFree, (i + 1) % threadCount);
    readers.emplace_back([] {
      for (unsigned round = 0; round < rounds; ++round) {
        const StringBuffer<char> s("0123456789012345678", round % 20);
        ASSERT_EQ(s.length(), round % 20);
      }
    });
  }
  for (std::thread& thread : readers) {
    thread.join();
  }
}

}  // namespace
