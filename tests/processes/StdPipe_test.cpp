#include "Engine/utilities/StdPipe.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <new>
#include <string>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/StdException.h"
#include "Engine/utilities/TraceFlags.h"

#include "tests/support/TracedChild.h"

namespace {

constexpr const char* constructorText = "StdPipe::StdPipe()";
constexpr const char* readText = "int StdPipe::read(ByteString&, unsigned int) const";
constexpr const char* writeText = "int StdPipe::write(const void*, unsigned int) const";

bool isOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }
bool isClosedOnExec(int fd) { return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0; }
bool isBlocking(int fd) { return (fcntl(fd, F_GETFL) & O_NONBLOCK) == 0; }
void makeNonBlocking(int fd) { fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK); }

int lowestFreeDescriptor() {
  const int fd = dup(0);
  close(fd);
  return fd;
}

// Expects `operation` to throw a StdException with this location and text.
template <typename Operation>
void expectFailure(Operation operation, const char* function, unsigned line, const char* text) {
  try {
    operation();
    ADD_FAILURE() << "nothing was thrown instead of " << text;
  } catch (const StdException& e) {
    EXPECT_STREQ(static_cast<const char*>(e.fileName), function);
    EXPECT_EQ(e.line, line);
    EXPECT_STREQ(static_cast<const char*>(e.text), text);
    EXPECT_EQ(e.status, -1);
  }
}

// The process's trace opens its file at the first test of a switch: get that over with before
// system calls are made to fail.
void openTrace() { (void)isTraced(TraceType::error); }

// From now on one system call of this process fails with `error`, when its first argument is
// `first` and the argument `index` is `value`.
void failSystemCall(long number, int first, unsigned index, unsigned value, int error) {
  const auto argument = [](unsigned i) {
    return static_cast<unsigned>(offsetof(seccomp_data, args) + size_t{8} * i);
  };
  const auto result = SECCOMP_RET_ERRNO | static_cast<unsigned>(error);
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(number), 0, 5),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, argument(0)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(first), 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, argument(index)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, result),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog filter = {sizeof program / sizeof *program, program};
  ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
  ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter), 0) << std::strerror(errno);
}

void failFcntl(int fd, int command, int error) {
  failSystemCall(SYS_fcntl, fd, 1, static_cast<unsigned>(command), error);
}

// Whether the process ends at once at its next `write` or `sigaction`.
void forbidWritesAndSignalHandlers() {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_write, 1, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_rt_sigaction, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog filter = {sizeof program / sizeof *program, program};
  ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
  ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter), 0) << std::strerror(errno);
}

// Runs the child case and expects it to trace exactly this error, and nothing else of a pipe.
void expectTracedError(const std::string& name, const std::string& line,
                       const ChildOptions& options = {}) {
  const TracedChildResult r = runTracedChild(name, options);
  EXPECT_EQ(r.child.status, 0) << r.child.out << r.child.err;
  EXPECT_EQ(occurrences(r.trace, "**ERROR: " + line + "\n"), 1U) << line << "\n" << r.trace;
  EXPECT_EQ(occurrences(r.trace, "**ERROR: "), 1U) << r.trace;
}

volatile sig_atomic_t signalsSeen = 0;

void countSignal(int) { signalsSeen = signalsSeen + 1; }

void handle(int signal, void (*handler)(int)) {
  struct sigaction action = {};
  action.sa_handler = handler;
  sigaction(signal, &action, nullptr);  // Without SA_RESTART: blocking calls are interrupted.
}

void startTicking() {
  const itimerval tick = {{0, 10000}, {0, 10000}};
  setitimer(ITIMER_REAL, &tick, nullptr);
}

std::string readToTheEnd(const StdPipe& pipe) {
  std::string all;
  ByteString piece;
  do {
    EXPECT_GE(pipe.read(piece, 10000), 1);
    all += piece.view();
  } while (piece.length() != 0);
  return all;
}

}  // namespace

