#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <printf.h>
#include <string>
#include <unistd.h>

#include <gmock/gmock.h>

#include "Engine/utilities/ProductData.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/TraceImplementation.h"

#include "tests/support/Child.h"
#include "tests/support/StandIn.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/trace/TraceSupport.h"

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Ge;
using testing::HasSubstr;
using testing::Le;
using testing::StartsWith;

CUL_STAND_IN(std::time_t, time, (std::time_t * also), noexcept, also)

TEST(TraceHeader, NamesStartProductBuildTypesAndSize) {
  const std::time_t before = std::time(nullptr);
  const ChildResult r =
      runWith("TraceNothing", {{"TZ", "XYZ-3:30"}, {"QVX_DBG_TRACE", "stderr,PMD,~TLS,7"}});
  const std::time_t after = std::time(nullptr);
  const ProductData& product = productData();

  Strings expected = {"",
                      "",
                      std::string("Debugger: ") + product.name + ";  Version: " + product.version,
                      std::string("Build Date: ") + product.buildDateAndTime,
                      "",
                      "Included Trace types:",
                      "  PMD",
                      "  ERROR",
                      "  WARNING",
                      "Excluded Trace types:"};
  for (const std::string& type : knownTypesBut({"PMD", "ERROR", "WARNING"})) {
    expected.push_back("  " + type);
  }
  expected.push_back("Trace size: 7Mb");
  expected.push_back(separator);

  const std::string own = "void TraceImplementation::traceInternal(718): ";
  const Strings lines = linesOf(r.err);
  ASSERT_EQ(lines.size(), expected.size()) << r.err;
  for (std::size_t i = 1; i < lines.size(); ++i) {
    const bool isPlain = expected[i].empty() || expected[i] == separator;
    EXPECT_EQ(isPlain ? lines[i] : withoutStamp(lines[i]), (isPlain ? "" : own) + expected[i]);
  }

  // "Trace start at " and what ctime() tells in that time zone, newline and all.
  const std::string start = withoutStamp(lines[0]);
  const std::string opening = own + "Trace start at ";
  ASSERT_THAT(start, StartsWith(opening));
  std::tm parts = {};
  ASSERT_EQ(strptime(start.c_str() + opening.size(), "%a %b %d %H:%M:%S %Y", &parts),
            start.c_str() + start.size());
  const std::time_t told = timegm(&parts) - (3 * 60 + 30) * 60;
  EXPECT_THAT(told, AllOf(Ge(before), Le(after)));
}

CUL_CHILD(LinesOfEveryForm) {
  taggedTrace("void A::f(int)", 12, "ERROR", "message %d %s", 7, "x");
  taggedTrace("(anonymous)::f(int)", 12, "CLI", "whole name");
  taggedTrace("plain name", 0, "CLI", "no line");
  taggedTrace("void A::f(int)", 0, nullptr, "no tag, no line");
  taggedTrace(nullptr, 12, "CLI", "no function");
  taggedTrace(nullptr, 12, nullptr, "only a message");
  taggedTrace("", 4294967295U, "", "empty texts");
  taggedTrace("f()", 1, "X", "\nafter an empty line");
  taggedTrace("f()", 1, "X", "%s", "\nnot at the start of the format");
  taggedTrace("f()", 1, "X", "ends in a newline\n");
  taggedTrace("f()", 1, "X", "100%%");
  const char* empty = "";
  taggedTrace("f()", 1, "X", "%s", empty);
}

TEST(TraceLine, HasTimeThreadTagFunctionLineAndMessage) {
  const ChildResult r = runWith("LinesOfEveryForm", {{"QVX_DBG_TRACE", "stderr"}});
  EXPECT_THAT(
      bodyOf(r.err),
      ElementsAre("**ERROR: void A::f(12): message 7 x",
                  "**CLI: (anonymous)::f(int)(12): whole name", "**CLI: plain name: no line",
                  "void A::f: no tag, no line", "**CLI: no function", "only a message",
                  "**: (-1): empty texts", "", "**X: f(1): after an empty line",
                  "**X: f(1): ", "not at the start of the format", "**X: f(1): ends in a newline",
                  "", "**X: f(1): 100%", "**X: f(1): "));
  const Strings lines = linesOf(r.err);
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                          [](const std::string& line) {
                            return hasStamp(line) &&
                                   line.ends_with(" (main    )**ERROR: void A::f(12): message 7 x");
                          }),
            1)
      << r.err;
}

CUL_CHILD(LineThatCannotBeFormatted) {
  taggedTrace("f()", 1, "X", "before %ls behind", L"\x20AC");
  taggedTrace("f()", 2, "X", "next");
}

