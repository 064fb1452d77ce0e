#pragma once

/// \file
/// What the user is told about the processes of the machine.

#include <span>

/// The command "-processes [--json]". Prints every process on standard output: its identifier
/// and its arguments. Threads of the kernel and processes that wait to be reaped have none. A
/// process that ends meanwhile is left out.
int processesCommand(std::span<char* const> arguments);
