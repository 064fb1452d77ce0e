// The entries of the folder of processes: whatever stands there, and in whatever order, a walk
// finds what reading the folder from its start finds. The folder is made up: the calls that read it
// are this program's own.

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <linux/magic.h>
#include <optional>
#include <set>
#include <string>
#include <sys/types.h>
#include <sys/vfs.h>
#include <unistd.h>
#include <vector>

#include "Engine/utilities/ProcessTable.h"

#include "fuzz/Fuzz.h"

namespace {

struct MadeUpEntry {
  std::string name;
  off64_t position;  // Where it is found by a jump.
};

// What the calls below read.
struct MadeUpFolder {
  std::vector<MadeUpEntry> entries;
  bool isOfProcesses = true;
  size_t at = 0;
  dirent entry = {};

  [[nodiscard]] off64_t behind(size_t index) const {
    return index + 1 < entries.size() ? entries[index + 1].position : LONG_MAX;
  }
};

MadeUpFolder folder;

// As "%d%c" scans it.
std::optional<pid_t> processOf(const std::string& name) {
  size_t at = name.find_first_not_of(" \t\n\v\f\r");
  const size_t sign = at;
  if (at != std::string::npos && (name[at] == '-' || name[at] == '+')) {
    ++at;
  }
  if (at == std::string::npos || at == name.size() ||
      name.find_first_not_of("0123456789", at) != std::string::npos) {
    return std::nullopt;
  }
  long long value = 0;
  for (size_t i = at; i < name.size(); ++i) {
    value = std::min(10 * value + (name[i] - '0'), 1LL << 40);
  }
  value = name[sign] == '-' ? -value : value;
  if (value < INT_MIN || value > INT_MAX) {
    return std::nullopt;
  }
  return static_cast<pid_t>(value);
}

struct Found {
  pid_t process;
  pid_t next;
};

std::optional<Found> expected(pid_t wanted) {
  for (size_t i = 0; i < folder.entries.size(); ++i) {
    const std::optional<pid_t> process = processOf(folder.entries[i].name);
    if (process && (wanted == 0 || *process == wanted)) {
      const std::optional<pid_t> next =
          i + 1 < folder.entries.size() ? processOf(folder.entries[i + 1].name) : std::nullopt;
      return Found{*process, next.value_or(*process < INT_MAX ? *process + 1 : INT_MIN)};
    }
  }
  return std::nullopt;
}

void checkWalk(pid_t index) {
  for (int steps = 0; steps < 100; ++steps) {
    const std::optional<Found> found = expected(index);
    procentry64 entry = {-7};
    pid_t next = index;
    const int result = getprocs64(&entry, sizeof entry, nullptr, 0, &next, 1);
    FUZZ_CHECK(result == (found ? 1 : -1));
    if (!found) {
      FUZZ_CHECK(entry.processId == -7 && next == index);
      break;
    }
    FUZZ_CHECK(entry.processId == found->process && next == found->next);
    index = next;
  }
}

}  // namespace

// Only the folder of processes is read while there is input.
extern "C" {
DIR* opendir(const char*) {
  folder.at = 0;
  return reinterpret_cast<DIR*>(&folder);
}
int closedir(DIR*) { return 0; }
int dirfd(DIR*) noexcept { return 1000; }
void rewinddir(DIR*) noexcept { folder.at = 0; }
dirent* readdir(DIR*) {
  if (folder.at == folder.entries.size()) {
    return nullptr;
  }
  const MadeUpEntry& entry = folder.entries[folder.at++];
  const size_t length = std::min(entry.name.size(), sizeof folder.entry.d_name - 1);
  std::memcpy(folder.entry.d_name, entry.name.data(), length);
  folder.entry.d_name[length] = '\0';
  return &folder.entry;
}
int fstatfs(int, struct statfs* status) noexcept {
  status->f_type = folder.isOfProcesses ? PROC_SUPER_MAGIC : EXT2_SUPER_MAGIC;
  return 0;
}
off64_t lseek64(int, off64_t position, int) noexcept {
  const auto at =
      std::find_if(folder.entries.begin(), folder.entries.end(),
                   [&](const MadeUpEntry& entry) { return entry.position >= position; });
  folder.at = static_cast<size_t>(at - folder.entries.begin());
  return position;
}
ssize_t getdents64(int, void* room, size_t size) noexcept {
  size_t used = 0;
  for (; folder.at < folder.entries.size(); ++folder.at) {
    const MadeUpEntry& entry = folder.entries[folder.at];
    const size_t length = (offsetof(dirent64, d_name) + entry.name.size() + 1 + 7) / 8 * 8;
    if (used + length > size) {
      if (used == 0) {
        errno = EINVAL;
        return -1;
      }
      break;
    }
    auto* const into = reinterpret_cast<dirent64*>(static_cast<char*>(room) + used);
    into->d_reclen = static_cast<unsigned short>(length);
    into->d_off = folder.behind(folder.at);
    std::memcpy(into->d_name, entry.name.c_str(), entry.name.size() + 1);
    used += length;
  }
  return static_cast<ssize_t>(used);
}
}

void setUpFuzzing() {}

// As the kernel lists them: what is no process, then the processes in the order of their numbers,
// each at a position that differs from its number by `before`.
std::vector<MadeUpEntry> kernelsEntries(const std::vector<std::string>& names, off64_t before) {
  std::vector<MadeUpEntry> result;
  std::set<pid_t> processes;
  for (const std::string& name : names) {
    const std::optional<pid_t> process = processOf(name);
    if (!process) {
      result.push_back({name, static_cast<off64_t>(result.size())});
    } else if (*process > 0) {
      processes.insert(*process);
    }
  }
  const auto behind = std::max(before, static_cast<off64_t>(result.size()));
  for (const pid_t process : processes) {
    result.push_back({std::to_string(process), behind + process});
  }
  return result;
}

// The entries of any other folder are where they are.
std::vector<MadeUpEntry> anyEntries(const std::vector<std::string>& names) {
  std::vector<MadeUpEntry> result;
  for (const std::string& name : names) {
    result.push_back({name, static_cast<off64_t>(result.size())});
  }
  return result;
}

// Which folder it is, where it has its processes, where the walk begins, and the names.
void fuzz(FuzzInput& input) {
  folder.isOfProcesses = input.choice(2) == 0;
  const off64_t before = input.choice(2) == 0 ? 258 : 200 + input.byte();
  const auto start = static_cast<pid_t>(input.word());
  std::vector<std::string> names;
  while (!input.isEmpty()) {
    names.push_back(upToZero(input.text()).substr(0, 255));
  }
  folder.entries = folder.isOfProcesses ? kernelsEntries(names, before) : anyEntries(names);
  checkWalk(0);
  checkWalk(start);
  for (const MadeUpEntry& entry : folder.entries) {
    if (const std::optional<pid_t> process = processOf(entry.name)) {
      checkWalk(*process);
    }
  }
}
