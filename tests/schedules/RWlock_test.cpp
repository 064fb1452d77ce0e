#include "Engine/utilities/RWlock.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/schedules/Schedules.h"

/// \file
/// Every look that a thread takes at an RWlock, in the order in which they are taken, against the
/// rules told in the fewest words.

namespace {

using Step = MutexSteps::Step;

enum class Call { read, write, release, holdsRead, holdsAny, holdsWrite };

// What a thread did while it had the lock's mutex.
struct Look {
  unsigned thread;
  Call call;
  Step step;
};

constinit thread_local unsigned ownNumber = 0;
constinit thread_local Call ownCall = Call::read;

// The log. Each look is entered with the lock's mutex held.
class Looks : public MutexSteps {
 public:
  // Where the two lie in an RWlock: docs/contract.md.
  explicit Looks(const RWlock& lock)
      : MutexSteps(reinterpret_cast<const char*>(&lock) + 40,
                   reinterpret_cast<const char*>(&lock) + 80) {
    all.reserve(4096);
  }
  void take(Step step) noexcept override { all.push_back({ownNumber, ownCall, step}); }

  std::vector<Look> all;
};

// The rules.
class Model {
 public:
  explicit Model(RWlockBase::Priority priority) : priority_(priority) {}

  bool mayRead(unsigned thread) const {
    if (holds_.contains(thread)) {
      return true;
    }
    const bool othersWrite = std::any_of(
        holds_.begin(), holds_.end(), [](const auto& holder) { return holder.second.writes != 0; });
    return !othersWrite && !(priority_ == RWlockBase::WriterPriority && writersInside != 0);
  }

  // `writersInside` does not matter, `readersInside` is that of the others.
  bool mayWrite(unsigned thread) const {
    const bool readersWait = priority_ == RWlockBase::ReaderPriority && readersInside != 0;
    if (isOnlyHolder(thread)) {
      return holds_.at(thread).writes != 0 || !readersWait;
    }
    return holds_.empty() && !readersWait;
  }

  void read(unsigned thread) {
    Holds& own = holds_[thread];
    own.writes != 0 ? ++own.writes : ++own.reads;
  }

  void write(unsigned thread) { ++holds_[thread].writes; }

  // Whether the others are to be woken.
  bool release(unsigned thread) {
    const auto own = holds_.find(thread);
    if (own == holds_.end()) {
      return false;
    }
    unsigned& count = own->second.writes != 0 ? own->second.writes : own->second.reads;
    const bool hasEnded = --count == 0;
    if (own->second.writes == 0 && own->second.reads == 0) {
      holds_.erase(own);
    }
    return hasEnded;
  }

  bool isOnlyHolder(unsigned thread) const { return holds_.size() == 1 && holds_.contains(thread); }
  bool isHolder(unsigned thread) const { return holds_.contains(thread); }
  bool isReader(unsigned thread) const {
    return holds_.contains(thread) && holds_.at(thread).reads != 0 && holds_.at(thread).writes == 0;
  }
  bool isFree() const { return holds_.empty(); }

  unsigned readersInside = 0;
  unsigned writersInside = 0;

 private:
  struct Holds {
    unsigned reads = 0;
    unsigned writes = 0;
  };

  RWlockBase::Priority priority_;
  std::map<unsigned, Holds> holds_;
};

// What one thread did from call to call, and what it was told.
struct Told {
  Call call;
  bool answer;
};

class Scenario {
 public:
  Scenario(const Schedule& schedule, RWlockBase::Priority priority)
      : schedule_(schedule), priority_(priority), lock_(priority), looks_(lock_) {}

  void run() {
    const unsigned threads = 2 + schedule_.chance().below(4);
    told_.resize(threads + 1);
    schedule_.onThreads(threads, [this](unsigned thread) { work(thread); });
    compare();
  }

  std::size_t looks() const { return looks_.all.size(); }

 private:
  static constexpr unsigned deepest = 4;

  bool call(Call call) {
    ownCall = call;
    bool answer = false;
    switch (call) {
      case Call::read:
        lock_.requestRead();
        break;
      case Call::write:
        lock_.requestWrite();
        break;
      case Call::release:
        lock_.release();
        break;
      case Call::holdsRead:
        answer = lock_.holdsReadLock();
        break;
      case Call::holdsAny:
        answer = lock_.holdsAnyLock();
        break;
      case Call::holdsWrite:
        answer = lock_.holdsWriteLock();
        break;
    }
    told_[ownNumber].push_back({call, answer});
    return answer;
  }

