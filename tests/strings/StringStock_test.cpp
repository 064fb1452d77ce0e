#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <dlfcn.h>
#include <functional>
#include <limits.h>
#include <malloc.h>
#include <map>
#include <memory>
#include <mutex>
#include <numeric>
#include <optional>
#include <pthread.h>
#include <random>
#include <string>
#include <string_view>
#include <sys/single_threaded.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/StringPoolManager.h"
#include "Engine/utilities/signals.h"

#include "tests/strings/PoolBlocks.h"
#include "tests/support/Child.h"
#include "tests/support/Famine.h"
#include "tests/support/StandIn.h"
#include "tests/support/WaitUntil.h"
#include "tests/threads/SignalSupport.h"
#include "tests/threads/ThreadSupport.h"

// The thread sanitizer uses keys itself, before and after it is ready for code that it looks at.
#if !defined(__SANITIZE_THREAD__)
namespace {

// Which calls of the library fail; everybody else's go through.
constinit bool setSpecificFails = false;

bool isFromLibrary(const void* returnAddress) {
  Dl_info info = {};
  return dladdr(returnAddress, &info) != 0 &&
         std::string_view(info.dli_fname).find("libcul.so") != std::string_view::npos;
}

}  // namespace

CUL_DEFINE_STAND_IN(int, pthread_key_create, (pthread_key_t*, void (*)(void*)))
extern "C" int pthread_key_create(pthread_key_t* key, void (*destructor)(void*)) {
  if (getenv("CUL_TEST_NO_KEY") != nullptr && isFromLibrary(__builtin_return_address(0))) {
    return EAGAIN;
  }
  return pthread_key_createStandIn.real(key, destructor);
}

CUL_DEFINE_STAND_IN(int, pthread_setspecific, (pthread_key_t, const void*))
extern "C" int pthread_setspecific(pthread_key_t key, const void* value) {
  if (__atomic_load_n(&setSpecificFails, __ATOMIC_RELAXED) &&
      isFromLibrary(__builtin_return_address(0))) {
    return ENOMEM;
  }
  return pthread_setspecificStandIn.real(key, value);
}
#endif

