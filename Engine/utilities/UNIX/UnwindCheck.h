#pragma once

/// \file
/// Whether the stack of the calling thread can be unwound from where it is, also when that
/// is a signal handler. Internal to the library.
///
/// Why it exists: a thread that is asked to end calls pthread_exit() in a signal handler, and
/// pthread_exit() unwinds the stack, from whatever instruction the signal arrived at. The
/// compiler has prepared for that only at calls that may throw. Anywhere else in a function
/// with something to clean up, and everywhere in a noexcept one, the exception table lists
/// nothing, and the C++ runtime answers with std::terminate(); at a listed place between two
/// calls the destructors would run with the wrong registers; and in the middle of malloc()
/// a lock would stay taken for ever. So the handler asks here first, reading the same tables
/// as the runtime will, and tries again a little later when the answer is no. A wrong "no"
/// costs such a moment, a wrong "yes" the process: whatever cannot be read or is not known
/// is a "no".

/// Looks at all frames from the caller, or when a signal is being handled from the place of
/// the signal, to the outermost. Every call must be one that the exception table of its
/// function lists (the LSDA of the Itanium C++ ABI as written by g++ and clang). The place of
/// a signal must be a system call of a cancellation point that the signal cut short, or lie
/// outside this library, the C library and its like where no clean-up is due. Calls nothing
/// that is not safe in a signal handler.
///
/// \param entryFrame frame address of the thread's entry function, which must be found;
///   null: not asked for.
bool canUnwind(const void* entryFrame);
