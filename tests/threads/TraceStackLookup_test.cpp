#include <atomic>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/TraceFlags.h"
#include "Engine/utilities/TraceImplementation.h"
#include "Engine/utilities/workstation/TraceStack.h"

#include "tests/support/Child.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/threads/ThreadSupport.h"

// Locations of addresses, looked up in a library that answers what its environment tells it.

namespace {

constexpr const char* absentLibrary =
    "liblibkdebug.a.so: cannot open shared object file: No such file or directory\n";

struct Answer {
  int result = 0;
  std::string first = "/x/first.c";
  std::string second = "/x/second.o";
  std::string third = "/x/third.a";
};

ChildOptions answering(const Answer& answer, std::vector<std::string> arguments = {}) {
  ChildOptions options;
  options.environment = {{"LD_LIBRARY_PATH", CUL_TEST_LIBRARIES},
                         {"WHEREIS_ANSWER", std::to_string(answer.result)},
                         {"WHEREIS_FIRST", answer.first},
                         {"WHEREIS_SECOND", answer.second},
                         {"WHEREIS_THIRD", answer.third}};
  options.arguments = std::move(arguments);
  return options;
}

std::string located(unsigned long address) {
  return std::string(TraceStack::instance().sourceLoc(address).view());
}

std::string locationFor(const Answer& answer, const std::string& address = "12") {
  const ChildResult child = runChild("Locate", answering(answer, {address}));
  EXPECT_EQ(child.status, 0) << child.out;
  EXPECT_EQ(child.err, "");
  return child.out;
}

}  // namespace

CUL_CHILD(Locate) { std::printf("%s", located(std::stoul(childArguments()[0])).c_str()); }

TEST(TraceStack, GivesTheWholeLocationForTheAnswer0) {
  EXPECT_EQ(locationFor({.result = 0}), "second.o:third.a:first.c(12)");
}

TEST(TraceStack, GivesOnlyTheSecondTextForTheAnswer2) {
  EXPECT_EQ(locationFor({.result = 2}), "second.o");
}

TEST(TraceStack, GivesTheSecondAndThirdTextForTheAnswers3And4) {
  EXPECT_EQ(locationFor({.result = 3}), "second.o:third.a");
  EXPECT_EQ(locationFor({.result = 4}), "second.o:third.a");
}

TEST(TraceStack, GivesNoLocationForOtherAnswers) {
  for (const int result : {1, 5, 6, -1, -2, 256, 258, INT_MAX, INT_MIN}) {
    EXPECT_EQ(locationFor({.result = result}), "") << result;
  }
}

TEST(TraceStack, HandsTheWholeAddressOverAndTakesAnUnsignedLine) {
  // The library adds the halves of the address.
  EXPECT_EQ(locationFor({}, "0"), "second.o:third.a:first.c(0)");
  EXPECT_EQ(locationFor({}, std::to_string(0x1000000002UL)), "second.o:third.a:first.c(18)");
  EXPECT_EQ(locationFor({}, "4294967295"), "second.o:third.a:first.c(4294967295)");
}

TEST(TraceStack, KeepsOfEachTextWhatFollowsItsLastSlash) {
  EXPECT_EQ(locationFor({0, "first", "second", "third"}), "second:third:first(12)");
  EXPECT_EQ(locationFor({0, "a/b", "/c", "//d//e"}), "c:e:b(12)");
  EXPECT_EQ(locationFor({0, "a/", "b/c/", "/"}), "::(12)");
  EXPECT_EQ(locationFor({0, "", "", ""}), "::(12)");
  EXPECT_EQ(locationFor({2, "", "a/", ""}), "");
  EXPECT_EQ(locationFor({3, "", "b\\c d", "e:f"}), "b\\c d:e:f");
}

