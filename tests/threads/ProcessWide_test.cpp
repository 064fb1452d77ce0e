#include "Engine/internal/ProcessWide.h"

#include <array>
#include <atomic>
#include <thread>

#include <gtest/gtest.h>

namespace {

std::atomic<int> alive = 0;

struct Counted {
  Counted() { ++alive; }
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;
  ~Counted() { --alive; }
};

}  // namespace

TEST(ProcessWide, IsMadeByItsFirstUseAlone) {
  ProcessWide<int> number;
  EXPECT_EQ(number.present(), nullptr);
  int& first = number.get([] { return new int(7); });
  EXPECT_EQ(&number.get([] { return new int(8); }), &first);
  EXPECT_EQ(number.present(), &first);
  EXPECT_EQ(first, 7);
  delete &first;
}

TEST(ProcessWide, IsOneObjectForThreadsThatMakeItAtOnceAndNothingIsLeftOfTheOther) {
  ProcessWide<Counted> object;
  std::atomic<int> making = 0;
  std::array<Counted*, 2> got = {};
  std::array<std::thread, 2> threads;
  for (std::size_t i = 0; i < threads.size(); ++i) {
    threads[i] = std::thread([&, i] {
      got[i] = &object.get([&] {
        // Each has found none before one of them has made it.
        ++making;
        while (making < 2) {
          std::this_thread::yield();
        }
        return new Counted;
      });
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(got[0], got[1]);
  EXPECT_EQ(got[0], object.present());
  EXPECT_EQ(alive, 1);
  delete object.present();
}

TEST(ProcessWide, ThatIsUsedWhileItIsMadeIsWhatWasMadeFirst) {
  ProcessWide<Counted> object;
  const Counted* inner = nullptr;
  const Counted* const outer = &object.get([&] {
    inner = &object.get([] { return new Counted; });
    return new Counted;
  });
  EXPECT_EQ(outer, inner);
  EXPECT_EQ(alive, 1);
  delete object.present();
}
