#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <sys/time.h>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/CUL_SemaphoreError.h"
#include "Engine/utilities/RunningThreads.h"
#include "Engine/utilities/UNIX/UNIX_Event_Semaphore.h"

#include "tests/support/Child.h"
#include "tests/threads/EventSupport.h"
#include "tests/threads/FakeClock.h"
#include "tests/threads/PosixFailure.h"
#include "tests/threads/ThreadSupport.h"

namespace {

// A point in time that no timer thread gets to see.
constexpr std::uint64_t farAway = 4102444800000;  // 2100-01-01, in milliseconds

constexpr std::uint64_t usual = 1700000000000;

using Pending = std::vector<const WaitInstance*>;

// A wait that ends at a given time.
std::unique_ptr<WaitInstance> waitUntilTime(UNIX_Event_Semaphore& event, std::uint64_t deadline) {
  const StillClock clock(deadline * 1000);
  return std::make_unique<WaitInstance>(event, 0);
}

}  // namespace

TEST(MsecTime, CountsWholeMillisecondsOfTheWallClockAndTheOffset) {
  using MsecTime = UNIX_Event_Semaphore::MsecTime;
  {
    const StillClock clock(1700000001234567);
    EXPECT_EQ(MsecTime(0).milliseconds(), 1700000001234U);
    EXPECT_EQ(MsecTime(1).milliseconds(), 1700000001235U);
    EXPECT_EQ(MsecTime(0xFFFFFFFF).milliseconds(), 1700000001234U + 4294967295U);
  }
  {
    const StillClock clock(1700000001234999);
    EXPECT_EQ(MsecTime(0).milliseconds(), 1700000001234U);
  }
  {
    const StillClock clock(1700000001235000);
    EXPECT_EQ(MsecTime(0).milliseconds(), 1700000001235U);
  }
  {
    const StillClock clock(1700000002000000);
    EXPECT_EQ(MsecTime(0).milliseconds(), 1700000002000U);
  }
  timeval before = {};
  gettimeofday(&before, nullptr);
  const std::uint64_t now = MsecTime(0).milliseconds();
  timeval after = {};
  gettimeofday(&after, nullptr);
  const auto inMilliseconds = [](const timeval& time) {
    return static_cast<std::uint64_t>(time.tv_sec * 1000 + time.tv_usec / 1000);
  };
  EXPECT_LE(inMilliseconds(before), now);
  EXPECT_GE(inMilliseconds(after), now);
  EXPECT_EQ(sizeof(MsecTime), 8U);
}

TEST(MillisecondTimer, IsOneThreadOfItsOwn) {
  MillisecondTimer* const timer = UNIX_Event_Semaphore::timerInstance();
  EXPECT_EQ(UNIX_Event_Semaphore::timerInstance(), timer);
  EXPECT_EQ(timer->name(), ByteString("msecTimer"));
  EXPECT_EQ(timer->stackSize(), 131072U);
  EXPECT_NE(timer->threadId(), 0U);
  EXPECT_EQ(RunningThreads::instance().find(timer->threadId()), timer);
  pthread_attr_t attributes;
  ASSERT_EQ(pthread_getattr_np(timer->threadId(), &attributes), 0);
  int state = -1;
  pthread_attr_getdetachstate(&attributes, &state);
  pthread_attr_destroy(&attributes);
  EXPECT_EQ(state, PTHREAD_CREATE_DETACHED);
}

TEST(MillisecondTimer, CopiesItsListUnderItsLock) {
  MillisecondTimer* const timer = UNIX_Event_Semaphore::timerInstance();
  const PosixCount locks(PosixCall::mutexLock);
  List<const WaitInstance*> copy;
  timer->copyPending(copy);
  EXPECT_EQ(locks.count(), 1U);
}

CUL_CHILD(FirstCallsOfTwoThreads) {
  MillisecondTimer* others = nullptr;
  std::thread other;
  // While the first call starts the timer, there comes another.
  const PosixMoment starting(PosixCall::create, [&] {
    std::atomic<pid_t> task = 0;
    other = std::thread([&] {
      task = gettid();
      others = UNIX_Event_Semaphore::timerInstance();
    });
    waitUntilAsleep(task);
    EXPECT_EQ(others, nullptr);
  });
  MillisecondTimer* const timer = UNIX_Event_Semaphore::timerInstance();
  EXPECT_NE(timer, nullptr);
  other.join();
  EXPECT_EQ(others, timer);
}

