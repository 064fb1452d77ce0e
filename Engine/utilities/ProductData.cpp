#include "Engine/utilities/ProductData.h"

#include "Engine/internal/OwnProductData.h"

const ProductData& productData() noexcept { return ownProductData(); }
