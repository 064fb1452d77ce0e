#include "Engine/utilities/AssertionFail.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>

#include "Engine/utilities/AssertionMode.h"
#include "Engine/utilities/DebuggerSettings.h"
#include "Engine/utilities/StdException.h"
#include "Engine/utilities/StringPoolManager.h"
#include "Engine/utilities/UTF8Converter.h"

#include "tests/support/Child.h"
#include "tests/support/DeadStandardError.h"
#include "tests/trace/TraceSupport.h"

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

constexpr const char* printed =
    "\nAssertion failure - Engine/a.cpp - void f(int)(12): !pthread_mutex_lock(&_mutex)\n";
constexpr const char* traced = "**ERROR: Engine/a.cpp - void f(12): !pthread_mutex_lock(&_mutex)";

ChildResult failWith(const std::string& mode, const std::string& trace) {
  return runChild(
      "AssertionThatFails",
      childWith({{"GDIA_ID", "root"}, {"QVX_DBG_ASSERTION", mode}, {"QVX_DBG_TRACE", trace}}));
}

int modeOf(const std::string& value) {
  const ChildResult r =
      runChild("AssertionModeOnStandardOutput", childWith({{"QVX_DBG_ASSERTION", value}}));
  return std::atoi(r.out.c_str());
}

}  // namespace

// Ends with "returned" or "thrown" on standard output.
CUL_CHILD(AssertionThatFails) {
  try {
    AssertionFail(0, "Engine/a.cpp", "void f(int)", 12, "!pthread_mutex_lock(&_mutex)");
    std::printf("returned");
  } catch (const StdException& exception) {
    std::printf("thrown");
    EXPECT_EQ(exception.fileName.view(), "Engine/a.cpp - void f(int)");
    EXPECT_EQ(exception.line, 12U);
    EXPECT_EQ(exception.text.view(), "!pthread_mutex_lock(&_mutex)");
    EXPECT_EQ(exception.status, -1);
  }
}

CUL_CHILD(AssertionThatHolds) {
  AssertionFail(1, "Engine/a.cpp", "void f(int)", 12, "condition");
  AssertionFail(-1, nullptr, nullptr, 12, nullptr);
}

CUL_CHILD(AssertionModeOnStandardOutput) { std::printf("%d", assertionMode()); }

TEST(AssertionFail, DoesNothingAtAllWhenTheConditionHolds) {
  const ChildResult r =
      runChild("AssertionThatHolds", childWith({{"GDIA_ID", "root"},
                                                {"QVX_DBG_ASSERTION", "EXCEPTION,POPUP"},
                                                {"QVX_DBG_TRACE", "stdout"}}));
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "");
}

TEST(AssertionFail, OnlyTracesAndReturnsInModeZero) {
  const ChildResult r = failWith("NOEXCEPTION,NOPOPUP", ",ERROR");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.out, "returned");
  EXPECT_THAT(bodyOf(r.err), ElementsAre(traced));
}

TEST(AssertionFail, SaysNothingInModeZeroWithoutATrace) {
  const ChildResult r = failWith("", "");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "returned");
  EXPECT_EQ(r.err, "");
}

TEST(AssertionFail, ThrowsInModeOne) {
  const ChildResult r = failWith("EXCEPTION", "");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.out, "thrown");
  EXPECT_EQ(r.err, "");
}

TEST(AssertionFail, PrintsInModeTwo) {
  const ChildResult r = failWith("POPUP", "");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.out, "returned");
  EXPECT_EQ(r.err, printed);
}

TEST(AssertionFail, TracesThenPrintsThenThrowsInModeThree) {
  const ChildResult r = failWith("EXCEPTION,POPUP", ",EXCPTN");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.out, "thrown");
  EXPECT_THAT(r.err, HasSubstr(printed));
  EXPECT_THAT(
      bodyOf(r.err),
      ElementsAre(traced, "",
                  "Assertion failure - Engine/a.cpp - void f(int)(12): "
                  "!pthread_mutex_lock(&_mutex)",
                  "**EXCPTN: Engine/a.cpp - void f(12): StdException created;  Status = -1, "
                  "Text = !pthread_mutex_lock(&_mutex)"));
}

TEST(AssertionFail, TakesPercentSignsAndLongTextsAsTheyAre) {
  const ChildResult r =
      runChild("AssertionWithALongText", childWith({{"GDIA_ID", "root"},
                                                    {"QVX_DBG_ASSERTION", "POPUP"},
                                                    {"QVX_DBG_TRACE", "stdout,ERROR"}}));
  EXPECT_EQ(r.status, 0);
  const std::string text(5000, 'x');
  EXPECT_EQ(r.err, "\nAssertion failure - %s" + text + " - %d" + text + "(0): %n" + text + "\n");
  EXPECT_THAT(bodyOf(r.out), ElementsAre("**ERROR: %s" + text + " - %d" + text + ": %n" + text));
}

