#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/StringPoolManager.h"

#include "benchmarks/Comparison.h"

namespace {

constexpr unsigned batch = 100;

// How the rows scale: one thread beside one that sleeps, and several at work.
constexpr int threadCounts[] = {1, 2, 4, 8};
constexpr unsigned scalingBlock = 24;
constexpr unsigned scalingText = 20;

std::string bytes(unsigned n) { return std::to_string(n) + " bytes"; }

std::string nameOf(Company company, int threads) {
  return threads > 1 ? std::to_string(threads) + " threads" : nameOf(company);
}

std::string poolBlockCase(unsigned size, Company company, int threads) {
  return "string pool: get and free " + bytes(size) + ", " + nameOf(company, threads);
}

auto mallocBlock(unsigned size) {
  return [size] {
    void* const block = std::malloc(size);
    benchmark::DoNotOptimize(block);
    std::free(block);
  };
}

void comparePoolBlock(unsigned size, Company company, int threads) {
  const std::string what = poolBlockCase(size, company, threads);
  compare(
      what,
      [size] {
        StringPoolManager& pool = StringPoolManager::instance();
        void* const block = pool.getBuffer(size);
        benchmark::DoNotOptimize(block);
        pool.freeBuffer(block, size);
      },
      "malloc", mallocBlock(size), threads);
  if (size > StringPoolManager::maximumPooledSize) {
    // What the pool passes such a request to.
    addPeer(
        what, "new[]",
        [size] {
          char* const block = new char[size];
          benchmark::DoNotOptimize(block);
          delete[] block;
        },
        threads);
  }
}

void comparePoolBatch(unsigned size, Company company) {
  compare(
      "string pool: get, then free " + std::to_string(batch) + " x " + bytes(size) + ", " +
          nameOf(company),
      [size] {
        std::array<void*, batch> blocks;
        StringPoolManager& pool = StringPoolManager::instance();
        for (void*& block : blocks) {
          block = pool.getBuffer(size);
        }
        benchmark::DoNotOptimize(blocks.data());
        for (void* block : blocks) {
          pool.freeBuffer(block, size);
        }
      },
      "malloc",
      [size] {
        std::array<void*, batch> blocks;
        for (void*& block : blocks) {
          block = std::malloc(size);
        }
        benchmark::DoNotOptimize(blocks.data());
        for (void* block : blocks) {
          std::free(block);
        }
      });
}

/// Words, without the characters that the searches look for.
std::string prose(unsigned n) {
  static const std::string words =
      "the engine stops the debuggee at the next statement and reports each of its frames; ";
  std::string text;
  while (text.size() < n) {
    text += words;
  }
  text.resize(n);
  return text;
}

/// A standard string that keeps even a short text on the heap, as a long one.
std::string onHeap(const char* text, std::size_t n) {
  std::string s;
  s.reserve(32);
  s.assign(text, n);
  return s;
}

std::string buildCase(unsigned n, Company company, int threads) {
  return "EncodedString: build and destroy " + bytes(n) + ", " + nameOf(company, threads);
}

auto buildOurs(const std::string& text) {
  return [text] {
    const EncodedString s(text.data(), static_cast<unsigned>(text.size()), EncodedString::utf8);
    benchmark::DoNotOptimize(static_cast<const char*>(s));
  };
}

auto buildPeers(const std::string& text) {
  return [text] {
    const std::string s(text.data(), text.size());
    benchmark::DoNotOptimize(s.data());
  };
}

void compareBuildingAtOnce(unsigned n, int threads) {
  const std::string text = prose(n);
  compare(buildCase(n, Company::idle, threads), buildOurs(text), "std::string", buildPeers(text),
          threads);
}

/// What one thread makes and another destroys. Both work on a batch at a time, so that what the
/// queue itself costs is little; who finds no batch lets the other one run.
template <class Value>
class Queue {
 public:
  Queue() = default;
  Queue(const Queue&) = delete;
  Queue& operator=(const Queue&) = delete;
  ~Queue() = default;

  /// Has one more value made in its place.
  template <typename Make>
  void add(const Make& make) {
    if (filled_ == 0) {
      while (made_.load(std::memory_order_relaxed) - destroyed_.load(std::memory_order_acquire) ==
             batches_.size()) {
        std::this_thread::yield();
      }
    }
    make(batchOf(made_.load(std::memory_order_relaxed))[filled_]);
    if (++filled_ == batch) {
      filled_ = 0;
      made_.fetch_add(1, std::memory_order_release);
    }
  }

  /// Hands an unfinished batch over as well; nothing may be added afterwards.
  void close() {
    made_.fetch_add(1, std::memory_order_release);
    isClosed_.store(true, std::memory_order_release);
  }

