#pragma once

/// \file
/// Whether the stack of the calling thread can be unwound from where it is, also when that
/// is a signal handler. Internal to the library.
///
/// pthread_exit() unwinds. That is sound where a function calls another or waits in the
/// kernel, but a signal may arrive anywhere: in the middle of malloc, whose lock would stay
/// taken for ever, or between two calls of a function with destructors, where the compiler
/// has not foreseen an exception: the C++ runtime would end the process there, or run the
/// destructors with the wrong registers.

/// Looks at all frames from the caller, or when a signal is being handled from the place of
/// the signal, to `entryFrame`. Every call must be one that the exception table of its
/// function lists (the LSDA of the Itanium C++ ABI as written by g++ and clang). The place of
/// a signal must be a system call of a cancellation point that the signal cut short, or lie outside
/// this library, the C library and its like where no clean-up is due. Calls nothing that is not
/// safe in a signal handler. \param entryFrame frame address of the thread's entry function, which
/// must be found;
///   null: not asked for.
bool canUnwind(const void* entryFrame);