TEST(StdPipe, HoldsTwoHandlesAndAWord) {
  EXPECT_EQ(sizeof(StdPipe), 12U);
  EXPECT_TRUE((std::is_same_v<HANDLE, int>));
  EXPECT_FALSE(std::is_copy_constructible_v<StdPipe>);
  EXPECT_FALSE(std::is_copy_assignable_v<StdPipe>);
  const StdPipe pipe;
  int words[3];
  std::memcpy(words, static_cast<const void*>(&pipe), sizeof words);
  EXPECT_EQ(words[0], pipe.readHandle());
  EXPECT_EQ(words[1], pipe.writeHandle());
  EXPECT_EQ(words[2], 0);
}

TEST(StdPipe, IsBlockingAndClosedOnExecWhenItIsMade) {
  const StdPipe pipe;
  for (const HANDLE handle : {pipe.readHandle(), pipe.writeHandle()}) {
    EXPECT_GE(handle, 0);
    EXPECT_TRUE(isBlocking(handle));
    EXPECT_TRUE(isClosedOnExec(handle));
  }
}

CUL_CHILD(PipeWhoseSetUpDoesNothing) {
  int ends[2];
  {
    const StdPipe pipe;
    ends[0] = pipe.readHandle();
    ends[1] = pipe.writeHandle();
  }
  // An error of 0: the calls succeed without being made.
  failFcntl(ends[0], F_SETFD, 0);
  failFcntl(ends[1], F_SETFD, 0);
  const StdPipe pipe;
  EXPECT_EQ(pipe.readHandle(), ends[0]);
  EXPECT_EQ(pipe.writeHandle(), ends[1]);
  EXPECT_TRUE(isClosedOnExec(pipe.readHandle()));
  EXPECT_TRUE(isClosedOnExec(pipe.writeHandle()));
}

