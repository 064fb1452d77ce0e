#include "Engine/utilities/Launch.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "Engine/internal/LaunchFailure.h"
#include "Engine/utilities/ManageLIBPATH.h"
#include "Engine/utilities/SharedEntry.h"

using ManagedString = ManageLIBPATH::ManagedString;

namespace {

bool hasValue(const char* entry) {
  const char* const sign = std::strchr(entry, '=');
  return sign != nullptr && sign[1] != 0;
}

}  // namespace

void loadAndExecute(const char* program, int /*argc*/, char** argv) {
  char* const directory = ManageLIBPATH::getLibPath(argv[0]);
  ManagedString path(directory);
  std::free(directory);
  path += "/";
  path += program;
  argv[0] = path.release();
  execvp(argv[0], argv);
  failLaunch(errno);
}

void* loadSharedLib(const char* argv0, const char* name, const char* member, const char* entry) {
  std::free(ManageLIBPATH::getLibPath(argv0));
  void* const address = loadSharedEntry(name, member, entry, nullptr);
  if (address == nullptr) {
    std::abort();
  }
  return address;
}

char** cleanEnvironment(const char* const* environment) {
  std::size_t count = 0;
  while (environment[count] != nullptr) {
    ++count;
  }
  auto** const result = static_cast<char**>(launchMemory((count + 1) * sizeof(char*)));
  char** next = result;
  for (; *environment != nullptr; ++environment) {
    if (hasValue(*environment)) {
      *next++ = ManagedString::dupString(*environment);
    }
  }
  *next = nullptr;
  return result;
}

void cleanLIBPATHandRun(int /*argc*/, char** /*argv*/) {}
