#pragma once

#include <string>
#include <vector>

/// \file
/// How the test program's main hands a fresh execution over to a child case.

/// The first argument of such an execution; the second names the case.
inline constexpr const char* childOption = "--child";

/// Runs the case.
/// \return the exit status: 0, 1 when an expectation failed, 125 for an unknown case.
int runChildCase(const std::string& name, std::vector<std::string> childArgumentTexts);
