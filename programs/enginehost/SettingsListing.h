#pragma once

/// \file
/// What the user is told about the settings of this process.

#include <span>

/// The command "-settings [--json]". Prints every setting on standard output: type, permitted
/// values, default, present value and where that came from; a value in the environment that
/// the setting refuses, with the reason; and variables that look like a setting's and are none,
/// with the nearest name.
int settingsCommand(std::span<char* const> arguments);
