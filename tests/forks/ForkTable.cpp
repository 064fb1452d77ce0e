#include "tests/forks/ForkTable.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <dlfcn.h>
#include <exception>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/CharString.h"
#include "Engine/utilities/DebuggerSettings.h"
#include "Engine/utilities/EBCDICtable.h"
#include "Engine/utilities/EBCDICtableStore.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/Engine_Loader.h"
#include "Engine/utilities/FileName.h"
#include "Engine/utilities/List.h"
#include "Engine/utilities/PathSearch.h"
#include "Engine/utilities/Pool.h"
#include "Engine/utilities/Reference.h"
#include "Engine/utilities/Runnable.h"
#include "Engine/utilities/SharedEntry.h"
#include "Engine/utilities/SpawnedProcess.h"
#include "Engine/utilities/StdException.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/ThreadListener.h"
#include "Engine/utilities/ThreadManager.h"
#include "Engine/utilities/TimeDateStamp.h"
#include "Engine/utilities/TraceFlags.h"
#include "Engine/utilities/TraceImplementation.h"
#include "Engine/utilities/UNIX/UNIX_Event_Semaphore.h"
#include "Engine/utilities/UnicodeUtilities.h"
#include "Engine/utilities/msgserv/LibraryMessageServer.h"

#include "tests/support/TemporaryFolder.h"

namespace {

using Encoding = EncodedString::Encoding;

std::string traceFolder;

EncodedString utf8(const char* text) { return {text, Encoding::utf8}; }

// Has a child that hangs killed by SIGALRM.
void limitLife() {
  // Many times what the slowest needs on a busy machine.
  constexpr unsigned limitInSeconds = 20;
  alarm(limitInSeconds);
}

bool useStrings() {
  for (int i = 0; i < 20; ++i) {
    EncodedString text = utf8("forked ");
    text += EncodedString::number(i);
    const CharString wide(L"a wide text");
    const EncodedString copy = text;
    if (copy.view() != "forked " + std::to_string(i) || wide.length() != 11) {
      return false;
    }
  }
  return true;
}

bool usePoolsAndLists() {
  constexpr unsigned number = 200;
  Pool pool(256, 256, "forks");
  List<unsigned> list(0, &pool);
  List<unsigned> plain;
  for (unsigned i = 0; i < number; ++i) {
    list.add(i);
    plain.insertAt(0, i);
  }
  return list.count() == number && list[number - 1] == number - 1 && plain[number - 1] == 0;
}

bool convertNatively() {
  for (int i = 0; i < 10; ++i) {
    const EncodedString text("caf\xE9", Encoding::native);
    const ByteString back = text.convert(Encoding::native);
    if (text.view() != "caf\xC3\xA9" || back != ByteString("caf\xE9")) {
      return false;
    }
  }
  return true;
}

// Names of code pages that the C library keeps in modules of their own.
bool convertOtherCodePages() {
  struct Case {
    const char* codePage;
    const char* bytes;
    const char* text;
  };
  static constexpr Case cases[] = {{"ISO-8859-15", "\xA4", "\xE2\x82\xAC"},
                                   {"IBM1047", "\xC1\x81", "Aa"},
                                   {"SHIFT_JIS", "\x82\xA0", "\xE3\x81\x82"},
                                   {"KOI8-R", "\xC1", "\xD0\xB0"}};
  for (const Case& one : cases) {
    const EncodedString text = UnicodeUtilities::convertFromCP(one.bytes, one.codePage);
    EncodedString back = text;
    back.convertToUTF8(one.codePage);
    if (text.view() != one.text || back.view() != one.bytes) {
      return false;
    }
  }
  return true;
}

bool throwAndCatch() {
  for (int i = 0; i < 10; ++i) {
    try {
      StdException::throwException("forks", 7, "thrown on purpose", i);
    } catch (const StdException& exception) {
      if (exception.status != i) {
        return false;
      }
      continue;
    }
    return false;
  }
  return true;
}

class Marking : public StdThread {
 public:
  Marking(std::atomic<bool>& isRun, Termination& termination)
      : StdThread("marking", 0, &termination), isRun_(isRun) {}
  void run() override { isRun_ = currentThread() == this; }