namespace {

constexpr unsigned bound = 64;  // of the blocks of one class that a thread keeps

void expectChildSucceeds(const char* name, const ChildOptions& options = {}) {
  const ChildResult r = runChild(name, options);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

// From now on the process counts as one with several threads.
void haveHadASecondThread() {
  std::thread([] {}).join();
  ASSERT_EQ(__libc_single_threaded, 0);
}

// Free blocks on the lists that all threads share: a thread that has none of its own sees those.
Counts countsOnLists() {
  Counts result;
  std::thread([&result] { result = counts(); }).join();
  return result;
}

// How many blocks of each class a test hands out. More than one thread can keep.
constexpr unsigned many = 100;

class HandedOut {
 public:
  explicit HandedOut(Blocks& blocks) {
    for (const unsigned size : classes) {
      for (unsigned i = 0; i < many; ++i) {
        blocks_.emplace_back(pool().getBuffer(size), size);
      }
    }
    blocks.drain();
  }

  // Frees them on the calling thread.
  void free() {
    for (const auto& [block, size] : blocks_) {
      pool().freeBuffer(block, size);
    }
    blocks_.clear();
  }

 private:
  std::vector<std::pair<void*, unsigned>> blocks_;
};

const Counts none = {0, 0, 0, 0, 0, 0};
const Counts all = {many, many, many, many, many, many};

CUL_CHILD(StockIsBounded) {
  haveHadASecondThread();
  Blocks blocks;
  HandedOut handedOut(blocks);
  handedOut.free();
  EXPECT_EQ(counts(), all) << "with those of the calling thread";
  for (const unsigned onLists : countsOnLists()) {
    EXPECT_LT(onLists, many);
    EXPECT_GE(onLists, many - bound);
  }
  // Whatever comes, no more are kept.
  std::vector<void*> more;
  for (unsigned i = 0; i < 10 * many; ++i) {
    more.push_back(pool().getBuffer(24));
  }
  for (void* const block : more) {
    pool().freeBuffer(block, 24);
    EXPECT_LE(counts()[2] - countsOnLists()[2], bound);
  }
}

TEST(StringStock, KeepsNoMoreThan64BlocksOfAClass) { expectChildSucceeds("StockIsBounded"); }

// Prints which block each request of a long series gets, as the number under which it came
// first, and what is free after each.
void printASeries() {
  std::minstd_rand random(7);
  std::map<void*, std::size_t> numbers;
  std::vector<std::pair<void*, unsigned>> taken;
  Blocks blocks;
  blocks.drain();
  for (unsigned i = 0; i < 6000; ++i) {
    // Long runs of either kind, so that stocks become empty and full.
    const bool gets = taken.empty() || random() % 10 < (i / 500 % 2 == 0 ? 8 : 2);
    if (gets) {
      const unsigned size = classes[random() % std::size(classes)] - random() % 8;
      void* const block = pool().getBuffer(size);
      taken.emplace_back(block, size);
      std::printf("%zu", numbers.emplace(block, numbers.size()).first->second);
    } else {
      const std::size_t which = random() % taken.size();
      pool().freeBuffer(taken[which].first, taken[which].second);
      taken[which] = taken.back();
      taken.pop_back();
    }
    for (const unsigned count : counts()) {
      std::printf(" %u", count);
    }
    std::printf("\n");
  }
}

CUL_CHILD(SeriesAlone) { printASeries(); }

CUL_CHILD(SeriesInCompany) {
  haveHadASecondThread();
  printASeries();
}

TEST(StringStock, GivesAThreadTheSameBlocksInTheSameOrderAsTheListsThemselves) {
  const ChildResult alone = runChild("SeriesAlone");
  const ChildResult inCompany = runChild("SeriesInCompany");
  EXPECT_EQ(alone.status, 0);
  EXPECT_EQ(inCompany.status, 0);
  EXPECT_GT(alone.out.size(), 60000U);
  EXPECT_TRUE(alone.out == inCompany.out);
}

// Has a thread free blocks of all classes and end, in the way of `run`, which gets what the
// thread does and returns when it is gone.
void expectAllGivenBack(const std::function<void(std::function<void()>)>& run) {
  haveHadASecondThread();
  Blocks blocks;
  HandedOut handedOut(blocks);
  Counts seen;
  Counts onLists;
  run([&] {
    handedOut.free();
    seen = counts();
    onLists = countsOnLists();
  });
  const Counts left = counts();
  for (std::size_t i = 0; i < left.size(); ++i) {
    EXPECT_GE(seen[i], many) << "of " << classes[i];
    EXPECT_LT(onLists[i], seen[i]) << "of " << classes[i] << ": the thread had a stock";
    EXPECT_GE(left[i], seen[i]) << "of " << classes[i];
  }
}

void joinPosixThread(void* (*entry)(void*), std::function<void()> body) {
  pthread_t id = 0;
  ASSERT_EQ(pthread_create(&id, nullptr, entry, &body), 0);
  ASSERT_EQ(pthread_join(id, nullptr), 0);
}

void call(void* body) { (*static_cast<std::function<void()>*>(body))(); }

CUL_CHILD(StockOfStandardThread) {
  expectAllGivenBack([](const auto& body) { std::thread(body).join(); });
}

CUL_CHILD(StockOfThreadThatReturns) {
  expectAllGivenBack([](const auto& body) {
    joinPosixThread(
        [](void* given) -> void* {
          call(given);
          return nullptr;
        },
        body);
  });
}

CUL_CHILD(StockOfThreadThatExits) {
  expectAllGivenBack([](const auto& body) {
    joinPosixThread(
        [](void* given) -> void* {
          call(given);
          pthread_exit(nullptr);
        },
        body);
  });
}

CUL_CHILD(StockOfCancelledThread) {
  expectAllGivenBack([](const auto& body) {
    joinPosixThread(
        [](void* given) -> void* {
          call(given);
          pthread_cancel(pthread_self());
          pthread_testcancel();
          return nullptr;
        },
        body);
  });
}

CUL_CHILD(StockOfStdThread) {
  expectAllGivenBack([](const auto& body) { runOnThread(body); });
}

CUL_CHILD(StockOfThreadAskedToEnd) {
  expectAllGivenBack([](const auto& body) {
    std::atomic<bool> isThrough = false;
    StdThread::Termination termination;
    const StdThread* const thread = startThread(
        [&] {
          body();
          isThrough = true;
          for (;;) {
            pause();
          }
        },
        &termination);
    waitUntil([&isThrough] { return isThrough.load(); });
    EXPECT_EQ(thread->requestTerminate(), 0);
    EXPECT_EQ(termination.wait(0), 0);
  });
}

CUL_CHILD(StockOfMain) {
  static Blocks blocks;
  static std::optional<HandedOut> handedOut;
  haveHadASecondThread();
  handedOut.emplace(blocks);
  handedOut->free();
  EXPECT_NE(countsOnLists(), all);
  std::thread([] {
    EXPECT_TRUE(waitUntil([] { return counts() == all; }));
    std::_Exit(testing::Test::HasFailure() ? 1 : 0);
  }).detach();
  pthread_exit(nullptr);
}

TEST(StringStock, GoesBackWhenAThreadEnds) {
  expectChildSucceeds("StockOfStandardThread");
  expectChildSucceeds("StockOfThreadThatReturns");
  expectChildSucceeds("StockOfThreadThatExits");
  expectChildSucceeds("StockOfCancelledThread");
  expectChildSucceeds("StockOfStdThread");
  expectChildSucceeds("StockOfThreadAskedToEnd");
}

TEST(StringStock, OfMainGoesBackWhenMainEndsBeforeTheProcess) {
  expectChildSucceeds("StockOfMain");
}

// Makes and destroys strings when a thread's own objects go, however late.
void useStringsLate() {
  for (unsigned n = 0; n < 70; ++n) {
    const EncodedString text(std::string(n, 'x').c_str(), EncodedString::utf8);
    EXPECT_EQ(text.length(), n);
  }
}

struct LateUser {
  EncodedString text = EncodedString("twenty bytes of text", EncodedString::utf8);
  HandedOut* handedOut = nullptr;
  ~LateUser() {
    useStringsLate();
    if (handedOut != nullptr) {
      handedOut->free();
    }
  }
};

CUL_CHILD(StockAtThreadLocals) {
  haveHadASecondThread();
  Blocks blocks;
  HandedOut handedOut(blocks);
  std::thread([&handedOut] {
    thread_local LateUser user;
    user.handedOut = &handedOut;
  }).join();
  const Counts left = counts();
  for (std::size_t i = 0; i < left.size(); ++i) {
    EXPECT_GE(left[i], many) << "of " << classes[i];
  }
}

// The thread sanitizer is at its end before the last round.
#if defined(__SANITIZE_THREAD__)
constexpr int mostRounds = PTHREAD_DESTRUCTOR_ITERATIONS - 1;
#else
constexpr int mostRounds = PTHREAD_DESTRUCTOR_ITERATIONS;
#endif

pthread_key_t lateKey;
std::atomic<int> rounds = 0;

CUL_CHILD(StockAtKeys) {
  static Blocks blocks;
  static std::optional<HandedOut> handedOut;
  haveHadASecondThread();
  // Made after the pool's own, and so destroyed after it, as often as there are rounds.
  ASSERT_EQ(pthread_key_create(&lateKey,
                               [](void* value) {
                                 useStringsLate();
                                 if (++rounds == mostRounds) {
                                   handedOut->free();
                                   delete static_cast<EncodedString*>(value);
                                   return;
                                 }
                                 pthread_setspecific(lateKey, value);
                               }),
            0);
  handedOut.emplace(blocks);
  std::thread([] {
    useStringsLate();
    pthread_setspecific(lateKey, new EncodedString("made in time", EncodedString::utf8));
  }).join();
  EXPECT_EQ(rounds, mostRounds);
  const Counts left = counts();
  for (std::size_t i = 0; i < left.size(); ++i) {
    EXPECT_GE(left[i], many) << "of " << classes[i];
  }
}

TEST(StringStock, LosesNothingWhenStringsAreUsedAsAThreadsOwnObjectsGo) {
  expectChildSucceeds("StockAtThreadLocals");
  expectChildSucceeds("StockAtKeys");
}

CUL_CHILD(StockAfterExit) {
  haveHadASecondThread();
  useStringsLate();
  static Blocks blocks;
  static HandedOut handedOut(blocks);
  static LateUser user;
  user.handedOut = &handedOut;
  atexit([] { useStringsLate(); });
  std::thread([] { useStringsLate(); }).join();
}

TEST(StringStock, ServesExitHandlersAndTheDestructorsOfStaticObjects) {
  expectChildSucceeds("StockAfterExit");
}

// Uses strings on two threads before main, when the environment says so.
struct BeforeMain {
  EncodedString made;
  BeforeMain() {
    if (getenv("CUL_TEST_BEFORE_MAIN") != nullptr) {
      std::thread([this] {
        made = EncodedString("made before main", EncodedString::utf8);
        useStringsLate();
      }).join();
      made += EncodedString(" and longer", EncodedString::utf8);
    }
  }
};
BeforeMain beforeMain;

CUL_CHILD(StockBeforeMain) {
  EXPECT_STREQ(beforeMain.made, "made before main and longer");
  EXPECT_EQ(__libc_single_threaded, 0);
  useStringsLate();
}

TEST(StringStock, ServesStaticObjectsAndTheirThreadsBeforeMain) {
  ChildOptions options;
  options.environment["CUL_TEST_BEFORE_MAIN"] = "1";
  expectChildSucceeds("StockBeforeMain", options);
}

// Strings on their way between threads.
class Queue {
 public:
  void put(EncodedString text) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return texts_.size() < capacity; });
    texts_.push_back(std::move(text));
    changed_.notify_all();
  }

  // Gives false when there is nothing any more.
  bool get(EncodedString& text) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return !texts_.empty() || isClosed_; });
    if (texts_.empty()) {
      return false;
    }
    text = std::move(texts_.front());
    texts_.pop_front();
    changed_.notify_all();
    return true;
  }

  void close() {
    const std::lock_guard lock(mutex_);
    isClosed_ = true;
    changed_.notify_all();
  }

  static constexpr std::size_t capacity = 100;

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<EncodedString> texts_;
  bool isClosed_ = false;
};