CUL_CHILD(AssertionWithALongText) {
  const std::string text(5000, 'x');
  AssertionFail(0, ("%s" + text).c_str(), ("%d" + text).c_str(), 0, ("%n" + text).c_str());
}

CUL_CHILD(AssertionWithNullTexts) {
  try {
    AssertionFail(0, nullptr, nullptr, 7, nullptr);
  } catch (const StdException& exception) {
    std::printf("thrown");
    EXPECT_EQ(exception.fileName.view(), " - ");
    EXPECT_EQ(exception.text.view(), "");
  }
}

TEST(AssertionFail, TakesNullTextsForEmptyOnes) {
  const ChildResult r =
      runChild("AssertionWithNullTexts", childWith({{"GDIA_ID", "root"},
                                                    {"QVX_DBG_ASSERTION", "EXCEPTION,POPUP"},
                                                    {"QVX_DBG_TRACE", ",ERROR"}}));
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.out, "thrown");
  EXPECT_THAT(r.err, HasSubstr("\nAssertion failure -  - (7): \n"));
  EXPECT_THAT(bodyOf(r.err), testing::Contains("**ERROR:  - (7): "));
}

CUL_CHILD(AssertionWithoutAReader) {
  loseReaderOfStandardError();
  errno = 4711;
  AssertionFail(0, "Engine/a.cpp", "void f(int)", 12, "condition");
  EXPECT_EQ(errno, 4711);
  std::printf("still there");
  std::fflush(stdout);
  // The caller's own writes end him as before.
  EXPECT_EQ(write(STDERR_FILENO, "x", 1), -1);
}

TEST(AssertionFail, DoesNotEndAProcessWhoseStandardErrorNobodyReads) {
  const ChildResult r =
      runChild("AssertionWithoutAReader", childWith({{"QVX_DBG_ASSERTION", "POPUP"}}));
  EXPECT_EQ(r.out, "still there");
  EXPECT_EQ(r.status, 128 + SIGPIPE);
}

CUL_CHILD(AssertionInAFullFile) {
  const FullStandardError full;
  AssertionFail(0, "Engine/a.cpp", "void f(int)", 12, "condition");
}

TEST(AssertionFail, DoesNotEndAProcessWhoseStandardErrorIsAFullFile) {
  const ChildResult r =
      runChild("AssertionInAFullFile", childWith({{"QVX_DBG_ASSERTION", "POPUP"}}));
  EXPECT_EQ(r.status, 0) << r.out;
}

CUL_CHILD(AssertionWithASignalWaiting) {
  loseReaderOfStandardError();
  sigset_t brokenPipe;
  sigemptyset(&brokenPipe);
  sigaddset(&brokenPipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &brokenPipe, nullptr);
  AssertionFail(0, "Engine/a.cpp", "void f(int)", 12, "condition");
  sigset_t pending;
  sigpending(&pending);
  EXPECT_EQ(sigismember(&pending, SIGPIPE), 0) << "not of the assertion's making";
  raise(SIGPIPE);
  AssertionFail(0, "Engine/a.cpp", "void f(int)", 12, "condition");
  sigpending(&pending);
  EXPECT_EQ(sigismember(&pending, SIGPIPE), 1) << "but the caller's stays";
  sigset_t mask;
  pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  EXPECT_EQ(sigismember(&mask, SIGPIPE), 1);
}

TEST(AssertionFail, LeavesASignalOfTheCallersWaiting) {
  const ChildResult r =
      runChild("AssertionWithASignalWaiting", childWith({{"QVX_DBG_ASSERTION", "POPUP"}}));
  EXPECT_EQ(r.status, 0) << r.out;
}

TEST(AssertionMode, IsZeroWithoutTheVariable) {
  EXPECT_EQ(runChild("AssertionModeOnStandardOutput").out, "0");
}

TEST(AssertionMode, IsMadeOfTheWordsInTheirOrder) {
  EXPECT_EQ(modeOf("EXCEPTION"), assertionThrows);
  EXPECT_EQ(modeOf("POPUP"), assertionPrints);
  EXPECT_EQ(modeOf("POPUP,EXCEPTION"), 3);
  EXPECT_EQ(modeOf("POPUP EXCEPTION"), 3);
  EXPECT_EQ(modeOf(" , POPUP ,, EXCEPTION ,"), 3);
  EXPECT_EQ(modeOf("EXCEPTION,POPUP,NOEXCEPTION"), 2);
  EXPECT_EQ(modeOf("EXCEPTION,NOPOPUP,POPUP,NOPOPUP"), 1);
  EXPECT_EQ(modeOf("NOEXCEPTION,NOPOPUP"), 0);
  EXPECT_EQ(modeOf(""), 0);
  EXPECT_EQ(modeOf(" , "), 0);
}