TEST(TraceLine, EndsBeforeAConversionThatFails) {
  // The locale "C" has no such character.
  const ChildResult r = runWith("LineThatCannotBeFormatted", {{"QVX_DBG_TRACE", "stderr"}});
  EXPECT_THAT(bodyOf(r.err), ElementsAre("**X: f(1): before ", "**X: f(2): next"));
}

CUL_CHILD(LineWithItsSwitchCleared) {
  taggedTrace("f()", 1, "X", "first");
  TraceImplementation* trace = traceImplementation();
  trace->flags.clear();
  trace->taggedTrace("f()", 2, "X", "dropped");
  EXPECT_EQ(trace->wrap(), 0);
  EXPECT_TRUE(trace->pause(true));
  EXPECT_TRUE(trace->isActive());
  trace->flags.set(*trace);
  trace->taggedTrace("f()", 3, "X", "last");
}

TEST(TraceLine, IsNotWrittenWhileTheActiveSwitchIsCleared) {
  const ChildResult r = runWith("LineWithItsSwitchCleared", {{"QVX_DBG_TRACE", "stderr"}});
  EXPECT_THAT(bodyOf(r.err), ElementsAre("**X: f(1): first", "**X: f(3): last"));
}

namespace {

// Conversions that trace: "%Y" a line, "%W" one that contains a "%Y".
int convertByTracing(FILE* /*stream*/, const printf_info* info, const void* const* /*arguments*/) {
  const bool isInner = info->spec == L'Y';
  const std::string format = isInner ? "innermost" : "inner %Y";
  taggedTrace("f()", 2, "X", format.c_str(), 0);
  return 0;
}

int argumentsOfTracing(const printf_info* /*info*/, size_t n, int* types, int* sizes) {
  if (n > 0) {
    types[0] = PA_INT;
    sizes[0] = sizeof(int);
  }
  return 1;
}

}  // namespace

CUL_CHILD(LinesWithinLines) {
  for (const char conversion : {'Y', 'W'}) {
    ASSERT_EQ(register_printf_specifier(conversion, convertByTracing, argumentsOfTracing), 0);
  }
  for (const std::string format : {"outer %Y", "outer %W", "outer"}) {
    taggedTrace("f()", 1, "X", format.c_str(), 0);
  }
}

TEST(TraceLine, CanBeWrittenWhileTheSameThreadWritesOneButNotInsideThatAgain) {
  const ChildResult r = runWith("LinesWithinLines", {{"QVX_DBG_TRACE", "stdout"}});
  EXPECT_THAT(bodyOf(r.out),
              ElementsAre("**X: f(2): innermost", "**X: f(1): outer ", "**X: f(2): inner ",
                          "**X: f(1): outer ", "**X: f(1): outer"));
}

CUL_CHILD(LinesInAFarFuture) {
  const Instead farAway(timeStandIn, [](std::time_t* also) {
    const std::time_t told = std::time_t{1} << 60;
    if (also != nullptr) {
      *also = told;
    }
    return told;
  });
  taggedTrace("f()", 1, "X", "far away");
}

TEST(TraceLine, IsWrittenInAYearThatCannotBeTold) {
  const ChildResult r = runWith("LinesInAFarFuture", {{"QVX_DBG_TRACE", "stderr"}});
  EXPECT_THAT(r.err, HasSubstr("traceInternal(718): Trace start at \n"));
  EXPECT_THAT(bodyOf(r.err), ElementsAre("**X: f(1): far away"));
}

CUL_CHILD(LinesOverMoreThanASecond) {
  const std::time_t start = std::time(nullptr);
  while (std::time(nullptr) < start + 2) {
    taggedTrace(nullptr, 0, nullptr, "%lld", static_cast<long long>(std::time(nullptr)));
    usleep(20000);
  }
}

TEST(TraceLine, TellsTheLocalTimeInRisingMicroseconds) {
  const ChildResult r =
      runWith("LinesOverMoreThanASecond", {{"TZ", "XYZ+5:30"}, {"QVX_DBG_TRACE", "stderr"}});
  long long last = 0;
  unsigned count = 0;
  for (const std::string& line : linesOf(r.err)) {
    const std::string told = withoutStamp(line);
    if (told == line || told.find_first_not_of("0123456789") != std::string::npos) {
      continue;
    }
    const auto number = [&](std::size_t at, std::size_t n) {
      return std::stoll(line.substr(at, n));
    };
    const long long second = number(0, 2) * 3600 + number(3, 2) * 60 + number(6, 2);
    const long long day = 24 * 3600;
    // The seconds of the trace begin with the trace: they lag behind by less than one.
    const long long lag = (std::stoll(told) + day - 5 * 3600 - 30 * 60 - second) % day;
    EXPECT_THAT(lag, AllOf(Ge(0), Le(1))) << line;
    const long long now = second * 1000000 + number(9, 6);
    EXPECT_TRUE(now > last || second == 0) << line;
    last = now;
    ++count;
  }
  EXPECT_GT(count, 20U);
}

