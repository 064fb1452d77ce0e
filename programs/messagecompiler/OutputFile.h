#pragma once

/// \file
/// The file that a compiler writes: its new contents as a whole, or the file as it was.

#include <string>

/// Writes a file. The contents are written beside it, under a name of their own, and take its
/// place when they are complete; until then it is as it was, whatever happens. A signal that
/// would end the process waits until the file is the one or the other.
///
/// A file that is there must be open to writing, and keeps its permissions. A symbolic link stays
/// one: the file that it leads to is written. What is no regular file, such as a pipe, is
/// written to in place.
/// \return false, with the reason in `errno`, when it is as it was.
[[nodiscard]] bool writeOutput(const std::string& file, const std::string& contents);

/// Whether both are names of one regular file that is there.
[[nodiscard]] bool isSameFile(const std::string& a, const std::string& b);
