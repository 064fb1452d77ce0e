#include <array>
#include <cstdlib>
#include <functional>
#include <memory>
#include <new>
#include <pthread.h>
#include <string>
#include <thread>

#include <gmock/gmock.h>

#include "Engine/utilities/StringPoolManager.h"
#include "Engine/utilities/UNIX/UNIX_Critical_Section.h"
#include "Engine/utilities/UNIX/UNIX_Event_Semaphore.h"
#include "Engine/utilities/UNIX/UNIX_Mutex.h"

#include "tests/support/Child.h"
#include "tests/support/Famine.h"

/// \file
/// That the suite is watched for locks which are taken in two orders: by the thread sanitizer in
/// its build, by libraries/lockOrder.cpp in the plain one. Mistakes made on purpose are told of
/// although no two threads ever wait for each other.

#if defined(CUL_LOCK_ORDER) || defined(__SANITIZE_THREAD__)

namespace {

#if defined(__SANITIZE_THREAD__)
constexpr int statusOfAFinding = 66;
constexpr const char* finding = "lock-order-inversion";
#else
constexpr int statusOfAFinding = 128 + 6;
constexpr const char* finding = "lock order: two threads could wait for each other";
#endif

ChildResult runWatched(const std::string& name) {
  ChildOptions options;
#if defined(CUL_LOCK_ORDER)
  options.environment["LD_PRELOAD"] = CUL_LOCK_ORDER;
  options.environment["CUL_LOCK_ORDER_LOG"] = "";  // what is made on purpose is not told there
#endif
  return runChild(name, options);
}

void expectAFinding(const std::string& name) {
  const ChildResult child = runWatched(name);
  EXPECT_EQ(child.status, statusOfAFinding) << child.out << child.err;
  EXPECT_THAT(child.err, testing::HasSubstr(finding));
}

void expectNoFinding(const std::string& name) {
  const ChildResult child = runWatched(name);
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

void onAThread(const std::function<void()>& body) { std::thread(body).join(); }

// Holds one while it asks for the other.
void takeBoth(CUL_Critical_Section& first, CUL_Critical_Section& second) {
  first.request("test", 1);
  second.request("test", 2);
  second.release("test", 3);
  first.release("test", 4);
}

}  // namespace

CUL_CHILD(TwoSectionsInTwoOrders) {
  UNIX_Critical_Section one;
  UNIX_Critical_Section other;
  onAThread([&] { takeBoth(one, other); });
  onAThread([&] { takeBoth(other, one); });
}

TEST(LockOrder, IsToldOfTwoCriticalSections) { expectAFinding("TwoSectionsInTwoOrders"); }

CUL_CHILD(AMutexAndASectionInTwoOrders) {
  UNIX_Mutex mutex;
  UNIX_Critical_Section section;
  onAThread([&] { takeBoth(mutex, section); });
  onAThread([&] { takeBoth(section, mutex); });
}

TEST(LockOrder, IsToldOfAMutexAndACriticalSection) {
  expectAFinding("AMutexAndASectionInTwoOrders");
}

CUL_CHILD(ThreeSectionsInACircle) {
  UNIX_Critical_Section first;
  UNIX_Critical_Section second;
  UNIX_Critical_Section third;
  onAThread([&] { takeBoth(first, second); });
  onAThread([&] { takeBoth(second, third); });
  onAThread([&] { takeBoth(third, first); });
}

TEST(LockOrder, IsToldOfACircleOfThree) { expectAFinding("ThreeSectionsInACircle"); }

CUL_CHILD(TwoSectionsInOneOrder) {
  UNIX_Critical_Section one;
  UNIX_Critical_Section other;
  for (int i = 0; i < 2; ++i) {
    onAThread([&] {
      takeBoth(one, other);
      one.request("test", 1);
      takeBoth(one, other);
      one.release("test", 2);
    });
  }
  // One after the other is no order.
  onAThread([&] {
    other.request("test", 3);
    other.release("test", 4);
    one.request("test", 5);
    one.release("test", 6);
  });
}

TEST(LockOrder, OfLocksThatAreTakenInOneIsRight) { expectNoFinding("TwoSectionsInOneOrder"); }

#if !defined(__SANITIZE_THREAD__)

namespace {

// Each has locks of its own, which are made at the same places.
struct Pair {
  Pair() : one(std::make_unique<UNIX_Critical_Section>()), other(std::make_unique<UNIX_Mutex>()) {}
  std::unique_ptr<UNIX_Critical_Section> one;
  std::unique_ptr<UNIX_Mutex> other;
};

}  // namespace

CUL_CHILD(LocksOfTwoPairsInTwoOrders) {
  std::array<std::unique_ptr<Pair>, 2> pairs;
  for (std::unique_ptr<Pair>& pair : pairs) {
    pair = std::make_unique<Pair>();
  }
  takeBoth(*pairs[0]->one, *pairs[0]->other);
  takeBoth(*pairs[1]->other, *pairs[1]->one);
}

TEST(LockOrder, IsToldOfKindsOfLocksThatNeverMeetInTwoOrders) {
  expectAFinding("LocksOfTwoPairsInTwoOrders");
}

namespace {

std::unique_ptr<Famine> famine;
bool wasHungry = false;

}  // namespace

// The string pool asks for memory under its lock, which is written down behind that of events.
CUL_CHILD(EventsUnderTheLockOfStrings) {
  StringPoolManager& pool = StringPoolManager::instance();
  famine = std::make_unique<Famine>();
  std::set_new_handler([] {
    std::set_new_handler(nullptr);
    famine = nullptr;
    wasHungry = true;
    static_cast<void>(UNIX_Event_Semaphore::timerInstance());
  });
  while (!wasHungry) {
    static_cast<void>(pool.getBuffer(64));
  }
}

TEST(LockOrder, IsToldOfWhatIsAgainstTheOrderWrittenDown) {
  expectAFinding("EventsUnderTheLockOfStrings");
}

#endif
#endif