unsigned long bytesOf(const Counts& counted) {
  unsigned long bytes = 0;
  for (std::size_t i = 0; i < counted.size(); ++i) {
    bytes += std::size_t{counted[i]} * classes[i];
  }
  return bytes;
}

CUL_CHILD(StocksOfProducerAndConsumer) {
  Queue queue;
  constexpr unsigned passed = 50000;
  const unsigned long before = bytesOf(counts());
  std::thread producer([&] {
    for (unsigned i = 0; i < passed; ++i) {
      queue.put(EncodedString("twenty bytes of text", EncodedString::utf8));
    }
    queue.close();
  });
  std::thread consumer([&] {
    unsigned received = 0;
    for (EncodedString text; queue.get(text); ++received) {
      ASSERT_STREQ(text, "twenty bytes of text");
    }
    EXPECT_EQ(received, passed);
  });
  producer.join();
  consumer.join();
  const unsigned long after = bytesOf(counts());
  constexpr unsigned long chunk = 8160;
  constexpr unsigned long perThread = bound * (8 + 16 + 24 + 32 + 48 + 64);
  EXPECT_LE(after - before, Queue::capacity * 24 + 2 * perThread + 2 * chunk);
}

TEST(StringStock, LetsMemoryNotGrowWhenOneThreadAllocatesAndAnotherFrees) {
  expectChildSucceeds("StocksOfProducerAndConsumer");
}

