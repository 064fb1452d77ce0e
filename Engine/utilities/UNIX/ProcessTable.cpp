#include "Engine/utilities/ProcessTable.h"

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <memory>
#include <optional>

#include "Engine/utilities/TraceFlags.h"

namespace {

constexpr const char* getprocsText =
    "int getprocs64(procentry64*, int, fdsinfo*, int, pid_t*, int)";
constexpr const char* getargsText = "int getargs(procentry64*, int, char*, int)";

struct CloseFolder {
  void operator()(DIR* folder) const { closedir(folder); }
};
using Folder = std::unique_ptr<DIR, CloseFolder>;

struct CloseStream {
  void operator()(FILE* stream) const { std::fclose(stream); }
};
using Stream = std::unique_ptr<FILE, CloseStream>;

// The number that makes up the whole name, as "%d%c" scans it. The result of "%d" is undefined
// for a number that no int holds: such a name is none of a process.
std::optional<pid_t> processOf(const dirent& entry) {
  char* end = nullptr;
  const long number = std::strtol(entry.d_name, &end, 10);
  if (end == entry.d_name || *end != '\0' || number < INT_MIN || number > INT_MAX) {
    return std::nullopt;
  }
  return static_cast<pid_t>(number);
}

pid_t successorOf(pid_t process) {
  return process < INT_MAX ? process + 1 : INT_MIN;  // No identifier of the kernel is that large.
}

// A stream takes the end of its file in only when it reads on from there. A first look tells an
// empty list also from a buffer that has no room for arguments. An end cannot be put back.
bool startsAtEnd(FILE* stream) { return std::ungetc(std::getc(stream), stream) == EOF; }

}  // namespace

int getprocs64(procentry64* entries, int, fdsinfo*, int, pid_t* index, int) {
  if (entries == nullptr || index == nullptr) {
    return -1;
  }
  const Folder folder(opendir("/proc"));
  if (folder == nullptr) {
    CUL_TRACE(TraceType::error, getprocsText, 39, "opendir(/proc) failed errno = %d", errno);
    return -1;
  }
  while (const dirent* const entry = readdir(folder.get())) {
    const std::optional<pid_t> process = processOf(*entry);
    if (!process) {
      continue;
    }
    if (*index == 0) {
      *index = *process;
    }
    if (*process == *index) {
      entries->processId = *process;
      // Deliberate: only the one entry behind is looked at, so that a walk ends early where that
      // is no process. The kernel lists all processes behind everything else.
      const dirent* const behind = readdir(folder.get());
      const std::optional<pid_t> next = behind != nullptr ? processOf(*behind) : std::nullopt;
      *index = next.value_or(successorOf(*process));
      return 1;
    }
  }
  return -1;
}

int getargs(procentry64* entry, int, char* buffer, int length) {
  if (entry == nullptr || buffer == nullptr || length <= 0) {
    return -1;
  }
  char path[sizeof "/proc/-2147483648/cmdline"];
  std::snprintf(path, sizeof path, "/proc/%d/cmdline", entry->processId);
  const Stream stream(std::fopen(path, "re"));  // Closed when a program is started.
  if (stream == nullptr) {
    CUL_TRACE(TraceType::error, getargsText, 99, "failed to open '%s' errno = %d", path, errno);
    return -1;
  }
  const auto room = static_cast<std::size_t>(length) - 1;
  const std::size_t stored =
      startsAtEnd(stream.get()) ? 0 : std::fread(buffer, 1, room, stream.get());
  if (std::ferror(stream.get()) != 0) {
    // The process has gone meanwhile.
    CUL_TRACE(TraceType::error, getargsText, __LINE__, "failed to read '%s' errno = %d", path,
              errno);
    return -1;
  }
  // A read that gets all it asked for has not seen the end, even when nothing more is there.
  if (std::feof(stream.get()) == 0) {
    CUL_TRACE(TraceType::warning, getargsText, 105, "'%s' has arguments longer than %d args buffer",
              path, length);
  }
  buffer[stored] = '\0';
  return 0;
}
