#include "tests/schedules/Schedules.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

constexpr unsigned secondsOfASchedule = 60;

const char* wish(const char* variable) {
  const char* const value = std::getenv(variable);
  return value != nullptr && *value != '\0' ? value : nullptr;
}

std::string testName() {
  const testing::TestInfo* const test = testing::UnitTest::GetInstance()->current_test_info();
  return test != nullptr ? std::string(test->test_suite_name()) + "." + test->name() : "?";
}

std::string howToRepeat(std::uint64_t seed) {
  return "script/schedules --seed " + std::to_string(seed) + " '" + testName() + "'";
}

// What is told when a schedule does not come to its end.
char lastWords[512];

void tellAndAbort(int /*signal*/) {
  const ssize_t n = write(STDERR_FILENO, lastWords, std::strlen(lastWords));
  static_cast<void>(n);
  std::signal(SIGABRT, SIG_DFL);
  std::abort();
}

// Ends the process when it lives too long. By a signal of its own: a thread would be one more to
// count.
class Limit {
 public:
  explicit Limit(std::uint64_t seed) {
    std::snprintf(lastWords, sizeof lastWords,
                  "This schedule does not come to its end; again with %s\n",
                  howToRepeat(seed).c_str());
    struct sigaction action = {};
    action.sa_handler = tellAndAbort;
    sigaction(SIGRTMAX, &action, nullptr);
    sigevent event = {};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGRTMAX;
    timer_create(CLOCK_MONOTONIC, &event, &timer_);
    const itimerspec time = {{0, 0}, {secondsOfASchedule, 0}};
    timer_settime(timer_, 0, &time, nullptr);
  }
  Limit(const Limit&) = delete;
  Limit& operator=(const Limit&) = delete;
  ~Limit() { timer_delete(timer_); }

 private:
  timer_t timer_ = {};
};

void run(unsigned count, const std::function<void(const Schedule&)>& scenario, bool waitsHere) {
  const char* const firstSeed = wish("CUL_SCHEDULES_SEED");
  const char* const seconds = wish("CUL_SCHEDULES_SECONDS");
  std::uint64_t seed = firstSeed != nullptr ? std::strtoull(firstSeed, nullptr, 10) : 1;
  const auto begin = std::chrono::steady_clock::now();
  const auto goesOn = [&](unsigned done) {
    return seconds == nullptr ? done < count
                              : std::chrono::steady_clock::now() - begin <
                                    std::chrono::seconds(std::strtoul(seconds, nullptr, 10));
  };
  const Waits::Counts before = Waits::counts();
  unsigned done = 0;
  do {
    const Limit limit(seed);
    {
      SCOPED_TRACE("again with " + howToRepeat(seed));
      const std::unique_ptr<Waits> waits = waitsHere ? std::make_unique<Waits>(seed) : nullptr;
      scenario(Schedule(seed));
    }
    ++done;
    // A seed that was asked for alone is tried again.
    seed += firstSeed != nullptr && seconds == nullptr ? 0 : 1;
  } while (!testing::Test::HasFailure() && goesOn(done));
  const Waits::Counts after = Waits::counts();
  testing::Test::RecordProperty("schedules", static_cast<int>(done));
  if (seconds != nullptr || firstSeed != nullptr) {
    std::printf("%s: %u schedules, %llu calls, %llu waits\n", testName().c_str(), done,
                static_cast<unsigned long long>(after.calls - before.calls),
                static_cast<unsigned long long>(after.waits - before.waits));
  }
}

}  // namespace

unsigned Chance::below(unsigned n) noexcept {
  // As splitmix64 does.
  state_ += 0x9E3779B97F4A7C15U;
  std::uint64_t x = state_;
  x = (x ^ (x >> 30U)) * 0xBF58476D1CE4E5B9U;
  x = (x ^ (x >> 27U)) * 0x94D049BB133111EBU;
  return static_cast<unsigned>((x ^ (x >> 31U)) % n);
}

Chance Schedule::chance(unsigned thread) const noexcept { return Chance(seed_ * 1009 + thread); }

void Schedule::onThreads(unsigned count, const std::function<void(unsigned)>& body) const {
  std::vector<std::thread> threads;
  for (unsigned number = 1; number <= count; ++number) {
    threads.emplace_back([&body, number] {
      Waits::numberThread(number);
      body(number);
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

void underSchedules(unsigned count, const std::function<void(const Schedule&)>& scenario) {
  run(count, scenario, true);
}

void underSchedulesOfChildren(unsigned count,
                              const std::function<void(const Schedule&)>& scenario) {
  run(count, scenario, false);
}
