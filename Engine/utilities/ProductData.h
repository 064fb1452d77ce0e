#pragma once

#include "Engine/utilities/Export.h"

/// \file
/// What the library says of itself: the product-data block, written by the build.
///
/// The block is compiled once per build and linked into the library and into its
/// configuration module, so that each can be asked which build it comes from.

/// Name, version and build time of a build. The texts live as long as the process.
struct ProductData {
  const char* name;              ///< Product name.
  const char* version;           ///< Three numbers separated by points.
  const char* buildDateAndTime;  ///< UTC, as "2026-01-31 23:59:59".
  const char* buildStamp;        ///< The same moment as 14 digits.
};

/// The block of the library.
CUL_EXPORT const ProductData& productData() noexcept;
