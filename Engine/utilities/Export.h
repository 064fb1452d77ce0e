#pragma once

/// \file
/// The one export macro: what carries it is the library's interface, everything else is
/// hidden.

/// Stands in front of the name of a public class and of a public function's declaration.
#define CUL_EXPORT __attribute__((visibility("default")))
