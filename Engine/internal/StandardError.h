#pragma once

/// \file
/// What the library has to say on standard error.

/// Prints as `std::fprintf(stderr, ...)` does, in one call, so that the text stays whole among
/// those of other threads. Where it cannot be written it is lost: no signal comes of that, also
/// when nobody reads the pipe or the file has reached its limit. Keeps `errno`. Any thread.
__attribute__((format(printf, 1, 2))) void printError(const char* format, ...);
