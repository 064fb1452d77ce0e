#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "Engine/internal/StandardError.h"

/// \file
/// What a launcher program does when it cannot go on.

/// Prints the system's text for the error and a newline on standard error, and aborts.
[[noreturn]] inline void failLaunch(int error) {
  printError("%s\n", std::strerror(error));
  std::abort();
}

/// Memory from malloc(), never null: without any, a launcher program cannot go on.
[[nodiscard]] inline void* launchMemory(std::size_t size) {
  void* const memory = std::malloc(size);
  if (memory == nullptr) {
    failLaunch(ENOMEM);
  }
  return memory;
}
