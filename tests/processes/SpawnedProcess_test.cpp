#include "Engine/utilities/SpawnedProcess.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <pthread.h>
#include <set>
#include <string>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "Engine/utilities/ProcessWaiter.h"
#include "Engine/utilities/ThreadListener.h"

#include "tests/processes/AnsweredCalls.h"
#include "tests/processes/SpawnedProcessSupport.h"
#include "tests/support/EnvironmentGuard.h"
#include "tests/support/Terminal.h"
#include "tests/support/TracedChild.h"

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::Contains;
using testing::Not;

namespace {

std::string withZeros(const std::vector<std::string>& texts) {
  std::string result;
  for (const std::string& text : texts) {
    result += text;
    result += '\0';
  }
  return result;
}

// A folder with a link to a program of the system under a name of the test's own.
class OwnProgram {
 public:
  explicit OwnProgram(const std::string& name, const std::string& target = "/bin/sh")
      : file_(folder_.file(name)) {
    std::filesystem::create_symlink(target, file_);
  }
  [[nodiscard]] const std::string& folder() const { return folder_.path(); }
  [[nodiscard]] const std::string& file() const { return file_; }

 private:
  TemporaryFolder folder_;
  std::string file_;
};

// What a program of the shell sees as its whole argument vector.
std::string vectorSeenBy(const EncodedString& program, const EncodedString& path,
                         const std::vector<std::string>& more) {
  const TemporaryFolder folder;
  std::vector<std::string> texts = {"-c", "cat /proc/$$/cmdline > \"$0\"", folder.file("seen")};
  texts.insert(texts.end(), more.begin(), more.end());
  const SpawnedProcess process(program, path, Arguments(texts).list(), silenced, closed);
  EXPECT_EQ(statusOf(process), 0);
  std::string seen = contentsOf(folder.file("seen"));
  const std::string own = withZeros(texts);
  const size_t at = seen.find('\0') + 1;
  EXPECT_EQ(seen.substr(at), own);
  return seen.substr(0, at - 1);
}

}  // namespace

static_assert(std::is_copy_constructible_v<SpawnedProcess>);
static_assert(std::is_base_of_v<Runnable, ProcessWaiter>);

TEST(SpawnedProcess, RunsTheProgramFoundAlongThePath) {
  const OwnProgram program("cul-own-shell");
  EXPECT_EQ(vectorSeenBy(utf8("cul-own-shell"), utf8("/bin:" + program.folder() + ":/usr/bin"), {}),
            program.folder() + "/cul-own-shell");
}

TEST(SpawnedProcess, TakesAnAbsolutePathAsItIs) {
  EXPECT_EQ(vectorSeenBy(utf8("/bin/../bin/sh"), utf8(""), {}), "/bin/../bin/sh");
}

TEST(SpawnedProcess, GivesTheProgramItsArgumentsAsTheyAreStored) {
  vectorSeenBy(utf8("/bin/sh"), utf8(""), {});
  const std::string letters = "Gr\xC3\xBC\xC3\x9F, \xE2\x82\xAC, \xF0\x9F\x90\x9E";
  vectorSeenBy(utf8("/bin/sh"), utf8(""),
               {"", "two words", " ", "", "*", "$HOME", "'quoted' \"too\"", "a\\b", "-x",
                "line\nbreak", letters, "\xFF\xFE no UTF-8", ""});
}

TEST(SpawnedProcess, GivesTheProgramAThousandArguments) {
  std::vector<std::string> many;
  for (unsigned i = 0; i < 1000; ++i) {
    many.push_back("argument " + std::to_string(i));
  }
  vectorSeenBy(utf8("/bin/sh"), utf8(""), many);
}

TEST(SpawnedProcess, RunsAProgramWithoutArguments) {
  const SpawnedProcess process(utf8("true"), utf8("/bin:/usr/bin"), List<EncodedString*>(),
                               silenced, closed);
  EXPECT_EQ(statusOf(process), 0);
}

TEST(SpawnedProcess, NeedsTheArgumentsDuringTheConstructionOnly) {
  const TemporaryFolder folder;
  std::optional<SpawnedProcess> process;
  {
    EncodedString text = utf8(std::string(100, 'x'));
    EncodedString option = utf8("-c");
    EncodedString command = utf8("sleep 0.2; printf %s \"$1\" > \"$0\"");
    EncodedString file = utf8(folder.file("seen"));
    List<EncodedString*> list;
    for (EncodedString* argument : {&option, &command, &file, &text}) {
      list.add(argument);
    }
    process.emplace(utf8("/bin/sh"), utf8(""), list, silenced, closed);
  }
  EXPECT_EQ(statusOf(*process), 0);
  EXPECT_EQ(contentsOf(folder.file("seen")), std::string(100, 'x'));
}