TEST(StringStock, EightThreadsPassStringsThroughAQueue) {
  constexpr unsigned pairs = 4;
  constexpr unsigned passed = 2000;
  Queue queue;
  std::atomic<unsigned long> sent = 0;
  std::atomic<unsigned long> received = 0;
  std::vector<std::thread> producers;
  std::vector<std::thread> consumers;
  for (unsigned thread = 0; thread < pairs; ++thread) {
    producers.emplace_back([&, thread] {
      for (unsigned i = 0; i < passed; ++i) {
        const unsigned length = (i * 7 + thread) % 70;
        EncodedString text(std::string(length, static_cast<char>('a' + length % 26)).c_str(),
                           EncodedString::utf8);
        sent += length;
        queue.put(std::move(text));
      }
    });
    consumers.emplace_back([&] {
      for (EncodedString text; queue.get(text);) {
        const unsigned length = text.length();
        ASSERT_TRUE(length == 0 || text.indexOfAnyBut(static_cast<char>('a' + length % 26)) == 0);
        EncodedString copy = text;
        copy += text;
        ASSERT_EQ(copy.length(), 2 * length);
        received += length;
      }
    });
  }
  for (std::thread& thread : producers) {
    thread.join();
  }
  queue.close();
  for (std::thread& thread : consumers) {
    thread.join();
  }
  EXPECT_EQ(received, sent);
}

