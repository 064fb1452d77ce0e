#pragma once

/// \file
/// What the user is told about the host and about calling it.

#include <span>

/// One line on standard error.
void printShortUsage();

/// The command "--help", which is the option "-?" as well: the options and the settings, from
/// their tables, on standard output.
int helpCommand(std::span<char* const> arguments);

/// The command "--version": the name, the version and the build stamp in one line on standard
/// output.
int versionCommand(std::span<char* const> arguments);