TEST(AssertionMode, TellsLowerCaseFromUpperCase) {
  EXPECT_EQ(modeOf("exception"), 0);
  EXPECT_EQ(modeOf("EXCEPTION,Popup"), 0);
}

TEST(AssertionMode, IsZeroWhenAnyWordIsUnknown) {
  EXPECT_EQ(modeOf("EXCEPTION,POP"), 0);
  EXPECT_EQ(modeOf("EXCEPTION,POPUPS"), 0);
  EXPECT_EQ(modeOf("ALL"), 0);
  EXPECT_EQ(modeOf("3"), 0);
  EXPECT_EQ(modeOf("EXCEPTION;POPUP"), 0);
  EXPECT_EQ(modeOf("EXCEPTION\tPOPUP"), 0);
}

CUL_CHILD(AssertionModeFollowsTheSetting) {
  DebuggerSettings::instance();
  EXPECT_EQ(assertionMode(), assertionThrows);
  setenv("QVX_DBG_ASSERTION", "POPUP", 1);
  EXPECT_EQ(assertionMode(), assertionThrows);
  DebuggerSetting* const setting = DebuggerSettings::instance()->getSetting(L"ASSERTION");
  ASSERT_NE(setting, nullptr);
  EXPECT_TRUE(setting->setValue(EncodedString(L"POPUP")));
  EXPECT_EQ(assertionMode(), assertionPrints);
  AssertionFail(0, "Engine/a.cpp", "void f(int)", 12, "!pthread_mutex_lock(&_mutex)");
  EXPECT_FALSE(setting->setValue(EncodedString(L"BEEP")));
  EXPECT_EQ(assertionMode(), assertionPrints);
  EXPECT_TRUE(setting->setValue(EncodedString(L"NOPOPUP")));
  EXPECT_EQ(assertionMode(), 0);
}

TEST(AssertionMode, FollowsTheSettingAndNotTheEnvironment) {
  const ChildResult r =
      runChild("AssertionModeFollowsTheSetting", childWith({{"QVX_DBG_ASSERTION", "EXCEPTION"}}));
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.err, printed);
}

namespace {

bool isConfigurationLoaded() {
  void* const module = dlopen("libwobnConfig.so", RTLD_LAZY | RTLD_NOLOAD);
  if (module != nullptr) {
    dlclose(module);
  }
  return module != nullptr;
}

}  // namespace

CUL_CHILD(AssertionBeforeTheRegistry) {
  EXPECT_EQ(assertionMode(), assertionPrints);
  AssertionFail(0, "Engine/a.cpp", "void f(int)", 12, "!pthread_mutex_lock(&_mutex)");
  setenv("QVX_DBG_ASSERTION", "EXCEPTION", 1);
  EXPECT_EQ(assertionMode(), assertionPrints);
  EXPECT_FALSE(isConfigurationLoaded());
  DebuggerSettings::instance();
  EXPECT_TRUE(isConfigurationLoaded());
  EXPECT_EQ(assertionMode(), assertionThrows);
}

// The module that the registry needs may be missing, and an assertion must not end the process.
TEST(AssertionMode, IsTheUsersBeforeThereIsARegistryAndLoadsNoModule) {
  const ChildResult r =
      runChild("AssertionBeforeTheRegistry", childWith({{"QVX_DBG_ASSERTION", "POPUP"}}));
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.err, printed);
}

CUL_CHILD(AssertionByDefaultBeforeTheRegistry) {
  AssertionFail(0, "Engine/a.cpp", "void f(int)", 12, "!pthread_mutex_lock(&_mutex)");
  EXPECT_EQ(assertionMode(), 0);
  EXPECT_FALSE(isConfigurationLoaded());
}

TEST(AssertionMode, LoadsNoModuleForTheDefaultEither) {
  EXPECT_EQ(runChild("AssertionByDefaultBeforeTheRegistry").status, 0);
  EXPECT_EQ(
      runChild("AssertionByDefaultBeforeTheRegistry", childWith({{"QVX_DBG_ASSERTION", "POPUPS"}}))
          .status,
      0);
}

CUL_CHILD(AssertionsOfManyThreadsBeforeTheRegistry) {
  // Their first use belongs before a second thread exists.
  StringPoolManager::instance();
  UTF8Converter::instance();
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([] { EXPECT_EQ(assertionMode(), assertionPrints); });
  }
  DebuggerSettings::instance();
  EXPECT_EQ(assertionMode(), assertionPrints);
  for (std::thread& thread : threads) {
    thread.join();
  }
}

TEST(AssertionMode, IsTheUsersOnEachThreadWhileTheRegistryIsBuilt) {
  const ChildResult r = runChild("AssertionsOfManyThreadsBeforeTheRegistry",
                                 childWith({{"QVX_DBG_ASSERTION", "POPUP"}}));
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}
