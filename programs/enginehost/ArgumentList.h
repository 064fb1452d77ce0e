#pragma once

/// \file
/// The arguments of a process and how the host shows them.

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

struct ArgumentList {
  std::vector<std::string> arguments;  ///< any bytes but zero
  bool isCut = false;  ///< Something is missing at the end, perhaps of the last argument too.
};

/// The size of the area that arguments are taken into; a list of that many bytes, with a zero
/// byte for each argument, is cut.
constexpr int argumentsSize = 65536;

/// \return nothing for a process that has ended.
std::optional<ArgumentList> argumentsOf(pid_t process);

/// The arguments in one line with a blank between them. One that could be taken for something
/// else stands in double quotes: an empty one, "..." and one with a blank, a double quote, a
/// backslash or a control character. Within quotes there is a backslash before a double quote and
/// a backslash, and control characters are hexadecimal. Behind a cut list stands a plain "...".
std::string shown(const ArgumentList& list);
