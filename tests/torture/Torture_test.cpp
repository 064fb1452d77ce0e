#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <iterator>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>

#include "tests/support/Child.h"
#include "tests/torture/Faults.h"
#include "tests/torture/Runner.h"

/// \file
/// The short form of script/torture: of what fails in each piece of work, one of many. Always the
/// same ones, so that a test that fails does so for what was changed; each change of what the
/// library calls makes other ones of them. CUL_TORTURE_SEED, a number that is 0 when it is not
/// set, has others taken.

namespace {

using testing::IsEmpty;

unsigned seed() {
  const char* const given = std::getenv("CUL_TORTURE_SEED");
  return given != nullptr ? static_cast<unsigned>(std::atoi(given)) : 0;
}

#if defined(__SANITIZE_ADDRESS__)
constexpr unsigned shareOfAllocations = 200;
constexpr unsigned shareOfCalls = 1500;
#else
constexpr unsigned shareOfAllocations = 40;
constexpr unsigned shareOfCalls = 300;
#endif

std::vector<std::string> names() {
  std::vector<std::string> all;
  for (const Workload& work : allWorkloads()) {
    all.emplace_back(work.name);
  }
  return all;
}

std::vector<std::string> problemsOf(const std::string& name, Fault::Kind kind, unsigned share) {
  const WorkFolder folder;
  unsigned place = seed();
  for (const Workload& work : allWorkloads()) {
    if (work.name == name) {
      const Findings findings = torture(work, kind, {.share = share, .seed = place});
      EXPECT_EQ(findings.failures != 0, findings.canFail) << findings.runs << " runs";
      return findings.problems;
    }
    ++place;  // so that not all have their first call fail
  }
  return {"no such work"};
}

}  // namespace

class Torture : public testing::TestWithParam<std::string> {};

TEST_P(Torture, AllocationsFailAndNothingIsLost) {
  EXPECT_THAT(problemsOf(GetParam(), Fault::allocation, shareOfAllocations), IsEmpty())
      << "CUL_TORTURE_SEED=" << seed();
}

TEST_P(Torture, CallsOfTheCLibraryFailAndNothingIsLost) {
  EXPECT_THAT(problemsOf(GetParam(), Fault::call, shareOfCalls), IsEmpty())
      << "CUL_TORTURE_SEED=" << seed();
}

INSTANTIATE_TEST_SUITE_P(Of, Torture, testing::ValuesIn(names()), [](const auto& row) {
  std::string name;
  for (const char c : row.param) {
    if (std::isalnum(static_cast<unsigned char>(c)) != 0) {
      name += c;
    }
  }
  return name;
});

#if defined(CUL_LIBRARY_FILE)
namespace {

// What the library uses of others that does not fail, or that fails by what it is asked for alone.
constexpr std::string_view infallible[] = {
    // The end of something.
    "_exit", "abort", "exit", "longjmp", "pause", "pthread_exit",
    // Memory: fails by itself, see Faults.h.
    "free", "malloc",
    // Texts and numbers.
    "__errno_location", "__isoc99_sscanf", "difftime", "memchr", "memcmp", "memcpy", "memmem",
    "memmove", "memrchr", "memset", "strchr", "strcmp", "strerror", "strlen", "strnlen", "strrchr",
    "strtol", "strtoul", "strverscmp", "wcscmp", "wcslen", "wcsncmp", "wmemchr", "wmemcmp",
    "wmemcpy", "wmemmove", "wmemset",
    // What the process is and has.
    "__daylight", "__environ", "__libc_single_threaded", "__timezone", "__tzname", "_setjmp",
    "backtrace", "daylight", "environ", "getenv", "getpid", "gettid", "gnu_get_libc_version",
    "nl_langinfo", "pthread_self", "sched_yield", "stderr", "stdout", "timezone", "tzname",
    // Sets of signals, with numbers that are.
    "sigaddset", "sigemptyset", "sigfillset", "sigismember",
    // Streams that are open.
    "__fpurge", "__fsetlocking", "feof", "rewinddir",
    // The loader: dlsym() fails by the name that is asked for.
    "__tls_get_addr", "_dl_find_object", "dlerror", "dlsym",
    // Called when the library is loaded, which is not begun without them.
    "__gmon_start__", "__register_atfork", "_ITM_deregisterTMCloneTable",
    "_ITM_registerTMCloneTable"};

bool isOfTheCompiler(const std::string& name) {
  return name.starts_with("_Z") || name.starts_with("__cxa_") || name.starts_with("__gxx_") ||
         name.starts_with("_Unwind_");
}

bool isFallible(const std::string& name) {
  for (const FallibleCall& call : fallibleCalls()) {
    if (call.name == name) {
      return true;
    }
  }
  return false;
}

}  // namespace

TEST(FallibleCalls, AreAllThatTheLibraryUsesButForWhatCannotFail) {
  const ChildResult r =
      runProgram({"/usr/bin/nm", "-D", "--undefined-only", "-j", CUL_LIBRARY_FILE});
  ASSERT_EQ(r.status, 0) << r.err;
  std::vector<std::string> unknown;
  std::istringstream lines(r.out);
  unsigned n = 0;
  for (std::string line; std::getline(lines, line); ++n) {
    const std::string name = line.substr(0, line.find('@'));
    if (!isOfTheCompiler(name) && !isFallible(name) &&
        std::find(std::begin(infallible), std::end(infallible), name) == std::end(infallible)) {
      unknown.push_back(name);
    }
  }
  EXPECT_GT(n, 150U);
  EXPECT_THAT(unknown, IsEmpty());
}
#endif
