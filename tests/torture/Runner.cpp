#include "tests/torture/Runner.h"

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <dirent.h>
#include <dlfcn.h>
#include <exception>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <memory>
#include <new>
#include <poll.h>
#include <pthread.h>
#include <stdexcept>
#include <string_view>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

#include "Engine/utilities/AssertionFail.h"
#include "Engine/utilities/AssertionMode.h"
#include "Engine/utilities/DebuggerSettings.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/StdException.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/StringPoolManager.h"
#include "Engine/utilities/TraceFlags.h"

#include "tests/support/TemporaryFolder.h"

namespace {

// Many times what the slowest needs on a machine whose processors and disk are busy.
constexpr time_t limitInSeconds = 30;

// Written by the child.
struct Report {
  Count count;
  Holdings holds;
  char told[200];   // while the fault was armed; empty: it did not come back
  char again[200];  // on the same thread
  char other[200];  // on another
  bool isOver;
};

struct Threads {
  int number = 0;
  int awake = 0;  // but for this one
};

Threads threadsNow() {
  Threads threads;
  DIR* const folder = opendir("/proc/self/task");
  while (const dirent* const entry = readdir(folder)) {
    const std::string_view name = entry->d_name;
    if (name.starts_with('.')) {
      continue;
    }
    ++threads.number;
    const std::string file = "/proc/self/task/" + std::string(name) + "/stat";
    char stat[64] = {};
    const int descriptor = open(file.c_str(), O_RDONLY);
    // Nothing to read: it has gone meanwhile.
    const bool isAsleep =
        read(descriptor, stat, sizeof stat - 1) > 0 && std::strstr(stat, ") S ") != nullptr;
    close(descriptor);
    threads.awake += isAsleep || name == std::to_string(gettid()) ? 0 : 1;
  }
  closedir(folder);
  return threads;
}

// Threads that have told of their end may not be gone yet, and those that stay not have come to
// where they wait, by when they have all that they hold.
// \param expected how many there are then; 0: nobody knows.
int settledThreads(int expected) {
  Threads threads = threadsNow();
  for (int i = 0; i < 2000; ++i) {
    if (threads.awake == 0 && (expected == 0 || threads.number <= expected)) {
      break;
    }
    usleep(2000);
    threads = threadsNow();
  }
  return threads.number;
}

template <std::size_t n>
void note(char (&place)[n], std::string_view text) {
  text.copy(place, n - 1);
}

// What fails on another thread fails as long as the work is under way.
void disarmWhereAllRest() {
  {
    const Spared spared;
    settledThreads(0);
  }
  disarm();
}

// Forced unwinding, of a thread that is asked to end, passes.
template <std::size_t n>
void perform(const Workload& work, char (&told)[n]) {
  try {
    try {
      work.work();
      disarmWhereAllRest();
      note(told, "done");
    } catch (...) {
      disarmWhereAllRest();
      throw;
    }
  } catch (const Other& other) {
    note(told, "other: " + other.what);
  } catch (const StdException& exception) {
    note(told, "threw StdException: " + std::string(exception.text.view()));
  } catch (const EncodedString& text) {
    note(told, "threw EncodedString: " + std::string(text.view()));
  } catch (const std::bad_alloc&) {
    note(told, "threw std::bad_alloc");
  } catch (const std::exception& exception) {
    note(told, std::string("threw std::exception: ") + exception.what());
  } catch (const abi::__forced_unwind&) {
    throw;
  } catch (...) {
    note(told, std::string("threw ") + abi::__cxa_current_exception_type()->name());
  }
}

int entriesIn(const char* path) {
  int n = 0;
  DIR* const folder = opendir(path);
  while (readdir(folder) != nullptr) {
    ++n;
  }
  closedir(folder);
  return n - 2;
}

void takeAStock() {
  StringPoolManager& pool = StringPoolManager::instance();
  pool.freeBuffer(pool.getBuffer(8), 8);
}

// The C library keeps as many stacks as there were threads at a time, and memory with each; so does
// the string pool with its stocks.
void haveManyThreads() {
  takeAStock();  // here before there are any to spare
  constexpr unsigned number = 8;
  pthread_barrier_t barrier;
  pthread_barrier_init(&barrier, nullptr, number);
  pthread_attr_t small;
  pthread_attr_init(&small);
  pthread_attr_setstacksize(&small, 65536);
  pthread_t threads[number];
  for (pthread_t& thread : threads) {
    pthread_create(
        &thread, &small,
        [](void* all) -> void* {
          takeAStock();
          pthread_barrier_wait(static_cast<pthread_barrier_t*>(all));
          return nullptr;
        },
        &barrier);
  }
  for (const pthread_t thread : threads) {
    pthread_join(thread, nullptr);
  }
  pthread_attr_destroy(&small);
  pthread_barrier_destroy(&barrier);
}

// What the way of a failure may have been the first to use, or not.
void useEverythingOnce() {
  // The C library keeps what it has loaded of a locale.
  setlocale(LC_ALL, "");
  setlocale(LC_ALL, "C");
  AssertionFail(0, "torture", "void useEverythingOnce()", 1, "everything");
  static_cast<void>(DebuggerSettings::instance());
  static_cast<void>(assertionMode());
  try {
    StdException::throwException("torture", 1, "everything", 1);
  } catch (const StdException& exception) {
    exception.trace("torture", 1);
  }
  CUL_TRACE(TraceType::warning, "void useEverythingOnce()", 1, "everything");
}

Holdings holdings(int threads) {
  Holdings holds;
  holds.threads = settledThreads(threads);
  holds.descriptors = entriesIn("/proc/self/fd");
  holds.allocated = allocated();
  StringPoolManager& pool = StringPoolManager::instance();
  holds.poolInUse = holds.allocated.poolBytes;
  for (const unsigned size : {8U, 16U, 24U, 32U, 48U, 64U}) {
    holds.poolInUse -= static_cast<long>(size) * pool.freeBlocks(size);
  }
  return holds;
}

std::string traceFile(const std::string& folder) { return folder + "/trace"; }

void setEnvironment(const Run& run, const std::string& folder) {
  clearenv();
  setenv("PATH", "/usr/bin:/bin", 1);
  setenv("LANG", "de_DE", 1);
  setenv("QVX_DBG_CODEPAGE", "ISO-8859-1", 1);
  if (run.trace != Trace::nowhere) {
    const std::string place = run.trace == Trace::file ? traceFile(folder) : "stderr";
    setenv("GDIA_ID", "root", 1);
    setenv("QVX_DBG_TRACE", (place + ",ALL,CHILD,1").c_str(), 1);
  }
}

// What the work finds there: an empty file, and one for what it says.
void setStreams(int output) {
  const int none = memfd_create("input", 0);
  dup2(none, 0);
  close(none);
  dup2(output, 1);
  dup2(output, 2);
  close(output);
}

[[noreturn]] void live(const Run& run, Report& report, int output, const std::string& folder) {
  // The parent's.
  const long blocksBefore = allocated().blocks;
  const int descriptorsBefore = entriesIn("/proc/self/fd");
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  constexpr rlimit noDumps = {0, 0};
  setrlimit(RLIMIT_CORE, &noDumps);
  setEnvironment(run, folder);
  setStreams(output);
  // Where a trace goes whose name cannot be read.
  if (chdir(folder.c_str()) != 0) {
    _exit(1);
  }
  if (run.start == Start::used) {
    if (run.work->ends < 0) {
      perform(*run.work, report.other);
      perform(*run.work, report.other);
      std::memset(report.other, 0, sizeof report.other);
    } else {
      static_cast<void>(StdThread::currentThread());
      static_cast<void>(isTraced(TraceType::active));
    }
  }
  if (run.outOfMemory == OutOfMemory::throws) {
    std::set_new_handler(nullptr);
  }
  // The library would end the process with 99, as it does where nobody can be told.
  if (run.work->ends != 99) {
    for (const int crash : {SIGSEGV, SIGBUS, SIGILL, SIGFPE}) {
      std::signal(crash, [](int number) { std::signal(number, SIG_DFL); });
    }
  }
  // What the program destroys when it exits is not what is tried.
  std::atexit(disarm);
  arm(run.fault, report.count);
  perform(*run.work, report.told);
  perform(*run.work, report.again);
  std::thread([&] { perform(*run.work, report.other); }).join();
  settledThreads(run.threads);
  haveManyThreads();
  useEverythingOnce();
  report.holds = holdings(run.threads);
  report.holds.allocated.blocks -= blocksBefore;
  report.holds.descriptors -= descriptorsBefore;
  report.isOver = true;
  _exit(0);
}

std::string contentsOfFile(int file) {
  std::string text(static_cast<std::size_t>(std::max<off_t>(lseek(file, 0, SEEK_END), 0)), '\0');
  const ssize_t n = pread(file, text.data(), text.size(), 0);
  text.resize(n < 0 ? 0 : static_cast<std::size_t>(n));
  return text;
}

// What the threads of a process are at: the state, and the system call with its arguments.
std::string threadsOf(pid_t process) {
  std::string text;
  const std::string tasks = "/proc/" + std::to_string(process) + "/task";
  std::error_code ignored;
  for (const auto& task : std::filesystem::directory_iterator(tasks, ignored)) {
    text += contentsOf(task.path() / "stat") + contentsOf(task.path() / "syscall");
  }
  return text;
}

// Where the order of locks is watched: a lock that fails is not released.
void watchNoLocks() {
  if (void* const stop = dlsym(RTLD_DEFAULT, "watchNoLocks"); stop != nullptr) {
    reinterpret_cast<void (*)()>(stop)();
  }
}

// A child that is under way, in a folder of its own.
class Child {
 public:
  explicit Child(const Run& run) : run_(&run) {
    void* const memory =
        mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    output_ = memfd_create("output", MFD_CLOEXEC);
    if (memory == MAP_FAILED || output_ < 0 || mkdtemp(folder_.data()) == nullptr) {
      throw std::runtime_error("no place for a report");
    }
    report_ = new (memory) Report();
    process_ = fork();
    if (process_ == 0) {
      if (run.fault.kind == Fault::call) {
        watchNoLocks();
      }
      live(run, *report_, output_, folder_);
    }
    if (process_ < 0) {
      throw std::system_error(errno, std::generic_category(), "fork");
    }
    handle_ = static_cast<int>(syscall(SYS_pidfd_open, process_, 0, 0, 0, 0, 0));
    if (handle_ < 0) {
      const int error = errno;
      end();
      throw std::system_error(error, std::generic_category(), "pidfd_open");
    }
    clock_gettime(CLOCK_MONOTONIC, &begin_);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    if (process_ > 0) {
      end();
    }
    munmap(report_, sizeof(Report));
    close(output_);
    close(handle_);
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }

