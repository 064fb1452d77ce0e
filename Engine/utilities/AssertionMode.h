#pragma once

#include "Engine/utilities/Export.h"

/// \file
/// What a failed assertion does beyond leaving a line in the trace. The user chooses it
/// with the environment variable "QVX_DBG_ASSERTION": words separated by "," or blanks, in
/// upper case, each changing what the words before it have set. "EXCEPTION" and
/// "NOEXCEPTION" switch throwing on and off, "POPUP" and "NOPOPUP" printing. A value with
/// any other word is refused as a whole. Without the variable both are off.
///
/// It stands low so that every floor can assert, and asserts nothing itself.

/// Bit of assertionMode(): a failed assertion throws.
inline constexpr int assertionThrows = 1;

/// Bit of assertionMode(): a failed assertion prints itself on standard error.
inline constexpr int assertionPrints = 2;

/// The user's choice, a set of the two bits. The variable is read by the first call and the
/// answer kept, so that an assertion is judged alike for the life of the process. Any
/// thread.
[[nodiscard]] CUL_EXPORT int assertionMode() noexcept;