// Whether a forked child can start threads: the thread sanitizer does not bear it.
#if defined(__SANITIZE_THREAD__)
constexpr bool childCanStartThreads = false;
#else
constexpr bool childCanStartThreads = true;
#endif

// Forks, and has the child do `body`, whose expectations say what is wrong.
void expectInForked(const std::function<void()>& body) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(60);
    body();
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

CUL_CHILD(StocksAcrossFork) {
  haveHadASecondThread();
  Blocks blocks;
  constexpr unsigned stable = 3;
  std::deque<HandedOut> handedOut;
  for (unsigned i = 0; i < stable + 2; ++i) {
    handedOut.emplace_back(blocks);
  }
  // Threads that have a stock and sleep.
  std::atomic<bool> mayEnd = false;
  std::atomic<unsigned> ready = 0;
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < stable; ++i) {
    threads.emplace_back([&, i] {
      handedOut[i].free();
      ++ready;
      waitUntil([&mayEnd] { return mayEnd.load(); });
    });
  }
  handedOut[stable].free();
  waitUntil([&ready] { return ready == stable; });
  const Counts expected(std::size(classes), (stable + 1) * many);
  EXPECT_NE(counts(), expected);
  expectInForked([&] {
    EXPECT_EQ(counts(), expected);
    Blocks used;
    for (const unsigned size : classes) {
      for (unsigned i = 0; i < expected[0]; ++i) {
        std::memset(used.take(size), 0x55, size);
      }
    }
    EXPECT_EQ(counts(), none);
    if (!childCanStartThreads) {
      return;
    }
    // Its own threads have stocks like all, each its own.
    std::atomic<bool> isFreed = false;
    std::atomic<bool> isSeen = false;
    std::thread thread([&] {
      handedOut[stable + 1].free();
      EXPECT_EQ(counts(), all);
      isFreed = true;
      waitUntil([&isSeen] { return isSeen.load(); });
    });
    waitUntil([&isFreed] { return isFreed.load(); });
    EXPECT_NE(counts(), all);
    isSeen = true;
    thread.join();
    EXPECT_EQ(counts(), all);
  });
  mayEnd = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(counts(), expected) << "in the parent";
  handedOut[stable + 1].free();
}

// The thread sanitizer does not bear it, see above.
#if !defined(__SANITIZE_THREAD__)
CUL_CHILD(SpareStockAcrossFork) {
  haveHadASecondThread();
  std::thread(useStringsLate).join();
  expectInForked([] {
    std::atomic<int> step = 0;
    const auto waitFor = [&step](int n) { waitUntil([&step, n] { return step == n; }); };
    std::thread first([&] {
      void* const block = pool().getBuffer(24);
      step = 1;
      waitFor(2);
      pool().freeBuffer(block, 24);
      step = 3;
      waitFor(4);
    });
    waitFor(1);
    std::thread second([&] {
      void* const block = pool().getBuffer(24);
      const Counts before = counts();
      step = 2;
      waitFor(3);
      EXPECT_EQ(counts(), before);
      pool().freeBuffer(block, 24);
      step = 4;
    });
    first.join();
    second.join();
  });
}