  int handle() const { return handle_; }
  const Run& run() const { return *run_; }

  bool isTooOld() const {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec - begin_.tv_sec > limitInSeconds;
  }

  // \param isHung it is killed then.
  Outcome take(bool isHung) {
    Outcome outcome;
    if (isHung) {
      outcome.output = std::string("again \"") + report_->again + "\", on another thread \"" +
                       report_->other + "\"\n" + threadsOf(process_);
      kill(process_, SIGKILL);
    }
    int status = 0;
    waitpid(process_, &status, 0);
    process_ = -1;
    outcome.count = report_->count;
    outcome.holds = report_->holds;
    outcome.isOver = report_->isOver;
    outcome.output += contentsOfFile(output_);
    outcome.told = report_->told;
    if (run_->trace == Trace::file) {
      outcome.trace = contentsOf(traceFile(folder_));
    }
    outcome.isElsewhere = run_->trace == Trace::stream && !std::filesystem::is_empty(folder_);
    if (isHung) {
      outcome.problem = "hung";
    } else if (WIFSIGNALED(status)) {
      outcome.problem = std::string("was killed by ") + strsignal(WTERMSIG(status));
    } else if (!report_->isOver) {
      const std::string end = "ended " + std::to_string(WEXITSTATUS(status));
      if (outcome.told.empty()) {
        outcome.told = end;
      } else if (run_->work->ends != WEXITSTATUS(status)) {
        outcome.problem = "told \"" + outcome.told + "\" and then " + end;
      }
    } else if (run_->work->keepsFirstFailure && run_->start == Start::fresh) {
    } else if (report_->again != std::string_view("done")) {
      outcome.problem = "told again \"" + std::string(report_->again) + "\"";
    } else if (report_->other != std::string_view("done")) {
      outcome.problem = "told on another thread \"" + std::string(report_->other) + "\"";
    }
    return outcome;
  }

