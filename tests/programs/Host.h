#pragma once

#include <string>
#include <vector>

#include "tests/support/Child.h"

/// \file
/// The host that was built with the tests.

/// Its path.
extern const char* const host;

/// Runs it with these arguments.
ChildResult runHost(std::vector<std::string> words, const ChildOptions& options = {});
