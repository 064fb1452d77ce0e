#include <array>
#include <atomic>
#include <cstddef>
#include <iterator>
#include <thread>

#include <gtest/gtest.h>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/DebuggerConfiguration.h"
#include "Engine/utilities/DebuggerParameters.h"
#include "Engine/utilities/DebuggerSettings.h"
#include "Engine/utilities/EBCDICtableStore.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/Engine_Loader.h"
#include "Engine/utilities/FileName.h"
#include "Engine/utilities/InstallPath.h"
#include "Engine/utilities/OpenFiles.h"
#include "Engine/utilities/RunningThreads.h"
#include "Engine/utilities/SettingNames.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/StdioPipes.h"
#include "Engine/utilities/StringPoolManager.h"
#include "Engine/utilities/TraceImplementation.h"
#include "Engine/utilities/UNIX/UNIX_Event_Semaphore.h"
#include "Engine/utilities/UTF8Converter.h"
#include "Engine/utilities/workstation/TraceStack.h"

#include "tests/schedules/Schedules.h"
#include "tests/support/Child.h"

/// \file
/// What a process has once, used first by several threads at the same time.

namespace {

using Accessor = const void* (*)();

constexpr Accessor accessors[] = {
    []() -> const void* { return &StringPoolManager::instance(); },
    []() -> const void* { return &RunningThreads::instance(); },
    []() -> const void* { return StdThread::thread1(); },
    []() -> const void* { return StdThread::currentThread(); },
    []() -> const void* { return traceImplementation(); },
    []() -> const void* { return UNIX_Event_Semaphore::timerInstance(); },
    []() -> const void* { return &UTF8Converter::instance(); },
    []() -> const void* { return &EBCDICtableStore::instance(); },
    []() -> const void* { return Engine_Loader::instance(); },
    []() -> const void* { return InstallPath::instance(); },
    []() -> const void* { return &TraceStack::instance(); },
    []() -> const void* { return DebuggerSettings::instance(); },
    []() -> const void* { return DebuggerSettings::present(); },
    []() -> const void* { return &DebuggerSettings::present()->getNamedSetting(L"none of these"); },
    []() -> const void* { return DebuggerConfiguration::instance(); },
    []() -> const void* { return DebuggerParameters::instance(0, static_cast<char**>(nullptr)); },
    []() -> const void* { return StdioPipes::instance(); },
    []() -> const void* { return &OpenFiles::initialOpenFiles(); },
    []() -> const void* { return &FileName::PathSepString(); },
    []() -> const void* { return &FileName::PeriodString(); },
    []() -> const void* { return &FileName::LeftParenString(); },
    []() -> const void* { return &FileName::RightParenString(); },
    []() -> const void* { return &getEnvnamePrefix(); },
    []() -> const void* { return &getFilenamePrefix(); },
};
constexpr std::size_t count = std::size(accessors);

}  // namespace

CUL_CHILD(FirstUseUnderASchedule) {
  const ScheduleOfChild schedule;
  constexpr unsigned threads = 4;
  std::array<std::array<const void*, count>, threads> got = {};
  std::atomic<unsigned> ready = 0;
  schedule.onThreads(threads, [&](unsigned thread) {
    Chance chance = schedule.chance(thread);
    ++ready;
    while (ready != threads) {
      std::this_thread::yield();
    }
    for (std::size_t i = 0, first = chance.below(count); i < count; ++i) {
      const std::size_t one = (first + i) % count;
      got[thread - 1][one] = accessors[one]();
      const EncodedString text("text", EncodedString::utf8);
      EXPECT_EQ(text.convert(EncodedString::native).length(), 4U);
    }
  });
  for (std::size_t i = 0; i < count; ++i) {
    for (unsigned thread = 1; thread < threads; ++thread) {
      EXPECT_EQ(got[thread][i], got[0][i]) << i;
    }
    EXPECT_NE(got[0][i], nullptr) << i;
  }
}

TEST(ScheduledFirstUse, GivesAllThreadsTheSameObjects) {
  underSchedulesOfChildren(
      20, [](const Schedule& schedule) { runUnder(schedule, "FirstUseUnderASchedule"); });
}
