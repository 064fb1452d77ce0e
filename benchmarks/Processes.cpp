#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <optional>
#include <spawn.h>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/SpawnedProcess.h"
#include "Engine/utilities/UNIX/UNIX_Event_Semaphore.h"

#include "benchmarks/Comparison.h"

/// \file
/// Processes are started with the standard streams of this one and no other descriptor. A
/// start takes one pass of the timer thread before the child is waited for (10 to 50 ms),
/// and so does asking whether a child still runs. How soon the program runs is measured on
/// its own: a thread starts it, another reads what it prints. `posix_spawn` lends the child its
/// memory; the plainest `fork` shows what the copy of the page tables costs on this machine. That
/// grows with what is resident, in a process for each size. The bound of a row with the timer's
/// pass is the pass alone.

namespace {

std::unique_ptr<SpawnedProcess> startOurs(const char* program, const char* argument) {
  EncodedString text(argument, EncodedString::utf8);
  List<EncodedString*> arguments;
  arguments.add(&text);
  return std::make_unique<SpawnedProcess>(EncodedString(program, EncodedString::utf8),
                                          EncodedString(), arguments, 1, 0);
}

void endOurs(const SpawnedProcess& process) {
  require(!process.wait(60) && process.returnCode() == 0, "the status of a process");
}

pid_t startPeers(const char* program, const char* argument) {
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t reset;
  sigemptyset(&reset);
  sigaddset(&reset, SIGPIPE);
  sigaddset(&reset, SIGTTIN);
  posix_spawnattr_setsigdefault(&attributes, &reset);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  char* const arguments[] = {const_cast<char*>(program), const_cast<char*>(argument), nullptr};
  pid_t process = 0;
  require(posix_spawn(&process, program, &actions, &attributes, arguments, environ) == 0,
          "posix_spawn");
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  return process;
}

pid_t forkPeers(const char* program, const char* argument) {
  char* const arguments[] = {const_cast<char*>(program), const_cast<char*>(argument), nullptr};
  const pid_t process = fork();
  if (process == 0) {
    signal(SIGPIPE, SIG_DFL);
    signal(SIGTTIN, SIG_DFL);
    close_range(3, ~0U, 0);
    execv(program, arguments);
    _exit(1);
  }
  require(process != -1, "fork");
  return process;
}

int endPeers(pid_t process) {
  int status = -1;
  while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

// Opens descriptors until the process has so many, and closes them at the end of the scope.
class ManyDescriptors {
 public:
  explicit ManyDescriptors(int count) {
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    constexpr rlim_t spare = 100;
    const rlim_t wanted = static_cast<rlim_t>(count) + spare;
    if (limit.rlim_cur < wanted && limit.rlim_max >= wanted) {
      limit.rlim_cur = wanted;
      setrlimit(RLIMIT_NOFILE, &limit);
    }
    for (int fd; (fd = open("/dev/null", O_RDONLY)) >= 0;) {
      opened_.push_back(fd);
      if (fd + 1 >= count) {
        isEnough_ = true;
        break;
      }
    }
  }
  ManyDescriptors(const ManyDescriptors&) = delete;
  ManyDescriptors& operator=(const ManyDescriptors&) = delete;
  ~ManyDescriptors() {
    for (const int fd : opened_) {
      close(fd);
    }
  }
  [[nodiscard]] bool isEnough() const { return isEnough_; }

 private:
  std::vector<int> opened_;
  bool isEnough_ = false;
};

// Reads what this process and its children print, until the end of the scope.
class OutputPipe {
 public:
  OutputPipe() : saved_(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3)) {
    int ends[2];
    require(pipe2(ends, O_CLOEXEC) == 0, "pipe");
    read_ = ends[0];
    dup2(ends[1], STDOUT_FILENO);
    close(ends[1]);
  }
  OutputPipe(const OutputPipe&) = delete;
  OutputPipe& operator=(const OutputPipe&) = delete;
  ~OutputPipe() {
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
    close(read_);
  }
  void awaitLine() const {
    char line[2];
    require(read(read_, line, sizeof line) == 2, "what a process prints");
  }

 private:
  int saved_;
  int read_ = -1;
};

// Starts for each measurement. Each sleeps before, so that no number is found by trying.
constexpr benchmark::IterationCount starts = 5;

template <typename Start, typename End>
void measureStart(benchmark::State& state, Start start, End end) {
  const OutputPipe output;
  for (auto _ : state) {
    state.PauseTiming();
    // Ours sleeps while the timer passes, and then finds what others have left in the caches.
    // So that the peers do, too, all sleep as long before they start.
    constexpr useconds_t pass = 50000;
    usleep(pass);
    std::atomic<bool> isTime = false;
    std::thread starting([&] {
      isTime.wait(false);
      end(start());
    });
    state.ResumeTiming();
    isTime = true;
    isTime.notify_one();
    output.awaitLine();
    state.PauseTiming();
    starting.join();
    state.ResumeTiming();
  }
}

// The wall time: the work is done by the kernel, other threads and the child.
template <typename Operation>
benchmark::internal::Benchmark* addProcessBenchmark(const std::string& name, int descriptors,
                                                    Operation operation) {
  return benchmark::RegisterBenchmark(
             name.c_str(),
             [descriptors, operation](benchmark::State& state) {
               const ManyDescriptors many(descriptors);
               if (!many.isEnough()) {
                 state.SkipWithError("The limit of descriptors is too low.");
                 return;
               }
               operation(state);
             })
      ->UseRealTime();
}

constexpr int fewDescriptors = 20;

void compareStartUntilItRuns(const std::string& where, int descriptors) {
  const std::string what = "process: start until it runs, " + where;
  addProcessBenchmark(what + "/ours", descriptors, [](benchmark::State& state) {
    measureStart(
        state, [] { return startOurs("/bin/echo", "x"); },
        [](const auto& process) { endOurs(*process); });
  })->Iterations(starts);
  constexpr std::pair<const char*, pid_t (*)(const char*, const char*)> peers[] = {
      {"posix_spawn", startPeers}, {"fork", forkPeers}};
  for (const auto& [name, startPeer] : peers) {
    const auto start = startPeer;
    addProcessBenchmark(what + "/" + name, descriptors, [start](benchmark::State& state) {
      measureStart(
          state, [start] { return start("/bin/echo", "x"); },
          [](pid_t process) { require(endPeers(process) == 0, "the status of a process"); });
    })->Iterations(starts);
  }
}

// One look of the timer.
void addPass(const std::string& what) {
  addProcessBenchmark(what + "/bound", fewDescriptors, [](benchmark::State& state) {
    UNIX_Event_Semaphore event;
    for (auto _ : state) {
      require(event.wait(0, CUL_Event_Semaphore::Seconds, false), "a closed event");
    }
  });
}

void compareStarts(int descriptors) {
  const std::string open = std::to_string(descriptors) + " descriptors open";
  compareStartUntilItRuns(open, descriptors);
  const std::string whole = "process: start and reap, with the timer's pass, " + open;
  addProcessBenchmark(whole + "/ours", descriptors, [](benchmark::State& state) {
    for (auto _ : state) {
      endOurs(*startOurs("/bin/true", ""));
    }
  });
  addProcessBenchmark(whole + "/posix_spawn + waitpid", descriptors, [](benchmark::State& state) {
    for (auto _ : state) {
      require(endPeers(startPeers("/bin/true", "")) == 0, "the status of a process");
    }
  });
  addPass(whole);
}

// What is started meanwhile reads from a pipe, and comes to its end with the scope.
class InputPipe {
 public:
  InputPipe() : saved_(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3)) {
    int ends[2];
    require(pipe2(ends, O_CLOEXEC) == 0, "pipe");
    write_ = ends[1];
    dup2(ends[0], STDIN_FILENO);
    close(ends[0]);
  }
  InputPipe(const InputPipe&) = delete;
  InputPipe& operator=(const InputPipe&) = delete;
  ~InputPipe() {
    saved_ == -1 ? close(STDIN_FILENO) : dup2(saved_, STDIN_FILENO);
    close(saved_);
    close(write_);
  }

