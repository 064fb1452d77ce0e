#pragma once

#include "Engine/utilities/Export.h"

/// \file
/// What the library says of itself: the product-data block, written by the build.

/// Name, version and build time of this library. The texts live as long as the process.
struct ProductData {
  const char* name;              ///< Product name.
  const char* version;           ///< Three numbers separated by points.
  const char* buildDateAndTime;  ///< UTC, as "2026-01-31 23:59:59".
  const char* buildStamp;        ///< The same moment as 14 digits.
};

/// The block of this library.
CUL_EXPORT const ProductData& productData() noexcept;