  /// Destroys what is made, until the queue is closed and empty.
  void drain() {
    for (;;) {
      const bool isLast = isClosed_.load(std::memory_order_acquire);
      const std::size_t next = destroyed_.load(std::memory_order_relaxed);
      if (made_.load(std::memory_order_acquire) != next) {
        for (std::optional<Value>& value : batchOf(next)) {
          value.reset();
        }
        destroyed_.fetch_add(1, std::memory_order_release);
      } else if (isLast) {
        return;
      } else {
        std::this_thread::yield();
      }
    }
  }

 private:
  using Batch = std::array<std::optional<Value>, batch>;

  Batch& batchOf(std::size_t n) { return batches_[n % batches_.size()]; }

  std::array<Batch, 16> batches_;
  unsigned filled_ = 0;  // of the batch that is being made
  std::atomic<std::size_t> made_ = 0;
  std::atomic<std::size_t> destroyed_ = 0;
  std::atomic<bool> isClosed_ = false;
};

const std::string passingCase = "EncodedString: build here, destroy there " + bytes(scalingText);

template <class Value, typename Make>
void addPassing(const std::string& side, Make make) {
  benchmark::RegisterBenchmark((passingCase + "/" + side).c_str(),
                               [make](benchmark::State& state) {
                                 const auto queue = std::make_unique<Queue<Value>>();
                                 std::thread destroying([&] { queue->drain(); });
                                 for (auto _ : state) {
                                   queue->add(make);
                                 }
                                 queue->close();
                                 destroying.join();
                               })
      ->UseRealTime()
      ->MinTime(secondsTogether);
}

void addPassingPeer(const std::string& peer) {
  addPassing<std::string>(peer, [text = prose(scalingText)](std::optional<std::string>& place) {
    place.emplace(text.data(), text.size());
  });
}

void comparePassing() {
  addPassing<EncodedString>(
      "ours", [text = prose(scalingText)](std::optional<EncodedString>& place) {
        place.emplace(text.data(), static_cast<unsigned>(text.size()), EncodedString::utf8);
      });
  addPassingPeer("std::string");
}

void compareBuilding(unsigned n, Company company) {
  const std::string state = bytes(n) + ", " + nameOf(company);
  const std::string text = prose(n);
  const char* const peer = n < 16 ? "std::string (in place)" : "std::string";
  compare(buildCase(n, company, 1), buildOurs(text), peer, buildPeers(text));
  if (n < 16) {
    addPeer("EncodedString: build and destroy " + state, "std::string (heap)", [text] {
      const std::string s = onHeap(text.data(), text.size());
      benchmark::DoNotOptimize(s.data());
    });
  }

  const EncodedString source(text.data(), n, EncodedString::utf8);
  compare(
      "EncodedString: copy and destroy " + state,
      [source] {
        const EncodedString s(source);
        benchmark::DoNotOptimize(static_cast<const char*>(s));
      },
      peer,
      [text] {
        const std::string s(text);
        benchmark::DoNotOptimize(s.data());
      });
  if (n < 16) {
    addPeer("EncodedString: copy and destroy " + state, "std::string (heap)", [text] {
      const std::string s = onHeap(text.data(), text.size());
      benchmark::DoNotOptimize(s.data());
    });
  }

  compare(
      "EncodedString: copy, append as much " + state,
      [source] {
        EncodedString s(source);
        s += source;
        benchmark::DoNotOptimize(static_cast<const char*>(s));
      },
      "std::string",
      [text] {
        std::string s(text);
        s += text;
        benchmark::DoNotOptimize(s.data());
      });
}

void compareAssignment(unsigned n) {
  const std::string text = prose(n);
  const EncodedString source(text.data(), n, EncodedString::utf8);
  const auto target = std::make_shared<EncodedString>(source);
  const auto peersTarget = std::make_shared<std::string>(text);
  compare(
      "EncodedString: assign to the same length " + bytes(n),
      [source, target] { *target = source; }, "std::string",
      [text, peersTarget] { *peersTarget = text; });
}

void comparePieces(unsigned pieces, Company company) {
  const std::string piece = prose(8);
  const EncodedString oursPiece(piece.data(), 8, EncodedString::utf8);
  const std::string what =
      "EncodedString: append " + std::to_string(pieces) + " x 8 bytes, " + nameOf(company);
  compare(
      what,
      [oursPiece, pieces] {
        EncodedString s;
        for (unsigned i = 0; i < pieces; ++i) {
          s += oursPiece;
        }
        benchmark::DoNotOptimize(static_cast<const char*>(s));
      },
      "std::string",
      [piece, pieces] {
        std::string s;
        for (unsigned i = 0; i < pieces; ++i) {
          s += piece;
        }
        benchmark::DoNotOptimize(s.data());
      });
  // A string owns memory for its length and not for more.
  addBound(what, [piece, pieces] {
    std::string s;
    for (unsigned i = 0; i < pieces; ++i) {
      std::string longer;
      longer.reserve(s.size() + piece.size());
      longer.append(s).append(piece);
      s.swap(longer);
    }
    benchmark::DoNotOptimize(s.data());
  });
}

// The hash whose values are stored: a chain of multiplications.
unsigned fnv1a(const std::string& text) {
  std::uint64_t hash = 0xcbf29ce484222325;
  for (const char c : text) {
    hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
  }
  return static_cast<unsigned>(hash);
}

void compareReading(unsigned n) {
  const std::string text = prose(n);
  const std::string same = text;
  const EncodedString ours(text.data(), n, EncodedString::utf8);
  const EncodedString oursSame(text.data(), n, EncodedString::utf8);

  compare(
      "EncodedString: equal " + bytes(n),
      [ours, oursSame] { benchmark::DoNotOptimize(ours == oursSame); }, "std::string",
      [text, same] { benchmark::DoNotOptimize(text == same); });
  compare(
      "EncodedString: less, equal " + bytes(n),
      [ours, oursSame] { benchmark::DoNotOptimize(ours < oursSame); }, "std::string",
      [text, same] { benchmark::DoNotOptimize(text < same); });

  const std::string hashing = "EncodedString: hash " + bytes(n);
  require(ours.hashValue() == fnv1a(text), "hash");
  compare(
      hashing, [ours] { benchmark::DoNotOptimize(ours.hashValue()); }, "std::hash",
      [text] { benchmark::DoNotOptimize(std::hash<std::string>{}(text)); });
  addBound(hashing, [text] { benchmark::DoNotOptimize(fnv1a(text)); });
}

void compareSearching(unsigned n) {
  std::string text = prose(n);
  text.replace(n - 4, 4, "##*!");
  const std::string pattern = "*!";
  const EncodedString ours(text.data(), n, EncodedString::utf8);
  const EncodedString oursPattern(pattern.c_str(), EncodedString::utf8);
  require(ours.indexOf('!', 1) == n && ours.indexOf(oursPattern, 1) == n - 1, "searches");

  compare(
      "EncodedString: find the last of " + bytes(n),
      [ours] { benchmark::DoNotOptimize(ours.indexOf('!', 1)); }, "memchr",
      [text] { benchmark::DoNotOptimize(std::memchr(text.data(), '!', text.size())); });
  compare(
      "EncodedString: find two bytes at the end of " + bytes(n),
      [ours, oursPattern] { benchmark::DoNotOptimize(ours.indexOf(oursPattern, 1)); }, "memmem",
      [text, pattern] {
        benchmark::DoNotOptimize(memmem(text.data(), text.size(), pattern.data(), pattern.size()));
      });
  if (n >= 32) {
    // A word of which many beginnings occur before it.
    text.replace(n - 10, 10, "statements");
    const std::string word = "statements";
    const EncodedString oursText(text.data(), n, EncodedString::utf8);
    const EncodedString oursWord(word.c_str(), EncodedString::utf8);
    require(oursText.indexOf(oursWord, 1) == n - 9, "search for a word");
    compare(
        "EncodedString: find a word at the end of " + bytes(n),
        [oursText, oursWord] { benchmark::DoNotOptimize(oursText.indexOf(oursWord, 1)); }, "memmem",
        [text, word] {
          benchmark::DoNotOptimize(memmem(text.data(), text.size(), word.data(), word.size()));
        });
  }
}

}  // namespace

