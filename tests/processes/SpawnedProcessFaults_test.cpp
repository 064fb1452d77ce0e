#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <mutex>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "Engine/utilities/ProcessWaiter.h"
#include "Engine/utilities/SpawnedProcess.h"
#include "Engine/utilities/StdException.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/ThreadListener.h"
#include "Engine/utilities/TraceFlags.h"

#include "tests/processes/AnsweredCalls.h"
#include "tests/processes/FailingCall.h"
#include "tests/processes/SpawnedProcessSupport.h"
#include "tests/support/TracedChild.h"

using testing::ContainsRegex;

namespace {

constexpr const char* constructorText =
    "SpawnedProcess::SpawnedProcess(const EncodedString&, const EncodedString&, const "
    "List<EncodedString*>&, int, int)";

template <typename Operation>
void expectFailure(Operation operation, unsigned line, const char* text) {
  try {
    operation();
    ADD_FAILURE() << "nothing was thrown instead of " << text;
  } catch (const StdException& e) {
    EXPECT_STREQ(static_cast<const char*>(e.fileName), constructorText);
    EXPECT_EQ(e.line, line);
    EXPECT_STREQ(static_cast<const char*>(e.text), text);
    EXPECT_EQ(e.status, -1);
  }
}

void expectNotFound(const std::string& program, const std::string& path) {
  expectFailure(
      [&] {
        const SpawnedProcess process(utf8(program), utf8(path), List<EncodedString*>(), silenced,
                                     closed);
      },
      92, "File not found.");
  EXPECT_TRUE(hasNoChildren());
}

// A call that makes a child as the library does, rather than by a fork.
bool makesProgram(const SystemCall& call) {
  return call.number == SYS_clone && (call.arguments[0] & CLONE_VFORK) != 0;
}

// The trace has these errors and no others.
void expectErrors(const std::string& trace, const std::vector<std::string>& texts) {
  for (const std::string& text : texts) {
    EXPECT_EQ(occurrences(trace, text), 1U) << text << "\n" << trace;
  }
  EXPECT_EQ(occurrences(trace, "**ERROR: "), texts.size()) << trace;
}

}  // namespace

// No child

CUL_CHILD(ProgramsThatAreNotOnThePath) {
  const TemporaryFolder folder;
  writeFile(folder.file("plain"), "no program");
  std::filesystem::create_directory(folder.file("folder"));
  expectNotFound("cul-no-such-program", "/bin:/usr/bin");
  expectNotFound("plain", folder.path());
  expectNotFound("folder", folder.path());
  expectNotFound("sh", "");
  expectNotFound("sh", folder.path());
  expectNotFound("", "/bin");
}

TEST(SpawnedProcessFaults, RefusesAProgramThatIsNotOnThePath) {
  const ChildResult r = runChild("ProgramsThatAreNotOnThePath");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

CUL_CHILD(ForkFailsOnce) {
  (void)isTraced(TraceType::error);  // The trace opens its file.
  std::atomic<bool> isToFail = true;
  const AnsweredCalls calls({SYS_clone}, [&isToFail](const SystemCall& call) {
    return makesProgram(call) && isToFail.exchange(false) ? ENOMEM : 0;
  });
  const std::vector<std::string> before = targetsOfDescriptors();
  expectFailure([] { spawnShell("exit 0"); }, 189, "Fork failed.");
  EXPECT_FALSE(isToFail);
  EXPECT_TRUE(hasNoChildren());
  EXPECT_EQ(targetsOfDescriptors(), before);
  EXPECT_EQ(statusOf(spawnShell("exit 4")), 4 << 8);
}

TEST(SpawnedProcessFaults, ReportsAForkThatFails) {
  const TracedChildResult r = runTracedChild("ForkFailsOnce");
  EXPECT_EQ(r.child.status, 0) << r.child.out << r.child.err;
  expectErrors(r.trace,
               {"**ERROR: SpawnedProcess::SpawnedProcess(189): ::fork() failed with errno 12.\n"});
}

CUL_CHILD(ForkAtTheLimitOfProcesses) {
  if (geteuid() == 0) {
    // Root has no limit; any other user is over this one with the process itself.
    constexpr uid_t other = 65533;
    ASSERT_EQ(setresuid(other, other, other), 0);
    // What a change of users takes away; the leak check looks into its own process.
    prctl(PR_SET_DUMPABLE, 1);
  }
  rlimit before;
  getrlimit(RLIMIT_NPROC, &before);
  const rlimit one = {1, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NPROC, &one), 0);
  expectFailure([] { spawnShell("exit 0"); }, 189, "Fork failed.");
  EXPECT_TRUE(hasNoChildren());
  setrlimit(RLIMIT_NPROC, &before);
}