TEST(StdPipe, IsClosedOnExecFromTheStartSoThatNoOtherThreadsChildInheritsIt) {
  const ChildResult r = runChild("PipeWhoseSetUpDoesNothing");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

TEST(StdPipe, ClosesBothEndsAtItsEnd) {
  HANDLE readHandle;
  HANDLE writeHandle;
  {
    const StdPipe pipe;
    readHandle = pipe.readHandle();
    writeHandle = pipe.writeHandle();
    EXPECT_TRUE(isOpen(readHandle));
    EXPECT_TRUE(isOpen(writeHandle));
  }
  EXPECT_FALSE(isOpen(readHandle));
  EXPECT_FALSE(isOpen(writeHandle));
}

TEST(StdPipe, ClosesEitherEndOnceAndFailsTheSecondTime) {
  StdPipe pipe;
  const HANDLE readHandle = pipe.readHandle();
  const HANDLE writeHandle = pipe.writeHandle();
  EXPECT_EQ(pipe.closeReadHandle(), 0);
  EXPECT_EQ(pipe.readHandle(), -1);
  EXPECT_FALSE(isOpen(readHandle));
  EXPECT_TRUE(isOpen(writeHandle));
  EXPECT_EQ(pipe.closeReadHandle(), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(pipe.closeWriteHandle(), 0);
  EXPECT_EQ(pipe.writeHandle(), -1);
  EXPECT_FALSE(isOpen(writeHandle));
  EXPECT_EQ(pipe.closeWriteHandle(), -1);
}

TEST(StdPipe, MakesAnEndBlockingAndInheritableForAChild) {
  StdPipe pipe;
  makeNonBlocking(pipe.readHandle());
  makeNonBlocking(pipe.writeHandle());
  EXPECT_EQ(pipe.childReadHandle(), pipe.readHandle());
  EXPECT_TRUE(isBlocking(pipe.readHandle()));
  EXPECT_FALSE(isClosedOnExec(pipe.readHandle()));
  EXPECT_FALSE(isBlocking(pipe.writeHandle()));
  EXPECT_TRUE(isClosedOnExec(pipe.writeHandle()));
  EXPECT_EQ(pipe.childWriteHandle(), pipe.writeHandle());
  EXPECT_TRUE(isBlocking(pipe.writeHandle()));
  EXPECT_FALSE(isClosedOnExec(pipe.writeHandle()));
}

TEST(StdPipe, CarriesTheOutputOfAChildThatIsGivenTheWriteEnd) {
  StdPipe pipe;
  const std::string end = "/proc/self/fd/" + std::to_string(pipe.writeHandle());
  const std::vector<std::string> command = {"/bin/sh", "-c",
                                            "test -e " + end + " && echo hello >" + end};
  EXPECT_EQ(runProgram(command).status, 1) << "the end is not inherited unasked";
  (void)pipe.childWriteHandle();
  EXPECT_EQ(runProgram(command).status, 0);
  pipe.closeWriteHandle();
  EXPECT_EQ(readToTheEnd(pipe), "hello\n");
}

TEST(StdPipe, WritesAndReads) {
  const StdPipe pipe;
  EXPECT_EQ(pipe.write("hello", 5), 5);
  ByteString out;
  EXPECT_EQ(pipe.read(out, 100), 5);
  EXPECT_EQ(out.view(), "hello");
  EXPECT_TRUE(isBlocking(pipe.readHandle()));
}

TEST(StdPipe, ReadsOneByteMoreThanTheMaximum) {
  const StdPipe pipe;
  (void)pipe.write("abcdef", 6);
  ByteString out;
  EXPECT_EQ(pipe.read(out, 3), 4);
  EXPECT_EQ(out.view(), "abcd");
  EXPECT_EQ(pipe.read(out, 1), 2);
  EXPECT_EQ(out.view(), "ef");
}

TEST(StdPipe, CarriesBytesOfAnyValue) {
  std::string bytes;
  for (int i = 0; i < 512; ++i) {
    bytes.push_back(static_cast<char>(i));
  }
  const StdPipe pipe;
  EXPECT_EQ(pipe.write(bytes.data(), 512), 512);
  ByteString out;
  EXPECT_EQ(pipe.read(out, 511), 512);
  EXPECT_EQ(out.view(), bytes);
}

TEST(StdPipe, ReturnsZeroForAMaximumOfZeroAndStoresTheByte) {
  const StdPipe pipe;
  (void)pipe.write("xy", 2);
  ByteString out;
  EXPECT_EQ(pipe.read(out, 0), 0);
  EXPECT_EQ(out.view(), "x");
  EXPECT_EQ(pipe.read(out, 0), 0);
  EXPECT_EQ(out.view(), "y");
}

TEST(StdPipe, ReturnsOneAndNothingAtTheEndOfTheFile) {
  StdPipe pipe;
  (void)pipe.write("x", 1);
  pipe.closeWriteHandle();
  ByteString out;
  EXPECT_EQ(pipe.read(out, 10), 1);
  EXPECT_EQ(out.view(), "x");
  EXPECT_EQ(pipe.read(out, 10), 1);
  EXPECT_EQ(out.view(), "");
  EXPECT_EQ(pipe.read(out, 0), 0);
  EXPECT_EQ(out.view(), "");
  EXPECT_TRUE(isBlocking(pipe.readHandle()));
}

TEST(StdPipe, WaitsForTheFirstByteAndForTheSecond) {
  const StdPipe pipe;
  std::thread writer([&pipe] {
    (void)pipe.write("a", 1);
    (void)pipe.write("b", 1);
  });
  ByteString out;
  EXPECT_EQ(pipe.read(out, 1), 2);
  EXPECT_EQ(out.view(), "ab");
  writer.join();
}

TEST(StdPipe, ReadsFromAnEndThatWasMadeNonBlocking) {
  const StdPipe pipe;
  makeNonBlocking(pipe.readHandle());
  std::thread writer([&pipe] { (void)pipe.write("late", 4); });
  ByteString out;
  EXPECT_EQ(pipe.read(out, 10), 4);
  EXPECT_EQ(out.view(), "late");
  EXPECT_TRUE(isBlocking(pipe.readHandle()));
  writer.join();
}

TEST(StdPipe, CarriesMoreThanThePipeHolds) {
  std::string sent(3'000'001, ' ');
  for (size_t i = 0; i < sent.size(); ++i) {
    sent[i] = static_cast<char>(i * 31 + i / 1000);
  }
  StdPipe pipe;
  int written = 0;
  std::thread writer([&] {
    written = pipe.write(sent.data(), static_cast<unsigned>(sent.size()));
    pipe.closeWriteHandle();
  });
  const std::string received = readToTheEnd(pipe);
  writer.join();
  EXPECT_EQ(written, 3'000'001);
  EXPECT_TRUE(received == sent);
}

TEST(StdPipe, WritesNothingForALengthOfZero) {
  StdPipe pipe;
  EXPECT_EQ(pipe.write(nullptr, 0), 0);
  pipe.closeWriteHandle();
  EXPECT_EQ(pipe.write("x", 0), 0);
}

CUL_CHILD(PipeWritesNothing) {
  const StdPipe pipe;
  forbidWritesAndSignalHandlers();
  _exit(pipe.write("x", 0) == 0 ? 42 : 43);
}

CUL_CHILD(PipeWritesSomething) {
  const StdPipe pipe;
  forbidWritesAndSignalHandlers();
  (void)pipe.write("x", 1);
  _exit(43);
}

TEST(StdPipe, MakesNoSystemCallForALengthOfZero) {
  EXPECT_EQ(runChild("PipeWritesNothing").status, 42);
  EXPECT_EQ(runChild("PipeWritesSomething").status, 128 + SIGSYS) << "the proof of the proof";
}

namespace {

// Lets no more descriptor be opened until the end of the scope.
class DescriptorLimit {
 public:
  DescriptorLimit() {
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before_), 0);
    const rlimit none = {static_cast<rlim_t>(lowestFreeDescriptor()), before_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;
  ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before_); }

 private:
  rlimit before_ = {};
};

}  // namespace

