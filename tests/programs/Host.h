#pragma once

#include <string>
#include <vector>

#include "tests/support/Child.h"

/// \file
/// The host that was built with the tests.

inline constexpr const char* host = CUL_ENGINEHOST;

/// Runs the host with these arguments.
inline ChildResult runHost(std::vector<std::string> words, const ChildOptions& options = {}) {
  words.insert(words.begin(), host);
  return runProgram(words, options);
}
