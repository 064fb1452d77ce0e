#include "Engine/utilities/workstation/TraceStack.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <execinfo.h>
#include <functional>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/Child.h"
#include "tests/support/EnvironmentGuard.h"
#include "tests/threads/ThreadSupport.h"

// Tracebacks without locations: the library that knows them is absent.

namespace {

using FRAME = TraceStack::FRAME;

constexpr const char* header = "\nStack Traceback:\n";
constexpr const char* absentLibrary =
    "liblibkdebug.a.so: cannot open shared object file: No such file or directory\n";
constexpr const char* invalid = "Invalid frame chaining pointer!\n";
constexpr const char* end = "--- End of call chain ---\n\n";
constexpr const char* lines[] = {"0x0000000000000001 \n", "0x123456789abcdef0 \n",
                                 "0xffffffffffffffff \n"};

// What the process's trace holds of tracebacks, "tag text" for a call and "tag(line) text" for
// all else, each with a newline; a line without a time stamp stands as it is.
std::string tracebacksIn(const TracedChild& child) {
  const std::string place = ": Engine/utilities/workstation/TraceStack";
  std::string all;
  bool isInside = false;
  for (const std::string& whole : child.lines) {
    const size_t at = whole.find(place);
    if (at == std::string::npos) {
      all += isInside ? whole + "\n" : "";
      isInside = false;
      continue;
    }
    isInside = true;
    const size_t tag = whole.find(")**") + 3;
    const std::string line = whole.substr(at + place.size());
    const std::string text = line.substr(line.find("): ") + 3);
    all += whole.substr(tag, at - tag);
    all += text.starts_with("0x") ? " " + text : line.substr(0, line.find(':')) + " " + text;
    all += "\n";
  }
  return all;
}

constexpr const char* tracedHeader = "**(126) Stack Traceback:\n";
constexpr const char* tracedInvalid = "ERROR(137) Invalid frame chaining pointer!\n";
// The text has a newline of its own.
constexpr const char* tracedEnd = "**(161) --- End of call chain ---\n\n";
const std::string tracedLines[] = {std::string("** ") + lines[0], std::string("** ") + lines[1],
                                   std::string("** ") + lines[2]};

ChildOptions withArguments(std::vector<std::string> arguments) {
  ChildOptions options;
  options.arguments = std::move(arguments);
  return options;
}

}  // namespace

CUL_CHILD(Traceback) {
  FRAME frames[] = {{1, nullptr}, {0x123456789abcdef0, nullptr}, {~std::uint64_t{0}, nullptr}};
  TraceStack& stack = TraceStack::instance();
  for (const std::string& step : childArguments()) {
    if (step == "locate") {
      EXPECT_EQ(stack.sourceLoc(1).length(), 0U);
    } else if (step == "none") {
      stack.traceback(nullptr);
    } else if (step == "one") {
      frames[0].next = nullptr;
      stack.traceback(&frames[0]);
    } else if (step == "three") {
      frames[0].next = &frames[1];
      frames[1].next = &frames[2];
      frames[2].next = nullptr;
      stack.traceback(&frames[0]);
    } else if (step == "same") {
      frames[1].next = &frames[1];
      stack.traceback(&frames[1]);
    } else if (step == "down") {
      frames[0].next = &frames[2];
      frames[2].next = &frames[1];
      stack.traceback(&frames[0]);
    } else {
      ADD_FAILURE() << step;
    }
  }
}

struct TracebackCase {
  const char* what;
  std::vector<std::string> steps;
  std::string errorUntraced;
  std::string errorTraced;
  std::string trace;
};

void PrintTo(const TracebackCase& c, std::ostream* out) { *out << c.what; }

class Tracebacks : public testing::TestWithParam<TracebackCase> {};

TEST_P(Tracebacks, GoToStandardErrorWhileTracingIsOff) {
  const ChildResult child = runChild("Traceback", withArguments(GetParam().steps));
  EXPECT_EQ(child.status, 0) << child.out;
  EXPECT_EQ(child.out, "");
  EXPECT_EQ(child.err, GetParam().errorUntraced);
}

TEST_P(Tracebacks, GoToTheTraceOnceTheLookUpHasBeenTried) {
  const TracedChild child("Traceback", withArguments(GetParam().steps));
  EXPECT_EQ(child.result.status, 0) << child.all();
  EXPECT_EQ(child.result.out, "");
  EXPECT_EQ(child.result.err, GetParam().errorTraced);
  EXPECT_EQ(tracebacksIn(child), GetParam().trace);
}

