#include <array>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/CharString.h"
#include "Engine/utilities/EncodedString.h"

#include "tests/soak/Parts.h"

namespace {

constexpr unsigned pairs = 2;
constexpr std::size_t longestQueue = 16;  // batches
constexpr unsigned long stringsInABatch = 60;

// The text of string `number`: short ones and long ones, of all size classes of the pool.
std::string textOf(unsigned long number) {
  std::string text = std::to_string(number) + " ";
  text.append(number * 7 % 149, static_cast<char>('a' + number % 26));
  return text;
}

// Strings of one thread on their way to another.
struct Batch {
  unsigned long first = 0;
  std::vector<std::unique_ptr<EncodedString>> texts;
  std::vector<std::unique_ptr<ByteString>> bytes;
  std::vector<std::unique_ptr<CharString>> wide;
};

class Queue {
 public:
  void put(Batch batch) {
    std::unique_lock guard(lock_);
    changed_.wait(guard, [this] { return batches_.size() < longestQueue; });
    batches_.push_back(std::move(batch));
    changed_.notify_all();
  }

  // An empty batch is the last one.
  Batch take() {
    std::unique_lock guard(lock_);
    changed_.wait(guard, [this] { return !batches_.empty(); });
    Batch batch = std::move(batches_.front());
    batches_.pop_front();
    changed_.notify_all();
    return batch;
  }

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  std::deque<Batch> batches_;
};

Batch makeBatch(unsigned long first) {
  Batch batch{first, {}, {}, {}};
  for (unsigned long number = first; number < first + stringsInABatch; number += 3) {
    const std::string text = textOf(number);
    batch.texts.push_back(std::make_unique<EncodedString>(text.c_str(), EncodedString::utf8));
    batch.bytes.push_back(std::make_unique<ByteString>(text.c_str()));
    batch.wide.push_back(
        std::make_unique<CharString>(std::wstring(text.begin(), text.end()).c_str()));
  }
  // Which takes memory of the C library, too, and a lock.
  const EncodedString mixed("Grüße, Καλημέρα, 世界 🐞", EncodedString::utf8);
  const EncodedString native(mixed.convert(EncodedString::native), EncodedString::native);
  const EncodedString escaped(mixed.convert(EncodedString::slashU), EncodedString::slashU);
  if (escaped != mixed || native.length() == 0) {
    batch.texts.front() = std::make_unique<EncodedString>();  // is not what it should be
  }
  return batch;
}

void lookAt(Work& work, const Batch& batch) {
  for (std::size_t i = 0; i < batch.texts.size(); ++i) {
    const std::string text = textOf(batch.first + 3 * i);
    if (batch.texts[i]->view() != text || batch.bytes[i]->view() != text ||
        *batch.wide[i] != CharString(std::wstring(text.begin(), text.end()).c_str())) {
      work.wrong("changed on their way", text);
    }
  }
}

void passBetweenTwoThreads(Work& work) {
  Queue queue;
  std::thread maker([&] {
    for (unsigned long first = 0; work.goesOn(); first += stringsInABatch) {
      queue.put(makeBatch(first));
    }
    queue.put({});
  });
  for (Batch batch = queue.take(); !batch.texts.empty(); batch = queue.take()) {
    lookAt(work, batch);
    work.done(stringsInABatch);
  }
  maker.join();
}

}  // namespace

void passStrings(Work& work) {
  std::array<std::thread, pairs> threads;
  for (std::thread& thread : threads) {
    thread = std::thread([&work] { passBetweenTwoThreads(work); });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}
