#include "Engine/utilities/Reference.h"

#include <array>
#include <atomic>
#include <memory>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/ReferenceCounted.h"
#include "Engine/utilities/Runnable.h"
#include "Engine/utilities/ThreadListener.h"

#include "tests/schedules/Schedules.h"
#include "tests/support/WaitUntil.h"

namespace {

// Knows whether it is still there, and counts how many are.
class Counted : public ReferenceCounted {
 public:
  Counted() { ++alive; }
  ~Counted() override {
    EXPECT_EQ(std::exchange(mark_, 0U), whole) << "deleted twice";
    --alive;
  }
  bool isWhole() const { return mark_ == whole; }

  inline static std::atomic<int> alive = 0;

 private:
  static constexpr unsigned whole = 0xC0FFEE;
  unsigned mark_ = whole;
};

// What nobody runs.
class Idle final : public Runnable {
 public:
  virtual ~Idle() = default;
  int work() override {
    ++runs;
    return 5;
  }
  std::atomic<int> runs = 0;
};

class CountedListener : public ThreadListener {
 public:
  explicit CountedListener(Runnable& runnable) : ThreadListener(runnable) { ++alive; }
  ~CountedListener() override { --alive; }

  inline static std::atomic<int> alive = 0;
};

}  // namespace

TEST(ScheduledReference, DeletesTheObjectOnceAndAfterItsLastReference) {
  underSchedules(40, [](const Schedule& schedule) {
    constexpr unsigned objects = 4;
    const unsigned threads = 2 + schedule.chance().below(4);
    // Each thread begins with references of its own, which are the only ones from then on.
    std::vector<std::vector<Reference<Counted>>> owned(threads + 1);
    for (unsigned i = 0; i < objects; ++i) {
      const Reference<Counted> made(new Counted);
      for (unsigned thread = 1; thread <= threads; ++thread) {
        owned[thread].push_back(made);
      }
    }
    EXPECT_EQ(Counted::alive, static_cast<int>(objects));
    std::array<std::atomic<Reference<Counted>*>, 4> places = {};
    schedule.onThreads(threads, [&](unsigned thread) {
      Chance chance = schedule.chance(thread);
      std::vector<Reference<Counted>> own = std::move(owned[thread]);
      for (unsigned i = 0; i < 80; ++i) {
        Reference<Counted>& one = own[chance.below(objects)];
        switch (chance.below(5)) {
          case 0:
            one = own[chance.below(objects)];
            break;
          case 1: {
            Reference<Counted> other = one;
            one = std::move(other);
            break;
          }
          case 2:
            if (chance.oneIn(8)) {
              one = Reference<Counted>();
            }
            break;
          default: {
            const std::unique_ptr<Reference<Counted>> other(places[chance.below(4)].exchange(
                std::make_unique<Reference<Counted>>(one).release(), std::memory_order_acq_rel));
            if (other != nullptr) {
              one = *other;
            }
          }
        }
        if (one) {
          EXPECT_TRUE(one->isWhole());
          EXPECT_GE(one->referenceCount(), 1U);
        }
      }
    });
    for (auto& place : places) {
      delete place.exchange(nullptr);
    }
    EXPECT_EQ(Counted::alive, 0);
  });
}

TEST(ScheduledReference, ToAListenerLeavesItsWorkerToWhoeverStartsIt) {
  underSchedules(10, [](const Schedule& schedule) {
    Idle idle;
    const unsigned threads = 2 + schedule.chance().below(3);
    std::vector<Reference<ThreadListener>> owned(threads + 1);
    {
      const Reference<ThreadListener> listener(new CountedListener(idle));
      for (unsigned thread = 1; thread <= threads; ++thread) {
        owned[thread] = listener;
      }
    }
    schedule.onThreads(threads, [&](unsigned thread) {
      Reference<ThreadListener> own = std::move(owned[thread]);
      if (thread == 1) {
        EXPECT_NE(own->start(), 0U);
      }
    });
    EXPECT_TRUE(waitUntil([] { return CountedListener::alive == 0; }));
    EXPECT_EQ(idle.runs, 1);
  });
}

TEST(ScheduledReference, ToAListenerThatNobodyStartedTakesItsWorkerAlong) {
  underSchedules(60, [](const Schedule& schedule) {
    Idle idle;
    const unsigned threads = 2 + schedule.chance().below(3);
    std::vector<Reference<ThreadListener>> owned(threads + 1);
    {
      const Reference<ThreadListener> listener(new CountedListener(idle));
      for (unsigned thread = 1; thread <= threads; ++thread) {
        owned[thread] = listener;
      }
    }
    schedule.onThreads(threads, [&](unsigned thread) {
      Chance chance = schedule.chance(thread);
      Reference<ThreadListener> own = std::move(owned[thread]);
      for (unsigned i = chance.below(4); i != 0; --i) {
        const Reference<ThreadListener> copy = own;
        EXPECT_EQ(copy->result(), 0);
      }
    });
    EXPECT_EQ(CountedListener::alive, 0);
    EXPECT_EQ(idle.runs, 0);
  });
}
