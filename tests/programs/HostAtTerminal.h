#pragma once

#include <string>
#include <termios.h>
#include <vector>

#include "tests/programs/Host.h"
#include "tests/support/Terminal.h"

/// \file
/// The host at a terminal, with a program.

/// \param words the program and its arguments.
void startHost(Terminal& terminal, std::vector<std::string> words, TerminalOptions options = {});

void startHostedShell(Terminal& terminal, const std::string& script,
                      const TerminalOptions& options = {});

/// Whether the terminal hands on every key: a host has a console for its program.
bool isRaw(const Terminal& terminal);

bool hasModesOf(const Terminal& terminal, const termios& modes);

/// A script that shows that it reads what is typed.
inline constexpr const char* answering = "echo ready; while read line; do echo \"<$line>\"; done";