 private:
  int saved_;
  int write_ = -1;
};

void comparePolls() {
  const std::string whole = "process: ask whether it runs, with the timer's pass";
  addProcessBenchmark(whole + "/ours", fewDescriptors, [](benchmark::State& state) {
    auto input = std::make_optional<InputPipe>();
    const auto process = startOurs("/bin/cat", "-");
    for (auto _ : state) {
      require(!process->done(), "a process that runs");
    }
    input.reset();
    endOurs(*process);
  });
  addProcessBenchmark(whole + "/waitpid", fewDescriptors, [](benchmark::State& state) {
    auto input = std::make_optional<InputPipe>();
    const pid_t process = startPeers("/bin/cat", "-");
    for (auto _ : state) {
      require(waitpid(process, nullptr, WNOHANG) == 0, "a process that runs");
    }
    input.reset();
    require(endPeers(process) == 0, "the status of a process");
  });
  addPass(whole);
}

// Whether the machine has so much and half of it to spare: what is resident is not all.
bool hasRoomFor(std::size_t bytes) {
  std::ifstream memory("/proc/meminfo");
  for (std::string word; memory >> word;) {
    std::size_t kilobytes = 0;
    if (word == "MemAvailable:" && memory >> kilobytes) {
      return kilobytes / 3 * 2 > bytes / 1024;
    }
  }
  return false;
}

}  // namespace

void compareResident(unsigned megabytes) {
  const std::size_t size = std::size_t{megabytes} << 20;
  if (!hasRoomFor(size)) {
    std::fprintf(stderr, "There is no room for %u MB.\n", megabytes);
    return;
  }
  if (size != 0) {
    void* const memory =
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    require(memory != MAP_FAILED, "mmap");
    // In small pages, as what grew bit by bit.
    madvise(memory, size, MADV_NOHUGEPAGE);
    std::memset(memory, 1, size);
  }
  compareStartUntilItRuns(std::to_string(megabytes) + " MB resident", fewDescriptors);
}

void compareProcesses() {
  compareStarts(fewDescriptors);
  compareStarts(10000);
  comparePolls();
}