 private:
  // Nobody has waited for it.
  void end() const {
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
  }

  const Run* run_;
  std::string folder_ = workFolder() + "/child.XXXXXX";
  Report* report_ = nullptr;
  int output_ = -1;
  pid_t process_ = -1;
  int handle_ = -1;
  timespec begin_ = {};
};

// Whether a text, or one that begins so and ends in "...", is told.
bool isTold(std::string_view text, const std::string& told) {
  return text.ends_with("...") ? told.starts_with(text.substr(0, text.size() - 3)) : told == text;
}

// Whether a name is among some with spaces between.
bool isAmong(std::string_view name, std::string_view names) {
  const std::string all = " " + std::string(names) + " ";
  return all.find(" " + std::string(name) + " ") != std::string::npos;
}

bool mayTell(const Workload& work, const std::string& told, const std::string& failed) {
  return std::any_of(work.mayTell.begin(), work.mayTell.end(), [&](const MayTell& row) {
    return isTold(row.told, told) && isAmong(failed, row.where);
  });
}

std::string excess(const char* what, long is, long was) {
  return is > was ? std::to_string(is - was) + " " + what + " too many; " : "";
}

}  // namespace

WorkFolder::WorkFolder() {
  // Its signal for the parent's end waits until it is asked for.
  sigset_t death;
  sigemptyset(&death);
  sigaddset(&death, SIGUSR1);
  const pid_t parent = getpid();
  remover_ = fork();
  if (remover_ < 0) {
    throw std::system_error(errno, std::generic_category(), "fork");
  }
  if (remover_ == 0) {
    sigprocmask(SIG_SETMASK, &death, nullptr);
    prctl(PR_SET_PDEATHSIG, SIGUSR1);
    // Neither who interrupts the parent nor who waits for the end of its streams notices this one.
    setsid();
    for (const int stream : {0, 1, 2}) {
      close(stream);
    }
    int signal = 0;
    while (getppid() == parent) {
      sigwait(&death, &signal);
    }
    std::error_code ignored;
    std::filesystem::remove_all(folder_.path(), ignored);
    _exit(0);
  }
  prepareForWork(folder_.path());
}

