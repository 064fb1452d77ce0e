#include <cstddef>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>

#include "Engine/utilities/DebuggerSettings.h"
#include "Engine/utilities/DebuggerSettingsHKORV.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/SpawnedProcess.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/ThreadManager.h"
#include "Engine/utilities/UTF8Converter.h"

#include "tests/torture/Runner.h"

/// \file
/// What failing allocations and calls have brought to light, each with all that can fail on its
/// way.

namespace {

using testing::IsEmpty;
using testing::StartsWith;

// The work folder of a test.
class Mends : public testing::Test {
 protected:
 private:
  WorkFolder folder_;
};

std::vector<std::string> problemsOf(const Workload& work, Fault::Kind kind = Fault::allocation) {
  const Findings findings = torture(work, kind, {});
  EXPECT_GT(findings.failures, 0U);
  return findings.problems;
}

// One of all; fails when there is none of that name.
Workload workNamed(std::string_view name) {
  for (const Workload& work : allWorkloads()) {
    if (work.name == name) {
      return work;
    }
  }
  throw std::out_of_range("no work named " + std::string(name));
}

// Every seventh allocation of many fails, once.
void expectWellNowAndThen(const Workload& work, Start start) {
  const Outcome healthy = runOne({.work = &work, .start = start});
  EXPECT_EQ(healthy.told, "done");
  EXPECT_GT(healthy.count.allocations, 100U);
  for (unsigned i = 1; i <= healthy.count.allocations; i += 7) {
    const ::Run run = {.work = &work, .start = start, .fault = {Fault::allocation, i}};
    const Outcome outcome = runOne(run);
    EXPECT_EQ(outcome.count.failed, 1U);
    EXPECT_EQ(judge(run, outcome, healthy), "") << nameOf(run);
  }
}

// What a fresh process tells when all calls of a function fail.
Outcome withoutFunction(const Workload& work, std::string_view name) {
  Run run = {.work = &work, .outOfMemory = OutOfMemory::ends};
  const Outcome healthy = runOne(run);
  for (unsigned i = 0; i < healthy.count.calls; ++i) {
    if (fallibleCalls()[healthy.count.made[i]].name == name) {
      run.fault = {.kind = Fault::call, .first = i + 1, .forGood = true};
      Outcome outcome = runOne(run);
      EXPECT_NE(outcome.count.failed, 0U);
      EXPECT_EQ(outcome.problem, "") << outcome.output;
      return outcome;
    }
  }
  ADD_FAILURE() << name << " is not called";
  return {};
}

class Idle : public StdThread {
 public:
  explicit Idle(Termination* termination) : StdThread("idle", 0, termination) {}
  void run() override {}
};

const Workload starting = {.name = "starting a thread", .work = [] {
                             StdThread::Termination termination;
                             auto thread = std::make_unique<Idle>(&termination);
                             thread->start_thread(0);
                             static_cast<void>(thread.release());
                             termination.systemWait(0);
                           }};

}  // namespace

TEST_F(Mends, AStandardMutexDoesNotFailWhereAnotherOneHasBeenOrHasNearlyItsAddress) {
  const Workload work = {.name = "std::mutex", .work = [] {
                           constexpr std::size_t distance = std::size_t{512} * 1024;
                           const std::vector<std::byte> room(distance + 2 * sizeof(std::mutex));
                           void* place = const_cast<std::byte*>(room.data());
                           pthread_mutex_init(static_cast<pthread_mutex_t*>(place), nullptr);
                           void* const far = static_cast<std::byte*>(place) + distance;
                           const std::lock_guard nearly(*new (far) std::mutex);
                           pthread_mutex_destroy(static_cast<pthread_mutex_t*>(place));
                           const std::lock_guard same(*new (place) std::mutex);
                         }};
  const Outcome healthy = runOne({.work = &work});
  EXPECT_EQ(healthy.told, "done");
  std::vector<std::string> made;
  for (unsigned i = 0; i < healthy.count.calls; ++i) {
    made.emplace_back(fallibleCalls()[healthy.count.made[i]].name);
  }
  EXPECT_THAT(made, testing::Contains("pthread_mutex_destroy"));
  EXPECT_THAT(made, testing::Not(testing::Contains("pthread_mutex_lock")));
}

TEST_F(Mends, AProcessThatExitsWithoutMemoryKeepsItsStatus) {
  EXPECT_THAT(problemsOf({.name = "exit",
                          .work =
                              [] {
                                const std::unique_ptr<int> allocated = std::make_unique<int>(3);
                                std::exit(*allocated);
                              },
                          .ends = 3}),
              IsEmpty());
}

TEST_F(Mends, ARegistryThatCouldNotBeBuiltIsBuiltByTheNextWhoAsks) {
  expectWellNowAndThen(
      {.name = "registry",
       .work =
           [] {
             CUL_EXPECT_THAT(DebuggerSettings::instance()->getSetting(L"ASSERTION") != nullptr);
             CUL_EXPECT_THAT(DebuggerSettings::instance()->getSetting(L"PATH") != nullptr);
           },
       // Without its configuration module the process aborts.
       .mayTell = {{"ended 99", "malloc"}}},
      Start::fresh);
}

