#include "tests/schedules/Schedules.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
#include <sanitizer/common_interface_defs.h>
#endif

#include "tests/schedules/Seeds.h"

namespace {

constexpr unsigned secondsOfASchedule = 120;
constexpr const char* countsOfChild = "calls and waits: ";

unsigned long long callsOfChildren = 0;
unsigned long long waitsOfChildren = 0;

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

void say(const char* text) {
  const ssize_t n = write(STDERR_FILENO, text, std::strlen(text));
  static_cast<void>(n);
}

void tellAndAbort(int /*signal*/) {
  say("does not come to its end: ");
  say(lastWords);
  std::signal(SIGABRT, SIG_DFL);
  std::abort();
}

// Also when it ends the process.
void tellAtEnd() {
  if (lastWords[0] != '\0') {
    say("ends the process: ");
    say(lastWords);
  }
}

bool registerAtEnd() {
  std::atexit(tellAtEnd);
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
  __sanitizer_set_death_callback(tellAtEnd);
#endif
  return true;
}

// Ends the process when it lives too long. By a signal of its own: a thread would be one more to
// count.
class Limit {
 public:
  explicit Limit(std::uint64_t seed) {
    static const bool isRegistered = registerAtEnd();
    static_cast<void>(isRegistered);
    std::snprintf(lastWords, sizeof lastWords, "%s\n", howToRepeat(seed).c_str());
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
  ~Limit() {
    timer_delete(timer_);
    lastWords[0] = '\0';
  }

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
  callsOfChildren = 0;
  waitsOfChildren = 0;
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
                callsOfChildren + after.calls - before.calls,
                waitsOfChildren + after.waits - before.waits);
  }
}

}  // namespace

unsigned Chance::below(unsigned n) noexcept {
  const std::uint64_t number = mixed(state_);
  state_ += stepOfSeeds;
  return static_cast<unsigned>(number % n);
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

void runUnder(const Schedule& schedule, const std::string& name, ChildOptions options) {
  options.arguments.insert(options.arguments.begin(), std::to_string(schedule.seed()));
  const ChildResult child = runChild(name, options);
  EXPECT_EQ(child.status, 0) << child.out << child.err;
  const std::size_t counts = child.out.rfind(countsOfChild);
  ASSERT_NE(counts, std::string::npos) << child.out;
  unsigned long long calls = 0;
  unsigned long long waits = 0;
  ASSERT_EQ(std::sscanf(child.out.c_str() + counts + std::strlen(countsOfChild), "%llu %llu",
                        &calls, &waits),
            2);
  callsOfChildren += calls;
  waitsOfChildren += waits;
}

ScheduleOfChild::ScheduleOfChild()
    : Schedule(std::strtoull(childArguments().at(0).c_str(), nullptr, 10)), waits_(seed()) {}

ScheduleOfChild::~ScheduleOfChild() {
  const Waits::Counts counts = Waits::counts();
  std::printf("%s%llu %llu\n", countsOfChild, static_cast<unsigned long long>(counts.calls),
              static_cast<unsigned long long>(counts.waits));
}