WorkFolder::~WorkFolder() {
  kill(remover_, SIGKILL);
  waitpid(remover_, nullptr, 0);
}

std::string nameOf(const Run& run) {
  std::string name = run.work->name;
  name += run.start == Start::used ? ", used" : ", fresh";
  name += run.trace == Trace::nowhere ? "" : run.trace == Trace::file ? ", traced" : ", told";
  if (run.fault.kind != Fault::none) {
    name += run.fault.kind == Fault::allocation ? ", allocation " : ", call ";
    name += std::to_string(run.fault.first) + (run.fault.forGood ? " and later" : "");
  }
  if (run.fault.kind == Fault::call) {
    name += ", error " + std::to_string(run.fault.error);
  } else if (run.fault.kind == Fault::allocation) {
    name += run.outOfMemory == OutOfMemory::ends ? ", ends" : ", throws";
  }
  return name;
}

void runAll(const std::vector<Run>& runs, unsigned atATime,
            const std::function<void(const Run&, Outcome&)>& take) {
  std::vector<std::unique_ptr<Child>> children;
  auto next = runs.begin();
  while (next != runs.end() || !children.empty()) {
    while (next != runs.end() && children.size() < atATime) {
      children.push_back(std::make_unique<Child>(*next++));
    }
    std::vector<pollfd> waits;
    // Before a look at who has come to the end: that may have been late as well.
    std::vector<bool> areTooOld;
    for (const auto& child : children) {
      waits.push_back({child->handle(), POLLIN, 0});
      areTooOld.push_back(child->isTooOld());
    }
    poll(waits.data(), waits.size(), 1000);
    for (std::size_t i = waits.size(); i-- != 0;) {
      const bool isHung = waits[i].revents == 0 && areTooOld[i];
      if (isHung || waits[i].revents != 0) {
        Outcome outcome = children[i]->take(isHung);
        const Run& run = children[i]->run();
        take(run, outcome);
        children.erase(children.begin() + static_cast<std::ptrdiff_t>(i));
      }
    }
  }
}