CUL_CHILD(LongLines) {
  const std::string big(200000, 'q');
  TraceImplementation* trace = traceImplementation();
  trace->taggedTrace("f()", 1, "X", "%s", big.c_str());
  trace->taggedTrace("f()", 2, "X", "%s", "after");
  trace->taggedTrace(big.c_str(), 3, "X", "%s", "dropped");
  trace->taggedTrace("f()", 4, big.c_str(), "%s", "dropped");
  // Stamp, tag, function and line take 37 bytes and the newline 1: one below the limit, at
  // it and above it.
  for (const int length : {127962 - 1, 127962, 127962 + 1}) {
    trace->taggedTrace("f()", 5, "X", "%.*s", length, big.c_str());
  }
}

TEST(TraceLine, IsCutAt128000BytesWithItsNewline) {
  const TemporaryFolder folder;
  const std::string file = folder.file("trace");
  runWith("LongLines", {{"QVX_DBG_TRACE", file}});
  Strings body;
  for (const std::string& line : linesOf(contentsOf(file))) {
    if (line.size() > 1000 || line.ends_with("after")) {
      body.push_back(line);
    }
  }
  ASSERT_EQ(body.size(), 7U);
  const std::size_t limit = 128000 - 1;
  EXPECT_EQ(body[0].size(), limit);
  EXPECT_THAT(withoutStamp(body[0]), StartsWith("**X: f(1): qqq"));
  EXPECT_EQ(withoutStamp(body[1]), "**X: f(2): after");
  EXPECT_EQ(body[2].size(), limit);
  EXPECT_EQ(body[3].size(), limit);
  EXPECT_EQ(body[4].size(), limit - 1);
  EXPECT_EQ(body[5].size(), limit);
  EXPECT_EQ(body[6].size(), limit);
}

CUL_CHILD(TraceWithErrno) {
  errno = 77;
  EXPECT_TRUE(isTraced(TraceType::error));  // makes the trace
  EXPECT_EQ(errno, 77);
  taggedTrace("f()", 1, "ERROR", "errno is %d", errno);
  EXPECT_EQ(errno, 77);
  TraceImplementation* trace = traceImplementation();
  trace->setRewindPoint();
  EXPECT_EQ(errno, 77);
  trace->wrap();
  EXPECT_EQ(errno, 77);
  // Nobody reads standard output: every write fails.
  close(STDOUT_FILENO);
  trace->taggedTrace("f()", 1, "ERROR", "lost");
  EXPECT_EQ(errno, 77);
  trace->setRewindPoint();
  EXPECT_EQ(errno, 77);
  trace->processForked();
  EXPECT_EQ(errno, 77);
}

TEST(TraceLine, KeepsErrno) {
  const ChildResult r = runWith("TraceWithErrno", {{"QVX_DBG_TRACE", "stdout,ALL,CHILD"}});
  EXPECT_THAT(bodyOf(r.out), Contains("**ERROR: f(1): errno is 77"));
}

CUL_CHILD(TraceWithErrnoAndNoOutput) {
  errno = 78;
  EXPECT_FALSE(isTraced(TraceType::active));
  EXPECT_EQ(errno, 78);
}

TEST(TraceLine, KeepsErrnoWhenTheOutputCannotBeOpened) {
  runWith("TraceWithErrnoAndNoOutput", {{"QVX_DBG_TRACE", "/no/such/file"}});
}

CUL_CHILD(TraceFromNamedThreads) {
  class Named : public StdThread {
   public:
    Named(const char* name, Termination& termination) : StdThread(name, 0, &termination) {}
    void run() override { taggedTrace("f()", 1, "X", "from a thread"); }
  };
  for (const char* name : {"", "abcdefg", "abcdefgh", "abcdefghi"}) {
    StdThread::Termination termination;
    (new Named(name, termination))->start_thread(0);
    termination.wait(0);
  }
}

TEST(TraceLine, NamesTheThreadInEightCharacters) {
  const ChildResult r = runWith("TraceFromNamedThreads", {{"QVX_DBG_TRACE", "stderr"}});
  Strings names;
  for (const std::string& line : linesOf(r.err)) {
    if (line.ends_with("from a thread")) {
      names.push_back(line.substr(16, 10));
    }
  }
  EXPECT_THAT(names, ElementsAre("(        )", "(abcdefg )", "(abcdefgh)", "(abcdefgh)"));
}

namespace {

// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): final, and never deleted.
struct Handler final : GMH_HandlerDiagnostic {
  const char* diagnosticText() const override {
    errno = EINVAL;
    return "handler 9";
  }
};

}  // namespace