TEST(TraceStack, ReadsTextsThatFillTheirBuffersWithoutATerminator) {
  const auto full = [](const std::string& start, char fill) {
    return start + std::string(512 - start.size(), fill);
  };
  EXPECT_EQ(locationFor({0, full("", 'a'), full("", 'b'), full("", 'c')}),
            full("", 'b') + ":" + full("", 'c') + ":" + full("", 'a') + "(12)");
  EXPECT_EQ(locationFor({0, full("x/", 'a'), full("/", 'b'), full("x/y/", 'c')}),
            full("/", 'b').substr(1) + ":" + full("x/y/", 'c').substr(4) + ":" +
                full("x/", 'a').substr(2) + "(12)");
  const std::string almost(511, 'd');
  EXPECT_EQ(locationFor({0, almost, almost, almost}),
            almost + ":" + almost + ":" + almost + "(12)");
  // The last slash may be the last byte.
  EXPECT_EQ(locationFor({2, "", std::string(511, 'e') + "/", ""}), "");
}

// Leaves something where the next call has its variables.
__attribute__((noinline)) static void useTheStack() {
  char used[8192];
  std::memset(used, 'x', sizeof used);
  asm volatile("" : : "r"(used) : "memory");
}

CUL_CHILD(LocateOnAUsedStack) {
  static_cast<void>(located(1));  // loads the library
  useTheStack();
  std::printf("%s", located(12).c_str());
}

TEST(TraceStack, FindsNothingInTextsThatTheLookUpDoesNotTouch) {
  ChildOptions options = answering({.result = 0});
  for (const char* variable : {"WHEREIS_FIRST", "WHEREIS_SECOND", "WHEREIS_THIRD"}) {
    options.environment.erase(variable);
  }
  const ChildResult child = runChild("LocateOnAUsedStack", options);
  EXPECT_EQ(child.out, "::(0)");
}

CUL_CHILD(LocateTwice) { std::printf("[%s][%s]", located(1).c_str(), located(2).c_str()); }

TEST(TraceStack, LooksTheEntryUpOnceAndReportsOnceThatItsLibraryIsAbsent) {
  const ChildResult child = runChild("LocateTwice");
  EXPECT_EQ(child.out, "[][]");
  EXPECT_EQ(child.err, absentLibrary);
}

TEST(TraceStack, ReportsOnceThatTheLibraryLacksTheEntry) {
  const TemporaryFolder folder;
  const std::string library = folder.file("liblibkdebug.a.so");
  std::filesystem::copy_file(std::string(CUL_TEST_LIBRARIES) + "/libentries.so", library);
  ChildOptions options;
  options.environment["LD_LIBRARY_PATH"] = folder.path();
  const ChildResult child = runChild("LocateTwice", options);
  EXPECT_EQ(child.out, "[][]");
  EXPECT_EQ(child.err, library + ": undefined symbol: whereis\n");
}

TEST(TraceStack, DoesNotTryAgainAfterALookUpThatFailed) {
  const TemporaryFolder folder;
  ChildOptions options = answering({});
  options.environment["LD_LIBRARY_PATH"] = folder.path();
  options.arguments = {folder.file("liblibkdebug.a.so"),
                       std::string(CUL_TEST_LIBRARIES) + "/liblibkdebug.a.so"};
  const ChildResult child = runChild("LocateAroundAnInstallation", options);
  EXPECT_EQ(child.status, 0) << child.out;
  EXPECT_EQ(child.out, "[][]");
  EXPECT_EQ(child.err, absentLibrary);
}

CUL_CHILD(LocateAroundAnInstallation) {
  std::printf("[%s]", located(1).c_str());
  std::filesystem::create_symlink(childArguments()[1], childArguments()[0]);
  std::printf("[%s]", located(1).c_str());
}

CUL_CHILD(TraceAroundALocation) {
  CUL_TRACE(TraceType::error, "test", 1, "before");
  EXPECT_EQ(located(1), "second.o");
  CUL_TRACE(TraceType::error, "test", 2, "after");
  traceImplementation()->pause(true);
  EXPECT_EQ(located(1), "second.o");
  CUL_TRACE(TraceType::error, "test", 3, "while paused");
  EXPECT_FALSE(traceImplementation()->pause(false));
  CUL_TRACE(TraceType::error, "test", 4, "at the end");
}

