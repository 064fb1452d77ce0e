#pragma once

#include <cstdint>

/// \file
/// What the compiler has noted of the calls of a function: the exception tables (the LSDA of
/// the Itanium C++ ABI, as written by g++ and clang). Nothing here
/// allocates or takes a lock; it may run in a signal handler.

/// What the exception table of a function says of one of its instructions.
enum class Listed {
  no,              ///< Nothing: an exception that comes from there calls std::terminate().
  withoutCleanup,  ///< An exception may leave the function there, and nothing is to be done.
  withCleanup      ///< An exception may arise there; a destructor or handler waits for it.
};

/// Looks an instruction up. A table that does not read like one, or reaches beyond the file
/// it was loaded from, lists nothing.
/// \param table  the function's.
/// \param offset of the instruction from the function's start, in bytes.
Listed lookUp(const unsigned char* table, std::uintptr_t offset);