Outcome runOne(const Run& run) {
  Outcome result;
  runAll({run}, 1, [&](const Run&, Outcome& outcome) { result = std::move(outcome); });
  return result;
}

std::string whatFailed(const Outcome& outcome) {
  if (outcome.count.failed == 0) {
    return "nothing";
  }
  const int call = outcome.count.failedCall;
  return call < 0 ? "malloc" : fallibleCalls()[static_cast<std::size_t>(call)].name;
}

std::string judge(const Run& run, const Outcome& outcome, const Outcome& healthy) {
  const std::string failed = whatFailed(outcome);
  if (mayTell(*run.work, outcome.problem, failed)) {
    return "";
  }
  if (!outcome.problem.empty()) {
    return outcome.problem;
  }
  const auto isPrinted = [&](const char* text) {
    return outcome.output.find(text) != std::string::npos;
  };
  const bool isOutOfMemory =
      run.fault.kind == Fault::allocation &&
      (outcome.told == "threw std::bad_alloc" ||
       (outcome.told == "ended 1" && isPrinted("Out of memory")) ||
       // The C library's own ends, where there is no memory for what is a thread's.
       isPrinted("failed to register TLS destructor") ||
       (outcome.told == "ended 127" && isPrinted("cannot allocate memory for thread-local data")));
  if (outcome.told != healthy.told && !isOutOfMemory && !mayTell(*run.work, outcome.told, failed)) {
    return "told \"" + outcome.told + "\"";
  }
  for (const MustTrace& row : run.work->mustTrace) {
    if (run.trace == Trace::file && row.call == failed && outcome.told != healthy.told &&
        outcome.trace.find(row.line) == std::string::npos) {
      return std::string("did not trace \"") + row.line + "\"";
    }
  }
  if (!outcome.isOver || !healthy.isOver) {
    return "";
  }
  // A trace that could not read its output's name is in a file instead, which it holds.
  return (outcome.isElsewhere
              ? ""
              : excess("blocks", outcome.holds.allocated.blocks, healthy.holds.allocated.blocks) +
                    excess("descriptors", outcome.holds.descriptors, healthy.holds.descriptors)) +
         (run.work->shortens
              ? ""
              : excess("bytes of the pool", outcome.holds.poolInUse, healthy.holds.poolInUse)) +
         excess("threads", outcome.holds.threads, healthy.holds.threads);
}

