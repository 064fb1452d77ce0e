#include "tests/settings/LibcHooks.h"

#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <unistd.h>
#include <utility>

void (*environmentRead)(const char* name) = nullptr;
int (*sleepInstead)(const timespec* duration, timespec* left) = nullptr;

extern "C" char* getenv(const char* name) noexcept {
  if (auto* const announce = std::exchange(environmentRead, nullptr); announce != nullptr) {
    announce(name);
    environmentRead = announce;
  }
  const size_t length = strlen(name);
  for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
    if (strncmp(*variable, name, length) == 0 && (*variable)[length] == '=') {
      return *variable + length + 1;
    }
  }
  return nullptr;
}

extern "C" int nanosleep(const timespec* duration, timespec* left) {
  if (sleepInstead != nullptr) {
    return sleepInstead(duration, left);
  }
  static auto* const real =
      reinterpret_cast<int (*)(const timespec*, timespec*)>(dlsym(RTLD_NEXT, "nanosleep"));
  return real(duration, left);
}
