#pragma once

#include <cstdio>
#include <cstdlib>
#include <cstring>

/// How a launcher program reports what it cannot go on without: the system's text for the
/// error and a newline on standard error. Then aborts. Internal to the library.
[[noreturn]] inline void failLaunch(int error) {
  std::fprintf(stderr, "%s\n", std::strerror(error));
  std::abort();
}
