#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <stdlib.h>
#include <string>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/TraceFlags.h"
#include "Engine/utilities/UNIX/UNIXStdioPipes.h"

#include "tests/processes/ConsoleSupport.h"
#include "tests/processes/FailingCall.h"

namespace {

// The trace opens its file at the first test of a switch: get that over with before
// descriptors are compared and calls are made to fail.
void openTrace() { (void)isTraced(TraceType::error); }

bool hasConsole(const UNIXStdioPipes& console) {
  return console.readHandle(StdioPipes::StdError) >= 0;
}

void expectNoConsole(UNIXStdioPipes& console) {
  EXPECT_EQ(console.readHandle(StdioPipes::StdOutput), -1);
  EXPECT_EQ(console.readHandle(StdioPipes::StdError), -1);
  EXPECT_EQ(console.writeHandle(), -1);
  EXPECT_EQ(console.write("x", 1), 0);
  ByteString out("old");
  EXPECT_EQ(console.read(StdioPipes::StdOutput, out, 10), 0);
  EXPECT_EQ(out.length(), 0U);
  EXPECT_EQ(console.slaveHandle(), -1);
}

// Makes a console without success and expects that nothing is left of the attempt.
void expectFailedConstruction() {
  openTrace();
  const std::set<int> before = openDescriptors();
  {
    UNIXStdioPipes console;
    expectNoConsole(console);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(console.childReadHandle(), 0);
    EXPECT_EQ(console.childWriteHandle(StdioPipes::StdOutput), 1);
    EXPECT_EQ(console.childWriteHandle(StdioPipes::StdError), 2);
  }
  EXPECT_EQ(openDescriptors(), before);
}

// The attributes and the size that a debuggee on the console gets.
struct SlaveSeen {
  bool echoes;
  TerminalSize size;
  unsigned char eraseKey;
};

SlaveSeen seenByDebuggee(UNIXStdioPipes& console) {
  int ends[2];
  EXPECT_EQ(pipe(ends), 0);
  inForkedChild([&] {
    const int slave = console.slaveHandle();
    EXPECT_GE(slave, 0);
    termios modes = {};
    EXPECT_EQ(tcgetattr(slave, &modes), 0);
    winsize size = {};
    EXPECT_EQ(ioctl(slave, TIOCGWINSZ, &size), 0);
    const SlaveSeen seen = {.echoes = (modes.c_lflag & tcflag_t{ECHO}) != 0,
                            .size = {size.ws_row, size.ws_col},
                            .eraseKey = modes.c_cc[VERASE]};
    EXPECT_EQ(write(ends[1], &seen, sizeof seen), static_cast<ssize_t>(sizeof seen));
  });
  close(ends[1]);
  SlaveSeen seen = {};
  EXPECT_EQ(read(ends[0], &seen, sizeof seen), static_cast<ssize_t>(sizeof seen));
  close(ends[0]);
  return seen;
}

std::vector<int> askedFor(const CallRecord& record, LibcCall call) {
  std::vector<int> result;
  for (const CallMade& made : record.calls()) {
    if (made.call == call && (call != LibcCall::ioctl || made.argument == TIOCGWINSZ)) {
      result.push_back(made.first);
    }
  }
  return result;
}

}  // namespace

CUL_CHILD(ConsoleFields) {
  // What follows the table of virtual functions and the name of the slave.
  struct Rest {
    termios* attributes;
    winsize* size;
    int handles[5];
    unsigned char flags[4];
  };
  static_assert(sizeof(UNIXStdioPipes) == sizeof(void*) + sizeof(ByteString) + sizeof(Rest));
  const auto restOf = [](const UNIXStdioPipes& console) {
    Rest rest;
    std::memcpy(&rest, reinterpret_cast<const char*>(&console) + sizeof(void*) + sizeof(ByteString),
                sizeof rest);
    return rest;
  };
  UNIXStdioPipes console;
  const UNIXStdioPipes other;
  const Rest made = restOf(console);
  EXPECT_NE(made.attributes, nullptr);
  EXPECT_EQ(made.attributes, restOf(other).attributes) << "one record for the process";
  EXPECT_EQ(made.size, restOf(other).size);
  EXPECT_EQ(made.size->ws_row, unusualSize.rows);
  EXPECT_EQ(made.handles[0], console.writeHandle());
  for (int i = 1; i < 5; ++i) {
    EXPECT_EQ(made.handles[i], -1);
  }
  EXPECT_EQ(made.flags[0], 0) << "there is a console";
  EXPECT_EQ(made.flags[1], 1);
  EXPECT_EQ(made.flags[2], 0);
  EXPECT_EQ(made.flags[3], 1);
  (void)console.childWriteHandle(StdioPipes::StdOutput);
  EXPECT_EQ(restOf(console).handles[3], console.readHandle(StdioPipes::StdOutput));
  inForkedChild([&] {
    const int slave = console.slaveHandle();
    EXPECT_EQ(restOf(console).handles[0], -1);
    EXPECT_EQ(restOf(console).handles[1], slave);
    EXPECT_EQ(restOf(console).flags[0], 1) << "set up";
  });
}