TEST(TraceStack, PausesTheTraceWhileItLooksAnAddressUp) {
  const TracedChild child("TraceAroundALocation", answering({.result = 2}));
  EXPECT_EQ(child.result.status, 0) << child.all();
  EXPECT_EQ(child.countContaining("traced while looking up"), 0) << child.all();
  EXPECT_EQ(child.countContaining("before"), 1) << child.all();
  EXPECT_EQ(child.countContaining("after"), 1) << child.all();
  EXPECT_EQ(child.countContaining("while paused"), 0) << child.all();
  EXPECT_EQ(child.countContaining("at the end"), 1) << child.all();
}

CUL_CHILD(EndWhileLocating) {
  std::atomic<pid_t> task = 0;
  StdThread::Termination termination;
  const StdThread* thread = startThread(
      [&task] {
        task = gettid();
        // Not located(): a thread may end inside of its string.
        static_cast<void>(TraceStack::instance().sourceLoc(1));
        for (;;) {
          pause();
        }
      },
      &termination);
  waitUntilAsleep(task);
  EXPECT_EQ(thread->requestTerminate(), 0);
  EXPECT_EQ(termination.wait(0), 0);
}

TEST(TraceStack, FinishesTheLookUpOfAThreadThatIsAskedToEnd) {
  ChildOptions options = answering({});
  options.environment["WHEREIS_DELAY"] = "";
  const ChildResult child = runChild("EndWhileLocating", options);
  EXPECT_EQ(child.status, 0) << child.out << child.err;
  EXPECT_EQ(child.out, "answered\n");
}

CUL_CHILD(LocateOnTwoThreads) {
  EXPECT_EQ(located(1), "second.o:third.a:first.c(1)");
  std::vector<std::thread> threads;
  for (unsigned long n : {1UL, 2UL}) {
    threads.emplace_back([n] {
      for (unsigned i = 0; i < 1000; ++i) {
        EXPECT_EQ(located(n), "second.o:third.a:first.c(" + std::to_string(n) + ")");
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

TEST(TraceStack, LocatesOnSeveralThreadsWhileTracingIsOff) {
  const ChildResult child = runChild("LocateOnTwoThreads", answering({}));
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

CUL_CHILD(TracebackWithLocations) {
  TraceStack::FRAME frames[] = {{1, &frames[1]}, {0xfedcba9876543210, nullptr}};
  TraceStack::instance().traceback(frames);
}

TEST(TraceStack, PutsLocationsInBracketsBehindTheAddresses) {
  const ChildResult child = runChild("TracebackWithLocations", answering({}));
  EXPECT_EQ(child.status, 0);
  EXPECT_EQ(child.out, "");
  // 0xfedcba98 + 0x76543210, of 32 bits.
  EXPECT_EQ(child.err,
            "\nStack Traceback:\n"
            "0x0000000000000001 (second.o:third.a:first.c(1))\n"
            "0xfedcba9876543210 (second.o:third.a:first.c(1966140584))\n"
            "--- End of call chain ---\n\n");
}

TEST(TraceStack, TracesLocationsAtAnyLength) {
  const Answer longest{0, std::string(512, 'a'), std::string(512, 'b'), std::string(512, 'c')};
  const TracedChild child("TracebackWithLocations", answering(longest));
  EXPECT_EQ(child.result.status, 0) << child.all();
  EXPECT_EQ(child.result.err, "\nStack Traceback:\n");
  EXPECT_EQ(child.countContaining("): 0x0000000000000001 (" + longest.second + ":" + longest.third +
                                  ":" + longest.first + "(1))"),
            1)
      << child.all();
  EXPECT_EQ(child.countContaining("): 0xfedcba9876543210 (" + longest.second), 1) << child.all();
}