static const std::string one = lines[0];
static const std::string three = std::string(lines[0]) + lines[1] + lines[2];
static const std::string downwards = std::string(lines[0]) + lines[2] + invalid;
static const std::string tracedThree = tracedLines[0] + tracedLines[1] + tracedLines[2];
static const std::string tracedDown = tracedLines[0] + tracedLines[2] + tracedInvalid + tracedEnd;

INSTANTIATE_TEST_SUITE_P(
    Of, Tracebacks,
    testing::Values(
        // No frame, no look-up: all of it is on standard error.
        TracebackCase{
            "NoFrame", {"none"}, std::string(header) + end, std::string(header) + end, ""},
        TracebackCase{"NoFrameAfterTheLookUp",
                      {"locate", "none"},
                      std::string(absentLibrary) + header + end,
                      absentLibrary,
                      std::string(tracedHeader) + tracedEnd},
        // The header comes before the first look-up.
        TracebackCase{"OneFrame",
                      {"one"},
                      std::string(header) + absentLibrary + one + end,
                      std::string(header) + absentLibrary,
                      tracedLines[0] + tracedEnd},
        TracebackCase{"ThreeFrames",
                      {"three"},
                      std::string(header) + absentLibrary + three + end,
                      std::string(header) + absentLibrary,
                      tracedThree + tracedEnd},
        TracebackCase{"ThreeFramesAfterTheLookUp",
                      {"locate", "three"},
                      std::string(absentLibrary) + header + three + end,
                      absentLibrary,
                      tracedHeader + tracedThree + tracedEnd},
        TracebackCase{"TwoTracebacks",
                      {"one", "three"},
                      std::string(header) + absentLibrary + one + end + header + three + end,
                      std::string(header) + absentLibrary,
                      tracedLines[0] + tracedEnd + tracedHeader + tracedThree + tracedEnd},
        TracebackCase{"AChainThatStays",
                      {"same"},
                      std::string(header) + absentLibrary + lines[1] + invalid + end,
                      std::string(header) + absentLibrary,
                      tracedLines[1] + tracedInvalid + tracedEnd},
        TracebackCase{"AChainThatFalls",
                      {"locate", "down"},
                      std::string(absentLibrary) + header + downwards + end,
                      absentLibrary,
                      tracedHeader + tracedDown}),
    [](const testing::TestParamInfo<TracebackCase>& testCase) {
      return std::string(testCase.param.what);
    });

TEST(TraceStack, IsOneObject) {
  EXPECT_EQ(&TraceStack::instance(), &TraceStack::instance());
  static_assert(sizeof(FRAME) == 16);
}

// The chain of calls, as standard error has it.

static std::vector<unsigned long> addressesIn(const std::string& text) {
  std::vector<unsigned long> addresses;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    if (line.starts_with("0x")) {
      EXPECT_EQ(line.size(), 2U + 16U + 1U) << line;
      addresses.push_back(std::stoul(line.substr(2), nullptr, 16));
    }
  }
  return addresses;
}

static std::vector<unsigned long> addressesIn(const ChildResult& child) {
  EXPECT_EQ(child.status, 0) << child.out << child.err;
  EXPECT_THAT(child.err, testing::StartsWith(header));
  EXPECT_THAT(child.err, testing::EndsWith(end));
  EXPECT_THAT(child.err, testing::Not(testing::HasSubstr("Invalid")));
  return addressesIn(child.err);
}

// Where in its caller it is called.
__attribute__((noinline)) static unsigned long position() {
  const auto* address = __builtin_return_address(0);
  asm volatile("");
  return reinterpret_cast<unsigned long>(address);
}

// Prints the chain of calls as the C library finds it, on standard output.
__attribute__((noinline)) static void printBacktrace() {
  void* addresses[1000];
  const int count = backtrace(addresses, 1000);
  for (int i = 0; i < count; ++i) {
    std::printf("%p\n", addresses[i]);
  }
}

__attribute__((noinline)) static void dumpHere() {
  printBacktrace();
  const unsigned long before = position();
  TraceStack::instance().dumpStack();
  std::printf("%lx\n%lx\n", before, position());
}

__attribute__((noinline)) static void dumpAfter(int calls) {
  calls > 0 ? dumpAfter(calls - 1) : dumpHere();
  // Keeps the call above from becoming a jump.
  asm volatile("");
}

CUL_CHILD(DumpStack) { dumpAfter(std::stoi(childArguments()[0])); }