namespace {

// As many as have something fail for certain, though some calls are made by chance.
constexpr std::size_t atLeast = 4;

// All runs with something failing that the one without it makes.
void addRuns(std::vector<Run>& runs, const Run& healthyRun, const Outcome& healthy,
             Fault::Kind kind, const Thoroughness& thoroughness) {
  const bool isAllocation = kind == Fault::allocation;
  const unsigned n = isAllocation ? healthy.count.allocations : healthy.count.calls;
  const unsigned first = std::max(thoroughness.number.value_or(1), 1U);
  const unsigned last = std::min(thoroughness.number.value_or(n), n);
  for (unsigned i = first; i <= last; ++i) {
    Run run = healthyRun;
    run.threads = healthy.holds.threads;
    run.fault = {.kind = kind, .first = i};
    const std::size_t errors =
        isAllocation ? 1 : fallibleCalls()[healthy.count.made[i - 1]].errors.size();
    for (unsigned error = 0; error < errors; ++error) {
      run.fault.error = error;
      if (thoroughness.error.value_or(error) == error) {
        runs.push_back(run);
      }
    }
    if (isAllocation) {
      run.fault.forGood = true;
      runs.push_back(run);
    }
  }
}

}  // namespace

Findings torture(const Workload& work, Fault::Kind kind, const Thoroughness& thoroughness) {
  Findings findings;
  std::vector<Run> runs;
  std::map<std::string, Outcome> healthyOutcomes;
  const auto keyOf = [](Run run) {
    run.fault = {};
    return nameOf(run) + (run.outOfMemory == OutOfMemory::ends ? ", ends" : "");
  };
  std::vector<Run> healthyRuns;
  for (const Start start : {Start::fresh, Start::used}) {
    for (const Trace trace : {Trace::nowhere, Trace::file, Trace::stream}) {
      if (start == Start::used && trace == Trace::stream) {
        continue;
      }
      for (const OutOfMemory outOfMemory : {OutOfMemory::throws, OutOfMemory::ends}) {
        if (kind == Fault::allocation || outOfMemory == OutOfMemory::ends) {
          healthyRuns.push_back({&work, start, outOfMemory, trace});
        }
      }
    }
  }
  runAll(healthyRuns, thoroughness.atATime, [&](const Run& run, Outcome& outcome) {
    const std::string wanted = work.ends < 0 ? "done" : "ended " + std::to_string(work.ends);
    if (!outcome.problem.empty() || outcome.told != wanted) {
      findings.problems.push_back(nameOf(run) + ": told \"" + outcome.told + "\" " +
                                  outcome.problem + "\n" + outcome.output);
    }
    if (outcome.count.calls > Count::most) {
      findings.problems.push_back(nameOf(run) + ": more calls than are counted");
      return;
    }
    addRuns(runs, run, outcome, kind, thoroughness);
    healthyOutcomes[keyOf(run)] = std::move(outcome);
  });
  findings.canFail = !runs.empty();
  // At least some of each work.
  const std::size_t share =
      std::clamp<std::size_t>(runs.size() / atLeast, 1, std::max(thoroughness.share, 1U));
  std::vector<Run> chosen;
  for (std::size_t i = thoroughness.seed % share; i < runs.size(); i += share) {
    chosen.push_back(runs[i]);
  }
  runAll(chosen, thoroughness.atATime, [&](const Run& run, Outcome& outcome) {
    ++findings.runs;
    findings.failures += outcome.count.failed != 0 ? 1 : 0;
    const std::string wrong = judge(run, outcome, healthyOutcomes[keyOf(run)]);
    if (!wrong.empty()) {
      findings.problems.push_back(nameOf(run) + ", " + whatFailed(outcome) + ": " + wrong +
                                  (outcome.output.empty() ? "" : "\n") +
                                  outcome.output.substr(0, 1000) + "\n" +
                                  outcome.trace.substr(outcome.trace.find("====") + 1));
    }
  });
  return findings;
}