 private:
  std::atomic<bool>& isRun_;
};

bool startAThread() {
  std::atomic<bool> isRun = false;
  StdThread::Termination termination;
  auto* const thread = new Marking(isRun, termination);
  thread->start_thread(0);
  return termination.wait(0) == 0 && isRun;
}

class Sleeping : public StdThread {
 public:
  Sleeping(std::atomic<bool>& isRunning, Termination& termination)
      : StdThread("sleeping", 0, &termination), isRunning_(isRunning) {}
  void run() override {
    isRunning_ = true;
    for (;;) {
      usleep(1000000);
    }
  }

 private:
  std::atomic<bool>& isRunning_;
};

bool askAThreadToEnd() {
  std::atomic<bool> isRunning = false;
  StdThread::Termination termination;
  auto* const thread = new Sleeping(isRunning, termination);
  thread->start_thread(0);
  while (!isRunning) {
    StdThread::thread_yield();
  }
  const bool isAsked = thread->requestTerminate() == 0;
  const bool isEnded = termination.wait(0) == 0;
  delete thread;
  return isAsked && isEnded;
}

bool traceLines() {
  if (!isTraced(TraceType::error)) {
    return false;
  }
  for (int i = 0; i < 5; ++i) {
    taggedTrace("bool traceLines()", __LINE__, "ERROR", "line %d", i);
  }
  return true;
}

// As a child that is to have a trace of its own.
bool reopenTheTrace() {
  traceImplementation()->processForked();
  taggedTrace("bool reopenTheTrace()", __LINE__, "ERROR", "told by the child");
  const std::string file = traceFolder + "/root." + std::to_string(getpid()) + ".trc";
  const bool isTold = contentsOf(file).find("told by the child") != std::string::npos;
  unlink(file.c_str());
  return isTold;
}

bool waitWithALimit() {
  UNIX_Event_Semaphore event;
  return event.wait(1, CUL_Event_Semaphore::Milliseconds, false);
}

bool postAnEvent() {
  for (int i = 0; i < 20; ++i) {
    UNIX_Event_Semaphore event;
    event.post();
    event.wait();
    if (event.wait(1, CUL_Event_Semaphore::Seconds, false)) {
      return false;
    }
    event.reset();
  }
  return true;
}

class Answer final : public Runnable {
 public:
  virtual ~Answer() = default;
  int work() override { return 42; }
};

bool runAWorker() {
  Answer answer;
  const Reference<ThreadListener> listener = ThreadListener::instance(answer);
  if (listener->start() == 0) {
    return false;
  }
  listener->semaphore().wait();
  return listener->result() == 42;
}

bool manageThreads() {
  Answer answer;
  ThreadManager manager;
  if (manager.start(answer) == 0 || manager.start(answer) == 0) {
    return false;
  }
  manager.allEnded().wait();
  return manager.getThreadIds().isEmpty();
}

bool lookUpSettings() {
  const DebuggerSettings& settings = *DebuggerSettings::instance();
  return settings.getSetting(L"ASSERTION") != nullptr &&
         settings.getNamedSetting(L"ASSERTION").length() != 0 &&
         settings.getSetting(L"NO SUCH SETTING") == nullptr;
}

bool searchFiles() {
  FileName name("/usr/lib/../share/file.txt", Encoding::utf8);
  name.change_extension(utf8("doc"));
  const EncodedString shell = searchPath(utf8("sh"), utf8("/nowhere:/bin"));
  const FileName found = FileName::findFile(FileName("sh", Encoding::utf8), utf8("/bin"), false);
  return name.extension().view() == ".doc" && shell.view() == "/bin/sh" && found.isAccessible(true);
}

bool getMessages() {
  const LibraryMessageServer server(ByteString("wobndbg"), "de_DE");
  return server.getMessage(1, 2).view() == "Gr\u00fc\u00dfe, \u4e16\u754c";
}

bool findModules() {
  const FileName module(CUL_TEST_LIBRARIES "/libentries.so", Encoding::utf8);
  void* const entry =
      Engine_Loader::instance()->get_procedure_entry(module, utf8("entriesFunction"));
  void* const missing = Engine_Loader::instance()->get_procedure_entry(
      FileName("noSuchModule", Encoding::utf8), utf8("entriesFunction"));
  return entry != nullptr && reinterpret_cast<int (*)(int)>(entry)(1) == 2 && missing == nullptr;
}

bool useEBCDICTables() {
  const EBCDICtable* const table = EBCDICtableStore::instance().find(nullptr);
  const ByteString bytes = table->fromUCS(L"fork", 4);
  return bytes == ByteString("\x86\x96\x99\x92") && table->toUCS(bytes, 4) == CharString(L"fork");
}

bool spawnAProcess() {
  const List<EncodedString*> arguments;
  const SpawnedProcess process(utf8("true"), utf8("/bin"), arguments, 1, 1);
  return !process.wait(60) && process.returnCode() == 0;
}

bool tellTheTime() {
  const TimeDateStamp stamp(2001, 2, 3, 4, 5, 6);
  return stamp.asString(true).view() == "20010203040506";
}

bool forkAgain() {
  const pid_t child = fork();
  if (child == 0) {
    limitLife();
    _exit(useStrings() ? 0 : 1);
  }
  int status = -1;
  return waitpid(child, &status, 0) == child && status == 0;
}

bool callLocaltime() {
  for (int i = 0; i < 20; ++i) {
    const std::time_t now = std::time(nullptr);
    std::tm parts = {};
    if (localtime_r(&now, &parts) == nullptr) {
      return false;
    }
  }
  return true;
}

bool waitForOneEvent() {
  static UNIX_Event_Semaphore& event = *new UNIX_Event_Semaphore;
  event.wait(1, CUL_Event_Semaphore::Milliseconds, false);
  event.post();
  event.reset();
  return true;
}

bool endByExit() { exit(0); }

constexpr Deed deeds[] = {
    {"strings", useStrings},
    {"pools, lists", usePoolsAndLists},
    {"native", convertNatively},
    {"code pages", convertOtherCodePages},
    {"exceptions", throwAndCatch},
    {"threads", startAThread},
    {"requests", askAThreadToEnd},
    {"trace", traceLines},
    {"timed waits", waitWithALimit},
    {"events", postAnEvent},
    {"one event", waitForOneEvent},
    {"workers", runAWorker},
    {"manager", manageThreads},
    {"settings", lookUpSettings},
    {"files", searchFiles},
    {"messages", getMessages},
    {"modules", findModules},
    {"EBCDIC", useEBCDICTables},
    {"spawns", spawnAProcess},
    {"time stamps", tellTheTime},
    {"forks", forkAgain},
};
constexpr std::size_t deedCount = std::size(deeds);

template <std::size_t n>
constexpr std::array<Deed, deedCount + n> allDeedsAnd(const Deed (&more)[n]) {
  std::array<Deed, deedCount + n> all = {};
  std::copy(std::begin(deeds), std::end(deeds), all.begin());
  std::copy(std::begin(more), std::end(more), all.begin() + deedCount);
  return all;
}

constexpr Deed programsOwn[] = {{"localtime_r", callLocaltime}};
constexpr Deed childrensOwn[] = {{"own trace", reopenTheTrace}, {"exit", endByExit}};

constexpr auto ofParents = allDeedsAnd(programsOwn);
constexpr auto ofChildren = allDeedsAnd(childrensOwn);

bool isDoneWithoutException(const Deed& deed) {
  try {
    return deed.isDone();
  } catch (const std::exception&) {
    return false;
  } catch (const StdException&) {
    return false;
  }
}

// Threads of the parent that do one deed over and over until the object goes.
class BusyThreads {
 public:
  explicit BusyThreads(const Deed& deed) {
    for (int i = 0; i < 3; ++i) {
      threads_.emplace_back([this, &deed] {
        while (!isOver_) {
          if (!isDoneWithoutException(deed)) {
            ++failures_;
          }
          ++rounds_;
        }
      });
    }
    while (rounds_ < 3) {
      std::this_thread::yield();
    }
  }
  BusyThreads(const BusyThreads&) = delete;
  BusyThreads& operator=(const BusyThreads&) = delete;
  ~BusyThreads() { end(); }

