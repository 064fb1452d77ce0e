#pragma once

#include <string_view>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/EncodedString.h"

/// \file
/// What strings hold, to compare it with. Pointers and views are valid until the string changes.

[[nodiscard]] inline const char* charsOf(const EncodedString& text) noexcept { return text; }

[[nodiscard]] inline const char* charsOf(const ByteString& bytes) noexcept {
  const unsigned char* const first = bytes;
  return reinterpret_cast<const char*>(first);
}

[[nodiscard]] inline std::string_view viewOf(const EncodedString& text) noexcept {
  return {charsOf(text), text.length()};
}

[[nodiscard]] inline std::string_view viewOf(const ByteString& bytes) noexcept {
  return {charsOf(bytes), bytes.length()};
}