CUL_CHILD(LinesWithComposedTags) {
  TraceImplementation* trace = traceImplementation();
  const Handler handler;
  errno = 77;
  trace->_traceGMH("f()", 1, "GMH", &handler, "with %s", "handler");
  EXPECT_EQ(errno, 77);
  trace->_traceGMH("f()", 2, "GMH", nullptr, "without %s", "handler");
  trace->_traceGMH("f()", 3, nullptr, nullptr, "without tag");
  trace->_traceGMH("f()", 3, nullptr, &handler, "without tag");
  trace->traceSession("f()", 3, nullptr, reinterpret_cast<void*>(0xABC0), "without tag");
  trace->traceSession("f()", 4, "AGENT", reinterpret_cast<void*>(0xABC0), "with %s", "session");
  trace->traceSession("f()", 5, "AGENT", nullptr, "without %s", "session");
  trace->traceInternal("internal %d", 6);
}

TEST(TraceLine, CanHaveATagWithAHandlerOrASession) {
  const ChildResult r = runWith("LinesWithComposedTags", {{"QVX_DBG_TRACE", "stderr"}});
  EXPECT_THAT(bodyOf(r.err),
              ElementsAre("**GMH/handler 9: f(1): with handler", "**GMH: f(2): without handler",
                          "f(3): without tag", "**(null)/handler 9: f(3): without tag",
                          "**(null) 0xabc0: f(3): without tag",
                          "**AGENT 0xabc0: f(4): with session", "**AGENT: f(5): without session",
                          "void TraceImplementation::traceInternal(718): internal 6"));
}

TEST(TraceHandlerDiagnostic, HasItsTextAsTheFirstVirtualOperation) {
  const Handler handler;
  const GMH_HandlerDiagnostic* diagnostic = &handler;
  using Operation = const char* (*)(const void*);
  Operation first = nullptr;
  std::memcpy(&first, *reinterpret_cast<void* const* const*>(diagnostic), sizeof first);
  EXPECT_STREQ(first(diagnostic), "handler 9");
}

CUL_CHILD(CountWritesPerLine) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const int next = dup(0);
  close(next);
  const std::wstring name = L"/proc/self/fd/" + std::to_wstring(ends[1]);
  TraceImplementation* trace = TraceImplementation::instance(name.c_str());
  ASSERT_TRUE(trace->isActive());
  char packet[8192];
  ASSERT_GT(read(ends[0], packet, sizeof packet), 0);
  // From here on the pipe keeps the writes apart.
  ASSERT_EQ(fcntl(next, F_SETFL, O_WRONLY | O_DIRECT), 0);
  ASSERT_EQ(fcntl(ends[0], F_SETFL, O_NONBLOCK), 0);
  for (const int length : {0, 10, 1000, 4000}) {
    trace->taggedTrace("f()", 1, "X", "%*s", length, "");
    trace->taggedTrace("f()", 1, "X", "next");
    EXPECT_EQ(read(ends[0], packet, sizeof packet), 26 + 11 + length + 1);
    EXPECT_EQ(read(ends[0], packet, sizeof packet), 26 + 11 + 4 + 1);
    EXPECT_LT(read(ends[0], packet, sizeof packet), 0);
  }
}

TEST(TraceLine, LeavesTheProcessInOneWrite) { runWith("CountWritesPerLine", {}); }

CUL_CHILD(PauseAndResume) {
  TraceImplementation* trace = traceImplementation();
  const auto line = [&](const char* text) {
    taggedTrace("f()", 1, "X", "%s", text);
    trace->traceInternal("%s", text);
  };
  EXPECT_FALSE(trace->pause(false));  // not below 0
  line("1");
  EXPECT_TRUE(trace->pause(true));
  line("not 2");
  EXPECT_TRUE(trace->pause(true));
  line("not 3");
  EXPECT_TRUE(trace->pause(false));
  line("not 4");
  EXPECT_FALSE(trace->isActive());
  EXPECT_TRUE(isTraced(TraceType::active));
  EXPECT_FALSE(trace->pause(false));
  EXPECT_TRUE(trace->isActive());
  line("5");
  EXPECT_FALSE(trace->pause(false));
  line("6");
  EXPECT_TRUE(trace->pause(true));
  line("not 7");
}

TEST(TracePause, CountsAndKeepsEveryLineBack) {
  const ChildResult r = runWith("PauseAndResume", {{"QVX_DBG_TRACE", "stderr"}});
  const std::string own = "void TraceImplementation::traceInternal(718): ";
  EXPECT_THAT(bodyOf(r.err), ElementsAre("**X: f(1): 1", own + "1", "**X: f(1): 5", own + "5",
                                         "**X: f(1): 6", own + "6"));
}