CUL_CHILD(SpawnAProgramNamedInLatin1) {
  const TemporaryFolder folder;
  std::filesystem::create_symlink("/bin/sh", folder.file("h\xFClle"));
  EXPECT_EQ(vectorSeenBy(utf8("h\xC3\xBClle"), utf8(folder.path()), {"\xC3\xBC"}),
            folder.path() + "/h\xC3\xBClle");
}

TEST(SpawnedProcess, FindsTheFileUnderItsNativeNameAndLeavesTheTextsAsTheyAre) {
  const ChildResult r =
      runChild("SpawnAProgramNamedInLatin1", {.environment = {{"QVX_DBG_CODEPAGE", "ISO-8859-1"}}});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

TEST(SpawnedProcess, HandsOnTheEnvironmentAndTheWorkingDirectory) {
  const TemporaryFolder folder;
  const EnvironmentGuard guard("CUL_SPAWN_TEST", "a value");
  const SpawnedProcess process = spawnShell(
      "printf '%s %s' \"$CUL_SPAWN_TEST\" \"$(pwd -P)\" > \"$0\"", {folder.file("seen")});
  EXPECT_EQ(statusOf(process), 0);
  EXPECT_EQ(contentsOf(folder.file("seen")), "a value " + std::filesystem::canonical(".").string());
}

// Standard streams and descriptors

namespace {

using Descriptors = std::set<std::string>;

// The shell's own descriptors, without those of the command that lists them.
const std::string listDescriptors = "(ls -l /proc/$$/fd > \"$0\" 2>&1); exit 0";

// What the above has written, as "0 l-wx------ /dev/null" each.
Descriptors descriptorsIn(const std::string& file) {
  std::ifstream list(file);
  Descriptors result;
  for (std::string line; std::getline(list, line);) {
    const size_t arrow = line.find(" -> ");
    if (arrow != std::string::npos) {
      const size_t name = line.rfind(' ', arrow - 1) + 1;
      result.insert(line.substr(name, arrow - name) + " " + line.substr(0, 10) + " " +
                    line.substr(arrow + 4));
    }
  }
  return result;
}

// The descriptors that a program finds.
Descriptors descriptorsSeen(int sharesParentConsoleIO, int inheritsFileDescriptors) {
  const TemporaryFolder folder;
  EXPECT_EQ(statusOf(spawnShell(listDescriptors, {folder.file("list")}, sharesParentConsoleIO,
                                inheritsFileDescriptors)),
            0);
  return descriptorsIn(folder.file("list"));
}

// What the system itself hands on, without the standard streams.
Descriptors descriptorsOfPeer() {
  const TemporaryFolder folder;
  const std::string file = folder.file("list");
  const pid_t process = fork();
  if (process == 0) {
    close(0);
    close(1);
    close(2);
    execl("/bin/sh", "sh", "-c", listDescriptors.c_str(), file.c_str(), nullptr);
    _exit(1);
  }
  int status = -1;
  EXPECT_EQ(waitpid(process, &status, 0), process);
  EXPECT_EQ(status, 0);
  return descriptorsIn(file);
}

const std::string nullStreams[] = {"0 l-wx------ /dev/null", "1 l-wx------ /dev/null",
                                   "2 l-wx------ /dev/null"};
const Descriptors allNull = {nullStreams[0], nullStreams[1], nullStreams[2]};

Descriptors operator+(Descriptors all, const Descriptors& more) {
  all.insert(more.begin(), more.end());
  return all;
}

// An open file of the test's own.
class OpenFile {
 public:
  explicit OpenFile(int flags) : handle_(open("/dev/zero", O_RDONLY | flags)) {
    EXPECT_GT(handle_, 2);
  }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;
  ~OpenFile() { close(handle_); }
  [[nodiscard]] int handle() const { return handle_; }

 private:
  int handle_;
};

// Closes some of the standard streams until the end of the scope.
class StreamsClosed {
 public:
  explicit StreamsClosed(unsigned mask) : mask_(mask) {
    for (int stream = 0; stream < 3; ++stream) {
      saved_[stream] = fcntl(stream, F_DUPFD_CLOEXEC, 3);
      if (isClosed(stream)) {
        close(stream);
      }
    }
  }
  StreamsClosed(const StreamsClosed&) = delete;
  StreamsClosed& operator=(const StreamsClosed&) = delete;
  ~StreamsClosed() {
    for (int stream = 0; stream < 3; ++stream) {
      dup2(saved_[stream], stream);
      close(saved_[stream]);
    }
  }

  // What a program is to find in place of the streams that are open.
  [[nodiscard]] Descriptors whenSilenced() const {
    Descriptors result;
    for (int stream = 0; stream < 3; ++stream) {
      if (!isClosed(stream)) {
        result.insert(nullStreams[stream]);
      }
    }
    return result;
  }

 private:
  [[nodiscard]] bool isClosed(int stream) const { return (mask_ >> stream & 1U) != 0; }

  unsigned mask_;
  int saved_[3];
};

int anyOpen() {
  int fd = 0;
  while (fcntl(fd, F_GETFD) == -1) {
    ++fd;
  }
  return fd;
}

// Occupies all descriptors below a number until the end of the scope. Standard streams that
// are closed stay so.
class DescriptorsUsedUp {
 public:
  DescriptorsUsedUp(int end, int command) {
    const int any = anyOpen();
    for (int fd = 0; fd + 1 < end && (fd = fcntl(any, command, 3)) >= 0;) {
      used_.push_back(fd);
    }
  }
  DescriptorsUsedUp(const DescriptorsUsedUp&) = delete;
  DescriptorsUsedUp& operator=(const DescriptorsUsedUp&) = delete;
  ~DescriptorsUsedUp() {
    for (const int fd : used_) {
      close(fd);
    }
  }

 private:
  std::vector<int> used_;
};

}  // namespace

TEST(SpawnedProcess, SilencesTheStreamsAndClosesTheDescriptorsByDefault) {
  const OpenFile file(0);
  EXPECT_EQ(descriptorsSeen(silenced, closed), allNull);
}

TEST(SpawnedProcess, KeepsInheritableDescriptorsWhenAskedTo) {
  const OpenFile file(0);
  const OpenFile closedOnExec(O_CLOEXEC);
  const Descriptors more = descriptorsOfPeer();
  EXPECT_THAT(more, Contains(std::to_string(file.handle()) + " lr-x------ /dev/zero"));
  EXPECT_THAT(more, Not(Contains(std::to_string(closedOnExec.handle()) + " lr-x------ /dev/zero")));
  EXPECT_EQ(descriptorsSeen(silenced, inherited), allNull + more);
}

CUL_CHILD(WriteToBothStreams) {
  const int status =
      statusOf(spawnShell("echo to output; echo to error >&2; read line; echo \"$line\"; exit 3",
                          {}, std::stoi(childArguments().at(0)), closed));
  EXPECT_EQ(status, 3 << 8);
}

TEST(SpawnedProcess, WritesIntoNothingWhenSilenced) {
  const ChildResult r = runChild("WriteToBothStreams", {.input = "typed\n", .arguments = {"0"}});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "");
}

