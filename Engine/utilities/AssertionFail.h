#pragma once

#include "Engine/utilities/Export.h"

/// \file
/// The assertion handler. An engine must keep serving its user after an internal
/// inconsistency: a failed assertion is traced, then printed and/or thrown as the user has
/// chosen (see assertionMode()), and never ends the process by itself, not even where standard
/// error can no longer be written. Any thread.

/// Handles a failed assertion.
/// \param condition  the value of the assertion; nothing at all is done when it is nonzero.
/// \param file       source path of the assertion; like the other texts, null counts as empty.
/// \param function   signature of the enclosing function.
/// \param line       source line.
/// \param expression text of the asserted expression.
/// \throws StdException with `expression` as its text and status -1, when the mode says so.
CUL_EXPORT void AssertionFail(int condition, const char* file, const char* function, unsigned line,
                              const char* expression);
