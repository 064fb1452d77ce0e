#include "Engine/utilities/ProcessTable.h"

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "benchmarks/Comparison.h"

/// \file
/// All processes of the machine with their arguments, beside a program that reads /proc by
/// itself: it opens the folder once for all processes and reads each list with one call. Our walk
/// opens the folder again for each process, looks at once where the process is, and reads a list
/// until nothing more comes. Both sides grow with the number of processes, which the rows with more
/// of them show; the one of a single process shows what the arguments alone cost.

namespace {

constexpr int bufferSize = 4096;

// Processes that sleep as long as the object is there.
class Sleepers {
 public:
  /// May have fewer, where the limit of processes is lower.
  explicit Sleepers(unsigned count) {
    const pid_t parent = getpid();
    while (processes_.size() < count) {
      const pid_t process = fork();
      if (process == -1) {
        return;
      }
      if (process == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        while (getppid() == parent) {
          pause();
        }
        _exit(0);
      }
      processes_.push_back(process);
    }
  }
  Sleepers(const Sleepers&) = delete;
  Sleepers& operator=(const Sleepers&) = delete;
  ~Sleepers() {
    for (const pid_t process : processes_) {
      kill(process, SIGKILL);
    }
    for (const pid_t process : processes_) {
      waitpid(process, nullptr, 0);
    }
  }

  [[nodiscard]] std::size_t count() const { return processes_.size(); }

 private:
  std::vector<pid_t> processes_;
};

// \return how many processes have arguments.
unsigned listOurs() {
  unsigned count = 0;
  procentry64 entry;
  pid_t index = 0;
  char buffer[bufferSize];
  while (getprocs64(&entry, sizeof entry, nullptr, 0, &index, 1) == 1) {
    count += getargs(&entry, sizeof entry, buffer, bufferSize) == 0 && buffer[0] != '\0' ? 1 : 0;
  }
  return count;
}

bool readArguments(pid_t process, char* buffer) {
  const std::string path = "/proc/" + std::to_string(process) + "/cmdline";
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  const ssize_t n = read(fd, buffer, bufferSize - 1);
  close(fd);
  buffer[n < 0 ? 0 : n] = '\0';
  return n >= 0;
}

unsigned listPeers() {
  unsigned count = 0;
  char buffer[bufferSize];
  DIR* const folder = opendir("/proc");
  while (const dirent* const entry = readdir(folder)) {
    char* end = nullptr;
    const long process = std::strtol(entry->d_name, &end, 10);
    if (*end == '\0' && readArguments(static_cast<pid_t>(process), buffer)) {
      count += buffer[0] != '\0' ? 1 : 0;
    }
  }
  closedir(folder);
  return count;
}

void addListing(const std::string& name, const std::shared_ptr<Sleepers>& sleepers,
                unsigned (*list)()) {
  benchmark::RegisterBenchmark(name.c_str(), [sleepers, list](benchmark::State& state) {
    unsigned least = ~0U;
    for (auto _ : state) {
      least = std::min(least, list());
    }
    // A walk of ours ends early when a process of another program ends under it.
    if (least < sleepers->count()) {
      state.SkipWithError("Other processes ended meanwhile.");
    }
  });
}

}  // namespace

void compareManyProcesses(unsigned count) {
  const auto sleepers = std::make_shared<Sleepers>(count);
  if (sleepers->count() < count) {
    std::fprintf(stderr, "There cannot be %u processes.\n", count);
    return;
  }
  const std::string what =
      "process table: all with arguments, " + std::to_string(count) + " more processes";
  addListing(what + "/ours", sleepers, listOurs);
  addListing(what + "/opendir + read", sleepers, listPeers);
}

void compareArguments() {
  compare(
      "process table: the arguments of one process",
      [] {
        procentry64 entry = {getpid()};
        char buffer[bufferSize];
        getargs(&entry, sizeof entry, buffer, bufferSize);
        benchmark::DoNotOptimize(buffer);
      },
      "open + read",
      [] {
        char buffer[bufferSize];
        readArguments(getpid(), buffer);
        benchmark::DoNotOptimize(buffer);
      });
}