TEST(TraceStack, DumpsTheCallsThatTheCLibraryFinds) {
  const ChildResult child = runChild("DumpStack", withArguments({"3"}));
  const std::vector<unsigned long> dumped = addressesIn(child);
  std::vector<unsigned long> expected;
  std::istringstream stream(child.out);
  for (std::string line; std::getline(stream, line);) {
    expected.push_back(std::stoul(line, nullptr, 16));
  }
  ASSERT_GE(expected.size(), 8U);
  ASSERT_GE(dumped.size(), 6U);
  // The first line lies where dumpStack() was called.
  EXPECT_GT(dumped[0], expected[expected.size() - 2]);
  EXPECT_LT(dumped[0], expected[expected.size() - 1]);
  // The last lines are the same as in the C library's list.
  expected.resize(expected.size() - 2);
  ASSERT_GT(expected.size(), dumped.size());
  EXPECT_TRUE(std::equal(dumped.begin() + 1, dumped.end(),
                         expected.end() - static_cast<long>(dumped.size()) + 1))
      << child.out << child.err;
  // And nothing of the caller's caller is left out.
  EXPECT_EQ(std::count(dumped.begin(), dumped.end(), dumped[2]), 3) << child.err;
}

TEST(TraceStack, DumpsDeepStacksAsFarAs8192Calls) {
  const size_t around = addressesIn(runChild("DumpStack", withArguments({"0"}))).size();
  EXPECT_EQ(addressesIn(runChild("DumpStack", withArguments({"127"}))).size(), around + 127);
  EXPECT_EQ(addressesIn(runChild("DumpStack", withArguments({"128"}))).size(), around + 128);
  EXPECT_EQ(addressesIn(runChild("DumpStack", withArguments({"1000"}))).size(), around + 1000);
  const int most = 8192 - static_cast<int>(around);
  EXPECT_EQ(addressesIn(runChild("DumpStack", withArguments({std::to_string(most)}))).size(),
            8192U);
  EXPECT_EQ(addressesIn(runChild("DumpStack", withArguments({std::to_string(most + 1)}))).size(),
            8192U);
}

CUL_CHILD(DumpStackOnAThread) {
  StdThread::Termination termination;
  auto* thread = new FunctionThread([] { dumpAfter(2); }, &termination, "function", 131072);
  thread->start_thread(0);
  EXPECT_EQ(termination.wait(0), 0);
}

TEST(TraceStack, DumpsTheStackOfAThreadWithTheSmallestStack) {
  // dumpHere(), three times dumpAfter(), and what runs a thread.
  const std::vector<unsigned long> dumped = addressesIn(runChild("DumpStackOnAThread"));
  EXPECT_GE(dumped.size(), 7U);
}

TEST(TraceStack, DumpsIntoTheTrace) {
  const TracedChild child("DumpStack", withArguments({"0"}));
  EXPECT_EQ(child.result.status, 0) << child.all();
  EXPECT_EQ(child.result.err, std::string(header) + absentLibrary);
  const std::string traced = tracebacksIn(child);
  EXPECT_GE(static_cast<size_t>(std::count(traced.begin(), traced.end(), '\n')), 5U) << traced;
  EXPECT_THAT(traced, testing::EndsWith(tracedEnd));
}

// callerReturnAddress()

// Calls `function`, which is given nothing, with `framePointer` as the frame pointer, and stores
// the address it returns to itself. The second one is not known to the unwinder.
extern "C" unsigned long callWithFramePointer(unsigned long (*function)(), const void** own,
                                              unsigned long framePointer);
extern "C" unsigned long callFromTheUnknown(unsigned long (*function)(), const void** own,
                                            unsigned long framePointer);
asm(R"(
        .text
        .type   callWithFramePointer, @function
callWithFramePointer:
        .cfi_startproc
        movq    (%rsp), %rax
        movq    %rax, (%rsi)
        pushq   %rbp
        .cfi_def_cfa_offset 16
        .cfi_offset %rbp, -16
        movq    %rdx, %rbp
        call    *%rdi
        popq    %rbp
        .cfi_def_cfa_offset 8
        ret
        .cfi_endproc
        .size   callWithFramePointer, .-callWithFramePointer

        .type   callFromTheUnknown, @function
callFromTheUnknown:
        movq    (%rsp), %rax
        movq    %rax, (%rsi)
        pushq   %rbp
        movq    %rdx, %rbp
        call    *%rdi
        popq    %rbp
        ret
        .size   callFromTheUnknown, .-callFromTheUnknown
)");

// A call of callerReturnAddress() and the addresses around it.
struct AddressCall {
  unsigned long before;
  unsigned long address;
  unsigned long after;
  unsigned long own;  // where the calling function returns to
};

__attribute__((noinline)) static void callFor(AddressCall& call) {
  call.own = reinterpret_cast<unsigned long>(__builtin_return_address(0));
  call.before = position();
  call.address = TraceStack::callerReturnAddress();
  call.after = position();
  asm volatile("");
}

