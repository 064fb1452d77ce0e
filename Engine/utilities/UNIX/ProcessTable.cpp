#include "Engine/utilities/ProcessTable.h"

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <memory>
#include <optional>
#include <sys/vfs.h>
#include <unistd.h>

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/PlaceNumber.h"
#include "Engine/utilities/Descriptor.h"
#include "Engine/utilities/TraceFlags.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_FIELD(procentry64, processId, 0);

namespace {

constexpr const char* getprocsText =
    "int getprocs64(procentry64*, int, fdsinfo*, int, pid_t*, int)";
constexpr const char* getargsText = "int getargs(procentry64*, int, char*, int)";

struct CloseFolder {
  void operator()(DIR* folder) const { closedir(folder); }
};
using Folder = std::unique_ptr<DIR, CloseFolder>;

// The number that makes up the whole name, as "%d%c" scans it. The result of "%d" is undefined
// for a number that no int holds: such a name is none of a process.
std::optional<pid_t> processOf(const char* name) {
  char* end = nullptr;
  const long number = std::strtol(name, &end, 10);
  if (end == name || *end != '\0' || number < INT_MIN || number > INT_MAX) {
    return std::nullopt;
  }
  return static_cast<pid_t>(number);
}

pid_t successorOf(pid_t process) {
  return process < INT_MAX ? process + 1 : INT_MIN;  // No identifier of the kernel is that large.
}

// The entries of an open folder from its position on, a few at a time: the kernel makes all
// that have room.
class Entries {
 public:
  explicit Entries(int folder) noexcept : folder_(folder) {}

  /// Goes to the next one, which stays until the one behind it is asked for.
  /// \return null at the end.
  const dirent64* next() noexcept {
    if (at_ == end_) {
      // Less than has room is no end: a signal cuts the list short.
      const ssize_t length = getdents64(folder_, room_, sizeof room_);
      at_ = 0;
      end_ = length > 0 ? static_cast<std::size_t>(length) : 0;
    }
    if (at_ == end_) {
      return nullptr;
    }
    const auto* const entry = reinterpret_cast<const dirent64*>(room_ + at_);
    at_ += entry->d_reclen;
    return entry;
  }

 private:
  int folder_;
  std::size_t at_ = 0;
  std::size_t end_ = 0;
  // For two processes and hardly more.
  alignas(dirent64) char room_[72];
};

struct Place {
  pid_t process;  // to be found
  pid_t next;     // where the walk goes on
};

// Finds a process without what comes before it in the folder. That of the kernel has its processes
// in the order of their numbers, at positions that differ from these by a constant: what stands
// there, and is the one wanted, is what reading from the start would find. Otherwise the constant
// of this kernel is tried, which its entries tell: each knows the position of the next.
std::optional<Place> findAtOnce(int folder, pid_t wanted) {
  struct statfs system = {};
  if (wanted <= 0 || fstatfs(folder, &system) != 0 || system.f_type != PROC_SUPER_MAGIC) {
    return std::nullopt;
  }
  constexpr off64_t usual = 256 + 2;  // behind what the kernel lists before, "self", "thread-self"
  off64_t before = usual;
  for (int attempts = 0; attempts < 2; ++attempts) {
    if (lseek64(folder, before + wanted, SEEK_SET) < 0) {
      return std::nullopt;
    }
    Entries entries(folder);
    const dirent64* const entry = entries.next();
    const std::optional<pid_t> found = entry != nullptr ? processOf(entry->d_name) : std::nullopt;
    if (!found) {
      return std::nullopt;
    }
    const off64_t behind = entry->d_off;
    const dirent64* const nextEntry = entries.next();
    const std::optional<pid_t> next =
        nextEntry != nullptr ? processOf(nextEntry->d_name) : std::nullopt;
    if (*found == wanted) {
      return Place{wanted, next.value_or(successorOf(wanted))};
    }
    if (!next || behind - *next == before) {
      return std::nullopt;
    }
    before = behind - *next;
  }
  return std::nullopt;
}

std::optional<Place> findFromTheStart(DIR* folder, pid_t wanted) {
  while (const dirent* const entry = readdir(folder)) {
    const std::optional<pid_t> process = processOf(entry->d_name);
    if (process && (wanted == 0 || *process == wanted)) {
      // Only the one entry behind is looked at, and a walk ends where that is no process: kept
      // (docs/contract.md). The kernel lists all processes behind everything else.
      const dirent* const behind = readdir(folder);
      const std::optional<pid_t> next =
          behind != nullptr ? processOf(behind->d_name) : std::nullopt;
      return Place{*process, next.value_or(successorOf(*process))};
    }
  }
  return std::nullopt;
}

}  // namespace

int getprocs64(procentry64* entries, int, fdsinfo*, int, pid_t* index, int) {
  if (entries == nullptr || index == nullptr) {
    return -1;
  }
  const Folder folder(opendir("/proc"));
  if (folder == nullptr) {
    CUL_TRACE(TraceType::error, getprocsText, 39_place, "opendir(/proc) failed errno = %d", errno);
    return -1;
  }
  std::optional<Place> place = findAtOnce(dirfd(folder.get()), *index);
  if (!place) {
    rewinddir(folder.get());
    place = findFromTheStart(folder.get(), *index);
  }
  if (!place) {
    return -1;
  }
  entries->processId = place->process;
  *index = place->next;
  return 1;
}

int getargs(procentry64* entry, int, char* buffer, int length) {
  if (entry == nullptr || buffer == nullptr || length <= 0) {
    return -1;
  }
  char path[sizeof "/proc/-2147483648/cmdline"];
  std::snprintf(path, sizeof path, "/proc/%d/cmdline", entry->processId);
  const Descriptor file(open(path, O_RDONLY | O_CLOEXEC));
  if (!file.isOpen()) {
    CUL_TRACE(TraceType::error, getargsText, 99_place, "failed to open '%s' errno = %d", path,
              errno);
    return -1;
  }
  // An empty list is told from a buffer that has no room for arguments.
  char first;
  const auto room = static_cast<std::size_t>(length) - 1;
  std::size_t stored = 0;
  ssize_t n;
  do {
    n = room == 0 ? read(file.get(), &first, 1) : read(file.get(), buffer + stored, room - stored);
    if (n < 0) {
      // The process has gone meanwhile.
      CUL_TRACE(TraceType::error, getargsText, __LINE__, "failed to read '%s' errno = %d", path,
                errno);
      return -1;
    }
    stored += room == 0 ? 0 : static_cast<std::size_t>(n);
  } while (n > 0 && stored < room);
  // A read that gets all it asked for has not seen the end, even when nothing more is there.
  if (n > 0) {
    CUL_TRACE(TraceType::warning, getargsText, 105_place,
              "'%s' has arguments longer than %d args buffer", path, length);
  }
  buffer[stored] = '\0';
  return 0;
}
