#pragma once

/// \file
/// Whether a signal has arrived at a place from which the thread's stack can be unwound.
/// Internal to the library.
///
/// pthread_exit() unwinds. That is sound where a function calls another or waits in the
/// kernel, but a signal may arrive anywhere: in the middle of malloc, whose lock would stay
/// taken for ever, or between two calls of a function with destructors, where the C++
/// runtime ends the process because the compiler has not foreseen an exception there.

/// Looks at all frames from the signal that is being handled to `entryFrame`. Every frame
/// must be at an instruction that its exception table (layout: the LSDA of the Itanium C++
/// ABI as written by g++ and clang) lists, and the innermost outside the C library and its
/// like, unless it is a system call that the signal cut short. Calls nothing that is not
/// safe in a signal handler.
/// \param entryFrame frame address of the thread's entry function, which must be found;
///   null: not asked for.
bool canUnwindFromSignal(const void* entryFrame);
