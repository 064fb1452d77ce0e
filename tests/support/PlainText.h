#pragma once

#include <string>
#include <string_view>

#include "Engine/utilities/CharString.h"
#include "Engine/utilities/EncodedString.h"

/// \file
/// The library's strings from plain UTF-8, and as such.

inline EncodedString encoded(std::string_view utf8) {
  return {utf8.data(), static_cast<unsigned>(utf8.size()), EncodedString::utf8};
}

inline std::string plain(const EncodedString& text) { return std::string(text.view()); }

inline std::string plain(const CharString& text) { return plain(text.encoded()); }