  // Two readers that both want to write would wait for each other for ever: of those that hold the
  // lock for reading, one at a time asks for more.
  void work(unsigned thread) {
    ownNumber = thread;
    Chance chance = schedule_.chance(thread);
    unsigned reads = 0;
    unsigned writes = 0;
    bool upgrades = false;
    for (unsigned i = 0; i < 40; ++i) {
      const unsigned choice = chance.below(10);
      const bool canAsk = reads + writes < deepest;
      if (choice < 3 && canAsk) {
        call(Call::read);
        writes != 0 ? ++writes : ++reads;
      } else if (choice < 5 && canAsk) {
        if (reads != 0 && writes == 0 && !upgrades) {
          upgrades = !someoneUpgrades_.exchange(true);
        }
        if (reads == 0 || upgrades) {
          call(Call::write);
          checkThatNobodyElseIsThere(writes == 0);
          ++writes;
        }
      } else if (choice < 7) {
        static constexpr Call questions[] = {Call::holdsRead, Call::holdsAny, Call::holdsWrite};
        call(questions[chance.below(3)]);
      } else {
        if (writes == 1) {
          writers_.fetch_sub(1);
        }
        call(Call::release);
        writes != 0 ? --writes : reads -= reads != 0 ? 1 : 0;
        if (reads + writes == 0 && upgrades) {
          upgrades = false;
          someoneUpgrades_ = false;
        }
      }
    }
    for (; reads + writes != 0; writes != 0 ? --writes : --reads) {
      if (writes == 1) {
        writers_.fetch_sub(1);
      }
      call(Call::release);
    }
    if (upgrades) {
      someoneUpgrades_ = false;
    }
  }

  void checkThatNobodyElseIsThere(bool isFirst) {
    if (isFirst) {
      EXPECT_EQ(writers_.fetch_add(1), 0U) << "two threads write";
    }
  }

  void compare() {
    Model model(priority_);
    std::vector<bool> isInside(told_.size(), false);
    std::vector<bool> hasWoken(told_.size(), false);
    std::vector<std::size_t> calls(told_.size(), 0);
    for (std::size_t i = 0; i < looks_.all.size(); ++i) {
      const Look& look = looks_.all[i];
      SCOPED_TRACE("look " + std::to_string(i) + " by thread " + std::to_string(look.thread));
      const bool leaves = look.step == Step::unlocks;
      if (look.step == Step::broadcasts) {
        hasWoken[look.thread] = true;
        continue;
      }
      ASSERT_LT(calls[look.thread], told_[look.thread].size());
      const Told& told = told_[look.thread][calls[look.thread]];
      ASSERT_EQ(told.call, look.call);
      switch (look.call) {
        case Call::read:
        case Call::write: {
          const bool reads = look.call == Call::read;
          unsigned& inside = reads ? model.readersInside : model.writersInside;
          inside -= isInside[look.thread] ? 1 : 0;
          const bool mayEnter = reads ? model.mayRead(look.thread) : model.mayWrite(look.thread);
          ASSERT_EQ(leaves, mayEnter) << (reads ? "reads" : "writes");
          if (mayEnter) {
            reads ? model.read(look.thread) : model.write(look.thread);
          }
          isInside[look.thread] = !mayEnter;
          inside += mayEnter ? 0 : 1;
          ASSERT_FALSE(hasWoken[look.thread]);
          break;
        }
        case Call::release:
          ASSERT_TRUE(leaves);
          ASSERT_EQ(hasWoken[look.thread], model.release(look.thread));
          hasWoken[look.thread] = false;
          break;
        case Call::holdsRead:
          ASSERT_EQ(told.answer, model.isReader(look.thread));
          break;
        case Call::holdsAny:
          ASSERT_EQ(told.answer, model.isHolder(look.thread));
          break;
        case Call::holdsWrite:
          ASSERT_EQ(told.answer, model.isOnlyHolder(look.thread));
          break;
      }
      calls[look.thread] += leaves ? 1 : 0;
    }
    EXPECT_TRUE(model.isFree());
    EXPECT_EQ(lock_.readersWaiting(), 0);
    EXPECT_EQ(lock_.writersWaiting(), 0);
    for (std::size_t thread = 0; thread < told_.size(); ++thread) {
      EXPECT_EQ(calls[thread], told_[thread].size()) << "looks are missing";
    }
  }

  const Schedule& schedule_;
  RWlockBase::Priority priority_;
  RWlock lock_;
  Looks looks_;
  std::atomic<bool> someoneUpgrades_ = false;
  std::atomic<unsigned> writers_ = 0;
  std::vector<std::vector<Told>> told_;
};

void compareWithTheRules(RWlockBase::Priority priority) {
  std::size_t looks = 0;
  underSchedules(60, [priority, &looks](const Schedule& schedule) {
    Scenario scenario(schedule, priority);
    scenario.run();
    looks += scenario.looks();
  });
  EXPECT_NE(looks, 0U);
}

}  // namespace

TEST(ScheduledRWlock, FollowsItsRulesAtEveryLookWithoutAPreference) {
  compareWithTheRules(RWlockBase::NoPriority);
}

TEST(ScheduledRWlock, FollowsItsRulesAtEveryLookWhenReadersArePreferred) {
  compareWithTheRules(RWlockBase::ReaderPriority);
}

TEST(ScheduledRWlock, FollowsItsRulesAtEveryLookWhenWritersArePreferred) {
  compareWithTheRules(RWlockBase::WriterPriority);
}
