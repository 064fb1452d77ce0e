#include "Engine/utilities/ProductData.h"

const ProductData& productData() noexcept { return ownProductData(); }