TEST(StringStock, ThatIsSpareAtAForkIsOneThreadsInTheChild) {
  expectChildSucceeds("SpareStockAcrossFork");
}
#endif

CUL_CHILD(StocksAcrossForkAtWork) {
  haveHadASecondThread();
  Blocks blocks;
  // More than all threads together can use and keep: no other blocks are split for them.
  constexpr unsigned lots = 5 * many;
  std::deque<HandedOut> handedOut;
  for (unsigned n = 0; n < lots; n += many) {
    handedOut.emplace_back(blocks);
  }
  for (HandedOut& each : handedOut) {
    each.free();
  }
  // The blocks of 24 bytes go to and fro, most of the time all of them through stocks.
  std::atomic<bool> mayEnd = false;
  std::atomic<unsigned> atWork = 0;
  std::vector<std::thread> threads;
  constexpr unsigned workers = 3;
  for (unsigned i = 0; i < workers; ++i) {
    threads.emplace_back([&] {
      std::array<void*, 40> taken;
      for (unsigned round = 0; !mayEnd; ++round) {
        atWork += round == 1 ? 1 : 0;
        for (void*& block : taken) {
          block = pool().getBuffer(24);
          std::memset(block, 0xAA, 24);
        }
        for (void* const block : taken) {
          pool().freeBuffer(block, 24);
        }
      }
    });
  }
  // No more of them is in malloc by now, where the address sanitizer bears no fork.
  EXPECT_TRUE(waitUntil([&] { return atWork == workers; }));
  for (int i = 0; i < 30; ++i) {
    expectInForked([&] {
      // What a worker was using, it uses no more; whatever else is there can be had.
      constexpr unsigned inUse = workers * 40;
      const unsigned left = counts()[2];
      EXPECT_LE(left, lots);
      EXPECT_GE(left, lots - inUse);
      Blocks used;
      for (unsigned n = 0; n < left; ++n) {
        std::memset(used.take(24), 0x55, 24);
      }
      EXPECT_EQ(counts()[2], 0U);
      if (childCanStartThreads) {
        std::thread(useStringsLate).join();
      }
    });
  }
  mayEnd = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(counts(), Counts(std::size(classes), lots)) << "in the parent";
}

TEST(StringStock, OfThreadsThatAForkedChildDoesNotHaveGoesBackThere) {
  expectChildSucceeds("StocksAcrossFork");
}

TEST(StringStock, IsWholeInAChildThatIsForkedWhileThreadsUseTheirs) {
  expectChildSucceeds("StocksAcrossForkAtWork");
}

// Has all classes of blocks come and go, with a string of each size alive at times.
void workWithStrings(unsigned round) {
  std::array<EncodedString, 40> texts;
  for (unsigned i = 0; i < texts.size(); ++i) {
    const unsigned length = (round * 13 + i) % 64;
    texts[i].makeBuffer(length);
    std::memset(static_cast<char*>(texts[i]), 'a' + static_cast<int>(length % 26), length);
  }
  for (const EncodedString& text : texts) {
    const unsigned length = text.length();
    if (length != 0 && text.indexOfAnyBut(static_cast<char>('a' + length % 26)) != 0) {
      std::abort();
    }
  }
}

// Workers that other things happen beside.
class Workers {
 public:
  Workers() {
    for (unsigned i = 0; i < 2; ++i) {
      threads_.emplace_back([this] {
        for (unsigned round = 0; !mayEnd_; ++round) {
          workWithStrings(round);
        }
      });
    }
  }
  Workers(const Workers&) = delete;
  Workers& operator=(const Workers&) = delete;
  ~Workers() {
    mayEnd_ = true;
    for (std::thread& thread : threads_) {
      thread.join();
    }
  }

 private:
  std::atomic<bool> mayEnd_ = false;
  std::vector<std::thread> threads_;
};

// Nothing that is free is there twice.
void expectSoundPool() {
  Blocks blocks;
  blocks.drain();
}

void spinFor(unsigned turns) {
  for (unsigned i = 0; i < turns; ++i) {
    __builtin_ia32_pause();
  }
}

