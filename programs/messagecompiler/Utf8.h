#pragma once

/// \file
/// UTF-8 as the Unicode standard defines it.

#include <cstddef>
#include <string_view>

/// The number of bytes of the character at the start of `text`; 0 when none starts there.
/// Overlong forms, surrogates and values above U+10FFFF are no characters.
[[nodiscard]] std::size_t characterSize(std::string_view text);

[[nodiscard]] bool isUtf8(std::string_view text);