TEST(SpawnedProcessFaults, ReportsTheLimitOfProcesses) {
  const ChildResult r = runChild("ForkAtTheLimitOfProcesses");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

CUL_CHILD(ForkFailsWithASignalPending) {
  (void)isTraced(TraceType::error);  // The trace opens its file.
  // Of this signal's handlers alone the thread sanitizer lets one leave another error behind.
  signal(SIGTERM, [](int) { errno = EBADF; });
  const pid_t starter = gettid();
  const AnsweredCalls calls({SYS_clone}, [starter](const SystemCall& call) {
    if (!makesProgram(call)) {
      return 0;
    }
    EXPECT_EQ(tgkill(getpid(), starter, SIGTERM), 0);
    return ENOMEM;
  });
  expectFailure([] { spawnShell("exit 0"); }, 189, "Fork failed.");
}

TEST(SpawnedProcessFaults, ReportsTheErrorOfTheForkWhateverAHandlerLeavesBehind) {
  const TracedChildResult r = runTracedChild("ForkFailsWithASignalPending");
  EXPECT_EQ(r.child.status, 0) << r.child.out << r.child.err;
  expectErrors(r.trace,
               {"**ERROR: SpawnedProcess::SpawnedProcess(189): ::fork() failed with errno 12.\n"});
}

// No program

TEST(SpawnedProcessFaults, EndsTheChildWith1WhenThereIsNoProgramAtAnAbsolutePath) {
  EXPECT_EQ(statusOf(spawn("/cul/no/such/program", {})), 256);
  EXPECT_EQ(statusOf(spawn("/", {})), 256);
}

TEST(SpawnedProcessFaults, EndsTheChildWith1WhenTheFileIsNoProgram) {
  const TemporaryFolder folder;
  writeFile(folder.file("program"), "this is not a program\n");
  ASSERT_EQ(chmod(folder.file("program").c_str(), 0755), 0);
  const SpawnedProcess process(utf8("program"), utf8(folder.path()), List<EncodedString*>(),
                               silenced, closed);
  EXPECT_EQ(statusOf(process), 256);
}

TEST(SpawnedProcessFaults, EndsTheChildWith1WhenAnArgumentIsTooLong) {
  const std::string tooLong(size_t{33} * 4096, 'x');
  EXPECT_EQ(statusOf(spawn("/bin/true", {tooLong})), 256);
  EXPECT_EQ(statusOf(spawn("/bin/true", {tooLong.substr(0, tooLong.size() - 4097)})), 0);
}

CUL_CHILD(ExecuteFailsOnce) {
  std::atomic<bool> isToFail = true;
  const AnsweredCalls calls({SYS_execve}, [&isToFail](const SystemCall&) {
    return isToFail.exchange(false) ? ENOMEM : 0;
  });
  EXPECT_EQ(statusOf(spawn("/bin/true", {})), 256);
  EXPECT_FALSE(isToFail);
  EXPECT_EQ(statusOf(spawn("/bin/true", {})), 0);
}

TEST(SpawnedProcessFaults, EndsTheChildWith1WhenItCannotExecuteTheProgram) {
  const ChildResult r = runChild("ExecuteFailsOnce");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

CUL_CHILD(FailToExecuteInAProcessWithAnExitHandler) {
  atexit([] { static_cast<void>(!write(STDOUT_FILENO, "ended\n", 6)); });
  EXPECT_EQ(statusOf(spawn("/cul/no/such/program", {}, shared)), 256);
}

TEST(SpawnedProcessFaults, EndsTheChildWithoutWhatItsParentDoesAtItsEnd) {
  const ChildResult r = runChild("FailToExecuteInAProcessWithAnExitHandler");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_EQ(r.out, "ended\n");
}

// Streams and descriptors

namespace {

// How many descriptors above 2 a program finds, and how many streams lead to "/dev/null".
void expectSilencedAndClosed(unsigned streams = 3) {
  const TemporaryFolder folder;
  EXPECT_EQ(
      statusOf(spawnShell("(ls -l /proc/$$/fd > \"$0\" 2>&1); exit 0", {folder.file("list")})), 0);
  const std::string list = contentsOf(folder.file("list"));
  EXPECT_EQ(occurrences(list, " -> /dev/null\n"), streams) << list;
  EXPECT_EQ(occurrences(list, " -> "), streams) << list;
}

// How the calls are answered that a child makes before it is a program.
class AnsweredChild {
 public:
  AnsweredChild()
      : calls_({openForWriting, closeStream, duplicate, SYS_close_range},
               [this](const SystemCall& call) {
                 const std::lock_guard lock(mutex_);
                 return call.isMadeByChild && answer_ ? answer_(call) : 0;
               }) {}

  // From now on.
  void answer(SystemCallAnswer answer) {
    const std::lock_guard lock(mutex_);
    answer_ = std::move(answer);
  }

 private:
  std::mutex mutex_;
  SystemCallAnswer answer_;
  const AnsweredCalls calls_;
};

}  // namespace

CUL_CHILD(CloseRangeFails) {
  const DescriptorLimit limit(300);
  for (const int fd : {3, 100, 298, 299}) {
    ASSERT_EQ(dup2(0, fd), fd);
  }
  AnsweredChild child;
  std::atomic<unsigned> failed = 0;
  child.answer([&failed](const SystemCall& call) {
    const bool isToFail = call.number == SYS_close_range && call.arguments[0] == 3 &&
                          call.arguments[1] == ~0U && call.arguments[2] == 0;
    failed += isToFail ? 1 : 0;
    return isToFail ? ENOSYS : 0;
  });
  expectSilencedAndClosed();
  EXPECT_EQ(failed, 1U);
  // The limit counts, not what is open.
  const DescriptorLimit lower(299);
  const TemporaryFolder folder;
  EXPECT_EQ(statusOf(spawnShell("(ls /proc/$$/fd > \"$0\"); exit 0", {folder.file("list")})), 0);
  EXPECT_EQ(contentsOf(folder.file("list")), "0\n1\n2\n299\n");
  EXPECT_EQ(failed, 2U);
}

TEST(SpawnedProcessFaults, ClosesTheDescriptorsOneByOneWhenTheyCannotBeClosedAtOnce) {
  const ChildResult r = runChild("CloseRangeFails");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

CUL_CHILD(CloseRangeFailsAndTheLimitIsUnknown) {
  const DescriptorLimit limit(300);
  for (const int fd : {3, 255, 256}) {
    ASSERT_EQ(dup2(0, fd), fd);
  }
  std::atomic<unsigned> failed = 0;
  const AnsweredCalls calls({SYS_close_range,
                             {SYS_getrlimit, 0, RLIMIT_NOFILE, RLIMIT_NOFILE},
                             {SYS_prlimit64, 1, RLIMIT_NOFILE, RLIMIT_NOFILE}},
                            [&failed](const SystemCall& call) {
                              failed += call.isMadeByChild ? 1 : 0;
                              return call.isMadeByChild ? EPERM : 0;
                            });
  const TemporaryFolder folder;
  EXPECT_EQ(statusOf(spawnShell("(ls /proc/$$/fd > \"$0\"); exit 0", {folder.file("list")})), 0);
  EXPECT_EQ(contentsOf(folder.file("list")), "0\n1\n2\n256\n");
  EXPECT_EQ(failed, 2U);
}

TEST(SpawnedProcessFaults, ClosesTheFirst256DescriptorsWhenNothingTellsHowManyThereMayBe) {
  const ChildResult r = runChild("CloseRangeFailsAndTheLimitIsUnknown");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

CUL_CHILD(StreamsFail) {
  AnsweredChild child;
  {
    // A stream whose close fails is left alone.
    child.answer([](const SystemCall& call) {
      return call.number == SYS_close && call.arguments[0] == 1 ? EIO : 0;
    });
    const TemporaryFolder folder;
    const SpawnedProcess process =
        spawnShell("(ls -l /proc/$$/fd > \"$0\"); echo still there", {folder.file("list")});
    EXPECT_EQ(statusOf(process), 0);
    EXPECT_EQ(occurrences(contentsOf(folder.file("list")), " -> /dev/null\n"), 2U);
  }
  {
    std::atomic<bool> isToFail = true;
    child.answer([&isToFail](const SystemCall& call) {
      return call.number == SYS_fcntl && call.arguments[1] == F_DUPFD && isToFail.exchange(false)
                 ? EMFILE
                 : 0;
    });
    expectSilencedAndClosed(2);
    EXPECT_FALSE(isToFail);
  }
  {
    // The second attempt succeeds.
    std::atomic<bool> isToFail = true;
    child.answer([&isToFail](const SystemCall& call) {
      return call.number == SYS_openat && isToFail.exchange(false) ? ENFILE : 0;
    });
    expectSilencedAndClosed();
    EXPECT_FALSE(isToFail);
  }
  {
    std::atomic<unsigned> failed = 0;
    child.answer([&failed](const SystemCall& call) {
      failed += call.number == SYS_openat ? 1 : 0;
      return call.number == SYS_openat ? ENOENT : 0;
    });
    expectSilencedAndClosed(0);
    EXPECT_EQ(failed, 4U);
  }
}

TEST(SpawnedProcessFaults, SilencesWhatItCan) {
  const ChildResult r = runChild("StreamsFail");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_EQ(r.out, "still there\n");
}

CUL_CHILD(OpenFailsOnceWithoutStandardInput) {
  AnsweredChild child;
  std::atomic<bool> isToFail = true;
  child.answer([&isToFail](const SystemCall& call) {
    return call.number == SYS_openat && isToFail.exchange(false) ? ENFILE : 0;
  });
  const int saved = fcntl(0, F_DUPFD_CLOEXEC, 3);
  close(0);
  expectSilencedAndClosed(2);
  dup2(saved, 0);
  EXPECT_FALSE(isToFail);
}

TEST(SpawnedProcessFaults, LeavesAClosedStreamClosedAlsoAtTheSecondAttempt) {
  const ChildResult r = runChild("OpenFailsOnceWithoutStandardInput");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

// No waiter

namespace {

std::atomic<unsigned> childrenMade = 0;

// Spawns a program that would run for ever, expects a failure after it was forked off, and
// looks for what is left of it.
template <typename Exception>
void expectKilledChild(const CallFailure& failure, int status) {
  const TemporaryFolder folder;
  const std::vector<std::string> descriptors = targetsOfDescriptors();
  const size_t threads = threadCount();
  const unsigned childrenBefore = childrenMade;
  const FailingCall failing(failure);
  try {
    spawnShell("while :; do sleep 1; done");
    ADD_FAILURE() << "nothing was thrown";
  } catch (const Exception& e) {
    EXPECT_EQ(e.status, status);
  }
  EXPECT_EQ(childrenMade, childrenBefore + 1);
  EXPECT_TRUE(hasNoChildren());
  EXPECT_EQ(targetsOfDescriptors(), descriptors);
  EXPECT_LE(threadCount(), threads + 1);
}

}  // namespace

CUL_CHILD(ThreadsFail) {
  const AnsweredCalls calls({SYS_clone}, [](const SystemCall& call) {
    childrenMade += makesProgram(call) ? 1 : 0;
    return 0;
  });
  const CallFailure noThread = {.call = LibcCall::createThread, .result = EAGAIN};
  // The timer is the first thread.
  expectKilledChild<StdException>(noThread, -1);
  EXPECT_EQ(statusOf(spawnShell("exit 3")), 3 << 8);
  expectKilledChild<StdException>(noThread, -1);
  expectKilledChild<StdException>({.call = LibcCall::initCondition, .result = ENOMEM}, ENOMEM);
  EXPECT_EQ(statusOf(spawnShell("exit 4")), 4 << 8);
}

TEST(SpawnedProcessFaults, KillsAndReapsAChildThatNobodyWouldWaitFor) {
  const ChildResult r = runChild("ThreadsFail");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

// Waiting

CUL_CHILD(WaitIsInterrupted) {
  const FailingCall failing({.call = LibcCall::waitpid, .error = EINTR, .times = 5});
  EXPECT_EQ(statusOf(spawnShell("exit 3")), 3 << 8);
  EXPECT_TRUE(hasNoChildren());
}

TEST(SpawnedProcessFaults, WaitsOnAfterAnInterruption) {
  const TracedChildResult r = runTracedChild("WaitIsInterrupted");
  EXPECT_EQ(r.child.status, 0) << r.child.out << r.child.err;
  expectErrors(r.trace, {});
}

CUL_CHILD(InterruptTheWaitForReal) {
  struct sigaction handled = {};
  handled.sa_handler = [](int) {};
  sigaction(SIGUSR1, &handled, nullptr);
  const pid_t process = fork();
  if (process == 0) {
    pause();
    _exit(6);
  }
  std::atomic<int> result = -2;
  std::thread waiting([&] { result = ProcessWaiter(process).work(); });
  for (int i = 0; i < 50; ++i) {
    pthread_kill(waiting.native_handle(), SIGUSR1);
    usleep(1000);
  }
  EXPECT_EQ(result, -2);
  // Not one that the child may have inherited a handler for.
  kill(process, SIGKILL);
  waiting.join();
  EXPECT_EQ(result, SIGKILL);
}

TEST(SpawnedProcessFaults, WaitsOnAfterRealInterruptions) {
  const ChildResult r = runChild("InterruptTheWaitForReal");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

CUL_CHILD(WaitFails) {
  {
    const FailingCall failing({.call = LibcCall::waitpid, .error = ECHILD});
    EXPECT_EQ(statusOf(spawnShell("exit 3")), -1);
  }
  // The one that was not reaped above.
  int status = -1;
  EXPECT_GT(waitpid(-1, &status, 0), 0);
  EXPECT_EQ(status, 3 << 8);
  EXPECT_FALSE(WIFEXITED(-1) || WIFSIGNALED(-1));
}

TEST(SpawnedProcessFaults, ReportsAWaitThatFails) {
  const TracedChildResult r = runTracedChild("WaitFails");
  EXPECT_EQ(r.child.status, 0) << r.child.out << r.child.err;
  EXPECT_THAT(r.trace, ContainsRegex("[(]ThrdList[)][*][*]ERROR: virtual int "
                                     "ProcessWaiter::work[(][0-9]+[)]: ::waitpid[(][0-9]+[)] "
                                     "failed with errno 10[.]\n"));
  EXPECT_EQ(occurrences(r.trace, "**ERROR: "), 1U) << r.trace;
}

CUL_CHILD(ReapedBySomebodyElse) {
  const pid_t process = fork();
  if (process == 0) {
    _exit(6);
  }
  EXPECT_EQ(waitpid(process, nullptr, 0), process);
  EXPECT_EQ(ProcessWaiter(process).work(), -1);
  EXPECT_EQ(ProcessWaiter(getpid()).work(), -1);
}

CUL_CHILD(ReapedByTheSystem) {
  signal(SIGCHLD, SIG_IGN);
  HeldProgram program;
  const SpawnedProcess process = program.start();
  EXPECT_FALSE(process.done());
  program.release();
  EXPECT_EQ(statusOf(process), -1);
  EXPECT_TRUE(program.cameToItsEnd());
}

TEST(SpawnedProcessFaults, TellsThatSomebodyElseHasReapedTheChild) {
  for (const char* name : {"ReapedBySomebodyElse", "ReapedByTheSystem"}) {
    const ChildResult r = runChild(name);
    EXPECT_EQ(r.status, 0) << r.out << r.err;
  }
}

namespace {

class WaiterThread : public StdThread {
 public:
  WaiterThread(pid_t process, std::atomic<int>& status, Termination& end)
      : StdThread("Waiter", 0, &end), process_(process), status_(status) {}
  void run() override { status_ = ProcessWaiter(process_).work(); }

 private:
  pid_t process_;
  std::atomic<int>& status_;
};

}  // namespace

CUL_CHILD(AskTheWaiterToEnd) {
  int gate[2];
  ASSERT_EQ(pipe2(gate, O_CLOEXEC), 0);
  const pid_t process = fork();
  if (process == 0) {
    close(gate[1]);
    char byte;
    _exit(read(gate[0], &byte, 1) == 1 ? 6 : 1);
  }
  std::atomic<int> status = -2;
  StdThread::Termination end;
  const FailingCall interruption({.call = LibcCall::waitpid, .error = EINTR});
  (new WaiterThread(process, status, end))->start_thread(0);
  ASSERT_TRUE(waitUntil([&] { return interruption.answered() == 1; }));
  for (int i = 0; i < 10; ++i) {
    // What requestTerminate() does, without the object that its thread will delete.
    EXPECT_EQ(pthread_kill(end.threadId(), SIGUSR2), 0);
    usleep(1000);
  }
  EXPECT_EQ(status, -2);
  EXPECT_EQ(write(gate[1], "x", 1), 1);
  EXPECT_EQ(end.wait(0), 0);
  EXPECT_EQ(status, 6 << 8);
  EXPECT_TRUE(hasNoChildren());
}

TEST(SpawnedProcessFaults, ReapsTheChildAlsoWhenTheWaiterIsAskedToEnd) {
  const ChildResult r = runChild("AskTheWaiterToEnd");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

namespace {

// Starts a program and stays.
class StarterThread : public StdThread {
 public:
  StarterThread(std::string folder, Termination& end)
      : StdThread("Starter", 0, &end), folder_(std::move(folder)) {}
  void run() override {
    const SpawnedProcess process = spawnShell(HeldProgram::command(), {folder_});
    for (;;) {
      pause();
    }
  }

 private:
  std::string folder_;
};

}  // namespace

CUL_CHILD(AskTheStarterToEnd) {
  // From the second start on, a pass of the timer takes much longer than a start.
  EXPECT_EQ(statusOf(spawnShell("exit 0")), 0);
  HeldProgram program;
  StdThread::Termination end;
  (new StarterThread(program.folder(), end))->start_thread(0);
  program.awaitStart();
  EXPECT_EQ(pthread_kill(end.threadId(), SIGUSR2), 0);
  EXPECT_EQ(end.wait(0), 0);
  EXPECT_TRUE(isRunning(program.process()));
  program.release();
  EXPECT_TRUE(waitUntil(hasNoChildren));
  EXPECT_TRUE(program.cameToItsEnd());
}

CUL_CHILD(AskTheStarterToEndBeforeThereIsAProgram) {
  EXPECT_EQ(statusOf(spawnShell("exit 0")), 0);
  HeldProgram program;
  StdThread::Termination end;
  std::atomic<unsigned> asked = 0;
  // The starter inherits the answers from its creator.
  const AnsweredCalls calls({SYS_execve}, [&](const SystemCall&) {
    EXPECT_EQ(pthread_kill(end.threadId(), SIGUSR2), 0);
    ++asked;
    return 0;
  });
  (new StarterThread(program.folder(), end))->start_thread(0);
  EXPECT_EQ(end.wait(0), 0);
  EXPECT_EQ(asked, 1U);
  program.awaitStart();
  EXPECT_TRUE(isRunning(program.process()));
  program.release();
  EXPECT_TRUE(waitUntil(hasNoChildren));
  EXPECT_TRUE(program.cameToItsEnd());
}

TEST(SpawnedProcessFaults, WatchesTheChildOfAThreadThatIsAskedToEndDuringTheStart) {
  // A thread that ends does so in its signal handler, which the thread sanitizer dislikes.
  const char* const given = getenv("TSAN_OPTIONS");
  const std::string options = given != nullptr ? std::string(given).append(":") : "";
  for (const char* name : {"AskTheStarterToEnd", "AskTheStarterToEndBeforeThereIsAProgram"}) {
    const ChildResult r =
        runChild(name, {.environment = {{"TSAN_OPTIONS", options + "report_signal_unsafe=0"}}});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
  }
}

// Many

CUL_CHILD(SpawnFiveHundred) {
  EXPECT_EQ(statusOf(spawnShell("exit 0")), 0);
  const std::vector<std::string> descriptors = targetsOfDescriptors();
#if defined(__SANITIZE_THREAD__)
  constexpr size_t mainAndTimer = 3;  // and the sanitizer's
#else
  constexpr size_t mainAndTimer = 2;
#endif
  EXPECT_TRUE(waitUntil([] { return threadCount() == mainAndTimer; }));
  std::vector<std::thread> spawning;
  constexpr int threads = 20;
  spawning.reserve(threads);
  std::atomic<unsigned> ended = 0;
  for (int thread = 0; thread < threads; ++thread) {
    spawning.emplace_back([thread, &ended] {
      constexpr int each = 25;
      for (int i = 0; i < each; ++i) {
        const int code = (thread * each + i) % 256;
        ended += statusOf(spawnShell("exit $0", {std::to_string(code)})) == code << 8 ? 1 : 0;
      }
    });
  }
  for (std::thread& thread : spawning) {
    thread.join();
  }
  EXPECT_EQ(ended, 500U);
  EXPECT_TRUE(hasNoChildren());
  int status = 0;
  EXPECT_EQ(waitpid(-1, &status, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
  EXPECT_EQ(targetsOfDescriptors(), descriptors);
  EXPECT_TRUE(waitUntil([] { return threadCount() == mainAndTimer; })) << threadCount();
}

TEST(SpawnedProcessFaults, LeavesNothingBehindAfterFiveHundredChildren) {
  const ChildResult r = runChild("SpawnFiveHundred");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

CUL_CHILD(SpawnManyAtOnceAndDropThem) {
  constexpr int others = 5;
  std::vector<SpawnedProcess> processes;
  HeldProgram program;
  processes.push_back(program.start());
  for (int i = 0; i < others; ++i) {
    processes.push_back(spawnShell("read line < \"$0/gate\"; exit 7", {program.folder()}));
  }
  for (const SpawnedProcess& process : processes) {
    EXPECT_FALSE(process.done());
  }
  processes.clear();
  const int gate = open((program.folder() + "/gate").c_str(), O_RDWR | O_CLOEXEC);
  for (int i = 0; i < others; ++i) {
    EXPECT_EQ(write(gate, "\n", 1), 1);
  }
  program.release();
  EXPECT_TRUE(waitUntil(hasNoChildren));
  close(gate);
}

TEST(SpawnedProcessFaults, ReapsChildrenThatAreForgotten) {
  const ChildResult r = runChild("SpawnManyAtOnceAndDropThem");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

CUL_CHILD(SpawnWhileOthersAllocateAndTrace) {
  EXPECT_EQ(statusOf(spawnShell("exit 0")), 0);
  std::atomic<bool> isOver = false;
  std::vector<std::thread> others;
  others.reserve(3);
  for (int thread = 0; thread < 3; ++thread) {
    others.emplace_back([&isOver] {
      while (!isOver) {
        EncodedString text = utf8("some text");
        for (int i = 0; i < 20; ++i) {
          text += text.subString(1, static_cast<unsigned>(i), L' ');
        }
        const std::string other(1000, 'x');
        CUL_TRACE(TraceType::error, "void others()", 1, "%s", other.c_str());
      }
    });
  }
  // Several at once: each start waits for the timer.
  std::vector<std::thread> spawning;
  spawning.reserve(5);
  for (int thread = 0; thread < 5; ++thread) {
    spawning.emplace_back([] {
      for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(statusOf(spawnShell("exit 3")), 3 << 8);
      }
    });
  }
  for (std::thread& thread : spawning) {
    thread.join();
  }
  isOver = true;
  for (std::thread& other : others) {
    other.join();
  }
  EXPECT_TRUE(hasNoChildren());
}

TEST(SpawnedProcessFaults, StartsProgramsWhileOtherThreadsHoldLocks) {
  const TemporaryFolder folder;
  const ChildResult r =
      runChild("SpawnWhileOthersAllocateAndTrace",
               {.environment = {{"GDIA_ID", "root"}, {"QVX_DBG_TRACE", folder.file("trace")}}});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}
