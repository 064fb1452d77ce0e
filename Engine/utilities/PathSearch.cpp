#include "Engine/utilities/PathSearch.h"

#include <cerrno>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

#include "Engine/internal/StandardError.h"
#include "Engine/internal/SystemPath.h"
#include "Engine/internal/Texts.h"
#include "Engine/utilities/EnvironmentVariables.h"

namespace {

constexpr unsigned workingDirectoryRoom = 1024;
constexpr unsigned linkRoom = 1024;
constexpr unsigned usualDepth = 10;

// Any execute bit, whoever it is for. One bit of the file type is looked at, which sockets
// share with regular files: they pass too, and callers are used to it.
bool isCandidate(const EncodedString& path) {
  struct stat status = {};
  return stat(systemPath(path).c_str(), &status) == 0 && (status.st_mode & 0x8000) != 0 &&
         (status.st_mode & 0111) != 0;
}

}  // namespace

EncodedString searchPath(const EncodedString& name, const EncodedString& directories) {
  const std::string_view nameView = name.view();
  if (nameView.empty() || nameView.front() == '/') {
    return name;
  }
  const EncodedString separator("/", EncodedString::utf8);
  std::string_view list = directories.view();
  for (auto entry = nextPathEntry(list); !entry.empty(); entry = nextPathEntry(list)) {
    EncodedString candidate = encodedText(entry);
    if (entry.front() == '.') {
      if (const EncodedString current = workingDirectory(workingDirectoryRoom);
          current.length() != 0) {
        candidate = current + separator + candidate;
      }
    }
    candidate += separator;
    candidate += name;
    if (isCandidate(candidate)) {
      return candidate;
    }
  }
  return {};
}

EncodedString searchPath(const EncodedString& name) {
  const char* const path = std::getenv(environmentVariable("PATH"));
  return searchPath(
      name, path == nullptr ? EncodedString(".:", EncodedString::utf8) : pathFromSystem(path));
}

EncodedString resolveSymbolicLink(const EncodedString& path, unsigned int depth) {
  EncodedString result = path;
  for (;;) {
    char link[linkRoom + 1];
    const std::string current = systemPath(result);
    const ssize_t length = readlink(current.c_str(), link, linkRoom);
    if (length < 0) {
      if (errno == EACCES) {
        printError(
            "Access denied! The user running the debugger doesn't have permission to access %s\n",
            current.c_str());
      }
      return result;
    }
    if (length == linkRoom) {
      return result;
    }
    link[length] = 0;
    const EncodedString target = pathFromSystem(link);
    result = link[0] == '/' ? target : stripPath(result) + target;
    if (depth == 0) {
      throw EncodedString(result);
    }
    --depth;
  }
}

EncodedString resolveSymbolicLink(const EncodedString& path) {
  try {
    return resolveSymbolicLink(path, usualDepth);
  } catch (const EncodedString&) {
    printError("Cannot resolve symbolic link %s\n", systemPath(path).c_str());
    std::exit(-1);
  }
}

EncodedString stripPath(const EncodedString& path) {
  const std::string_view text = path.view();
  size_t last = text.rfind('/');
  if (last != std::string_view::npos && last != 0 && last == text.size() - 1) {
    last = text.rfind('/', last - 1);
  }
  return encodedText(text.substr(0, last + 1));  // Without a "/", `last` + 1 is 0.
}