TEST_F(Mends, SettingsThatCouldNotBeMadeASecondTimeAreStillTheFormerOnes) {
  expectWellNowAndThen({.name = "settings made twice",
                        .work =
                            [] {
                              static DebuggerSettingsHKORV& settings = []() -> auto& {
                                class Settings final : public DebuggerSettingsHKORV {
                                 public:
                                  virtual ~Settings() = default;
                                };
                                auto made = std::make_unique<Settings>();
                                made->initialize();
                                return *made.release();
                              }
                              ();
                              // Deletes all former ones, each of them once.
                              settings.DebuggerSettings::initialize();
                            }},
                       Start::used);
}

TEST_F(Mends, AConsoleThatCouldNotBeMadeLeavesNoTerminalOpen) {
  EXPECT_THAT(problemsOf(workNamed("console")), IsEmpty());
}

TEST_F(Mends, AProcessThatCouldNotBeWatchedLeavesNothing) {
  const Workload work = {.name = "spawning",
                         .work =
                             [] {
                               const List<EncodedString*> arguments;
                               const EncodedString program("true", EncodedString::utf8);
                               const EncodedString path("/bin", EncodedString::utf8);
                               const SpawnedProcess process(program, path, arguments, 1, 1);
                               CUL_EXPECT_THAT(!process.wait(60));
                             },
                         .mayTell = {{"threw StdException: ", "malloc"}}};
  const Outcome healthy = runOne({.work = &work, .start = Start::used});
  ASSERT_EQ(healthy.told, "done") << healthy.problem;
  ASSERT_GT(healthy.count.allocations, 0U);
  for (unsigned i = 1; i <= healthy.count.allocations; ++i) {
    for (const bool forGood : {false, true}) {
      const ::Run run = {.work = &work,
                         .start = Start::used,
                         .threads = healthy.holds.threads,
                         .fault = {Fault::allocation, i, forGood}};
      const Outcome outcome = runOne(run);
      EXPECT_GT(outcome.count.failed, 0U) << nameOf(run);
      EXPECT_EQ(judge(run, outcome, healthy), "") << nameOf(run) << "\n" << outcome.output;
    }
  }
}

TEST_F(Mends, ATokenServesAnotherThreadWhenOneCouldNotBeMade) {
  EXPECT_THAT(problemsOf({.name = "token",
                          .work =
                              [] {
                                static StdThread::Termination termination;
                                const Idle thread(&termination);
                              }}),
              IsEmpty());
}

TEST_F(Mends, AThreadWithoutAttributesIsNotStarted) {
  EXPECT_EQ(withoutFunction(starting, "pthread_attr_init").told, "threw StdException: ");
}

TEST_F(Mends, AThreadThatARequestCouldReachTooEarlyIsNotStarted) {
  EXPECT_EQ(withoutFunction(starting, "pthread_attr_setsigmask_np").told, "threw StdException: ");
}

TEST_F(Mends, AThreadThatWouldHaveToBeJoinedByNobodyIsNotStarted) {
  const Workload work = {.name = "starting a detached thread", .work = [] {
                           auto thread = std::make_unique<Idle>(nullptr);
                           thread->start_thread(0);
                           static_cast<void>(thread.release());
                         }};
  EXPECT_EQ(withoutFunction(work, "pthread_attr_setdetachstate").told, "threw StdException: ");
}

TEST_F(Mends, AManagerWhoseEventCannotBePostedCanBeDestroyed) {
  const Workload work = {.name = "manager", .work = [] { const ThreadManager manager; }};
  EXPECT_EQ(withoutFunction(work, "pthread_cond_broadcast").told, "done");
}

TEST_F(Mends, WithoutALocaleToPutBackThePresentOneTellsTheCodePage) {
  const Workload work = {.name = "code page", .work = [] {
                           setenv("QVX_DBG_CODEPAGE", "no such code page", 1);
                           CUL_EXPECT_THAT(UTF8Converter::instance().nativeCodepage() ==
                                           std::string_view("ANSI_X3.4-1968"));
                         }};
  EXPECT_EQ(withoutFunction(work, "setlocale").told, "done");
}

TEST_F(Mends, ATraceThatAChildCannotGoOnWithLeavesNoDescriptor) {
  const Workload work = workNamed("trace of a child");
  ::Run run = {.work = &work,
               .start = Start::used,
               .outOfMemory = OutOfMemory::ends,
               .trace = Trace::stream};
  const Outcome healthy = runOne(run);
  ASSERT_EQ(healthy.told, "done") << healthy.problem;
  unsigned failures = 0;
  for (unsigned i = 0; i < healthy.count.calls; ++i) {
    if (fallibleCalls()[healthy.count.made[i]].name == std::string_view("fdopen")) {
      run.fault = {.kind = Fault::call, .first = i + 1};
      const Outcome outcome = runOne(run);
      EXPECT_EQ(judge(run, outcome, healthy), "");
      // Neither the stream nor a copy of it.
      EXPECT_EQ(outcome.holds.descriptors, healthy.holds.descriptors - 1);
      failures += outcome.count.failed;
    }
  }
  EXPECT_EQ(failures, 1U);
}
