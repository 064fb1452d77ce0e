#pragma once

/// \file
/// The one export macro: what carries it is the library's interface, everything else is
/// hidden.

#define CUL_EXPORT __attribute__((visibility("default")))
