// What the trace does to the files, pipes and signals of the program that it runs in.

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <iterator>
#include <numeric>
#include <string>
#include <string_view>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>

#include "Engine/utilities/TraceImplementation.h"

#include "tests/support/Child.h"
#include "tests/support/StandIn.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/trace/TraceSupport.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::Ge;
using testing::HasSubstr;
using testing::Le;
using testing::StartsWith;

namespace {

// In the cases below a line has 1000 bytes, a ring 2 Mb, and 5000 lines are traced.
constexpr unsigned manyLines = 5000;
constexpr unsigned passOfLines = 2 * megabyte / 1000;

void traceLine(unsigned number) {
  taggedTrace("f()", 1, "X", "%08u%0*d", number, 1000 - 26 - 11 - 8 - 1, 0);
}

void traceLines(unsigned first, unsigned last) {
  for (unsigned i = first; i <= last; ++i) {
    traceLine(i);
  }
}

// Calls `take` with each line of a text, without copying.
template <class Take>
void forEachLine(const std::string& text, Take take) {
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    take(std::string_view(text).substr(start, end - start));
    start = end + 1;
  }
}

// The numbers of the whole lines in a text, in their order.
std::vector<unsigned> numbersIn(const std::string& text) {
  constexpr std::string_view opening = "**X: f(1): ";
  std::vector<unsigned> numbers;
  forEachLine(text, [&](std::string_view line) {
    if (line.size() == 999 && line.substr(stampLength, opening.size()) == opening) {
      numbers.push_back(static_cast<unsigned>(
          std::stoul(std::string(line.substr(stampLength + opening.size(), 8)))));
    }
  });
  return numbers;
}

std::vector<unsigned> allNumbers(unsigned first, unsigned last) {
  std::vector<unsigned> numbers(last - first + 1);
  std::iota(numbers.begin(), numbers.end(), first);
  return numbers;
}

// The lines that begin with `opening`.
Strings linesWith(const std::string& text, std::string_view opening) {
  Strings found;
  forEachLine(text, [&](std::string_view line) {
    if (line.starts_with(opening)) {
      found.emplace_back(line);
    }
  });
  return found;
}

