#pragma once

/// \file
/// The end of what a command prints.

/// Writes out what standard output still holds.
/// \return 0; statusHostFailed, after one line that says so, when not everything that was
///         printed could be written.
int finishOutput();