void compareStringPool(Company company) {
  for (const unsigned size : {8U, 16U, 24U, 32U, 48U, 64U, 100U}) {
    comparePoolBlock(size, company, 1);
  }
  comparePoolBatch(24, company);
  comparePoolBatch(64, company);
  if (company == Company::idle) {
    for (const int threads : threadCounts) {
      if (threads > 1) {
        comparePoolBlock(scalingBlock, company, threads);
      }
    }
    comparePoolBlock(100, company, 2);
  }
}

void compareStrings(Company company) {
  for (const unsigned n : {8U, 20U, 32U, 4096U}) {
    compareBuilding(n, company);
  }
  comparePieces(16, company);
  if (company == Company::idle) {
    for (const int threads : threadCounts) {
      if (threads > 1) {
        compareBuildingAtOnce(scalingText, threads);
      }
    }
    comparePassing();
    for (const unsigned n : {8U, 32U, 4096U}) {
      compareAssignment(n);
      compareReading(n);
      compareSearching(n);
    }
  }
}

void addStringPeers(const std::string& allocator) {
  for (const int threads : threadCounts) {
    addPeer(poolBlockCase(scalingBlock, Company::idle, threads), allocator,
            mallocBlock(scalingBlock), threads);
  }
  const std::string peer = "std::string, " + allocator;
  for (const int threads : threadCounts) {
    addPeer(buildCase(scalingText, Company::idle, threads), peer, buildPeers(prose(scalingText)),
            threads);
  }
  addPassingPeer(peer);
}