TEST(SpawnedProcess, UsesTheParentsStreamsWhenShared) {
  const ChildResult r = runChild("WriteToBothStreams", {.input = "typed\n", .arguments = {"1"}});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_EQ(r.out, "to output\ntyped\n");
  EXPECT_EQ(r.err, "to error\n");
}

TEST(SpawnedProcess, UsesTheParentsTerminalWhenShared) {
  Terminal terminal;
  terminal.startChild("WriteToBothStreams", {.arguments = {"1"}});
  terminal.readUntil("to error");
  terminal.type("typed\n");
  EXPECT_EQ(terminal.wait(), 0) << terminal.seen();
  EXPECT_EQ(terminal.seen(), asShown("to output\nto error\ntyped\ntyped\n"));
}

TEST(SpawnedProcess, KeepsTheTerminalOutOfASilencedProgram) {
  Terminal terminal;
  terminal.startChild("WriteToBothStreams", {.arguments = {"0"}});
  EXPECT_EQ(terminal.wait(), 0) << terminal.seen();
  EXPECT_EQ(terminal.seen(), "");
}

CUL_CHILD(SpawnWithClosedStreams) {
  const OpenFile file(0);
  const Descriptors more = descriptorsOfPeer();
  EXPECT_FALSE(more.empty());
  for (unsigned mask = 0; mask < 8; ++mask) {
    for (const int inherits : {closed, inherited}) {
      Descriptors expected;
      Descriptors seen;
      {
        const StreamsClosed streams(mask);
        expected = streams.whenSilenced();
        seen = descriptorsSeen(silenced, inherits);
      }
      EXPECT_EQ(seen, inherits == inherited ? expected + more : expected)
          << "streams closed: " << mask;
    }
  }
}

