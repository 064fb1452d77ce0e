#pragma once

#include <map>
#include <string>
#include <vector>

/// \file
/// How a child case is started in a fresh execution of the test program, and how the test
/// program's main hands that execution over to it.

/// The first argument of such an execution; the second names the case.
inline constexpr const char* childOption = "--child";

/// Runs the case.
/// \return the exit status: 0, 1 when an expectation failed, 125 for an unknown case.
int runChildCase(const std::string& name, std::vector<std::string> childArgumentTexts);

/// The minimal environment of a child with the variables `added`, as "name=value".
std::vector<std::string> childEnvironment(const std::map<std::string, std::string>& added);

/// The words of the command that runs the child case `name`.
std::vector<std::string> childCommand(const std::string& name,
                                      const std::vector<std::string>& arguments);

/// The null-terminated array that `execve` takes; it points into `texts`.
std::vector<char*> pointersTo(std::vector<std::string>& texts);