CUL_CHILD(PipeWithoutDescriptors) {
  openTrace();
  expectFailure(
      [] {
        const DescriptorLimit limit;
        const StdPipe pipe;
      },
      constructorText, 47, "pipe() failed");
}

TEST(StdPipe, FailsWhenThereIsNoDescriptorLeft) {
  expectTracedError("PipeWithoutDescriptors",
                    "StdPipe::StdPipe(46): pipe() failed with errno " + std::to_string(EMFILE));
}

namespace {

// The arguments of the child: which end, 0 or 1; the command that fails; line and text.
ChildOptions failingSetUp(int end, int command, unsigned line, const char* text) {
  ChildOptions options;
  options.arguments = {std::to_string(end), std::to_string(command), std::to_string(line), text};
  return options;
}

}  // namespace

CUL_CHILD(PipeWithFailingSetUp) {
  openTrace();
  int ends[2];
  {
    const StdPipe pipe;
    ends[0] = pipe.readHandle();
    ends[1] = pipe.writeHandle();
  }
  const std::vector<std::string>& arguments = childArguments();
  failFcntl(ends[std::stoi(arguments[0])], std::stoi(arguments[1]), EPERM);
  const int before = lowestFreeDescriptor();
  expectFailure([] { const StdPipe pipe; }, constructorText,
                static_cast<unsigned>(std::stoul(arguments[2])), arguments[3].c_str());
  EXPECT_EQ(lowestFreeDescriptor(), before);
  EXPECT_FALSE(fcntl(ends[0], F_DUPFD, 0) != -1 || fcntl(ends[1], F_DUPFD, 0) != -1)
      << "an end was left open";
}

