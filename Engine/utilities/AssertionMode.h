#pragma once

#include "Engine/utilities/Export.h"

/// \file
/// What a failed assertion does beyond leaving a line in the trace: the setting "ASSERTION"
/// (see DebuggerSettings) says it. "EXCEPTION" and "NOEXCEPTION" switch throwing on and off,
/// "POPUP" and "NOPOPUP" printing; both are off unless the user has chosen otherwise.
///
/// Declared low so that every floor can assert.

/// Bit of assertionMode(): a failed assertion throws.
inline constexpr int assertionThrows = 1;

/// Bit of assertionMode(): a failed assertion prints itself on standard error.
inline constexpr int assertionPrints = 2;

/// The present number of the setting "ASSERTION", a set of the two bits. Until the registry of
/// settings has been built it is the one that the environment gave at the first such call:
/// asking builds no registry and loads no module. 0 for an assertion that fails on the way of
/// that first call. Any thread.
[[nodiscard]] CUL_EXPORT int assertionMode();