  unsigned end() {
    isOver_ = true;
    for (std::thread& thread : threads_) {
      thread.join();
    }
    threads_.clear();
    return failures_;
  }

 private:
  std::atomic<bool> isOver_ = false;
  std::atomic<unsigned> failures_ = 0;
  std::atomic<unsigned> rounds_ = 0;
  std::vector<std::thread> threads_;
};

// Children that are not gone yet.
class Children {
 public:
  explicit Children(Outcome& outcome) : outcome_(outcome) {}
  Children(const Children&) = delete;
  Children& operator=(const Children&) = delete;
  ~Children() {
    while (!children_.empty()) {
      waitForOne();
    }
  }

  void add(const Deed& deed) {
    // Those that hang cost nothing but their place.
    constexpr std::size_t atATime = 16;
    if (children_.size() == atATime) {
      waitForOne();
    }
    const pid_t child = fork();
    if (child == 0) {
      live(deed);
    }
    ++outcome_.forks;
    if (child == -1) {
      ++outcome_.failed;
    } else {
      children_.push_back(child);
    }
  }

 private:
  [[noreturn]] static void live(const Deed& deed) {
    constexpr rlimit noDumps = {0, 0};
    setrlimit(RLIMIT_CORE, &noDumps);
    limitLife();
    _exit(isDoneWithoutException(deed) && isDoneWithoutException(deed) ? 0 : 1);
  }