TEST(StdPipe, FailsAndClosesBothEndsWhenOneCannotBeSetUp) {
  const char* const getFlags = "::fcntl(F_GETFL) failed";
  const char* const setDescriptor = "::fcntl(F_SETFD) in setClose() failed";
  const std::string start = "StdPipe::StdPipe(";
  const std::string getFlagsTrace = "): ::fcntl(F_GETFL) failed with errno 1.";
  const std::string setDescriptorTrace =
      "): ::fcntl(F_SETFD, 1) in setClose() failed with errno 1.";
  expectTracedError("PipeWithFailingSetUp", start + "51" + getFlagsTrace,
                    failingSetUp(0, F_GETFL, 51, getFlags));
  expectTracedError("PipeWithFailingSetUp", start + "52" + setDescriptorTrace,
                    failingSetUp(0, F_SETFD, 52, setDescriptor));
  expectTracedError("PipeWithFailingSetUp", start + "54" + getFlagsTrace,
                    failingSetUp(1, F_GETFL, 54, getFlags));
  expectTracedError("PipeWithFailingSetUp", start + "55" + setDescriptorTrace,
                    failingSetUp(1, F_SETFD, 55, setDescriptor));
}

CUL_CHILD(PipeChildReadHandleClosed) {
  StdPipe pipe;
  pipe.closeReadHandle();
  expectFailure([&] { (void)pipe.childReadHandle(); }, "HANDLE StdPipe::childReadHandle()", 68,
                "::fcntl(F_GETFL) failed");
}

CUL_CHILD(PipeChildReadHandleStaysNonBlocking) {
  openTrace();
  StdPipe pipe;
  makeNonBlocking(pipe.readHandle());
  failFcntl(pipe.readHandle(), F_SETFL, EPERM);
  expectFailure([&] { (void)pipe.childReadHandle(); }, "HANDLE StdPipe::childReadHandle()", 68,
                "::fcntl(F_SETFL) failed");
  EXPECT_TRUE(isOpen(pipe.readHandle()));
}

CUL_CHILD(PipeChildReadHandleStaysClosedOnExec) {
  openTrace();
  StdPipe pipe;
  failFcntl(pipe.readHandle(), F_SETFD, EPERM);
  expectFailure([&] { (void)pipe.childReadHandle(); }, "HANDLE StdPipe::childReadHandle()", 70,
                "::fcntl(F_SETFD) in setClose() failed");
  EXPECT_TRUE(isOpen(pipe.readHandle()));
}

TEST(StdPipe, FailsToHandOutItsReadEnd) {
  expectTracedError("PipeChildReadHandleClosed",
                    "HANDLE StdPipe::childReadHandle(68): ::fcntl(F_GETFL) failed with errno 9.");
  expectTracedError("PipeChildReadHandleStaysNonBlocking",
                    "HANDLE StdPipe::childReadHandle(68): ::fcntl(F_SETFL) failed with errno 1.");
  expectTracedError("PipeChildReadHandleStaysClosedOnExec",
                    "HANDLE StdPipe::childReadHandle(70): ::fcntl(F_SETFD, 0) in setClose() failed "
                    "with errno 1.");
}

CUL_CHILD(PipeChildWriteHandleClosed) {
  StdPipe pipe;
  pipe.closeWriteHandle();
  expectFailure([&] { (void)pipe.childWriteHandle(); }, "HANDLE StdPipe::childWriteHandle()", 78,
                "::fcntl(F_GETFL) failed");
}

CUL_CHILD(PipeChildWriteHandleStaysClosedOnExec) {
  openTrace();
  StdPipe pipe;
  failFcntl(pipe.writeHandle(), F_SETFD, EPERM);
  expectFailure([&] { (void)pipe.childWriteHandle(); }, "HANDLE StdPipe::childWriteHandle()", 80,
                "::fcntl(F_SETFD) in setClose() failed");
}

TEST(StdPipe, FailsToHandOutItsWriteEnd) {
  expectTracedError("PipeChildWriteHandleClosed",
                    "HANDLE StdPipe::childWriteHandle(78): ::fcntl(F_GETFL) failed with errno 9.");
  expectTracedError(
      "PipeChildWriteHandleStaysClosedOnExec",
      "HANDLE StdPipe::childWriteHandle(80): ::fcntl(F_SETFD, 0) in setClose() failed "
      "with errno 1.");
}

