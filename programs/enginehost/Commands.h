#pragma once

/// \file
/// The host's small commands: its first argument names one, as in "enginehost -settings".
/// They start nothing and are no options of a debugger process.

#include <span>

struct Command {
  const char* name;
  const char* arguments;  ///< as the usage shows them, "" for none

  /// \param arguments those behind the name
  /// \return the host's exit status
  int (*run)(std::span<char* const> arguments);
};

std::span<const Command> commands();

/// \return null when it is no command.
const Command* findCommand(const char* name);
