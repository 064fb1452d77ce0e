#pragma once

/// \file
/// Text from one code page to another, for shells.

#include <span>

/// The command "-convert FROM TO". Converts standard input to standard output, as it comes and
/// byte by byte: nothing is added or dropped, zero bytes are ordinary ones. CodePageStreams.h tells
/// the names of code pages, and what comes out for what cannot be read or written.
int convertCommand(std::span<char* const> arguments);