CUL_CHILD(PipeReadFromClosedEnd) {
  StdPipe pipe;
  pipe.closeReadHandle();
  const unsigned char old[] = "old";
  ByteString out(old, 3);
  expectFailure([&] { (void)pipe.read(out, 10); }, readText, 102, "::fcntl(F_GETFL) failed");
  EXPECT_EQ(out.view(), "old");
}

CUL_CHILD(PipeReadFailsAtTheFirstByte) {
  openTrace();
  const StdPipe pipe;
  (void)pipe.write("ab", 2);
  failSystemCall(SYS_read, pipe.readHandle(), 2, 1, EIO);
  ByteString out;
  expectFailure([&] { (void)pipe.read(out, 10); }, readText, 114, "read() failed");
  EXPECT_TRUE(isOpen(pipe.readHandle()));
}

CUL_CHILD(PipeReadFailsToGoOnUnblocked) {
  openTrace();
  const StdPipe pipe;
  (void)pipe.write("ab", 2);
  failSystemCall(SYS_fcntl, pipe.readHandle(), 1, F_SETFL, EPERM);
  ByteString out;
  expectFailure([&] { (void)pipe.read(out, 10); }, readText, 125, "::fcntl(F_SETFL) failed");
  EXPECT_EQ(out.view(), "a");
}

CUL_CHILD(PipeReadFailsAtTheRest) {
  openTrace();
  const StdPipe pipe;
  (void)pipe.write("ab", 2);
  failSystemCall(SYS_read, pipe.readHandle(), 2, 10, EIO);
  ByteString out;
  expectFailure([&] { (void)pipe.read(out, 10); }, readText, 136, "read() failed");
  EXPECT_EQ(out.view(), "a");
  EXPECT_TRUE(isOpen(pipe.readHandle()));
}

CUL_CHILD(PipeReadFailsToBlockAgain) {
  openTrace();
  const StdPipe pipe;
  (void)pipe.write("ab", 2);
  failSystemCall(SYS_fcntl, pipe.readHandle(), 2,
                 static_cast<unsigned>(fcntl(pipe.readHandle(), F_GETFL)), EPERM);
  ByteString out;
  expectFailure([&] { (void)pipe.read(out, 10); }, readText, 138, "::fcntl(F_SETFL) failed");
}