TEST(MillisecondTimer, IsMadeOnceWhenTwoThreadsAskFirst) {
  const ChildResult child = runChild("FirstCallsOfTwoThreads");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

TEST(MillisecondTimer, ListsWaitsByTheirDeadlines) {
  UNIX_Event_Semaphore event;
  const auto at5 = waitUntilTime(event, farAway + 5);
  EXPECT_EQ(pending(), (Pending{at5.get()}));
  const auto at9 = waitUntilTime(event, farAway + 9);
  EXPECT_EQ(pending(), (Pending{at5.get(), at9.get()}));
  const auto at1 = waitUntilTime(event, farAway + 1);
  EXPECT_EQ(pending(), (Pending{at1.get(), at5.get(), at9.get()}));
  const auto at7 = waitUntilTime(event, farAway + 7);
  EXPECT_EQ(pending(), (Pending{at1.get(), at5.get(), at7.get(), at9.get()}));
  const auto at2 = waitUntilTime(event, farAway + 2);
  EXPECT_EQ(pending(), (Pending{at1.get(), at2.get(), at5.get(), at7.get(), at9.get()}));
  EXPECT_EQ(at7->deadline().milliseconds(), farAway + 7);
  EXPECT_EQ(at7->semaphore(), &event);
  EXPECT_FALSE(at7->isExpired());
}

TEST(MillisecondTimer, PutsEqualDeadlinesBehindTheLastAndBeforeThoseInTheMiddle) {
  UNIX_Event_Semaphore event;
  const auto first3 = waitUntilTime(event, farAway + 3);
  const auto second3 = waitUntilTime(event, farAway + 3);
  EXPECT_EQ(pending(), (Pending{first3.get(), second3.get()}));

  const auto first8 = waitUntilTime(event, farAway + 8);
  const auto second8 = waitUntilTime(event, farAway + 8);
  EXPECT_EQ(pending(), (Pending{first3.get(), second3.get(), first8.get(), second8.get()}));

  const auto first5 = waitUntilTime(event, farAway + 5);
  const auto second5 = waitUntilTime(event, farAway + 5);
  EXPECT_EQ(pending(), (Pending{first3.get(), second3.get(), second5.get(), first5.get(),
                                first8.get(), second8.get()}));

  // Equal to the first of the list: behind it, before the second.
  const auto third3 = waitUntilTime(event, farAway + 3);
  EXPECT_EQ(pending(), (Pending{first3.get(), third3.get(), second3.get(), second5.get(),
                                first5.get(), first8.get(), second8.get()}));
}

TEST(MillisecondTimer, AWaitThatIsAddedAgainMoves) {
  MillisecondTimer* const timer = UNIX_Event_Semaphore::timerInstance();
  UNIX_Event_Semaphore event;
  const auto first = waitUntilTime(event, farAway);
  const auto second = waitUntilTime(event, farAway);
  const auto third = waitUntilTime(event, farAway);
  timer->add(*second);
  EXPECT_EQ(pending(), (Pending{first.get(), third.get(), second.get()}));
  timer->add(*second);
  EXPECT_EQ(pending(), (Pending{first.get(), third.get(), second.get()}));
  timer->add(*first);
  EXPECT_EQ(pending(), (Pending{third.get(), second.get(), first.get()}));
}

TEST(MillisecondTimer, RemovesOneWaitAndIgnoresWhatIsNotListed) {
  MillisecondTimer* const timer = UNIX_Event_Semaphore::timerInstance();
  UNIX_Event_Semaphore event;
  const auto first = waitUntilTime(event, farAway);
  auto second = waitUntilTime(event, farAway);
  const auto third = waitUntilTime(event, farAway);
  timer->remove(*first);
  EXPECT_EQ(pending(), (Pending{second.get(), third.get()}));
  timer->remove(*first);
  EXPECT_EQ(pending(), (Pending{second.get(), third.get()}));
  second.reset();
  EXPECT_EQ(pending(), (Pending{third.get()}));
  timer->remove(*third);
  EXPECT_TRUE(pending().empty());
  timer->remove(*third);
  EXPECT_TRUE(pending().empty());
}

TEST(MillisecondTimer, AnEventTakesItsWaitsOffTheListWhenItEnds) {
  UNIX_Event_Semaphore other;
  auto event = std::make_unique<UNIX_Event_Semaphore>();
  const auto one = waitUntilTime(*event, farAway + 1);
  const auto two = waitUntilTime(other, farAway + 2);
  const auto three = waitUntilTime(*event, farAway + 3);
  const auto four = waitUntilTime(*event, farAway + 4);
  const auto five = waitUntilTime(other, farAway + 5);
  const auto six = waitUntilTime(*event, farAway + 6);
  event.reset();
  EXPECT_EQ(pending(), (Pending{two.get(), five.get()}));
  EXPECT_FALSE(one->isExpired());
}

TEST(MillisecondTimer, RemovesTheWaitsOfOneEventOnDemand) {
  MillisecondTimer* const timer = UNIX_Event_Semaphore::timerInstance();
  UNIX_Event_Semaphore other;
  UNIX_Event_Semaphore event;
  const auto one = waitUntilTime(event, farAway + 1);
  const auto two = waitUntilTime(other, farAway + 2);
  timer->remove(event);
  EXPECT_EQ(pending(), (Pending{two.get()}));
  timer->remove(event);
  EXPECT_EQ(pending(), (Pending{two.get()}));
}

TEST(MillisecondTimer, ExpiresWhatIsListedWithoutAWaiter) {
  UNIX_Event_Semaphore event;
  const WaitInstance wait(event, 20);
  EXPECT_FALSE(wait.isExpired());
  waitUntil([&wait] { return wait.isExpired(); });
  waitUntil([] { return pending().empty(); });
}

CUL_CHILD(RhythmOfTheTimer) {
  TimerInHand timer(usual);
  static_cast<void>(UNIX_Event_Semaphore::timerInstance());
  EXPECT_EQ(timer.sleep(), 10000U) << "before the first look";
  EXPECT_EQ(TimerInHand::clockReadings(), 0U);
  EXPECT_EQ(timer.look(), 50000U) << "nothing to do";
  EXPECT_EQ(timer.look(), 50000U);
  EXPECT_EQ(TimerInHand::clockReadings(), 2U) << "the clock is read once a look";

  UNIX_Event_Semaphore event;
  constexpr unsigned day = 24 * 60 * 60 * 1000;
  for (const auto& [offset, sleep] :
       std::vector<std::pair<unsigned, unsigned>>{{1, 10000},
                                                  {9, 10000},
                                                  {10, 10000},
                                                  {11, 11000},
                                                  {49, 49000},
                                                  {50, 50000},
                                                  {51, 50000},
                                                  {65535, 50000},
                                                  {65535000, 50000},
                                                  {49 * day, 50000}}) {
    const WaitInstance wait(event, offset);
    EXPECT_EQ(timer.look(), sleep) << offset;
    EXPECT_FALSE(wait.isExpired());
  }
  // A difference of more than 32 bits, as after setting the clock, loses its upper part.
  for (const auto& [offset, sleep] :
       std::vector<std::pair<std::uint64_t, unsigned>>{{0x100000000, 10000},
                                                       {0x100000005, 10000},
                                                       {0x10000001E, 30000},
                                                       {0x1000000FF, 50000}}) {
    const auto wait = waitUntilTime(event, usual + offset);
    EXPECT_EQ(timer.look(), sleep) << offset;
    EXPECT_FALSE(wait->isExpired());
  }
}

TEST(MillisecondTimer, SleepsUntilTheNextDeadlineButFromTenToFiftyMilliseconds) {
  const ChildResult child = runChild("RhythmOfTheTimer");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

CUL_CHILD(DeadlinesThatCome) {
  TimerInHand timer(usual);
  UNIX_Event_Semaphore event;
  const auto at10 = waitUntilTime(event, usual + 10);
  const auto at20 = waitUntilTime(event, usual + 20);
  const auto alsoAt20 = waitUntilTime(event, usual + 20);
  const auto at50 = waitUntilTime(event, usual + 50);
  const auto at99 = waitUntilTime(event, usual + 99);
  timer.setClock(usual + 9);
  EXPECT_EQ(timer.look(), 10000U);
  EXPECT_EQ(pending(), (Pending{at10.get(), at20.get(), alsoAt20.get(), at50.get(), at99.get()}));
  EXPECT_FALSE(at10->isExpired());

  timer.setClock(usual + 10);
  EXPECT_EQ(timer.look(), 10000U);
  EXPECT_EQ(pending(), (Pending{at20.get(), alsoAt20.get(), at50.get(), at99.get()}));
  EXPECT_TRUE(at10->isExpired());
  EXPECT_FALSE(at20->isExpired());

  timer.setClock(usual + 30);
  EXPECT_EQ(timer.look(), 20000U);
  EXPECT_EQ(pending(), (Pending{at50.get(), at99.get()}));
  EXPECT_TRUE(at20->isExpired());
  EXPECT_TRUE(alsoAt20->isExpired());
  EXPECT_FALSE(at50->isExpired());

  // A clock that is set back delays, one that is set forward hastens.
  timer.setClock(usual - 1000);
  EXPECT_EQ(timer.look(), 50000U);
  EXPECT_FALSE(at50->isExpired());
  timer.setClock(farAway);
  EXPECT_EQ(timer.look(), 50000U);
  EXPECT_TRUE(at50->isExpired());
  EXPECT_TRUE(at99->isExpired());
  EXPECT_TRUE(pending().empty());
}

TEST(MillisecondTimer, ExpiresWhatIsDueAtEachLook) {
  const ChildResult child = runChild("DeadlinesThatCome");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

CUL_CHILD(LimitsOfWaits) {
  TimerInHand timer(usual);
  static_cast<void>(UNIX_Event_Semaphore::timerInstance());
  timer.look();
  using Scale = CUL_Event_Semaphore::WaitTimeScale;
  for (const auto& [amount, scale, expected] :
       std::vector<std::tuple<unsigned short, Scale, unsigned>>{
           {0, milliseconds, 0},
           {0, seconds, 0},
           {1, milliseconds, 1},
           {1, seconds, 1000},
           {65535, milliseconds, 65535},
           {65535, seconds, 65535000},
           {65535, static_cast<Scale>(2), 65535},
           {65535, static_cast<Scale>(0xFFFFFFFF), 65535}}) {
    timer.setClock(usual);
    UNIX_Event_Semaphore event;
    Waiter waiter(event, amount, scale);
    waitUntil([] { return pending().size() == 1; });
    EXPECT_EQ(pending().at(0)->deadline().milliseconds(), usual + expected);
    EXPECT_EQ(pending().at(0)->semaphore(), &event);
    waiter.waitUntilItSleeps();
    if (expected != 0) {
      timer.setClock(usual + expected - 1);
      timer.look();
      EXPECT_EQ(pending().size(), 1U);
    }
    EXPECT_FALSE(waiter.hasEnded()) << amount << " " << scale;
    timer.setClock(usual + expected);
    timer.look();
    EXPECT_TRUE(waiter.result()) << amount << " " << scale;
    EXPECT_TRUE(pending().empty());
  }
}

TEST(UNIX_Event_Semaphore, WaitsExactlyAsLongAsTheTimerSeesFit) {
  const ChildResult child = runChild("LimitsOfWaits");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

CUL_CHILD(FiveSeconds) {
  TimerInHand timer(usual);
  static_cast<void>(UNIX_Event_Semaphore::timerInstance());
  UNIX_Event_Semaphore event;
  Waiter waiter(event, 5, seconds, true);
  waitUntil([] { return pending().size() == 1; });
  timer.setClock(usual + 4999);
  timer.look();
  waiter.waitUntilItSleeps();
  EXPECT_FALSE(waiter.hasEnded());
  timer.setClock(usual + 5000);
  timer.look();
  try {
    waiter.result();
    ADD_FAILURE() << "nothing was thrown";
  } catch (const CUL_SemaphoreError& error) {
    EXPECT_EQ(error.status, 110);
    EXPECT_EQ(error.line, 143U);
  }
}

TEST(UNIX_Event_Semaphore, FiveSecondsEndAfterFiveSecondsWithAnErrorWhenToldTo) {
  const ChildResult child = runChild("FiveSeconds");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

CUL_CHILD(PostedAndExpired) {
  TimerInHand timer(usual);
  static_cast<void>(UNIX_Event_Semaphore::timerInstance());
  UNIX_Event_Semaphore event;
  Waiter waiter(event, 100, milliseconds, true);
  waitUntil([] { return pending().size() == 1; });
  waiter.waitUntilItSleeps();
  {
    const PosixFailure nobodyWakes(PosixCall::condBroadcast, 0, 0);
    event.post();
  }
  waiter.waitUntilItSleeps();
  EXPECT_FALSE(waiter.hasEnded());
  timer.setClock(usual + 100);
  timer.look();  // wakes the waiter, who finds both flags set
  EXPECT_FALSE(waiter.result());
}

TEST(UNIX_Event_Semaphore, PostingWinsOverTheEndOfTheTime) {
  const ChildResult child = runChild("PostedAndExpired");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

CUL_CHILD(ExpiryAgainstTheEndOfAWait) {
  // The timer thread is stopped inside expire(), when the waiter could go on already.
  TimerInHand timer(usual);
  static_cast<void>(UNIX_Event_Semaphore::timerInstance());
  auto event = std::make_unique<UNIX_Event_Semaphore>();
  auto wait = std::make_unique<WaitInstance>(*event, 1);
  std::atomic<pid_t> destroyer = 0;
  std::atomic<bool> isExpiring = false;
  timer.setClock(usual + 1);
  timer.wake([&] {
    // For the rest of the thread's life.
    static const auto* const moment =
        new PosixMoment(PosixCall::condBroadcast, [&isExpiring, &destroyer] {
          isExpiring = true;
          waitUntilAsleep(destroyer);
        });
    EXPECT_NE(moment, nullptr);
  });
  waitUntil([&isExpiring] { return isExpiring.load(); });
  EXPECT_TRUE(wait->isExpired());
  destroyer = gettid();
  wait.reset();  // asleep in here until the timer is through
  event.reset();
  timer.sleep();
}

TEST(MillisecondTimer, IsThroughWithAWaitBeforeTheWaitCanEnd) {
  const ChildResult child = runChild("ExpiryAgainstTheEndOfAWait");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}
