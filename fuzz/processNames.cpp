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
#include "tests/support/StandIn.h"

CUL_STAND_IN(DIR*, opendir, (const char* name), CUL_NOTHING, name)
CUL_STAND_IN(int, closedir, (DIR * folder), CUL_NOTHING, folder)
CUL_STAND_IN(int, dirfd, (DIR * folder), noexcept, folder)
CUL_STAND_IN(void, rewinddir, (DIR * folder), noexcept, folder)
CUL_STAND_IN(dirent*, readdir, (DIR * folder), CUL_NOTHING, folder)
CUL_STAND_IN(int, fstatfs, (int file, struct statfs* status), noexcept, file, status)
CUL_STAND_IN(off64_t, lseek64, (int file, off64_t offset, int from), noexcept, file, offset, from)
CUL_STAND_IN(ssize_t, getdents64, (int file, void* room, size_t size), noexcept, file, room, size)

namespace {

struct MadeUpEntry {
  std::string name;
  off64_t position;  // Where it is found by a jump.
};

// What the stand-ins read.
struct MadeUpFolder {
  std::vector<MadeUpEntry> entries;
  bool isThere = true;
  bool isOfProcesses = true;
  bool canSeek = true;
  bool isMoving = false;  // Its entries are elsewhere at each look.
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

// What the stand-ins do, while the library is at work.
DIR* openMadeUp(const char* /*name*/) {
  folder.at = 0;
  return folder.isThere ? reinterpret_cast<DIR*>(&folder) : nullptr;
}
int closeMadeUp(DIR* /*opened*/) { return 0; }
int numberOfMadeUp(DIR* /*opened*/) { return 1000; }
void rewindMadeUp(DIR* /*opened*/) { folder.at = 0; }
dirent* readMadeUp(DIR* /*opened*/) {
  if (folder.at == folder.entries.size()) {
    return nullptr;
  }
  const MadeUpEntry& entry = folder.entries[folder.at++];
  std::memcpy(folder.entry.d_name, entry.name.c_str(), entry.name.size() + 1);
  return &folder.entry;
}
int systemOfMadeUp(int /*folder*/, struct statfs* status) {
  status->f_type = folder.isOfProcesses ? PROC_SUPER_MAGIC : EXT2_SUPER_MAGIC;
  return 0;
}
off64_t seekInMadeUp(int /*folder*/, off64_t position, int /*from*/) {
  for (MadeUpEntry& entry : folder.entries) {
    entry.position += folder.isMoving ? 7 : 0;
  }
  const auto at =
      std::find_if(folder.entries.begin(), folder.entries.end(),
                   [&](const MadeUpEntry& entry) { return entry.position >= position; });
  folder.at = static_cast<size_t>(at - folder.entries.begin());
  return folder.canSeek ? position : -1;
}
ssize_t entriesOfMadeUp(int /*folder*/, void* room, size_t size) {
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

struct Found {
  pid_t process;
  pid_t next;
};

std::optional<Found> expected(pid_t wanted) {
  for (size_t i = 0; folder.isThere && i < folder.entries.size(); ++i) {
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
  result.reserve(names.size());
  for (const std::string& name : names) {
    result.push_back({name, static_cast<off64_t>(result.size())});
  }
  return result;
}

// Which folder it is, where it has its processes, where the walk begins, and the names.
void fuzz(FuzzInput& input) {
  const unsigned kind = input.choice(5);
  folder.isOfProcesses = kind != 1;
  folder.isThere = kind != 2;
  folder.canSeek = kind != 3;
  folder.isMoving = kind == 4;
  const off64_t before = input.choice(2) == 0 ? 258 : 200 + input.byte();
  const auto start = static_cast<pid_t>(input.word());
  std::vector<std::string> names;
  while (!input.isEmpty()) {
    names.push_back(upToZero(input.text()).substr(0, 255));
  }
  folder.entries = folder.isOfProcesses ? kernelsEntries(names, before) : anyEntries(names);

  const Instead opened(opendirStandIn, openMadeUp);
  const Instead closed(closedirStandIn, closeMadeUp);
  const Instead numbered(dirfdStandIn, numberOfMadeUp);
  const Instead rewound(rewinddirStandIn, rewindMadeUp);
  const Instead read(readdirStandIn, readMadeUp);
  const Instead told(fstatfsStandIn, systemOfMadeUp);
  const Instead sought(lseek64StandIn, seekInMadeUp);
  const Instead listed(getdents64StandIn, entriesOfMadeUp);
  pid_t index = 0;
  procentry64 entry = {};
  FUZZ_CHECK(getprocs64(nullptr, 0, nullptr, 0, &index, 1) == -1);
  FUZZ_CHECK(getprocs64(&entry, sizeof entry, nullptr, 0, nullptr, 1) == -1);
  checkWalk(0);
  checkWalk(start);
  for (const MadeUpEntry& one : folder.entries) {
    if (const std::optional<pid_t> process = processOf(one.name)) {
      checkWalk(*process);
    }
  }
}