// In the child: makes one of its streams a file.
void redirect(int stream, const std::string& file, int flags) {
  const int fd = open(file.c_str(), flags | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(dup2(fd, stream), stream);
  close(fd);
}

// Another process that adds to a file.
void addTo(const std::string& file, const std::string& text) {
  const int fd = open(file.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  close(fd);
}

std::string lineOf(const char* who, unsigned number) {
  return who + (" " + std::to_string(number)) + "\n";
}

Strings linesOf(const char* who, const std::vector<unsigned>& numbers) {
  Strings lines;
  for (const unsigned number : numbers) {
    lines.push_back(who + (" " + std::to_string(number)));
  }
  return lines;
}

}  // namespace

// ---------------------------------------------------------------------------------------
// Files that hold more than the trace. Each case gets the file as its first argument.

CUL_CHILD(TraceToAnAppendingStream) {
  redirect(STDERR_FILENO, childArguments()[0], O_WRONLY | O_APPEND);
  traceLines(1, manyLines);
}

TEST(TraceOutputFile, OpenedToAppendKeepsAUsersLogAndEveryLine) {
  const TemporaryFolder folder;
  const std::string file = folder.file("log");
  std::string log;
  for (unsigned i = 0; i < 100000; ++i) {
    log += lineOf("the log of a user, line", i);
  }
  for (const std::string& before : {log, std::string()}) {
    writeFile(file, before);
    runWith("TraceToAnAppendingStream", {{"QVX_DBG_TRACE", "stderr,PMD,2"}}, {file});
    const std::string text = contentsOf(file);
    EXPECT_TRUE(text.starts_with(before));
    EXPECT_EQ(numbersIn(text), allNumbers(1, manyLines));
  }
}

CUL_CHILD(PrintAmongTheLines) {
  redirect(STDERR_FILENO, childArguments()[0], O_WRONLY | O_TRUNC);
  const auto start = static_cast<unsigned>(std::stoul(childArguments()[1]));
  for (unsigned i = 1; i <= manyLines; ++i) {
    traceLine(i);
    if (i % 500 == 0 && i >= start) {
      std::fprintf(stderr, "program %u\n", i);
      const std::string line = lineOf("system call", i);
      ASSERT_GT(write(STDERR_FILENO, line.data(), line.size()), 0);
    }
  }
}

TEST(TraceOutputFile, ThatTheProgramPrintsToKeepsWhatItPrints) {
  const TemporaryFolder folder;
  const std::string file = folder.file("log");
  // From the first pass on, from the second, in the last only.
  for (const unsigned start : {500U, 3000U, 5000U}) {
    runWith("PrintAmongTheLines", {{"QVX_DBG_TRACE", "stderr,PMD,2"}},
            {file, std::to_string(start)});
    const std::string text = contentsOf(file);
    std::vector<unsigned> printed;
    for (unsigned i = start; i <= manyLines; i += 500) {
      printed.push_back(i);
    }
    EXPECT_EQ(linesWith(text, "program "), linesOf("program", printed)) << start;
    EXPECT_EQ(linesWith(text, "system call "), linesOf("system call", printed)) << start;
    if (start == 500) {
      EXPECT_EQ(numbersIn(text), allNumbers(1, manyLines));
    }
  }
}

CUL_CHILD(PrintBufferedTextAmongTheLines) {
  redirect(STDOUT_FILENO, childArguments()[0], O_WRONLY | O_TRUNC);
  std::printf("program 0\n");  // stays in the buffer until the first line of the trace
  for (unsigned i = 1; i <= manyLines; ++i) {
    traceLine(i);
    if (i % 1000 == 0) {
      std::printf("program %u\n", i);
    }
  }
}

TEST(TraceOutputFile, HoldsBufferedTextInItsPlace) {
  const TemporaryFolder folder;
  const std::string file = folder.file("log");
  runWith("PrintBufferedTextAmongTheLines", {{"QVX_DBG_TRACE", "stdout,PMD,2"}}, {file});
  const std::string text = contentsOf(file);
  EXPECT_THAT(text, StartsWith("program 0\n"));
  EXPECT_EQ(linesWith(text, "program "), linesOf("program", {0, 1000, 2000, 3000, 4000, 5000}));
  EXPECT_THAT(text, HasSubstr("0\nprogram 1000\n"));
  EXPECT_EQ(numbersIn(text), allNumbers(1, manyLines));
}

CUL_CHILD(TraceFromTheMiddle) {
  redirect(STDERR_FILENO, childArguments()[0], O_WRONLY);
  ASSERT_GT(lseek(STDERR_FILENO, std::stol(childArguments()[1]), SEEK_SET), -1);
  traceLines(1, manyLines);
}

TEST(TraceOutputFile, ThatAStreamEntersInItsMiddleOrAtItsEndKeepsWhatItHolds) {
  const TemporaryFolder folder;
  const std::string file = folder.file("log");
  const std::string before(100000, 'q');
  for (const char* position : {"0", "50000", "100000"}) {
    writeFile(file, before + "\n");
    runWith("TraceFromTheMiddle", {{"QVX_DBG_TRACE", "stderr,PMD,2"}}, {file, position});
    const std::string text = contentsOf(file);
    EXPECT_TRUE(text.starts_with(before + "\n")) << position;
    EXPECT_EQ(numbersIn(text), allNumbers(1, manyLines)) << position;
  }
}

CUL_CHILD(TraceAloneToAStream) {
  redirect(STDERR_FILENO, childArguments()[0], O_WRONLY | O_TRUNC);
  traceLines(1, manyLines);
}

TEST(TraceOutputFile, OfAStreamThatHoldsNothingElseIsARing) {
  const TemporaryFolder folder;
  const std::string stream = folder.file("stream");
  const std::string named = folder.file("named");
  runWith("TraceAloneToAStream", {{"QVX_DBG_TRACE", "stderr,PMD,2"}}, {stream});
  runWith("TraceManyLines", {{"QVX_DBG_TRACE", named + ",PMD,2"}});
  EXPECT_EQ(numbersIn(contentsOf(stream)), numbersIn(contentsOf(named)));
  EXPECT_EQ(contentsOf(stream).size(), contentsOf(named).size());
  EXPECT_THAT(contentsOf(stream).size(), AllOf(Ge(2 * megabyte), Le(2 * megabyte + 4000)));
}

CUL_CHILD(TraceManyLines) { traceLines(1, manyLines); }

// Arguments: the file, the first and the last line before and behind which somebody adds to it.
CUL_CHILD(TraceToAFileThatOthersAddTo) {
  const std::string& file = childArguments()[0];
  const auto first = static_cast<unsigned>(std::stoul(childArguments()[1]));
  const auto last = static_cast<unsigned>(std::stoul(childArguments()[2]));
  if (childArguments().size() > 3) {
    redirect(STDERR_FILENO, file, O_WRONLY | O_TRUNC);
  }
  for (unsigned i = 1; i <= manyLines; ++i) {
    traceLine(i);
    if (i >= first && i <= last) {
      addTo(file, lineOf("other", i));
    }
  }
}

TEST(TraceOutputFile, ThatOthersAddToKeepsWhatTheyAdd) {
  const TemporaryFolder folder;
  const std::string file = folder.file("log");
  struct {
    unsigned first;
    unsigned last;
  } const cases[] = {{1, 1200},
                     // Around the turn, in the second pass, and around its end.
                     {passOfLines - 10, passOfLines + 10},
                     {3000, 3002},
                     {2 * passOfLines - 10, 2 * passOfLines + 10}};
  for (const auto& [first, last] : cases) {
    const Strings expected = linesOf("other", allNumbers(first, last));
    runWith("TraceToAFileThatOthersAddTo", {{"QVX_DBG_TRACE", file + ",PMD,2"}},
            {file, std::to_string(first), std::to_string(last)});
    std::string text = contentsOf(file);
    EXPECT_EQ(linesWith(text, "other "), expected) << first;
    if (last < passOfLines) {
      EXPECT_EQ(numbersIn(text), allNumbers(1, manyLines)) << first;
    }
    runWith("TraceToAFileThatOthersAddTo", {{"QVX_DBG_TRACE", "stderr,PMD,2"}},
            {file, std::to_string(first), std::to_string(last), "stderr"});
    text = contentsOf(file);
    EXPECT_EQ(linesWith(text, "other "), expected) << first << " to standard error";
    if (last < passOfLines) {
      EXPECT_EQ(numbersIn(text), allNumbers(1, manyLines)) << first << " to standard error";
    }
  }
}

// Arguments: the file, after which line it is cut, to which size.
CUL_CHILD(TraceToAFileThatIsCut) {
  const std::string& file = childArguments()[0];
  if (childArguments().size() > 3) {
    redirect(STDERR_FILENO, file, O_WRONLY | O_TRUNC);
  }
  const auto cut = static_cast<unsigned>(std::stoul(childArguments()[1]));
  traceLines(1, cut);
  ASSERT_EQ(truncate(file.c_str(), std::stol(childArguments()[2])), 0);
  addTo(file, "cut\n");
  traceLines(cut + 1, manyLines);
}

TEST(TraceOutputFile, ThatIsCutGoesOnAtItsEndAsARingBehindWhatIsLeft) {
  const TemporaryFolder folder;
  const std::string file = folder.file("log");
  for (const char* size : {"0", "100000"}) {
    for (const bool isStream : {false, true}) {
      Strings arguments = {file, "1000", size};
      if (isStream) {
        arguments.push_back("stderr");
      }
      runWith("TraceToAFileThatIsCut", {{"QVX_DBG_TRACE", (isStream ? "stderr" : file) + ",PMD,2"}},
              arguments);
      const std::string text = contentsOf(file);
      EXPECT_EQ(text.find('\0'), std::string::npos) << size << isStream;
      EXPECT_EQ(text.find("cut\n"), std::stoul(size)) << isStream;
      EXPECT_LE(text.size(), 4 * megabyte) << size << isStream;
      EXPECT_THAT(numbersIn(text), testing::Contains(manyLines)) << size << isStream;
    }
  }
}

CUL_CHILD(CutTheFileInTheSecondPass) {
  traceLines(1, passOfLines + 1000);
  ASSERT_EQ(truncate(childArguments()[0].c_str(), 0), 0);
  traceLines(passOfLines + 1001, 4 * manyLines);
}

TEST(TraceOutputFile, ThatIsCutInALaterPassStaysWithinItsLimits) {
  const TemporaryFolder folder;
  const std::string file = folder.file("log");
  runWith("CutTheFileInTheSecondPass", {{"QVX_DBG_TRACE", file + ",PMD,2"}}, {file});
  EXPECT_LE(contentsOf(file).size(), 4 * megabyte);
  EXPECT_THAT(numbersIn(contentsOf(file)), testing::Contains(4 * manyLines));
}

CUL_STAND_IN(int, fstat, (int file, struct stat* status), noexcept, file, status)

CUL_CHILD(TraceToAFileThatTellsNothing) {
  const Instead failing(fstatStandIn, [](auto...) {
    errno = EIO;
    return -1;
  });
  traceLines(1, 200);
}

TEST(TraceOutputFile, ThatTellsNothingOfItselfCarriesEveryLine) {
  const TemporaryFolder folder;
  const std::string file = folder.file("log");
  runWith("TraceToAFileThatTellsNothing", {{"QVX_DBG_TRACE", file}});
  EXPECT_EQ(numbersIn(contentsOf(file)), allNumbers(1, 200));
}

// Sanitizers ask for limits before they bear code that they look after.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
CUL_STAND_IN(int, getrlimit, (__rlimit_resource_t resource, rlimit* limit), noexcept, resource,
             limit)

CUL_CHILD(TraceWithoutKnownLimits) {
  const Instead failing(getrlimitStandIn, [](auto...) {
    errno = EIO;
    return -1;
  });
  traceLines(1, 200);
}

TEST(TraceOutputFile, CarriesEveryLineWhereLimitsCannotBeAskedFor) {
  const TemporaryFolder folder;
  const std::string file = folder.file("log");
  runWith("TraceWithoutKnownLimits", {{"QVX_DBG_TRACE", file}});
  EXPECT_EQ(numbersIn(contentsOf(file)), allNumbers(1, 200));
}
#endif

TEST(TraceOutputFile, ThatIsAPipeCarriesEveryLine) {
  const ChildResult r = runWith("TraceManyLines", {{"QVX_DBG_TRACE", "stderr,PMD,2"}});
  EXPECT_EQ(numbersIn(r.err), allNumbers(1, manyLines));
}

CUL_CHILD(ShareAFileWithAFork) {
  traceLines(1, 10);
  const pid_t child = fork();
  if (child == 0) {
    traceLines(11, 3000);
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  traceLines(3001, manyLines);
}

TEST(TraceOutputFile, ThatAForkWritesToKeepsTheLinesOfBoth) {
  const TemporaryFolder folder;
  const std::string file = folder.file("log");
  runWith("ShareAFileWithAFork", {{"QVX_DBG_TRACE", file + ",PMD,4"}});
  EXPECT_EQ(numbersIn(contentsOf(file)), allNumbers(1, manyLines));
}

// ---------------------------------------------------------------------------------------
// Signals

namespace {

std::atomic<int> handled = 0;

void count(int) { ++handled; }

bool isPending(int signal) {
  sigset_t pending;
  sigpending(&pending);
  return sigismember(&pending, signal) == 1;
}

bool isBlocked(int signal) {
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  return sigismember(&mask, signal) == 1;
}

void block(int signal, int how) {
  sigset_t one;
  sigemptyset(&one);
  sigaddset(&one, signal);
  pthread_sigmask(how, &one, nullptr);
}

void limitFiles(rlim_t size) {
  struct rlimit limit = {};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
  limit.rlim_cur = size;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
}

// Runs `traces`, which make the system raise `signal`, under each disposition and mask, and
// tells whether they stay as they were.
void expectNoTraceOf(int signal, const std::function<void()>& traces) {
  for (const auto disposition : {SIG_DFL, SIG_IGN, count}) {
    for (const bool blocked : {false, true}) {
      for (const bool pending : {false, true}) {
        struct sigaction action = {};
        action.sa_handler = disposition;
        ASSERT_EQ(sigaction(signal, &action, nullptr), 0);
        block(signal, blocked ? SIG_BLOCK : SIG_UNBLOCK);
        if (pending && blocked) {
          raise(signal);
        }
        traces();
        EXPECT_EQ(isPending(signal), pending && blocked);
        EXPECT_EQ(isBlocked(signal), blocked);
        ASSERT_EQ(sigaction(signal, nullptr, &action), 0);
        EXPECT_EQ(action.sa_handler, disposition);
        EXPECT_EQ(handled, 0);
        // What is pending is of no account from here on.
        action.sa_handler = SIG_IGN;
        sigaction(signal, &action, nullptr);
        block(signal, SIG_UNBLOCK);
      }
    }
  }
}

// Whether the signal still reaches a program that raises it itself.
void expectStillFatal(int signal, const std::function<void()>& raises) {
  const pid_t child = fork();
  if (child == 0) {
    struct rlimit none = {};
    setrlimit(RLIMIT_CORE, &none);
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    sigaction(signal, &action, nullptr);
    raises();
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), signal);
}

}  // namespace

// Arguments: the file that the limit is for; anything more: it is standard error.
CUL_CHILD(TraceBeyondALimitOnFileSizes) {
  limitFiles(100500);
  if (childArguments().size() > 1) {
    redirect(STDERR_FILENO, childArguments()[0], O_WRONLY | O_TRUNC);
  }
  signal(SIGXFSZ, SIG_DFL);
  traceLines(1, 200);
  expectNoTraceOf(SIGXFSZ, [] {
    traceLines(201, 210);
    traceImplementation()->setRewindPoint();
  });
  EXPECT_EQ(std::filesystem::file_size(childArguments()[0]), 100500U);
  expectStillFatal(SIGXFSZ, [] {
    const int fd = open(childArguments()[0].c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    static_cast<void>(write(fd, "x", 1) == 1);
  });
}

TEST(TraceSignals, OfALimitOnFileSizesDoNotReachTheProgram) {
  const TemporaryFolder folder;
  const std::string file = folder.file("log");
  runWith("TraceBeyondALimitOnFileSizes", {{"QVX_DBG_TRACE", file}}, {file});
  EXPECT_THAT(numbersIn(contentsOf(file)).size(), AllOf(Ge(95U), Le(100U)));
  runWith("TraceBeyondALimitOnFileSizes", {{"QVX_DBG_TRACE", "stderr"}}, {file, "stderr"});
  EXPECT_THAT(numbersIn(contentsOf(file)).size(), AllOf(Ge(95U), Le(100U)));
}

TEST(TraceOutputFile, ThatIsADeviceWithoutRoomDoesNotDisturbTheProgram) {
  for (const char* device : {"/dev/full", "/dev/null"}) {
    const ChildResult r = runWith("TraceManyLines", {{"QVX_DBG_TRACE", device}});
    EXPECT_EQ(r.out + r.err, "") << device;
  }
}

CUL_CHILD(TraceBeyondALimitOfZero) {
  limitFiles(0);
  signal(SIGXFSZ, SIG_DFL);
  traceLines(1, 200);
}

TEST(TraceSignals, OfALimitOfZeroDoNotReachTheProgram) {
  const TemporaryFolder folder;
  const std::string file = folder.file("log");
  runWith("TraceBeyondALimitOfZero", {{"QVX_DBG_TRACE", file}}, {file});
  EXPECT_EQ(contentsOf(file), "");
}

CUL_CHILD(SetALimitWhileTracing) {
  signal(SIGXFSZ, SIG_DFL);
  traceLines(1, 50);
  limitFiles(100500);
  traceLines(51, 200);
  EXPECT_EQ(std::filesystem::file_size(childArguments()[0]), 100500U);
  EXPECT_FALSE(isPending(SIGXFSZ));
  EXPECT_FALSE(isBlocked(SIGXFSZ));
  // The ring goes on as soon as there is room.
  limitFiles(RLIM_INFINITY);
  traceLines(201, 300);
}

TEST(TraceSignals, OfALimitThatIsSetLaterDoNotReachTheProgram) {
  const TemporaryFolder folder;
  const std::string file = folder.file("log");
  runWith("SetALimitWhileTracing", {{"QVX_DBG_TRACE", file}}, {file});
  EXPECT_THAT(numbersIn(contentsOf(file)), testing::Contains(300U));
}

CUL_CHILD(TraceToAPipeWithoutReader) {
  signal(SIGPIPE, SIG_DFL);
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  ASSERT_EQ(dup2(ends[1], STDERR_FILENO), STDERR_FILENO);
  if (childArguments()[0] == "late") {
    traceLines(1, 1);
  }
  close(ends[0]);
  close(ends[1]);
  traceLines(2, 10);
  expectNoTraceOf(SIGPIPE, [] {
    traceLines(11, 20);
    traceImplementation()->wrap();
  });
  expectStillFatal(SIGPIPE, [] { static_cast<void>(write(STDERR_FILENO, "x", 1) == 1); });
  // A child that closes the stream flushes it, too.
  const pid_t child = fork();
  if (child == 0) {
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    sigaction(SIGPIPE, &action, nullptr);
    static char buffer[1000];
    std::setvbuf(stderr, buffer, _IOFBF, sizeof buffer);
    std::fputs("not flushed", stderr);
    traceImplementation()->processForked();
    taggedTrace("f()", 1, "X", "child");
    _exit(7);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7) << status;
}

TEST(TraceSignals, OfAPipeWithoutReaderDoNotReachTheProgram) {
  runWith("TraceToAPipeWithoutReader", {{"QVX_DBG_TRACE", "stderr,ALL,CHILD"}}, {"early"});
  runWith("TraceToAPipeWithoutReader", {{"QVX_DBG_TRACE", "stderr,ALL,CHILD"}}, {"late"});
}

// ---------------------------------------------------------------------------------------
// FIFOs

CUL_CHILD(TraceToAFifoThatNobodyReads) {
  alarm(60);
  EXPECT_FALSE(isTraced(TraceType::active));
  EXPECT_FALSE(traceImplementation()->isActive());
  taggedTrace("f()", 1, "X", "dropped");
}

TEST(TraceFifo, ThatNobodyReadsLeavesTracingOff) {
  const TemporaryFolder folder;
  const std::string fifo = folder.file("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  runWith("TraceToAFifoThatNobodyReads", {{"QVX_DBG_TRACE", fifo}});
}

TEST(TraceFifo, ThatIsReadSlowlyCarriesEveryLine) {
  const TemporaryFolder folder;
  const std::string fifo = folder.file("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const int end = open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(end, 0);
  std::string text;
  std::atomic<bool> isDone = false;
  std::thread reader([&] {
    char chunk[777];
    while (true) {
      const ssize_t n = read(end, chunk, sizeof chunk);
      if (n > 0) {
        text.append(chunk, static_cast<size_t>(n));
      } else if (isDone) {
        break;
      } else {
        std::this_thread::yield();
      }
    }
  });
  runWith("TraceManyLines", {{"QVX_DBG_TRACE", fifo}});
  isDone = true;
  reader.join();
  close(end);
  EXPECT_EQ(numbersIn(text), allNumbers(1, manyLines));
}

// Argument: the FIFO. Its reader goes away and comes back.
CUL_CHILD(TraceToAFifoWhoseReaderComesAndGoes) {
  signal(SIGPIPE, SIG_DFL);
  const auto openReader = [] {
    return open(childArguments()[0].c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  };
  const auto contents = [](int fd) {
    std::string text;
    char chunk[65536];
    for (ssize_t n = 0; (n = read(fd, chunk, sizeof chunk)) > 0;) {
      text.append(chunk, static_cast<size_t>(n));
    }
    return text;
  };
  int reader = openReader();
  traceLines(1, 3);
  EXPECT_EQ(numbersIn(contents(reader)), allNumbers(1, 3));
  close(reader);
  traceLines(4, 6);
  EXPECT_FALSE(isPending(SIGPIPE));
  reader = openReader();
  traceLines(7, 9);
  EXPECT_EQ(numbersIn(contents(reader)), allNumbers(7, 9));
}

TEST(TraceFifo, WhoseReaderGoesAwayDoesNotEndTheProgram) {
  const TemporaryFolder folder;
  const std::string fifo = folder.file("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  runWith("TraceToAFifoWhoseReaderComesAndGoes", {{"QVX_DBG_TRACE", fifo}}, {fifo});
}

// ---------------------------------------------------------------------------------------
// Names

CUL_CHILD(TraceALine) { taggedTrace("void f(int)", 12, "ERROR", "a line"); }

TEST(TraceName, ThatTheNativeCodePageCannotCarryIsTakenAsItStands) {
  // UTF-8 and what is none, in a locale that knows neither and in one that knows the first.
  for (const char* locale : {"C", "C.UTF-8"}) {
    for (const std::string name : {"gr\xC3\xB6\xC3\x9F"
                                   "e",
                                   "\xE4\xFF.trc", "cut\xC3", "\xC3\xA4, b"}) {
      const TemporaryFolder folder;
      const std::string file = folder.file(name.substr(0, name.find(',')));
      for (const char* variable : {"QVX_DBG_TRACE", "WZ4_DBG_TRACE"}) {
        runWith("TraceALine",
                {{"LC_ALL", locale}, {variable, "  " + folder.file(name) + "  ,PMD, \xE4 ,3 "}});
        EXPECT_THAT(bodyOf(contentsOf(file)), ElementsAre("**ERROR: void f(12): a line"))
            << variable << " in " << locale << ": " << name;
        EXPECT_EQ(headerOf(contentsOf(file)).size, "3Mb");
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()), {}), 1);
        std::filesystem::remove(file);
      }
    }
  }
}

TEST(TraceName, OfAFolderThatTheNativeCodePageCannotCarryIsTakenAsItStands) {
  const TemporaryFolder folder;
  const std::string inner = folder.file("gr\xC3\xB6\xFF");
  ASSERT_EQ(mkdir(inner.c_str(), 0700), 0);
  runWith("TraceALine", {{"LC_ALL", "C"}, {"QVX_DBG_TRACE", inner + "/"}});
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(inner), {}), 1);
}

CUL_CHILD(TraceToAWideName) {
  TraceImplementation::instance((L"" + std::wstring(L"gr\u00F6\u00DFe,PMD")).c_str());
}

TEST(TraceName, GivenAsWideTextIsConverted) {
  const TemporaryFolder folder;
  ChildOptions options = childWith({{"LC_ALL", "C.UTF-8"}, {"QVX_DBG_TRACE", "\xE4"}});
  options.directory = folder.path();
  EXPECT_EQ(runChild("TraceToAWideName", options).status, 0);
  EXPECT_THAT(contentsOf(folder.file("gr\xC3\xB6\xC3\x9F"
                                     "e")),
              HasSubstr("Trace start at "));
}