TEST(StdPipe, FailsToRead) {
  const std::string start = "int StdPipe::read(";
  expectTracedError("PipeReadFromClosedEnd", start + "102): ::fcntl(F_GETFL) failed with errno 9.");
  expectTracedError("PipeReadFailsAtTheFirstByte", start + "113): ::read() failed with errno 5.");
  expectTracedError("PipeReadFailsToGoOnUnblocked",
                    start + "125): ::fcntl(F_SETFL) failed with errno 1.");
  expectTracedError("PipeReadFailsAtTheRest", start + "135): ::read() failed with errno 5.");
  expectTracedError("PipeReadFailsToBlockAgain",
                    start + "138): ::fcntl(F_SETFL) failed with errno 1.");
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// The sanitizers' free stores end the process instead of throwing.
CUL_CHILD(PipeReadWithoutMemory) {
  // The library's own handler ends the process when the free store is exhausted.
  std::set_new_handler(nullptr);
  const StdPipe pipe;
  (void)pipe.write("ab", 2);
  // Leaves a short block in the string pool.
  ByteString out("-");
  const rlimit none = {1, 1};
  ASSERT_EQ(setrlimit(RLIMIT_AS, &none), 0);
  EXPECT_THROW((void)pipe.read(out, 0xFFFFFFFF), std::bad_alloc);
  EXPECT_EQ(out.view(), "a");
  EXPECT_TRUE(isBlocking(pipe.readHandle()));
  EXPECT_EQ(pipe.read(out, 0), 0);
  EXPECT_EQ(out.view(), "b");
}

TEST(StdPipe, StaysBlockingWhenThereIsNoMemoryToRead) {
  const ChildResult r = runChild("PipeReadWithoutMemory");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}
#endif

namespace {

// Lets the third signal write the byte that the interrupted read waits for.
volatile sig_atomic_t endToWrite = -1;

void writeAtTheThirdSignal(int) {
  signalsSeen = signalsSeen + 1;
  if (signalsSeen == 3 && ::write(endToWrite, "s", 1) != 1) {
    _exit(99);
  }
}

}  // namespace

CUL_CHILD(PipeReadInterrupted) {
  const StdPipe pipe;
  endToWrite = pipe.writeHandle();
  handle(SIGALRM, writeAtTheThirdSignal);
  startTicking();
  ByteString out;
  EXPECT_EQ(pipe.read(out, 0), 0);
  EXPECT_GE(signalsSeen, 3);
  EXPECT_EQ(out.view(), "s");
}

CUL_CHILD(PipeReadInterruptedInBetween) {
  const StdPipe pipe;
  endToWrite = pipe.writeHandle();
  (void)pipe.write("f", 1);
  handle(SIGALRM, writeAtTheThirdSignal);
  startTicking();
  ByteString out;
  EXPECT_EQ(pipe.read(out, 5), 2);
  EXPECT_GE(signalsSeen, 3);
  EXPECT_EQ(out.view(), "fs");
}

TEST(StdPipe, ReadsOnWhenASignalInterrupts) {
  for (const char* const name : {"PipeReadInterrupted", "PipeReadInterruptedInBetween"}) {
    const ChildResult r = runChild(name);
    EXPECT_EQ(r.status, 0) << r.out << r.err;
  }
}

CUL_CHILD(PipeWriteInterrupted) {
  const StdPipe pipe;
  const std::string full(static_cast<size_t>(fcntl(pipe.writeHandle(), F_GETPIPE_SZ)), 'x');
  EXPECT_EQ(pipe.write(full.data(), static_cast<unsigned>(full.size())),
            static_cast<int>(full.size()));
  handle(SIGALRM, countSignal);
  startTicking();
  expectFailure([&] { (void)pipe.write("y", 1); }, writeText, 161, "write() failed");
  EXPECT_GE(signalsSeen, 1);
}

TEST(StdPipe, FailsToWriteWhenASignalInterruptsBeforeTheFirstByte) {
  expectTracedError("PipeWriteInterrupted",
                    "int StdPipe::write(160): write() failed with errno 4.  Length = -1");
}

CUL_CHILD(PipeWriteToClosedEnd) {
  StdPipe pipe;
  pipe.closeWriteHandle();
  expectFailure([&] { (void)pipe.write("y", 1); }, writeText, 161, "write() failed");
}

TEST(StdPipe, FailsToWriteToAClosedEnd) {
  expectTracedError("PipeWriteToClosedEnd",
                    "int StdPipe::write(160): write() failed with errno 9.  Length = -1");
}

CUL_CHILD(PipeWriteWritesNothing) {
  openTrace();
  const StdPipe pipe;
  failSystemCall(SYS_write, pipe.writeHandle(), 2, 3, 0);
  errno = 0;
  expectFailure([&] { (void)pipe.write("abc", 3); }, writeText, 161, "write() failed");
}

TEST(StdPipe, TakesAWriteOfNoBytesForAnError) {
  expectTracedError("PipeWriteWritesNothing",
                    "int StdPipe::write(160): write() failed with errno 0.  Length = 0");
}

namespace {

siginfo_t lastInfo = {};

void noteInfo(int, siginfo_t* info, void*) {
  lastInfo = *info;
  signalsSeen = signalsSeen + 1;
}

void writeToNobody() {
  StdPipe pipe;
  pipe.closeReadHandle();
  expectFailure([&] { (void)pipe.write("y", 1); }, writeText, 161, "write() failed");
}

struct sigaction brokenPipeAction() {
  struct sigaction action = {};
  sigaction(SIGPIPE, nullptr, &action);
  return action;
}

}  // namespace

CUL_CHILD(PipeWithoutReaderDefault) {
  signal(SIGPIPE, SIG_DFL);
  writeToNobody();
  EXPECT_EQ(brokenPipeAction().sa_handler, SIG_DFL);
}

CUL_CHILD(PipeWithoutReaderIgnored) {
  signal(SIGPIPE, SIG_IGN);
  writeToNobody();
  EXPECT_EQ(brokenPipeAction().sa_handler, SIG_IGN);
}

CUL_CHILD(PipeWithoutReaderHandled) {
  signal(SIGPIPE, countSignal);
  writeToNobody();
  EXPECT_EQ(signalsSeen, 0);
  EXPECT_EQ(brokenPipeAction().sa_handler, countSignal);
  raise(SIGPIPE);
  EXPECT_EQ(signalsSeen, 1);
}

CUL_CHILD(PipeWithoutReaderHandledWithInformation) {
  struct sigaction action = {};
  action.sa_sigaction = noteInfo;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigaddset(&action.sa_mask, SIGUSR1);
  sigaction(SIGPIPE, &action, nullptr);
  writeToNobody();
  EXPECT_EQ(signalsSeen, 0);
  const struct sigaction after = brokenPipeAction();
  EXPECT_EQ(after.sa_sigaction, noteInfo);
  EXPECT_EQ(after.sa_flags & (SA_SIGINFO | SA_ONSTACK), SA_SIGINFO | SA_ONSTACK);
  EXPECT_EQ(sigismember(&after.sa_mask, SIGUSR1), 1);
  raise(SIGPIPE);
  EXPECT_EQ(signalsSeen, 1);
  EXPECT_EQ(lastInfo.si_signo, SIGPIPE);
}

TEST(StdPipe, WriteToAClosedReaderThrowsAndKeepsTheCallersSigpipeHandler) {
  for (const char* const name :
       {"PipeWithoutReaderDefault", "PipeWithoutReaderIgnored", "PipeWithoutReaderHandled",
        "PipeWithoutReaderHandledWithInformation"}) {
    expectTracedError(name, "int StdPipe::write(160): write() failed with errno 32.  Length = -1");
  }
}

CUL_CHILD(PipeKeepsHandlerAfterSuccess) {
  signal(SIGPIPE, countSignal);
  const StdPipe pipe;
  (void)pipe.write("x", 1);
  EXPECT_EQ(brokenPipeAction().sa_handler, countSignal);
}

TEST(StdPipe, KeepsTheCallersSigpipeHandlerWhenItWrites) {
  const TracedChildResult r = runTracedChild("PipeKeepsHandlerAfterSuccess");
  EXPECT_EQ(r.child.status, 0) << r.child.out << r.child.err;
  EXPECT_EQ(occurrences(r.trace, "**ERROR"), 0U);
}

CUL_CHILD(PipeWithAPendingSignal) {
  signal(SIGPIPE, SIG_IGN);
  sigset_t one;
  sigemptyset(&one);
  sigaddset(&one, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &one, nullptr);
  // Blocked, also an ignored signal waits.
  pthread_kill(pthread_self(), SIGPIPE);
  const StdPipe pipe;
  (void)pipe.write("x", 1);
  sigset_t pending;
  sigpending(&pending);
  EXPECT_EQ(sigismember(&pending, SIGPIPE), 1);
}

TEST(StdPipe, LeavesASigpipeAloneThatIsIgnoredAndPendingWhenItWrites) {
  const TracedChildResult r = runTracedChild("PipeWithAPendingSignal");
  EXPECT_EQ(r.child.status, 0) << r.child.out << r.child.err;
}

TEST(StdPipe, FailsWithoutATraceToo) {
  for (const char* const name : {"PipeWriteToClosedEnd", "PipeReadFromClosedEnd"}) {
    const ChildResult r = runChild(name);
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_EQ(r.err, "");
  }
}