TEST(TraceStack, TellsWhereTheCallingFunctionWillReturnTo) {
  AddressCall call = {};
  callFor(call);
  EXPECT_EQ(call.address, call.own);
}

TEST(TraceStack, TellsTheCallersReturnAddressWhateverTheFramePointerIs) {
  unsigned long local = 0;
  for (const unsigned long framePointer :
       {0UL, 1UL, 16UL, ~0UL, ~7UL, 0x7fffffffffffUL, reinterpret_cast<unsigned long>(&local)}) {
    const void* own = nullptr;
    const unsigned long address =
        callWithFramePointer(TraceStack::callerReturnAddress, &own, framePointer);
    EXPECT_EQ(address, reinterpret_cast<unsigned long>(own)) << framePointer;
  }
}

TEST(TraceStack, DoesNotKnowTheReturnAddressOfACallerWithoutUnwindInformation) {
  unsigned long local = 0;
  for (const unsigned long framePointer :
       {0UL, 1UL, 16UL, ~0UL, ~7UL, 0x7fffffffffffUL, reinterpret_cast<unsigned long>(&local)}) {
    const void* own = nullptr;
    EXPECT_EQ(callFromTheUnknown(TraceStack::callerReturnAddress, &own, framePointer), 0U);
    EXPECT_NE(own, nullptr);
  }
}

static unsigned long dumpForAssembly() {
  TraceStack::instance().dumpStack();
  asm volatile("");
  return 0;
}

CUL_CHILD(DumpFromTheUnknown) {
  const void* own = nullptr;
  callFromTheUnknown(dumpForAssembly, &own, 1);
}

TEST(TraceStack, EndsTheChainAtCodeWithoutUnwindInformation) {
  EXPECT_EQ(addressesIn(runChild("DumpFromTheUnknown")).size(), 2U);
}

// Prints whether the near or the far address was given.
__attribute__((noinline)) static void printKind() {
  AddressCall call = {};
  callFor(call);
  std::printf("%s", call.address == call.own ? "far" : "");
  std::printf("%s", call.before < call.address && call.address < call.after ? "near" : "");
}

CUL_CHILD(PrintKind) { printKind(); }

TEST(TraceStack, TellsItsOwnReturnAddressWhenTheEnvironmentSays1) {
  const struct {
    const char* value;
    const char* kind;
  } cases[] = {{"1", "near"}, {" 1", "near"}, {"01", "near"},  {"1x", "near"}, {"+1", "near"},
               {"", "far"},   {"0", "far"},   {"2", "far"},    {"11", "far"},  {"-1", "far"},
               {"x1", "far"}, {"0x1", "far"}, {"true", "far"}, {"1.9", "near"}};
  for (const auto& [value, kind] : cases) {
    ChildOptions options;
    options.environment["QVX_DBG_FRAME_ADD_DISABLE"] = value;
    const ChildResult child = runChild("PrintKind", options);
    EXPECT_EQ(child.status, 0) << child.out << child.err;
    EXPECT_EQ(child.out, kind) << value;
  }
  EXPECT_EQ(runChild("PrintKind").out, "far");
}

CUL_CHILD(PrintKindWithChangingEnvironment) {
  {
    const EnvironmentGuard set("QVX_DBG_FRAME_ADD_DISABLE", childArguments()[0]);
    printKind();
  }
  const EnvironmentGuard set("QVX_DBG_FRAME_ADD_DISABLE", childArguments()[1]);
  printKind();
}

TEST(TraceStack, AsksTheEnvironmentOnceByTheFirstCall) {
  EXPECT_EQ(runChild("PrintKindWithChangingEnvironment", withArguments({"1", "0"})).out,
            "nearnear");
  EXPECT_EQ(runChild("PrintKindWithChangingEnvironment", withArguments({"0", "1"})).out, "farfar");
}

TEST(TraceStack, TellsTheOwnReturnAddressOfACallerWithoutUnwindInformation) {
  ChildOptions options;
  options.environment["QVX_DBG_FRAME_ADD_DISABLE"] = "1";
  const ChildResult child = runChild("NearAddressInTheUnknown", options);
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

CUL_CHILD(NearAddressInTheUnknown) {
  const void* own = nullptr;
  const unsigned long address = callFromTheUnknown(TraceStack::callerReturnAddress, &own, 1);
  const auto start = reinterpret_cast<unsigned long>(&callFromTheUnknown);
  EXPECT_GT(address, start);
  EXPECT_LT(address, start + 32);
}
