#pragma once

#include "Engine/utilities/ProductData.h"

/// \file
/// For the library and its configuration module, which compare theirs.

/// The block of the binary that the caller is linked into.
const ProductData& ownProductData() noexcept;
