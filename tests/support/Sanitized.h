#pragma once

/// \file
/// Whether the tests are built with a sanitizer. What it sees, it sees soon: tests that do the same
/// many times over do it less often then.

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool isSanitized = true;
#else
inline constexpr bool isSanitized = false;
#endif