TEST(ConsoleSetUp, HoldsItsFieldsInOrder) {
  const TemporaryFolder folder;
  const int out = open(folder.file("out").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
  const TerminalRun run = expectSuccess("ConsoleFields", {.out = out});
  close(out);
  EXPECT_EQ(run.shown, "");
}

CUL_CHILD(ConsoleOnMultiplexer) {
  openTrace();
  const std::set<int> before = openDescriptors();
  {
    const CallRecord record(
        {LibcCall::open, LibcCall::grantpt, LibcCall::unlockpt, LibcCall::ptsname});
    const UNIXStdioPipes console;
    const int master = console.writeHandle();
    const std::vector<CallMade> calls = record.calls();
    ASSERT_EQ(calls.size(), 4U);
    EXPECT_EQ(calls[0].call, LibcCall::open);
    EXPECT_STREQ(calls[0].path, "/dev/ptmx");
    EXPECT_EQ(calls[0].argument, O_RDWR | O_CLOEXEC);
    const LibcCall order[] = {LibcCall::grantpt, LibcCall::unlockpt, LibcCall::ptsname};
    for (unsigned i = 0; i < 3; ++i) {
      EXPECT_EQ(calls[i + 1].call, order[i]);
      EXPECT_EQ(calls[i + 1].first, master);
    }
    EXPECT_TRUE(hasConsole(console));
    EXPECT_TRUE(isClosedOnExec(master));
    EXPECT_EQ(console.readHandle(StdioPipes::StdOutput), master);
    EXPECT_EQ(console.readHandle(StdioPipes::StdError), master);
    std::set<int> with = before;
    with.insert(master);
    EXPECT_EQ(openDescriptors(), with);
    std::printf("slave=%s.\n", ptsname(master));
  }
  EXPECT_EQ(openDescriptors(), before);
}

TEST(ConsoleSetUp, OpensTheMultiplexerAndTellsTheNameOfTheSlave) {
  const TerminalRun run = expectSuccess("ConsoleOnMultiplexer");
  const size_t from = run.shown.find("slave=") + 6;
  const std::string slave = run.shown.substr(from, run.shown.find('.') - from);
  EXPECT_EQ(slave.substr(0, 9), "/dev/pts/");
  EXPECT_EQ(occurrences(run.trace,
                        "**DSL: UNIXStdioPipes::UNIXStdioPipes(129): Console on "
                        "pseudo-terminal \"" +
                            slave + "\" successfully created\n"),
            1U)
      << run.trace;
  EXPECT_EQ(occurrences(run.trace,
                        "**DSL: virtual UNIXStdioPipes::~UNIXStdioPipes(147): "
                        "Pseudo-terminal \"" +
                            slave + "\" destroyed\n"),
            1U)
      << run.trace;
  EXPECT_EQ(occurrences(run.trace, "**ERROR"), 0U) << run.trace;
}

TEST(ConsoleSetUp, TracesNothingWhenItsCategoryIsOff) {
  const TemporaryFolder folder;
  Terminal terminal;
  terminal.startChild(
      "ConsoleOnMultiplexer",
      {.environment = {{"GDIA_ID", "root"}, {"QVX_DBG_TRACE", folder.file("trace") + ",~DSL"}}});
  EXPECT_EQ(terminal.wait(), 0) << terminal.seen();
  const std::string trace = contentsOf(folder.file("trace"));
  EXPECT_NE(trace, "");
  EXPECT_EQ(occurrences(trace, "seudo-terminal"), 0U) << trace;
}

CUL_CHILD(ConsoleWithoutTerminal) {
  openTrace();
  const CallRecord record({LibcCall::open, LibcCall::tcgetattr, LibcCall::ioctl, LibcCall::grantpt,
                           LibcCall::write, LibcCall::setsid});
  const std::set<int> before = openDescriptors();
  {
    UNIXStdioPipes console;
    expectNoConsole(console);
    EXPECT_EQ(openDescriptors(), before);
  }
  EXPECT_EQ(record.calls().size(), 0U);
}

TEST(ConsoleSetUp, OpensNothingWithoutAnyTerminal) {
  const TracedChildResult r = runTracedChild("ConsoleWithoutTerminal");
  EXPECT_EQ(r.child.status, 0) << r.child.out << r.child.err;
  EXPECT_EQ(occurrences(r.trace, "seudo-terminal"), 0U) << r.trace;
}

CUL_CHILD(ConsoleAsksOnce) {
  const CallRecord record({LibcCall::tcgetattr, LibcCall::ioctl});
  UNIXStdioPipes console;
  const int first = std::stoi(childArguments()[0]);
  EXPECT_EQ(askedFor(record, LibcCall::tcgetattr), std::vector<int>{first});
  EXPECT_EQ(askedFor(record, LibcCall::ioctl), std::vector<int>{first});
  const SlaveSeen seen = seenByDebuggee(console);
  EXPECT_FALSE(seen.echoes);
  EXPECT_EQ(seen.size, unusualSize);
}

TEST(ConsoleSetUp, AsksTheFirstStreamThatIsATerminal) {
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  expectSuccess("ConsoleAsksOnce", {.arguments = {"0"}});
  expectSuccess("ConsoleAsksOnce", {.in = null, .arguments = {"1"}});
  expectSuccess("ConsoleAsksOnce", {.in = null, .out = null, .arguments = {"2"}});
  expectSuccess("ConsoleAsksOnce", {.out = null, .error = null, .arguments = {"0"}});
  close(null);
}

CUL_CHILD(ConsoleAsksOn) {
  const auto failing = [](int stream, bool modes) {
    return modes ? CallFailure{.call = LibcCall::tcgetattr, .first = stream}
                 : CallFailure{.call = LibcCall::ioctl, .first = stream, .argument = TIOCGWINSZ};
  };
  {
    // The second terminal replaces the attributes of the first.
    const FailingCall size(failing(0, false));
    const CallRecord record({LibcCall::tcgetattr, LibcCall::ioctl});
    UNIXStdioPipes console;
    EXPECT_EQ(askedFor(record, LibcCall::tcgetattr), (std::vector<int>{0, 1}));
    EXPECT_EQ(askedFor(record, LibcCall::ioctl), (std::vector<int>{0, 1}));
    const SlaveSeen seen = seenByDebuggee(console);
    EXPECT_FALSE(seen.echoes);
    EXPECT_EQ(seen.size, (TerminalSize{11, 12}));
    EXPECT_EQ(seen.eraseKey, '#');
  }
  {
    // And its size.
    const FailingCall modes(failing(0, true));
    UNIXStdioPipes console;
    const SlaveSeen seen = seenByDebuggee(console);
    EXPECT_FALSE(seen.echoes);
    EXPECT_EQ(seen.size, (TerminalSize{11, 12}));
    EXPECT_EQ(seen.eraseKey, '#');
  }
  {
    // What one cannot tell comes from the other, and then the third is not asked.
    const FailingCall size(failing(0, false));
    const FailingCall modes(failing(1, true));
    const CallRecord record({LibcCall::tcgetattr, LibcCall::ioctl});
    UNIXStdioPipes console;
    EXPECT_EQ(askedFor(record, LibcCall::tcgetattr), (std::vector<int>{0, 1}));
    EXPECT_EQ(askedFor(record, LibcCall::ioctl), (std::vector<int>{0, 1}));
    const SlaveSeen seen = seenByDebuggee(console);
    EXPECT_FALSE(seen.echoes);
    EXPECT_EQ(seen.size, (TerminalSize{11, 12}));
    EXPECT_NE(seen.eraseKey, '#');
  }
  {
    const FailingCall first(failing(0, true));
    const FailingCall second(failing(1, false));
    const FailingCall third(failing(1, true));
    UNIXStdioPipes console;
    const SlaveSeen seen = seenByDebuggee(console);
    EXPECT_FALSE(seen.echoes);
    EXPECT_EQ(seen.size, unusualSize) << "of the third stream, which is the terminal again";
  }
}

TEST(ConsoleSetUp, AsksTheNextTerminalWhenOneCannotTellBoth) {
  const Terminal second({.rows = 11, .columns = 12});
  const int out = open(second.name().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  ASSERT_GE(out, 0);
  termios modes = {};
  tcgetattr(out, &modes);
  modes.c_cc[VERASE] = '#';
  tcsetattr(out, TCSANOW, &modes);
  expectSuccess("ConsoleAsksOn", {.out = out});
  close(out);
}

CUL_CHILD(ConsoleWithoutRecords) {
  openTrace();
  {
    // Attributes without a window size keep the echo.
    const FailingCall size({.call = LibcCall::ioctl, .argument = TIOCGWINSZ, .times = 3});
    UNIXStdioPipes console;
    const CallRecord record({LibcCall::tcsetattr, LibcCall::ioctl});
    inForkedChild([&] {
      EXPECT_GE(console.slaveHandle(), 0);
      EXPECT_EQ(record.count(LibcCall::tcsetattr), 1U);
      EXPECT_EQ(record.count(LibcCall::ioctl), 0U);
    });
    EXPECT_TRUE(seenByDebuggee(console).echoes);
  }
  {
    const FailingCall modes({.call = LibcCall::tcgetattr, .times = 3});
    UNIXStdioPipes console;
    const CallRecord record({LibcCall::tcsetattr});
    const SlaveSeen seen = seenByDebuggee(console);
    EXPECT_TRUE(seen.echoes);
    EXPECT_EQ(seen.size, unusualSize);
    inForkedChild([&] {
      EXPECT_GE(console.slaveHandle(), 0);
      EXPECT_EQ(record.count(LibcCall::tcsetattr), 0U);
    });
  }
  {
    const FailingCall size({.call = LibcCall::ioctl, .argument = TIOCGWINSZ, .times = 3});
    const FailingCall modes({.call = LibcCall::tcgetattr, .times = 3});
    UNIXStdioPipes console;
    EXPECT_TRUE(hasConsole(console));
    const SlaveSeen seen = seenByDebuggee(console);
    EXPECT_TRUE(seen.echoes);
    EXPECT_EQ(seen.size, (TerminalSize{0, 0}));
  }
}

TEST(ConsoleSetUp, GoesOnWithWhatTheTerminalsCanTell) {
  const TerminalRun run = expectSuccess("ConsoleWithoutRecords");
  EXPECT_EQ(occurrences(run.trace, "**ERROR"), 0U) << run.trace;
}

CUL_CHILD(ConsoleWithoutMaster) {
  openTrace();
  const FailingCall failing(
      {.call = LibcCall::open, .error = ENOENT, .path = "/dev/pt", .times = 17});
  const CallRecord record({LibcCall::open});
  UNIXStdioPipes console;
  const std::vector<CallMade> calls = record.calls();
  ASSERT_EQ(calls.size(), 17U);
  EXPECT_STREQ(calls[0].path, "/dev/ptmx");
  EXPECT_EQ(calls[0].argument, O_RDWR | O_CLOEXEC);
  const std::string digits = "0123456789abcdef";
  for (size_t i = 0; i < digits.size(); ++i) {
    EXPECT_EQ(calls[i + 1].path, std::string("/dev/ptyp00") + digits[i]);
    EXPECT_EQ(calls[i + 1].argument, O_RDWR | O_NOCTTY | O_CLOEXEC);
  }
  expectNoConsole(console);
}

TEST(ConsoleSetUp, HasNoConsoleWhenNoMasterCanBeOpened) {
  expectOnlyError("ConsoleWithoutMaster",
                  "UNIXStdioPipes::UNIXStdioPipes(118): open() failed for all pseudo-terminals");
}

CUL_CHILD(ConsoleOnOldMaster) {
  openTrace();
  const std::string path = childArguments()[0];
  const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  const FailingCall answering({.call = LibcCall::open, .result = master, .path = path});
  const FailingCall failing(
      {.call = LibcCall::open, .path = "/dev/pt", .times = CallFailure::always});
  const CallRecord record({LibcCall::open});
  const UNIXStdioPipes console;
  EXPECT_EQ(console.writeHandle(), master);
  EXPECT_EQ(record.calls().back().path, path) << "no further name is tried";
}

CUL_CHILD(ConsoleOnOldMasterWorks) {
  const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  UNIXStdioPipes* console = nullptr;
  {
    const FailingCall answering({.call = LibcCall::open, .result = master, .path = "/dev/ptyp00a"});
    const FailingCall failing(
        {.call = LibcCall::open, .path = "/dev/pt", .times = CallFailure::always});
    console = new UNIXStdioPipes;
  }
  const SlaveSeen seen = seenByDebuggee(*console);
  EXPECT_FALSE(seen.echoes);
  EXPECT_EQ(seen.size, unusualSize);
  delete console;
  EXPECT_FALSE(isOpen(master));
}

TEST(ConsoleSetUp, TakesTheFirstOldMasterThatOpens) {
  for (const char* const path : {"/dev/ptyp000", "/dev/ptyp003", "/dev/ptyp00f"}) {
    const TerminalRun run = expectSuccess("ConsoleOnOldMaster", {.arguments = {path}});
    EXPECT_EQ(occurrences(run.trace, "successfully created"), 1U) << run.trace;
    EXPECT_EQ(occurrences(run.trace, "**ERROR"), 0U) << run.trace;
  }
  expectSuccess("ConsoleOnOldMasterWorks");
}

namespace {

// The kind of failure by its name in the arguments of a child case.
CallFailure slaveFailure(const std::string& name) {
  if (name == "grantpt") {
    return {.call = LibcCall::grantpt};
  }
  if (name == "unlockpt") {
    return {.call = LibcCall::unlockpt};
  }
  if (name == "ptsname") {
    return {.call = LibcCall::ptsname};
  }
  return {.call = LibcCall::ptsname, .text = ""};
}

}  // namespace

CUL_CHILD(ConsoleWithoutSlave) {
  const FailingCall failing(slaveFailure(childArguments()[0]));
  const CallRecord record({LibcCall::grantpt, LibcCall::unlockpt, LibcCall::ptsname});
  expectFailedConstruction();
  EXPECT_EQ(record.calls().size(), std::stoul(childArguments()[1]));
}

CUL_CHILD(ConsoleWithoutSlaveOfOldMaster) {
  const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  const FailingCall slave(slaveFailure(childArguments()[0]));
  const FailingCall answering({.call = LibcCall::open, .result = master, .path = "/dev/ptyp005"});
  const FailingCall failing(
      {.call = LibcCall::open, .path = "/dev/pt", .times = CallFailure::always});
  UNIXStdioPipes console;
  EXPECT_FALSE(isOpen(master));
  expectNoConsole(console);
}

TEST(ConsoleSetUp, HasNoConsoleWhenTheSlaveCannotBeHad) {
  const struct {
    const char* call;
    const char* made;
    const char* line;
  } failures[] = {{"grantpt", "1", "(120): grantpt"},
                  {"unlockpt", "2", "(122): unlockpt"},
                  {"ptsname", "3", "(134): ptsname"},
                  {"empty", "3", "(134): ptsname"}};
  for (const auto& [call, made, line] : failures) {
    const std::string text =
        std::string("UNIXStdioPipes::UNIXStdioPipes") + line + "() failed for pseudo-terminal ";
    expectOnlyError("ConsoleWithoutSlave", text + "/dev/ptmx", {.arguments = {call, made}});
    expectOnlyError("ConsoleWithoutSlaveOfOldMaster", text + "/dev/ptyp005", {.arguments = {call}});
  }
}

TEST(ConsoleSetUp, FailsWithoutATraceToo) {
  EXPECT_EQ(shownWithoutTrace("ConsoleWithoutMaster"), "");
  EXPECT_EQ(shownWithoutTrace("ConsoleWithoutSlave", {.arguments = {"grantpt", "1"}}), "");
  EXPECT_EQ(shownWithoutTrace("ConsoleWithoutSlave", {.arguments = {"unlockpt", "2"}}), "");
  EXPECT_EQ(shownWithoutTrace("ConsoleWithoutSlave", {.arguments = {"ptsname", "3"}}), "");
}

CUL_CHILD(ConsoleDestroyedWithoutConsole) {
  const FailingCall failing({.call = LibcCall::grantpt});
  const UNIXStdioPipes console;
}

TEST(ConsoleSetUp, TracesNoDestructionWithoutAConsole) {
  const TerminalRun run = expectSuccess("ConsoleDestroyedWithoutConsole");
  EXPECT_EQ(occurrences(run.trace, "destroyed"), 0U) << run.trace;
}

CUL_CHILD(ConsoleInstance) {
  StdioPipes* const console = StdioPipes::instance();
  EXPECT_EQ(StdioPipes::instance(), console);
  EXPECT_NE(dynamic_cast<UNIXStdioPipes*>(console), nullptr);
  EXPECT_GE(console->readHandle(StdioPipes::StdOutput), 0);
  EXPECT_EQ(console->readHandle(StdioPipes::StdOutput), console->writeHandle());
}

TEST(ConsoleSetUp, IsMadeOnceForTheProcessAndNeverDestroyed) {
  const TerminalRun run = expectSuccess("ConsoleInstance");
  EXPECT_EQ(occurrences(run.trace, "successfully created"), 1U) << run.trace;
  EXPECT_EQ(occurrences(run.trace, "destroyed"), 0U) << run.trace;
}