// The thread sanitizer hands signals over between calls only.
#if !defined(__SANITIZE_THREAD__)
CUL_CHILD(StocksAtFaults) {
  constexpr unsigned faults = 100;
  std::atomic<unsigned> recovered = 0;
  std::atomic<bool> isReady = false;
  std::atomic<bool> mayEnd = false;
  StdThread::Termination termination;
  const StdThread* const thread = startThread(
      [&] {
        StdThread* const self = StdThread::currentThread();
        static std::atomic<unsigned> round = 0;
        while (self->_setjmp() != 0) {
          registerErrorHandlers();
          ++recovered;
        }
        isReady = true;
        while (!mayEnd) {
          workWithStrings(++round);
        }
      },
      &termination);
  const pthread_t id = thread->threadId();
  // A signal that is put off is sent to the process once more: no other thread takes it.
  sigset_t fault;
  sigemptyset(&fault);
  sigaddset(&fault, SIGSEGV);
  pthread_sigmask(SIG_BLOCK, &fault, nullptr);
  {
    const Workers workers;
    std::minstd_rand random(1);
    for (unsigned i = 0; i < faults; ++i) {
      waitUntil([&isReady] { return isReady.load(); });
      isReady = false;
      spinFor(static_cast<unsigned>(random() % 3000));
      ASSERT_EQ(pthread_sigqueue(id, SIGSEGV, {}), 0);
    }
    waitUntil([&recovered] { return recovered == faults; });
  }
  mayEnd = true;
  EXPECT_EQ(termination.wait(0), 0);
  expectSoundPool();
}

TEST(StringStock, IsSoundAfterRecoveriesFromSignalsAtAnyMoment) {
  expectChildSucceeds("StocksAtFaults", withoutSanitizerHandlers());
}
#endif

CUL_CHILD(StocksAtRequests) {
  constexpr unsigned requests = 50;
  runOnThread([] {
    for (unsigned round = 0; round < 64; ++round) {
      workWithStrings(round);
    }
  });
  const unsigned long before = bytesOf(counts());
  std::minstd_rand random(1);
  for (unsigned i = 0; i < requests; ++i) {
    std::atomic<bool> isReady = false;
    StdThread::Termination termination;
    // The object of such a thread stays for ever, and its name with it: it has none.
    const StdThread* const thread = startThread(
        [&isReady] {
          for (unsigned round = 0;; ++round) {
            workWithStrings(round);
            isReady = true;
          }
        },
        &termination, "");
    waitUntil([&isReady] { return isReady.load(); });
    spinFor(static_cast<unsigned>(random() % 3000));
    EXPECT_EQ(thread->requestTerminate(), 0);
    EXPECT_EQ(termination.wait(0), 0);
  }
  EXPECT_EQ(bytesOf(counts()), before);
  expectSoundPool();
}

TEST(StringStock, GoesBackWhenAThreadIsAskedToEndAtAnyMoment) {
  expectChildSucceeds("StocksAtRequests");
}

#if !defined(__SANITIZE_THREAD__)  // see above
// What a thread without a stock frees lies on the lists at once.
void expectWorkOnTheLists() {
  Blocks blocks;
  HandedOut handedOut(blocks);
  handedOut.free();
  EXPECT_EQ(counts(), all);
  EXPECT_EQ(countsOnLists(), all);
  useStringsLate();
  std::thread(useStringsLate).join();
}

CUL_CHILD(StockWithoutKey) {
  haveHadASecondThread();
  expectWorkOnTheLists();
}

CUL_CHILD(StockThatCannotBeNoted) {
  haveHadASecondThread();
  setSpecificFails = true;
  expectWorkOnTheLists();
  setSpecificFails = false;
  Blocks blocks;
  HandedOut handedOut(blocks);
  std::thread([&handedOut] {
    handedOut.free();
    EXPECT_EQ(counts(), all);
    EXPECT_NE(countsOnLists(), all);
  }).join();
  EXPECT_EQ(counts(), all);
}

TEST(StringStock, IsDoneWithoutWhenThereIsNoKeyToHearOfTheThreadsEnd) {
  ChildOptions options;
  options.environment["CUL_TEST_NO_KEY"] = "1";
  expectChildSucceeds("StockWithoutKey", options);
}

