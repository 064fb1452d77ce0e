#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "tests/schedules/Waits.h"
#include "tests/support/Child.h"

/// \file
/// Runs a scenario of threads under many schedules.
///
/// A schedule has a seed, which decides what the scenario's threads do and when they wait (see
/// Waits.h). Without further wishes the seeds are 1, 2 and so on, the same in each run of the
/// suite. Two variables of the environment, which script/schedules sets, say otherwise:
/// - CUL_SCHEDULES_SEED is the first seed, and alone the only one, of all schedules;
/// - CUL_SCHEDULES_SECONDS has each test go on with further seeds for that long.
/// When a schedule fails, or does not come to its end within two minutes, its seed is told and the
/// test ends.

/// Numbers by chance, the same for the same seed. For one thread.
class Chance {
 public:
  explicit Chance(std::uint64_t seed) noexcept : state_(seed) {}

  /// 0 to `n` - 1.
  unsigned below(unsigned n) noexcept;

  /// True once in `n` times.
  bool oneIn(unsigned n) noexcept { return below(n) == 0; }

 private:
  std::uint64_t state_;
};

/// What a scenario is told of the schedule that it runs under.
class Schedule {
 public:
  explicit Schedule(std::uint64_t seed) noexcept : seed_(seed) {}

  [[nodiscard]] std::uint64_t seed() const noexcept { return seed_; }

  /// The choices of one of the scenario's threads; those of the scenario itself have number 0.
  [[nodiscard]] Chance chance(unsigned thread = 0) const noexcept;

  /// Runs `body`, given the thread's number from 1, on as many threads and waits for their end.
  void onThreads(unsigned count, const std::function<void(unsigned)>& body) const;

 private:
  std::uint64_t seed_;
};

/// Runs `scenario` under `count` schedules, or for as long as was wished for.
void underSchedules(unsigned count, const std::function<void(const Schedule&)>& scenario);

/// The same for scenarios that run a child process with runUnder().
void underSchedulesOfChildren(unsigned count, const std::function<void(const Schedule&)>& scenario);

/// Runs the child case `name`, whose first argument is the schedule's seed, and expects that it
/// ends well.
void runUnder(const Schedule& schedule, const std::string& name, ChildOptions options = {});

/// In such a child case: the schedule, and its waits until the end of the scope.
class ScheduleOfChild : public Schedule {
 public:
  ScheduleOfChild();
  ScheduleOfChild(const ScheduleOfChild&) = delete;
  ScheduleOfChild& operator=(const ScheduleOfChild&) = delete;
  ~ScheduleOfChild();

 private:
  Waits waits_;
};
