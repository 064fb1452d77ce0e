#include <array>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/StringPoolManager.h"

#include "benchmarks/Comparison.h"

namespace {

constexpr unsigned batch = 100;

std::string bytes(unsigned n) { return std::to_string(n) + " bytes"; }

void comparePoolBlock(unsigned size, Company company, int threads) {
  const std::string what = "string pool: get and free " + bytes(size) + ", " +
                           (threads > 1 ? "two threads" : nameOf(company));
  compare(
      what,
      [size] {
        StringPoolManager& pool = StringPoolManager::instance();
        void* const block = pool.getBuffer(size);
        benchmark::DoNotOptimize(block);
        pool.freeBuffer(block, size);
      },
      "malloc",
      [size] {
        void* const block = std::malloc(size);
        benchmark::DoNotOptimize(block);
        std::free(block);
      },
      threads);
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

void compareBuilding(unsigned n, Company company) {
  const std::string state = bytes(n) + ", " + nameOf(company);
  const std::string text = prose(n);
  const char* const peer = n < 16 ? "std::string (in place)" : "std::string";
  const auto ours = [text] {
    const EncodedString s(text.data(), static_cast<unsigned>(text.size()), EncodedString::utf8);
    benchmark::DoNotOptimize(static_cast<const char*>(s));
  };
  compare("EncodedString: build and destroy " + state, ours, peer, [text] {
    const std::string s(text.data(), text.size());
    benchmark::DoNotOptimize(s.data());
  });
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
  compare(
      "EncodedString: append " + std::to_string(pieces) + " x 8 bytes, " + nameOf(company),
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
  compare(
      "EncodedString: hash " + bytes(n), [ours] { benchmark::DoNotOptimize(ours.hashValue()); },
      "std::hash", [text] { benchmark::DoNotOptimize(std::hash<std::string>{}(text)); });
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
    comparePoolBlock(24, company, 2);
    comparePoolBlock(100, company, 2);
  }
}

void compareStrings(Company company) {
  for (const unsigned n : {8U, 20U, 32U, 4096U}) {
    compareBuilding(n, company);
  }
  comparePieces(16, company);
  if (company == Company::idle) {
    for (const unsigned n : {8U, 32U, 4096U}) {
      compareAssignment(n);
      compareReading(n);
      compareSearching(n);
    }
  }
}
