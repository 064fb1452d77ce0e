#pragma once

#include <string_view>

#include "Engine/utilities/EncodedString.h"

/// \file
/// Plain text as one of the string types. The way back is `view()`.

/// The text of bytes that are UTF-8.
[[nodiscard]] inline EncodedString encodedText(std::string_view bytes) {
  return {bytes.data(), static_cast<unsigned>(bytes.size()), EncodedString::utf8};
}
