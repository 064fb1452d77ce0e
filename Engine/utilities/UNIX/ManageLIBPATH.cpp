#include "Engine/utilities/ManageLIBPATH.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "Engine/internal/LaunchFailure.h"
#include "Engine/internal/ProcessWide.h"

using ManagedString = ManageLIBPATH::ManagedString;

namespace {

constexpr const char* libraryPath = "LD_LIBRARY_PATH";
constexpr const char* marker = "QVX_DBG_LD_LIBRARY_PATH";

constexpr unsigned workingDirectoryRoom = 1024;
constexpr unsigned mostLinks = 40;

char* newCharacters(std::size_t size) { return static_cast<char*>(launchMemory(size)); }

ManagedString firstCharacters(const char* text, std::size_t length) {
  char* const copy = newCharacters(length + 1);
  std::memcpy(copy, text, length);
  copy[length] = 0;
  ManagedString result(copy);
  std::free(copy);
  return result;
}

// Lives as long as the process: the environment points at the entry.
struct LibraryPath {
  explicit LibraryPath(const char* argv0) : directory(ManageLIBPATH::executableLocation(argv0)) {
    if (!directory.hasText()) {
      failLaunch(ENOENT);
    }
    if (std::getenv(marker) != nullptr) {
      return;
    }
    previous = std::getenv(libraryPath);
    entry = libraryPath;
    entry += "=";
    entry += directory;
    if (previous.hasText()) {
      entry += ":";
      entry += previous;
    }
    const char* const kept = previous.hasText() ? static_cast<const char*>(previous) : "";
    // The environment takes the entry itself, not a copy, and does not change it.
    if (putenv(const_cast<char*>(static_cast<const char*>(entry))) != 0 ||
        setenv(marker, kept, 1) != 0) {
      failLaunch(errno);
    }
  }

  ManagedString directory;
  ManagedString previous;  // Null when there was none.
  ManagedString entry;
};

}  // namespace

ManagedString::ManagedString(const char* text) : text_(dupString(text)) {}

ManagedString::ManagedString(const ManagedString& other) : ManagedString(other.text_) {}

ManagedString::ManagedString(ManagedString&& other) noexcept : text_(other.release()) {}

ManagedString::~ManagedString() { std::free(text_); }

ManagedString& ManagedString::operator=(ManagedString other) noexcept {
  std::swap(text_, other.text_);
  return *this;
}

ManagedString& ManagedString::operator+=(const char* text) {
  if (text != nullptr) {
    const std::size_t length = text_ == nullptr ? 0 : std::strlen(text_);
    const std::size_t added = std::strlen(text);
    char* const whole = newCharacters(length + added + 1);
    if (length != 0) {
      std::memcpy(whole, text_, length);
    }
    std::memcpy(whole + length, text, added + 1);
    std::free(text_);
    text_ = whole;
  }
  return *this;
}

char* ManagedString::release() noexcept { return std::exchange(text_, nullptr); }

char* ManagedString::dupString(const char* text) {
  if (text == nullptr) {
    return nullptr;
  }
  const std::size_t size = std::strlen(text) + 1;
  return static_cast<char*>(std::memcpy(newCharacters(size), text, size));
}

char* ManageLIBPATH::getLibPath(const char* argv0) {
  static constinit ProcessWide<const LibraryPath> path;
  return ManagedString::dupString(path.get([&] { return new LibraryPath(argv0); }).directory);
}

ManagedString ManageLIBPATH::executableLocation(const char* argv0) {
  try {
    return stripPath(resolveSymbolicLink(qualifiedExecutable(argv0)));
  } catch (int) {
    return {};
  }
}

ManagedString ManageLIBPATH::qualifiedExecutable(const char* argv0) {
  const char* const name = argv0 == nullptr ? "" : argv0;
  if (*name == '/') {
    return name;
  }
  char directory[workingDirectoryRoom];
  if (getcwd(directory, sizeof directory) == nullptr) {
    throw int(errno);
  }
  if (*name == '.') {
    ManagedString path = absPath(directory, name);
    if (!isExecutable(path)) {
      throw ENOENT;
    }
    return path;
  }
  const char* entry = std::getenv("PATH");
  while (entry != nullptr) {
    const char* const end = std::strchr(entry, ':');
    ManagedString path = firstCharacters(
        entry, end == nullptr ? std::strlen(entry) : static_cast<std::size_t>(end - entry));
    path += "/";
    path += name;
    if (isExecutable(path)) {
      return absPath(directory, path);
    }
    entry = end == nullptr ? nullptr : end + 1;
  }
  throw ENOENT;
}

ManagedString ManageLIBPATH::resolveSymbolicLink(const ManagedString& path) {
  ManagedString result = path;
  for (unsigned links = 0; result != nullptr; ++links) {
    char target[PATH_MAX];
    const ssize_t length = readlink(result, target, sizeof target - 1);
    if (length < 0) {
      break;
    }
    if (links == mostLinks) {
      throw ELOOP;
    }
    target[length] = 0;
    if (*target == '/') {
      result = target;
    } else {
      const char* const name = std::strrchr(result, '/');
      ManagedString next = firstCharacters(
          result, name == nullptr ? 0 : static_cast<std::size_t>(name - result) + 1);
      next += target;
      result = std::move(next);
    }
  }
  return result;
}

ManagedString ManageLIBPATH::stripPath(const ManagedString& path) {
  const char* const last = path == nullptr ? nullptr : std::strrchr(path, '/');
  if (last == nullptr) {
    return "";
  }
  return firstCharacters(path, last == path ? 1 : static_cast<std::size_t>(last - path));
}

bool ManageLIBPATH::isExecutable(const ManagedString& path) {
  struct stat status = {};
  return path != nullptr && stat(path, &status) == 0 && S_ISREG(status.st_mode) &&
         access(path, X_OK) == 0;
}

ManagedString ManageLIBPATH::absPath(const char* directory, const char* path) {
  if (*path == '/') {
    return path;
  }
  ManagedString result = directory;
  if (std::strncmp(path, "./", 2) == 0) {
    result += path + 1;
  } else {
    result += "/";
    result += path;
  }
  return result;
}