TEST(SpawnedProcess, LeavesClosedStreamsClosedAndNoDescriptorBehind) {
  const ChildResult r = runChild("SpawnWithClosedStreams");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

CUL_CHILD(ShareClosedStreams) {
  Descriptors seen;
  {
    const StreamsClosed streams(0b111);
    seen = descriptorsSeen(shared, closed);
  }
  EXPECT_EQ(seen, Descriptors());
}

TEST(SpawnedProcess, SharesClosedStreamsAsTheyAre) {
  const ChildResult r = runChild("ShareClosedStreams");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

CUL_CHILD(SpawnWithoutAFreeDescriptor) {
  // A sanitizer opens descriptors at the first use of a class.
  EXPECT_EQ(descriptorsSeen(silenced, closed), allNull);
  const Descriptors more = descriptorsOfPeer();
  for (unsigned mask = 0; mask < 8; ++mask) {
    for (const int inherits : {closed, inherited}) {
      const TemporaryFolder folder;
      Descriptors expected;
      int status = -1;
      {
        const StreamsClosed streams(mask);
        const DescriptorLimit limit(64);
        const DescriptorsUsedUp usedUp(64, F_DUPFD_CLOEXEC);
        EXPECT_EQ(fcntl(anyOpen(), F_DUPFD_CLOEXEC, 3), -1);
        expected = streams.whenSilenced();
        status = statusOf(spawnShell(listDescriptors, {folder.file("list")}, silenced, inherits));
      }
      EXPECT_EQ(status, 0);
      EXPECT_EQ(descriptorsIn(folder.file("list")),
                inherits == inherited ? expected + more : expected)
          << "streams closed: " << mask;
    }
  }
}

TEST(SpawnedProcess, SilencesTheStreamsAlsoWhenNoDescriptorIsFree) {
  const ChildResult r = runChild("SpawnWithoutAFreeDescriptor");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

CUL_CHILD(SpawnWithManyDescriptors) {
  const DescriptorLimit limit(10000);
  Descriptors seen;
  {
    const int end = limit.limit() - 10;
    const DescriptorsUsedUp usedUp(end, F_DUPFD);
    EXPECT_EQ(fcntl(end - 1, F_GETFD), 0) << "not open, or closed on exec";
    seen = descriptorsSeen(silenced, closed);
  }
  EXPECT_EQ(seen, allNull);
}

TEST(SpawnedProcess, ClosesThousandsOfDescriptors) {
  const ChildResult r = runChild("SpawnWithManyDescriptors");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

// Signals

namespace {

using SignalSets = std::map<std::string, std::string>;

// The lines on blocked, ignored and caught signals of a process that copied its status.
SignalSets signalSets(const std::string& file) {
  std::ifstream lines(file);
  SignalSets result;
  for (std::string line; std::getline(lines, line);) {
    for (const char* name : {"SigBlk", "SigIgn", "SigCgt"}) {
      if (line.starts_with(name)) {
        result[name] = line.substr(line.find('\t') + 1);
      }
    }
  }
  EXPECT_EQ(result.size(), 3U);
  return result;
}

SignalSets signalSetsOfSpawned() {
  const TemporaryFolder folder;
  EXPECT_EQ(statusOf(spawn("cp", {"/proc/self/status", folder.file("status")})), 0);
  return signalSets(folder.file("status"));
}

// What the system itself hands on, with SIGPIPE and SIGTTIN reset.
SignalSets signalSetsOfPeer() {
  const TemporaryFolder folder;
  const std::string target = folder.file("status");
  const pid_t process = fork();
  if (process == 0) {
    signal(SIGPIPE, SIG_DFL);
    signal(SIGTTIN, SIG_DFL);
    execl("/bin/cp", "cp", "/proc/self/status", target.c_str(), nullptr);
    _exit(1);
  }
  int status = -1;
  EXPECT_EQ(waitpid(process, &status, 0), process);
  EXPECT_EQ(status, 0);
  return signalSets(target);
}

}  // namespace

CUL_CHILD(SpawnWithSignals) {
  EXPECT_EQ(signalSetsOfSpawned(), signalSetsOfPeer());
  const std::string none(16, '0');
  EXPECT_EQ(signalSetsOfSpawned(),
            (SignalSets{{"SigBlk", none}, {"SigIgn", none}, {"SigCgt", none}}));
  // Others keep what the program has chosen.
  signal(SIGUSR1, SIG_IGN);
  signal(SIGINT, SIG_IGN);
  signal(SIGWINCH, [](int) {});
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR2);
  sigaddset(&blocked, SIGPIPE);
  sigaddset(&blocked, SIGRTMIN);
  pthread_sigmask(SIG_SETMASK, &blocked, nullptr);
  EXPECT_EQ(signalSetsOfSpawned(), signalSetsOfPeer());
  EXPECT_EQ(signalSetsOfSpawned(),
            (SignalSets{
                {"SigBlk", "0000000200001800"}, {"SigIgn", "0000000000000202"}, {"SigCgt", none}}));
  sigset_t after;
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  for (int signal = 1; signal <= SIGRTMAX; ++signal) {
    EXPECT_EQ(sigismember(&after, signal), sigismember(&blocked, signal)) << signal;
  }
  struct sigaction pipe;
  sigaction(SIGPIPE, nullptr, &pipe);
  EXPECT_EQ(pipe.sa_handler, SIG_IGN);
}

TEST(SpawnedProcess, HandsOnTheMaskAndTheIgnoredSignalsButForThoseTheLibraryIgnores) {
  const ChildResult r = runChild("SpawnWithSignals");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

TEST(SpawnedProcess, LetsABrokenPipeEndTheProgram) {
  EXPECT_EQ(statusOf(spawnShell("kill -PIPE $$; exit 5")), SIGPIPE);
  // As at a shell's prompt, with nobody reading.
  EXPECT_EQ(statusOf(spawnShell("{ yes; echo $? > \"$0\"; } | head -n 1; exit 5", {"/dev/null"})),
            5 << 8);
}

namespace {

constinit std::atomic<unsigned> handlersRun = 0;

void countHandler(int) { ++handlersRun; }

void handle(int signal, void (*handler)(int)) {
  struct sigaction action = {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  EXPECT_EQ(sigaction(signal, &action, nullptr), 0) << signal;
}

bool isForTheLibraryOrTheSystem(int signal) {
  return signal == SIGKILL || signal == SIGSTOP || signal == SIGUSR2 || signal == SIGPIPE ||
         signal == SIGTTIN || (signal >= 32 && signal < SIGRTMIN);
}

// The status of a child that gets a signal just before this system call.
int statusWithSignalAt(std::atomic<long>& at, long number) {
  at = number;
  const int status = statusOf(spawnShell("exit 5"));
  EXPECT_EQ(at, -1) << "the call never came";
  return status;
}

}  // namespace

CUL_CHILD(SignalsBetweenStartAndProgram) {
  handle(SIGUSR1, countHandler);
  std::atomic<long> at = -1;
  const AnsweredCalls calls(
      {SYS_rt_sigaction, openForWriting, SYS_close_range, SYS_rt_sigprocmask, SYS_execve},
      [&at](const SystemCall& call) {
        if (call.isMadeByChild && call.number == at) {
          at = -1;
          EXPECT_EQ(kill(call.task, SIGUSR1), 0);
        }
        return 0;
      });
  for (const long number :
       {SYS_rt_sigaction, SYS_openat, SYS_close_range, SYS_rt_sigprocmask, SYS_execve}) {
    EXPECT_EQ(statusWithSignalAt(at, number), SIGUSR1) << number;
    EXPECT_EQ(handlersRun, 0U) << "the handler ran in the child";
  }
  raise(SIGUSR1);
  EXPECT_EQ(handlersRun, 1U) << "the handler is gone from the parent";
  // What is ignored stays so.
  signal(SIGUSR1, SIG_IGN);
  for (const long number : {SYS_openat, SYS_execve}) {
    EXPECT_EQ(statusWithSignalAt(at, number), 5 << 8) << number;
  }
}

TEST(SpawnedProcess, NeverRunsAHandlerInTheChild) {
  const ChildResult r = runChild("SignalsBetweenStartAndProgram");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

CUL_CHILD(SignalsForTheParentMeanwhile) {
  // To the thread that starts, while it waits for its child to become the program.
  const pid_t starter = gettid();
  std::atomic<bool> isSent = false;
  handle(SIGUSR1, countHandler);
  const AnsweredCalls calls({SYS_execve}, [&](const SystemCall&) {
    if (!isSent.exchange(true)) {
      EXPECT_EQ(tgkill(getpid(), starter, SIGUSR1), 0);
      EXPECT_EQ(handlersRun, 0U);
    }
    return 0;
  });
  EXPECT_EQ(statusOf(spawnShell("exit 5")), 5 << 8);
  EXPECT_TRUE(isSent);
  EXPECT_EQ(handlersRun, 1U);
}

TEST(SpawnedProcess, HandsTheParentsSignalsToTheParentAfterTheStart) {
  const ChildResult r = runChild("SignalsForTheParentMeanwhile");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

CUL_CHILD(SpawnWithHandlersForAll) {
  // The library takes its own signals whenever it starts a thread.
  EXPECT_EQ(statusOf(spawnShell("exit 0")), 0);
  std::map<int, struct sigaction> before;
  for (int signal = 1; signal <= SIGRTMAX; ++signal) {
    if (!isForTheLibraryOrTheSystem(signal) && signal != SIGINT) {
      handle(signal, countHandler);
    }
  }
  signal(SIGINT, SIG_IGN);
  for (int signal = 1; signal <= SIGRTMAX; ++signal) {
    sigaction(signal, nullptr, &before[signal]);
  }
  const std::string none(16, '0');
  EXPECT_EQ(signalSetsOfSpawned(),
            (SignalSets{{"SigBlk", none}, {"SigIgn", "0000000000000002"}, {"SigCgt", none}}));
  for (int signal = 1; signal <= SIGRTMAX; ++signal) {
    struct sigaction after = {};
    sigaction(signal, nullptr, &after);
    EXPECT_EQ(after.sa_handler, before[signal].sa_handler) << signal;
    EXPECT_EQ(after.sa_flags, before[signal].sa_flags) << signal;
    for (int other = 1; other <= SIGRTMAX; ++other) {
      EXPECT_EQ(sigismember(&after.sa_mask, other), sigismember(&before[signal].sa_mask, other));
    }
  }
}

TEST(SpawnedProcess, KeepsTheHandlersOfTheParentAndHandsNoneOn) {
  const ChildResult r = runChild("SpawnWithHandlersForAll");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

// The child

namespace {

struct Steps {
  std::mutex mutex;
  std::vector<std::string> all;
};

// The calls on descriptors of a child before it is the program, as "close 1" each.
std::vector<std::string> stepsOf(int sharesParentConsoleIO, int inheritsFileDescriptors,
                                 Steps& steps) {
  EXPECT_EQ(statusOf(spawn("true", {}, sharesParentConsoleIO, inheritsFileDescriptors)), 0);
  const std::lock_guard lock(steps.mutex);
  return std::exchange(steps.all, {});
}

std::string nameOf(const SystemCall& call) {
  const auto argument = [&call](int i) {
    return " " + std::to_string(static_cast<int>(call.arguments[i]));
  };
  switch (call.number) {
    case SYS_openat:
      return "open" + argument(2);
    case SYS_close:
      return "close" + argument(0);
    case SYS_fcntl:
      return "fcntl" + argument(1) + argument(2);
    case SYS_close_range:
      return "close_range" + argument(0) + argument(1);
    case SYS_execve:
      return "execve";
    default:
      return "another";
  }
}

}  // namespace

CUL_CHILD(StepsOnDescriptors) {
  Steps steps;
  const AnsweredCalls calls({openForWriting, closeStream, duplicate, SYS_close_range, SYS_execve},
                            [&steps](const SystemCall& call) {
                              if (call.isMadeByChild) {
                                const std::lock_guard lock(steps.mutex);
                                steps.all.push_back(nameOf(call));
                              }
                              return 0;
                            });
  // The descriptor of the file, whose number is not one of these, is closed before the others.
  const std::vector<std::string> silence = {"open 1",    "close 0", "fcntl 0 0", "close 1",
                                            "fcntl 0 1", "close 2", "fcntl 0 2"};
  std::vector<std::string> silenceOnly = silence;
  silenceOnly.push_back("execve");
  std::vector<std::string> both = silence;
  both.insert(both.end(), {"close_range 3 -1", "execve"});
  EXPECT_EQ(stepsOf(silenced, closed, steps), both);
  EXPECT_EQ(stepsOf(silenced, inherited, steps), silenceOnly);
  EXPECT_EQ(stepsOf(shared, closed, steps),
            (std::vector<std::string>{"close_range 3 -1", "execve"}));
  EXPECT_EQ(stepsOf(shared, inherited, steps), std::vector<std::string>{"execve"});
}

TEST(SpawnedProcess, SilencesTheStreamsOneByOneAndThenClosesTheOthers) {
  const ChildResult r = runChild("StepsOnDescriptors");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

CUL_CHILD(SpawnWithHandlersOfForks) {
  static std::atomic<unsigned> run = 0;
  pthread_atfork([] { ++run; }, [] { ++run; }, [] { ++run; });
  EXPECT_EQ(statusOf(spawnShell("exit 5")), 5 << 8);
  EXPECT_EQ(run, 0U);
}

TEST(SpawnedProcess, RunsNoHandlersOfForks) {
  const ChildResult r = runChild("SpawnWithHandlersOfForks");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

CUL_CHILD(SpawnAndKeepErrno) {
  errno = 0;
  const SpawnedProcess process = spawn("/cul/no/such/program", {}, shared, inherited);
  EXPECT_EQ(statusOf(process), 256);
  // The child has got the reason, this process nothing.
  EXPECT_NE(errno, ENOENT);
}

TEST(SpawnedProcess, LeavesNoErrorOfTheChildInTheParent) {
  const ChildResult r = runChild("SpawnAndKeepErrno");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

CUL_CHILD(SpawnWithoutAnEnvironment) {
  clearenv();
  const TemporaryFolder folder;
  EXPECT_EQ(statusOf(spawnShell("cat /proc/$$/environ > \"$0\"", {folder.file("seen")})), 0);
  EXPECT_EQ(contentsOf(folder.file("seen")), "");
  setenv("ONLY", "one", 1);
  EXPECT_EQ(statusOf(spawnShell("cat /proc/$$/environ > \"$0\"", {folder.file("seen")})), 0);
  EXPECT_EQ(contentsOf(folder.file("seen")), std::string("ONLY=one") + '\0');
}

TEST(SpawnedProcess, HandsOnAnEmptyEnvironment) {
  const ChildResult r = runChild("SpawnWithoutAnEnvironment");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

// The kernel orders the two threads, which the thread sanitizer does not see.
#if !defined(__SANITIZE_THREAD__)
CUL_CHILD(SpawnWhileTheEnvironmentGrows) {
  // The child is about to read its environment when the array behind it moves.
  setenv("FIRST", "1", 1);
  std::atomic<unsigned> added = 0;
  const AnsweredCalls calls({SYS_execve}, [&added](const SystemCall&) {
    for (; added < 300; ++added) {
      setenv(("ADDED" + std::to_string(added)).c_str(), "x", 1);
    }
    return 0;
  });
  const TemporaryFolder folder;
  EXPECT_EQ(statusOf(spawnShell("cat /proc/$$/environ > \"$0\"", {folder.file("seen")})), 0);
  EXPECT_EQ(added, 300U);
  const std::string seen = contentsOf(folder.file("seen"));
  EXPECT_EQ(occurrences(seen, "FIRST=1"), 1U);
  EXPECT_EQ(occurrences(seen, "ADDED"), 0U);
}

TEST(SpawnedProcess, HandsOnTheEnvironmentOfTheMomentOfTheStart) {
  const ChildResult r = runChild("SpawnWhileTheEnvironmentGrows");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}
#endif

CUL_CHILD(SpawnOnThreadsBesideForks) {
  EXPECT_EQ(statusOf(spawnShell("exit 0")), 0);
  handle(SIGUSR1, countHandler);
  std::atomic<bool> isOver = false;
  const pid_t self = getpid();
  std::thread forking([&isOver] {
    while (!isOver) {
      const pid_t child = fork();
      if (child == 0) {
        _exit(3);
      }
      int status = 0;
      EXPECT_EQ(waitpid(child, &status, 0), child);
      EXPECT_EQ(status, 3 << 8);
    }
  });
  std::thread signalling([&isOver, self] {
    while (!isOver) {
      kill(self, SIGUSR1);
      usleep(1000);
    }
  });
  std::vector<std::thread> starting;
  starting.reserve(6);
  for (int thread = 0; thread < 6; ++thread) {
    starting.emplace_back([thread] {
      for (int i = 0; i < 15; ++i) {
        const int code = thread * 20 + i;
        EXPECT_EQ(statusOf(spawnShell("exit $0", {std::to_string(code)})), code << 8);
      }
    });
  }
  for (std::thread& thread : starting) {
    thread.join();
  }
  isOver = true;
  forking.join();
  signalling.join();
  EXPECT_TRUE(hasNoChildren());
}

TEST(SpawnedProcess, StartsProgramsOnManyThreadsWhileOthersForkAndSignalsCome) {
  const ChildResult r = runChild("SpawnOnThreadsBesideForks");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

// The end of the program

TEST(SpawnedProcess, GivesTheRawStatusOfWaitpid) {
  EXPECT_EQ(statusOf(spawnShell("exit 0")), 0);
  EXPECT_EQ(statusOf(spawnShell("exit 1")), 0x100);
  EXPECT_EQ(statusOf(spawnShell("exit 7")), 0x700);
  EXPECT_EQ(statusOf(spawnShell("exit 255")), 0xFF00);
  EXPECT_EQ(statusOf(spawnShell("kill -KILL $$")), SIGKILL);
  EXPECT_EQ(statusOf(spawnShell("kill -TERM $$")), SIGTERM);
}

TEST(SpawnedProcess, IsDoneWhenTheChildIsReaped) {
  HeldProgram program;
  const SpawnedProcess process = program.start();
  EXPECT_FALSE(process.done());
  EXPECT_TRUE(isRunning(program.process()));
  program.release();
  EXPECT_FALSE(process.wait(60));
  EXPECT_TRUE(process.done());
  EXPECT_FALSE(isRunning(program.process()));
  EXPECT_EQ(process.returnCode(), 7 << 8);
  EXPECT_TRUE(program.cameToItsEnd());
  // Again and again.
  EXPECT_FALSE(process.wait(0));
  EXPECT_FALSE(process.wait(60));
  EXPECT_TRUE(process.done());
  EXPECT_EQ(process.returnCode(), 7 << 8);
}

namespace {

template <typename Operation>
milliseconds timeOf(Operation operation) {
  const auto start = steady_clock::now();
  operation();
  return duration_cast<milliseconds>(steady_clock::now() - start);
}

// Expects that an operation takes a pass of the timer thread. A busy machine makes it longer
// at times, so it is repeated until it was short enough.
template <typename Operation>
void expectOnePass(Operation operation) {
  constexpr int fewTimes = 3;
  constexpr int manyTimes = 200;
  milliseconds shortest = milliseconds::max();
  milliseconds longest = milliseconds::zero();
  for (int i = 0; i < fewTimes || (i < manyTimes && shortest > milliseconds(60)); ++i) {
    const milliseconds time = timeOf(operation);
    shortest = std::min(shortest, time);
    longest = std::max(longest, time);
  }
  EXPECT_GE(longest, milliseconds(10));
  EXPECT_LE(shortest, milliseconds(60));
}

}  // namespace

TEST(SpawnedProcess, WaitsOnePassOfTheTimerForNoTimeAtAll) {
  HeldProgram program;
  const SpawnedProcess process = program.start();
  for (const int seconds : {0, 65536, 131072, -65536}) {
    SCOPED_TRACE(seconds);
    expectOnePass([&] { EXPECT_TRUE(process.wait(seconds)); });
  }
  expectOnePass([&] { EXPECT_FALSE(process.done()); });
}

TEST(SpawnedProcess, CountsTheLow16BitsOfTheSeconds) {
  HeldProgram program;
  const SpawnedProcess process = program.start();
  std::vector<std::thread> waiting;
  for (const int seconds : {1, 65537, -65535}) {
    waiting.emplace_back([&process, seconds] {
      const milliseconds time = timeOf([&] { EXPECT_TRUE(process.wait(seconds)); });
      EXPECT_GE(time, milliseconds(990)) << seconds;
      EXPECT_LE(time, milliseconds(20000)) << seconds;
    });
  }
  for (std::thread& thread : waiting) {
    thread.join();
  }
}

TEST(SpawnedProcess, EndsALongWaitWhenTheChildEnds) {
  HeldProgram program;
  const SpawnedProcess process = program.start();
  std::thread releasing([&] {
    EXPECT_TRUE(process.wait(0));
    program.release();
  });
  EXPECT_FALSE(process.wait(-1));
  EXPECT_EQ(process.returnCode(), 7 << 8);
  releasing.join();
}

TEST(SpawnedProcess, TakesAPassOfTheTimerToStartWhileTheChildRuns) {
  const TemporaryFolder folder;
  bool hasRunMeanwhile = false;
  expectOnePass([&] {
    const SpawnedProcess process = spawnShell(": > \"$0\"", {folder.file("mark")});
    hasRunMeanwhile |= std::filesystem::remove(folder.file("mark"));
    EXPECT_EQ(statusOf(process), 0);
    std::filesystem::remove(folder.file("mark"));
  });
  EXPECT_TRUE(hasRunMeanwhile);
}

TEST(SpawnedProcess, LeavesTheChildAloneWhenItGoes) {
  HeldProgram program;
  {
    const SpawnedProcess process = program.start();
    EXPECT_FALSE(process.done());
  }
  EXPECT_TRUE(isRunning(program.process()));
  program.release();
  // Reaped, too.
  EXPECT_TRUE(waitUntil([&] { return !isRunning(program.process()); }));
  EXPECT_TRUE(program.cameToItsEnd());
}

TEST(SpawnedProcess, SharesItsWaiterWithCopies) {
  HeldProgram program;
  std::optional<SpawnedProcess> original(program.start());
  const SpawnedProcess copy(*original);
  const SpawnedProcess copyOfCopy(copy);
  EXPECT_EQ(&*copy.getWaiter(), &*original->getWaiter());
  EXPECT_EQ(&*copyOfCopy.getWaiter(), &*original->getWaiter());
  EXPECT_FALSE(copy.done());
  original.reset();
  EXPECT_FALSE(copy.done());
  program.release();
  EXPECT_EQ(statusOf(copy), 7 << 8);
  EXPECT_EQ(statusOf(copyOfCopy), 7 << 8);
}

TEST(SpawnedProcess, ReportsTheSameThroughACopyAndTheOriginal) {
  const SpawnedProcess original = spawnShell("exit 9");
  EXPECT_EQ(statusOf(original), 9 << 8);
  const SpawnedProcess copy(original);
  EXPECT_TRUE(copy.done());
  EXPECT_EQ(copy.returnCode(), 9 << 8);
}

TEST(SpawnedProcess, GivesAwayAWaiterThatOutlivesIt) {
  HeldProgram program;
  const Reference<ThreadListener> waiter = program.start().getWaiter();
  EXPECT_TRUE(waiter->semaphore().wait(0, CUL_Event_Semaphore::Seconds, false));
  program.release();
  EXPECT_FALSE(waiter->semaphore().wait(60, CUL_Event_Semaphore::Seconds, false));
  EXPECT_EQ(waiter->result(), 7 << 8);
}

TEST(SpawnedProcess, TellsItsFlags) {
  constexpr std::pair<int, int> flags[] = {{0, 0}, {0, 1}, {1, 0}, {2, -1}, {-1, 256}, {256, 2}};
  for (const auto& [shares, inherits] : flags) {
    const SpawnedProcess process = spawn("true", {}, shares, inherits);
    EXPECT_EQ(process.sharesParentConsoleIO(), shares != 0);
    EXPECT_EQ(process.inheritsFileDescriptors(), inherits != 0);
    const SpawnedProcess copy(process);
    EXPECT_EQ(copy.sharesParentConsoleIO(), shares != 0);
    EXPECT_EQ(copy.inheritsFileDescriptors(), inherits != 0);
    EXPECT_EQ(statusOf(copy), 0);
  }
}