  void waitForOne() {
    int status = 0;
    const pid_t child = children_.front();
    children_.pop_front();
    const bool isReaped = waitpid(child, &status, 0) == child;
    if (isReaped && WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) {
      ++outcome_.hung;
    } else if (!isReaped || status != 0) {
      ++outcome_.failed;
    }
  }

  Outcome& outcome_;
  std::deque<pid_t> children_;
};

}  // namespace

std::span<const Deed> parentDeeds() { return ofParents; }

std::span<const Deed> childDeeds() { return ofChildren; }

bool isPromised(const Deed& parent, const Deed& child) {
  return parent.isDone != callLocaltime || child.isDone != tellTheTime;
}

void prepareForTable(const std::string& folder) {
  traceFolder = folder;
  setenv("GDIA_ID", "root", 1);
  setenv("QVX_DBG_TRACE", (folder + ",ERROR,CHILD,2").c_str(), 1);
  setenv("QVX_DBG_CODEPAGE", "ISO-8859-1", 1);
  // Found by its name from now on, wherever the loader looks.
  if (dlopen(CUL_TEST_LIBRARIES "/libwobndbg.so", RTLD_NOW) == nullptr) {
    throw std::runtime_error("no catalog");
  }
  // What every process of a debugger does while it starts.
  for (const Deed& deed : ofParents) {
    if (!isDoneWithoutException(deed)) {
      throw std::runtime_error(std::string("not even one process can do: ") + deed.name);
    }
  }
}

Outcome runPairing(const Deed& parent, const Deed& child, unsigned forks) {
  Outcome outcome;
  BusyThreads busy(parent);
  {
    Children children(outcome);
    for (unsigned i = 0; i < forks; ++i) {
      children.add(child);
    }
  }
  outcome.failed += busy.end();
  return outcome;
}
