#pragma once

/// \file
/// What the user is told about calling the host.

/// One line on standard error.
void printShortUsage();

/// The options and the settings, from their tables, on standard output.
void printUsage();
