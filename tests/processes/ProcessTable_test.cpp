#include "Engine/utilities/ProcessTable.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <dlfcn.h>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <set>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Engine/utilities/TraceFlags.h"

#include "tests/processes/AnsweredCalls.h"
#include "tests/processes/FailingCall.h"
#include "tests/processes/PlayedFolder.h"
#include "tests/support/TracedChild.h"
#include "tests/support/WaitUntil.h"
#include "tests/support/WaitingProgram.h"

namespace {

using namespace std::string_view_literals;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string getprocs = "int getprocs64(";
const std::string getargsText = "int getargs(";

std::vector<pid_t> walkFrom(pid_t index, std::size_t most = SIZE_MAX) {
  std::vector<pid_t> result;
  procentry64 entry;
  while (result.size() < most && getprocs64(&entry, sizeof entry, nullptr, 0, &index, 1) == 1) {
    result.push_back(entry.processId);
  }
  return result;
}

// A call of getargs() with bytes behind the buffer that must stay.
struct Arguments {
  int result;
  std::string bytes;  // up to `length`
  bool keptWhatIsBehind;
};

Arguments argumentsOf(pid_t process, int length) {
  constexpr std::size_t behind = 16;
  const auto size = static_cast<std::size_t>(length);
  std::vector<char> buffer(size + behind, '~');
  procentry64 entry = {process};
  const int result = getargs(&entry, sizeof entry, buffer.data(), length);
  const auto end = buffer.begin() + length;
  const bool isKept = std::all_of(end, buffer.end(), [](char c) { return c == '~'; });
  return {result, std::string(buffer.begin(), end), isKept};
}

// What a buffer of `length` holds after these bytes and a zero byte were stored.
std::string filled(std::string bytes, std::size_t length) {
  bytes.push_back('\0');
  bytes.resize(length, '~');
  return bytes;
}

int lowestFreeDescriptor() {
  const int fd = dup(0);
  close(fd);
  return fd;
}

// --- The walk ---

TEST(ProcessTable, HasItsFunctionsUnderPlainNames) {
  EXPECT_EQ(dlsym(RTLD_DEFAULT, "getprocs64"), reinterpret_cast<void*>(&getprocs64));
  EXPECT_EQ(dlsym(RTLD_DEFAULT, "getargs"), reinterpret_cast<void*>(&getargs));
}

TEST(ProcessTable, HoldsTheIdentifierInFirstPlaceWith32Bits) {
  static_assert(std::is_standard_layout_v<procentry64>);
  static_assert(std::is_same_v<decltype(procentry64::processId), pid_t> && sizeof(pid_t) == 4);
  EXPECT_EQ(offsetof(procentry64, processId), 0U);
}

TEST(ProcessTable, WalkFindsEveryProcessOfTheMachine) {
  const WaitingProgram first({});
  const WaitingProgram second({});
  // Others start and end meanwhile, and a walk stops at one that has ended: a whole one comes
  // soon.
  std::set<pid_t> found;
  EXPECT_TRUE(waitUntil([&] {
    const std::set<pid_t> before = processesInProc();
    const std::vector<pid_t> walk = walkFrom(0);
    const std::set<pid_t> after = processesInProc();
    found = {walk.begin(), walk.end()};
    EXPECT_EQ(found.size(), walk.size());
    return std::all_of(before.begin(), before.end(), [&](pid_t process) {
      return found.contains(process) || !after.contains(process);
    });
  }));
  EXPECT_TRUE(found.contains(getpid()));
  EXPECT_TRUE(found.contains(first.id()));
  EXPECT_TRUE(found.contains(second.id()));
}

TEST(ProcessTable, WalkHasTheProcessesInTheOrderOfTheFolder) {
  const PlayedFolder folder("/proc", {".", "..", "self", "70", "7", "3000", "12"});
  EXPECT_THAT(walkFrom(0), ElementsAre(70, 7, 3000, 12));
}

TEST(ProcessTable, IndexZeroFindsTheFirstProcessAndGoesToTheNext) {
  const PlayedFolder folder("/proc", {"fs", "uptime", "5", "9", "11"});
  procentry64 entry;
  pid_t index = 0;
  ASSERT_EQ(getprocs64(&entry, sizeof entry, nullptr, 0, &index, 1), 1);
  EXPECT_EQ(entry.processId, 5);
  EXPECT_EQ(index, 9);
  EXPECT_EQ(folder.opened(), 1U);
  EXPECT_EQ(folder.closed(), 1U);
}

TEST(ProcessTable, IndexBehindTheLastProcessIsItsIdentifierPlusOne) {
  const PlayedFolder folder("/proc", {"5", "9"});
  procentry64 entry;
  pid_t index = 9;
  ASSERT_EQ(getprocs64(&entry, sizeof entry, nullptr, 0, &index, 1), 1);
  EXPECT_EQ(entry.processId, 9);
  EXPECT_EQ(index, 10);
  EXPECT_EQ(getprocs64(&entry, sizeof entry, nullptr, 0, &index, 1), -1);
  EXPECT_EQ(index, 10);
  EXPECT_EQ(entry.processId, 9);
  EXPECT_EQ(folder.closed(), 2U);
}

TEST(ProcessTable, WalkEndsEarlyWhereSomethingElseFollowsAProcess) {
  const PlayedFolder folder("/proc", {"5", "9", "self", "11", "12"});
  EXPECT_THAT(walkFrom(0), ElementsAre(5, 9));
  EXPECT_THAT(walkFrom(11), ElementsAre(11, 12));
}

TEST(ProcessTable, WalkGoesOnWhenTheIdentifierPlusOneIsAProcessFurtherBehind) {
  const PlayedFolder folder("/proc", {"5", "self", "6", "8"});
  EXPECT_THAT(walkFrom(0), ElementsAre(5, 6, 8));
}

TEST(ProcessTable, WalkCanStartAtAnyProcess) {
  const PlayedFolder folder("/proc", {"fs", "5", "9", "11"});
  EXPECT_THAT(walkFrom(9), ElementsAre(9, 11));
  EXPECT_THAT(walkFrom(11), ElementsAre(11));
}

TEST(ProcessTable, IndexOfNoProcessFindsNone) {
  const PlayedFolder folder("/proc", {"fs", "5", "9", "self"});
  procentry64 entry = {-77};
  for (const pid_t wanted : {4, 6, 10, -5, INT_MAX, INT_MIN}) {
    pid_t index = wanted;
    EXPECT_EQ(getprocs64(&entry, sizeof entry, nullptr, 0, &index, 1), -1);
    EXPECT_EQ(index, wanted);
    EXPECT_EQ(entry.processId, -77);
  }
  EXPECT_EQ(folder.closed(), folder.opened());
}

TEST(ProcessTable, FolderWithoutProcessesHasNone) {
  for (const std::vector<std::string>& names :
       {std::vector<std::string>{}, {"."}, {"self", "thread-self"}}) {
    const PlayedFolder folder("/proc", names);
    procentry64 entry = {-77};
    pid_t index = 0;
    EXPECT_EQ(getprocs64(&entry, sizeof entry, nullptr, 0, &index, 1), -1);
    EXPECT_EQ(index, 0);
    EXPECT_EQ(entry.processId, -77);
    EXPECT_EQ(folder.closed(), 1U);
  }
}

TEST(ProcessTable, OnlyNamesThatAreANumberAndNothingElseAreProcesses) {
  for (const std::string name :
       {"12",  "012",  "0012", "+12", "-12",  " 12",  "\t12", "2147483647", "-2147483648",
        "12a", "a12",  "12 ",  "1 2", "12.",  "0x12", "",     " ",          "+",
        "-",   "--12", "+-12", "1,2", "12\n", "١٢",   "1e3",  "self",       "thread-self"}) {
    const PlayedFolder folder("/proc", {name});
    int scanned = 0;
    char more;
    const bool isProcess = std::sscanf(name.c_str(), "%d%c", &scanned, &more) == 1;
    procentry64 entry = {-77};
    pid_t index = 0;
    EXPECT_EQ(getprocs64(&entry, sizeof entry, nullptr, 0, &index, 1), isProcess ? 1 : -1)
        << "\"" << name << "\"";
    EXPECT_EQ(entry.processId, isProcess ? scanned : -77) << "\"" << name << "\"";
  }
}

TEST(ProcessTable, NumbersThatNoIdentifierHoldsAreNoProcesses) {
  const PlayedFolder folder(
      "/proc", {"2147483648", "4294967297", "-2147483649", "9223372036854775807",
                "99999999999999999999999999", "-99999999999999999999999999", "7", "4294967304"});
  EXPECT_THAT(walkFrom(0), ElementsAre(7));
  EXPECT_THAT(walkFrom(1), IsEmpty());
}

TEST(ProcessTable, WalkEndsBehindTheLargestIdentifier) {
  const PlayedFolder folder("/proc", {"2147483646", "2147483647"});
  EXPECT_THAT(walkFrom(0, 10), ElementsAre(INT_MAX - 1, INT_MAX));
}

TEST(ProcessTable, OneProcessIsStoredWhateverTheCount) {
  const PlayedFolder folder("/proc", {"5", "9", "11"});
  for (const int count : {INT_MIN, -1, 0, 1, 2, INT_MAX}) {
    procentry64 entries[3] = {{-1}, {-2}, {-3}};
    fdsinfo files[3];
    pid_t index = 0;
    EXPECT_EQ(getprocs64(entries, sizeof *entries, files, sizeof *files, &index, count), 1);
    EXPECT_EQ(entries[0].processId, 5);
    EXPECT_EQ(entries[1].processId, -2);
    EXPECT_EQ(entries[2].processId, -3);
    EXPECT_EQ(index, 9);
  }
}

TEST(ProcessTable, IndexOfAProcessThatHasEndedFindsNone) {
  WaitingProgram child({});
  EXPECT_THAT(walkFrom(child.id(), 1), ElementsAre(child.id()));
  child.end();
  // A zombie is still in the table.
  EXPECT_THAT(walkFrom(child.id(), 1), ElementsAre(child.id()));
  child.reap();
  EXPECT_THAT(walkFrom(child.id(), 1), IsEmpty());
}

// As the kernel lists them, at the positions of the kernels since long and of another one.
constexpr long usualBefore = 258;
constexpr long otherBefore = 200;

TEST(ProcessTable, WalkReadsOneEntryBehindEachProcessOnly) {
  std::vector<std::string> names = {".", "..", "fs", "uptime", "self", "thread-self"};
  const unsigned others = static_cast<unsigned>(names.size());
  std::vector<pid_t> expected;
  for (pid_t process = 1; process < 4'000'000; process += 3999) {
    expected.push_back(process);
    names.push_back(std::to_string(process));
  }
  const unsigned processes = static_cast<unsigned>(expected.size());
  for (const long before : {usualBefore, otherBefore}) {
    const PlayedFolder folder("/proc", names, before);
    EXPECT_EQ(walkFrom(0), expected);
    EXPECT_EQ(folder.opened(), processes + 1);
    EXPECT_EQ(folder.closed(), processes + 1);
    // The first and the last call read from the start, and where the position is not the usual one
    // the two before as well; those between them jump, there twice.
    EXPECT_LE(folder.read(), 4 * (others + processes) + 6 * processes) << before;
  }
}

TEST(ProcessTable, WalkIsTheSameWhereverTheKernelHasItsProcesses) {
  for (const long before : {usualBefore, otherBefore, 300L, 259L, 257L, 1L}) {
    for (const unsigned most : {1U, 2U, 100U}) {
      const PlayedFolder folder("/proc", {"fs", "self", "1", "2", "3", "7", "70", "4194304"},
                                before, most);
      EXPECT_THAT(walkFrom(0), ElementsAre(1, 2, 3, 7, 70, 4194304)) << before;
      EXPECT_THAT(walkFrom(3), ElementsAre(3, 7, 70, 4194304)) << before;
      EXPECT_THAT(walkFrom(4194304), ElementsAre(4194304)) << before;
      procentry64 entry = {-77};
      for (const pid_t wanted : {4, 6, 71, -5, INT_MAX, INT_MIN}) {
        pid_t index = wanted;
        EXPECT_EQ(getprocs64(&entry, sizeof entry, nullptr, 0, &index, 1), -1);
        EXPECT_EQ(index, wanted);
        EXPECT_EQ(entry.processId, -77);
      }
      EXPECT_EQ(folder.closed(), folder.opened());
    }
  }
}

TEST(ProcessTable, WalkIsTheSameWhereAProcessWouldStandBeforeTheFolder) {
  const PlayedFolder folder("/proc", {"3", "300", "301"}, -10);
  EXPECT_THAT(walkFrom(3), ElementsAre(3, 300, 301));
  EXPECT_EQ(folder.closed(), folder.opened());
}

TEST(ProcessTable, WalkOfTheKernelsFolderEndsEarlyWhereSomethingElseFollowsAProcess) {
  for (const unsigned most : {1U, 100U}) {
    const PlayedFolder folder("/proc", {"self", "5", "9", "behind"}, usualBefore, most);
    EXPECT_THAT(walkFrom(0), ElementsAre(5, 9));
    EXPECT_THAT(walkFrom(9), ElementsAre(9));
    pid_t index = 9;
    procentry64 entry;
    EXPECT_EQ(getprocs64(&entry, sizeof entry, nullptr, 0, &index, 1), 1);
    EXPECT_EQ(index, 10);
  }
}

// A number may stand there twice, under names of which none is of the kernel.
TEST(ProcessTable, FolderOfAnotherFileSystemIsReadFromTheStart) {
  const PlayedFolder folder("/proc", {"+9", "5", "self", "9", "11"});
  EXPECT_THAT(walkFrom(9), ElementsAre(9, 5));
  EXPECT_THAT(walkFrom(11), ElementsAre(11));
}

TEST(ProcessTable, EveryProcessOfTheMachineIsFoundByItsIdentifier) {
  const WaitingProgram child({});
  for (const pid_t process : {getpid(), child.id(), 1}) {
    EXPECT_THAT(walkFrom(process, 1), ElementsAre(process));
  }
  // The kernel opens a folder for each thread, but lists those that lead a process.
  std::atomic<pid_t> task = 0;
  std::atomic<bool> isOver = false;
  std::thread thread([&] {
    task = gettid();
    task.notify_one();
    isOver.wait(false);
  });
  task.wait(0);
  EXPECT_THAT(walkFrom(task, 1), IsEmpty());
  isOver = true;
  isOver.notify_one();
  thread.join();
}

TEST(ProcessTable, IndexGoesToTheVeryNextProcess) {
  const WaitingProgram first({});
  const WaitingProgram second({});
  // Others come and go: between two looks at the folder that see the same.
  const auto nextOf = [](const std::set<pid_t>& processes, pid_t process) {
    const auto next = processes.upper_bound(process);
    return next == processes.end() ? process + 1 : *next;
  };
  EXPECT_TRUE(waitUntil([&] {
    const pid_t before = nextOf(processesInProc(), first.id());
    procentry64 entry;
    pid_t index = first.id();
    EXPECT_EQ(getprocs64(&entry, sizeof entry, nullptr, 0, &index, 1), 1);
    EXPECT_EQ(entry.processId, first.id());
    return before == nextOf(processesInProc(), first.id()) && index == before;
  }));
}

TEST(ProcessTable, WalkBearsProcessesThatComeAndGo) {
  const WaitingProgram first({});
  const WaitingProgram last({});
  std::atomic<bool> isOver = false;
  std::thread coming([&isOver] {
    while (!isOver) {
      const pid_t child = fork();
      if (child == 0) {
        _exit(0);
      }
      EXPECT_EQ(waitpid(child, nullptr, 0), child);
    }
  });
  for (int i = 0; i < 50; ++i) {
    const std::vector<pid_t> walk = walkFrom(0);
    EXPECT_TRUE(std::is_sorted(walk.begin(), walk.end()));
    EXPECT_EQ(std::set<pid_t>(walk.begin(), walk.end()).size(), walk.size());
    EXPECT_THAT(walkFrom(first.id(), 1), ElementsAre(first.id()));
    EXPECT_THAT(walkFrom(last.id(), 1), ElementsAre(last.id()));
  }
  isOver = true;
  coming.join();
}

TEST(ProcessTable, NullArgumentsFindNothing) {
  const PlayedFolder folder("/proc", {"5", "9"});
  procentry64 entry = {-77};
  pid_t index = 0;
  EXPECT_EQ(getprocs64(nullptr, sizeof entry, nullptr, 0, &index, 1), -1);
  EXPECT_EQ(index, 0);
  EXPECT_EQ(getprocs64(&entry, sizeof entry, nullptr, 0, nullptr, 1), -1);
  EXPECT_EQ(entry.processId, -77);
  EXPECT_EQ(folder.opened(), 0U);
}

CUL_CHILD(ProcessTableWithoutDescriptors) {
  static_cast<void>(isTraced(TraceType::error));  // The trace opens its file.
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit none = {static_cast<rlim_t>(lowestFreeDescriptor()), limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  procentry64 entry = {-77};
  pid_t index = 0;
  EXPECT_EQ(getprocs64(&entry, sizeof entry, nullptr, 0, &index, 1), -1);
  EXPECT_EQ(index, 0);
  EXPECT_EQ(entry.processId, -77);
  EXPECT_EQ(argumentsOf(getpid(), 40).result, -1);
  EXPECT_EQ(argumentsOf(getpid(), 40).bytes, std::string(40, '~'));
  setrlimit(RLIMIT_NOFILE, &limit);  // The search for leaks opens files.
  std::printf("%d\n", getpid());
}

TEST(ProcessTable, FolderThatCannotBeOpenedIsTracedAndHasNoProcess) {
  const TracedChildResult r = runTracedChild("ProcessTableWithoutDescriptors");
  EXPECT_EQ(r.child.status, 0) << r.child.out << r.child.err;
  const std::string number = std::to_string(EMFILE);
  const std::string id = std::to_string(std::atoi(r.child.out.c_str()));
  EXPECT_EQ(occurrences(r.trace, "**ERROR: " + getprocs +
                                     "39): opendir(/proc) failed errno = " + number + "\n"),
            1U)
      << r.trace;
  EXPECT_EQ(occurrences(r.trace, "**ERROR: " + getargsText + "99): failed to open '/proc/" + id +
                                     "/cmdline' errno = " + number + "\n"),
            2U)
      << r.trace;
  EXPECT_EQ(occurrences(r.trace, "**ERROR"), 3U) << r.trace;
}

TEST(ProcessTable, FailsWithoutATraceToo) {
  for (const char* const name : {"ProcessTableWithoutDescriptors", "ProcessTableArgumentsThatGo"}) {
    const ChildResult r = runChild(name);
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.err, "");
  }
}

TEST(ProcessTable, LeavesNoDescriptorOpen) {
  const int before = lowestFreeDescriptor();
  EXPECT_FALSE(walkFrom(0, 5).empty());
  EXPECT_EQ(argumentsOf(getpid(), 10).result, 0);
  EXPECT_EQ(argumentsOf(-1, 10).result, -1);
  EXPECT_EQ(lowestFreeDescriptor(), before);
}

TEST(ProcessTable, ProgramsThatAreStartedDoNotInheritWhatIsOpenMeanwhile) {
  {
    const CallRecord record({LibcCall::open});
    EXPECT_EQ(argumentsOf(getpid(), 10).result, 0);
    ASSERT_EQ(record.count(LibcCall::open), 1U);
    EXPECT_NE(record.calls()[0].argument & O_CLOEXEC, 0);
  }
  const PlayedFolder folder("/proc", {"5"});
  EXPECT_THAT(walkFrom(0, 1), ElementsAre(5));
  EXPECT_TRUE(folder.isClosedOnExec());
}

TEST(ProcessTable, ThreadsWalkIndependentlyOfEachOther) {
  const WaitingProgram child({"one", "two"});
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < 50; ++n) {
        EXPECT_THAT(walkFrom(child.id(), 1), ElementsAre(child.id()));
        EXPECT_EQ(argumentsOf(child.id(), 200).bytes, filled(child.list(), 200));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

// --- The arguments ---

TEST(ProcessTable, ArgumentsStayApartByZeroBytes) {
  const WaitingProgram child({"one", "", "with blank", "last\nline", "\xFF\x01"});
  EXPECT_EQ(child.list(),
            "waiter\0-c\0read -r line || :\0name\0one\0\0with blank\0last\nline\0\xFF\x01\0"sv);
  const Arguments a = argumentsOf(child.id(), 100);
  EXPECT_EQ(a.result, 0);
  EXPECT_EQ(a.bytes, filled(child.list(), 100));
  EXPECT_TRUE(a.keptWhatIsBehind);
}

TEST(ProcessTable, ArgumentsOfThisProcessAreThoseThatTheKernelGives) {
  std::ifstream file("/proc/self/cmdline", std::ios::binary);
  const std::string expected{std::istreambuf_iterator<char>(file), {}};
  ASSERT_FALSE(expected.empty());
  EXPECT_EQ(argumentsOf(getpid(), 8192).bytes, filled(expected, 8192));
}

// Longer than any buffer of a stream and than several pages.
TEST(ProcessTable, LongArgumentListsAreWhole) {
  const std::vector<std::string> many(3, std::string(50000, 'x'));
  const WaitingProgram child(many);
  ASSERT_GT(child.list().size(), 150000U);
  const Arguments a = argumentsOf(child.id(), 200000);
  EXPECT_EQ(a.result, 0);
  EXPECT_TRUE(a.bytes == filled(child.list(), 200000));
}

// The child case's own arguments: the length to try and the bytes that are there.
CUL_CHILD(ProcessTableArgumentsWithLength) {
  const int length = std::stoi(childArguments().at(0));
  const WaitingProgram child({"x"});
  const auto room = static_cast<std::size_t>(length) - 1;
  const Arguments a = argumentsOf(child.id(), length);
  EXPECT_EQ(a.result, 0);
  EXPECT_EQ(a.bytes, filled(child.list().substr(0, room), static_cast<std::size_t>(length)));
  EXPECT_TRUE(a.keptWhatIsBehind);
  std::printf("%d\n", child.id());
}

// How often the list of a child is called longer than a buffer of `length` bytes.
unsigned warningsWithLength(int length) {
  const TracedChildResult r =
      runTracedChild("ProcessTableArgumentsWithLength", {.arguments = {std::to_string(length)}});
  EXPECT_EQ(r.child.status, 0) << r.child.out << r.child.err;
  const std::string id = std::to_string(std::atoi(r.child.out.c_str()));
  const unsigned all = occurrences(r.trace, "**WARNING: " + getargsText);
  EXPECT_EQ(occurrences(r.trace, "**WARNING: " + getargsText + "105): '/proc/" + id +
                                     "/cmdline' has arguments longer than " +
                                     std::to_string(length) + " args buffer\n"),
            all)
      << r.trace;
  EXPECT_EQ(occurrences(r.trace, "**ERROR"), 0U) << r.trace;
  return all;
}

TEST(ProcessTable, ListThatDoesNotFitIsCutAndTraced) {
  // waiter -c "read -r line || :" name x, with a zero byte each.
  constexpr int size = 7 + 3 + 18 + 5 + 2;
  EXPECT_EQ(warningsWithLength(2), 1U);
  EXPECT_EQ(warningsWithLength(size - 1), 1U);
  EXPECT_EQ(warningsWithLength(size), 1U);
  // All bytes are stored, but the end behind them was not seen.
  EXPECT_EQ(warningsWithLength(size + 1), 1U);
  EXPECT_EQ(warningsWithLength(size + 2), 0U);
  EXPECT_EQ(warningsWithLength(5000), 0U);
}

TEST(ProcessTable, BufferOfOneByteGetsAnEmptyTextAndTheWarning) {
  EXPECT_EQ(warningsWithLength(1), 1U);
}

CUL_CHILD(ProcessTableWithoutArguments) {
  WaitingProgram child({"x"});
  child.end();
  for (const int length : {1, 2, 3, 4096}) {
    const Arguments a = argumentsOf(child.id(), length);
    EXPECT_EQ(a.result, 0);
    EXPECT_EQ(a.bytes, filled("", static_cast<std::size_t>(length)));
    EXPECT_TRUE(a.keptWhatIsBehind);
  }
}

TEST(ProcessTable, ProcessWithoutArgumentsGivesAnEmptyTextWithoutWarning) {
  const TracedChildResult r = runTracedChild("ProcessTableWithoutArguments");
  EXPECT_EQ(r.child.status, 0) << r.child.out << r.child.err;
  EXPECT_EQ(occurrences(r.trace, getargsText), 0U) << r.trace;
}

bool hasEmptyList(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/cmdline");
  return file && file.peek() == EOF;
}

// Every process with an empty list in the folder, which all threads of the kernel have.
TEST(ProcessTable, EveryEmptyListOfTheMachineIsEmpty) {
  unsigned seen = 0;
  WaitingProgram child({});
  child.end();
  for (const pid_t process : processesInProc()) {
    // A program that is just being started has none for a moment.
    const bool wasEmpty = hasEmptyList(process);
    const Arguments a = argumentsOf(process, 10);
    if (wasEmpty && hasEmptyList(process)) {
      EXPECT_EQ(a.result, 0) << process;
      EXPECT_EQ(a.bytes, filled("", 10)) << process;
      ++seen;
    }
  }
  EXPECT_GE(seen, 1U);
}

CUL_CHILD(ProcessTableArgumentsOfNobody) {
  WaitingProgram child({"x"});
  child.end();
  child.reap();
  for (const pid_t process : {child.id(), 0, -1, INT_MAX, INT_MIN}) {
    const Arguments a = argumentsOf(process, 30);
    EXPECT_EQ(a.result, -1);
    EXPECT_EQ(a.bytes, std::string(30, '~'));
  }
  std::printf("%d\n", child.id());
}

TEST(ProcessTable, ArgumentsOfAProcessThatIsGoneCannotBeReadWhichIsTraced) {
  const TracedChildResult r = runTracedChild("ProcessTableArgumentsOfNobody");
  EXPECT_EQ(r.child.status, 0) << r.child.out << r.child.err;
  const std::string id = std::to_string(std::atoi(r.child.out.c_str()));
  for (const std::string& process : {id, std::string("0"), std::string("-1"),
                                     std::string("2147483647"), std::string("-2147483648")}) {
    EXPECT_EQ(
        occurrences(r.trace, "**ERROR: " + getargsText + "99): failed to open '/proc/" + process +
                                 "/cmdline' errno = " + std::to_string(ENOENT) + "\n"),
        1U)
        << r.trace;
  }
  EXPECT_EQ(occurrences(r.trace, getargsText), 5U) << r.trace;
}

CUL_CHILD(ProcessTableArgumentsThatGo) {
  static_cast<void>(isTraced(TraceType::error));  // The trace opens its file.
  WaitingProgram child({"x"});
  std::atomic<bool> isToEnd = true;
  const pid_t reader = gettid();
  const AnsweredCalls calls({{SYS_read, 2, 29, 29}}, [&](const SystemCall& call) {
    // The list: of so many bytes at most.
    if (call.task == reader && isToEnd.exchange(false)) {
      child.end();
      child.reap();
    }
    return 0;
  });
  EXPECT_EQ(argumentsOf(child.id(), 30).result, -1);
  EXPECT_FALSE(isToEnd);
  std::printf("%d\n", child.id());
}

TEST(ProcessTable, ArgumentsOfAProcessThatGoesWhileTheyAreReadCannotBeReadWhichIsTraced) {
  const TracedChildResult r = runTracedChild("ProcessTableArgumentsThatGo");
  EXPECT_EQ(r.child.status, 0) << r.child.out << r.child.err;
  const std::string id = std::to_string(std::atoi(r.child.out.c_str()));
  EXPECT_EQ(occurrences(r.trace, "): failed to read '/proc/" + id +
                                     "/cmdline' errno = " + std::to_string(ESRCH) + "\n"),
            1U)
      << r.trace;
  EXPECT_EQ(occurrences(r.trace, "**ERROR: " + getargsText), 1U) << r.trace;
  EXPECT_EQ(occurrences(r.trace, getargsText), 1U) << r.trace;
}

CUL_CHILD(ProcessTableWithoutABuffer) {
  procentry64 entry = {getpid()};
  std::vector<char> buffer(20, '~');
  for (const int length : {0, -1, -4096, INT_MIN}) {
    EXPECT_EQ(getargs(&entry, sizeof entry, buffer.data(), length), -1);
  }
  EXPECT_EQ(getargs(nullptr, sizeof entry, buffer.data(), 20), -1);
  EXPECT_EQ(getargs(&entry, sizeof entry, nullptr, 20), -1);
  EXPECT_EQ(buffer, std::vector<char>(20, '~'));
}

TEST(ProcessTable, BufferWithoutRoomAndNullArgumentsReadAndTraceNothing) {
  const TracedChildResult r = runTracedChild("ProcessTableWithoutABuffer");
  EXPECT_EQ(r.child.status, 0) << r.child.out << r.child.err;
  EXPECT_EQ(occurrences(r.trace, getargsText), 0U) << r.trace;
}

TEST(ProcessTable, SizesOfTheEntryAreNotLookedAt) {
  const WaitingProgram child({"x"});
  for (const int size : {INT_MIN, -1, 0, 4, 4096}) {
    procentry64 entry = {-77};
    pid_t index = child.id();
    EXPECT_EQ(getprocs64(&entry, size, nullptr, size, &index, 1), 1);
    EXPECT_EQ(entry.processId, child.id());
    char buffer[100];
    EXPECT_EQ(getargs(&entry, size, buffer, sizeof buffer), 0);
    EXPECT_STREQ(buffer, "waiter");
  }
}

}  // namespace
