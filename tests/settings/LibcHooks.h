#pragma once

#include <ctime>

/// \file
/// The calls of the C library by which settings read the environment and sleep. This test
/// program has its own definitions of both, which stand before those of the C library also
/// for the library under test.

/// Called for every `getenv`, with the name, while it is set; what it reads itself is not
/// announced.
extern void (*environmentRead)(const char* name);

/// Takes the place of `nanosleep` while it is set.
extern int (*sleepInstead)(const timespec* duration, timespec* left);
