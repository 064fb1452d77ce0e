#include <atomic>
#include <cstdlib>
#include <dlfcn.h>
#include <string>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/UNIX/UNIX_Event_Semaphore.h"

#include "tests/support/Child.h"
#include "tests/threads/ThreadSupport.h"

namespace {

// Starts the first thread of the process, or makes its first timed wait.
void useThreads(const std::string& how) {
  if (how == "start") {
    runOnThread([] {});
  } else {
    UNIX_Event_Semaphore never;
    EXPECT_TRUE(never.wait(1, CUL_Event_Semaphore::Milliseconds, false));
  }
}

}  // namespace

// A module is being loaded, whose constructor starts a thread when another thread has got as far as
// it can.
CUL_CHILD(FirstUseBesideAModuleBeingLoaded) {
  const std::string& how = childArguments().at(0);
  static_cast<void>(StdThread::thread1());
  int said[2];
  int heard[2];
  ASSERT_EQ(pipe(said), 0);
  ASSERT_EQ(pipe(heard), 0);
  setenv("MODULE_SAYS", std::to_string(said[1]).c_str(), 1);
  setenv("MODULE_HEARS", std::to_string(heard[0]).c_str(), 1);
  std::thread loader([] {
    EXPECT_NE(dlopen(CUL_TEST_LIBRARIES "/libstartsThreadWhenTold.so", RTLD_NOW), nullptr);
  });
  char word = 0;
  ASSERT_EQ(read(said[0], &word, 1), 1);
  std::atomic<pid_t> task = 0;
  std::atomic<bool> isThrough = false;
  std::thread user([&] {
    task = gettid();
    useThreads(how);
    isThrough = true;
  });
  EXPECT_TRUE(waitUntil([&] { return isThrough || isAsleep(task); }));
  ASSERT_EQ(write(heard[1], &word, 1), 1);
  user.join();
  loader.join();
}

TEST(ModuleConstructor, CanStartAThreadWhileAnotherThreadStartsTheFirstOne) {
  const ChildResult r =
      runChild("FirstUseBesideAModuleBeingLoaded", {.arguments = {"start"}, .limitInSeconds = 30});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

TEST(ModuleConstructor, CanStartAThreadWhileAnotherThreadMakesTheFirstTimedWait) {
  const ChildResult r =
      runChild("FirstUseBesideAModuleBeingLoaded", {.arguments = {"wait"}, .limitInSeconds = 30});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}
