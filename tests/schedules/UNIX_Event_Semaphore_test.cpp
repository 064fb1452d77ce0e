#include "Engine/utilities/UNIX/UNIX_Event_Semaphore.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/CUL_SemaphoreError.h"

#include "tests/schedules/Schedules.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto milliseconds = CUL_Event_Semaphore::Milliseconds;

// What the timer still has listed.
unsigned listedWaits() {
  List<const UNIX_Event_Semaphore::WaitInstance*> listed;
  UNIX_Event_Semaphore::timerInstance()->copyPending(listed);
  return listed.count();
}

// Waits with or without a limit that is far away; what the threads have in common is that they
// pass when the event opens.
void passThrough(UNIX_Event_Semaphore& event, Chance& chance) {
  if (chance.oneIn(3)) {
    EXPECT_FALSE(event.wait(60000, milliseconds, chance.oneIn(2)));
  } else {
    event.wait();
  }
}

}  // namespace

TEST(ScheduledEvent, LetsEveryWaiterPassAndShowsWhatWasWrittenBeforeIt) {
  underSchedules(40, [](const Schedule& schedule) {
    constexpr unsigned rounds = 6;
    const unsigned waiters = 1 + schedule.chance().below(4);
    std::array<UNIX_Event_Semaphore, rounds> events;
    std::array<unsigned, rounds> written = {};  // by one thread, without any care
    std::atomic<unsigned> passed = 0;
    schedule.onThreads(waiters + 1, [&](unsigned thread) {
      Chance chance = schedule.chance(thread);
      for (unsigned round = 0; round < rounds; ++round) {
        if (thread == 1) {
          written[round] = round + 7;
          events[round].post();
        } else {
          passThrough(events[round], chance);
          EXPECT_EQ(written[round], round + 7);
          ++passed;
        }
      }
    });
    EXPECT_EQ(passed, waiters * rounds);
    EXPECT_EQ(listedWaits(), 0U);
  });
}

TEST(ScheduledEvent, IsClosedAndOpenedAgainWithoutLosingAWaiter) {
  underSchedules(40, [](const Schedule& schedule) {
    constexpr unsigned rounds = 8;
    const unsigned waiters = 1 + schedule.chance().below(4);
    // One thread opens `go` for all others, who open `done` when the last of them has passed.
    UNIX_Event_Semaphore go[2];
    UNIX_Event_Semaphore done;
    std::atomic<unsigned> passed = 0;
    schedule.onThreads(waiters + 1, [&](unsigned thread) {
      Chance chance = schedule.chance(thread);
      for (unsigned round = 0; round < rounds; ++round) {
        if (thread == 1) {
          go[round % 2].post();
          passThrough(done, chance);
          EXPECT_EQ(passed.exchange(0), waiters);
          done.reset();
          go[round % 2].reset();
        } else {
          // The other of the two is closed until all have passed this one.
          passThrough(go[round % 2], chance);
          if (++passed == waiters) {
            done.post();
          }
        }
      }
    });
  });
}

namespace {

// The memory of an event, which nobody writes to any more when the event has gone.
class Storage {
 public:
  UNIX_Event_Semaphore* make() { return new (bytes_) UNIX_Event_Semaphore; }

  void destroy(UNIX_Event_Semaphore* event) {
    event->~UNIX_Event_Semaphore();
    std::memset(bytes_, gone, sizeof bytes_);
  }

  bool isUntouched() const {
    return std::all_of(std::begin(bytes_), std::end(bytes_),
                       [](unsigned char byte) { return byte == gone; });
  }

 private:
  static constexpr unsigned char gone = 0xA5;
  alignas(UNIX_Event_Semaphore) unsigned char bytes_[sizeof(UNIX_Event_Semaphore)];
};

}  // namespace

TEST(ScheduledEvent, MayBeDestroyedByWhoeverHasSeenItOpen) {
  underSchedules(40, [](const Schedule& schedule) {
    constexpr unsigned events = 20;
    std::array<Storage, events> storage;
    std::array<std::atomic<UNIX_Event_Semaphore*>, events> made = {};
    schedule.onThreads(2, [&](unsigned thread) {
      Chance chance = schedule.chance(thread);
      for (unsigned i = 0; i < events; ++i) {
        if (thread == 1) {
          UNIX_Event_Semaphore* const event = storage[i].make();
          made[i].store(event, std::memory_order_release);
          event->post();
        } else {
          UNIX_Event_Semaphore* event = nullptr;
          while ((event = made[i].load(std::memory_order_acquire)) == nullptr) {
            std::this_thread::yield();
          }
          if (chance.oneIn(2)) {
            passThrough(*event, chance);
          } else {
            // Without a lock.
            while (event->wait(0, milliseconds, false)) {
            }
          }
          storage[i].destroy(event);
        }
      }
    });
    EXPECT_TRUE(std::all_of(storage.begin(), storage.end(),
                            [](const Storage& each) { return each.isUntouched(); }));
    EXPECT_EQ(listedWaits(), 0U);
  });
}

TEST(ScheduledEvent, EndsTimedWaitsNotBeforeTheirTimeAndNeverWithoutCause) {
  underSchedules(8, [](const Schedule& schedule) {
    const unsigned waiters = 2 + schedule.chance().below(4);
    UNIX_Event_Semaphore event;
    std::atomic<bool> isPosted = false;
    schedule.onThreads(waiters + 1, [&](unsigned thread) {
      Chance chance = schedule.chance(thread);
      if (thread == 1) {
        event.wait(static_cast<unsigned short>(chance.below(40)), milliseconds, false);
        isPosted = true;
        event.post();
        return;
      }
      for (unsigned i = 0; i < 3; ++i) {
        const auto amount = static_cast<unsigned short>(chance.below(40));
        const bool throws = chance.oneIn(2);
        const Clock::time_point begin = Clock::now();
        bool timeRanOut = false;
        try {
          timeRanOut = event.wait(amount, milliseconds, throws);
        } catch (const CUL_SemaphoreError& error) {
          EXPECT_TRUE(throws);
          EXPECT_EQ(error.status, 110);
          timeRanOut = true;
        }
        if (timeRanOut) {
          // The clock of the waits counts whole milliseconds.
          EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(amount - 1));
        } else {
          EXPECT_TRUE(isPosted);
        }
      }
    });
    EXPECT_EQ(listedWaits(), 0U);
  });
}

TEST(ScheduledEvent, TakesWaitsOfOthersOffTheListWhileTheTimerExpiresThem) {
  underSchedules(8, [](const Schedule& schedule) {
    const unsigned threads = 2 + schedule.chance().below(4);
    schedule.onThreads(threads, [&](unsigned thread) {
      Chance chance = schedule.chance(thread);
      for (unsigned i = 0; i < 10; ++i) {
        // Listed by hand: who goes first, the wait or the event, is left to chance.
        auto event = std::make_unique<UNIX_Event_Semaphore>();
        const auto wait =
            std::make_unique<UNIX_Event_Semaphore::WaitInstance>(*event, chance.below(25));
        if (chance.oneIn(2)) {
          while (!wait->isExpired()) {
            std::this_thread::yield();
          }
        } else if (chance.oneIn(2)) {
          event.reset();  // before its wait
        }
      }
    });
    EXPECT_EQ(listedWaits(), 0U);
  });
}