TEST(StringStock, IsDoneWithoutWhenTheThreadCannotBeNoted) {
  expectChildSucceeds("StockThatCannotBeNoted");
}
#endif

// The sanitizers end the process when memory is out, and have heaps of their own.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
CUL_CHILD(StockWithoutMemory) {
  Blocks blocks;
  HandedOut handedOut(blocks);
  HandedOut other(blocks);
  handedOut.free();
  haveHadASecondThread();
  {
    const Famine famine;
    void* const block = pool().getBuffer(24);
    EXPECT_EQ(pool().freeBlocks(24), many - 1);
    pool().freeBuffer(block, 24);
  }
  other.free();
  const Counts twice(std::size(classes), 2 * many);
  EXPECT_EQ(counts(), twice);
  EXPECT_EQ(countsOnLists(), twice);
}

TEST(StringStock, IsDoneWithoutWhenThereIsNoMemoryForIt) {
  expectChildSucceeds("StockWithoutMemory");
}

CUL_CHILD(StocksOfManyThreads) {
  std::thread(useStringsLate).join();
  const std::size_t before = mallinfo2().uordblks;
  for (unsigned i = 0; i < 500; ++i) {
    std::thread(useStringsLate).join();
  }
  const std::size_t after = mallinfo2().uordblks;
  EXPECT_LE(after, before + 20000);
}

TEST(StringStock, IsLeftToTheNextThread) { expectChildSucceeds("StocksOfManyThreads"); }

std::optional<Famine> famine;

CUL_CHILD(FaultUnderTheLock) {
  haveHadASecondThread();
  StdThread* const self = StdThread::currentThread();
  registerErrorHandlers();
  std::set_new_handler([] {
    famine.reset();
    raise(SIGSEGV);
  });
  Blocks blocks;
  blocks.drain();
  static bool isThrough = false;
  if (self->_setjmp() == 0) {
    famine.emplace();
    static_cast<void>(!pool().getBuffer(8));
    isThrough = true;
    famine.reset();
  }
  EXPECT_FALSE(isThrough);
  std::set_new_handler(nullptr);
  std::thread(useStringsLate).join();
  useStringsLate();
  expectSoundPool();
}

TEST(StringStock, RecoveryFromAFaultUnderThePoolsLockGivesTheLockBack) {
  expectChildSucceeds("FaultUnderTheLock");
}

// Asks for a block while the heap has none, with a new-handler that frees more blocks of each
// class than a stock holds.
void fillTheStockInTheNewHandler(unsigned size, const Counts& expected) {
  haveHadASecondThread();
  Blocks blocks;
  static std::optional<HandedOut> handedOut;
  handedOut.emplace(blocks);
  std::set_new_handler([] {
    famine.reset();
    handedOut->free();
  });
  famine.emplace();
  static_cast<void>(blocks.take(size));
  std::set_new_handler(nullptr);
  const Counts left = counts();
  EXPECT_EQ(left, expected);
  const Counts onLists = countsOnLists();
  for (std::size_t i = 0; i < left.size(); ++i) {
    EXPECT_LE(left[i] - onLists[i], bound) << "of " << classes[i];
  }
  // Nothing that is free is there twice, or in use.
  blocks.drain();
}

CUL_CHILD(FillTheStockFor8) {
  fillTheStockInTheNewHandler(8, {many + 1, many + 1, many, many + 1, many, many + 126});
}
CUL_CHILD(FillTheStockFor24) {
  fillTheStockInTheNewHandler(24, {many, many, many + 1, many, many + 169, many});
}
CUL_CHILD(FillTheStockFor64) {
  fillTheStockInTheNewHandler(64, {many, many, many, many, many, many + 126});
}

TEST(StringStock, IsWholeWhenTheNewHandlerChangesItWhileItIsFilled) {
  expectChildSucceeds("FillTheStockFor8");
  expectChildSucceeds("FillTheStockFor24");
  expectChildSucceeds("FillTheStockFor64");
}
#endif

}  // namespace
