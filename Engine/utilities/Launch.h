#pragma once

#include "Engine/utilities/Export.h"

/// \file
/// What a launcher program does once it is started: sets up the library path and turns into
/// the real program, or loads a module and goes on there.
///
/// As ManageLIBPATH, which does the first half, these work before any other part of the
/// library is usable. Failures print the system's or the dynamic loader's text and a newline
/// on standard error and abort as there: the status is 99, and exit handlers run. Not
/// thread-safe.

/// Runs `program` from the folder of this program's executable, in place of this program.
/// The library path is set up as by ManageLIBPATH::getLibPath().
/// \param program the name of a file in that folder.
/// \param argc not used: the null pointer tells where the arguments end.
/// \param argv the new program's arguments, null-terminated; argv[0], this program's name, is
///   replaced by the path of the new one.
[[noreturn]] CUL_EXPORT void loadAndExecute(const char* program, int argc, char** argv);

/// Sets up the library path and loads an entry of the library "lib%s.so" made from `name`.
/// The library is found as loadSharedEntry() finds it, as the search path was when the process
/// started.
/// \param argv0  the name this program was called by.
/// \param name   stands between "lib" and ".so".
/// \param member not used.
/// \param entry  the name of the symbol.
/// \return the entry's address, never null.
[[nodiscard]] CUL_EXPORT void* loadSharedLib(const char* argv0, const char* name,
                                             const char* member, const char* entry);

/// A copy of an environment without the variables that have no value: only entries with a
/// "=" and at least one character behind it.
/// \param environment null-terminated.
/// \return null-terminated. The caller frees each entry and the array with free().
[[nodiscard]] CUL_EXPORT char** cleanEnvironment(const char* const* environment);

/// Does nothing: the library path of this platform needs no cleaning.
CUL_EXPORT void cleanLIBPATHandRun(int argc, char** argv);
