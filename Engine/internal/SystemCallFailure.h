#pragma once

/// \file
/// How the library reports a failing system call: one trace line under "ERROR" and one
/// StdException with status -1.

/// Traces and throws. `errno`, where it is part of the message, is an argument of the format
/// and so is read before anything can change it.
/// \param function  signature text of the operation, location of both trace and exception.
/// \param traceLine line shown in the trace.
/// \param throwLine line of the exception.
/// \param text      text of the exception.
/// \param format    the traced message, as for printf.
[[noreturn]] void failSystemCall(const char* function, unsigned int traceLine,
                                 unsigned int throwLine, const char* text, const char* format, ...)
    __attribute__((format(printf, 5, 6)));
