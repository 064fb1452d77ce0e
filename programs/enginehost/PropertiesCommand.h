#pragma once

/// \file
/// What the user is told about a property file.

#include <span>

/// The command "-properties FILE [KEY]". Prints the properties of a file on standard output,
/// one "key=value" in a line and in the order of the keys' bytes; or the value of one key as
/// it stands, status 1 and nothing when there is no such key. What is no regular file, or has a
/// line of more than 16 megabytes, is refused.
int propertiesCommand(std::span<char* const> arguments);
